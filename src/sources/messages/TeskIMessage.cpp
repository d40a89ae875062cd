#include "sources/messages/TeskIMessage.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_map>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "sources/messages/TeskCounterparts.h"
#include "sources/messages/TeskIdentity.h"
#include "store/TeskFunctions.h"
#include "store/TeskStore.h"

namespace TeskIMessage {
namespace {

// The projection, piece by piece; WHO is the counterpart expression.
constexpr const char* kWho = "tesk_who(h.id, c.chat_identifier, COALESCE(c.style, 0))";
constexpr const char* kP1 =
    "SELECT m.ROWID                                   AS row_id,\n       tesk_ts(m.date)           "
    "                AS ts,\n       m.date                                    AS raw_date,\n       "
    "m.is_from_me                              AS is_from_me,\n       m.associated_message_type    "
    "             AS amt,\n       ";
constexpr const char* kP2 = "                                    AS who,\n       tesk_canonical(";
constexpr const char* kP3 =
    ")                    AS tesk_id,\n       tesk_kind(m.ROWID, m.text, m.attributedBody,\n       "
    "          m.associated_message_type, ";
constexpr const char* kP5 =
    ") AS kind,\n       tesk_body(m.ROWID, m.text, m.attributedBody) AS body,\n       (CASE WHEN "
    "COALESCE(c.style, 0) = 43 THEN 1 ELSE 0 END) AS grp,\n       ";
constexpr const char* kFiltered = "(CASE WHEN COALESCE(c.is_filtered, 0) = 1 THEN 1 ELSE 0 END)";
constexpr const char* kP6 =
    "                             AS filtered,\n       COALESCE(j.chat_id, 0)                    "
    "AS chat_id,\n       c.chat_identifier                         AS chat_identifier,\n       ";
constexpr const char* kUnread =
    "(CASE WHEN m.item_type = 0 AND m.is_read = 0 AND m.is_from_me = 0\n            AND "
    "m.is_finished = 1 AND m.is_system_message = 0\n      THEN 1 ELSE 0 END)";
constexpr const char* kP7 = "                                 AS unread,\n       ";
constexpr const char* kP8 = "                               AS attachments\n";
// The message table and its counterpart joins. One chat per message: the smallest
// chat id, found per message through the message_id index when the store has one,
// else by pre-aggregating the join table (an inner join would drop messages in no
// chat and duplicate those in two).
constexpr const char* kFrom = "FROM message m\nLEFT JOIN handle h ON h.ROWID = m.handle_id\n";
// With the message_id index the smallest chat is a correlated subquery, whose cursors are
// opened per evaluation: more than twice the cost of a plain join. A statement over every
// message lists once the messages with several join rows (a scan of the join table, worth
// it only then) and takes the plain join for all the others.
constexpr const char* kMinChat =
    "(SELECT MIN(chat_id) FROM chat_message_join WHERE message_id = m.ROWID)";
constexpr const char* kOneJoinRow =
    "m.ROWID NOT IN (SELECT message_id FROM chat_message_join\n"
    "                     GROUP BY message_id HAVING COUNT(*) > 1)";
constexpr const char* kChatAggregated =
    "LEFT JOIN (SELECT message_id, MIN(chat_id) AS chat_id\n           FROM chat_message_join "
    "GROUP BY message_id) j\n       ON j.message_id = m.ROWID\n";
constexpr const char* kChat = "LEFT JOIN chat c ON c.ROWID = j.chat_id\n";
constexpr const char* kAtt1 =
    "LEFT JOIN (SELECT maj.message_id AS mid, COUNT(*) AS n\n           FROM "
    "message_attachment_join maj\n           JOIN attachment a ON a.ROWID = maj.attachment_id\n    "
    "       ";
constexpr const char* kAttHide = "WHERE COALESCE(a.hide_attachment, 0) = 0";
constexpr const char* kAtt2 = "\n           GROUP BY maj.message_id) att ON att.mid = m.ROWID";

constexpr const char* kStatsTail =
    ",\n       SUM(CASE WHEN j.chat_id IS NULL AND c.chat_identifier IS NULL THEN 1 ELSE 0 END),"
    "\n       SUM(CASE WHEN m.date IS NULL OR m.date = 0 THEN 1 ELSE 0 END)\n";
constexpr const char* kHiddenCount =
    "SELECT COUNT(*) FROM attachment a WHERE COALESCE(a.hide_attachment, 0) = 1";

// One value of a predicate: a "?" with a bind, or a literal when inlining.
class Holes {
 public:
  explicit Holes(bool inlineBinds) : inline_(inlineBinds) {}
  std::string operator()(const TeskValue& v) {
    if (!inline_) {
      binds_.push_back(v);
      return "?";
    }
    switch (v.type()) {
      case TeskValue::Type::integer:
        return std::to_string(v.integer());
      case TeskValue::Type::real:
        return TeskText::shortestDecimal(v.real());
      case TeskValue::Type::null:
        return "NULL";
      case TeskValue::Type::text: {
        std::string out = "'";
        for (char c : v.text()) {
          out += c;
          if (c == '\'') out += '\'';
        }
        return out + "'";
      }
    }
    return "NULL";
  }
  std::vector<TeskValue> take() { return std::move(binds_); }

 private:
  bool inline_;
  std::vector<TeskValue> binds_;
};

double appleToUnix(int64_t v) { return TeskTime::fromAppleDate(v); }

}  // namespace

namespace {

// Stores older than reactions have no tapbacks: their type reads as 0.
std::string withoutMissingType(const Schema& schema, std::string sql) {
  if (schema.associatedType) return sql;
  const std::string column = "m.associated_message_type";
  for (size_t at = sql.find(column); at != std::string::npos; at = sql.find(column, at)) {
    sql.replace(at, column.size(), "0");
  }
  return sql;
}

// What read() takes from each row: the raw counterpart columns instead of tesk_who and
// tesk_canonical, and the raw body columns instead of tesk_kind and tesk_body, which
// read() applies only to rows that survive its filters (a search keeps a tenth of them;
// excluded tapbacks, groups and filtered chats are never decoded, so the census counts
// exactly the rows the answer is about). No attachment count: attachRows() finds the
// files and turns an empty row that has some into an attachment, as the count would.
// Without `bodies` the body columns read as NULL, so no archive page is even read.
std::string readProjection(const Schema& schema, bool bodies, bool chatColumn, bool whoJoins) {
  std::string s = "SELECT m.ROWID, tesk_ts(m.date), m.date, m.is_from_me, m.handle_id,\n       ";
  // The smallest chat id, from the message_id index; Counterparts has it otherwise.
  s += chatColumn ? kMinChat : "NULL";
  s += ",\n       m.associated_message_type, ";
  s += bodies ? "m.text" : "NULL";
  s += ",\n       ";
  s += schema.unreadSupported() ? kUnread : "0";
  s += ",\n       ";
  s += bodies ? "m.attributedBody, " : "NULL, ";
  s += schema.dateEdited ? "m.date_edited" : "0";
  s += "\n";
  // Handles and chats are looked up in memory; a who condition still names them.
  if (!whoJoins) {
    s += "FROM message m\n";
  } else if (schema.chatJoinIndex) {
    s += std::string(kFrom) + "LEFT JOIN chat c ON c.ROWID = " + kMinChat + "\n";
  } else {
    s += joins(schema);
  }
  return withoutMissingType(schema, std::move(s));
}

}  // namespace

std::string joins(const Schema& schema, bool everyMessage) {
  if (!schema.chatJoinIndex) return std::string(kFrom) + kChatAggregated + kChat;
  std::string s = std::string(kFrom) +
                  "LEFT JOIN chat_message_join j\n       ON j.message_id = m.ROWID\n      AND ";
  s += everyMessage
           ? std::string("(") + kOneJoinRow + "\n           OR j.chat_id = " + kMinChat + ")"
           : std::string("j.chat_id = ") + kMinChat;
  return s + "\n" + kChat;
}

std::string defaultPath(const std::string& home) { return home + "/Library/Messages/chat.db"; }

Schema probe(TeskStore& store) {
  Schema s;
  s.associatedType = store.columnExists("associated_message_type", "message");
  s.dateEdited = store.columnExists("date_edited", "message");
  s.isFiltered = store.columnExists("is_filtered", "chat");
  s.itemType = store.columnExists("item_type", "message");
  s.isRead = store.columnExists("is_read", "message");
  s.isFinished = store.columnExists("is_finished", "message");
  s.isSystemMessage = store.columnExists("is_system_message", "message");
  s.attachments = store.tableExists("attachment") && store.tableExists("message_attachment_join");
  s.chatJoinIndex = store.indexLeadsWith("chat_message_join", {"message_id"});
  s.attachmentJoinIndex =
      s.attachments && store.indexLeadsWith("message_attachment_join", {"message_id"});
  s.hideAttachment = s.attachments && store.columnExists("hide_attachment", "attachment");
  s.chatHandleJoin = store.tableExists("chat_handle_join");
  return s;
}

std::pair<std::string, std::vector<TeskValue>> predicates(const Schema& schema,
                                                          const Filter& filter, bool inlineBinds,
                                                          bool keepTapbacks) {
  Holes hole(inlineBinds);
  std::vector<std::string> conds;
  // A bound is written only when given, so SQLite can search the date index.
  // NULL dates and whole-second dates pass SQL and are settled against ts here.
  auto bound = [&hole](double t, const char* op) {
    std::string c = "(m.date IS NULL OR m.date ";
    c += op;
    c += " ";
    c += hole(TeskTime::toAppleNanoseconds(t));
    c += " OR m.date < 1000000000000)";
    return c;
  };
  if (filter.since) conds.push_back(bound(*filter.since, ">="));
  if (filter.until) conds.push_back(bound(*filter.until, "<="));
  if (filter.unreadOnly && schema.unreadSupported()) {
    conds.push_back(
        "(m.item_type = 0 AND m.is_read = 0 AND m.is_from_me = 0\n AND m.is_finished = 1 AND "
        "m.is_system_message = 0)");
  }
  if (!filter.includeTapbacks && !keepTapbacks && schema.associatedType) {
    conds.push_back("NOT (" + TeskFunctions::tapbackSQL + ")");
  }
  if (filter.direction) {
    conds.push_back("m.is_from_me = " +
                    hole(int64_t{*filter.direction == TeskRow::Direction::outgoing ? 1 : 0}));
  }
  if (filter.who && !filter.who->empty()) {
    std::string c = "tesk_match(" + hole(*filter.who) + "," + " " + kWho + ") = 1";
    if (!filter.whoHandles.empty()) {
      // The name's handles, bound once per statement; the group threads they belong
      // to come from one uncorrelated subquery, not a lookup per row.
      auto list = [&] {
        std::string l;
        for (const std::string& h : filter.whoHandles) l += (l.empty() ? "" : ", ") + hole(h);
        return l;
      };
      c = "(" + c + "\n   OR tesk_canonical(" + kWho + ") IN (" + list() + ")";
      if (filter.whoGroups && schema.chatHandleJoin) {
        c += "\n   OR (COALESCE(c.style, 0) = 43 AND c.ROWID IN (SELECT chj.chat_id FROM "
             "chat_handle_join chj\n       JOIN handle hh ON hh.ROWID = chj.handle_id WHERE "
             "tesk_canonical(hh.id) IN (" +
             list() + ")))";
      }
      c += ")";
    }
    conds.push_back(std::move(c));
  }
  std::string sql;
  for (const std::string& c : conds) {
    if (!sql.empty()) sql += "\n  AND ";
    sql += c;
  }
  if (sql.empty()) sql = "1";  // callers always write "WHERE " before the conditions
  return {sql, hole.take()};
}

std::string projection(const Schema& schema, bool everyMessage) {
  // With an index on message_attachment_join(message_id) the count is looked up per
  // projected row, so a statement that never reads it (a COUNT) never pays for it.
  const bool perRow = schema.attachments && schema.attachmentJoinIndex;
  std::string att = "0";
  if (perRow) {
    att =
        "(SELECT COUNT(*) FROM message_attachment_join maj JOIN attachment a ON a.ROWID = "
        "maj.attachment_id WHERE maj.message_id = m.ROWID";
    if (schema.hideAttachment) att += " AND COALESCE(a.hide_attachment, 0) = 0";
    att += ")";
  } else if (schema.attachments) {
    att = "COALESCE(att.n, 0)";
  }
  std::string s = kP1;
  s += kWho;
  s += kP2;
  s += kWho;
  s += kP3;
  s += schema.dateEdited ? "m.date_edited" : "0";
  s += ", ";
  s += att;
  s += kP5;
  s += schema.isFiltered ? kFiltered : "0";
  s += kP6;
  s += schema.unreadSupported() ? kUnread : "0";
  s += kP7;
  s += att;
  s += kP8;
  s += joins(schema, everyMessage);
  if (schema.attachments && !perRow) {
    s += kAtt1;
    if (schema.hideAttachment) s += kAttHide;
    s += kAtt2;
  }
  return withoutMissingType(schema, std::move(s));
}

std::optional<TeskSpan> storeHorizon(TeskStore& store, int64_t& noInstant) {
  std::optional<TeskSpan> out;
  noInstant = 0;
  bool measure = false;
  // One aggregate per subquery, so SQLite reads each end of the date index instead of
  // scanning it (a quarter of a 30-day `im` on 145k messages, paid twice per read).
  store.query(
      "SELECT (SELECT MIN(m.date) FROM message m WHERE m.date != 0),\n"
      "       (SELECT MAX(m.date) FROM message m WHERE m.date != 0)",
      [&](const TeskRowReader& r) {
        if (r.isNull(0) || r.isNull(1)) return;  // no dated message at all
        const double from = appleToUnix(r.integer(0));
        const double to = appleToUnix(r.integer(1));
        if (r.isNumber(0) && r.isNumber(1) && from > 0 && TeskTime::plausible(from) &&
            TeskTime::plausible(to) && from <= to) {
          out = TeskSpan{from, to};
        } else {
          measure = true;
        }
      });
  if (!measure) return out;
  // An end of the index is no instant (text, INT64_MAX, before 1970): measure the
  // horizon over the dates that are instants, and count the others.
  store.query(
      "SELECT MIN(CASE WHEN ok THEN t END), MAX(CASE WHEN ok THEN t END), "
      "SUM(NOT ok) FROM (SELECT t, (n AND t > 0 AND t < " +
          std::to_string(static_cast<int64_t>(TeskTime::latestPlausible)) +
          ") AS ok FROM (SELECT typeof(m.date) IN ('integer', 'real') AS n, "
          "tesk_ts(m.date) AS t FROM message m WHERE m.date != 0))",
      [&](const TeskRowReader& r) {
        noInstant = r.integer(2);
        if (r.isNull(0) || r.isNull(1)) return;
        out = TeskSpan{r.real(0), r.real(1)};
      });
  return out;
}

namespace {

// stats() without a `who` selector (whose conditions all lie on the message table) on a
// store whose join table is indexed by message: no joined scan. Tapbacks, undated rows and orphans
// (no chat link at all) come from one scan of the message table with one index probe per row;
// groups and filtered chats from the messages of those chats alone, reached through the chat side
// of the join table and kept only where that chat is the message's own (its smallest).
void messageSideStats(TeskStore& store, const Schema& schema, const Filter& filter,
                      Result& result) {
  auto [where, binds] = predicates(schema, filter, false, true);
  const std::string tapback =
      schema.associatedType ? "(" + TeskFunctions::tapbackSQL + ")" : std::string("(0)");
  store.query(
      withoutMissingType(
          schema, "SELECT " +
                      (filter.includeTapbacks
                           ? std::string("0")
                           : "COALESCE(SUM(CASE WHEN " + tapback + " THEN 1 ELSE 0 END), 0)") +
                      ",\n       COALESCE(SUM(CASE WHEN NOT EXISTS (SELECT 1 FROM "
                      "chat_message_join WHERE message_id = m.ROWID) THEN 1 ELSE 0 END), 0),"
                      "\n       COALESCE(SUM(CASE WHEN m.date IS NULL OR m.date = 0 THEN 1 ELSE 0 "
                      "END), 0)\nFROM message m\nWHERE " +
                      where),
      binds, [&](const TeskRowReader& r) {
        result.excludedTapback = r.integer(0);
        result.orphans = r.integer(1);
        result.undated = r.integer(2);
      });
  // The waterfall of the joined form: a group row is not a tapback; a filtered one is
  // neither.
  const bool groups = !filter.includeGroups;
  const bool filtered = !filter.includeFiltered && schema.isFiltered;
  if (!groups && !filtered) return;
  std::vector<std::string> chats;
  if (groups) chats.push_back("c.style = 43");
  if (filtered) chats.push_back("c.is_filtered = 1");
  std::string sql = "SELECT ";
  sql += groups ? "COALESCE(SUM(CASE WHEN c.style = 43 THEN 1 ELSE 0 END), 0)" : "0";
  sql += ",\n       ";
  sql += filtered
             ? std::string("COALESCE(SUM(CASE WHEN c.is_filtered = 1") +
                   (groups ? " AND COALESCE(c.style, 0) != 43" : "") + " THEN 1 ELSE 0 END), 0)"
             : std::string("0");
  sql +=
      "\nFROM chat c\nJOIN chat_message_join j ON j.chat_id = c.ROWID\nJOIN message m ON "
      "m.ROWID = j.message_id\nWHERE (" +
      chats[0] + (chats.size() > 1 ? " OR " + chats[1] : std::string()) +
      ")\n  AND j.chat_id = (SELECT MIN(chat_id) FROM chat_message_join WHERE message_id = "
      "m.ROWID)\n  AND " +
      where;
  if (!filter.includeTapbacks) sql += "\n  AND NOT " + tapback;
  store.query(withoutMissingType(schema, sql), binds, [&](const TeskRowReader& r) {
    result.excludedGroup = r.integer(0);
    result.excludedFiltered = r.integer(1);
  });
}

}  // namespace

Result stats(TeskStore& store, const Filter& filter) {
  Schema schema = probe(store);
  Result result;
  result.unreadSupported = schema.unreadSupported();
  result.attachmentsSupported = schema.attachments;
  // The probes need the join table's message_id index (Messages' own stores have it).
  if (schema.chatJoinIndex && (!filter.who || filter.who->empty())) {
    messageSideStats(store, schema, filter, result);
    if (schema.hideAttachment) result.hiddenAttachments = store.scalarInt(kHiddenCount).value_or(0);
    result.horizon = storeHorizon(store, result.noInstant);
    return result;
  }

  // A waterfall: each row is counted once, under the first exclusion that applies.
  std::vector<std::string> active;
  auto counter = [&active](bool on, const std::string& cond) -> std::string {
    if (!on) return "0";
    std::string c = "SUM(CASE WHEN " + cond;
    if (!active.empty()) {
      c += " AND NOT (";
      for (size_t i = 0; i < active.size(); ++i) c += (i ? " OR " : "") + active[i];
      c += ")";
    }
    c += " THEN 1 ELSE 0 END)";
    active.push_back(cond);
    return c;
  };
  std::string tap = counter(!filter.includeTapbacks,
                            schema.associatedType ? "(" + TeskFunctions::tapbackSQL + ")" : "(0)");
  std::string grp = counter(!filter.includeGroups, "(COALESCE(c.style, 0) = 43)");
  std::string fil = counter(!filter.includeFiltered,
                            schema.isFiltered ? "(COALESCE(c.is_filtered, 0) = 1)" : "(0)");
  auto [where, binds] = predicates(schema, filter, false, true);
  std::string sql =
      "SELECT " + tap + ", " + grp + ", " + fil + kStatsTail + joins(schema) + "WHERE " + where;
  store.query(sql, binds, [&](const TeskRowReader& r) {
    result.excludedTapback = r.integer(0);
    result.excludedGroup = r.integer(1);
    result.excludedFiltered = r.integer(2);
    result.orphans = r.integer(3);
    result.undated = r.integer(4);
  });
  if (schema.hideAttachment) result.hiddenAttachments = store.scalarInt(kHiddenCount).value_or(0);
  result.horizon = storeHorizon(store, result.noInstant);
  return result;
}

namespace {

// The visible attachments of one message or of every message: message id, then `columns`.
std::string visibleAttachments(const Schema& schema, const char* columns, bool oneMessage) {
  std::string sql = std::string("SELECT maj.message_id") + columns +
                    "\nFROM message_attachment_join maj\nJOIN attachment a ON a.ROWID = "
                    "maj.attachment_id\nWHERE ";
  sql += oneMessage ? "maj.message_id = ?" : "1";
  if (schema.hideAttachment) sql += " AND COALESCE(a.hide_attachment, 0) = 0";
  return sql;
}

// The dates of the main statement, which walks the date index newest first: numbers
// past 1e12 (nanoseconds since 2001), where ts grows with m.date. '' sorts after every
// number and before every text or blob, so `< ''` keeps the numbers alone.
constexpr const char* kNanosecondDate = "m.date > 1000000000000";
constexpr const char* kNumericDate = "m.date < ''";
// The rest, which m.date order does not put in ts order (NULL, 0, whole seconds,
// text): read first, by three searches of the date index.
constexpr const char* kOtherDates =
    "m.ROWID IN (SELECT ROWID FROM message WHERE date IS NULL\n"
    "            UNION ALL SELECT ROWID FROM message WHERE date <= 1000000000000\n"
    "            UNION ALL SELECT ROWID FROM message WHERE date >= '')";

}  // namespace

Stream::Stream(TeskStore& store, const Filter& filter, const std::string& home)
    : store_(store),
      filter_(filter),
      home_(home),
      schema_(probe(store)),
      wantQuery_(filter.query && !filter.query->empty()),
      bodies_(filter.bodies || wantQuery_ || filter.grep),
      needle_(wantQuery_ ? *filter.query : std::string()) {
  result_.unreadSupported = schema_.unreadSupported();
  result_.attachmentsSupported = schema_.attachments;
  // A statement over every message (or a store without the message_id index) takes
  // each message's chat from one pass over the join table instead of a search per row.
  const bool window = filter.since || filter.until;
  const bool everyMessage = !schema_.chatJoinIndex || !window;
  // Without bodies no reader looks at a row's files or kind. A window asks per kept
  // message (an index search) rather than list the files of the whole archive.
  if (schema_.attachments && bodies_) {
    try {
      if (!window || !schema_.attachmentJoinIndex) {
        withFiles_.emplace();
        store_.query(visibleAttachments(schema_, "", false),
                     [&](const TeskRowReader& r) { withFiles_->insert(r.integer(0)); });
      } else {
        hasFiles_.emplace(store_, visibleAttachments(schema_, "", true) + " LIMIT 1",
                          std::vector<TeskValue>{int64_t{0}});
      }
    } catch (const TeskStoreError&) {
      withFiles_.reset();  // attachments are garnish, not the answer
      hasFiles_.reset();
    }
  }

  // Tapbacks stay in the SQL set so that one pass counts what the receipt needs
  // (tapbacks, orphans, undated rows over the SQL conditions, as stats() does) and
  // no second scan of the store is made; their kind is known without decoding.
  counterparts_.emplace(store_, schema_, everyMessage);
  auto [where, binds] = predicates(schema_, filter, false, true);
  const bool whoJoins = filter.who && !filter.who->empty();
  const std::string select =
      readProjection(schema_, bodies_, counterparts_->chatFromRow(), whoJoins) + "\nWHERE " + where;
  {
    TeskStore::Cursor others(store_, select + "\n  AND " + kOtherDates, binds);
    std::vector<TeskRow> rows;
    for (TeskRow row; pull(others, row);) rows.push_back(std::move(row));
    others_.emplace(std::move(rows));
  }
  // The bounds again as plain ranges, so SQLite searches the date index for them.
  std::string dated = select + "\n  AND ";
  const int64_t since = filter.since ? TeskTime::toAppleNanoseconds(*filter.since) : 0;
  if (since > 1000000000000) {
    dated += "m.date >= ?";
    binds.emplace_back(since);
  } else {
    dated += kNanosecondDate;
  }
  if (filter.until) {
    dated += " AND m.date <= ?";
    binds.emplace_back(TeskTime::toAppleNanoseconds(*filter.until));
  } else {
    dated += std::string(" AND ") + kNumericDate;
  }
  // Two nanosecond dates can round to one ts: those rows are put in id order.
  dated_.emplace(store_, dated + "\nORDER BY m.date DESC", binds);
  instants_ =
      std::make_unique<TeskInstantOrder>([this](TeskRow& row) { return pull(*dated_, row); });
  merge_.add(*others_);
  merge_.add(*instants_);
}

Stream::~Stream() = default;

const TeskRow* Stream::next() { return merge_.next(); }

bool Stream::pull(TeskStore::Cursor& cursor, TeskRow& row) {
  if (error_) return false;
  try {
    while (cursor.next()) {
      if (keep(cursor.row(), row)) return true;
    }
  } catch (const TeskStoreError& e) {
    error_ = e;
  }
  return false;
}

bool Stream::keep(const TeskRowReader& r, TeskRow& row) {
  static const Counterparts::Chat kNoChat;
  const Filter& filter = filter_;
  Result& result = result_;
  const int64_t rowID = r.integer(0);
  const double ts = r.real(1);
  if (ts > 0 && TeskTime::plausible(ts)) {
    lo_ = std::min(lo_, ts);
    hi_ = std::max(hi_, ts);
  }
  const int64_t amt = r.integer(6);
  const bool tapback = TeskFunctions::isTapback(amt);
  if (tapback && !filter.includeTapbacks) ++result.excludedTapback;
  const Counterparts::Thread thread = counterparts_->thread(rowID, r, 5);
  const Counterparts::Chat& chat = thread.chat ? *thread.chat : kNoChat;
  if (thread.orphan) ++result.orphans;
  if (r.isNull(2) || r.integer(2) == 0) ++result.undated;
  if ((filter.since && ts < *filter.since) || (filter.until && ts > *filter.until)) return false;
  const bool unread = r.integer(8) == 1;
  if (filter.unreadOnly && !unread) return false;
  if (tapback && !filter.includeTapbacks) return false;
  const bool grp = chat.group;
  if (grp && !filter.includeGroups) {
    ++result.excludedGroup;
    return false;
  }
  const bool filtered = chat.filtered;
  if (filtered && !filter.includeFiltered) {
    ++result.excludedFiltered;
    return false;
  }
  // Decoded only now, for a row the answer is about; without bodies a row carries
  // none and is "text" unless it is a tapback (its readers look at neither).
  static const TeskFunctions::Decoded kUndecoded;
  TeskFunctions* functions = store_.functions();
  const TeskFunctions::Decoded& decoded =
      bodies_ && functions
          ? functions->decode(rowID, r.textView(7), r.blobView(9).value_or(TeskDecode::Bytes()))
          : kUndecoded;
  TeskRow::Kind kind =
      !bodies_ && !tapback
          ? TeskRow::Kind::text
          : TeskRow::kindFromRaw(TeskFunctions::kind(amt, decoded, r.integer(10), 0))
                .value_or(TeskRow::Kind::empty);
  std::string_view body =
      decoded.stripped ? std::string_view(*decoded.stripped) : std::string_view();
  if (wantQuery_ && !needle_.in(body)) return false;
  if (filter.grep && !filter.grep->search(body)) return false;

  // Assigned into the row's own strings, which a reused row keeps the room of.
  row.clear();
  row.id = "im:";
  row.id += std::to_string(rowID);
  row.ts = ts;
  row.src = "im";
  row.who.assign(TeskFunctions::who(
      counterparts_->handle(r, 4),
      chat.identifier ? std::optional<std::string_view>(*chat.identifier) : std::nullopt,
      chat.style));
  row.teskID = TeskIdentity::canonical(row.who);
  row.dir = r.integer(3) == 1 ? TeskRow::Direction::outgoing : TeskRow::Direction::incoming;
  row.body.assign(body);
  row.group = grp;
  row.filtered = filtered;
  row.chatID = thread.chatID;
  row.unread = unread;
  if (hasFiles(rowID)) {
    attach(rowID, row);
    if (kind == TeskRow::Kind::empty) kind = TeskRow::Kind::attachment;
  }
  row.kind = kind;
  ++kept_;
  return true;
}

bool Stream::hasFiles(int64_t rowID) {
  if (withFiles_) return withFiles_->contains(rowID);
  if (!hasFiles_) return false;
  try {
    hasFiles_->rebind({rowID});
    return hasFiles_->next();
  } catch (const TeskStoreError&) {
    hasFiles_.reset();
    return false;
  }
}

void Stream::attach(int64_t rowID, TeskRow& row) {
  if (!files_ && filesReadable_) {
    try {
      files_.emplace(
          store_,
          visibleAttachments(schema_, ", a.filename, a.transfer_name, a.mime_type, a.total_bytes",
                             true) +
              "\nORDER BY a.ROWID",
          std::vector<TeskValue>{rowID});
    } catch (const TeskStoreError&) {
      filesReadable_ = false;  // the row keeps what it has; its kind needs no file column
      return;
    }
  } else if (files_) {
    files_->rebind({rowID});
  } else {
    return;
  }
  try {
    while (files_->next()) {
      const TeskRowReader& r = files_->row();
      TeskAttachment a;
      if (auto f = r.text(1)) {
        a.path = (!f->empty() && f->front() == '~') ? home_ + f->substr(1) : *f;
      }
      a.name = r.text(2);
      a.mime = r.text(3);
      a.bytes = r.integer(4);
      row.attachments.push_back(std::move(a));
    }
  } catch (const TeskStoreError&) {
  }
}

Result Stream::finish() {
  if (error_) throw *error_;
  Result result = result_;
  if (schema_.attachments && kept_ > 0 && schema_.hideAttachment) {
    result.hiddenAttachments = store_.scalarInt(kHiddenCount).value_or(0);
  }
  std::optional<TeskSpan> horizon;
  if (lo_ <= hi_) horizon = TeskSpan{lo_, hi_};
  try {
    if (auto s = storeHorizon(store_, result.noInstant)) {
      horizon =
          horizon ? TeskSpan{std::min(horizon->from, s->from), std::max(horizon->to, s->to)} : *s;
    }
  } catch (const TeskStoreError&) {
  }
  if (horizon && horizon->from <= horizon->to) result.horizon = horizon;
  result.census = store_.decodeCensus();
  return result;
}

Result read(TeskStore& store, const Filter& filter, const std::string& home) {
  Stream stream(store, filter, home);
  std::vector<TeskRow> rows = drainOldestFirst(stream);
  Result result = stream.finish();
  result.rows = std::move(rows);
  return result;
}

int64_t rawMessageCount(TeskStore& store) {
  return store.scalarInt("SELECT COUNT(*) FROM message").value_or(-1);
}

int64_t innerJoinCount(TeskStore& store) {
  return store
      .scalarInt(
          "SELECT COUNT(*) FROM message m\nJOIN chat_message_join j ON j.message_id = m.ROWID")
      .value_or(-1);
}

}  // namespace TeskIMessage
