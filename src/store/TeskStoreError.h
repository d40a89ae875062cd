// The one error a store throws: it could not be opened (denied), it would read
// stale data (staleWAL), or a statement failed (sql). Everything else a store
// reports is a value.
#pragma once

#include <exception>
#include <string>

class TeskStoreError : public std::exception {
 public:
  enum class Kind { denied, staleWAL, sql };

  // "cannot read <path>: <detail>"
  static TeskStoreError denied(std::string path, std::string detail) {
    return TeskStoreError(Kind::denied, std::move(path), std::move(detail));
  }
  // "would read stale data from <path>: <detail>"
  static TeskStoreError staleWAL(std::string path, std::string detail) {
    return TeskStoreError(Kind::staleWAL, std::move(path), std::move(detail));
  }
  // "sql: <message>"; `code` is SQLite's primary result code when one is known.
  static TeskStoreError sql(std::string message, int code = 0) {
    TeskStoreError e(Kind::sql, std::string(), std::move(message));
    e.code_ = code;
    return e;
  }

  // Which of the three failures this is.
  Kind kind() const { return kind_; }
  // The store path as the caller gave it; empty for `sql`.
  const std::string& path() const { return path_; }
  // The detail of `denied`/`staleWAL`, or the message of `sql`.
  const std::string& detail() const { return detail_; }
  const std::string& message() const { return detail_; }
  // SQLite's primary result code behind a `sql` error (SQLITE_NOTADB, SQLITE_CORRUPT,
  // ...), so a caller can tell a file that is no database from a moved schema; 0
  // when the error did not come from SQLite.
  int sqliteCode() const { return code_; }
  // The full text shown to the user (see the factory functions).
  const std::string& description() const { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  TeskStoreError(Kind kind, std::string path, std::string detail)
      : kind_(kind), path_(std::move(path)), detail_(std::move(detail)) {
    switch (kind_) {
      case Kind::denied:
        description_ = "cannot read " + path_ + ": " + detail_;
        break;
      case Kind::staleWAL:
        description_ = "would read stale data from " + path_ + ": " + detail_;
        break;
      case Kind::sql:
        description_ = "sql: " + detail_;
        break;
    }
  }

  Kind kind_;
  int code_ = 0;
  std::string path_;
  std::string detail_;
  std::string description_;
};
