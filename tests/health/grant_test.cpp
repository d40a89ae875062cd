#include "health/TeskGrant.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/TeskTime.h"
#include "common/KeyedArchiveWriter.h"
#include "common/TeskTestHome.h"
#include "store/TeskStore.h"

namespace {

namespace fs = std::filesystem;
using TeskGrant::Link;
using TeskGrant::Mirror;
using ::testing::ElementsAre;

const double kNow = *TeskTime::parseISO("2026-08-13T10:00:00Z");

struct Account {
  std::string type = "Google";
  std::optional<std::string> description{};
  int active = 1;
  int authenticated = 1;
  std::vector<std::string> dataclasses = {"Mail", "Calendars", "Contacts"};
  std::optional<int64_t> parent{};
  std::optional<std::string> username = "owner@gmail.com";
  std::optional<double> rejection{};  // seconds since 2001
  std::optional<std::string> identifier = "ACC-1";
};

std::string sqlText(const std::optional<std::string>& s) { return s ? "'" + *s + "'" : "NULL"; }

std::string accountsPath(const std::string& home) {
  return home + "/Library/Accounts/Accounts4.sqlite";
}

// An account database from the real schema; data-class names archived like the real
// store keeps them, or as plain text.
void makeAccounts(const std::string& home, const std::vector<Account>& accounts,
                  bool archivedNames = true) {
  std::string path = accountsPath(home);
  tesk_test::makeDB(path, tesk_test::schema("accounts.ios-Accounts3.sql"));
  const char* names[] = {"Mail", "Calendars", "Contacts", "Notes"};
  for (int i = 0; i < 4; ++i) {
    std::string full = std::string("com.apple.Dataclass.") + names[i];
    if (archivedNames) {
      tesk_test::execBlob(
          path, "INSERT INTO ZDATACLASS (Z_PK, ZNAME) VALUES (" + std::to_string(i + 1) + ", ?)",
          tesk_test::keyedString(full));
    } else {
      tesk_test::makeDB(path, "INSERT INTO ZDATACLASS (Z_PK, ZNAME) VALUES (" +
                                  std::to_string(i + 1) + ", '" + full + "')");
    }
  }
  int64_t pk = 10;
  for (const Account& a : accounts) {
    ++pk;
    std::string rejection = a.rejection ? std::to_string(*a.rejection) : "NULL";
    std::string parent = a.parent ? std::to_string(*a.parent) : "NULL";
    tesk_test::makeDB(
        path, "INSERT INTO ZACCOUNTTYPE (Z_PK, ZACCOUNTTYPEDESCRIPTION) VALUES (" +
                  std::to_string(pk) + ", '" + a.type + "');" +
                  "INSERT INTO ZACCOUNT (Z_PK, ZACTIVE, ZAUTHENTICATED, ZACCOUNTTYPE, "
                  "ZPARENTACCOUNT, ZLASTCREDENTIALRENEWALREJECTIONDATE, ZACCOUNTDESCRIPTION, "
                  "ZIDENTIFIER, ZUSERNAME) VALUES (" +
                  std::to_string(pk) + ", " + std::to_string(a.active) + ", " +
                  std::to_string(a.authenticated) + ", " + std::to_string(pk) + ", " + parent +
                  ", " + rejection + ", " + sqlText(a.description) + ", " + sqlText(a.identifier) +
                  ", " + sqlText(a.username) + ");");
    for (const std::string& d : a.dataclasses) {
      int id = d == "Mail" ? 1 : d == "Calendars" ? 2 : d == "Contacts" ? 3 : 4;
      tesk_test::makeDB(path, "INSERT INTO Z_2ENABLEDDATACLASSES VALUES (" + std::to_string(pk) +
                                  ", " + std::to_string(id) + ")");
    }
  }
}

std::string calendarPath(const std::string& home) {
  return home + "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";
}

// A calendar store holding the given error blobs (oldest first) for the store `name`.
void makeCalendarErrors(const std::string& home, const std::string& name,
                        const std::vector<std::vector<uint8_t>>& blobs) {
  std::string path = calendarPath(home);
  tesk_test::makeDB(path, tesk_test::schema("calendar.sql"));
  tesk_test::makeDB(path,
                    "INSERT INTO Store (ROWID, name) VALUES (1, 'Other');"
                    "INSERT INTO Store (ROWID, name) VALUES (2, '" +
                        name + "');");
  for (const auto& b : blobs) {
    tesk_test::execBlob(path, "INSERT INTO Error (store_owner_id, user_info) VALUES (2, ?)", b);
  }
}

TEST(TeskGrant, LinkVerdictTable) {
  struct Case {
    std::string name;
    bool active, authenticated;
    std::set<Mirror> enabled;
    std::optional<std::string> lastError;
    Link::Verdict verdict;
    std::optional<std::string> repair;
  };
  const std::set<Mirror> all = {Mirror::mail, Mirror::calendars, Mirror::contacts};
  const std::string broken =
      "sign in again in system settings → internet accounts → google. the account is switched "
      "on and google is refusing the credential, so nothing new reaches this mac until it is "
      "renewed";
  const std::string add =
      "add your google account in system settings → internet accounts, and turn on mail, "
      "calendars and contacts";
  auto turnOn = [](const std::string& what) {
    return "turn on " + what + " in system settings → internet accounts → google";
  };
  using V = Link::Verdict;
  using M = Mirror;
  const Case cases[] = {
      // {} where there is no error, or no repair
      {"not active", false, true, all, {}, V::absent, add},
      {"not active wins over an error", false, false, {}, "x 1", V::absent, add},
      {"unauthenticated whatever the switches", true, false, all, {}, V::broken, broken},
      {"a provider error", true, true, all, "NSURLErrorDomain 401", V::broken, broken},
      {"two missing", true, true, {M::mail}, {}, V::partial, turnOn("calendars and contacts")},
      {"one missing", true, true, {M::mail, M::contacts}, {}, V::partial, turnOn("calendars")},
      {"none on", true, true, {}, {}, V::partial, turnOn("mail and calendars and contacts")},
      {"complete", true, true, all, {}, V::complete, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Link l;
    l.provider = "Google";
    l.active = c.active;
    l.authenticated = c.authenticated;
    l.enabled = c.enabled;
    l.lastError = c.lastError;
    EXPECT_EQ(l.verdict(), c.verdict);
    EXPECT_EQ(l.repair(), c.repair);
  }
}

TEST(TeskGrant, StatusSummary) {
  struct Case {
    bool active, authenticated;
    std::optional<std::string> error;
    std::string want;
  };
  const Case cases[] = {
      {true, true, std::nullopt, "ok"},
      {false, false, std::nullopt, "ok"},
      {true, false, std::nullopt, "the grant is not authenticated"},
      {true, false, "a 1 → b 2", "the grant is not authenticated; a 1 → b 2"},
      {true, true, "a 1", "a 1"},
  };
  for (const Case& c : cases) {
    TeskGrant::Status s{"Google", c.active, c.authenticated, c.error};
    EXPECT_EQ(s.summary(), c.want);
  }
}

TEST(TeskGrant, RealAccountsStoreFindsTheGmailAccount) {
  tesk_test::TempHome home;
  fs::create_directories(home.path() + "/Library/Accounts");
  fs::copy_file(std::string(TESK_TEST_DATA) + "/accounts/plaso_ios_Accounts3.sqlite",
                accountsPath(home.path()));
  Link l = TeskGrant::link("Google", home.path());
  EXPECT_EQ(l.username, "thisisdfir@gmail.com");
  EXPECT_EQ(l.identifier, "4FD35256-CE13-47FE-9840-EBEB5B9FD9C1");
  EXPECT_TRUE(l.active);
  EXPECT_TRUE(l.authenticated);
  EXPECT_EQ(l.enabled, (std::set<Mirror>{Mirror::mail, Mirror::calendars, Mirror::contacts}));
  EXPECT_EQ(l.lastRejection, std::nullopt);
  EXPECT_EQ(l.verdict(), Link::Verdict::complete);

  auto s = TeskGrant::status("Google", home.path());
  ASSERT_TRUE(s.has_value());
  EXPECT_EQ(s->summary(), "ok");
  // iCloud is described by its account row, not its type.
  EXPECT_TRUE(TeskGrant::status("iCloud", home.path()).has_value());
  EXPECT_FALSE(TeskGrant::status("Exchange", home.path()).has_value());

  auto lines = TeskGrant::linkReport(home.path(), kNow);
  // Each mirror's row up to its prose: switched on, newest on disk, state.
  std::vector<std::string> cells(lines.begin(), lines.begin() + 11);
  for (size_t i = 11; i < 14; ++i) cells.push_back(lines[i].substr(0, lines[i].rfind('\t')));
  EXPECT_THAT(
      cells,
      ElementsAre("field\tvalue", "provider\tgoogle", "account\tthisisdfir@gmail.com",
                  "verdict\tCOMPLETE", "account_id\t4FD35256-CE13-47FE-9840-EBEB5B9FD9C1",
                  "active\tyes", "authenticated\tyes", "last_rejection\t—", "provider_error\t—", "",
                  "mirror\tswitched_on\tnewest_on_disk\tstate\tfills", "mail\tyes\t—\t—",
                  "cal\tyes\t—\tDEAD", "contacts\tyes\t—\tABSENT"));
  EXPECT_EQ(lines.size(), 19u);
}

TEST(TeskGrant, AccountRowsTable) {
  struct Case {
    std::string name;
    std::vector<Account> accounts;
    bool archived;
    bool active, authenticated;
    std::set<Mirror> enabled;
    std::optional<std::string> username;
  };
  const std::set<Mirror> all = {Mirror::mail, Mirror::calendars, Mirror::contacts};
  const std::string owner = "owner@gmail.com";
  const Account second{.dataclasses = {"Mail", "Notes"}, .username = std::nullopt};
  const Case cases[] = {
      {"archived names", {{}}, true, true, true, all, owner},
      {"text names", {{}}, false, true, true, all, owner},
      {"unauthenticated", {{.authenticated = 0}}, true, true, false, all, owner},
      {"inactive", {{.active = 0}}, true, false, true, all, owner},
      {"a child account is not the account", {{.parent = 1}}, true, false, false, {}, {}},
      {"IMAP as Gmail", {{.type = "IMAP", .description = "Gmail"}}, true, true, true, all, owner},
      {"another provider only", {{.type = "Exchange"}}, true, false, false, {}, {}},
      // The alias matches the account's description, not its type.
      {"typed Gmail, not described so", {{.type = "Gmail"}}, true, false, false, {}, {}},
      // Flags from any row; data classes and username from the first row that has them.
      {"two rows", {second, {.authenticated = 0}}, true, true, true, {Mirror::mail}, owner},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tesk_test::TempHome home;
    makeAccounts(home.path(), c.accounts, c.archived);
    Link l = TeskGrant::link("Google", home.path());
    EXPECT_EQ(l.active, c.active);
    EXPECT_EQ(l.authenticated, c.authenticated);
    EXPECT_EQ(l.enabled, c.enabled);
    EXPECT_EQ(l.username, c.username);
    auto s = TeskGrant::status("Google", home.path());
    EXPECT_EQ(s.has_value(), c.username.has_value());
    if (s) {
      EXPECT_EQ(s->active, c.active);
      EXPECT_EQ(s->authenticated, c.authenticated);
    }
  }
}

TEST(TeskGrant, RejectionDateAndIdentifier) {
  tesk_test::TempHome home;
  makeAccounts(home.path(), {{.rejection = 800000000, .identifier = "ID-9"}});  // since 2001
  Link l = TeskGrant::link("Google", home.path());
  ASSERT_TRUE(l.lastRejection.has_value());
  EXPECT_DOUBLE_EQ(*l.lastRejection, 800000000 + 978307200.0);
  auto lines = TeskGrant::linkReport(home.path(), kNow);
  EXPECT_EQ(lines[4], "account_id\tID-9");
  EXPECT_EQ(lines[7], "last_rejection\t" + TeskTime::isoString(800000000 + 978307200.0));
}

// Text from Accounts4 and the calendar's error table stays in its cell: a username
// holding a line feed cannot print a verdict line of its own.
TEST(TeskGrant, StoredFieldsNeverOpenALineOrAColumn) {
  tesk_test::TempHome home;
  makeAccounts(home.path(),
               {{.username = "owner@gmail.com\nverdict\tCOMPLETE", .identifier = "ID\r9"}});
  makeCalendarErrors(home.path(), "Google", {tesk_test::keyedError({{"Evil\nDomain\t", 7}})});
  const auto lines = TeskGrant::linkReport(home.path(), kNow);
  ASSERT_GE(lines.size(), 9u);
  EXPECT_EQ(lines[2], "account\towner@gmail.com\\nverdict\\tCOMPLETE");
  EXPECT_EQ(lines[3], "verdict\tBROKEN");
  EXPECT_EQ(lines[4], "account_id\tID\\r9");
  EXPECT_EQ(lines[8], "provider_error\tEvil\\nDomain\\t 7");
  for (const std::string& line : lines) {
    EXPECT_EQ(line.find_first_of("\r\n"), std::string::npos) << line;
  }
}

TEST(TeskGrant, EnabledMirrorsDiscoversTheJoinTable) {
  tesk_test::TempHome home;
  std::string path = home.path() + "/a.sqlite";
  tesk_test::makeDB(path,
                    "CREATE TABLE ZDATACLASS (Z_PK INTEGER PRIMARY KEY, ZNAME BLOB);"
                    "INSERT INTO ZDATACLASS VALUES (4, 'com.apple.Dataclass.Contacts');"
                    "INSERT INTO ZDATACLASS VALUES (5, 'com.apple.Dataclass.Calendars');"
                    "INSERT INTO ZDATACLASS VALUES (6, 'com.apple.Dataclass.Mail');"
                    "CREATE TABLE Z_5ENABLEDDATACLASSES (Z_9ENABLEDDATACLASSES INTEGER, "
                    "  Z_5ENABLEDACCOUNTS INTEGER);"
                    "INSERT INTO Z_5ENABLEDDATACLASSES VALUES (4, 7), (5, 7), (6, 8);");
  TeskStore store(path);
  EXPECT_EQ(TeskGrant::enabledMirrors(7, store),
            (std::set<Mirror>{Mirror::calendars, Mirror::contacts}));
  EXPECT_EQ(TeskGrant::enabledMirrors(8, store), (std::set<Mirror>{Mirror::mail}));
  EXPECT_TRUE(TeskGrant::enabledMirrors(9, store).empty());

  struct Case {
    std::string name;
    std::string sql;
  };
  const Case broken[] = {
      {"no join table", "CREATE TABLE ZDATACLASS (Z_PK INTEGER PRIMARY KEY, ZNAME BLOB);"},
      {"no account column",
       "CREATE TABLE ZDATACLASS (Z_PK INTEGER PRIMARY KEY, ZNAME BLOB);"
       "CREATE TABLE Z_2ENABLEDDATACLASSES (Z_7ENABLEDDATACLASSES INTEGER, Z_2OWNER INTEGER);"},
      {"no data class table",
       "CREATE TABLE Z_2ENABLEDDATACLASSES (Z_7ENABLEDDATACLASSES INTEGER, "
       "Z_2ENABLEDACCOUNTS INTEGER); INSERT INTO Z_2ENABLEDDATACLASSES VALUES (1, 7);"},
      {"an archive that is not a string",
       "CREATE TABLE ZDATACLASS (Z_PK INTEGER PRIMARY KEY, ZNAME BLOB);"
       "INSERT INTO ZDATACLASS VALUES (1, x'62706c6973743030ffff');"
       "CREATE TABLE Z_2ENABLEDDATACLASSES (Z_7ENABLEDDATACLASSES INTEGER, "
       "Z_2ENABLEDACCOUNTS INTEGER); INSERT INTO Z_2ENABLEDDATACLASSES VALUES (1, 7);"},
  };
  for (const Case& c : broken) {
    std::string p = home.path() + "/" + std::to_string(&c - broken) + ".sqlite";
    tesk_test::makeDB(p, c.sql);
    TeskStore s(p);
    EXPECT_TRUE(TeskGrant::enabledMirrors(7, s).empty()) << c.name;
  }
}

TEST(TeskGrant, CalendarStoreErrorTakesTheNewestReadableError) {
  using tesk_test::keyedError;
  struct Case {
    std::string name;
    std::vector<std::vector<uint8_t>> blobs;  // oldest first
    std::string storeName;
    std::optional<std::string> want;
  };
  const std::vector<uint8_t> unreadable = {'n', 'o', 't', ' ', 'a', 'n', ' ', 'a', 'r', 'c'};
  const Case cases[] = {
      {"newest wins",
       {keyedError({{"Old", 1}}), keyedError({{"New", 2}, {"Under", 3}})},
       "Google",
       "New 2 → Under 3"},
      {"unreadable newest falls back", {keyedError({{"Old", 1}}), unreadable}, "Google", "Old 1"},
      {"empty blob skipped", {keyedError({{"Old", 1}}), {}}, "Google", "Old 1"},
      {"only unreadable", {unreadable}, "Google", std::nullopt},
      {"another store's errors", {keyedError({{"X", 1}})}, "iCloud", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tesk_test::TempHome home;
    makeCalendarErrors(home.path(), c.storeName, c.blobs);
    EXPECT_EQ(TeskGrant::calendarStoreError(home.path(), "Google"), c.want);
  }
  tesk_test::TempHome noTable;
  tesk_test::makeDB(calendarPath(noTable.path()), "CREATE TABLE Store (name TEXT);");
  EXPECT_EQ(TeskGrant::calendarStoreError(noTable.path(), "Google"), std::nullopt);
  tesk_test::TempHome movedTable;
  tesk_test::makeDB(calendarPath(movedTable.path()), "CREATE TABLE Error (x INTEGER);");
  EXPECT_EQ(TeskGrant::calendarStoreError(movedTable.path(), "Google"), std::nullopt);
  tesk_test::TempHome none;
  EXPECT_EQ(TeskGrant::calendarStoreError(none.path(), "Google"), std::nullopt);
}

TEST(TeskGrant, ProviderErrorMakesTheLinkBroken) {
  tesk_test::TempHome home;
  makeAccounts(home.path(), {Account{}});
  makeCalendarErrors(home.path(), "Google",
                     {tesk_test::keyedError({{"EKErrorDomain", 2}, {"NSURLErrorDomain", 401}})});
  Link l = TeskGrant::link("Google", home.path());
  EXPECT_EQ(l.lastError, "EKErrorDomain 2 → NSURLErrorDomain 401");
  EXPECT_EQ(l.verdict(), Link::Verdict::broken);
  auto s = TeskGrant::status("Google", home.path());
  ASSERT_TRUE(s.has_value());
  EXPECT_EQ(s->summary(), "EKErrorDomain 2 → NSURLErrorDomain 401");
  auto lines = TeskGrant::linkReport(home.path(), kNow);
  EXPECT_EQ(lines[3], "verdict\tBROKEN");
  EXPECT_EQ(lines[8], "provider_error\tEKErrorDomain 2 → NSURLErrorDomain 401");
  EXPECT_THAT(lines,
              ::testing::Contains(
                  "#   x-apple.systempreferences:com.apple.Internet-Accounts-Settings.extension"));
}

TEST(TeskGrant, MissingOrCorruptDatabaseDegrades) {
  struct Case {
    std::string name;
    std::function<void(const std::string&)> make;
  };
  const Case cases[] = {
      {"missing", [](const std::string&) {}},
      {"not a database",
       [](const std::string& home) {
         tesk_test::writeFile(accountsPath(home), std::string(4096, 'x'));
       }},
      {"no account tables",
       [](const std::string& home) {
         tesk_test::makeDB(accountsPath(home), "CREATE TABLE t (a);");
       }},
      {"a directory", [](const std::string& home) { fs::create_directories(accountsPath(home)); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tesk_test::TempHome home;
    c.make(home.path());
    EXPECT_EQ(TeskGrant::status("Google", home.path()), std::nullopt);
    Link l = TeskGrant::link("Google", home.path());
    EXPECT_EQ(l.provider, "Google");
    EXPECT_FALSE(l.active);
    EXPECT_EQ(l.username, std::nullopt);
    EXPECT_TRUE(l.enabled.empty());
    auto lines = TeskGrant::linkReport(home.path(), kNow);
    EXPECT_EQ(lines[2], "account\t—");
    EXPECT_EQ(lines[3], "verdict\tABSENT");
    EXPECT_EQ(lines[11].substr(0, 8), "mail\tNO\t");
    EXPECT_EQ(lines[12].substr(0, 7), "cal\tNO\t");
    EXPECT_EQ(lines[13].substr(0, 12), "contacts\tNO\t");
    EXPECT_EQ(lines[15], "# what to do — and it is the only thing that helps:");
    EXPECT_EQ(lines[16],
              "#   add your google account in system settings → internet accounts, and turn on "
              "mail, calendars and contacts");
    EXPECT_EQ(lines.size(), 23u);
  }
}

}  // namespace
