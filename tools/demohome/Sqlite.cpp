#include "Sqlite.h"

#include <stdexcept>

#include "Schemas.h"

namespace demohome {

namespace {

sqlite3_vfs g_fixedVfs;
uint64_t g_randomState = 0x7465736B64656D6FULL;  // "teskdemo"

int fixedRandomness(sqlite3_vfs*, int n, char* out) {
  for (int i = 0; i < n; ++i) {
    g_randomState = g_randomState * 6364136223846793005ULL + 1442695040888963407ULL;
    out[i] = static_cast<char>(g_randomState >> 56);
  }
  return n;
}

}  // namespace

void installFixedRandomnessVfs() {
  static bool done = false;
  // Restart the sequence, and SQLite's generator with it, for every home.
  g_randomState = 0x7465736B64656D6FULL;
  if (done) {
    sqlite3_randomness(0, nullptr);
    return;
  }
  sqlite3_initialize();
  sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
  if (base == nullptr) throw std::runtime_error("sqlite: no default VFS");
  g_fixedVfs = *base;
  g_fixedVfs.zName = "demohome-fixed";
  g_fixedVfs.xRandomness = fixedRandomness;
  if (sqlite3_vfs_register(&g_fixedVfs, 1) != SQLITE_OK) {
    throw std::runtime_error("sqlite: cannot register VFS");
  }
  done = true;
  sqlite3_randomness(0, nullptr);
}

Stmt::Stmt(sqlite3* db, std::string_view sql) : db_(db) {
  sqlite3_stmt* raw = nullptr;
  const int rc = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &raw, nullptr);
  stmt_.reset(raw);
  if (rc != SQLITE_OK) {
    throw std::runtime_error("sqlite prepare: " + std::string(sqlite3_errmsg(db)) +
                             " in: " + std::string(sql.substr(0, 120)));
  }
}

void Stmt::bindOne(int i, int v) { sqlite3_bind_int(stmt_.get(), i, v); }
void Stmt::bindOne(int i, int64_t v) { sqlite3_bind_int64(stmt_.get(), i, v); }
void Stmt::bindOne(int i, double v) { sqlite3_bind_double(stmt_.get(), i, v); }
void Stmt::bindOne(int i, const std::string& v) {
  sqlite3_bind_text(stmt_.get(), i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
}
void Stmt::bindOne(int i, const char* v) {
  if (v == nullptr) {
    sqlite3_bind_null(stmt_.get(), i);
  } else {
    sqlite3_bind_text(stmt_.get(), i, v, -1, SQLITE_TRANSIENT);
  }
}
void Stmt::bindOne(int i, Null) { sqlite3_bind_null(stmt_.get(), i); }
void Stmt::bindOne(int i, const std::vector<uint8_t>& v) {
  if (v.empty()) {  // an empty blob, not NULL
    sqlite3_bind_zeroblob(stmt_.get(), i, 0);
    return;
  }
  sqlite3_bind_blob(stmt_.get(), i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
}

void Stmt::stepDone() {
  const int rc = sqlite3_step(stmt_.get());
  sqlite3_reset(stmt_.get());
  sqlite3_clear_bindings(stmt_.get());
  if (rc != SQLITE_DONE && rc != SQLITE_ROW) {
    throw std::runtime_error("sqlite step: " + std::string(sqlite3_errmsg(db_)) +
                             " in: " + std::string(sqlite3_sql(stmt_.get())).substr(0, 120));
  }
}

Db::Db(const std::string& path) : path_(path) {
  sqlite3* raw = nullptr;
  const int rc =
      sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  db_.reset(raw);
  if (rc != SQLITE_OK) {
    throw std::runtime_error("cannot create " + path + ": " +
                             (raw ? sqlite3_errmsg(raw) : "out of memory"));
  }
  // A cache as large as the biggest store keeps random-key index inserts (GUIDs)
  // from paging in and out: one write per page at commit.
  exec(
      "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA temp_store=MEMORY; PRAGMA "
      "cache_size=-262144;");
}

void Db::exec(std::string_view sql) {
  const std::string text(sql);
  char* err = nullptr;
  if (sqlite3_exec(db_.get(), text.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
    std::string msg = err ? err : "unknown error";
    sqlite3_free(err);
    throw std::runtime_error(path_ + ": " + msg + " in: " + text.substr(0, 120));
  }
}

void Db::schema(const char* name) {
  const char* text = schemaText(name);
  if (text == nullptr) throw std::runtime_error(std::string("no compiled-in schema ") + name);
  exec(text);
}

int64_t Db::scalar(std::string_view sql) {
  // Stmt::run discards rows, so read through a plain statement here.
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db_.get(), std::string(sql).c_str(), -1, &st, nullptr) != SQLITE_OK) {
    sqlite3_finalize(st);
    throw std::runtime_error(path_ + ": " + sqlite3_errmsg(db_.get()));
  }
  std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> guard(st, &sqlite3_finalize);
  if (sqlite3_step(st) == SQLITE_ROW) return sqlite3_column_int64(st, 0);
  return 0;
}

void Db::toWal() { exec("PRAGMA journal_mode=WAL;"); }

void Db::toLiveWal() {
  exec("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
  int applied = 0;
  sqlite3_db_config(db_.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, &applied);
  if (applied != 1) throw std::runtime_error(path_ + ": cannot keep the -wal on close");
}

}  // namespace demohome
