// The tesk_* SQL functions installed on every store connection, and the per-store
// state behind them: the decode census and a one-row memo, so that tesk_kind and
// tesk_body of the same row decode its blob once. The census counts a message once
// however often SQLite asks for it (a sort, a GROUP BY or a self-join evaluates the
// functions again), keyed by its row id.
//
//   tesk_body(rowid, text, attributedBody)            stripped body, or NULL
//   tesk_kind(rowid, text, blob, amt, edited, files)  tapback|text|edited|attachment|empty
//   tesk_is_tapback(amt)                              1 when 2000 <= amt <= 3007
//   tesk_who(handle, chat_identifier, style)          the row's counterpart
//   tesk_canonical(handle)                            canonical identity
//   tesk_ts(date)                                     Messages date -> unix seconds
//   tesk_iso(ts)                                      unix seconds -> ISO 8601 UTC
//   tesk_match(query, handle)                         1 or 0
//
// No function raises an SQL error: absent inputs give each function's empty result.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sources/messages/TeskDecode.h"
#include "store/TeskRowSet.h"

struct sqlite3;

class TeskFunctions {
 public:
  // associated_message_type range of tapbacks (reactions), both ends included.
  static constexpr int64_t tapbackLow = 2000;
  static constexpr int64_t tapbackHigh = 3007;
  // The tapback range written out for WHERE clauses; a call of tesk_is_tapback
  // there would cost the planner its index.
  inline static const std::string tapbackSQL = "m.associated_message_type BETWEEN " +
                                               std::to_string(tapbackLow) + " AND " +
                                               std::to_string(tapbackHigh);

  // One decoded row: the decoder's outcome (its body moved out) plus the
  // placeholder-stripped body.
  struct Decoded {
    TeskDecode::Outcome outcome;
    std::optional<std::string> stripped;
    bool hadPlaceholder = false;
  };

  // An empty census and memo. Not copyable: SQLite holds its address.
  TeskFunctions() = default;
  TeskFunctions(const TeskFunctions&) = delete;
  TeskFunctions& operator=(const TeskFunctions&) = delete;

  // Registers the eight functions on `db` with `functions` as user data; the
  // caller keeps `functions` alive as long as the connection.
  static void install(sqlite3* db, TeskFunctions& functions);

  // Decodes a row (or returns the memo when `rowID` >= 0 names the last row
  // decoded); counts the decode in the census unless `rowID` >= 0 was counted
  // before.
  const Decoded& decode(int64_t rowID, std::optional<std::string_view> text,
                        TeskDecode::Bytes blob);
  // The stripped body of `decode`.
  std::optional<std::string> body(int64_t rowID, std::optional<std::string_view> text,
                                  TeskDecode::Bytes blob);

  // tesk_kind's rule: "tapback" for a tapback's `amt` (its body is never needed),
  // else from the decoded body `d`, `edited` (date_edited) and the visible
  // `attachments` count.
  static const char* kind(int64_t amt, const Decoded& d, int64_t edited, int64_t attachments);
  // True when 2000 <= amt <= 3007.
  static bool isTapback(int64_t amt) { return amt >= tapbackLow && amt <= tapbackHigh; }

  // tesk_who's rule: the handle when there is one, else nothing for a group chat,
  // else the chat's identifier.
  static std::string_view who(std::optional<std::string_view> handle,
                              std::optional<std::string_view> chatIdentifier, int64_t style);

  // Every message decoded so far, each once.
  const TeskDecode::Census& census() const { return census_; }

 private:
  TeskDecode::Census census_;
  TeskRowSet counted_;
  int64_t memoRowID_ = -1;
  std::optional<Decoded> memo_;
};
