#include "report/TeskEmitter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "cli/TeskTime.h"
#include "common/TeskTestHome.h"
#include "report/TeskJSONValue.h"

namespace {

namespace fs = std::filesystem;

constexpr double k2026 = 1767225600;  // 2026-01-01T00:00:00Z, a Thursday

TeskRow makeRow(int i, double ts, std::string who = "+15550001", std::string body = "hi") {
  TeskRow r;
  r.id = "im:" + std::to_string(i);
  r.ts = ts;
  r.src = "im";
  r.who = who;
  r.teskID = who;
  r.body = std::move(body);
  return r;
}

// n rows one minute apart, ascending.
std::vector<TeskRow> series(int n, double from = k2026) {
  std::vector<TeskRow> rows;
  for (int i = 0; i < n; ++i) rows.push_back(makeRow(i, from + 60.0 * i));
  return rows;
}

using TempDir = tesk_test::TempHome;

TeskEmitter emitter(TeskFormat format, int64_t limit, int64_t budget,
                    const std::string& tmp = "/nonexistent-tesk-dir") {
  return TeskEmitter(format, limit, budget, true, tmp);
}

TEST(TeskEmitter, FormatsParseExactly) {
  EXPECT_EQ(TeskEmitter::formatFromRaw("auto"), TeskFormat::automatic);
  for (const char* bad : {"AUTO", "Tsv", "", "jsonl"})
    EXPECT_FALSE(TeskEmitter::formatFromRaw(bad));
}

TEST(TeskEmitter, LimitKeepsTheNewestAndNamesTheContinuation) {
  auto rows = series(100);
  auto out = emitter(TeskFormat::automatic, 50, 30000).emit(rows);
  EXPECT_EQ(out.mode, "rows");
  ASSERT_EQ(out.lines.size(), 51u);
  EXPECT_EQ(out.lines[0], "id\tts\twho\tdir\tkind\tgroup\ttext");
  EXPECT_EQ(out.lines[1].substr(0, 7), "im:99\t2");  // newest first
  EXPECT_EQ(out.lines[50].substr(0, 6), "im:50\t");
  EXPECT_EQ(out.rowsOut, 50);
  EXPECT_TRUE(out.capped);
  // The 50th newest row is the oldest one written: index 50 ascending.
  ASSERT_TRUE(out.next);
  EXPECT_EQ(*out.next, "--cursor " + TeskTime::exactString(rows[50].ts) + "," + rows[50].id);
  EXPECT_EQ(*out.next, "--cursor 2026-01-01T00:50:00Z,im:50");
  EXPECT_FALSE(out.spill);
}

TEST(TeskEmitter, UncappedWhenTheLimitCoversTheAnswer) {
  for (auto [limit, n] : {std::pair<int64_t, int>{0, 100}, {5, 5}, {7, 5}}) {
    auto out = emitter(TeskFormat::automatic, limit, 30000).emit(series(n));
    EXPECT_EQ(out.lines.size(), static_cast<size_t>(n) + 1) << limit;
    EXPECT_EQ(out.rowsOut, n);
    EXPECT_FALSE(out.capped);
    EXPECT_FALSE(out.next);
  }
}

// Printed rows past what memory holds wait in a spool: the lines come back the same,
// in order, whatever the format and wherever the cut falls, and no file stays behind.
TEST(TeskEmitter, PrintedRowsPastTheHeldBytesComeBackWhole) {
  std::vector<TeskRow> rows = series(3000);
  rows[7].body = std::string(70000, 'x');  // one line longer than a write chunk
  rows[8].body = "caf\xC3\xA9\n\ttab";
  rows[9].body.clear();
  for (TeskFormat format : {TeskFormat::tsv, TeskFormat::json}) {
    TempDir tmp;
    const auto whole = TeskEmitter(format, 0, 0, true, tmp.path()).emit(rows);
    ASSERT_FALSE(whole.rest);
    for (size_t held : {size_t{0}, size_t{100}, size_t{50000}}) {
      const auto cut = TeskEmitter(format, 0, 0, true, tmp.path(), held).emit(rows);
      ASSERT_TRUE(cut.rest) << held;
      std::vector<std::string> lines = cut.lines;
      EXPECT_TRUE(cut.rest->each([&](std::string_view l) { lines.emplace_back(l); }));
      EXPECT_EQ(lines, whole.lines) << held;
      EXPECT_EQ(cut.rowsOut, whole.rowsOut);
    }
    for (const auto& entry : fs::recursive_directory_iterator(tmp.path())) {
      EXPECT_TRUE(entry.is_directory()) << entry.path();  // the spool's file is unlinked
    }
  }
  // Without a private directory the lines stay in memory, all of them.
  const auto kept = TeskEmitter(TeskFormat::tsv, 0, 0, true, "/nonexistent", 0).emit(rows);
  size_t n = kept.lines.size();
  if (kept.rest) kept.rest->each([&](std::string_view) { ++n; });
  EXPECT_EQ(n, rows.size() + 1);
}

TEST(TeskEmitter, BudgetBoundaryDecidesRowsOrAggregate) {
  // Each row costs who (9) + 48 + body (2) = 59 characters.
  auto rows = series(10);
  const int64_t estimate = 590;
  struct Case {
    TeskFormat format;
    int64_t budget;
    const char* mode;
  };
  const Case cases[] = {
      {TeskFormat::automatic, estimate, "rows"},  // exactly the budget still fits
      {TeskFormat::automatic, estimate - 1, "agg"},
      {TeskFormat::tsv, 1, "rows"},  // explicit formats ignore the budget
      {TeskFormat::json, 1, "rows"},
      {TeskFormat::agg, 1000000, "agg"},
  };
  for (const auto& c : cases) {
    auto out = emitter(c.format, 0, c.budget).emit(rows);
    EXPECT_EQ(out.mode, c.mode) << TeskEmitter::rawValue(c.format) << " " << c.budget;
    EXPECT_EQ(out.rowsOut, 10);
    EXPECT_FALSE(out.capped);
  }
  // Without bodies the estimate drops them.
  auto noBody = TeskEmitter(TeskFormat::automatic, 0, 570, false, "/nonexistent").emit(rows);
  EXPECT_EQ(noBody.mode, "rows");
}

TEST(TeskEmitter, EstimateCountsUTF8Bytes) {
  // "é" is two bytes: 48 + 2 + 2 = 52 for who="é", body="é".
  std::vector<TeskRow> rows{makeRow(1, k2026, "\xC3\xA9", "\xC3\xA9")};
  EXPECT_EQ(emitter(TeskFormat::automatic, 0, 52).emit(rows).mode, "rows");
  EXPECT_EQ(emitter(TeskFormat::automatic, 0, 51).emit(rows).mode, "agg");
}

// The per-user spill directory under `tmp`.
std::string userDir(const TempDir& tmp) {
  return tmp.path() + "/tesk-" + std::to_string(::getuid());
}

TEST(TeskEmitter, OverBudgetSpillsEveryRowAndShowsTheAggregate) {
  TempDir tmp;
  ASSERT_FALSE(tmp.path().empty());
  auto rows = series(30);
  rows[3].body = "tab\there";
  auto out = emitter(TeskFormat::automatic, 5, 100, tmp.path()).emit(rows);
  EXPECT_EQ(out.mode, "agg");
  EXPECT_EQ(out.rowsOut, 30);
  EXPECT_FALSE(out.capped);
  EXPECT_FALSE(out.next);
  EXPECT_EQ(out.lines.front(), "# agg over 30 rows (complete \u2014 this is not a prefix)");
  ASSERT_TRUE(out.spill);
  EXPECT_TRUE(std::regex_match(*out.spill, std::regex(userDir(tmp) + "/[0-9a-f]{8}\\.tsv")))
      << *out.spill;
  EXPECT_EQ(out.lines[out.lines.size() - 2], "# full result set: 30 rows \u2192 " + *out.spill);
  EXPECT_EQ(out.lines.back(),
            "# `--format tsv` to see rows anyway; the receipt names the denominator");

  std::ifstream in(*out.spill);
  std::stringstream content;
  content << in.rdbuf();
  std::string expect = TeskEmitter::header() + "\n";
  for (int i = 29; i >= 0; --i) expect += TeskEmitter::tsvLine(rows[i], true) + "\n";
  EXPECT_EQ(content.str(), expect);  // no limit, newest first, one line per row
  // Written as the rows passed, it is still the `--format tsv --limit 0` answer, and the
  // aggregate counted on the way is the `--format agg` one.
  std::string tsv;
  for (const auto& line : emitter(TeskFormat::tsv, 0, 100).emit(rows).lines) tsv += line + "\n";
  EXPECT_EQ(content.str(), tsv);
  EXPECT_EQ(std::vector<std::string>(out.lines.begin(), out.lines.end() - 2),
            emitter(TeskFormat::agg, 0, 100).emit(rows).lines);
  // Nothing but the spill is left behind in the directory.
  int files = 0;
  for ([[maybe_unused]] const auto& e : fs::directory_iterator(userDir(tmp))) ++files;
  EXPECT_EQ(files, 1);
  // Only this user can read it, or list the directory that holds it.
  EXPECT_EQ(fs::status(userDir(tmp)).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(*out.spill).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

// The spill directory is this user's own or nothing is written: a file, a symbolic
// link (to a directory others can read) or a foreign directory in its place is
// refused, and a directory of ours that others could enter is closed first.
TEST(TeskEmitter, SpillGoesOnlyToAPrivateDirectory) {
  enum class Plant { file, symlink, openDirectory };
  for (Plant plant : {Plant::file, Plant::symlink, Plant::openDirectory}) {
    SCOPED_TRACE(static_cast<int>(plant));
    TempDir tmp, elsewhere;
    const std::string dir = userDir(tmp);
    switch (plant) {
      case Plant::file:
        std::ofstream(dir) << "x";
        break;
      case Plant::symlink:
        fs::permissions(elsewhere.path(), fs::perms::all);
        fs::create_directory_symlink(elsewhere.path(), dir);
        break;
      case Plant::openDirectory:
        fs::create_directory(dir);
        fs::permissions(dir, fs::perms::all);
        break;
    }
    auto out = emitter(TeskFormat::automatic, 0, 1, tmp.path()).emit(series(3));
    EXPECT_EQ(out.mode, "agg");
    if (plant == Plant::openDirectory) {
      ASSERT_TRUE(out.spill);
      EXPECT_EQ(fs::status(dir).permissions(), fs::perms::owner_all);
      continue;
    }
    EXPECT_FALSE(out.spill);
    EXPECT_EQ(out.lines[out.lines.size() - 2], "# full result set: 3 rows \u2192 (spill failed)");
    EXPECT_TRUE(fs::is_empty(elsewhere.path()));
  }
}

TEST(TeskEmitter, EmptyAnswer) {
  std::vector<TeskRow> none;
  auto tsv = emitter(TeskFormat::tsv, 50, 30000).emit(none);
  auto automatic = emitter(TeskFormat::automatic, 50, 30000).emit(none);
  for (const auto& out : {tsv, automatic}) {
    ASSERT_EQ(out.lines.size(), 1u);
    EXPECT_EQ(out.lines[0], TeskEmitter::header());
    EXPECT_EQ(out.rowsOut, 0);
    EXPECT_FALSE(out.capped);
  }
  EXPECT_TRUE(emitter(TeskFormat::json, 50, 30000).emit(none).lines.empty());
  auto agg = emitter(TeskFormat::agg, 50, 30000).emit(none);
  EXPECT_EQ(agg.lines, (std::vector<std::string>{
                           "# agg over 0 rows (complete \u2014 this is not a prefix)", "total\t0",
                           "in\t0", "out\t0", "tapback\t0", "group\t0", "counterparts\t0",
                           "# top counterparts", "# weekly", "# exemplars (10 newest)"}));
}

TEST(TeskEmitter, TsvLineColumnsAndEscaping) {
  TeskRow r = makeRow(7, k2026 + 9.5 * 3600, "a\tb\\c", "line1\nline2\ttab\\ back\rcr");
  r.id = "mail:x\ty";  // ids are written as they stand
  r.dir = TeskRow::Direction::outgoing;
  r.kind = TeskRow::Kind::attachment;
  r.group = true;
  EXPECT_EQ(TeskEmitter::tsvLine(r, true),
            "mail:x\ty\t2026-01-01T09:30:00Z\ta\\tb\\\\c\tout\tattachment\tg\t"
            "line1\\nline2\\ttab\\\\ back\\rcr");
  EXPECT_EQ(TeskEmitter::tsvLine(makeRow(1, k2026), false),
            "im:1\t2026-01-01T00:00:00Z\t+15550001\tin\ttext\t-\t");
}

TEST(TeskEmitter, JsonLineKeysValuesAndOmissions) {
  TeskRow r = makeRow(44182, 1678307200.5, "+1 (555) 000", "caf\xC3\xA9 \"q\" a/b\n\x01");
  r.teskID = "15550001";
  r.chatID = 99;
  EXPECT_EQ(
      TeskEmitter::jsonLine(r, true),
      "{\"body\":\"caf\xC3\xA9 \\\"q\\\" a\\/b\\n\\u0001\",\"dir\":\"in\",\"filtered\":false,"
      "\"group\":false,\"id\":\"im:44182\",\"iso\":\"2023-03-08T20:26:40Z\",\"kind\":\"text\","
      "\"src\":\"im\",\"tesk_id\":\"15550001\",\"ts\":1678307200.5,\"who\":\"+1 (555) 000\"}");

  r.ts = k2026;
  r.unread = true;
  r.filtered = true;
  r.group = true;
  r.start = k2026 - 3600;
  r.attachments.push_back({"/Users/x/a/c.jpg", "", "image/jpeg", 2048});
  r.attachments.push_back({std::nullopt, std::nullopt, std::nullopt, 0});
  std::string line = TeskEmitter::jsonLine(r, false);
  EXPECT_EQ(line,
            "{\"attachments\":[{\"bytes\":2048,\"label\":\"c.jpg\",\"mime\":\"image\\/jpeg\","
            "\"path\":\"\\/Users\\/x\\/a\\/c.jpg\"},{\"label\":\"attachment\"}],\"body\":\"\","
            "\"dir\":\"in\",\"filtered\":true,\"group\":true,\"id\":\"im:44182\","
            "\"iso\":\"2026-01-01T00:00:00Z\",\"kind\":\"text\",\"src\":\"im\","
            "\"start\":\"2025-12-31T23:00:00Z\",\"tesk_id\":\"15550001\",\"ts\":1767225600,"
            "\"unread\":true,\"who\":\"+1 (555) 000\"}");
  auto parsed = TeskJSONValue::parse(line);
  ASSERT_TRUE(parsed);
  auto keys = parsed->keys();
  EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end()));
}

// The number text itself is TeskJSON's (its own test holds the table): here, that a
// row's instant reads back exactly and that a row with no instant is no line.
TEST(TeskEmitter, JsonTsReadsBackExactly) {
  for (double ts : {1678307200.5, -1.25, 1e-7}) {
    std::string line = TeskEmitter::jsonLine(makeRow(1, ts), true);
    auto parsed = TeskJSONValue::parse(line);
    ASSERT_TRUE(parsed) << line;
    EXPECT_EQ(*parsed->member("ts")->number(), ts) << line;
  }
  for (double bad : {std::nan(""), std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(TeskEmitter::jsonLine(makeRow(1, bad), true), "{}");
  }
}

TEST(TeskEmitter, JsonFormatWritesNoHeader) {
  auto out = emitter(TeskFormat::json, 2, 1).emit(series(3));
  ASSERT_EQ(out.lines.size(), 2u);
  for (const auto& line : out.lines) EXPECT_TRUE(TeskJSONValue::parse(line)) << line;
  EXPECT_NE(out.lines[0].find("\"id\":\"im:2\""), std::string::npos);
  EXPECT_TRUE(out.capped);
  EXPECT_EQ(*out.next, "--cursor 2026-01-01T00:01:00Z,im:1");
}

TEST(TeskEmitter, AggregateCounts) {
  std::vector<TeskRow> rows;
  auto add = [&](std::string teskID, TeskRow::Direction dir, TeskRow::Kind kind, bool group) {
    TeskRow r = makeRow(static_cast<int>(rows.size()), k2026 + 60.0 * rows.size());
    r.teskID = std::move(teskID);
    r.dir = dir;
    r.kind = kind;
    r.group = group;
    rows.push_back(r);
  };
  using D = TeskRow::Direction;
  using K = TeskRow::Kind;
  add("bob", D::incoming, K::text, false);
  add("", D::outgoing, K::text, false);
  add("alice", D::incoming, K::tapback, true);
  add("bob", D::outgoing, K::text, true);
  add("", D::incoming, K::text, false);
  add("alice", D::incoming, K::text, false);
  add("carol", D::incoming, K::text, false);
  auto lines = TeskEmitter::aggregate(7, rows, true);
  std::vector<std::string> head(lines.begin(), lines.begin() + 14);
  EXPECT_EQ(head,
            (std::vector<std::string>{
                "# agg over 7 rows (complete \u2014 this is not a prefix)", "total\t7", "in\t5",
                "out\t2", "tapback\t1", "group\t2", "counterparts\t4", "# top counterparts",
                // count descending, ties by key in byte order ("(" sorts before letters)
                "who\t(unknown)\t2", "who\talice\t2", "who\tbob\t2", "who\tcarol\t1", "# weekly",
                "week\t2026-W01\t7"}));
  EXPECT_EQ(lines[14], "# exemplars (10 newest)");
  ASSERT_EQ(lines.size(), 22u);
  EXPECT_EQ(lines[15], TeskEmitter::tsvLine(rows[6], true));
  EXPECT_EQ(lines[21], TeskEmitter::tsvLine(rows[0], true));
  // A counterpart key read from a store stays one cell of one line.
  rows[6].teskID = "car\nol\t";
  EXPECT_EQ(TeskEmitter::aggregate(7, rows, true)[11], "who\tcar\\nol\\t\t1");
}

TEST(TeskEmitter, AggregateShowsFifteenCounterpartsAndTenExemplars) {
  std::vector<TeskRow> rows;
  for (int i = 0; i < 40; ++i) {
    rows.push_back(makeRow(i, k2026 + i, "p" + std::to_string(100 + i % 20)));
  }
  auto lines = TeskEmitter::aggregate(40, rows, true);
  EXPECT_EQ(lines[6], "counterparts\t20");
  EXPECT_EQ(lines[8], "who\tp100\t2");
  EXPECT_EQ(lines[22], "who\tp114\t2");
  EXPECT_EQ(lines[23], "# weekly");
  ASSERT_EQ(lines.size(), 23u + 2 + 1 + 10);
  EXPECT_EQ(lines.back(), TeskEmitter::tsvLine(rows[30], true));
}

TEST(TeskEmitter, SixtyOneWeeksOmitTheOldest) {
  std::vector<TeskRow> rows;
  for (int w = 0; w < 61; ++w) rows.push_back(makeRow(w, k2026 + w * 7 * 86400.0));
  auto lines = TeskEmitter::aggregate(61, rows, true);
  auto weekly = std::find(lines.begin(), lines.end(), "# weekly");
  ASSERT_NE(weekly, lines.end());
  EXPECT_EQ(*(weekly + 1), "# (1 earlier weeks omitted of 61)");
  EXPECT_EQ(*(weekly + 2), "week\t2026-W02\t1");   // 2026-W01 is the omitted oldest
  EXPECT_EQ(*(weekly + 61), "week\t2027-W08\t1");  // 2026 has 53 ISO weeks
  EXPECT_EQ(*(weekly + 62), "# exemplars (10 newest)");

  rows.pop_back();
  lines = TeskEmitter::aggregate(60, rows, true);
  weekly = std::find(lines.begin(), lines.end(), "# weekly");
  EXPECT_EQ(*(weekly + 1), "week\t2026-W01\t1");
}

TEST(TeskEmitter, IsoWeeksAreCountedInUTC) {
  struct Case {
    const char* iso;
    const char* week;
  };
  const Case cases[] = {
      {"2027-01-01T00:00:00Z", "2026-W53"}, {"2024-12-30T00:00:00Z", "2025-W01"},
      {"2026-01-01T00:00:00Z", "2026-W01"}, {"2025-12-29T00:00:00Z", "2026-W01"},
      {"2025-12-28T23:59:59Z", "2025-W52"}, {"2021-01-03T12:00:00Z", "2020-W53"},
      {"1970-01-01T00:00:00Z", "1970-W01"}, {"1969-12-28T00:00:00Z", "1969-W52"},
      {"2026-03-02T06:30:00Z", "2026-W10"},  // Sunday evening west of UTC, Monday in UTC
  };
  for (const auto& c : cases) {
    auto ts = TeskTime::parseISO(c.iso);
    ASSERT_TRUE(ts) << c.iso;
    EXPECT_EQ(TeskEmitter::isoWeekUTC(*ts), c.week) << c.iso;
  }
  // Hostile instants still give a well-formed key.
  for (double bad : {std::nan(""), 1e300, -1e300}) {
    EXPECT_TRUE(std::regex_match(TeskEmitter::isoWeekUTC(bad), std::regex("\\d{4}-W\\d{2}")));
  }
}

}  // namespace
