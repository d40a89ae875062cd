#include "report/TeskJSON.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace TeskJSON {

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when the bytes there are not one
// (overlong forms, surrogates and code points above U+10FFFF included).
size_t utf8Length(std::string_view s, size_t i) {
  auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  unsigned char c = b(i);
  size_t n = s.size() - i;
  auto cont = [&](size_t k) { return (b(i + k) & 0xC0) == 0x80; };
  if (c >= 0xC2 && c <= 0xDF) return n >= 2 && cont(1) ? 2 : 0;
  if (c >= 0xE0 && c <= 0xEF) {
    if (n < 3 || !cont(1) || !cont(2)) return 0;
    if (c == 0xE0 && b(i + 1) < 0xA0) return 0;   // overlong
    if (c == 0xED && b(i + 1) >= 0xA0) return 0;  // surrogate
    return 3;
  }
  if (c >= 0xF0 && c <= 0xF4) {
    if (n < 4 || !cont(1) || !cont(2) || !cont(3)) return 0;
    if (c == 0xF0 && b(i + 1) < 0x90) return 0;   // overlong
    if (c == 0xF4 && b(i + 1) >= 0x90) return 0;  // above U+10FFFF
    return 4;
  }
  return 0;
}

bool write(std::string& out, const Value& value, bool pretty, int depth);

void indent(std::string& out, int depth) { out.append(static_cast<size_t>(depth) * 2, ' '); }

bool writeArray(std::string& out, const Array& a, bool pretty, int depth) {
  out += '[';
  if (pretty) out += '\n';
  for (size_t i = 0; i < a.size(); ++i) {
    if (i > 0) out += pretty ? ",\n" : ",";
    if (pretty) indent(out, depth + 1);
    if (!write(out, a[i], pretty, depth + 1)) return false;
  }
  if (pretty) {
    out += '\n';
    indent(out, depth);
  }
  out += ']';
  return true;
}

bool writeObject(std::string& out, const Object& o, bool pretty, int depth) {
  out += '{';
  if (pretty) out += '\n';
  bool first = true;
  for (const auto& [key, member] : o) {
    if (!first) out += pretty ? ",\n" : ",";
    first = false;
    if (pretty) indent(out, depth + 1);
    appendString(out, key);
    out += pretty ? " : " : ":";
    if (!write(out, member, pretty, depth + 1)) return false;
  }
  if (pretty) {
    out += '\n';
    indent(out, depth);
  }
  out += '}';
  return true;
}

bool write(std::string& out, const Value& value, bool pretty, int depth) {
  return std::visit(
      [&](const auto& x) -> bool {
        using T = std::decay_t<decltype(x)>;
        if constexpr (std::is_same_v<T, std::nullptr_t>) {
          out += "null";
        } else if constexpr (std::is_same_v<T, bool>) {
          out += x ? "true" : "false";
        } else if constexpr (std::is_same_v<T, int64_t>) {
          out += std::to_string(x);
        } else if constexpr (std::is_same_v<T, double>) {
          return appendNumber(out, x);
        } else if constexpr (std::is_same_v<T, std::string>) {
          appendString(out, x);
        } else if constexpr (std::is_same_v<T, std::shared_ptr<Array>>) {
          return writeArray(out, x ? *x : Array{}, pretty, depth);
        } else {
          return writeObject(out, x ? *x : Object{}, pretty, depth);
        }
        return true;
      },
      value.v);
}

}  // namespace

void appendString(std::string& out, std::string_view s) {
  static constexpr char hex[] = "0123456789abcdef";
  out += '"';
  size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) {
      size_t n = utf8Length(s, i);
      if (n == 0) {
        out += "\xEF\xBF\xBD";  // U+FFFD for a byte that starts no valid sequence
        ++i;
      } else {
        out.append(s.substr(i, n));
        i += n;
      }
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out += hex[c >> 4];
          out += hex[c & 0xF];
        } else {
          out += static_cast<char>(c);
        }
    }
    ++i;
  }
  out += '"';
}

std::string quoted(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size() + 2);
  appendString(out, utf8);
  return out;
}

bool appendNumber(std::string& out, double value) {
  if (!std::isfinite(value)) return false;
  if (value == 0) {  // also -0.0, which would print as "-0"
    out += '0';
    return true;
  }
  // Fixed notation without a precision is the shortest round-trip form in plain
  // digits; the largest double needs 309 integer digits, the smallest normal about 330.
  char buf[400];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed);
  if (ec != std::errc()) return false;
  out.append(buf, end);
  return true;
}

std::optional<std::string> compact(const Value& value) {
  std::string out;
  if (!write(out, value, false, 0)) return std::nullopt;
  return out;
}

std::optional<std::string> pretty(const Value& value) {
  std::string out;
  if (!write(out, value, true, 0)) return std::nullopt;
  return out;
}

}  // namespace TeskJSON
