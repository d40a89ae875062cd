#include "health/TeskOptelHealth.h"

#include <algorithm>
#include <cmath>

#include "cli/TeskFile.h"
#include "cli/TeskTime.h"
#include "report/TeskJSONValue.h"

namespace TeskOptelHealth {
namespace {

// The status file is a few hundred bytes; a larger one is not the capture status.
constexpr size_t kMaxStatusBytes = 1 << 20;

std::optional<std::string> readFile(const std::string& path) {
  return TeskFile::readRegular(path, kMaxStatusBytes);
}

std::optional<double> dateMember(const TeskJSONValue::Value& status, std::string_view key) {
  const TeskJSONValue::Value* v = status.member(key);
  if (v == nullptr || v->string() == nullptr) return std::nullopt;
  return date(*v->string());
}

std::optional<double> numberMember(const TeskJSONValue::Value& status, std::string_view key) {
  const TeskJSONValue::Value* v = status.member(key);
  if (v == nullptr || v->number() == nullptr) return std::nullopt;
  return *v->number();
}

bool boolMember(const TeskJSONValue::Value& status, std::string_view key) {
  const TeskJSONValue::Value* v = status.member(key);
  return v != nullptr && v->boolean() != nullptr && *v->boolean();
}

int64_t saturatedInt(double d) {
  if (std::isnan(d)) return 0;
  if (d >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (d <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(d);
}

std::string wholeSeconds(double seconds) {
  return std::to_string(saturatedInt(std::round(seconds)));
}

TeskDoctor::Row baseRow() {
  TeskDoctor::Row r;
  r.key = "optel";
  r.category = TeskDoctor::Category::a;
  r.stores = 1;
  return r;
}

}  // namespace

std::optional<double> date(std::string_view text) {
  // yyyy-MM-ddTHH:mm:ss is 19 bytes; a fraction follows as '.' and digits.
  if (text.size() > 20 && text[19] == '.') {
    size_t end = 20;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
    size_t digits = end - 20;
    if (digits == 0 || digits > 9) return std::nullopt;
    std::string whole(text.substr(0, 19));
    whole.append(text.substr(end));
    auto base = TeskTime::parseISO(whole);
    if (!base) return std::nullopt;
    double fraction = 0, scale = 0.1;
    for (size_t k = 20; k < end; ++k, scale /= 10) fraction += (text[k] - '0') * scale;
    return *base + fraction;
  }
  return TeskTime::parseISO(text);
}

TeskDoctor::Row row(const std::string& home, double now) {
  TeskDoctor::Row r = baseRow();
  std::optional<TeskJSONValue::Value> status;
  if (auto text = readFile(home + "/.harbend/optel/capture-status.json")) {
    status = TeskJSONValue::parse(*text);
  }
  if (!status || status->object() == nullptr) {
    r.verdict = TeskDoctor::Verdict::absent;
    r.detail = "Chronlet: no capture heartbeat";
    return r;
  }

  int64_t events = saturatedInt(numberMember(*status, "events_written").value_or(0));
  r.count = events;
  r.openMode = "stream";

  std::optional<double> heartbeat = dateMember(*status, "heartbeat_at");
  if (!heartbeat) heartbeat = dateMember(*status, "written_at");
  if (!heartbeat) {
    r.verdict = TeskDoctor::Verdict::stale;
    r.detail = "Chronlet: capture status has no parseable heartbeat";
    return r;
  }

  double allowance = 15, staleAfter = 30;
  if (auto poll = numberMember(*status, "poll_s")) {
    allowance = 3 * *poll;
    staleAfter = std::max(3 * *poll, 30.0);
  }
  double heartbeatAge = std::max(now - *heartbeat, 0.0);
  double idle = numberMember(*status, "idle_heartbeat_s").value_or(300);

  std::string capability;
  if (const auto* v = status->member("title_capability"); v != nullptr && v->string() != nullptr) {
    capability = *v->string();
  } else {
    capability = boolMember(*status, "titles") ? "available" : "screen_recording_required";
  }
  std::string titles;
  if (capability == "available") {
    titles = boolMember(*status, "titles_observed") ? "titles available and observed"
                                                    : "titles available, none observed yet";
  } else {
    titles = "titles need screen recording";
  }

  std::string executable = "unknown executable";
  if (const auto* v = status->member("executable"); v != nullptr && v->string() != nullptr) {
    executable = *v->string();
  }
  std::string helper = executable.starts_with("/Applications/Harbend.app/Contents/Helpers/")
                           ? "installed helper"
                           : "legacy helper";

  std::string lag;
  if (auto last = dateMember(*status, "last_event_at")) {
    double eventAge = std::max(now - *last, 0.0);
    r.newest = *last;
    r.ageHours = eventAge / 3600;
    lag = "source lag " + wholeSeconds(eventAge) + "s";
    bool stale = heartbeatAge > staleAfter || eventAge > allowance + idle;
    r.verdict = stale ? TeskDoctor::Verdict::stale : TeskDoctor::Verdict::fresh;
  } else {
    r.verdict = TeskDoctor::Verdict::stale;
    lag = "no committed event";
  }

  r.detail = "Chronlet: heartbeat " + wholeSeconds(heartbeatAge) + "s; " + lag + "; " + titles +
             "; " + helper + "; process events " + std::to_string(events);
  return r;
}

}  // namespace TeskOptelHealth
