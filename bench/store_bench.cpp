// What the store layer costs over raw SQLite: open + COUNT, a full row walk, and
// the per-row SQL functions (decode, identity) over a generated 100k-row store.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "store/TeskStore.h"

namespace {

constexpr int kRows = 100000;

struct CloseDB {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct Finalize {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};

// A minimal legacy archive of an attributed string holding `text`.
std::vector<uint8_t> archived(const std::string& text) {
  std::vector<uint8_t> b = {0x04, 0x0B};
  for (char c : std::string("streamtyped")) b.push_back(static_cast<uint8_t>(c));
  for (uint8_t c : {0x81, 0xE8, 0x03, 0x84, 0x01, 0x40, 0x84, 0x84, 0x84, 0x08}) b.push_back(c);
  for (char c : std::string("NSString")) b.push_back(static_cast<uint8_t>(c));
  for (uint8_t c : {0x01, 0x94, 0x84, 0x01, 0x2B}) b.push_back(c);
  b.push_back(static_cast<uint8_t>(text.size()));
  for (char c : text) b.push_back(static_cast<uint8_t>(c));
  b.push_back(0x86);
  return b;
}

// The generated store, built once per process and removed at exit.
class Fixture {
 public:
  Fixture() {
    dir_ =
        std::filesystem::temp_directory_path() / ("tesk-store-bench-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    path_ = (dir_ / "chat.db").string();
    sqlite3* raw = nullptr;
    sqlite3_open(path_.c_str(), &raw);
    std::unique_ptr<sqlite3, CloseDB> db(raw);
    sqlite3_exec(db.get(),
                 "CREATE TABLE message(ROWID INTEGER PRIMARY KEY, handle TEXT, date INTEGER,"
                 " text TEXT, attributedBody BLOB); BEGIN;",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db.get(), "INSERT INTO message VALUES (?, ?, ?, NULL, ?)", -1, &s, nullptr);
    std::unique_ptr<sqlite3_stmt, Finalize> stmt(s);
    for (int i = 1; i <= kRows; ++i) {
      std::string handle = "+1415555" + std::to_string(1000 + i % 9000);
      std::vector<uint8_t> blob = archived("message number " + std::to_string(i) + " says hi");
      sqlite3_bind_int64(s, 1, i);
      sqlite3_bind_text(s, 2, handle.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int64(s, 3, 700000000000000000LL + int64_t{i} * 1000000000LL);
      sqlite3_bind_blob(s, 4, blob.data(), static_cast<int>(blob.size()), SQLITE_TRANSIENT);
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    sqlite3_exec(db.get(), "COMMIT;", nullptr, nullptr, nullptr);
  }
  ~Fixture() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  const std::string& path() const { return path_; }

 private:
  std::filesystem::path dir_;
  std::string path_;
};

const Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_OpenCountTesk(benchmark::State& state) {
  const std::string& path = fixture().path();
  for (auto _ : state) {
    TeskStore store(path);
    benchmark::DoNotOptimize(store.scalarInt("SELECT COUNT(*) FROM message"));
  }
}
BENCHMARK(BM_OpenCountTesk)->Unit(benchmark::kMicrosecond);

void BM_OpenCountRawSqlite(benchmark::State& state) {
  const std::string uri = "file:" + fixture().path() + "?mode=ro";
  for (auto _ : state) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(uri.c_str(), &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    std::unique_ptr<sqlite3, CloseDB> db(raw);
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db.get(), "SELECT COUNT(*) FROM message", -1, &s, nullptr);
    std::unique_ptr<sqlite3_stmt, Finalize> stmt(s);
    sqlite3_step(s);
    benchmark::DoNotOptimize(sqlite3_column_int64(s, 0));
  }
}
BENCHMARK(BM_OpenCountRawSqlite)->Unit(benchmark::kMicrosecond);

void BM_RowWalkTesk(benchmark::State& state) {
  TeskStore store(fixture().path());
  for (auto _ : state) {
    int64_t sum = 0;
    size_t bytes = 0;
    store.query("SELECT ROWID, handle FROM message", [&](const TeskRowReader& r) {
      sum += r.integer(0);
      bytes += r.textView(1).value_or("").size();
    });
    benchmark::DoNotOptimize(sum + static_cast<int64_t>(bytes));
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_RowWalkTesk)->Unit(benchmark::kMillisecond);

void BM_RowWalkRawSqlite(benchmark::State& state) {
  TeskStore store(fixture().path());
  for (auto _ : state) {
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(store.connection(), "SELECT ROWID, handle FROM message", -1, &s, nullptr);
    std::unique_ptr<sqlite3_stmt, Finalize> stmt(s);
    int64_t sum = 0;
    size_t bytes = 0;
    while (sqlite3_step(s) == SQLITE_ROW) {
      sum += sqlite3_column_int64(s, 0);
      sqlite3_column_text(s, 1);
      bytes += static_cast<size_t>(sqlite3_column_bytes(s, 1));
    }
    benchmark::DoNotOptimize(sum + static_cast<int64_t>(bytes));
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK(BM_RowWalkRawSqlite)->Unit(benchmark::kMillisecond);

// One SQL function per row, the way the producers and the sql verb call them.
void BM_SqlFunction(benchmark::State& state, const char* sql) {
  TeskStore store(fixture().path());
  for (auto _ : state) {
    benchmark::DoNotOptimize(store.scalarInt(sql));
  }
  state.SetItemsProcessed(state.iterations() * kRows);
}
BENCHMARK_CAPTURE(BM_SqlFunction, body_length,
                  "SELECT SUM(length(tesk_body(ROWID, text, attributedBody))) FROM message")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SqlFunction, kind_and_body,
                  "SELECT SUM(length(tesk_body(ROWID, text, attributedBody)) + "
                  "length(tesk_kind(ROWID, text, attributedBody, 0, 0, 0))) FROM message")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SqlFunction, canonical,
                  "SELECT COUNT(DISTINCT tesk_canonical(handle)) FROM message")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SqlFunction, match,
                  "SELECT COUNT(*) FROM message WHERE tesk_match('555-1234', handle)")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_SqlFunction, ts_iso,
                  "SELECT COUNT(DISTINCT tesk_iso(tesk_ts(date))) FROM message")
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
