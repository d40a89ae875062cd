// One opened SQLite store that another application owns and may be writing right
// now. The store is never written: the live file is opened read-only, or, when
// that handle cannot prove it sees the whole write-ahead log, a private snapshot
// (db, -wal, -shm) is read instead. A read is never silently stale.
//
// Every statement goes through the small runner below: prepare, bind, step,
// hand each row to a callback (or to whoever pulls the next row), finalize. Callers
// never see a statement handle.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sources/messages/TeskDecode.h"
#include "store/TeskRowReader.h"
#include "store/TeskStoreError.h"
#include "store/TeskValue.h"

struct sqlite3;
struct sqlite3_stmt;
class TeskFunctions;

// How the connection was obtained.
enum class TeskOpenMode {
  liveReadOnly,  // "ro": live file, mode=ro, -wal exists and the handle reports wal
  snapshot,      // "snapshot": a private copy of db, -wal, -shm and a hot -journal
  plain,         // "plain": live file, mode=ro, no -wal file
};

// "ro", "snapshot" or "plain".
std::string_view rawValue(TeskOpenMode mode);

class TeskStore {
 public:
  // What the open asks of the platform; replaceable so tests can reach the
  // branches a root-run CI cannot (an unreadable file, a broken temp dir).
  struct Environment {
    // True when this process may read the file (default: access(R_OK)).
    std::function<bool(const std::string& path)> readable;
    // Where snapshot directories go (default: $TMPDIR, else /tmp).
    std::string temporaryDirectory;
  };

  // Opens `path`; throws TeskStoreError (denied, staleWAL). On success the tesk_*
  // SQL functions are installed on the connection.
  explicit TeskStore(std::string path);
  TeskStore(std::string path, Environment environment);
  // Closes the connection and removes the snapshot directory, if any.
  ~TeskStore();

  // Not copyable: it owns a connection and maybe a directory. Movable; a moved-from
  // store is closed (statements throw "closed", probes answer false).
  TeskStore(const TeskStore&) = delete;
  TeskStore& operator=(const TeskStore&) = delete;
  TeskStore(TeskStore&& other) noexcept;
  TeskStore& operator=(TeskStore&& other) noexcept;

  // The path as the caller gave it (never the snapshot copy).
  const std::string& path() const { return path_; }
  TeskOpenMode mode() const { return mode_; }
  // Newest modification time (unix seconds) of the file, -wal and -shm; 0 if none.
  double sourceModified() const { return sourceModified_; }
  // Every body this store's SQL functions decoded so far.
  TeskDecode::Census decodeCensus() const;
  // The SQL functions' state, for a producer that decodes rows it read raw (the same
  // census and memo as tesk_body); null on a closed store.
  TeskFunctions* functions() { return functions_.get(); }
  // The snapshot directory in snapshot mode, else empty (for tests and notes).
  const std::string& snapshotDirectory() const { return snapshot_.path(); }

  // Runs `sql` with `binds` on parameters 1, 2, ... and calls `row` for each result
  // row. Throws TeskStoreError::sql with SQLite's message on a prepare or step
  // error, "closed" on a closed store; an exception thrown by `row` stops the
  // iteration and propagates unchanged. The statement is always finalized.
  void query(const std::string& sql, const std::vector<TeskValue>& binds, TeskRowCallback row);
  void query(const std::string& sql, TeskRowCallback row) { query(sql, {}, row); }

  // A statement read one row at a time, for a producer that hands each row on as it
  // reads it (`query` is a cursor drained into a callback). It must not outlive its
  // store; several may be open on one store at once.
  class Cursor {
   public:
    // Prepares `sql` with `binds`; throws as `query` does.
    Cursor(TeskStore& store, const std::string& sql, const std::vector<TeskValue>& binds = {});
    // Steps onto the next row; false at the end, and on every call after it (SQLite
    // would start over). Throws TeskStoreError::sql with SQLite's message on a step
    // error.
    bool next();
    // The current row, valid until the next step.
    const TeskRowReader& row() const { return reader_; }
    // Starts the statement over with new binds.
    void rebind(const std::vector<TeskValue>& binds);

   private:
    struct Finalize {
      void operator()(sqlite3_stmt* stmt) const;
    };
    sqlite3* db_;
    std::unique_ptr<sqlite3_stmt, Finalize> stmt_;
    TeskRowReader reader_;
    bool done_ = false;
  };

  // True when a table or view named `name` exists. Never throws (false when unsure).
  bool tableExists(const std::string& name);
  // True when `table` has a column `column` (case-insensitive). Never throws; a
  // missing table is false.
  bool columnExists(const std::string& column, const std::string& table);
  // True when some index of `table` begins with `columns`, in that order
  // (case-insensitive). Never throws (false when unsure).
  bool indexLeadsWith(const std::string& table, const std::vector<std::string>& columns);
  // The result column names of `sql`, prepared but not run; throws sql.
  std::vector<std::string> columnNames(const std::string& sql);
  // Column 0 of the last row `sql` returns, as an integer (NULL reads 0); absent
  // when no row came back, the store is closed or the statement fails to prepare.
  std::optional<int64_t> scalarInt(const std::string& sql);
  // Column 0 of the first row as text; absent on any failure, no row or NULL.
  std::optional<std::string> scalarText(const std::string& sql);
  // Runs one or more statements with sqlite3_exec; throws sql ("exec failed" when
  // SQLite gives no message, "closed" on a closed store).
  void execute(const std::string& sql);
  // True when `sql` (its first statement) cannot write, as SQLite judges it.
  // Throws sql when it does not prepare.
  bool isReadOnly(const std::string& sql);
  // True when `sql` holds one statement: what follows the first is only blanks,
  // comments and semicolons. Throws sql when the first does not prepare.
  bool holdsOneStatement(const std::string& sql);

  // The connection, for code that must register more on it (may be null).
  sqlite3* connection() const { return db_.get(); }

 private:
  struct CloseConnection {
    void operator()(sqlite3* db) const;
  };
  using Connection = std::unique_ptr<sqlite3, CloseConnection>;

  // A private directory removed (with its contents) when this goes.
  class Directory {
   public:
    Directory() = default;
    explicit Directory(std::string path) : path_(std::move(path)) {}
    ~Directory() { remove(); }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    Directory(Directory&& other) noexcept : path_(std::exchange(other.path_, {})) {}
    Directory& operator=(Directory&& other) noexcept;
    const std::string& path() const { return path_; }
    void remove() noexcept;

   private:
    std::string path_;
  };

  void open(const Environment& environment);
  // Copies the store's files beside `copy` (its -wal, -shm, -journal too); throws denied.
  void copyInto(const std::string& copy, bool hotJournal) const;

  std::string path_;
  TeskOpenMode mode_ = TeskOpenMode::plain;
  double sourceModified_ = 0;
  // Heap-held so its address (the SQL functions' user data) survives a move.
  // Declared before the connection so it outlives it.
  std::unique_ptr<TeskFunctions> functions_;
  // Declared before the connection: the connection closes before the copy goes.
  Directory snapshot_;
  Connection db_;
};
