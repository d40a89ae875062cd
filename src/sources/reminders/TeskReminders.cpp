#include "sources/reminders/TeskReminders.h"

#include <algorithm>
#include <filesystem>
#include <unordered_set>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "store/TeskStore.h"

namespace TeskReminders {

std::string query(const Columns& c) {
  auto col = [](bool present, const char* name) { return present ? std::string(name) : "NULL"; };
  std::string sql = "SELECT r.Z_PK, ";
  sql += col(c.title, "r.ZTITLE") + ", " + col(c.notes, "r.ZNOTES") + ",\n       ";
  sql += col(c.dueDate, "r.ZDUEDATE") + ", " + col(c.lastModifiedDate, "r.ZLASTMODIFIEDDATE") +
         ",\n       ";
  sql += col(c.creationDate, "r.ZCREATIONDATE") + ", " + col(c.listJoin, "l.ZNAME") + ",\n       ";
  sql += col(c.ckIdentifier, "r.ZCKIDENTIFIER") + ", " +
         col(c.externalIdentifier, "r.ZEXTERNALIDENTIFIER");
  sql += "\nFROM ZREMCDREMINDER r\n";
  if (c.listJoin) sql += "LEFT JOIN ZREMCDBASELIST l ON l.Z_PK = r.ZLIST";
  sql += "\nWHERE COALESCE(";
  sql += c.completed ? "r.ZCOMPLETED" : "0";
  sql += ", 0) = 0\n  AND COALESCE(";
  sql += c.markedForDeletion ? "r.ZMARKEDFORDELETION" : "0";
  sql += ", 0) = 0";
  return sql;
}

std::vector<std::string> storePaths(const std::string& home) {
  const std::string dir =
      home + "/Library/Group Containers/group.com.apple.reminders/Container_v1/Stores";
  std::vector<std::string> names;
  std::error_code ec;
  std::filesystem::directory_iterator it(dir, ec), end;
  for (; !ec && it != end; it.increment(ec)) {
    std::string name = it->path().filename().string();
    if (name.starts_with("Data-") && name.ends_with(".sqlite")) names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  std::vector<std::string> paths;
  paths.reserve(names.size());
  for (const std::string& n : names) paths.push_back(dir + "/" + n);
  return paths;
}

namespace {

constexpr const char* kEmDash = " \xE2\x80\x94 ";  // " — "

Columns probe(TeskStore& store) {
  auto has = [&store](const char* column) { return store.columnExists(column, "ZREMCDREMINDER"); };
  Columns c;
  c.title = has("ZTITLE");
  c.notes = has("ZNOTES");
  c.dueDate = has("ZDUEDATE");
  c.lastModifiedDate = has("ZLASTMODIFIEDDATE");
  c.creationDate = has("ZCREATIONDATE");
  c.ckIdentifier = has("ZCKIDENTIFIER");
  c.externalIdentifier = has("ZEXTERNALIDENTIFIER");
  c.completed = has("ZCOMPLETED");
  c.markedForDeletion = has("ZMARKEDFORDELETION");
  c.listJoin = store.tableExists("ZREMCDBASELIST") && has("ZLIST") &&
               store.columnExists("ZNAME", "ZREMCDBASELIST");
  return c;
}

std::string fileName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A stored date; nothing when NULL or when the column holds no number (a text would
// read as 0.0, 2001-01-01), in which case `garbled` is set.
std::optional<double> appleDate(const TeskRowReader& r, int column, bool& garbled) {
  if (r.isNull(column)) return std::nullopt;
  if (!r.isNumber(column)) {
    garbled = true;
    return std::nullopt;
  }
  return r.real(column) + TeskTime::appleEpochOffset;
}

// State shared by every store of one read.
struct Reading {
  const TeskIMessage::Filter& filter;
  const std::string* who;
  TeskText::Needle needle;
  std::unordered_set<std::string> seen;  // dedupe keys across stores
  Result out;
};

// Appends one store's rows to the reading; failures become denials.
void readStore(const std::string& path, Reading& st) {
  const std::string name = fileName(path);
  std::optional<TeskStore> store;
  try {
    store.emplace(path);
  } catch (const TeskStoreError& e) {
    st.out.denied.push_back("reminder: " + e.description());
    return;
  }
  if (!store->tableExists("ZREMCDREMINDER")) {
    st.out.denied.push_back("reminder: schema moved in " + name);
    return;
  }
  const TeskIMessage::Filter& f = st.filter;
  const double modified = store->sourceModified();
  int64_t emitted = 0;
  try {
    store->query(query(probe(*store)), [&](const TeskRowReader& r) {
      // A reminder synced into two stores is the first store's copy, whatever the
      // window and selectors: deciding after them would let a later copy, due on
      // another day or filed in another list, stand in for one the filters dropped.
      std::string key;
      if (auto ck = r.text(7)) {
        key = std::move(*ck);
      } else if (auto ext = r.text(8)) {
        key = std::move(*ext);
      } else {
        key = name + ":" + std::to_string(r.integer(0));
      }
      if (!st.seen.insert(key).second) return;
      std::string_view title = TeskText::trim(r.textView(1).value_or(std::string_view()));
      std::string body(title);
      std::string_view notes = TeskText::trim(r.textView(2).value_or(std::string_view()));
      if (!notes.empty()) {
        if (!body.empty()) body += kEmDash;
        body += notes;
      }
      if (body.empty()) return;
      bool garbled = false;
      std::optional<double> due = appleDate(r, 3, garbled);
      std::optional<double> stamp = appleDate(r, 4, garbled);
      if (!stamp) stamp = appleDate(r, 5, garbled);
      if (!stamp) stamp = modified;
      const double placed = due.value_or(*stamp);
      if ((f.since && placed < *f.since) || (f.until && placed > *f.until)) return;
      std::string list = r.text(6).value_or("Reminders");
      if (st.who && !TeskText::containsCaseInsensitive(list, *st.who)) return;
      if (!st.needle.empty() && !st.needle.in(body)) return;
      if (f.grep && !f.grep->search(body)) return;
      if (f.direction && *f.direction == TeskRow::Direction::incoming) return;
      TeskRow row;
      row.id = "reminder:" + key;
      row.ts = *stamp;
      row.src = "reminder";
      row.who = std::move(list);
      row.dir = TeskRow::Direction::outgoing;
      row.kind = TeskRow::Kind::reminder;
      row.body = std::move(body);
      row.start = due;
      st.out.rows.push_back(std::move(row));
      ++emitted;
      // A date that is no instant stays on its row but moves no horizon.
      if (garbled || !TeskTime::plausible(placed)) {
        ++st.out.noInstant;
        return;
      }
      if (!st.out.horizon) {
        st.out.horizon = TeskSpan{placed, placed};
      } else {
        st.out.horizon->from = std::min(st.out.horizon->from, placed);
        st.out.horizon->to = std::max(st.out.horizon->to, placed);
      }
    });
  } catch (const TeskStoreError& e) {
    st.out.denied.push_back("reminder: schema moved in " + name + kEmDash + e.description());
  }
  st.out.perStore[name] = emitted;
}

}  // namespace

Result read(const TeskIMessage::Filter& filter, const std::string& home) {
  const std::vector<std::string> paths = storePaths(home);
  if (paths.empty()) {
    Result none;
    none.denied.push_back("reminder: no Apple Reminders store on this Mac");
    return none;
  }
  Reading st{filter,
             filter.who && !filter.who->empty() ? &*filter.who : nullptr,
             TeskText::Needle(filter.query ? std::string_view(*filter.query) : std::string_view()),
             {},
             {}};
  for (const std::string& path : paths) readStore(path, st);
  std::stable_sort(st.out.rows.begin(), st.out.rows.end(),
                   [](const TeskRow& a, const TeskRow& b) { return a.ts < b.ts; });
  return std::move(st.out);
}

}  // namespace TeskReminders
