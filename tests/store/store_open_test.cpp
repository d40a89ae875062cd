// Opening a store another application owns: live read-only when that handle sees
// the whole WAL, a private snapshot otherwise, and never a stale or silent read.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "common/TeskTestHome.h"
#include "store/TeskStore.h"

namespace {

using tesk_test::exec;
using tesk_test::makeDB;
using tesk_test::openDB;
using tesk_test::TempHome;
namespace fs = std::filesystem;

int64_t countRows(TeskStore& store, const std::string& table = "t") {
  return store.scalarInt("SELECT COUNT(*) FROM " + table).value_or(-1);
}

// Directories this process's snapshots would leave behind in `dir`.
int leftoverSnapshots(const fs::path& dir) {
  int n = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("tesk-snapshot-", 0) == 0) ++n;
  }
  return n;
}

class StoreOpenTest : public ::testing::Test {
 protected:
  // Snapshots go to their own folder so a leftover is seen, not guessed.
  TeskStore::Environment env() const { return {nullptr, tmp_.path()}; }

  TempHome dir_;
  TempHome tmp_;
};

TEST_F(StoreOpenTest, LiveReadOnlySeesFramesStillInTheWal) {
  std::string path = dir_.file("chat.db");
  auto writer = openDB(path);
  exec(writer.get(),
       "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;"
       "CREATE TABLE t(x); INSERT INTO t VALUES (1);");
  exec(writer.get(), "INSERT INTO t VALUES (2); INSERT INTO t VALUES (3);");
  ASSERT_TRUE(fs::exists(path + "-wal"));
  ASSERT_GT(fs::file_size(path + "-wal"), 0u);

  TeskStore store(path, env());
  EXPECT_EQ(store.mode(), TeskOpenMode::liveReadOnly);
  EXPECT_EQ(countRows(store), 3);
  EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);  // no copy was made

  // One run answers from one commit: rows and the receipt's counts agree even while
  // the owner writes. The next open sees the new row.
  exec(writer.get(), "INSERT INTO t VALUES (4);");
  EXPECT_EQ(countRows(store), 3);
  TeskStore next(path, env());
  EXPECT_EQ(next.mode(), TeskOpenMode::liveReadOnly);
  EXPECT_EQ(countRows(next), 4);
  // The store never wrote: the owner can still write and checkpoint.
  exec(writer.get(), "PRAGMA wal_checkpoint(TRUNCATE);");
}

TEST_F(StoreOpenTest, WalHeaderWithoutWalFileIsCopiedNotGivenNewFiles) {
  std::string path = dir_.file("walheader.db");
  // The last close checkpoints and deletes the -wal.
  makeDB(path, "PRAGMA journal_mode=WAL; CREATE TABLE t(x); INSERT INTO t VALUES (1);");
  ASSERT_FALSE(fs::exists(path + "-wal"));
  {
    // A live handle on a WAL-format file would create -wal and -shm beside it.
    TeskStore store(path, env());
    EXPECT_EQ(store.mode(), TeskOpenMode::snapshot);
    EXPECT_EQ(countRows(store), 1);
  }
  EXPECT_FALSE(fs::exists(path + "-wal"));
  EXPECT_FALSE(fs::exists(path + "-shm"));
}

TEST_F(StoreOpenTest, LockedStoreIsReadThroughSnapshotIncludingWal) {
  std::string path = dir_.file("History");
  auto writer = openDB(path);
  exec(writer.get(),
       "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;"
       "CREATE TABLE t(x); INSERT INTO t VALUES (1), (2);");
  // The browser's way: an exclusive lock held for as long as it runs.
  exec(writer.get(), "PRAGMA locking_mode=EXCLUSIVE; INSERT INTO t VALUES (3);");
  ASSERT_GT(fs::file_size(path + "-wal"), 0u);
  const auto walSize = fs::file_size(path + "-wal");
  const auto dbSize = fs::file_size(path);
  const auto dbTime = fs::last_write_time(path);

  std::string snapshotDir;
  {
    TeskStore store(path, env());
    EXPECT_EQ(store.mode(), TeskOpenMode::snapshot);
    EXPECT_EQ(store.path(), path);   // errors and receipts name the live path
    EXPECT_EQ(countRows(store), 3);  // the rows still in the -wal are there
    snapshotDir = store.snapshotDirectory();
    ASSERT_FALSE(snapshotDir.empty());
    EXPECT_TRUE(fs::exists(fs::path(snapshotDir) / "History"));
    EXPECT_EQ(fs::path(snapshotDir).parent_path(), tmp_.path());
    EXPECT_EQ(fs::path(snapshotDir)
                  .filename()
                  .string()
                  .rfind("tesk-snapshot-" + std::to_string(::getpid()) + "-", 0),
              0u);
  }
  EXPECT_FALSE(fs::exists(snapshotDir));
  EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);
  // Reading the copy (which checkpoints when it closes) left the owner's files alone.
  EXPECT_EQ(fs::file_size(path + "-wal"), walSize);
  EXPECT_EQ(fs::file_size(path), dbSize);
  EXPECT_EQ(fs::last_write_time(path), dbTime);
  exec(writer.get(), "INSERT INTO t VALUES (4);");  // and the owner still holds its lock
}

TEST_F(StoreOpenTest, SnapshotDirectoryFollowsTheStoreThroughMoves) {
  std::string path = dir_.file("moved.db");
  auto writer = openDB(path);
  exec(writer.get(),
       "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0; PRAGMA locking_mode=EXCLUSIVE;"
       "CREATE TABLE t(x); INSERT INTO t VALUES (1);");
  auto held = std::make_unique<TeskStore>(path, env());
  ASSERT_EQ(held->mode(), TeskOpenMode::snapshot);
  {
    TeskStore moved(std::move(*held));
    held.reset();  // the moved-from shell owns nothing
    EXPECT_EQ(leftoverSnapshots(tmp_.path()), 1);
    EXPECT_EQ(countRows(moved), 1);

    TeskStore other(path, env());
    EXPECT_EQ(leftoverSnapshots(tmp_.path()), 2);
    other = std::move(moved);  // the replaced store's copy goes at once
    EXPECT_EQ(leftoverSnapshots(tmp_.path()), 1);
    EXPECT_EQ(countRows(other), 1);
  }
  EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);
}

TEST_F(StoreOpenTest, WalWhoseCopyIsNotInWalModeIsRefusedAsStale) {
  // Two ways a -wal sits beside a file whose copy cannot open in WAL mode: an
  // empty main file (SQLite drops the -wal of an empty database) and a file that
  // is no database at all (the journal mode cannot be read).
  struct Case {
    const char* name;
    std::string main;
  };
  for (const Case& c :
       std::vector<Case>{{"empty.db", ""}, {"foreign.db", std::string(4096, 'g')}}) {
    SCOPED_TRACE(c.name);
    std::string path = dir_.file(c.name);
    { std::ofstream(path, std::ios::binary) << c.main; }
    { std::ofstream(path + "-wal", std::ios::binary) << std::string(64, '\x5a'); }
    try {
      TeskStore store(path, env());
      ADD_FAILURE() << "opened in mode " << rawValue(store.mode());
    } catch (const TeskStoreError& e) {
      EXPECT_EQ(e.kind(), TeskStoreError::Kind::staleWAL);
      EXPECT_EQ(e.description(), "would read stale data from " + path +
                                     ": -wal present but the snapshot did not open in WAL mode; "
                                     "refusing a stale read");
      EXPECT_STREQ(e.what(), e.description().c_str());
    }
    EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);
    // The owner's files are untouched.
    EXPECT_EQ(fs::file_size(path + "-wal"), 64u);
    EXPECT_EQ(fs::file_size(path), c.main.size());
  }
}

TEST_F(StoreOpenTest, RollbackStoreWithAForeignWalReadsItsOwnRows) {
  // A -wal without a valid header holds no frames: the copy reads the whole
  // database (the live handle, which would open -shm beside it, is not used).
  std::string path = dir_.file("rollback.db");
  makeDB(path, "CREATE TABLE t(x); INSERT INTO t VALUES (1);");
  { std::ofstream(path + "-wal", std::ios::binary) << std::string(64, '\x5a'); }
  TeskStore store(path, env());
  EXPECT_EQ(store.mode(), TeskOpenMode::snapshot);
  EXPECT_EQ(countRows(store), 1);
  EXPECT_FALSE(fs::exists(path + "-shm"));
}

TEST_F(StoreOpenTest, PathsWithUriCharactersOpenLive) {
  // "?" and "#" would end the file name inside a URI; "%" would start an escape.
  for (std::string name : {"a?b.db", "c#d.db", "e%20f.db", "sp ace.db", "ünï.db", "x&y=z;.db"}) {
    SCOPED_TRACE(name);
    std::string path = dir_.file("q?uery#frag/" + name);
    makeDB(path, "CREATE TABLE t(x); INSERT INTO t VALUES ('" + name + "');");
    TeskStore store(path, env());
    EXPECT_EQ(store.mode(), TeskOpenMode::plain);  // the live URI found the file
    EXPECT_EQ(countRows(store), 1);
  }
  EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);
}

TEST_F(StoreOpenTest, OpenErrorsNameTheAskedPath) {
  std::string missing = dir_.file("none.db");
  std::string unreadable = dir_.file("locked-away.db");
  { std::ofstream(unreadable) << "x"; }
  std::string notADir = dir_.file("a-file");
  { std::ofstream(notADir) << "x"; }
  std::string garbage = dir_.file("garbage.db");
  { std::ofstream(garbage) << std::string(4096, 'g'); }

  struct Case {
    std::string path;
    TeskStore::Environment env;
    TeskStoreError::Kind kind;
    std::string description;  // a prefix when `prefix` is set
    bool prefix;
  };
  // Root reads anything, so the unreadable branch is driven through the seam.
  auto denyAll = [](const std::string&) { return false; };
  std::vector<Case> cases = {
      {missing, env(), TeskStoreError::Kind::denied, "cannot read " + missing + ": no such file",
       false},
      {unreadable,
       {denyAll, tmp_.path()},
       TeskStoreError::Kind::denied,
       "cannot read " + unreadable +
           ": permission denied — grant Full Disk Access to this binary's parent process",
       false},
      // Not a database: the live probe fails, and the copy cannot go under a file.
      {garbage,
       {nullptr, notADir},
       TeskStoreError::Kind::denied,
       "cannot read " + garbage + ": snapshot failed: ",
       true},
      // A directory where the store should be: refused before SQLite or a copy meets it.
      {dir_.path(), env(), TeskStoreError::Kind::denied,
       "cannot read " + dir_.path() + ": not a regular file (a directory)", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    try {
      TeskStore store(c.path, c.env);
      ADD_FAILURE() << "opened in mode " << rawValue(store.mode());
    } catch (const TeskStoreError& e) {
      EXPECT_EQ(e.kind(), c.kind);
      EXPECT_EQ(e.path(), c.path);
      if (c.prefix) {
        EXPECT_EQ(e.description().rfind(c.description, 0), 0u) << e.description();
        EXPECT_GT(e.description().size(), c.description.size());  // the platform's reason
      } else {
        EXPECT_EQ(e.description(), c.description);
      }
    }
  }
  EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);
}

TEST_F(StoreOpenTest, NotADatabaseOpensAsSnapshotAndFailsItsStatements) {
  std::string path = dir_.file("garbage.db");
  { std::ofstream(path) << std::string(4096, 'g'); }
  TeskStore store(path, env());
  EXPECT_EQ(store.mode(), TeskOpenMode::snapshot);
  try {
    store.query("SELECT * FROM t", [](const TeskRowReader&) {});
    FAIL();
  } catch (const TeskStoreError& e) {
    EXPECT_EQ(e.description(), "sql: file is not a database");
  }
  EXPECT_FALSE(store.tableExists("t"));
}

TEST_F(StoreOpenTest, SourceModifiedIsTheNewestOfDbWalAndShm) {
  std::string path = dir_.file("times.db");
  auto writer = openDB(path);
  exec(writer.get(), "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0; CREATE TABLE t(x);");
  auto setTime = [](const std::string& p, time_t sec, long nsec) {
    struct timespec ts[2] = {{sec, nsec}, {sec, nsec}};
    ASSERT_EQ(::utimensat(AT_FDCWD, p.c_str(), ts, 0), 0) << p;
  };
  setTime(path, 1700000000, 0);
  setTime(path + "-wal", 1700000500, 250000000);
  setTime(path + "-shm", 1700000100, 0);
  TeskStore store(path, env());
  EXPECT_DOUBLE_EQ(store.sourceModified(), 1700000500.25);

  setTime(path + "-shm", 1700000900, 0);
  TeskStore later(path, env());
  EXPECT_DOUBLE_EQ(later.sourceModified(), 1700000900.0);
}

TEST_F(StoreOpenTest, DefaultTemporaryDirectoryComesFromTMPDIR) {
  std::string path = dir_.file("env.db");
  auto writer = openDB(path);
  exec(writer.get(), "PRAGMA journal_mode=WAL; PRAGMA locking_mode=EXCLUSIVE; CREATE TABLE t(x);");
  const char* old = std::getenv("TMPDIR");
  std::string saved = old ? old : "";
  ::setenv("TMPDIR", tmp_.path().c_str(), 1);
  {
    TeskStore store(path);
    EXPECT_EQ(store.mode(), TeskOpenMode::snapshot);
    EXPECT_EQ(fs::path(store.snapshotDirectory()).parent_path(), tmp_.path());
  }
  if (old) {
    ::setenv("TMPDIR", saved.c_str(), 1);
  } else {
    ::unsetenv("TMPDIR");
  }
  EXPECT_EQ(leftoverSnapshots(tmp_.path()), 0);
}

TEST_F(StoreOpenTest, SqlFunctionsAreInstalledInEveryMode) {
  std::string plain = dir_.file("p.db");
  makeDB(plain, "CREATE TABLE t(x);");
  std::string locked = dir_.file("l.db");
  auto w = openDB(locked);
  exec(w.get(), "PRAGMA journal_mode=WAL; PRAGMA locking_mode=EXCLUSIVE; CREATE TABLE t(x);");
  for (const std::string& path : {plain, locked}) {
    TeskStore store(path, env());
    EXPECT_EQ(store.scalarText("SELECT tesk_iso(tesk_ts(0))"), "1970-01-01T00:00:00Z");
  }
}

}  // namespace
