#include "cli/TeskSelectorNotes.h"

#include <algorithm>
#include <string_view>

namespace TeskCLI {
namespace {

bool holds(const std::vector<std::string_view>& list, std::string_view item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

// Selectors that mean something only for some sources.
struct Reach {
  std::string_view flag;
  std::vector<std::string_view> sources;  // the sources that honour it
  std::string_view why;
};
const std::vector<Reach>& reaches() {
  static const std::vector<Reach> table{
      {"--unread", {"im", "mail"}, "only Messages and Mail keep a read state"},
      {"--include-reactions", {"im"}, "only Messages has reactions"},
      {"--include-filtered",
       {"im", "mail"},
       "only Messages (unknown senders) and Mail (spam, junk) set rows aside"},
      {"--no-groups", {"im", "mail", "cal"}, "only messages, mail and events have groups"},
      {"--db", {"im"}, "it replaces the message store alone"},
  };
  return table;
}

// Selectors an answer shape has no use for.
struct Unused {
  AnswerShape shape;
  std::vector<std::string_view> flags;  // empty: every selector but --assert
  std::string_view why;
};
const std::vector<Unused>& unused() {
  static const std::vector<Unused> table{
      {AnswerShape::buckets,
       {"--limit", "--cursor", "--format", "--budget"},
       "--by writes every bucket"},
      {AnswerShape::census,
       {"--limit", "--cursor", "--format", "--budget"},
       "the who census lists every person"},
      {AnswerShape::self, {}, "`who me` reads the Me card and the account file, no rows"},
      {AnswerShape::table,
       {"--by", "--grep", "--cursor", "--format", "--budget"},
       "`sql` answers with its statement's own table"},
  };
  return table;
}

std::string joined(const std::vector<std::string>& keys) {
  std::string out;
  for (const std::string& k : keys) out += (out.empty() ? "" : ", ") + k;
  return out;
}

}  // namespace

std::vector<std::string> selectorNotes(AnswerShape shape, const std::vector<std::string>& given,
                                       const std::vector<std::string>& requested,
                                       const std::vector<std::string>& read) {
  std::vector<std::string> notes;
  for (const std::string& flag : given) {
    bool noted = false;
    for (const Unused& u : unused()) {
      if (u.shape != shape) continue;
      if (u.flags.empty() ? flag != "--assert" : holds(u.flags, flag)) {
        notes.push_back(flag + ": " + std::string(u.why) + " — not applied");
        noted = true;
      }
    }
    if (noted) continue;
    if (flag == "--src" && shape == AnswerShape::table) {
      std::vector<std::string> unread;
      for (const std::string& k : requested) {
        if (std::find(read.begin(), read.end(), k) == read.end()) unread.push_back(k);
      }
      if (!unread.empty()) {
        notes.push_back("--src: `sql` reads the message store alone — not read: " + joined(unread));
      }
    }
    for (const Reach& r : reaches()) {
      if (r.flag != flag) continue;
      std::vector<std::string> beyond;
      for (const std::string& k : read) {
        if (!holds(r.sources, k)) beyond.push_back(k);
      }
      if (!beyond.empty()) {
        notes.push_back(flag + ": " + std::string(r.why) + " — not applied to " + joined(beyond));
      }
    }
  }
  return notes;
}

}  // namespace TeskCLI
