// Who a message is with, looked up in memory instead of joined per message: chat.db
// has a few thousand handles and chats but up to millions of messages, and a join
// seeks both tables for every message read (a quarter of a whole-archive search).
// The lookups keep SQL's own rules: a handle or chat is found when the message's key
// is an integer (or a real holding one) equal to its ROWID, and a message's chat is
// the smallest chat_id of its join rows.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "store/TeskRowSet.h"

class TeskStore;
class TeskRowReader;

namespace TeskIMessage {

struct Schema;

class Counterparts {
 public:
  struct Chat {
    std::optional<std::string> identifier;
    int64_t style = 0;
    bool group = false;
    bool filtered = false;
  };
  // What a message's chat_id column reads (0 when it is in no chat) and its chat row.
  struct Thread {
    int64_t chatID = 0;
    const Chat* chat = nullptr;
    bool orphan = true;  // no join row names a chat
  };

  // Reads the handles and chats; with `everyMessage` also every message's smallest
  // chat id (one pass over the join table, cheaper than a search per message when
  // the statement reads them all). Throws TeskStoreError.
  Counterparts(TeskStore& store, const Schema& schema, bool everyMessage);

  // True when message rows carry their chat id in the column chatColumn() names.
  bool chatFromRow() const { return !everyMessage_; }
  // The message's handle id, absent when no handle row has that key.
  std::optional<std::string_view> handle(const TeskRowReader& r, int column) const;
  // The message's thread from the preloaded join (`messageID`) or from the row's
  // smallest-chat column.
  Thread thread(int64_t messageID, const TeskRowReader& r, int column) const;

 private:
  Thread threadOf(std::optional<int64_t> key, int64_t read) const;

  bool everyMessage_;
  std::unordered_map<int64_t, std::optional<std::string>> handles_;
  std::unordered_map<int64_t, Chat> chats_;
  std::vector<std::pair<int64_t, int64_t>> chatOf_;  // message id -> smallest chat id
  TeskRowSet oddChat_;  // messages whose smallest chat_id is no integer (names no chat)
};

// The row key SQL compares with a ROWID: an integer, or a real holding one.
std::optional<int64_t> rowKey(const TeskRowReader& r, int column);

}  // namespace TeskIMessage
