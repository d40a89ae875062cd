// The shaped answers `run` writes between its receipts: report verbs (views, link,
// doctor) and the rows verbs' alternative shapes (buckets, the who census, the SQL
// table). Each adapts one subsystem's result to body lines and receipt counts.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/TeskCLI.h"
#include "report/TeskBucket.h"
#include "report/TeskEmitter.h"
#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "sources/messages/TeskContacts.h"
#include "sources/messages/TeskDecode.h"
#include "sources/messages/TeskFilter.h"

class TeskStore;

namespace TeskCLI {

// `views`: the decoded view's schema and the assert vocabulary.
std::vector<std::string> viewsBody();

struct LinkAnswer {
  std::vector<std::string> body;
  int32_t exit = success;  // 3 unless the link is complete
};
LinkAnswer linkReport(const Environment& env);

struct DoctorAnswer {
  std::vector<std::string> body;
  int64_t rows = 0;
  std::vector<std::string> stale;   // dead sources and a non-fresh heartbeat, sorted
  std::vector<std::string> denied;  // sources this process may not read
  int32_t exit = success;
};
DoctorAnswer doctorReport(const Environment& env);

// The sources among `keys` whose stores the doctor's rules call STALE, DEAD or DENIED
// (each store asked for its newest row alone), sorted, and the note that names them.
struct StaleAnswer {
  std::vector<std::string> keys;
  std::optional<std::string> note;
};
StaleAnswer staleSources(const std::vector<std::string>& keys, const Environment& env, double now);

struct BucketAnswer {
  std::vector<std::string> lines;
  int64_t buckets = 0;
  std::string note;
};
// `roster` names people for the who kind; the time kinds never look at it.
BucketAnswer bucketAnswer(TeskRowStream& rows, TeskBucket::Kind kind,
                          const TeskContacts::Roster& roster, const Environment& env);

struct WhoAnswer {
  std::vector<std::string> lines;  // header then census lines
  int64_t people = 0;
  std::vector<std::string> resolved;  // what a name query named, before the census note
  std::string note;
};
// The census; a query that is a contact's name also keeps the rows of that card's handles.
WhoAnswer whoAnswer(TeskRowStream& rows, const std::optional<std::string>& query,
                    const TeskContacts::Roster& roster, const Environment& env);

struct SqlAnswer {
  std::vector<std::string> lines;
  std::shared_ptr<const TeskSpool> rest;  // the lines after `lines`, past what memory holds
  int64_t rowsTotal = 0;
  int64_t rowsOut = 0;
  TeskDecode::Census census;
  std::optional<std::string> error;  // a store error's description
};
SqlAnswer sqlAnswer(TeskStore& store, const TeskIMessage::Filter& filter,
                    const std::string& statement, int64_t limit, const std::string& tmpDir,
                    size_t heldBytes = TeskEmitter::kHeldBytes);

}  // namespace TeskCLI
