#include "store/TeskStore.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <system_error>
#include <thread>

#include "cli/TeskPrivate.h"
#include "store/TeskCleanup.h"
#include "store/TeskFunctions.h"
#include "store/TeskStoreFiles.h"

namespace fs = std::filesystem;

namespace {

// A connection is only ever used by the thread that opened it; without this flag
// SQLite takes a mutex on every column and value call (6% of a full search).
constexpr int kOneThread = SQLITE_OPEN_NOMUTEX;

struct FinalizeStatement {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Prepares `sql` on `db`; null on any failure.
Statement prepare(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr);
  Statement stmt(raw);
  if (rc != SQLITE_OK) stmt.reset();
  return stmt;
}

// Column 0 of the first row as text; nothing on a prepare error, no row or NULL.
std::optional<std::string> firstText(sqlite3* db, const std::string& sql) {
  if (db == nullptr) return std::nullopt;
  Statement stmt = prepare(db, sql);
  if (!stmt || sqlite3_step(stmt.get()) != SQLITE_ROW) return std::nullopt;
  const unsigned char* text = sqlite3_column_text(stmt.get(), 0);
  if (text == nullptr) return std::nullopt;
  return std::string(reinterpret_cast<const char*>(text),
                     static_cast<size_t>(sqlite3_column_bytes(stmt.get(), 0)));
}

constexpr const char* kSchemaProbe = "SELECT COUNT(*) FROM sqlite_master";

// Opens one read transaction on a live WAL store and keeps it for the connection's
// life. Every statement of the run then reads the same commit, and none of them
// starts a read of its own: with a read-only wal-index, a read that begins while
// the writer rebuilds or resets the index fails ("attempt to write a readonly
// database"). Beginning is retried briefly; a store that never settles is copied.
// Readers never block a WAL writer, so holding the transaction costs the owner nothing.
bool holdReadTransaction(sqlite3* db) {
  for (int attempt = 0; attempt < 6; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1 << attempt));
    if (sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) continue;
    if (firstText(db, kSchemaProbe).has_value()) return true;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  return false;
}

// The connection's last error as a store error, with its primary result code.
TeskStoreError failure(sqlite3* db) {
  return TeskStoreError::sql(sqlite3_errmsg(db), sqlite3_errcode(db) & 0xff);
}

std::string asciiLower(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  }
  return s;
}

bool fileExists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// Size in bytes, or nothing when the attributes cannot be read.
std::optional<int64_t> fileSize(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<int64_t>(st.st_size);
}

// Size and modification time of a file: equal states before and after a copy mean
// nothing was written in between.
struct FileState {
  int64_t size;
  int64_t seconds;
  int64_t nanoseconds;
  bool operator==(const FileState&) const = default;
};

std::optional<FileState> stateOf(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
#ifdef __APPLE__
  const struct timespec& t = st.st_mtimespec;
#else
  const struct timespec& t = st.st_mtim;
#endif
  return FileState{static_cast<int64_t>(st.st_size), static_cast<int64_t>(t.tv_sec),
                   static_cast<int64_t>(t.tv_nsec)};
}

// Modification time in unix seconds, or nothing when the attributes cannot be read.
std::optional<double> modified(const std::string& path) {
  std::optional<FileState> state = stateOf(path);
  if (!state) return std::nullopt;
  return static_cast<double>(state->seconds) + static_cast<double>(state->nanoseconds) / 1e9;
}

// The characters a URL path may carry unescaped; "?" and "#" are not among them,
// so a path holding them cannot end the file name early inside the URI.
bool pathAllowed(unsigned char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  switch (c) {
    case '!':
    case '$':
    case '&':
    case '\'':
    case '(':
    case ')':
    case '*':
    case '+':
    case ',':
    case '-':
    case '.':
    case '/':
    case ':':
    case ';':
    case '=':
    case '@':
    case '_':
    case '~':
      return true;
    default:
      return false;
  }
}

std::string uriForReadOnly(const std::string& path) {
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string uri = "file:";
  uri.reserve(path.size() + 16);
  for (unsigned char c : path) {
    if (pathAllowed(c)) {
      uri += static_cast<char>(c);
    } else {
      uri += '%';
      uri += hex[c >> 4];
      uri += hex[c & 0xF];
    }
  }
  // readonly_shm: the wal-index is opened read-only too (SQLite then keeps its
  // own copy in memory), so a live read never opens a file of the owner's for writing.
  uri += "?mode=ro&readonly_shm=1";
  return uri;
}

// SQLite opens a WAL file read-write (creating it when missing) even for a
// read-only connection. This VFS passes every call to the default one but opens
// WAL files read-only and never creates them; a store whose -wal is missing then
// fails the live open and is read through the snapshot.
sqlite3_vfs* readOnlyWalVfs() {
  static sqlite3_vfs* vfs = [] {
    static sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
    static sqlite3_vfs wrapped = *base;
    wrapped.zName = "tesk-readonly-wal";
    wrapped.pNext = nullptr;
    wrapped.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags,
                       int* outFlags) {
      if (flags & SQLITE_OPEN_WAL) {
        flags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
      }
      return base->xOpen(base, name, file, flags, outFlags);
    };
    sqlite3_vfs_register(&wrapped, 0);
    return &wrapped;
  }();
  return vfs;
}

std::string defaultTemporaryDirectory() {
  const char* tmp = std::getenv("TMPDIR");
  if (tmp != nullptr && *tmp != '\0') return tmp;
  return "/tmp";
}

bool defaultReadable(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

std::string lastComponent(const std::string& path) {
  std::string name = fs::path(path).filename().string();
  return name.empty() ? std::string("store") : name;
}

// A random unsigned 32-bit number; the clock stands in if the platform source fails.
uint32_t randomU32() {
  try {
    std::random_device device;
    return std::uniform_int_distribution<uint32_t>()(device);
  } catch (const std::exception&) {
    return static_cast<uint32_t>(std::chrono::steady_clock::now().time_since_epoch().count());
  }
}

const char* const kDenied =
    "permission denied — grant Full Disk Access to this binary's parent process";
const char* const kStale =
    "-wal present but the snapshot did not open in WAL mode; refusing a stale read";

}  // namespace

std::string_view rawValue(TeskOpenMode mode) {
  switch (mode) {
    case TeskOpenMode::liveReadOnly:
      return "ro";
    case TeskOpenMode::snapshot:
      return "snapshot";
    case TeskOpenMode::plain:
      return "plain";
  }
  return "plain";
}

void TeskStore::CloseConnection::operator()(sqlite3* db) const { sqlite3_close_v2(db); }

TeskStore::Directory& TeskStore::Directory::operator=(Directory&& other) noexcept {
  if (this != &other) {
    remove();
    path_ = std::exchange(other.path_, {});
  }
  return *this;
}

void TeskStore::Directory::remove() noexcept {
  if (path_.empty()) return;
  TeskCleanup::forget(path_);
  std::error_code ec;
  fs::remove_all(path_, ec);  // a failure to remove is not the reader's problem
  path_.clear();
}

TeskStore::TeskStore(std::string path) : TeskStore(std::move(path), Environment{}) {}

TeskStore::TeskStore(std::string path, Environment environment)
    : path_(std::move(path)), functions_(std::make_unique<TeskFunctions>()) {
  if (!environment.readable) environment.readable = defaultReadable;
  if (environment.temporaryDirectory.empty()) {
    environment.temporaryDirectory = defaultTemporaryDirectory();
  }
  open(environment);
}

TeskStore::~TeskStore() = default;

TeskStore::TeskStore(TeskStore&& other) noexcept
    : path_(std::move(other.path_)),
      mode_(other.mode_),
      sourceModified_(other.sourceModified_),
      functions_(std::move(other.functions_)),
      snapshot_(std::move(other.snapshot_)),
      db_(std::move(other.db_)) {}

TeskStore& TeskStore::operator=(TeskStore&& other) noexcept {
  if (this != &other) {
    // Close before the directory and the functions' state go away.
    db_.reset();
    snapshot_ = std::move(other.snapshot_);
    functions_ = std::move(other.functions_);
    db_ = std::move(other.db_);
    path_ = std::move(other.path_);
    mode_ = other.mode_;
    sourceModified_ = other.sourceModified_;
  }
  return *this;
}

TeskDecode::Census TeskStore::decodeCensus() const {
  return functions_ ? functions_->census() : TeskDecode::Census{};
}

void TeskStore::open(const Environment& environment) {
  if (!fileExists(path_)) throw TeskStoreError::denied(path_, "no such file");
  // Every file SQLite or the copy would open must be a regular file: opening a named
  // pipe waits for a writer for ever, and a directory, socket or device is no store.
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    const TeskStoreFiles::Kind kind = TeskStoreFiles::kindOf(path_ + suffix);
    if (kind == TeskStoreFiles::Kind::missing || kind == TeskStoreFiles::Kind::regular) continue;
    std::string detail = "not a regular file (" + std::string(TeskStoreFiles::describe(kind)) + ")";
    if (*suffix != '\0') detail = "its " + std::string(suffix) + " is " + detail;
    throw TeskStoreError::denied(path_, detail);
  }
  if (!environment.readable(path_)) throw TeskStoreError::denied(path_, kDenied);

  for (const char* suffix : {"", "-wal", "-shm"}) {
    if (auto t = modified(path_ + suffix); t && *t > sourceModified_) sourceModified_ = *t;
  }
  // Observed once: every later decision uses this same answer.
  const bool hasWAL = fileExists(path_ + "-wal");
  // A hot rollback journal means the main file may hold pages of a transaction that
  // never committed (a writer mid-way, or one that crashed). Only a copy that takes
  // the journal along, and rolls it back privately, answers from committed data.
  const bool hasHotJournal = TeskStoreFiles::hotJournal(path_ + "-journal");

  // Live attempt. No busy timeout: a locked store fails at once and is copied.
  // An empty main file beside a -wal is skipped: SQLite deletes such a -wal on
  // open, even through a read-only handle, and the owner's files are not ours
  // to change. The copy then meets the same fate and the open is refused.
  if (!hasHotJournal && !(hasWAL && fileSize(path_) == 0)) {
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(uriForReadOnly(path_).c_str(), &raw,
                             SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | kOneThread,
                             readOnlyWalVfs()->zName);
    Connection live(raw);
    if (rc == SQLITE_OK && live) {
      std::optional<std::string> journal = firstText(live.get(), "PRAGMA journal_mode");
      // The probe reads the schema, which fails on a locked file or an unreadable
      // WAL index; the journal mode alone does not prove the WAL is visible.
      bool seesWAL = journal && asciiLower(*journal) == "wal";
      bool probed = hasWAL && seesWAL ? holdReadTransaction(live.get())
                                      : firstText(live.get(), kSchemaProbe).has_value();
      if (probed && (!hasWAL || seesWAL)) {
        mode_ = hasWAL ? TeskOpenMode::liveReadOnly : TeskOpenMode::plain;
        TeskFunctions::install(live.get(), *functions_);
        db_ = std::move(live);
        return;
      }
    }
  }

  // Snapshot: a private copy of the file with its -wal, -shm and -journal.
  TeskCleanup::sweepOrphans(environment.temporaryDirectory);
  fs::path dir =
      fs::path(environment.temporaryDirectory) /
      ("tesk-snapshot-" + std::to_string(::getpid()) + "-" + std::to_string(randomU32()));
  const fs::path copy = dir / lastComponent(path_);
  // Remembered before it exists, so an interrupted copy is removed too.
  TeskCleanup::remember(dir.string(), copy.string());
  // Only this user may enter it; a failure shows up as the copy's error.
  TeskPrivate::createDirectory(dir.string());
  Directory snapshot(dir.string());
  copyInto(copy.string(), hasHotJournal);

  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(copy.c_str(), &raw, SQLITE_OPEN_READWRITE | kOneThread, nullptr);
  Connection copied(raw);
  if (rc != SQLITE_OK || !copied) throw TeskStoreError::denied(path_, "snapshot unreadable");
  if (hasWAL) {
    std::optional<std::string> journal = firstText(copied.get(), "PRAGMA journal_mode");
    if (!journal || asciiLower(*journal) != "wal") throw TeskStoreError::staleWAL(path_, kStale);
  }
  TeskFunctions::install(copied.get(), *functions_);
  mode_ = TeskOpenMode::snapshot;
  snapshot_ = std::move(snapshot);
  db_ = std::move(copied);
}

void TeskStore::copyInto(const std::string& copy, bool hotJournal) const {
  // The main file first, its journal after: a page the writer changes meanwhile has
  // its original in the journal before it reaches the main file, so the later copy
  // of the journal covers it. A commit in between would tear the pair, so with a
  // hot journal the copy is taken again until the main file held still throughout.
  constexpr int kAttempts = 3;
  for (int attempt = 1;; ++attempt) {
    const std::optional<FileState> before = stateOf(path_);
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
      std::string source = path_ + suffix;
      std::error_code ignored;
      fs::remove(copy + suffix, ignored);  // a former attempt's
      if (!fileExists(source)) continue;
      if (auto error = TeskStoreFiles::copyPrivately(source, copy + suffix)) {
        throw TeskStoreError::denied(path_, "snapshot failed: " + *error);
      }
    }
    if (!hotJournal || (before && before == stateOf(path_))) return;
    if (attempt == kAttempts) {
      throw TeskStoreError::denied(path_, "snapshot failed: the store changed during every copy");
    }
  }
}

void TeskStore::Cursor::Finalize::operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }

TeskStore::Cursor::Cursor(TeskStore& store, const std::string& sql,
                          const std::vector<TeskValue>& binds)
    : db_(store.db_.get()), reader_(nullptr) {
  if (!db_) throw TeskStoreError::sql("closed");
  stmt_.reset(prepare(db_, sql).release());
  if (!stmt_) throw failure(db_);
  reader_ = TeskRowReader(stmt_.get());
  rebind(binds);
}

void TeskStore::Cursor::rebind(const std::vector<TeskValue>& binds) {
  sqlite3_stmt* stmt = stmt_.get();
  sqlite3_reset(stmt);
  done_ = false;
  for (size_t k = 0; k < binds.size(); ++k) {
    const TeskValue& v = binds[k];
    int index = static_cast<int>(k + 1);
    switch (v.type()) {
      case TeskValue::Type::integer:
        sqlite3_bind_int64(stmt, index, v.integer());
        break;
      case TeskValue::Type::real:
        sqlite3_bind_double(stmt, index, v.real());
        break;
      case TeskValue::Type::text:
        sqlite3_bind_text(stmt, index, v.text().c_str(), -1, SQLITE_TRANSIENT);
        break;
      case TeskValue::Type::null:
        sqlite3_bind_null(stmt, index);
        break;
    }
  }
}

bool TeskStore::Cursor::next() {
  if (done_) return false;
  const int rc = sqlite3_step(stmt_.get());
  if (rc == SQLITE_ROW) return true;
  done_ = true;
  if (rc != SQLITE_DONE) throw failure(db_);
  return false;
}

void TeskStore::query(const std::string& sql, const std::vector<TeskValue>& binds,
                      TeskRowCallback row) {
  Cursor cursor(*this, sql, binds);
  while (cursor.next()) row(cursor.row());
}

bool TeskStore::tableExists(const std::string& name) {
  bool found = false;
  try {
    query("SELECT 1 FROM sqlite_master WHERE type IN ('table','view') AND name = ?", {name},
          [&](const TeskRowReader&) { found = true; });
  } catch (const TeskStoreError&) {
  }
  return found;
}

bool TeskStore::columnExists(const std::string& column, const std::string& table) {
  bool found = false;
  try {
    query("SELECT 1 FROM pragma_table_info(?) WHERE lower(name) = lower(?)", {table, column},
          [&](const TeskRowReader&) { found = true; });
  } catch (const TeskStoreError&) {
  }
  return found;
}

bool TeskStore::indexLeadsWith(const std::string& table, const std::vector<std::string>& columns) {
  int64_t found = 0;
  std::string sql = "SELECT COUNT(*) FROM pragma_index_list(?1) l WHERE 1";
  std::vector<TeskValue> binds;
  binds.emplace_back(table);
  for (size_t i = 0; i < columns.size(); ++i) {
    sql += " AND (SELECT lower(name) FROM pragma_index_info(l.name) WHERE seqno = " +
           std::to_string(i) + ") = lower(?" + std::to_string(i + 2) + ")";
    binds.emplace_back(columns[i]);
  }
  try {
    query(sql, binds, [&](const TeskRowReader& r) { found = r.integer(0); });
  } catch (const TeskStoreError&) {
  }
  return found > 0;
}

std::vector<std::string> TeskStore::columnNames(const std::string& sql) {
  if (!db_) throw TeskStoreError::sql("closed");
  Statement stmt = prepare(db_.get(), sql);
  if (!stmt) throw TeskStoreError::sql(sqlite3_errmsg(db_.get()));
  std::vector<std::string> names;
  int n = sqlite3_column_count(stmt.get());
  names.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    const char* name = sqlite3_column_name(stmt.get(), i);
    names.emplace_back(name != nullptr ? name : "");
  }
  return names;
}

std::optional<int64_t> TeskStore::scalarInt(const std::string& sql) {
  if (!db_) return std::nullopt;
  Statement stmt = prepare(db_.get(), sql);
  if (!stmt) return std::nullopt;
  std::optional<int64_t> value;
  // A step error after some rows keeps the value already read.
  while (sqlite3_step(stmt.get()) == SQLITE_ROW) value = sqlite3_column_int64(stmt.get(), 0);
  return value;
}

std::optional<std::string> TeskStore::scalarText(const std::string& sql) {
  return firstText(db_.get(), sql);
}

void TeskStore::execute(const std::string& sql) {
  if (!db_) throw TeskStoreError::sql("closed");
  char* raw = nullptr;
  int rc = sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, &raw);
  std::unique_ptr<char, decltype(&sqlite3_free)> error(raw, &sqlite3_free);
  if (rc != SQLITE_OK) throw TeskStoreError::sql(error ? std::string(error.get()) : "exec failed");
}

bool TeskStore::holdsOneStatement(const std::string& sql) {
  if (!db_) throw TeskStoreError::sql("closed");
  const char* const end = sql.c_str() + sql.size();
  const char* tail = nullptr;
  sqlite3_stmt* raw = nullptr;
  int rc = sqlite3_prepare_v2(db_.get(), sql.c_str(), static_cast<int>(sql.size()), &raw, &tail);
  Statement first(raw);
  if (rc != SQLITE_OK) throw TeskStoreError::sql(sqlite3_errmsg(db_.get()));
  // SQLite prepares nothing from blanks, comments or a lone ';' and moves past them;
  // anything else after the first statement, even text that does not parse, is more.
  while (tail != nullptr && tail < end) {
    const char* next = nullptr;
    raw = nullptr;
    rc = sqlite3_prepare_v2(db_.get(), tail, static_cast<int>(end - tail), &raw, &next);
    Statement more(raw);
    if (rc != SQLITE_OK || more || next == tail) return false;
    tail = next;
  }
  return true;
}

bool TeskStore::isReadOnly(const std::string& sql) {
  if (!db_) throw TeskStoreError::sql("closed");
  Statement stmt = prepare(db_.get(), sql);
  if (!stmt) throw TeskStoreError::sql(sqlite3_errmsg(db_.get()));
  return sqlite3_stmt_readonly(stmt.get()) != 0;
}
