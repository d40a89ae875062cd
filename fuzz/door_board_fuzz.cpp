// The companion app's door board is another process's output: any bytes must parse to
// a board or to nothing, never a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "health/TeskShippedDoorBoard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;  // a board is a few hundred bytes
  std::string_view output(reinterpret_cast<const char*>(data), size);
  auto lines = TeskShippedDoorBoard::report(output);
  if (lines && lines->size() < 8) __builtin_trap();  // a board always renders seven doors
  return 0;
}
