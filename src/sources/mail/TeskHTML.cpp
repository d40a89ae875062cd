// HTML to text (tags out, block tags as line breaks, script and style dropped),
// character references, and the white-space normalisation every body goes through.
#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
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

// The HTML5 named character references: the name as written after '&' (with its ';'
// where it takes one; 106 legacy names also stand without it), then one or two code
// points. Sorted by bytes.
struct NamedReference {
  std::string_view name;
  uint32_t first;
  uint32_t second;
};
constexpr NamedReference kNamedReferences[] = {
#include "sources/mail/TeskHTMLEntities.inc"
};
// The longest name, its ';' included.
constexpr size_t kLongestName = 32;

const NamedReference* namedReference(std::string_view name) {
  const auto* end = std::end(kNamedReferences);
  const auto* hit =
      std::lower_bound(std::begin(kNamedReferences), end, name,
                       [](const NamedReference& r, std::string_view n) { return r.name < n; });
  return hit != end && hit->name == name ? hit : nullptr;
}

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
    // Whatever is not a reference leaves the '&' as text, and the scan goes on right
    // after it, so a bare '&' never swallows the reference that follows it.
    i = at + 1;
    if (i < bytes.size() && bytes[i] == '#') {
      // Numeric: "&#" then decimal digits, or x and hex digits, then ';'.
      size_t k = i + 1;
      while (k < bytes.size() && k - i <= 10 && isAlnum(bytes[k])) ++k;
      if (k >= bytes.size() || bytes[k] != ';') {
        out.push_back('&');
        continue;
      }
      char folded[11];
      const std::string_view raw = bytes.substr(i, k - i);
      for (size_t n = 0; n < raw.size(); ++n) folded[n] = lowerASCII(raw[n]);
      const auto value = numericReference(std::string_view(folded, raw.size()));
      if (value && *value <= 0x10FFFF && (*value < 0xD800 || *value > 0xDFFF)) {
        appendScalar(out, *value);
        i = k + 1;
      } else {
        out.push_back('&');
      }
      continue;
    }
    // Named, case-sensitive as HTML5 has it: the longest run of letters and digits
    // with its ';', else the longest legacy name that stands without one (so
    // "&copy2026" reads "(c)2026", as a browser shows it).
    size_t run = 0;
    while (i + run < bytes.size() && run < kLongestName && isAlnum(bytes[i + run])) ++run;
    const NamedReference* hit = nullptr;
    size_t used = 0;
    if (run > 0 && i + run < bytes.size() && bytes[i + run] == ';') {
      hit = namedReference(bytes.substr(i, run + 1));
      used = run + 1;
    }
    for (size_t n = run; !hit && n > 0; --n) {
      hit = namedReference(bytes.substr(i, n));
      used = n;
    }
    if (!hit) {
      out.push_back('&');
      continue;
    }
    appendScalar(out, hit->first);
    if (hit->second != 0) appendScalar(out, hit->second);
    i += used;
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
      // CR LF is one line break (the LF counts it); a CR alone is one too.
      if (i + 1 >= n || bytes[i + 1] != '\n') ++run.newlines;
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
