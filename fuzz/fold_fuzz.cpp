// Search folding on arbitrary bytes: the code-point fold, when it answers, must equal
// the whole-string fold, and a needle must be found in any text that contains it.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "cli/TeskText.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;  // bodies are longer, but folding is per code point
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto fast = TeskText::foldByCodePoint(text)) {
    if (*fast != TeskText::foldWhole(text)) __builtin_trap();
  }
  // The first line as a needle against the text that holds it.
  const std::string_view needle = text.substr(0, text.find('\n'));
  if (!TeskText::Needle(needle).in(text) && TeskText::isASCII(text)) __builtin_trap();
  return 0;
}
