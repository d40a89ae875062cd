// A whole demo home at small scale: the live -wal files the reliability tests
// lock and read through, and the binary's refusals to write over a real home.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Home.h"
#include "Sqlite.h"
#include "common/TeskTestHome.h"

namespace fs = std::filesystem;

namespace demohome {
namespace {

constexpr int64_t kNow = 1795000000;  // 2026-11-18T11:06:40Z

using TempDir = tesk_test::TempHome;

// Reads a store the way a reader does: read-only URI, so the -wal is seen.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(("file:" + path + "?mode=ro").c_str(), &raw,
                    SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    db_.reset(raw);
  }
  // The first column of the first row, as a number and as text.
  double num(const std::string& sql) const { return std::stod("0" + text(sql)); }
  std::string text(const std::string& sql) const {
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &st, nullptr), SQLITE_OK) << sql;
    std::string v;
    if (st && sqlite3_step(st) == SQLITE_ROW && sqlite3_column_text(st, 0)) {
      v = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
    }
    sqlite3_finalize(st);
    return v;
  }

 private:
  tesk_test::DB db_;
};

Options smallOptions(const std::string& target, uint64_t rng = 7, Link link = Link::complete) {
  Options o;
  o.target = target;
  o.scale = Scale::small;
  o.now = kNow;
  o.rng = rng;
  o.link = link;
  o.zone = "America/Los_Angeles";
  return o;
}

class DemoHome : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    generate(smallOptions(dir_->path()), nullptr);
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static std::string at(const std::string& rel) { return dir_->path() + "/" + rel; }
  static TempDir* dir_;
};
TempDir* DemoHome::dir_ = nullptr;

// A live store: the read-only URI sees every row, the database file alone does not.
TEST_F(DemoHome, LiveStoresKeepRowsInTheirWal) {
  const std::pair<std::string, std::string> stores[] = {
      {"Library/Messages/chat.db", "message"},
      {"Library/Application Support/Google/Chrome/Default/History", "visits"},
      {"Library/Group Containers/group.com.apple.notes/NoteStore.sqlite", "ZICCLOUDSYNCINGOBJECT"},
  };
  for (const auto& [rel, table] : stores) {
    SCOPED_TRACE(rel);
    ASSERT_GT(fs::file_size(at(rel) + "-wal"), 0u);
    TempDir copy;
    fs::copy_file(at(rel), copy.path() + "/db");
    const std::string count = "SELECT COUNT(*) FROM " + table;
    EXPECT_LT(Reader(copy.path() + "/db").num(count), Reader(at(rel)).num(count));
  }
  // Stores that are not live leave no -wal behind.
  EXPECT_FALSE(fs::exists(at("Library/Mail/V10/MailData/Envelope Index-wal")));
}

// ---- the binary ----

struct BinaryRun {
  int code;
  std::string err;
};

BinaryRun runBinary(const std::string& args, const std::string& home) {
  TempDir out;
  const std::string cmd = "HOME='" + home + "' '" + std::string(TESK_BINARY_DIR) +
                          "/tesk-demo-home' " + args + " >/dev/null 2>'" + out.path() + "/err'";
  const int status = std::system(cmd.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, tesk_test::readFile(out.path() + "/err")};
}

TEST(DemoHomeBinary, RefusesHomesAndForeignDirectoriesAndReplacesItsOwn) {
  TempDir home, foreign, demo;
  std::ofstream(foreign.path() + "/keep.txt") << "mine";

  BinaryRun r = runBinary("'" + home.path() + "' --scale small", home.path());
  EXPECT_NE(r.code, 0);
  EXPECT_NE(r.err.find("tesk-demo-home: refusing to write into your real home"), std::string::npos)
      << r.err;
  EXPECT_TRUE(fs::is_empty(home.path()));

  r = runBinary("'" + foreign.path() + "' --scale small", home.path());
  EXPECT_NE(r.code, 0);
  EXPECT_NE(r.err.find("is not a demo home"), std::string::npos) << r.err;
  EXPECT_EQ(tesk_test::readFile(foreign.path() + "/keep.txt"), "mine");

  r = runBinary("'" + demo.path() + "' --scale small --now 1795000000", home.path());
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(fs::exists(demo.path() + "/.tesk-demo-home"));
  std::ofstream(demo.path() + "/stray.txt") << "left over";
  r = runBinary("'" + demo.path() + "' --scale small --now 1795000000", home.path());
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(fs::exists(demo.path() + "/stray.txt"));
  EXPECT_TRUE(fs::exists(demo.path() + "/Library/Messages/chat.db-wal"));

  for (const char* bad : {"--scale huge", "--link sideways", "--now soon", "--bogus"}) {
    r = runBinary("'" + demo.path() + "' " + bad, home.path());
    EXPECT_EQ(r.code, 2) << bad;
    EXPECT_EQ(r.err.rfind("tesk-demo-home: ", 0), 0u) << r.err;
  }
}

}  // namespace
}  // namespace demohome
