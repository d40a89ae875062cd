// Feeds arbitrary bytes to the typedstream reader.
#include <cstdint>
#include <cstdlib>

#include "cli/TeskText.h"
#include "sources/messages/TeskDecode.h"
#include "sources/messages/TeskTypedStream.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  const TeskTypedStream::Bytes blob(data, size);
  const auto root = TeskTypedStream::rootString(blob);
  const auto name = TeskTypedStream::rootClassName(blob);
  // A string root implies a readable root class, and its text is well-formed.
  if (root && !name) std::abort();
  if (root && !TeskText::isValidUTF8(root->text)) std::abort();
  if (root && root->text.size() > size) std::abort();
  return 0;
}
