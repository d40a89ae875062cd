// A compiled --grep pattern: ICU syntax, case-insensitive, searched anywhere in a
// UTF-8 text. Copies share the compiled pattern (a Filter is a plain value).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace icu_regex_detail {
struct Compiled;
}

class TeskRegex {
 public:
  // Nothing when the pattern does not compile.
  static std::optional<TeskRegex> compile(std::string_view pattern);

  // True when the pattern matches somewhere in `utf8`.
  bool search(std::string_view utf8) const;
  const std::string& pattern() const { return pattern_; }

 private:
  TeskRegex() = default;
  std::string pattern_;
  std::shared_ptr<icu_regex_detail::Compiled> compiled_;
};
