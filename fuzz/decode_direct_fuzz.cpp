// Feeds arbitrary bytes to the direct reader and to the whole body decoder.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "cli/TeskText.h"
#include "sources/messages/TeskDecode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  const TeskDecode::Bytes blob(data, size);
  if (auto text = TeskDecode::directBody(blob)) {
    // The answer is a copy of bytes the blob holds, and well-formed.
    if (!TeskText::isValidUTF8(*text)) std::abort();
    const std::string_view all(reinterpret_cast<const char*>(data), size);
    if (all.find(*text) == std::string_view::npos) std::abort();
  }
  const auto out = TeskDecode::body(std::string_view("text"), blob);
  if (!out.body) std::abort();  // a row with text always has a body
  if (out.direct && out.tier != TeskDecode::Tier::legacyAttributed) std::abort();
  TeskDecode::stripPlaceholders(out.body);
  return 0;
}
