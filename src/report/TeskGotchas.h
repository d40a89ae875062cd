// The measured traps of every source and how tesk handles each: the reasons behind
// many of its decisions, kept as data and printed by `tesk gotchas`.
#pragma once

#include <string>
#include <vector>

namespace TeskGotchas {

// The 62 lines of the table, fixed: a title, a blank line, the header
// "src\ttrap\tmeasured\thandled as", 55 rows of four tab-separated fields, a blank line
// and three closing comment lines. The numbers are those of the corpus it was measured on.
const std::vector<std::string>& lines();

}  // namespace TeskGotchas
