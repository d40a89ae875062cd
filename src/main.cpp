// Process entry: hand the argument vector to the dispatcher and exit with its code.
#include <string>
#include <vector>

#include "cli/TeskCLI.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  return TeskCLI::main(args);
}
