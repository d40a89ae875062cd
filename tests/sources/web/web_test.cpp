#include "sources/web/TeskWeb.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>

#include "cli/TeskTime.h"
#include "common/TeskTestHome.h"

namespace {

using tesk_test::TempHome;
using TeskWeb::Source;

const std::string kChromePath = "/Library/Application Support/Google/Chrome/Default/History";
const std::string kArcPath = "/Library/Application Support/Arc/User Data/Default/History";
const std::string kSafariPath = "/Library/Safari/History.db";

std::string sample(const std::string& name) { return std::string(TESK_TEST_DATA) + "/" + name; }

// Copies a real sample into the home at `relative`; returns the full path.
std::string install(const TempHome& home, const std::string& relative, const std::string& name) {
  std::string to = home.file(relative);
  std::filesystem::copy_file(sample(name), to, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(
      to, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  return to;
}

const TeskRow* findRow(const TeskWeb::Result& r, const std::string& id) {
  for (const TeskRow& row : r.rows)
    if (row.id == id) return &row;
  return nullptr;
}

TEST(WebHost, Table) {
  const std::string sixty(60, 'x');
  const struct {
    std::string url, host;
  } cases[] = {
      {"https://user:pw@WWW.Example.COM:8443/path?q=1#f", "example.com"},
      {"http://start.ubuntu.com/10.04/Google/", "start.ubuntu.com"},
      {"http://host?x=1", "host"},
      {"http://host#frag", "host"},
      {"http://a@b@c.com/", "c.com"},  // the last "@" ends user information
      {"HTTP://WWW.www.x/", "www.x"},  // one prefix only
      {"http://wwwx.com/", "wwwx.com"},
      {"http://[::1]:80/", "["},                     // the port cut is at the first ":"
      {"http://us:er@Www.Host.org:1/", "host.org"},  // a ":" before the "@" is no port
      {"http://WWW./", ""},
      {"http://www/", "www"},
      {"ftp://x.org@/", ""},
      {"http://\xC3\x9C@WWW.\xC3\x9C"
       "BER.de:80/",
       "\xC3\xBC"
       "ber.de"},
      {"https:///path", ""},  // empty authority: no host
      {"https://", ""},
      {"", ""},
      {"about:blank", "about:blank"},
      {"data:text/html," + sixty, ("data:text/html," + sixty).substr(0, 60)},
      // 60 user-perceived characters: "é" written as e + U+0301 is one of them.
      {std::string(59, 'a') + "e\xCC\x81zz", std::string(59, 'a') + "e\xCC\x81"},
      {"javascript:void(0)", "javascript:void(0)"},
      // Broken UTF-8 is kept byte for byte; each bad byte counts as one character.
      {"x\xFF" + std::string(70, 'a'), "x\xFF" + std::string(58, 'a')},
      {"http://B\xC3\x9C"
       "CHER.de/",
       "b\xC3\xBC"
       "cher.de"},
  };
  for (const auto& c : cases) EXPECT_EQ(TeskWeb::host(c.url), c.host) << c.url;
}

TEST(WebEpochs, ChromiumMicrosecondsSince1601) {
  const struct {
    int64_t value;
    std::optional<double> unix;
  } cases[] = {
      {13350000000000000, 1705526400.0},
      {12946651391000000, 1302177791.0},  // Chrome 8 sample, 2011-04-07T12:03:11Z
      {0, std::nullopt},
      {11644473600000000, std::nullopt},  // exactly 1970: not a valid instant
      {11644473600000001, 0.000001},
      {1000, std::nullopt},  // 1601: before the unix epoch
      {-5, std::nullopt},
      {18902592000000000 - 1, 7258118399.999999},  // the last instant before 2200
      {18902592000000000, std::nullopt},
      {INT64_MAX, std::nullopt},
  };
  for (const auto& c : cases) {
    auto t = TeskWeb::chromiumInstant(c.value);
    ASSERT_EQ(t.has_value(), c.unix.has_value()) << c.value;
    if (t) {
      EXPECT_NEAR(*t, *c.unix, 1e-6) << c.value;
    }
  }
}

TEST(WebEpochs, WebKitSecondsSince2001KeepFraction) {
  const struct {
    double value;
    std::optional<double> unix;
  } cases[] = {
      {700000000.5, 1678307200.5},
      {531955468.829571, 1510262668.829571},
      {0, 978307200.0},  // 2001 itself is a real instant
      {-978307200.0, std::nullopt},
      {-978307199.5, 0.5},
      {7258118400.0 - 978307200.0 - 0.5, 7258118399.5},  // the last instant before 2200
      {7258118400.0 - 978307200.0, std::nullopt},        // 2200 is no visit's time
      {9.2e18, std::nullopt},
      {NAN, std::nullopt},
      {INFINITY, std::nullopt},
  };
  for (const auto& c : cases) {
    auto t = TeskWeb::webkitInstant(c.value);
    ASSERT_EQ(t.has_value(), c.unix.has_value()) << c.value;
    if (t) {
      EXPECT_DOUBLE_EQ(*t, *c.unix) << c.value;
    }
  }
}

TEST(WebSources, OnlyExistingFilesInTableOrder) {
  TempHome home;
  EXPECT_TRUE(TeskWeb::sources(home.path()).empty());
  tesk_test::writeFile(home.file(kSafariPath), "");
  tesk_test::writeFile(home.file(kChromePath), "");
  auto found = TeskWeb::sources(home.path());
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0].key, "chrome");
  EXPECT_EQ(found[0].path, home.path() + kChromePath);
  EXPECT_EQ(found[0].engine, Source::Engine::chromium);
  EXPECT_EQ(found[1].key, "safari");
  EXPECT_EQ(found[1].engine, Source::Engine::webkit);
}

// The real samples: every visit is read with its instant, and the counts agree
// with what plaso and hindsight count for the same files.
TEST(WebRead, RealSamplesAtTheirInstants) {
  TempHome home;
  install(home, kChromePath, "chrome/plaso_History-chrome8");
  install(home, kArcPath, "chrome/hindsight_History-profile01");
  install(home, kSafariPath, "safari/plaso_History.db");
  TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home.path());

  EXPECT_TRUE(r.denied.empty());
  EXPECT_EQ(r.perSource,
            (std::map<std::string, int64_t>{{"chrome", 69}, {"arc", 46}, {"safari", 25}}));
  EXPECT_EQ(r.excludedNoHost, 0);
  ASSERT_EQ(r.rows.size(), 140u);
  EXPECT_TRUE(std::is_sorted(r.rows.begin(), r.rows.end(),
                             [](const TeskRow& a, const TeskRow& b) { return a.ts < b.ts; }));

  const TeskRow* ubuntu = findRow(r, "chrome:1");
  ASSERT_NE(ubuntu, nullptr);
  EXPECT_EQ(TeskTime::isoString(ubuntu->ts), "2011-04-07T12:03:11Z");
  EXPECT_EQ(ubuntu->body, "Ubuntu Start Page \xC2\xB7 http://start.ubuntu.com/10.04/Google/");
  EXPECT_EQ(ubuntu->who, "start.ubuntu.com");
  EXPECT_EQ(ubuntu->teskID, "start.ubuntu.com");
  EXPECT_EQ(ubuntu->src, "chrome");
  EXPECT_EQ(ubuntu->dir, TeskRow::Direction::outgoing);
  EXPECT_EQ(ubuntu->kind, TeskRow::Kind::text);
  EXPECT_FALSE(ubuntu->start.has_value());

  const TeskRow* forensics = findRow(r, "arc:8");
  ASSERT_NE(forensics, nullptr);
  EXPECT_NEAR(forensics->ts, 1370406535.498622, 2e-6);  // 2013-06-05T04:28:55.498622Z
  EXPECT_EQ(forensics->who, "en.wikipedia.org");

  // A visit with no title: the URL alone, and the fraction of the REAL kept.
  const TeskRow* facebook = findRow(r, "safari:37");
  ASSERT_NE(facebook, nullptr);
  EXPECT_NEAR(facebook->ts, 1510262668.829571, 1e-6);
  EXPECT_EQ(TeskTime::isoString(facebook->ts), "2017-11-09T21:24:28Z");
  EXPECT_EQ(facebook->body, "http://facebook.com/");
  EXPECT_EQ(facebook->who, "facebook.com");

  ASSERT_EQ(r.horizons.count("chrome"), 1u);
  EXPECT_DOUBLE_EQ(r.horizons["chrome"].from, 1302177791.0);
  EXPECT_NEAR(r.horizons["safari"].to, 1510262806.056743, 1e-6);
  ASSERT_TRUE(r.horizon.has_value());
  EXPECT_DOUBLE_EQ(r.horizon->from, 1302177791.0);
  EXPECT_DOUBLE_EQ(r.horizon->to, r.horizons["safari"].to);
}

TEST(WebRead, NewerChromeSchema) {
  TempHome home;
  install(home, kChromePath, "chrome/hindsight_History-profile60");
  TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home.path());
  EXPECT_TRUE(r.denied.empty());
  EXPECT_EQ(r.perSource["chrome"], 61);
  const TeskRow* row = findRow(r, "chrome:6");
  ASSERT_NE(row, nullptr);
  EXPECT_NEAR(row->ts, 1501970816.507863, 2e-6);  // 2017-08-05T22:06:56.507863Z
  EXPECT_EQ(
      row->body,
      "Computer forensics - Wikipedia \xC2\xB7 https://en.wikipedia.org/wiki/Computer_forensics");
}

// Chrome and Arc are present but unreadable; with only={safari} they must be
// neither opened nor denied.
TEST(WebRead, OnlySkipsOtherSourcesWithoutDenial) {
  TempHome home;
  tesk_test::writeFile(home.file(kChromePath), "not a database at all, just bytes");
  tesk_test::makeDB(home.file(kArcPath), "CREATE TABLE unrelated(x);");
  install(home, kSafariPath, "safari/plaso_History.db");

  TeskWeb::Result only = TeskWeb::read({}, std::set<std::string>{"safari"}, home.path());
  EXPECT_TRUE(only.denied.empty());
  EXPECT_EQ(only.perSource, (std::map<std::string, int64_t>{{"safari", 25}}));
  EXPECT_EQ(only.horizons.size(), 1u);

  TeskWeb::Result all = TeskWeb::read({}, std::nullopt, home.path());
  ASSERT_EQ(all.denied.size(), 2u);
  EXPECT_TRUE(all.denied[0].starts_with("chrome: ")) << all.denied[0];
  EXPECT_EQ(all.denied[1], "arc: schema moved \xE2\x80\x94 sql: no such table: visits");
  EXPECT_EQ(all.perSource["safari"], 25);  // the others do not stop it
  EXPECT_EQ(all.perSource["arc"], 0);
}

// Visits at the epoch boundaries, empty hosts and a window: the spans cover every
// valid visit, the window and the host rule only what is emitted.
class WebSynthetic : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = install(home_, kChromePath, "chrome/plaso_History-chrome8");
    tesk_test::DB db = tesk_test::openDB(path_);
    tesk_test::exec(db.get(),
                    "DELETE FROM visits;"
                    "INSERT INTO urls(id, url, title, last_visit_time) VALUES"
                    " (900, 'https:///nohost', 'empty authority', 0),"
                    " (901, 'https://www.R\xC3\xA9sum\xC3\xA9.example/cv', NULL, 0),"
                    " (902, 'about:blank', '', 0);"
                    // 0 and pre-1970 are no instants; 1 µs after 1970 is one.
                    "INSERT INTO visits(id, url, visit_time) VALUES"
                    " (1, 1, 0), (2, 1, 1000), (3, 1, 11644473600000000),"
                    " (4, 1, 11644473600000001),"
                    " (5, 900, 13350000000000000),"    // 2024-01-17T21:20:00Z, no host
                    " (6, 901, 13350000060000000),"    // +60 s
                    " (7, 902, 13350000120000000),"    // +120 s
                    " (8, 900, 13360000000000000);");  // later, no host, outside window
  }
  TeskWeb::Result read(const TeskIMessage::Filter& f) {
    return TeskWeb::read(f, std::nullopt, home_.path());
  }
  TempHome home_;
  std::string path_;
};

TEST_F(WebSynthetic, BoundariesSpansAndNoHost) {
  TeskWeb::Result r = read({});
  EXPECT_TRUE(r.denied.empty());
  ASSERT_EQ(r.rows.size(), 3u);
  EXPECT_EQ(r.rows[0].id, "chrome:4");
  EXPECT_EQ(r.rows[0].body, "Ubuntu Start Page \xC2\xB7 http://start.ubuntu.com/10.04/Google/");
  EXPECT_EQ(r.excludedNoHost, 2);
  ASSERT_TRUE(r.horizons.count("chrome"));
  EXPECT_NEAR(r.horizons["chrome"].from, 0.000001, 1e-9);
  EXPECT_DOUBLE_EQ(r.horizons["chrome"].to, 1715526400.0);
  // Title NULL -> URL alone; title '' -> URL alone; host lowered, "www." dropped.
  EXPECT_EQ(r.rows[1].body, "https://www.R\xC3\xA9sum\xC3\xA9.example/cv");
  EXPECT_EQ(r.rows[1].who, "r\xC3\xA9sum\xC3\xA9.example");
  EXPECT_EQ(r.rows[2].body, "about:blank");
  EXPECT_EQ(r.rows[2].who, "about:blank");
}

TEST_F(WebSynthetic, WindowNarrowsRowsNotSpans) {
  TeskIMessage::Filter f;
  f.since = 1705526400.0;
  f.until = 1705526400.0 + 7 * 86400;
  TeskWeb::Result r = read(f);
  ASSERT_EQ(r.rows.size(), 2u);
  EXPECT_EQ(r.rows[0].id, "chrome:6");
  EXPECT_EQ(r.excludedNoHost, 1);  // visit 8 is outside the window, not counted
  EXPECT_NEAR(r.horizons["chrome"].from, 0.000001, 1e-9);
  EXPECT_DOUBLE_EQ(r.horizons["chrome"].to, 1715526400.0);
  EXPECT_EQ(r.horizon, r.horizons["chrome"]);
  EXPECT_EQ(r.perSource["chrome"], 2);
}

// A window past the newest visit holds no row and reads none, yet the receipt's spans
// and counts are those of any window; one that touches the span's end reads it, and a
// moved schema is named whether the window meets any visit or not.
TEST_F(WebSynthetic, WindowBeyondTheSpan) {
  const TeskWeb::Result whole = read({});
  TeskIMessage::Filter f;
  f.since = 1715526400.0 + 1;  // a second after visit 8, the newest
  TeskWeb::Result r = read(f);
  EXPECT_TRUE(r.denied.empty());
  EXPECT_TRUE(r.rows.empty());
  EXPECT_EQ(r.excludedNoHost, 0);
  EXPECT_EQ(r.horizons, whole.horizons);
  EXPECT_EQ(r.noInstant, whole.noInstant);
  EXPECT_EQ(r.perSource["chrome"], 0);
  f.since = 1715526400.0;  // visit 8 itself: read, and left out for want of a host
  EXPECT_EQ(read(f).excludedNoHost, 1);

  f.since = 1715526400.0 + 1;
  tesk_test::DB db = tesk_test::openDB(path_);
  tesk_test::exec(db.get(), "ALTER TABLE urls RENAME COLUMN title TO page_title;");
  r = read(f);
  ASSERT_EQ(r.denied.size(), 1u);
  EXPECT_EQ(r.denied[0], "chrome: schema moved \xE2\x80\x94 sql: no such column: u.title");
  EXPECT_EQ(r.horizons, whole.horizons);
}

TEST_F(WebSynthetic, Selectors) {
  const auto ids = [](const TeskWeb::Result& r) {
    std::vector<std::string> out;
    for (const TeskRow& row : r.rows) out.push_back(row.id);
    return out;
  };
  struct Case {
    const char* name;
    TeskIMessage::Filter filter;
    std::vector<std::string> ids;
  };
  const std::vector<std::string> all = {"chrome:4", "chrome:6", "chrome:7"};
  std::vector<Case> cases;
  cases.push_back({"everything", {}, all});
  {
    TeskIMessage::Filter f;
    f.who = "UBUNTU";  // host, case-insensitive
    cases.push_back({"who", f, {"chrome:4"}});
  }
  {
    TeskIMessage::Filter f;
    f.who = "";  // empty who means everyone
    cases.push_back({"empty who", f, all});
  }
  {
    TeskIMessage::Filter f;
    f.query = "resume";  // diacritic- and case-insensitive over the body
    cases.push_back({"query", f, {"chrome:6"}});
  }
  {
    TeskIMessage::Filter f;
    f.grep = TeskRegex::compile("^about:");
    cases.push_back({"grep", f, {"chrome:7"}});
  }
  {
    TeskIMessage::Filter f;
    f.direction = TeskRow::Direction::incoming;
    cases.push_back({"incoming", f, {}});
  }
  {
    TeskIMessage::Filter f;
    f.direction = TeskRow::Direction::outgoing;
    cases.push_back({"outgoing", f, all});
  }
  for (const Case& c : cases) {
    TeskWeb::Result r = read(c.filter);
    const std::vector<std::string>& want = c.ids;
    EXPECT_EQ(ids(r), want) << c.name;
    EXPECT_EQ(r.horizons.count("chrome"), 1u) << c.name << ": spans precede selectors";
  }
}

// Rows of all sources come out ascending; equal instants keep source order
// (chrome before arc before safari), and a store whose times are stored as text
// (so SQLite orders them after every number) still lands in time order.
// One visit whose time is no instant (a corrupt field, a blob, INT64_MAX, year 2300)
// is neither a row nor part of a horizon, with or without a window, and is counted
// in a note: the horizon stays what the real visits make it.
TEST(WebRead, VisitWithoutAnInstantMovesNoHorizon) {
  struct Store {
    const char* key;
    std::string relative, sample, table, visit;
  };
  const Store stores[] = {
      {"chrome", kChromePath, "chrome/plaso_History-chrome8", "visits",
       "INSERT INTO visits(id, url, visit_time) VALUES (9000, 1, {})"},
      {"safari", kSafariPath, "safari/plaso_History.db", "history_visits",
       "INSERT INTO history_visits(id, history_item, visit_time) VALUES "
       "(9000, (SELECT MIN(id) FROM history_items), {})"},
  };
  const std::map<std::string, std::vector<std::string>> bad = {
      {"chrome",
       {"9223372036854775807", "'not a time'", "x'01'",
        std::to_string(int64_t{21000000000000000})}},                    // 2300 in µs since 1601
      {"safari", {"9.2e18", "'not a time'", "x'01'", "10000000000.0"}},  // 2317
  };
  TeskIMessage::Filter window;
  window.since = 0;
  window.until = 4102444800;  // 2100: a window that holds every real visit
  for (const Store& s : stores) {
    for (const TeskIMessage::Filter& f : {TeskIMessage::Filter{}, window}) {
      TempHome clean;
      install(clean, s.relative, s.sample);
      const TeskWeb::Result before = TeskWeb::read(f, std::nullopt, clean.path());
      ASSERT_TRUE(before.horizon.has_value());
      for (const std::string& value : bad.at(s.key)) {
        SCOPED_TRACE(std::string(s.key) + " " + value + (f.since ? " windowed" : ""));
        TempHome home;
        const std::string path = install(home, s.relative, s.sample);
        {
          tesk_test::DB db = tesk_test::openDB(path);
          std::string sql = s.visit;
          sql.replace(sql.find("{}"), 2, value);
          tesk_test::exec(db.get(), sql);
        }
        const TeskWeb::Result r = TeskWeb::read(f, std::nullopt, home.path());
        EXPECT_TRUE(r.denied.empty());
        EXPECT_EQ(r.rows.size(), before.rows.size());
        EXPECT_EQ(r.horizon, before.horizon);
        EXPECT_EQ(r.horizons.at(s.key), before.horizons.at(s.key));
        EXPECT_EQ(r.noInstant.at(s.key), before.noInstant.at(s.key) + 1);
        const std::vector<std::string> notes = TeskWeb::notes(r);
        ASSERT_EQ(notes.size(), 1u);
        EXPECT_EQ(notes[0], std::string(s.key) + ": " + std::to_string(r.noInstant.at(s.key)) +
                                " visit(s) whose time is no instant (missing, not a number, "
                                "before 1970 or after 2200) left out of rows and horizon");
      }
    }
  }
}

TEST(WebRead, SourcesMergedByTimeStably) {
  TempHome home;
  const std::string sql =
      "CREATE TABLE urls(id INTEGER PRIMARY KEY, url LONGVARCHAR, title LONGVARCHAR);"
      "CREATE TABLE visits(id INTEGER PRIMARY KEY, url INTEGER NOT NULL, visit_time INTEGER);"
      "INSERT INTO urls VALUES (1, 'https://a.example/', 't');";
  tesk_test::makeDB(home.file(kChromePath),
                    sql +
                        "INSERT INTO visits VALUES (1, 1, 13350000000000000),"
                        " (2, 1, 13350000002000000), (3, 1, '13350000001000000');");
  tesk_test::makeDB(home.file(kArcPath), sql +
                                             "INSERT INTO visits VALUES (1, 1, 13350000000000000),"
                                             " (2, 1, 13350000001500000);");
  TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home.path());
  std::vector<std::string> ids;
  for (const TeskRow& row : r.rows) ids.push_back(row.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"chrome:1", "arc:1", "chrome:3", "arc:2", "chrome:2"}));
}

TEST(WebRead, NoHistoryAtAllIsNoDenial) {
  TempHome home;
  TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home.path());
  EXPECT_TRUE(r.rows.empty());
  EXPECT_TRUE(r.denied.empty());
  EXPECT_TRUE(r.perSource.empty());
  EXPECT_FALSE(r.horizon.has_value());
}

// Something that exists at the history path but cannot be opened even through a
// snapshot (here a directory) is denied with the store's own words.
TEST(WebRead, UnopenableStoreIsDeniedOthersRead) {
  TempHome home;
  std::string chrome = home.file(kChromePath);
  std::filesystem::create_directories(chrome);
  install(home, kSafariPath, "safari/plaso_History.db");
  TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home.path());
  ASSERT_EQ(r.denied.size(), 1u);
  EXPECT_TRUE(r.denied[0].starts_with("chrome: cannot read " + chrome + ": ")) << r.denied[0];
  EXPECT_FALSE(r.perSource.contains("chrome"));
  EXPECT_EQ(r.perSource["safari"], 25);
}

TEST(WebRead, UnreadableStoreIsDeniedOthersRead) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads any file";
  TempHome home;
  std::string chrome = install(home, kChromePath, "chrome/plaso_History-chrome8");
  install(home, kSafariPath, "safari/plaso_History.db");
  std::filesystem::permissions(chrome, std::filesystem::perms::none);
  TeskWeb::Result r = TeskWeb::read({}, std::nullopt, home.path());
  ASSERT_EQ(r.denied.size(), 1u);
  EXPECT_EQ(r.denied[0], "chrome: cannot read " + chrome +
                             ": permission denied \xE2\x80\x94 grant Full Disk Access to this "
                             "binary's parent process");
  EXPECT_EQ(r.perSource["safari"], 25);
}

}  // namespace
