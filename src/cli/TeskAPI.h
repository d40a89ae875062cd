// `tesk api`: the program's own surface as one JSON document (verbs, selectors with
// their allowed values, sources, receipt fields), which an agent's host checks the
// agent's calls against.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace TeskAPI {

// What a verb makes of the positional words, and what it cannot run without; `api`
// prints neither, the MCP tool schemas are built from both.
struct Verb {
  std::string_view name, answers;
  std::string_view text;   // the positional words; empty: the verb ignores them
  std::string_view needs;  // "--who", "text", or empty
};
// How a selector's value is written on the command line.
enum class Shape {
  text,        // --flag VALUE
  commaList,   // --flag a,b,c
  integer,     // --flag N
  toggle,      // --flag alone
  repeatable,  // --flag VALUE, once per value
};
struct Selector {
  std::string_view flag, takes;
  std::vector<std::string_view> values;  // empty: the selector takes free text
  Shape shape;
};
struct Source {
  std::string_view name, reads;
};

// The tables, in the order they are printed.
const std::vector<Verb>& verbs();
const std::vector<std::string_view>& selectableVerbs();
const std::vector<Selector>& selectors();
const std::vector<Source>& sources();
const std::vector<std::string_view>& receiptFields();

// The document, pretty-printed with sorted keys in the platform JSON writer's layout
// (two-space indent, "key" : value); "{}" should serialisation ever fail.
std::string json();

}  // namespace TeskAPI
