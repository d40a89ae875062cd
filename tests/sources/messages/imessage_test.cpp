// The iMessage producer and the decoded view over small chat.db stores built from
// the real macOS 26 and OS X 2015 schemas.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "common/TeskTestHome.h"
#include "sources/messages/TeskIMessage.h"
#include "store/TeskSQL.h"
#include "store/TeskStore.h"

namespace {

using tesk_test::Insert;

constexpr double kNow = 1790000000;  // 2026-09-21
int64_t ns(double unix) { return static_cast<int64_t>((unix - 978307200) * 1e9); }

// Handles, chats and messages that exercise every exclusion and join trap.
struct ChatDB {
  tesk_test::TempHome home;
  std::string path = home.file("Library/Messages/chat.db");

  explicit ChatDB(const std::string& schema = "chatdb.sql") {
    auto db = tesk_test::createStore(path, schema);
    tesk_test::exec(db.get(),
                    "INSERT INTO handle(ROWID,id,service) VALUES (1,'+14155550123','iMessage'),"
                    "(2,'bob@example.com','iMessage'),(3,'+442079460018','iMessage'),"
                    "(4,'4155550123','SMS');"
                    "INSERT INTO chat(ROWID,guid,style,chat_identifier,is_filtered) VALUES "
                    "(1,'c1',45,'+14155550123',0),(2,'c2',43,'chat777',0),"
                    "(3,'c3',45,'+19995550000',1);");
    if (schema == "chatdb.sql") {
      Insert m(db.get(),
               "INSERT INTO message(ROWID,guid,text,attributedBody,handle_id,date,is_from_me,"
               "associated_message_type,item_type,is_read,is_finished,is_system_message,"
               "date_edited) VALUES (?,?,?,?,?,?,?,?,0,?,1,0,?)");
      auto add = [&](int64_t id, std::optional<std::string> text, std::optional<std::string> blob,
                     int64_t handle, std::optional<int64_t> date, int fromMe, int amt, int read,
                     int64_t edited = 0) {
        m.i(id).t("g" + std::to_string(id));
        text ? m.t(*text) : m.null();
        blob ? m.b(tesk_test::attributedBody(*blob)) : m.null();
        m.i(handle);
        date ? m.i(*date) : m.null();
        m.i(fromMe).i(amt).i(read).i(edited).run();
      };
      add(1, std::nullopt, "dinner at eight?", 1, ns(kNow - 86400), 0, 0, 1);
      add(2, "stale text column", "Résumé sent", 0, ns(kNow - 80000), 1, 0, 1);
      add(3, std::nullopt, "Loved “dinner at eight?”", 1, ns(kNow - 79000), 0, 2000, 1);
      add(4, std::nullopt, "group hello", 3, ns(kNow - 70000), 0, 0, 1);
      add(5, std::nullopt, "win a prize", 0, ns(kNow - 60000), 0, 0, 1);
      add(6, std::nullopt, "orphan note", 2, ns(kNow - 50000), 0, 0, 1);
      add(7, std::nullopt, "in two chats", 1, ns(kNow - 40000), 0, 0, 1);
      add(8, std::nullopt, "undated", 1, std::nullopt, 0, 0, 1);
      add(9, std::nullopt, "legacy seconds", 4, static_cast<int64_t>(kNow - 30000 - 978307200), 0,
          0, 1);
      add(10, std::nullopt, "\xEF\xBF\xBC", 1, ns(kNow - 20000), 0, 0, 1);
      add(11, std::nullopt, "are you there", 1, ns(kNow - 10000), 0, 0, 0);
      add(12, std::nullopt, "Liked group hello", 3, ns(kNow - 9000), 0, 2001, 1);
      add(13, "plain old text", std::nullopt, 1, ns(kNow - 8000), 0, 0, 1);
      add(14, std::nullopt, "fixed typo", 1, ns(kNow - 7000), 1, 0, 1, ns(kNow - 6000));
      tesk_test::exec(
          db.get(),
          "INSERT INTO chat_message_join(chat_id,message_id) VALUES (1,1),(1,2),(1,3),(2,4),"
          "(3,5),(1,7),(2,7),(1,8),(1,9),(1,10),(1,11),(2,12),(1,13),(1,14);"
          "INSERT INTO attachment(ROWID,guid,original_guid,filename,transfer_name,mime_type,"
          "total_bytes,hide_attachment) VALUES (1,'a1','o1','~/Library/Messages/Attachments/x.jpg',"
          "'x.jpg','image/jpeg',1234,0),(2,'a2','o2','/p/preview.png','preview.png','image/png',"
          "9,1);"
          "INSERT INTO message_attachment_join(message_id,attachment_id) VALUES (10,1),(10,2);");
    }
  }
};

TeskIMessage::Filter everything() {
  TeskIMessage::Filter f;
  f.includeFiltered = true;
  f.includeTapbacks = true;
  return f;
}

std::vector<std::string> ids(const TeskIMessage::Result& r) {
  std::vector<std::string> out;
  for (const TeskRow& row : r.rows) out.push_back(row.id);
  return out;
}

const TeskRow* row(const TeskIMessage::Result& r, const std::string& id) {
  for (const TeskRow& x : r.rows) {
    if (x.id == id) return &x;
  }
  return nullptr;
}

TEST(IMessageRead, DefaultExclusionsAreCountedAndJoinTrapsAvoided) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskIMessage::Result r = TeskIMessage::read(store, TeskIMessage::Filter{}, fx.home.path());
  // Tapbacks 3 and 12 and filtered 5 are gone; 7 (two chats) appears once. In answer
  // order: the undated 8 first, the whole-second 9 by its ts, not by m.date.
  EXPECT_EQ(ids(r), (std::vector<std::string>{"im:8", "im:1", "im:2", "im:4", "im:6", "im:7",
                                              "im:9", "im:10", "im:11", "im:13", "im:14"}));
  EXPECT_EQ(r.excludedTapback, 2);  // the group tapback counts once, as a tapback
  EXPECT_EQ(r.excludedFiltered, 1);
  EXPECT_EQ(r.excludedGroup, 0);  // groups are kept by default
  EXPECT_EQ(r.orphans, 1);
  EXPECT_EQ(r.undated, 1);
  EXPECT_EQ(r.hiddenAttachments, 1);
  EXPECT_TRUE(r.unreadSupported);
  EXPECT_TRUE(r.attachmentsSupported);
  EXPECT_EQ(row(r, "im:7")->chatID, 1);
  EXPECT_EQ(row(r, "im:6")->chatID, 0);
  ASSERT_TRUE(r.horizon);
  EXPECT_DOUBLE_EQ(r.horizon->to, kNow - 7000);
}

// A message date that is no instant (INT64_MAX, a corrupt text or blob, before 1970)
// sits at an end of the date index; it must not move or erase the horizon, in a
// read or in the counts alone, and it is counted.
TEST(IMessageRead, DateThatIsNoInstantMovesNoHorizon) {
  for (std::string date : {std::string("9223372036854775807"), std::string("'yesterday'"),
                           std::string("x'00ff'"), std::to_string(ns(-400 * 86400.0))}) {
    SCOPED_TRACE(date);
    ChatDB fx;
    tesk_test::makeDB(fx.path,
                      "INSERT INTO message(ROWID,guid,handle_id,date,is_from_me) VALUES "
                      "(99,'g99',1," +
                          date +
                          ",0); INSERT INTO chat_message_join(chat_id,message_id) VALUES (1,99);");
    TeskStore store(fx.path);
    TeskIMessage::Filter window;
    window.since = kNow - 100000;
    window.until = kNow;
    for (const TeskIMessage::Result& r :
         {TeskIMessage::read(store, window, fx.home.path()),
          TeskIMessage::read(store, TeskIMessage::Filter{}, fx.home.path()),
          TeskIMessage::stats(store, window)}) {
      ASSERT_TRUE(r.horizon);
      EXPECT_DOUBLE_EQ(r.horizon->from, kNow - 86400);
      EXPECT_DOUBLE_EQ(r.horizon->to, kNow - 7000);
      EXPECT_EQ(r.noInstant, 1);
    }
  }
  // A clean store measures its ends from the index alone and counts nothing.
  ChatDB clean;
  TeskStore store(clean.path);
  EXPECT_EQ(TeskIMessage::stats(store, TeskIMessage::Filter{}).noInstant, 0);
}

TEST(IMessageRead, RowsCarryDecodedBodiesKindsAndCounterparts) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskIMessage::Result r = TeskIMessage::read(store, TeskIMessage::Filter{}, fx.home.path());
  const TeskRow* sent = row(r, "im:2");
  ASSERT_NE(sent, nullptr);
  EXPECT_EQ(sent->body, "Résumé sent");  // the blob wins over a stale text column
  EXPECT_EQ(sent->dir, TeskRow::Direction::outgoing);
  EXPECT_EQ(sent->who, "+14155550123");  // handle 0 falls back to the chat identifier
  EXPECT_EQ(sent->teskID, "+4155550123");
  EXPECT_EQ(row(r, "im:4")->who, "+442079460018");
  EXPECT_TRUE(row(r, "im:4")->group);
  EXPECT_EQ(row(r, "im:13")->body, "plain old text");
  EXPECT_EQ(row(r, "im:14")->kind, TeskRow::Kind::edited);
  EXPECT_TRUE(row(r, "im:11")->unread);
  EXPECT_DOUBLE_EQ(row(r, "im:9")->ts, kNow - 30000);  // whole seconds are not 1970
  EXPECT_DOUBLE_EQ(row(r, "im:8")->ts, 0);
  const TeskRow* att = row(r, "im:10");
  EXPECT_EQ(att->kind, TeskRow::Kind::attachment);
  EXPECT_EQ(att->body, "");
  ASSERT_EQ(att->attachments.size(), 1u);  // the hidden preview never reaches a row
  EXPECT_EQ(att->attachments[0].path, fx.home.path() + "/Library/Messages/Attachments/x.jpg");
  EXPECT_EQ(att->attachments[0].bytes, 1234);
  EXPECT_EQ(r.census.plainText, 1);
  EXPECT_EQ(r.census.undecodable, 0);
}

struct FilterCase {
  const char* name;
  std::function<void(TeskIMessage::Filter&)> set;
  std::vector<std::string> ids;
  int64_t excludedGroup = 0;
};

class IMessageFilters : public ::testing::TestWithParam<FilterCase> {};

TEST_P(IMessageFilters, KeepExactlyTheMatchingRows) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskIMessage::Filter f;
  GetParam().set(f);
  TeskIMessage::Result r = TeskIMessage::read(store, f, fx.home.path());
  EXPECT_EQ(ids(r), GetParam().ids);
  EXPECT_EQ(r.excludedGroup, GetParam().excludedGroup);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, IMessageFilters,
    ::testing::Values(
        FilterCase{"since_drops_undated",
                   [](auto& f) { f.since = kNow - 45000; },
                   {"im:7", "im:9", "im:10", "im:11", "im:13", "im:14"}},
        FilterCase{"until_keeps_whole_second_rows_by_their_ts",
                   [](auto& f) { f.until = kNow - 35000; },
                   {"im:8", "im:1", "im:2", "im:4", "im:6", "im:7"}},
        FilterCase{"unread_only", [](auto& f) { f.unreadOnly = true; }, {"im:11"}},
        FilterCase{"outgoing",
                   [](auto& f) { f.direction = TeskRow::Direction::outgoing; },
                   {"im:2", "im:14"}},
        FilterCase{"who_matches_every_spelling_of_a_number",
                   [](auto& f) { f.who = "(415) 555-0123"; },
                   {"im:8", "im:1", "im:2", "im:7", "im:9", "im:10", "im:11", "im:13", "im:14"}},
        FilterCase{"who_email_fragment", [](auto& f) { f.who = "BOB@"; }, {"im:6"}},
        FilterCase{"empty_who_applies_no_condition",
                   [](auto& f) { f.who = ""; },
                   {"im:8", "im:1", "im:2", "im:4", "im:6", "im:7", "im:9", "im:10", "im:11",
                    "im:13", "im:14"}},
        FilterCase{"query_ignores_case_and_accents", [](auto& f) { f.query = "RESUME"; }, {"im:2"}},
        FilterCase{"grep_is_case_insensitive",
                   [](auto& f) { f.grep = TeskRegex::compile("^DIN+er"); },
                   {"im:1"}},
        FilterCase{
            "no_groups_counts_them",
            [](auto& f) { f.includeGroups = false; },
            {"im:8", "im:1", "im:2", "im:6", "im:7", "im:9", "im:10", "im:11", "im:13", "im:14"},
            1}),
    [](const auto& info) { return std::string(info.param.name); });

// Nanosecond dates a nanosecond apart make one ts: the rows of that instant leave in
// id order (shorter first), whatever order the date index walks them in.
TEST(IMessageRead, OneInstantOfSeveralDatesIsInIdOrder) {
  ChatDB fx;
  const int64_t d = ns(kNow - 3000);
  {
    auto db = tesk_test::openDB(fx.path);
    std::string sql = "INSERT INTO message(ROWID,guid,text,handle_id,date,is_from_me) VALUES ";
    for (auto [id, date] : {std::pair{20, d + 1}, {21, d}, {100, d + 2}, {30, d + 1}}) {
      sql += (id == 20 ? "(" : ",(") + std::to_string(id) + ",'g" + std::to_string(id) +
             "','same second',1," + std::to_string(date) + ",0)";
    }
    tesk_test::exec(db.get(), sql + ";");
  }
  TeskStore store(fx.path);
  TeskIMessage::Filter f;
  f.since = kNow - 3500;
  EXPECT_EQ(ids(TeskIMessage::read(store, f, fx.home.path())),
            (std::vector<std::string>{"im:20", "im:21", "im:30", "im:100"}));
}

// A name resolved to a card's handles: every handle of the card, and with `whoGroups`
// the group threads the card belongs to, the owner's own messages there included.
TEST(IMessageRead, ANameFindsEveryHandleOfItsCardAndItsGroupThreads) {
  ChatDB fx;
  tesk_test::makeDB(fx.path,
                    "INSERT INTO chat_handle_join(chat_id,handle_id) VALUES (2,2),(2,3);"
                    "INSERT INTO message(ROWID,guid,text,handle_id,date,is_from_me,"
                    "associated_message_type) VALUES (15,'g15','see you all',0," +
                        std::to_string(ns(kNow - 5000)) +
                        ",1,0);"
                        "INSERT INTO chat_message_join(chat_id,message_id) VALUES (2,15);");
  TeskStore store(fx.path);
  TeskIMessage::Filter f;
  f.who = "Bob Archer";  // matches no handle by itself
  f.whoHandles = {"+4155550123", "bob@example.com"};
  const std::vector<std::string> card{"im:8", "im:1",  "im:2",  "im:6",  "im:7",
                                      "im:9", "im:10", "im:11", "im:13", "im:14"};
  EXPECT_EQ(ids(TeskIMessage::read(store, f, fx.home.path())), card);

  f.whoGroups = true;
  TeskIMessage::Result r = TeskIMessage::read(store, f, fx.home.path());
  std::vector<std::string> withGroups = card;
  withGroups.insert(withGroups.begin() + 3, "im:4");
  withGroups.push_back("im:15");
  EXPECT_EQ(ids(r), withGroups);
  ASSERT_NE(row(r, "im:15"), nullptr);
  EXPECT_TRUE(row(r, "im:15")->group);
  EXPECT_EQ(row(r, "im:15")->who, "");  // the owner's own message in the group
  EXPECT_TRUE(row(r, "im:4")->group);

  f.includeGroups = false;
  r = TeskIMessage::read(store, f, fx.home.path());
  EXPECT_EQ(ids(r), card);
  EXPECT_EQ(r.excludedGroup, 2);
  EXPECT_EQ(TeskIMessage::stats(store, f).excludedGroup, 2);
}

TEST(IMessageRead, ChatLookupThroughTheMessageIndexGivesTheSameRows) {
  ChatDB fx;
  // Message 9's only chat row is gone: it keeps the chat id and is no orphan. 15 lies
  // in a filtered chat and, joined later, a smaller plain one; 16 in a group beside a
  // join row without a chat; 17 in two chats whose rows are both gone. Keys SQL never
  // matches to a ROWID: 18's handle is a real with a fraction, 19's a text, 20's chat
  // id a text and 21's a real with a fraction (which still reads as chat id 1).
  std::string sql = "UPDATE chat_message_join SET chat_id = 99 WHERE message_id = 9;";
  for (const auto& [id, handle] : std::vector<std::pair<int, std::string>>{
           {15, "0"}, {16, "3"}, {17, "2"}, {18, "1.5"}, {19, "'abc'"}, {20, "1"}, {21, "1"}}) {
    sql += "INSERT INTO message(ROWID,guid,text,handle_id,date) VALUES (" + std::to_string(id) +
           ",'g" + std::to_string(id) + "','x'," + handle + "," +
           std::to_string(ns(kNow - 5000 + id)) + ");";
  }
  tesk_test::makeDB(fx.path, sql +
                                 "INSERT INTO chat_message_join(chat_id,message_id) VALUES "
                                 "(3,15),(1,15),(NULL,16),(2,16),(98,17),(97,17),(1,18),(1,19),"
                                 "('x',20),(1.5,21);");
  // Everything a row takes from its chat, for every row whatever the selectors: once
  // from the stream and once from the view behind `sql`, which joins in SQL.
  auto chats = [&fx](const TeskIMessage::Filter& f) {
    TeskStore store(fx.path);
    TeskIMessage::Result r = TeskIMessage::read(store, f, fx.home.path());
    std::vector<std::string> streamed, viewed;
    for (const TeskRow& x : r.rows) {
      streamed.push_back(x.id + " " + std::to_string(x.chatID) + " " + x.who + " " +
                         std::to_string(x.group) + std::to_string(x.filtered));
    }
    TeskSQL sql(store, f);
    for (const auto& v :
         sql.run("SELECT id, CAST(chat_id AS INTEGER), who, grp, filtered FROM tesk_message "
                 "ORDER BY ts")
             .rows) {
      viewed.push_back(v[0] + " " + v[1] + " " + v[2] + " " + v[3] + v[4]);
    }
    EXPECT_EQ(streamed, viewed);
    streamed.push_back("orphans " + std::to_string(r.orphans) + " filtered " +
                       std::to_string(r.excludedFiltered));
    TeskIMessage::Result counted = TeskIMessage::stats(store, f);
    EXPECT_EQ(counted.orphans, r.orphans);
    EXPECT_EQ(counted.excludedFiltered, r.excludedFiltered);
    return std::make_pair(streamed, TeskIMessage::probe(store).chatJoinIndex);
  };
  // A bounded read looks each message's chat up by the index; an unbounded one (and
  // any read without the index) reads the join table once.
  TeskIMessage::Filter bounded = everything();
  bounded.since = kNow - 400 * 86400.0;
  const auto before = chats(everything());
  const auto beforeDefault = chats(TeskIMessage::Filter{});
  EXPECT_FALSE(before.second);
  tesk_test::makeDB(fx.path, "CREATE INDEX cmj_mid ON chat_message_join(message_id)");
  const auto after = chats(everything());
  EXPECT_TRUE(after.second);
  EXPECT_EQ(after.first, before.first);
  EXPECT_EQ(chats(TeskIMessage::Filter{}).first, beforeDefault.first);
  std::vector<std::string> dated = before.first;
  dated.erase(dated.begin());  // the undated message 8 is outside any window
  EXPECT_EQ(chats(bounded).first, dated);
  const std::vector<std::string> expected = {
      "im:7 1 +14155550123 00",  "im:6 0 bob@example.com 00", "im:9 99 4155550123 00",
      "im:15 1 +14155550123 00", "im:16 2 +442079460018 10",  "im:17 97 bob@example.com 00",
      "im:18 1 +14155550123 00", "im:19 1 +14155550123 00",   "im:20 0 +14155550123 00",
      "im:21 1 +14155550123 00"};
  for (const std::string& e : expected) {
    EXPECT_NE(std::find(after.first.begin(), after.first.end(), e), after.first.end()) << e;
  }
}

// A message without a body is an attachment exactly when it has a visible file, even
// when the attachment table lacks the columns that list the files.
TEST(IMessageRead, BodylessMessagesWithVisibleFilesAreAttachments) {
  ChatDB fx;
  tesk_test::makeDB(fx.path,
                    "INSERT INTO message(ROWID,guid,handle_id,date,is_from_me,item_type,"
                    "is_finished) VALUES (15,'g15',1," +
                        std::to_string(ns(kNow - 5000)) + ",0,0,1),(16,'g16',1," +
                        std::to_string(ns(kNow - 4000)) +
                        ",0,0,1);"
                        "INSERT INTO chat_message_join(chat_id,message_id) VALUES (1,15),(1,16);"
                        "INSERT INTO message_attachment_join(message_id,attachment_id) VALUES "
                        "(15,1),(16,2);");
  // Read over every message (files listed once) and over a window (asked per message).
  TeskIMessage::Filter window = everything();
  window.since = kNow - 86400 * 400.0;
  auto kinds = [&fx](const TeskIMessage::Filter& f) {
    TeskStore store(fx.path);
    TeskIMessage::Result r = TeskIMessage::read(store, f, fx.home.path());
    return std::make_tuple(row(r, "im:15")->kind, row(r, "im:16")->kind,
                           row(r, "im:10")->attachments.size(), row(r, "im:1")->attachments.size());
  };
  const auto withColumns = kinds(everything());
  EXPECT_EQ(std::get<0>(withColumns), TeskRow::Kind::attachment);
  EXPECT_EQ(std::get<1>(withColumns), TeskRow::Kind::empty);  // its only file is hidden
  EXPECT_EQ(std::get<2>(withColumns), 1u);
  EXPECT_EQ(std::get<3>(withColumns), 0u);
  EXPECT_EQ(kinds(window), withColumns);
  tesk_test::makeDB(fx.path, "ALTER TABLE attachment DROP COLUMN mime_type");
  const auto withoutColumns =
      std::make_tuple(std::get<0>(withColumns), std::get<1>(withColumns), size_t{0}, size_t{0});
  EXPECT_EQ(kinds(everything()), withoutColumns);
  EXPECT_EQ(kinds(window), withoutColumns);
}

// Every body the census counted, whatever its tier.
int64_t counted(const TeskDecode::Census& c) {
  return c.plainText + c.legacyAttributed + c.legacyString + c.keyedAttributed + c.undecodable +
         c.absent;
}

// The census counts exactly the bodies of the rows the answer is about: what the read
// drops (tapbacks, groups, filtered chats) is neither decoded nor counted, and a read
// whose caller renders no body decodes nothing unless a text query needs it.
TEST(IMessageRead, CensusCountsExactlyTheRowsTheAnswerIsAbout) {
  struct Case {
    const char* name;
    std::function<void(TeskIMessage::Filter&)> set;
    size_t rows;
    int64_t counted;
    int64_t undecodable;
  };
  const std::vector<Case> cases{
      {"default: an unreadable excluded tapback is not counted", [](auto&) {}, 11, 11, 0},
      {"reactions included: the tapbacks are counted", [](auto& f) { f.includeTapbacks = true; },
       14, 14, 1},
      {"groups out: their rows are not decoded", [](auto& f) { f.includeGroups = false; }, 10, 10,
       0},
      {"no body read: nothing decoded", [](auto& f) { f.bodies = false; }, 11, 0, 0},
      {"no body read but a text query: its candidates decoded",
       [](auto& f) {
         f.bodies = false;
         f.query = "dinner";
       },
       1, 11, 0},
  };
  for (const Case& c : cases) {
    ChatDB fx;
    tesk_test::makeDB(fx.path,
                      "INSERT INTO message(ROWID,guid,attributedBody,handle_id,date,"
                      "associated_message_type) VALUES (15,'g15',x'0102030405',1," +
                          std::to_string(ns(kNow - 5000)) +
                          ",2003);"
                          "INSERT INTO chat_message_join(chat_id,message_id) VALUES (1,15);");
    TeskStore store(fx.path);
    TeskIMessage::Filter f;
    c.set(f);
    TeskIMessage::Result r = TeskIMessage::read(store, f, fx.home.path());
    EXPECT_EQ(r.rows.size(), c.rows) << c.name;
    EXPECT_EQ(counted(r.census), c.counted) << c.name;
    EXPECT_EQ(r.census.undecodable, c.undecodable) << c.name;
    EXPECT_EQ(r.excludedTapback, f.includeTapbacks ? 0 : 3) << c.name;
  }
}

// SQLite evaluates tesk_body and tesk_kind again after a sort, for a GROUP BY or in a
// self-join; each message is still counted once per store.
TEST(IMessageSQL, ReEvaluationCountsEachMessageOnce) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskSQL sql(store, TeskIMessage::Filter{});
  for (const char* statement :
       {"SELECT kind, count(*), count(body) FROM tesk_message GROUP BY kind",
        "SELECT body FROM tesk_message ORDER BY body",
        "SELECT kind, count(*), count(body) FROM tesk_message GROUP BY kind"}) {
    sql.run(statement);
    EXPECT_EQ(counted(store.decodeCensus()), 11) << statement;
  }
  // A self-join may decode a row before the view's filter drops it (the filtered chat's
  // message 5); asked again, it still counts no message twice.
  const std::string join = "SELECT a.id FROM tesk_message a JOIN tesk_message b ON a.body = b.body";
  sql.run(join);
  const int64_t once = counted(store.decodeCensus());
  EXPECT_LE(once, 12);
  sql.run(join);
  EXPECT_EQ(counted(store.decodeCensus()), once);
}

// With the join table indexed by message, the receipt's counts come from the message
// table and the chats that exclude (no joined scan): the same counts for every selector.
TEST(IMessageStats, MessageSideCountsEqualTheJoinedScan) {
  const std::vector<std::function<void(TeskIMessage::Filter&)>> selectors{
      [](auto&) {},
      [](auto& f) { f.includeGroups = false; },
      [](auto& f) {
        f.includeGroups = false;
        f.includeTapbacks = true;
      },
      [](auto& f) {
        f.includeFiltered = true;
        f.includeGroups = false;
      },
      [](auto& f) { f.since = kNow - 75000; },
      [](auto& f) { f.direction = TeskRow::Direction::incoming; },
      [](auto& f) { f.unreadOnly = true; },
  };
  ChatDB fx;
  // Message 9's only chat row is gone: neither a group nor filtered, and no orphan.
  tesk_test::makeDB(fx.path, "UPDATE chat_message_join SET chat_id = 99 WHERE message_id = 9");
  std::vector<TeskIMessage::Result> joined;
  {
    TeskStore store(fx.path);
    for (const auto& set : selectors) {
      TeskIMessage::Filter f;
      set(f);
      joined.push_back(TeskIMessage::stats(store, f));
    }
  }
  tesk_test::makeDB(fx.path, "CREATE INDEX cmj_mid ON chat_message_join(message_id)");
  TeskStore store(fx.path);
  for (size_t i = 0; i < selectors.size(); ++i) {
    TeskIMessage::Filter f;
    selectors[i](f);
    TeskIMessage::Result r = TeskIMessage::stats(store, f);
    EXPECT_EQ(r.excludedTapback, joined[i].excludedTapback) << i;
    EXPECT_EQ(r.excludedGroup, joined[i].excludedGroup) << i;
    EXPECT_EQ(r.excludedFiltered, joined[i].excludedFiltered) << i;
    EXPECT_EQ(r.orphans, joined[i].orphans) << i;
    EXPECT_EQ(r.undated, joined[i].undated) << i;
    EXPECT_EQ(r.hiddenAttachments, joined[i].hiddenAttachments) << i;
  }
  EXPECT_EQ(joined[1].excludedGroup, 1);    // the fixture exercises every counter
  EXPECT_EQ(joined[1].excludedTapback, 2);  // 12 is a tapback in a group: counted as a tapback
  EXPECT_EQ(TeskIMessage::rawMessageCount(store), 14);
  EXPECT_EQ(TeskIMessage::innerJoinCount(store), 14);  // 15 links minus the orphan
  EXPECT_EQ(joined[0].excludedFiltered, 1);
  EXPECT_EQ(joined[0].orphans, 1);
  EXPECT_EQ(joined[0].undated, 1);
  EXPECT_EQ(store.decodeCensus().blobs(), 0);
}

TEST(IMessageSchemaDrift, OldStoreLacksUnreadAndHiddenButStillReads) {
  ChatDB fx("chatdb.osx-2015.sql");
  {
    tesk_test::DB db;
    sqlite3* raw = nullptr;
    sqlite3_open(fx.path.c_str(), &raw);
    db.reset(raw);
    tesk_test::exec(db.get(),
                    "INSERT INTO message(ROWID,guid,attributedBody,handle_id,date,is_from_me) "
                    "VALUES (1,'g1',x'00',1,1,0);");
    // Drop triggers and indexes first: they name the columns being removed.
    tesk_test::exec(db.get(),
                    "CREATE TEMP TABLE t AS SELECT type || ' \"' || name || '\"' AS name FROM "
                    "sqlite_master WHERE type IN ('trigger','index') AND sql IS NOT NULL;");
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db.get(), "SELECT name FROM temp.t", -1, &st, nullptr);
    std::vector<std::string> names;
    while (sqlite3_step(st) == SQLITE_ROW) {
      names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(st, 0)));
    }
    sqlite3_finalize(st);
    for (const std::string& n : names) tesk_test::exec(db.get(), "DROP " + n);
    for (const char* column : {"is_read", "item_type", "is_finished", "is_system_message"}) {
      tesk_test::exec(db.get(), std::string("ALTER TABLE message DROP COLUMN ") + column);
    }
  }
  TeskStore store(fx.path);
  TeskIMessage::Schema s = TeskIMessage::probe(store);
  EXPECT_FALSE(s.unreadSupported());
  EXPECT_FALSE(s.hideAttachment);
  TeskIMessage::Filter f;
  f.unreadOnly = true;
  TeskIMessage::Result r = TeskIMessage::read(store, f, fx.home.path());
  EXPECT_TRUE(r.rows.empty());
  EXPECT_FALSE(r.unreadSupported);
  r = TeskIMessage::read(store, TeskIMessage::Filter{}, fx.home.path());
  ASSERT_EQ(r.rows.size(), 1u);  // an undecodable blob is a row with an empty body
  EXPECT_EQ(r.census.undecodable, 1);
  EXPECT_EQ(r.excludedTapback, 0);
}

TEST(IMessageSQL, CountDecodesNothingAndTheViewHonoursSelectors) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskIMessage::Filter f;
  f.includeGroups = false;
  TeskSQL sql(store, f);
  TeskSQL::Table t = sql.run("  with x as (select * from tesk_message) SELECT COUNT(*) FROM x");
  ASSERT_EQ(t.rows.size(), 1u);
  EXPECT_EQ(t.rows[0][0], "10");  // no tapbacks, no filtered, no groups
  EXPECT_EQ(store.decodeCensus().blobs(), 0);
  t = sql.run("SELECT id, body FROM tesk_message WHERE body LIKE '%dinner%'");
  ASSERT_EQ(t.rows.size(), 1u);
  EXPECT_EQ(t.rows[0][0], "im:1");
  t = sql.run("SELECT id FROM tesk_message WHERE 0");
  EXPECT_TRUE(t.rows.empty());
  EXPECT_EQ(t.columns, std::vector<std::string>{"id"});
  t = sql.run("SELECT x'000102' AS b");
  EXPECT_EQ(t.rows[0][0], "<blob 3B>");
  t = sql.run("SELECT id FROM tesk_message ORDER BY ts DESC", 3);  // keeps 3, counts all
  EXPECT_EQ(t.rows.size(), 3u);
  EXPECT_EQ(t.total, 10);
}

TEST(IMessageSQL, OneStatementOnly) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskSQL sql(store, TeskIMessage::Filter{});
  struct Case {
    const char* text;
    bool runs;
  };
  for (const Case& c : std::vector<Case>{
           {"SELECT 1", true},
           {"SELECT 1;", true},
           {"SELECT 1 ;;  \n\t; ", true},
           {"SELECT 1; -- the rest is a comment", true},
           {"SELECT 1 /* block */ ; /* another */", true},
           {"SELECT ';' AS x; ", true},
           {"SELECT 1; SELECT 2", false},
           {"SELECT 1;SELECT 2;", false},
           {"SELECT 1; DELETE FROM message", false},
           {"SELECT 1; -- x\nSELECT 2", false},
           {"SELECT 1; not sql at all", false},
       }) {
    try {
      TeskSQL::Table t = sql.run(c.text);
      EXPECT_TRUE(c.runs) << "accepted: " << c.text;
      ASSERT_EQ(t.rows.size(), 1u) << c.text;
    } catch (const TeskStoreError& e) {
      EXPECT_FALSE(c.runs) << c.text << ": " << e.description();
      EXPECT_EQ(e.description(),
                "sql: tesk sql runs one statement — this text holds more than one; send each on "
                "its own")
          << c.text;
    }
  }
  EXPECT_EQ(TeskIMessage::rawMessageCount(store), 14);
}

TEST(IMessageSQL, WhoWithAQuoteStillMakesAValidView) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskIMessage::Filter f;
  f.who = "o'brien";
  TeskSQL sql(store, f);
  EXPECT_EQ(sql.run("SELECT COUNT(*) FROM tesk_message").rows[0][0], "0");
}

TEST(IMessageSQL, DocumentedColumnsMatchTheView) {
  ChatDB fx;
  TeskStore store(fx.path);
  TeskSQL sql(store, TeskIMessage::Filter{});
  TeskSQL::Table t = sql.run("SELECT * FROM tesk_message LIMIT 0");
  EXPECT_EQ(t.columns, TeskSQL::documentedColumns());
}

TEST(IMessageRealStore, PlasoChatDBReadsTenMessagesInWholeSeconds) {
  const std::string path = std::string(TESK_TEST_DATA) + "/chatdb/plaso_imessage_chat.db";
  TeskStore store(path);
  TeskIMessage::Filter f = everything();
  TeskIMessage::Result r = TeskIMessage::read(store, f, "/home/x");
  ASSERT_EQ(r.rows.size(), 10u);
  EXPECT_EQ(r.census.decoded(), 10);
  const TeskRow* eight = row(r, "im:8");
  ASSERT_NE(eight, nullptr);
  EXPECT_EQ(eight->body, "Did you try to send me a message?");
  EXPECT_DOUBLE_EQ(eight->ts, 1448880520);    // 2015-11-30T10:48:40Z
  for (const char* id : {"im:6", "im:10"}) {  // text says "Open Office"; the blob wins
    ASSERT_NE(row(r, id), nullptr);
    EXPECT_NE(row(r, id)->body.find("Microsoft Office"), std::string::npos) << id;
  }
}

}  // namespace
