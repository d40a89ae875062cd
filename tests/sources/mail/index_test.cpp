// The index producer over tiny Envelope Index stores built here from the real
// schema text, with body files written under a temporary home.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "common/TeskTestHome.h"
#include "sources/mail/TeskMail.h"

namespace {

namespace fs = std::filesystem;
using TeskMail::Tier;

constexpr double kNow = 1750000000;  // 2025-06-15
constexpr double kDay = 86400;
const std::string kAccount = "5A1D3C9E-0000-4000-8000-00000000ACC7";
const std::string kAllMail = "imap://" + kAccount + "/%5BGmail%5D/All%20Mail";
const std::string kSentMail = "imap://" + kAccount + "/%5BGmail%5D/Sent%20Mail";
const std::string kInbox = "imap://" + kAccount + "/INBOX";
const std::string kSpam = "imap://" + kAccount + "/%5BGmail%5D/Spam";

std::string quoted(const std::string& s) {
  std::string out = "'";
  for (char c : s) {
    out.push_back(c);
    if (c == '\'') out.push_back('\'');
  }
  return out + "'";
}

std::string emlxFile(const std::string& body, const std::string& type = "text/plain") {
  const std::string message = "Content-Type: " + type + "\n\n" + body;
  return std::to_string(message.size()) + "\n" + message + "<?xml version=\"1.0\"?><plist/>";
}

// A home directory with Library/Mail/V10 holding an Envelope Index.
class MailHome : public ::testing::Test {
 protected:
  void SetUp() override {
    home_ = dir_.path();
    version_ = home_ / "Library/Mail/V10";
    fs::create_directories(version_ / "MailData");
    db_ = tesk_test::openDB(version_ / "MailData/Envelope Index");
    exec("PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY;");
    exec(tesk_test::schema("mail-index.sql"));
    filter_.includeGroups = false;
  }

  void exec(const std::string& sql) { tesk_test::exec(db_.get(), sql); }
  void mailbox(int64_t id, const std::string& url) {
    exec("INSERT INTO mailboxes(ROWID, url) VALUES(" + std::to_string(id) + ", " + quoted(url) +
         ")");
  }
  void address(int64_t id, const std::string& a) {
    exec("INSERT INTO addresses(ROWID, address, comment) VALUES(" + std::to_string(id) + ", " +
         quoted(a) + ", '')");
  }
  void message(int64_t rowid, double received, int64_t box, int64_t sender,
               const std::string& subject, const std::string& prefix = "",
               int64_t conversation = 0) {
    auto [it, inserted] = subjects_.try_emplace(subject, subjects_.size() + 1);
    if (inserted) {
      exec("INSERT INTO subjects(ROWID, subject) VALUES(" + std::to_string(it->second) + ", " +
           quoted(subject) + ")");
    }
    exec(
        "INSERT INTO messages(ROWID, global_message_id, sender, subject_prefix, subject, "
        "date_sent, date_received, mailbox, conversation_id) VALUES(" +
        std::to_string(rowid) + ", " + std::to_string(rowid) + ", " + std::to_string(sender) +
        ", " + (prefix.empty() ? "NULL" : quoted(prefix)) + ", " + std::to_string(it->second) +
        ", 2147483647, " + std::to_string(static_cast<int64_t>(received)) + ", " +
        std::to_string(box) + ", " + std::to_string(conversation) + ")");
  }
  void recipient(int64_t message, int64_t address, int position, int type = 0) {
    exec("INSERT INTO recipients(message, address, type, position) VALUES(" +
         std::to_string(message) + ", " + std::to_string(address) + ", " + std::to_string(type) +
         ", " + std::to_string(position) + ")");
  }
  void label(int64_t message, int64_t box) {
    exec("INSERT INTO labels(message_id, mailbox_id) VALUES(" + std::to_string(message) + ", " +
         std::to_string(box) + ")");
  }
  // The Data directory of a mailbox path such as "[Gmail]/All Mail".
  fs::path dataDir(const std::string& boxPath) {
    fs::path p = version_ / kAccount;
    std::stringstream ss(boxPath);
    std::string piece;
    while (std::getline(ss, piece, '/')) p /= piece + ".mbox";
    return p / "0B1E6D28-0000-4000-8000-000000000001" / "Data";
  }
  void body(const std::string& boxPath, int64_t rowid, const std::string& bytes,
            bool partial = false) {
    const fs::path dir = dataDir(boxPath) / TeskMail::relativeDirectory(rowid);
    fs::create_directories(dir);
    std::ofstream(dir / (std::to_string(rowid) + (partial ? ".partial.emlx" : ".emlx")),
                  std::ios::binary)
        << bytes;
  }
  TeskMail::Result read(int64_t budget = 8000) {
    db_.reset();  // the producer opens the file itself; no writer stays behind
    return TeskMail::read(filter_, kNow, budget, home_.string());
  }

  // The Gmail mirror: every message in All Mail, Sent only as a label.
  void gmail() {
    mailbox(1, kAllMail);
    mailbox(2, kSentMail);
    mailbox(3, kInbox);
    mailbox(4, kSpam);
    address(10, "owner@gmail.com");
    address(11, "alice@example.com");
    address(12, "bob@example.com");
    address(13, "carol@example.com");
    message(100, kNow - 5 * kDay, 1, 11, "Lunch");
    recipient(100, 10, 0);
    label(100, 3);
    message(101, kNow - 4 * kDay, 1, 10, "lunch", "Re: ", 7);
    recipient(101, 11, 0);
    label(101, 2);  // Sent Mail
    label(101, 3);  // and INBOX: two labels, one row
    message(102, kNow - 3 * kDay, 1, 11, "Team", "");
    recipient(102, 10, 0);
    recipient(102, 12, 1);
    message(103, kNow - 2 * kDay, 4, 13, "WIN A PRIZE");
    recipient(103, 10, 0);
  }

  tesk_test::TempHome dir_;
  fs::path home_, version_;
  tesk_test::DB db_;
  std::map<std::string, int64_t> subjects_;
  TeskIMessage::Filter filter_;
};

const TeskRow* rowWithID(const TeskMail::Result& r, const std::string& id) {
  for (const auto& row : r.rows) {
    if (row.id == id) return &row;
  }
  return nullptr;
}

TEST_F(MailHome, GmailLabelTraps) {
  gmail();
  body("[Gmail]/All Mail", 100, emlxFile("see you at noon"));
  body("[Gmail]/All Mail", 101, emlxFile("<p>sure</p>", "text/html"), true);
  const auto r = read();
  ASSERT_TRUE(r.denied.empty()) << r.denied[0];
  EXPECT_EQ(r.openMode, "plain");
  ASSERT_EQ(r.rows.size(), 2u);  // 102 is a group, 103 is spam

  const TeskRow* in = rowWithID(r, "mail:100");
  ASSERT_TRUE(in);
  EXPECT_EQ(in->dir, TeskRow::Direction::incoming);
  EXPECT_EQ(in->who, "alice@example.com");
  EXPECT_EQ(in->teskID, "alice@example.com");
  EXPECT_EQ(in->body, "Lunch \xC2\xB7 see you at noon");
  EXPECT_EQ(in->kind, TeskRow::Kind::text);
  EXPECT_EQ(in->src, "mail");
  EXPECT_EQ(in->ts, kNow - 5 * kDay);

  const TeskRow* out = rowWithID(r, "mail:101");
  ASSERT_TRUE(out);
  EXPECT_EQ(out->dir, TeskRow::Direction::outgoing);
  EXPECT_EQ(out->who, "alice@example.com");  // the first recipient
  EXPECT_EQ(out->body, "Re: lunch \xC2\xB7 sure");
  EXPECT_EQ(out->chatID, 7);
  EXPECT_FALSE(out->group);

  EXPECT_EQ(r.excludedGroup, 1);
  EXPECT_EQ(r.excludedFiltered, 1);
  EXPECT_EQ(r.candidates, 2);
  EXPECT_EQ(r.perMailbox, (std::map<std::string, int64_t>{{"[Gmail]/All Mail", 2}}));
  EXPECT_EQ(r.horizons.count("INBOX"), 0u);  // a label, never a mailbox with rows
  EXPECT_EQ(r.census.plain, 1);
  EXPECT_EQ(r.census.html, 1);
  EXPECT_EQ(r.bodiesOpened, 2);
  EXPECT_EQ(r.indexRows, 4);
}

TEST_F(MailHome, GroupsAndSpamWhenIncluded) {
  gmail();
  message(105, kNow - kDay, 1, 10, "Plans");  // the owner's, to three
  label(105, 2);
  recipient(105, 13, 1, 0);
  recipient(105, 12, 0, 1);
  recipient(105, 11, 0, 2);
  filter_.includeGroups = true;
  filter_.includeFiltered = true;
  const auto r = read();
  ASSERT_EQ(r.rows.size(), 5u);
  EXPECT_TRUE(rowWithID(r, "mail:102")->group);
  // Its counterpart is the first recipient by position, then type.
  EXPECT_EQ(rowWithID(r, "mail:105")->who, "bob@example.com");
  EXPECT_TRUE(rowWithID(r, "mail:103")->filtered);
  EXPECT_EQ(r.excludedGroup, 0);
  EXPECT_EQ(r.excludedFiltered, 0);
  EXPECT_EQ(r.perMailbox.at("[Gmail]/Spam"), 1);
}

TEST_F(MailHome, SelectorsDirectionWhoAndAccentedQuery) {
  gmail();
  message(104, kNow - 1 * kDay, 1, 12, "RESUME attached");
  recipient(104, 10, 0);
  struct Case {
    std::string name;
    std::optional<TeskRow::Direction> direction;
    std::optional<std::string> who, query;
    std::vector<std::string> ids;
  } cases[] = {
      {"outgoing only", TeskRow::Direction::outgoing, {}, {}, {"mail:101"}},
      {"incoming only", TeskRow::Direction::incoming, {}, {}, {"mail:100", "mail:104"}},
      {"who by fragment", {}, "ALICE@", {}, {"mail:100", "mail:101"}},
      {"who by canonical form", {}, " Bob@Example.com ", {}, {"mail:104"}},
      {"empty who is everyone", {}, "", {}, {"mail:100", "mail:101", "mail:104"}},
      {"accented lower-case query", {}, {}, "r\xC3\xA9sum\xC3\xA9", {"mail:104"}},
      {"query over the subject", {}, {}, "lunch", {"mail:100", "mail:101"}},
  };
  db_.reset();
  for (const auto& c : cases) {
    filter_ = {};
    filter_.includeGroups = false;
    filter_.direction = c.direction;
    filter_.who = c.who;
    filter_.query = c.query;
    const auto r = TeskMail::read(filter_, kNow, 8000, home_.string());
    std::vector<std::string> ids;
    for (const auto& row : r.rows) ids.push_back(row.id);
    EXPECT_EQ(ids, c.ids) << c.name;
    EXPECT_EQ(r.budgetWaived, c.query.has_value()) << c.name;
  }
}

// --unread keeps received mail not yet read, whichever column the index keeps the
// state in; an index that keeps none filters nothing and says so.
TEST_F(MailHome, UnreadFollowsTheIndexReadState) {
  gmail();
  message(104, kNow - 1 * kDay, 1, 12, "New");
  recipient(104, 10, 0);
  exec("UPDATE messages SET read = (ROWID = 100), flags = (ROWID = 100) | 1024");  // 100 is read
  struct Case {
    std::string name, schema;
    std::vector<std::string> ids;
    bool noted;
  } cases[] = {
      {"read column", "", {"mail:104"}, false},
      {"flags only: bit 0 is read", "ALTER TABLE messages DROP COLUMN read", {"mail:104"}, false},
      {"no read state at all",
       "ALTER TABLE messages DROP COLUMN flags",
       {"mail:100", "mail:101", "mail:104"},
       true},
  };
  filter_.unreadOnly = true;
  for (const auto& c : cases) {
    if (!c.schema.empty()) {
      db_ = tesk_test::openDB(version_ / "MailData/Envelope Index");
      exec(c.schema);
    }
    const auto r = read();
    std::vector<std::string> ids;
    for (const auto& row : r.rows) ids.push_back(row.id);
    EXPECT_EQ(ids, c.ids) << c.name;
    // A row's unread mark is the index's word, never assumed.
    EXPECT_EQ(rowWithID(r, "mail:104")->unread, !c.noted) << c.name;
    const auto notes = TeskMail::notes(r);
    EXPECT_EQ(std::count(notes.begin(), notes.end(),
                         "--unread: this mail index keeps no read state; mail rows are not "
                         "filtered"),
              c.noted ? 1 : 0)
        << c.name;
  }
}

// A name's card handles find the mail of every one of them; with `whoGroups` (thread)
// so does mail where the person is any recipient, not the first.
TEST_F(MailHome, ACardsEmailFindsItsMailAndItsGroupMail) {
  gmail();
  filter_.includeGroups = true;
  filter_.who = "Bob Builder";  // a name: matches no address by itself
  filter_.whoHandles = {"+4155550123", "bob@example.com"};
  db_.reset();
  auto ids = [this] {
    std::vector<std::string> out;
    for (const auto& row : TeskMail::read(filter_, kNow, 8000, home_.string()).rows) {
      out.push_back(row.id);
    }
    return out;
  };
  EXPECT_TRUE(ids().empty());  // bob is only ever the second recipient here
  filter_.whoHandles = {"alice@example.com"};
  EXPECT_EQ(ids(), (std::vector<std::string>{"mail:100", "mail:101", "mail:102"}));
  filter_.whoHandles = {"+4155550123", "bob@example.com"};
  filter_.whoGroups = true;
  EXPECT_EQ(ids(), std::vector<std::string>{"mail:102"});  // the group mail bob was copied on
}

TEST_F(MailHome, GrepSeesTheBody) {
  gmail();
  body("[Gmail]/All Mail", 100, emlxFile("meet at the Blue Door"));
  filter_.grep = TeskRegex::compile("blue\\s+door");
  ASSERT_TRUE(filter_.grep);
  const auto r = read(0);  // the budget is waived by the pattern
  ASSERT_EQ(r.rows.size(), 1u);
  EXPECT_EQ(r.rows[0].id, "mail:100");
  EXPECT_TRUE(r.budgetWaived);
  EXPECT_EQ(r.bodiesAttempted, 2);
}

TEST_F(MailHome, BodyBudgetWalksNewestFirst) {
  mailbox(1, kInbox);
  address(11, "alice@example.com");
  for (int i = 0; i < 3; ++i) {
    message(200 + i, kNow - (3 - i) * kDay, 1, 11, "m" + std::to_string(i));
    body("INBOX", 200 + i, emlxFile("body " + std::to_string(i)));
  }
  const auto r = read(1);
  ASSERT_EQ(r.rows.size(), 3u);
  EXPECT_EQ(r.rows[0].body, "m0");  // oldest: not opened
  EXPECT_EQ(r.rows[0].kind, TeskRow::Kind::empty);
  EXPECT_EQ(r.rows[2].body, "m2 \xC2\xB7 body 2");
  EXPECT_EQ(r.bodiesAttempted, 1);
  EXPECT_EQ(r.bodiesSkipped, 2);
  EXPECT_EQ(r.census.notOpened, 2);
  EXPECT_EQ(r.census.plain, 1);
  EXPECT_FALSE(r.budgetWaived);
  // Buckets and the census read no body: none is opened, every row is still there.
  filter_.bodies = false;
  const auto bare = read(8000);
  ASSERT_EQ(bare.rows.size(), 3u);
  EXPECT_EQ(bare.rows[2].body, "m2");
  EXPECT_EQ(bare.census.attempted(), 0);
  // A text selector still reads them.
  filter_.query = "body 0";
  const auto found = read(8000);
  ASSERT_EQ(found.rows.size(), 1u);
  EXPECT_EQ(found.rows[0].id, "mail:200");
}

// The messages of one instant leave in id order, whatever order the store keeps them
// in, and the body budget walks them as the answer does, newest first: highest id first.
TEST_F(MailHome, OneInstantIsInIdOrderAndTheBudgetTakesItsHighestIDs) {
  mailbox(1, kInbox);
  address(11, "alice@example.com");
  for (int64_t id : {20, 3, 100, 7}) message(id, kNow - kDay, 1, 11, "tie");
  message(1, kNow - kDay + 60, 1, 11, "after");
  message(500, kNow - kDay - 60, 1, 11, "before");
  for (int64_t id : {1, 3, 7, 20, 100, 500}) body("INBOX", id, emlxFile("b"));
  for (const char* index : {"", "CREATE INDEX date_index ON messages(date_received)"}) {
    if (*index) {
      db_ = tesk_test::openDB(version_ / "MailData/Envelope Index");
      exec(index);
    }
    const auto r = read(3);
    std::vector<std::string> ids, opened;
    for (const auto& row : r.rows) {
      ids.push_back(row.id);
      if (row.kind == TeskRow::Kind::text) opened.push_back(row.id);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"mail:500", "mail:3", "mail:7", "mail:20", "mail:100",
                                             "mail:1"}))
        << index;
    EXPECT_EQ(opened, (std::vector<std::string>{"mail:20", "mail:100", "mail:1"})) << index;
  }
}

TEST_F(MailHome, BodyTiersAreCountedNeverEmpty) {
  mailbox(1, kInbox);
  address(11, "alice@example.com");
  message(300, kNow - 4 * kDay, 1, 11, "");             // no file
  message(301, kNow - 3 * kDay, 1, 11, "hostile");      // garbage file
  message(302, kNow - 2 * kDay, 1, 11, "image");        // no text part
  message(303, kNow - 1 * kDay, 1, 11, "bad charset");  // undecodable
  message(304, kNow - 0.5 * kDay, 99, 11, "nowhere");   // unknown mailbox
  body("INBOX", 301, std::string("\x00\xFF\x01 no count line within 32 bytes of the start", 46));
  body("INBOX", 302, emlxFile("xx", "image/png"));
  body("INBOX", 303, emlxFile("caf\xE9", "text/plain; charset=us-ascii"));
  const auto r = read();
  ASSERT_EQ(r.rows.size(), 5u);
  EXPECT_EQ(r.rows[0].body, "(no subject)");
  for (const auto& row : r.rows) EXPECT_EQ(row.kind, TeskRow::Kind::empty) << row.id;
  EXPECT_EQ(r.census.notOnDisk, 2);
  EXPECT_EQ(r.census.malformed, 1);
  EXPECT_EQ(r.census.noTextPart, 1);
  EXPECT_EQ(r.census.undecodable, 1);
  EXPECT_EQ(r.bodiesOpened, 3);
  EXPECT_EQ(r.perMailbox.at("(unknown mailbox)"), 1);
  EXPECT_EQ(r.horizons.count("(unknown mailbox)"), 1u);

  const auto lines = TeskMail::notes(r);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "mail decode 0.00000 (0 of 2 decodable; 5 demanded, 3 files opened) \xC2\xB7 1 had "
            "no text part \xC2\xB7 2 never reached this disk \xC2\xB7 1 undecodable, counted not "
            "guessed");
  EXPECT_EQ(lines[1], "MAIL DECODE BELOW GATE \xE2\x80\x94 treat every mail count as a floor");
}

TEST_F(MailHome, SentThroughLabelsOrTheMessagesOwnMailbox) {
  mailbox(2, kSentMail);
  mailbox(6, "imap://" + kAccount + "/Sent%20Messages");
  address(10, "owner@gmail.com");
  address(12, "bob@example.com");
  message(400, kNow - kDay, 77, 10, "out");  // mailbox 77 is unknown: the label decides
  recipient(400, 12, 0);
  label(400, 2);
  message(401, kNow - kDay / 2, 77, 12, "in");
  message(402, kNow - kDay / 4, 6, 10, "draft to nobody");  // no recipient: the sender
  const auto r = read();
  ASSERT_EQ(r.rows.size(), 3u);
  EXPECT_EQ(r.rows[0].dir, TeskRow::Direction::outgoing);
  EXPECT_EQ(r.rows[0].who, "bob@example.com");
  EXPECT_EQ(r.rows[1].dir, TeskRow::Direction::incoming);
  EXPECT_EQ(r.rows[1].who, "bob@example.com");
  EXPECT_EQ(r.rows[2].dir, TeskRow::Direction::outgoing);
  EXPECT_EQ(r.rows[2].who, "owner@gmail.com");
  EXPECT_EQ(r.perMailbox.at("(unknown mailbox)"), 2);
  EXPECT_EQ(r.perMailbox.at("Sent Messages"), 1);
}

// Dates before 1970, past 2200 or not numbers at all are no instants: they would
// collapse or stretch the horizons, so they are left out and counted.
TEST_F(MailHome, DatesThatAreNoInstantLeaveTheHorizonsToTheStore) {
  mailbox(1, kInbox);
  mailbox(5, "imap://" + kAccount + "/Archive");
  address(11, "alice@example.com");
  message(601, kNow - 100 * kDay, 5, 11, "old");
  message(602, -86400, 5, 11, "dated before 1970");
  message(603, kNow - 40 * kDay, 1, 11, "inbox, before the window");
  message(604, -1, 1, 11, "a sentinel");
  message(605, kNow - 10 * kDay, 1, 11, "recent");
  message(606, 253402300799.0, 1, 11, "year 9999");
  message(607, 0, 5, 11, "garbled");
  exec("UPDATE messages SET date_received = 'soon' WHERE ROWID = 607");
  message(608, kNow - 50 * kDay, 9, 11, "a mailbox the index does not name");
  message(609, -5, 9, 11, "a sentinel there");
  filter_.since = kNow - 30 * kDay;
  // Grouped in one pass, or mailbox by mailbox down an index on (mailbox, date).
  for (const char* index :
       {"", "CREATE INDEX messages_mailbox_index ON messages(mailbox, date_received)"}) {
    if (*index) {
      db_ = tesk_test::openDB(version_ / "MailData/Envelope Index");
      exec(index);
    }
    const auto r = read();
    ASSERT_EQ(r.rows.size(), 1u) << index;
    EXPECT_EQ(r.noInstant, 5) << index;
    ASSERT_TRUE(r.horizon) << index;
    EXPECT_EQ(r.horizon->from, kNow - 100 * kDay) << index;
    EXPECT_EQ(r.horizon->to, kNow - 10 * kDay) << index;
    EXPECT_EQ(r.horizons, (std::map<std::string, TeskSpan>{
                              {"Archive", {kNow - 100 * kDay, kNow - 100 * kDay}},
                              {"INBOX", {kNow - 40 * kDay, kNow - 10 * kDay}},
                              {"(unknown mailbox)", {kNow - 50 * kDay, kNow - 50 * kDay}}}))
        << index;
  }
}

TEST_F(MailHome, WindowHorizonsAndUndatedRows) {
  mailbox(1, kInbox);
  mailbox(5, "imap://" + kAccount + "/Archive");
  address(11, "alice@example.com");
  message(500, 0, 1, 11, "undated");
  message(501, kNow - 100 * kDay, 5, 11, "old");
  message(502, kNow - 10 * kDay, 1, 11, "recent");
  message(503, kNow + 365 * kDay, 1, 11, "from the future");
  filter_.since = kNow - 30 * kDay;
  const auto r = read();
  std::vector<std::string> ids;
  for (const auto& row : r.rows) ids.push_back(row.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"mail:502", "mail:503"}));
  ASSERT_TRUE(r.horizon);
  EXPECT_EQ(r.horizon->from, kNow - 100 * kDay);  // asked of the store, not the window
  EXPECT_EQ(r.horizon->to, kNow + 365 * kDay);
  EXPECT_EQ(r.horizons.at("Archive").from, kNow - 100 * kDay);
  EXPECT_EQ(r.horizons.at("INBOX").from, kNow - 10 * kDay);
  EXPECT_EQ(r.futureDated, 1);
  EXPECT_EQ(r.freshness.future, 1);
  EXPECT_EQ(r.freshness.newest, kNow - 10 * kDay);
  EXPECT_EQ(r.freshness.raw, kNow + 365 * kDay);
  EXPECT_EQ(r.freshness.sampled, 4);  // the undated row is a sample, not credible
  EXPECT_EQ(r.indexRows, 4);
  const auto lines = TeskMail::notes(r);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0],
            "mail decode 1.00000 (0 of 0 decodable; 2 demanded, 0 files opened) \xC2\xB7 "
            "2 never reached this disk");
  EXPECT_EQ(lines[1],
            "mail: 1 message(s) whose date is no instant (not a number, before 1970 or after "
            "2200) left out of rows and horizon");
  EXPECT_EQ(lines[2], "mail: 1 row(s) dated in the future excluded from freshness");

  filter_ = {};
  filter_.until = kNow - 50 * kDay;
  const auto old = read();
  ASSERT_EQ(old.rows.size(), 1u);
  EXPECT_EQ(old.rows[0].id, "mail:501");
}

TEST_F(MailHome, IndexResolutionTakesTheHighestVersion) {
  // V10 holds the index; V9 and V11 (no index) and "Vx" are passed over.
  fs::create_directories(home_ / "Library/Mail/V11/MailData");
  fs::create_directories(home_ / "Library/Mail/V9/MailData");
  std::ofstream(home_ / "Library/Mail/V9/MailData/Envelope Index") << "";
  fs::create_directories(home_ / "Library/Mail/Vx/MailData");
  EXPECT_EQ(TeskMail::indexPath(home_.string()),
            (home_ / "Library/Mail/V10/MailData/Envelope Index").string());
  EXPECT_EQ(TeskMail::indexPath((home_ / "nowhere").string()), std::nullopt);
}

TEST_F(MailHome, NoIndexIsTheOnlyDenial) {
  db_.reset();
  fs::remove_all(home_ / "Library/Mail");
  const auto r = TeskMail::read(filter_, kNow, 8000, home_.string());
  EXPECT_EQ(r.denied, std::vector<std::string>{"mail: no Apple Mail index on this Mac"});
  EXPECT_TRUE(r.rows.empty());
  EXPECT_EQ(r.census.attempted(), 0);
  EXPECT_TRUE(TeskMail::notes(r).empty());
  EXPECT_EQ(TeskMail::ledger(home_.string()), std::nullopt);
}

TEST_F(MailHome, UnopenableIndexIsDenied) {
  db_.reset();
  const fs::path index = version_ / "MailData/Envelope Index";
  fs::remove(index);
  fs::create_directories(index);  // a directory where the file should be
  const auto r = TeskMail::read(filter_, kNow, 8000, home_.string());
  ASSERT_EQ(r.denied.size(), 1u);
  EXPECT_TRUE(r.denied[0].starts_with("mail: ")) << r.denied[0];
  EXPECT_TRUE(r.rows.empty());
}

TEST_F(MailHome, EnvelopeQueryFailureIsSchemaMoved) {
  exec("DROP TABLE subjects");
  mailbox(1, kInbox);
  const auto r = read();
  ASSERT_EQ(r.denied.size(), 1u);
  EXPECT_TRUE(r.denied[0].starts_with("mail: schema moved \xE2\x80\x94 sql: ")) << r.denied[0];
  EXPECT_TRUE(r.rows.empty());
  EXPECT_EQ(r.candidates, 0);
  EXPECT_TRUE(TeskMail::notes(r).empty());
}

TEST_F(MailHome, LedgerReconcilesFilesWithTheIndex) {
  mailbox(1, kInbox);
  mailbox(2, "imap://" + kAccount + "/Archive");
  address(11, "alice@example.com");
  message(600, kNow, 1, 11, "a");
  message(601, kNow, 1, 11, "b");
  message(1602, kNow, 1, 11, "c");
  body("INBOX", 600, emlxFile("x"));
  body("INBOX", 1602, emlxFile("x"), true);
  body("INBOX", 9999, emlxFile("x"));  // not in the index
  const fs::path stray = dataDir("INBOX") / "Messages" / "notes.emlx";
  std::ofstream(stray) << "x";
  db_.reset();
  const auto ledger = TeskMail::ledger(home_.string());
  ASSERT_TRUE(ledger);
  ASSERT_EQ(ledger->entries.size(), 2u);
  const auto& archive = ledger->entries[0];
  EXPECT_EQ(archive.mailbox, "Archive");
  EXPECT_EQ(archive.indexRows, 0);
  EXPECT_EQ(archive.files, 0);
  const auto& inbox = ledger->entries[1];
  EXPECT_EQ(inbox.mailbox, "INBOX");
  EXPECT_EQ(inbox.indexRows, 3);
  EXPECT_EQ(inbox.files, 3);
  EXPECT_EQ(inbox.partial, 1);
  EXPECT_EQ(inbox.missing, std::vector<int64_t>{601});
  EXPECT_EQ(inbox.orphans, 1);
}

TEST(MailMailbox, FromURL) {
  struct Case {
    std::string url;
    std::optional<std::string> account, name, leaf;
  } cases[] = {
      {"imap://ACC/%5BGmail%5D/All%20Mail", "ACC", "[Gmail]/All Mail", "All Mail"},
      {"imap://ACC/", "ACC", "(root)", ""},
      {"imap://ACC", "ACC", "(root)", ""},
      {"ews://ACC/Inbox/Sub/", "ACC", "Inbox/Sub/", "Sub"},
      {"imap://ACC/100%", "ACC", "100%", "100%"},  // a broken escape is kept
      {"imap://ACC/%FF", "ACC", "%FF", "%FF"},     // so is one that is no UTF-8
      {"imap://ACC/Caf%C3%A9", "ACC", "Caf\xC3\xA9", "Caf\xC3\xA9"},
      {"imap://ACC///", "ACC", "//", "//"},
      {"local-mailbox", {}, {}, {}},
  };
  for (const auto& c : cases) {
    const auto box = TeskMail::mailbox(3, c.url);
    ASSERT_EQ(box.has_value(), c.account.has_value()) << c.url;
    if (!box) continue;
    EXPECT_EQ(box->id, 3);
    EXPECT_EQ(box->account, *c.account) << c.url;
    EXPECT_EQ(box->name, *c.name) << c.url;
    EXPECT_EQ(box->leaf, *c.leaf) << c.url;
  }
}

TEST(MailFreshness, OrderStatisticWithOutlierTest) {
  const double hour = 3600;
  struct Case {
    std::string name;
    std::vector<double> samples;
    double newest, runnerUp, raw;
    int64_t future;
    bool contested;
  } cases[] = {
      {"a forged date five years ahead",
       {kNow + 5 * 365 * kDay, kNow - kDay, kNow - 2 * kDay, kNow - 3 * kDay, kNow - 4 * kDay},
       kNow - kDay,
       kNow - 2 * kDay,
       kNow + 5 * 365 * kDay,
       1,
       false},
      {"newest 30 days ahead of an hourly rhythm",
       {kNow, kNow - 30 * kDay, kNow - 30 * kDay - hour, kNow - 30 * kDay - 2 * hour,
        kNow - 30 * kDay - 3 * hour},
       kNow,
       kNow - 30 * kDay,
       kNow,
       0,
       true},
      {"three credible samples are never contested",
       {kNow, kNow - 300 * kDay, kNow - 300 * kDay - 1},
       kNow,
       kNow - 300 * kDay,
       kNow,
       0,
       false},
      {"no samples", {}, 0, 0, 0, 0, false},
      {"zeros are not credible", {0, 0, kNow - kDay}, kNow - kDay, 0, kNow - kDay, 0, false},
      {"median of equal stamps is taken as one second",
       {kNow, kNow - 21, kNow - 21, kNow - 21, kNow - 21},
       kNow,
       kNow - 21,
       kNow,
       0,
       true},
      {"twenty gaps exactly is not contested",
       {kNow, kNow - 20, kNow - 21, kNow - 22, kNow - 23},
       kNow,
       kNow - 20,
       kNow,
       0,
       false},
  };
  for (const auto& c : cases) {
    const auto f = TeskMail::freshness(c.samples, kNow);
    EXPECT_EQ(f.newest, c.newest) << c.name;
    EXPECT_EQ(f.runnerUp, c.runnerUp) << c.name;
    EXPECT_EQ(f.raw, c.raw) << c.name;
    EXPECT_EQ(f.future, c.future) << c.name;
    EXPECT_EQ(f.sampled, static_cast<int64_t>(c.samples.size())) << c.name;
    EXPECT_EQ(f.contested, c.contested) << c.name;
  }
  std::vector<double> allFuture(17, kNow + kDay);
  const auto f = TeskMail::freshness(allFuture, kNow);
  EXPECT_EQ(f.newest, 0);
  EXPECT_TRUE(std::isinf(f.ageDays()));
  EXPECT_EQ(TeskMail::freshness({kNow - 2 * kDay}, kNow).ageDays(), 2.0);
}

TEST(MailNotes, DecodeLineAndGate) {
  struct Case {
    std::string name;
    TeskMail::Census census;
    std::vector<std::string> lines;
  } cases[] = {
      {"nothing sought",
       {},
       {"mail decode 1.00000 (0 of 0 decodable; 0 demanded, 0 files opened)"}},
      {"all decoded",
       {.plain = 3, .html = 1},
       {"mail decode 1.00000 (4 of 4 decodable; 4 demanded, 4 files opened)"}},
      {"one malformed of 1001 stays above the gate",
       {.plain = 1000, .malformed = 1},
       {"mail decode 0.99900 (1000 of 1001 decodable; 1001 demanded, 1001 files opened)"}},
      {"unreadable counts against the rate, not as a file",
       {.plain = 1, .unreadable = 1},
       {"mail decode 0.50000 (1 of 2 decodable; 2 demanded, 1 files opened)",
        "MAIL DECODE BELOW GATE \xE2\x80\x94 treat every mail count as a floor"}},
      {"notOpened is not demanded",
       {.plain = 1, .notOpened = 9},
       {"mail decode 1.00000 (1 of 1 decodable; 1 demanded, 1 files opened)"}},
  };
  for (const auto& c : cases) {
    TeskMail::Result r;
    r.census = c.census;
    EXPECT_EQ(TeskMail::notes(r), c.lines) << c.name;
  }
}

}  // namespace
