// Hostile files in every store kind, and SQL that tries to write: each is answered
// with a denial or a count and the documented exit code, never a crash, never a
// leftover snapshot, never a changed store.
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <random>

#include "reliability/reliability_support.h"

namespace {

using namespace reliability;

struct StoreKind {
  const char* name;
  const char* under;  // directory under the home holding the store(s)
  const char* file;   // file name, or its ending (".sqlite") for several stores
  const char* table;  // the table the reader cannot do without
  std::vector<std::string> args;
  int unusableExit;
};

// Exit code when a store cannot be used at all: 5 only for the message store (the
// run fails); any other store becomes a denial and, alone, an empty answer (2).
// `link` reports an unreadable account database as an unhealthy link (3).
const std::vector<StoreKind>& kinds() {
  // clang-format off
  static const std::vector<StoreKind> all = {
      {"chat.db", "Library/Messages", "chat.db", "message", {"im", "--since", "10y"}, 5},
      {"Envelope Index", "Library/Mail/V10/MailData", "Envelope Index", "messages",
       {"mail", "--since", "10y"}, 2},
      {"Calendar", "Library/Group Containers/group.com.apple.calendar", "Calendar.sqlitedb",
       "CalendarItem", {"cal", "--since", "1y"}, 2},
      {"Reminders", "Library/Group Containers/group.com.apple.reminders", ".sqlite",
       "ZREMCDREMINDER", {"span", "--src", "reminder", "--since", "10y"}, 2},
      {"Chrome", "Library/Application Support/Google/Chrome", "History", "visits",
       {"span", "--src", "chrome", "--since", "5y"}, 2},
      {"Safari", "Library/Safari", "History.db", "history_visits",
       {"span", "--src", "safari", "--since", "5y"}, 2},
      {"address book", "Library/Application Support/AddressBook", "AddressBook-v22.abcddb",
       "ZABCDRECORD", {"who", "me"}, 0},
      {"Accounts4", "Library/Accounts", "Accounts4.sqlite", "ZACCOUNT", {"link"}, 3},
  };
  // clang-format on
  return all;
}

// The store files of `kind` in `home` (every one when the kind has several).
std::vector<std::string> storesOf(const StoreKind& kind, const std::string& home) {
  std::vector<std::string> found;
  for (const auto& e : fs::recursive_directory_iterator(home + "/" + kind.under)) {
    const std::string p = e.path().string();
    if (e.is_regular_file() && p.ends_with(std::string("/") + kind.file)) found.push_back(p);
    if (e.is_regular_file() && kind.file[0] == '.' && p.ends_with(kind.file)) found.push_back(p);
  }
  return found;
}

enum class Damage { truncated, randomBytes, tableMissing, foreignWal };

const char* nameOf(Damage d) {
  static const char* const names[] = {"truncated", "random bytes", "key table missing",
                                      "foreign -wal"};
  return names[static_cast<int>(d)];
}

void damage(const std::string& path, Damage d, const StoreKind& kind, const std::string& home) {
  std::error_code ec;
  switch (d) {
    case Damage::truncated:
      // The header survives; most pages (and the tables' roots past the cut) do not.
      fs::resize_file(path, std::max<uintmax_t>(fs::file_size(path) * 2 / 5, 4096));
      break;
    case Damage::randomBytes: {
      std::mt19937 rng(7);
      std::string bytes(65536, '\0');
      for (char& c : bytes) c = static_cast<char>(rng());
      std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
      fs::remove(path + "-wal", ec);
      fs::remove(path + "-shm", ec);
      break;
    }
    case Damage::tableMissing: {
      sqlite3* raw = nullptr;
      sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
      tesk_test::DB db(raw);
      tesk_test::exec(db.get(), std::string("DROP TABLE ") + kind.table);
      break;
    }
    case Damage::foreignWal: {
      // Another store's log: its frames carry pages of a different database.
      const std::string other =
          kind.name == std::string("chat.db")
              ? home + "/Library/Application Support/Google/Chrome/Default/History-wal"
              : home + "/Library/Messages/chat.db-wal";
      fs::remove(path + "-shm", ec);
      fs::copy_file(other, path + "-wal", fs::copy_options::overwrite_existing);
      break;
    }
  }
}

TEST(HostileStores, EveryKindEveryDamageFailsCleanly) {
  for (const StoreKind& kind : kinds()) {
    for (Damage d :
         {Damage::truncated, Damage::randomBytes, Damage::tableMissing, Damage::foreignWal}) {
      SCOPED_TRACE(std::string(kind.name) + ", " + nameOf(d));
      tesk_test::TempHome home, tmp;
      copyDemoHome(home.path());
      const std::vector<std::string> stores = storesOf(kind, home.path());
      ASSERT_FALSE(stores.empty());
      for (const std::string& s : stores) damage(s, d, kind, home.path());

      Answer a = tesk(kind.args, home.path(), tmp.path());
      EXPECT_EQ(a.signal, 0) << "crashed";
      EXPECT_TRUE(framed(a)) << a.text.substr(0, 400);
      EXPECT_TRUE(snapshotsIn(tmp.path()).empty()) << "snapshot left behind";
      if (!framed(a)) continue;
      const std::string& receipt = a.lines.front();
      const bool denied = has(receipt, "\"denied\":[\"");
      const bool told = a.lines.size() > 2 && a.lines[1].rfind("tesk: ", 0) == 0;
      if (d == Damage::randomBytes || d == Damage::tableMissing) {
        // Nothing usable: the documented code, and the reason named.
        EXPECT_EQ(a.exit, kind.unusableExit) << a.text.substr(0, 600);
        if (kind.unusableExit == 5) {
          EXPECT_TRUE(told) << receipt;
        } else if (kind.unusableExit == 2) {
          EXPECT_TRUE(denied) << receipt;
        }
      } else {
        // Partly readable or not at all: an answer or a denial, each documented.
        EXPECT_TRUE(a.exit == 0 || a.exit == 2 || a.exit == 3 || a.exit == 5) << a.exit;
        if (a.exit == 5) {
          EXPECT_TRUE(denied || told) << receipt;
        }
      }
    }
  }
}

// A named pipe where a store or one of its companions should be (what a hostile or
// broken home can hold) stalls no verb: each answers in time, framed, and names
// the file; the message store alone fails the run, any other store is a denial.
TEST(HostileStores, NamedPipeInPlaceOfAStoreNeverBlocks) {
  struct Case {
    std::string store;  // under the home
    std::vector<std::string> args;
    int exit;
    std::string line;  // a body line that must be there (a prefix), or "" for the receipt
  };
  const std::string chat = "Library/Messages/chat.db";
  const std::string chrome = "Library/Application Support/Google/Chrome/Default/History";
  // clang-format off
  const std::vector<Case> cases = {
      {chat, {"im", "--since", "10y"}, 5, "tesk: cannot read {}: not a regular file (a named pipe)"},
      {chat + "-wal", {"im", "--since", "10y"}, 5,
       "tesk: cannot read {}: its -wal is not a regular file (a named pipe)"},
      {chat + "-shm", {"sql", "SELECT COUNT(*) FROM message"}, 5,
       "tesk: cannot read {}: its -shm is not a regular file (a named pipe)"},
      {chat + "-journal", {"search", "x"}, 5,
       "tesk: cannot read {}: its -journal is not a regular file (a named pipe)"},
      {chrome, {"span", "--src", "chrome", "--since", "5y"}, 2, ""},
      {chat, {"doctor"}, 0, "im\tA\tDENIED\t-\t-\t0\t0\t-\tcannot read {}: not a regular file"},
      {"Library/Accounts/Accounts4.sqlite", {"link"}, 3, "verdict\tABSENT"},
      {".harbend/account.json", {"who", "me"}, 0, "me\t"},  // the address book still answers
  };
  // clang-format on
  for (const Case& c : cases) {
    SCOPED_TRACE(c.store + " " + c.args[0]);
    tesk_test::TempHome home, tmp;
    copyDemoHome(home.path());
    const std::string path = home.path() + "/" + c.store;
    std::error_code ec;
    fs::remove(path, ec);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0) << path;
    std::string store = path;
    for (const char* suffix : {"-wal", "-shm", "-journal"}) {
      if (store.ends_with(suffix)) store.resize(store.size() - std::strlen(suffix));
    }

    Answer a = teskWithin(60, c.args, home.path(), tmp.path());
    ASSERT_EQ(a.signal, 0) << "blocked or crashed";
    EXPECT_TRUE(framed(a)) << a.text.substr(0, 400);
    EXPECT_EQ(a.exit, c.exit) << a.text.substr(0, 800);
    EXPECT_TRUE(snapshotsIn(tmp.path()).empty());
    if (c.line.empty()) {
      if (c.exit != 0) {
        EXPECT_TRUE(has(a.lines.front(), "cannot read " + store + ": ")) << a.lines.front();
      }
      continue;
    }
    std::string expected = c.line;
    if (auto at = expected.find("{}"); at != std::string::npos) expected.replace(at, 2, store);
    bool found = false;
    for (const std::string& line : a.lines) found |= line.rfind(expected, 0) == 0;
    EXPECT_TRUE(found) << expected << "\n" << a.text.substr(0, 1500);
  }
}

// tesk sql over the live chat.db: every statement form that could write is refused,
// and afterwards the store's bytes and row count are what they were.
TEST(SqlVerb, EveryWritingFormIsRefused) {
  tesk_test::TempHome home, tmp;
  copyDemoHome(home.path());
  const std::string chat = home.path() + "/Library/Messages/chat.db";
  const std::string before = tesk_test::readFile(chat) + tesk_test::readFile(chat + "-wal");
  const std::string outside = tmp.path() + "/written.db";
  const std::vector<std::string> refused = {
      "DELETE FROM message",
      "delete from message",
      "  INSERT INTO handle(id) VALUES ('x')",
      "UPDATE message SET text = 'x'",
      "REPLACE INTO handle(ROWID, id) VALUES (1, 'x')",
      "WITH x AS (SELECT 1) DELETE FROM message",
      "WITH x AS (SELECT 1) INSERT INTO handle(id) SELECT 'x' FROM x",
      "WITH x AS (SELECT 1) UPDATE message SET text = 'x' WHERE ROWID IN (SELECT * FROM x)",
      "with recursive x(i) as (select 1) replace into handle(ROWID, id) select i, 'x' from x",
      "PRAGMA journal_mode = DELETE",
      "PRAGMA user_version = 7",
      "PRAGMA writable_schema = ON",
      "ATTACH DATABASE '" + outside + "' AS other",
      "VACUUM INTO '" + outside + "'",
      "VACUUM",
      "CREATE TABLE t(x)",
      "CREATE TEMP TABLE t(x)",
      "DROP TABLE message",
      "ALTER TABLE message ADD COLUMN x",
      "BEGIN IMMEDIATE",
      "REINDEX",
      "ANALYZE",
      "/* SELECT */ DELETE FROM message",
  };
  for (const std::string& sql : refused) {
    Answer a = tesk({"sql", sql}, home.path(), tmp.path());
    EXPECT_EQ(a.exit, 4) << sql << "\n" << a.text.substr(0, 400);
    ASSERT_TRUE(framed(a)) << sql;
    ASSERT_GE(a.lines.size(), 3u);
    EXPECT_EQ(a.lines[1],
              "tesk: sql: tesk sql accepts SELECT/WITH only — this binary has no write path")
        << sql;
  }
  // A reading statement followed by a writing one: the text is refused whole.
  Answer chained = tesk({"sql", "SELECT COUNT(*) AS n FROM message; DELETE FROM message"},
                        home.path(), tmp.path());
  EXPECT_EQ(chained.exit, 4) << chained.text;
  ASSERT_TRUE(framed(chained));
  EXPECT_EQ(chained.lines[1].rfind("tesk: sql: tesk sql runs one statement", 0), 0u);
  // Extension loading is not available to a statement.
  Answer extension =
      tesk({"sql", "SELECT load_extension('" + tmp.path() + "/x')"}, home.path(), tmp.path());
  EXPECT_NE(extension.exit, 0);
  EXPECT_TRUE(framed(extension));

  EXPECT_FALSE(fs::exists(outside)) << "a statement wrote a file";
  EXPECT_TRUE(before == tesk_test::readFile(chat) + tesk_test::readFile(chat + "-wal"))
      << "the store changed";
  Answer after = tesk({"sql", "SELECT COUNT(*) AS n FROM message"}, home.path(), tmp.path());
  EXPECT_EQ(after.exit, 0) << after.text;
}

}  // namespace
