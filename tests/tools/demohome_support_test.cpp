// Date and text helpers every store writer leans on: a wrong day count or a
// miscounted UTF-16 length would corrupt every store at once.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support.h"

namespace demohome {
namespace {

TEST(DemoSupport, CivilDaysRoundTripAcrossLeapYearsAndEpochs) {
  struct Case {
    int64_t y;
    unsigned m, d;
    int64_t days;
  };
  const std::vector<Case> cases = {
      {1970, 1, 1, 0},      {1969, 12, 31, -1},   {2000, 2, 29, 11016},  {2001, 1, 1, 11323},
      {2024, 2, 29, 19782}, {2030, 12, 4, 22252}, {1601, 1, 1, -134774}, {2100, 3, 1, 47541},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(daysFromCivil(c.y, c.m, c.d), c.days) << c.y << "-" << c.m << "-" << c.d;
    int64_t y;
    unsigned m, d;
    civilFromDays(c.days, y, m, d);
    EXPECT_EQ(y, c.y);
    EXPECT_EQ(m, c.m);
    EXPECT_EQ(d, c.d);
  }
  // The epochs the stores use, derived rather than typed.
  EXPECT_EQ(utcSeconds(2001, 1, 1), 978307200);
  EXPECT_EQ(-utcSeconds(1601, 1, 1), 11644473600);
}

TEST(DemoSupport, TimestampsRenderInUtc) {
  EXPECT_EQ(iso(1795000000), "2026-11-18T11:06:40Z");
  EXPECT_EQ(iso(1795000000.25, true), "2026-11-18T11:06:40.250Z");
  EXPECT_EQ(iso(1795000000.9996, true), "2026-11-18T11:06:41.000Z");  // rounds into the next second
  EXPECT_EQ(iso(1795000000.9), "2026-11-18T11:06:40Z");               // whole seconds truncate
  EXPECT_EQ(iso(-1), "1969-12-31T23:59:59Z");
  EXPECT_EQ(rfc822Date(1795000000, 0), "Wed, 18 Nov 2026 11:06:40 +0000");
  EXPECT_EQ(rfc822Date(1795000000, -480), "Wed, 18 Nov 2026 03:06:40 -0800");
  EXPECT_EQ(rfc822Date(1795000000, 570), "Wed, 18 Nov 2026 20:36:40 +0930");
  EXPECT_EQ(rfc822Date(0, -60), "Wed, 31 Dec 1969 23:00:00 -0100");
}

TEST(DemoSupport, Utf16LengthCountsSurrogatePairs) {
  const std::vector<std::pair<std::string, size_t>> cases = {
      {"", 0},    {"abc", 3},          {"é", 1},   {"€", 1}, {"😀", 2},
      {"a😀b", 4}, {"\xEF\xBF\xBC", 1}, {"明日", 2}};
  for (const auto& [s, n] : cases) EXPECT_EQ(utf16Length(s), n) << s;
}

TEST(DemoSupport, EscapesKeepJsonAndXmlWellFormed) {
  EXPECT_EQ(jsonEscape("a\"b\\c\nd\x01"), "a\\\"b\\\\c\\nd\\u0001");
  EXPECT_EQ(xmlEscape("Fish & <Chips>"), "Fish &amp; &lt;Chips&gt;");
}

}  // namespace
}  // namespace demohome
