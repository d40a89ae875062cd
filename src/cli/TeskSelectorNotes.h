// Every selector a rows verb accepts is honoured or named in a note: one table of which
// sources can honour which selector, one of which answer shapes cannot, and nothing
// dropped in silence.
#pragma once

#include <string>
#include <vector>

namespace TeskCLI {

// What shapes the answer.
enum class AnswerShape {
  rows,     // rows through the emitter
  buckets,  // --by
  census,   // the who census
  self,     // who me: the Me card and the account file, no rows
  table,    // sql: the statement's own table
};

// The notes for the selectors `given` (as Options::given lists them) that the shape, or
// some of the sources `read`, cannot honour; `requested` is every known key asked for.
std::vector<std::string> selectorNotes(AnswerShape shape, const std::vector<std::string>& given,
                                       const std::vector<std::string>& requested,
                                       const std::vector<std::string>& read);

}  // namespace TeskCLI
