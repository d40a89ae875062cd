#include "report/TeskEmitter.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <optional>
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

// The day (since 1970, UTC) whose ISO week `ts` falls in.
int64_t weekDay(double ts) {
  if (!std::isfinite(ts)) ts = 0;
  // Years 0..9999, as the ISO renderer shows them; the lower end starts a week into
  // year 0 so the week-year never goes negative.
  ts = std::fmax(-62167219200.0 + 7 * 86400.0, std::fmin(ts, 253402300799.0));
  return static_cast<int64_t>(std::floor(ts / 86400.0));
}

// ISO week-numbering year * 100 + week of a weekDay, for sorting weeks as integers.
int64_t isoWeekOfDay(int64_t days) {
  const int64_t weekday = ((days + 3) % 7 + 7) % 7;  // Monday 0; 1970-01-01 was a Thursday
  const int64_t thursday = days - weekday + 3;       // its week's Thursday names the year
  const int64_t y = TeskTime::civilFromDays(thursday).year;
  const int64_t week = (thursday - TeskTime::daysFromCivil(y, 1, 1)) / 7 + 1;
  return y * 100 + week;
}

int64_t isoWeekKey(double ts) { return isoWeekOfDay(weekDay(ts)); }

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
                         std::string tmpDir, size_t heldBytes)
    : format_(format),
      limit_(limit),
      budget_(budget),
      showBody_(showBody),
      tmpDir_(std::move(tmpDir)),
      heldBytes_(heldBytes) {}

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

void TeskEmitter::appendTSVLine(std::string& out, const TeskRow& row, bool showBody) {
  out += row.id;
  out += '\t';
  TeskTime::appendISO(out, row.ts);
  out += '\t';
  TeskText::appendTSV(out, row.who);
  out += '\t';
  out += TeskRow::rawValue(row.dir);
  out += '\t';
  out += TeskRow::rawValue(row.kind);
  out += row.group ? "\tg\t" : "\t-\t";
  if (showBody) TeskText::appendTSV(out, row.body);
}

std::string TeskEmitter::tsvLine(const TeskRow& row, bool showBody) {
  std::string out;
  out.reserve(row.id.size() + row.who.size() + (showBody ? row.body.size() : 0) + 48);
  appendTSVLine(out, row, showBody);
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
  TeskTime::appendISO(out, row.ts);
  out += "\",\"kind\":\"";
  out += TeskRow::rawValue(row.kind);
  out += "\",\"src\":";
  appendString(out, row.src);
  if (row.start) {
    out += ",\"start\":\"";
    TeskTime::appendISO(out, *row.start);
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

namespace {

// The aggregate of an answer, counted row by row as the rows pass, newest first.
class Aggregate {
 public:
  explicit Aggregate(bool showBody) : showBody_(showBody) {}

  void add(const TeskRow& row) {
    (row.dir == TeskRow::Direction::incoming ? in_ : out_) += 1;
    if (row.kind == TeskRow::Kind::tapback) ++tapbacks_;
    if (row.group) ++groups_;
    ++counterparts_[row.teskID.empty() ? std::string("(unknown)") : row.teskID];
    // Rows come in time order: most fall on the day of the row before.
    if (const int64_t day = weekDay(row.ts); !week_ || day != weekOfDay_) {
      week_ = &weeks_[isoWeekOfDay(day)];
      weekOfDay_ = day;
    }
    ++*week_;
    if (exemplars_.size() < kExemplars) exemplars_.push_back(TeskEmitter::tsvLine(row, showBody_));
  }

  std::vector<std::string> lines(int64_t total) const {
    std::vector<std::string> lines;
    lines.reserve(20 + std::min(weeks_.size(), kWeeksShown) + kExemplars);
    const std::string t = std::to_string(total);
    lines.push_back("# agg over " + t + " rows (complete \u2014 this is not a prefix)");
    lines.push_back("total\t" + t);
    lines.push_back("in\t" + std::to_string(in_));
    lines.push_back("out\t" + std::to_string(out_));
    lines.push_back("tapback\t" + std::to_string(tapbacks_));
    lines.push_back("group\t" + std::to_string(groups_));
    lines.push_back("counterparts\t" + std::to_string(counterparts_.size()));

    lines.emplace_back("# top counterparts");
    std::vector<std::pair<std::string_view, int64_t>> top(counterparts_.begin(),
                                                          counterparts_.end());
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
    auto week = weeks_.begin();
    if (weeks_.size() > kWeeksShown) {
      const size_t omitted = weeks_.size() - kWeeksShown;
      lines.push_back("# (" + std::to_string(omitted) + " earlier weeks omitted of " +
                      std::to_string(weeks_.size()) + ")");
      std::advance(week, static_cast<std::ptrdiff_t>(omitted));
    }
    for (; week != weeks_.end(); ++week) {
      lines.push_back("week\t" + weekLabel(week->first) + "\t" + std::to_string(week->second));
    }

    lines.emplace_back("# exemplars (10 newest)");
    lines.insert(lines.end(), exemplars_.begin(), exemplars_.end());
    return lines;
  }

 private:
  bool showBody_;
  int64_t in_ = 0, out_ = 0, tapbacks_ = 0, groups_ = 0;
  std::unordered_map<std::string, int64_t> counterparts_;
  std::map<int64_t, int64_t> weeks_;
  int64_t* week_ = nullptr;  // the count of weekOfDay_'s week
  int64_t weekOfDay_ = 0;
  std::vector<std::string> exemplars_;  // the first ten rows, the newest
};

// The complete answer as TSV, newest first, written as the rows come: to a private
// temporary file that becomes <tmpDir>/tesk-<uid>/<8 hex digits>.tsv by a rename when
// it is complete, so a reader never sees half a file. Whatever is not finished is
// removed.
class Spill {
 public:
  explicit Spill(const std::string& tmpDir) {
    const std::optional<std::string> dir = TeskPrivate::userDirectory(tmpDir);
    if (!dir) return;
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
    path_ = *dir + "/" + name;
    temp_ = path_ + "." + std::to_string(static_cast<long>(::getpid())) + ".part";
    file_.reset(::fdopen(TeskPrivate::createFile(temp_), "wb"));
    ok_ = file_ != nullptr;
    add(TeskEmitter::header());
  }

  Spill(const Spill&) = delete;
  Spill& operator=(const Spill&) = delete;

  ~Spill() {
    if (!temp_.empty()) {
      file_.reset();
      std::error_code ec;
      std::filesystem::remove(temp_, ec);
    }
  }

  void add(const std::string& line) {
    if (!ok_) return;
    chunk_ += line;
    end();
  }
  // The row's TSV line, written straight into the chunk.
  void add(const TeskRow& row, bool showBody) {
    if (!ok_) return;
    TeskEmitter::appendTSVLine(chunk_, row, showBody);
    end();
  }

  // The path of the complete file, or nothing when any step failed.
  std::optional<std::string> finish() {
    if (!ok_) return std::nullopt;
    write();
    ok_ = ok_ && std::fflush(file_.get()) == 0;
    ok_ = std::fclose(file_.release()) == 0 && ok_;
    std::error_code ec;
    if (ok_) std::filesystem::rename(temp_, path_, ec);
    if (!ok_ || ec) return std::nullopt;
    temp_.clear();
    return path_;
  }

 private:
  void end() {
    chunk_ += '\n';
    if (chunk_.size() >= (1u << 16)) write();
  }

  // Chunks end at line ends, so no UTF-8 sequence spans two; like every line tesk
  // writes, the file's are valid UTF-8.
  void write() {
    if (!TeskText::isValidUTF8(chunk_)) chunk_ = TeskText::repairUTF8(chunk_);
    ok_ = ok_ && std::fwrite(chunk_.data(), 1, chunk_.size(), file_.get()) == chunk_.size();
    chunk_.clear();
  }

  std::string path_;
  std::string temp_;
  std::unique_ptr<std::FILE, FileCloser> file_;
  std::string chunk_;
  bool ok_ = false;
};

}  // namespace

std::vector<std::string> TeskEmitter::aggregate(int64_t total, std::span<const TeskRow> rows,
                                                bool showBody) {
  Aggregate agg(showBody);
  for (size_t i = rows.size(); i-- > 0;) agg.add(rows[i]);
  return agg.lines(total);
}

TeskEmitter::Output TeskEmitter::emit(std::span<const TeskRow> rows) const {
  TeskRowList list(rows);
  return emit(list);
}

TeskEmitter::Output TeskEmitter::emit(TeskRowStream& rows) const {
  Output output;
  int64_t total = 0;
  if (format_ == TeskFormat::agg) {
    Aggregate agg(showBody_);
    for (const TeskRow* row; (row = rows.next()); ++total) agg.add(*row);
    output.lines = agg.lines(total);
    output.mode = "agg";
    output.rowsOut = total;
    return output;
  }

  const int64_t limit = limit_ >= 1 ? limit_ : std::numeric_limits<int64_t>::max();
  std::optional<TeskCursor> last;  // just past the oldest row written
  // The receipt goes first and counts every row, so the printed lines wait for the
  // end of the stream: in memory up to heldBytes_, the rest in a spool.
  TeskHeldLines printed(output.lines, tmpDir_, heldBytes_);
  auto show = [&](const TeskRow& row) {
    printed.add(format_ == TeskFormat::json ? jsonLine(row, showBody_) : tsvLine(row, showBody_));
    last = TeskCursor::after(row);
  };
  if (format_ != TeskFormat::json) output.lines.push_back(header());

  if (format_ == TeskFormat::tsv || format_ == TeskFormat::json) {
    for (const TeskRow* row; (row = rows.next()); ++total) {
      if (total < limit) show(*row);
    }
  } else {
    // Decided from byte lengths alone: the rows are held while the estimate of the whole
    // answer fits the budget; past it they go to the spill file instead, as they come,
    // and no row is rendered for the answer itself.
    int64_t estimate = 0;
    std::vector<TeskRow> held;
    std::optional<Spill> spill;
    Aggregate agg(showBody_);
    for (const TeskRow* row; (row = rows.next()); ++total) {
      agg.add(*row);
      estimate += static_cast<int64_t>(row->who.size()) + kFixedColumns;
      if (showBody_) estimate += static_cast<int64_t>(row->body.size());
      if (!spill && estimate > budget_) {
        spill.emplace(tmpDir_);
        for (const TeskRow& h : held) spill->add(h, showBody_);
        held = {};
      }
      if (spill) {
        spill->add(*row, showBody_);
      } else {
        held.push_back(*row);
      }
    }
    if (spill) {
      output.spill = spill->finish();
      output.lines = agg.lines(total);
      output.lines.push_back("# full result set: " + std::to_string(total) + " rows \u2192 " +
                             (output.spill ? *output.spill : std::string("(spill failed)")));
      output.lines.emplace_back(
          "# `--format tsv` to see rows anyway; the receipt names the denominator");
      output.mode = "agg";
      output.rowsOut = total;
      return output;
    }
    const size_t shown = static_cast<size_t>(std::min<int64_t>(limit, std::ssize(held)));
    for (size_t i = 0; i < shown; ++i) show(held[i]);
  }
  output.rest = printed.rest();
  output.mode = "rows";
  output.rowsOut = std::min(limit, total);
  output.capped = output.rowsOut < total;
  if (output.capped) output.next = "--cursor " + last->render();
  return output;
}
