#include "sources/messages/TeskIdentity.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cli/TeskText.h"

namespace TeskIdentity {
namespace {

// Canonical phone numbers keep this many trailing digits: the country prefix and
// trunk zero drop out, so +1 (415) 555-0123 and 415-555-0123 meet.
constexpr size_t kPhoneDigits = 10;
// A query needs this many digits before it matches inside a handle's digits; fewer
// would match half the address book.
constexpr size_t kQueryDigits = 7;

// The digits of a text, in order, one entry per digit character. A decimal digit of
// any script becomes its ASCII value ("٥" -> '5'), so numbers typed in Arabic-Indic
// or full-width digits meet their ASCII spelling. A numeric character without a
// single decimal value (½, Ⅻ, ①) stays itself, so it still counts as one digit
// but only ever equals the same character.
struct Digits {
  std::string text;            // UTF-8
  size_t count = 0;            // digit characters in `text`
  std::vector<size_t> starts;  // byte offset of each digit in `text` (non-ASCII only)
};

Digits digitsOf(std::string_view s) {
  Digits d;
  d.text.reserve(s.size());
  if (TeskText::isASCII(s)) {
    for (char c : s) {
      if (c >= '0' && c <= '9') d.text += c;
    }
    d.count = d.text.size();
    return d;
  }
  const auto* p = reinterpret_cast<const uint8_t*>(s.data());
  const int32_t n = static_cast<int32_t>(s.size());
  for (int32_t i = 0; i < n;) {
    const int32_t begin = i;
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (c < 0) continue;  // an invalid byte is no digit
    const int32_t type = u_getIntPropertyValue(c, UCHAR_NUMERIC_TYPE);
    if (type == U_NT_NONE) continue;
    d.starts.push_back(d.text.size());
    if (type == U_NT_DECIMAL) {
      d.text += static_cast<char>('0' + u_charDigitValue(c));
    } else {
      d.text.append(s.substr(static_cast<size_t>(begin), static_cast<size_t>(i - begin)));
    }
    ++d.count;
  }
  return d;
}

// The last `k` digits of `d` (all of them when there are fewer).
std::string_view lastDigits(const Digits& d, size_t k) {
  if (d.count <= k) return d.text;
  if (d.starts.empty()) return std::string_view(d.text).substr(d.text.size() - k);
  return std::string_view(d.text).substr(d.starts[d.count - k]);
}

// True when `needle` (already lower-case ASCII) occurs in `hay` ignoring ASCII case;
// the common handle needs no lowered copy.
bool asciiContainsLowered(std::string_view hay, std::string_view needle) {
  auto lowerASCII = [](char ch) {
    return (ch >= 'A' && ch <= 'Z') ? static_cast<char>(ch + 32) : ch;
  };
  return std::search(hay.begin(), hay.end(), needle.begin(), needle.end(),
                     [&](char a, char b) { return lowerASCII(a) == b; }) != hay.end();
}

}  // namespace

std::string canonical(std::string_view handle) {
  std::string_view t = TeskText::trimBlanks(handle);
  if (t.empty()) return std::string();
  if (t.find('@') != std::string_view::npos) return TeskText::lower(t);
  Digits d = digitsOf(t);
  if (d.count >= kPhoneDigits) return "+" + std::string(lastDigits(d, kPhoneDigits));
  if (d.count >= 1) return std::move(d.text);
  return TeskText::lower(t);
}

bool matches(std::string_view query, std::string_view handle) {
  return Query(query).matches(handle);
}

Query::Query(std::string_view query) : lowered_(TeskText::lower(TeskText::trimBlanks(query))) {
  Digits d = digitsOf(lowered_);
  digits_ = std::move(d.text);
  digitCount_ = d.count;
  ascii_ = TeskText::isASCII(lowered_);
}

bool Query::matches(std::string_view handle) const {
  if (lowered_.empty()) return false;
  const bool contained = (ascii_ && TeskText::isASCII(handle))
                             ? asciiContainsLowered(handle, lowered_)
                             : TeskText::lower(handle).find(lowered_) != std::string::npos;
  if (contained) return true;
  if (digitCount_ < kQueryDigits) return false;
  return digitsOf(handle).text.find(digits_) != std::string::npos;
}

}  // namespace TeskIdentity
