// Hostile .emlx bytes through the whole body decoder: count line, span, MIME walk,
// transfer encodings, charsets, HTML and the caps. Every input must end in a tier.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sources/mail/TeskMail.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Real bodies beyond a megabyte add nothing the decoder has not seen at that size.
  if (size > (1u << 20)) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  TeskMail::Census census;
  const TeskMail::Body body = TeskMail::decode(bytes, census);
  const bool hasText = body.text.has_value();
  const bool textTier = body.tier == TeskMail::Tier::plain || body.tier == TeskMail::Tier::html;
  if (hasText != textTier) __builtin_trap();
  if (hasText && (body.text->empty() || !TeskMail::isValidUTF8(*body.text))) __builtin_trap();
  // The same bytes as one MIME entity without the count line.
  const TeskMail::Split split = TeskMail::splitHeaders(bytes);
  (void)TeskMail::part(split.headers, split.body, 0);
  return 0;
}
