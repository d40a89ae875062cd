// Whole answers of the built binary: both receipts, the body and the exit code.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "cli/TeskText.h"
#include "common/KeyedArchiveWriter.h"
#include "common/TeskProcess.h"
#include "common/TeskTestHome.h"
#include "report/TeskJSONValue.h"

namespace {

using tesk_test::Answer;
using tesk_test::has;

Answer tesk(const std::vector<std::string>& args, const std::string& home = "/nonexistent-home",
            const std::string& tmpdir = std::filesystem::temp_directory_path().string()) {
  return tesk_test::tesk(args, home, tmpdir);
}

// The first and the last line are the same receipt.
void expectFramed(const Answer& a) {
  ASSERT_GE(a.lines.size(), 2u) << a.text;
  EXPECT_EQ(a.lines.front().rfind("#tesk {\"v\":1,", 0), 0u) << a.lines.front();
  EXPECT_EQ(a.lines.front(), a.lines.back());
}

TEST(BlackBox, UsageHelpAndUnknownVerbs) {
  Answer none = tesk({});
  EXPECT_EQ(none.exit, 4);
  EXPECT_EQ(none.lines.front(),
            "tesk — read this Mac's tesk. Read-only by construction: no writes, no network.");
  EXPECT_EQ(tesk({"help"}).exit, 0);
  EXPECT_EQ(tesk({"-h"}).exit, 0);
  Answer unknown = tesk({"frobnicate"});
  EXPECT_EQ(unknown.exit, 4);
  EXPECT_EQ(unknown.lines.front(), "tesk: unknown verb 'frobnicate'");
  EXPECT_FALSE(has(unknown.text, "#tesk {"));  // no receipt
  // Options are parsed first, so the option error wins over the unknown verb.
  Answer both = tesk({"frobnicate", "--limit", "x"});
  EXPECT_EQ(both.exit, 4);
  EXPECT_EQ(both.lines.front(), "#tesk {\"v\":1,\"error\":\"--limit needs a number >= 0\"}");
}

TEST(BlackBox, OptionErrorsWriteTheErrorLineMessageAndUsage) {
  Answer a = tesk({"span", "--limit", "x"});
  EXPECT_EQ(a.exit, 4);
  ASSERT_GE(a.lines.size(), 4u);
  EXPECT_EQ(a.lines[0], "#tesk {\"v\":1,\"error\":\"--limit needs a number >= 0\"}");
  EXPECT_EQ(a.lines[1], "tesk: --limit needs a number >= 0");
  EXPECT_EQ(a.lines[2], "");
  EXPECT_EQ(a.lines[3].rfind("tesk — read", 0), 0u);
  Answer quote = tesk({"span", "--bogus\"flag"});
  EXPECT_EQ(quote.lines[0], "#tesk {\"v\":1,\"error\":\"unknown flag --bogus\\\"flag\"}");
}

// strace's every-verb run and the SDK test hold every report verb framed.
TEST(BlackBox, ReportVerbsAreFramed) {
  Answer api = tesk({"api"});
  EXPECT_EQ(api.exit, 0);
  expectFramed(api);
  EXPECT_TRUE(has(api.lines.front(), "\"q\":\"api\",\"rows_total\":1,\"rows_out\":1"));
  EXPECT_TRUE(has(api.lines.front(), "\"mode\":\"report\""));
  EXPECT_TRUE(has(tesk({"views"}).text, "CREATE VIEW tesk_message ("));
}

TEST(BlackBox, UnknownSourcesAreDeniedNotFaked) {
  Answer a = tesk({"span", "--src", "fax"});
  EXPECT_EQ(a.exit, 4);
  expectFramed(a);
  ASSERT_EQ(a.lines.size(), 3u);
  EXPECT_EQ(a.lines[1], "tesk: no readable source in --src fax");
  EXPECT_TRUE(has(a.lines[0], "\"denied\":[\"fax: no producer yet — see `tesk doctor`\"]"));
  Answer commas = tesk({"span", "--src", ",,"});
  EXPECT_EQ(commas.exit, 4);
  EXPECT_EQ(commas.lines[1], "tesk: no readable source in --src ");
}

// A home with a small chat.db (no -wal: opens "plain").
struct Home {
  tesk_test::TempHome home;
  Home() {
    auto db = tesk_test::createStore(home.file("Library/Messages/chat.db"), "chatdb.sql");
    tesk_test::exec(db.get(),
                    "INSERT INTO handle(ROWID,id,service) VALUES (1,'+14155550123','iMessage');"
                    "INSERT INTO chat(ROWID,guid,style,chat_identifier) VALUES "
                    "(1,'c1',45,'+14155550123');");
    tesk_test::Insert m(db.get(),
                        "INSERT INTO message(ROWID,guid,attributedBody,handle_id,date,is_from_me)"
                        " VALUES (?,?,?,1,?,?)");
    const double now = static_cast<double>(time(nullptr));
    for (int i = 1; i <= 5; ++i) {
      m.i(i)
          .t("g" + std::to_string(i))
          .b(tesk_test::attributedBody("note number " + std::to_string(i)));
      m.i(static_cast<int64_t>((now - 3600.0 * i - 978307200) * 1e9)).i(i % 2).run();
    }
    tesk_test::exec(db.get(),
                    "INSERT INTO chat_message_join(chat_id,message_id) VALUES "
                    "(1,1),(1,2),(1,3),(1,4),(1,5);");
  }
  std::string path() const { return home.path(); }
};

TEST(BlackBox, MessagesAnswerWithReceiptsAndExitCodes) {
  Home h;
  Answer a = tesk({"im"}, h.path());
  EXPECT_EQ(a.exit, 0) << a.text;
  expectFramed(a);
  EXPECT_TRUE(has(a.lines[0], "\"rows_total\":5,\"rows_out\":5"));
  EXPECT_TRUE(has(a.lines[0], "\"open\":\"plain\""));
  EXPECT_TRUE(has(a.lines[0], "default window 30d applied — pass --since to widen"));
  EXPECT_EQ(a.lines[1], "id\tts\twho\tdir\tkind\tgroup\ttext");
  EXPECT_TRUE(has(a.lines[2], "im:1\t"));  // newest first
  EXPECT_TRUE(has(a.lines[2], "\tnote number 1"));

  Answer none = tesk({"search", "nothing-like-this"}, h.path());
  EXPECT_EQ(none.exit, 2);
  expectFramed(none);

  Answer drift = tesk({"im", "--assert", "rows>=10"}, h.path());
  EXPECT_EQ(drift.exit, 3);
  ASSERT_GE(drift.lines.size(), 2u);
  EXPECT_EQ(drift.lines.back(), "tesk: assertion failed: rows>=10 (actual: rows=5.0)");
  EXPECT_EQ(drift.lines.front(), drift.lines[drift.lines.size() - 2]);

  Answer limited = tesk({"im", "--limit", "2"}, h.path());
  EXPECT_TRUE(has(limited.lines[0], "\"rows_total\":5,\"rows_out\":2,\"capped\":true"));
  EXPECT_TRUE(has(limited.lines[0], "\"next\":\"--since "));
  EXPECT_TRUE(has(limited.lines[0], " --cursor "));
}

// A rows answer names in `stale` the sources it read whose stores the doctor's rules call
// STALE, DEAD or DENIED, so `--assert fresh` can fail.
TEST(BlackBox, FreshHoldsWhatWasReadToTheDoctorsVerdicts) {
  Home h;  // messages an hour old
  auto mail = tesk_test::createStore(h.home.file("Library/Mail/V10/MailData/Envelope Index"),
                                     "mail-index.sql");
  const auto monthsAgo = static_cast<int64_t>(time(nullptr)) - 300 * 86400;
  tesk_test::exec(mail.get(),
                  "INSERT INTO messages (global_message_id, subject, mailbox, date_received) "
                  "VALUES (1, 1, 1, " +
                      std::to_string(monthsAgo) + ")");
  mail.reset();
  const struct {
    std::vector<std::string> args;
    int exit;
    std::string stale;  // the receipt's list, empty when it has none
  } cases[] = {
      {{"im", "--assert", "fresh"}, 0, ""},
      {{"mail", "--since", "5y", "--assert", "fresh"}, 3, R"(["mail"])"},  // a mirror gone quiet
      {{"cal", "--assert", "fresh"}, 3, R"(["cal"])"},  // the calendar is not on this Mac
      {{"span", "--src", "mail,im", "--since", "5y"}, 0, R"(["mail"])"},
  };
  for (const auto& c : cases) {
    Answer a = tesk(c.args, h.path());
    SCOPED_TRACE(a.text);
    EXPECT_EQ(a.exit, c.exit);
    ASSERT_GE(a.lines.size(), 3u);
    EXPECT_EQ(a.lines[0], a.lines[a.lines.size() - (c.exit == 3 ? 2 : 1)]);
    EXPECT_EQ(has(a.lines[0], "\"stale\":"), !c.stale.empty());
    if (c.stale.empty()) continue;
    EXPECT_TRUE(has(a.lines[0], "\"stale\":" + c.stale));
    if (c.exit == 3) {
      EXPECT_EQ(a.lines.back(), "tesk: assertion failed: fresh (actual: stale=" + c.stale + ")");
    }
  }
}

// The census, buckets and counts read no body, so they decode none, and the receipt
// says so; the rows answer on the same store decodes all five.
TEST(BlackBox, AnswersThatReadNoBodyDecodeNone) {
  Home h;
  for (std::vector<std::string> args :
       {std::vector<std::string>{"who"}, {"im", "--by", "day"}, {"span", "--by", "who"}}) {
    Answer a = tesk(args, h.path());
    EXPECT_EQ(a.exit, 0) << a.text;
    expectFramed(a);
    EXPECT_TRUE(has(a.lines[0], "\"decoded\":{\"n\":0,\"of\":0")) << args[0] << a.lines[0];
  }
  EXPECT_TRUE(has(tesk({"im"}, h.path()).lines[0], "\"decoded\":{\"n\":5,\"of\":5"));
  EXPECT_TRUE(has(tesk({"im", "--by", "day", "--grep", "number"}, h.path()).lines[0],
                  "\"decoded\":{\"n\":5,\"of\":5"));
}

TEST(BlackBox, SqlVerbAnswersAndRefusesWrites) {
  Home h;
  Answer count = tesk({"sql", "SELECT COUNT(*) AS n FROM tesk_message"}, h.path());
  EXPECT_EQ(count.exit, 0) << count.text;
  expectFramed(count);
  ASSERT_EQ(count.lines.size(), 4u);
  EXPECT_EQ(count.lines[1], "n");
  EXPECT_EQ(count.lines[2], "5");
  EXPECT_TRUE(has(count.lines[0], "\"decoded\":{\"n\":0,\"of\":0"));  // a count decodes nothing
  Answer head = tesk({"sql", "SELECT id FROM tesk_message", "--limit", "2"}, h.path());
  EXPECT_EQ(head.lines.size(), 5u) << head.text;
  EXPECT_TRUE(has(head.lines[0], "\"rows_total\":5,\"rows_out\":2,\"capped\":true")) << head.text;
  // The statement's table, from the message store alone, whatever --by and --src ask.
  Answer asked =
      tesk({"sql", "SELECT COUNT(*) AS n FROM tesk_message", "--by", "day", "--src", "im,cal"},
           h.path());
  EXPECT_EQ(asked.exit, 0) << asked.text;
  EXPECT_EQ(std::vector<std::string>(asked.lines.begin() + 1, asked.lines.end() - 1),
            std::vector<std::string>(count.lines.begin() + 1, count.lines.end() - 1));
  EXPECT_TRUE(has(asked.lines[0], "--src: `sql` reads the message store alone — not read: cal"));
  EXPECT_FALSE(has(asked.lines[0], "\"cal\""));
  // Refusals (every writing form, two statements) are reliability's SqlVerb test.
  EXPECT_EQ(tesk({"sql"}, h.path()).lines.front(), "tesk: `sql` needs a SELECT statement");
  EXPECT_EQ(tesk({"thread"}, h.path()).lines.front(), "tesk: `thread` needs --who");
}

// `sql` decodes while its statement runs, so its decode notes follow the statement.
TEST(BlackBox, SqlReceiptCarriesTheDecodeGate) {
  Home h;
  tesk_test::makeDB(h.home.file("Library/Messages/chat.db"),
                    "UPDATE message SET attributedBody = x'00112233445566778899aabbccddeeff' "
                    "WHERE ROWID IN (2, 4)");
  const std::string gate = "DECODE RATE BELOW GATE — 2 blobs unreadable";
  Answer bodies = tesk({"sql", "SELECT body FROM tesk_message"}, h.path());
  EXPECT_EQ(bodies.exit, 0) << bodies.text;
  expectFramed(bodies);
  EXPECT_TRUE(has(bodies.lines[0], "\"decoded\":{\"n\":3,\"of\":5")) << bodies.lines[0];
  EXPECT_TRUE(has(bodies.lines[0], gate)) << bodies.lines[0];
  EXPECT_TRUE(has(tesk({"im"}, h.path()).lines[0], gate));
  Answer count = tesk({"sql", "SELECT COUNT(*) FROM tesk_message"}, h.path());
  EXPECT_FALSE(has(count.lines[0], "DECODE RATE")) << count.lines[0];  // nothing decoded
}

TEST(BlackBox, MissingMessageStore) {
  tesk_test::TempHome empty;
  Answer only = tesk({"im"}, empty.path());
  EXPECT_EQ(only.exit, 5);
  expectFramed(only);
  EXPECT_EQ(only.lines[1],
            "tesk: cannot read " + empty.path() + "/Library/Messages/chat.db: no such file");
  Answer mixed = tesk({"span", "--src", "im,reminder"}, empty.path());
  EXPECT_EQ(mixed.exit, 2);
  expectFramed(mixed);
  EXPECT_TRUE(has(mixed.lines[0], "\"denied\":[\"im: cannot read "));
}

TEST(BlackBox, WhoMeReadsTheAccountFile) {
  Home h;
  std::ofstream(h.home.file(".harbend/account.json"))
      << R"({"email":"Me@Example.com","token":"t0k"})";
  Answer a = tesk({"who", "me"}, h.path());
  EXPECT_EQ(a.exit, 0) << a.text;
  expectFramed(a);
  ASSERT_EQ(a.lines.size(), 4u);
  EXPECT_EQ(a.lines[1], "tesk_id\thandles\tmessages\tin\tout\tfirst\tlast\tname");
  EXPECT_EQ(a.lines[2], "me\tme@example.com\t0\t0\t0\t\t\t");
  EXPECT_TRUE(has(a.lines[0], "\"open\":\"\"")) << "identity opens no message store";
  EXPECT_FALSE(has(a.lines[0], "\"per_source\"")) << a.lines[0];
  // No message store on this Mac: the owner is still known.
  tesk_test::TempHome bare;
  std::ofstream(bare.file(".harbend/account.json")) << R"({"email":"me@example.com","token":"t"})";
  Answer noStore = tesk({"who", "me"}, bare.path());
  EXPECT_EQ(noStore.exit, 0) << noStore.text;
  EXPECT_EQ(noStore.lines.at(2), a.lines[2]);
  Answer census = tesk({"who"}, h.path());
  EXPECT_EQ(census.exit, 0);
  EXPECT_EQ(census.lines[2].substr(0, 31), "+4155550123\t+14155550123\t5\t2\t3\t");
}

TEST(BlackBox, HealthVerbsOnAnEmptyHome) {
  tesk_test::TempHome empty;
  Answer doctor = tesk({"doctor"}, empty.path());
  expectFramed(doctor);
  EXPECT_EQ(doctor.exit, 3);  // the calendar mirror is not on this Mac: DEAD
  EXPECT_TRUE(has(doctor.lines[0], "\"stale\":["));
  Answer link = tesk({"link"}, empty.path());
  expectFramed(link);
  EXPECT_EQ(link.exit, 3);  // no Google account
}

// Every line valid UTF-8, every receipt (and error line) a JSON object after "#tesk ".
void expectLinesParse(const Answer& a) {
  for (const std::string& line : a.lines) {
    EXPECT_TRUE(TeskText::isValidUTF8(line)) << testing::PrintToString(line);
    if (line.rfind("#tesk ", 0) == 0) {
      const auto json = TeskJSONValue::parse(std::string_view(line).substr(6));
      EXPECT_TRUE(json && json->object()) << testing::PrintToString(line);
    }
  }
}

// Stores holding bytes that are not UTF-8 and control characters where text is
// expected, and arguments holding the same: every answer still parses line by line,
// and no stored text creates a line or a column.
TEST(BlackBox, HostileTextNeverBreaksALine) {
  tesk_test::TempHome home;
  const std::string latin1 = "caf\xE9@example.com";  // a Latin-1 handle
  {
    auto db = tesk_test::createStore(home.file("Library/Messages/chat.db"), "chatdb.sql");
    tesk_test::Insert handle(db.get(),
                             "INSERT INTO handle(ROWID,id,service) VALUES (?,?,'iMessage')");
    handle.i(1).t(latin1).run();
    handle.i(2).t("x\ty\r\nz").run();
    tesk_test::Insert chat(db.get(),
                           "INSERT INTO chat(ROWID,guid,style,chat_identifier) VALUES (?,?,45,?)");
    chat.i(1).t("c1").t(latin1).run();
    chat.i(2).t("c2").t("x\ty\r\nz").run();
    tesk_test::Insert m(db.get(),
                        "INSERT INTO message(ROWID,guid,text,handle_id,date,is_from_me) "
                        "VALUES (?,?,?,?,?,0)");
    const double now = static_cast<double>(time(nullptr));
    const std::string texts[] = {"tab\there\r\nnew line\x01\x1f", "caf\xE9 au lait\rend", "fine"};
    for (int i = 1; i <= 3; ++i) {
      m.i(i).t("g" + std::to_string(i)).t(texts[i - 1]).i(i == 2 ? 1 : 2);
      m.i(static_cast<int64_t>((now - 3600.0 * i - 978307200) * 1e9)).run();
    }
    tesk_test::exec(db.get(),
                    "INSERT INTO chat_message_join(chat_id,message_id) VALUES (2,1),(1,2),(2,3)");
  }
  // A Google account whose username holds a line feed, and a calendar error whose
  // NSError domain holds one: the doctor's cause and the link's fields.
  const std::string accounts = home.file("Library/Accounts/Accounts4.sqlite");
  tesk_test::makeDB(accounts, tesk_test::schema("accounts.ios-Accounts3.sql"));
  tesk_test::makeDB(accounts,
                    "INSERT INTO ZACCOUNTTYPE (Z_PK, ZACCOUNTTYPEDESCRIPTION) VALUES (1, 'Google');"
                    "INSERT INTO ZACCOUNT (Z_PK, ZACTIVE, ZAUTHENTICATED, ZACCOUNTTYPE, "
                    "ZIDENTIFIER, ZUSERNAME) VALUES (1, 1, 1, 1, 'ID', "
                    "'owner@gmail.com' || char(10) || 'verdict' || char(9) || 'COMPLETE');");
  const std::string calendar =
      home.file("Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb");
  tesk_test::makeDB(calendar, tesk_test::schema("calendar.sql"));
  tesk_test::makeDB(calendar, "INSERT INTO Store (ROWID, name) VALUES (1, 'Google');");
  tesk_test::execBlob(calendar, "INSERT INTO Error (store_owner_id, user_info) VALUES (1, ?)",
                      tesk_test::keyedError({{"Evil\nim\tA\tFRESH\r", 1}}));

  const std::vector<std::vector<std::string>> runs = {
      {"im"},
      {"im", "--format", "json"},
      {"im", "--format", "agg"},
      {"im", "--by", "who"},
      {"who"},
      {"sql", "SELECT who, body AS \"b\r\ny\" FROM tesk_message"},
      {"search", "caf\xE9\r\x01"},
      {"im", "--who", "x\ty\r\nz"},
      {"span", "--bogus\xE9\r\x01"},
      {"doctor"},
      {"link"},
  };
  for (const auto& args : runs) {
    SCOPED_TRACE(testing::PrintToString(args));
    const Answer a = tesk(args, home.path());
    expectLinesParse(a);
    if (args[0] != "span") expectFramed(a);
    if (args == std::vector<std::string>{"im"}) {
      EXPECT_EQ(a.lines.size(), 3u + 3u) << a.text;  // receipts, header, one line a row
    }
  }

  // The doctor's receipt counts its rows; the body holds exactly that many.
  const Answer doctor = tesk({"doctor"}, home.path());
  const auto receipt = TeskJSONValue::parse(std::string_view(doctor.lines[0]).substr(6));
  ASSERT_TRUE(receipt);
  const TeskJSONValue::Value* total = receipt->member("rows_total");
  ASSERT_TRUE(total && total->number());
  size_t rows = 0;
  while (2 + rows < doctor.lines.size() - 1 && !doctor.lines[2 + rows].empty()) ++rows;
  EXPECT_EQ(static_cast<double>(rows), *total->number()) << doctor.text;
  EXPECT_TRUE(has(doctor.text, "#   Google: Evil\\nim\\tA\\tFRESH\\r 1")) << doctor.text;

  const Answer link = tesk({"link"}, home.path());
  size_t verdicts = 0;
  for (const std::string& line : link.lines) verdicts += line.rfind("verdict\t", 0) == 0;
  EXPECT_EQ(verdicts, 1u) << link.text;
  EXPECT_TRUE(has(link.text, "account\towner@gmail.com\\nverdict\\tCOMPLETE\n")) << link.text;
}

}  // namespace
