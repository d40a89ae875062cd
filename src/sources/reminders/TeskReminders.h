// Unfinished Apple Reminders as rows, in their present state (the stores keep no
// history of edits). Reminders keeps one Core Data store per account, so every
// store file is read and the rows summed; a reminder synced into two stores is the
// first store's copy (in path order), whatever the window and selectors, and is
// emitted at most once. Columns differ between system versions, so every optional one is
// probed first and a missing one reads as NULL.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "report/TeskRow.h"
#include "report/TeskSpan.h"
#include "sources/messages/TeskFilter.h"

namespace TeskReminders {

struct Result {
  std::vector<TeskRow> rows;        // ascending by ts (stable)
  std::vector<std::string> denied;  // "reminder: ..." per unreadable store, or no store at all
  std::map<std::string, int64_t> perStore;  // emitted rows per store file name
  std::optional<TeskSpan> horizon;          // present only when from <= to
  int64_t noInstant = 0;  // rows whose date is no instant, kept out of the horizon
};

// What the probes found in one store; each false column reads as NULL (the
// completed and deletion flags as 0).
struct Columns {
  bool title = true;
  bool notes = true;
  bool dueDate = true;
  bool lastModifiedDate = true;
  bool creationDate = true;
  bool ckIdentifier = true;
  bool externalIdentifier = true;
  bool completed = true;
  bool markedForDeletion = true;
  // ZREMCDBASELIST exists with ZNAME, and ZREMCDREMINDER has ZLIST.
  bool listJoin = true;
};

// The statement that reads one store's unfinished reminders, columns 0-8:
// Z_PK, title, notes, due, last modified, created, list name, CloudKit id,
// external id. Pure: the same probes give the same text.
std::string query(const Columns& columns);

// The store files "Data-*.sqlite" of the Reminders group container, sorted by
// name, as full paths; none when the directory cannot be listed.
std::vector<std::string> storePaths(const std::string& home);

// Reads every store of `storePaths(home)`. Uses filter.since/until (against the
// due date when there is one, else the last-modified stamp), who (list name),
// query, grep and direction. Never throws.
Result read(const TeskIMessage::Filter& filter, const std::string& home);

}  // namespace TeskReminders
