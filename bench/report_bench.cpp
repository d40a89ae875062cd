// The report layer's per-row costs: rendering rows (TSV, JSON), aggregating an
// over-budget answer, and bucketing by local day, on 100,000 synthetic rows.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "report/TeskBucket.h"
#include "report/TeskEmitter.h"
#include "report/TeskReceipt.h"

namespace {

const std::vector<TeskRow>& rows() {
  static const std::vector<TeskRow> all = [] {
    std::vector<TeskRow> out;
    out.reserve(100000);
    for (int i = 0; i < 100000; ++i) {
      TeskRow r;
      r.id = "im:" + std::to_string(i);
      r.ts = 1700000000.0 + i * 317.0;  // about a year of rows
      r.src = "im";
      r.who = "+1555000" + std::to_string(i % 300);
      r.teskID = r.who;
      r.dir = i % 3 ? TeskRow::Direction::incoming : TeskRow::Direction::outgoing;
      r.body = "see you at the station at 6, bring the blue folder/ticket";
      out.push_back(std::move(r));
    }
    return out;
  }();
  return all;
}

void emitFormat(benchmark::State& state, TeskFormat format) {
  TeskEmitter emitter(format, 0, 30000, true, "/tmp");
  for (auto _ : state) benchmark::DoNotOptimize(emitter.emit(rows()));
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(rows().size()));
}

void BM_EmitTSV(benchmark::State& state) { emitFormat(state, TeskFormat::tsv); }
void BM_EmitJSON(benchmark::State& state) { emitFormat(state, TeskFormat::json); }
void BM_EmitAggregate(benchmark::State& state) { emitFormat(state, TeskFormat::agg); }

void BM_BucketByDay(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        TeskBucket::apply(rows(), TeskBucket::Kind::day, "America/Los_Angeles"));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(rows().size()));
}

void BM_ReceiptRender(benchmark::State& state) {
  TeskReceipt r;
  r.openMode = "ro";
  r.perSource = {{"im", 100000}, {"chrome", 5}};
  r.notes = {"default window 30d applied \u2014 pass --since to widen"};
  for (auto _ : state) benchmark::DoNotOptimize(r.render());
}

BENCHMARK(BM_EmitTSV)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EmitJSON)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EmitAggregate)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BucketByDay)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReceiptRender);

}  // namespace

BENCHMARK_MAIN();
