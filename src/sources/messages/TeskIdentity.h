// Handle identity: one canonical form per person (phone digits merged, e-mail
// lower-cased) and the --who match of a query against a handle.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace TeskIdentity {

// Trimmed; an e-mail (contains "@") lower-cased; 10+ digits -> "+" and the last
// 10; 1-9 digits -> the digits; no digits -> lower-cased text; blank -> "".
// Digits are any Unicode numeric character (decimal digits as their value 0-9).
std::string canonical(std::string_view handle);

// True when the trimmed, lower-cased query is a substring of the lower-cased
// handle, or has 7+ digits that appear in order inside the handle's digits.
// An empty query matches nothing.
bool matches(std::string_view query, std::string_view handle);

// A query prepared once for many handles: Query(q).matches(h) == matches(q, h).
// Inside SQL one is kept per statement, so each row pays only for its handle.
class Query {
 public:
  explicit Query(std::string_view query);
  bool matches(std::string_view handle) const;

 private:
  std::string lowered_;  // trimmed and lower-cased
  std::string digits_;   // the digits of lowered_
  size_t digitCount_ = 0;
  bool ascii_ = false;
};

}  // namespace TeskIdentity
