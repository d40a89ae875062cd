// The receipt: one line, written first and last around every answer, naming its
// denominator (rows seen and written, decode tiers, exclusions, horizons, denials).
// Two identical receipts mean the stream is complete; one means it was cut.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "report/TeskSpan.h"
#include "sources/messages/TeskDecode.h"

struct TeskReceipt {
  int64_t version = 1;
  std::string query;
  int64_t rowsTotal = 0;
  int64_t rowsOut = 0;
  bool capped = false;
  std::string mode = "rows";
  std::string openMode;  // "ro", "snapshot", "plain"; empty when no store was opened
  TeskDecode::Census decoded;
  int64_t excludedTapback = 0;
  int64_t excludedGroup = 0;
  int64_t excludedFiltered = 0;
  int64_t excludedNoHost = 0;
  int64_t orphans = 0;
  int64_t undated = 0;
  int64_t hiddenAttachments = 0;
  bool unreadSupported = false;
  bool attachmentsSupported = false;
  std::optional<TeskSpan> window;
  std::optional<TeskSpan> horizon;
  std::map<std::string, TeskSpan> horizons;  // sorted keys render in ascending order
  std::map<std::string, int64_t> perSource;
  double sourceModified = 0;  // unix seconds; 0 or less means unknown
  std::vector<std::string> stale;
  std::vector<std::string> denied;
  std::optional<std::string> spill;
  std::optional<std::string> next;
  int64_t elapsedMS = 0;
  std::vector<std::string> notes;  // in the order they were added

  // The whole line, "#tesk {...}", without a line end. Optional and empty fields are
  // left out, never written as null; `v` comes first and `ms` last.
  std::string render() const;

  // The inside of a receipt string: the program's JSON escaping with "/" left as it
  // is (control characters escaped, ill-formed UTF-8 replaced by U+FFFD).
  static std::string escape(std::string_view text);

  // Every key `render` can write, in the order it writes them; `tesk api` lists these,
  // and a test holds them to the rendered line.
  static const std::vector<std::string_view>& keys();

  // printf "%.<digits>f" of `value`.
  static std::string fixed(int digits, double value);
};
