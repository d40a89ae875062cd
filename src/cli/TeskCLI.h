// The front door: the verb table and `run`, which turns an argument vector into
// output lines and an exit code.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cli/TeskOut.h"
#include "sources/messages/TeskDecode.h"

namespace TeskCLI {

// Process exit codes.
enum Exit : int32_t {
  success = 0,
  emptyAnswer = 2,
  drift = 3,  // an --assert term failed, or doctor/link found an unhealthy state
  usageError = 4,
  storeUnavailable = 5,
};

extern const std::string_view usage;

// The browser keys, and every key that has a producer.
const std::set<std::string>& webSources();
const std::set<std::string>& known();

// "web" becomes chrome, arc, safari in place; repeats are dropped, first kept.
std::vector<std::string> expandSources(const std::vector<std::string>& keys);

// What a run reads from its surroundings. The entry fills it from the process;
// tests pin every field.
struct Environment {
  std::string home;               // the user's home directory
  std::string tmpdir;             // where snapshots and spill files go
  std::string zone;               // local time zone id ("" = the process's zone)
  std::function<double()> clock;  // unix seconds
  // The permission report of the running process (`doors` outside the companion app).
  std::function<std::vector<std::string>()> currentDoorReport;
  // Given the program path: the companion app's board, or nothing when there is no
  // app around the program or it returned no complete board.
  std::function<std::optional<std::vector<std::string>>(const std::string&)> shippedDoorReport;
  // Whether the program sits inside the companion application.
  std::function<bool(const std::string&)> insideCompanionApp;

  // The process's own surroundings: $HOME, $TMPDIR, the local zone, the system clock
  // and the live permission probes.
  static Environment fromProcess();
};

// Runs one command line (args[0] is the program path) and returns the exit code.
int32_t run(const std::vector<std::string>& args, TeskOut& out, const Environment& env);
int32_t run(const std::vector<std::string>& args, TeskOut& out);

// Creates the standard-output sink, runs, flushes, returns the code.
int32_t main(const std::vector<std::string>& args);

// Receipt, body, receipt for a report verb; returns `exit`.
int32_t envelope(const std::string& verb, const std::vector<std::string>& args, double started,
                 double now, TeskOut& out, const std::vector<std::string>& body, int64_t rows,
                 const std::vector<std::string>& stale, const std::vector<std::string>& denied,
                 int32_t exit);

// The receipt notes the decode census calls for, in order: the direct reader's
// declines, then the decode gate. Built once the census is final (after `sql` has
// run its statement, which decodes as it goes).
std::vector<std::string> decodeNotes(const TeskDecode::Census& census);

// `#tesk {"v":1,"error":"..."}`: what an option error writes in place of a receipt.
std::string errorLine(std::string_view message);

}  // namespace TeskCLI
