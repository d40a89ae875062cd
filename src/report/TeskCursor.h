// Where a capped answer stopped: the exact instant and id of the last row shown. The
// next page is every row of the same answer that comes after it, so paging from the
// first page to the last shows each row once, whatever rows share an instant.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "report/TeskRow.h"

struct TeskCursor {
  double ts = 0;   // exact, as the row holds it
  std::string id;  // the row's id; its source key is the part before the first ':'

  // The cursor just past `row`.
  static TeskCursor after(const TeskRow& row);
  // "<exact ISO instant>,<id>", as `render` writes it; nothing for any other text.
  static std::optional<TeskCursor> parse(std::string_view text);
  // The instant with every fractional digit it needs, a comma, the id:
  // 2026-05-17T08:14:00.1234567Z,im:44182.
  std::string render() const;
  // True when `row` comes after the cursor in the answer (newest first): older, or at
  // the same instant and later in the tie order of TeskRow::answerOrder.
  bool admits(const TeskRow& row) const;
};
