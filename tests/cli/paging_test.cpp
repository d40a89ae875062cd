// Paging: following `next` from the first page to the last yields the complete
// answer, every row once and in order, whatever rows share an instant or a second.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "cli/TeskCLI.h"
#include "cli/TeskReports.h"
#include "cli/TeskTime.h"
#include "common/TeskTestHome.h"
#include "report/TeskJSONValue.h"
#include "sources/calendar/CalendarHome.h"
#include "store/TeskStore.h"

namespace {

constexpr double kT = 1790000000;  // a whole second, 2026-09-21T...Z

struct Answer {
  int exit = -1;
  std::string receipt;
  std::vector<std::string> rows;  // TSV rows, header left out
};

Answer run(const std::string& home, std::vector<std::string> args, double now) {
  TeskCLI::Environment env;
  env.home = home;
  env.tmpdir = home;
  env.zone = "UTC";
  env.clock = [now] { return now; };
  TeskOut out(TeskOut::Sink::memory);
  args.insert(args.begin(), "tesk");
  Answer a;
  a.exit = TeskCLI::run(args, out, env);
  std::string text = out.captured();
  std::vector<std::string> lines;
  for (size_t start = 0; start < text.size();) {
    size_t end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  EXPECT_GE(lines.size(), 2u) << text;
  if (lines.size() < 2) return a;
  EXPECT_EQ(lines.front(), lines.back());
  a.receipt = lines.front();
  for (size_t i = 1; i + 1 < lines.size(); ++i) {
    if (lines[i] != "id\tts\twho\tdir\tkind\tgroup\ttext") a.rows.push_back(lines[i]);
  }
  return a;
}

std::optional<std::string> nextOf(const std::string& receipt) {
  auto doc = TeskJSONValue::parse(receipt.substr(6));
  EXPECT_TRUE(doc) << receipt;
  const auto* next = doc ? doc->member("next") : nullptr;
  if (next == nullptr) return std::nullopt;
  return *next->string();
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
}

// A home with messages at the given instants (nanoseconds since 2001 are kept exactly),
// Chrome visits at the given instants (microseconds since 1601) and mail received at
// the given whole seconds.
struct Home {
  tesk_test::TempHome home;
  Home(const std::vector<double>& messages, const std::vector<double>& visits,
       const std::vector<double>& mail = {}) {
    if (!mail.empty()) {
      std::string sql =
          tesk_test::schema("mail-index.sql") +
          "INSERT INTO mailboxes(ROWID,url) VALUES (1,'imap://a/INBOX');"
          "INSERT INTO addresses(ROWID,address,comment) VALUES (1,'a@example.com','');"
          "INSERT INTO subjects(ROWID,subject) VALUES (1,'hello');";
      for (size_t i = 0; i < mail.size(); ++i) {
        const std::string id = std::to_string(i + 1);
        sql +=
            "INSERT INTO messages(ROWID,global_message_id,sender,subject,date_received,mailbox)"
            " VALUES (" +
            id + "," + id + ",1,1," + std::to_string(static_cast<int64_t>(mail[i])) + ",1);";
      }
      tesk_test::makeDB(home.file("Library/Mail/V10/MailData/Envelope Index"), sql);
    }
    auto db = tesk_test::createStore(home.file("Library/Messages/chat.db"), "chatdb.sql");
    tesk_test::exec(db.get(),
                    "INSERT INTO handle(ROWID,id,service) VALUES (1,'+14155550123','iMessage');"
                    "INSERT INTO chat(ROWID,guid,style,chat_identifier) VALUES "
                    "(1,'c1',45,'+14155550123');");
    tesk_test::Insert m(db.get(),
                        "INSERT INTO message(ROWID,guid,text,handle_id,date,is_from_me)"
                        " VALUES (?,?,?,1,?,?)");
    tesk_test::Insert join(db.get(),
                           "INSERT INTO chat_message_join(chat_id,message_id) VALUES (1,?)");
    tesk_test::exec(db.get(), "BEGIN");  // one sync for the store, not one per row
    for (size_t i = 0; i < messages.size(); ++i) {
      const auto id = static_cast<int64_t>(i + 1);
      const auto ns = static_cast<int64_t>(std::llround((messages[i] - kT) * 1e9)) +
                      static_cast<int64_t>(kT - 978307200) * 1000000000;
      m.i(id).t("g" + std::to_string(id)).t("message " + std::to_string(id)).i(ns).i(id % 2).run();
      join.i(id).run();
    }
    tesk_test::exec(db.get(), "COMMIT");
    if (visits.empty()) return;
    std::string sql =
        "CREATE TABLE urls(id INTEGER PRIMARY KEY, url LONGVARCHAR, title LONGVARCHAR);"
        "CREATE TABLE visits(id INTEGER PRIMARY KEY, url INTEGER NOT NULL, visit_time INTEGER);"
        "INSERT INTO urls VALUES (1, 'https://a.example/', 't');";
    for (size_t i = 0; i < visits.size(); ++i) {
      const auto us = static_cast<int64_t>(std::llround((visits[i] - kT) * 1e6)) +
                      static_cast<int64_t>(kT + 11644473600) * 1000000;
      sql += "INSERT INTO visits VALUES (" + std::to_string(i + 1) + ", 1, " + std::to_string(us) +
             ");";
    }
    tesk_test::makeDB(home.file("/Library/Application Support/Google/Chrome/Default/History"), sql);
  }
};

struct Case {
  const char* name;
  std::vector<double> messages, visits, mail;
};

std::vector<double> spread(double from, double step, int n) {
  std::vector<double> out;
  for (int i = 0; i < n; ++i) out.push_back(from + step * i);
  return out;
}

TEST(Paging, FollowingNextYieldsTheCompleteAnswerOnce) {
  const std::vector<Case> cases{
      {"fractions in one second", {kT + 0.1, kT + 0.5, kT + 0.9, kT + 5}, {}, {kT, kT + 1}},
      {"more rows than the limit at one exact instant",
       {kT - 1, kT, kT, kT, kT, kT, kT, kT, kT + 1},
       {},
       {kT, kT, kT}},
      {"several sources at one instant",
       {kT, kT, kT, kT + 0.5, kT - 0.000001},
       {kT, kT, kT, kT + 0.5, kT + 0.25},
       {kT, kT - 1, kT, kT}},
      {"a crowded second", spread(kT, 0.05, 20), spread(kT + 0.025, 0.05, 20), spread(kT, 1, 3)},
  };
  const double now = kT + 3600;
  for (const Case& c : cases) {
    Home h(c.messages, c.visits, c.mail);
    const std::vector<std::string> base{"span", "--src", "im,chrome,mail", "--since", "2d"};
    std::vector<std::string> all = base;
    all.insert(all.end(), {"--limit", "0", "--format", "tsv"});
    const Answer complete = run(h.home.path(), all, now);
    ASSERT_EQ(complete.rows.size(), c.messages.size() + c.visits.size() + c.mail.size()) << c.name;
    // Past the budget the rows go to the spill file as they pass: it holds that same
    // answer, and the aggregate counted on the way is the one --format agg gives.
    std::vector<std::string> tight = base;
    tight.insert(tight.end(), {"--budget", "1"});
    const Answer spilled = run(h.home.path(), tight, now);
    auto doc = TeskJSONValue::parse(spilled.receipt.substr(6));
    const auto* spill = doc ? doc->member("spill") : nullptr;
    ASSERT_TRUE(spill && spill->string()) << spilled.receipt;
    std::ifstream file(*spill->string());
    std::vector<std::string> spilledRows;
    for (std::string line; std::getline(file, line);) spilledRows.push_back(line);
    ASSERT_FALSE(spilledRows.empty());
    spilledRows.erase(spilledRows.begin());  // the header
    EXPECT_EQ(spilledRows, complete.rows) << c.name;
    std::vector<std::string> agg = base;
    agg.insert(agg.end(), {"--format", "agg"});
    ASSERT_GE(spilled.rows.size(), 2u);
    EXPECT_EQ(run(h.home.path(), agg, now).rows,
              std::vector<std::string>(spilled.rows.begin(), spilled.rows.end() - 2))
        << c.name;
    for (int limit : {1, 2, 3, 4, 7}) {
      std::vector<std::string> paged;
      std::vector<std::string> args = base;
      args.insert(args.end(), {"--limit", std::to_string(limit), "--format", "tsv"});
      // The clock moves between pages: the window must not move with it.
      double clock = now;
      for (int page = 0; page < 100; ++page, clock += 3600) {
        Answer a = run(h.home.path(), args, clock);
        ASSERT_EQ(a.exit, 0) << c.name << " limit " << limit << " page " << page << a.receipt;
        paged.insert(paged.end(), a.rows.begin(), a.rows.end());
        auto next = nextOf(a.receipt);
        if (!next) break;
        for (const std::string& w : words(*next)) args.push_back(w);
      }
      EXPECT_EQ(paged, complete.rows) << c.name << " limit " << limit;
    }
  }
}

// Newest first; at one instant the tie order is reminder, cal, mail, safari, arc,
// chrome, im, then ids longest first (the reverse of oldest-first answer order).
TEST(Paging, TiesAtOneInstantHaveOneFixedOrder) {
  Home h({kT, kT, kT}, {kT, kT}, std::vector<double>(10, kT));
  Answer a =
      run(h.home.path(),
          {"span", "--src", "im,chrome,mail", "--since", "2d", "--limit", "0", "--format", "tsv"},
          kT + 60);
  std::vector<std::string> ids;
  for (const std::string& row : a.rows) ids.push_back(row.substr(0, row.find('\t')));
  EXPECT_EQ(ids, (std::vector<std::string>{"mail:10", "mail:9", "mail:8", "mail:7", "mail:6",
                                           "mail:5", "mail:4", "mail:3", "mail:2", "mail:1",
                                           "chrome:2", "chrome:1", "im:3", "im:2", "im:1"}));
}

TEST(Paging, TheCursorNamesAnExactInstantAndTheDefaultWindowIsPinned) {
  Home h({kT + 0.1, kT + 0.5, kT + 0.9, kT + 5}, {});
  Answer first = run(h.home.path(), {"im", "--limit", "2"}, kT + 60);
  auto next = nextOf(first.receipt);
  ASSERT_TRUE(next);
  const std::string since = "--since " + TeskTime::exactString(kT + 60 - 2592000);
  EXPECT_EQ(next->rfind(since + " --cursor 2026-09-21T14:13:20.9", 0), 0u) << *next;
  EXPECT_EQ(next->substr(next->size() - 6), "Z,im:3") << *next;
  std::vector<std::string> args{"im", "--limit", "2"};
  for (const std::string& w : words(*next)) args.push_back(w);
  // A minute later: the rows in the same second as the last one shown still come.
  Answer second = run(h.home.path(), args, kT + 120);
  EXPECT_EQ(second.exit, 0);
  ASSERT_EQ(second.rows.size(), 2u);
  EXPECT_EQ(second.rows[0].substr(0, 5), "im:2\t");
  EXPECT_EQ(second.rows[1].substr(0, 5), "im:1\t");
  EXPECT_FALSE(nextOf(second.receipt));
  EXPECT_NE(second.receipt.find("\"per_source\":{\"im\":2}"), std::string::npos) << second.receipt;
}

// The words after `cal` (and `mail`, which reads them through the same filter) are
// the query, as for `search`: never a silently ignored word over every row.
TEST(Verbs, CalendarWordsAreTheQuery) {
  caltest::CalendarHome store;
  store.item(caltest::event("Dentist", "2026-09-22T09:00:00Z"));
  store.item(caltest::event("Flight", "2026-09-23T13:00:00Z"));
  const std::vector<std::string> window{"--since", "2026-09-01", "--until", "2026-10-01"};
  auto cal = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "cal");
    args.insert(args.end(), window.begin(), window.end());
    return run(store.home(), args, kT);
  };
  EXPECT_EQ(cal({}).rows.size(), 2u);
  Answer dentist = cal({"dentist"});
  ASSERT_EQ(dentist.rows.size(), 1u);
  EXPECT_NE(dentist.rows[0].find("\tDentist"), std::string::npos);
  EXPECT_EQ(cal({"nothing", "like", "this"}).exit, 2);
}

// `sql --limit 0` prints what the statement gives, past what memory holds too: the lines
// that wait in the spool come back the same and in order, wherever the cut falls, and a
// column named "" still takes its place in the header.
TEST(Paging, SqlLinesPastTheHeldBytesComeBackWhole) {
  Home h(spread(kT - 5000, 1, 400), {});
  TeskStore store(h.home.file("Library/Messages/chat.db"));
  const std::string statement = "SELECT 1 AS '', id, body FROM tesk_message ORDER BY ts DESC";
  auto lines = [&](size_t held) {
    TeskCLI::SqlAnswer a = TeskCLI::sqlAnswer(store, {}, statement, 0, h.home.path(), held);
    EXPECT_FALSE(a.error);
    EXPECT_EQ(a.rowsOut, 400);
    std::vector<std::string> all = a.lines;
    if (a.rest) {
      EXPECT_TRUE(a.rest->each([&](std::string_view l) { all.emplace_back(l); }));
    }
    EXPECT_EQ(a.rest != nullptr, held < size_t{1} << 20) << held;
    return all;
  };
  const std::vector<std::string> whole = lines(size_t{1} << 20);
  ASSERT_EQ(whole.size(), 401u);
  EXPECT_EQ(whole[0], "\tid\tbody");
  EXPECT_EQ(whole[1], "1\tim:400\tmessage 400");
  for (size_t held : {size_t{0}, size_t{100}, size_t{5000}}) EXPECT_EQ(lines(held), whole) << held;
}

}  // namespace
