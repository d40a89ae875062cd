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

Expansion occurrences(const Rule& rule, double start, const std::string& zone, bool allDay,
                      double from, double to, int64_t ceiling, const std::string& localZone) {
  Expansion out;
  if (!rule.frequency || !std::isfinite(start)) {
    out.incomplete = true;
    return out;
  }
  std::unique_ptr<icu::Calendar> cal = calendar(zone, localZone);
  if (!cal) {
    out.incomplete = true;
    return out;
  }
  const std::optional<Specifier> spec =
      rule.specifier ? Specifier::parse(*rule.specifier) : std::nullopt;
  const UCalendarDateFields unit = stepUnit(*rule.frequency);
  const bool everyWeekday = spec && spec->months.empty() &&
                            std::all_of(spec->days.begin(), spec->days.end(),
                                        [](const Specifier::Day& d) { return d.ordinal == 0; });
  const int64_t interval = std::max<int64_t>(rule.interval, 1);
  const UDate startMs = start * 1000.0;
  std::optional<int64_t> lastKey;

  for (int64_t i = 0; i < ceiling; ++i) {
    if (rule.count > 0 && i >= rule.count) return out;

    // Always from the start: stepping from the previous period would let a short
    // month pull every later occurrence of a 31st series back to the 28th.
    int64_t amount = 0;
    if (__builtin_mul_overflow(i, interval, &amount) ||
        amount > std::numeric_limits<int32_t>::max()) {
      out.incomplete = true;
      return out;
    }
    UErrorCode status = U_ZERO_ERROR;
    cal->setTime(startMs, status);
    cal->add(unit, static_cast<int32_t>(amount), status);
    const UDate periodMs = cal->getTime(status);
    if (U_FAILURE(status) || !std::isfinite(periodMs)) {
      out.incomplete = true;
      return out;
    }
    const double period = periodMs / 1000.0;

    if (period > to) return out;
    if (rule.end && *rule.end < period) return out;

    if (!spec) {
      if (period >= from) out.instants.push_back(period);
    } else if (everyWeekday) {
      for (double d : spec->weekdayDates(period, unit, *cal, start, allDay)) {
        if ((!rule.end || d <= *rule.end) && d >= start && d >= from && d <= to) {
          out.instants.push_back(d);
        }
      }
    } else {
      // Positional dates depend only on the period's year (and month when the
      // specifier names none), so a finer rule would select the same dates again
      // from every period of that month or year; an event does not recur onto itself.
      const int64_t key = static_cast<int64_t>(cal->get(UCAL_EXTENDED_YEAR, status)) * 16 +
                          (spec->months.empty() ? cal->get(UCAL_MONTH, status) : 0);
      if (U_FAILURE(status)) {
        out.incomplete = true;
        return out;
      }
      if (key == lastKey) continue;
      lastKey = key;
      for (double d : spec->dates(period, *cal, start, allDay)) {
        if ((!rule.end || d <= *rule.end) && from <= d && d <= to) out.instants.push_back(d);
      }
    }
  }
  out.incomplete = true;
  return out;
}

}  // namespace TeskCal
