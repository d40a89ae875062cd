// The calendar producer: Calendar.sqlitedb holds one row per series plus its
// recurrence rule, never the instances, so every read expands each rule inside a
// window (here, with ICU's Gregorian calendar in the item's zone), removes exception
// dates and detached instances, and yields one TeskRow per occurrence.
//
// Zones: an item stored without a zone ("_float") is a wall-clock time; it and any
// unknown zone id are read in `localZone`, a parameter ("" = the process's local
// zone) so that tests can pin east and west of UTC.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <unicode/calendar.h>
#include <unicode/ucal.h>

#include "report/TeskRow.h"
#include "sources/messages/TeskFilter.h"

namespace TeskCal {

// ---------------------------------------------------------------------------
// Recurrence rules and their expansion.

enum class Frequency { daily, weekly, monthly, yearly };

// The store's frequency integer: 1 daily, 2 weekly, 3 monthly, 4 yearly; nothing
// for every other value (0, 5 and above, negatives), which the caller must count.
std::optional<Frequency> frequencyFromStore(int64_t stored);

// The calendar field a frequency steps by. Weekly steps by week of year, so a
// "period" of a weekly rule is the calendar week (Sunday first, see calendar()).
UCalendarDateFields stepUnit(Frequency frequency);

struct Rule {
  std::optional<Frequency> frequency;    // absent: the stored value was unknown
  int64_t interval = 1;                  // periods between occurrences, >= 1
  int64_t count = 0;                     // periods in the series; <= 0 unbounded
  std::optional<double> end;             // last instant of the series, unix seconds
  std::optional<std::string> specifier;  // the store's specifier text
};

struct Expansion {
  std::vector<double> instants;  // unix seconds, in generation order
  // The expansion stopped before it could prove it reached the window's end (the
  // period ceiling ran out, a date could not be formed, or there was no frequency),
  // or the rule's specifier is not expandable() and nothing was expanded.
  bool incomplete = false;
};

// The store's compact "which weekdays / which months" text, e.g. "D=+2SU;O=5".
struct Specifier {
  struct Day {
    int64_t ordinal = 0;  // 0 every such weekday of the period; +2 second; -1 last
    int weekday = 0;      // 1 Sunday ... 7 Saturday
    bool operator==(const Day&) const = default;
  };
  std::vector<Day> days;
  std::vector<int64_t> months;  // 1 January ... 12 December, as stored

  // The weekday table: "SU" 1 ... "SA" 7 (upper-case codes only); nothing otherwise.
  static std::optional<int> weekday(std::string_view code);

  // Parses "K=v,v;K=v". D items are [ordinal]CODE (the code is the last two
  // characters, upper-cased; an ordinal that is empty or not a decimal integer is 0;
  // unknown codes drop the item); O items are signed decimal months (bad ones are
  // dropped); other keys and pieces without "=" are ignored here (see
  // expandable()). Nothing when no day survives, so a months list alone is no
  // specifier.
  static std::optional<Specifier> parse(std::string_view text);

  // False when `text` holds a key other than D and O (days of the month "M=1,15",
  // a set position "S=-1", ...): expanding the rest of such a rule would yield dates
  // Calendar never shows, so the rule is not expanded at all.
  static bool expandable(std::string_view text);

  // Positional weekdays: for P's year and each month of `months` (P's own month when
  // empty), each (ordinal, weekday) of `days` as the month's n-th such weekday at
  // the time of day of `timeOfDay` (00:00:00 when all-day). A weekday the month does
  // not have (a fifth Tuesday, ordinal 0, a month outside 1..12) is not formed.
  // Ascending unix seconds. Moves `calendar`'s time.
  std::vector<double> dates(double period, icu::Calendar& calendar, double timeOfDay,
                            bool allDay) const;

  // Every day of the `unit` period containing `period` (its day, its Sunday-first
  // week, its month or its year; at most 400 days) whose weekday is one of `days`
  // (ordinals ignored), at the time of day of `timeOfDay` (00:00:00 when all-day).
  // Ascending unix seconds. Moves `calendar`'s time.
  std::vector<double> weekdayDates(double period, UCalendarDateFields unit, icu::Calendar& calendar,
                                   double timeOfDay, bool allDay) const;
};

// The Gregorian calendar that expands an item's rules: the zone `zone`, or
// `localZone` when `zone` is "_float", empty or not a known id ("" as localZone is
// the process's local zone). Weeks start on Sunday whatever the process locale, so
// the week a weekly rule's weekdays are taken from never depends on the machine.
std::unique_ptr<icu::Calendar> calendar(const std::string& zone, const std::string& localZone);

// The instants of `rule` inside [from, to] for a series whose first instance is
// `start`. Periods are always counted from `start` (period i = start + i*interval
// units, so the 31st falls back to short months' last day and returns after), at
// most `ceiling` of them: a series that began more than `ceiling` periods before
// the window yields nothing inside it and reports incomplete. `count` limits
// periods, not instants.
Expansion occurrences(const Rule& rule, double start, const std::string& zone, bool allDay,
                      double from, double to, int64_t ceiling, const std::string& localZone = {});
// The same on a calendar the caller already holds (from calendar(); its time is
// moved), so a reader of many items in one zone builds the zone once.
Expansion occurrences(const Rule& rule, double start, icu::Calendar& calendar, bool allDay,
                      double from, double to, int64_t ceiling);

// ---------------------------------------------------------------------------
// The producer.

inline constexpr int64_t kPeriodCeiling = 4000;
inline constexpr double kDefaultPast = 2592000;   // 30 days before now
inline constexpr double kDefaultAhead = 7776000;  // 90 days after now

struct Window {
  double from = 0;
  double to = 0;
};

struct Result {
  std::vector<TeskRow> rows;  // one per occurrence, ascending by ts (stable)
  std::vector<std::string> denied;
  Window window;
  std::map<std::string, int64_t> perCalendar;  // emitted rows per calendar title
  int64_t single = 0;                          // items without a rule
  int64_t recurring = 0;                       // items with a rule, supported or not
  int64_t generated = 0;    // occurrences left after exceptions, before window/selectors
  int64_t unsupported = 0;  // unknown frequency or incomplete expansion
  int64_t excepted = 0;     // occurrences removed as exception / detached dates
};

// How far our expansion agrees with Apple's OccurrenceCache.
struct Agreement {
  int64_t checked = 0;
  int64_t matched = 0;
  int64_t oursOnly = 0;
  int64_t theirsOnly = 0;
  Window window;
  // matched / checked; exactly 1 when nothing was checked.
  double rate() const {
    return checked == 0 ? 1.0 : static_cast<double>(matched) / static_cast<double>(checked);
  }
};

// The live store: the group container first, then the legacy Calendars folder;
// nothing when neither exists.
std::optional<std::string> storePath(const std::string& home);

// Unix seconds for a stored date (seconds since 2001). "_float" items are wall-clock
// times written as if UTC: their components are re-formed in `localZone`. Any other
// zone text means the stored value is already the instant.
double instant(double stored, const std::string& zone, const std::string& localZone = {});

// Every occurrence in the window (filter.since or now-30d .. filter.until or
// now+90d) that passes who (calendar title), query and grep (event title) and
// direction. Never throws: failures land in `denied`.
Result read(const TeskIMessage::Filter& filter, double now, const std::string& home,
            const std::string& localZone = {});

// Compares read() with Apple's OccurrenceCache over the cache's own window; nothing
// without a store, without the table or with an empty cache.
std::optional<Agreement> verify(const std::string& home, double now,
                                const std::string& localZone = {});

// The notes the command line prints for a calendar read, in order: the window,
// the expansion count (when a rule was read), the missing-rules warning.
std::vector<std::string> notes(const Result& result);

// The forward-window note, when no --until was given and the window ends after
// `now`; the caller places it among the run's closing notes.
std::optional<std::string> forwardWindowNote(const Result& result, bool untilGiven, double now);

}  // namespace TeskCal
