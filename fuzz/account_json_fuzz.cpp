// Hostile bytes as the companion application's account file: the strict JSON
// reader must end every input in an answer, and an answer is always an e-mail.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sources/messages/TeskContacts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader refuses files beyond a megabyte before parsing them.
  if (size > (1u << 20)) return 0;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto handle = TeskContacts::accountHandle(text);
  if (handle && (handle->empty() || handle->find('@') == std::string::npos)) __builtin_trap();
  return 0;
}
