// The tesk_* SQL functions, exercised the way producers use them: through SELECT.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/TeskTestHome.h"
#include "store/TeskFunctions.h"
#include "store/TeskStore.h"

namespace {

using tesk_test::DB;
using tesk_test::exec;
using Bytes = std::vector<uint8_t>;

// An archive as Messages writes it, which the direct reader takes.
Bytes archived(const std::string& text) { return tesk_test::attributedBody(text); }

// Bytes no reader accepts.
Bytes garbage() { return Bytes(40, 0xAA); }

const std::string kFFFC = "\xEF\xBF\xBC";

int64_t decodes(const TeskDecode::Census& c) {
  return c.plainText + c.legacyAttributed + c.legacyString + c.keyedAttributed + c.undecodable +
         c.absent;
}

class FunctionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &raw), SQLITE_OK);
    db_.reset(raw);
    TeskFunctions::install(db_.get(), functions_);
    exec(db_.get(),
         "CREATE TABLE m(ROWID INTEGER PRIMARY KEY, text TEXT, attributedBody BLOB,"
         " associated_message_type INTEGER, date_edited INTEGER, files INTEGER)");
  }

  void insert(int64_t rowID, std::optional<std::string> text, std::optional<Bytes> blob,
              int64_t amt = 0, int64_t edited = 0, int64_t files = 0) {
    sqlite3_stmt* raw = nullptr;
    ASSERT_EQ(
        sqlite3_prepare_v2(db_.get(), "INSERT INTO m VALUES (?, ?, ?, ?, ?, ?)", -1, &raw, nullptr),
        SQLITE_OK);
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> stmt(raw, &sqlite3_finalize);
    sqlite3_bind_int64(raw, 1, rowID);
    if (text) sqlite3_bind_text(raw, 2, text->c_str(), -1, SQLITE_TRANSIENT);
    if (blob)
      sqlite3_bind_blob(raw, 3, blob->data(), static_cast<int>(blob->size()), SQLITE_TRANSIENT);
    sqlite3_bind_int64(raw, 4, amt);
    sqlite3_bind_int64(raw, 5, edited);
    sqlite3_bind_int64(raw, 6, files);
    ASSERT_EQ(sqlite3_step(raw), SQLITE_DONE);
  }

  // Column 0 of the first row of `sql`, as text ("NULL" for SQL NULL).
  std::string one(const std::string& sql) {
    sqlite3_stmt* raw = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &raw, nullptr), SQLITE_OK)
        << sql << ": " << sqlite3_errmsg(db_.get());
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> stmt(raw, &sqlite3_finalize);
    if (raw == nullptr || sqlite3_step(raw) != SQLITE_ROW) return "<no row>";
    if (sqlite3_column_type(raw, 0) == SQLITE_NULL) return "NULL";
    return reinterpret_cast<const char*>(sqlite3_column_text(raw, 0));
  }

  // Every row of `sql`, columns joined by "|" and rows by ";".
  std::string rows(const std::string& sql) {
    sqlite3_stmt* raw = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &raw, nullptr), SQLITE_OK) << sql;
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> stmt(raw, &sqlite3_finalize);
    std::string out;
    while (raw != nullptr && sqlite3_step(raw) == SQLITE_ROW) {
      if (!out.empty()) out += ";";
      for (int i = 0; i < sqlite3_column_count(raw); ++i) {
        if (i) out += "|";
        const unsigned char* t = sqlite3_column_text(raw, i);
        out += t ? reinterpret_cast<const char*>(t) : "NULL";
      }
    }
    return out;
  }

  DB db_;
  TeskFunctions functions_;
};

TEST_F(FunctionsTest, TapbackRangeIncludesBothEnds) {
  for (auto [amt, expected] : std::vector<std::pair<int64_t, const char*>>{
           {1999, "0"}, {2000, "1"}, {3007, "1"}, {3008, "0"}, {0, "0"}, {1000, "0"}}) {
    EXPECT_EQ(one("SELECT tesk_is_tapback(" + std::to_string(amt) + ")"), expected) << amt;
  }
  EXPECT_EQ(one("SELECT tesk_is_tapback(NULL)"), "0");
  // The written-out range and the function agree row for row.
  for (int64_t amt : {1999, 2000, 2500, 3007, 3008}) insert(amt, "x", std::nullopt, amt);
  EXPECT_EQ(one("SELECT group_concat(ROWID) FROM m WHERE " + TeskFunctions::tapbackSQL),
            "2000,2500,3007");
  EXPECT_EQ(one("SELECT group_concat(ROWID) FROM m WHERE tesk_is_tapback(associated_message_type)"),
            "2000,2500,3007");
}

TEST_F(FunctionsTest, KindRules) {
  struct Case {
    const char* name;
    std::optional<std::string> text;
    std::optional<Bytes> blob;
    int64_t amt, edited, files;
    const char* kind;
    int64_t decodes;  // census growth
  };
  const std::vector<Case> cases = {
      {"tapback low end", "x", archived("Loved “hi”"), 2000, 0, 0, "tapback", 0},
      {"tapback high end", std::nullopt, std::nullopt, 3007, 0, 0, "tapback", 0},
      {"just below tapbacks", "x", std::nullopt, 1999, 0, 0, "text", 1},
      {"just above tapbacks", "x", std::nullopt, 3008, 0, 0, "text", 1},
      {"archived text", std::nullopt, archived("hello"), 0, 0, 0, "text", 1},
      {"plain text column", "hello", std::nullopt, 0, 0, 0, "text", 1},
      {"edited", std::nullopt, archived("fixed typo"), 0, 1, 0, "edited", 1},
      {"edited with a date", std::nullopt, archived("fixed"), 0, 790000000000000000, 0, "edited",
       1},
      {"placeholder alone", std::nullopt, archived(kFFFC), 0, 0, 0, "attachment", 1},
      {"placeholder and caption", std::nullopt, archived(kFFFC + " nice photo"), 0, 0, 0, "text",
       1},
      {"file transfer, blank body", " \n", std::nullopt, 1000, 0, 0, "attachment", 1},
      {"blank body with a file", " ", std::nullopt, 0, 0, 2, "attachment", 1},
      {"blank body alone", " ", std::nullopt, 0, 0, 0, "empty", 1},
      {"no body with a file", std::nullopt, std::nullopt, 0, 0, 1, "attachment", 1},
      {"no body, file transfer", std::nullopt, std::nullopt, 1000, 0, 0, "empty", 1},
      {"no body at all", std::nullopt, std::nullopt, 0, 0, 0, "empty", 1},
      {"undecodable blob", std::nullopt, garbage(), 0, 0, 0, "empty", 1},
      {"undecodable blob keeps its text", "typed", garbage(), 0, 0, 0, "text", 1},
  };
  int64_t rowID = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    insert(rowID, c.text, c.blob, c.amt, c.edited, c.files);
    int64_t before = decodes(functions_.census());
    EXPECT_EQ(one("SELECT tesk_kind(ROWID, text, attributedBody, associated_message_type,"
                  " date_edited, files) FROM m WHERE ROWID = " +
                  std::to_string(rowID)),
              c.kind);
    EXPECT_EQ(decodes(functions_.census()) - before, c.decodes);
    ++rowID;
  }
}

TEST_F(FunctionsTest, BodyIsDecodedStrippedAndCountedByTier) {
  insert(1, std::nullopt, archived("  hello there \n"));
  insert(2, "plain", std::nullopt);
  insert(3, std::nullopt, archived(kFFFC + " nice photo"));
  insert(4, std::nullopt, archived(kFFFC));
  insert(5, std::nullopt, std::nullopt);
  insert(6, std::nullopt, garbage());
  insert(7, "typed", garbage());
  insert(8, "shown", Bytes{});  // an empty blob is no blob
  insert(9, std::nullopt, archived(std::string(300, 'z')));
  const std::vector<std::pair<int, std::string>> expected = {{1, "hello there"},
                                                             {2, "plain"},
                                                             {3, "nice photo"},
                                                             {4, ""},
                                                             {5, "NULL"},
                                                             {6, "NULL"},
                                                             {7, "typed"},
                                                             {8, "shown"},
                                                             {9, std::string(300, 'z')}};
  for (const auto& [row, body] : expected) {
    EXPECT_EQ(one("SELECT tesk_body(ROWID, text, attributedBody) FROM m WHERE ROWID = " +
                  std::to_string(row)),
              body)
        << row;
  }
  const TeskDecode::Census& c = functions_.census();
  EXPECT_EQ(c.legacyAttributed, 4);
  EXPECT_EQ(c.direct, 4);
  EXPECT_EQ(c.plainText, 2);
  EXPECT_EQ(c.undecodable, 2);
  EXPECT_EQ(c.absent, 1);
}

TEST_F(FunctionsTest, KindAndBodyOfOneRowDecodeOnce) {
  insert(1, std::nullopt, archived("one"));
  insert(2, std::nullopt, archived("two"));
  insert(3, "three", std::nullopt);
  const std::string both =
      "SELECT tesk_kind(ROWID, text, attributedBody, associated_message_type, date_edited, files),"
      " tesk_body(ROWID, text, attributedBody) FROM m ORDER BY ROWID";
  EXPECT_EQ(rows(both), "text|one;text|two;text|three");
  EXPECT_EQ(decodes(functions_.census()), 3);
  // Another statement decodes afresh (except the one row the memo still holds, row
  // 3) but counts no row twice.
  EXPECT_EQ(rows("SELECT tesk_body(ROWID, text, attributedBody) FROM m ORDER BY ROWID DESC"),
            "three;two;one");
  EXPECT_EQ(decodes(functions_.census()), 3);
  // The memo answers by row id alone.
  EXPECT_EQ(one("SELECT tesk_body(1, 'x', NULL) || tesk_body(1, 'y', NULL)"), "oneone");
  EXPECT_EQ(decodes(functions_.census()), 3);
  EXPECT_EQ(one("SELECT tesk_body(4, 'x', NULL) || tesk_body(4, 'y', NULL)"), "xx");
  EXPECT_EQ(decodes(functions_.census()), 4);
  // A negative row id is stored but never hits, and every decode of it counts.
  EXPECT_EQ(one("SELECT tesk_body(-1, 'a', NULL) || tesk_body(-1, 'b', NULL)"), "ab");
  EXPECT_EQ(decodes(functions_.census()), 6);
  // Far-apart ids (one near 2^63) are each counted once.
  EXPECT_EQ(one("SELECT tesk_body(9223372036854775806, 'z', NULL) || tesk_body(67108864, 'y',"
                " NULL) || tesk_body(9223372036854775806, 'z', NULL)"),
            "zyz");
  EXPECT_EQ(decodes(functions_.census()), 8);
  // Columns a statement does not read are never evaluated: a COUNT over the
  // decoded projection (as over the view of the sql verb) decodes nothing.
  EXPECT_EQ(one("SELECT COUNT(*) FROM (SELECT tesk_body(ROWID, text, attributedBody) AS body,"
                " tesk_kind(ROWID, text, attributedBody, 0, 0, 0) AS kind FROM m)"),
            "3");
  EXPECT_EQ(decodes(functions_.census()), 8);
}

TEST(RowSet, HoldsEachIdOnceWhereverItLies) {
  TeskRowSet set;
  const std::vector<int64_t> ids{0,
                                 1,
                                 63,
                                 64,
                                 1000000,
                                 TeskRowSet::denseLimit - 1,
                                 TeskRowSet::denseLimit,
                                 std::numeric_limits<int64_t>::max(),
                                 -1,
                                 std::numeric_limits<int64_t>::min()};
  for (int64_t id : ids) {
    EXPECT_FALSE(set.contains(id)) << id;
    EXPECT_TRUE(set.insert(id)) << id;
  }
  for (int64_t id : ids) {
    EXPECT_TRUE(set.contains(id)) << id;
    EXPECT_FALSE(set.insert(id)) << id;
  }
  for (int64_t id : {int64_t{2}, int64_t{65}, int64_t{999999}, TeskRowSet::denseLimit + 1}) {
    EXPECT_FALSE(set.contains(id)) << id;
  }
  set.clear();
  EXPECT_FALSE(set.contains(1));
}

TEST_F(FunctionsTest, TimestampMagnitudes) {
  struct Case {
    const char* arg;
    double unix;
  };
  for (const Case& c : std::vector<Case>{
           {"0", 0.0},
           {"NULL", 0.0},
           {"700000000000000000", 700000000.0 + 978307200},
       }) {
    SCOPED_TRACE(c.arg);
    sqlite3_stmt* raw = nullptr;
    std::string sql = std::string("SELECT tesk_ts(") + c.arg + "), typeof(tesk_ts(" + c.arg + "))";
    ASSERT_EQ(sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &raw, nullptr), SQLITE_OK);
    std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> stmt(raw, &sqlite3_finalize);
    ASSERT_EQ(sqlite3_step(raw), SQLITE_ROW);
    EXPECT_DOUBLE_EQ(sqlite3_column_double(raw, 0), c.unix);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(raw, 1)), "real");
  }
}

TEST_F(FunctionsTest, WhoFallsBackToTheChatExceptInGroups) {
  struct Case {
    const char* handle;
    const char* chat;
    const char* style;
    const char* who;
  };
  for (const Case& c : std::vector<Case>{
           {"'+14155550123'", "'chat1'", "45", "+14155550123"},
           {"'+14155550123'", "'chat1'", "43", "+14155550123"},  // a handle always wins
           {"''", "'+14155550123'", "45", "+14155550123"},       // my own 1:1 message
           {"NULL", "'a@b.c'", "0", "a@b.c"},
           {"NULL", "'chat123'", "43", ""},  // a group has no single counterpart
           {"''", "'chat123'", "43", ""},
           {"NULL", "NULL", "45", ""},
           {"NULL", "NULL", "NULL", ""},
       }) {
    SCOPED_TRACE(std::string(c.handle) + " " + c.chat + " " + c.style);
    EXPECT_EQ(
        one(std::string("SELECT tesk_who(") + c.handle + ", " + c.chat + ", " + c.style + ")"),
        c.who);
  }
}

TEST_F(FunctionsTest, CanonicalAndMatch) {
  EXPECT_EQ(one("SELECT tesk_canonical('+1 (415) 555-0123')"), "+4155550123");
  EXPECT_EQ(one("SELECT tesk_canonical(NULL)"), "");
  struct Case {
    const char* query;
    const char* handle;
    const char* match;
  };
  for (const Case& c : std::vector<Case>{
           {"''", "'+14155550123'", "1"},  // an empty query keeps every row
           {"NULL", "NULL", "1"},
           {"''", "NULL", "1"},
           {"'5550123'", "'+14155550123'", "1"},  // 7 digits inside the handle's digits
           {"'555 01'", "'+14155550123'", "0"},
           {"'ALICE'", "'alice@example.com'", "1"},
           {"'12-345'", "'12345'", "1"},  // only the canonical forms meet
           {"'bob'", "'alice@example.com'", "0"},
           {"'bob'", "NULL", "0"},
       }) {
    SCOPED_TRACE(std::string(c.query) + " ~ " + c.handle);
    EXPECT_EQ(one(std::string("SELECT tesk_match(") + c.query + ", " + c.handle + ")"), c.match);
  }
}

TEST_F(FunctionsTest, MatchPreparedOncePerStatementAgreesRowByRow) {
  exec(db_.get(),
       "CREATE TABLE h(q TEXT, handle TEXT);"
       "INSERT INTO h VALUES ('5550123', '+14155550123'), ('bob', 'alice@example.com'),"
       " ('', 'x'), ('12-345', '12345'), ('ALICE', 'Alice@Example.com'), (NULL, 'y'),"
       " ('5550123', '+14155559999');");
  // The query varies per row: nothing prepared for one row may serve the next.
  EXPECT_EQ(rows("SELECT group_concat(tesk_match(q, handle), '') FROM h"), "1011110");
  // A constant and a bound query, prepared once, give what a call per row gives.
  EXPECT_EQ(rows("SELECT group_concat(tesk_match('5550123', handle), '') FROM h"), "1000000");
  sqlite3_stmt* raw = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db_.get(), "SELECT group_concat(tesk_match(?, handle), '') FROM h",
                               -1, &raw, nullptr),
            SQLITE_OK);
  std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> stmt(raw, &sqlite3_finalize);
  for (auto [query, expected] : std::vector<std::pair<const char*, const char*>>{
           {"alice", "0100100"}, {"", "1111111"}, {"415 555", "0000000"}}) {
    sqlite3_bind_text(raw, 1, query, -1, SQLITE_TRANSIENT);
    ASSERT_EQ(sqlite3_step(raw), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(raw, 0)), expected) << query;
    sqlite3_reset(raw);
  }
}

TEST_F(FunctionsTest, FunctionsAreDeterministic) {
  // Index expressions accept only deterministic functions.
  exec(db_.get(),
       "CREATE TABLE d(x INTEGER); CREATE INDEX d_ts ON d(tesk_ts(x));"
       "CREATE INDEX d_who ON d(tesk_canonical(x));");
}

TEST(FunctionsStore, EachStoreCountsItsOwnDecodes) {
  tesk_test::TempHome dir;
  std::string path = dir.file("chat.db");
  tesk_test::makeDB(
      path,
      "CREATE TABLE message(ROWID INTEGER PRIMARY KEY, text TEXT, attributedBody BLOB);"
      "INSERT INTO message VALUES (1, 'a', NULL), (2, 'b', NULL), (3, NULL, NULL);");
  TeskStore first(path, {nullptr, dir.path()});
  TeskStore second(path, {nullptr, dir.path()});
  std::vector<std::string> bodies;
  first.query("SELECT tesk_body(ROWID, text, attributedBody) FROM message ORDER BY ROWID",
              [&](const TeskRowReader& r) { bodies.push_back(r.text(0).value_or("NULL")); });
  EXPECT_EQ(bodies, (std::vector<std::string>{"a", "b", "NULL"}));
  EXPECT_EQ(first.decodeCensus().plainText, 2);
  EXPECT_EQ(first.decodeCensus().absent, 1);
  EXPECT_EQ(decodes(second.decodeCensus()), 0);
  EXPECT_EQ(second.scalarInt("SELECT COUNT(*) FROM message"), 3);
  EXPECT_EQ(decodes(second.decodeCensus()), 0);
}

}  // namespace
