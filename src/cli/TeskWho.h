// The `who` census: one line per canonical person in the rows, with every handle
// they use, message counts, first and last contact, and the address-book name.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "sources/messages/TeskContacts.h"

namespace TeskCLI {

struct WhoRow {
  std::string line;  // one TSV line of the census
};

// "tesk_id\thandles\tmessages\tin\tout\tfirst\tlast\tname"
extern const char* const whoHeader;

// The census of `rows` for `query` (absent: everyone; "me": the Me card alone). A row
// is kept when its handle matches the query, its id contains it, or its id is one of
// `named` (sorted canonical handles of the cards the query names as a person). Each row
// is counted as it streams past.
std::vector<WhoRow> whoTable(TeskRowStream& rows, const std::optional<std::string>& query,
                             const TeskContacts::Roster& roster,
                             const std::optional<TeskContacts::MeCard>& me,
                             const std::vector<std::string>& named = {});
// The same for rows held in answer order.
std::vector<WhoRow> whoTable(const std::vector<TeskRow>& rows,
                             const std::optional<std::string>& query,
                             const TeskContacts::Roster& roster,
                             const std::optional<TeskContacts::MeCard>& me,
                             const std::vector<std::string>& named = {});

}  // namespace TeskCLI
