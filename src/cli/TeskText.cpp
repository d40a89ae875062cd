#include "cli/TeskText.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>

namespace TeskText {
namespace {

bool isLineEnd(UChar32 c) {
  return c == 0x0A || c == 0x0B || c == 0x0C || c == 0x0D || c == 0x85 || c == 0x2028 ||
         c == 0x2029;
}

std::string_view trimWith(std::string_view s, bool newlines) {
  auto ws = [newlines](UChar32 c) {
    if (isLineEnd(c)) return newlines;
    return static_cast<bool>(u_isUWhiteSpace(c));
  };
  int32_t begin = 0, n = static_cast<int32_t>(s.size());
  const auto* p = reinterpret_cast<const uint8_t*>(s.data());
  while (begin < n) {
    int32_t i = begin;
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (c < 0 || !ws(c)) break;
    begin = i;
  }
  int32_t end = n;
  while (end > begin) {
    int32_t i = end;
    UChar32 c;
    U8_PREV(p, begin, i, c);
    if (c < 0 || !ws(c)) break;
    end = i;
  }
  return s.substr(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
}

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

std::u16string fold(std::string_view utf8) {
  if (auto out = foldByCodePoint(utf8)) return std::move(*out);
  return foldWhole(utf8);
}

// Every search tests every body, so candidates are found with memchr (one scan for
// each case of the first character) rather than compared byte by byte.
bool asciiContains(std::string_view hay, std::string_view needleLower) {
  const size_t m = needleLower.size();
  if (m == 0) return true;
  if (m > hay.size()) return false;
  const char first = needleLower[0];
  const char upper = (first >= 'a' && first <= 'z') ? static_cast<char>(first - 32) : first;
  const size_t end = hay.size() - m + 1;  // one past the last possible start
  auto next = [&](char c, size_t from) {
    const void* at = std::memchr(hay.data() + from, c, end - from);
    return at == nullptr ? end : static_cast<size_t>(static_cast<const char*>(at) - hay.data());
  };
  size_t lowAt = next(first, 0);
  size_t upAt = upper == first ? end : next(upper, 0);
  for (;;) {
    const size_t i = std::min(lowAt, upAt);
    if (i == end) return false;
    size_t k = 1;
    while (k < m && asciiLower(hay[i + k]) == needleLower[k]) ++k;
    if (k == m) return true;
    if (i == lowAt) {
      lowAt = next(first, i + 1);
    } else {
      upAt = next(upper, i + 1);
    }
  }
}

}  // namespace

// NFD, drop nonspacing marks, full case folding, over the whole string at once.
std::u16string foldWhole(std::string_view utf8) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  icu::UnicodeString src = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  icu::UnicodeString decomposed;
  if (U_SUCCESS(status)) {
    decomposed = nfd->normalize(src, status);
  }
  if (U_FAILURE(status)) decomposed = src;
  icu::UnicodeString stripped;
  for (int32_t i = 0; i < decomposed.length();) {
    UChar32 c = decomposed.char32At(i);
    if (u_charType(c) != U_NON_SPACING_MARK) stripped.append(c);
    i += U16_LENGTH(c);
  }
  stripped.foldCase(U_FOLD_CASE_DEFAULT);
  return std::u16string(reinterpret_cast<const char16_t*>(stripped.getBuffer()),
                        static_cast<size_t>(stripped.length()));
}

// The same fold, code point by code point: NFD is each code point's decomposition
// followed by a reordering of marks with a combining class, and full case folding
// needs no context. Reordering moves only such marks, so with the nonspacing ones
// dropped it matters only for a kept mark with a class: that (rare) text, like
// ill-formed UTF-8, is left to foldWhole. Bodies are mostly ASCII with a few emoji;
// this path keeps ASCII out of ICU and takes about a quarter of the instructions.
std::optional<std::u16string> foldByCodePoint(std::string_view utf8) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfd = icu::Normalizer2::getNFDInstance(status);
  if (U_FAILURE(status)) return std::nullopt;
  std::u16string out;
  out.reserve(utf8.size());
  const auto* p = reinterpret_cast<const uint8_t*>(utf8.data());
  const auto n = static_cast<int32_t>(utf8.size());
  icu::UnicodeString decomposition;
  UChar kept[32];
  UChar folded[96];
  for (int32_t i = 0; i < n;) {
    if (p[i] < 0x80) {
      out.push_back(static_cast<char16_t>(asciiLower(static_cast<char>(p[i]))));
      ++i;
      continue;
    }
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (c < 0) return std::nullopt;
    int32_t keptLength = 0;
    auto keep = [&](UChar32 d) {
      if (u_charType(d) == U_NON_SPACING_MARK) return true;
      if (u_getCombiningClass(d) != 0 || keptLength + 2 > 32) return false;
      U16_APPEND_UNSAFE(kept, keptLength, d);
      return true;
    };
    if (nfd->getDecomposition(c, decomposition)) {
      for (int32_t j = 0; j < decomposition.length();) {
        UChar32 d = decomposition.char32At(j);
        if (!keep(d)) return std::nullopt;
        j += U16_LENGTH(d);
      }
    } else if (!keep(c)) {
      return std::nullopt;
    }
    if (keptLength == 0) continue;
    int32_t length = u_strFoldCase(folded, 96, kept, keptLength, U_FOLD_CASE_DEFAULT, &status);
    if (U_FAILURE(status) || length > 96) return std::nullopt;
    out.append(reinterpret_cast<const char16_t*>(folded), static_cast<size_t>(length));
  }
  return out;
}

std::string_view trim(std::string_view utf8) { return trimWith(utf8, true); }
std::string_view trimBlanks(std::string_view utf8) { return trimWith(utf8, false); }

std::string shortestDecimal(double value) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  return ec == std::errc() ? std::string(buf, end) : std::string("nan");
}

bool isASCII(std::string_view s) {
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) {
    uint64_t word;
    std::memcpy(&word, s.data() + i, 8);
    if ((word & 0x8080808080808080ULL) != 0) return false;
  }
  return std::all_of(s.begin() + static_cast<std::ptrdiff_t>(i), s.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

std::string lower(std::string_view utf8) {
  if (isASCII(utf8)) {
    std::string out(utf8);
    for (char& c : out) c = asciiLower(c);
    return out;
  }
  icu::UnicodeString u = icu::UnicodeString::fromUTF8(
      icu::StringPiece(utf8.data(), static_cast<int32_t>(utf8.size())));
  u.toLower(icu::Locale::getRoot());
  std::string out;
  u.toUTF8String(out);
  return out;
}

namespace {

// True when a byte of `word` is one appendTSV escapes: a byte below 0x0E (tab, line
// feed and carriage return are 0x09, 0x0A and 0x0D) or a backslash. Exact for "any".
bool needsEscape(uint64_t word) {
  constexpr uint64_t ones = 0x0101010101010101ULL, highs = 0x8080808080808080ULL;
  const uint64_t below = (word - ones * 0x0E) & ~word & highs;
  const uint64_t slash = word ^ (ones * '\\');
  return (below | ((slash - ones) & ~slash & highs)) != 0;
}

}  // namespace

void appendTSV(std::string& out, std::string_view text) {
  const char* p = text.data();
  const size_t n = text.size();
  // Plain runs are copied whole, eight bytes tested at a time: a large span escapes
  // every cell of every row.
  size_t run = 0, i = 0;
  while (i < n) {
    if (i + 8 <= n) {
      uint64_t word;
      std::memcpy(&word, p + i, 8);
      if (!needsEscape(word)) {
        i += 8;
        continue;
      }
    }
    const size_t end = std::min(n, i + 8);
    for (; i < end; ++i) {
      const char* escaped = nullptr;
      switch (p[i]) {
        case '\\':
          escaped = "\\\\";
          break;
        case '\t':
          escaped = "\\t";
          break;
        case '\n':
          escaped = "\\n";
          break;
        case '\r':
          escaped = "\\r";
          break;
        default:
          continue;
      }
      out.append(p + run, i - run);
      out.append(escaped, 2);
      run = i + 1;
    }
  }
  out.append(p + run, n - run);
}

std::string escapeTSV(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  appendTSV(out, text);
  return out;
}

bool isValidUTF8(std::string_view bytes) {
  const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
  const size_t n = bytes.size();
  size_t i = 0;
  while (i < n) {
    // Runs of ASCII are the common case: test eight bytes at a time, and step over
    // the ASCII bytes in front of the first one with its high bit set.
    while (i + 8 <= n) {
      uint64_t word;
      std::memcpy(&word, s + i, 8);
      const uint64_t high = word & 0x8080808080808080ULL;
      if (high != 0) {
        if constexpr (std::endian::native == std::endian::little) {
          i += static_cast<size_t>(std::countr_zero(high)) / 8;
        }
        break;
      }
      i += 8;
    }
    if (i >= n) break;
    const unsigned char c = s[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t need;
    unsigned char lo = 0x80, hi = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
      need = 1;
    } else if (c == 0xE0) {
      need = 2, lo = 0xA0;
    } else if ((c >= 0xE1 && c <= 0xEC) || c == 0xEE || c == 0xEF) {
      need = 2;
    } else if (c == 0xED) {
      need = 2, hi = 0x9F;  // no UTF-16 surrogates
    } else if (c == 0xF0) {
      need = 3, lo = 0x90;
    } else if (c >= 0xF1 && c <= 0xF3) {
      need = 3;
    } else if (c == 0xF4) {
      need = 3, hi = 0x8F;
    } else {
      return false;
    }
    if (n - i - 1 < need) return false;
    if (s[i + 1] < lo || s[i + 1] > hi) return false;
    for (size_t k = 2; k <= need; ++k) {
      if ((s[i + k] & 0xC0) != 0x80) return false;
    }
    i += need + 1;
  }
  return true;
}

size_t utf8SequenceAt(std::string_view s, size_t i, size_t& bad) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char b0 = byte(i);
  bad = 1;
  if (b0 < 0x80) return 1;
  size_t need = 0;
  unsigned char lo = 0x80, hi = 0xBF;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 2;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;  // no surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 3;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  for (size_t k = 1; k <= need; ++k) {
    if (i + k >= s.size()) return 0;
    const unsigned char b = byte(i + k);
    const unsigned char min = k == 1 ? lo : 0x80;
    const unsigned char max = k == 1 ? hi : 0xBF;
    if (b < min || b > max) return 0;
    bad = k + 1;
  }
  return need + 1;
}

std::string repairUTF8(std::string_view bytes) {
  if (isValidUTF8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() + 16);
  size_t i = 0;
  while (i < bytes.size()) {
    size_t bad = 0;
    const size_t n = utf8SequenceAt(bytes, i, bad);
    if (n == 0) {
      out.append("\xEF\xBF\xBD");
      i += bad;
    } else {
      out.append(bytes.substr(i, n));
      i += n;
    }
  }
  return out;
}

Needle::Needle(std::string_view query) : folded_(fold(query)) {
  asciiOnly_ = std::all_of(folded_.begin(), folded_.end(), [](char16_t c) { return c < 0x80; });
  if (asciiOnly_) {
    ascii_.reserve(folded_.size());
    for (char16_t c : folded_) ascii_ += asciiLower(static_cast<char>(c));
  }
}

bool Needle::in(std::string_view hay) const {
  if (folded_.empty()) return true;
  if (isASCII(hay)) {
    // ASCII has no marks, and its case folding is plain lowering.
    return asciiOnly_ && asciiContains(hay, ascii_);
  }
  if (asciiOnly_) {
    // Folding keeps every ASCII character in place, lowered: a match among the raw
    // bytes is a match. Otherwise only the fold of the other code points can make one,
    // and for an ASCII needle it is enough to know which of their folded units are ASCII.
    if (asciiContains(hay, ascii_)) return true;
    if (auto bytes = asciiFold(hay)) return asciiContains(*bytes, ascii_);
  }
  return fold(hay).find(folded_) != std::u16string::npos;
}

std::optional<std::string> Needle::asciiFold(std::string_view hay) const {
  std::string out;
  out.reserve(hay.size());
  const auto* p = reinterpret_cast<const uint8_t*>(hay.data());
  const auto n = static_cast<int32_t>(hay.size());
  for (int32_t i = 0; i < n;) {
    int32_t run = i;
    while (run < n && p[run] < 0x80) ++run;
    out.append(hay.data() + i, static_cast<size_t>(run - i));  // lowered by asciiContains
    if (run == n) break;
    i = run;
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (c < 0) return std::nullopt;
    auto [at, fresh] = pieces_.try_emplace(static_cast<char32_t>(c));
    if (fresh) {
      // A code point folds alone as it does in any text that foldByCodePoint takes.
      const std::string_view one =
          hay.substr(static_cast<size_t>(run), static_cast<size_t>(i - run));
      if (std::optional<std::u16string> f = foldByCodePoint(one)) {
        std::string piece;
        for (char16_t u : *f) piece += u < 0x80 ? static_cast<char>(u) : '\x80';
        at->second = std::move(piece);
      }
    }
    if (!at->second) return std::nullopt;
    out += *at->second;
  }
  return out;
}

bool containsFolded(std::string_view haystack, std::string_view needle) {
  return Needle(needle).in(haystack);
}

bool containsCaseInsensitive(std::string_view haystack, std::string_view needle) {
  if (needle.empty()) return true;
  if (isASCII(haystack) && isASCII(needle)) {
    std::string n(needle);
    for (char& c : n) c = asciiLower(c);
    return asciiContains(haystack, n);
  }
  auto f = [](std::string_view s) {
    icu::UnicodeString u =
        icu::UnicodeString::fromUTF8(icu::StringPiece(s.data(), static_cast<int32_t>(s.size())));
    u.foldCase(U_FOLD_CASE_DEFAULT);
    return u;
  };
  return f(haystack).indexOf(f(needle)) >= 0;
}

}  // namespace TeskText
