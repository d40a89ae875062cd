// The byte-level pieces of body decoding, as tables of input and expected output.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sources/mail/TeskMail.h"

namespace {

using namespace std::string_literals;
using TeskMail::PartResult;

TEST(MailQuotedPrintable, Table) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"caf=C3=A9", "caf\xC3\xA9"},
      {"caf=c3=a9", "caf\xC3\xA9"},  // lower-case hex too
      {"soft=\nbreak", "softbreak"},
      {"soft=\r\nbreak", "softbreak"},
      {"=ZZ stays", "=ZZ stays"},
      {"a=3", "a=3"},  // fewer than two bytes after '='
      // A soft break ends the part: its line break went with the delimiter.
      {"end=", "end"},
      {"x=\r", "x"},
      {"lone CR=\rbreak", "lone CRbreak"},
      {"padded= \t\r\nbreak", "paddedbreak"},
      {"padded at the end=  ", "padded at the end"},
      {"a= b", "a= b"},  // a blank then text: no line end, '=' kept
      {"1+1=3D2", "1+1=2"},
      {"==41", "=A"},
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskMail::quotedPrintable(c.in), c.out) << c.in;
  }
}

TEST(MailBase64, Table) {
  struct Case {
    std::string in;
    std::optional<std::string> out;
  } cases[] = {
      {"aGVsbG8=", "hello"},
      {"aGVs\r\nbG8=\r\n", "hello"},   // line breaks dropped
      {" a G V s b G 8 = ", "hello"},  // and spaces
      {"aGVsbG8", "hel"},              // cut to whole quanta
      {"aGVsbA==", "hell"},
      {"", std::nullopt},
      {"!!!\n***", std::nullopt},  // nothing of the alphabet
      {"aGV", std::nullopt},       // no whole quantum
      {"aG==bG8=", std::nullopt},  // padding in the middle
      {"a===", std::nullopt},      // three pad bytes
      {"5aW95ZGA", "\xE5\xA5\xBD\xE5\x91\x80"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskMail::base64(c.in), c.out) << c.in;
  }
}

TEST(MailEntities, Table) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"no amp here", "no amp here"},
      {"a &amp; b", "a & b"},
      {"&AMP;&Lt;&gt;", "&\xE2\x89\xAA>"},  // names are case-sensitive: Lt is U+226A
      {"caf&eacute; &Eacute;t&eacute;", "caf\xC3\xA9 \xC3\x89t\xC3\xA9"},
      {"&EACUTE;", "&EACUTE;"},                               // no such name
      {"&CounterClockwiseContourIntegral;", "\xE2\x88\xB3"},  // the longest name
      {"&NotEqualTilde;", "\xE2\x89\x82\xCC\xB8"},            // two code points
      {"&zwnj;&rarr;&Omega;", "\xE2\x80\x8C\xE2\x86\x92\xCE\xA9"},
      {"&copy2026 &lt3",
       "\xC2\xA9"
       "2026 <3"},  // legacy names stand without ';'
      {"&notit;",
       "\xC2\xAC"
       "it;"},  // the longest name that is one, as browsers read it
      {"&nbsp", "\xC2\xA0"},
      {"&#8212;", "\xE2\x80\x94"},
      {"&#x2014;&#X2014;", "\xE2\x80\x94\xE2\x80\x94"},
      {"&nbsp;", "\xC2\xA0"},
      {"&euro;&deg;&hellip;", "\xE2\x82\xAC\xC2\xB0\xE2\x80\xA6"},
      {"&unknown;", "&unknown;"},
      {"&#xD800;", "&#xD800;"},      // a surrogate is no scalar
      {"&#x110000;", "&#x110000;"},  // above U+10FFFF
      {"&#12a;", "&#12a;"},          // digits that do not parse
      {"&#;", "&#;"},
      {"&;", "&;"},                      // empty name: '&' copied, scan goes on
      {"AT&T", "AT&T"},                  // no ';' at all
      {"&abcdefghij;", "&abcdefghij;"},  // unknown
      {"&&amp;", "&&"},                  // a bare '&' does not swallow the next one
      {"a & b &amp; c", "a & b & c"},
      {"R&D &#38;&", "R&D &&"},
      {"&#65;&#x42;", "AB"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskMail::entities(c.in), c.out) << c.in;
  }
}

TEST(MailStripHTML, Table) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"<p>a</p><p>b</p>", "\na\n\nb\n"},
      {"a<br>b<BR/>c", "a\nb\nc"},
      {"<span>x</span>", " x "},
      {"a<script>var x = '<p>';</script>b", "a b"},
      {"a<SCRIPT type=x>1</ScRiPt>b", "a b"},
      {"a<style>p{}</style>b", "a b"},
      {"a<script>never closed", "a"},
      {"a<!-- comment -->b", "a b"},
      {"<!DOCTYPE html>x", " x"},
      {"a<div", "a\n"},  // a tag without '>' runs to the end
      {"Tom &amp; Jerry", "Tom & Jerry"},
      {"<blockquote>q</blockquote>", "\nq\n"},
      {"<h1>t</h1><table><tr><td>c</td></tr></table>", "\nt\n\n\n c \n\n"},
      {"<p2>x", " x"},  // p2 is not p
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskMail::stripHTML(c.in), c.out) << c.in;
  }
}

TEST(MailNormalize, Table) {
  struct Case {
    std::string in, out;
  } cases[] = {
      {"  a  ", "a"},
      {"a \t b", "a b"},
      {"a\nb", "a\nb"},
      {"a\r\n\r\n\r\n\r\nb", "a\n\nb"},  // never more than one blank line
      {"a \n b", "a\nb"},
      {"a\xC2\xA0\xC2\xA0"
       "b",
       "a b"},  // no-break spaces
      {"a\xE2\x80\x8B"
       "b",
       "a b"},  // zero-width space
      {"\n\n\na", "a"},
      {"a\x01"
       "b",
       "a\x01"
       "b"},  // control characters are content
      {"\xFF"
       "a",
       "\xEF\xBF\xBD"
       "a"},  // repaired
      {"", ""},
      {" \r\n\t", ""},
      {"a\rb", "a\nb"},  // a lone CR is a line break
      {"a\r\rb\r", "a\n\nb"},
      {"a\r\n\rb", "a\n\nb"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskMail::normalize(c.in), c.out) << c.in;
  }
}

TEST(MailParameter, Table) {
  struct Case {
    std::string name, value;
    std::optional<std::string> out;
  } cases[] = {
      {"charset", "text/plain; charset=utf-8", "utf-8"},
      {"charset", "text/plain; CHARSET=\"ISO-8859-1\"", "ISO-8859-1"},
      {"charset", "text/plain; x-charset=foo", std::nullopt},
      {"charset", "text/plain; x-charset=foo; charset=bar", "bar"},
      {"charset", "text/plain;charset=utf-8;format=flowed", "utf-8"},
      {"charset", "charset=utf-8", "utf-8"},
      {"charset", "text/plain; charset=\"\"", ""},
      {"charset", "text/plain; charset=\"", std::nullopt},
      {"charset", "text/plain; charset=\"open", std::nullopt},
      {"charset", "text/plain; charset=", std::nullopt},
      {"charset", "text/plain; charset=;", std::nullopt},
      {"boundary", "multipart/mixed; boundary=\"a b;c\"", "a b;c"},
      {"boundary", "multipart/mixed;\tboundary=Apple-Mail-7-816907086", "Apple-Mail-7-816907086"},
      {"boundary", "multipart/mixed; boundary=x\tmore", "x"},
      {"charset",
       "text/plain; \xC3\xA9"
       "charset=x",
       std::nullopt},  // a letter before
      {"charset", "text/plain; 1charset=x", std::nullopt},
      {"charset", "text/plain", std::nullopt},
      {"charset", "text/plain; charset=\"a\\\"b\"", "a\\"},  // escapes are not read
  };
  for (const auto& c : cases) {
    auto got = TeskMail::parameter(c.name, c.value);
    EXPECT_EQ(got ? std::optional<std::string>(std::string(*got)) : std::nullopt, c.out) << c.value;
  }
}

TEST(MailHeaders, UnfoldHeaderAndSplit) {
  // Every CR goes first; a line break then folds when a blank follows it.
  for (const auto& [in, out] : std::vector<std::pair<std::string, std::string>>{
           {"A: x\r\n\t  y\r\nB: z", "A: x y\nB: z"},
           {"A: x\n y", "A: x y"},
           {"A\r\n\r\n B", "A\n B"},  // an empty line, then a fold
           {"A\n\r B", "A B"},        // a CR between the break and the blank
           {"A\n \r\tB", "A B"},      // and inside the blanks
           {"A\rB\n", "AB\n"},        // a lone CR; the last break stays
           {"A\n ", "A "},
           {"A: \xFF", "A: \xEF\xBF\xBD"},
       }) {
    EXPECT_EQ(TeskMail::unfold(in), out) << in;
  }

  const std::string text = "Subject: hi\nContent-Type :  text/html ; charset=x \nbad line\n";
  EXPECT_EQ(TeskMail::header("content-type", text), "text/html ; charset=x");
  EXPECT_EQ(TeskMail::header("subject", text), "hi");
  EXPECT_EQ(TeskMail::header("to", text), std::nullopt);
  EXPECT_EQ(TeskMail::header("a", "A: 1\nA: 2"), "1");  // the first line wins

  auto crlf = TeskMail::splitHeaders("A: 1\r\n\r\nbody\n\nmore");
  EXPECT_EQ(crlf.headers, "A: 1");
  EXPECT_EQ(crlf.body, "body\n\nmore");
  auto lf = TeskMail::splitHeaders("A: 1\n\nbody");
  EXPECT_EQ(lf.headers, "A: 1");
  EXPECT_EQ(lf.body, "body");
  auto none = TeskMail::splitHeaders("A: 1\nB: 2");
  EXPECT_EQ(none.headers, "A: 1\nB: 2");
  EXPECT_TRUE(none.body.empty());
}

TEST(MailSplit, Table) {
  struct Case {
    std::string name, in;
    std::vector<std::string> parts;
  } cases[] = {
      {"two parts and closing", "pre\n--b\nA\n--b\r\nB\r\n--b--\nepilogue", {"A", "B"}},
      {"preamble alone is no part", "just text", {}},
      {"empty input", "", {}},
      {"no closing: the rest is a part", "--b\nA\n--b\nB tail", {"A", "B tail"}},
      {"closing right away", "--b--\n", {}},
      {"delimiter at the very end", "--b\nA\n--b", {"A"}},
      {"empty part", "--b\n--b\nB\n--b--", {"", "B"}},
      {"found mid-line too", "--b\nx--by\n--b--", {"x", "y"}},
      {"CR runs before a delimiter dropped", "--b\nA\r\n\r\n\n--b--", {"A"}},
  };
  for (const auto& c : cases) {
    std::vector<std::string> got;
    for (auto p : TeskMail::split(c.in, "--b")) got.emplace_back(p);
    EXPECT_EQ(got, c.parts) << c.name;
  }
}

TEST(MailFind, Table) {
  struct Case {
    std::string needle, hay;
    std::optional<size_t> at;
  } cases[] = {
      {"b", "abc", 1},
      {"abc", "abc", 0},
      {"", "abc", std::nullopt},
      {"x", "abc", std::nullopt},
      {"abcd", "abc", std::nullopt},
      {"c", "abcabc", 2},
      {"\0"s, "a\0b"s, 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskMail::find(c.needle, c.hay), c.at) << c.needle << " in " << c.hay;
  }
}

TEST(MailCharset, Conversions) {
  struct Case {
    std::string name;
    std::string bytes;
    std::optional<std::string> charset;
    std::optional<std::string> out;
  } cases[] = {
      {"windows-1252 E9", "caf\xE9", "windows-1252", "caf\xC3\xA9"},
      {"windows-1252 smart quote", "\x93q\x94", "windows-1252", "\xE2\x80\x9Cq\xE2\x80\x9D"},
      // One bad byte in a part declared UTF-8 is that byte lost, not the part.
      {"E9 declared UTF-8 is repaired", "caf\xE9 ok", "utf-8", "caf\xEF\xBF\xBD ok"},
      {"any UTF-8 alias repairs", "\xC3(\xFF)", "utf8", "\xEF\xBF\xBD(\xEF\xBF\xBD)"},
      {"E9 declared us-ascii fails", "caf\xE9", "us-ascii", std::nullopt},
      {"UTF-8 unchanged", "caf\xC3\xA9", "UTF-8", "caf\xC3\xA9"},
      {"iso-8859-1", "\xFC", "iso-8859-1", "\xC3\xBC"},
      {"iso-8859-15 euro", "\xA4", "ISO-8859-15", "\xE2\x82\xAC"},
      {"iso-8859-2", "\xB1", "iso-8859-2", "\xC4\x85"},
      {"koi8-r", "\xC1", "koi8-r", "\xD0\xB0"},
      {"shift_jis", "\x82\xA0", "Shift_JIS", "\xE3\x81\x82"},
      {"iso-2022-jp", "\x1B$B$\"\x1B(B", "iso-2022-jp", "\xE3\x81\x82"},
      {"gb2312 read as GBK", "\xC4\xE3", "gb2312", "\xE4\xBD\xA0"},
      {"gbk", "\x81\x40", "GBK", "\xE4\xB8\x82"},
      {"big5", "\xA4\xA4", "Big5", "\xE4\xB8\xAD"},
      {"euc-kr", "\xB0\xA1", "EUC-KR", "\xEA\xB0\x80"},
      {"utf-16 with BOM",
       "\xFF\xFE"
       "A\0"s,
       "UTF-16", "A"},
      {"utf-16 lone surrogate fails, not UTF-8 either", "\xD8\x00\x00\xFF"s, "UTF-16BE",
       std::nullopt},
      {"8-bit bytes in iso-2022-jp fall back to UTF-8", "caf\xC3\xA9", "iso-2022-jp",
       "caf\xC3\xA9"},
      // Names Mail's converter knows and ICU's table here lacks, or names otherwise.
      {"iso-8859-16", "\xA4 \xAA \xDE", "ISO-8859-16", "\xE2\x82\xAC \xC8\x98 \xC8\x9A"},
      {"latin10 alias", "\xBA", "latin10", "\xC8\x99"},
      {"koi8-ru Belarusian short u", "\xAE\xBE\xC1", "KOI8-RU", "\xD1\x9E\xD0\x8E\xD0\xB0"},
      {"x-mac-icelandic", "\xA0\xDC", "x-mac-icelandic", "\xC3\x9D\xC3\x90"},
      {"x-mac-croatian", "\xA9\xF0", "x-mac-croatian", "\xC5\xA0\xC4\x91"},
      {"x-mac-romanian", "\xAF\xDE", "x-mac-romanian", "\xC8\x98\xC8\x9A"},
      {"x-mac-ukrainian is ICU's Mac Cyrillic", "\xB4", "x-mac-ukrainian", "\xD1\x96"},
      {"x-mac-roman", "\x8E", "x-mac-roman", "\xC3\xA9"},
      {"unknown name, valid UTF-8", "caf\xC3\xA9", "x-no-such", "caf\xC3\xA9"},
      {"unknown name, invalid UTF-8", "caf\xE9", "x-no-such", std::nullopt},
      {"a path is no charset name", "caf\xE9", "/tmp/x.cnv", std::nullopt},
      {"nor are ICU options", "caf\xE9", "ISO-8859-1,version=1", std::nullopt},
      {"no charset", "plain", std::nullopt, "plain"},
      {"blank charset", "caf\xE9", "  ", std::nullopt},
      {"quoted spaces trimmed", "caf\xE9", " windows-1252 ", "caf\xC3\xA9"},
  };
  for (const auto& c : cases) {
    std::optional<std::string_view> cs;
    if (c.charset) cs = *c.charset;
    EXPECT_EQ(TeskMail::utf8(c.bytes, cs), c.out) << c.name;
  }
}

TEST(MailCharset, RepairReplacesMaximalSubparts) {
  EXPECT_TRUE(TeskMail::isValidUTF8("plain ascii and \xE2\x80\x94"));
  EXPECT_FALSE(TeskMail::isValidUTF8("\xC0\x80"));          // overlong
  EXPECT_FALSE(TeskMail::isValidUTF8("\xED\xA0\x80"));      // surrogate
  EXPECT_FALSE(TeskMail::isValidUTF8("\xF4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_FALSE(TeskMail::isValidUTF8("abcdefgh\xE2\x80"));  // truncated after an ASCII block
  EXPECT_EQ(TeskMail::repairUTF8("a\xE2\x80"
                                 "b"),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(TeskMail::repairUTF8("\xFF\xFE"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

}  // namespace
