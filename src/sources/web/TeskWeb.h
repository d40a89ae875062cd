// Browser history (Chrome, Arc, Safari) as rows, one per page visit. Each browser
// keeps its own epoch, so every instant is converted here, at the point of reading;
// each browser's span is kept apart because Chrome retains ~90 days while Arc and
// Safari are staler, and one merged span would hide the shortest.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "report/TeskSpan.h"
#include "sources/messages/TeskFilter.h"

namespace TeskWeb {

struct Selectors;

// One browser history file that exists under the home directory.
struct Source {
  enum class Engine { chromium, webkit };
  std::string key;  // "chrome", "arc" or "safari": the rows' `src`
  std::string path;
  Engine engine = Engine::chromium;
};

struct Result {
  std::vector<TeskRow> rows;        // in answer order (TeskRow::answerOrder)
  std::optional<TeskSpan> horizon;  // over every read source; present only when from <= to
  std::vector<std::string> denied;  // "<key>: <why>", one per source that could not be read
  std::map<std::string, int64_t> perSource;  // emitted rows per source key
  std::map<std::string, TeskSpan> horizons;  // per read source that had a valid visit
  int64_t excludedNoHost = 0;                // visits inside the window whose URL yields no host
  // Per read source, visits whose time is no instant (missing, not a number, at or
  // before 1970, from 2200 on): never rows, never in a horizon.
  std::map<std::string, int64_t> noInstant;
};

// The receipt notes for `result` (the visits left out for want of an instant).
std::vector<std::string> notes(const Result& result);

// The known histories whose file exists, in the order chrome, arc, safari.
std::vector<Source> sources(const std::string& home);

// The visits of every source of `sources(home)` whose key is in `only` (all when
// absent) as they are read, newest first, each history walked down its visit-time
// index; the counts of a Result once the last row has passed. Uses
// filter.since/until/who/direction/grep/query, which must outlive the stream. Never
// throws: whatever cannot be read becomes a `denied` entry and the other sources are
// still read.
class Stream final : public TeskRowStream {
 public:
  Stream(const TeskIMessage::Filter& filter, const std::optional<std::set<std::string>>& only,
         const std::string& home);
  ~Stream() override;

  const TeskRow* next() override;
  // The counts, horizons and denials, rows left empty; complete once the stream ended.
  Result finish() const;

 private:
  class Reader;
  std::unique_ptr<Selectors> selectors_;
  std::optional<TeskSpan> overall_;  // the windowed sources' spans, known up front
  std::vector<std::unique_ptr<Reader>> readers_;
  TeskRowMerge merge_;
};

// The stream drained: every row, in answer order, and the counts.
Result read(const TeskIMessage::Filter& filter, const std::optional<std::set<std::string>>& only,
            const std::string& home);

// The host a visit is attributed to: the lower-cased authority without user
// information, port or a leading "www."; for a URL without "://" its first 60
// characters as they stand. Empty only for an empty authority (or empty URL).
std::string host(std::string_view url);
// The same, assigned to `into` (whose buffer it reuses).
void host(std::string_view url, std::string& into);

// Chromium visit_time (microseconds since 1601) to unix seconds; nothing for 0, for
// an instant at or before 1970 or for one from 2200 on (no real visit is dated so).
std::optional<double> chromiumInstant(int64_t microsSince1601);
// WebKit visit_time (REAL seconds since 2001) to unix seconds, fraction kept;
// nothing for an instant at or before 1970, from 2200 on, or a non-finite value.
std::optional<double> webkitInstant(double secondsSince2001);

// The statement each engine is read with, one pass newest first.
std::string_view querySQL(Source::Engine engine);

}  // namespace TeskWeb
