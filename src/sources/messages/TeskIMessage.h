// The iMessage producer: one TeskRow per message of chat.db, with the counts the
// receipt needs to state its denominator (exclusions, orphans, undated rows,
// hidden attachments, the store's horizon).
//
// Whatever SQL can decide without decoding (dates, unread, tapbacks, direction,
// who) is in the WHERE clause; body and kind are SQL functions, so only rows that
// reach the projection are decoded. The exact window, the text query and --grep
// are applied here.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/TeskText.h"
#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "report/TeskSpan.h"
#include "sources/messages/TeskCounterparts.h"
#include "sources/messages/TeskDecode.h"
#include "sources/messages/TeskFilter.h"
#include "store/TeskRowSet.h"
#include "store/TeskStore.h"
#include "store/TeskValue.h"

namespace TeskIMessage {

// Optional parts of the schema, probed before any statement names them.
struct Schema {
  bool associatedType = true;  // message.associated_message_type (absent in 2015 stores)
  bool dateEdited = false;
  bool isFiltered = false;
  bool itemType = false;
  bool isRead = false;
  bool isFinished = false;
  bool isSystemMessage = false;
  bool attachments = false;          // attachment and message_attachment_join exist
  bool hideAttachment = false;       // attachments and attachment.hide_attachment
  bool chatJoinIndex = false;        // an index on chat_message_join leads with message_id
  bool attachmentJoinIndex = false;  // one on message_attachment_join does
  bool chatHandleJoin = false;       // chat_handle_join (who belongs to which chat) exists

  bool unreadSupported() const { return itemType && isRead && isFinished && isSystemMessage; }
};

struct Result {
  std::vector<TeskRow> rows;  // in answer order (TeskRow::answerOrder)
  TeskDecode::Census census;
  int64_t excludedTapback = 0;
  int64_t excludedGroup = 0;
  int64_t excludedFiltered = 0;
  int64_t orphans = 0;
  int64_t undated = 0;
  int64_t hiddenAttachments = 0;
  bool unreadSupported = false;
  bool attachmentsSupported = false;
  std::optional<TeskSpan> horizon;
  // Dated messages whose date is no instant (not a number, before 1970, from 2200
  // on): never part of the horizon.
  int64_t noInstant = 0;
};

// home + "/Library/Messages/chat.db".
std::string defaultPath(const std::string& home);

// Probes the optional columns and tables; never throws.
Schema probe(TeskStore& store);

// The WHERE conditions for a schema and filter, joined with "\n  AND ". With
// `inlineBinds` every value is written as a literal (a view cannot hold
// parameters) and the bind list stays empty.
std::pair<std::string, std::vector<TeskValue>> predicates(const Schema& schema,
                                                          const Filter& filter, bool inlineBinds,
                                                          bool keepTapbacks);

// FROM message with its handle and chat joins (one chat per message, the smallest).
// `everyMessage`: the statement reads every message, which pays for listing those in
// several chats once (a scan of the join table) rather than a subquery per message.
std::string joins(const Schema& schema, bool everyMessage = false);

// The SELECT with its joins; columns 0..14 are row_id, ts, raw_date, is_from_me,
// amt, who, tesk_id, kind, body, grp, filtered, chat_id, chat_identifier, unread,
// attachments.
std::string projection(const Schema& schema, bool everyMessage = false);

// The rows of `filter` as they are read, newest first, and the counts of a Result once
// the last has passed. The store must outlive the stream. `home` expands a leading "~"
// in attachment paths.
class Stream final : public TeskRowStream {
 public:
  // Reads the few messages whose date m.date order cannot place (NULL, whole
  // seconds, text) and opens the walk down the date index for the rest; throws
  // TeskStoreError when a statement fails to prepare.
  Stream(TeskStore& store, const Filter& filter, const std::string& home);
  ~Stream() override;

  const TeskRow* next() override;
  // The counts and horizon, rows left empty; call once the stream has ended. Throws
  // the TeskStoreError that ended it early, if one did.
  Result finish();
  // The rows the filter kept so far (all of them once the stream has ended).
  int64_t kept() const { return kept_; }

 private:  // Steps `cursor` to the next row the filter keeps; false at the end or on an error
  // (kept for finish()).
  bool pull(TeskStore::Cursor& cursor, TeskRow& row);
  // Counts the row's exclusions; true, with `row` filled, when the answer keeps it.
  bool keep(const TeskRowReader& r, TeskRow& row);
  // True when the message has a visible attachment.
  bool hasFiles(int64_t rowID);
  // The row's visible files, in store order.
  void attach(int64_t rowID, TeskRow& row);

  TeskStore& store_;
  const Filter& filter_;
  std::string home_;
  Schema schema_;
  bool wantQuery_;
  bool bodies_;
  TeskText::Needle needle_;
  Result result_;
  double lo_ = std::numeric_limits<double>::max();
  double hi_ = -std::numeric_limits<double>::max();
  int64_t kept_ = 0;
  // Messages with a visible attachment: all of them listed, or asked one by one.
  std::optional<TeskRowSet> withFiles_;
  std::optional<TeskStore::Cursor> hasFiles_;
  std::optional<TeskStore::Cursor> files_;
  bool filesReadable_ = true;
  std::optional<TeskStoreError> error_;
  std::optional<Counterparts> counterparts_;
  std::optional<TeskRowList> others_;
  std::optional<TeskStore::Cursor> dated_;
  std::unique_ptr<TeskInstantOrder> instants_;
  TeskRowMerge merge_;
};

// The rows and counts for `filter`, the stream drained; throws TeskStoreError when
// a statement fails.
Result read(TeskStore& store, const Filter& filter, const std::string& home);

// The counts alone (no rows, no decoding); throws TeskStoreError.
Result stats(TeskStore& store, const Filter& filter);

// The span of dates the whole store holds, asked unbounded, over the dates that are
// instants; `noInstant` is set to how many are not. Throws on SQL errors.
std::optional<TeskSpan> storeHorizon(TeskStore& store, int64_t& noInstant);

// Diagnostics of the join trap; -1 when the count cannot be read.
int64_t rawMessageCount(TeskStore& store);
int64_t innerJoinCount(TeskStore& store);

}  // namespace TeskIMessage
