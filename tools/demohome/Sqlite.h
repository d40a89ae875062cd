// Thin RAII over the SQLite C API for writing the demo stores. Errors throw
// std::runtime_error: the generator stops at the first failure and says where.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace demohome {

// Makes SQLite's own randomness (WAL salts, temp names) a fixed sequence so that
// two runs with the same arguments write the same bytes. Call before any open.
void installFixedRandomnessVfs();

struct Null {};

class Stmt {
 public:
  Stmt(sqlite3* db, std::string_view sql);
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  // Binds the arguments to ?1..?n, steps once to completion and resets.
  template <typename... Args>
  void run(const Args&... args) {
    int i = 1;
    (bindOne(i++, args), ...);
    stepDone();
  }

 private:
  void bindOne(int i, int v);
  void bindOne(int i, int64_t v);
  void bindOne(int i, uint64_t v) { bindOne(i, static_cast<int64_t>(v)); }
  void bindOne(int i, long long v) { bindOne(i, static_cast<int64_t>(v)); }
  void bindOne(int i, bool v) { bindOne(i, v ? 1 : 0); }
  void bindOne(int i, double v);
  void bindOne(int i, const std::string& v);
  void bindOne(int i, const char* v);
  void bindOne(int i, Null);
  void bindOne(int i, const std::vector<uint8_t>& v);
  template <typename T>
  void bindOne(int i, const std::optional<T>& v) {
    if (v) {
      bindOne(i, *v);
    } else {
      bindOne(i, Null{});
    }
  }
  void stepDone();

  struct Finalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
  };
  sqlite3* db_;
  std::unique_ptr<sqlite3_stmt, Finalizer> stmt_;
};

// One store being written. Bulk mode (no journal, no sync) is fast and safe here
// because a failed run leaves a home that is rewritten from scratch anyway.
class Db {
 public:
  explicit Db(const std::string& path);
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  sqlite3* handle() const { return db_.get(); }
  // Runs one or more statements; throws with the store's path on error.
  void exec(std::string_view sql);
  // Executes the named compiled-in schema (tests/data/schemas/<name>*.sql).
  void schema(const char* name);
  // First column of the first row as an integer (0 when there is no row).
  int64_t scalar(std::string_view sql);
  void begin() { exec("BEGIN"); }
  void commit() { exec("COMMIT"); }

  // Switches a bulk-written store to WAL; the -wal is checkpointed away on close.
  void toWal();
  // Switches to WAL and keeps every later write in the -wal file: no automatic
  // checkpoint and none on close, like a store whose owner is still running.
  void toLiveWal();

 private:
  struct Closer {
    void operator()(sqlite3* d) const { sqlite3_close_v2(d); }
  };
  std::string path_;
  std::unique_ptr<sqlite3, Closer> db_;
};

}  // namespace demohome
