#include "cli/TeskTime.h"

#include <unicode/gregocal.h>
#include <unicode/unistr.h>

#include <array>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace TeskTime {
namespace {

bool isHorizontalSpace(unsigned char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; }

std::string_view trimHorizontal(std::string_view s) {
  // Also drop UTF-8 no-break space (C2 A0), the common non-ASCII blank.
  for (;;) {
    if (!s.empty() && isHorizontalSpace(static_cast<unsigned char>(s.front()))) {
      s.remove_prefix(1);
    } else if (s.size() >= 2 && static_cast<unsigned char>(s[0]) == 0xC2 &&
               static_cast<unsigned char>(s[1]) == 0xA0) {
      s.remove_prefix(2);
    } else {
      break;
    }
  }
  for (;;) {
    if (!s.empty() && isHorizontalSpace(static_cast<unsigned char>(s.back()))) {
      s.remove_suffix(1);
    } else if (s.size() >= 2 && static_cast<unsigned char>(s[s.size() - 2]) == 0xC2 &&
               static_cast<unsigned char>(s.back()) == 0xA0) {
      s.remove_suffix(2);
    } else {
      break;
    }
  }
  return s;
}

// Reads exactly `width` ASCII digits at `pos`.
bool digits(std::string_view s, size_t pos, size_t width, int& out) {
  if (pos + width > s.size()) return false;
  int v = 0;
  for (size_t i = 0; i < width; ++i) {
    char c = s[pos + i];
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  out = v;
  return true;
}

// Reads 1..maxWidth digits; advances pos.
bool someDigits(std::string_view s, size_t& pos, size_t maxWidth, int& out) {
  size_t start = pos;
  int v = 0;
  while (pos < s.size() && pos - start < maxWidth && s[pos] >= '0' && s[pos] <= '9') {
    v = v * 10 + (s[pos] - '0');
    ++pos;
  }
  if (pos == start) return false;
  out = v;
  return true;
}

bool validDate(int y, int m, int d) {
  if (m < 1 || m > 12 || d < 1) return false;
  static constexpr std::array<int, 12> kDays{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (d > kDays[m - 1]) return false;
  bool leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
  return !(m == 2 && d == 29 && !leap);
}

bool validTime(int h, int mi, int s) {
  return h >= 0 && h <= 23 && mi >= 0 && mi <= 59 && s >= 0 && s <= 59;
}

// The local-date patterns, tried in order on the trimmed text; each must consume it whole.
std::optional<double> parseLocalDate(std::string_view t, const std::string& zone) {
  int y = 0, mo = 0, d = 1, h = 0, mi = 0, s = 0;
  size_t p = 0;
  if (!someDigits(t, p, 6, y) || p >= t.size() || t[p] != '-') return std::nullopt;
  ++p;
  if (!someDigits(t, p, 2, mo)) return std::nullopt;
  if (p == t.size()) {  // yyyy-MM
    if (mo < 1 || mo > 12) return std::nullopt;
    return localInstant(y, mo, 1, 0, 0, 0, zone);
  }
  if (t[p] != '-') return std::nullopt;
  ++p;
  if (!someDigits(t, p, 2, d) || !validDate(y, mo, d)) return std::nullopt;
  if (p == t.size()) return localInstant(y, mo, d, 0, 0, 0, zone);  // yyyy-MM-dd
  char sep = t[p++];
  if (sep == 'T') {  // yyyy-MM-dd'T'HH:mm:ss
    if (!someDigits(t, p, 2, h) || p >= t.size() || t[p++] != ':') return std::nullopt;
    if (!someDigits(t, p, 2, mi) || p >= t.size() || t[p++] != ':') return std::nullopt;
    if (!someDigits(t, p, 2, s) || p != t.size()) return std::nullopt;
  } else if (sep == ' ') {  // yyyy-MM-dd HH:mm
    if (!someDigits(t, p, 2, h) || p >= t.size() || t[p++] != ':') return std::nullopt;
    if (!someDigits(t, p, 2, mi) || p != t.size()) return std::nullopt;
  } else {
    return std::nullopt;
  }
  if (!validTime(h, mi, s)) return std::nullopt;
  return localInstant(y, mo, d, h, mi, s, zone);
}

struct Unit {
  std::string_view suffix;
  double seconds;
};
constexpr std::array<Unit, 8> kUnits{{{"min", 60},
                                      {"mo", 2629746},
                                      {"s", 1},
                                      {"h", 3600},
                                      {"d", 86400},
                                      {"w", 604800},
                                      {"m", 2629746},
                                      {"y", 31556952}}};

// The whole remainder as a non-negative, finite number (strtod's grammar, no blanks).
std::optional<double> wholeNumber(std::string_view text) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) return std::nullopt;
  std::string copy(text);
  char* end = nullptr;
  double v = std::strtod(copy.c_str(), &end);
  if (end != copy.c_str() + copy.size()) return std::nullopt;
  if (std::isnan(v) || v < 0 || !std::isfinite(v)) return std::nullopt;
  return v;
}

// 10^n − F for the n digits F (not all zero): the fraction that complements 0.F to 1.
// A negative instant is a whole second below it plus a fraction, written that way in
// ISO; its decimal has the complement as its own fraction.
std::string complementDigits(std::string_view f) {
  std::string out(f);
  size_t last = out.find_last_not_of('0');
  if (last == std::string::npos) return out;
  out[last] = static_cast<char>('0' + (10 - (out[last] - '0')));
  for (size_t i = 0; i < last; ++i) out[i] = static_cast<char>('0' + (9 - (out[i] - '0')));
  return out;
}

// Whole seconds plus the fraction 0.F, rounded once: the text "B.F" (or, below zero,
// "-(|B|-1).(10^n-F)") goes to the correctly rounded decimal reader.
double wholePlusFraction(int64_t whole, std::string_view fraction) {
  if (fraction.find_first_not_of('0') == std::string_view::npos) {
    return static_cast<double>(whole);
  }
  std::string text = whole >= 0
                         ? std::to_string(whole) + "." + std::string(fraction)
                         : "-" + std::to_string(-(whole + 1)) + "." + complementDigits(fraction);
  double out = 0;
  std::from_chars(text.data(), text.data() + text.size(), out);
  return out;
}

}  // namespace

int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

CivilDate civilFromDays(int64_t z) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  CivilDate c;
  c.year = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  c.day = doy - (153 * mp + 2) / 5 + 1;
  c.month = mp < 10 ? mp + 3 : mp - 9;
  c.year += c.month <= 2;
  return c;
}

std::unique_ptr<icu::TimeZone> makeZone(const std::string& zone) {
  if (zone.empty()) return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault());
  std::unique_ptr<icu::TimeZone> tz(
      icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zone)));
  if (!tz || *tz == icu::TimeZone::getUnknown()) {
    return std::unique_ptr<icu::TimeZone>(icu::TimeZone::createDefault());
  }
  return tz;
}

std::string localZoneID() {
  std::unique_ptr<icu::TimeZone> tz(icu::TimeZone::createDefault());
  icu::UnicodeString id;
  tz->getID(id);
  std::string out;
  id.toUTF8String(out);
  return out;
}

std::string zoneUsed(const std::string& zone) {
  std::unique_ptr<icu::TimeZone> tz = makeZone(zone);
  icu::UnicodeString id;
  tz->getID(id);
  std::string name;
  id.toUTF8String(name);
  icu::UnicodeString canonical;
  UBool systemID = false;
  UErrorCode status = U_ZERO_ERROR;
  icu::TimeZone::getCanonicalID(id, canonical, systemID, status);
  if (U_SUCCESS(status) && systemID && id != icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID)) {
    return name;
  }
  // ICU falls back to a zone with the host's offset and no rules; name that offset.
  const int32_t minutes = tz->getRawOffset() / 60000;
  std::string offset = "UTC";
  if (minutes != 0) {
    const int32_t a = minutes < 0 ? -minutes : minutes;
    char buf[16];
    std::snprintf(buf, sizeof buf, "%c%02d:%02d", minutes < 0 ? '-' : '+', a / 60, a % 60);
    offset += buf;
  }
  return offset + " (the local zone " + name + " is no IANA zone)";
}

std::optional<double> dayStart(icu::Calendar& cal, int32_t year, int32_t month, int32_t day) {
  UErrorCode status = U_ZERO_ERROR;
  cal.setSkippedWallTimeOption(UCAL_WALLTIME_NEXT_VALID);
  cal.setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  cal.clear();
  cal.set(UCAL_EXTENDED_YEAR, year);
  cal.set(UCAL_MONTH, month - 1);
  cal.set(UCAL_DATE, day);
  cal.set(UCAL_HOUR_OF_DAY, 0);
  const UDate ms = cal.getTime(status);
  if (U_FAILURE(status) || !std::isfinite(ms)) return std::nullopt;
  return ms / 1000.0;
}

std::optional<double> localInstant(int year, int month, int day, int hour, int minute, int second,
                                   const std::string& zone) {
  UErrorCode status = U_ZERO_ERROR;
  icu::GregorianCalendar cal(makeZone(zone).release(), status);
  if (U_FAILURE(status)) return std::nullopt;
  cal.clear();
  cal.set(year, month - 1, day, hour, minute, second);
  UDate ms = cal.getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return ms / 1000.0;
}

std::optional<double> parseISO(std::string_view t) {
  // yyyy-MM-ddTHH:mm:ss followed by Z or ±HH:MM.
  int y, mo, d, h, mi, s;
  if (t.size() < 20) return std::nullopt;
  if (!digits(t, 0, 4, y) || t[4] != '-' || !digits(t, 5, 2, mo) || t[7] != '-' ||
      !digits(t, 8, 2, d) || t[10] != 'T' || !digits(t, 11, 2, h) || t[13] != ':' ||
      !digits(t, 14, 2, mi) || t[16] != ':' || !digits(t, 17, 2, s)) {
    return std::nullopt;
  }
  if (!validDate(y, mo, d) || !validTime(h, mi, s)) return std::nullopt;
  int offset = 0;
  std::string_view zone = t.substr(19);
  std::string_view fraction;
  if (!zone.empty() && zone.front() == '.') {
    size_t end = 1;
    while (end < zone.size() && zone[end] >= '0' && zone[end] <= '9') ++end;
    if (end == 1) return std::nullopt;
    fraction = zone.substr(1, end - 1);
    zone.remove_prefix(end);
  }
  if (zone == "Z") {
    offset = 0;
  } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && zone[3] == ':') {
    int oh, om;
    if (!digits(zone, 1, 2, oh) || !digits(zone, 4, 2, om) || oh > 23 || om > 59) {
      return std::nullopt;
    }
    offset = (oh * 3600 + om * 60) * (zone[0] == '-' ? -1 : 1);
  } else {
    return std::nullopt;
  }
  int64_t days = daysFromCivil(y, static_cast<unsigned>(mo), static_cast<unsigned>(d));
  return wholePlusFraction(days * 86400 + h * 3600 + mi * 60 + s - offset, fraction);
}

void appendISO(std::string& out, double unixSeconds) {
  if (!std::isfinite(unixSeconds)) unixSeconds = 0;
  // Clamp to years 0..9999 so the fixed-width form always holds.
  unixSeconds = std::fmax(-62167219200.0, std::fmin(unixSeconds, 253402300799.0));
  int64_t secs = static_cast<int64_t>(std::floor(unixSeconds));
  int64_t days = secs >= 0 ? secs / 86400 : -((-secs + 86399) / 86400);
  int64_t rem = secs - days * 86400;
  // Digits written by hand: snprintf was a tenth of a large span (one call per row).
  char buf[20] = {'0', '0', '0', '0', '-', '0', '0', '-', '0', '0',
                  'T', '0', '0', ':', '0', '0', ':', '0', '0', 'Z'};
  const auto put = [&buf](size_t at, unsigned v, size_t width) {
    for (size_t i = width; i-- > 0; v /= 10) buf[at + i] = static_cast<char>('0' + v % 10);
  };
  // Rows come in time order, most of them on the day of the row before: its date is
  // written once.
  thread_local int64_t lastDay = std::numeric_limits<int64_t>::min();
  thread_local char lastDate[10];
  if (days != lastDay) {
    const CivilDate c = civilFromDays(days);
    put(0, static_cast<unsigned>(c.year), 4);
    put(5, c.month, 2);
    put(8, c.day, 2);
    std::memcpy(lastDate, buf, sizeof lastDate);
    lastDay = days;
  } else {
    std::memcpy(buf, lastDate, sizeof lastDate);
  }
  put(11, static_cast<unsigned>(rem / 3600), 2);
  put(14, static_cast<unsigned>(rem / 60 % 60), 2);
  put(17, static_cast<unsigned>(rem % 60), 2);
  out.append(buf, sizeof buf);
}

std::string isoString(double unixSeconds) {
  std::string out;
  appendISO(out, unixSeconds);
  return out;
}

std::string exactString(double unixSeconds) {
  std::string whole = isoString(unixSeconds);
  if (!std::isfinite(unixSeconds) || std::floor(unixSeconds) == unixSeconds) return whole;
  // The shortest decimal that reads back as this double; its fraction digits (or
  // their complement below zero) follow the floored second.
  char buf[512];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, unixSeconds, std::chars_format::fixed);
  if (ec != std::errc()) return whole;
  std::string_view text(buf, static_cast<size_t>(end - buf));
  size_t dot = text.find('.');
  if (dot == std::string_view::npos) return whole;
  std::string_view digits = text.substr(dot + 1);
  whole.pop_back();  // the "Z"
  return whole + "." + (unixSeconds < 0 ? complementDigits(digits) : std::string(digits)) + "Z";
}

std::optional<double> parseWhen(std::string_view text, double now, const std::string& zone) {
  std::string t(trimHorizontal(text));
  for (char& c : t) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (t.empty()) return std::nullopt;
  double sign = -1;
  std::string_view rel = t;
  if (rel.front() == '+') {
    rel.remove_prefix(1);
    sign = 1;
  }
  if (rel == "now") return now;
  if (rel == "today") {
    UErrorCode status = U_ZERO_ERROR;
    icu::GregorianCalendar cal(makeZone(zone).release(), status);
    if (U_FAILURE(status)) return std::nullopt;
    cal.setTime(now * 1000.0, status);
    const int32_t year = cal.get(UCAL_EXTENDED_YEAR, status);
    const int32_t month = cal.get(UCAL_MONTH, status) + 1;
    const int32_t day = cal.get(UCAL_DATE, status);
    if (U_FAILURE(status)) return std::nullopt;
    return dayStart(cal, year, month, day);
  }
  if (t.find('-') == std::string::npos) {
    for (const Unit& u : kUnits) {
      if (rel.size() < u.suffix.size() || rel.substr(rel.size() - u.suffix.size()) != u.suffix) {
        continue;
      }
      if (auto n = wholeNumber(rel.substr(0, rel.size() - u.suffix.size()))) {
        return now + sign * *n * u.seconds;
      }
    }
    return std::nullopt;
  }
  if (auto iso = parseISO(text)) return iso;
  std::string_view trimmed = text;
  while (!trimmed.empty() && (trimmed.front() == ' ' || trimmed.front() == '\t'))
    trimmed.remove_prefix(1);
  while (!trimmed.empty() && (trimmed.back() == ' ' || trimmed.back() == '\t'))
    trimmed.remove_suffix(1);
  return parseLocalDate(trimmed, zone);
}

double fromAppleDate(int64_t value) {
  if (value == 0) return 0;
  double v = static_cast<double>(value);
  if (std::fabs(v) > 1e12) v /= 1e9;
  return v + appleEpochOffset;
}

double fromWebKitDate(int64_t value) {
  if (value == 0) return 0;
  return static_cast<double>(value) / 1e6 + webkitEpochOffset;
}

int64_t toAppleNanoseconds(double unixSeconds) {
  double ns = (unixSeconds - appleEpochOffset) * 1e9;
  if (std::isnan(ns)) return 0;
  if (ns >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (ns <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(ns);
}

double currentTime() {
  using namespace std::chrono;
  return duration_cast<duration<double>>(system_clock::now().time_since_epoch()).count();
}

}  // namespace TeskTime
