// Option parsing and time expressions on arbitrary argument vectors: every input
// ends in Options or an OptionError, never a crash.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "cli/TeskOptions.h"
#include "cli/TeskTime.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  // NUL separates arguments; the first byte picks the verb.
  std::vector<std::string> args;
  size_t start = 1;
  while (start <= input.size()) {
    size_t end = input.find('\0', start);
    if (end == std::string::npos) end = input.size();
    args.push_back(input.substr(start, end - start));
    start = end + 1;
  }
  static const char* const kVerbs[] = {"search", "im", "span", "mail", "cal", "who", "sql"};
  const std::string verb = size ? kVerbs[data[0] % 7] : "span";
  try {
    TeskCLI::Options::parse(args, verb, 1790000000.0, size % 2 ? "UTC" : "Asia/Tokyo");
  } catch (const TeskCLI::OptionError&) {
  }
  for (const std::string& a : args) {
    (void)TeskTime::parseWhen(a, 1790000000.0, "America/Los_Angeles");
    (void)TeskTime::parseISO(a);
  }
  return 0;
}
