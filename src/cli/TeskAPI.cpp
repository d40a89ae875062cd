#include "cli/TeskAPI.h"

#include "report/TeskJSON.h"
#include "report/TeskReceipt.h"

namespace TeskAPI {

const std::vector<Verb>& verbs() {
  static const std::vector<Verb> table{
      {"search", "full text over decoded bodies", "the words to find", ""},
      {"thread", "everything with one person", "words to find within the thread", "--who"},
      {"span", "a window of rows, newest last", "words to find", ""},
      {"im", "iMessage; alias for span/search over --src im", "words to find", ""},
      {"cal", "calendar, recurrence expanded", "words to find in the event titles", ""},
      {"mail", "Apple Mail's Gmail mirror, bodies decoded from .emlx",
       "words to find in the subjects and bodies", ""},
      {"who", "handle or name \u2192 canonical person, and every handle they use",
       "a handle, a fragment or a contact's name, or me for the owner's own handles", ""},
      {"sql", "SQL over the DECODED view", "one SELECT statement over tesk_message", "text"},
      {"views", "the schema `tesk sql` sees", "", ""},
      {"doctor", "per-source freshness, grant state, lock state", "", ""},
      {"doors", "which permission each capability needs, and what it buys", "", ""},
      {"link", "the google\u2194apple account link that fills the stores", "", ""},
      {"gotchas", "the measured traps, and how this binary handles each", "", ""},
      {"api", "this surface", "", ""},
  };
  return table;
}

const std::vector<std::string_view>& selectableVerbs() {
  static const std::vector<std::string_view> table{"search", "thread", "span", "im",
                                                   "cal",    "mail",   "who",  "sql"};
  return table;
}

const std::vector<Selector>& selectors() {
  // The alias --include-tapbacks is accepted but not advertised.
  static const std::vector<Selector> table{
      {"--src",
       "sources, comma separated",
       {"im", "mail", "cal", "reminder", "web", "chrome", "arc", "safari"},
       Shape::commaList},
      {"--who", "phone, email, fragment, or a contact's name", {}, Shape::text},
      {"--since", "30d 12m 5y 48h 90min, or 2026-01-01", {}, Shape::text},
      {"--until", "same shapes as --since, or +30d to look forward", {}, Shape::text},
      {"--dir", "direction", {"in", "out"}, Shape::text},
      {"--grep", "regex over the decoded body", {}, Shape::text},
      {"--by",
       "one row per bucket instead of per row",
       {"day", "week", "month", "year", "who", "person"},
       Shape::text},
      {"--limit", "N; 0 means no limit", {}, Shape::integer},
      {"--cursor",
       "where a capped answer stopped: append the receipt's next as it stands",
       {},
       Shape::text},
      {"--format", "how rows are rendered", {"auto", "tsv", "json", "agg"}, Shape::text},
      {"--assert", "a term the receipt must satisfy", {}, Shape::repeatable},
      {"--include-reactions", "keep tapbacks, which are dropped by default", {}, Shape::toggle},
      {"--no-groups", "one-to-one only", {}, Shape::toggle},
      {"--include-filtered", "include the Unknown Senders filter", {}, Shape::toggle},
      {"--unread", "unread only", {}, Shape::toggle},
      {"--db", "read a specific store instead of the default", {}, Shape::text},
      {"--budget", "characters the answer may spend", {}, Shape::integer},
  };
  return table;
}

const std::vector<Source>& sources() {
  static const std::vector<Source> table{
      {"im", "iMessage, decoded bodies"},
      {"mail", "Apple Mail's local mirror"},
      {"cal", "the local calendar store, recurrence expanded"},
      {"reminder", "unfinished Apple Reminders; present state, not history"},
      {"web", "browser history: chrome, arc, safari"},
  };
  return table;
}

const std::vector<std::string_view>& receiptFields() { return TeskReceipt::keys(); }

std::string json() {
  using TeskJSON::Array;
  using TeskJSON::Object;
  auto strings = [](const std::vector<std::string_view>& items) {
    Array a;
    for (auto s : items) a.emplace_back(s);
    return a;
  };
  Array verbList, selectorList, sourceList;
  for (const auto& v : verbs())
    verbList.emplace_back(Object{{"name", v.name}, {"answers", v.answers}});
  for (const auto& s : selectors()) {
    Object o{{"flag", s.flag}, {"takes", s.takes}};
    if (!s.values.empty()) o.emplace("values", strings(s.values));
    selectorList.emplace_back(std::move(o));
  }
  for (const auto& s : sources())
    sourceList.emplace_back(Object{{"name", s.name}, {"reads", s.reads}});
  Object document{
      {"schema", 1},
      {"readOnly", true},
      {"verbs", std::move(verbList)},
      {"selectableVerbs", strings(selectableVerbs())},
      {"selectors", std::move(selectorList)},
      {"sources", std::move(sourceList)},
      {"receipt", strings(receiptFields())},
  };
  return TeskJSON::pretty(document).value_or("{}");
}

}  // namespace TeskAPI
