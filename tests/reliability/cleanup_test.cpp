// A snapshot directory is removed even when the process is killed by SIGINT,
// SIGTERM or SIGHUP while the store is open, and the table that makes that possible.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "common/TeskTestHome.h"
#include "reliability/reliability_support.h"
#include "store/TeskCleanup.h"
#include "store/TeskStore.h"

namespace {

namespace fs = std::filesystem;

// A rollback-journal store held under an exclusive lock by this process, so a
// TeskStore opened in a child process must read it through a snapshot.
struct LockedStore {
  tesk_test::TempHome dir;
  std::string path = dir.file("chat.db");
  tesk_test::DB owner = tesk_test::createStore(path, "chatdb.sql");
  LockedStore() {
    tesk_test::exec(owner.get(),
                    "BEGIN EXCLUSIVE; INSERT INTO handle(id, service) VALUES('x', 'iMessage');");
  }
};

// Forks; the child opens `path` with snapshots under `tmp`, reports the snapshot
// directory on a pipe, then runs `then`. Returns the child's wait status and the
// directory it reported.
std::pair<int, std::string> inChild(const std::string& path, const std::string& tmp,
                                    void (*then)()) {
  int fds[2];
  if (pipe(fds) != 0) return {-1, ""};
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    std::string dir;
    {
      try {
        TeskStore::Environment env;
        env.temporaryDirectory = tmp;
        TeskStore store(path, env);
        dir = store.snapshotDirectory();
        dir += '\n';
        if (write(fds[1], dir.data(), dir.size()) < 0) _exit(9);
        then();
      } catch (...) {
        _exit(8);
      }
    }
    _exit(0);
  }
  close(fds[1]);
  std::string reported;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) reported.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!reported.empty() && reported.back() == '\n') reported.pop_back();
  return {status, reported};
}

TEST(SnapshotCleanup, KillingSignalRemovesTheOpenSnapshot) {
  LockedStore store;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
    tesk_test::TempHome tmp;
    static int current;
    current = sig;
    auto [status, dir] = inChild(store.path, tmp.path(), [] { raise(current); });
    ASSERT_TRUE(WIFSIGNALED(status)) << strsignal(sig) << " status " << status;
    EXPECT_EQ(WTERMSIG(status), sig) << "the process must still die of the signal";
    EXPECT_EQ(dir.rfind(tmp.path() + "/tesk-snapshot-", 0), 0u) << dir;
    EXPECT_FALSE(fs::exists(dir)) << strsignal(sig) << " left " << dir;
    EXPECT_TRUE(fs::is_empty(tmp.path()));
  }
}

// A run started with a signal ignored (nohup, a host's background job) keeps it
// ignored: the handlers only replace a default disposition.
TEST(SnapshotCleanup, IgnoredSignalIsNotTakenOver) {
  tesk_test::TempHome tmp;
  pid_t pid = fork();
  if (pid == 0) {
    signal(SIGTERM, SIG_IGN);
    TeskCleanup::remember(tmp.path() + "/d", tmp.path() + "/d/f");
    struct sigaction now;
    sigaction(SIGTERM, nullptr, &now);
    _exit(now.sa_handler == SIG_IGN ? 0 : 1);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "SIG_IGN was replaced";
}

TEST(SnapshotCleanup, TableRemembersForgetsAndRemoves) {
  TeskCleanup::removeAll();
  ASSERT_EQ(TeskCleanup::remembered(), 0);
  tesk_test::TempHome tmp;
  // removeAll deletes the copy, its siblings and the directory.
  const std::string dir = tmp.path() + "/tesk-snapshot-1-1";
  fs::create_directories(dir);
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    std::ofstream(dir + "/Envelope Index" + suffix) << "x";
  }
  ASSERT_TRUE(TeskCleanup::remember(dir, dir + "/Envelope Index"));
  EXPECT_EQ(TeskCleanup::remembered(), 1);
  TeskCleanup::removeAll();
  EXPECT_FALSE(fs::exists(dir));
  EXPECT_EQ(TeskCleanup::remembered(), 0);

  // A forgotten directory is left to its owner.
  fs::create_directories(dir);
  ASSERT_TRUE(TeskCleanup::remember(dir, dir + "/x"));
  TeskCleanup::forget(dir);
  TeskCleanup::forget("/never/remembered");
  TeskCleanup::removeAll();
  EXPECT_TRUE(fs::exists(dir));

  // The table is fixed: the slot after the last is refused, a freed one reused.
  for (int k = 0; k < TeskCleanup::kSlots; ++k) {
    EXPECT_TRUE(TeskCleanup::remember("/nonexistent/" + std::to_string(k), "/nonexistent/f"));
  }
  EXPECT_FALSE(TeskCleanup::remember("/nonexistent/full", "/nonexistent/f"));
  TeskCleanup::forget("/nonexistent/3");
  EXPECT_TRUE(TeskCleanup::remember("/nonexistent/again", "/nonexistent/f"));
  TeskCleanup::removeAll();
  EXPECT_EQ(TeskCleanup::remembered(), 0);
  // Paths that do not fit or are empty are refused rather than cut.
  EXPECT_FALSE(TeskCleanup::remember(std::string(5000, 'a'), "/x"));
  EXPECT_FALSE(TeskCleanup::remember("/x", ""));
  EXPECT_EQ(TeskCleanup::remembered(), 0);

  // A store that is released normally forgets its directory.
  LockedStore store;
  {
    TeskStore::Environment env;
    env.temporaryDirectory = tmp.path();
    TeskStore s(store.path, env);
    ASSERT_EQ(s.mode(), TeskOpenMode::snapshot);
    EXPECT_EQ(TeskCleanup::remembered(), 1);
  }
  EXPECT_EQ(TeskCleanup::remembered(), 0);
}

}  // namespace
