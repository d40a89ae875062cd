// Instants are unix seconds (double) everywhere inside tesk. This is the one place
// that turns typed time expressions into instants, renders instants as ISO 8601,
// and converts the stores' foreign epochs.
//
// Zone arguments name an IANA time zone; an empty name means the process's local
// zone. Callers pass the zone down so tests can pin it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <unicode/calendar.h>
#include <unicode/timezone.h>

namespace TeskTime {

inline constexpr double appleEpochOffset = 978307200.0;      // 1970 -> 2001-01-01
inline constexpr double webkitEpochOffset = -11644473600.0;  // 1601-01-01 -> 1970

// The instants a store can honestly hold: 1970 up to, not including, 2200. A value
// outside (a corrupt field, INT64_MAX, a placeholder) is no instant at all and is
// kept out of horizons and freshness, where it would move or invert them.
inline constexpr double earliestPlausible = 0;
inline constexpr double latestPlausible = 7258118400.0;  // 2200-01-01T00:00:00Z
inline constexpr bool plausible(double t) { return t >= earliestPlausible && t < latestPlausible; }

// Returns the instant a --since/--until text names, relative to `now`, or nothing.
// Relative amounts (30d, 90min, 12m, 5y) count back unless prefixed "+"; "now";
// "today" (local midnight); ISO 8601 with a zone; local dates yyyy-MM-dd['T'HH:mm:ss],
// "yyyy-MM-dd HH:mm", yyyy-MM.
std::optional<double> parseWhen(std::string_view text, double now, const std::string& zone = {});

// The internet date-time form with a zone designator; fractional seconds, when
// present, are read exactly (the decimal's nearest double, not a sum of two roundings).
std::optional<double> parseISO(std::string_view text);

// UTC internet date-time, "Z", whole seconds (floored): 2026-01-01T09:30:00Z.
std::string isoString(double unixSeconds);
// isoString(unixSeconds) appended to `out` (its 20 characters outgrow a short string).
void appendISO(std::string& out, double unixSeconds);
// The same form with as many fractional digits as it takes for parseISO to give back
// exactly this double (none for a whole second): 2026-01-01T09:30:00.1234567Z.
// Paging hints are written this way, so no row is lost to a rounded second.
std::string exactString(double unixSeconds);

// Messages dates: whole seconds since 2001 up to 1e12 in magnitude, nanoseconds above.
double fromAppleDate(int64_t value);
// Microseconds since 1601; 0 stays 0.
double fromWebKitDate(int64_t value);
// (t - 2001) in nanoseconds, truncated toward zero; saturates outside the int64 range.
int64_t toAppleNanoseconds(double unixSeconds);

// Proleptic Gregorian civil dates and days since 1970-01-01 (Howard Hinnant's
// algorithms), for UTC arithmetic that needs no time zone.
struct CivilDate {
  int64_t year = 1970;
  unsigned month = 1;
  unsigned day = 1;
};
CivilDate civilFromDays(int64_t days);
int64_t daysFromCivil(int64_t year, unsigned month, unsigned day);

// The current unix time, read once by the entry and passed down.
double currentTime();

// The identifier of the process's local zone (ICU default, which honours TZ).
std::string localZoneID();

// An ICU zone for `zone` (empty: the local zone; unknown ids: the local zone).
std::unique_ptr<icu::TimeZone> makeZone(const std::string& zone);

// The zone an empty `zone` or an unknown id actually resolves to, as the notes name
// it: the IANA id, or where the process's zone names no IANA zone (TZ empty, a bad
// name, a bare POSIX offset) the fixed offset ICU cuts in ("UTC", "UTC-03:00")
// followed by the id it was given, e.g. "UTC (the local zone Bad/Name is no IANA zone)".
std::string zoneUsed(const std::string& zone);

// The first instant of the local date `year`-`month`-`day` (1-based month; a day
// past the month's end rolls into the next) in `calendar`'s zone: its midnight; where
// the zone skips midnight (DST starting at 00:00) the first wall time after the gap;
// where it repeats midnight the earlier one. Moves `calendar`'s time and sets its
// wall-time options. Nothing when ICU cannot form it.
std::optional<double> dayStart(icu::Calendar& calendar, int32_t year, int32_t month, int32_t day);

// Unix seconds for a wall-clock time in `zone` (Gregorian, lenient about DST gaps).
std::optional<double> localInstant(int year, int month, int day, int hour, int minute, int second,
                                   const std::string& zone);

}  // namespace TeskTime
