// --assert terms: conditions the receipt of this very run must satisfy, so an agent
// that asks the same question every day notices when the answer's footing drifts.
// Reads the receipt only.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report/TeskReceipt.h"

namespace TeskAssert {

// A term that did not hold: the trimmed term, and what the receipt showed instead.
struct Failure {
  std::string expression;
  std::string actual;
};

// Evaluates the terms in order (each trimmed; empty ones skipped) and returns the
// first that fails. Flag terms: not-capped, capped, complete, fresh, granted, any.
// Numeric terms "name OP number" with OP one of >= <= == = > <; `now` (unix seconds)
// is what age_hours is measured against.
std::optional<Failure> evaluate(const std::vector<std::string>& terms, const TeskReceipt& receipt,
                                double now);

// The shortest decimal that reads back as `value`, with ".0" added when it would
// otherwise look like an integer: 12.0, 0.98765, 1e+16.
std::string shortest(double value);

}  // namespace TeskAssert
