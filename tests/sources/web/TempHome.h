// A throw-away home directory for reader tests, and tiny SQLite stores written
// into it from schema text, so each test builds exactly the store it needs.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

namespace tesk_test {

class TempHome {
 public:
  TempHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tesk-home-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempHome() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& path() const { return path_; }

  // `relative` under the home, with its parent directories created.
  std::string file(const std::string& relative) const {
    std::filesystem::path p = std::filesystem::path(path_) / relative.substr(relative[0] == '/');
    std::filesystem::create_directories(p.parent_path());
    return p.string();
  }

 private:
  std::string path_;
};

struct CloseDB {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using DB = std::unique_ptr<sqlite3, CloseDB>;

// Opens (creating) a read-write connection; fails the test on error.
inline DB openDB(const std::string& path) {
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  DB db(raw);
  EXPECT_EQ(rc, SQLITE_OK) << path;
  return db;
}

inline void exec(sqlite3* db, const std::string& sql) {
  char* err = nullptr;
  int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
  EXPECT_EQ(rc, SQLITE_OK) << (err ? err : "") << "\n" << sql.substr(0, 200);
  sqlite3_free(err);
}

// A new store at `path` holding `sql` (schema and rows).
inline void makeDB(const std::string& path, const std::string& sql) {
  DB db = openDB(path);
  exec(db.get(), "PRAGMA synchronous=OFF;");  // fixtures need no durability
  exec(db.get(), sql);
}

inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(in.good()) << path;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

// A schema file from tests/data/schemas.
inline std::string schema(const std::string& name) {
  return readFile(std::string(TESK_TEST_DATA) + "/schemas/" + name);
}

}  // namespace tesk_test
