// Stores that another process is writing, locking or about to lose: reads are
// never stale and never fail, a locked browser history is read through its
// snapshot with the -wal rows, and a killed run leaves no snapshot behind.
#include <signal.h>
#include <sys/wait.h>
#include <time.h>

#include <chrono>
#include <thread>

#include "reliability/reliability_support.h"

namespace {

using namespace reliability;

// Column 0 of the first row of `sql`, via a connection of this process.
int64_t count(const std::string& path, const std::string& sql) {
  sqlite3* raw = nullptr;
  sqlite3_open_v2(("file:" + path + "?mode=ro").c_str(), &raw,
                  SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  tesk_test::DB db(raw);
  sqlite3_stmt* stmt = nullptr;
  int64_t n = -1;
  if (sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
      sqlite3_step(stmt) == SQLITE_ROW) {
    n = sqlite3_column_int64(stmt, 0);
  }
  sqlite3_finalize(stmt);
  return n;
}

// A process that appends one message per transaction to `path` until killed.
// `checkpointEvery` 0 disables checkpoints (the -wal only grows).
pid_t startWriter(const std::string& path, int checkpointEvery) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) _exit(3);
    sqlite3_busy_timeout(db, 5000);
    const std::string setup =
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF; "
        "PRAGMA wal_autocheckpoint=" +
        std::to_string(checkpointEvery);
    if (sqlite3_exec(db, setup.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) _exit(4);
    sqlite3_stmt* insert = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO message(guid, text, date, handle_id, is_from_me) "
                       "VALUES ('live-' || ?1 || '-' || ?2, 'appended while read', ?3, 1, 0)",
                       -1, &insert, nullptr);
    for (int64_t k = 0;; ++k) {
      sqlite3_bind_int64(insert, 1, getpid());
      sqlite3_bind_int64(insert, 2, k);
      sqlite3_bind_int64(insert, 3, (static_cast<int64_t>(time(nullptr)) - 978307200) * 1000000000);
      if (sqlite3_step(insert) != SQLITE_DONE) _exit(5);
      sqlite3_reset(insert);
      if (k == 0 && write(ready[1], "r", 1) != 1) _exit(6);
      struct timespec pause = {0, 2000000};  // 2 ms: about 500 commits a second
      nanosleep(&pause, nullptr);
    }
  }
  close(ready[1]);
  char c = 0;
  if (read(ready[0], &c, 1) != 1) ADD_FAILURE() << "writer did not start";
  close(ready[0]);
  return pid;
}

// Kills and reaps the writer however the test leaves its scope: a failed assertion
// returns early, and a writer left running would keep ctest waiting on its pipes.
struct WriterGuard {
  pid_t pid;
  ~WriterGuard() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
};

// Reads the message count through tesk 50 times while a writer appends, once
// without checkpoints and once with frequent ones. Every count is at least what
// was committed before the read started: a stale or failed read fails.
TEST(LiveWriter, EveryReadSeesAtLeastWhatWasCommittedBeforeIt) {
  tesk_test::TempHome home, tmp;
  copyDemoHome(home.path());
  const std::string chat = home.path() + "/Library/Messages/chat.db";
  const int64_t initial = count(chat, "SELECT COUNT(*) FROM message");
  ASSERT_GT(initial, 0);
  int64_t last = initial;
  for (int checkpointEvery : {0, 20}) {
    pid_t writer = startWriter(chat, checkpointEvery);
    ASSERT_GT(writer, 0);
    WriterGuard guard{writer};
    for (int read = 0; read < 50; ++read) {
      const int64_t before = count(chat, "SELECT COUNT(*) FROM message");
      Answer a = tesk({"sql", "SELECT COUNT(*) AS n FROM message"}, home.path(), tmp.path());
      ASSERT_EQ(a.exit, 0) << "read " << read << " (checkpoints every " << checkpointEvery << ")\n"
                           << a.text;
      ASSERT_TRUE(framed(a));
      ASSERT_EQ(a.lines.size(), 4u) << a.text;
      const int64_t seen = std::stoll(a.lines[2]);
      EXPECT_GE(seen, before) << "stale read " << read;
      EXPECT_GE(seen, last) << "a read went backwards";
      last = seen;
    }
    kill(writer, SIGKILL);
    int status = 0;
    waitpid(writer, &status, 0);
    guard.pid = -1;
    EXPECT_TRUE(WIFSIGNALED(status)) << "the writer stopped on its own: " << status;
    EXPECT_TRUE(snapshotsIn(tmp.path()).empty());
  }
  EXPECT_GT(last, initial + 50) << "the writer barely wrote; the test proved little";
}

// Holds `path` the way a running browser does: exclusive locking mode and an open
// exclusive transaction, so no other process can read it.
struct ExclusiveHolder {
  tesk_test::DB db;
  explicit ExclusiveHolder(const std::string& path) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    db.reset(raw);
    tesk_test::exec(db.get(), "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;");
  }
  // Ends the transaction without a checkpoint, leaving the -wal as it is.
  ~ExclusiveHolder() {
    sqlite3_exec(db.get(), "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  }
};

TEST(LockedStore, ChromeHistoryHeldExclusivelyIsReadThroughTheSnapshotWithItsWal) {
  tesk_test::TempHome home, tmp;
  copyDemoHome(home.path());
  const std::string history =
      home.path() + "/Library/Application Support/Google/Chrome/Default/History";
  ASSERT_GT(fs::file_size(history + "-wal"), 0u) << "the demo history has no live -wal";
  const std::vector<std::string> args{"span",    "--src", "chrome",   "--since", "5y",
                                      "--limit", "0",     "--format", "tsv"};
  // The database file alone lacks the newest visits: they are only in the -wal.
  tesk_test::TempHome bare;
  fs::copy_file(history, bare.path() + "/History");
  const int64_t withoutWal = count(bare.path() + "/History", "SELECT COUNT(*) FROM visits");
  const int64_t all = count(history, "SELECT COUNT(*) FROM visits");
  ASSERT_LT(withoutWal, all);

  Answer open = tesk(args, home.path(), tmp.path());
  ASSERT_EQ(open.exit, 0) << open.text;
  {
    ExclusiveHolder browser(history);
    ASSERT_NE(count(history, "SELECT COUNT(*) FROM visits"), all) << "the lock is not held";
    Answer locked = tesk(args, home.path(), tmp.path());
    EXPECT_EQ(locked.exit, 0) << locked.text;
    ASSERT_TRUE(framed(locked));
    EXPECT_TRUE(has(locked.lines[0], "\"rows_total\":" + std::to_string(all) + ","))
        << locked.lines[0];
    // The same rows as the unlocked read, the -wal's newest visits included.
    ASSERT_EQ(locked.lines.size(), open.lines.size());
    for (size_t k = 1; k + 1 < locked.lines.size(); ++k) {
      EXPECT_EQ(locked.lines[k], open.lines[k]) << "line " << k;
    }
    EXPECT_TRUE(snapshotsIn(tmp.path()).empty());
  }
}

// A chat.db large enough that copying it takes a while, locked so tesk must copy
// it; the run is killed as soon as its snapshot directory appears.
TEST(InterruptedRun, KilledDuringTheSnapshotLeavesNoDirectory) {
  tesk_test::TempHome home;
  const std::string chat = home.file("Library/Messages/chat.db");
  tesk_test::DB db = tesk_test::createStore(chat, "chatdb.sql");
  tesk_test::exec(db.get(),
                  "CREATE TABLE filler(b BLOB);"
                  "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 160)"
                  " INSERT INTO filler SELECT zeroblob(1000000) FROM n;");
  tesk_test::exec(db.get(),
                  "BEGIN EXCLUSIVE; INSERT INTO handle(id, service) VALUES ('lock', 'SMS');");

  int interrupted = 0;
  for (int round = 0; round < 2; ++round) {
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
      tesk_test::TempHome tmp;
      Child c = start({teskBinary(), "im", "--since", "1y"}, home.path(), tmp.path());
      ASSERT_GT(c.pid, 0);
      bool seen = false;
      for (int poll = 0; poll < 20000 && !seen; ++poll) {
        seen = !snapshotsIn(tmp.path()).empty();
        if (!seen) std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
      if (seen) kill(c.pid, sig);
      Answer a = finish(c);
      if (a.signal == sig) ++interrupted;
      EXPECT_TRUE(a.signal == sig || a.exit <= 5) << a.exit;
      EXPECT_TRUE(snapshotsIn(tmp.path()).empty())
          << strsignal(sig) << " left a snapshot (exit " << a.exit << ")";
    }
  }
  EXPECT_GT(interrupted, 0) << "no run was caught during its snapshot";
  RecordProperty("interrupted_runs", interrupted);
}

}  // namespace
