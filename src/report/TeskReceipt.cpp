#include "report/TeskReceipt.h"

#include <cstdio>

#include "cli/TeskTime.h"
#include "report/TeskJSON.h"

namespace {

void appendQuoted(std::string& out, std::string_view text) {
  TeskJSON::appendString(out, text, TeskJSON::Slash::plain);
}

void appendInstant(std::string& out, double t) {
  out += '"';
  out += TeskTime::isoString(t);
  out += '"';
}

void appendSpan(std::string& out, const TeskSpan& span) {
  out += '[';
  appendInstant(out, span.from);
  out += ',';
  appendInstant(out, span.to);
  out += ']';
}

void appendList(std::string& out, const std::vector<std::string>& items) {
  out += '[';
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += ',';
    appendQuoted(out, items[i]);
  }
  out += ']';
}

}  // namespace

std::string TeskReceipt::escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  TeskJSON::appendEscaped(out, text, TeskJSON::Slash::plain);
  return out;
}

std::string TeskReceipt::fixed(int digits, double value) {
  char buf[512];
  int n = std::snprintf(buf, sizeof buf, "%.*f", digits, value);
  if (n < 0) return {};
  return std::string(buf,
                     static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
}

const std::vector<std::string_view>& TeskReceipt::keys() {
  static const std::vector<std::string_view> names{"v",
                                                   "q",
                                                   "rows_total",
                                                   "rows_out",
                                                   "capped",
                                                   "mode",
                                                   "open",
                                                   "decoded",
                                                   "excluded",
                                                   "undated",
                                                   "hidden_attachments",
                                                   "schema_lacks",
                                                   "window",
                                                   "horizon",
                                                   "horizons",
                                                   "per_source",
                                                   "source_mtime",
                                                   "stale",
                                                   "denied",
                                                   "spill",
                                                   "next",
                                                   "notes",
                                                   "ms"};
  return names;
}

std::string TeskReceipt::render() const {
  std::string out = "#tesk {";
  bool first = true;
  // Opens one "key": part; the caller appends the rendered value.
  auto kv = [&](std::string_view key) -> std::string& {
    if (!first) out += ',';
    first = false;
    out += '"';
    out += key;
    out += "\":";
    return out;
  };

  kv("v") += std::to_string(version);
  appendQuoted(kv("q"), query);
  kv("rows_total") += std::to_string(rowsTotal);
  kv("rows_out") += std::to_string(rowsOut);
  kv("capped") += capped ? "true" : "false";
  appendQuoted(kv("mode"), mode);
  appendQuoted(kv("open"), openMode);

  const int64_t n = decoded.legacyAttributed + decoded.legacyString + decoded.keyedAttributed;
  const int64_t of = n + decoded.undecodable;
  const double pct = of == 0 ? 1.0 : static_cast<double>(n) / static_cast<double>(of);
  kv("decoded") += "{\"n\":" + std::to_string(n) + ",\"of\":" + std::to_string(of) +
                   ",\"pct\":" + fixed(5, pct) +
                   ",\"tiers\":{\"legacy_attr\":" + std::to_string(decoded.legacyAttributed) +
                   ",\"legacy_str\":" + std::to_string(decoded.legacyString) +
                   ",\"keyed\":" + std::to_string(decoded.keyedAttributed) +
                   ",\"plain_text\":" + std::to_string(decoded.plainText) +
                   ",\"undecodable\":" + std::to_string(decoded.undecodable) +
                   ",\"absent\":" + std::to_string(decoded.absent) + "}}";
  kv("excluded") += "{\"tapback\":" + std::to_string(excludedTapback) +
                    ",\"group\":" + std::to_string(excludedGroup) +
                    ",\"filtered\":" + std::to_string(excludedFiltered) +
                    ",\"orphan_chat\":" + std::to_string(orphans) +
                    ",\"no_host\":" + std::to_string(excludedNoHost) + "}";
  if (undated >= 1) kv("undated") += std::to_string(undated);
  if (hiddenAttachments >= 1) kv("hidden_attachments") += std::to_string(hiddenAttachments);
  if (!openMode.empty() && (!unreadSupported || !attachmentsSupported)) {
    std::vector<std::string> lacks;
    if (!unreadSupported) lacks.emplace_back("unread");
    if (!attachmentsSupported) lacks.emplace_back("attachments");
    appendList(kv("schema_lacks"), lacks);
  }
  if (window) appendSpan(kv("window"), *window);
  if (horizon) appendSpan(kv("horizon"), *horizon);
  if (!horizons.empty()) {
    std::string& o = kv("horizons");
    o += '{';
    bool firstKey = true;
    for (const auto& [key, span] : horizons) {
      if (!firstKey) o += ',';
      firstKey = false;
      appendQuoted(o, key);
      o += ':';
      appendSpan(o, span);
    }
    o += '}';
  }
  if (!perSource.empty()) {
    std::string& o = kv("per_source");
    o += '{';
    bool firstKey = true;
    for (const auto& [key, count] : perSource) {
      if (!firstKey) o += ',';
      firstKey = false;
      appendQuoted(o, key);
      o += ':';
      o += std::to_string(count);
    }
    o += '}';
  }
  if (sourceModified > 0) appendInstant(kv("source_mtime"), sourceModified);
  if (!stale.empty()) appendList(kv("stale"), stale);
  if (!denied.empty()) appendList(kv("denied"), denied);
  if (spill) appendQuoted(kv("spill"), *spill);
  if (next) appendQuoted(kv("next"), *next);
  if (!notes.empty()) appendList(kv("notes"), notes);
  kv("ms") += std::to_string(elapsedMS);
  out += '}';
  return out;
}
