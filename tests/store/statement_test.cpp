// The one statement runner and its row reader: binds, column access, probes and
// how every failure surfaces.
#include <gtest/gtest.h>

#include "common/TeskTestHome.h"
#include "store/TeskStore.h"

namespace {

using tesk_test::exec;
using tesk_test::openDB;
using tesk_test::TempHome;

class StatementTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("s.db");
    auto w = openDB(path_);
    exec(w.get(),
         "CREATE TABLE message(ROWID INTEGER PRIMARY KEY, text TEXT, is_read INTEGER, "
         "  attributedBody BLOB, score REAL);"
         "INSERT INTO message VALUES (1, 'hi', 1, x'000102030405060708090a0b', 2.5);"
         "INSERT INTO message VALUES (2, NULL, 0, x'', NULL);"
         "INSERT INTO message VALUES (3, 'o''k', NULL, NULL, -1.75);"
         "CREATE VIEW unread AS SELECT * FROM message WHERE is_read = 0;"
         "CREATE INDEX message_state ON message(is_read, score);");
    store_ = std::make_unique<TeskStore>(path_, TeskStore::Environment{nullptr, tmp_.path()});
  }

  // Every row of `sql` with its column displayed, joined by "|" and rows by ";".
  std::string dump(const std::string& sql, const std::vector<TeskValue>& binds = {}) {
    std::string out;
    store_->query(sql, binds, [&](const TeskRowReader& r) {
      if (!out.empty()) out += ";";
      for (int i = 0; i < r.columnCount(); ++i) {
        if (i) out += "|";
        out += r.display(i).value_or("NULL");
      }
    });
    return out;
  }

  TempHome dir_;
  TempHome tmp_;
  std::string path_;
  std::unique_ptr<TeskStore> store_;
};

TEST_F(StatementTest, BindsEveryValueKindByPosition) {
  EXPECT_EQ(dump("SELECT typeof(?1), ?1, typeof(?2), ?2, typeof(?3), ?3, typeof(?4)",
                 {int64_t{9007199254740993}, 0.5, "it's", nullptr}),
            "integer|9007199254740993|real|0.5|text|it's|null");
  EXPECT_EQ(dump("SELECT typeof(?), ?", {true, 7}), "integer|7");
  // A missing value leaves its parameter NULL; a surplus one is ignored.
  EXPECT_EQ(dump("SELECT ?1 IS NULL, ?2 IS NULL", {1}), "0|1");
  EXPECT_EQ(dump("SELECT ?", {1, 2, 3}), "1");
  // The caller's string may die right after the call: SQLite copied it.
  std::string temp = "temporary";
  std::vector<TeskValue> binds{temp};
  temp.assign("overwritten");
  EXPECT_EQ(dump("SELECT ?", binds), "temporary");
}

TEST_F(StatementTest, ReaderAccessorsFollowTheirNullAndTypeRules) {
  struct Seen {
    int64_t integer;
    double real;
    std::optional<std::string> text;
    std::optional<std::vector<uint8_t>> blob;
    bool isNull;
  };
  std::vector<std::vector<Seen>> rows;
  store_->query("SELECT ROWID, text, is_read, attributedBody, score FROM message ORDER BY ROWID",
                [&](const TeskRowReader& r) {
                  std::vector<Seen> row;
                  for (int i = 0; i < r.columnCount(); ++i) {
                    row.push_back({r.integer(i), r.real(i), r.text(i), r.blob(i), r.isNull(i)});
                  }
                  rows.push_back(std::move(row));
                });
  ASSERT_EQ(rows.size(), 3u);
  // Integers read as text give their decimal form.
  EXPECT_EQ(rows[0][0].text, "1");
  EXPECT_EQ(rows[0][1].text, "hi");
  EXPECT_EQ(rows[2][1].text, "o'k");
  // NULL: 0 through the numbers, absent through text/blob.
  EXPECT_EQ(rows[1][1].integer, 0);
  EXPECT_EQ(rows[1][1].real, 0.0);
  EXPECT_FALSE(rows[1][1].text.has_value());
  EXPECT_TRUE(rows[1][1].isNull);
  EXPECT_FALSE(rows[0][1].isNull);
  // A REAL through integer is truncated toward zero.
  EXPECT_EQ(rows[0][4].integer, 2);
  EXPECT_EQ(rows[2][4].integer, -1);
  EXPECT_DOUBLE_EQ(rows[2][4].real, -1.75);
  // Blobs: exactly their bytes; an empty blob is absent, not an empty buffer.
  ASSERT_TRUE(rows[0][3].blob.has_value());
  EXPECT_EQ(rows[0][3].blob->size(), 12u);
  EXPECT_EQ((*rows[0][3].blob)[11], 0x0b);
  EXPECT_FALSE(rows[1][3].blob.has_value());
  EXPECT_FALSE(rows[1][3].isNull);
  EXPECT_FALSE(rows[2][3].blob.has_value());
}

TEST_F(StatementTest, ViewsAvoidCopiesAndMatchTheCopies) {
  int seen = 0;
  store_->query("SELECT text, attributedBody FROM message WHERE ROWID = 1",
                [&](const TeskRowReader& r) {
                  ++seen;
                  EXPECT_EQ(r.textView(0), std::optional<std::string_view>("hi"));
                  auto blob = r.blobView(1);
                  ASSERT_TRUE(blob.has_value());
                  EXPECT_EQ(std::vector<uint8_t>(blob->begin(), blob->end()), *r.blob(1));
                });
  store_->query("SELECT text, attributedBody FROM message WHERE ROWID = 2",
                [&](const TeskRowReader& r) {
                  ++seen;
                  EXPECT_FALSE(r.textView(0).has_value());
                  EXPECT_FALSE(r.blobView(1).has_value());
                });
  // An empty text is present, NULL is not.
  store_->query("SELECT '', NULL", [&](const TeskRowReader& r) {
    ++seen;
    EXPECT_EQ(r.textView(0), std::optional<std::string_view>(""));
    EXPECT_FALSE(r.textView(1).has_value());
  });
  EXPECT_EQ(seen, 3);
}

TEST_F(StatementTest, DisplayRendersAnyColumnForPrinting) {
  EXPECT_EQ(dump("SELECT attributedBody, text, ROWID, score FROM message WHERE ROWID = 1"),
            "<blob 12B>|hi|1|2.5");
  EXPECT_EQ(dump("SELECT attributedBody, text FROM message WHERE ROWID = 2"), "<blob 0B>|NULL");
  store_->query("SELECT ROWID AS id, text FROM message LIMIT 1", [](const TeskRowReader& r) {
    EXPECT_EQ(r.columnCount(), 2);
    EXPECT_EQ(r.columnName(0), "id");
    EXPECT_EQ(r.columnName(1), "text");
  });
}

TEST_F(StatementTest, OnlyTheFirstStatementOfATextRuns) {
  EXPECT_EQ(dump("SELECT COUNT(*) FROM message; DELETE FROM message"), "3");
  EXPECT_EQ(dump("SELECT COUNT(*) FROM message"), "3");
}

TEST_F(StatementTest, SqlErrorsCarrySqliteOwnMessage) {
  struct Case {
    std::string sql;
    std::string description;
    int rowsBeforeError;
  };
  const std::vector<Case> cases = {
      {"SELECT nope FROM message", "sql: no such column: nope", 0},
      {"SELEC 1", "sql: near \"SELEC\": syntax error", 0},
      // Fails while stepping, after the rows before it were handed out.
      {"SELECT CASE WHEN ROWID = 3 THEN abs(-9223372036854775807 - 1) ELSE ROWID END "
       "FROM message ORDER BY ROWID",
       "sql: integer overflow", 2},
      // The store is read-only: even a forgotten write fails instead of writing.
      {"DELETE FROM message", "sql: attempt to write a readonly database", 0},
      {"", "sql: not an error", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.sql);
    int rows = 0;
    try {
      store_->query(c.sql, [&](const TeskRowReader&) { ++rows; });
      ADD_FAILURE() << "no error";
    } catch (const TeskStoreError& e) {
      EXPECT_EQ(e.kind(), TeskStoreError::Kind::sql);
      EXPECT_EQ(e.description(), c.description);
    }
    EXPECT_EQ(rows, c.rowsBeforeError);
  }
  EXPECT_EQ(store_->scalarInt("SELECT COUNT(*) FROM message"), 3);
}

TEST_F(StatementTest, CallbackErrorStopsAtOnceKeepsItsIdentityAndFinalizes) {
  struct Stop {
    int at;
  };
  int calls = 0;
  try {
    store_->query("SELECT ROWID FROM message ORDER BY ROWID", [&](const TeskRowReader& r) {
      ++calls;
      if (r.integer(0) == 2) throw Stop{2};
    });
    FAIL();
  } catch (const Stop& s) {
    EXPECT_EQ(s.at, 2);
  }
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(sqlite3_next_stmt(store_->connection(), nullptr), nullptr);
}

TEST_F(StatementTest, EveryPathFinalizesItsStatement) {
  store_->query("SELECT 1", [](const TeskRowReader&) {});
  EXPECT_THROW(store_->query("SELECT nope FROM message", [](const TeskRowReader&) {}),
               TeskStoreError);
  (void)store_->columnNames("SELECT * FROM message");
  (void)store_->scalarInt("SELECT ROWID FROM message");
  (void)store_->scalarText("SELECT text FROM message");
  (void)store_->isReadOnly("SELECT 1");
  (void)store_->tableExists("message");
  (void)store_->columnExists("text", "message");
  EXPECT_EQ(sqlite3_next_stmt(store_->connection(), nullptr), nullptr);
}

TEST_F(StatementTest, SchemaProbes) {
  EXPECT_TRUE(store_->tableExists("message"));
  EXPECT_TRUE(store_->tableExists("unread"));  // views count as tables
  EXPECT_FALSE(store_->tableExists("MESSAGES"));
  EXPECT_FALSE(store_->tableExists("x' OR '1'='1"));

  EXPECT_TRUE(store_->columnExists("is_read", "message"));
  EXPECT_TRUE(store_->columnExists("IS_READ", "message"));  // case-insensitive
  EXPECT_TRUE(store_->columnExists("text", "unread"));
  EXPECT_FALSE(store_->columnExists("is_finished", "message"));
  EXPECT_FALSE(store_->columnExists("text", "no_such_table"));  // false, not an error

  EXPECT_TRUE(store_->indexLeadsWith("message", {"is_read"}));
  EXPECT_TRUE(store_->indexLeadsWith("message", {"IS_READ", "score"}));
  EXPECT_FALSE(store_->indexLeadsWith("message", {"score"}));  // second, not first
  EXPECT_FALSE(store_->indexLeadsWith("message", {"is_read", "text"}));
  EXPECT_FALSE(store_->indexLeadsWith("no_such_table", {"is_read"}));
}

TEST_F(StatementTest, ColumnNamesWithoutRunning) {
  EXPECT_EQ(store_->columnNames("SELECT ROWID AS id, text, 1 + 1 AS two FROM message WHERE 0"),
            (std::vector<std::string>{"id", "text", "two"}));
  // Prepared, never stepped: a write would fail if it ran.
  EXPECT_EQ(store_->columnNames("DELETE FROM message"), std::vector<std::string>{});
  EXPECT_THROW(store_->columnNames("SELECT nope FROM message"), TeskStoreError);
}

TEST_F(StatementTest, ScalarsSwallowFailures) {
  EXPECT_EQ(store_->scalarInt("SELECT ROWID FROM message ORDER BY ROWID"), 3);  // the last row
  EXPECT_EQ(store_->scalarInt("SELECT NULL"), 0);
  EXPECT_EQ(store_->scalarInt("SELECT 1 WHERE 0"), std::nullopt);
  EXPECT_EQ(store_->scalarInt("SELECT nope"), std::nullopt);
  EXPECT_EQ(store_->scalarInt(
                "SELECT CASE WHEN ROWID = 3 THEN abs(-9223372036854775807 - 1) ELSE ROWID END "
                "FROM message ORDER BY ROWID"),
            2);  // the value read before the error stays

  EXPECT_EQ(store_->scalarText("SELECT text FROM message ORDER BY ROWID"), "hi");  // the first
  EXPECT_EQ(store_->scalarText("SELECT NULL"), std::nullopt);
  EXPECT_EQ(store_->scalarText("SELECT nope"), std::nullopt);
  EXPECT_EQ(store_->scalarText("PRAGMA journal_mode"), "delete");
}

TEST_F(StatementTest, ExecuteCreatesTemporaryObjectsAndReportsErrors) {
  store_->execute(
      "DROP VIEW IF EXISTS temp.v; CREATE TEMP VIEW v AS SELECT text FROM message WHERE ROWID=1");
  EXPECT_EQ(dump("SELECT * FROM v"), "hi");
  try {
    store_->execute("CREATE TEMP VIEW v AS SELECT 1");
    FAIL();
  } catch (const TeskStoreError& e) {
    EXPECT_EQ(e.description(), "sql: view v already exists");
  }
  EXPECT_THROW(store_->execute("INSERT INTO message(text) VALUES ('no')"), TeskStoreError);
  EXPECT_EQ(store_->scalarInt("SELECT COUNT(*) FROM message"), 3);
}

TEST_F(StatementTest, IsReadOnlyAsksSqlite) {
  struct Case {
    const char* sql;
    bool readOnly;
  };
  // SQLite's own verdict; reliability's SqlVerb test runs every writing form end to end.
  for (const Case& c : std::vector<Case>{{"  with x AS (SELECT 1) SELECT * FROM x", true},
                                         {"CREATE TEMP TABLE z(a)", false}}) {
    SCOPED_TRACE(c.sql);
    EXPECT_EQ(store_->isReadOnly(c.sql), c.readOnly);
  }
  EXPECT_THROW(store_->isReadOnly("SELECT nope FROM message"), TeskStoreError);
}

TEST_F(StatementTest, ClosedStoreThrowsClosedAndProbesAnswerFalse) {
  TeskStore moved(std::move(*store_));
  TeskStore& closed = *store_;  // moved-from: no connection
  auto expectClosed = [](auto&& call) {
    try {
      call();
      ADD_FAILURE() << "no error";
    } catch (const TeskStoreError& e) {
      EXPECT_EQ(e.description(), "sql: closed");
    }
  };
  expectClosed([&] { closed.query("SELECT 1", [](const TeskRowReader&) {}); });
  expectClosed([&] { closed.columnNames("SELECT 1"); });
  expectClosed([&] { closed.execute("SELECT 1"); });
  expectClosed([&] { closed.isReadOnly("SELECT 1"); });
  EXPECT_FALSE(closed.tableExists("message"));
  EXPECT_FALSE(closed.columnExists("text", "message"));
  EXPECT_EQ(closed.scalarInt("SELECT 1"), std::nullopt);
  EXPECT_EQ(closed.scalarText("SELECT 1"), std::nullopt);
  EXPECT_EQ(closed.decodeCensus().blobs(), 0);
  // The store it moved into works.
  EXPECT_EQ(moved.scalarInt("SELECT COUNT(*) FROM message"), 3);
}

}  // namespace
