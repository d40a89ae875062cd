// The selector record every producer takes (iMessage, mail, calendar, reminders,
// browsers); each honours the fields that make sense for its source.
#pragma once

#include <optional>
#include <string>

#include "cli/TeskRegex.h"
#include "report/TeskRow.h"

namespace TeskIMessage {

struct Filter {
  std::optional<double> since;     // keep ts >= since
  std::optional<double> until;     // keep ts <= until
  std::optional<std::string> who;  // phone, e-mail or fragment; empty means everyone
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
};

}  // namespace TeskIMessage
