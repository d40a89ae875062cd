#include "store/TeskSQL.h"

#include "cli/TeskText.h"
#include "sources/messages/TeskIMessage.h"
#include "store/TeskStore.h"

namespace {

// clang-format off
const char* const kSchema = "CREATE VIEW tesk_message (\n  id       TEXT,      -- 'im:44182' — source-prefixed, globally unique\n  ts       REAL,      -- unix seconds. ALWAYS. never Apple ns, never WebKit us\n  iso      TEXT,      -- the same instant, ISO-8601 UTC, for readable GROUP BY\n  src      TEXT,      -- 'im' in phase 1\n  who      TEXT,      -- the handle as stored\n  tesk_id  TEXT,      -- canonical person: phone digits merged, email lowercased\n  dir      TEXT,      -- 'in' | 'out'\n  kind     TEXT,      -- 'text' | 'attachment' | 'tapback' | 'edited' | 'empty'\n  body     TEXT,      -- DECODED, placeholder stripped. NULL when unreadable\n  grp      INTEGER,   -- 1 when chat.style = 43\n  filtered INTEGER,   -- 1 when Apple flagged the chat unknown-sender/spam\n  chat_id  INTEGER,   -- 0 when the message belongs to no chat\n  unread   INTEGER,   -- 1 when incoming, finished, and not yet read\n  files    INTEGER    -- visible attachments on this message\n)\n-- `body` is decoded per row, on demand. A query that does not read it does\n-- not pay for it: prefer COUNT/GROUP BY and a LIMIT, and reach for\n-- `body LIKE` only when the question is actually about words.";
const char* const kViewHead = "CREATE TEMP VIEW tesk_message AS\nSELECT 'im:' || row_id           AS id,\n       ts,\n       tesk_iso(ts)              AS iso,\n       'im'                      AS src,\n       who,\n       tesk_id,\n       CASE is_from_me WHEN 1 THEN 'out' ELSE 'in' END AS dir,\n       kind,\n       body,\n       grp,\n       filtered,\n       chat_id,\n       unread,\n       attachments               AS files\nFROM (\n";
// clang-format on

}  // namespace

const std::string& TeskSQL::schema() {
  static const std::string text = kSchema;
  return text;
}

const std::string& TeskSQL::refusal() {
  static const std::string text =
      "tesk sql accepts SELECT/WITH only — this binary has no write path";
  return text;
}

std::vector<std::string> TeskSQL::documentedColumns() {
  std::vector<std::string> out;
  const std::string& s = schema();
  size_t start = 0;
  while (start < s.size()) {
    size_t end = s.find('\n', start);
    if (end == std::string::npos) end = s.size();
    std::string_view line = TeskText::trim(std::string_view(s).substr(start, end - start));
    start = end + 1;
    if (line.empty() || line.starts_with("--") || line.starts_with("CREATE") ||
        line.starts_with(")")) {
      continue;
    }
    out.emplace_back(line.substr(0, line.find(' ')));
  }
  return out;
}

TeskSQL::TeskSQL(TeskStore& store, const TeskIMessage::Filter& filter) : store_(store) {
  TeskIMessage::Schema probed = TeskIMessage::probe(store);
  TeskIMessage::Filter inner = filter;
  auto [where, binds] = TeskIMessage::predicates(probed, inner, true, false);
  std::vector<std::string> outer;
  if (filter.since) outer.push_back("ts >= " + TeskText::shortestDecimal(*filter.since));
  if (filter.until) outer.push_back("ts <= " + TeskText::shortestDecimal(*filter.until));
  if (!filter.includeGroups) outer.push_back("grp = 0");
  if (!filter.includeFiltered) outer.push_back("filtered = 0");
  std::string outerClause;
  for (const std::string& c : outer) outerClause += (outerClause.empty() ? "WHERE " : " AND ") + c;
  store_.execute("DROP VIEW IF EXISTS temp.tesk_message");
  store_.execute(std::string(kViewHead) +
                 TeskIMessage::projection(probed, !filter.since && !filter.until) + "\nWHERE " +
                 where + "\n)\n" + outerClause);
}

TeskSQL::Table TeskSQL::run(const std::string& sql, int64_t keep) {
  Table table;
  Table counted = run(sql, keep, [&table](std::vector<std::string>& cells) {
    table.rows.push_back(std::move(cells));
  });
  table.columns = std::move(counted.columns);
  table.total = counted.total;
  return table;
}

TeskSQL::Table TeskSQL::run(const std::string& sql, int64_t keep,
                            const std::function<void(std::vector<std::string>&)>& row) {
  std::string head = TeskText::lower(TeskText::trim(sql));
  if (!head.starts_with("select") && !head.starts_with("with")) {
    throw TeskStoreError::sql(refusal());
  }
  // The prefix lets WITH ... DELETE through; SQLite itself knows whether it writes.
  if (!store_.isReadOnly(sql)) throw TeskStoreError::sql(refusal());
  // SQLite would run the first and drop the rest without a word.
  if (!store_.holdsOneStatement(sql)) {
    throw TeskStoreError::sql(
        "tesk sql runs one statement — this text holds more than one; send each on its own");
  }
  Table table;
  bool named = false;
  std::vector<std::string> cells;
  store_.query(sql, [&](const TeskRowReader& r) {
    const int n = r.columnCount();
    if (!named) {
      for (int i = 0; i < n; ++i) table.columns.push_back(r.columnName(i));
      named = true;
    }
    const bool kept = keep < 1 || table.total < keep;
    ++table.total;
    if (!kept) return;
    cells.clear();
    for (int i = 0; i < n; ++i) cells.push_back(r.display(i).value_or(std::string()));
    row(cells);
  });
  if (!named) table.columns = store_.columnNames(sql);
  return table;
}
