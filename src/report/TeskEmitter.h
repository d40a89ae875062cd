// Turns the merged, time-sorted rows of an answer into body lines and decides how much
// is shown. With the default format the rows are shown only when the complete answer
// fits the character budget; otherwise an aggregate of the whole answer is shown and
// every row is spilled to a file, so a head is never mistaken for the whole. Rows are
// taken as they stream past: held only while they still fit the budget (or the limit),
// then written to the spill file as they come, the aggregate counted on the way.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "report/TeskSpool.h"

// How rows are rendered. `automatic` is the raw value "auto" (a C++ keyword).
enum class TeskFormat { automatic, tsv, json, agg };

class TeskEmitter {
 public:
  struct Output {
    std::vector<std::string> lines;  // body lines, without line ends
    std::string mode = "rows";       // "rows" or "agg"
    int64_t rowsOut = 0;             // rows written, or the rows an aggregate covers
    bool capped = false;             // the written rows are a head of the answer
    std::optional<std::string> spill;
    std::optional<std::string> next;  // "--cursor <instant>,<id>" continuing a capped answer
    // The body lines after `lines`, when the printed rows outgrew what memory holds.
    std::shared_ptr<const TeskSpool> rest;
  };

  // Bytes of printed rows held in memory before the rest wait in a TeskSpool.
  static constexpr size_t kHeldBytes = size_t{4} << 20;

  // `tmpDir` is the user's temporary directory ($TMPDIR or /tmp); spill files go to
  // <tmpDir>/tesk/. limit 0 means no limit; budget is in characters.
  TeskEmitter(TeskFormat format, int64_t limit, int64_t budget, bool showBody, std::string tmpDir,
              size_t heldBytes = kHeldBytes);

  // Rows newest first in (as a stream gives them); lines newest first out.
  Output emit(TeskRowStream& rows) const;
  // The same for rows held in answer order, oldest first.
  Output emit(std::span<const TeskRow> rows) const;

  // "auto", "tsv", "json", "agg".
  static std::string_view rawValue(TeskFormat format);
  // Exact, case-sensitive match of the raw values; nothing otherwise.
  static std::optional<TeskFormat> formatFromRaw(std::string_view raw);

  // The TSV header line: id ts who dir kind group text.
  static const std::string& header();
  // One row as seven tab-separated columns; who and body escaped, id as it stands.
  static std::string tsvLine(const TeskRow& row, bool showBody);
  // tsvLine(row, showBody) appended to `out`.
  static void appendTSVLine(std::string& out, const TeskRow& row, bool showBody);
  // One row as a JSON object with sorted keys and no white space; "{}" when the row
  // cannot be serialised (a non-finite ts).
  static std::string jsonLine(const TeskRow& row, bool showBody);
  // The aggregate of all `rows` (ts ascending; read newest first): counts, top
  // counterparts, ISO weeks in UTC, and the ten newest rows as exemplars.
  static std::vector<std::string> aggregate(int64_t total, std::span<const TeskRow> rows,
                                            bool showBody);
  // "%04d-W%02d" of the ISO 8601 week-numbering year and week of `ts` in UTC.
  static std::string isoWeekUTC(double ts);

 private:
  TeskFormat format_;
  int64_t limit_;
  int64_t budget_;
  bool showBody_;
  std::string tmpDir_;
  size_t heldBytes_;
};
