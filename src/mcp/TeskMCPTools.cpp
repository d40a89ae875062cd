#include "mcp/TeskMCPTools.h"

#include <algorithm>
#include <cmath>

#include "cli/TeskAPI.h"
#include "cli/TeskCLI.h"

namespace TeskMCPTools {
namespace {

using TeskJSON::Array;
using TeskJSON::Object;

constexpr std::string_view kAgentNote =
    "The text is tesk's own output: a `#tesk {...}` receipt line, the rows or report, and "
    "the same receipt again. The receipt states the denominator (rows seen and returned, "
    "sources read, notes, what was denied); two identical receipts mean the answer is "
    "complete, one means it was cut short. Nothing is guessed: what tesk cannot read is "
    "counted in the receipt, not left out. structuredContent repeats the exit code and the "
    "receipt as JSON.";

constexpr std::string_view kTextArgument = "text";

const TeskAPI::Verb* findVerb(std::string_view name) {
  for (const TeskAPI::Verb& v : TeskAPI::verbs())
    if (v.name == name) return &v;
  return nullptr;
}

bool takesSelectors(std::string_view verb) {
  const auto& s = TeskAPI::selectableVerbs();
  return std::find(s.begin(), s.end(), verb) != s.end();
}

std::string joined(const std::vector<std::string_view>& items) {
  std::string out;
  for (auto s : items) {
    if (!out.empty()) out += ", ";
    out += s;
  }
  return out;
}

Object property(const TeskAPI::Selector& s) {
  Object p{{"description", s.takes}};
  switch (s.shape) {
    case TeskAPI::Shape::text:
      p["type"] = "string";
      if (!s.values.empty()) {
        Array values;
        for (auto v : s.values) values.emplace_back(v);
        p["enum"] = std::move(values);
      }
      break;
    case TeskAPI::Shape::commaList:
      // A list of keys is no single enum value; the keys are named instead.
      p["type"] = "string";
      p["description"] = std::string(s.takes) + ": " + joined(s.values);
      break;
    case TeskAPI::Shape::integer:
      p["type"] = "integer";
      break;
    case TeskAPI::Shape::toggle:
      p["type"] = "boolean";
      break;
    case TeskAPI::Shape::repeatable:
      p["type"] = "array";
      p["items"] = Object{{"type", "string"}};
      break;
  }
  return p;
}

Object inputSchema(const TeskAPI::Verb& verb) {
  Object properties;
  if (takesSelectors(verb.name)) {
    for (const TeskAPI::Selector& s : TeskAPI::selectors())
      properties[argumentName(s.flag)] = property(s);
  }
  if (!verb.text.empty())
    properties[std::string(kTextArgument)] = Object{{"type", "string"}, {"description", verb.text}};
  Object schema{
      {"type", "object"}, {"properties", std::move(properties)}, {"additionalProperties", false}};
  if (!verb.needs.empty()) schema["required"] = Array{argumentName(verb.needs)};
  return schema;
}

Object outputSchema() {
  return Object{
      {"type", "object"},
      {"properties",
       Object{{"exit", Object{{"type", "integer"},
                              {"description",
                               "tesk's exit code: 0 an answer, 2 nothing matched, 3 an "
                               "assertion failed or a health report found a fault, 4 bad "
                               "input, 5 the store could not be opened"}}},
              {"receipt", Object{{"description",
                                  "the receipt line's JSON object (after an option error, "
                                  "{\"v\":1,\"error\":...}); null when the text has none"}}}}},
      {"required", Array{"exit", "receipt"}},
  };
}

// The integer a JSON number stands for, when it is one within the 64-bit range.
std::optional<int64_t> integral(const TeskJSONValue::Value& v) {
  const double* d = v.number();
  if (!d || std::floor(*d) != *d || std::fabs(*d) >= 9.2e18) return std::nullopt;
  return static_cast<int64_t>(*d);
}

}  // namespace

std::string argumentName(std::string_view flag) {
  while (!flag.empty() && flag.front() == '-') flag.remove_prefix(1);
  std::string name(flag);
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

Array list() {
  Array tools;
  for (const TeskAPI::Verb& v : TeskAPI::verbs()) {
    tools.emplace_back(Object{
        {"name", v.name},
        {"title", "tesk " + std::string(v.name)},
        {"description", std::string(v.answers) + ". " + std::string(kAgentNote)},
        {"inputSchema", inputSchema(v)},
        {"outputSchema", outputSchema()},
        {"annotations", Object{{"readOnlyHint", true}, {"openWorldHint", false}}},
    });
  }
  return tools;
}

CommandLine commandLine(std::string_view program, std::string_view tool,
                        const TeskJSONValue::Value* arguments) {
  auto invalid = [](std::string problem) {
    CommandLine c;
    c.problem = std::move(problem);
    return c;
  };
  const TeskAPI::Verb* verb = findVerb(tool);
  if (!verb) return invalid("Unknown tool: " + std::string(tool));
  static const TeskJSONValue::Value none{TeskJSONValue::Object{}, {}};
  if (!arguments || arguments->isNull()) arguments = &none;
  if (!arguments->object()) return invalid("arguments must be an object");
  const bool selectable = takesSelectors(verb->name);
  for (const std::string& key : arguments->keys()) {
    bool known = key == kTextArgument && !verb->text.empty();
    for (const TeskAPI::Selector& s : TeskAPI::selectors())
      known = known || (selectable && argumentName(s.flag) == key);
    if (!known) return invalid(std::string(tool) + " takes no argument " + key);
  }

  std::vector<std::string> args{std::string(program), std::string(verb->name)};
  if (selectable) {
    for (const TeskAPI::Selector& s : TeskAPI::selectors()) {
      const std::string name = argumentName(s.flag);
      const TeskJSONValue::Value* v = arguments->member(name);
      if (!v) continue;
      const std::string flag(s.flag);
      switch (s.shape) {
        case TeskAPI::Shape::text:
        case TeskAPI::Shape::commaList:
          if (!v->string()) return invalid(name + " must be a string");
          args.insert(args.end(), {flag, *v->string()});
          break;
        case TeskAPI::Shape::integer: {
          auto n = integral(*v);
          if (!n) return invalid(name + " must be an integer");
          args.insert(args.end(), {flag, std::to_string(*n)});
          break;
        }
        case TeskAPI::Shape::toggle:
          if (!v->boolean()) return invalid(name + " must be a boolean");
          if (*v->boolean()) args.push_back(flag);
          break;
        case TeskAPI::Shape::repeatable: {
          const TeskJSONValue::Array* items = v->array();
          if (!items) return invalid(name + " must be an array of strings");
          for (const TeskJSONValue::Value& item : *items) {
            if (!item.string()) return invalid(name + " must be an array of strings");
            args.insert(args.end(), {flag, *item.string()});
          }
          break;
        }
      }
    }
  }
  if (const TeskJSONValue::Value* text = arguments->member(kTextArgument)) {
    const std::string name(kTextArgument);
    if (!text->string()) return invalid(name + " must be a string");
    // One argument, last: the words reach tesk exactly as given.
    args.push_back(*text->string());
  }
  CommandLine out;
  out.args = std::move(args);
  return out;
}

TeskJSON::Value toWritable(const TeskJSONValue::Value& value) {
  if (const bool* b = value.boolean()) return *b;
  if (const double* d = value.number()) return *d;
  if (const std::string* s = value.string()) return *s;
  if (const TeskJSONValue::Array* a = value.array()) {
    Array out;
    for (const auto& item : *a) out.push_back(toWritable(item));
    return out;
  }
  if (const TeskJSONValue::Object* o = value.object()) {
    Object out;
    for (const auto& [key, item] : *o) out[key] = toWritable(item);
    return out;
  }
  return nullptr;
}

TeskJSON::Value answer(int32_t exit, const std::string& printed) {
  constexpr std::string_view prefix = "#tesk ";
  TeskJSON::Value receipt;
  std::string_view first = std::string_view(printed).substr(0, printed.find('\n'));
  if (first.substr(0, prefix.size()) == prefix) {
    if (auto parsed = TeskJSONValue::parse(first.substr(prefix.size())))
      receipt = toWritable(*parsed);
  }
  return Object{
      {"content", Array{Object{{"type", "text"}, {"text", printed}}}},
      {"structuredContent", Object{{"exit", exit}, {"receipt", std::move(receipt)}}},
      {"isError", exit == TeskCLI::usageError || exit == TeskCLI::storeUnavailable},
  };
}

}  // namespace TeskMCPTools
