// A strict little JSON reader for tests: checks that what tesk writes is JSON and
// gives back the tree with object members in written order (to check key order).
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace testjson {

struct Node {
  enum class Type { null, boolean, number, string, array, object } type = Type::null;
  bool b = false;
  double n = 0;
  std::string numberText;  // the number exactly as written
  std::string s;
  std::vector<Node> items;
  // Object members in written order; two vectors because a pair cannot hold the
  // still incomplete Node.
  std::vector<std::string> memberKeys;
  std::vector<Node> memberValues;

  const Node* find(std::string_view key) const {
    for (size_t i = 0; i < memberKeys.size(); ++i) {
      if (memberKeys[i] == key) return &memberValues[i];
    }
    return nullptr;
  }
  std::vector<std::string> keys() const { return memberKeys; }
};

class Reader {
 public:
  explicit Reader(std::string_view text) : t_(text) {}

  // The whole text as one value, nothing when it is not exactly one JSON value.
  std::optional<Node> document() {
    Node n;
    if (!value(n, 0)) return std::nullopt;
    space();
    if (i_ != t_.size()) return std::nullopt;
    return n;
  }

 private:
  void space() {
    while (i_ < t_.size() && (t_[i_] == ' ' || t_[i_] == '\n' || t_[i_] == '\t' || t_[i_] == '\r'))
      ++i_;
  }
  bool literal(std::string_view word) {
    if (t_.substr(i_, word.size()) != word) return false;
    i_ += word.size();
    return true;
  }
  static void utf8(std::string& out, unsigned cp) {
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
  bool hex4(unsigned& cp) {
    if (i_ + 4 > t_.size()) return false;
    cp = 0;
    for (int k = 0; k < 4; ++k) {
      char c = t_[i_++];
      cp <<= 4;
      if (c >= '0' && c <= '9')
        cp |= static_cast<unsigned>(c - '0');
      else if (c >= 'a' && c <= 'f')
        cp |= static_cast<unsigned>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F')
        cp |= static_cast<unsigned>(c - 'A' + 10);
      else
        return false;
    }
    return true;
  }
  bool string(std::string& out) {
    if (i_ >= t_.size() || t_[i_] != '"') return false;
    ++i_;
    while (i_ < t_.size()) {
      auto c = static_cast<unsigned char>(t_[i_++]);
      if (c == '"') return true;
      if (c < 0x20) return false;  // raw control characters are not JSON
      if (c != '\\') {
        out += static_cast<char>(c);
        continue;
      }
      if (i_ >= t_.size()) return false;
      char e = t_[i_++];
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
          unsigned cp;
          if (!hex4(cp)) return false;
          if (cp >= 0xD800 && cp < 0xDC00) {
            unsigned lo;
            if (!literal("\\u") || !hex4(lo) || lo < 0xDC00 || lo > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
          }
          utf8(out, cp);
          break;
        }
        default:
          return false;
      }
    }
    return false;
  }
  bool number(Node& n) {
    size_t start = i_;
    if (i_ < t_.size() && t_[i_] == '-') ++i_;
    auto digits = [&] {
      size_t d = i_;
      while (i_ < t_.size() && t_[i_] >= '0' && t_[i_] <= '9') ++i_;
      return i_ - d;
    };
    size_t lead = i_;
    if (digits() == 0) return false;
    if (t_[lead] == '0' && i_ - lead > 1) return false;  // no leading zeros
    if (i_ < t_.size() && t_[i_] == '.') {
      ++i_;
      if (digits() == 0) return false;
    }
    if (i_ < t_.size() && (t_[i_] == 'e' || t_[i_] == 'E')) {
      ++i_;
      if (i_ < t_.size() && (t_[i_] == '+' || t_[i_] == '-')) ++i_;
      if (digits() == 0) return false;
    }
    n.type = Node::Type::number;
    n.numberText = std::string(t_.substr(start, i_ - start));
    n.n = std::strtod(n.numberText.c_str(), nullptr);
    return true;
  }
  bool value(Node& n, int depth) {
    if (depth > 64) return false;
    space();
    if (i_ >= t_.size()) return false;
    char c = t_[i_];
    if (c == '{') {
      ++i_;
      n.type = Node::Type::object;
      space();
      if (i_ < t_.size() && t_[i_] == '}') return ++i_, true;
      while (true) {
        space();
        std::string key;
        if (!string(key)) return false;
        space();
        if (!literal(":")) return false;
        Node member;
        if (!value(member, depth + 1)) return false;
        n.memberKeys.push_back(std::move(key));
        n.memberValues.push_back(std::move(member));
        space();
        if (literal(",")) continue;
        return literal("}");
      }
    }
    if (c == '[') {
      ++i_;
      n.type = Node::Type::array;
      space();
      if (i_ < t_.size() && t_[i_] == ']') return ++i_, true;
      while (true) {
        Node item;
        if (!value(item, depth + 1)) return false;
        n.items.push_back(std::move(item));
        space();
        if (literal(",")) continue;
        return literal("]");
      }
    }
    if (c == '"') {
      n.type = Node::Type::string;
      return string(n.s);
    }
    if (literal("true")) return n.type = Node::Type::boolean, n.b = true, true;
    if (literal("false")) return n.type = Node::Type::boolean, true;
    if (literal("null")) return true;
    return number(n);
  }

  std::string_view t_;
  size_t i_ = 0;
};

inline std::optional<Node> parse(std::string_view text) { return Reader(text).document(); }

}  // namespace testjson
