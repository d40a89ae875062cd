// A small JSON reader for the few status files tesk reads (it never writes JSON
// through this type). Strict RFC 8259 text, bounded nesting, no exceptions: hostile
// bytes yield nothing, never a crash.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace TeskJSONValue {

struct Value;
using Array = std::vector<Value>;
// Members in written order, repeats included (the tests check tesk's own key order);
// member() reads a repeated key's last value, as most parsers do.
using Object = std::vector<std::pair<std::string, Value>>;

// One parsed JSON value. Numbers are doubles, and keep their text as written: a
// double cannot hold every integer (a JSON-RPC id above 2^53 must come back as sent).
struct Value {
  std::variant<std::nullptr_t, bool, double, std::string, Array, Object> v = nullptr;
  std::string numberText;

  bool isNull() const { return std::holds_alternative<std::nullptr_t>(v); }
  // The payload when the value has that type, else null.
  const bool* boolean() const { return std::get_if<bool>(&v); }
  const double* number() const { return std::get_if<double>(&v); }
  const std::string* string() const { return std::get_if<std::string>(&v); }
  const Array* array() const { return std::get_if<Array>(&v); }
  const Object* object() const { return std::get_if<Object>(&v); }
  // The member `key` of an object, or null when this is not an object or lacks it.
  const Value* member(std::string_view key) const;
  // An object's keys in written order; empty for anything else.
  std::vector<std::string> keys() const;
};

// Deepest nesting of arrays and objects accepted.
inline constexpr int kMaxDepth = 64;

// Parses one JSON text (surrounding white space allowed). Nothing on any syntax error,
// invalid UTF-8, a lone surrogate escape, nesting deeper than kMaxDepth or trailing
// bytes.
std::optional<Value> parse(std::string_view text);

}  // namespace TeskJSONValue
