// Hostile URLs through the host rule: never a crash, and the result keeps the
// rule's shape (an authority without path, user information or port; or a
// prefix of a URL that has no scheme separator).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "sources/web/TeskWeb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > (1u << 16)) return 0;  // real URLs stay far below this
  const std::string_view url(reinterpret_cast<const char*>(data), size);
  const std::string host = TeskWeb::host(url);
  if (url.find("://") != std::string_view::npos) {
    if (host.find_first_of("/?#@:") != std::string::npos) __builtin_trap();
  } else if (!url.starts_with(host)) {
    __builtin_trap();
  }
  return 0;
}
