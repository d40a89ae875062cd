// The MCP server on untrusted bytes: framing, JSON-RPC dispatch and tools/call all the
// way through a real run (against a home that does not exist). Every input ends in
// response lines that parse as JSON, never a crash or an unbounded buffer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "cli/TeskCLI.h"
#include "mcp/TeskMCPFraming.h"
#include "mcp/TeskMCPServer.h"
#include "report/TeskJSONValue.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 65536) return 0;
  static const TeskCLI::Environment env = [] {
    TeskCLI::Environment e;
    e.home = "/nonexistent/tesk-fuzz-home";
    e.tmpdir = "/tmp";
    e.zone = "UTC";
    e.clock = [] { return 1790000000.0; };
    return e;
  }();
  TeskMCPServer server("tesk-mcp", [](const std::vector<std::string>& args, TeskOut& out) {
    return TeskCLI::run(args, out, env);
  });
  // A small cap so long lines are exercised; the first byte picks where reads split.
  TeskMCPFraming::LineReader reader(4096);
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t step = size ? 1 + data[0] % 64 : 1;
  auto check = [&](const TeskMCPFraming::Line& line) {
    auto response = server.handle(line);
    if (!response) return;
    if (response->find('\n') != std::string::npos || !TeskJSONValue::parse(*response)) abort();
  };
  for (size_t at = 0; at < input.size(); at += step) {
    reader.feed(input.substr(at, step));
    while (auto line = reader.next()) check(*line);
  }
  while (auto line = reader.finish()) check(*line);
  return 0;
}
