// Whole demo homes at small scale: the shapes each reader depends on, the live
// -wal files, determinism, the Google link states, and the binary's refusals.
#include <gtest/gtest.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unicode/ucnv.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Home.h"
#include "Sqlite.h"

namespace fs = std::filesystem;

namespace demohome {
namespace {

constexpr int64_t kNow = 1795000000;  // 2026-11-18T11:06:40Z

class TempDir {
 public:
  TempDir() {
    std::string t = (fs::temp_directory_path() / "tesk-demohome-test-XXXXXX").string();
    path_ = ::mkdtemp(t.data()) ? t : "";
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Reads a store the way a reader does: read-only URI, so the -wal is seen.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    sqlite3* raw = nullptr;
    sqlite3_open_v2(("file:" + path + "?mode=ro").c_str(), &raw,
                    SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    db_.reset(raw);
  }
  double num(const std::string& sql) const {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(db_.get()) << " in " << sql;
      sqlite3_finalize(st);
      return -1;
    }
    double v = sqlite3_step(st) == SQLITE_ROW ? sqlite3_column_double(st, 0) : -1;
    sqlite3_finalize(st);
    return v;
  }
  std::vector<std::vector<std::string>> rows(const std::string& sql) const {
    std::vector<std::vector<std::string>> out;
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(db_.get()) << " in " << sql;
    }
    while (st && sqlite3_step(st) == SQLITE_ROW) {
      std::vector<std::string> row;
      for (int i = 0; i < sqlite3_column_count(st); ++i) {
        const void* p = sqlite3_column_blob(st, i);
        row.emplace_back(p ? std::string(static_cast<const char*>(p),
                                         static_cast<size_t>(sqlite3_column_bytes(st, i)))
                           : "");
      }
      out.push_back(std::move(row));
    }
    sqlite3_finalize(st);
    return out;
  }

 private:
  struct Closer {
    void operator()(sqlite3* d) const { sqlite3_close_v2(d); }
  };
  std::unique_ptr<sqlite3, Closer> db_;
};

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

Options smallOptions(const std::string& target, uint64_t rng = 7, Link link = Link::complete) {
  Options o;
  o.target = target;
  o.scale = Scale::small;
  o.now = kNow;
  o.rng = rng;
  o.link = link;
  o.zone = "America/Los_Angeles";
  return o;
}

class DemoHome : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new TempDir();
    generate(smallOptions(dir_->path()), nullptr);
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }
  static std::string at(const std::string& rel) { return dir_->path() + "/" + rel; }
  static std::string only(const std::string& rel,
                          const std::string& name) {  // the one match under a folder
    for (const auto& e : fs::recursive_directory_iterator(at(rel))) {
      if (e.path().filename() == name) return e.path().string();
    }
    return "";
  }
  static TempDir* dir_;
};
TempDir* DemoHome::dir_ = nullptr;

TEST_F(DemoHome, MessagesStoreHasTheMeasuredShares) {
  Reader r(at("Library/Messages/chat.db"));
  struct Share {
    const char* what;
    std::string sql;
    double lo, hi;
  };
  const std::string n = "(SELECT COUNT(*) FROM message)";
  const std::vector<Share> shares = {
      {"rows", "SELECT COUNT(*) FROM message", 2000, 2000},
      {"blobs", "SELECT 1.0*SUM(attributedBody IS NOT NULL)/" + n + " FROM message", 0.975, 0.99},
      {"text column", "SELECT 1.0*SUM(text IS NOT NULL)/" + n + " FROM message", 0.011, 0.014},
      {"text without blob", "SELECT SUM(text IS NOT NULL AND attributedBody IS NULL) FROM message",
       1, 5},
      {"tapbacks",
       "SELECT 1.0*SUM(associated_message_type BETWEEN 2000 AND 3007)/" + n + " FROM message", 0.06,
       0.067},
      {"file transfers not from me",
       "SELECT SUM(associated_message_type=1000 AND is_from_me=0) FROM message", 0, 0},
      {"file transfers", "SELECT SUM(associated_message_type=1000) FROM message", 2, 10},
      {"handle_id 0", "SELECT 1.0*SUM(handle_id=0)/" + n + " FROM message", 0.115, 0.133},
      {"group chats", "SELECT 1.0*SUM(style=43)/COUNT(*) FROM chat", 0.2, 0.25},
      {"filtered chats", "SELECT SUM(is_filtered=1) FROM chat", 1, 10},
      {"hidden attachments", "SELECT 1.0*SUM(hide_attachment)/COUNT(*) FROM attachment", 0.25,
       0.45},
      {"unread",
       "SELECT SUM(item_type=0 AND is_read=0 AND is_from_me=0 AND is_finished=1 AND "
       "is_system_message=0) FROM message",
       6, 20},
      {"unread by is_read alone is far more",
       "SELECT SUM(is_read=0) > 10*SUM(item_type=0 AND is_read=0 AND is_from_me=0) FROM message", 1,
       1},
      {"whole-second dates", "SELECT SUM(date > 0 AND date < 1000000000000) FROM message", 2, 2},
      {"NULL dates", "SELECT SUM(date IS NULL) FROM message", 2, 2},
      {"zero dates", "SELECT SUM(date = 0) FROM message", 2, 2},
      {"orphans",
       "SELECT COUNT(*) FROM message m WHERE NOT EXISTS (SELECT 1 FROM chat_message_join j WHERE "
       "j.message_id=m.ROWID)",
       3, 40},
      {"in two chats",
       "SELECT COUNT(*) FROM (SELECT message_id FROM chat_message_join GROUP BY 1 HAVING "
       "COUNT(*)>1)",
       2, 2},
      {"edited", "SELECT SUM(date_edited IS NOT NULL) FROM message", 3, 20},
      {"tapbacks point at messages",
       "SELECT SUM(associated_message_guid NOT LIKE 'p:0/%') FROM message WHERE "
       "associated_message_type >= 2000",
       0, 0},
      {"newest message within a day of now",
       "SELECT " + std::to_string(kNow - 978307200) +
           " - MAX(date)/1e9 FROM message WHERE date > 1e12",
       0, 86400},
      {"span about three years",
       "SELECT (MAX(date)-MIN(date))/1e9/86400 FROM message WHERE date > 1e12", 900, 1100},
      {"spellings of one person",
       "SELECT COUNT(*) FROM handle WHERE id IN "
       "('+14155550123','4155550123','jordan.lee@example.com')",
       3, 3},
  };
  for (const auto& s : shares) {
    const double v = r.num(s.sql);
    EXPECT_GE(v, s.lo) << s.what;
    EXPECT_LE(v, s.hi) << s.what;
  }
}

TEST_F(DemoHome, AttachmentBodiesAreReplacementCharacters) {
  Reader r(at("Library/Messages/chat.db"));
  const auto rows = r.rows(
      "SELECT m.attributedBody FROM message m JOIN message_attachment_join j ON "
      "j.message_id=m.ROWID "
      "JOIN attachment a ON a.ROWID=j.attachment_id WHERE a.hide_attachment=0 AND "
      "m.associated_message_type=0 LIMIT 50");
  ASSERT_FALSE(rows.empty());
  for (const auto& row : rows) {
    EXPECT_NE(row[0].find("\xEF\xBF\xBC"), std::string::npos);
    EXPECT_NE(row[0].find("__kIMFileTransferGUIDAttributeName"), std::string::npos);
  }
}

// A live store: the read-only URI sees every row, the database file alone does not.
TEST_F(DemoHome, LiveStoresKeepRowsInTheirWal) {
  struct Live {
    std::string rel, count;
    double all, walOnly;
  };
  const std::vector<Live> stores = {
      {"Library/Messages/chat.db", "SELECT COUNT(*) FROM message", 2000, 25},
      {"Library/Application Support/Google/Chrome/Default/History", "SELECT COUNT(*) FROM visits",
       500, 20},
      {"Library/Group Containers/group.com.apple.notes/NoteStore.sqlite",
       "SELECT COUNT(*) FROM ZICCLOUDSYNCINGOBJECT", 40, 3},
  };
  for (const auto& s : stores) {
    SCOPED_TRACE(s.rel);
    struct stat st {};
    ASSERT_EQ(::stat((at(s.rel) + "-wal").c_str(), &st), 0);
    EXPECT_GT(st.st_size, 0);
    EXPECT_EQ(Reader(at(s.rel)).num(s.count), s.all);
    EXPECT_EQ(Reader(at(s.rel)).rows("PRAGMA journal_mode"),
              (std::vector<std::vector<std::string>>{{"wal"}}));
    TempDir copy;
    fs::copy_file(at(s.rel), copy.path() + "/db");
    EXPECT_EQ(Reader(copy.path() + "/db").num(s.count), s.all - s.walOnly);
  }
  // Stores that are not live leave no -wal behind.
  EXPECT_FALSE(fs::exists(at("Library/Mail/V10/MailData/Envelope Index-wal")));
}

TEST_F(DemoHome, MailFilesFollowTheIndexLayout) {
  Reader r(at("Library/Mail/V10/MailData/Envelope Index"));
  const double rows = r.num("SELECT COUNT(*) FROM messages");
  EXPECT_EQ(rows, 300);
  std::set<int64_t> onDisk;
  int partial = 0;
  for (const auto& e : fs::recursive_directory_iterator(at("Library/Mail/V10"))) {
    const std::string name = e.path().filename().string();
    if (name.size() < 5 || name.substr(name.size() - 5) != ".emlx") continue;
    const bool isPartial = name.find(".partial.emlx") != std::string::npos;
    partial += isPartial;
    const int64_t id = std::stoll(name);
    onDisk.insert(id);
    // Directory: id/1000's digits reversed, one level each, then Messages.
    std::string expect = "Messages";
    for (int64_t q = id / 1000; id >= 1000 && q > 0; q /= 10)
      expect = std::to_string(q % 10) + "/" + expect;
    const std::string dir = e.path().parent_path().string();
    EXPECT_EQ(dir.substr(dir.size() - expect.size()), expect) << name;
    EXPECT_NE(dir.find("/Data/"), std::string::npos);
    // Count line, then exactly that many bytes of message, then Mail's plist.
    const std::string bytes = slurp(e.path().string());
    const size_t nl = bytes.find('\n');
    ASSERT_NE(nl, std::string::npos);
    ASSERT_LE(nl, 32u);
    const size_t count = std::stoull(bytes.substr(0, nl));
    EXPECT_EQ(bytes.substr(0, nl).find_first_not_of("0123456789 "), std::string::npos);
    ASSERT_LT(nl + 1 + count, bytes.size());
    EXPECT_EQ(bytes.compare(nl + 1 + count, 5, "<?xml"), 0) << name;
    EXPECT_EQ(bytes.find("<?xml"), nl + 1 + count) << name;
  }
  EXPECT_EQ(static_cast<double>(onDisk.size()), rows - 2);  // two bodies never arrived
  EXPECT_GT(partial, 80);
  EXPECT_LT(partial, 170);
  const std::vector<std::pair<std::string, double>> facts = {
      {"SELECT COUNT(*) FROM messages m JOIN mailboxes b ON b.ROWID=m.mailbox WHERE b.url LIKE "
       "'%/INBOX' OR b.url LIKE '%Sent%20Mail'",
       0},
      {"SELECT COUNT(*) FROM messages m JOIN mailboxes b ON b.ROWID=m.mailbox WHERE b.url LIKE "
       "'%/%5BGmail%5D/All%20Mail'",
       298},
      {"SELECT COUNT(*) >= 5 FROM labels l JOIN mailboxes b ON b.ROWID=l.mailbox_id WHERE b.url "
       "LIKE '%Sent%20Mail'",
       1},
      {"SELECT COUNT(*) >= 3 FROM (SELECT message_id FROM labels GROUP BY 1 HAVING COUNT(*) > 1)",
       1},
      {"SELECT COUNT(*) >= 4 FROM (SELECT message FROM recipients GROUP BY 1 HAVING COUNT(*) = 2)",
       1},
      {"SELECT COUNT(*) FROM messages WHERE date_received BETWEEN 1922572800 AND 1922659199",
       1},  // 2030-12-04
      {"SELECT COUNT(*) FROM messages WHERE date_sent = 2147483647", 2},
      {"SELECT COUNT(*) FROM messages m JOIN mailboxes b ON b.ROWID=m.mailbox WHERE b.url LIKE "
       "'%Spam'",
       2},
  };
  for (const auto& [sql, want] : facts) EXPECT_EQ(r.num(sql), want) << sql;
  // The URL authority is the account directory's name: the only link to the files.
  const auto url = r.rows("SELECT url FROM mailboxes WHERE url LIKE '%All%20Mail'");
  ASSERT_EQ(url.size(), 1u);
  const std::string account = url[0][0].substr(7, url[0][0].find('/', 7) - 7);
  EXPECT_TRUE(fs::is_directory(at("Library/Mail/V10/" + account + "/[Gmail].mbox/All Mail.mbox")));
}

std::string decodeBase64(const std::string& in) {
  std::string out;
  int bits = 0, value = 0;
  for (char ch : in) {
    const char* table = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const char* p = ch ? std::strchr(table, ch) : nullptr;
    if (!p) continue;
    value = (value << 6) | static_cast<int>(p - table);
    if ((bits += 6) >= 8) {
      bits -= 8;
      out += static_cast<char>((value >> bits) & 0xFF);
    }
  }
  return out;
}

std::string decodeQuotedPrintable(const std::string& in) {
  std::string out;
  for (size_t i = 0; i < in.size(); ++i) {
    if (in[i] != '=') {
      out += in[i];
    } else if (in.compare(i + 1, 2, "\r\n") == 0) {
      i += 2;
    } else if (i + 2 < in.size()) {
      out += static_cast<char>(std::stoi(in.substr(i + 1, 2), nullptr, 16));
      i += 2;
    }
  }
  return out;
}

std::string toUtf8(const std::string& bytes, const std::string& charset) {
  UErrorCode err = U_ZERO_ERROR;
  std::string out(bytes.size() * 4 + 16, '\0');
  const int32_t n =
      ucnv_convert("UTF-8", charset.c_str(), out.data(), static_cast<int32_t>(out.size()),
                   bytes.data(), static_cast<int32_t>(bytes.size()), &err);
  return U_FAILURE(err) ? "" : out.substr(0, static_cast<size_t>(n));
}

// Single-part bodies decode back, with the transfer encoding and charset they
// declare, to text that greets the owner in its own script.
TEST_F(DemoHome, MailBodiesDecodeWithTheirDeclaredEncodingAndCharset) {
  const std::map<std::string, std::string> legacyWord = {
      {"windows-1252", "résumé"}, {"iso-8859-1", "München"}, {"Shift_JIS", "会議"},
      {"KOI8-R", "ужином"},       {"GB2312", "吃饭"},        {"ISO-2022-JP", "出張"}};
  std::map<std::string, int> seen;
  int checked = 0;
  for (const auto& e : fs::recursive_directory_iterator(at("Library/Mail/V10"))) {
    if (e.path().extension() != ".emlx") continue;
    const std::string bytes = slurp(e.path().string());
    const size_t nl = bytes.find('\n');
    const std::string message = bytes.substr(nl + 1, std::stoull(bytes.substr(0, nl)));
    const size_t split = message.find("\r\n\r\n");
    ASSERT_NE(split, std::string::npos);
    const std::string headers = message.substr(0, split), body = message.substr(split + 4);
    const size_t ct = headers.find("Content-Type: text/plain; charset=");
    if (ct == std::string::npos) continue;  // multipart and HTML bodies
    const size_t cs = ct + std::strlen("Content-Type: text/plain; charset=");
    std::string charset = headers.substr(cs, headers.find("\r\n", cs) - cs);
    if (!charset.empty() && charset.front() == '"') charset = charset.substr(1, charset.size() - 2);
    std::string raw = body;
    if (headers.find("Content-Transfer-Encoding: base64") != std::string::npos)
      raw = decodeBase64(body);
    if (headers.find("Content-Transfer-Encoding: quoted-printable") != std::string::npos) {
      raw = decodeQuotedPrintable(body);
    }
    const std::string text = toUtf8(raw, charset);
    ++checked;
    auto word = legacyWord.find(charset);
    if (word != legacyWord.end()) {
      ++seen[charset];
      EXPECT_NE(text.find(word->second), std::string::npos) << e.path() << ": " << text;
    } else {
      EXPECT_EQ(charset, "utf-8");
      EXPECT_TRUE(text.find("Alex") != std::string::npos ||
                  text.find("Congratulations") != std::string::npos ||
                  text.find("Hi ") != std::string::npos)
          << e.path() << ": " << text;
    }
  }
  EXPECT_GT(checked, 50);
  EXPECT_EQ(seen.size(), legacyWord.size());
}

TEST_F(DemoHome, BrowserEpochsAndSpansDifferPerBrowser) {
  const double day = 86400;
  Reader chrome(at("Library/Application Support/Google/Chrome/Default/History"));
  EXPECT_NEAR(chrome.num("SELECT MAX(visit_time)/1e6 - 11644473600 FROM visits"), kNow - 300, 300);
  EXPECT_NEAR(chrome.num("SELECT MIN(visit_time)/1e6 - 11644473600 FROM visits"), kNow - 90 * day,
              1.5 * day);
  EXPECT_GE(chrome.num("SELECT COUNT(*) FROM urls WHERE url IN ('https:///x','about:blank') OR url "
                       "LIKE 'data:%'"),
            3);
  EXPECT_EQ(
      chrome.num(
          "SELECT COUNT(*) FROM urls WHERE url LIKE 'https://alex:%@intranet.example.com:8443/%'"),
      1);
  Reader arc(at("Library/Application Support/Arc/User Data/Default/History"));
  EXPECT_NEAR(arc.num("SELECT MAX(visit_time)/1e6 - 11644473600 FROM visits"), kNow - 21 * day,
              day);
  Reader safari(at("Library/Safari/History.db"));
  EXPECT_EQ(safari.num("SELECT COUNT(*) FROM history_visits WHERE typeof(visit_time) != 'real'"),
            0);
  EXPECT_GT(
      safari.num(
          "SELECT 1.0*SUM(visit_time != CAST(visit_time AS INTEGER))/COUNT(*) FROM history_visits"),
      0.9);
  EXPECT_NEAR(safari.num("SELECT MAX(visit_time) + 978307200 FROM history_visits"), kNow - 91 * day,
              day);
}

TEST_F(DemoHome, CalendarRulesAndOccurrenceCacheAgree) {
  EXPECT_TRUE(fs::is_directory(at("Library/Calendars")));
  EXPECT_TRUE(fs::is_empty(at("Library/Calendars")));
  Reader r(at("Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb"));
  const std::vector<std::pair<std::string, double>> facts = {
      {"SELECT COUNT(*) FROM CalendarItem", 150},  // the detached instance included
      {"SELECT COUNT(*) FROM Recurrence", 35},
      {"SELECT COUNT(*) FROM Recurrence WHERE frequency NOT BETWEEN 1 AND 4", 1},
      {"SELECT COUNT(*) FROM Recurrence WHERE specifier IN "
       "('D=0MO,0WE,0FR','D=-1FR','D=+2SU;O=5','D=+2TU','D=0TU,0TH')",
       5},
      {"SELECT COUNT(*) > 0 FROM Recurrence WHERE count > 0", 1},
      {"SELECT COUNT(*) > 0 FROM Recurrence WHERE end_date IS NOT NULL", 1},
      {"SELECT COUNT(*) FROM ExceptionDate", 2},
      {"SELECT COUNT(*) FROM CalendarItem WHERE orig_item_id > 0", 1},
      {"SELECT COUNT(*) FROM CalendarItem WHERE orig_item_id IS NULL", 0},
      {"SELECT COUNT(*) FROM CalendarItem WHERE hidden != 0", 0},
      {"SELECT 1.0*SUM(start_tz='_float')/COUNT(*) > 0.8 FROM CalendarItem", 1},
      {"SELECT COUNT(*) > 0 FROM CalendarItem WHERE organizer_id >= 1 AND self_attendee_id > 0", 1},
      {"SELECT typeof(start_date) FROM CalendarItem LIMIT 1", 0},
      {"SELECT COUNT(DISTINCT title) FROM Calendar WHERE title IN ('Work "
       "Projects','Home','Birthdays')",
       3},
      {"SELECT COUNT(*) FROM Error", 0},
      // A ten-day event is one row per day sharing the end.
      {"SELECT MAX(n) FROM (SELECT COUNT(*) n FROM OccurrenceCache GROUP BY event_id, "
       "occurrence_end_date)",
       10},
      // The detached instance replaces the master's occurrence at orig_date.
      {"SELECT COUNT(*) FROM OccurrenceCache o JOIN CalendarItem d ON d.orig_item_id = o.event_id "
       "WHERE o.occurrence_start_date = d.orig_date",
       0},
      {"SELECT COUNT(*) FROM OccurrenceCache o JOIN ExceptionDate e ON e.owner_id = o.event_id "
       "AND e.date = o.occurrence_start_date",
       0},
  };
  for (const auto& [sql, want] : facts) EXPECT_EQ(r.num(sql), want) << sql;
  // Every single zoned item inside the cache window is in the cache at its stored start.
  EXPECT_EQ(
      r.num("SELECT COUNT(*) FROM CalendarItem i LEFT JOIN Recurrence r ON r.owner_id=i.ROWID "
            "WHERE r.ROWID IS NULL AND i.start_tz != '_float' AND i.start_date BETWEEN "
            "(SELECT MIN(day) FROM OccurrenceCache) AND (SELECT MAX(day) FROM OccurrenceCache) - "
            "86400 "
            "AND NOT EXISTS (SELECT 1 FROM OccurrenceCache o WHERE o.event_id=i.ROWID AND "
            "o.occurrence_date=i.start_date)"),
      0);
}

// Floating dates keep their wall-clock time in every zone; the cache, which holds
// instants, moves with the zone the home was written for.
TEST(DemoHomeZones, FloatingItemsAreWallClockTimes) {
  std::map<std::string, std::pair<double, double>> seen;  // zone -> (stored start, cached instant)
  for (const char* zone : {"America/Los_Angeles", "Asia/Tokyo"}) {
    TempDir dir;
    Options o = smallOptions(dir.path());
    o.zone = zone;
    Home h;
    h.opt = o;
    h.root = dir.path();
    h.size = sizesFor(Scale::small);
    h.rng = Rng(o.rng);
    Rng castRng = h.rng.child(100);
    h.cast = makeCast(castRng, h.size.contacts);
    installFixedRandomnessVfs();
    writeCalendar(h);
    Reader r(dir.path() + "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb");
    const double stored =
        r.num("SELECT start_date FROM CalendarItem WHERE summary='Morning standup'");
    EXPECT_EQ(static_cast<int64_t>(stored) % 86400, 9 * 3600 + 1800) << zone;  // 09:30 as if UTC
    // A Monday/Wednesday/Friday series lands on those local weekdays (07:00 local
    // is the same calendar day at a fixed -8 h or +9 h offset in these zones).
    const std::string shift = std::string(zone) == "Asia/Tokyo" ? "'+9 hours'" : "'-8 hours'";
    EXPECT_EQ(r.num("SELECT COUNT(*) FROM OccurrenceCache o JOIN CalendarItem i ON "
                    "i.ROWID=o.event_id WHERE i.summary='Gym' "
                    "AND strftime('%w', o.occurrence_date + 978307200, 'unixepoch', " +
                    shift + ") NOT IN ('1','3','5')"),
              0)
        << zone;
    EXPECT_GT(r.num("SELECT COUNT(*) FROM OccurrenceCache o JOIN CalendarItem i ON "
                    "i.ROWID=o.event_id WHERE i.summary='Gym'"),
              10);
    seen[zone] = {stored,
                  r.num("SELECT MIN(occurrence_date) FROM OccurrenceCache o JOIN CalendarItem i "
                        "ON i.ROWID=o.event_id WHERE i.summary='Morning standup'")};
  }
  const double la = seen["America/Los_Angeles"].second, tokyo = seen["Asia/Tokyo"].second;
  const double diff = std::fmod(la - tokyo + 10 * 86400.0, 86400.0);
  EXPECT_TRUE(diff == 16 * 3600.0 || diff == 17 * 3600.0) << diff;  // 16 or 17 hours apart
}

std::set<std::string> enabledClasses(const Reader& r) {
  std::set<std::string> out;
  for (const auto& row : r.rows("SELECT d.ZNAME FROM Z_2ENABLEDDATACLASSES j JOIN ZDATACLASS d ON "
                                "d.Z_PK = j.Z_7ENABLEDDATACLASSES "
                                "JOIN ZACCOUNT a ON a.Z_PK = j.Z_2ENABLEDACCOUNTS JOIN "
                                "ZACCOUNTTYPE t ON t.Z_PK = a.ZACCOUNTTYPE "
                                "WHERE t.ZACCOUNTTYPEDESCRIPTION = 'Google'")) {
    plist_t raw = nullptr;
    plist_from_bin(row[0].data(), static_cast<uint32_t>(row[0].size()), &raw);
    std::unique_ptr<void, decltype(&plist_free)> root(raw, &plist_free);
    if (!root) continue;
    plist_t s = plist_array_get_item(plist_dict_get_item(root.get(), "$objects"), 1);
    char* text = nullptr;
    plist_get_string_val(s, &text);
    std::unique_ptr<char, decltype(&free)> guard(text, &free);
    if (text) out.insert(text);
  }
  return out;
}

TEST(DemoHomeLink, AccountsAndCalendarErrorFollowTheLinkState) {
  struct Case {
    Link link;
    double active, authenticated, rejection, errors;
    std::set<std::string> classes;
  };
  const std::string m = "com.apple.Dataclass.Mail", c = "com.apple.Dataclass.Calendars",
                    k = "com.apple.Dataclass.Contacts";
  const std::vector<Case> cases = {
      {Link::complete, 1, 1, 0, 0, {m, c, k}},
      {Link::partial, 1, 1, 0, 0, {m}},
      {Link::broken, 1, 0, 1, 1, {m, c, k}},
      {Link::absent, -1, -1, -1, 0, {}},
  };
  for (const auto& tc : cases) {
    SCOPED_TRACE(static_cast<int>(tc.link));
    TempDir dir;
    Home h;
    h.opt = smallOptions(dir.path(), 7, tc.link);
    h.root = dir.path();
    h.size = sizesFor(Scale::small);
    h.rng = Rng(7);
    Rng castRng = h.rng.child(100);
    h.cast = makeCast(castRng, h.size.contacts);
    installFixedRandomnessVfs();
    writeAccounts(h);
    writeCalendar(h);
    Reader acc(dir.path() + "/Library/Accounts/Accounts4.sqlite");
    const std::string google =
        " FROM ZACCOUNT a JOIN ZACCOUNTTYPE t ON a.ZACCOUNTTYPE = t.Z_PK WHERE a.ZPARENTACCOUNT IS "
        "NULL AND "
        "t.ZACCOUNTTYPEDESCRIPTION = 'Google'";
    EXPECT_EQ(acc.num("SELECT a.ZACTIVE" + google), tc.active);
    EXPECT_EQ(acc.num("SELECT a.ZAUTHENTICATED" + google), tc.authenticated);
    EXPECT_EQ(acc.num("SELECT a.ZLASTCREDENTIALRENEWALREJECTIONDATE IS NOT NULL" + google),
              tc.rejection);
    EXPECT_EQ(enabledClasses(acc), tc.classes);
    EXPECT_GE(acc.num("SELECT COUNT(*) FROM ZACCOUNT"), 3);  // other accounts remain
    Reader cal(dir.path() + "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb");
    EXPECT_EQ(cal.num("SELECT COUNT(*) FROM Error e JOIN Store s ON s.ROWID = e.store_owner_id "
                      "WHERE s.name = 'Google'"),
              tc.errors);
  }
}

TEST_F(DemoHome, AddressBooksHoldTheMeCardAndMessyNumbers) {
  Reader top(at("Library/Application Support/AddressBook/AddressBook-v22.abcddb"));
  EXPECT_EQ(top.num("SELECT COUNT(*) FROM ZABCDRECORD"), 2);
  Reader book(only("Library/Application Support/AddressBook/Sources", "AddressBook-v22.abcddb"));
  const std::vector<std::pair<std::string, double>> facts = {
      {"SELECT COUNT(*) FROM ZABCDRECORD", 76},
      {"SELECT COUNT(*) FROM ZABCDRECORD WHERE COALESCE(ZCONTAINERWHERECONTACTISME,0) <> 0", 1},
      {"SELECT (SELECT COUNT(*) FROM ZABCDPHONENUMBER p WHERE p.ZOWNER = r.Z_PK) + "
       "(SELECT COUNT(*) FROM ZABCDEMAILADDRESS e WHERE e.ZOWNER = r.Z_PK) FROM ZABCDRECORD r "
       "WHERE ZCONTAINERWHERECONTACTISME IS NOT NULL",
       2},
      {"SELECT COUNT(DISTINCT ZFULLNUMBER) FROM ZABCDPHONENUMBER WHERE "
       "replace(replace(replace(replace(ZFULLNUMBER,'(',''),')',''),'-',''),' ','') "
       "LIKE '%4155550123'",
       2},
      {"SELECT COUNT(*) > 0 FROM ZABCDRECORD WHERE Z_ENT=22 AND ZORGANIZATION IS NOT NULL AND "
       "ZFIRSTNAME IS NULL",
       1},
      {"SELECT COUNT(*) > 0 FROM ZABCDRECORD WHERE Z_ENT=22 AND ZORGANIZATION IS NULL AND "
       "ZFIRSTNAME IS NULL AND ZLASTNAME IS NULL",
       1},
      {"SELECT COUNT(*) FROM ZABCDEMAILADDRESS WHERE ZADDRESS='jordan.lee@example.com'", 1},
  };
  for (const auto& [sql, want] : facts) EXPECT_EQ(book.num(sql), want) << sql;
  const std::string account = slurp(at(".harbend/account.json"));
  EXPECT_NE(account.find("\"email\": \"alex.morgan@example.com\""), std::string::npos);
  EXPECT_NE(account.find("\"token\": \"demo-"), std::string::npos);
  const std::string status = slurp(at(".harbend/optel/capture-status.json"));
  for (const char* key :
       {"\"heartbeat_at\": \"2026-11-18T11:06:35.750Z\"", "\"title_capability\": \"available\"",
        "\"titles_observed\": true", "/Applications/Harbend.app/Contents/Helpers/optel"}) {
    EXPECT_NE(status.find(key), std::string::npos) << key;
  }
}

TEST_F(DemoHome, RemindersAreSplitAcrossTwoStores) {
  std::vector<std::string> stores;
  for (const auto& e : fs::directory_iterator(
           at("Library/Group Containers/group.com.apple.reminders/Container_v1/Stores"))) {
    stores.push_back(e.path().string());
  }
  ASSERT_EQ(stores.size(), 2u);
  std::map<std::string, int> ids;
  double deleted = 0, completed = 0;
  for (const auto& s : stores) {
    Reader r(s);
    for (const auto& row : r.rows("SELECT ZCKIDENTIFIER FROM ZREMCDREMINDER")) ++ids[row[0]];
    deleted += r.num("SELECT SUM(ZMARKEDFORDELETION) FROM ZREMCDREMINDER");
    completed += r.num("SELECT SUM(ZCOMPLETED) FROM ZREMCDREMINDER");
    EXPECT_GT(r.num("SELECT COUNT(*) FROM ZREMCDBASELIST WHERE ZNAME IS NOT NULL"), 0);
  }
  int shared = 0;
  for (const auto& [id, n] : ids) shared += n == 2;
  EXPECT_EQ(shared, 1);
  EXPECT_EQ(deleted, 1);
  EXPECT_GT(completed, 3);
}

// Compared between two fresh homes: reading a store (as the other tests do)
// leaves a -shm behind, which is the reader's doing, not the generator's.
TEST(DemoHomeDeterminism, SameArgumentsSameBytesOtherStartOtherBytes) {
  TempDir first, again, other;
  generate(smallOptions(first.path()), nullptr);
  generate(smallOptions(again.path()), nullptr);
  generate(smallOptions(other.path(), 8), nullptr);
  size_t files = 0;
  for (const auto& e : fs::recursive_directory_iterator(first.path())) {
    if (!e.is_regular_file()) continue;
    const std::string rel = fs::relative(e.path(), first.path()).string();
    ASSERT_TRUE(fs::exists(again.path() + "/" + rel)) << rel;
    EXPECT_TRUE(slurp(e.path().string()) == slurp(again.path() + "/" + rel)) << rel;
    ++files;
  }
  EXPECT_GT(files, 300u);
  EXPECT_FALSE(slurp(first.path() + "/Library/Messages/chat.db") ==
               slurp(other.path() + "/Library/Messages/chat.db"));
}

// ---- the binary ----

struct BinaryRun {
  int code;
  std::string err;
};

BinaryRun runBinary(const std::string& args, const std::string& home) {
  TempDir out;
  const std::string cmd = "HOME='" + home + "' '" + std::string(TESK_BINARY_DIR) +
                          "/tesk-demo-home' " + args + " >/dev/null 2>'" + out.path() + "/err'";
  const int status = std::system(cmd.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out.path() + "/err")};
}

TEST(DemoHomeBinary, RefusesHomesAndForeignDirectoriesAndReplacesItsOwn) {
  TempDir home, foreign, demo;
  std::ofstream(foreign.path() + "/keep.txt") << "mine";

  BinaryRun r = runBinary("'" + home.path() + "' --scale small", home.path());
  EXPECT_NE(r.code, 0);
  EXPECT_NE(r.err.find("tesk-demo-home: refusing to write into your real home"), std::string::npos)
      << r.err;
  EXPECT_TRUE(fs::is_empty(home.path()));

  r = runBinary("'" + foreign.path() + "' --scale small", home.path());
  EXPECT_NE(r.code, 0);
  EXPECT_NE(r.err.find("is not a demo home"), std::string::npos) << r.err;
  EXPECT_EQ(slurp(foreign.path() + "/keep.txt"), "mine");

  r = runBinary("'" + demo.path() + "' --scale small --now 1795000000", home.path());
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(fs::exists(demo.path() + "/.tesk-demo-home"));
  std::ofstream(demo.path() + "/stray.txt") << "left over";
  r = runBinary("'" + demo.path() + "' --scale small --now 1795000000", home.path());
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_FALSE(fs::exists(demo.path() + "/stray.txt"));
  EXPECT_TRUE(fs::exists(demo.path() + "/Library/Messages/chat.db-wal"));

  for (const char* bad : {"--scale huge", "--link sideways", "--now soon", "--bogus"}) {
    r = runBinary("'" + demo.path() + "' " + bad, home.path());
    EXPECT_EQ(r.code, 2) << bad;
    EXPECT_EQ(r.err.rfind("tesk-demo-home: ", 0), 0u) << r.err;
  }
}

}  // namespace
}  // namespace demohome
