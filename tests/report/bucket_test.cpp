#include "report/TeskBucket.h"

#include <gtest/gtest.h>

#include <unicode/gregocal.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <unordered_map>

#include "cli/TeskTime.h"

namespace {

const std::string kWest = "America/Los_Angeles";
const std::string kEast = "Asia/Tokyo";

double local(int y, int mo, int d, int h, int mi, const std::string& zone) {
  auto t = TeskTime::localInstant(y, mo, d, h, mi, 0, zone);
  EXPECT_TRUE(t);
  return t.value_or(0);
}

TeskRow row(double ts, std::string teskID, TeskRow::Direction dir = TeskRow::Direction::incoming,
            std::string who = "h") {
  TeskRow r;
  r.ts = ts;
  r.teskID = std::move(teskID);
  r.who = std::move(who);
  r.dir = dir;
  return r;
}

TEST(TeskBucket, ParseDropsOneTrailingSAndIgnoresCase) {
  using K = TeskBucket::Kind;
  const std::pair<const char*, std::optional<K>> cases[] = {
      {"day", K::day},         {"days", K::day},         {"Weeks", K::week}, {"MONTH", K::month},
      {"years", K::year},      {"who", K::who},          {"whos", K::who},   {"hour", std::nullopt},
      {"persons", K::person},  {"people", std::nullopt}, {"", std::nullopt}, {"s", std::nullopt},
      {"dayss", std::nullopt}, {" day", std::nullopt},
  };
  for (const auto& [text, kind] : cases) EXPECT_EQ(TeskBucket::parse(text), kind) << text;
  for (K k : TeskBucket::kinds) EXPECT_EQ(TeskBucket::parse(TeskBucket::rawValue(k)), k);
}

TEST(TeskBucket, LabelsFollowTheLocalCalendar) {
  using K = TeskBucket::Kind;
  struct Case {
    const char* name;
    K kind;
    double ts;
    std::string zone;
    const char* label;
  };
  const double westLate = local(2026, 3, 1, 23, 30, kWest);  // 2026-03-02T07:30Z
  const double eastEarly = local(2026, 3, 2, 0, 30, kEast);  // 2026-03-01T15:30Z
  const double westNewYearsEve = local(2025, 12, 31, 23, 30, kWest);
  const double eastNewYear = local(2026, 1, 1, 0, 30, kEast);
  const Case cases[] = {
      {"west evening keeps its day", K::day, westLate, kWest, "2026-03-01"},
      {"same instant in the east", K::day, westLate, kEast, "2026-03-02"},
      {"east morning is a day ahead of UTC", K::day, eastEarly, kEast, "2026-03-02"},
      {"same instant in the west", K::day, eastEarly, kWest, "2026-03-01"},
      {"west Sunday night is still last week", K::week, westLate, kWest, "2026-W09"},
      {"west new year's eve month", K::month, westNewYearsEve, kWest, "2025-12"},
      {"west new year's eve year", K::year, westNewYearsEve, kWest, "2025"},
      {"east new year month", K::month, eastNewYear, kEast, "2026-01"},
      {"east new year year", K::year, eastNewYear, kEast, "2026"},
      {"2027-01-01 is week 53 of 2026 (west)", K::week, local(2027, 1, 1, 12, 0, kWest), kWest,
       "2026-W53"},
      {"2027-01-01 is week 53 of 2026 (east)", K::week, local(2027, 1, 1, 12, 0, kEast), kEast,
       "2026-W53"},
      {"2024-12-30 is week 1 of 2025 (west)", K::week, local(2024, 12, 30, 8, 0, kWest), kWest,
       "2025-W01"},
      {"2024-12-30 is week 1 of 2025 (east)", K::week, local(2024, 12, 30, 8, 0, kEast), kEast,
       "2025-W01"},
      {"Monday starts the week", K::week, local(2026, 1, 5, 0, 0, kEast), kEast, "2026-W02"},
      {"Sunday ends it", K::week, local(2026, 1, 4, 23, 59, kEast), kEast, "2026-W01"},
      {"single-digit week is padded", K::week, local(2026, 2, 10, 12, 0, kWest), kWest, "2026-W07"},
      {"day pattern", K::day, local(2026, 1, 5, 9, 0, kWest), kWest, "2026-01-05"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskBucket::label(c.kind, "ignored", c.ts, c.zone), c.label) << c.name;
  }
  EXPECT_EQ(TeskBucket::label(K::who, "alice@example.com", westLate, kWest), "alice@example.com");
}

TEST(TeskBucket, ApplyAgreesWithLabelRowByRowAcrossMidnightsAndDST) {
  // Every 20 minutes over four days around the spring-forward night (2026-03-08 in
  // Los Angeles): the day-range memo must switch exactly at each local midnight.
  for (const std::string& zone : {kWest, kEast}) {
    for (auto kind : {TeskBucket::Kind::day, TeskBucket::Kind::week, TeskBucket::Kind::month}) {
      std::vector<TeskRow> rows;
      std::map<std::string, int64_t> expect;
      double t0 = local(2026, 3, 6, 0, 0, kWest);
      for (int i = 0; i < 4 * 72; ++i) {
        rows.push_back(row(t0 + i * 1200.0, "p"));
        ++expect[TeskBucket::label(kind, "", rows.back().ts, zone)];
      }
      // An instant exactly at local midnight belongs to the new day.
      rows.push_back(row(local(2026, 3, 10, 0, 0, zone), "p"));
      ++expect[TeskBucket::label(kind, "", rows.back().ts, zone)];
      std::map<std::string, int64_t> got;
      for (const auto& b : TeskBucket::apply(rows, kind, zone)) got[b.key] = b.count;
      EXPECT_EQ(got, expect) << zone << " " << TeskBucket::rawValue(kind);
    }
  }
  auto days = TeskBucket::apply(std::vector<TeskRow>{row(local(2026, 3, 7, 23, 59, kWest), "p"),
                                                     row(local(2026, 3, 8, 0, 0, kWest), "p"),
                                                     row(local(2026, 3, 8, 23, 59, kWest), "p"),
                                                     row(local(2026, 3, 9, 0, 0, kWest), "p")},
                                TeskBucket::Kind::day, kWest);
  ASSERT_EQ(days.size(), 3u);
  EXPECT_EQ(days[1].key, "2026-03-08");
  EXPECT_EQ(days[1].count, 2);  // a 23-hour day
}

// The local date and the ISO week of `ts` in `zone`, read straight from ICU fields.
std::pair<std::string, std::string> trueDayAndWeek(double ts, const std::string& zone) {
  UErrorCode st = U_ZERO_ERROR;
  icu::GregorianCalendar cal(TeskTime::makeZone(zone).release(), st);
  cal.setFirstDayOfWeek(UCAL_MONDAY);
  cal.setMinimalDaysInFirstWeek(4);
  cal.setTime(ts * 1000.0, st);
  char day[48], week[48];
  std::snprintf(day, sizeof day, "%04d-%02d-%02d", cal.get(UCAL_YEAR, st),
                cal.get(UCAL_MONTH, st) + 1, cal.get(UCAL_DATE, st));
  std::snprintf(week, sizeof week, "%04d-W%02d", cal.get(UCAL_YEAR_WOY, st),
                cal.get(UCAL_WEEK_OF_YEAR, st));
  EXPECT_TRUE(U_SUCCESS(st));
  return {day, week};
}

TEST(TeskBucket, ZonesWhoseClocksChangeAtMidnightKeepEveryRowOnItsOwnDay) {
  // Each zone skips (or, for Havana's autumn, repeats) its midnight on `day`, which
  // then has `hours` hours. Rows every half hour from the day before to the day after.
  struct Case {
    const char* zone;
    int y, m, d;
    int hours;
  };
  const Case cases[] = {
      {"America/Havana", 2026, 3, 8, 23},    {"Asia/Beirut", 2021, 3, 28, 23},
      {"America/Asuncion", 2021, 10, 3, 23}, {"America/Santiago", 2021, 9, 5, 23},
      {"Asia/Tehran", 2021, 3, 22, 23},      {"America/Havana", 2026, 11, 1, 25},
  };
  for (const Case& c : cases) {
    char name[64];
    std::snprintf(name, sizeof name, "%s %04d-%02d-%02d", c.zone, c.y, c.m, c.d);
    SCOPED_TRACE(name);
    const double from = local(c.y, c.m, c.d - 1, 0, 0, c.zone);
    std::vector<TeskRow> rows;
    std::map<std::string, int64_t> days, weeks;
    for (double t = from; t < from + 3 * 86400; t += 1800) {
      rows.push_back(row(t, "p"));
      auto [day, week] = trueDayAndWeek(t, c.zone);
      ++days[day];
      ++weeks[week];
    }
    std::map<std::string, int64_t> gotDays, gotWeeks;
    for (const auto& b : TeskBucket::apply(rows, TeskBucket::Kind::day, c.zone)) {
      gotDays[b.key] = b.count;
    }
    for (const auto& b : TeskBucket::apply(rows, TeskBucket::Kind::week, c.zone)) {
      gotWeeks[b.key] = b.count;
    }
    EXPECT_EQ(gotDays, days);
    EXPECT_EQ(gotWeeks, weeks);
    EXPECT_EQ(gotDays[name + std::strlen(c.zone) + 1], 2 * c.hours);
  }
}

TEST(TeskBucket, ApplyCountsAndOrdersTimeBuckets) {
  using D = TeskRow::Direction;
  const double a = local(2026, 1, 5, 9, 0, kEast);
  const double b = local(2026, 1, 5, 18, 0, kEast);
  const double c = local(2026, 1, 3, 7, 0, kEast);
  // Out of time order on purpose: buckets still come out by key.
  std::vector<TeskRow> rows{row(b, "x", D::outgoing), row(a, "y"), row(c, "x")};
  auto buckets = TeskBucket::apply(rows, TeskBucket::Kind::day, kEast);
  ASSERT_EQ(buckets.size(), 2u);
  EXPECT_EQ(buckets[0].key, "2026-01-03");
  EXPECT_EQ(buckets[0].count, 1);
  EXPECT_EQ(buckets[0].first, c);
  EXPECT_EQ(buckets[0].last, c);  // one row: first equals last
  EXPECT_EQ(buckets[1].key, "2026-01-05");
  EXPECT_EQ(buckets[1].count, 2);
  EXPECT_EQ(buckets[1].inbound, 1);
  EXPECT_EQ(buckets[1].outbound, 1);
  EXPECT_EQ(buckets[1].first, a);
  EXPECT_EQ(buckets[1].last, b);
}

TEST(TeskBucket, WhoBucketsByPersonCountThenKey) {
  using D = TeskRow::Direction;
  std::vector<TeskRow> rows{
      row(10, "zed"), row(11, "", D::outgoing, "+1555"), row(12, "amy"), row(13, "zed"),
      row(14, "amy"), row(15, "", D::incoming, "+1555"), row(16, "bob"), row(17, "zed"),
  };
  auto buckets = TeskBucket::apply(rows, TeskBucket::Kind::who, kWest);
  std::vector<std::pair<std::string, int64_t>> got;
  for (const auto& b : buckets) got.emplace_back(b.key, b.count);
  EXPECT_EQ(got, (std::vector<std::pair<std::string, int64_t>>{
                     {"zed", 3}, {"+1555", 2}, {"amy", 2}, {"bob", 1}}));
  EXPECT_EQ(buckets[1].inbound, 1);
  EXPECT_EQ(buckets[1].outbound, 1);
  EXPECT_EQ(buckets[1].first, 11);
  EXPECT_EQ(buckets[1].last, 15);
}

// person: every handle of a card counts for the card; a handle on no card stands
// alone; each handle is looked up once however many rows carry it.
TEST(TeskBucket, PersonMergesTheHandlesOfACard) {
  using D = TeskRow::Direction;
  std::vector<TeskRow> rows{
      row(10, "+4155550123", D::incoming, "+14155550123"),
      row(11, "jordan@example.com", D::outgoing, "jordan@example.com"),
      row(12, "+4155550123", D::outgoing, "4155550123"),
      row(13, "+2125550101", D::incoming, "+12125550101"),
      row(14, "stranger@example.com", D::incoming, "stranger@example.com"),
      row(15, "", D::outgoing, ""),  // the owner in a group: no counterpart
  };
  std::map<std::string, int> asked;
  const TeskBucket::PersonLookup people = [&asked](const std::string& h) {
    ++asked[h];
    if (h == "+4155550123" || h == "jordan@example.com") {
      return TeskBucket::Person{"Jordan Lee", "Jordan\tLee"};
    }
    if (h == "+2125550101") return TeskBucket::Person{"Sam Roe (+2125550101)", "Sam Roe"};
    return TeskBucket::Person{h, ""};
  };
  auto buckets = TeskBucket::apply(rows, TeskBucket::Kind::person, kWest, people);
  EXPECT_EQ(asked["+4155550123"], 1);
  EXPECT_EQ(TeskBucket::render(buckets, TeskBucket::NameLookup(), TeskBucket::Kind::person),
            (std::vector<std::string>{
                "bucket\tname\thandles\tcount\tin\tout\tfirst\tlast",
                "Jordan Lee\tJordan\\tLee\t+14155550123|4155550123|jordan@example.com\t3\t1\t2\t"
                "1970-01-01T00:00:10Z\t1970-01-01T00:00:12Z",
                "\t\t\t1\t0\t1\t1970-01-01T00:00:15Z\t1970-01-01T00:00:15Z",
                "Sam Roe (+2125550101)\tSam Roe\t+12125550101\t1\t1\t0\t1970-01-01T00:00:13Z\t"
                "1970-01-01T00:00:13Z",
                "stranger@example.com\t\tstranger@example.com\t1\t1\t0\t1970-01-01T00:00:14Z\t"
                "1970-01-01T00:00:14Z"}));
  // Without a lookup every handle is its own person.
  EXPECT_EQ(TeskBucket::apply(rows, TeskBucket::Kind::person, kWest).size(), 5u);
}

TEST(TeskBucket, RenderColumnsAndNames) {
  TeskBucket::Row b{"amy", 3, 2, 1, 1767225600, 1767229200.9, {}, {}};
  TeskBucket::Row c{"bob", 1, 1, 0, 1767225600, 1767225600, {}, {}};
  const std::map<std::string, std::string> names{{"amy", "Amy Pond"}};
  EXPECT_EQ(TeskBucket::render({b, c}, names, TeskBucket::Kind::who),
            (std::vector<std::string>{
                "bucket\tcount\tin\tout\tfirst\tlast\tname",
                "amy\t3\t2\t1\t2026-01-01T00:00:00Z\t2026-01-01T01:00:00Z\tAmy Pond",
                "bob\t1\t1\t0\t2026-01-01T00:00:00Z\t2026-01-01T00:00:00Z\t"}));
  const std::unordered_map<std::string, std::string> hashed{{"bob", "Bob"}};
  EXPECT_TRUE(TeskBucket::render({c}, hashed, TeskBucket::Kind::who)[1].ends_with("Z\tBob"));
  // Keys and names come from stores: they never open a column or a line.
  TeskBucket::Row hostile{"a\tb\nc\rd", 1, 1, 0, 1767225600, 1767225600, {}, {}};
  const std::map<std::string, std::string> forged{{"a\tb\nc\rd", "N\n1"}};
  EXPECT_EQ(TeskBucket::render({hostile}, forged, TeskBucket::Kind::who)[1],
            "a\\tb\\nc\\rd\t1\t1\t0\t2026-01-01T00:00:00Z\t2026-01-01T00:00:00Z\tN\\n1");
  b.key = "2026-01-01";
  EXPECT_EQ(TeskBucket::render({b}, TeskBucket::NameLookup(), TeskBucket::Kind::day),
            (std::vector<std::string>{
                "bucket\tcount\tin\tout\tfirst\tlast",
                "2026-01-01\t3\t2\t1\t2026-01-01T00:00:00Z\t2026-01-01T01:00:00Z"}));
}

TEST(TeskBucket, NoRowsRenderTheHeaderAlone) {
  for (auto kind : TeskBucket::kinds) {
    auto buckets = TeskBucket::apply({}, kind, kWest);
    EXPECT_TRUE(buckets.empty());
    auto lines = TeskBucket::render(buckets, TeskBucket::NameLookup(), kind);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], TeskBucket::header(kind));
  }
  EXPECT_EQ(TeskBucket::header(TeskBucket::Kind::year), "bucket\tcount\tin\tout\tfirst\tlast");
}

TEST(TeskBucket, HostileInstantsStillLabel) {
  for (double bad : {std::nan(""), 1e300, -1e300}) {
    EXPECT_FALSE(TeskBucket::label(TeskBucket::Kind::day, "", bad, kWest).empty());
  }
}

}  // namespace
