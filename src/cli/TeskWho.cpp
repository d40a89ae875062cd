#include "cli/TeskWho.h"

#include <algorithm>
#include <limits>
#include <map>
#include <set>

#include "cli/TeskOptions.h"
#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "sources/messages/TeskIdentity.h"

namespace TeskCLI {

const char* const whoHeader = "tesk_id\thandles\tmessages\tin\tout\tfirst\tlast\tname";

namespace {

struct Person {
  std::set<std::string> handles;
  int64_t total = 0;
  int64_t inbound = 0;
  int64_t outbound = 0;
  double first = std::numeric_limits<double>::max();
  double last = -std::numeric_limits<double>::max();
};

std::string joinHandles(const std::set<std::string>& handles) {
  std::string s;
  for (const std::string& h : handles) {
    if (!s.empty()) s += '|';
    s += TeskText::escapeTSV(h);
  }
  return s;
}

}  // namespace

std::vector<WhoRow> whoTable(const std::vector<TeskRow>& rows,
                             const std::optional<std::string>& query,
                             const TeskContacts::Roster& roster,
                             const std::optional<TeskContacts::MeCard>& me,
                             const std::vector<std::string>& named) {
  TeskRowList list(rows);
  return whoTable(list, query, roster, me, named);
}

std::vector<WhoRow> whoTable(TeskRowStream& rows, const std::optional<std::string>& query,
                             const TeskContacts::Roster& roster,
                             const std::optional<TeskContacts::MeCard>& me,
                             const std::vector<std::string>& named) {
  std::vector<WhoRow> out;
  if (isSelfQuery(query)) {
    if (me) {
      std::string handles;
      for (const std::string& h : me->handles) {
        handles += (handles.empty() ? "" : "|") + TeskText::escapeTSV(h);
      }
      out.push_back({"me\t" + handles + "\t0\t0\t0\t\t\t" + TeskText::escapeTSV(me->name)});
    }
    return out;
  }
  const bool filtering = query && !query->empty();
  const std::string queryLower = filtering ? TeskText::lower(*query) : std::string();
  std::map<std::string, Person> people;
  while (const TeskRow* next = rows.next()) {
    const TeskRow& row = *next;
    if (row.teskID.empty()) continue;
    if (filtering && !TeskIdentity::matches(*query, row.who) &&
        TeskText::lower(row.teskID).find(queryLower) == std::string::npos &&
        !std::binary_search(named.begin(), named.end(), row.teskID)) {
      continue;
    }
    Person& p = people[row.teskID];
    p.handles.insert(row.who);
    ++p.total;
    if (row.dir == TeskRow::Direction::incoming) {
      ++p.inbound;
    } else {
      ++p.outbound;
    }
    p.first = std::min(p.first, row.ts);
    p.last = std::max(p.last, row.ts);
  }
  std::vector<std::pair<const std::string*, const Person*>> order;
  for (const auto& [id, p] : people) order.emplace_back(&id, &p);
  std::stable_sort(order.begin(), order.end(), [](const auto& a, const auto& b) {
    return a.second->total > b.second->total;  // ties stay in ascending id order
  });
  for (const auto& [id, p] : order) {
    std::optional<std::string> name;
    auto hit = roster.byHandle.find(*id);
    if (hit != roster.byHandle.end()) name = hit->second;
    for (auto h = p->handles.begin(); !name && h != p->handles.end(); ++h) {
      auto byHandle = roster.byHandle.find(TeskIdentity::canonical(*h));
      if (byHandle != roster.byHandle.end()) name = byHandle->second;
    }
    out.push_back({TeskText::escapeTSV(*id) + "\t" + joinHandles(p->handles) + "\t" +
                   std::to_string(p->total) + "\t" + std::to_string(p->inbound) + "\t" +
                   std::to_string(p->outbound) + "\t" + TeskTime::isoString(p->first) + "\t" +
                   TeskTime::isoString(p->last) + "\t" + TeskText::escapeTSV(name.value_or(""))});
  }
  return out;
}

}  // namespace TeskCLI
