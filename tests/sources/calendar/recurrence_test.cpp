// Recurrence expansion and the store's specifier text. Every expansion case runs in
// a zone west of UTC, one east of it, and one whose DST change falls inside the
// window; expectations are wall-clock times in the item's zone, which must not move
// when the zone's offset does.
#include <gtest/gtest.h>
#include <unicode/calendar.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "cli/TeskTime.h"
#include "sources/calendar/TeskCal.h"

namespace {

using TeskCal::Frequency;
using TeskCal::Rule;
using TeskCal::Specifier;

const std::vector<std::string> kZones = {"America/Los_Angeles", "Asia/Tokyo", "Europe/Berlin"};

double at(const std::string& zone, int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
  auto t = TeskTime::localInstant(y, mo, d, h, mi, s, zone);
  EXPECT_TRUE(t.has_value());
  return t.value_or(0);
}

// "yyyy-MM-dd HH:mm:ss" of an instant in `zone`.
std::string wall(double t, const std::string& zone) {
  auto cal = TeskCal::calendar(zone, "UTC");
  UErrorCode st = U_ZERO_ERROR;
  cal->setTime(t * 1000.0, st);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", cal->get(UCAL_EXTENDED_YEAR, st),
                cal->get(UCAL_MONTH, st) + 1, cal->get(UCAL_DATE, st),
                cal->get(UCAL_HOUR_OF_DAY, st), cal->get(UCAL_MINUTE, st),
                cal->get(UCAL_SECOND, st));
  return buf;
}

std::vector<std::string> walls(const std::vector<double>& ts, const std::string& zone) {
  std::vector<std::string> out;
  for (double t : ts) out.push_back(wall(t, zone));
  return out;
}

struct Civil {
  int y, mo, d, h = 0, mi = 0, s = 0;
};

struct ExpansionCase {
  const char* name;
  Rule rule;
  Civil start;
  bool allDay;
  Civil from, to;
  std::vector<std::string> want;  // wall clock in the item's zone
  bool incomplete = false;
  std::optional<Civil> end = std::nullopt;  // overrides rule.end (local wall clock)
  double endShift = 0;                      // seconds added to `end`
  int64_t ceiling = TeskCal::kPeriodCeiling;
};

Rule rule(Frequency f, int64_t interval = 1, int64_t count = 0,
          std::optional<std::string> specifier = std::nullopt) {
  Rule r;
  r.frequency = f;
  r.interval = interval;
  r.count = count;
  r.specifier = std::move(specifier);
  return r;
}

std::vector<ExpansionCase> expansionCases() {
  return {
      {"weekly weekdays start mid-week, across the March DST change",
       rule(Frequency::weekly, 1, 0, "D=0MO,0WE,0FR"),
       {2026, 3, 18, 9, 30},
       false,
       {2026, 3, 1},
       {2026, 4, 3, 23, 59},
       {"2026-03-18 09:30:00", "2026-03-20 09:30:00", "2026-03-23 09:30:00", "2026-03-25 09:30:00",
        "2026-03-27 09:30:00", "2026-03-30 09:30:00", "2026-04-01 09:30:00",
        "2026-04-03 09:30:00"}},
      {"weekly week is Sunday-first: a Sunday start keeps its own week's Saturday",
       rule(Frequency::weekly, 1, 0, "D=0SU,0SA"),
       {2026, 3, 1, 8, 0},
       false,
       {2026, 3, 1},
       {2026, 3, 14, 23},
       {"2026-03-01 08:00:00", "2026-03-07 08:00:00", "2026-03-08 08:00:00",
        "2026-03-14 08:00:00"}},
      {"monthly last Friday",
       rule(Frequency::monthly, 1, 0, "D=-1FR"),
       {2026, 1, 30, 18, 0},
       false,
       {2026, 1, 1},
       {2026, 4, 30, 23},
       {"2026-01-30 18:00:00", "2026-02-27 18:00:00", "2026-03-27 18:00:00",
        "2026-04-24 18:00:00"}},
      {"monthly fifth Tuesday only in months that have one",
       rule(Frequency::monthly, 1, 0, "D=+5TU"),
       {2026, 3, 31, 7, 0},
       false,
       {2026, 3, 1},
       {2026, 7, 31},
       {"2026-03-31 07:00:00", "2026-06-30 07:00:00"}},
      {"yearly second Sunday of May",
       rule(Frequency::yearly, 1, 0, "D=+2SU;O=5"),
       {2026, 5, 10, 10, 0},
       false,
       {2026, 1, 1},
       {2028, 12, 31},
       {"2026-05-10 10:00:00", "2027-05-09 10:00:00", "2028-05-14 10:00:00"}},
      {"months alone are no specifier: the start's own date",
       rule(Frequency::yearly, 1, 0, "O=5"),
       {2026, 7, 4, 12, 0},
       false,
       {2026, 1, 1},
       {2027, 12, 31},
       {"2026-07-04 12:00:00", "2027-07-04 12:00:00"}},
      {"only unknown day codes: no specifier",
       rule(Frequency::weekly, 1, 2, "D=0XX,+1QQ"),
       {2026, 3, 4, 9, 0},
       false,
       {2026, 1, 1},
       {2026, 12, 31},
       {"2026-03-04 09:00:00", "2026-03-11 09:00:00"}},
      {"monthly on the 31st falls back and returns",
       rule(Frequency::monthly),
       {2026, 1, 31, 10, 0},
       false,
       {2026, 1, 1},
       {2026, 5, 31, 23},
       {"2026-01-31 10:00:00", "2026-02-28 10:00:00", "2026-03-31 10:00:00", "2026-04-30 10:00:00",
        "2026-05-31 10:00:00"}},
      {"monthly on the 31st in a leap year",
       rule(Frequency::monthly, 1, 3),
       {2028, 1, 31, 10, 0},
       false,
       {2028, 1, 1},
       {2028, 12, 31},
       {"2028-01-31 10:00:00", "2028-02-29 10:00:00", "2028-03-31 10:00:00"}},
      {"count limits periods, not instants (count 3, every second week)",
       rule(Frequency::weekly, 2, 3, "D=0MO,0TH"),
       {2026, 3, 2, 8, 0},
       false,
       {2026, 1, 1},
       {2026, 12, 31},
       {"2026-03-02 08:00:00", "2026-03-05 08:00:00", "2026-03-16 08:00:00", "2026-03-19 08:00:00",
        "2026-03-30 08:00:00", "2026-04-02 08:00:00"}},
      {"daily across DST keeps its wall-clock time",
       rule(Frequency::daily),
       {2026, 3, 27, 9, 0},
       false,
       {2026, 3, 27},
       {2026, 3, 31, 9},
       {"2026-03-27 09:00:00", "2026-03-28 09:00:00", "2026-03-29 09:00:00", "2026-03-30 09:00:00",
        "2026-03-31 09:00:00"}},
      {"daily across the October change keeps its wall-clock time",
       rule(Frequency::daily, 1),
       {2026, 10, 24, 9, 0},
       false,
       {2026, 10, 24},
       {2026, 10, 26, 23},
       {"2026-10-24 09:00:00", "2026-10-25 09:00:00", "2026-10-26 09:00:00"}},
      {"end one second before the third period yields two periods",
       rule(Frequency::daily),
       {2026, 3, 28, 7, 0},
       false,
       {2026, 3, 1},
       {2026, 4, 30},
       {"2026-03-28 07:00:00", "2026-03-29 07:00:00"},
       false,
       Civil{2026, 3, 30, 7, 0},
       -1},
      {"end exactly at the third period keeps it",
       rule(Frequency::daily),
       {2026, 3, 28, 7, 0},
       false,
       {2026, 3, 1},
       {2026, 4, 30},
       {"2026-03-28 07:00:00", "2026-03-29 07:00:00", "2026-03-30 07:00:00"},
       false,
       Civil{2026, 3, 30, 7, 0}},
      {"a period exactly at the window's end is kept, the window start too",
       rule(Frequency::weekly),
       {2026, 3, 3, 12, 0},
       false,
       {2026, 3, 10, 12},
       {2026, 3, 24, 12},
       {"2026-03-10 12:00:00", "2026-03-17 12:00:00", "2026-03-24 12:00:00"}},
      {"one second short of the next period at both edges",
       rule(Frequency::weekly),
       {2026, 3, 3, 12, 0},
       false,
       {2026, 3, 10, 12, 0, 1},
       {2026, 3, 24, 11, 59, 59},
       {"2026-03-17 12:00:00"}},
      {"a series eleven years old runs out of periods first",
       rule(Frequency::daily),
       {2015, 1, 1, 9, 0},
       false,
       {2026, 3, 1},
       {2026, 3, 31},
       {},
       true},
      {"the ceiling is counted in periods from the start",
       rule(Frequency::daily),
       {2026, 3, 1, 9, 0},
       false,
       {2026, 3, 1},
       {2026, 3, 31},
       {"2026-03-01 09:00:00", "2026-03-02 09:00:00", "2026-03-03 09:00:00"},
       true,
       std::nullopt,
       0,
       3},
      {"all-day weekend rule at local midnight",
       rule(Frequency::weekly, 1, 0, "D=0SA,0SU"),
       {2026, 3, 28},
       true,
       {2026, 3, 1},
       {2026, 4, 5, 23},
       {"2026-03-28 00:00:00", "2026-03-29 00:00:00", "2026-04-04 00:00:00"}},
      {"all-day positional rule at local midnight",
       rule(Frequency::monthly, 1, 2, "D=+1MO"),
       {2026, 3, 2},
       true,
       {2026, 1, 1},
       {2026, 12, 31},
       {"2026-03-02 00:00:00", "2026-04-06 00:00:00"}},
      {"yearly months list on a weekly rule selects each date once",
       rule(Frequency::weekly, 1, 0, "D=+1MO;O=6"),
       {2026, 5, 4, 9, 0},
       false,
       {2026, 1, 1},
       {2026, 8, 31},
       {"2026-06-01 09:00:00"}},
  };
}

TEST(TeskCalOccurrences, ExpandsRulesAsWallClockTimesInEveryZone) {
  for (const std::string& zone : kZones) {
    for (const ExpansionCase& c : expansionCases()) {
      SCOPED_TRACE(zone + ": " + c.name);
      Rule r = c.rule;
      if (c.end) {
        r.end = at(zone, c.end->y, c.end->mo, c.end->d, c.end->h, c.end->mi, c.end->s) + c.endShift;
      }
      double start = at(zone, c.start.y, c.start.mo, c.start.d, c.start.h, c.start.mi, c.start.s);
      double from = at(zone, c.from.y, c.from.mo, c.from.d, c.from.h, c.from.mi, c.from.s);
      double to = at(zone, c.to.y, c.to.mo, c.to.d, c.to.h, c.to.mi, c.to.s);
      TeskCal::Expansion e =
          TeskCal::occurrences(r, start, zone, c.allDay, from, to, c.ceiling, "UTC");
      EXPECT_EQ(walls(e.instants, zone), c.want);
      EXPECT_EQ(e.incomplete, c.incomplete);
    }
  }
}

// Long-running series: periods before the window are counted, never re-based on it.
TEST(TeskCalOccurrences, OldSeriesCountPeriodsFromTheirStart) {
  for (const std::string& zone : kZones) {
    SCOPED_TRACE(zone);
    const double from = at(zone, 2026, 3, 1);
    const double to = at(zone, 2026, 3, 31, 23);
    // 3990 days before the window: ten periods remain under the ceiling of 4000.
    TeskCal::Expansion e = TeskCal::occurrences(rule(Frequency::daily), at(zone, 2015, 3, 29, 9, 0),
                                                zone, false, from, to, 4000, "UTC");
    EXPECT_EQ(walls(e.instants, zone).size(), 10u);
    ASSERT_FALSE(e.instants.empty());
    EXPECT_EQ(wall(e.instants.front(), zone), "2026-03-01 09:00:00");
    EXPECT_EQ(wall(e.instants.back(), zone), "2026-03-10 09:00:00");
    EXPECT_TRUE(e.incomplete);

    // Six years of monthly last Fridays before the window still land on last Fridays.
    e = TeskCal::occurrences(rule(Frequency::monthly, 1, 0, "D=-1FR"), at(zone, 2020, 1, 31, 18, 0),
                             zone, false, from, to, 4000, "UTC");
    EXPECT_EQ(walls(e.instants, zone), std::vector<std::string>{"2026-03-27 18:00:00"});
    EXPECT_FALSE(e.incomplete);

    // Every second week since 2019 on Tuesdays and Thursdays: the parity holds.
    e = TeskCal::occurrences(rule(Frequency::weekly, 2, 0, "D=0TU,0TH"), at(zone, 2019, 1, 1, 7, 0),
                             zone, false, from, to, 4000, "UTC");
    EXPECT_EQ(walls(e.instants, zone),
              (std::vector<std::string>{"2026-03-03 07:00:00", "2026-03-05 07:00:00",
                                        "2026-03-17 07:00:00", "2026-03-19 07:00:00",
                                        "2026-03-31 07:00:00"}));

    // A series that ended (by count or by end date) years ago: nothing, complete.
    e = TeskCal::occurrences(rule(Frequency::daily, 1, 30), at(zone, 2019, 1, 1, 9, 0), zone, false,
                             from, to, 4000, "UTC");
    EXPECT_TRUE(e.instants.empty());
    EXPECT_FALSE(e.incomplete);
    Rule ended = rule(Frequency::daily);
    ended.end = at(zone, 2019, 2, 1);
    e = TeskCal::occurrences(ended, at(zone, 2019, 1, 1, 9, 0), zone, false, from, to, 4000, "UTC");
    EXPECT_TRUE(e.instants.empty());
    EXPECT_FALSE(e.incomplete);
    // The same series ending inside the window stops there.
    ended.end = at(zone, 2026, 3, 3, 9, 0);
    // 2618 periods separate 2019-01-01 from the window: a ceiling of 2600 runs out first.
    e = TeskCal::occurrences(ended, at(zone, 2019, 1, 1, 9, 0), zone, false, from, to, 2600, "UTC");
    EXPECT_TRUE(e.instants.empty());
    EXPECT_TRUE(e.incomplete);
    e = TeskCal::occurrences(ended, at(zone, 2019, 1, 1, 9, 0), zone, false, from, to, 40000,
                             "UTC");
    EXPECT_EQ(walls(e.instants, zone),
              (std::vector<std::string>{"2026-03-01 09:00:00", "2026-03-02 09:00:00",
                                        "2026-03-03 09:00:00"}));
    EXPECT_FALSE(e.incomplete);
  }
}

TEST(TeskCalOccurrences, FloatingAndUnknownZonesUseTheLocalZone) {
  Rule r = rule(Frequency::daily, 1, 2);
  for (const std::string& local : kZones) {
    SCOPED_TRACE(local);
    double start = at(local, 2026, 6, 1, 8, 0);
    for (const std::string& zone :
         {std::string("_float"), std::string(), std::string("Not/AZone")}) {
      TeskCal::Expansion e = TeskCal::occurrences(r, start, zone, false, start, start + 86400 * 3,
                                                  TeskCal::kPeriodCeiling, local);
      EXPECT_EQ(walls(e.instants, local),
                (std::vector<std::string>{"2026-06-01 08:00:00", "2026-06-02 08:00:00"}));
      EXPECT_FALSE(e.incomplete);
    }
  }
}

TEST(TeskCalOccurrences, DegenerateRulesAreIncompleteNotGuessed) {
  Rule none;  // unknown frequency
  TeskCal::Expansion e = TeskCal::occurrences(none, 0, "UTC", false, -1e9, 1e9, 4000, "UTC");
  EXPECT_TRUE(e.incomplete);
  EXPECT_TRUE(e.instants.empty());

  // An interval too large for the calendar cannot form its second period.
  Rule huge = rule(Frequency::daily, int64_t{1} << 40);
  e = TeskCal::occurrences(huge, 0, "UTC", false, -1e9, 1e12, 4000, "UTC");
  EXPECT_TRUE(e.incomplete);
  EXPECT_EQ(e.instants, std::vector<double>{0});

  // Non-finite starts and a zero ceiling never loop or crash.
  e = TeskCal::occurrences(rule(Frequency::daily), NAN, "UTC", false, 0, 1e9, 4000, "UTC");
  EXPECT_TRUE(e.incomplete);
  e = TeskCal::occurrences(rule(Frequency::daily), 0, "UTC", false, 0, 1e9, 0, "UTC");
  EXPECT_TRUE(e.incomplete);
  EXPECT_TRUE(e.instants.empty());
}

TEST(TeskCalSpecifier, Parse) {
  struct Case {
    const char* text;
    bool present;
    std::vector<Specifier::Day> days;
    std::vector<int64_t> months;
  };
  const std::vector<Case> cases = {
      {"D=0MO,0WE,0FR", true, {{0, 2}, {0, 4}, {0, 6}}, {}},
      {"D=+2TU", true, {{2, 3}}, {}},
      {"D=-1FR", true, {{-1, 6}}, {}},
      {"D=+2SU;O=5", true, {{2, 1}}, {5}},
      {"O=5;D=3sa", true, {{3, 7}}, {5}},
      {"D=MO", true, {{0, 2}}, {}},
      {"D=xMO,+-1TU,2 WE", true, {{0, 2}, {0, 3}, {0, 4}}, {}},  // bad ordinals are 0
      {"D=99999999999999999999TH", true, {{0, 5}}, {}},          // overflow is 0
      {"D=-9223372036854775808TH", true, {{INT64_MIN, 5}}, {}},
      {";;D=,,0SU,;;", true, {{0, 1}}, {}},
      {"D=0XX,0MO;O=+5,-1,x,,12", true, {{0, 2}}, {5, -1, 12}},
      {"D=0MO=1", false, {}, {}},  // the value "0MO=1" ends in "=1"
      {"X=0MO;D", false, {}, {}},
      {"O=5", false, {}, {}},
      {"D=0XX,+1QQ", false, {}, {}},
      {"D=O", false, {}, {}},
      {"d=0MO", false, {}, {}},
      {"", false, {}, {}},
      {"D=1ſA", true, {{1, 7}}, {}},         // long s upper-cases to S
      {"D=1M\xCC\x81O", false, {}, {}},      // the accent joins M: "M\u0301O" is no code
      {"D=\xC3\xA9MO", true, {{0, 2}}, {}},  // a non-digit prefix is ordinal 0
      {"D=\xFF\xFEMO", true, {{0, 2}}, {}},  // invalid UTF-8 before the code
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    std::optional<Specifier> s = Specifier::parse(c.text);
    ASSERT_EQ(s.has_value(), c.present);
    if (!s) continue;
    EXPECT_EQ(s->days, c.days);
    EXPECT_EQ(s->months, c.months);
  }
}

TEST(TeskCalSpecifier, WeekdayDatesTakeTheSundayFirstWeekContainingThePeriod) {
  Specifier s = *Specifier::parse("D=0SU,0SA");
  for (const std::string& zone : kZones) {
    SCOPED_TRACE(zone);
    auto cal = TeskCal::calendar(zone, "UTC");
    // Saturday 2026-03-07: its week began on Sunday 2026-03-01.
    double saturday = at(zone, 2026, 3, 7, 15);
    double start = at(zone, 2026, 1, 1, 6, 45, 10);
    EXPECT_EQ(walls(s.weekdayDates(saturday, UCAL_WEEK_OF_YEAR, *cal, start, false), zone),
              (std::vector<std::string>{"2026-03-01 06:45:10", "2026-03-07 06:45:10"}));
    // The month and year periods walk every day of them.
    EXPECT_EQ(s.weekdayDates(saturday, UCAL_MONTH, *cal, start, true).size(), 9u);
    EXPECT_EQ(s.weekdayDates(saturday, UCAL_YEAR, *cal, start, true).size(), 104u);
    // A daily period is the single day.
    EXPECT_EQ(walls(s.weekdayDates(saturday, UCAL_DATE, *cal, start, true), zone),
              std::vector<std::string>{"2026-03-07 00:00:00"});
  }
}

}  // namespace
