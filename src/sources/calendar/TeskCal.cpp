// The calendar producer: items and rules from Calendar.sqlitedb, expanded into one
// row per occurrence inside a window, and the check against Apple's own index.
#include "sources/calendar/TeskCal.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "store/TeskStore.h"
#include "store/TeskStoreError.h"

namespace TeskCal {
namespace {

const std::string kExceptionQuery = "SELECT owner_id, date FROM ExceptionDate";
const std::string kDetachedQuery =
    "SELECT orig_item_id, orig_date FROM CalendarItem WHERE orig_item_id > 0";
const std::string kItemQuery =
    "SELECT i.ROWID, i.summary, i.start_date, i.end_date, i.all_day, i.start_tz,\n"
    "       i.calendar_id, c.title, i.has_attendees, i.organizer_id, i.self_attendee_id,\n"
    "       r.frequency, r.interval, r.count, r.end_date, r.specifier\n"
    "FROM CalendarItem i\n"
    "LEFT JOIN Calendar c ON c.ROWID = i.calendar_id\n"
    "LEFT JOIN Recurrence r ON r.owner_id = i.ROWID\n"
    "WHERE i.start_date IS NOT NULL AND i.hidden = 0";
const std::string kOccurrenceCacheQuery =
    "SELECT event_id, MIN(occurrence_date) FROM OccurrenceCache\n"
    "WHERE occurrence_date IS NOT NULL\n"
    "GROUP BY event_id, occurrence_end_date";

const std::string kFloating = "_float";

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// round(x) as an integer, when x is a number an integer can hold.
std::optional<int64_t> rounded(double x) {
  if (!std::isfinite(x) || std::fabs(x) >= 9.0e18) return std::nullopt;
  return std::llround(x);
}

// The key under which the store files an occurrence: its instant in store-epoch
// seconds, rounded.
std::optional<int64_t> storeKey(double unixSeconds) {
  return rounded(unixSeconds - TeskTime::appleEpochOffset);
}

// Civil date and time of a unix instant in UTC (proleptic Gregorian, whole seconds).
struct Civil {
  int64_t year;
  int32_t month, day, hour, minute, second;
};

Civil civilUTC(double t) {
  const int64_t secs = static_cast<int64_t>(std::floor(t));
  int64_t days = secs / 86400;
  int64_t rem = secs % 86400;
  if (rem < 0) {
    rem += 86400;
    days -= 1;
  }
  // Howard Hinnant's days-to-civil.
  const int64_t z = days + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  const int64_t d = doy - (153 * mp + 2) / 5 + 1;
  const int64_t m = mp < 10 ? mp + 3 : mp - 9;
  return {yoe + era * 400 + (m <= 2 ? 1 : 0),
          static_cast<int32_t>(m),
          static_cast<int32_t>(d),
          static_cast<int32_t>(rem / 3600),
          static_cast<int32_t>(rem / 60 % 60),
          static_cast<int32_t>(rem % 60)};
}

// A floating value (unix seconds of a wall-clock time written as if UTC) re-formed
// as the same wall-clock time in `local`'s zone; `t` itself when it cannot be formed.
double refloat(double t, icu::Calendar& local) {
  // Beyond a few million years neither side can represent the date.
  if (!std::isfinite(t) || std::fabs(t) > 1.0e14) return t;
  const Civil c = civilUTC(t);
  UErrorCode status = U_ZERO_ERROR;
  local.clear();
  local.set(UCAL_EXTENDED_YEAR, static_cast<int32_t>(c.year));
  local.set(UCAL_MONTH, c.month - 1);
  local.set(UCAL_DATE, c.day);
  local.set(UCAL_HOUR_OF_DAY, c.hour);
  local.set(UCAL_MINUTE, c.minute);
  local.set(UCAL_SECOND, c.second);
  const UDate ms = local.getTime(status);
  if (U_FAILURE(status) || !std::isfinite(ms)) return t;
  return ms / 1000.0;
}

// One calendar per run for the local zone: instants of floating items are formed
// there, and most items float.
class InstantReader {
 public:
  explicit InstantReader(const std::string& localZone) : local_(calendar(kFloating, localZone)) {}
  double operator()(double stored, const std::string& zone) {
    const double t = stored + TeskTime::appleEpochOffset;
    if (zone != kFloating || !local_) return t;
    return refloat(t, *local_);
  }

 private:
  std::unique_ptr<icu::Calendar> local_;
};

// Exception dates and detached-instance dates per item, in store-epoch seconds.
class Suppressions {
 public:
  void add(int64_t item, double storedDate) {
    if (auto key = rounded(storedDate)) byItem_[item].push_back(*key);
  }
  void seal() {
    for (auto& [item, keys] : byItem_) std::sort(keys.begin(), keys.end());
  }
  const std::vector<int64_t>* of(int64_t item) const {
    auto it = byItem_.find(item);
    return it == byItem_.end() ? nullptr : &it->second;
  }

 private:
  std::unordered_map<int64_t, std::vector<int64_t>> byItem_;
};

// Reads query 1 and query 2 into one map; either failing keeps what it read.
Suppressions readSuppressions(TeskStore& store) {
  Suppressions out;
  for (const std::string* sql : {&kExceptionQuery, &kDetachedQuery}) {
    try {
      store.query(*sql, [&](const TeskRowReader& row) { out.add(row.integer(0), row.real(1)); });
    } catch (const TeskStoreError&) {
      // An older store without the table or column simply has no exceptions.
    }
  }
  out.seal();
  return out;
}

// The selectors that depend on the item alone, decided once per item.
class Selectors {
 public:
  explicit Selectors(const TeskIMessage::Filter& f) : filter_(f) {
    if (f.query && !f.query->empty()) query_.emplace(*f.query);
  }
  bool pass(const std::string& calendarTitle, const std::string& title, TeskRow::Direction dir,
            bool group) {
    if (group && !filter_.includeGroups) return false;  // --no-groups: events with attendees
    if (filter_.who && !filter_.who->empty() && !whoMatches(calendarTitle)) return false;
    if (query_ && !query_->in(title)) return false;
    if (filter_.grep && !filter_.grep->search(title)) return false;
    if (filter_.direction && *filter_.direction != dir) return false;
    return true;
  }

 private:
  // Calendars are few and items many: remember each title's answer.
  bool whoMatches(const std::string& calendarTitle) {
    auto it = whoMemo_.find(calendarTitle);
    if (it != whoMemo_.end()) return it->second;
    bool hit = TeskText::containsCaseInsensitive(calendarTitle, *filter_.who);
    whoMemo_.emplace(calendarTitle, hit);
    return hit;
  }

  const TeskIMessage::Filter& filter_;
  std::optional<TeskText::Needle> query_;
  std::unordered_map<std::string, bool> whoMemo_;
};

// Per-calendar row fields shared by every occurrence of the calendar's items.
struct CalendarFace {
  std::string title;
  std::string lowered;
};

}  // namespace

std::optional<std::string> storePath(const std::string& home) {
  for (const char* tail : {"/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb",
                           "/Library/Calendars/Calendar.sqlitedb"}) {
    std::string path = home + tail;
    if (exists(path)) return path;
  }
  return std::nullopt;
}

double instant(double stored, const std::string& zone, const std::string& localZone) {
  InstantReader reader(localZone);
  return reader(stored, zone);
}

Result read(const TeskIMessage::Filter& filter, double now, const std::string& home,
            const std::string& localZone) {
  Result result;
  // The one source whose default window looks ahead: a calendar is mostly future.
  result.window.from = filter.since.value_or(now - kDefaultPast);
  result.window.to = filter.until.value_or(now + kDefaultAhead);
  const double from = result.window.from;
  const double to = result.window.to;

  const std::optional<std::string> path = storePath(home);
  if (!path) {
    result.denied.push_back("cal: no calendar store on this Mac");
    return result;
  }
  std::optional<TeskStore> store;
  try {
    store.emplace(*path);
  } catch (const TeskStoreError& e) {
    result.denied.push_back("cal: " + e.description());
    return result;
  }

  const Suppressions suppressions = readSuppressions(*store);
  InstantReader instantOf(localZone);
  Selectors selectors(filter);
  std::unordered_map<std::string, CalendarFace> faces;
  // Items share a handful of zones; building an ICU zone costs more than a rule.
  std::unordered_map<std::string, std::unique_ptr<icu::Calendar>> calendars;

  auto emit = [&](const CalendarFace& face, int64_t rowid, const std::string& title, bool allDay,
                  bool recurring, TeskRow::Direction dir, bool group, int64_t calendarID,
                  double t) {
    TeskRow row;
    row.id = "cal:" + std::to_string(rowid);
    if (recurring) row.id += "@" + TeskTime::isoString(t);
    row.ts = t;
    row.src = "cal";
    row.who = face.title;
    row.teskID = face.lowered;
    row.dir = dir;
    row.kind = TeskRow::Kind::text;
    row.body = allDay ? title + " (all day)" : title;
    row.group = group;
    row.chatID = calendarID;
    result.rows.push_back(std::move(row));
    ++result.perCalendar[face.title];
  };

  try {
    store->query(kItemQuery, [&](const TeskRowReader& row) {
      const int64_t rowid = row.integer(0);
      std::string title = row.text(1).value_or("");
      if (title.empty()) title = "(untitled)";
      const std::string zone = row.text(5).value_or(kFloating);
      const double start = instantOf(row.real(2), zone);
      const bool allDay = row.integer(4) == 1;
      const int64_t calendarID = row.integer(6);
      const std::string calendarTitle = row.text(7).value_or("(no calendar)");
      const bool group = row.integer(8) == 1;
      // Somebody else organised it and the owner is on its attendee list.
      const bool invited = row.integer(9) >= 1 && row.integer(10) > 0;
      const TeskRow::Direction dir =
          invited ? TeskRow::Direction::incoming : TeskRow::Direction::outgoing;

      auto face = faces.find(calendarTitle);
      if (face == faces.end()) {
        face =
            faces
                .emplace(calendarTitle, CalendarFace{calendarTitle, TeskText::lower(calendarTitle)})
                .first;
      }
      const bool selected = selectors.pass(calendarTitle, title, dir, group);

      if (row.isNull(11)) {
        ++result.single;
        if (selected && from <= start && start <= to) {
          emit(face->second, rowid, title, allDay, false, dir, group, calendarID, start);
        }
        return;
      }
      ++result.recurring;
      Rule rule;
      rule.frequency = frequencyFromStore(row.integer(11));
      if (!rule.frequency) {
        ++result.unsupported;
        return;
      }
      rule.interval = std::max<int64_t>(row.integer(12), 1);
      rule.count = row.integer(13);
      if (!row.isNull(14)) rule.end = instantOf(row.real(14), zone);
      rule.specifier = row.text(15);

      std::unique_ptr<icu::Calendar>& cal = calendars[zone];
      if (!cal) cal = calendar(zone, localZone);
      Expansion expansion = cal ? occurrences(rule, start, *cal, allDay, from, to, kPeriodCeiling)
                                : Expansion{{}, true};
      if (expansion.incomplete) ++result.unsupported;

      const std::vector<int64_t>* suppressed = suppressions.of(rowid);
      for (double t : expansion.instants) {
        if (suppressed) {
          std::optional<int64_t> key = storeKey(t);
          if (key && std::binary_search(suppressed->begin(), suppressed->end(), *key)) {
            ++result.excepted;
            continue;
          }
        }
        ++result.generated;
        if (selected && from <= t && t <= to) {
          emit(face->second, rowid, title, allDay, true, dir, group, calendarID, t);
        }
      }
    });
  } catch (const TeskStoreError& e) {
    Result failed;
    failed.window = result.window;
    failed.denied.push_back("cal: schema moved — " + e.description());
    return failed;
  }

  std::stable_sort(result.rows.begin(), result.rows.end(),
                   [](const TeskRow& a, const TeskRow& b) { return a.ts < b.ts; });
  return result;
}

std::optional<Agreement> verify(const std::string& home, double now, const std::string& localZone) {
  const std::optional<std::string> path = storePath(home);
  if (!path) return std::nullopt;
  std::unordered_set<std::string> theirs;
  Agreement agreement;
  bool any = false;
  try {
    TeskStore store(*path);
    if (!store.tableExists("OccurrenceCache")) return std::nullopt;
    store.query(kOccurrenceCacheQuery, [&](const TeskRowReader& row) {
      // The cache is a day index: one group per event and end date, at its first day.
      const double t = row.real(1) + TeskTime::appleEpochOffset;
      std::optional<int64_t> key = rounded(t);
      // A cache day that is no instant would stretch the compared window to it.
      if (!key || !row.isNumber(1) || !TeskTime::plausible(t)) return;
      theirs.insert(std::to_string(row.integer(0)) + "@" + std::to_string(*key));
      if (!any || t < agreement.window.from) agreement.window.from = t;
      if (!any || t > agreement.window.to) agreement.window.to = t;
      any = true;
    });
  } catch (const TeskStoreError&) {
    return std::nullopt;
  }
  if (!any) return std::nullopt;

  TeskIMessage::Filter filter;
  filter.since = agreement.window.from;
  filter.until = agreement.window.to;
  filter.includeGroups = true;
  const Result ours = read(filter, now, home, localZone);

  std::unordered_set<std::string> mine;
  for (const TeskRow& row : ours.rows) {
    std::string_view id = row.id;
    if (id.substr(0, 4) == "cal:") id.remove_prefix(4);
    id = id.substr(0, id.find('@'));
    std::optional<int64_t> key = rounded(row.ts);
    if (!key) continue;
    mine.insert(std::string(id) + "@" + std::to_string(*key));
  }
  agreement.checked = static_cast<int64_t>(theirs.size());
  for (const std::string& key : theirs) {
    if (mine.count(key)) {
      ++agreement.matched;
    } else {
      ++agreement.theirsOnly;
    }
  }
  for (const std::string& key : mine) {
    if (!theirs.count(key)) ++agreement.oursOnly;
  }
  return agreement;
}

std::vector<std::string> notes(const Result& result) {
  std::vector<std::string> out;
  out.push_back("cal window " + TeskTime::isoString(result.window.from) + "\u2026" +
                TeskTime::isoString(result.window.to) +
                " — a rule with no end has no last occurrence, so a window is required, not "
                "optional");
  if (result.recurring >= 1) {
    std::string line = "cal expanded " + std::to_string(result.recurring) + " rule(s) into " +
                       std::to_string(result.generated) + " occurrence(s)";
    if (result.excepted >= 1) line += ", " + std::to_string(result.excepted) + " excepted";
    out.push_back(std::move(line));
  }
  if (result.unsupported >= 1) {
    out.push_back("CAL RULES NOT EXPANDED: " + std::to_string(result.unsupported) +
                  " — those events are MISSING from this answer");
  }
  return out;
}

std::optional<std::string> forwardWindowNote(const Result& result, bool untilGiven, double now) {
  if (untilGiven || !(result.window.to > now)) return std::nullopt;
  return "cal default forward window applied — the window ends " +
         TeskTime::isoString(result.window.to) + "; pass --until to bound it";
}

}  // namespace TeskCal
