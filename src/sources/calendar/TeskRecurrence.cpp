// Expanding one recurrence rule inside a window, the way Calendar lays out a series.
#include <unicode/gregocal.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "cli/TeskTime.h"
#include "sources/calendar/TeskCal.h"

namespace TeskCal {

std::optional<Frequency> frequencyFromStore(int64_t stored) {
  switch (stored) {
    case 1:
      return Frequency::daily;
    case 2:
      return Frequency::weekly;
    case 3:
      return Frequency::monthly;
    case 4:
      return Frequency::yearly;
    default:
      return std::nullopt;
  }
}

UCalendarDateFields stepUnit(Frequency frequency) {
  switch (frequency) {
    case Frequency::daily:
      return UCAL_DATE;
    case Frequency::weekly:
      return UCAL_WEEK_OF_YEAR;
    case Frequency::monthly:
      return UCAL_MONTH;
    case Frequency::yearly:
      return UCAL_YEAR;
  }
  return UCAL_DATE;
}

std::unique_ptr<icu::Calendar> calendar(const std::string& zone, const std::string& localZone) {
  std::unique_ptr<icu::TimeZone> tz;
  if (!zone.empty() && zone != "_float") {
    tz.reset(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zone)));
    if (tz && *tz == icu::TimeZone::getUnknown()) tz.reset();
  }
  if (!tz) tz = TeskTime::makeZone(localZone);
  UErrorCode status = U_ZERO_ERROR;
  // The calendar adopts the zone; the root locale keeps week rules out of the
  // process's locale, and the first weekday is pinned below anyway.
  auto cal = std::make_unique<icu::GregorianCalendar>(tz.release(), icu::Locale::getRoot(), status);
  if (U_FAILURE(status)) return nullptr;
  cal->setFirstDayOfWeek(UCAL_SUNDAY);
  cal->setMinimalDaysInFirstWeek(1);
  cal->setLenient(true);
  return cal;
}

namespace {

constexpr double kDay = 86400;

// The longest a step of `unit` can be, in seconds (a DST hour included).
double longestStep(UCalendarDateFields unit) {
  switch (unit) {
    case UCAL_DATE:
      return kDay + 3600;
    case UCAL_WEEK_OF_YEAR:
      return 7 * kDay + 3600;
    case UCAL_MONTH:
      return 31 * kDay + 3600;
    default:
      return 366 * kDay + 3600;
  }
}

// How far from its period date P a selected date can lie: the period's own span
// (its week, month, or the whole year when a specifier names months), a day for
// the time of day, and a day of slack for zone offsets.
double reach(UCalendarDateFields unit, const std::optional<Specifier>& parsed, bool everyWeekday) {
  double span = 0;
  if (parsed && !everyWeekday) {
    span = parsed->months.empty() ? 31 * kDay : 366 * kDay;
  } else if (parsed) {
    span = longestStep(unit);
  }
  return span + 2 * kDay;
}

// The period date of step `i`: always from the start, because stepping from the
// previous period would let a short month pull every later occurrence of a 31st
// series back to the 28th. Nothing when the calendar cannot form it.
std::optional<double> periodDate(icu::Calendar& cal, UDate startMs, UCalendarDateFields unit,
                                 int64_t i, int64_t interval) {
  int64_t amount = 0;
  if (__builtin_mul_overflow(i, interval, &amount) ||
      amount > std::numeric_limits<int32_t>::max()) {
    return std::nullopt;
  }
  UErrorCode status = U_ZERO_ERROR;
  cal.setTime(startMs, status);
  cal.add(unit, static_cast<int32_t>(amount), status);
  const UDate ms = cal.getTime(status);
  if (U_FAILURE(status) || !std::isfinite(ms)) return std::nullopt;
  return ms / 1000.0;
}

}  // namespace

Expansion occurrences(const Rule& rule, double start, const std::string& zone, bool allDay,
                      double from, double to, int64_t ceiling, const std::string& localZone) {
  std::unique_ptr<icu::Calendar> cal = calendar(zone, localZone);
  if (!cal) return Expansion{{}, true};
  return occurrences(rule, start, *cal, allDay, from, to, ceiling);
}

Expansion occurrences(const Rule& rule, double start, icu::Calendar& cal, bool allDay, double from,
                      double to, int64_t ceiling) {
  Expansion out;
  if (!rule.frequency || !std::isfinite(start) ||
      (rule.specifier && !Specifier::expandable(*rule.specifier))) {
    out.incomplete = true;
    return out;
  }
  const std::optional<Specifier> parsed =
      rule.specifier ? Specifier::parse(*rule.specifier) : std::nullopt;
  const UCalendarDateFields unit = stepUnit(*rule.frequency);
  const bool everyWeekday = parsed && parsed->months.empty() &&
                            std::all_of(parsed->days.begin(), parsed->days.end(),
                                        [](const Specifier::Day& d) { return d.ordinal == 0; });
  const int64_t interval = std::max<int64_t>(rule.interval, 1);
  const UDate startMs = start * 1000.0;
  std::optional<int64_t> lastKey;

  // Periods that end long before the window select nothing; jump over them rather
  // than stepping a years-old daily series one day at a time. The jump only skips
  // periods that provably yield no instant and cannot stop the expansion (they lie
  // before `from` and so before `to`), except an `end` among them, checked below.
  int64_t first = 0;
  const double margin = reach(unit, parsed, everyWeekday);
  if (from <= to && std::isfinite(from) && from - margin > start) {
    const double steps =
        std::floor((from - margin - start) / (longestStep(unit) * static_cast<double>(interval)));
    first = steps >= static_cast<double>(ceiling) ? ceiling : static_cast<int64_t>(steps);
    if (rule.count > 0) first = std::min(first, rule.count);
    if (first > 0) {
      std::optional<double> last = periodDate(cal, startMs, unit, first - 1, interval);
      // The series ended before the window: it stopped, complete, with nothing.
      if (last && rule.end && *rule.end < *last) return out;
      if (!last) first = 0;  // let the plain walk report where forming fails
    }
  }

  for (int64_t i = first; i < ceiling; ++i) {
    if (rule.count > 0 && i >= rule.count) return out;
    const std::optional<double> period = periodDate(cal, startMs, unit, i, interval);
    if (!period) {
      out.incomplete = true;
      return out;
    }
    if (*period > to) return out;
    if (rule.end && *rule.end < *period) return out;
    // A period this far before the window selects nothing inside it.
    if (*period + margin < from) continue;

    if (!parsed) {
      if (*period >= from) out.instants.push_back(*period);
    } else if (everyWeekday) {
      for (double d : parsed->weekdayDates(*period, unit, cal, start, allDay)) {
        if ((!rule.end || d <= *rule.end) && d >= start && d >= from && d <= to) {
          out.instants.push_back(d);
        }
      }
    } else {
      // Positional dates depend only on the period's year (and month when the
      // specifier names none), so a finer rule would select the same dates again
      // from every period of that month or year; an event does not recur onto itself.
      UErrorCode status = U_ZERO_ERROR;
      cal.setTime(*period * 1000.0, status);
      const int64_t key = static_cast<int64_t>(cal.get(UCAL_EXTENDED_YEAR, status)) * 16 +
                          (parsed->months.empty() ? cal.get(UCAL_MONTH, status) : 0);
      if (U_FAILURE(status)) {
        out.incomplete = true;
        return out;
      }
      if (key == lastKey) continue;
      lastKey = key;
      for (double d : parsed->dates(*period, cal, start, allDay)) {
        if ((!rule.end || d <= *rule.end) && from <= d && d <= to) out.instants.push_back(d);
      }
    }
  }
  out.incomplete = true;
  return out;
}

}  // namespace TeskCal
