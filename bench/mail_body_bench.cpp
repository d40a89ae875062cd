// Body decoder throughput (MB/s of .emlx bytes) on the real files under
// tests/data/emlx, and on large synthetic bodies that reach the caps.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "sources/mail/TeskMail.h"

namespace {

std::vector<std::string> realFiles() {
  std::vector<std::string> files;
  const std::filesystem::path dir = std::filesystem::path(TESK_TEST_DATA) / "emlx";
  std::vector<std::filesystem::path> paths;
  for (const auto& e : std::filesystem::directory_iterator(dir)) {
    if (e.path().extension() == ".emlx") paths.push_back(e.path());
  }
  std::sort(paths.begin(), paths.end());
  for (const auto& p : paths) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    files.push_back(ss.str());
  }
  return files;
}

std::string wrap(const std::string& headers, const std::string& body) {
  const std::string message = headers + "\n\n" + body;
  return std::to_string(message.size()) + "\n" + message + "<?xml version=\"1.0\"?><plist/>";
}

void decodeAll(benchmark::State& state, const std::vector<std::string>& files) {
  int64_t bytes = 0;
  for (const auto& f : files) bytes += static_cast<int64_t>(f.size());
  for (auto _ : state) {
    TeskMail::Census census;
    for (const auto& f : files) {
      auto body = TeskMail::decode(f, census);
      benchmark::DoNotOptimize(body);
    }
  }
  state.SetBytesProcessed(state.iterations() * bytes);
}

void BM_RealFiles(benchmark::State& state) {
  static const std::vector<std::string> files = realFiles();
  decodeAll(state, files);
}
BENCHMARK(BM_RealFiles);

void BM_QuotedPrintableHTML(benchmark::State& state) {
  std::string html;
  while (html.size() < 200000) {
    html += "<p style=3D\"margin:0\">Caf=C3=A9 &amp; cr=C3=A8me, line of text that =\nwraps</p>\n";
  }
  static const std::vector<std::string> files = {wrap(
      "Content-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: quoted-printable", html)};
  decodeAll(state, files);
}
BENCHMARK(BM_QuotedPrintableHTML);

void BM_Base64Latin1(benchmark::State& state) {
  std::string b64;
  while (b64.size() < 200000) b64 += "R3L8ZSBhdXMgVPxiaW5nZW4sIHNjaPZuZSBHcvzf\r\n";
  static const std::vector<std::string> files = {
      wrap("Content-Type: text/plain; charset=iso-8859-1\nContent-Transfer-Encoding: base64", b64)};
  decodeAll(state, files);
}
BENCHMARK(BM_Base64Latin1);

// A home with a 50,000-row index over two mailboxes and body files for the
// newest 8,000 rows (the command line's budget); removed when the run ends.
class SyntheticHome {
 public:
  static constexpr int kRows = 50000;
  static constexpr int kBodies = 8000;

  SyntheticHome() {
    home_ =
        std::filesystem::temp_directory_path() / ("tesk-mail-bench-" + std::to_string(::getpid()));
    const auto version = home_ / "Library/Mail/V10";
    std::filesystem::create_directories(version / "MailData");
    sqlite3* db = nullptr;
    sqlite3_open((version / "MailData/Envelope Index").c_str(), &db);
    std::ifstream schema(std::filesystem::path(TESK_TEST_DATA) / "schemas/mail-index.sql");
    std::stringstream ss;
    ss << schema.rdbuf();
    std::string sql = "PRAGMA synchronous=OFF; PRAGMA journal_mode=MEMORY; BEGIN;" + ss.str();
    sql +=
        "INSERT INTO mailboxes(ROWID, url) VALUES(1, 'imap://ACC/%5BGmail%5D/All%20Mail'),"
        "(2, 'imap://ACC/%5BGmail%5D/Sent%20Mail');";
    for (int a = 1; a <= 50; ++a) {
      sql += "INSERT INTO addresses(ROWID, address, comment) VALUES(" + std::to_string(a) +
             ", 'person" + std::to_string(a) + "@example.com', '');";
    }
    sql += "INSERT INTO subjects(ROWID, subject) VALUES(1, 'Weekly notes');";
    sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_stmt* m = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO messages(ROWID, global_message_id, sender, subject, "
                       "date_received, mailbox, conversation_id) VALUES(?1, ?1, ?2, 1, ?3, 1, ?1)",
                       -1, &m, nullptr);
    sqlite3_stmt* r = nullptr;
    sqlite3_prepare_v2(db,
                       "INSERT INTO recipients(message, address, type, position) "
                       "VALUES(?1, 1, 0, 0)",
                       -1, &r, nullptr);
    sqlite3_stmt* l = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO labels(message_id, mailbox_id) VALUES(?1, 2)", -1, &l,
                       nullptr);
    for (int i = 1; i <= kRows; ++i) {
      sqlite3_bind_int(m, 1, i);
      sqlite3_bind_int(m, 2, 1 + i % 50);
      sqlite3_bind_int64(m, 3, 1600000000 + int64_t{i} * 600);
      sqlite3_step(m);
      sqlite3_reset(m);
      sqlite3_bind_int(r, 1, i);
      sqlite3_step(r);
      sqlite3_reset(r);
      if (i % 7 == 0) {
        sqlite3_bind_int(l, 1, i);
        sqlite3_step(l);
        sqlite3_reset(l);
      }
    }
    sqlite3_finalize(m);
    sqlite3_finalize(r);
    sqlite3_finalize(l);
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(db);

    const auto data = version / "ACC/[Gmail].mbox/All Mail.mbox/UUID/Data";
    std::string html;
    for (int k = 0; k < 20; ++k)
      html += "<p>Line of the weekly notes, caf=C3=A9 &amp; more =\n</p>";
    const std::string message =
        "Content-Type: text/html; charset=utf-8\nContent-Transfer-Encoding: quoted-printable\n\n" +
        html;
    const std::string file = std::to_string(message.size()) + "\n" + message + "<?xml?><plist/>";
    for (int i = kRows - kBodies + 1; i <= kRows; ++i) {
      const auto dir = data / TeskMail::relativeDirectory(i);
      std::filesystem::create_directories(dir);
      std::ofstream(dir / (std::to_string(i) + (i % 3 ? ".emlx" : ".partial.emlx")),
                    std::ios::binary)
          << file;
    }
  }
  ~SyntheticHome() {
    std::error_code ec;
    std::filesystem::remove_all(home_, ec);
  }
  std::string home() const { return home_.string(); }

 private:
  std::filesystem::path home_;
};

const SyntheticHome& syntheticHome() {
  static const SyntheticHome home;
  return home;
}

// The whole horizon with the command line's budget: 8,000 bodies opened.
void BM_ReadIndexWithBodies(benchmark::State& state) {
  const std::string home = syntheticHome().home();
  TeskIMessage::Filter filter;
  filter.includeGroups = false;
  for (auto _ : state) {
    auto r = TeskMail::read(filter, 1700000000, state.range(0), home);
    if (r.rows.size() != SyntheticHome::kRows) state.SkipWithError("wrong row count");
    benchmark::DoNotOptimize(r);
  }
  state.SetItemsProcessed(state.iterations() * SyntheticHome::kRows);
}
BENCHMARK(BM_ReadIndexWithBodies)->Arg(0)->Arg(8000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
