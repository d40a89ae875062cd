// Hostile recurrence rows: the first bytes choose frequency, interval, count, the
// all-day flag and the zone; the rest is the specifier text. Parsing and expanding
// must end every input with instants inside the window, ascending per period and
// never more than the window can hold.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "sources/calendar/TeskCal.h"

namespace {

constexpr double kFrom = 1767225600;  // 2026-01-01T00:00:00Z
constexpr double kTo = 1798761600;    // 2027-01-01T00:00:00Z
const char* const kZones[] = {"_float",        "America/Los_Angeles", "Asia/Tokyo",
                              "Europe/Berlin", "Not/AZone",           ""};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Real specifiers are a few dozen bytes; the cap keeps each run fast.
  if (size < 12 || size > 4096) return 0;
  int64_t interval = 0;
  int32_t count = 0;
  std::memcpy(&interval, data, 8);
  std::memcpy(&count, data + 8, 2);
  const uint8_t frequency = data[10] % 7;  // 0, 5, 6 are unknown
  const uint8_t flags = data[11];
  const std::string specifier(reinterpret_cast<const char*>(data + 12), size - 12);

  if (auto parsed = TeskCal::Specifier::parse(specifier)) {
    for (const auto& d : parsed->days) {
      if (d.weekday < 1 || d.weekday > 7) __builtin_trap();
    }
  }

  TeskCal::Rule rule;
  rule.frequency = TeskCal::frequencyFromStore(frequency);
  rule.interval = interval < 1 ? 1 : interval;
  rule.count = count % 64;
  rule.specifier = specifier;
  if (flags & 0x80) rule.end = kFrom + (flags & 0x3f) * 86400.0 * 7;
  const bool allDay = flags & 0x40;
  const std::string zone = kZones[(flags & 0x3f) % 6];
  // Starts from two years before the window to inside it.
  const double start = kFrom - 730 * 86400.0 + static_cast<double>(data[9]) * 86400.0 * 4;
  TeskCal::Expansion e = TeskCal::occurrences(rule, start, zone, allDay, kFrom, kTo, 400, "UTC");
  // A rule with a key the expansion does not implement yields nothing at all.
  if (!TeskCal::Specifier::expandable(specifier) && (!e.incomplete || !e.instants.empty())) {
    __builtin_trap();
  }
  for (double t : e.instants) {
    if (!std::isfinite(t) || t < kFrom || t > kTo) __builtin_trap();
    if (rule.end && t > *rule.end) __builtin_trap();
  }
  return 0;
}
