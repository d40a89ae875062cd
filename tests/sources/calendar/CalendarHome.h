// A throw-away home directory holding a Calendar.sqlitedb built from the real
// schema text, with helpers to add calendars, items, rules, exceptions and
// OccurrenceCache rows. Dates are given as unix seconds and stored in the store's
// 2001 epoch.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdarg>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "cli/TeskTime.h"
#include "common/TeskTestHome.h"

namespace caltest {

inline constexpr const char* kGroupContainer = "/Library/Group Containers/group.com.apple.calendar";

// Unix seconds of an ISO instant written in the test ("2026-03-02T09:00:00Z").
inline double iso(const char* text) {
  auto t = TeskTime::parseISO(text);
  EXPECT_TRUE(t.has_value()) << text;
  return t.value_or(0);
}

// The store's value for a unix instant.
inline double stored(double unixSeconds) { return unixSeconds - TeskTime::appleEpochOffset; }

struct Item {
  std::optional<std::string> summary = "Event";
  double start = 0;                       // unix seconds (or floating wall clock as UTC)
  std::optional<std::string> tz = "UTC";  // NULL stores a floating item
  bool allDay = false;
  int64_t calendar = 1;
  int64_t organizer = 0;
  int64_t selfAttendee = 0;
  int64_t hasAttendees = 0;
  int64_t hidden = 0;
  int64_t origItem = 0;
  double origDate = 0;  // unix seconds; 0 stores 0
};

// An item titled `summary` at the ISO instant `start`, in UTC, on calendar 1.
inline Item event(std::optional<std::string> summary, const char* start) {
  Item it;
  it.summary = std::move(summary);
  it.start = iso(start);
  return it;
}

struct Recurrence {
  int64_t frequency = 2;
  int64_t interval = 1;
  int64_t count = 0;
  std::optional<double> end;  // unix seconds
  std::optional<std::string> specifier;
};

// A rule of `frequency` (the store's integer) with `count` periods (0: unbounded).
inline Recurrence every(int64_t frequency, int64_t count = 0) {
  Recurrence r;
  r.frequency = frequency;
  r.count = count;
  return r;
}

class CalendarHome {
 public:
  // `schema` replaces the real schema text (to simulate a moved one).
  explicit CalendarHome(std::optional<std::string> schema = std::nullopt) {
    dir_ = home_.path() + kGroupContainer;
    std::filesystem::create_directories(dir_);
    db_ = tesk_test::openDB(path());
    // Fixtures need no durability; fsync per statement made each test take seconds.
    exec("PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY");
    if (!schema) schema = tesk_test::schema("calendar.sql");
    exec("BEGIN;\n" + *schema + "\nCOMMIT;");
  }

  const std::string& home() const { return home_.path(); }
  std::string path() const { return dir_ + "/Calendar.sqlitedb"; }

  void exec(const std::string& sql) { tesk_test::exec(db_.get(), sql); }

  // printf with SQLite's %Q (quoted or NULL) and %q, then exec.
  void execf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::unique_ptr<char, decltype(&sqlite3_free)> sql(sqlite3_vmprintf(format, args),
                                                       sqlite3_free);
    va_end(args);
    exec(sql.get());
  }

  int64_t calendar(const std::optional<std::string>& title) {
    execf("INSERT INTO Calendar (title) VALUES (%Q)", title ? title->c_str() : nullptr);
    return sqlite3_last_insert_rowid(db_.get());
  }

  int64_t item(const Item& it) {
    execf(
        "INSERT INTO CalendarItem (summary, start_date, start_tz, end_date, all_day, calendar_id, "
        "organizer_id, self_attendee_id, has_attendees, hidden, orig_item_id, orig_date) "
        "VALUES (%Q, %.17g, %Q, %.17g, %d, %lld, %lld, %lld, %lld, %lld, %lld, %.17g)",
        it.summary ? it.summary->c_str() : nullptr, stored(it.start),
        it.tz ? it.tz->c_str() : nullptr, stored(it.start) + 3600, it.allDay ? 1 : 0,
        static_cast<long long>(it.calendar), static_cast<long long>(it.organizer),
        static_cast<long long>(it.selfAttendee), static_cast<long long>(it.hasAttendees),
        static_cast<long long>(it.hidden), static_cast<long long>(it.origItem),
        it.origDate != 0 ? stored(it.origDate) : 0.0);
    return sqlite3_last_insert_rowid(db_.get());
  }

  void recurrence(int64_t owner, const Recurrence& r) {
    char buf[64] = "NULL";
    if (r.end) std::snprintf(buf, sizeof buf, "%.17g", stored(*r.end));
    execf(
        "INSERT INTO Recurrence (owner_id, frequency, interval, count, end_date, specifier) "
        "VALUES (%lld, %lld, %lld, %lld, %s, %Q)",
        static_cast<long long>(owner), static_cast<long long>(r.frequency),
        static_cast<long long>(r.interval), static_cast<long long>(r.count), r.end ? buf : "NULL",
        r.specifier ? r.specifier->c_str() : nullptr);
  }

  void exception(int64_t owner, double unixSeconds) {
    execf("INSERT INTO ExceptionDate (owner_id, date) VALUES (%lld, %.17g)",
          static_cast<long long>(owner), stored(unixSeconds));
  }

  // One OccurrenceCache row: the index holds one row per day an occurrence covers.
  void cacheDay(int64_t event, double day, double occurrence, double occurrenceEnd) {
    execf(
        "INSERT INTO OccurrenceCache (day, event_id, occurrence_date, occurrence_start_date, "
        "occurrence_end_date) VALUES (%.17g, %lld, %.17g, %.17g, %.17g)",
        stored(day), static_cast<long long>(event), stored(occurrence), stored(occurrence),
        stored(occurrenceEnd));
  }

 private:
  tesk_test::TempHome home_;
  std::string dir_;
  tesk_test::DB db_;
};

}  // namespace caltest
