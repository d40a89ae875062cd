// `tesk api`: the program's own surface as one JSON document (verbs, selectors with
// their allowed values, sources, receipt fields), which an agent's host checks the
// agent's calls against.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace TeskAPI {

struct Verb {
  std::string_view name, answers;
};
struct Selector {
  std::string_view flag, takes;
  std::vector<std::string_view> values;  // empty: the selector takes free text
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
