// Handle identity on hostile text: any bytes as query and handle. Canonical forms
// must be stable (a canonical handle canonicalises to itself) and nothing may
// read past the input.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "sources/messages/TeskIdentity.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;  // handles are short; longer inputs only slow the search
  std::string_view input(reinterpret_cast<const char*>(data), size);
  size_t cut = input.find('\0');
  std::string_view query = input.substr(0, cut);
  std::string_view handle = cut == std::string_view::npos ? input : input.substr(cut + 1);

  std::string canonical = TeskIdentity::canonical(handle);
  if (TeskIdentity::canonical(canonical) != canonical) __builtin_trap();
  // Matching takes any bytes on either side.
  (void)TeskIdentity::matches(query, handle);
  (void)TeskIdentity::matches(handle, canonical);
  return 0;
}
