#include "report/TeskReceipt.h"

#include <gtest/gtest.h>

#include <functional>

#include "report/TeskJSONValue.h"

namespace {

const std::string kDefault =
    "#tesk {\"v\":1,\"q\":\"\",\"rows_total\":0,\"rows_out\":0,\"capped\":false,\"mode\":\"rows\","
    "\"open\":\"\",\"decoded\":{\"n\":0,\"of\":0,\"pct\":1.00000,\"tiers\":{\"legacy_attr\":0,"
    "\"legacy_str\":0,\"keyed\":0,\"plain_text\":0,\"undecodable\":0,\"absent\":0}},"
    "\"excluded\":{\"tapback\":0,\"group\":0,\"filtered\":0,\"orphan_chat\":0,\"no_host\":0},"
    "\"ms\":0}";

constexpr double k20260517 = 1778976000;  // 2026-05-17T00:00:00Z

TEST(TeskReceipt, DefaultRecordRendersTheEmptyRunLine) {
  EXPECT_EQ(TeskReceipt().render(), kDefault);
}

TEST(TeskReceipt, EveryPartInOrderWhenAllAreSet) {
  TeskReceipt r;
  r.query = "im --who 555";
  r.rowsTotal = 120;
  r.rowsOut = 50;
  r.capped = true;
  r.mode = "agg";
  r.openMode = "snapshot";
  r.decoded.legacyAttributed = 7;
  r.decoded.legacyString = 2;
  r.decoded.keyedAttributed = 1;
  r.decoded.plainText = 30;
  r.decoded.undecodable = 3;
  r.decoded.absent = 4;
  r.decoded.direct = 99;  // not rendered
  r.excludedTapback = 5;
  r.excludedGroup = 6;
  r.excludedFiltered = 8;
  r.excludedNoHost = 9;
  r.orphans = 11;
  r.undated = 12;
  r.hiddenAttachments = 13;
  r.unreadSupported = true;
  r.attachmentsSupported = false;
  r.window = TeskSpan{k20260517, k20260517 + 86400};
  r.horizon = TeskSpan{k20260517 - 60, k20260517 + 30.9};
  r.horizons["safari"] = TeskSpan{k20260517, k20260517};
  r.horizons["chrome"] = TeskSpan{k20260517 + 1, k20260517 + 2};
  r.perSource["web"] = 3;
  r.perSource["im"] = 117;
  r.sourceModified = k20260517 + 3600;
  r.stale = {"chrome"};
  r.denied = {"mail: no access", "cal: x"};
  r.spill = "/tmp/tesk/0000abcd.tsv";
  r.next = "--until 2026-05-17T00:00:00Z";
  r.elapsedMS = 42;
  r.notes = {"second", "first"};
  EXPECT_EQ(
      r.render(),
      "#tesk {\"v\":1,\"q\":\"im --who 555\",\"rows_total\":120,\"rows_out\":50,\"capped\":true,"
      "\"mode\":\"agg\",\"open\":\"snapshot\",\"decoded\":{\"n\":10,\"of\":13,\"pct\":0.76923,"
      "\"tiers\":{\"legacy_attr\":7,\"legacy_str\":2,\"keyed\":1,\"plain_text\":30,"
      "\"undecodable\":3,\"absent\":4}},\"excluded\":{\"tapback\":5,\"group\":6,\"filtered\":8,"
      "\"orphan_chat\":11,\"no_host\":9},\"undated\":12,\"hidden_attachments\":13,"
      "\"schema_lacks\":[\"attachments\"],"
      "\"window\":[\"2026-05-17T00:00:00Z\",\"2026-05-18T00:00:00Z\"],"
      "\"horizon\":[\"2026-05-16T23:59:00Z\",\"2026-05-17T00:00:30Z\"],"
      "\"horizons\":{\"chrome\":[\"2026-05-17T00:00:01Z\",\"2026-05-17T00:00:02Z\"],"
      "\"safari\":[\"2026-05-17T00:00:00Z\",\"2026-05-17T00:00:00Z\"]},"
      "\"per_source\":{\"im\":117,\"web\":3},\"source_mtime\":\"2026-05-17T01:00:00Z\","
      "\"stale\":[\"chrome\"],\"denied\":[\"mail: no access\",\"cal: x\"],"
      "\"spill\":\"/tmp/tesk/0000abcd.tsv\",\"next\":\"--until 2026-05-17T00:00:00Z\","
      "\"notes\":[\"second\",\"first\"],\"ms\":42}");
  // Everything the receipt writes here is JSON after the prefix, and its keys are the
  // list `tesk api` advertises, in the same order.
  auto parsed = TeskJSONValue::parse(r.render().substr(6));
  ASSERT_TRUE(parsed);
  std::vector<std::string> advertised(TeskReceipt::keys().begin(), TeskReceipt::keys().end());
  EXPECT_EQ(parsed->keys(), advertised);
}

TEST(TeskReceipt, DecodeRateIsFiveDecimalsOverArchivedBodiesOnly) {
  struct Case {
    int64_t attr, str, keyed, plain, undecodable, absent;
    std::string expect;
  };
  const Case cases[] = {
      // Plain and absent bodies never enter the rate, so these stay at 1.
      {0, 0, 0, 500, 0, 9, "\"n\":0,\"of\":0,\"pct\":1.00000"},
      {0, 0, 0, 0, 0, 0, "\"n\":0,\"of\":0,\"pct\":1.00000"},
      {2, 0, 0, 0, 1, 0, "\"n\":2,\"of\":3,\"pct\":0.66667"},
      {0, 0, 0, 0, 4, 0, "\"n\":0,\"of\":4,\"pct\":0.00000"},
      {99998, 1, 0, 0, 1, 0, "\"n\":99999,\"of\":100000,\"pct\":0.99999"},
      {1, 1, 1, 0, 0, 0, "\"n\":3,\"of\":3,\"pct\":1.00000"},
  };
  for (const auto& c : cases) {
    TeskReceipt r;
    r.decoded.legacyAttributed = c.attr;
    r.decoded.legacyString = c.str;
    r.decoded.keyedAttributed = c.keyed;
    r.decoded.plainText = c.plain;
    r.decoded.undecodable = c.undecodable;
    r.decoded.absent = c.absent;
    EXPECT_NE(r.render().find("\"decoded\":{" + c.expect + ",\"tiers\":{\"legacy_attr\":"),
              std::string::npos)
        << c.expect << " in " << r.render();
  }
}

TEST(TeskReceipt, StringsEscapeEveryControlAndRepairUTF8) {
  struct Case {
    std::string in, out;
  };
  const Case cases[] = {
      {"say \"hi\"", "say \\\"hi\\\""},
      {"C:\\dir", "C:\\\\dir"},
      {"a\nb\tc", "a\\nb\\tc"},
      {"\\n", "\\\\n"},  // a literal backslash-n stays two characters
      {"cr\r and \x01 and \x1f", "cr\\r and \\u0001 and \\u001f"},
      {"caf\xC3\xA9 \xE2\x86\x92 /", "caf\xC3\xA9 \xE2\x86\x92 /"},  // "/" stays plain
      {"Latin-1 caf\xE9", "Latin-1 caf\xEF\xBF\xBD"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskReceipt::escape(c.in), c.out);
    TeskReceipt r;
    r.query = c.in;
    r.notes = {c.in};
    std::string line = r.render();
    EXPECT_NE(line.find("\"q\":\"" + c.out + "\","), std::string::npos) << line;
    EXPECT_NE(line.find("\"notes\":[\"" + c.out + "\"]"), std::string::npos) << line;
    EXPECT_TRUE(TeskJSONValue::parse(std::string_view(line).substr(6))) << line;
  }
}

TEST(TeskReceipt, OptionalPartsAppearOnlyWhenTheyHoldSomething) {
  struct Case {
    const char* name;
    std::function<void(TeskReceipt&)> set;
    const char* key;
    bool present;
  };
  using R = TeskReceipt;
  auto lacksUnread = [](R& r) { r.openMode = "plain", r.attachmentsSupported = true; };
  auto hasBoth = [](R& r) { r.openMode = "ro", r.unreadSupported = r.attachmentsSupported = true; };
  auto firstSecond = [](R& r) { r.window = TeskSpan{0, 1}; };
  const Case cases[] = {
      {"undated 0", [](R& r) { r.undated = 0; }, "\"undated\"", false},
      {"undated 1", [](R& r) { r.undated = 1; }, "\"undated\":1,", true},
      {"hidden 0", [](R& r) { r.hiddenAttachments = 0; }, "\"hidden_attachments\"", false},
      {"hidden 1", [](R& r) { r.hiddenAttachments = 1; }, "\"hidden_attachments\":1,", true},
      {"no store opened: no schema_lacks",
       [](R& r) { r.unreadSupported = r.attachmentsSupported = false; }, "\"schema_lacks\"", false},
      {"store lacks both", [](R& r) { r.openMode = "ro"; },
       "\"schema_lacks\":[\"unread\",\"attachments\"],", true},
      {"store lacks unread", lacksUnread, "\"schema_lacks\":[\"unread\"],", true},
      {"store has both", hasBoth, "\"schema_lacks\"", false},
      {"mtime 0", [](R& r) { r.sourceModified = 0; }, "\"source_mtime\"", false},
      {"mtime negative", [](R& r) { r.sourceModified = -5; }, "\"source_mtime\"", false},
      {"mtime positive", [](R& r) { r.sourceModified = 0.5; },
       "\"source_mtime\":\"1970-01-01T00:00:00Z\",", true},
      {"empty horizons", [](R& r) { r.horizons.clear(); }, "\"horizons\"", false},
      {"empty per_source", [](R& r) { r.perSource.clear(); }, "\"per_source\"", false},
      {"empty stale", [](R& r) { r.stale.clear(); }, "\"stale\"", false},
      {"empty denied", [](R& r) { r.denied.clear(); }, "\"denied\"", false},
      {"empty notes", [](R& r) { r.notes.clear(); }, "\"notes\"", false},
      {"empty spill string", [](R& r) { r.spill = ""; }, "\"spill\":\"\",", true},
      {"window", firstSecond, "\"window\":[\"1970-01-01T00:00:00Z\",\"1970-01-01T00:00:01Z\"],",
       true},
  };
  for (const auto& c : cases) {
    TeskReceipt r;
    c.set(r);
    std::string line = r.render();
    EXPECT_EQ(line.find(c.key) != std::string::npos, c.present) << c.name << ": " << line;
    // Whatever is present, the frame holds: v first, excluded whole, ms last.
    EXPECT_EQ(line.rfind("#tesk {\"v\":1,\"q\":", 0), 0u) << c.name;
    EXPECT_NE(line.find("\"excluded\":{\"tapback\":0,\"group\":0,\"filtered\":0,"
                        "\"orphan_chat\":0,\"no_host\":0}"),
              std::string::npos)
        << c.name;
    EXPECT_EQ(line.substr(line.size() - 8), ",\"ms\":0}") << c.name;
  }
}

}  // namespace
