// The capture status file is written by another program: any bytes must parse to a
// value or to nothing, within the nesting bound, never a crash.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "health/TeskOptelHealth.h"
#include "report/TeskJSONValue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto v = TeskJSONValue::parse(text)) {
    if (const auto* s = v->member("heartbeat_at"); s != nullptr && s->string() != nullptr) {
      TeskOptelHealth::date(*s->string());
    }
  }
  TeskOptelHealth::date(text.substr(0, 40));
  return 0;
}
