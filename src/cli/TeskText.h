// Text helpers shared by every producer: Unicode-aware trimming and lowering, and
// the case- and diacritic-insensitive "contains" that the free-text query uses.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace TeskText {

// Trims Unicode white space and line ends at both ends.
std::string_view trim(std::string_view utf8);
// Trims Unicode white space but not line ends (CR, LF, NEL, LS, PS).
std::string_view trimBlanks(std::string_view utf8);
// Unicode lower-casing (root locale).
std::string lower(std::string_view utf8);
// A TSV cell: backslash, tab, line feed and carriage return written as \\, \t, \n and
// \r, so text from a store can never open a column or a line. The one cell escaper of
// every row and report writer.
std::string escapeTSV(std::string_view text);
// escapeTSV(text) appended to `out`.
void appendTSV(std::string& out, std::string_view text);

// True when `bytes` is well-formed UTF-8 (no overlong forms, surrogates or code
// points past U+10FFFF).
bool isValidUTF8(std::string_view bytes);
// The length of the well-formed UTF-8 sequence at bytes[i], or 0 when it is
// ill-formed; `bad` then holds the length of its maximal ill-formed subpart (>= 1).
size_t utf8SequenceAt(std::string_view bytes, size_t i, size_t& bad);
// `bytes` with every maximal ill-formed subpart replaced by U+FFFD.
std::string repairUTF8(std::string_view bytes);
// The shortest decimal that reads back as the same double ("0.5", "1767225600").
std::string shortestDecimal(double value);
// True when every byte is ASCII.
bool isASCII(std::string_view s);

// A query folded once (case and diacritics removed) and tested against many texts.
// "Résumé" matches "RESUME"; an empty needle matches everything.
class Needle {
 public:
  explicit Needle(std::string_view query);
  bool empty() const { return folded_.empty(); }
  bool in(std::string_view haystackUTF8) const;

 private:
  // The fold of `hay` for an ASCII needle: ASCII lowered, every other UTF-16 unit of the
  // fold as one byte 0x80 (which no ASCII needle holds); nothing when `hay` needs the
  // whole-string fold.
  std::optional<std::string> asciiFold(std::string_view hay) const;

  std::u16string folded_;
  std::string ascii_;  // the folded needle when it is all ASCII, else empty
  bool asciiOnly_ = false;
  // asciiFold of each code point met so far (bodies repeat the same few); nothing for
  // one that needs the whole-string fold.
  mutable std::unordered_map<char32_t, std::optional<std::string>> pieces_;
};

// The search fold (NFD, nonspacing marks dropped, full case folding) computed over
// the whole string, and code point by code point (nothing when the text needs the
// whole-string path). Needle uses the second when it answers; a fuzz target holds
// the two equal.
std::u16string foldWhole(std::string_view utf8);
std::optional<std::u16string> foldByCodePoint(std::string_view utf8);

// Case- and diacritic-insensitive containment (no locale).
bool containsFolded(std::string_view haystack, std::string_view needle);
// Case-insensitive containment, diacritics significant.
bool containsCaseInsensitive(std::string_view haystack, std::string_view needle);

}  // namespace TeskText
