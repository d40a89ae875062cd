#include "report/TeskCursor.h"

#include "cli/TeskTime.h"

TeskCursor TeskCursor::after(const TeskRow& row) { return TeskCursor{row.ts, row.id}; }

std::optional<TeskCursor> TeskCursor::parse(std::string_view text) {
  const size_t comma = text.find(',');
  if (comma == std::string_view::npos || comma + 1 == text.size()) return std::nullopt;
  if (text.find(':', comma) == std::string_view::npos) return std::nullopt;
  auto ts = TeskTime::parseISO(text.substr(0, comma));
  if (!ts) return std::nullopt;
  return TeskCursor{*ts, std::string(text.substr(comma + 1))};
}

std::string TeskCursor::render() const { return TeskTime::exactString(ts) + "," + id; }

bool TeskCursor::admits(const TeskRow& row) const {
  TeskRow shown;
  shown.ts = ts;
  shown.id = id;
  shown.src = id.substr(0, id.find(':'));
  return TeskRow::answerOrder(row, shown);
}
