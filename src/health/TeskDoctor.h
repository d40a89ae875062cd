// Per-store health for the `doctor` verb: is each personal store on this Mac, may this
// process read it, how fresh is its newest row, and is the account behind a mirror
// failing. A missing store is told apart from an unreadable one, and a mirror that
// stopped moving from one that is merely quiet.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TeskDoctor {

// A: written by this Mac itself. B: a mirror filled from an online account, which can
// stop moving without any error on this Mac.
enum class Category { a, b };

// In this order; the raw values are printed.
enum class Verdict { fresh, stale, partial, dead, denied, absent };

// "A" or "B".
std::string_view rawValue(Category category);
// "FRESH", "STALE", "PARTIAL", "DEAD", "DENIED" or "ABSENT".
std::string_view rawValue(Verdict verdict);

// One store to look at: where it may be and which column dates its rows.
struct Probe {
  // apple: since 2001 (seconds or nanoseconds); webkit: microseconds since 1601;
  // unixSeconds: seconds since 1970.
  enum class Epoch { apple, webkit, unixSeconds };

  std::string key;
  Category category = Category::a;
  std::vector<std::string> paths;  // candidates, absolute
  bool aggregate = false;          // every existing candidate counts, summed
  std::string table;
  std::string column;
  Epoch epoch = Epoch::unixSeconds;
  bool forwardLooking = false;  // holds future rows by nature (calendar events)
  std::optional<std::string> provider;
  std::string note;

  // The candidates that exist; for a non-aggregate probe only the first of them.
  std::vector<std::string> resolved() const;

  // Unix seconds for a stored value. apple: magnitude up to 1e12 is seconds, above
  // is nanoseconds; 0 stays 0 for apple and webkit.
  static double toUnix(Epoch epoch, int64_t value);
  // The stored value for unix seconds, truncated and saturated to 64 bits; apple is
  // written in nanoseconds.
  static int64_t fromUnix(Epoch epoch, double unixSeconds);
};

// One health row (the doctor's stores and the capture heartbeat).
struct Row {
  std::string key;
  Category category = Category::a;
  Verdict verdict = Verdict::absent;
  double newest = 0;                                          // unix seconds; 0 unknown
  double ageHours = std::numeric_limits<double>::infinity();  // infinity unknown
  int64_t count = 0;
  int64_t future = 0;
  int64_t undated = 0;     // no date at all: neither newest nor future
  int64_t outOfRange = 0;  // a date that is no instant (before 1970, after 2200, not a number)
  std::string openMode = "-";
  std::string detail;
  int stores = 0;
  std::optional<std::string> cause;
};

// The probe table for `home`, in print order; the mail probe only when an index exists.
std::vector<Probe> probes(const std::string& home);

// One row per probe in table order, then the capture-heartbeat row. Never throws.
std::vector<Row> run(double now, const std::string& home);

// The rows of the probes whose key is in `keys`, in table order, without the capture
// heartbeat: the probes, causes and rules of `run`, but each store is asked only for its
// newest dated row, which a date index answers without reading the table, so a rows verb
// can afford it. `count` is then 1 for a store with a counted row, and `future`,
// `undated`, `outOfRange` and `detail` stay unfilled: rows for verdicts, not for printing.
std::vector<Row> verdicts(double now, const std::string& home,
                          const std::vector<std::string>& keys);

// The doctor verb's lines: header, one line per row, then the DEAD, PARTIAL, CAUSE and
// DENIED explanation blocks for the verdicts present.
std::vector<std::string> render(const std::vector<Row>& rows);

// FRESH within a day, STALE within a week; older (or negative ages) is STALE for
// category A and DEAD for B. No rows: ABSENT for A, DEAD for B.
Verdict classify(Category category, double ageHours, int64_t count);

// The newest ~/Library/Mail/V<n>/MailData/Envelope Index that exists, or nothing.
std::optional<std::string> mailIndexPath(const std::string& home);

// The top-level address book, then one per entry of its Sources folder.
std::vector<std::string> addressBookPaths(const std::string& home);

}  // namespace TeskDoctor
