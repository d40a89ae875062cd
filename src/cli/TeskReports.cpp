#include "cli/TeskReports.h"

#include <set>

#include "cli/TeskOptions.h"
#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "cli/TeskWho.h"
#include "sources/messages/TeskContacts.h"
#include "sources/messages/TeskIdentity.h"
#include "sources/messages/TeskPeople.h"
#include "store/TeskSQL.h"
#include "store/TeskStore.h"

namespace TeskCLI {

std::vector<std::string> viewsBody() {
  return {"# `tesk sql` runs against this. bodies are DECODED, ts is unix seconds.",
          TeskSQL::schema(),
          "",
          "# assert terms",
          "#   flags: not-capped, capped, complete, fresh, granted, any",
          "#   numeric: rows, rows_out, coverage|decode_rate, undecodable, orphans, ms, age_hours",
          "#   operators: >= <= > < == ="};
}

BucketAnswer bucketAnswer(TeskRowStream& rows, TeskBucket::Kind kind,
                          const TeskContacts::Roster& roster, const Environment& env) {
  BucketAnswer a;
  // A person is the card that holds the handle, else the handle alone.
  const TeskBucket::PersonLookup people = [&roster](const std::string& handle) {
    const TeskContacts::Card* card = roster.cardOf(handle);
    return card ? TeskBucket::Person{card->key, card->name} : TeskBucket::Person{handle, {}};
  };
  std::vector<TeskBucket::Row> buckets = TeskBucket::apply(rows, kind, env.zone, people);
  a.buckets = static_cast<int64_t>(buckets.size());
  if (kind == TeskBucket::Kind::person) {
    int64_t carded = 0;
    std::set<std::string> handles;
    for (const TeskBucket::Row& b : buckets) {
      handles.insert(b.handles.begin(), b.handles.end());
      const bool card = !b.handles.empty() &&
                        roster.cardOf(TeskIdentity::canonical(*b.handles.begin())) != nullptr;
      carded += card ? 1 : 0;
    }
    a.note = "person: " + std::to_string(a.buckets) + " people from " +
             std::to_string(handles.size()) + " handles in these rows, " + std::to_string(carded) +
             " with a contact card";
    if (roster.sharedHandles > 0) a.note += " · " + TeskPeople::sharedNote(roster.sharedHandles);
    a.note += " · this is not the size of the address books";
    a.lines = TeskBucket::render(buckets, TeskBucket::NameLookup(), kind);
  } else if (kind == TeskBucket::Kind::who) {
    int64_t resolved = 0;
    for (const TeskBucket::Row& b : buckets) resolved += roster.byHandle.count(b.key) ? 1 : 0;
    a.note = "who: " + std::to_string(resolved) + " of " + std::to_string(a.buckets) +
             " resolved to a name in the address books";
    a.lines = TeskBucket::render(buckets, roster.byHandle, kind);
  } else {
    a.note = "bucketed by " + std::string(TeskBucket::rawValue(kind)) + " in " +
             TeskTime::zoneUsed(env.zone) +
             " — a UTC bucket splits the evening and answers a different question";
    a.lines = TeskBucket::render(
        buckets, TeskBucket::NameLookup([](const std::string&) { return std::nullopt; }), kind);
  }
  return a;
}

WhoAnswer whoAnswer(TeskRowStream& rows, const std::optional<std::string>& query,
                    const TeskContacts::Roster& roster, const Environment& env) {
  WhoAnswer a;
  const bool self = isSelfQuery(query);
  std::optional<TeskContacts::MeCard> me;
  if (self) me = TeskContacts::selfCard(env.home);
  TeskPeople::Resolution person;
  if (!self && query && !query->empty()) {
    person = TeskPeople::resolve(roster, *query);
    a.resolved = TeskPeople::notes(person, "who", *query);
  }
  std::vector<WhoRow> census = whoTable(rows, query, roster, me, person.handles);
  a.people = static_cast<int64_t>(census.size());
  a.lines.push_back(whoHeader);
  int64_t named = 0;
  for (const WhoRow& w : census) {
    a.lines.push_back(w.line);
    named += w.line.back() != '\t' ? 1 : 0;
  }
  if (self) {
    a.note =
        "who me: macOS's Me card plus the authenticated Harbend account email · "
        "messages/in/out are zero because this is identity, not a thread census";
  } else {
    a.note = "who: of the " + std::to_string(a.people) + " people in these rows, " +
             std::to_string(named) + " have a contact card";
    if (named < a.people) {
      a.note += " · " + std::to_string(a.people - named) + " have none";
      if (!roster.denied.empty()) {
        a.note += " in the " + std::to_string(roster.books.size()) +
                  " readable address books (see denied)";
      }
    }
    a.note +=
        " · this is not the size of the address books · counts every thread; `--no-groups` asks "
        "the one-to-one question instead";
  }
  return a;
}

SqlAnswer sqlAnswer(TeskStore& store, const TeskIMessage::Filter& filter,
                    const std::string& statement, int64_t limit, const std::string& tmpDir,
                    size_t heldBytes) {
  SqlAnswer a;
  try {
    TeskSQL sql(store, filter);
    a.lines.emplace_back();  // the header, once the statement has named its columns
    TeskHeldLines printed(a.lines, tmpDir, heldBytes);
    TeskSQL::Table t = sql.run(statement, limit, [&](std::vector<std::string>& cells) {
      std::string line;
      for (size_t i = 0; i < cells.size(); ++i) {
        if (i) line += '\t';
        line += TeskText::escapeTSV(cells[i]);
      }
      printed.add(std::move(line));
      ++a.rowsOut;
    });
    for (size_t i = 0; i < t.columns.size(); ++i) {
      if (i) a.lines[0] += '\t';
      a.lines[0] += TeskText::escapeTSV(t.columns[i]);
    }
    a.rowsTotal = t.total;
    a.rest = printed.rest();
  } catch (const TeskStoreError& e) {
    a.error = e.description();
  }
  a.census = store.decodeCensus();
  return a;
}

}  // namespace TeskCLI
