#include "report/TeskEmitter.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <unordered_map>

#include "cli/TeskPrivate.h"
#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "report/TeskCursor.h"
#include "report/TeskJSON.h"

namespace {

constexpr size_t kExemplars = 10;
constexpr size_t kTopCounterparts = 15;
constexpr size_t kWeeksShown = 60;
constexpr int64_t kFixedColumns = 48;  // what a line spends beside who and body

// ISO week-numbering year * 100 + week, for sorting weeks as integers.
int64_t isoWeekKey(double ts) {
  if (!std::isfinite(ts)) ts = 0;
  // Years 0..9999, as the ISO renderer shows them; the lower end starts a week into
  // year 0 so the week-year never goes negative.
  ts = std::fmax(-62167219200.0 + 7 * 86400.0, std::fmin(ts, 253402300799.0));
  const auto days = static_cast<int64_t>(std::floor(ts / 86400.0));
  const int64_t weekday = ((days + 3) % 7 + 7) % 7;  // Monday 0; 1970-01-01 was a Thursday
  const int64_t thursday = days - weekday + 3;       // its week's Thursday names the year
  const int64_t y = TeskTime::civilFromDays(thursday).year;
  const int64_t week = (thursday - TeskTime::daysFromCivil(y, 1, 1)) / 7 + 1;
  return y * 100 + week;
}

std::string weekLabel(int64_t key) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%04d-W%02d", static_cast<int>(key / 100),
                static_cast<int>(key % 100));
  return buf;
}

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

TeskEmitter::TeskEmitter(TeskFormat format, int64_t limit, int64_t budget, bool showBody,
                         std::string tmpDir)
    : format_(format),
      limit_(limit),
      budget_(budget),
      showBody_(showBody),
      tmpDir_(std::move(tmpDir)) {}

std::string_view TeskEmitter::rawValue(TeskFormat format) {
  switch (format) {
    case TeskFormat::automatic:
      return "auto";
    case TeskFormat::tsv:
      return "tsv";
    case TeskFormat::json:
      return "json";
    case TeskFormat::agg:
      return "agg";
  }
  return "auto";
}

std::optional<TeskFormat> TeskEmitter::formatFromRaw(std::string_view raw) {
  for (TeskFormat f : {TeskFormat::automatic, TeskFormat::tsv, TeskFormat::json, TeskFormat::agg}) {
    if (rawValue(f) == raw) return f;
  }
  return std::nullopt;
}

const std::string& TeskEmitter::header() {
  static const std::string h = "id\tts\twho\tdir\tkind\tgroup\ttext";
  return h;
}

std::string TeskEmitter::tsvLine(const TeskRow& row, bool showBody) {
  std::string out;
  out.reserve(row.id.size() + row.who.size() + (showBody ? row.body.size() : 0) + 48);
  out += row.id;
  out += '\t';
  out += TeskTime::isoString(row.ts);
  out += '\t';
  out += TeskText::escapeTSV(row.who);
  out += '\t';
  out += TeskRow::rawValue(row.dir);
  out += '\t';
  out += TeskRow::rawValue(row.kind);
  out += '\t';
  out += row.group ? "g" : "-";
  out += '\t';
  if (showBody) out += TeskText::escapeTSV(row.body);
  return out;
}

std::string TeskEmitter::jsonLine(const TeskRow& row, bool showBody) {
  using TeskJSON::appendString;
  std::string out;
  out.reserve(row.who.size() + row.teskID.size() + (showBody ? row.body.size() : 0) + 160);
  out += '{';
  if (!row.attachments.empty()) {
    out += "\"attachments\":[";
    bool first = true;
    for (const auto& a : row.attachments) {
      if (!first) out += ',';
      first = false;
      out += '{';
      if (a.bytes >= 1) out += "\"bytes\":" + std::to_string(a.bytes) + ",";
      out += "\"label\":";
      appendString(out, a.label());
      if (a.mime) {
        out += ",\"mime\":";
        appendString(out, *a.mime);
      }
      if (a.path) {
        out += ",\"path\":";
        appendString(out, *a.path);
      }
      out += '}';
    }
    out += "],";
  }
  out += "\"body\":";
  appendString(out, showBody ? std::string_view(row.body) : std::string_view());
  out += ",\"dir\":\"";
  out += TeskRow::rawValue(row.dir);
  out += "\",\"filtered\":";
  out += row.filtered ? "true" : "false";
  out += ",\"group\":";
  out += row.group ? "true" : "false";
  out += ",\"id\":";
  appendString(out, row.id);
  out += ",\"iso\":\"";
  out += TeskTime::isoString(row.ts);
  out += "\",\"kind\":\"";
  out += TeskRow::rawValue(row.kind);
  out += "\",\"src\":";
  appendString(out, row.src);
  if (row.start) {
    out += ",\"start\":\"";
    out += TeskTime::isoString(*row.start);
    out += '"';
  }
  out += ",\"tesk_id\":";
  appendString(out, row.teskID);
  out += ",\"ts\":";
  if (!TeskJSON::appendNumber(out, row.ts)) return "{}";
  if (row.unread) out += ",\"unread\":true";
  out += ",\"who\":";
  appendString(out, row.who);
  out += '}';
  return out;
}

std::string TeskEmitter::isoWeekUTC(double ts) { return weekLabel(isoWeekKey(ts)); }

std::vector<std::string> TeskEmitter::aggregate(int64_t total, std::span<const TeskRow> rows,
                                                bool showBody) {
  int64_t in = 0, out = 0, tapbacks = 0, groups = 0;
  std::unordered_map<std::string_view, int64_t> counterparts;
  std::map<int64_t, int64_t> weeks;
  for (const auto& row : rows) {
    (row.dir == TeskRow::Direction::incoming ? in : out) += 1;
    if (row.kind == TeskRow::Kind::tapback) ++tapbacks;
    if (row.group) ++groups;
    ++counterparts[row.teskID.empty() ? std::string_view("(unknown)") : row.teskID];
    ++weeks[isoWeekKey(row.ts)];
  }

  std::vector<std::string> lines;
  lines.reserve(20 + std::min(weeks.size(), kWeeksShown) + kExemplars);
  const std::string t = std::to_string(total);
  lines.push_back("# agg over " + t + " rows (complete \u2014 this is not a prefix)");
  lines.push_back("total\t" + t);
  lines.push_back("in\t" + std::to_string(in));
  lines.push_back("out\t" + std::to_string(out));
  lines.push_back("tapback\t" + std::to_string(tapbacks));
  lines.push_back("group\t" + std::to_string(groups));
  lines.push_back("counterparts\t" + std::to_string(counterparts.size()));

  lines.emplace_back("# top counterparts");
  std::vector<std::pair<std::string_view, int64_t>> top(counterparts.begin(), counterparts.end());
  const size_t shown = std::min(top.size(), kTopCounterparts);
  auto byCount = [](const auto& a, const auto& b) {
    return a.second != b.second ? a.second > b.second : a.first < b.first;
  };
  std::partial_sort(top.begin(), top.begin() + static_cast<std::ptrdiff_t>(shown), top.end(),
                    byCount);
  for (size_t i = 0; i < shown; ++i) {
    lines.push_back("who\t" + TeskText::escapeTSV(top[i].first) + "\t" +
                    std::to_string(top[i].second));
  }

  lines.emplace_back("# weekly");
  auto week = weeks.begin();
  if (weeks.size() > kWeeksShown) {
    const size_t omitted = weeks.size() - kWeeksShown;
    lines.push_back("# (" + std::to_string(omitted) + " earlier weeks omitted of " +
                    std::to_string(weeks.size()) + ")");
    std::advance(week, static_cast<std::ptrdiff_t>(omitted));
  }
  for (; week != weeks.end(); ++week) {
    lines.push_back("week\t" + weekLabel(week->first) + "\t" + std::to_string(week->second));
  }

  lines.emplace_back("# exemplars (10 newest)");
  const size_t exemplars = std::min(rows.size(), kExemplars);
  for (size_t i = 0; i < exemplars; ++i) {
    lines.push_back(tsvLine(rows[rows.size() - 1 - i], showBody));
  }
  return lines;
}

std::optional<std::string> TeskEmitter::writeSpill(std::span<const TeskRow> rows) const {
  namespace fs = std::filesystem;
  // The answer holds the owner's messages: only this user's own directory will do.
  const std::optional<std::string> privateDir = TeskPrivate::userDirectory(tmpDir_);
  if (!privateDir) return std::nullopt;
  const std::string& dir = *privateDir;
  std::error_code ec;

  std::uniform_int_distribution<uint32_t> pick(0, 4294967294u);
  uint32_t number;
  try {
    std::random_device device;
    number = pick(device);
  } catch (const std::exception&) {  // no entropy source: a clock-started generator will do
    std::mt19937 fallback(static_cast<uint32_t>(
        std::chrono::steady_clock::now().time_since_epoch().count() ^ ::getpid()));
    number = pick(fallback);
  }
  char name[32];
  std::snprintf(name, sizeof name, "%08x.tsv", number);
  const std::string path = dir + "/" + name;
  const std::string temp = path + "." + std::to_string(static_cast<long>(::getpid())) + ".part";

  bool ok = false;
  {
    std::unique_ptr<std::FILE, FileCloser> file(::fdopen(TeskPrivate::createFile(temp), "wb"));
    if (!file) return std::nullopt;
    // Chunks end at line ends, so no UTF-8 sequence spans two; like every line tesk
    // writes, the file's are valid UTF-8.
    auto write = [&](std::string& chunk) {
      if (!TeskText::isValidUTF8(chunk)) chunk = TeskText::repairUTF8(chunk);
      return std::fwrite(chunk.data(), 1, chunk.size(), file.get()) == chunk.size();
    };
    std::string chunk = header() + "\n";
    ok = true;
    for (size_t i = rows.size(); i-- > 0 && ok;) {
      chunk += tsvLine(rows[i], showBody_);
      chunk += '\n';
      if (chunk.size() >= (1u << 16) || i == 0) {
        ok = write(chunk);
        chunk.clear();
      }
    }
    if (ok && !chunk.empty()) ok = write(chunk);
    ok = ok && std::fflush(file.get()) == 0;
    std::FILE* raw = file.release();
    ok = std::fclose(raw) == 0 && ok;
  }
  if (ok) {
    fs::rename(temp, path, ec);
    ok = !ec;
  }
  if (!ok) {
    fs::remove(temp, ec);
    return std::nullopt;
  }
  return path;
}

TeskEmitter::Output TeskEmitter::emit(std::span<const TeskRow> rows) const {
  Output output;
  const auto total = static_cast<int64_t>(rows.size());
  if (format_ == TeskFormat::agg) {
    output.lines = aggregate(total, rows, showBody_);
    output.mode = "agg";
    output.rowsOut = total;
    return output;
  }

  // Decided from byte lengths alone, before any line is built.
  int64_t estimate = 0;
  for (const auto& row : rows) {
    estimate += static_cast<int64_t>(row.who.size()) + kFixedColumns;
    if (showBody_) estimate += static_cast<int64_t>(row.body.size());
  }

  if (estimate <= budget_ || format_ == TeskFormat::tsv || format_ == TeskFormat::json) {
    const int64_t kept = limit_ >= 1 ? std::min(limit_, total) : total;
    output.lines.reserve(static_cast<size_t>(kept) + 1);
    if (format_ != TeskFormat::json) output.lines.push_back(header());
    for (int64_t i = 0; i < kept; ++i) {
      const TeskRow& row = rows[rows.size() - 1 - static_cast<size_t>(i)];
      output.lines.push_back(format_ == TeskFormat::json ? jsonLine(row, showBody_)
                                                         : tsvLine(row, showBody_));
    }
    output.mode = "rows";
    output.rowsOut = kept;
    output.capped = kept < total;
    if (output.capped) {
      output.next =
          "--cursor " + TeskCursor::after(rows[rows.size() - static_cast<size_t>(kept)]).render();
    }
    return output;
  }

  output.spill = writeSpill(rows);
  output.lines = aggregate(total, rows, showBody_);
  output.lines.push_back("# full result set: " + std::to_string(total) + " rows \u2192 " +
                         (output.spill ? *output.spill : std::string("(spill failed)")));
  output.lines.emplace_back(
      "# `--format tsv` to see rows anyway; the receipt names the denominator");
  output.mode = "agg";
  output.rowsOut = total;
  return output;
}
