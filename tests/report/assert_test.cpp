#include "report/TeskAssert.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

constexpr double kNow = 1800000000;

struct Case {
  const char* name;
  std::vector<std::string> terms;
  std::function<void(TeskReceipt&)> set;
  // Empty expression: every term holds.
  std::string expression;
  std::string actual;
};

void run(const Case& c) {
  TeskReceipt r;
  if (c.set) c.set(r);
  auto failure = TeskAssert::evaluate(c.terms, r, kNow);
  if (c.expression.empty()) {
    EXPECT_FALSE(failure) << c.name << ": failed with " << failure->actual;
    return;
  }
  ASSERT_TRUE(failure) << c.name;
  EXPECT_EQ(failure->expression, c.expression) << c.name;
  EXPECT_EQ(failure->actual, c.actual) << c.name;
}

TEST(TeskAssert, FlagTerms) {
  auto capped = [](TeskReceipt& r) { r.capped = true; };
  auto agg = [](TeskReceipt& r) { r.mode = "agg"; };
  auto stale = [](TeskReceipt& r) { r.stale = {"chrome", "mail"}; };
  auto denied = [](TeskReceipt& r) { r.denied = {"im: denied"}; };
  auto one = [](TeskReceipt& r) { r.rowsTotal = 1; };
  const Case cases[] = {
      {"not-capped holds", {"not-capped"}, nullptr, "", ""},
      {"not-capped fails", {"not-capped"}, capped, "not-capped", "capped=true"},
      {"capped fails", {"capped"}, nullptr, "capped", "capped=false"},
      {"capped holds", {"capped"}, capped, "", ""},
      {"complete holds", {"complete"}, nullptr, "", ""},
      {"complete fails on agg", {"complete"}, agg, "complete", "capped=false mode=agg"},
      {"complete fails on capped", {"complete"}, capped, "complete", "capped=true mode=rows"},
      {"fresh holds", {"fresh"}, nullptr, "", ""},
      {"fresh fails", {"fresh"}, stale, "fresh", "stale=[\"chrome\", \"mail\"]"},
      {"granted fails", {"granted"}, denied, "granted", "denied=[\"im: denied\"]"},
      {"any fails on empty answer", {"any"}, nullptr, "any", "rows_total=0"},
      {"any holds", {"any"}, one, "", ""},
      // Flags are case-sensitive; without an operator a non-flag is unparseable.
      {"capitalised flag", {"Fresh"}, nullptr, "Fresh", "unparseable"},
      {"trimmed flag", {"  fresh \n"}, stale, "fresh", "stale=[\"chrome\", \"mail\"]"},
  };
  for (const auto& c : cases) run(c);
}

TEST(TeskAssert, NumericTerms) {
  auto rows12 = [](TeskReceipt& r) { r.rowsTotal = 12; };
  auto rate = [](TeskReceipt& r) {
    r.decoded.legacyAttributed = 98765;
    r.decoded.undecodable = 1235;
  };
  using R = TeskReceipt;
  auto out0 = [](R& r) { r.rowsOut = 0; };
  auto plain = [](R& r) { r.decoded.plainText = 10; };
  auto bad3 = [](R& r) { r.decoded.undecodable = 3; };
  auto orphans = [](R& r) { r.orphans = 2; };
  auto slow = [](R& r) { r.elapsedMS = 250; };
  auto before1970 = [](R& r) { r.sourceModified = -1; };
  auto old = [](R& r) { r.sourceModified = kNow - 36 * 3600; };
  auto recent = [](R& r) { r.sourceModified = kNow - 60; };
  const Case cases[] = {
      {"rows>=1 on empty answer", {"rows>=1"}, nullptr, "rows>=1", "rows=0.0"},
      {"blanks around operator", {"rows > 5"}, rows12, "", ""},
      {"blanks, failing", {"rows > 12"}, rows12, "rows > 12", "rows=12.0"},
      {"<= holds at the boundary", {"rows<=12"}, rows12, "", ""},
      {"< fails at the boundary", {"rows<12"}, rows12, "rows<12", "rows=12.0"},
      {"== equality", {"rows==12"}, rows12, "", ""},
      {"= equality", {"rows=12"}, rows12, "", ""},
      {"= inequality", {"rows=11"}, rows12, "rows=11", "rows=12.0"},
      {">= not read as >", {"rows>=12"}, rows12, "", ""},
      // "=>" holds none of >=, <=, ==, so "=" splits it and ">5" is no number.
      {"rows=>5", {"rows=>5"}, rows12, "rows=>5", "unknown term"},
      {"unknown name", {"bogus>1"}, nullptr, "bogus>1", "unknown term"},
      {"threshold not a number", {"rows>five"}, nullptr, "rows>five", "unknown term"},
      {"empty threshold", {"rows>"}, nullptr, "rows>", "unknown term"},
      {"decimal threshold", {"rows>11.5"}, rows12, "", ""},
      {"exponent threshold", {"rows<1.3e1"}, rows12, "", ""},
      {"negative threshold", {"rows>-1"}, nullptr, "", ""},
      {"rows_out", {"rows_out>=1"}, out0, "rows_out>=1", "rows_out=0.0"},
      {"coverage with no blobs is 1", {"coverage>=0.999"}, nullptr, "", ""},
      {"decode_rate shortest form",
       {"decode_rate>=0.999"},
       rate,
       "decode_rate>=0.999",
       "decode_rate=0.98765"},
      {"decoded is the same rate", {"decoded==1"}, rate, "decoded==1", "decoded=0.98765"},
      {"coverage ignores plain text", {"coverage==1"}, plain, "", ""},
      {"undecodable", {"undecodable==0"}, bad3, "undecodable==0", "undecodable=3.0"},
      {"orphans", {"orphans<1"}, orphans, "orphans<1", "orphans=2.0"},
      {"ms", {"ms<100"}, slow, "ms<100", "ms=250.0"},
      {"age_hours unknown mtime", {"age_hours<24"}, nullptr, "age_hours<24", "unknown term"},
      {"age_hours negative mtime", {"age_hours<24"}, before1970, "age_hours<24", "unknown term"},
      {"age_hours measured from now", {"age_hours<24"}, old, "age_hours<24", "age_hours=36.0"},
      {"age_hours fresh", {"age_hours<24"}, recent, "", ""},
      {"no operator", {"rows"}, nullptr, "rows", "unparseable"},
  };
  for (const auto& c : cases) run(c);
}

TEST(TeskAssert, TermsRunInOrderAndOnlyTheFirstFailureIsReported) {
  const Case cases[] = {
      {"empty list", {}, nullptr, "", ""},
      {"blank terms skipped", {"", "   ", "\t"}, nullptr, "", ""},
      {"first of several failures",
       {"not-capped", "any", "rows>=1", "Fresh"},
       nullptr,
       "any",
       "rows_total=0"},
      {"passing terms before a failure",
       {"coverage>=0.999", "fresh", " rows >= 1 "},
       nullptr,
       "rows >= 1",
       "rows=0.0"},
  };
  for (const auto& c : cases) run(c);
}

TEST(TeskAssert, ShortestRoundTripText) {
  struct Case {
    double value;
    const char* text;
  };
  const Case cases[] = {
      {0, "0.0"},        {12, "12.0"},    {0.98765, "0.98765"}, {-3, "-3.0"},
      {0.1, "0.1"},      {1e16, "1e+16"}, {2.5, "2.5"},         {1.0 / 3, "0.3333333333333333"},
      {1e300, "1e+300"},
  };
  for (const auto& c : cases) EXPECT_EQ(TeskAssert::shortest(c.value), c.text) << c.value;
  EXPECT_EQ(TeskAssert::shortest(std::numeric_limits<double>::infinity()), "inf");
}

}  // namespace
