// Feeds arbitrary bytes to the keyed-archive reader and its error-chain walk.
#include <cstdint>

#include "sources/messages/TeskKeyedArchive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 20)) return 0;
  const TeskKeyedArchive::Bytes bytes(data, size);
  TeskKeyedArchive::decode(bytes);
  TeskKeyedArchive::attributedString(bytes);
  TeskKeyedArchive::string(bytes);
  TeskKeyedArchive::errorChain(bytes);
  return 0;
}
