// Writer of NSKeyedArchiver binary property lists (through libplist).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace demohome {

// A keyed archive whose root object is the string s (how the account database
// stores data-class names).
std::vector<uint8_t> keyedString(const std::string& s);

// One NSError of a chain: domain, code and extra string entries of its user info.
struct ErrorLink {
  std::string domain;
  int64_t code = 0;
  std::vector<std::pair<std::string, std::string>> info;
};

// A keyed archive of chain[0], each error holding the next one under
// NSUnderlyingError in its user info. Empty chain: empty result.
std::vector<uint8_t> keyedErrorChain(const std::vector<ErrorLink>& chain);

}  // namespace demohome
