// The calendar producer over tiny Calendar.sqlitedb stores built from the real
// schema: instants, exceptions, detached instances, windows, selectors, failures,
// the agreement with OccurrenceCache and the command-line notes.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "cli/TeskRegex.h"
#include "cli/TeskTime.h"
#include "sources/calendar/CalendarHome.h"
#include "sources/calendar/TeskCal.h"

namespace {

using caltest::CalendarHome;
using caltest::iso;
using caltest::Item;
using caltest::Recurrence;
using caltest::stored;

constexpr const char* kWest = "America/Los_Angeles";
constexpr const char* kEast = "Asia/Tokyo";

TeskIMessage::Filter window(const char* since, const char* until) {
  TeskIMessage::Filter f;
  f.since = iso(since);
  f.until = iso(until);
  return f;
}

std::vector<std::string> ids(const TeskCal::Result& r) {
  std::vector<std::string> out;
  for (const TeskRow& row : r.rows) out.push_back(row.id);
  return out;
}

std::vector<std::string> bodies(const TeskCal::Result& r) {
  std::vector<std::string> out;
  for (const TeskRow& row : r.rows) out.push_back(row.body);
  return out;
}

TEST(TeskCalInstant, FloatingValuesAreWallClockTimesInTheLocalZone) {
  // 2028-04-16 00:00 written as if UTC.
  const double floating = stored(iso("2028-04-16T00:00:00Z"));
  struct Case {
    const char* local;
    const char* want;
  };
  for (const Case& c :
       {Case{kWest, "2028-04-16T07:00:00Z"}, Case{kEast, "2028-04-15T15:00:00Z"},
        Case{"Europe/Berlin", "2028-04-15T22:00:00Z"}, Case{"UTC", "2028-04-16T00:00:00Z"}}) {
    SCOPED_TRACE(c.local);
    EXPECT_EQ(TeskTime::isoString(TeskCal::instant(floating, "_float", c.local)), c.want);
    // A named zone (even an unknown or empty one) means the value is the instant.
    for (const char* zone : {"Asia/Tokyo", "America/New_York", "UTC", "", "Mars/Olympus"}) {
      EXPECT_EQ(TeskCal::instant(floating, zone, c.local), iso("2028-04-16T00:00:00Z")) << zone;
    }
  }
  // Values no calendar can form come back as they are.
  EXPECT_EQ(TeskCal::instant(1e300, "_float", kEast), 1e300 + TeskTime::appleEpochOffset);
}

TEST(TeskCalRead, FloatingItemsKeepTheirLocalDateEastAndWest) {
  CalendarHome store;
  store.calendar("Home");
  Item floating;
  floating.summary = "Dentist";
  floating.tz = std::nullopt;
  floating.start = iso("2028-04-16T00:00:00Z");
  store.item(floating);
  Item zoned;
  zoned.summary = "Flight";
  zoned.tz = "America/New_York";
  zoned.start = iso("2028-04-16T13:00:00Z");
  store.item(zoned);

  for (const char* local : {kWest, kEast}) {
    SCOPED_TRACE(local);
    TeskCal::Result r = TeskCal::read(window("2028-04-01T00:00:00Z", "2028-05-01T00:00:00Z"), 0,
                                      store.home(), local);
    ASSERT_EQ(r.rows.size(), 2u);
    const TeskRow& dentist = r.rows[0].body == "Dentist" ? r.rows[0] : r.rows[1];
    const TeskRow& flight = r.rows[0].body == "Flight" ? r.rows[0] : r.rows[1];
    EXPECT_EQ(dentist.ts, *TeskTime::localInstant(2028, 4, 16, 0, 0, 0, local));
    EXPECT_EQ(flight.ts, iso("2028-04-16T13:00:00Z"));
    EXPECT_EQ(r.single, 2);
  }
}

TEST(TeskCalRead, ExpandsRulesAndRemovesExceptionsAndDetachedInstances) {
  CalendarHome store;
  store.calendar("Home");
  Item standup;
  standup.summary = "Standup";
  standup.start = iso("2026-03-02T09:00:00Z");
  int64_t a = store.item(standup);
  store.recurrence(a, caltest::every(2));
  // Exceptions are store-epoch seconds, matched after rounding.
  store.exception(a, iso("2026-03-16T09:00:00Z") - 0.4);

  Item review;
  review.summary = "Review";
  review.tz = "Europe/Berlin";
  review.start = iso("2026-03-03T15:00:00Z");
  int64_t b = store.item(review);
  store.recurrence(b, caltest::every(1, 5));

  Item moved;
  moved.summary = "Review (moved)";
  moved.start = iso("2026-03-04T17:00:00Z");
  moved.origItem = b;
  moved.origDate = iso("2026-03-04T15:00:00Z");
  int64_t c = store.item(moved);

  // orig_item_id 0 with an orig_date: not a detached instance, suppresses nothing.
  Item lunch;
  lunch.summary = "Lunch";
  lunch.start = iso("2026-03-05T12:00:00Z");
  lunch.origDate = iso("2026-03-05T15:00:00Z");
  int64_t d = store.item(lunch);

  for (int64_t frequency : {0, 7}) {
    Item broken;
    broken.summary = "Broken";
    broken.start = iso("2026-03-06T10:00:00Z");
    store.recurrence(store.item(broken), caltest::every(frequency));
  }
  Item hidden;
  hidden.summary = "Hidden";
  hidden.start = iso("2026-03-06T11:00:00Z");
  hidden.hidden = 1;
  store.item(hidden);

  TeskCal::Result r = TeskCal::read(window("2026-03-01T00:00:00Z", "2026-03-31T23:59:59Z"),
                                    iso("2026-03-10T12:00:00Z"), store.home(), kWest);
  const std::string sa = "cal:" + std::to_string(a) + "@";
  const std::string sb = "cal:" + std::to_string(b) + "@";
  EXPECT_EQ(ids(r),
            (std::vector<std::string>{sa + "2026-03-02T09:00:00Z", sb + "2026-03-03T15:00:00Z",
                                      "cal:" + std::to_string(c), "cal:" + std::to_string(d),
                                      sb + "2026-03-05T15:00:00Z", sb + "2026-03-06T15:00:00Z",
                                      sb + "2026-03-07T15:00:00Z", sa + "2026-03-09T09:00:00Z",
                                      sa + "2026-03-23T09:00:00Z", sa + "2026-03-30T09:00:00Z"}));
  EXPECT_TRUE(r.denied.empty());
  EXPECT_EQ(r.single, 2);
  EXPECT_EQ(r.recurring, 4);
  EXPECT_EQ(r.unsupported, 2);
  EXPECT_EQ(r.excepted, 2);
  EXPECT_EQ(r.generated, 8);
  EXPECT_EQ(r.perCalendar, (std::map<std::string, int64_t>{{"Home", 10}}));
  EXPECT_EQ(r.window.from, iso("2026-03-01T00:00:00Z"));
  EXPECT_EQ(r.window.to, iso("2026-03-31T23:59:59Z"));
}

TEST(TeskCalRead, WindowEdgesAreInclusive) {
  CalendarHome store;
  store.calendar("Home");
  const double from = iso("2026-03-01T00:00:00Z");
  const double to = iso("2026-03-31T00:00:00Z");
  struct Case {
    const char* name;
    double at;
    bool kept;
  };
  const std::vector<Case> singles = {{"at from", from, true},
                                     {"a second before from", from - 1, false},
                                     {"at to", to, true},
                                     {"a second after to", to + 1, false}};
  for (const Case& c : singles) {
    Item it;
    it.summary = c.name;
    it.start = c.at;
    store.item(it);
  }
  // A daily series whose third occurrence lands exactly on the window's end, and
  // one a second later whose third does not.
  for (double offset : {0.0, 1.0}) {
    Item daily;
    daily.summary = offset == 0 ? "daily at to" : "daily after to";
    daily.start = to - 2 * 86400 + offset;
    store.recurrence(store.item(daily), caltest::every(1));
  }
  TeskIMessage::Filter f;
  f.since = from;
  f.until = to;
  TeskCal::Result r = TeskCal::read(f, from, store.home(), kWest);
  std::vector<std::string> got = bodies(r);
  EXPECT_EQ(got,
            (std::vector<std::string>{"at from", "daily at to", "daily after to", "daily at to",
                                      "daily after to", "at to", "daily at to"}));
}

TEST(TeskCalRead, DefaultWindowLooksThirtyDaysBackAndNinetyAhead) {
  CalendarHome store;
  store.calendar("Home");
  const double now = iso("2026-03-10T12:00:00Z");
  struct Case {
    const char* name;
    double days;
  };
  for (const Case& c : {Case{"31 days ago", -31}, Case{"29 days ago", -29},
                        Case{"60 days ahead", 60}, Case{"100 days ahead", 100}}) {
    Item it;
    it.summary = c.name;
    it.start = now + c.days * 86400;
    store.item(it);
  }
  TeskCal::Result r = TeskCal::read({}, now, store.home(), kWest);
  EXPECT_EQ(bodies(r), (std::vector<std::string>{"29 days ago", "60 days ahead"}));
  EXPECT_EQ(r.window.from, now - 30 * 86400);
  EXPECT_EQ(r.window.to, now + 90 * 86400);
}

TEST(TeskCalRead, SelectorsAndDirection) {
  CalendarHome store;
  int64_t work = store.calendar("Work Projects");
  int64_t family = store.calendar("Family");
  struct Event {
    const char* title;
    int64_t calendar;
    int64_t organizer, self;
  };
  const double t0 = iso("2026-03-02T10:00:00Z");
  int n = 0;
  for (const Event& e :
       {Event{"Quarterly R\xC3\x89SUM\xC3\x89 review", work, 3, 4}, Event{"Planning", work, 0, 0},
        Event{"Dinner", family, 2, 0}, Event{"Party", family, 1, 1}}) {
    Item it;
    it.summary = e.title;
    it.calendar = e.calendar;
    it.organizer = e.organizer;
    it.selfAttendee = e.self;
    it.start = t0 + 3600 * n++;
    store.item(it);
  }
  struct Case {
    const char* name;
    TeskIMessage::Filter filter;
    std::vector<std::string> want;
  };
  auto filter = [](auto&& set) {
    TeskIMessage::Filter f;
    f.since = iso("2026-03-01T00:00:00Z");
    f.until = iso("2026-03-31T00:00:00Z");
    set(f);
    return f;
  };
  const std::string resume = "Quarterly R\xC3\x89SUM\xC3\x89 review";
  const std::vector<Case> cases = {
      {"no selector", filter([](auto&) {}), {resume, "Planning", "Dinner", "Party"}},
      {"who matches the calendar title",
       filter([](auto& f) { f.who = "work"; }),
       {resume, "Planning"}},
      {"who is case-insensitive",
       filter([](auto& f) { f.who = "PROJECTS"; }),
       {resume, "Planning"}},
      {"who never matches the event title", filter([](auto& f) { f.who = "dinner"; }), {}},
      {"empty who keeps all",
       filter([](auto& f) { f.who = ""; }),
       {resume, "Planning", "Dinner", "Party"}},
      {"query folds case and accents", filter([](auto& f) { f.query = "resume"; }), {resume}},
      {"query looks at the title only", filter([](auto& f) { f.query = "family"; }), {}},
      {"grep over the title",
       filter([](auto& f) { f.grep = TeskRegex::compile("^(plan|din)"); }),
       {"Planning", "Dinner"}},
      {"invited rows are incoming",
       filter([](auto& f) { f.direction = TeskRow::Direction::incoming; }),
       {resume, "Party"}},
      {"created rows are outgoing",
       filter([](auto& f) {
         f.direction = TeskRow::Direction::outgoing;
         f.who = "fam";
       }),
       {"Dinner"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TeskCal::Result r = TeskCal::read(c.filter, 0, store.home(), kWest);
    EXPECT_EQ(bodies(r), c.want);
    int64_t emitted = 0;
    for (const auto& [title, count] : r.perCalendar) emitted += count;
    EXPECT_EQ(emitted, static_cast<int64_t>(c.want.size()));
  }
}

TEST(TeskCalRead, RowFields) {
  CalendarHome store;
  int64_t work = store.calendar("Work Projects");
  Item holiday;
  holiday.summary = "Holiday";
  holiday.tz = std::nullopt;
  holiday.allDay = true;
  holiday.calendar = work;
  holiday.hasAttendees = 1;
  holiday.start = iso("2026-03-03T00:00:00Z");  // floating midnight
  int64_t h = store.item(holiday);
  store.recurrence(h, caltest::every(3, 1));
  Item untitled;
  untitled.summary = std::nullopt;
  untitled.calendar = 99;  // no such calendar
  untitled.start = iso("2026-03-04T10:00:00Z");
  int64_t u = store.item(untitled);
  Item empty;
  empty.summary = "";
  empty.calendar = work;
  empty.start = iso("2026-03-05T10:00:00Z");
  store.item(empty);

  TeskCal::Result r =
      TeskCal::read(window("2026-03-01T00:00:00Z", "2026-03-31T00:00:00Z"), 0, store.home(), kEast);
  ASSERT_EQ(r.rows.size(), 3u);
  const TeskRow& day = r.rows[0];
  EXPECT_EQ(day.id, "cal:" + std::to_string(h) + "@2026-03-02T15:00:00Z");  // Tokyo midnight
  EXPECT_EQ(day.ts, iso("2026-03-02T15:00:00Z"));
  EXPECT_EQ(day.src, "cal");
  EXPECT_EQ(day.who, "Work Projects");
  EXPECT_EQ(day.teskID, "work projects");
  EXPECT_EQ(day.dir, TeskRow::Direction::outgoing);
  EXPECT_EQ(day.kind, TeskRow::Kind::text);
  EXPECT_EQ(day.body, "Holiday (all day)");
  EXPECT_TRUE(day.group);
  EXPECT_FALSE(day.filtered);
  EXPECT_FALSE(day.unread);
  EXPECT_EQ(day.chatID, work);
  EXPECT_FALSE(day.start.has_value());
  EXPECT_TRUE(day.attachments.empty());

  const TeskRow& none = r.rows[1];
  EXPECT_EQ(none.id, "cal:" + std::to_string(u));
  EXPECT_EQ(none.body, "(untitled)");
  EXPECT_EQ(none.who, "(no calendar)");
  EXPECT_EQ(none.teskID, "(no calendar)");
  EXPECT_EQ(none.chatID, 99);
  EXPECT_FALSE(none.group);
  EXPECT_EQ(r.rows[2].body, "(untitled)");
  EXPECT_EQ(r.perCalendar,
            (std::map<std::string, int64_t>{{"(no calendar)", 1}, {"Work Projects", 2}}));
}

TEST(TeskCalRead, FailuresAreDenialsNotExceptions) {
  const TeskIMessage::Filter f = window("2026-03-01T00:00:00Z", "2026-03-31T00:00:00Z");
  {
    caltest::TempHome empty;
    TeskCal::Result r = TeskCal::read(f, 0, empty.path(), kWest);
    EXPECT_EQ(r.denied, std::vector<std::string>{"cal: no calendar store on this Mac"});
    EXPECT_TRUE(r.rows.empty());
    EXPECT_EQ(r.window.to, *f.until);  // the window is still the one asked for
    EXPECT_FALSE(TeskCal::verify(empty.path(), 0, kWest).has_value());
  }
  {
    // The legacy location survives as an empty directory where the file was.
    caltest::TempHome home;
    const std::string legacy = home.path() + "/Library/Calendars/Calendar.sqlitedb";
    std::filesystem::create_directories(legacy);
    EXPECT_EQ(TeskCal::storePath(home.path()), legacy);
    TeskCal::Result r = TeskCal::read(f, 0, home.path(), kWest);
    ASSERT_EQ(r.denied.size(), 1u);
    EXPECT_EQ(r.denied[0].rfind("cal: cannot read " + legacy + ": ", 0), 0u) << r.denied[0];
  }
  {
    // A store whose item table lost a column the query names.
    CalendarHome moved(
        "CREATE TABLE CalendarItem (ROWID INTEGER PRIMARY KEY, summary TEXT, start_date REAL);"
        "CREATE TABLE Calendar (ROWID INTEGER PRIMARY KEY, title TEXT);"
        "CREATE TABLE Recurrence (ROWID INTEGER PRIMARY KEY, owner_id INTEGER);");
    TeskCal::Result r = TeskCal::read(f, 0, moved.home(), kWest);
    ASSERT_EQ(r.denied.size(), 1u);
    EXPECT_EQ(r.denied[0].rfind("cal: schema moved \xE2\x80\x94 sql: ", 0), 0u) << r.denied[0];
    EXPECT_TRUE(r.rows.empty());
    EXPECT_EQ(r.recurring + r.single, 0);
  }
  {
    // No exception table at all: the items still read.
    CalendarHome store;
    store.exec("DROP TABLE ExceptionDate");
    store.calendar("Home");
    Item it;
    it.start = iso("2026-03-02T10:00:00Z");
    store.recurrence(store.item(it), caltest::every(2, 2));
    TeskCal::Result r = TeskCal::read(f, 0, store.home(), kWest);
    EXPECT_TRUE(r.denied.empty());
    EXPECT_EQ(r.rows.size(), 2u);
  }
}

TEST(TeskCalRead, StorePathPrefersTheGroupContainer) {
  CalendarHome store;
  std::filesystem::create_directories(store.home() + "/Library/Calendars/Calendar.sqlitedb");
  EXPECT_EQ(TeskCal::storePath(store.home()), store.path());
}

TEST(TeskCalVerify, AgreesWithAConsistentOccurrenceCache) {
  CalendarHome store;
  store.calendar("Home");
  Item weekly;
  weekly.start = iso("2026-03-02T09:00:00Z");
  int64_t a = store.item(weekly);
  store.recurrence(a, caltest::every(2, 4));
  store.exception(a, iso("2026-03-16T09:00:00Z"));
  for (const char* day : {"2026-03-02T09:00:00Z", "2026-03-09T09:00:00Z", "2026-03-23T09:00:00Z"}) {
    store.cacheDay(a, iso(day), iso(day), iso(day) + 3600);
  }
  // A three-day event is three day rows sharing one end date: one occurrence.
  Item trip;
  trip.start = iso("2026-03-05T08:00:00Z");
  int64_t b = store.item(trip);
  const double tripEnd = iso("2026-03-08T08:00:00Z");
  for (int k = 0; k < 3; ++k) store.cacheDay(b, trip.start + k * 86400, trip.start, tripEnd);

  std::optional<TeskCal::Agreement> agreement = TeskCal::verify(store.home(), 0, kWest);
  ASSERT_TRUE(agreement.has_value());
  EXPECT_EQ(agreement->checked, 4);
  EXPECT_EQ(agreement->matched, 4);
  EXPECT_EQ(agreement->oursOnly, 0);
  EXPECT_EQ(agreement->theirsOnly, 0);
  EXPECT_EQ(agreement->rate(), 1.0);
  EXPECT_EQ(agreement->window.from, iso("2026-03-02T09:00:00Z"));
  EXPECT_EQ(agreement->window.to, iso("2026-03-23T09:00:00Z"));

  // An occurrence only Apple knows, and an item only we expand.
  store.cacheDay(999, iso("2026-03-10T09:00:00Z"), iso("2026-03-10T09:00:00Z"),
                 iso("2026-03-10T10:00:00Z"));
  Item extra;
  extra.start = iso("2026-03-12T09:00:00Z");
  store.item(extra);
  agreement = TeskCal::verify(store.home(), 0, kWest);
  ASSERT_TRUE(agreement.has_value());
  EXPECT_EQ(agreement->checked, 5);
  EXPECT_EQ(agreement->matched, 4);
  EXPECT_EQ(agreement->oursOnly, 1);
  EXPECT_EQ(agreement->theirsOnly, 1);
  EXPECT_DOUBLE_EQ(agreement->rate(), 0.8);
}

TEST(TeskCalVerify, NoAgreementWithoutACache) {
  CalendarHome store;
  EXPECT_FALSE(TeskCal::verify(store.home(), 0, kWest).has_value());  // empty cache
  store.exec("DROP TABLE OccurrenceCache");
  EXPECT_FALSE(TeskCal::verify(store.home(), 0, kWest).has_value());
  EXPECT_EQ(TeskCal::Agreement{}.rate(), 1.0);
}

TEST(TeskCalNotes, RenderTheCommandLineNotes) {
  TeskCal::Result r;
  r.window = {iso("2026-02-08T12:00:00Z"), iso("2026-06-08T12:00:00Z")};
  const std::string windowNote =
      "cal window 2026-02-08T12:00:00Z\xE2\x80\xA6"
      "2026-06-08T12:00:00Z \xE2\x80\x94 a rule with no end "
      "has no last occurrence, so a window is required, not optional";
  EXPECT_EQ(TeskCal::notes(r), std::vector<std::string>{windowNote});

  r.recurring = 3;
  r.generated = 41;
  EXPECT_EQ(TeskCal::notes(r),
            (std::vector<std::string>{windowNote, "cal expanded 3 rule(s) into 41 occurrence(s)"}));
  r.excepted = 2;
  r.unsupported = 1;
  EXPECT_EQ(
      TeskCal::notes(r),
      (std::vector<std::string>{
          windowNote, "cal expanded 3 rule(s) into 41 occurrence(s), 2 excepted",
          "CAL RULES NOT EXPANDED: 1 \xE2\x80\x94 those events are MISSING from this answer"}));

  const double now = iso("2026-03-10T12:00:00Z");
  EXPECT_EQ(TeskCal::forwardWindowNote(r, false, now),
            "cal default forward window applied \xE2\x80\x94 the window ends 2026-06-08T12:00:00Z; "
            "pass --until to bound it");
  EXPECT_FALSE(TeskCal::forwardWindowNote(r, true, now).has_value());
  EXPECT_FALSE(TeskCal::forwardWindowNote(r, false, r.window.to).has_value());
}

}  // namespace
