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
using caltest::event;
using caltest::every;
using caltest::iso;
using caltest::Item;
using caltest::stored;

constexpr const char* kWest = "America/Los_Angeles";
constexpr const char* kEast = "Asia/Tokyo";
const char* const kMarch[] = {"2026-03-01T00:00:00Z", "2026-03-31T00:00:00Z"};

TeskIMessage::Filter window(const char* since = kMarch[0], const char* until = kMarch[1]) {
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
  const double floating = stored(iso("2028-04-16T00:00:00Z"));  // 2028-04-16 00:00 "as UTC"
  const std::pair<const char*, const char*> cases[] = {{kWest, "2028-04-16T07:00:00Z"},
                                                       {kEast, "2028-04-15T15:00:00Z"},
                                                       {"Europe/Berlin", "2028-04-15T22:00:00Z"}};
  for (const auto& [local, want] : cases) {
    SCOPED_TRACE(local);
    EXPECT_EQ(TeskTime::isoString(TeskCal::instant(floating, "_float", local)), want);
    // Any other zone text, even an unknown or empty one, means the value is the instant.
    for (const char* zone : {"Asia/Tokyo", "America/New_York", "", "Mars/Olympus"}) {
      EXPECT_EQ(TeskCal::instant(floating, zone, local), iso("2028-04-16T00:00:00Z")) << zone;
    }
  }
  EXPECT_EQ(TeskCal::instant(1e300, "_float", kEast), 1e300 + TeskTime::appleEpochOffset);
}

TEST(TeskCalRead, FloatingItemsKeepTheirLocalDateEastAndWest) {
  CalendarHome store;
  store.calendar("Home");
  store.item({.summary = "Dentist", .start = iso("2028-04-16T00:00:00Z"), .tz = std::nullopt});
  store.item({.summary = "Flight", .start = iso("2028-04-16T13:00:00Z"), .tz = "America/New_York"});
  for (const char* local : {kWest, kEast}) {
    SCOPED_TRACE(local);
    TeskCal::Result r = TeskCal::read(window("2028-04-01T00:00:00Z", "2028-05-01T00:00:00Z"), 0,
                                      store.home(), local);
    ASSERT_EQ(r.rows.size(), 2u);
    for (const TeskRow& row : r.rows) {
      EXPECT_EQ(row.ts, row.body == "Dentist" ? *TeskTime::localInstant(2028, 4, 16, 0, 0, 0, local)
                                              : iso("2028-04-16T13:00:00Z"));
    }
  }
}

TEST(TeskCalRead, ExpandsRulesAndRemovesExceptionsAndDetachedInstances) {
  CalendarHome store;
  store.calendar("Home");
  const int64_t a = store.item(event("Standup", "2026-03-02T09:00:00Z"));
  store.recurrence(a, every(2));
  // Store-epoch seconds, matched after rounding (a truncating match would miss it).
  store.exception(a, iso("2026-03-16T09:00:00Z") - 0.4);
  const int64_t b = store.item(
      {.summary = "Review", .start = iso("2026-03-03T15:00:00Z"), .tz = "Europe/Berlin"});
  store.recurrence(b, every(1, 5));
  const int64_t c = store.item({.summary = "Review (moved)",
                                .start = iso("2026-03-04T17:00:00Z"),
                                .origItem = b,
                                .origDate = iso("2026-03-04T15:00:00Z")});
  // orig_item_id 0 with an orig_date is no detached instance: it suppresses nothing.
  const int64_t d = store.item({.summary = "Lunch",
                                .start = iso("2026-03-05T12:00:00Z"),
                                .origDate = iso("2026-03-05T15:00:00Z")});
  for (int64_t frequency : {0, 7})
    store.recurrence(store.item(event("Broken", "2026-03-06T10:00:00Z")), every(frequency));
  store.item({.summary = "Hidden", .start = iso("2026-03-06T11:00:00Z"), .hidden = 1});

  TeskCal::Result r = TeskCal::read(window(), 0, store.home(), kWest);
  const std::string sa = "cal:" + std::to_string(a) + "@", sb = "cal:" + std::to_string(b) + "@";
  EXPECT_EQ(ids(r),
            (std::vector<std::string>{sa + "2026-03-02T09:00:00Z", sb + "2026-03-03T15:00:00Z",
                                      "cal:" + std::to_string(c), "cal:" + std::to_string(d),
                                      sb + "2026-03-05T15:00:00Z", sb + "2026-03-06T15:00:00Z",
                                      sb + "2026-03-07T15:00:00Z", sa + "2026-03-09T09:00:00Z",
                                      sa + "2026-03-23T09:00:00Z", sa + "2026-03-30T09:00:00Z"}));
  EXPECT_TRUE(r.denied.empty());
  EXPECT_EQ(std::vector<int64_t>({r.single, r.recurring, r.unsupported, r.excepted, r.generated}),
            std::vector<int64_t>({2, 4, 2, 2, 8}));
  EXPECT_EQ(r.perCalendar, (std::map<std::string, int64_t>{{"Home", 10}}));
}

TEST(TeskCalRead, RulesWithUnimplementedKeysAreCountedNotHalfExpanded) {
  CalendarHome store;
  store.calendar("Home");
  for (const char* specifier : {"D=0MO,0TU,0WE,0TH,0FR;S=-1", "M=1,15"}) {
    caltest::Recurrence monthly = every(3);
    monthly.specifier = specifier;
    store.recurrence(store.item(event(specifier, "2026-01-30T17:00:00Z")), monthly);
  }
  TeskCal::Result r = TeskCal::read(window(), 0, store.home(), kWest);
  EXPECT_TRUE(r.rows.empty());
  EXPECT_EQ(std::vector<int64_t>({r.recurring, r.unsupported, r.generated}),
            std::vector<int64_t>({2, 2, 0}));
  EXPECT_EQ(TeskCal::notes(r).back(),
            "CAL RULES NOT EXPANDED: 2 \xE2\x80\x94 those events are MISSING from this answer");
}

TEST(TeskCalRead, WindowEdgesAreInclusiveAndTheDefaultLooksAhead) {
  CalendarHome store;
  store.calendar("Home");
  const double from = iso(kMarch[0]), to = iso(kMarch[1]);
  const std::pair<const char*, double> singles[] = {
      {"at from", from}, {"before from", from - 1}, {"at to", to}, {"after to", to + 1}};
  for (const auto& [name, t] : singles) {
    store.item({.summary = name, .start = t});
  }
  // Daily series whose third occurrence lands on the window's end, or a second after.
  for (double offset : {0.0, 1.0}) {
    const char* name = offset == 0 ? "daily" : "daily+1";
    store.recurrence(store.item({.summary = name, .start = to - 2 * 86400 + offset}), every(1));
  }
  EXPECT_EQ(bodies(TeskCal::read(window(), 0, store.home(), kWest)),
            (std::vector<std::string>{"at from", "daily", "daily+1", "daily", "daily+1", "at to",
                                      "daily"}));

  // Without --since/--until: 30 days back, 90 ahead.
  CalendarHome plain;
  plain.calendar("Home");
  const double now = iso("2026-03-10T12:00:00Z");
  for (double days : {-31, -29, 60, 100}) {
    plain.item({.summary = std::to_string(static_cast<int>(days)), .start = now + days * 86400});
  }
  TeskCal::Result r = TeskCal::read({}, now, plain.home(), kWest);
  EXPECT_EQ(bodies(r), (std::vector<std::string>{"-29", "60"}));
  EXPECT_EQ(r.window.from, now - 30 * 86400);
  EXPECT_EQ(r.window.to, now + 90 * 86400);
}

TEST(TeskCalRead, SelectorsAndDirection) {
  CalendarHome store;
  const int64_t work = store.calendar("Work Projects"), family = store.calendar("Family");
  const std::string resume = "Quarterly R\xC3\x89SUM\xC3\x89 review";
  struct Event {
    std::string title;
    int64_t calendar, organizer, self;
    int hasAttendees = 0;
  };
  // Invited: somebody organised it (organizer >= 1) and the owner attends (self > 0).
  for (const Event& e : {Event{resume, work, 3, 4}, Event{"Planning", work, 0, 0},
                         Event{"Dinner", family, 2, 0}, Event{"Party", family, 1, 1, 1}}) {
    store.item({.summary = e.title,
                .start = iso("2026-03-02T10:00:00Z"),
                .calendar = e.calendar,
                .organizer = e.organizer,
                .selfAttendee = e.self,
                .hasAttendees = e.hasAttendees});
  }
  using F = TeskIMessage::Filter;
  auto with = [](auto set) {
    F f = window();
    set(f);
    return f;
  };
  const std::vector<std::pair<F, std::vector<std::string>>> cases = {
      {window(), {resume, "Planning", "Dinner", "Party"}},
      {with([](F& f) { f.who = "work"; }), {resume, "Planning"}},
      {with([](F& f) { f.who = "PROJECTS"; }), {resume, "Planning"}},
      {with([](F& f) { f.who = "dinner"; }), {}},  // who looks at the calendar, not the event
      {with([](F& f) { f.who = ""; }), {resume, "Planning", "Dinner", "Party"}},
      {with([](F& f) { f.query = "resume"; }), {resume}},
      {with([](F& f) { f.query = "family"; }), {}},
      {with([](F& f) { f.grep = TeskRegex::compile("^(plan|din)"); }), {"Planning", "Dinner"}},
      {with([](F& f) { f.direction = TeskRow::Direction::incoming; }), {resume, "Party"}},
      {with([](F& f) { f.includeGroups = false; }), {resume, "Planning", "Dinner"}},
      {with([](F& f) {
         f.direction = TeskRow::Direction::outgoing;
         f.who = "fam";
       }),
       {"Dinner"}},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    TeskCal::Result r = TeskCal::read(cases[i].first, 0, store.home(), kWest);
    EXPECT_EQ(bodies(r), cases[i].second);
    int64_t counted = 0;
    for (const auto& [title, n] : r.perCalendar) counted += n;
    EXPECT_EQ(counted, static_cast<int64_t>(cases[i].second.size()));
  }
}

TEST(TeskCalRead, RowFields) {
  CalendarHome store;
  const int64_t work = store.calendar("Work Projects");
  const int64_t h = store.item({.summary = "Holiday",  // floating midnight
                                .start = iso("2026-03-03T00:00:00Z"),
                                .tz = std::nullopt,
                                .allDay = true,
                                .calendar = work,
                                .hasAttendees = 1});
  store.recurrence(h, every(3, 1));
  const int64_t u =  // no such calendar
      store.item({.summary = std::nullopt, .start = iso("2026-03-04T10:00:00Z"), .calendar = 99});
  store.item({.summary = "", .start = iso("2026-03-05T10:00:00Z"), .calendar = work});

  TeskCal::Result r = TeskCal::read(window(), 0, store.home(), kEast);
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
  EXPECT_EQ(day.chatID, work);
  EXPECT_FALSE(day.filtered || day.unread || day.start.has_value() || !day.attachments.empty());
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
  const TeskIMessage::Filter f = window();
  {
    tesk_test::TempHome empty;
    TeskCal::Result r = TeskCal::read(f, 0, empty.path(), kWest);
    EXPECT_EQ(r.denied, std::vector<std::string>{"cal: no calendar store on this Mac"});
    EXPECT_TRUE(r.rows.empty());
    EXPECT_EQ(r.window.to, *f.until);  // the window is still the one asked for
    EXPECT_FALSE(TeskCal::verify(empty.path(), 0, kWest).has_value());
  }
  {
    // The legacy location survives as an empty directory where the file was.
    tesk_test::TempHome home;
    const std::string legacy = home.path() + "/Library/Calendars/Calendar.sqlitedb";
    std::filesystem::create_directories(legacy);
    EXPECT_EQ(TeskCal::storePath(home.path()), legacy);
    TeskCal::Result r = TeskCal::read(f, 0, home.path(), kWest);
    ASSERT_EQ(r.denied.size(), 1u);
    EXPECT_EQ(r.denied[0].rfind("cal: cannot read " + legacy + ": ", 0), 0u) << r.denied[0];
  }
  {
    CalendarHome moved(
        "CREATE TABLE CalendarItem (ROWID INTEGER PRIMARY KEY, summary TEXT, start_date REAL);"
        "CREATE TABLE Calendar (ROWID INTEGER PRIMARY KEY, title TEXT);"
        "CREATE TABLE Recurrence (ROWID INTEGER PRIMARY KEY, owner_id INTEGER);");
    TeskCal::Result r = TeskCal::read(f, 0, moved.home(), kWest);
    ASSERT_EQ(r.denied.size(), 1u);
    EXPECT_EQ(r.denied[0].rfind("cal: schema moved \xE2\x80\x94 sql: ", 0), 0u) << r.denied[0];
    EXPECT_TRUE(r.rows.empty());
  }
  {
    // No exception table: the items still read. Both stores present: the group container wins.
    CalendarHome store;
    store.exec("DROP TABLE ExceptionDate");
    store.calendar("Home");
    store.recurrence(store.item(event("Weekly", "2026-03-02T10:00:00Z")), every(2, 2));
    std::filesystem::create_directories(store.home() + "/Library/Calendars/Calendar.sqlitedb");
    EXPECT_EQ(TeskCal::storePath(store.home()), store.path());
    TeskCal::Result r = TeskCal::read(f, 0, store.home(), kWest);
    EXPECT_TRUE(r.denied.empty());
    EXPECT_EQ(r.rows.size(), 2u);
  }
}

TEST(TeskCalVerify, ComparesWithOccurrenceCacheGroups) {
  CalendarHome store;
  store.calendar("Home");
  EXPECT_FALSE(TeskCal::verify(store.home(), 0, kWest).has_value());  // an empty cache
  const int64_t a = store.item(event("Weekly", "2026-03-02T09:00:00Z"));
  store.recurrence(a, every(2, 4));
  store.exception(a, iso("2026-03-16T09:00:00Z"));
  for (const char* day : {"2026-03-02T09:00:00Z", "2026-03-09T09:00:00Z", "2026-03-23T09:00:00Z"}) {
    store.cacheDay(a, iso(day), iso(day), iso(day) + 3600);
  }
  // A three-day event is three day rows sharing one end date: one occurrence.
  const Item trip = event("Trip", "2026-03-05T08:00:00Z");
  const int64_t b = store.item(trip);
  for (int k = 0; k < 3; ++k)
    store.cacheDay(b, trip.start + k * 86400, trip.start, trip.start + 3 * 86400);

  std::optional<TeskCal::Agreement> agreement = TeskCal::verify(store.home(), 0, kWest);
  ASSERT_TRUE(agreement.has_value());
  EXPECT_EQ(std::vector<int64_t>({agreement->checked, agreement->matched, agreement->oursOnly,
                                  agreement->theirsOnly}),
            std::vector<int64_t>({4, 4, 0, 0}));
  EXPECT_EQ(agreement->rate(), 1.0);
  EXPECT_EQ(agreement->window.from, iso("2026-03-02T09:00:00Z"));
  EXPECT_EQ(agreement->window.to, iso("2026-03-23T09:00:00Z"));

  // An occurrence only Apple knows, and an item only we expand.
  store.cacheDay(999, iso("2026-03-10T09:00:00Z"), iso("2026-03-10T09:00:00Z"),
                 iso("2026-03-10T10:00:00Z"));
  store.item(event("Extra", "2026-03-12T09:00:00Z"));
  agreement = TeskCal::verify(store.home(), 0, kWest);
  ASSERT_TRUE(agreement.has_value());
  EXPECT_EQ(std::vector<int64_t>({agreement->checked, agreement->matched, agreement->oursOnly,
                                  agreement->theirsOnly}),
            std::vector<int64_t>({5, 4, 1, 1}));
  EXPECT_DOUBLE_EQ(agreement->rate(), 0.8);

  store.exec("DROP TABLE OccurrenceCache");
  EXPECT_FALSE(TeskCal::verify(store.home(), 0, kWest).has_value());
  EXPECT_EQ(TeskCal::Agreement{}.rate(), 1.0);
}

TEST(TeskCalNotes, RenderTheCommandLineNotes) {
  TeskCal::Result r;
  r.window = {iso("2026-02-08T12:00:00Z"), iso("2026-06-08T12:00:00Z")};
  const std::string windowNote =
      "cal window 2026-02-08T12:00:00Z\xE2\x80\xA6"
      "2026-06-08T12:00:00Z \xE2\x80\x94 a rule with no end has no last occurrence, so a window is "
      "required, not optional";
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
