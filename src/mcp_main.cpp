// tesk-mcp: tesk's verbs as a Model Context Protocol server on standard input and
// output. Standard output carries protocol lines only.
#include <signal.h>
#include <unistd.h>

#include "cli/TeskCLI.h"
#include "mcp/TeskMCPServer.h"

int main(int argc, char** argv) {
  // A host that goes away must end the session quietly, not by a signal.
  ::signal(SIGPIPE, SIG_IGN);
  TeskMCPServer server(argc > 0 ? argv[0] : "tesk-mcp",
                       [](const std::vector<std::string>& args, TeskOut& out) {
                         return TeskCLI::run(args, out, TeskCLI::Environment::fromProcess());
                       });
  return server.serve(STDIN_FILENO, STDOUT_FILENO) ? 0 : 1;
}
