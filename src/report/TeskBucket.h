// --by day|week|month|year|who|person: one line per bucket instead of one per row. Time
// buckets are cut in the user's own time zone (the day the person was standing in),
// and weeks are ISO 8601 weeks labelled by their week-year.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <unicode/smpdtfmt.h>

#include "report/TeskRow.h"
#include "report/TeskRowStream.h"

namespace TeskBucket {

enum class Kind { day, week, month, year, who, person };

// Every kind in declared order (the --by error message lists them so).
inline constexpr Kind kinds[] = {Kind::day,  Kind::week, Kind::month,
                                 Kind::year, Kind::who,  Kind::person};

struct Row {
  std::string key;
  int64_t count = 0;
  int64_t inbound = 0;
  int64_t outbound = 0;
  double first = std::numeric_limits<double>::max();
  double last = -std::numeric_limits<double>::max();
  // person only: the display name and every handle (row `who`) seen for the person.
  std::string name;
  std::set<std::string> handles;
};

// Who a canonical handle belongs to: a contact card's key and name, or the handle
// alone with no name.
struct Person {
  std::string key;
  std::string name;
};
using PersonLookup = std::function<Person(const std::string& handle)>;

// "day", "week", "month", "year", "who", "person".
std::string_view rawValue(Kind kind);

// Lowercases, drops one trailing "s", then matches a raw value: "days", "Weeks" and
// "who" parse; "hour" does not.
std::optional<Kind> parse(std::string_view text);

// A formatter with `pattern`, the POSIX English locale and a Gregorian calendar in
// `zone` (empty: the process's local zone). With `isoWeeks` the calendar counts weeks
// from Monday with week 1 holding the year's first Thursday. Nothing when ICU refuses.
std::unique_ptr<icu::SimpleDateFormat> formatter(const std::string& pattern,
                                                 const std::string& zone, bool isoWeeks = false);

// The label of one row: its local day, ISO week, month or year in `zone`, or `person`
// unchanged for who. Builds its formatter per call; apply() builds one per run.
std::string label(Kind kind, std::string_view person, double ts, const std::string& zone);

// Counts `rows` into buckets: for who the key is teskID, or who when that is empty;
// for person it is what `people` says that handle belongs to (the handle itself when
// `people` is empty), asked once per handle. Time kinds come out in key order (which
// is time order); who and person by count descending, ties by key ascending. Each row
// is counted as it streams past.
std::vector<Row> apply(TeskRowStream& rows, Kind kind, const std::string& zone,
                       const PersonLookup& people = {});
// The same for rows held in answer order.
std::vector<Row> apply(std::span<const TeskRow> rows, Kind kind, const std::string& zone,
                       const PersonLookup& people = {});

// The header line; who has a seventh column, "name"; person is "bucket", "name",
// "handles", then the counts and instants.
std::string header(Kind kind);

// Looks a bucket key up in the address books; nothing when it names no one.
using NameLookup = std::function<std::optional<std::string>(const std::string& key)>;

// Header, then key, count, in, out, first and last (ISO, UTC) per bucket, tab-separated
// and unescaped; for who a seventh column, the name `names` gives or empty; for person
// the key, the bucket's name and its handles joined by "|" (escaped) come first.
std::vector<std::string> render(const std::vector<Row>& buckets, const NameLookup& names,
                                Kind kind);

// The same, with names from any map of key to name (the roster's byHandle).
template <typename Map>
std::vector<std::string> render(const std::vector<Row>& buckets, const Map& names, Kind kind) {
  return render(buckets, NameLookup([&names](const std::string& key) -> std::optional<std::string> {
                  auto it = names.find(key);
                  if (it == names.end()) return std::nullopt;
                  return std::string(it->second);
                }),
                kind);
}

}  // namespace TeskBucket
