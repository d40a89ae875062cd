#include "report/TeskRow.h"

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
