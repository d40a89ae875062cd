// The one record every producer yields, so rows of all sources merge on `ts`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A file that a message carries.
struct TeskAttachment {
  std::optional<std::string> path;
  std::optional<std::string> name;
  std::optional<std::string> mime;
  int64_t bytes = 0;

  // The name to show: name, else the last path component, else mime, else "attachment".
  std::string label() const;
  bool operator==(const TeskAttachment&) const = default;
};

struct TeskRow {
  enum class Direction { incoming, outgoing };
  enum class Kind { text, tapback, edited, attachment, reminder, empty };

  std::string id;  // source key, ':', the store's own key
  double ts = 0;   // unix seconds, whatever the store's epoch
  std::string src;
  std::string who;
  std::string teskID;
  Direction dir = Direction::incoming;
  Kind kind = Kind::text;
  std::string body;
  bool group = false;
  bool filtered = false;
  int64_t chatID = 0;
  bool unread = false;
  std::vector<TeskAttachment> attachments;
  std::optional<double> start;

  // Every field back to its default, the strings keeping their buffers for the next row
  // (a field added above is reset here too).
  void clear();
  bool operator==(const TeskRow&) const = default;

  static std::string_view rawValue(Direction d) { return d == Direction::incoming ? "in" : "out"; }
  static std::string_view rawValue(Kind k);
  // Exact, case-sensitive match of the raw strings; nothing for any other text.
  static std::optional<Kind> kindFromRaw(std::string_view raw);
  static std::optional<Direction> directionFromRaw(std::string_view raw);

  // The one order of every answer, oldest first (the emitter shows it reversed, newest
  // first): `ts` ascending; at one instant, sources in reading order (im, chrome, arc,
  // safari, mail, cal, reminder, then any other key by name); then `id`, shorter first,
  // then byte order (so "im:9" comes before "im:10"). Ids are unique per source, so
  // the order is total, and a cursor naming one row splits an answer exactly. Merges
  // and paging both use it.
  static bool answerOrder(const TeskRow& a, const TeskRow& b);
  // The position of a source key in that order.
  static int sourceRank(std::string_view src);
};
