#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "cli/TeskCLI.h"
#include "cli/TeskTime.h"
#include "health/TeskPermission.h"
#include "health/TeskShippedDoorBoard.h"

namespace TeskCLI {

Environment Environment::fromProcess() {
  Environment env;
  if (const char* home = std::getenv("HOME"); home && *home) {
    env.home = home;
  } else if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) {
    env.home = pw->pw_dir;
  }
  const char* tmp = std::getenv("TMPDIR");
  env.tmpdir = (tmp && *tmp) ? tmp : "/tmp";
  while (env.tmpdir.size() > 1 && env.tmpdir.back() == '/') env.tmpdir.pop_back();
  env.clock = [] { return TeskTime::currentTime(); };
  env.currentDoorReport = [] { return TeskPermission::report(); };
  env.insideCompanionApp = [](const std::string& program) {
    return TeskShippedDoorBoard::appURL(program).has_value();
  };
  env.shippedDoorReport =
      [](const std::string& program) -> std::optional<std::vector<std::string>> {
    auto app = TeskShippedDoorBoard::appURL(program);
    if (!app) return std::nullopt;
    auto output = TeskShippedDoorBoard::launch(*app);
    if (!output) return std::nullopt;
    return TeskShippedDoorBoard::report(*output);
  };
  return env;
}

}  // namespace TeskCLI
