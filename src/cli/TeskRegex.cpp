#include "cli/TeskRegex.h"

#include <unicode/regex.h>
#include <unicode/utext.h>

namespace icu_regex_detail {
struct Compiled {
  std::unique_ptr<icu::RegexPattern> pattern;
  // One matcher reused for every search: tesk is single-threaded.
  std::unique_ptr<icu::RegexMatcher> matcher;
};
}  // namespace icu_regex_detail

std::optional<TeskRegex> TeskRegex::compile(std::string_view pattern) {
  UErrorCode status = U_ZERO_ERROR;
  UParseError perr;
  icu::UnicodeString p = icu::UnicodeString::fromUTF8(
      icu::StringPiece(pattern.data(), static_cast<int32_t>(pattern.size())));
  std::unique_ptr<icu::RegexPattern> compiled(
      icu::RegexPattern::compile(p, UREGEX_CASE_INSENSITIVE, perr, status));
  if (U_FAILURE(status) || !compiled) return std::nullopt;
  std::unique_ptr<icu::RegexMatcher> matcher(compiled->matcher(status));
  if (U_FAILURE(status) || !matcher) return std::nullopt;
  TeskRegex out;
  out.pattern_ = std::string(pattern);
  out.compiled_ = std::make_shared<icu_regex_detail::Compiled>();
  out.compiled_->pattern = std::move(compiled);
  out.compiled_->matcher = std::move(matcher);
  return out;
}

bool TeskRegex::search(std::string_view utf8) const {
  if (!compiled_) return false;
  UErrorCode status = U_ZERO_ERROR;
  UText text = UTEXT_INITIALIZER;
  utext_openUTF8(&text, utf8.data(), static_cast<int64_t>(utf8.size()), &status);
  if (U_FAILURE(status)) return false;
  compiled_->matcher->reset(&text);
  bool found = compiled_->matcher->find(status);
  compiled_->matcher->reset(icu::UnicodeString());
  utext_close(&text);
  return U_SUCCESS(status) && found;
}
