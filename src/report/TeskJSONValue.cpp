#include "report/TeskJSONValue.h"

#include <charconv>
#include <cmath>

namespace TeskJSONValue {
namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : s_(text) {}

  std::optional<Value> document() {
    skipSpace();
    Value v;
    if (!value(v, 0)) return std::nullopt;
    skipSpace();
    if (i_ != s_.size()) return std::nullopt;
    return v;
  }

 private:
  std::string_view s_;
  size_t i_ = 0;

  bool atEnd() const { return i_ >= s_.size(); }
  char peek() const { return s_[i_]; }

  void skipSpace() {
    while (!atEnd() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++i_;
  }

  bool literal(std::string_view word) {
    if (s_.substr(i_, word.size()) != word) return false;
    i_ += word.size();
    return true;
  }

  bool value(Value& out, int depth) {
    if (atEnd()) return false;
    switch (peek()) {
      case '{':
        return object(out, depth + 1);
      case '[':
        return array(out, depth + 1);
      case '"': {
        std::string text;
        if (!string(text)) return false;
        out.v = std::move(text);
        return true;
      }
      case 't':
        out.v = true;
        return literal("true");
      case 'f':
        out.v = false;
        return literal("false");
      case 'n':
        out.v = nullptr;
        return literal("null");
      default:
        return number(out);
    }
  }

  bool object(Value& out, int depth) {
    if (depth > kMaxDepth) return false;
    ++i_;  // '{'
    Object members;
    skipSpace();
    if (!atEnd() && peek() == '}') {
      ++i_;
      out.v = std::move(members);
      return true;
    }
    while (true) {
      skipSpace();
      if (atEnd() || peek() != '"') return false;
      std::string key;
      if (!string(key)) return false;
      skipSpace();
      if (atEnd() || peek() != ':') return false;
      ++i_;
      skipSpace();
      Value member;
      if (!value(member, depth)) return false;
      members.emplace_back(std::move(key), std::move(member));
      skipSpace();
      if (atEnd()) return false;
      if (peek() == ',') {
        ++i_;
        continue;
      }
      if (peek() != '}') return false;
      ++i_;
      out.v = std::move(members);
      return true;
    }
  }

  bool array(Value& out, int depth) {
    if (depth > kMaxDepth) return false;
    ++i_;  // '['
    Array items;
    skipSpace();
    if (!atEnd() && peek() == ']') {
      ++i_;
      out.v = std::move(items);
      return true;
    }
    while (true) {
      skipSpace();
      Value item;
      if (!value(item, depth)) return false;
      items.push_back(std::move(item));
      skipSpace();
      if (atEnd()) return false;
      if (peek() == ',') {
        ++i_;
        continue;
      }
      if (peek() != ']') return false;
      ++i_;
      out.v = std::move(items);
      return true;
    }
  }

  bool number(Value& out) {
    size_t start = i_;
    if (!atEnd() && peek() == '-') ++i_;
    if (atEnd()) return false;
    if (peek() == '0') {
      ++i_;
    } else if (peek() >= '1' && peek() <= '9') {
      while (!atEnd() && peek() >= '0' && peek() <= '9') ++i_;
    } else {
      return false;
    }
    if (!atEnd() && peek() == '.') {
      ++i_;
      if (!digits()) return false;
    }
    if (!atEnd() && (peek() == 'e' || peek() == 'E')) {
      ++i_;
      if (!atEnd() && (peek() == '+' || peek() == '-')) ++i_;
      if (!digits()) return false;
    }
    double d = 0;
    auto [ptr, ec] = std::from_chars(s_.data() + start, s_.data() + i_, d);
    // Out of range is refused: a double cannot hold it and JSON has no infinity.
    if (ec != std::errc() || ptr != s_.data() + i_ || !std::isfinite(d)) return false;
    out.v = d;
    out.numberText.assign(s_.data() + start, i_ - start);
    return true;
  }

  bool digits() {
    size_t start = i_;
    while (!atEnd() && peek() >= '0' && peek() <= '9') ++i_;
    return i_ > start;
  }

  bool hex4(uint32_t& out) {
    if (s_.size() - i_ < 4) return false;
    out = 0;
    for (int k = 0; k < 4; ++k) {
      char c = s_[i_++];
      out <<= 4;
      if (c >= '0' && c <= '9') {
        out |= static_cast<uint32_t>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        out |= static_cast<uint32_t>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        out |= static_cast<uint32_t>(c - 'A' + 10);
      } else {
        return false;
      }
    }
    return true;
  }

  static void appendUTF8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  // One raw UTF-8 sequence copied through, checked for shape, range and overlongs.
  bool rawUTF8(std::string& out) {
    auto c = static_cast<unsigned char>(s_[i_]);
    size_t len;
    uint32_t cp;
    if ((c & 0xE0) == 0xC0) {
      len = 2, cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3, cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4, cp = c & 0x07;
    } else {
      return false;
    }
    if (s_.size() - i_ < len) return false;
    for (size_t k = 1; k < len; ++k) {
      auto cc = static_cast<unsigned char>(s_[i_ + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static constexpr uint32_t kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    out.append(s_.substr(i_, len));
    i_ += len;
    return true;
  }

  bool string(std::string& out) {
    ++i_;  // '"'
    while (true) {
      if (atEnd()) return false;
      auto c = static_cast<unsigned char>(peek());
      if (c == '"') {
        ++i_;
        return true;
      }
      if (c < 0x20) return false;
      if (c >= 0x80) {
        if (!rawUTF8(out)) return false;
        continue;
      }
      if (c != '\\') {
        out += static_cast<char>(c);
        ++i_;
        continue;
      }
      ++i_;
      if (atEnd()) return false;
      char e = s_[i_++];
      switch (e) {
        case '"':
          out += '"';
          break;
        case '\\':
          out += '\\';
          break;
        case '/':
          out += '/';
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          uint32_t cp;
          if (!hex4(cp)) return false;
          if (cp >= 0xDC00 && cp <= 0xDFFF) return false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            uint32_t low;
            if (s_.size() - i_ < 2 || s_[i_] != '\\' || s_[i_ + 1] != 'u') return false;
            i_ += 2;
            if (!hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          }
          appendUTF8(out, cp);
          break;
        }
        default:
          return false;
      }
    }
  }
};

}  // namespace

const Value* Value::member(std::string_view key) const {
  const Object* o = object();
  if (o == nullptr) return nullptr;
  for (auto it = o->rbegin(); it != o->rend(); ++it) {
    if (it->first == key) return &it->second;
  }
  return nullptr;
}

std::vector<std::string> Value::keys() const {
  std::vector<std::string> out;
  if (const Object* o = object()) {
    for (const auto& [key, value] : *o) out.push_back(key);
  }
  return out;
}

std::optional<Value> parse(std::string_view text) { return Parser(text).document(); }

}  // namespace TeskJSONValue
