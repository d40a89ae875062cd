#include "report/TeskJSON.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "cli/TeskText.h"

namespace TeskJSON {

namespace {

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

void appendEscaped(std::string& out, std::string_view s, Slash slash) {
  static constexpr char hex[] = "0123456789abcdef";
  // Runs that need no escape are copied whole.
  size_t run = 0;
  size_t i = 0;
  auto flush = [&](size_t upto) { out.append(s.data() + run, upto - run); };
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) {
      size_t bad = 0;
      const size_t n = TeskText::utf8SequenceAt(s, i, bad);
      if (n != 0) {
        i += n;
        continue;
      }
      flush(i);
      out += "\xEF\xBF\xBD";  // U+FFFD for an ill-formed subpart
      i += bad;
      run = i;
      continue;
    }
    const char* escaped = nullptr;
    switch (c) {
      case '"':
        escaped = "\\\"";
        break;
      case '\\':
        escaped = "\\\\";
        break;
      case '/':
        if (slash == Slash::escaped) escaped = "\\/";
        break;
      case '\b':
        escaped = "\\b";
        break;
      case '\f':
        escaped = "\\f";
        break;
      case '\n':
        escaped = "\\n";
        break;
      case '\r':
        escaped = "\\r";
        break;
      case '\t':
        escaped = "\\t";
        break;
      default:
        break;
    }
    if (escaped == nullptr && c >= 0x20) {
      ++i;
      continue;
    }
    flush(i);
    if (escaped != nullptr) {
      out += escaped;
    } else {
      out += "\\u00";
      out += hex[c >> 4];
      out += hex[c & 0xF];
    }
    run = ++i;
  }
  flush(s.size());
}

void appendString(std::string& out, std::string_view s, Slash slash) {
  out += '"';
  appendEscaped(out, s, slash);
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
