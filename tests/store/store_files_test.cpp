// The files around a store: what may stand where a store or its companions should
// be (never a reader blocked on a pipe), a rollback journal left hot by a writer
// (never an answer from uncommitted pages), and the private copies tesk makes.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "common/TeskTestHome.h"
#include "store/TeskCleanup.h"
#include "store/TeskStore.h"

namespace {

using tesk_test::exec;
using tesk_test::openDB;
using tesk_test::TempHome;
namespace fs = std::filesystem;

// Runs `body` in a child process that may take `seconds` at most; what it wrote on
// the pipe, or "TIMED OUT" when the alarm ended it (a blocked open).
std::string inChild(const std::function<std::string()>& body, unsigned seconds = 10) {
  int fds[2];
  if (pipe(fds) != 0) return "no pipe";
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    alarm(seconds);
    std::string said = body();
    if (write(fds[1], said.data(), said.size()) < 0) _exit(9);
    _exit(0);
  }
  close(fds[1]);
  std::string said;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) said.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) return "TIMED OUT";
  return said;
}

// What opening `path` gives: the mode, or the error's text.
std::string openOutcome(const std::string& path, const std::string& tmp) {
  try {
    TeskStore store(path, {nullptr, tmp});
    return "opened " + std::string(rawValue(store.mode()));
  } catch (const TeskStoreError& e) {
    return e.description();
  }
}

enum class Thing { namedPipe, directory, socket, device };

const char* nameOf(Thing t) {
  switch (t) {
    case Thing::namedPipe:
      return "a named pipe";
    case Thing::directory:
      return "a directory";
    case Thing::socket:
      return "a socket";
    case Thing::device:
      return "a device";
  }
  return "";
}

// Puts `thing` at `path` (a device through a symbolic link to /dev/null).
void plant(Thing thing, const std::string& path) {
  switch (thing) {
    case Thing::namedPipe:
      ASSERT_EQ(mkfifo(path.c_str(), 0600), 0) << path;
      break;
    case Thing::directory:
      fs::create_directory(path);
      break;
    case Thing::socket: {
      int s = socket(AF_UNIX, SOCK_STREAM, 0);
      ASSERT_GE(s, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      ASSERT_LT(path.size(), sizeof address.sun_path) << path;
      std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
      ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
      close(s);  // the socket file stays
      break;
    }
    case Thing::device:
      fs::create_symlink("/dev/null", path);
      break;
  }
}

TEST(StoreFiles, AnythingButARegularFileIsDeniedWithoutBlocking) {
  for (Thing thing : {Thing::namedPipe, Thing::directory, Thing::socket, Thing::device}) {
    for (std::string suffix : {"", "-wal", "-shm", "-journal"}) {
      SCOPED_TRACE(std::string(nameOf(thing)) + " as db" + suffix);
      TempHome dir, tmp;
      const std::string path = dir.path() + "/s.db";
      if (!suffix.empty()) {
        auto w = openDB(path);
        exec(w.get(), "CREATE TABLE t(x); INSERT INTO t VALUES (1);");
      }
      plant(thing, path + suffix);
      const std::string detail = "not a regular file (" + std::string(nameOf(thing)) + ")";
      EXPECT_EQ(
          inChild([&] { return openOutcome(path, tmp.path()); }),
          "cannot read " + path + ": " + (suffix.empty() ? "" : "its " + suffix + " is ") + detail);
      EXPECT_TRUE(fs::is_empty(tmp.path())) << "a copy was started";
    }
  }
}

// A table whose every row is about one page, so an update of all of them spills
// uncommitted pages into the main file once the page cache is full.
constexpr int kRows = 120;

void makeCommitted(const std::string& path, const char* journalMode) {
  auto w = openDB(path);
  exec(w.get(), std::string("PRAGMA journal_mode=") + journalMode + ";");
  exec(w.get(),
       "CREATE TABLE t(id INTEGER PRIMARY KEY, x TEXT);"
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
           std::to_string(kRows) +
           ") INSERT INTO t SELECT i, 'committed-' || printf('%03000d', i) FROM n;");
}

// Starts the owner's transaction: every row rewritten, far more pages than the cache
// holds, so SQLite writes changed pages into the main file before any commit.
void spillUncommitted(sqlite3* db) {
  exec(db, "PRAGMA cache_size=1; BEGIN;");
  exec(db, "UPDATE t SET x = 'uncommitted-' || printf('%03000d', id);");
}

bool fileHolds(const std::string& path, const std::string& text) {
  return tesk_test::readFile(path).find(text) != std::string::npos;
}

// What a reader opening the store sees: mode, rows, rows carrying uncommitted text.
std::string readerView(const std::string& path, const std::string& tmp) {
  try {
    TeskStore store(path, {nullptr, tmp});
    auto all = store.scalarInt("SELECT COUNT(*) FROM t");
    auto torn = store.scalarInt("SELECT COUNT(*) FROM t WHERE x LIKE 'uncommitted-%'");
    return std::string(rawValue(store.mode())) + " " + std::to_string(all.value_or(-1)) + " " +
           std::to_string(torn.value_or(-1));
  } catch (const TeskStoreError& e) {
    return e.description();
  }
}

TEST(StoreFiles, WriterMidTransactionIsReadAsCommitted) {
  for (const char* journalMode : {"DELETE", "TRUNCATE", "PERSIST"}) {
    SCOPED_TRACE(journalMode);
    TempHome dir, tmp;
    const std::string path = dir.path() + "/History";
    makeCommitted(path, journalMode);
    // The owner is another process that holds its transaction open until told.
    int go[2], ready[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(ready), 0);
    pid_t owner = fork();
    if (owner == 0) {
      close(go[1]);
      close(ready[0]);
      alarm(30);
      sqlite3* raw = nullptr;
      sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
      exec(raw, std::string("PRAGMA journal_mode=") + journalMode + ";");
      spillUncommitted(raw);
      if (write(ready[1], "r", 1) < 0) _exit(9);
      char c;
      if (read(go[0], &c, 1) < 0) _exit(9);
      exec(raw, "ROLLBACK;");
      sqlite3_close_v2(raw);
      _exit(0);
    }
    close(go[0]);
    close(ready[1]);
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_TRUE(fileHolds(path, "uncommitted-")) << "the owner's pages never reached the file";
    ASSERT_TRUE(fs::exists(path + "-journal"));

    EXPECT_EQ(inChild([&] { return readerView(path, tmp.path()); }),
              "snapshot " + std::to_string(kRows) + " 0");
    EXPECT_TRUE(fs::is_empty(tmp.path()));
    EXPECT_TRUE(fileHolds(path, "uncommitted-")) << "the reader changed the owner's file";

    ASSERT_EQ(write(go[1], "g", 1), 1);
    close(go[1]);
    close(ready[0]);
    int status = 0;
    waitpid(owner, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  }
}

TEST(StoreFiles, CrashedWriterLeavesAJournalThatIsRolledBackInTheCopy) {
  TempHome dir, tmp;
  const std::string path = dir.path() + "/History";
  makeCommitted(path, "DELETE");
  pid_t owner = fork();
  if (owner == 0) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    spillUncommitted(raw);
    _exit(0);  // no commit, no rollback, no close: the journal stays hot
  }
  int status = 0;
  waitpid(owner, &status, 0);
  ASSERT_TRUE(fileHolds(path, "uncommitted-"));
  ASSERT_TRUE(fs::exists(path + "-journal"));
  const std::string db = tesk_test::readFile(path);
  const std::string journal = tesk_test::readFile(path + "-journal");

  // Nobody holds a lock now, so the live read-only open would succeed on its own.
  EXPECT_EQ(inChild([&] { return readerView(path, tmp.path()); }),
            "snapshot " + std::to_string(kRows) + " 0");
  EXPECT_TRUE(fs::is_empty(tmp.path()));
  // The owner's files are as the crash left them: recovery is the owner's business.
  EXPECT_TRUE(tesk_test::readFile(path) == db);
  EXPECT_TRUE(tesk_test::readFile(path + "-journal") == journal);
}

TEST(StoreFiles, CommittedPersistJournalDoesNotForceACopy) {
  TempHome dir, tmp;
  const std::string path = dir.path() + "/p.db";
  makeCommitted(path, "PERSIST");
  ASSERT_TRUE(fs::exists(path + "-journal"));  // kept, its header zeroed
  EXPECT_EQ(readerView(path, tmp.path()), "plain " + std::to_string(kRows) + " 0");
}

// Snapshot copies are private: a 0700 directory of 0600 files.
TEST(StoreFiles, SnapshotIsOnlyForThisUser) {
  TempHome dir, tmp;
  const std::string path = dir.path() + "/chat.db";
  auto owner = openDB(path);
  exec(owner.get(),
       "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0; PRAGMA locking_mode=EXCLUSIVE;"
       "CREATE TABLE t(x); INSERT INTO t VALUES (1);");
  fs::permissions(path, fs::perms::all);
  const mode_t saved = umask(0);  // the mode must not depend on a careful umask
  {
    TeskStore store(path, {nullptr, tmp.path()});
    ASSERT_EQ(store.mode(), TeskOpenMode::snapshot);
    EXPECT_EQ(fs::status(store.snapshotDirectory()).permissions(), fs::perms::owner_all);
    int files = 0;
    for (const auto& e : fs::directory_iterator(store.snapshotDirectory())) {
      ++files;
      EXPECT_EQ(e.status().permissions(), fs::perms::owner_read | fs::perms::owner_write)
          << e.path();
    }
    EXPECT_GE(files, 2);  // the db and its -wal at least
  }
  umask(saved);
}

// A run killed outright leaves its snapshot; the next run that copies a store
// removes it, and only what is surely a dead run's own.
TEST(StoreFiles, SnapshotsOfKilledRunsAreSweptByTheNextRun) {
  TempHome dir, tmp, elsewhere;
  const std::string path = dir.path() + "/chat.db";
  auto owner = openDB(path);
  exec(owner.get(),
       "PRAGMA journal_mode=WAL; PRAGMA locking_mode=EXCLUSIVE;"
       "CREATE TABLE t(x); INSERT INTO t VALUES (1);");

  // A run killed by SIGKILL while its snapshot is open.
  pid_t killed = fork();
  if (killed == 0) {
    TeskStore store(path, {nullptr, tmp.path()});
    raise(SIGKILL);
    _exit(0);
  }
  int status = 0;
  waitpid(killed, &status, 0);
  ASSERT_TRUE(WIFSIGNALED(status));
  std::vector<std::string> left;
  for (const auto& e : fs::directory_iterator(tmp.path())) left.push_back(e.path().string());
  ASSERT_EQ(left.size(), 1u);
  ASSERT_EQ(fs::path(left[0]).filename().string().rfind(
                "tesk-snapshot-" + std::to_string(killed) + "-", 0),
            0u);

  // What is not surely a dead run's own stays: a live process's, a link, a stranger.
  const std::string live = tmp.path() + "/tesk-snapshot-" + std::to_string(getppid()) + "-1";
  const std::string link = tmp.path() + "/tesk-snapshot-" + std::to_string(killed) + "-2";
  const std::string stranger = tmp.path() + "/tesk-snapshot-notes";
  fs::create_directory(live);
  fs::create_directory_symlink(elsewhere.path(), link);
  fs::create_directory(stranger);
  { std::ofstream(elsewhere.path() + "/keep") << "x"; }

  {
    TeskStore next(path, {nullptr, tmp.path()});
    ASSERT_EQ(next.mode(), TeskOpenMode::snapshot);
    EXPECT_FALSE(fs::exists(left[0])) << "the killed run's copy is still there";
  }
  EXPECT_TRUE(fs::exists(live));
  EXPECT_TRUE(fs::is_symlink(link));
  EXPECT_TRUE(fs::exists(stranger));
  EXPECT_TRUE(fs::exists(elsewhere.path() + "/keep"));
}

}  // namespace
