// Test homes: a private directory removed at the end of the test, and SQLite stores
// created in it from the real schema text kept under tests/data/schemas.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace tesk_test {

struct CloseDB {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using DB = std::unique_ptr<sqlite3, CloseDB>;

// A private directory, removed with everything in it when the test ends.
class TempHome {
 public:
  TempHome() {
    std::string pattern = (std::filesystem::temp_directory_path() / "tesk-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    EXPECT_FALSE(path_.empty()) << "mkdtemp in " << std::filesystem::temp_directory_path();
  }
  ~TempHome() {
    std::error_code ec;
    if (!path_.empty()) std::filesystem::remove_all(path_, ec);
  }
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& path() const { return path_; }
  // `relative` under the home (a leading slash allowed), with its parent directories created.
  std::string file(const std::string& relative) const {
    std::filesystem::path p =
        std::filesystem::path(path_) / relative.substr(!relative.empty() && relative[0] == '/');
    std::filesystem::create_directories(p.parent_path());
    return p.string();
  }
  // Writes `bytes` to file(relative) and returns its full path.
  std::string write(const std::string& relative, std::string_view bytes) const {
    std::string full = file(relative);
    std::ofstream(full, std::ios::binary | std::ios::trunc) << bytes;
    return full;
  }

 private:
  std::string path_;
};

// The whole file, or "" when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Writes `bytes` to `path`, creating its parent directories.
inline void writeFile(const std::string& path, std::string_view bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// A schema file from tests/data/schemas.
inline std::string schema(const std::string& name) {
  std::string text = readFile(std::string(TESK_TEST_DATA) + "/schemas/" + name);
  EXPECT_FALSE(text.empty()) << name;
  return text;
}

// Opens (creating) `path` read-write, as the owning application would; fails the test on error.
inline DB openDB(const std::string& path) {
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
  EXPECT_EQ(rc, SQLITE_OK) << (err ? err : "") << "\n" << sql.substr(0, 200);
  sqlite3_free(err);
}

// Runs `sql` (schema and rows) in the store at `path`, creating it and its folders.
inline void makeDB(const std::string& path, const std::string& sql) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  DB db = openDB(path);
  exec(db.get(), "PRAGMA synchronous=OFF;");  // fixtures need no durability
  exec(db.get(), sql);
}

// Creates `path` and loads the schema file tests/data/schemas/<name>.
inline DB createStore(const std::string& path, const std::string& name) {
  DB db = openDB(path);
  exec(db.get(), "PRAGMA synchronous=OFF;");  // fixtures need no durability
  std::string sql = schema(name);
  // Dumps carry SQLite's own bookkeeping table, which cannot be created by hand.
  const std::string internal = "CREATE TABLE sqlite_sequence(name,seq);";
  if (auto at = sql.find(internal); at != std::string::npos) sql.erase(at, internal.size());
  exec(db.get(), sql);
  return db;
}

// A statement with positional binds, for inserting fixture rows.
class Insert {
 public:
  Insert(sqlite3* db, const std::string& sql) {
    EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr), SQLITE_OK)
        << sqlite3_errmsg(db);
  }
  ~Insert() { sqlite3_finalize(stmt_); }
  Insert(const Insert&) = delete;
  Insert& operator=(const Insert&) = delete;

  Insert& i(int64_t v) {
    sqlite3_bind_int64(stmt_, ++n_, v);
    return *this;
  }
  Insert& d(double v) {
    sqlite3_bind_double(stmt_, ++n_, v);
    return *this;
  }
  Insert& t(std::string_view v) {
    sqlite3_bind_text(stmt_, ++n_, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Insert& b(const std::vector<uint8_t>& v) {
    sqlite3_bind_blob(stmt_, ++n_, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
    return *this;
  }
  Insert& null() {
    sqlite3_bind_null(stmt_, ++n_);
    return *this;
  }
  void run() {
    EXPECT_EQ(sqlite3_step(stmt_), SQLITE_DONE) << sqlite3_errmsg(sqlite3_db_handle(stmt_));
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    n_ = 0;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int n_ = 0;
};

// An attributedBody laid out like Messages writes it (typedstream of an
// NSMutableAttributedString whose string length counts UTF-8 bytes).
inline std::vector<uint8_t> attributedBody(std::string_view text) {
  std::string s("\x04\x0bstreamtyped\x81\xe8\x03\x84\x01@\x84\x84\x84\x19", 21);
  s += "NSMutableAttributedString";
  s += std::string("\x00\x84\x84\x12", 4) + "NSAttributedString";
  s += std::string("\x00\x84\x84\x08", 4) + "NSObject";
  s += std::string("\x00\x85\x92\x84\x84\x84\x0f", 7) + "NSMutableString";
  s += std::string("\x01\x84\x84\x08", 4) + "NSString";
  s += std::string("\x01\x95\x84\x01+", 5);
  if (text.size() < 0x80) {
    s += static_cast<char>(text.size());
  } else {
    s += '\x81';
    s += static_cast<char>(text.size() & 0xFF);
    s += static_cast<char>((text.size() >> 8) & 0xFF);
  }
  s += text;
  s += '\x86';
  return std::vector<uint8_t>(s.begin(), s.end());
}

}  // namespace tesk_test
