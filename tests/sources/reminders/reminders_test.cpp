#include "sources/reminders/TeskReminders.h"

#include <gtest/gtest.h>
#include <utime.h>

#include <filesystem>
#include <functional>

#include "common/TeskTestHome.h"

namespace {

using tesk_test::TempHome;

const std::string kStores =
    "/Library/Group Containers/group.com.apple.reminders/Container_v1/Stores";
constexpr double kApple = 978307200.0;
constexpr double kNow = 1767268800.0;  // 2026-01-01T12:00:00Z
constexpr double kDay = 86400.0;
const char* kEmDash = " \xE2\x80\x94 ";

// Seconds since 2001 for a unix instant, as the store keeps dates.
std::string core(double unix) { return std::to_string(unix - kApple); }

// `sql` with each @N (a whole number of days from now) written as a stored date.
std::string dated(std::string sql) {
  for (size_t at; (at = sql.find('@')) != std::string::npos;) {
    size_t end = sql.find_first_not_of("-0123456789", at + 1);
    sql.replace(at, end - at, core(kNow + std::stoi(sql.substr(at + 1, end - at - 1)) * kDay));
  }
  return sql;
}

std::string storePath(const TempHome& home, const std::string& name) {
  return home.file(kStores + "/" + name);
}

// A store with the real macOS schema and `rows` (SQL) applied.
std::string makeStore(const TempHome& home, const std::string& name, const std::string& rows) {
  std::string path = storePath(home, name);
  tesk_test::makeDB(path, tesk_test::schema("reminders.sql") + rows);
  return path;
}

std::vector<std::string> ids(const TeskReminders::Result& r) {
  std::vector<std::string> out;
  for (const TeskRow& row : r.rows) out.push_back(row.id);
  return out;
}

TEST(RemindersStorePaths, DataStoresSortedByName) {
  TempHome home;
  EXPECT_TRUE(TeskReminders::storePaths(home.path()).empty());  // no directory
  for (const char* name : {"Data-B.sqlite", "Data-A.sqlite", "Data-A.sqlite-wal", "Other.sqlite",
                           "Data-C.sqlite.bak", "data-d.sqlite"}) {
    tesk_test::writeFile(storePath(home, name), "");
  }
  const std::string dir = home.path() + kStores;
  EXPECT_EQ(TeskReminders::storePaths(home.path()),
            (std::vector<std::string>{dir + "/Data-A.sqlite", dir + "/Data-B.sqlite"}));
}

TEST(RemindersRead, NoStoreIsOneDenial) {
  TempHome home;
  TeskReminders::Result r = TeskReminders::read({}, home.path());
  EXPECT_EQ(r.denied, std::vector<std::string>{"reminder: no Apple Reminders store on this Mac"});
  EXPECT_TRUE(r.rows.empty());
  EXPECT_TRUE(r.perStore.empty());
  EXPECT_FALSE(r.horizon.has_value());
}

// Two stores (two accounts) that share one synced reminder, plus the states a
// store holds: finished, deleted, blank, notes only, no list.
class RemindersTwoStores : public ::testing::Test {
 protected:
  void SetUp() override {
    makeStore(
        home_, "Data-A.sqlite",
        dated("INSERT INTO ZREMCDBASELIST(Z_PK, ZNAME) VALUES (1, 'Groceries'), (2, 'Work');"
              "INSERT INTO ZREMCDREMINDER(Z_PK, ZTITLE, ZNOTES, ZDUEDATE, ZLASTMODIFIEDDATE,"
              " ZCREATIONDATE, ZLIST, ZCKIDENTIFIER, ZEXTERNALIDENTIFIER, ZCOMPLETED,"
              " ZMARKEDFORDELETION) VALUES"
              " (1, '  Buy milk ', ' 2 litres\n', @7, @0, @-30, 1, 'CK-SHARED', 'EXT-1', 0, 0),"
              " (2, 'Quarterly report', NULL, NULL, @-2, NULL, 2, 'CK-2', NULL, NULL, NULL),"
              " (3, 'Done already', NULL, NULL, @0, NULL, 1, 'CK-3', NULL, 1, 0),"
              " (4, 'Deleted', NULL, NULL, @0, NULL, 1, 'CK-4', NULL, 0, 1),"
              " (5, '   ', '\n', NULL, @0, NULL, 1, 'CK-5', NULL, 0, 0),"
              " (6, NULL, 'only notes', NULL, NULL, @-1, NULL, NULL, 'EXT-6', 0, 0),"
              " (7, 'No ids', NULL, NULL, @-3, NULL, 99, NULL, NULL, 0, 0);"));
    makeStore(home_, "Data-B.sqlite",
              dated("INSERT INTO ZREMCDBASELIST(Z_PK, ZNAME) VALUES (1, 'Shared list');"
                    "INSERT INTO ZREMCDREMINDER(Z_PK, ZTITLE, ZLASTMODIFIEDDATE, ZLIST,"
                    " ZCKIDENTIFIER) VALUES (1, 'Buy milk', @0, 1, 'CK-SHARED'),"
                    " (7, 'No ids either', @-4, 1, NULL);"));
  }
  TeskReminders::Result read(const TeskIMessage::Filter& f = {}) {
    return TeskReminders::read(f, home_.path());
  }
  TempHome home_;
};

TEST_F(RemindersTwoStores, RowsDedupedAndMapped) {
  TeskReminders::Result r = read();
  EXPECT_TRUE(r.denied.empty());
  // Ascending by stamp; the shared reminder comes once, from the first store.
  EXPECT_EQ(ids(r),
            (std::vector<std::string>{"reminder:Data-B.sqlite:7", "reminder:Data-A.sqlite:7",
                                      "reminder:CK-2", "reminder:EXT-6", "reminder:CK-SHARED"}));
  EXPECT_EQ(r.perStore,
            (std::map<std::string, int64_t>{{"Data-A.sqlite", 4}, {"Data-B.sqlite", 1}}));

  const TeskRow& milk = r.rows.back();
  EXPECT_EQ(milk.body, std::string("Buy milk") + kEmDash + "2 litres");
  EXPECT_EQ(milk.who, "Groceries");
  EXPECT_DOUBLE_EQ(milk.ts, kNow);
  ASSERT_TRUE(milk.start.has_value());
  EXPECT_DOUBLE_EQ(*milk.start, kNow + 7 * kDay);
  EXPECT_EQ(milk.src, "reminder");
  EXPECT_EQ(milk.kind, TeskRow::Kind::reminder);
  EXPECT_EQ(milk.dir, TeskRow::Direction::outgoing);
  EXPECT_TRUE(milk.teskID.empty());

  const TeskRow& notesOnly = r.rows[3];
  EXPECT_EQ(notesOnly.body, "only notes");
  EXPECT_EQ(notesOnly.who, "Reminders");        // in no list
  EXPECT_DOUBLE_EQ(notesOnly.ts, kNow - kDay);  // created, as nothing was modified
  EXPECT_FALSE(notesOnly.start.has_value());
  EXPECT_EQ(r.rows[1].who, "Reminders");  // its list (99) does not exist

  // Placement: due when present (milk, next week), else the stamp.
  ASSERT_TRUE(r.horizon.has_value());
  EXPECT_DOUBLE_EQ(r.horizon->from, kNow - 4 * kDay);
  EXPECT_DOUBLE_EQ(r.horizon->to, kNow + 7 * kDay);
}

TEST_F(RemindersTwoStores, WindowsAgainstDueElseStamp) {
  struct Case {
    const char* name;
    std::optional<double> since, until;
    std::vector<std::string> ids;
  };
  const Case cases[] = {
      {"next seven days keeps the milk due next week",
       kNow,
       kNow + 7 * kDay,
       {"reminder:CK-SHARED"}},
      // Ends a minute before now, so store B's undated copy (stamped now) stays out too.
      {"last week drops it though modified today",
       kNow - 7 * kDay,
       kNow - 60,
       {"reminder:Data-B.sqlite:7", "reminder:Data-A.sqlite:7", "reminder:CK-2", "reminder:EXT-6"}},
      {"since only",
       kNow - 2.5 * kDay,
       std::nullopt,
       {"reminder:CK-2", "reminder:EXT-6", "reminder:CK-SHARED"}},
      // Store B's copy of the milk (undated, stamped now) lies here, store A's (due
      // next week) does not: the first store's copy decides, so the milk is absent.
      {"a later store's copy never stands in", kNow - 60, kNow + kDay, {}},
      {"until only",
       std::nullopt,
       kNow - 3 * kDay,
       {"reminder:Data-B.sqlite:7", "reminder:Data-A.sqlite:7"}},
  };
  for (const Case& c : cases) {
    TeskIMessage::Filter f;
    f.since = c.since;
    f.until = c.until;
    EXPECT_EQ(ids(read(f)), c.ids) << c.name;
  }
}

TEST_F(RemindersTwoStores, Selectors) {
  using F = TeskIMessage::Filter;
  struct Case {
    const char* name;
    std::function<void(F&)> set;
    std::vector<std::string> ids;
  };
  const Case cases[] = {
      {"who matches the list name", [](F& f) { f.who = "groceries"; }, {"reminder:CK-SHARED"}},
      {"who on the default list name",
       [](F& f) { f.who = "remind"; },
       {"reminder:Data-A.sqlite:7", "reminder:EXT-6"}},
      {"query over title and notes", [](F& f) { f.query = "LITRES"; }, {"reminder:CK-SHARED"}},
      {"grep", [](F& f) { f.grep = TeskRegex::compile("^quarterly"); }, {"reminder:CK-2"}},
      {"incoming drops all", [](F& f) { f.direction = TeskRow::Direction::incoming; }, {}},
      // Store B files its copy of the milk under "Shared list"; store A's copy decides,
      // so asking for that list does not bring the milk back.
      {"a later store's list", [](F& f) { f.who = "shared"; }, {"reminder:Data-B.sqlite:7"}},
  };
  for (const Case& c : cases) {
    F f;
    c.set(f);
    EXPECT_EQ(ids(read(f)), c.ids) << c.name;
  }
}

// Older or stripped schemas: every optional piece is probed.
TEST(RemindersRead, MissingOptionalColumnsAndListTable) {
  TempHome home;
  std::string path = storePath(home, "Data-old.sqlite");
  tesk_test::makeDB(
      path,
      "CREATE TABLE ZREMCDREMINDER (Z_PK INTEGER PRIMARY KEY, ZTITLE VARCHAR,"
      " ZCOMPLETED INTEGER, ZLIST INTEGER);"
      "INSERT INTO ZREMCDREMINDER VALUES (1, 'Call mum', 0, 1), (2, 'Finished', 1, 1),"
      " (3, 'Open', NULL, NULL);");
  struct utimbuf times {
    1700000000, 1700000000
  };
  ASSERT_EQ(utime(path.c_str(), &times), 0);
  TeskReminders::Result r = TeskReminders::read({}, home.path());
  EXPECT_TRUE(r.denied.empty());
  ASSERT_EQ(ids(r),
            (std::vector<std::string>{"reminder:Data-old.sqlite:1", "reminder:Data-old.sqlite:3"}));
  for (const TeskRow& row : r.rows) {
    EXPECT_EQ(row.who, "Reminders");
    EXPECT_DOUBLE_EQ(row.ts, 1700000000.0);  // no dates at all: the store's own mtime
    EXPECT_FALSE(row.start.has_value());
  }
}

TEST(RemindersRead, NoDeletionFlagReadsEveryUnfinished) {
  TempHome home;
  tesk_test::makeDB(
      storePath(home, "Data-x.sqlite"),
      "CREATE TABLE ZREMCDREMINDER (Z_PK INTEGER PRIMARY KEY, ZTITLE VARCHAR,"
      " ZCOMPLETED INTEGER, ZLASTMODIFIEDDATE TIMESTAMP);"
      "INSERT INTO ZREMCDREMINDER VALUES (1, 'a', 0, 0), (2, 'b', 0, 1), (3, 'c', 1, 2);");
  TeskReminders::Result r = TeskReminders::read({}, home.path());
  EXPECT_EQ(r.perStore["Data-x.sqlite"], 2);
  ASSERT_EQ(r.rows.size(), 2u);
  EXPECT_DOUBLE_EQ(r.rows[0].ts, kApple);  // 0 is a date (2001), not "absent"
}

// A date that is no instant (year 9999, a text that would read as 2001) keeps its
// row but moves no horizon, and is counted.
TEST(RemindersRead, DatesThatAreNoInstantMoveNoHorizon) {
  TempHome home;
  makeStore(home, "Data-A.sqlite",
            "INSERT INTO ZREMCDREMINDER(Z_PK, ZTITLE, ZDUEDATE, ZLASTMODIFIEDDATE) VALUES"
            " (1, 'real', NULL, " +
                core(kNow) + "), (2, 'far', " + core(253402300799.0) + ", " + core(kNow) +
                "), (3, 'garbled', 'soon', " + core(kNow - kDay) + ");");
  TeskReminders::Result r = TeskReminders::read({}, home.path());
  EXPECT_EQ(r.rows.size(), 3u);
  EXPECT_EQ(r.noInstant, 2);
  ASSERT_TRUE(r.horizon.has_value());
  EXPECT_DOUBLE_EQ(r.horizon->from, kNow);
  EXPECT_DOUBLE_EQ(r.horizon->to, kNow);
}

// Bad stores are named; the good one is still read.
TEST(RemindersRead, BadStoresDeniedOthersRead) {
  TempHome home;
  makeStore(home, "Data-1good.sqlite",
            "INSERT INTO ZREMCDREMINDER(Z_PK, ZTITLE, ZLASTMODIFIEDDATE) VALUES (1, 'ok', 0);");
  tesk_test::makeDB(storePath(home, "Data-2moved.sqlite"), "CREATE TABLE ZREMINDER(x);");
  // A view over a table that is gone: the probes see nothing, the query fails.
  tesk_test::makeDB(storePath(home, "Data-3broken.sqlite"),
                    "CREATE TABLE t(ZTITLE); CREATE VIEW ZREMCDREMINDER AS SELECT * FROM t;"
                    "DROP TABLE t;");
  std::string dangling = storePath(home, "Data-4gone.sqlite");
  std::filesystem::create_symlink(home.path() + "/nowhere", dangling);

  TeskReminders::Result r = TeskReminders::read({}, home.path());
  EXPECT_EQ(r.denied, (std::vector<std::string>{
                          "reminder: schema moved in Data-2moved.sqlite",
                          std::string("reminder: schema moved in Data-3broken.sqlite") + kEmDash +
                              "sql: no such table: main.t",
                          "reminder: cannot read " + dangling + ": no such file",
                      }));
  EXPECT_EQ(ids(r), std::vector<std::string>{"reminder:Data-1good.sqlite:1"});
  EXPECT_EQ(r.perStore,
            (std::map<std::string, int64_t>{{"Data-1good.sqlite", 1}, {"Data-3broken.sqlite", 0}}));
}

}  // namespace
