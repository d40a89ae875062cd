// The specifier text of Calendar's Recurrence table and the dates it selects
// inside one period of a rule.
#include <unicode/brkiter.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <utility>

#include "sources/calendar/TeskCal.h"

namespace TeskCal {
namespace {

constexpr std::array<std::pair<std::string_view, int>, 7> kWeekdays{
    {{"SU", 1}, {"MO", 2}, {"TU", 3}, {"WE", 4}, {"TH", 5}, {"FR", 6}, {"SA", 7}}};

// Longest run of days a period may have; a year has 366, so this only bounds
// hostile units.
constexpr int32_t kMaxPeriodDays = 400;

// A whole signed decimal integer: optional "+" or "-", then ASCII digits only,
// fitting 64 bits ("", "+", "2 ", "+-1" and overflows are not integers).
std::optional<int64_t> signedInteger(std::string_view text) {
  std::string_view digits = text;
  bool negative = false;
  if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty()) return std::nullopt;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  // Parse with the sign attached so INT64_MIN is representable.
  std::string_view signedText = negative ? text : digits;
  int64_t value = 0;
  auto [end, ec] = std::from_chars(signedText.data(), signedText.data() + signedText.size(), value);
  if (ec != std::errc() || end != signedText.data() + signedText.size()) return std::nullopt;
  return value;
}

// Splits on `sep`, dropping empty pieces.
template <typename F>
void forEachPiece(std::string_view text, char sep, F&& f) {
  while (!text.empty()) {
    size_t cut = text.find(sep);
    std::string_view piece = text.substr(0, cut);
    if (!piece.empty()) f(piece);
    if (cut == std::string_view::npos) break;
    text.remove_prefix(cut + 1);
  }
}

bool isASCII(std::string_view s) {
  return std::all_of(s.begin(), s.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// One D item: the weekday code is the last two user-perceived characters,
// upper-cased (grapheme clusters, so a non-ASCII item is cut where Calendar would
// cut it); the rest is the ordinal, 0 when it is not a whole decimal integer.
std::optional<Specifier::Day> dayItem(std::string_view item) {
  std::string code;
  std::optional<int64_t> ordinal;
  if (isASCII(item)) {
    size_t cut = item.size() >= 2 ? item.size() - 2 : 0;
    code.assign(item.substr(cut));
    for (char& c : code) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    }
    ordinal = signedInteger(item.substr(0, cut));
  } else {
    icu::UnicodeString u = icu::UnicodeString::fromUTF8(
        icu::StringPiece(item.data(), static_cast<int32_t>(item.size())));
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::BreakIterator> it(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !it) return std::nullopt;
    it->setText(u);
    int32_t cut = it->last();
    for (int k = 0; k < 2 && cut > 0; ++k) cut = it->preceding(cut);
    if (cut < 0) cut = 0;
    icu::UnicodeString codeU(u, cut);
    codeU.toUpper(icu::Locale::getRoot());
    codeU.toUTF8String(code);
    std::string rest;
    icu::UnicodeString(u, 0, cut).toUTF8String(rest);
    ordinal = signedInteger(rest);
  }
  std::optional<int> day = Specifier::weekday(code);
  if (!day) return std::nullopt;
  return Specifier::Day{ordinal.value_or(0), *day};
}

struct TimeOfDay {
  int32_t hour = 0, minute = 0, second = 0;
};

TimeOfDay timeOfDayOf(double instant, icu::Calendar& cal, bool allDay) {
  if (allDay) return {};
  UErrorCode status = U_ZERO_ERROR;
  cal.setTime(instant * 1000.0, status);
  TimeOfDay t{cal.get(UCAL_HOUR_OF_DAY, status), cal.get(UCAL_MINUTE, status),
              cal.get(UCAL_SECOND, status)};
  if (U_FAILURE(status)) return {};
  return t;
}

}  // namespace

std::optional<int> Specifier::weekday(std::string_view code) {
  for (const auto& [name, number] : kWeekdays) {
    if (name == code) return number;
  }
  return std::nullopt;
}

std::optional<Specifier> Specifier::parse(std::string_view text) {
  Specifier parsed;
  forEachPiece(text, ';', [&](std::string_view piece) {
    size_t eq = piece.find('=');
    if (eq == std::string_view::npos) return;
    std::string_view key = piece.substr(0, eq);
    std::string_view value = piece.substr(eq + 1);
    if (key == "D") {
      forEachPiece(value, ',', [&](std::string_view item) {
        if (auto day = dayItem(item)) parsed.days.push_back(*day);
      });
    } else if (key == "O") {
      forEachPiece(value, ',', [&](std::string_view item) {
        if (auto month = signedInteger(item)) parsed.months.push_back(*month);
      });
    }
  });
  if (parsed.days.empty()) return std::nullopt;
  return parsed;
}

bool Specifier::expandable(std::string_view text) {
  bool known = true;
  forEachPiece(text, ';', [&](std::string_view piece) {
    size_t eq = piece.find('=');
    if (eq == std::string_view::npos) return;
    std::string_view key = piece.substr(0, eq);
    if (key != "D" && key != "O") known = false;
  });
  return known;
}

std::vector<double> Specifier::dates(double period, icu::Calendar& cal, double timeOfDay,
                                     bool allDay) const {
  std::vector<double> out;
  const TimeOfDay t = timeOfDayOf(timeOfDay, cal, allDay);
  UErrorCode status = U_ZERO_ERROR;
  cal.setTime(period * 1000.0, status);
  const int32_t year = cal.get(UCAL_EXTENDED_YEAR, status);
  const int32_t ownMonth = cal.get(UCAL_MONTH, status) + 1;
  if (U_FAILURE(status)) return out;

  auto formMonth = [&](int64_t month) {
    // Months outside the year name no month of it.
    if (month < 1 || month > 12) return;
    for (const Day& d : days) {
      // No month holds a sixth weekday; ordinal 0 names none either.
      if (d.ordinal == 0 || d.ordinal > 5 || d.ordinal < -5) continue;
      UErrorCode st = U_ZERO_ERROR;
      cal.clear();
      cal.set(UCAL_EXTENDED_YEAR, year);
      cal.set(UCAL_MONTH, static_cast<int32_t>(month - 1));
      cal.set(UCAL_DAY_OF_WEEK, d.weekday);
      cal.set(UCAL_DAY_OF_WEEK_IN_MONTH, static_cast<int32_t>(d.ordinal));
      cal.set(UCAL_HOUR_OF_DAY, t.hour);
      cal.set(UCAL_MINUTE, t.minute);
      cal.set(UCAL_SECOND, t.second);
      UDate ms = cal.getTime(st);
      if (U_FAILURE(st) || !std::isfinite(ms)) continue;
      // A lenient calendar rolls a missing fifth weekday into the next month; that
      // date is not this month's weekday, so it is not an occurrence.
      if (cal.get(UCAL_EXTENDED_YEAR, st) != year || cal.get(UCAL_MONTH, st) != month - 1 ||
          U_FAILURE(st)) {
        continue;
      }
      out.push_back(ms / 1000.0);
    }
  };
  if (months.empty()) {
    formMonth(ownMonth);
  } else {
    for (int64_t m : months) formMonth(m);
  }
  std::sort(out.begin(), out.end());
  // A day or month listed twice names one date, not two occurrences.
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::vector<double> Specifier::weekdayDates(double period, UCalendarDateFields unit,
                                            icu::Calendar& cal, double timeOfDay,
                                            bool allDay) const {
  std::vector<double> out;
  std::array<bool, 8> wanted{};
  for (const Day& d : days) {
    if (d.weekday >= 1 && d.weekday <= 7) wanted[static_cast<size_t>(d.weekday)] = true;
  }
  const TimeOfDay t = timeOfDayOf(timeOfDay, cal, allDay);

  // The first day of the period containing P, its weekday, and its length in days.
  UErrorCode status = U_ZERO_ERROR;
  cal.setTime(period * 1000.0, status);
  const int32_t year = cal.get(UCAL_EXTENDED_YEAR, status);
  int32_t month0 = cal.get(UCAL_MONTH, status);
  int32_t day = cal.get(UCAL_DATE, status);
  const int32_t weekdayOfP = cal.get(UCAL_DAY_OF_WEEK, status);
  int32_t back = 0;  // days from the period's first day to P
  int32_t length = 0;
  switch (unit) {
    case UCAL_DATE:
    case UCAL_DAY_OF_YEAR:
      length = 1;
      break;
    case UCAL_WEEK_OF_YEAR:
    case UCAL_WEEK_OF_MONTH:
      back = (weekdayOfP - cal.getFirstDayOfWeek(status) + 7) % 7;
      length = 7;
      break;
    case UCAL_MONTH:
      back = day - 1;
      length = cal.getActualMaximum(UCAL_DAY_OF_MONTH, status);
      break;
    case UCAL_YEAR:
      back = cal.get(UCAL_DAY_OF_YEAR, status) - 1;
      length = cal.getActualMaximum(UCAL_DAY_OF_YEAR, status);
      break;
    default:
      return out;
  }
  if (U_FAILURE(status) || length < 1 || back < 0) return out;
  length = std::min(length, kMaxPeriodDays);
  const int32_t firstWeekday = ((weekdayOfP - 1 - back) % 7 + 7) % 7 + 1;
  day -= back;

  // Weekdays repeat every seven days, so no day needs the calendar but the hits;
  // the lenient calendar carries a day number past the month's end into the next.
  for (int32_t k = 0; k < length; ++k) {
    const int32_t weekday = (firstWeekday - 1 + k) % 7 + 1;
    if (!wanted[static_cast<size_t>(weekday)]) continue;
    UErrorCode st = U_ZERO_ERROR;
    cal.clear();
    cal.set(UCAL_EXTENDED_YEAR, year);
    cal.set(UCAL_MONTH, month0);
    cal.set(UCAL_DATE, day + k);
    cal.set(UCAL_HOUR_OF_DAY, t.hour);
    cal.set(UCAL_MINUTE, t.minute);
    cal.set(UCAL_SECOND, t.second);
    const UDate ms = cal.getTime(st);
    if (U_FAILURE(st) || !std::isfinite(ms)) continue;
    out.push_back(ms / 1000.0);
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace TeskCal
