// The calendar producer on a store shaped like a measured Mac's (150 items, 35 of
// them recurring, most floating), and the worst single expansion (a daily series
// that exhausts the period ceiling). An agent calls `tesk cal` often; the read
// should cost a few milliseconds.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include "cli/TeskTime.h"
#include "sources/calendar/TeskCal.h"

namespace {

constexpr double kNow = 1773144000;  // 2026-03-10T12:00:00Z

class BenchHome {
 public:
  BenchHome() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "tesk-cal-bench-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) return;
    home_ = tmpl;
    const std::string dir = home_ + "/Library/Group Containers/group.com.apple.calendar";
    std::filesystem::create_directories(dir);
    sqlite3* raw = nullptr;
    sqlite3_open((dir + "/Calendar.sqlitedb").c_str(), &raw);
    std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> db(raw, sqlite3_close_v2);
    std::ifstream in(std::string(TESK_TEST_DATA) + "/schemas/calendar.sql");
    std::stringstream schema;
    schema << in.rdbuf();
    std::string sql = "BEGIN;\n" + schema.str() +
                      "\nINSERT INTO Calendar (title) VALUES ('Home'), ('Work'), ('Family'), "
                      "('Holidays'), ('Birthdays');\n";
    // 150 items over the last two years and the next one; every 30/7th one recurs.
    const double storeNow = kNow - TeskTime::appleEpochOffset;
    const char* specifiers[] = {"NULL", "'D=0MO,0WE,0FR'", "'D=-1FR'", "'D=+2SU;O=5'", "NULL"};
    int recurring = 0;
    for (int i = 0; i < 150; ++i) {
      const bool recurs = i % 30 < 7;  // 35 of 150
      const double start = storeNow - 730 * 86400.0 + i * (1095 * 86400.0 / 150) + 9 * 3600;
      const char* zone = i % 8 == 0 ? "'Europe/Berlin'" : "NULL";
      sql +=
          "INSERT INTO CalendarItem (summary, start_date, start_tz, all_day, calendar_id, "
          "orig_item_id, hidden, organizer_id, self_attendee_id, has_attendees) VALUES ('Item " +
          std::to_string(i) + "', " + std::to_string(start) + ", " + zone + ", " +
          std::to_string(i % 11 == 0) + ", " + std::to_string(1 + i % 5) + ", 0, 0, " +
          std::to_string(i % 3) + ", " + std::to_string(i % 2) + ", 0);\n";
      if (recurs) {
        const int frequency = 1 + recurring % 4;  // daily, weekly, monthly, yearly
        sql += "INSERT INTO Recurrence (owner_id, frequency, interval, count, specifier) VALUES (" +
               std::to_string(i + 1) + ", " + std::to_string(frequency) + ", 1, 0, " +
               specifiers[recurring % 5] + ");\n";
        sql += "INSERT INTO ExceptionDate (owner_id, date) VALUES (" + std::to_string(i + 1) +
               ", " + std::to_string(start + 7 * 86400) + ");\n";
        ++recurring;
      }
    }
    sql += "COMMIT;\n";
    sqlite3_exec(db.get(), sql.c_str(), nullptr, nullptr, nullptr);
  }
  ~BenchHome() {
    std::error_code ec;
    if (!home_.empty()) std::filesystem::remove_all(home_, ec);
  }
  BenchHome(const BenchHome&) = delete;
  BenchHome& operator=(const BenchHome&) = delete;
  const std::string& path() const { return home_; }

 private:
  std::string home_;
};

void BM_CalReadDefaultWindow(benchmark::State& state) {
  BenchHome home;
  size_t rows = 0;
  for (auto _ : state) {
    TeskCal::Result r = TeskCal::read({}, kNow, home.path(), "America/Los_Angeles");
    rows = r.rows.size();
    benchmark::DoNotOptimize(r);
  }
  state.counters["rows"] = static_cast<double>(rows);
}
BENCHMARK(BM_CalReadDefaultWindow)->Unit(benchmark::kMillisecond);

void BM_CalExpandCeiling(benchmark::State& state) {
  TeskCal::Rule rule;
  rule.frequency = TeskCal::Frequency::daily;
  const double start = kNow - 11 * 365 * 86400.0;
  for (auto _ : state) {
    TeskCal::Expansion e =
        TeskCal::occurrences(rule, start, "_float", false, kNow - 2592000, kNow + 7776000,
                             TeskCal::kPeriodCeiling, "America/Los_Angeles");
    benchmark::DoNotOptimize(e);
  }
}
BENCHMARK(BM_CalExpandCeiling)->Unit(benchmark::kMillisecond);

void BM_CalExpandWeeklyWeekdays(benchmark::State& state) {
  TeskCal::Rule rule;
  rule.frequency = TeskCal::Frequency::weekly;
  rule.specifier = "D=0MO,0WE,0FR";
  const double start = kNow - 2 * 365 * 86400.0;
  for (auto _ : state) {
    TeskCal::Expansion e =
        TeskCal::occurrences(rule, start, "_float", false, kNow - 2592000, kNow + 7776000,
                             TeskCal::kPeriodCeiling, "America/Los_Angeles");
    benchmark::DoNotOptimize(e);
  }
}
BENCHMARK(BM_CalExpandWeeklyWeekdays)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
