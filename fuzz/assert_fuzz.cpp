// Arbitrary --assert terms against a receipt: evaluation must never crash, read out of
// bounds or loop, whatever the bytes. Terms are split on line feeds; the first bytes
// also vary the receipt so flags and numeric names see both outcomes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "report/TeskAssert.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;  // terms are command-line words, not documents
  TeskReceipt receipt;
  if (size >= 2) {
    receipt.capped = data[0] & 1;
    receipt.mode = (data[0] & 2) ? "agg" : "rows";
    receipt.rowsTotal = data[1];
    receipt.decoded.legacyAttributed = data[0] >> 2;
    receipt.decoded.undecodable = data[1] & 7;
    receipt.sourceModified = (data[0] & 4) ? 1700000000.0 : 0.0;
    if (data[1] & 8) receipt.stale.push_back("chrome");
    if (data[1] & 16) receipt.denied.push_back("im: denied \"x\"");
  }
  std::vector<std::string> terms(1);
  for (size_t i = 0; i < size; ++i) {
    if (data[i] == '\n') {
      terms.emplace_back();
    } else {
      terms.back() += static_cast<char>(data[i]);
    }
  }
  auto failure = TeskAssert::evaluate(terms, receipt, 1800000000.0);
  if (failure && failure->actual.empty()) __builtin_trap();  // a failure always says why
  return 0;
}
