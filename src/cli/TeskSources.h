// The producer hook: one reader per source (or family of sources), registered in
// the fixed reading order. A key is `known` exactly when a reader serves it, so a
// producer that lands replaces its "no producer yet" denial by registering here.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/TeskCLI.h"
#include "cli/TeskOptions.h"
#include "report/TeskReceipt.h"
#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "sources/messages/TeskFilter.h"

class TeskStore;

namespace TeskCLI {

// What every reader sees of the run.
struct ReadContext {
  std::string verb;
  const Options& options;
  const TeskIMessage::Filter& filter;
  const Environment& env;
  double now;
  std::vector<std::string> keys;  // the expanded --src keys
};

struct Accumulator;

// One producer's rows as it reads them, and what it adds to the receipt once they have
// all passed (its counts are final only then).
struct Feed {
  std::shared_ptr<TeskStore> store;  // held while `rows` reads from it
  std::unique_ptr<TeskRowStream> rows;
  std::function<void(Accumulator&)> finish;
};

// What readers add to: their feeds and the receipt's denominators.
struct Accumulator {
  std::vector<Feed> feeds;  // in reading order
  std::vector<std::string> denied;
  std::vector<std::string> notes;
  std::map<std::string, int64_t> perSource;
  std::map<std::string, TeskSpan> horizons;
  std::optional<TeskSpan> horizon;          // the overall horizon
  TeskReceipt receipt;                      // im fills its census, exclusions and open mode
  std::shared_ptr<TeskStore> messageStore;  // kept open for `sql`
  // "cal default forward window applied …", placed among the closing notes.
  std::optional<std::string> calendarForwardNote;
  // Set when the message store was the only source and could not be opened.
  std::optional<std::string> fatalStoreError;

  void widenHorizon(const TeskSpan& span);
};

struct SourceReader {
  std::vector<std::string> keys;  // the source keys this reader serves
  // Opens the requested keys among `keys` and adds their feed to the accumulator.
  void (*read)(const ReadContext& ctx, const std::vector<std::string>& requested, Accumulator& acc);
};

// Every reader, in the fixed order: iMessage, browsers, mail, calendar, reminders.
const std::vector<SourceReader>& sourceReaders();

}  // namespace TeskCLI
