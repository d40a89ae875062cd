// Body decoder throughput (MB/s of .emlx bytes) on the real files under
// tests/data/emlx, and on large synthetic bodies that reach the caps.
#include <benchmark/benchmark.h>

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

}  // namespace

BENCHMARK_MAIN();
