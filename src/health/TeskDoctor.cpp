#include "health/TeskDoctor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

#include <sqlite3.h>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "health/TeskGrant.h"
#include "health/TeskOptelHealth.h"
#include "sources/mail/TeskMail.h"
#include "sources/reminders/TeskReminders.h"
#include "store/TeskStore.h"

namespace TeskDoctor {
namespace {

namespace fs = std::filesystem;

bool exists(const std::string& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

// Directory entry names, sorted; none when the directory cannot be listed.
std::vector<std::string> entries(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  fs::directory_iterator it(dir, ec);
  for (; !ec && it != fs::directory_iterator(); it.increment(ec)) {
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

int64_t saturate(double v) {
  if (std::isnan(v)) return 0;
  if (v >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (v <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(v);
}

Probe makeProbe(std::string key, Category category, std::vector<std::string> paths, bool aggregate,
                std::string table, std::string column, Probe::Epoch epoch, bool forwardLooking,
                std::optional<std::string> provider, std::string note) {
  Probe p;
  p.key = std::move(key);
  p.category = category;
  p.paths = std::move(paths);
  p.aggregate = aggregate;
  p.table = std::move(table);
  p.column = std::move(column);
  p.epoch = epoch;
  p.forwardLooking = forwardLooking;
  p.provider = std::move(provider);
  p.note = std::move(note);
  return p;
}

// full: every count the doctor prints; newest: only what a verdict needs.
enum class Depth { full, newest };

// What the opened stores of one probe add up to.
struct Reading {
  int opened = 0;
  double newest = 0;       // unix seconds; 0 when no dated row
  int64_t count = 0;       // dated rows not in the future (every row when forward-looking)
  int64_t future = 0;      // dated more than an hour ahead
  int64_t undated = 0;     // NULL in the date column
  int64_t outOfRange = 0;  // a value that is no instant (not a number, before 1970, after 2200)
  double modified = 0;
  std::set<std::string> modes;
  std::optional<std::string> failure;  // the first, only
};

std::string number(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

// The SQL expression for `column` in unix seconds, NULL when it holds no number; the
// same conversion as Probe::toUnix, so the comparisons below are made in one unit
// whatever the store keeps (Safari's seconds and chat.db's nanoseconds alike).
std::string unixExpression(Probe::Epoch epoch, const std::string& column) {
  const std::string& c = column;
  std::string t;
  switch (epoch) {
    case Probe::Epoch::apple:
      t = "CASE WHEN " + c + " = 0 THEN 0 WHEN " + c + " BETWEEN -1e12 AND 1e12 THEN " + c + " + " +
          number(TeskTime::appleEpochOffset) + " ELSE " + c + " / 1e9 + " +
          number(TeskTime::appleEpochOffset) + " END";
      break;
    case Probe::Epoch::webkit:
      t = "CASE WHEN " + c + " = 0 THEN 0 ELSE " + c + " / 1e6 + " +
          number(TeskTime::webkitEpochOffset) + " END";
      break;
    case Probe::Epoch::unixSeconds:
      t = c;
      break;
  }
  return "CASE WHEN typeof(" + c + ") IN ('integer', 'real') THEN " + t + " END";
}

// The reason a store's statements failed, in the doctor's words.
std::string failureText(const TeskStoreError& e, const std::string& path) {
  switch (e.sqliteCode()) {
    case SQLITE_NOTADB:
      return "not a database: " + path;
    case SQLITE_CORRUPT:
      return "malformed: " + path;
    default:
      return "schema moved: " + e.description();
  }
}

// Conditions on the raw column that together select the rows whose instant lies in
// [earliestPlausible, until] (`op` is "<=" or "<" at the upper end), one per stretch of
// raw values over which the store's conversion rises, so the MAX of a stretch is its
// newest row: one index entry when the column leads an index, one plain pass when not.
// Grouped by the instants they reach, newest group first: a group with a row outdates
// every later group.
std::vector<std::vector<std::string>> stretches(Probe::Epoch epoch, const std::string& c,
                                                double until, const std::string& op) {
  const double from = TeskTime::earliestPlausible;
  const auto upTo = [&](const std::string& lower, double scale, double offset) {
    return lower + " AND " + c + " " + op + " " + number((until - offset) * scale);
  };
  std::vector<std::vector<std::string>> groups;
  switch (epoch) {
    case Probe::Epoch::apple: {
      // The magnitude decides the unit (seconds up to 1e12, nanoseconds above) and 0 is
      // no date: seconds and nanoseconds after 2001, then before it, then 0.
      const double apple = TeskTime::appleEpochOffset;
      groups.push_back(
          {upTo(c + " > 0 AND " + c + " <= 1e12", 1, apple), upTo(c + " > 1e12", 1e9, apple)});
      groups.push_back({c + " >= " + number(std::max(from - apple, -1e12)) + " AND " + c + " < 0",
                        c + " < -1e12 AND " + c + " >= " + number((from - apple) * 1e9)});
      break;
    }
    case Probe::Epoch::webkit:
      groups.push_back(
          {upTo(c + " <> 0 AND " + c + " >= " + number((from - TeskTime::webkitEpochOffset) * 1e6),
                1e6, TeskTime::webkitEpochOffset)});
      break;
    case Probe::Epoch::unixSeconds:
      groups.push_back({upTo(c + " >= " + number(from), 1, 0)});
      break;
  }
  // Apple and WebKit dates keep 0 for "no date", which reads as the instant 0.
  if (epoch != Probe::Epoch::unixSeconds && TeskTime::plausible(0)) groups.push_back({c + " = 0"});
  return groups;
}

// The newest instant among the rows dated in [earliestPlausible, until]; nothing when
// there is none. The newest raw value of each stretch, converted as the full reading
// converts.
std::optional<double> newestUpTo(TeskStore& store, const Probe& probe, double until,
                                 const std::string& op) {
  std::optional<double> newest;
  for (const auto& group : stretches(probe.epoch, probe.column, until, op)) {
    std::string sql;
    for (const std::string& where : group) {
      sql += sql.empty() ? "SELECT MAX(t) FROM (" : " UNION ALL ";
      sql += "SELECT " + unixExpression(probe.epoch, "m") + " AS t FROM (SELECT MAX(" +
             probe.column + ") AS m FROM " + probe.table + " WHERE " + where + ")";
    }
    store.query(sql + ")", [&](const TeskRowReader& row) {
      if (!row.isNull(0)) newest = row.real(0);
    });
    if (newest) break;
  }
  return newest;
}

// Only what a verdict needs: the newest dated row, and whether any row counts. The
// counts of future, undated and out-of-range rows would take a scan of every row.
void readNewest(const Probe& probe, TeskStore& store, double now, Reading& reading) {
  const std::optional<double> newest = newestUpTo(store, probe, now + 3600, "<=");
  const bool counted = probe.forwardLooking
                           ? newestUpTo(store, probe, TeskTime::latestPlausible, "<").has_value()
                           : newest.has_value();
  if (newest) reading.newest = std::max(reading.newest, *newest);
  reading.count += counted ? 1 : 0;
}

void readStore(const Probe& probe, const std::string& path, double now, Depth depth,
               Reading& reading) {
  std::optional<TeskStore> store;
  try {
    store.emplace(path);
  } catch (const TeskStoreError& e) {
    if (!reading.failure) reading.failure = e.description();
    return;
  }
  if (depth == Depth::newest) {
    try {
      readNewest(probe, *store, now, reading);
    } catch (const TeskStoreError& e) {
      if (!reading.failure) reading.failure = failureText(e, path);
      return;
    }
    ++reading.opened;
    reading.modified = std::max(reading.modified, store->sourceModified());
    reading.modes.insert(std::string(::rawValue(store->mode())));
    return;
  }
  // One pass: every row is dated (and then in the past, ahead, or no instant at
  // all) or undated. Rows more than an hour ahead are never taken as the newest.
  // The instant is worked out once per row: the LIMIT keeps SQLite from folding the
  // inner select into the outer one, which would copy the expression into each of
  // the seven places that test it (three times the cost of the whole pass).
  const std::string t = "tesk_t";
  const std::string valid = t + " >= " + number(TeskTime::earliestPlausible) + " AND " + t + " < " +
                            number(TeskTime::latestPlausible);
  const std::string past = valid + " AND " + t + " <= " + number(now + 3600);
  const std::string counted = probe.forwardLooking ? valid : past;
  const std::string sql = "SELECT MAX(CASE WHEN " + past + " THEN " + t +
                          " END), COUNT(CASE WHEN " + counted + " THEN 1 END), COUNT(CASE WHEN " +
                          valid + " THEN 1 END), COUNT(tesk_c), COUNT(*) FROM (SELECT " +
                          unixExpression(probe.epoch, probe.column) + " AS tesk_t, " +
                          probe.column + " AS tesk_c FROM " + probe.table + " LIMIT -1)";
  std::optional<double> newest;
  int64_t count = 0, inRange = 0, dated = 0, total = 0;
  try {
    store->query(sql, [&](const TeskRowReader& row) {
      if (!row.isNull(0)) newest = row.real(0);
      count = row.integer(1);
      inRange = row.integer(2);
      dated = row.integer(3);
      total = row.integer(4);
    });
  } catch (const TeskStoreError& e) {
    if (!reading.failure) reading.failure = failureText(e, path);
    return;
  }
  ++reading.opened;
  if (newest) reading.newest = std::max(reading.newest, *newest);
  reading.count += count;
  reading.future += inRange - count;
  reading.undated += total - dated;
  reading.outOfRange += dated - inRange;
  reading.modified = std::max(reading.modified, store->sourceModified());
  reading.modes.insert(std::string(::rawValue(store->mode())));
}

std::string joined(const std::set<std::string>& modes) {
  if (modes.empty()) return "-";
  std::string out;
  for (const std::string& m : modes) {
    if (!out.empty()) out += '+';
    out += m;
  }
  return out;
}

Row probeRow(const Probe& probe, double now, const std::optional<std::string>& cause, Depth depth) {
  Row row;
  row.key = probe.key;
  row.category = probe.category;
  row.cause = cause;

  std::vector<std::string> paths = probe.resolved();
  if (paths.empty()) {
    row.verdict = probe.category == Category::b ? Verdict::dead : Verdict::absent;
    row.detail = "not on this Mac at all — " + probe.note;
    return row;
  }

  Reading reading;
  for (const std::string& path : paths) readStore(probe, path, now, depth, reading);
  row.stores = reading.opened;
  if (reading.opened == 0) {
    row.verdict = Verdict::denied;
    row.detail = reading.failure.value_or("unreadable") + " — " + probe.note;
    return row;
  }

  row.count = reading.count;
  row.future = reading.future;
  row.undated = reading.undated;
  row.outOfRange = reading.outOfRange;
  if (probe.forwardLooking) {
    // Future events are the point of such a store; its own last write says how fresh it is.
    row.newest = reading.modified;
    double behind = now - reading.modified;
    if (behind < 0 && behind >= -60) behind = 0;
    row.ageHours = behind / 3600;
  } else {
    row.newest = reading.newest;
    // The newest row may be up to an hour ahead (a sender's clock, a mail server's):
    // that is a store written just now, not one of negative age.
    row.ageHours = row.newest > 0 ? std::max(now - row.newest, 0.0) / 3600
                                  : std::numeric_limits<double>::infinity();
  }
  row.verdict = classify(probe.category, row.ageHours, row.count);
  if (cause && (row.verdict == Verdict::fresh || row.verdict == Verdict::stale)) {
    row.verdict = Verdict::partial;
  }

  std::string detail = probe.note;
  if (row.count == 0) detail = "0 rows — " + detail;
  if (row.future >= 1) {
    detail = std::to_string(row.future) + " row(s) dated in the future, excluded — " + detail;
  }
  if (row.undated >= 1) {
    detail = std::to_string(row.undated) + " row(s) undated, excluded — " + detail;
  }
  if (row.outOfRange >= 1) {
    detail = std::to_string(row.outOfRange) +
             " row(s) dated outside 1970-2200 (no instant), excluded — " + detail;
  }
  if (reading.opened != 1) {
    detail = "summed across " + std::to_string(reading.opened) + " stores — " + detail;
  }
  if (cause) detail = *cause + " — " + detail;
  row.detail = std::move(detail);
  row.openMode = joined(reading.modes);
  return row;
}

std::string ageText(double hours) {
  if (std::isinf(hours) || std::isnan(hours)) return "-";
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.1f", hours);
  return buf;
}

// One row per probe, in order; one account lookup per provider per run.
std::vector<Row> probeRows(double now, const std::string& home, const std::vector<Probe>& table,
                           Depth depth) {
  std::vector<Row> rows;
  std::map<std::string, std::optional<TeskGrant::Status>> statuses;
  for (const Probe& probe : table) {
    std::optional<std::string> cause;
    if (probe.provider) {
      auto it = statuses.find(*probe.provider);
      if (it == statuses.end()) {
        it = statuses.emplace(*probe.provider, TeskGrant::status(*probe.provider, home)).first;
      }
      const auto& s = it->second;
      if (s && ((s->active && !s->authenticated) || s->lastError)) {
        cause = *probe.provider + ": " + s->summary();
      }
    }
    rows.push_back(probeRow(probe, now, cause, depth));
  }
  return rows;
}

}  // namespace

std::string_view rawValue(Category category) { return category == Category::a ? "A" : "B"; }

std::string_view rawValue(Verdict verdict) {
  switch (verdict) {
    case Verdict::fresh:
      return "FRESH";
    case Verdict::stale:
      return "STALE";
    case Verdict::partial:
      return "PARTIAL";
    case Verdict::dead:
      return "DEAD";
    case Verdict::denied:
      return "DENIED";
    case Verdict::absent:
      return "ABSENT";
  }
  return "ABSENT";
}

std::vector<std::string> Probe::resolved() const {
  std::vector<std::string> out;
  for (const std::string& p : paths) {
    if (!exists(p)) continue;
    out.push_back(p);
    if (!aggregate) break;
  }
  return out;
}

double Probe::toUnix(Epoch epoch, int64_t value) {
  switch (epoch) {
    case Epoch::apple:
      return TeskTime::fromAppleDate(value);
    case Epoch::webkit:
      return TeskTime::fromWebKitDate(value);
    case Epoch::unixSeconds:
      return static_cast<double>(value);
  }
  return 0;
}

int64_t Probe::fromUnix(Epoch epoch, double unixSeconds) {
  switch (epoch) {
    case Epoch::apple:
      return TeskTime::toAppleNanoseconds(unixSeconds);
    case Epoch::webkit:
      return saturate((unixSeconds - TeskTime::webkitEpochOffset) * 1e6);
    case Epoch::unixSeconds:
      return saturate(unixSeconds);
  }
  return 0;
}

Verdict classify(Category category, double ageHours, int64_t count) {
  if (count == 0) return category == Category::a ? Verdict::absent : Verdict::dead;
  if (ageHours >= 0 && ageHours <= 24) return Verdict::fresh;
  if (ageHours > 24 && ageHours <= 168) return Verdict::stale;
  return category == Category::a ? Verdict::stale : Verdict::dead;
}

std::optional<std::string> mailIndexPath(const std::string& home) {
  // The one resolution Mail's reader uses too: the highest V<n> holding an index.
  return TeskMail::indexPath(home);
}

std::vector<std::string> addressBookPaths(const std::string& home) {
  std::string dir = home + "/Library/Application Support/AddressBook";
  std::vector<std::string> paths = {dir + "/AddressBook-v22.abcddb"};
  for (const std::string& e : entries(dir + "/Sources")) {
    paths.push_back(dir + "/Sources/" + e + "/AddressBook-v22.abcddb");
  }
  return paths;
}

std::vector<Probe> probes(const std::string& home) {
  using E = Probe::Epoch;
  const Category A = Category::a, B = Category::b;
  std::vector<Probe> out;
  out.push_back(makeProbe("im", A, {home + "/Library/Messages/chat.db"}, false, "message", "date",
                          E::apple, false, std::nullopt,
                          "iMessage — 98.1% of bodies are typedstream BLOBs"));
  out.push_back(makeProbe("chrome", A,
                          {home + "/Library/Application Support/Google/Chrome/Default/History"},
                          false, "visits", "visit_time", E::webkit, false, std::nullopt,
                          "Chrome — retains only ~90 days, so an old query silently returns less"));
  out.push_back(makeProbe("arc", A,
                          {home + "/Library/Application Support/Arc/User Data/Default/History"},
                          false, "visits", "visit_time", E::webkit, false, std::nullopt,
                          "Arc — a separate, near-disjoint corpus from Chrome"));
  out.push_back(makeProbe("safari", A, {home + "/Library/Safari/History.db"}, false,
                          "history_visits", "visit_time", E::apple, false, std::nullopt,
                          "Safari — seconds since 2001, not nanoseconds"));
  out.push_back(makeProbe(
      "notes", A, {home + "/Library/Group Containers/group.com.apple.notes/NoteStore.sqlite"},
      false, "ZICCLOUDSYNCINGOBJECT", "ZMODIFICATIONDATE1", E::apple, false, std::nullopt,
      "Notes — bodies are gzip protobuf; will not open without -wal/-shm"));
  out.push_back(makeProbe("reminder", A, TeskReminders::storePaths(home), true, "ZREMCDREMINDER",
                          "ZLASTMODIFIEDDATE", E::apple, false, std::nullopt,
                          "Apple Reminders — every unfinished item is readable; this count "
                          "includes completed history"));
  out.push_back(
      makeProbe("cal", B,
                {home + "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb",
                 home + "/Library/Calendars/Calendar.sqlitedb"},
                false, "CalendarItem", "end_date", E::apple, true, "Google",
                "Calendar — the store holds rules, not instances; recurrence must be expanded"));
  out.push_back(makeProbe(
      "contacts", A, addressBookPaths(home), true, "ZABCDRECORD", "ZMODIFICATIONDATE", E::apple,
      false, std::nullopt,
      "Contacts — EVERY record in the address books, named or not; one book per account under "
      "Sources/, the top-level book is nearly empty"));
  if (auto mail = mailIndexPath(home)) {
    out.push_back(makeProbe("mail", B, {*mail}, false, "messages", "date_received", E::unixSeconds,
                            false, "Google",
                            "Apple Mail ↔ Gmail — a mirror over a user-held OAuth grant"));
  }
  return out;
}

std::vector<Row> run(double now, const std::string& home) {
  std::vector<Row> rows = probeRows(now, home, probes(home), Depth::full);
  rows.push_back(TeskOptelHealth::row(home, now));
  return rows;
}

std::vector<Row> verdicts(double now, const std::string& home,
                          const std::vector<std::string>& keys) {
  std::vector<Probe> asked;
  for (Probe& p : probes(home)) {
    if (std::find(keys.begin(), keys.end(), p.key) != keys.end()) asked.push_back(std::move(p));
  }
  return probeRows(now, home, asked, Depth::newest);
}

std::vector<std::string> render(const std::vector<Row>& rows) {
  std::vector<std::string> lines;
  lines.emplace_back("src\tcat\tverdict\tnewest\tage_h\trows\tfuture\topen\tdetail");
  bool dead = false, partial = false, denied = false;
  std::vector<std::string> causes;
  for (const Row& r : rows) {
    std::string line = r.key;
    line += '\t';
    line += rawValue(r.category);
    line += '\t';
    line += rawValue(r.verdict);
    line += '\t';
    line += r.newest > 0 ? TeskTime::isoString(r.newest) : "-";
    line += '\t';
    line += ageText(r.ageHours);
    line += '\t';
    line += std::to_string(r.count);
    line += '\t';
    line += std::to_string(r.future);
    line += '\t';
    line += r.openMode;
    line += '\t';
    line += TeskText::escapeTSV(r.detail);
    lines.push_back(std::move(line));
    dead |= r.verdict == Verdict::dead;
    partial |= r.verdict == Verdict::partial;
    denied |= r.verdict == Verdict::denied;
    if (r.cause && std::find(causes.begin(), causes.end(), *r.cause) == causes.end()) {
      causes.push_back(*r.cause);
    }
  }
  if (dead) {
    lines.emplace_back();
    lines.emplace_back(
        "# DEAD — a Category B mirror that stopped moving. macOS records no rejection;");
    lines.emplace_back(
        "# the disk just quietly stops changing. Re-authenticate in System Settings →");
    lines.emplace_back(
        "# Internet Accounts, or ask through the browser plane, which is logged in now.");
    for (const Row& r : rows) {
      if (r.verdict != Verdict::dead) continue;
      std::string when = r.count == 0   ? "never — it is not on this Mac"
                         : r.newest > 0 ? TeskTime::isoString(r.newest)
                                        : "unknown";
      lines.push_back("#   " + r.key + ": this Mac's copy stops at " + when);
    }
  }
  if (partial) {
    lines.emplace_back();
    lines.emplace_back(
        "# PARTIAL — the store is current and it is not the whole account. A provider");
    lines.emplace_back(
        "# inside it is failing, so what you can read is real and incomplete. Say which");
    lines.emplace_back("# half you answered from before quoting a count.");
    for (const Row& r : rows) {
      if (r.verdict == Verdict::partial) {
        lines.push_back("#   " + r.key + ": readable, missing whatever the failing provider owns");
      }
    }
  }
  if (!causes.empty()) {
    lines.emplace_back();
    lines.emplace_back(
        "# CAUSE — read from Accounts4 and the provider's own error table, not inferred:");
    for (const std::string& c : causes) lines.push_back("#   " + TeskText::escapeTSV(c));
  }
  if (denied) {
    lines.emplace_back();
    lines.emplace_back("# DENIED — the file exists and macOS will not let this process read it.");
    lines.emplace_back(
        "# Contacts and Calendar each need their own TCC grant; Full Disk Access is not enough.");
    lines.emplace_back(
        "# The reverse also holds: iMessage history needs Full Disk Access and nothing else");
    lines.emplace_back("# will do — no AppleEvents path reads message bodies (Messages' scripting");
    lines.emplace_back(
        "# dictionary has no message class at all). But contacts do NOT need it: the");
    lines.emplace_back("# roster prefers Contacts.framework, one consent sheet. See TeskContacts.");
  }
  return lines;
}

}  // namespace TeskDoctor
