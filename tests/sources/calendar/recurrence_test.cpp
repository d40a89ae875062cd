// Recurrence expansion and the store's specifier text. Every expansion case runs in
// a zone west of UTC, one east of it, and one whose DST changes (29 March and
// 25 October 2026) fall inside several windows; expectations are wall-clock times
// in the item's zone, which must not move when the zone's offset does.
#include <gtest/gtest.h>
#include <unicode/calendar.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/TeskTime.h"
#include "sources/calendar/TeskCal.h"

namespace {

using TeskCal::Rule;
using TeskCal::Specifier;

const std::vector<std::string> kZones = {"America/Los_Angeles", "Asia/Tokyo", "Europe/Berlin"};

// A local "yyyy-MM-dd HH:mm" (or "yyyy-MM-dd") in `zone`.
double at(const std::string& zone, const std::string& local) {
  auto t = TeskTime::parseWhen(local, 0, zone);
  EXPECT_TRUE(t.has_value()) << local;
  return t.value_or(NAN);
}

// "yyyy-MM-dd HH:mm[:ss]" of instants in `zone`, joined by ", " (seconds only when set).
std::string walls(const std::vector<double>& ts, const std::string& zone) {
  auto cal = TeskCal::calendar(zone, "UTC");
  std::string out;
  for (double t : ts) {
    UErrorCode st = U_ZERO_ERROR;
    cal->setTime(t * 1000.0, st);
    char buf[64];
    int n =
        std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d", cal->get(UCAL_EXTENDED_YEAR, st),
                      cal->get(UCAL_MONTH, st) + 1, cal->get(UCAL_DATE, st),
                      cal->get(UCAL_HOUR_OF_DAY, st), cal->get(UCAL_MINUTE, st));
    if (int s = cal->get(UCAL_SECOND, st)) std::snprintf(buf + n, sizeof buf - n, ":%02d", s);
    out += (out.empty() ? "" : ", ") + std::string(buf);
  }
  return out;
}

Rule rule(int64_t frequency, int64_t interval = 1, int64_t count = 0,
          const char* parsed = nullptr) {
  Rule r;
  r.frequency = TeskCal::frequencyFromStore(frequency);
  r.interval = interval;
  r.count = count;
  if (parsed) r.specifier = parsed;
  return r;
}

enum { daily = 1, weekly = 2, monthly = 3, yearly = 4 };

struct Case {
  const char* name;
  Rule rule;
  const char* start;  // local wall clock
  const char* from;
  const char* to;
  const char* want;  // local wall clock, ", "-joined
  bool incomplete = false;
  bool allDay = false;
  const char* end = nullptr;  // local wall clock
  double endShift = 0;        // seconds added to end
  int64_t ceiling = TeskCal::kPeriodCeiling;
};

const std::vector<Case> kCases = {
    {"weekdays of a week, from a mid-week start, across DST", rule(weekly, 1, 0, "D=0MO,0WE,0FR"),
     "2026-03-18 09:30", "2026-03-01", "2026-04-03 23:59",
     "2026-03-18 09:30, 2026-03-20 09:30, 2026-03-23 09:30, 2026-03-25 09:30, 2026-03-27 09:30, "
     "2026-03-30 09:30, 2026-04-01 09:30, 2026-04-03 09:30"},
    {"weeks start on Sunday", rule(weekly, 1, 0, "D=0SU,0SA"), "2026-03-01 08:00", "2026-03-01",
     "2026-03-14 23:00", "2026-03-01 08:00, 2026-03-07 08:00, 2026-03-08 08:00, 2026-03-14 08:00"},
    {"last Friday of each month", rule(monthly, 1, 0, "D=-1FR"), "2026-01-30 18:00", "2026-01-01",
     "2026-04-30 23:00", "2026-01-30 18:00, 2026-02-27 18:00, 2026-03-27 18:00, 2026-04-24 18:00"},
    {"a fifth Tuesday only where a month has one", rule(monthly, 1, 0, "D=+5TU"),
     "2026-03-31 07:00", "2026-03-01", "2026-07-31", "2026-03-31 07:00, 2026-06-30 07:00"},
    {"second Sunday of May", rule(yearly, 1, 0, "D=+2SU;O=5"), "2026-05-10 10:00", "2026-01-01",
     "2028-12-31", "2026-05-10 10:00, 2027-05-09 10:00, 2028-05-14 10:00"},
    {"a weekday or month listed twice is one date", rule(yearly, 1, 0, "D=+2SU,+2SU;O=5,5"),
     "2026-05-10 10:00", "2026-01-01", "2027-12-31", "2026-05-10 10:00, 2027-05-09 10:00"},
    {"months alone are no specifier", rule(yearly, 1, 0, "O=5"), "2026-07-04 12:00", "2026-01-01",
     "2027-12-31", "2026-07-04 12:00, 2027-07-04 12:00"},
    {"unknown day codes only: no specifier", rule(weekly, 1, 2, "D=0XX,+1QQ"), "2026-03-04 09:00",
     "2026-01-01", "2026-12-31", "2026-03-04 09:00, 2026-03-11 09:00"},
    {"the 31st falls back in short months and returns", rule(monthly), "2026-01-31 10:00",
     "2026-01-01", "2026-05-31 23:00",
     "2026-01-31 10:00, 2026-02-28 10:00, 2026-03-31 10:00, 2026-04-30 10:00, 2026-05-31 10:00"},
    {"the 31st in a leap year", rule(monthly, 1, 3), "2028-01-31 10:00", "2028-01-01", "2028-12-31",
     "2028-01-31 10:00, 2028-02-29 10:00, 2028-03-31 10:00"},
    {"count 3 every second week counts periods", rule(weekly, 2, 3, "D=0MO,0TH"),
     "2026-03-02 08:00", "2026-01-01", "2026-12-31",
     "2026-03-02 08:00, 2026-03-05 08:00, 2026-03-16 08:00, 2026-03-19 08:00, 2026-03-30 08:00, "
     "2026-04-02 08:00"},
    {"daily across the March change", rule(daily), "2026-03-27 09:00", "2026-03-27",
     "2026-03-30 09:00", "2026-03-27 09:00, 2026-03-28 09:00, 2026-03-29 09:00, 2026-03-30 09:00"},
    {"daily across the October change", rule(daily), "2026-10-24 09:00", "2026-10-24",
     "2026-10-26 23:00", "2026-10-24 09:00, 2026-10-25 09:00, 2026-10-26 09:00"},
    {"end a second before the third period", rule(daily), "2026-03-28 07:00", "2026-03-01",
     "2026-04-30", "2026-03-28 07:00, 2026-03-29 07:00", false, false, "2026-03-30 07:00", -1},
    {"end exactly at the third period", rule(daily), "2026-03-28 07:00", "2026-03-01", "2026-04-30",
     "2026-03-28 07:00, 2026-03-29 07:00, 2026-03-30 07:00", false, false, "2026-03-30 07:00"},
    {"both window edges are inclusive", rule(weekly), "2026-03-03 12:00", "2026-03-10 12:00",
     "2026-03-24 12:00", "2026-03-10 12:00, 2026-03-17 12:00, 2026-03-24 12:00"},
    {"eleven years of days exhaust the ceiling", rule(daily), "2015-01-01 09:00", "2026-03-01",
     "2026-03-31", "", true},
    {"3990 days before the window leave ten periods", rule(daily), "2015-03-29 09:00", "2026-03-01",
     "2026-03-31",
     "2026-03-01 09:00, 2026-03-02 09:00, 2026-03-03 09:00, 2026-03-04 09:00, 2026-03-05 09:00, "
     "2026-03-06 09:00, 2026-03-07 09:00, 2026-03-08 09:00, 2026-03-09 09:00, 2026-03-10 09:00",
     true},
    {"years of last Fridays before the window", rule(monthly, 1, 0, "D=-1FR"), "2020-01-31 18:00",
     "2026-03-01", "2026-03-31 23:00", "2026-03-27 18:00"},
    {"every second week since 2019 keeps its parity", rule(weekly, 2, 0, "D=0TU,0TH"),
     "2019-01-01 07:00", "2026-03-01", "2026-03-31 23:00",
     "2026-03-03 07:00, 2026-03-05 07:00, 2026-03-17 07:00, 2026-03-19 07:00, 2026-03-31 07:00"},
    {"a count spent years ago", rule(daily, 1, 30), "2019-01-01 09:00", "2026-03-01", "2026-03-31",
     ""},
    {"an end years ago", rule(daily), "2019-01-01 09:00", "2026-03-01", "2026-03-31", "", false,
     false, "2019-02-01"},
    {"an end inside the window after a long run", rule(daily), "2019-01-01 09:00", "2026-03-01",
     "2026-03-31", "2026-03-01 09:00, 2026-03-02 09:00, 2026-03-03 09:00", false, false,
     "2026-03-03 09:00", 0, 40000},
    {"the ceiling counts periods from the start", rule(daily), "2026-03-01 09:00", "2026-03-01",
     "2026-03-31", "2026-03-01 09:00, 2026-03-02 09:00, 2026-03-03 09:00", true, false, nullptr, 0,
     3},
    {"all-day weekdays at local midnight", rule(weekly, 1, 0, "D=0SA,0SU"), "2026-03-28",
     "2026-03-01", "2026-04-05 23:00", "2026-03-28 00:00, 2026-03-29 00:00, 2026-04-04 00:00",
     false, true},
    {"all-day positional days at local midnight", rule(monthly, 1, 2, "D=+1MO"), "2026-03-02 00:00",
     "2026-01-01", "2026-12-31", "2026-03-02 00:00, 2026-04-06 00:00", false, true},
    {"a months list on a weekly rule selects each date once", rule(weekly, 1, 0, "D=+1MO;O=6"),
     "2026-05-04 09:00", "2026-01-01", "2026-08-31", "2026-06-01 09:00"},
    {"no frequency", rule(0), "2026-03-01 09:00", "2026-03-01", "2026-03-31", "", true},
    // Keys the expansion does not implement: the whole rule is left out, never the
    // part of it that D and O describe.
    {"days of the month are not expanded", rule(monthly, 1, 0, "M=1,15"), "2026-03-01 09:00",
     "2026-03-01", "2026-05-31", "", true},
    {"last weekday of the month is not expanded", rule(monthly, 1, 0, "D=0MO,0TU,0WE,0TH,0FR;S=-1"),
     "2026-03-31 09:00", "2026-03-01", "2026-05-31", "", true},
    {"a week number beside known keys is not expanded", rule(yearly, 1, 0, "D=0MO;O=5;W=20"),
     "2026-05-11 09:00", "2026-01-01", "2027-12-31", "", true},
};

TEST(TeskCalOccurrences, ExpandsRulesAsWallClockTimesInEveryZone) {
  for (const std::string& zone : kZones) {
    for (const Case& c : kCases) {
      SCOPED_TRACE(zone + ": " + c.name);
      Rule r = c.rule;
      if (c.end) r.end = at(zone, c.end) + c.endShift;
      TeskCal::Expansion e = TeskCal::occurrences(
          r, at(zone, c.start), zone, c.allDay, at(zone, c.from), at(zone, c.to), c.ceiling, "UTC");
      EXPECT_EQ(walls(e.instants, zone), c.want);
      EXPECT_EQ(e.incomplete, c.incomplete);
    }
  }
}

TEST(TeskCalOccurrences, FloatingEmptyAndUnknownZonesUseTheLocalZone) {
  for (const std::string& local : kZones) {
    for (const char* zone : {"_float", "", "Not/AZone"}) {
      SCOPED_TRACE(local + " / " + zone);
      double start = at(local, "2026-06-01 08:00");
      TeskCal::Expansion e = TeskCal::occurrences(rule(daily, 1, 2), start, zone, false, start,
                                                  start + 86400 * 3, 4000, local);
      EXPECT_EQ(walls(e.instants, local), "2026-06-01 08:00, 2026-06-02 08:00");
    }
  }
}

TEST(TeskCalOccurrences, HostileRulesEndWithoutGuessing) {
  // An interval too large for the calendar cannot form its second period.
  TeskCal::Expansion e =
      TeskCal::occurrences(rule(daily, int64_t{1} << 40), 0, "UTC", false, -1e9, 1e12, 4000, "UTC");
  EXPECT_TRUE(e.incomplete);
  EXPECT_EQ(e.instants, std::vector<double>{0});
  e = TeskCal::occurrences(rule(daily), NAN, "UTC", false, 0, 1e9, 4000, "UTC");
  EXPECT_TRUE(e.incomplete);
  // Starts no calendar can represent: the window decides, nothing loops or crashes.
  for (double start : {1e300, -1e300}) {
    e = TeskCal::occurrences(rule(weekly, 1, 0, "D=0MO"), start, "UTC", false, 0, 1e9, 4000, "UTC");
    EXPECT_TRUE(e.instants.empty());
  }
  e = TeskCal::occurrences(rule(daily), 0, "UTC", false, 0, 1e9, 0, "UTC");
  EXPECT_TRUE(e.incomplete && e.instants.empty());
}

TEST(TeskCalSpecifier, Parse) {
  struct ParseCase {
    const char* text;
    bool present;
    std::vector<Specifier::Day> days;
    std::vector<int64_t> months;
  };
  const std::vector<ParseCase> cases = {
      {"D=0MO,0WE,0FR", true, {{0, 2}, {0, 4}, {0, 6}}, {}},
      {"D=+2SU;O=5", true, {{2, 1}}, {5}},
      {"O=5;D=-1sa", true, {{-1, 7}}, {5}},
      {"D=MO", true, {{0, 2}}, {}},
      {"D=xMO,+-1TU,2 WE", true, {{0, 2}, {0, 3}, {0, 4}}, {}},  // bad ordinals are 0
      {"D=99999999999999999999TH", true, {{0, 5}}, {}},          // overflow is 0
      {"D=-9223372036854775808TH", true, {{INT64_MIN, 5}}, {}},
      {";;D=,,0SU,;;", true, {{0, 1}}, {}},
      {"D=0XX,0MO;O=+5,-1,x,,12", true, {{0, 2}}, {5, -1, 12}},
      {"D=1\xC5\xBF"
       "A",
       true,
       {{1, 7}},
       {}},                                  // long s upper-cases to S
      {"D=\xC3\xA9MO", true, {{0, 2}}, {}},  // a non-digit prefix is ordinal 0
      {"D=\xFF\xFEMO", true, {{0, 2}}, {}},  // invalid UTF-8 before the code
      {"D=1M\xCC\x81O", false, {}, {}},      // the accent joins M: no code
      {"D=0MO=1", false, {}, {}},
      {"X=0MO;D", false, {}, {}},
      {"O=5", false, {}, {}},
      {"D=O", false, {}, {}},
      {"d=0MO", false, {}, {}},
      {"", false, {}, {}},
  };
  for (const ParseCase& c : cases) {
    SCOPED_TRACE(c.text);
    std::optional<Specifier> s = Specifier::parse(c.text);
    ASSERT_EQ(s.has_value(), c.present);
    if (!s) continue;
    EXPECT_EQ(s->days, c.days);
    EXPECT_EQ(s->months, c.months);
  }
}

TEST(TeskCalSpecifier, OnlyDaysAndMonthsAreExpandable) {
  const std::pair<const char*, bool> cases[] = {
      {"", true},          {"D=0MO,0WE", true},  {"D=+2SU;O=5", true}, {"O=5", true},
      {";;D=-1FR;", true}, {"D;X", true},        {"M=1,15", false},    {"D=0FR;S=-1", false},
      {"Y=100", false},    {"W=1;D=0MO", false}, {"d=0MO", false},     {"=0MO", false},
  };
  for (const auto& [text, want] : cases) {
    EXPECT_EQ(Specifier::expandable(text), want) << text;
  }
}

TEST(TeskCalSpecifier, WeekdayDatesTakeThePeriodContainingTheDate) {
  Specifier s = *Specifier::parse("D=0SU,0SA");
  for (const std::string& zone : kZones) {
    SCOPED_TRACE(zone);
    auto cal = TeskCal::calendar(zone, "UTC");
    const double saturday = at(zone, "2026-03-07 15:00");
    const double start = at(zone, "2026-01-01T06:45:10");
    EXPECT_EQ(walls(s.weekdayDates(saturday, UCAL_WEEK_OF_YEAR, *cal, start, false), zone),
              "2026-03-01 06:45:10, 2026-03-07 06:45:10");
    EXPECT_EQ(s.weekdayDates(saturday, UCAL_MONTH, *cal, start, true).size(), 9u);
    EXPECT_EQ(s.weekdayDates(saturday, UCAL_YEAR, *cal, start, true).size(), 104u);
    EXPECT_EQ(walls(s.weekdayDates(saturday, UCAL_DATE, *cal, start, true), zone),
              "2026-03-07 00:00");
  }
}

}  // namespace
