#include "cli/TeskText.h"
#include "sources/messages/TeskDecode.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "sources/messages/TeskTypedStream.h"

namespace {

using TeskDecode::Tier;
using namespace std::string_literals;

std::vector<uint8_t> bytesOf(std::string_view s) { return {s.begin(), s.end()}; }

std::vector<uint8_t> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The bytes an archive of an attributed string holds up to its string's class name.
const std::string kHead =
    "\x04\x0bstreamtyped\x81\xe8\x03\x84\x01@\x84\x84\x84\x12NSAttributedString\x00"
    "\x84\x84\x08NSObject\x00\x85\x92\x84\x84\x84"s;

// kHead, the marker, the four bytes Messages writes after it, then `tail`.
std::string legacy(std::string_view tail, std::string_view gap = "\x01\x94\x84\x01") {
  return kHead + "\x08NSString" + std::string(gap) + std::string(tail);
}

std::string withLength(uint8_t prefix, std::string_view lengthBytes, std::string_view text) {
  return legacy(std::string("+") + static_cast<char>(prefix) + std::string(lengthBytes) +
                std::string(text) + "\x86");
}

struct DirectCase {
  const char* name;
  std::string blob;
  std::optional<std::string> want;
};

TEST(DirectBody, FollowsTheByteRulesOfTheArchive) {
  const std::string t300(300, 'x');
  const std::string t70k(70000, 'y');
  const std::string five = "hello";
  std::vector<DirectCase> cases = {
      {"short length", withLength(0x05, "", five), five},
      {"length 0x7f", withLength(0x7f, "", std::string(127, 'a')), std::string(127, 'a')},
      {"0x81 two-byte length", withLength(0x81, std::string("\x2c\x01", 2), t300), t300},
      {"0x82 four-byte length", withLength(0x82, std::string("\x70\x11\x01\x00", 4), t70k), t70k},
      {"0x80 declined", withLength(0x80, "", five), std::nullopt},
      {"0x83 declined", withLength(0x83, "", five), std::nullopt},
      {"0xff declined", withLength(0xff, "", five), std::nullopt},
      {"length one past the end", legacy("+\x06hello"), std::nullopt},
      {"length exactly to the end", legacy("+\x05hello"), five},
      {"0x81 length past the end", legacy(std::string("+\x81\x2c\x01", 4) + "abc"), std::nullopt},
      {"0x81 truncated length", legacy("+\x81\x2c"), std::nullopt},
      {"0x82 truncated length", legacy(std::string("+\x82\x05\x00\x00", 5)), std::nullopt},
      {"nothing after the plus", legacy("+"), std::nullopt},
      {"nothing after the gap", legacy(""), std::nullopt},
      {"not a plus after the gap", legacy("*\x05hello\x86"), std::nullopt},
      {"gap bytes are not inspected",
       withLength(0x05, "", five).replace(kHead.size() + 9, 4, "ABCD"), five},
      {"invalid UTF-8", withLength(0x02, "", "\xc3\x28"), std::nullopt},
      {"empty string", withLength(0x00, "", ""), std::string()},
      {"no marker", kHead + "\x08NSStrinX\x01\x94\x84\x01+\x05hello", std::nullopt},
      {"eight bytes", "NSString", std::nullopt},
      {"marker alone", "NSString+", std::nullopt},
      {"utf-8 text", withLength(0x04, "", "\xf0\x9f\x98\x80"), std::string("\xf0\x9f\x98\x80")},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskDecode::directBody(bytesOf(c.blob)), c.want) << c.name;
  }
}

TEST(DirectBody, SearchesOnlyTheFirst512Bytes) {
  // The marker must lie wholly inside the window: at 504 it does, at 505 it does not.
  for (size_t at : {504u, 505u}) {
    std::string blob(at, '.');
    blob += "NSString\x01\x94\x84\x01+\x02ok";
    const auto got = TeskDecode::directBody(bytesOf(blob));
    if (at == 504) {
      EXPECT_EQ(got, std::optional<std::string>("ok"));
    } else {
      EXPECT_EQ(got, std::nullopt);
    }
  }
}

TEST(DirectBody, TakesTheFirstMarker) {
  const std::string blob = withLength(0x03, "", "one") + "NSString\x01\x94\x84\x01+\x03two";
  EXPECT_EQ(TeskDecode::directBody(bytesOf(blob)), std::optional<std::string>("one"));
}

// An attributed string whose NSString class brings its superclass along, so the four
// bytes after the marker are not the usual ones: the direct reader declines and the
// typedstream reader answers.
std::string attributedWithFreshNSObject(std::string_view text) {
  std::string b("\x04\x0bstreamtyped\x81\xe8\x03", 16);
  b += "\x84\x01@\x84\x84\x84\x12NSAttributedString";
  b += std::string("\x00\x85\x92\x84\x84\x84\x08NSString\x01\x84\x84\x08NSObject\x00\x85", 29);
  b += "\x84\x01+";
  b += static_cast<char>(text.size());
  b += text;
  b += "\x86\x86";
  return b;
}

// A plain NSString archive.
std::string plainString(std::string_view text) {
  std::string b("\x04\x0bstreamtyped\x81\xe8\x03", 16);
  b += "\x84\x01@\x84\x84\x84\x08NSString\x01\x84\x84\x08NSObject";
  b += std::string("\x00\x85\x84\x01+", 5);
  b += static_cast<char>(text.size());
  b += text;
  b += "\x86";
  return b;
}

struct TierCase {
  const char* name;
  std::string blob;
  std::optional<std::string> body;
  Tier tier;
  bool direct;
};

TEST(AttributedBody, TriesTheReadersInOrder) {
  std::vector<TierCase> cases = {
      {"direct reader", withLength(0x05, "", "hello"), "hello", Tier::legacyAttributed, true},
      {"typedstream attributed string", attributedWithFreshNSObject("hello"), "hello",
       Tier::legacyAttributed, false},
      {"typedstream plain string", plainString("hi there"), "hi there", Tier::legacyString, false},
      {"empty attributed string", attributedWithFreshNSObject(""), std::nullopt, Tier::undecodable,
       false},
      {"empty plain string", plainString(""), std::nullopt, Tier::undecodable, false},
      {"declared length past the end", legacy("+\x7fhello"), std::nullopt, Tier::undecodable,
       false},
      {"signature but nothing readable", std::string("\x04\x0bstreamtyped\x81\xe8\x03\x85", 17),
       std::nullopt, Tier::undecodable, false},
      {"16 bytes", std::string("\x04\x0bstreamtyped\x81\xe8\x03", 16), std::nullopt,
       Tier::undecodable, false},
      {"one byte", "x", std::nullopt, Tier::undecodable, false},
      {"no signature", "NSString\x01\x94\x84\x01+\x05hello and more bytes", std::nullopt,
       Tier::undecodable, false},
  };
  for (const auto& c : cases) {
    const auto out = TeskDecode::attributedBody(bytesOf(c.blob));
    EXPECT_EQ(out.body, c.body) << c.name;
    EXPECT_EQ(out.tier, c.tier) << c.name;
    EXPECT_EQ(out.direct, c.direct) << c.name;
  }
}

TEST(AttributedBody, SignatureMustSitInTheFirst32Bytes) {
  // The same readable archive, pushed so that its signature starts at 21 (inside the
  // window, ends at 32) and at 22 (ends past it).
  for (size_t pad : {21u, 22u}) {
    std::string blob(pad, '\0');
    blob += withLength(0x05, "", "hello").substr(2);
    const auto out = TeskDecode::attributedBody(bytesOf(blob));
    if (pad == 21) {
      EXPECT_EQ(out.tier, Tier::legacyAttributed);
    } else {
      EXPECT_EQ(out.tier, Tier::undecodable);
    }
  }
}

struct BodyCase {
  const char* name;
  std::optional<std::string> text;
  std::string blob;
  std::optional<std::string> body;
  Tier tier;
  bool direct;
};

TEST(Body, PrefersTheBlobAndCountsWhatFailed) {
  const std::string good = withLength(0x05, "", "hello");
  const std::string bad = legacy("+\x7fhello");
  std::vector<BodyCase> cases = {
      {"nothing at all", std::nullopt, "", std::nullopt, Tier::absent, false},
      {"empty text, no blob", std::string(), "", std::nullopt, Tier::absent, false},
      {"text only", std::string("typed"), "", "typed", Tier::plainText, false},
      {"blob wins over text", std::string("stale"), good, "hello", Tier::legacyAttributed, true},
      {"blob without text", std::nullopt, good, "hello", Tier::legacyAttributed, true},
      {"undecodable blob keeps the text", std::string("typed"), bad, "typed", Tier::undecodable,
       false},
      {"undecodable blob, empty text", std::string(), bad, std::nullopt, Tier::undecodable, false},
      {"undecodable blob, no text", std::nullopt, bad, std::nullopt, Tier::undecodable, false},
  };
  for (const auto& c : cases) {
    std::optional<std::string_view> text;
    if (c.text) text = *c.text;
    const auto out = TeskDecode::body(text, bytesOf(c.blob));
    EXPECT_EQ(out.body, c.body) << c.name;
    EXPECT_EQ(out.tier, c.tier) << c.name;
    EXPECT_EQ(out.direct, c.direct) << c.name;
  }
}

TEST(Census, CountsTiersAndDerivesTheRate) {
  TeskDecode::Census census;
  EXPECT_EQ(census.blobs(), 0);
  EXPECT_DOUBLE_EQ(census.rate(), 1.0);

  TeskDecode::Outcome direct{std::string("a"), Tier::legacyAttributed, true};
  TeskDecode::Outcome slow{std::string("b"), Tier::legacyAttributed, false};
  census.record(direct);
  census.record(direct);
  census.record(slow);
  census.record(TeskDecode::Outcome{std::string("c"), Tier::legacyString, false});
  census.record(TeskDecode::Outcome{std::string("d"), Tier::keyedAttributed, false});
  census.record(TeskDecode::Outcome{std::nullopt, Tier::undecodable, false});
  census.record(Tier::plainText);
  census.record(Tier::absent);
  census.record(Tier::absent);

  EXPECT_EQ(census.legacyAttributed, 3);
  EXPECT_EQ(census.direct, 2);
  EXPECT_EQ(census.legacyString, 1);
  EXPECT_EQ(census.keyedAttributed, 1);
  EXPECT_EQ(census.undecodable, 1);
  EXPECT_EQ(census.plainText, 1);
  EXPECT_EQ(census.absent, 2);
  EXPECT_EQ(census.blobs(), 6);  // plain text and absent rows had no usable blob
  EXPECT_EQ(census.decoded(), 5);
  EXPECT_DOUBLE_EQ(census.rate(), 5.0 / 6.0);
}

struct StripCase {
  const char* name;
  std::optional<std::string> body;
  std::optional<std::string> text;
  bool hadPlaceholder;
};

TEST(StripPlaceholders, RemovesAttachmentsThenTrims) {
  const std::string fffc = "\xef\xbf\xbc";
  std::vector<StripCase> cases = {
      {"no body", std::nullopt, std::nullopt, false},
      {"placeholder alone", fffc, std::string(), true},
      {"placeholder caption", fffc + " nice photo", std::string("nice photo"), true},
      {"placeholders inside", "a" + fffc + "b" + fffc + fffc, std::string("ab"), true},
      {"trimmed without placeholder", " \n hi there\t\n", std::string("hi there"), false},
      {"no-break space is white space", "\xc2\xa0hi\xc2\xa0", std::string("hi"), false},
      {"empty", std::string(), std::string(), false},
      {"inner white space kept", fffc + "a  b", std::string("a  b"), true},
  };
  for (const auto& c : cases) {
    const auto out = TeskDecode::stripPlaceholders(c.body);
    EXPECT_EQ(out.text, c.text) << c.name;
    EXPECT_EQ(out.hadPlaceholder, c.hadPlaceholder) << c.name;
  }
}

TEST(IsValidUTF8, RejectsEveryMalformedForm) {
  const std::vector<std::pair<std::string, bool>> cases = {
      {"", true},
      {"plain ascii text longer than eight", true},
      {"\xc3\xa9", true},           // é
      {"\xe2\x82\xac", true},       // €
      {"\xf0\x9f\x98\x80", true},   // 😀
      {"\xf4\x8f\xbf\xbf", true},   // U+10FFFF
      {"\xc0\x80", false},          // overlong NUL
      {"\xe0\x80\xaf", false},      // overlong
      {"\xed\xa0\x80", false},      // surrogate
      {"\xf4\x90\x80\x80", false},  // past U+10FFFF
      {"\xf5\x80\x80\x80", false},
      {"\x80", false},           // lone continuation
      {"\xe2\x82", false},       // truncated
      {"abcdefghi\xff", false},  // bad byte after an 8-byte run
      {"abcdefgh\xc3", false},   // truncated after an 8-byte run
      {"\xc3\x28", false},       // bad continuation
  };
  for (const auto& [bytes, valid] : cases) {
    EXPECT_EQ(TeskText::isValidUTF8(bytes), valid) << testing::PrintToString(bytes);
  }
}

std::string unescape(std::string_view s) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '\\' && i + 1 < s.size()) {
      const char c = s[++i];
      out += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c;
    } else {
      out += s[i];
    }
  }
  return out;
}

TEST(RealSamples, DecodeToTheirKnownText) {
  const std::string root = std::string(TESK_TEST_DATA) + "/typedstream/";
  std::ifstream expected(root + "EXPECTED.tsv");
  ASSERT_TRUE(expected.good());
  std::string line;
  int checked = 0;
  while (std::getline(expected, line)) {
    const size_t tab = line.find('\t');
    ASSERT_NE(tab, std::string::npos) << line;
    const std::string path = line.substr(0, tab);
    const std::string want = unescape(line.substr(tab + 1));
    const auto blob = readFile(root + path);
    ASSERT_FALSE(blob.empty()) << path;
    const auto out = TeskDecode::attributedBody(blob);
    if (want.empty()) {
      EXPECT_EQ(out.body, std::nullopt) << path;  // an empty string is no body
      EXPECT_EQ(out.tier, Tier::undecodable) << path;
    } else {
      EXPECT_EQ(out.body, std::optional<std::string>(want)) << path;
    }
    ++checked;
  }
  EXPECT_EQ(checked, 10);
}

TEST(RealSamples, DirectReaderAgreesWithTheTypedstreamReader) {
  // Every Messages row: the fast path and the full reader give the same string,
  // including rows 6 and 10, whose text column was edited after the fact.
  for (int row = 1; row <= 10; ++row) {
    const auto blob = readFile(std::string(TESK_TEST_DATA) +
                               "/typedstream/plaso-chatdb/message_rowid_" + std::to_string(row));
    ASSERT_FALSE(blob.empty()) << row;
    const auto direct = TeskDecode::directBody(blob);
    const auto full = TeskTypedStream::rootString(blob);
    ASSERT_TRUE(direct.has_value()) << row;
    ASSERT_TRUE(full.has_value()) << row;
    EXPECT_EQ(*direct, full->text) << row;
    EXPECT_EQ(full->kind, TeskTypedStream::RootKind::attributedString) << row;
    const auto out = TeskDecode::attributedBody(blob);
    EXPECT_EQ(out.tier, Tier::legacyAttributed) << row;
    EXPECT_TRUE(out.direct) << row;
  }
}

}  // namespace
