#include "cli/TeskText.h"

#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <charconv>

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

bool asciiContains(std::string_view hay, std::string_view needleLower) {
  if (needleLower.empty()) return true;
  if (needleLower.size() > hay.size()) return false;
  auto it = std::search(hay.begin(), hay.end(), needleLower.begin(), needleLower.end(),
                        [](char a, char b) { return asciiLower(a) == b; });
  return it != hay.end();
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
  return std::all_of(s.begin(), s.end(),
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

std::string escapeTSV(std::string_view text, bool cr) {
  std::string out;
  out.reserve(text.size());
  // Plain runs are copied whole: appending byte by byte was a fifth of a large span.
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char* escaped = nullptr;
    switch (text[i]) {
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
        if (cr) escaped = "\\r";
        break;
      default:
        break;
    }
    if (escaped == nullptr) continue;
    out.append(text.data() + run, i - run);
    out.append(escaped, 2);
    run = i + 1;
  }
  out.append(text.data() + run, text.size() - run);
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
  return fold(hay).find(folded_) != std::u16string::npos;
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
