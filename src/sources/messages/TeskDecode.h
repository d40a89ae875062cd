// Message bodies: turns a Messages row's (text, attributedBody) pair into one body
// and says how it got it. A body is either right or absent; an undecodable blob is
// counted, never scraped.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace TeskDecode {

enum class Tier { plainText, legacyAttributed, legacyString, keyedAttributed, undecodable, absent };

std::string_view rawValue(Tier tier);

struct Outcome {
  std::optional<std::string> body;
  Tier tier = Tier::absent;
  bool direct = false;  // the body came from the direct reader
};

// How bodies were obtained, per store.
struct Census {
  int64_t plainText = 0;
  int64_t legacyAttributed = 0;
  int64_t legacyString = 0;
  int64_t keyedAttributed = 0;
  int64_t undecodable = 0;
  int64_t absent = 0;
  int64_t direct = 0;  // a subset of legacyAttributed

  int64_t blobs() const { return legacyAttributed + legacyString + keyedAttributed + undecodable; }
  int64_t decoded() const { return legacyAttributed + legacyString + keyedAttributed; }
  // decoded / blobs; exactly 1.0 with no blobs.
  double rate() const {
    return blobs() == 0 ? 1.0 : static_cast<double>(decoded()) / static_cast<double>(blobs());
  }
  void record(Tier tier);
  void record(const Outcome& outcome);
};

using Bytes = std::span<const uint8_t>;

// The blob wins over `text` when it decodes; an undecodable blob with text keeps
// the text as body but is counted undecodable.
Outcome body(const std::optional<std::string_view>& text, Bytes attributedBody);
// A blob alone: direct reader, then the typedstream reader, then the keyed archive.
Outcome attributedBody(Bytes blob);
// The fast reader of a typedstream NSAttributedString's string; nothing on any surprise.
std::optional<std::string> directBody(Bytes blob);

// Placeholder stripping: U+FFFC (an attached file) removed, then trimmed.
struct Stripped {
  std::optional<std::string> text;
  bool hadPlaceholder = false;
};
Stripped stripPlaceholders(std::optional<std::string> body);

}  // namespace TeskDecode
