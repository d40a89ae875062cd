#include "report/TeskRow.h"

#include <array>

std::string TeskAttachment::label() const {
  if (name && !name->empty()) return *name;
  if (path && !path->empty()) {
    auto slash = path->find_last_of('/');
    std::string last = slash == std::string::npos ? *path : path->substr(slash + 1);
    if (!last.empty()) return last;
  }
  if (mime) return *mime;
  return "attachment";
}

void TeskRow::clear() {
  id.clear();
  ts = 0;
  src.clear();
  who.clear();
  teskID.clear();
  dir = Direction::incoming;
  kind = Kind::text;
  body.clear();
  group = false;
  filtered = false;
  chatID = 0;
  unread = false;
  attachments.clear();
  start.reset();
}

std::string_view TeskRow::rawValue(Kind k) {
  switch (k) {
    case Kind::text:
      return "text";
    case Kind::tapback:
      return "tapback";
    case Kind::edited:
      return "edited";
    case Kind::attachment:
      return "attachment";
    case Kind::reminder:
      return "reminder";
    case Kind::empty:
      return "empty";
  }
  return "empty";
}

std::optional<TeskRow::Kind> TeskRow::kindFromRaw(std::string_view raw) {
  for (Kind k :
       {Kind::text, Kind::tapback, Kind::edited, Kind::attachment, Kind::reminder, Kind::empty}) {
    if (rawValue(k) == raw) return k;
  }
  return std::nullopt;
}

std::optional<TeskRow::Direction> TeskRow::directionFromRaw(std::string_view raw) {
  if (raw == "in") return Direction::incoming;
  if (raw == "out") return Direction::outgoing;
  return std::nullopt;
}

int TeskRow::sourceRank(std::string_view src) {
  static constexpr std::array<std::string_view, 7> kOrder{"im",   "chrome", "arc",     "safari",
                                                          "mail", "cal",    "reminder"};
  for (size_t i = 0; i < kOrder.size(); ++i) {
    if (kOrder[i] == src) return static_cast<int>(i);
  }
  return static_cast<int>(kOrder.size());
}

bool TeskRow::answerOrder(const TeskRow& a, const TeskRow& b) {
  if (a.ts != b.ts) return a.ts < b.ts;
  if (a.src != b.src) {
    const int ra = sourceRank(a.src), rb = sourceRank(b.src);
    return ra != rb ? ra < rb : a.src < b.src;
  }
  if (a.id.size() != b.id.size()) return a.id.size() < b.id.size();
  return a.id < b.id;
}
