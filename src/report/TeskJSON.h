// A small JSON writer in the layout of Apple's JSONSerialization: sorted keys, "/"
// written as "\/", non-ASCII kept as raw UTF-8, and a pretty form with "key" : value
// and two-space indentation. Only writing: tesk never has to read JSON it emitted.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace TeskJSON {

// Whether "/" is written as "\/" (Apple's JSONSerialization does; the receipt, the
// error line and messages to the user do not).
enum class Slash { escaped, plain };

// The one JSON string escaper of the program. Appends the inside of a JSON string:
// quote and backslash backslash-escaped, \b \f \n \r \t by name, every other control
// below U+0020 as \u00xx, "/" as `slash` says; each maximal ill-formed UTF-8 subpart
// becomes U+FFFD, so the text always parses.
void appendEscaped(std::string& out, std::string_view utf8, Slash slash);
// The same between double quotes.
void appendString(std::string& out, std::string_view utf8, Slash slash = Slash::escaped);
// The quoted form of `utf8` as a new string.
std::string quoted(std::string_view utf8);

// Appends the shortest decimal that reads back as `value`, never with an exponent and
// without a fraction when integral (1767225600, 1678307200.5, 0.0000001). Returns
// false, appending nothing, for NaN and infinities, which JSON cannot hold.
bool appendNumber(std::string& out, double value);

// A JSON value tree for documents built once (the api document), not for per-row use.
struct Value;
using Array = std::vector<Value>;
using Object = std::map<std::string, Value>;  // std::map: keys come out sorted by byte

struct Value {
  std::variant<std::nullptr_t, bool, int64_t, double, std::string, std::shared_ptr<Array>,
               std::shared_ptr<Object>>
      v;

  Value() : v(nullptr) {}
  Value(std::nullptr_t) : v(nullptr) {}
  Value(bool b) : v(b) {}
  Value(int i) : v(static_cast<int64_t>(i)) {}
  Value(int64_t i) : v(i) {}
  Value(double d) : v(d) {}
  Value(const char* s) : v(std::string(s)) {}
  Value(std::string s) : v(std::move(s)) {}
  Value(std::string_view s) : v(std::string(s)) {}
  Value(Array a) : v(std::make_shared<Array>(std::move(a))) {}
  Value(Object o) : v(std::make_shared<Object>(std::move(o))) {}
};

// One line, no white space, keys sorted. Nothing when the tree holds a non-finite
// number (the platform writer refuses those too).
std::optional<std::string> compact(const Value& value);
// Apple's pretty layout: "{\n  \"key\" : value,\n  ...\n}", arrays "[\n    x\n  ]",
// an empty container as an empty line between its brackets. Nothing on a non-finite
// number.
std::optional<std::string> pretty(const Value& value);

}  // namespace TeskJSON
