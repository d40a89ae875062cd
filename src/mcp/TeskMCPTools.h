// The MCP tools: one per verb of the catalogue (cli/TeskAPI), their schemas built from
// its tables, a tools/call turned into the command line it stands for, and the CLI's
// printed answer turned into a tools/call result.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "report/TeskJSON.h"
#include "report/TeskJSONValue.h"

namespace TeskMCPTools {

// The `tools` array of tools/list.
TeskJSON::Array list();

// A selector's argument name: the flag without its dashes, inner dashes as
// underscores ("--include-reactions" -> "include_reactions").
std::string argumentName(std::string_view flag);

struct CommandLine {
  std::vector<std::string> args;  // program, verb, selectors in catalogue order, text last
  std::string problem;            // set when the call is invalid; `args` is then empty
};

// The command line a tools/call stands for. Only shapes are checked here (an unknown
// tool or argument, a wrong JSON type); values are tesk's to judge, as on the command
// line. `arguments` may be null (no arguments).
CommandLine commandLine(std::string_view program, std::string_view tool,
                        const TeskJSONValue::Value* arguments);

// The tools/call result for what the command line printed and its exit code.
TeskJSON::Value answer(int32_t exit, const std::string& printed);

// A parsed JSON value in the writer's tree (keys re-sorted; a repeated key keeps its
// last value).
TeskJSON::Value toWritable(const TeskJSONValue::Value& value);

}  // namespace TeskMCPTools
