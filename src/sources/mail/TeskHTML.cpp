// HTML to text (tags out, block tags as line breaks, script and style dropped),
// character references, and the white-space normalisation every body goes through.
#include <array>
#include <cstring>
#include <string>

#include "sources/mail/TeskMail.h"

namespace TeskMail {
namespace {

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool startsWithFolded(std::string_view s, size_t at, std::string_view lowerPrefix) {
  if (s.size() - at < lowerPrefix.size()) return false;
  for (size_t i = 0; i < lowerPrefix.size(); ++i) {
    if (lowerASCII(s[at + i]) != lowerPrefix[i]) return false;
  }
  return true;
}

// Index just after the next folded occurrence of `lowerNeedle` (which starts with
// '<') at or after `from`; npos when there is none.
size_t skipPast(std::string_view s, size_t from, std::string_view lowerNeedle) {
  size_t i = from;
  while (i < s.size()) {
    const void* lt = std::memchr(s.data() + i, '<', s.size() - i);
    if (lt == nullptr) return std::string_view::npos;
    i = static_cast<size_t>(static_cast<const char*>(lt) - s.data());
    if (startsWithFolded(s, i, lowerNeedle)) return i + lowerNeedle.size();
    ++i;
  }
  return std::string_view::npos;
}

bool isBlockTag(std::string_view name) {
  static constexpr std::array<std::string_view, 15> blocks = {
      "p",  "br", "div", "tr",    "li",         "h1", "h2", "h3",
      "h4", "h5", "h6",  "table", "blockquote", "ul", "ol"};
  for (std::string_view b : blocks) {
    if (b == name) return true;
  }
  return false;
}

bool isAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

void appendScalar(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | cp >> 6));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | cp >> 12));
    out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | cp >> 18));
    out.push_back(static_cast<char>(0x80 | (cp >> 12 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp >> 6 & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

struct Entity {
  std::string_view name;
  uint32_t scalar;
};
constexpr std::array<Entity, 21> namedEntities = {{
    {"amp", '&'},      {"lt", '<'},       {"gt", '>'},       {"quot", 0x22},     {"apos", 0x27},
    {"nbsp", 0xA0},    {"mdash", 0x2014}, {"ndash", 0x2013}, {"hellip", 0x2026}, {"rsquo", 0x2019},
    {"lsquo", 0x2018}, {"ldquo", 0x201C}, {"rdquo", 0x201D}, {"middot", 0xB7},   {"bull", 0x2022},
    {"copy", 0xA9},    {"reg", 0xAE},     {"trade", 0x2122}, {"euro", 0x20AC},   {"pound", 0xA3},
    {"deg", 0xB0},
}};

// A numeric reference body ("#123", "#x1F") as a value; nothing on anything else.
std::optional<uint32_t> numericReference(std::string_view lowerName) {
  if (lowerName.size() < 2 || lowerName[0] != '#') return std::nullopt;
  const bool hex = lowerName[1] == 'x';
  std::string_view digits = lowerName.substr(hex ? 2 : 1);
  if (digits.empty()) return std::nullopt;
  uint64_t value = 0;
  for (char c : digits) {
    int d = -1;
    if (c >= '0' && c <= '9') d = c - '0';
    if (hex && c >= 'a' && c <= 'f') d = c - 'a' + 10;
    if (d < 0) return std::nullopt;
    value = value * (hex ? 16 : 10) + static_cast<uint64_t>(d);
    if (value > 0xFFFFFFFFULL) return std::nullopt;
  }
  return static_cast<uint32_t>(value);
}

// The white space seen since the last content byte.
struct Run {
  int newlines = 0;
  bool space = false;
};

}  // namespace

std::string stripHTML(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  size_t i = 0;
  while (i < bytes.size()) {
    const void* lt = std::memchr(bytes.data() + i, '<', bytes.size() - i);
    const size_t at =
        lt ? static_cast<size_t>(static_cast<const char*>(lt) - bytes.data()) : bytes.size();
    out.append(bytes.substr(i, at - i));
    if (at >= bytes.size()) break;
    if (startsWithFolded(bytes, at, "<script")) {
      const size_t past = skipPast(bytes, at + 7, "</script>");
      if (past == std::string_view::npos) break;
      out.push_back(' ');
      i = past;
      continue;
    }
    if (startsWithFolded(bytes, at, "<style")) {
      const size_t past = skipPast(bytes, at + 6, "</style>");
      if (past == std::string_view::npos) break;
      out.push_back(' ');
      i = past;
      continue;
    }
    size_t k = at + 1;
    if (k < bytes.size() && bytes[k] == '/') ++k;
    const size_t nameStart = k;
    while (k < bytes.size() && isAlnum(bytes[k])) ++k;
    char name[11];
    const size_t nameLength = k - nameStart;
    bool block = false;
    if (nameLength <= 10) {
      for (size_t n = 0; n < nameLength; ++n) name[n] = lowerASCII(bytes[nameStart + n]);
      block = isBlockTag(std::string_view(name, nameLength));
    }
    const size_t gt = bytes.find('>', k);
    i = gt == std::string_view::npos ? bytes.size() : gt + 1;
    out.push_back(block ? '\n' : ' ');
  }
  return entities(out);
}

std::string entities(std::string_view bytes) {
  if (bytes.find('&') == std::string_view::npos) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size());
  size_t i = 0;
  while (i < bytes.size()) {
    const void* amp = std::memchr(bytes.data() + i, '&', bytes.size() - i);
    const size_t at =
        amp ? static_cast<size_t>(static_cast<const char*>(amp) - bytes.data()) : bytes.size();
    out.append(bytes.substr(i, at - i));
    if (at >= bytes.size()) break;
    // The name is 1 to 10 bytes between '&' and ';'.
    const size_t reach = std::min(bytes.size(), at + 12);
    size_t semi = std::string_view::npos;
    for (size_t k = at + 1; k < reach; ++k) {
      if (bytes[k] == ';') {
        semi = k;
        break;
      }
    }
    if (semi == std::string_view::npos || semi == at + 1) {
      out.push_back('&');
      i = at + 1;
      continue;
    }
    const std::string_view raw = bytes.substr(at + 1, semi - at - 1);
    char folded[10];
    for (size_t n = 0; n < raw.size(); ++n) folded[n] = lowerASCII(raw[n]);
    const std::string_view name(folded, raw.size());
    bool written = false;
    for (const Entity& e : namedEntities) {
      if (e.name == name) {
        appendScalar(out, e.scalar);
        written = true;
        break;
      }
    }
    if (!written) {
      if (auto value = numericReference(name)) {
        if (*value <= 0x10FFFF && (*value < 0xD800 || *value > 0xDFFF)) {
          appendScalar(out, *value);
          written = true;
        }
      }
    }
    if (!written) out.append(bytes.substr(at, semi - at + 1));
    i = semi + 1;
  }
  return out;
}

std::string normalize(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  Run run;
  size_t i = 0;
  const size_t n = bytes.size();
  while (i < n) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c == '\r') {
      ++i;
      continue;
    }
    if (c == '\t' || c == ' ') {
      run.space = true;
      ++i;
      continue;
    }
    if (c == '\n') {
      ++run.newlines;
      ++i;
      continue;
    }
    if (c == 0xC2 && i + 1 < n && static_cast<unsigned char>(bytes[i + 1]) == 0xA0) {
      run.space = true;
      i += 2;
      continue;
    }
    if (c == 0xE2 && i + 2 < n && static_cast<unsigned char>(bytes[i + 1]) == 0x80 &&
        static_cast<unsigned char>(bytes[i + 2]) == 0x8B) {
      run.space = true;
      i += 3;
      continue;
    }
    if (!out.empty()) {
      if (run.newlines > 0) {
        out.append(run.newlines >= 2 ? "\n\n" : "\n");
      } else if (run.space) {
        out.push_back(' ');
      }
    }
    run = Run{};
    out.push_back(static_cast<char>(c));
    ++i;
  }
  if (isValidUTF8(out)) return out;
  return repairUTF8(out);
}

}  // namespace TeskMail
