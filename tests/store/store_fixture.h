// Scratch stores for the store tests: a private temporary directory per test and
// a raw SQLite connection that plays the owning application (the writer).
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>

namespace store_test {

struct CloseDB {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using DB = std::unique_ptr<sqlite3, CloseDB>;

// Opens (creating) `path` read-write the ordinary way; fails the test on error.
inline DB openWriter(const std::string& path) {
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  DB db(raw);
  EXPECT_EQ(rc, SQLITE_OK) << path;
  return db;
}

// Runs `sql` on `db`; fails the test with SQLite's message on error.
inline void exec(sqlite3* db, const std::string& sql) {
  char* err = nullptr;
  int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
  EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << (err ? err : "");
  sqlite3_free(err);
}

// A directory removed with everything in it at the end of the test.
class ScratchDir {
 public:
  ScratchDir() {
    std::random_device rd;
    path_ = std::filesystem::temp_directory_path() /
            ("tesk-store-test-" + std::to_string(::getpid()) + "-" + std::to_string(rd()));
    std::filesystem::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

}  // namespace store_test
