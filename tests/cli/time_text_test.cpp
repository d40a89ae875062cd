// Time expressions, ISO rendering, epochs, text folding, the line sink.
#include <gtest/gtest.h>
#include <unicode/simpletz.h>

#include <cmath>
#include <memory>

#include "cli/TeskOut.h"
#include "cli/TeskRegex.h"
#include "cli/TeskText.h"
#include "cli/TeskTime.h"

namespace {

constexpr double kNow = 1790000000;  // 2026-09-21T14:13:20Z

struct WhenCase {
  const char* text;
  std::optional<double> expected;
};

TEST(TeskTime, RelativeAmounts) {
  const std::vector<WhenCase> cases{{"30d", kNow - 2592000},
                                    {"+30d", kNow + 2592000},
                                    {"90min", kNow - 5400},
                                    {"48h", kNow - 172800},
                                    {"1.5h", kNow - 5400},
                                    {"12m", kNow - 31556952},
                                    {"12mo", kNow - 31556952},
                                    {"5y", kNow - 157784760},
                                    {"10s", kNow - 10},
                                    {"2w", kNow - 1209600},
                                    {" 2W\t", kNow - 1209600},
                                    {"5mins", std::nullopt},
                                    {"", std::nullopt},
                                    {"   ", std::nullopt},
                                    {"now", kNow},
                                    {" NOW ", kNow},
                                    {"+now", kNow},
                                    {"d", std::nullopt},
                                    {"-5d", std::nullopt},
                                    {"nand", std::nullopt},
                                    {"5 d", std::nullopt},
                                    {"+2026-01-01", std::nullopt}};
  for (const WhenCase& c : cases) {
    EXPECT_EQ(TeskTime::parseWhen(c.text, kNow, "UTC"), c.expected) << "'" << c.text << "'";
  }
}

TEST(TeskTime, DatesAreLocalUnlessZoned) {
  // 2026-01-01 local midnight: 08:00Z in Los Angeles, 15:00Z the day before in Tokyo.
  EXPECT_EQ(TeskTime::parseWhen("2026-01-01", kNow, "America/Los_Angeles"), 1767254400);
  EXPECT_EQ(TeskTime::parseWhen("2026-01-01", kNow, "Asia/Tokyo"), 1767193200);
  EXPECT_EQ(TeskTime::parseWhen("2026-01-01T00:00:00Z", kNow, "Asia/Tokyo"), 1767225600);
  EXPECT_EQ(TeskTime::parseWhen("2026-01-01T09:30:00+01:00", kNow, "UTC"), 1767256200);
  EXPECT_EQ(TeskTime::parseWhen("2026-01", kNow, "America/Los_Angeles"), 1767254400);
  EXPECT_EQ(TeskTime::parseWhen(" 2026-01-01 10:15 ", kNow, "UTC"), 1767262500);
  EXPECT_EQ(TeskTime::parseWhen("2026-01-01T10:15:30", kNow, "UTC"), 1767262530);
  EXPECT_EQ(TeskTime::parseWhen("2026-02-30", kNow, "UTC"), std::nullopt);
  EXPECT_EQ(TeskTime::parseWhen("2026-13", kNow, "UTC"), std::nullopt);
  // today: local midnight of the day `now` falls on in that zone.
  EXPECT_EQ(TeskTime::parseWhen("today", kNow, "UTC"), 1789948800);
  EXPECT_EQ(TeskTime::parseWhen("today", kNow, "Asia/Tokyo"), 1789916400);
}

TEST(TeskTime, TodayStartsAtTheDaysFirstInstant) {
  // Havana skips its midnight on 2026-03-08 (the day starts at 01:00 CDT) and
  // repeats it on 2026-11-01 (the day starts at the first 00:00, still CDT).
  const std::pair<const char*, const char*> cases[] = {
      {"2026-03-08T17:00:00Z", "2026-03-08T05:00:00Z"},
      {"2026-11-01T17:00:00Z", "2026-11-01T04:00:00Z"},
      {"2026-11-02T17:00:00Z", "2026-11-02T05:00:00Z"},
  };
  for (const auto& [now, today] : cases) {
    auto t = TeskTime::parseWhen("today", *TeskTime::parseISO(now), "America/Havana");
    ASSERT_TRUE(t) << now;
    EXPECT_EQ(TeskTime::isoString(*t), today) << now;
  }
}

TEST(TeskTime, ZoneUsedNamesWhatTheCalendarCutsIn) {
  EXPECT_EQ(TeskTime::zoneUsed("America/Havana"), "America/Havana");
  EXPECT_EQ(TeskTime::zoneUsed("UTC"), "UTC");
  // An empty or unknown id is the process's zone; when that names no IANA zone (TZ
  // empty, a bad name, a bare POSIX offset), ICU cuts in a fixed offset: say so.
  std::unique_ptr<icu::TimeZone> saved(icu::TimeZone::createDefault());
  const std::pair<icu::TimeZone*, const char*> cases[] = {
      {icu::TimeZone::getUnknown().clone(), "UTC (the local zone Etc/Unknown is no IANA zone)"},
      {new icu::SimpleTimeZone(0, "Bad/Name"), "UTC (the local zone Bad/Name is no IANA zone)"},
      {new icu::SimpleTimeZone(-3 * 3600 * 1000, "XYZ3"),
       "UTC-03:00 (the local zone XYZ3 is no IANA zone)"},
      {new icu::SimpleTimeZone(5 * 3600 * 1000 + 1800 * 1000, "ABC-5:30"),
       "UTC+05:30 (the local zone ABC-5:30 is no IANA zone)"},
      {icu::TimeZone::createTimeZone("Asia/Tehran"), "Asia/Tehran"},
  };
  for (const auto& [zone, want] : cases) {
    icu::TimeZone::adoptDefault(zone);
    EXPECT_EQ(TeskTime::zoneUsed(""), want);
    EXPECT_EQ(TeskTime::zoneUsed("Not/AZone"), want);
  }
  icu::TimeZone::adoptDefault(saved.release());
}

TEST(TeskTime, ISO) {
  EXPECT_EQ(TeskTime::isoString(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(TeskTime::isoString(1767225600.9), "2026-01-01T00:00:00Z");
  EXPECT_EQ(TeskTime::isoString(-1), "1969-12-31T23:59:59Z");
  EXPECT_EQ(TeskTime::isoString(951782400), "2000-02-29T00:00:00Z");
  EXPECT_EQ(TeskTime::isoString(951868799), "2000-02-29T23:59:59Z");  // the same day again
  EXPECT_EQ(TeskTime::isoString(951868800), "2000-03-01T00:00:00Z");
  EXPECT_EQ(TeskTime::isoString(-86400), "1969-12-31T00:00:00Z");
  EXPECT_EQ(TeskTime::parseISO("2026-01-01T09:30:00Z"), 1767259800);
  EXPECT_EQ(TeskTime::parseISO("2026-01-01T09:30:00.5Z"), 1767259800.5);
  EXPECT_EQ(TeskTime::parseISO("2026-01-01T09:30:00.Z"), std::nullopt);
  EXPECT_EQ(TeskTime::parseISO("2026-01-01 09:30:00Z"), std::nullopt);
  EXPECT_EQ(TeskTime::parseISO("2026-01-01T09:30:00"), std::nullopt);
}

// Paging hints carry instants that must read back as the very same double.
TEST(TeskTime, ExactStringReadsBackBitForBit) {
  EXPECT_EQ(TeskTime::exactString(1767259800), "2026-01-01T09:30:00Z");
  EXPECT_EQ(TeskTime::exactString(1767259800.5), "2026-01-01T09:30:00.5Z");
  EXPECT_EQ(TeskTime::exactString(-0.25), "1969-12-31T23:59:59.75Z");
  std::vector<double> values{0.1, 1e-7, -1e-7, -1.75, -86400.125, 978307200.000000001};
  for (double to : {2e9, 0.0}) values.push_back(std::nextafter(1767259800.0, to));
  // Message dates are nanoseconds since 2001 and web dates microseconds since 1601.
  uint64_t x = 88172645463325252ull;
  for (int i = 0; i < 20000; ++i) {
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    values.push_back(
        TeskTime::fromAppleDate(static_cast<int64_t>(x % 900000000000000000ull) + 1000000000001));
    values.push_back(TeskTime::fromWebKitDate(static_cast<int64_t>(x % 14000000000000000ull)));
  }
  for (double v : values) {
    const std::string text = TeskTime::exactString(v);
    auto back = TeskTime::parseISO(text);
    ASSERT_TRUE(back) << text;
    EXPECT_EQ(*back, v) << text;
    EXPECT_EQ(TeskTime::parseWhen(text, 0), v) << text;
  }
}

TEST(TeskTime, Epochs) {
  EXPECT_EQ(TeskTime::fromAppleDate(0), 0);
  EXPECT_EQ(TeskTime::fromAppleDate(1000000000000), 1000000000000.0 + 978307200);
  EXPECT_DOUBLE_EQ(TeskTime::fromAppleDate(1000000000001), 1000.000000001 + 978307200);
  EXPECT_DOUBLE_EQ(TeskTime::fromAppleDate(700000000000000000), 700000000.0 + 978307200);
  EXPECT_DOUBLE_EQ(TeskTime::fromAppleDate(-700000000000000000), -700000000.0 + 978307200);
  EXPECT_EQ(TeskTime::fromAppleDate(790000000), 790000000.0 + 978307200);  // whole seconds
  EXPECT_EQ(TeskTime::fromWebKitDate(0), 0);
  EXPECT_DOUBLE_EQ(TeskTime::fromWebKitDate(13350000000000000), 1705526400);
  EXPECT_EQ(TeskTime::toAppleNanoseconds(978307201), 1000000000);
  EXPECT_EQ(TeskTime::toAppleNanoseconds(1e30), INT64_MAX);  // saturates, never UB
}

TEST(TeskText, FoldedContainment) {
  EXPECT_TRUE(TeskText::containsFolded("Résumé attached", "RESUME"));
  EXPECT_TRUE(TeskText::containsFolded("RESUME attached", "résumé"));
  EXPECT_TRUE(TeskText::containsFolded("Straße", "STRASSE"));
  EXPECT_TRUE(TeskText::containsFolded("anything", ""));
  EXPECT_FALSE(TeskText::containsFolded("plain ascii", "ü"));
  EXPECT_FALSE(TeskText::containsFolded("", "x"));
  // Texts folded code point by code point must fold as the whole string would.
  struct Case {
    const char* hay;
    const char* needle;
    bool found;
  };
  const Case cases[] = {
      {"cafe\xcc\x81 au lait \xf0\x9f\x98\x80", "CAFÉ AU", true},  // decomposed é, emoji
      {"\xea\xb0\x80\xeb\x82\x98 \xf0\x9f\x8d\x95", "\xe1\x84\x80\xe1\x85\xa1", true},  // Hangul
      {"\xef\xac\x82ight \xe2\x9c\x88", "FLIGHT", true},  // full case folding splits the ligature
      {"\xe2\x84\xaa"
       "elvin",
       "kelvin", true},                                             // KELVIN SIGN folds to k
      {"\xc4\xb0stanbul", "i\xcc\x87stanbul", true},                // İ folds to i + dot
      {"\xc3\x85ngstr\xc3\xb6m \xe2\x84\xab", "angstrom a", true},  // Å and ANGSTROM SIGN
      // Marks with a combining class that are not dropped keep canonical order.
      {"x\xf0\x9d\x85\xa5\xf0\x9d\x85\xaey", "x\xf0\x9d\x85\xa5\xf0\x9d\x85\xaey", true},
      {"ab\xff"
       "cd",
       "b\xef\xbf\xbd"
       "c",
       true},                                                  // ill-formed bytes read as U+FFFD
      {"\xce\x8c\xce\xbd\xce\xb1", "\xce\xbf\xce\xbd", true},  // Greek tonos dropped
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TeskText::containsFolded(c.hay, c.needle), c.found) << c.hay << " / " << c.needle;
  }
  EXPECT_TRUE(TeskText::containsCaseInsensitive("Work Projects", "work"));
  EXPECT_FALSE(TeskText::containsCaseInsensitive("Cafe", "café"));
  EXPECT_EQ(TeskText::trim(" \n\t x y \r\n"), "x y");
  EXPECT_EQ(TeskText::trimBlanks(" x \n"), "x \n");
  EXPECT_EQ(TeskText::lower("ÉCOLE"), "école");
}

// The escaper tests eight bytes at a time: every byte value at every place of a cell
// longer than a word is escaped as the byte-by-byte rule does, and so are runs of
// escapes across a word's edge and bytes one bit away from the escaped ones.
TEST(TeskText, EscapeTSVAgreesWithTheByteRule) {
  const auto byByte = [](std::string_view text) {
    std::string out;
    for (char c : text) {
      const char* e = c == '\\'   ? "\\\\"
                      : c == '\t' ? "\\t"
                      : c == '\n' ? "\\n"
                      : c == '\r' ? "\\r"
                                  : nullptr;
      out += e ? std::string(e) : std::string(1, c);
    }
    return out;
  };
  for (int b = 0; b < 256; ++b) {
    for (size_t at = 0; at < 19; ++at) {
      std::string text(19, 'a');
      text[at] = static_cast<char>(b);
      ASSERT_EQ(TeskText::escapeTSV(text), byByte(text)) << b << " at " << at;
    }
  }
  const std::string cases[] = {
      "",
      "\\",
      "\t\n\r\\\t\n\r\\\t\n\r\\",
      "1234567\t89abcdef\\",
      "\x0B\x0C\x0E\x0F\x5B\x5D\x89\x8A\x8D\xDC\x01x",
      "caf\xC3\xA9 \xE2\x80\xA8 line\\sep\t",
  };
  for (const std::string& text : cases) EXPECT_EQ(TeskText::escapeTSV(text), byByte(text)) << text;
}

// The search's shortcuts for an ASCII needle (raw bytes first, then only the folds of
// the other code points) answer as the whole fold does, one needle across every text.
TEST(TeskText, NeedleAgreesWithTheWholeFold) {
  const char* hays[] = {
      "Flight at 6:40 \xe2\x9c\x88\xef\xb8\x8f",  // emoji + VS16 (a mark that vanishes)
      "\xef\xac\x82ight \xef\xac\x81le",          // ligatures fl, fi
      "fl\xcc\x81ight",                           // a mark inside the word
      "fl\xef\xb8\x8fight",                       // VS16 inside the word
      "FL\xc4\xb0GHT \xc4\xb1",                   // İ (i + dot), dotless ı
      "\xef\xbc\xa6\xef\xbd\x8c\xef\xbd\x89ght",  // fullwidth F, l, i
      "Stra\xc3\x9f"
      "e \xe1\xba\x9e",  // ß and capital ẞ
      "\xe2\x84\xaa"
      "elvin \xc5\xbf"
      "ki",                                                 // KELVIN SIGN, long s
      "caf\xc3\xa9 \xe2\x80\x9cresum\xc3\xa9\xe2\x80\x9d",  // é, curly quotes
      "\xe6\x97\xa5\xe6\x9c\xac flight",                    // CJK then the word
      "x\xf0\x9d\x85\xa5\xf0\x9d\x85\xaey fi",              // kept marks with a class
      "\xe2"
      "flight",  // ill-formed lead byte
      "fl\xc3"
      "ight \xf0\x9f",  // ill-formed inside, truncated end
      "",
  };
  const char* needles[] = {"flight", "FLIGHT", "fi", "fle", "strasse",     "ss",          "k", "s",
                           "cafe",   "resume", "i",  "ig",  "caf\xc3\xa9", "\xef\xac\x81"};
  for (const char* n : needles) {
    const TeskText::Needle needle(n);
    const std::u16string folded = TeskText::foldWhole(n);
    for (const char* h : hays) {
      EXPECT_EQ(needle.in(h), TeskText::foldWhole(h).find(folded) != std::u16string::npos)
          << h << " / " << n;
    }
  }
}

TEST(TeskRegex, CaseInsensitiveSearchAnywhere) {
  auto re = TeskRegex::compile("dinn+er");
  ASSERT_TRUE(re);
  EXPECT_TRUE(re->search("Late DINNER?"));
  EXPECT_FALSE(re->search("diner"));
  EXPECT_TRUE(TeskRegex::compile("é")->search("CAFÉ"));
  EXPECT_FALSE(TeskRegex::compile("(unbalanced"));
}

TEST(TeskOut, BuffersUntilThresholdAndCapturesInOrder) {
  TeskOut mem(TeskOut::Sink::memory);
  mem.line("a");
  mem.flush();
  mem.line("b");
  mem.line("c");
  EXPECT_EQ(mem.captured(), "a\nb\nc\n");
  mem.flush();
  mem.flush();  // empty: nothing more
  EXPECT_EQ(mem.captured(), "a\nb\nc\n");
}

TEST(TeskOut, EveryLineLeavesAsUTF8) {
  struct Case {
    std::string in, out;
  };
  const Case cases[] = {
      {"caf\xC3\xA9", "caf\xC3\xA9"},
      {"caf\xE9 (Latin-1)", "caf\xEF\xBF\xBD (Latin-1)"},
      {"\xE2\x82", "\xEF\xBF\xBD"},              // a truncated sequence is one U+FFFD
      {"\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},  // overlong: each byte
      {"\xED\xA0\x80!", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD!"},
  };
  for (const Case& c : cases) {
    TeskOut mem(TeskOut::Sink::memory);
    mem.line(c.in);
    EXPECT_EQ(mem.captured(), c.out + "\n") << testing::PrintToString(c.in);
  }
}

}  // namespace
