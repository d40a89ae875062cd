// Message body decoding cost per blob: the direct reader, the full typedstream
// reader and the whole body decode, over real Messages blobs and synthetic ones
// shaped like them (short, medium and long texts, the long ones with two-byte
// length prefixes).
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "sources/messages/TeskDecode.h"
#include "sources/messages/TeskTypedStream.h"

namespace {

using Blob = std::vector<uint8_t>;

Blob readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// `real` with its string replaced by `text` (a new length prefix included); the
// attribute runs after it are kept as they are, which neither reader checks.
Blob reshaped(const Blob& real, const std::string& text) {
  const std::string_view all(reinterpret_cast<const char*>(real.data()), real.size());
  const size_t marker = all.find("NSString");
  if (marker == std::string_view::npos) return {};
  const size_t lengthAt = marker + 8 + 5;
  size_t oldLength = real[lengthAt];
  size_t oldStart = lengthAt + 1;
  if (real[lengthAt] == 0x81) {
    oldLength = real[lengthAt + 1] | (static_cast<size_t>(real[lengthAt + 2]) << 8);
    oldStart = lengthAt + 3;
  }
  Blob out(real.begin(), real.begin() + static_cast<long>(lengthAt));
  if (text.size() < 0x80) {
    out.push_back(static_cast<uint8_t>(text.size()));
  } else {
    out.push_back(0x81);
    out.push_back(static_cast<uint8_t>(text.size() & 0xff));
    out.push_back(static_cast<uint8_t>(text.size() >> 8));
  }
  out.insert(out.end(), text.begin(), text.end());
  out.insert(out.end(), real.begin() + static_cast<long>(oldStart + oldLength), real.end());
  return out;
}

const std::vector<Blob>& corpus() {
  static const std::vector<Blob> blobs = [] {
    std::vector<Blob> real;
    for (int row = 1; row <= 10; ++row) {
      Blob b = readFile(std::string(TESK_TEST_DATA) + "/typedstream/plaso-chatdb/message_rowid_" +
                        std::to_string(row));
      if (!b.empty()) real.push_back(std::move(b));
    }
    std::vector<Blob> all = real;
    if (real.empty()) return all;
    // Synthetic rows: most messages are short, some are paragraphs.
    const std::string word = "caf\xc3\xa9 ok ";
    for (int i = 0; i < 90; ++i) {
      std::string text;
      const size_t length = i % 10 == 0 ? 600 : i % 3 == 0 ? 120 : 24;
      while (text.size() < length) text += word;
      text += std::to_string(i);
      Blob b = reshaped(real[static_cast<size_t>(i) % real.size()], text);
      if (!b.empty()) all.push_back(std::move(b));
    }
    return all;
  }();
  return blobs;
}

void BM_DirectBody(benchmark::State& state) {
  const auto& blobs = corpus();
  for (auto _ : state) {
    for (const auto& b : blobs) benchmark::DoNotOptimize(TeskDecode::directBody(b));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(blobs.size()));
}
BENCHMARK(BM_DirectBody);

void BM_TypedStream(benchmark::State& state) {
  const auto& blobs = corpus();
  for (auto _ : state) {
    for (const auto& b : blobs) benchmark::DoNotOptimize(TeskTypedStream::rootString(b));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(blobs.size()));
}
BENCHMARK(BM_TypedStream);

void BM_Body(benchmark::State& state) {
  const auto& blobs = corpus();
  const std::optional<std::string_view> noText;
  for (auto _ : state) {
    for (const auto& b : blobs) benchmark::DoNotOptimize(TeskDecode::body(noText, b));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(blobs.size()));
}
BENCHMARK(BM_Body);

// What the SQL function does per row: decode, then strip placeholders.
void BM_BodyStripped(benchmark::State& state) {
  const auto& blobs = corpus();
  const std::optional<std::string_view> noText;
  for (auto _ : state) {
    for (const auto& b : blobs) {
      benchmark::DoNotOptimize(TeskDecode::stripPlaceholders(TeskDecode::body(noText, b).body));
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(blobs.size()));
}
BENCHMARK(BM_BodyStripped);

}  // namespace

BENCHMARK_MAIN();
