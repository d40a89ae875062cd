// The browser, Reminders and address-book readers on stores of a heavy user's
// size: 90 days of Chrome history (100,000 visits), 2,000 open reminders in two
// stores, 1,000 contacts. An agent calls these on most questions; each read should
// stay within tens of milliseconds.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "sources/messages/TeskContacts.h"
#include "sources/reminders/TeskReminders.h"
#include "sources/web/TeskWeb.h"

namespace {

constexpr double kNow = 1773144000;  // 2026-03-10T12:00:00Z
constexpr int kVisits = 100000;

using DB = std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)>;

DB create(const std::string& path) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  sqlite3* raw = nullptr;
  sqlite3_open(path.c_str(), &raw);
  return DB(raw, sqlite3_close_v2);
}

std::string schema(const std::string& name) {
  std::ifstream in(std::string(TESK_TEST_DATA) + "/schemas/" + name);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class BenchHome {
 public:
  BenchHome() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "tesk-web-bench-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) return;
    home_ = tmpl;
    chrome();
    reminders();
    contacts();
  }
  ~BenchHome() {
    std::error_code ec;
    if (!home_.empty()) std::filesystem::remove_all(home_, ec);
  }
  const std::string& path() const { return home_; }

 private:
  void chrome() {
    DB db = create(home_ + "/Library/Application Support/Google/Chrome/Default/History");
    sqlite3_exec(db.get(),
                 "BEGIN;"
                 "CREATE TABLE urls(id INTEGER PRIMARY KEY, url LONGVARCHAR, title LONGVARCHAR);"
                 "CREATE TABLE visits(id INTEGER PRIMARY KEY, url INTEGER NOT NULL,"
                 " visit_time INTEGER NOT NULL);"
                 "CREATE INDEX visits_time_index ON visits (visit_time);",
                 nullptr, nullptr, nullptr);
    sqlite3_stmt* u = nullptr;
    sqlite3_prepare_v2(db.get(), "INSERT INTO urls VALUES (?, ?, ?)", -1, &u, nullptr);
    for (int i = 1; i <= 5000; ++i) {
      std::string url = "https://www.site" + std::to_string(i % 700) + ".example.com/path/" +
                        std::to_string(i) + "?q=search+terms";
      std::string title = "Page " + std::to_string(i) + " of a site about things";
      sqlite3_bind_int(u, 1, i);
      sqlite3_bind_text(u, 2, url.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(u, 3, title.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(u);
      sqlite3_reset(u);
    }
    sqlite3_finalize(u);
    sqlite3_stmt* v = nullptr;
    sqlite3_prepare_v2(db.get(), "INSERT INTO visits VALUES (?, ?, ?)", -1, &v, nullptr);
    const int64_t end = static_cast<int64_t>((kNow + 11644473600.0) * 1e6);
    const int64_t step = 90LL * 86400 * 1000000 / kVisits;
    for (int i = 1; i <= kVisits; ++i) {
      sqlite3_bind_int(v, 1, i);
      sqlite3_bind_int(v, 2, 1 + (i * 7919) % 5000);
      sqlite3_bind_int64(v, 3, end - static_cast<int64_t>(kVisits - i) * step);
      sqlite3_step(v);
      sqlite3_reset(v);
    }
    sqlite3_finalize(v);
    sqlite3_exec(db.get(), "COMMIT;", nullptr, nullptr, nullptr);
  }

  void reminders() {
    const std::string dir =
        home_ + "/Library/Group Containers/group.com.apple.reminders/Container_v1/Stores/";
    for (int store = 0; store < 2; ++store) {
      DB db = create(dir + "Data-" + std::to_string(store) + ".sqlite");
      std::string sql =
          "BEGIN;" + schema("reminders.sql") +
          "INSERT INTO ZREMCDBASELIST(Z_PK, ZNAME) VALUES (1, 'Groceries'), (2, 'Work');";
      for (int i = 1; i <= 1000; ++i) {
        const double modified = kNow - 978307200 - i * 3600.0;
        sql +=
            "INSERT INTO ZREMCDREMINDER(Z_PK, ZTITLE, ZNOTES, ZLASTMODIFIEDDATE, ZLIST,"
            " ZCKIDENTIFIER, ZCOMPLETED) VALUES (" +
            std::to_string(i) + ", 'Reminder " + std::to_string(i) + "', 'some notes', " +
            std::to_string(modified) + ", " + std::to_string(1 + i % 2) + ", 'CK-" +
            std::to_string(store) + "-" + std::to_string(i) + "', " + std::to_string(i % 3 == 0) +
            ");";
      }
      sqlite3_exec(db.get(), (sql + "COMMIT;").c_str(), nullptr, nullptr, nullptr);
    }
  }

  void contacts() {
    DB db =
        create(home_ + "/Library/Application Support/AddressBook/Sources/A/AddressBook-v22.abcddb");
    std::string sql = "BEGIN;" + schema("addressbook.sql");
    for (int i = 1; i <= 1000; ++i) {
      std::string n = std::to_string(i);
      sql += "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZLASTNAME) VALUES (" + n + ", 'First" + n +
             "', 'Last" + n +
             "');"
             "INSERT INTO ZABCDPHONENUMBER(ZOWNER, ZFULLNUMBER) VALUES (" +
             n + ", '+1 (415) 555-" + std::to_string(1000 + i) +
             "');"
             "INSERT INTO ZABCDEMAILADDRESS(ZOWNER, ZADDRESS) VALUES (" +
             n + ", 'person" + n + "@example.com');";
    }
    sqlite3_exec(db.get(), (sql + "COMMIT;").c_str(), nullptr, nullptr, nullptr);
  }

  std::string home_;
};

BenchHome& home() {
  static BenchHome h;
  return h;
}

void BM_WebReadAll(benchmark::State& state) {
  for (auto _ : state) {
    TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home().path());
    benchmark::DoNotOptimize(r.rows.data());
    state.counters["rows"] = static_cast<double>(r.rows.size());
  }
}
BENCHMARK(BM_WebReadAll)->Unit(benchmark::kMillisecond);

void BM_WebReadSevenDays(benchmark::State& state) {
  TeskIMessage::Filter f;
  f.since = kNow - 7 * 86400;
  for (auto _ : state) {
    TeskWeb::Result r = TeskWeb::read(f, std::nullopt, home().path());
    benchmark::DoNotOptimize(r.rows.data());
    state.counters["rows"] = static_cast<double>(r.rows.size());
  }
}
BENCHMARK(BM_WebReadSevenDays)->Unit(benchmark::kMillisecond);

void BM_RemindersRead(benchmark::State& state) {
  for (auto _ : state) {
    TeskReminders::Result r = TeskReminders::read({}, home().path());
    benchmark::DoNotOptimize(r.rows.data());
    state.counters["rows"] = static_cast<double>(r.rows.size());
  }
}
BENCHMARK(BM_RemindersRead)->Unit(benchmark::kMillisecond);

void BM_ContactsRoster(benchmark::State& state) {
  for (auto _ : state) {
    TeskContacts::Roster r = TeskContacts::sqliteRoster(home().path());
    benchmark::DoNotOptimize(r.byHandle.size());
    state.counters["handles"] = static_cast<double>(r.handles);
  }
}
BENCHMARK(BM_ContactsRoster)->Unit(benchmark::kMillisecond);

void BM_Host(benchmark::State& state) {
  const std::string url = "https://user@WWW.Example.com:8443/some/path?query=1#frag";
  for (auto _ : state) benchmark::DoNotOptimize(TeskWeb::host(url));
}
BENCHMARK(BM_Host);

}  // namespace

BENCHMARK_MAIN();
