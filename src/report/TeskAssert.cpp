#include "report/TeskAssert.h"

#include <array>
#include <charconv>
#include <cmath>

#include "cli/TeskText.h"
#include "report/TeskJSON.h"

namespace TeskAssert {

namespace {

std::string boolText(bool b) { return b ? "true" : "false"; }

// ["a", "b"]: how the list reads back to a person, each element quoted.
std::string bracketList(const std::vector<std::string>& items) {
  std::string out = "[";
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) out += ", ";
    TeskJSON::appendString(out, items[i], TeskJSON::Slash::plain);
  }
  out += ']';
  return out;
}

// A flag term's verdict, or nothing when `term` is no flag name.
std::optional<std::optional<Failure>> flag(std::string_view term, const TeskReceipt& r) {
  auto fail = [&](bool holds, std::string actual) -> std::optional<Failure> {
    if (holds) return std::nullopt;
    return Failure{std::string(term), std::move(actual)};
  };
  if (term == "not-capped") return fail(!r.capped, "capped=" + boolText(r.capped));
  if (term == "capped") return fail(r.capped, "capped=" + boolText(r.capped));
  if (term == "complete") {
    return fail(!r.capped && r.mode != "agg", "capped=" + boolText(r.capped) + " mode=" + r.mode);
  }
  if (term == "fresh") return fail(r.stale.empty(), "stale=" + bracketList(r.stale));
  if (term == "granted") return fail(r.denied.empty(), "denied=" + bracketList(r.denied));
  if (term == "any") return fail(r.rowsTotal > 0, "rows_total=" + std::to_string(r.rowsTotal));
  return std::nullopt;
}

std::optional<double> value(std::string_view name, const TeskReceipt& r, double now) {
  if (name == "rows") return static_cast<double>(r.rowsTotal);
  if (name == "rows_out") return static_cast<double>(r.rowsOut);
  if (name == "coverage" || name == "decode_rate" || name == "decoded") {
    const auto& d = r.decoded;
    int64_t n = d.legacyAttributed + d.legacyString + d.keyedAttributed;
    int64_t of = n + d.undecodable;
    return of == 0 ? 1.0 : static_cast<double>(n) / static_cast<double>(of);
  }
  if (name == "undecodable") return static_cast<double>(r.decoded.undecodable);
  if (name == "orphans") return static_cast<double>(r.orphans);
  if (name == "ms") return static_cast<double>(r.elapsedMS);
  if (name == "age_hours" && r.sourceModified > 0) return (now - r.sourceModified) / 3600.0;
  return std::nullopt;
}

// A whole decimal number ("5", "-0.5", "1e3", "+2"), nothing for anything else.
std::optional<double> number(std::string_view text) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty() || text.front() == '+') return std::nullopt;
  double out = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return out;
}

enum class Op { ge, le, eq, gt, lt };

std::optional<Failure> evaluateOne(std::string_view term, const TeskReceipt& r, double now) {
  if (auto verdict = flag(term, r)) return *verdict;

  // Tried in this order, so ">=" wins over ">" and "==" over "=".
  static constexpr std::array<std::pair<std::string_view, Op>, 6> ops{{
      {">=", Op::ge},
      {"<=", Op::le},
      {"==", Op::eq},
      {"=", Op::eq},
      {">", Op::gt},
      {"<", Op::lt},
  }};
  for (const auto& [text, op] : ops) {
    size_t at = term.find(text);
    if (at == std::string_view::npos) continue;
    std::string_view name = TeskText::trim(term.substr(0, at));
    std::string_view threshold = TeskText::trim(term.substr(at + text.size()));
    auto limit = number(threshold);
    auto actual = value(name, r, now);
    if (!limit || !actual) return Failure{std::string(term), "unknown term"};
    bool holds = false;
    switch (op) {
      case Op::ge:
        holds = *actual >= *limit;
        break;
      case Op::le:
        holds = *actual <= *limit;
        break;
      case Op::eq:
        holds = *actual == *limit;
        break;
      case Op::gt:
        holds = *actual > *limit;
        break;
      case Op::lt:
        holds = *actual < *limit;
        break;
    }
    if (holds) return std::nullopt;
    return Failure{std::string(term), std::string(name) + "=" + shortest(*actual)};
  }
  return Failure{std::string(term), "unparseable"};
}

}  // namespace

std::string shortest(double value) {
  std::string out = TeskText::shortestDecimal(value);
  if (out.find_first_of(".e") == std::string::npos && out.find("inf") == std::string::npos &&
      out.find("nan") == std::string::npos) {
    out += ".0";
  }
  return out;
}

std::optional<Failure> evaluate(const std::vector<std::string>& terms, const TeskReceipt& receipt,
                                double now) {
  for (const auto& raw : terms) {
    std::string_view term = TeskText::trim(raw);
    if (term.empty()) continue;
    if (auto failure = evaluateOne(term, receipt, now)) return failure;
  }
  return std::nullopt;
}

}  // namespace TeskAssert
