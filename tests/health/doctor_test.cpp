#include "health/TeskDoctor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cmath>
#include <filesystem>

#include "cli/TeskTime.h"
#include "common/TeskTestHome.h"
#include "store/TeskStore.h"

namespace {

namespace fs = std::filesystem;
using TeskDoctor::Category;
using TeskDoctor::Probe;
using TeskDoctor::Row;
using TeskDoctor::Verdict;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

const double kNow = *TeskTime::parseISO("2026-08-13T10:00:00Z");
const double kInf = std::numeric_limits<double>::infinity();

std::string appleNanos(double unixSeconds) {
  return std::to_string(TeskTime::toAppleNanoseconds(unixSeconds));
}
std::string appleSeconds(double unixSeconds) {
  return std::to_string(unixSeconds - TeskTime::appleEpochOffset);
}
std::string webkit(double unixSeconds) {
  return std::to_string(static_cast<int64_t>((unixSeconds + 11644473600.0) * 1e6));
}

void setModified(const std::string& path, double unixSeconds) {
  timeval times[2];
  for (auto& t : times) {
    t.tv_sec = static_cast<time_t>(std::floor(unixSeconds));
    t.tv_usec = static_cast<suseconds_t>((unixSeconds - std::floor(unixSeconds)) * 1e6);
  }
  ASSERT_EQ(::utimes(path.c_str(), times), 0) << path;
}

const Row* find(const std::vector<Row>& rows, std::string_view key) {
  for (const Row& r : rows) {
    if (r.key == key) return &r;
  }
  return nullptr;
}

// The doctor's rows. Each test holds the verdicts a rows verb asks for (every store asked
// for its newest row alone) to the same verdict, newest instant and emptiness as well.
std::vector<Row> doctorRun(double now, const std::string& home) {
  std::vector<Row> rows = TeskDoctor::run(now, home);
  std::vector<std::string> keys;
  for (const Row& r : rows) keys.push_back(r.key);
  const std::vector<Row> quick = TeskDoctor::verdicts(now, home, keys);
  EXPECT_EQ(quick.size() + 1, rows.size()) << "every probe but the capture heartbeat";
  for (const Row& q : quick) {
    const Row* full = find(rows, q.key);
    EXPECT_EQ(q.verdict, full->verdict) << q.key;
    EXPECT_DOUBLE_EQ(q.newest, full->newest) << q.key;
    EXPECT_EQ(q.count != 0, full->count != 0) << q.key;
  }
  return rows;
}

// Paths of a test home, relative to it.
const std::string kChat = "/Library/Messages/chat.db";
const std::string kChrome = "/Library/Application Support/Google/Chrome/Default/History";
const std::string kSafari = "/Library/Safari/History.db";
const std::string kCalendar =
    "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";
const std::string kReminders =
    "/Library/Group Containers/group.com.apple.reminders/Container_v1/Stores/";
const std::string kBooks = "/Library/Application Support/AddressBook";

void makeChat(const std::string& home, const std::vector<double>& dates) {
  std::string sql = "CREATE TABLE message (ROWID INTEGER PRIMARY KEY, date INTEGER);";
  for (double d : dates) sql += "INSERT INTO message (date) VALUES (" + appleNanos(d) + ");";
  tesk_test::makeDB(home + kChat, sql);
}

void makeReminders(const std::string& home, const std::string& file,
                   const std::vector<double>& modified) {
  std::string path = home + kReminders + file;
  tesk_test::makeDB(path, tesk_test::schema("reminders.sql"));
  for (double d : modified) {
    tesk_test::makeDB(
        path, "INSERT INTO ZREMCDREMINDER (ZLASTMODIFIEDDATE) VALUES (" + appleSeconds(d) + ")");
  }
}

void makeCalendar(const std::string& home, const std::vector<double>& ends, double modified) {
  std::string path = home + kCalendar;
  tesk_test::makeDB(path, tesk_test::schema("calendar.sql"));
  for (double d : ends) {
    tesk_test::makeDB(
        path, "INSERT INTO CalendarItem (summary, end_date) VALUES ('e', " + appleSeconds(d) + ")");
  }
  setModified(path, modified);
}

void makeMail(const std::string& home, const std::string& version,
              const std::vector<double>& received) {
  std::string path = home + "/Library/Mail/" + version + "/MailData/Envelope Index";
  tesk_test::makeDB(path, tesk_test::schema("mail-index.sql"));
  for (double d : received) {
    tesk_test::makeDB(path,
                      "INSERT INTO messages (global_message_id, subject, mailbox, date_received) "
                      "VALUES (1, 1, 1, " +
                          std::to_string(static_cast<int64_t>(d)) + ")");
  }
}

TEST(TeskDoctor, ClassifyTable) {
  struct Case {
    Category category;
    double age;
    int64_t count;
    Verdict want;
  };
  const Case cases[] = {
      {Category::a, 0, 1, Verdict::fresh},      {Category::b, 24, 5, Verdict::fresh},
      {Category::a, 24.01, 5, Verdict::stale},  {Category::b, 168, 5, Verdict::stale},
      {Category::a, 168.01, 5, Verdict::stale}, {Category::b, 168.01, 5, Verdict::dead},
      {Category::a, 200, 5, Verdict::stale},    {Category::b, 200, 5, Verdict::dead},
      {Category::a, -0.5, 5, Verdict::stale},   {Category::b, -0.5, 5, Verdict::dead},
      {Category::a, kInf, 5, Verdict::stale},   {Category::b, kInf, 5, Verdict::dead},
      {Category::a, 1, 0, Verdict::absent},     {Category::b, 1, 0, Verdict::dead},
      {Category::a, 1, -3, Verdict::fresh},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TeskDoctor::classify(c.category, c.age, c.count), c.want)
        << TeskDoctor::rawValue(c.category) << " " << c.age << " " << c.count;
  }
}

TEST(TeskDoctor, EpochConversions) {
  using E = Probe::Epoch;
  struct Case {
    E epoch;
    int64_t stored;
    double unix;
  };
  const Case toUnix[] = {
      // Each epoch reaches its conversion (TeskTime's own test holds the magnitudes).
      {E::apple, 800000000000000000, 800000000 + 978307200.0},
      {E::webkit, 13000000000000000, 13000000000 - 11644473600.0},
      {E::unixSeconds, 1700000000, 1700000000},
  };
  for (const Case& c : toUnix) {
    EXPECT_NEAR(Probe::toUnix(c.epoch, c.stored), c.unix, 1e-3) << c.stored;
  }
  EXPECT_EQ(Probe::fromUnix(E::apple, 978307201), 1000000000);
  EXPECT_EQ(Probe::fromUnix(E::webkit, 0), 11644473600000000);
  EXPECT_EQ(Probe::fromUnix(E::unixSeconds, 1700000000.9), 1700000000);
  EXPECT_EQ(Probe::fromUnix(E::apple, 1e30), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Probe::fromUnix(E::webkit, -1e30), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(Probe::fromUnix(E::unixSeconds, std::nan("")), 0);
  for (E e : {E::apple, E::webkit, E::unixSeconds}) {
    EXPECT_NEAR(Probe::toUnix(e, Probe::fromUnix(e, kNow)), kNow, 1e-3);
  }
}

TEST(TeskDoctor, ProbeTableAndItsColumnsExistInTheRealSchemas) {
  tesk_test::TempHome home;
  auto probes = TeskDoctor::probes(home.path());
  std::vector<std::string> keys;
  for (const auto& p : probes) keys.push_back(p.key);
  EXPECT_THAT(keys,
              ElementsAre("im", "chrome", "arc", "safari", "notes", "reminder", "cal", "contacts"));
  makeMail(home.path(), "V10", {});
  probes = TeskDoctor::probes(home.path());
  ASSERT_EQ(probes.size(), 9u);
  EXPECT_EQ(probes.back().key, "mail");
  EXPECT_EQ(probes.back().category, Category::b);
  EXPECT_EQ(probes.back().provider, "Google");

  struct Schema {
    std::string key, file;
  };
  const Schema schemas[] = {{"cal", "calendar.sql"},
                            {"reminder", "reminders.sql"},
                            {"contacts", "addressbook.sql"},
                            {"mail", "mail-index.sql"}};
  for (const Schema& s : schemas) {
    const Probe* probe = nullptr;
    for (const auto& p : probes) {
      if (p.key == s.key) probe = &p;
    }
    ASSERT_NE(probe, nullptr);
    std::string path = home.path() + "/schema-" + s.key + ".sqlite";
    tesk_test::makeDB(path, tesk_test::schema(s.file));
    TeskStore store(path);
    EXPECT_TRUE(store.columnExists(probe->column, probe->table)) << s.key;
  }
}

TEST(TeskDoctor, MailIndexPathPicksTheHighestVersionThatExists) {
  tesk_test::TempHome home;
  EXPECT_EQ(TeskDoctor::mailIndexPath(home.path()), std::nullopt);
  makeMail(home.path(), "V9", {});
  makeMail(home.path(), "V2", {});
  fs::create_directories(home.path() + "/Library/Mail/V10/MailData");  // no index
  fs::create_directories(home.path() + "/Library/Mail/V99x/MailData");
  fs::create_directories(home.path() + "/Library/Mail/V");
  home.write("Library/Mail/V11", "a file, not a folder");
  EXPECT_EQ(TeskDoctor::mailIndexPath(home.path()),
            home.path() + "/Library/Mail/V9/MailData/Envelope Index");
}

TEST(TeskDoctor, AddressBookPathsListEverySource) {
  tesk_test::TempHome home;
  std::string d = home.path() + kBooks;
  EXPECT_THAT(TeskDoctor::addressBookPaths(home.path()),
              ElementsAre(d + "/AddressBook-v22.abcddb"));
  fs::create_directories(d + "/Sources/B");
  fs::create_directories(d + "/Sources/A");
  EXPECT_THAT(TeskDoctor::addressBookPaths(home.path()),
              ElementsAre(d + "/AddressBook-v22.abcddb", d + "/Sources/A/AddressBook-v22.abcddb",
                          d + "/Sources/B/AddressBook-v22.abcddb"));
}

TEST(TeskDoctor, ResolvedKeepsExistingCandidates) {
  tesk_test::TempHome home;
  std::string a = home.write("a", ""), c = home.write("c", "");
  Probe p;
  p.paths = {home.path() + "/missing", a, home.path() + "/b", c};
  EXPECT_THAT(p.resolved(), ElementsAre(a));
  p.aggregate = true;
  EXPECT_THAT(p.resolved(), ElementsAre(a, c));
}

TEST(TeskDoctor, EmptyHome) {
  tesk_test::TempHome home;
  auto rows = doctorRun(kNow, home.path());
  ASSERT_EQ(rows.size(), 9u);
  EXPECT_EQ(rows.back().key, "optel");
  EXPECT_EQ(rows.back().verdict, Verdict::absent);
  for (size_t i = 0; i + 1 < rows.size(); ++i) {
    const Row& r = rows[i];
    SCOPED_TRACE(r.key);
    EXPECT_EQ(r.verdict, r.key == "cal" ? Verdict::dead : Verdict::absent);
    EXPECT_THAT(r.detail, StartsWith("not on this Mac at all — "));
    EXPECT_EQ(r.openMode, "-");
    EXPECT_EQ(r.stores, 0);
    EXPECT_EQ(r.count, 0);
    EXPECT_TRUE(std::isinf(r.ageHours));
    EXPECT_FALSE(r.cause.has_value());
  }
  EXPECT_EQ(find(rows, "mail"), nullptr);
}

TEST(TeskDoctor, FutureRowsAreExcludedWhateverTheStoresUnit) {
  tesk_test::TempHome home;
  makeChat(home.path(), {kNow - 7200, kNow - 3600, kNow + 1800, kNow + 7200, kNow + 90000});
  // Safari keeps seconds in an apple-epoch column, chat.db nanoseconds: the cutoff is
  // compared in unix seconds, so a future visit is excluded there too.
  tesk_test::makeDB(home.path() + kSafari,
                    "CREATE TABLE history_visits (id INTEGER PRIMARY KEY, visit_time REAL);"
                    "INSERT INTO history_visits (visit_time) VALUES (" +
                        appleSeconds(kNow - 36000) + "), (" + appleSeconds(kNow - 7200.5) + "), (" +
                        appleSeconds(kNow + 86400) + ");");
  tesk_test::makeDB(home.path() + kChrome,
                    "CREATE TABLE visits (id INTEGER PRIMARY KEY, visit_time INTEGER);"
                    "INSERT INTO visits (visit_time) VALUES (" +
                        webkit(kNow - 30 * 3600) + "), (" + webkit(kNow + 86400) + ");");
  auto rows = doctorRun(kNow, home.path());

  const Row* im = find(rows, "im");
  ASSERT_NE(im, nullptr);
  EXPECT_EQ(im->count, 3);  // up to an hour ahead still counts
  EXPECT_EQ(im->future, 2);
  EXPECT_DOUBLE_EQ(im->newest, kNow + 1800);
  EXPECT_DOUBLE_EQ(im->ageHours, 0);  // half an hour ahead is a store written now
  EXPECT_EQ(im->verdict, Verdict::fresh);
  EXPECT_EQ(im->openMode, "plain");
  EXPECT_EQ(im->stores, 1);

  const Row* safari = find(rows, "safari");
  ASSERT_NE(safari, nullptr);
  EXPECT_EQ(safari->count, 2);
  EXPECT_EQ(safari->future, 1);
  EXPECT_NEAR(safari->newest, kNow - 7200.5, 1e-3);
  EXPECT_NEAR(safari->ageHours, 2.0, 1e-3);
  EXPECT_EQ(safari->verdict, Verdict::fresh);

  const Row* chrome = find(rows, "chrome");
  ASSERT_NE(chrome, nullptr);
  EXPECT_EQ(chrome->count, 1);
  EXPECT_EQ(chrome->future, 1);
  EXPECT_NEAR(chrome->ageHours, 30.0, 1e-6);
  EXPECT_EQ(chrome->verdict, Verdict::stale);
}

// Only a dated row within 1970-2200 and at most an hour ahead can be the newest; an
// undated row is not in the future, a value that is no instant is neither, and each
// is counted in the detail. A newest row a little ahead is a store written now.
TEST(TeskDoctor, OnlyRealInstantsDateAStore) {
  const std::string note = "iMessage — 98.1% of bodies are typedstream BLOBs";
  struct Case {
    std::string name;
    std::string values;  // SQL values for message.date
    double newest;
    double ageHours;
    int64_t count, future;
    Verdict verdict;
    std::string detail;
  };
  const std::string hourAgo = appleNanos(kNow - 3600);
  const Case cases[] = {
      {"undated rows are not future", "(" + hourAgo + "), (NULL), (NULL)", kNow - 3600, 1.0, 1, 0,
       Verdict::fresh, "2 row(s) undated, excluded — " + note},
      {"only undated rows", "(NULL)", 0, kInf, 0, 0, Verdict::absent,
       "1 row(s) undated, excluded — 0 rows — " + note},
      {"ten minutes ahead is age 0", "(" + hourAgo + "), (" + appleNanos(kNow + 600) + ")",
       kNow + 600, 0, 2, 0, Verdict::fresh, note},
      {"an hour ahead is still now", "(" + appleNanos(kNow + 3600) + ")", kNow + 3600, 0, 1, 0,
       Verdict::fresh, note},
      {"seconds beside nanoseconds: the later instant wins whatever its unit",
       "(" + appleNanos(kNow - 7200) + "), (" +
           std::to_string(static_cast<int64_t>(kNow - 3600 - TeskTime::appleEpochOffset)) +
           "), (0)",
       kNow - 3600, 1.0, 3, 0, Verdict::fresh, note},
      {"before 2001 in seconds and in nanoseconds", "(-86400), (-43200000000000)",
       TeskTime::appleEpochOffset - 43200, (kNow - TeskTime::appleEpochOffset + 43200) / 3600, 2, 0,
       Verdict::stale, note},
      {"INT64_MAX is no instant", "(" + hourAgo + "), (9223372036854775807)", kNow - 3600, 1.0, 1,
       0, Verdict::fresh, "1 row(s) dated outside 1970-2200 (no instant), excluded — " + note},
      {"text and pre-1970 are no instants",
       "(" + hourAgo + "), ('yesterday'), (x'00ff'), (" + appleNanos(-86400) + "), (" +
           appleNanos(kNow + 86400) + ")",
       kNow - 3600, 1.0, 1, 1, Verdict::fresh,
       "3 row(s) dated outside 1970-2200 (no instant), excluded — 1 row(s) dated in the "
       "future, excluded — " +
           note},
  };
  // Without a date index the verdict's probe reads the table once, with one it asks the
  // index once per stretch of the column's units: both as the doctor reads.
  for (const std::string index : {"", "CREATE INDEX message_idx_date ON message(date);"})
    for (const Case& c : cases) {
      SCOPED_TRACE(c.name + (index.empty() ? "" : ", indexed"));
      tesk_test::TempHome home;
      tesk_test::makeDB(home.path() + kChat,
                        "CREATE TABLE message (ROWID INTEGER PRIMARY KEY, date INTEGER);" + index +
                            "INSERT INTO message (date) VALUES " + c.values + ";");
      auto rows = doctorRun(kNow, home.path());
      const Row* im = find(rows, "im");
      ASSERT_NE(im, nullptr);
      EXPECT_NEAR(im->newest, c.newest, 1e-3);
      if (std::isinf(c.ageHours)) {
        EXPECT_TRUE(std::isinf(im->ageHours));
      } else {
        EXPECT_NEAR(im->ageHours, c.ageHours, 1e-6);
      }
      EXPECT_EQ(im->count, c.count);
      EXPECT_EQ(im->future, c.future);
      EXPECT_EQ(im->verdict, c.verdict);
      EXPECT_EQ(im->detail, c.detail);
    }
}

// A mail mirror whose newest message is ten minutes ahead is live, not DEAD.
TEST(TeskDoctor, MirrorWithAClockALittleAheadIsFresh) {
  tesk_test::TempHome home;
  makeMail(home.path(), "V10", {kNow - 86400, kNow + 600});
  auto rows = doctorRun(kNow, home.path());
  const Row* mail = find(rows, "mail");
  ASSERT_NE(mail, nullptr);
  EXPECT_EQ(mail->verdict, Verdict::fresh);
  EXPECT_EQ(mail->ageHours, 0);
  auto lines = TeskDoctor::render(rows);
  EXPECT_THAT(lines,
              ::testing::Contains(StartsWith("mail\tB\tFRESH\t2026-08-13T10:10:00Z\t0.0\t")));
}

TEST(TeskDoctor, AggregateStoresAreSummedAndModesJoined) {
  tesk_test::TempHome home;
  makeReminders(home.path(), "Data-A.sqlite", {kNow - 3600, kNow - 7200});
  makeReminders(home.path(), "Data-B.sqlite", {kNow - 1800});
  home.write(kReminders.substr(1) + "Other.sqlite", "not a store");
  // Keep B in WAL mode with its -wal file present while the doctor reads it.
  std::string b = home.path() + kReminders + "Data-B.sqlite";
  tesk_test::makeDB(b, "PRAGMA journal_mode=WAL;");
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open_v2(b.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
  std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> holder(raw, &sqlite3_close_v2);
  ASSERT_EQ(sqlite3_exec(raw,
                         ("INSERT INTO ZREMCDREMINDER (ZLASTMODIFIEDDATE) VALUES (" +
                          appleSeconds(kNow - 60) + ")")
                             .c_str(),
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  ASSERT_TRUE(fs::exists(b + "-wal"));

  auto rows = doctorRun(kNow, home.path());
  const Row* r = find(rows, "reminder");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->count, 4);
  EXPECT_EQ(r->stores, 2);
  EXPECT_NEAR(r->newest, kNow - 60, 1e-3);
  EXPECT_EQ(r->verdict, Verdict::fresh);
  EXPECT_EQ(r->openMode, "plain+ro");
  EXPECT_EQ(r->detail,
            "summed across 2 stores — Apple Reminders — every unfinished item is readable; this "
            "count includes completed history");
}

TEST(TeskDoctor, OneBrokenStoreOfTwoIsSkipped) {
  tesk_test::TempHome home;
  makeReminders(home.path(), "Data-A.sqlite", {kNow - 3600});
  tesk_test::makeDB(home.path() + kReminders + "Data-B.sqlite", "CREATE TABLE other (x);");
  auto rows = doctorRun(kNow, home.path());
  const Row* r = find(rows, "reminder");
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->stores, 1);
  EXPECT_EQ(r->count, 1);
  EXPECT_EQ(r->verdict, Verdict::fresh);
  EXPECT_THAT(r->detail, StartsWith("Apple Reminders"));
}

TEST(TeskDoctor, UnreadableStoresAreDeniedWithTheFirstFailure) {
  struct Case {
    std::string name;
    std::function<void(const std::string&)> make;
    std::string detailStart;
  };
  const Case cases[] = {
      {"schema moved",
       [](const std::string& home) { tesk_test::makeDB(home + kChat, "CREATE TABLE other (x);"); },
       "schema moved: sql: no such table: message — iMessage"},
      {"column moved",
       [](const std::string& home) {
         tesk_test::makeDB(home + kChat, "CREATE TABLE message (ROWID INTEGER PRIMARY KEY);");
       },
       "schema moved: sql: no such column: date — iMessage"},
      {"not a database",
       [](const std::string& home) { tesk_test::writeFile(home + kChat, std::string(8192, 'z')); },
       "not a database: "},
      {"malformed",
       [](const std::string& home) {
         makeChat(home, std::vector<double>(2000, kNow));
         // Overwrite the table's pages after the first two with noise.
         std::string bytes = tesk_test::readFile(home + kChat);
         ASSERT_GT(bytes.size(), 4u * 4096);
         for (size_t k = 2 * 4096; k < bytes.size(); ++k) bytes[k] = static_cast<char>(k * 7);
         tesk_test::writeFile(home + kChat, bytes);
       },
       "malformed: "},
      {"a folder where the file should be",
       [](const std::string& home) { fs::create_directories(home + kChat); }, "cannot read "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tesk_test::TempHome home;
    c.make(home.path());
    auto rows = doctorRun(kNow, home.path());
    const Row* im = find(rows, "im");
    ASSERT_NE(im, nullptr);
    EXPECT_EQ(im->verdict, Verdict::denied);
    EXPECT_THAT(im->detail, StartsWith(c.detailStart));
    if (c.detailStart.ends_with(": ")) {
      EXPECT_THAT(im->detail, StartsWith(c.detailStart + home.path() + kChat + " — "));
    }
    EXPECT_THAT(im->detail,
                ::testing::EndsWith(" — iMessage — 98.1% of bodies are typedstream BLOBs"));
    EXPECT_EQ(im->openMode, "-");
    EXPECT_EQ(im->stores, 0);
    EXPECT_EQ(im->count, 0);
    EXPECT_TRUE(std::isinf(im->ageHours));
  }
}

TEST(TeskDoctor, ForwardLookingStoreIsJudgedByItsModificationTime) {
  struct Case {
    std::string name;
    double modifiedOffset;
    Verdict verdict;
    double ageHours;
  };
  const Case cases[] = {
      {"written an hour ago", -3600, Verdict::fresh, 1.0},
      {"a minute ahead counts as now", 60, Verdict::fresh, 0.0},
      {"half a minute ahead", 30, Verdict::fresh, 0.0},
      {"two minutes ahead is not now", 120, Verdict::dead, -120.0 / 3600},
      {"three days old", -72 * 3600, Verdict::stale, 72.0},
      {"200 hours old mirror", -200 * 3600, Verdict::dead, 200.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tesk_test::TempHome home;
    // Every event lies in the future; that is what a calendar holds.
    makeCalendar(home.path(), {kNow + 86400, kNow + 30 * 86400}, kNow + c.modifiedOffset);
    auto rows = doctorRun(kNow, home.path());
    const Row* cal = find(rows, "cal");
    ASSERT_NE(cal, nullptr);
    EXPECT_EQ(cal->verdict, c.verdict);
    EXPECT_NEAR(cal->ageHours, c.ageHours, 1e-6);
    EXPECT_NEAR(cal->newest, kNow + c.modifiedOffset, 1e-3);
    EXPECT_EQ(cal->count, 2);
    EXPECT_EQ(cal->future, 0);
  }
}

void makeGoogleAccount(const std::string& home, int active, int authenticated) {
  std::string path = home + "/Library/Accounts/Accounts4.sqlite";
  tesk_test::makeDB(path, tesk_test::schema("accounts.ios-Accounts3.sql"));
  tesk_test::makeDB(
      path,
      "INSERT INTO ZACCOUNTTYPE (Z_PK, ZACCOUNTTYPEDESCRIPTION) VALUES (1, 'Google');"
      "INSERT INTO ZACCOUNT (Z_PK, ZACTIVE, ZAUTHENTICATED, ZACCOUNTTYPE) VALUES (1, " +
          std::to_string(active) + ", " + std::to_string(authenticated) + ", 1);");
}

TEST(TeskDoctor, FailingGrantTurnsFreshMirrorsPartial) {
  tesk_test::TempHome home;
  makeGoogleAccount(home.path(), 1, 0);
  makeCalendar(home.path(), {kNow + 86400}, kNow - 600);
  makeMail(home.path(), "V10", {kNow - 400 * 3600});
  makeChat(home.path(), {kNow - 60});
  auto rows = doctorRun(kNow, home.path());
  const Row* cal = find(rows, "cal");
  const Row* mail = find(rows, "mail");
  ASSERT_NE(cal, nullptr);
  ASSERT_NE(mail, nullptr);
  const std::string cause = "Google: the grant is not authenticated";
  EXPECT_EQ(cal->verdict, Verdict::partial);
  EXPECT_EQ(cal->cause, cause);
  EXPECT_EQ(cal->detail, cause +
                             " — Calendar — the store holds rules, not instances; recurrence must "
                             "be expanded");
  EXPECT_EQ(mail->verdict, Verdict::dead);  // too old to be partial: dead stays dead
  EXPECT_EQ(mail->cause, cause);
  EXPECT_FALSE(find(rows, "im")->cause.has_value());
  EXPECT_EQ(find(rows, "im")->verdict, Verdict::fresh);

  auto lines = TeskDoctor::render(rows);
  auto at = std::find(lines.begin(), lines.end(),
                      "# CAUSE — read from Accounts4 and the provider's own error table, not "
                      "inferred:");
  ASSERT_NE(at, lines.end());
  ASSERT_NE(at + 1, lines.end());
  EXPECT_EQ(*(at + 1), "#   " + cause);
  EXPECT_TRUE(at + 2 == lines.end() || (at + 2)->empty());  // named once for two rows
  EXPECT_THAT(lines,
              ::testing::Contains("#   cal: readable, missing whatever the failing provider owns"));
}

// Only an active account whose grant fails names a cause, and an absent mirror keeps it.
TEST(TeskDoctor, CauseOnlyFromAnActiveFailingGrant) {
  struct Case {
    int active, authenticated;  // -1: no account at all
    bool calendar, cause;
  };
  for (Case c : {Case{1, 1, true, false}, Case{-1, -1, true, false}, Case{0, 0, true, false},
                 Case{1, 0, false, true}}) {
    SCOPED_TRACE(std::to_string(c.active) + std::to_string(c.authenticated));
    tesk_test::TempHome home;
    if (c.active >= 0) makeGoogleAccount(home.path(), c.active, c.authenticated);
    if (c.calendar) makeCalendar(home.path(), {kNow + 86400}, kNow - 600);
    const auto rows = doctorRun(kNow, home.path());
    const Row* cal = find(rows, "cal");
    EXPECT_EQ(cal->verdict, c.calendar ? Verdict::fresh : Verdict::dead);
    EXPECT_EQ(cal->cause.has_value(), c.cause);
  }
}

TEST(TeskDoctor, RenderEveryBlock) {
  auto row = [](std::string key, Category cat, Verdict v, double newest, double age, int64_t count,
                int64_t future, std::string open, std::string detail,
                std::optional<std::string> cause = std::nullopt) {
    Row r;
    r.key = std::move(key);
    r.category = cat;
    r.verdict = v;
    r.newest = newest;
    r.ageHours = age;
    r.count = count;
    r.future = future;
    r.openMode = std::move(open);
    r.detail = std::move(detail);
    r.cause = std::move(cause);
    return r;
  };
  const double t = *TeskTime::parseISO("2026-08-01T12:30:45Z");
  std::vector<Row> rows = {
      row("im", Category::a, Verdict::fresh, t, 1.04, 10, 2, "ro", "d1"),
      row("cal", Category::b, Verdict::partial, t, 0.0, 3, 0, "plain+snapshot", "c — d2", "c"),
      row("mail", Category::b, Verdict::dead, t, 300.25, 4, 0, "plain", "d3", "c"),
      row("x", Category::b, Verdict::dead, 0, kInf, 5, 0, "plain", "d4", "e"),
      row("y", Category::b, Verdict::dead, 0, kInf, 0, 0, "-", "d5"),
      row("z", Category::a, Verdict::denied, 0, kInf, 0, 0, "-", "d6"),
  };
  // The blocks' prose is the source's own text; what is pinned is each line's cells,
  // which blocks appear, in which order, and what each lists.
  auto shape = [](const std::vector<std::string>& lines) {
    std::vector<std::string> out;
    for (const std::string& l : lines) {
      if (!l.starts_with("# ") || l.starts_with("#   ")) {
        out.push_back(l);
      } else if (size_t dash = l.find(" — "); dash != std::string::npos && l[2] <= 'Z') {
        out.push_back(l.substr(0, dash));
      }
    }
    return out;
  };
  const std::string header = "src\tcat\tverdict\tnewest\tage_h\trows\tfuture\topen\tdetail";
  EXPECT_THAT(
      shape(TeskDoctor::render(rows)),
      ElementsAre(header, "im\tA\tFRESH\t2026-08-01T12:30:45Z\t1.0\t10\t2\tro\td1",
                  "cal\tB\tPARTIAL\t2026-08-01T12:30:45Z\t0.0\t3\t0\tplain+snapshot\tc — d2",
                  "mail\tB\tDEAD\t2026-08-01T12:30:45Z\t300.2\t4\t0\tplain\td3",
                  "x\tB\tDEAD\t-\t-\t5\t0\tplain\td4", "y\tB\tDEAD\t-\t-\t0\t0\t-\td5",
                  "z\tA\tDENIED\t-\t-\t0\t0\t-\td6", "", "# DEAD",
                  "#   mail: this Mac's copy stops at 2026-08-01T12:30:45Z",
                  "#   x: this Mac's copy stops at unknown",
                  "#   y: this Mac's copy stops at never — it is not on this Mac", "", "# PARTIAL",
                  "#   cal: readable, missing whatever the failing provider owns", "", "# CAUSE",
                  "#   c", "#   e", "", "# DENIED"));
  EXPECT_THAT(TeskDoctor::render({rows[0]}),
              ElementsAre(header, "im\tA\tFRESH\t2026-08-01T12:30:45Z\t1.0\t10\t2\tro\td1"));
  // A cause read from a store (an NSError domain) can hold any byte: it stays in its
  // cell and its line, and makes no doctor row of its own.
  const std::string forged = "Evil 1\nim\tA\tFRESH\r\\";
  EXPECT_THAT(
      shape(TeskDoctor::render({row("cal", Category::b, Verdict::partial, t, 0.0, 3, 0, "ro",
                                    forged + " — d", forged)})),
      ElementsAre(header,
                  "cal\tB\tPARTIAL\t2026-08-01T12:30:45Z\t0.0\t3\t0\tro\t"
                  "Evil 1\\nim\\tA\\tFRESH\\r\\\\ — d",
                  "", "# PARTIAL", "#   cal: readable, missing whatever the failing provider owns",
                  "", "# CAUSE", "#   Evil 1\\nim\\tA\\tFRESH\\r\\\\"));
}

}  // namespace
