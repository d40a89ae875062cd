// Whole .emlx files to bodies: the count line, MIME trees built here, charsets,
// the caps, the file locations, and the real files under tests/data/emlx.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "common/TeskTestHome.h"
#include "sources/mail/TeskMail.h"

namespace {

using TeskMail::Body;
using TeskMail::Census;
using TeskMail::Tier;

const std::string kPlist =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
    "\t<key>date-received</key>\n\t<integer>1555588849</integer>\n</dict>\n</plist>\n";

// A file as Mail writes it: padded count line, the message, its property list.
std::string emlx(const std::string& message) {
  std::string count = std::to_string(message.size());
  count.resize(10, ' ');
  return count + "\n" + message + kPlist;
}

Body decodeMessage(const std::string& message, Census* out = nullptr) {
  Census census;
  Body body = TeskMail::decode(emlx(message), census);
  if (out) *out = census;
  return body;
}

std::string dataFile(const std::string& name) {
  return tesk_test::readFile(std::string(TESK_TEST_DATA) + "/emlx/" + name);
}

TEST(MailDecode, CountLine) {
  const std::string message = "Content-Type: text/plain\n\nhello";
  const std::string size = std::to_string(message.size());
  struct Case {
    std::string name, file;
    Tier tier;
    int64_t truncated;
  } cases[] = {
      {"padded and CR", "  " + size + "\r\n" + message + kPlist, Tier::plain, 0},
      {"tab inside", size.substr(0, 1) + "\t" + size.substr(1) + "\n" + message, Tier::plain, 0},
      {"letter among digits", "3a\n" + message, Tier::malformed, 0},
      {"LF beyond byte 32", std::string(40, ' ') + size + "\n" + message, Tier::malformed, 0},
      {"LF at the first byte", "\n" + message, Tier::malformed, 0},
      {"no LF at all", size, Tier::malformed, 0},
      {"blank count", "    \n" + message, Tier::malformed, 0},
      {"zero count", "0\n" + message, Tier::malformed, 0},
      {"19 digits", "1000000000000000000\n" + message, Tier::malformed, 0},
      {"18 digits is long, not malformed", "100000000000000000\n" + message, Tier::plain, 1},
      {"empty buffer", "", Tier::malformed, 0},
      {"count past the end", "5000\n" + message, Tier::plain, 1},
      {"nothing after the count line", "5\n", Tier::malformed, 1},
  };
  for (const auto& c : cases) {
    Census census;
    const Body body = TeskMail::decode(c.file, census);
    EXPECT_EQ(body.tier, c.tier) << c.name;
    EXPECT_EQ(census.truncatedFiles, c.truncated) << c.name;
    EXPECT_EQ(body.text.has_value(), c.tier == Tier::plain) << c.name;
  }
}

TEST(MailDecode, ShortFileDecodesWhatItHolds) {
  const std::string text(2970, 'x');
  const std::string message = "Content-Type: text/plain\n\n" + text + " end";
  Census census;
  const Body body = TeskMail::decode("5000\n" + message, census);
  ASSERT_EQ(body.tier, Tier::plain);
  EXPECT_EQ(*body.text, text + " end");
  EXPECT_EQ(census.truncatedFiles, 1);
}

TEST(MailDecode, OverlongCountStopsAtThePropertyList) {
  // Seen in real files edited by tools: the count runs past the message, over
  // Mail's property list, to the end of the file.
  const std::string message = "Content-Type: text/plain\n\nonly this";
  Census census;
  const Body body = TeskMail::decode("9999\n" + message + kPlist, census);
  ASSERT_TRUE(body.text);
  EXPECT_EQ(*body.text, "only this");
  EXPECT_EQ(census.truncatedFiles, 1);
  // Without a property list the whole rest is the message.
  EXPECT_EQ(TeskMail::decode("9999\n" + message + " <?xml but no list", census).text,
            "only this <?xml but no list");
}

struct TreeCase {
  std::string name;
  std::string message;
  Tier tier;
  std::string text;  // expected body, when the tier has one
};

const std::string kAlternativeHTMLFirst =
    "Content-Type: multipart/alternative; boundary=\"b1\"\n\n"
    "preamble\n--b1\nContent-Type: text/html\n\n<p>rich</p>\n"
    "--b1\nContent-Type: text/plain; charset=us-ascii\n\nplain one\n--b1--\n";

const std::string kMixedHTMLOnly =
    "Content-Type: multipart/mixed; boundary=m\n\n"
    "--m\nContent-Type: image/png\nContent-Transfer-Encoding: base64\n\niVBORw0KGgo=\n"
    "--m\nContent-Type: text/html; charset=utf-8\n\n<div>Tom &amp; Jerry</div><p>b</p>\n--m--\n";

const std::string kImageOnly =
    "Content-Type: multipart/mixed; boundary=m\n\n"
    "--m\nContent-Type: image/jpeg\n\nxxxx\n--m--\n";

std::string nestedRFC822(int levels) {
  std::string m;
  for (int i = 0; i < levels; ++i) m += "Content-Type: message/rfc822\n\n";
  return m + "Content-Type: text/plain\n\ndeep";
}

TEST(MailDecode, MIMETrees) {
  const TreeCase cases[] = {
      {"alternative, HTML first: plain wins", kAlternativeHTMLFirst, Tier::plain, "plain one"},
      {"mixed, HTML only", kMixedHTMLOnly, Tier::html, "Tom & Jerry\n\nb"},
      {"mixed, image only", kImageOnly, Tier::noTextPart, ""},
      {"no content type is text/plain", "Subject: s\n\nbare", Tier::plain, "bare"},
      {"multipart without boundary", "Content-Type: multipart/mixed\n\n--x\n\nhi\n--x--",
       Tier::undecodable, ""},
      {"multipart whose delimiter never occurs",
       "Content-Type: multipart/mixed; boundary=q\n\nno parts here", Tier::noTextPart, ""},
      {"base64 without alphabet bytes",
       "Content-Type: text/plain\nContent-Transfer-Encoding: base64\n\n!!!!\n", Tier::undecodable,
       ""},
      {"undecodable part beside HTML gives the HTML",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/plain\nContent-Transfer-Encoding: base64\n\n***\n"
       "--m\nContent-Type: text/html\n\n<b>bold</b>\n--m--",
       Tier::html, "bold"},
      {"the first HTML part is kept",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/html\n\nfirst\n--m\nContent-Type: text/html\n\nsecond\n--m--",
       Tier::html, "first"},
      {"undecodable part alone",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/plain; charset=us-ascii\n\ncaf\xE9\n--m--",
       Tier::undecodable, ""},
      {"plain after an undecodable part still wins",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/plain; charset=us-ascii\n\ncaf\xE9\n"
       "--m\nContent-Type: text/plain\n\nok\n--m--",
       Tier::plain, "ok"},
      {"partial: last part without closing delimiter",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: application/pdf\n\n\n--m\nContent-Type: text/plain\n\ntail text\n",
       Tier::plain, "tail text"},
      {"quoted-printable UTF-8",
       "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n"
       "caf=C3=A9 jo=\nined =ZZ",
       Tier::plain, "caf\xC3\xA9 joined =ZZ"},
      {"windows-1252 E9", "Content-Type: text/plain; charset=windows-1252\n\ncaf\xE9", Tier::plain,
       "caf\xC3\xA9"},
      {"E9 declared UTF-8 is one U+FFFD",
       "Content-Type: text/plain; charset=utf-8\n\ncaf\xE9 au lait", Tier::plain,
       "caf\xEF\xBF\xBD au lait"},
      // </p> and <p> each give a line break; the run of two is one blank line.
      {"two HTML paragraphs", "Content-Type: text/html\n\n<p>a</p><p>b</p>", Tier::html, "a\n\nb"},
      {"line break tag", "Content-Type: text/html\n\na<br>b", Tier::html, "a\nb"},
      {"entities in HTML", "Content-Type: text/html\n\nx &#8212; y &bogus;", Tier::html,
       "x \xE2\x80\x94 y &bogus;"},
      {"every HTML5 name, and old Mac line ends",
       "Content-Type: text/html\n\ncaf&eacute; &amp;&amp; &hearts;\rnext line", Tier::html,
       "caf\xC3\xA9 && \xE2\x99\xA5\nnext line"},
      {"only markup and white space", "Content-Type: text/html\n\n<p> </p>\n<br>&nbsp;\t",
       Tier::noTextPart, ""},
      {"text part of blanks", "Content-Type: text/plain\n\n \n\t\n", Tier::noTextPart, ""},
      {"AMP HTML is HTML", "Content-Type: text/x-amp-html\n\n<i>amp</i>", Tier::html, "amp"},
      {"other text types are plain", "Content-Type: text/calendar\n\nBEGIN:VCALENDAR", Tier::plain,
       "BEGIN:VCALENDAR"},
      // The message's own text outranks what the sender attached.
      {"HTML body beside a .txt attachment",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/html\n\n<p>own words</p>\n"
       "--m\nContent-Type: text/plain\nContent-Disposition: attachment; filename=notes.txt\n\n"
       "attached notes\n--m--",
       Tier::html, "own words"},
      {"a file name alone marks an attachment, in either header",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/plain; name=\"a.txt\"\n\nfirst file\n"
       "--m\nContent-Type: text/plain\nContent-Disposition: inline;\n"
       " filename*=UTF-8''n%C3%B6tes.txt\n\nsecond file\n"
       "--m\nContent-Type: multipart/alternative; boundary=a\n\n"
       "--a\nContent-Type: text/html\n\n<b>own</b>\n--a--\n--m--",
       Tier::html, "own"},
      {"a calendar invitation beside HTML",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/calendar; method=REQUEST\n\nBEGIN:VCALENDAR\n"
       "--m\nContent-Type: text/html\n\nLunch?\n--m--",
       Tier::html, "Lunch?"},
      {"an attached message beside HTML",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/html\n\nsee below\n"
       "--m\nContent-Type: message/rfc822\nContent-Disposition: attachment\n\n"
       "Content-Type: text/plain\n\nforwarded\n--m--",
       Tier::html, "see below"},
      {"x-name is no file name",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/html\n\nhtml\n"
       "--m\nContent-Type: text/plain; x-name=q\n\nplain\n--m--",
       Tier::plain, "plain"},
      {"attached text when the message has none of its own",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: image/png\n\n\x89PNG\n"
       "--m\nContent-Type: text/plain\nContent-Disposition: attachment\n\nonly this\n--m--",
       Tier::plain, "only this"},
      {"own text that fails is not replaced by an attachment",
       "Content-Type: multipart/mixed; boundary=m\n\n"
       "--m\nContent-Type: text/plain\nContent-Transfer-Encoding: base64\n\n***\n"
       "--m\nContent-Type: text/plain; name=a.txt\n\nattached\n--m--",
       Tier::undecodable, ""},
      {"CRLF throughout",
       "Content-Type: multipart/alternative;\r\n boundary=\"c\"\r\n\r\n--c\r\n"
       "Content-Type: text/plain\r\n\r\nline one\r\nline two\r\n--c--\r\n",
       Tier::plain, "line one\nline two"},
      {"seven levels of rfc822", nestedRFC822(7), Tier::plain, "deep"},
      {"eight levels of rfc822", nestedRFC822(8), Tier::noTextPart, ""},
  };
  for (const auto& c : cases) {
    const Body body = decodeMessage(c.message);
    EXPECT_EQ(body.tier, c.tier) << c.name;
    if (c.tier == Tier::plain || c.tier == Tier::html) {
      ASSERT_TRUE(body.text) << c.name;
      EXPECT_EQ(*body.text, c.text) << c.name;
    } else {
      EXPECT_FALSE(body.text) << c.name;
    }
  }
}

TEST(MailDecode, NestedMultipartDepth) {
  // Multiparts nested inside one another: the text at depth 7 is found, at 8 not.
  const auto nested = [](int levels) {
    std::string m;
    for (int i = 0; i < levels; ++i) {
      m += "Content-Type: multipart/mixed; boundary=L" + std::to_string(i) + "\n\n--L" +
           std::to_string(i) + "\n";
    }
    return m + "Content-Type: text/plain\n\nin the middle";
  };
  EXPECT_EQ(decodeMessage(nested(7)).tier, Tier::plain);
  EXPECT_EQ(decodeMessage(nested(8)).tier, Tier::noTextPart);
}

TEST(MailDecode, Caps) {
  const std::string header = "Content-Type: text/plain; charset=utf-8\n\n";
  {
    // 25,000 characters of two code points each (e + combining acute): the cut
    // counts user-perceived characters, not bytes or code points.
    std::string text;
    for (int i = 0; i < 25000; ++i) text += "e\xCC\x81";
    Census census;
    const Body body = decodeMessage(header + text, &census);
    ASSERT_EQ(body.tier, Tier::plain);
    EXPECT_EQ(body.text->size(), 20000u * 3);
    EXPECT_EQ(census.cappedBodies, 1);
  }
  {
    // Exactly 20,000 characters is not capped.
    Census census;
    const Body body = decodeMessage(header + std::string(20000, 'a'), &census);
    EXPECT_EQ(body.text->size(), 20000u);
    EXPECT_EQ(census.cappedBodies, 0);
  }
  {
    // 80,001 bytes of text: the byte cut comes first and never splits a character,
    // leaving 20,000 characters, which the character cap then keeps whole.
    std::string text = "a";
    for (int i = 0; i < 20000; ++i) text += "\xF0\x9F\x98\x80";
    Census census;
    const Body body = decodeMessage(header + text, &census);
    ASSERT_EQ(body.tier, Tier::plain);
    EXPECT_EQ(body.text->size(), 1u + 19999u * 4);
    EXPECT_EQ(census.cappedBodies, 0);
    EXPECT_TRUE(TeskMail::isValidUTF8(*body.text));
  }
}

TEST(MailFiles, RelativeDirectoryAndPaths) {
  struct Case {
    int64_t id;
    std::string dir;
  } cases[] = {
      {78495, "8/7/Messages"},
      {123456, "3/2/1/Messages"},
      {1000, "1/Messages"},
      {999, "Messages"},
      {0, "Messages"},
      {-5, "Messages"},
      {1000000, "0/0/0/1/Messages"},
  };
  for (const auto& c : cases) EXPECT_EQ(TeskMail::relativeDirectory(c.id), c.dir) << c.id;
  const auto paths = TeskMail::bodyPaths("/R", 78495);
  EXPECT_EQ(paths[0], "/R/8/7/Messages/78495.emlx");
  EXPECT_EQ(paths[1], "/R/8/7/Messages/78495.partial.emlx");
}

class MailFilesOnDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = std::filesystem::path(TESK_BINARY_DIR) /
            ("mail-files-" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
             "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(root_);
    std::filesystem::create_directories(root_);
  }
  void TearDown() override { std::filesystem::remove_all(root_); }
  void write(const std::filesystem::path& p, const std::string& bytes) {
    std::filesystem::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << bytes;
  }
  std::filesystem::path root_;
};

TEST_F(MailFilesOnDisk, DataRootTakesTheFirstSortedEntryWithData) {
  const TeskMail::Mailbox box{7, "ACCT", "[Gmail]/All Mail", "All Mail"};
  const auto mbox = root_ / "ACCT" / "[Gmail].mbox" / "All Mail.mbox";
  EXPECT_EQ(TeskMail::dataRoot(box, root_.string()), std::nullopt);  // nothing to list
  std::filesystem::create_directories(mbox / "A-no-data");
  std::filesystem::create_directories(mbox / "C" / "Data");
  std::filesystem::create_directories(mbox / "B" / "Data");
  write(mbox / "0-file", "x");
  EXPECT_EQ(TeskMail::dataRoot(box, root_.string()), (mbox / "B" / "Data").string());

  const TeskMail::Mailbox slashes{8, "ACCT", "/INBOX//", "INBOX"};  // empty pieces dropped
  EXPECT_EQ(TeskMail::dataRoot(slashes, root_.string()), std::nullopt);
  std::filesystem::create_directories(root_ / "ACCT" / "INBOX.mbox" / "U" / "Data");
  EXPECT_EQ(TeskMail::dataRoot(slashes, root_.string()),
            (root_ / "ACCT" / "INBOX.mbox" / "U" / "Data").string());
}

TEST_F(MailFilesOnDisk, LoadTriesFullThenPartialAndCountsEveryOutcome) {
  const std::string plain = emlx("Content-Type: text/plain\n\nfull body");
  const std::string partial = emlx("Content-Type: text/plain\n\npartial body");
  const std::string root = root_.string();
  write(root_ / "8/7/Messages/78495.emlx", plain);
  write(root_ / "8/7/Messages/78495.partial.emlx", partial);
  write(root_ / "8/7/Messages/78496.partial.emlx", partial);
  write(root_ / "Messages/5.emlx", "");
  write(root_ / "Messages/6.emlx", "garbage without a count line");
  std::filesystem::create_directories(root_ / "Messages/7.emlx");     // a directory, not a file
  ASSERT_EQ(::mkfifo((root_ / "Messages/8.emlx").c_str(), 0600), 0);  // must not block

  Census census;
  EXPECT_EQ(TeskMail::load(78495, root, census).text, "full body");
  EXPECT_EQ(TeskMail::load(78496, root, census).text, "partial body");
  EXPECT_EQ(TeskMail::load(78497, root, census).tier, Tier::notOnDisk);
  EXPECT_EQ(TeskMail::load(5, root, census).tier, Tier::unreadable);
  EXPECT_EQ(TeskMail::load(6, root, census).tier, Tier::malformed);
  EXPECT_EQ(TeskMail::load(7, root, census).tier, Tier::unreadable);
  EXPECT_EQ(TeskMail::load(8, root, census).tier, Tier::unreadable);
  EXPECT_EQ(census.plain, 2);
  EXPECT_EQ(census.notOnDisk, 1);
  EXPECT_EQ(census.unreadable, 3);
  EXPECT_EQ(census.malformed, 1);
  EXPECT_EQ(census.attempted(), 7);
  EXPECT_EQ(census.filesRead(), 3);
}

TEST(MailCensus, DerivedValues) {
  Census c;
  EXPECT_EQ(c.rate(), 1.0);
  for (Tier t : {Tier::plain, Tier::plain, Tier::html, Tier::noTextPart, Tier::notOnDisk,
                 Tier::unreadable, Tier::malformed, Tier::undecodable, Tier::notOpened}) {
    c.record(t);
  }
  EXPECT_EQ(c.attempted(), 8);
  EXPECT_EQ(c.decoded(), 3);
  EXPECT_EQ(c.filesRead(), 6);
  EXPECT_EQ(c.bodies(), 7);
  EXPECT_DOUBLE_EQ(c.rate(), 3.0 / 7.0);
  EXPECT_EQ(c.notOpened, 1);
}

// The real files: each decodes to the tier and text below, and no body holds a
// byte of Mail's trailing property list.
TEST(MailRealFiles, DecodeToTheRightTier) {
  struct Case {
    std::string file;
    Tier tier;
    std::string starts;    // the body's first bytes
    std::string contains;  // and a piece further in
    int64_t truncated;
    std::string ends = {};  // its last bytes
  } cases[] = {
      // Its plain part ends in a soft line break just before the delimiter.
      {"114862.emlx", Tier::plain, "Lorem ipsum dolor sit amet", "sanctus est Lorem ipsum", 0,
       "http://example.com <http://example.com/>"},
      {"114892.partial.emlx", Tier::plain,
       "> Anfang der weitergeleiteten Nachricht:", "Betreff: Wtr: Lorem ipsum", 0},
      {"114895.partial.emlx", Tier::plain, "> Anfang der weitergeleiteten Nachricht:", "", 0},
      {"11507.emlx", Tier::plain, "REDACTED", "", 0},
      {"136153.partial.emlx", Tier::plain, "wie eben besprochen.", "Lieben Gru\xC3\x9F", 1},
      {"207046.partial.emlx", Tier::plain, "Guten Tag,", "f\xC3\xBCr Ihre Unterlagen", 1},
      {"229417.partial.emlx", Tier::plain, "Beim Lesen deiner E-mail erscheint eine Warnmeldung.",
       "", 1},
      {"465622.partial.emlx", Tier::plain,
       "7\xE6\x9C\x88"
       "10\xE6\x97\xA5",  // 7月10日
       "\xE6\x97\xA5\xE6\x9C\xAC\xE5\xAD\xA6\xE8\xA1\x93\xE6\x8C\xAF\xE8\x88\x88\xE4\xBC\x9A", 0},
      {"4.emlx", Tier::plain, "\xE5\xA5\xBD\xE7\x9C\x8B\xE7\x9A\x84", "8.7", 0},
  };
  for (const auto& c : cases) {
    const std::string bytes = dataFile(c.file);
    ASSERT_FALSE(bytes.empty()) << c.file;
    Census census;
    const Body body = TeskMail::decode(bytes, census);
    EXPECT_EQ(body.tier, c.tier) << c.file;
    ASSERT_TRUE(body.text) << c.file;
    EXPECT_TRUE(body.text->starts_with(c.starts)) << c.file << ": " << body.text->substr(0, 80);
    EXPECT_NE(body.text->find(c.contains), std::string::npos) << c.file;
    EXPECT_TRUE(body.text->ends_with(c.ends))
        << c.file << ": "
        << body.text->substr(body.text->size() - std::min<size_t>(body.text->size(), 80));
    EXPECT_EQ(census.truncatedFiles, c.truncated) << c.file;
    for (const char* plistByte : {"<?xml", "plist", "date-received", "<key>"}) {
      EXPECT_EQ(body.text->find(plistByte), std::string::npos) << c.file << " holds " << plistByte;
    }
  }
}

TEST(MailRealFiles, PartialWithoutClosingDelimiterStillYieldsText) {
  // 114862 cut as a partial fetch would leave it: the text/plain part is the last
  // one and no delimiter follows it.
  const std::string bytes = dataFile("114862.emlx");
  const size_t lf = bytes.find('\n');
  const std::string message = bytes.substr(lf + 1, 2945);
  const std::string delimiter = "--Apple-Mail=_4976E51E-FA6D-4250-BB0E-4735F5A2AD11";
  const size_t first = message.find(delimiter);
  const size_t second = message.find(delimiter, first + 1);
  ASSERT_NE(second, std::string::npos);
  Census census;
  const Body body = TeskMail::decode(emlx(message.substr(0, second)), census);
  EXPECT_EQ(body.tier, Tier::plain);
  ASSERT_TRUE(body.text);
  EXPECT_TRUE(body.text->starts_with("Lorem ipsum"));
  EXPECT_EQ(census.truncatedFiles, 0);
}

TEST(MailRealFiles, HTMLPartOfARealMessage) {
  // 114862 with its text/plain part renamed: the HTML alternative decodes instead.
  std::string bytes = dataFile("114862.emlx");
  const size_t at = bytes.find("Content-Type: text/plain;");
  ASSERT_NE(at, std::string::npos);
  bytes.replace(at, 25, "Content-Type: image/x-no;");  // same length, count unchanged
  Census census;
  const Body body = TeskMail::decode(bytes, census);
  EXPECT_EQ(body.tier, Tier::html);
  ASSERT_TRUE(body.text);
  EXPECT_NE(body.text->find("Lorem ipsum"), std::string::npos);
  EXPECT_EQ(body.text->find('<'), std::string::npos);
}

}  // namespace
