// The selector record every producer takes (iMessage, mail, calendar, reminders,
// browsers); each honours the fields that make sense for its source.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "cli/TeskRegex.h"
#include "report/TeskRow.h"

namespace TeskIMessage {

struct Filter {
  std::optional<double> since;     // keep ts >= since
  std::optional<double> until;     // keep ts <= until
  std::optional<std::string> who;  // phone, e-mail or fragment; empty means everyone
  // The canonical handles of the contact cards `who` names, resolved once per run and
  // sorted: a row whose counterpart is one of them matches as well as by the handle.
  std::vector<std::string> whoHandles;
  // With whoHandles: every row of the group threads those handles belong to, the
  // owner's own included, matches too (`thread` asks for everything with a person).
  bool whoGroups = false;
  std::optional<TeskRow::Direction> direction;
  std::optional<TeskRegex> grep;     // over the decoded body
  std::optional<std::string> query;  // case- and diacritic-insensitive containment
  bool includeTapbacks = false;
  bool includeGroups = true;
  bool includeFiltered = false;
  bool unreadOnly = false;
  // False when the caller reads no row's body, kind or attachments (the who census,
  // buckets): nothing is decoded unless `query` or `grep` needs the body, and the
  // decode census then says so (0 of 0).
  bool bodies = true;

  // True when a canonical handle belongs to a card that `who` names.
  bool namesHandle(const std::string& canonical) const {
    return std::binary_search(whoHandles.begin(), whoHandles.end(), canonical);
  }
};

}  // namespace TeskIMessage
