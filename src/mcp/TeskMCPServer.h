// The MCP dispatcher: one JSON-RPC message line in, at most one response line out.
// Single-threaded; requests are answered in the order they arrive.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/TeskOut.h"
#include "mcp/TeskMCPFraming.h"
#include "report/TeskJSONValue.h"

class TeskMCPServer {
 public:
  // Runs one command line into the sink and returns its exit code (TeskCLI::run with
  // the process's surroundings, in the program; pinned ones in tests).
  using Runner = std::function<int32_t(const std::vector<std::string>& args, TeskOut& out)>;

  // Protocol revisions answered, newest first.
  static const std::vector<std::string_view>& protocolVersions();

  TeskMCPServer(std::string program, Runner runner)
      : program_(std::move(program)), runner_(std::move(runner)) {}

  // The response to one input line; nothing for a notification, a response, or a blank
  // line. Never throws.
  std::optional<std::string> handle(const TeskMCPFraming::Line& line);

  // Reads messages from `in` until its end and writes responses to `out`, one per line.
  // Returns false when `out` could not be written.
  bool serve(int in, int out);

 private:
  // The response to one parsed message (or batch element). `id` below is JSON text.
  std::optional<std::string> message(const TeskJSONValue::Value& message);
  std::string request(const std::string& id, const std::string& method,
                      const TeskJSONValue::Value* params);
  std::string toolCall(const std::string& id, const TeskJSONValue::Value* params);

  std::string program_;
  Runner runner_;
};
