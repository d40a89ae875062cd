#include "cli/TeskCLI.h"
namespace TeskCLI {
int main(const std::vector<std::string>&) { return 4; }
}
