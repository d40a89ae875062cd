#include "sources/messages/TeskCounterparts.h"

#include <algorithm>
#include <cmath>

#include "sources/messages/TeskIMessage.h"
#include "store/TeskStore.h"

namespace TeskIMessage {

std::optional<int64_t> rowKey(const TeskRowReader& r, int column) {
  if (!r.isNumber(column)) return std::nullopt;
  const int64_t whole = r.integer(column);
  const double real = r.real(column);
  if (real != static_cast<double>(whole) || std::isnan(real)) return std::nullopt;
  return whole;
}

Counterparts::Counterparts(TeskStore& store, const Schema& schema, bool everyMessage)
    : everyMessage_(everyMessage) {
  store.query("SELECT ROWID, id FROM handle",
              [&](const TeskRowReader& r) { handles_.emplace(r.integer(0), r.text(1)); });
  std::string chats =
      "SELECT ROWID, chat_identifier, COALESCE(style, 0),\n"
      "       (CASE WHEN COALESCE(style, 0) = 43 THEN 1 ELSE 0 END),\n       ";
  chats += schema.isFiltered ? "(CASE WHEN COALESCE(is_filtered, 0) = 1 THEN 1 ELSE 0 END)" : "0";
  store.query(chats + "\nFROM chat", [&](const TeskRowReader& r) {
    chats_.emplace(r.integer(0),
                   Chat{r.text(1), r.integer(2), r.integer(3) == 1, r.integer(4) == 1});
  });
  if (!everyMessage_) return;
  // In message id order (the GROUP BY walks the message_id index, or sorts once).
  store.query(
      "SELECT message_id, MIN(chat_id) FROM chat_message_join\n"
      "WHERE message_id IS NOT NULL GROUP BY message_id",
      [&](const TeskRowReader& r) {
        const std::optional<int64_t> message = rowKey(r, 0);
        if (!message || r.isNull(1)) return;  // no message has that key; or no chat
        chatOf_.emplace_back(*message, r.integer(1));
        if (!rowKey(r, 1)) oddChat_.insert(*message);
      });
  std::sort(chatOf_.begin(), chatOf_.end());
}

std::optional<std::string_view> Counterparts::handle(const TeskRowReader& r, int column) const {
  const std::optional<int64_t> key = rowKey(r, column);
  if (!key) return std::nullopt;
  auto it = handles_.find(*key);
  if (it == handles_.end() || !it->second) return std::nullopt;
  return std::string_view(*it->second);
}

Counterparts::Thread Counterparts::thread(int64_t messageID, const TeskRowReader& r,
                                          int column) const {
  if (!everyMessage_) {
    if (r.isNull(column)) return {};
    return threadOf(rowKey(r, column), r.integer(column));
  }
  auto it = std::lower_bound(chatOf_.begin(), chatOf_.end(),
                             std::pair<int64_t, int64_t>(messageID, INT64_MIN));
  if (it == chatOf_.end() || it->first != messageID) return {};
  if (oddChat_.contains(messageID)) return {it->second, nullptr, false};
  return threadOf(it->second, it->second);
}

Counterparts::Thread Counterparts::threadOf(std::optional<int64_t> key, int64_t read) const {
  if (key) {
    auto it = chats_.find(*key);
    if (it != chats_.end()) return {*key, &it->second, false};
  }
  return {read, nullptr, false};
}

}  // namespace TeskIMessage
