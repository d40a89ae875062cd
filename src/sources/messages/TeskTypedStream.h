// A portable reader of the typedstream format that NSArchiver writes (the legacy
// archive Messages keeps in attributedBody). It reads the whole stream into a small
// value model and answers only for the two roots Messages uses: a plain string and
// an attributed string. Hostile bytes give nothing, never a partial answer.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace TeskTypedStream {

using Bytes = std::span<const uint8_t>;

// What the root object was.
enum class RootKind {
  string,            // NSString / NSMutableString
  attributedString,  // NSAttributedString / NSMutableAttributedString
};

struct RootString {
  std::string text;  // valid UTF-8
  RootKind kind = RootKind::string;
};

// Decodes the whole stream and returns the root object's string when the root is
// one of the string classes above. Anything malformed, truncated, trailing or of
// another class gives nothing. The string may be empty.
std::optional<RootString> rootString(Bytes blob);

// The name of the root object's class (the first class of its chain), for tools
// and diagnostics; nothing when the stream does not decode.
std::optional<std::string> rootClassName(Bytes blob);

}  // namespace TeskTypedStream
