// The Envelope Index to rows, newest first. Built around the traps of Mail's Gmail
// mirror: direction comes from the Sent label (the sent messages read once into a set,
// never joined, so a two-label message stays one row), and the horizons are asked of
// the store unbounded. Nothing grows with the window: each message's recipients and
// body are read as it passes.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "sources/mail/TeskMail.h"
#include "sources/messages/TeskIdentity.h"
#include "store/TeskRowSet.h"
#include "store/TeskStore.h"

namespace TeskMail {
namespace {

const std::string kMailboxesSQL = "SELECT ROWID, url FROM mailboxes";
const std::string kAddressesSQL = "SELECT ROWID, address FROM addresses";
// One message's recipients, a lookup in the table's message index; in index order, as
// only the few messages with several recipients need the first of them.
const std::string kRecipientsSQL = "SELECT address FROM recipients WHERE message = ?";
const std::string kFirstRecipientSQL =
    "SELECT address FROM recipients WHERE message = ? ORDER BY position, type LIMIT 1";
// The messages one mailbox labels, from the label table's mailbox index.
const std::string kLabelledSQL = "SELECT message_id FROM labels WHERE mailbox_id = ?";
const std::string kCountSQL = "SELECT COUNT(*) FROM messages";
const std::string kSamplesSQL =
    "SELECT date_received FROM messages ORDER BY date_received DESC LIMIT ?";
// Column 7 is the message's read state: 1 read, 0 not, NULL when the index keeps none.
// A plain range walked down the date index, newest first; a missing bound is the
// integer's end, and the NULL and text dates a range leaves out are no instants. The
// ROWID makes the order of one instant the index's own, whatever plan SQLite picks.
std::string envelopeSQL(const std::string& readState) {
  return "SELECT m.ROWID, m.date_received, m.mailbox, m.conversation_id,\n"
         "       s.subject, m.subject_prefix, m.sender, " +
         readState +
         "\n"
         "FROM messages m\n"
         "LEFT JOIN subjects s ON s.ROWID = m.subject\n"
         "WHERE m.date_received BETWEEN ? AND ?\n"
         "ORDER BY m.date_received DESC, m.ROWID DESC";
}

// Newer indexes keep a `read` column; older ones only the message flags, whose lowest
// bit is the read flag (the same bits an .emlx file's plist carries).
std::string readStateColumn(TeskStore& store) {
  if (store.columnExists("read", "messages")) return "m.read";
  if (store.columnExists("flags", "messages")) return "(m.flags & 1)";
  return "NULL";
}
// Only instants: one negative date_received (a sentinel, a bad import) would be the
// MIN and fail the pair's sanity test, one far in the future (or a text, which sorts
// above every number) would carry the horizon to year 9999. Those rows are counted.
const std::string kDated = "date_received > 0 AND date_received < 7258118400";  // 2200
// Two index ends rather than one walk of every date.
const std::string kHorizonSQL = "SELECT (SELECT MIN(date_received) FROM messages WHERE " + kDated +
                                "), (SELECT MAX(date_received) FROM messages WHERE " + kDated + ")";
// "+" keeps the range off the date index, so an index on (mailbox, date_received)
// answers the grouping alone instead of a sort of every row.
const std::string kMailboxHorizonSQL =
    "SELECT mailbox, MIN(date_received), MAX(date_received)\n"
    "FROM messages WHERE +date_received > 0 AND +date_received < 7258118400 GROUP BY mailbox";
// The same groups where that index exists, without reading every entry of it: each
// mailbox value is the next one the index holds after the last, and its ends are two
// lookups (the 30-day read walked all 76,000 entries of the demo home for 8 mailboxes).
const std::string kMailboxEndsSQL =
    "WITH RECURSIVE boxes(box) AS (\n"
    "  SELECT (SELECT MIN(mailbox) FROM messages)\n"
    "  UNION ALL\n"
    "  SELECT (SELECT MIN(mailbox) FROM messages WHERE mailbox > box) FROM boxes\n"
    "  WHERE box IS NOT NULL)\n"
    "SELECT box,\n"
    "  (SELECT MIN(date_received) FROM messages WHERE mailbox = box AND " +
    kDated +
    "),\n"
    "  (SELECT MAX(date_received) FROM messages WHERE mailbox = box AND " +
    kDated +
    ")\n"
    "FROM boxes WHERE box IS NOT NULL\n"
    "UNION ALL\n"
    "SELECT NULL, MIN(date_received), MAX(date_received) FROM messages\n"
    "WHERE mailbox IS NULL AND " +
    kDated;
// The complement of kDated for non-NULL values, as two ranges an index can answer.
const std::string kNoInstantSQL =
    "SELECT COUNT(*) FROM messages WHERE date_received <= 0 OR date_received >= 7258118400";

constexpr int64_t kFreshnessSamples = 16;
const std::string kUnknownMailbox = "(unknown mailbox)";

struct Recipients {
  int64_t first = 0;  // the address of a lone recipient
  int64_t count = 0;
  bool person = false;  // one of them is a handle of the person `thread` asks about
};

void widen(std::optional<TeskSpan>& span, double from, double to) {
  if (!span) {
    span = TeskSpan{from, to};
    return;
  }
  span->from = std::min(span->from, from);
  span->to = std::max(span->to, to);
}

void widen(std::map<std::string, TeskSpan>& spans, const std::string& key, double from, double to) {
  auto [it, inserted] = spans.try_emplace(key, TeskSpan{from, to});
  if (!inserted) {
    it->second.from = std::min(it->second.from, from);
    it->second.to = std::max(it->second.to, to);
  }
}

// A since/until instant as the integer the envelope query binds; instants
// beyond a 64-bit second count are clamped (the time parser never makes them).
int64_t boundSeconds(double t) {
  if (std::isnan(t)) return 0;
  if (t >= 9.2e18) return std::numeric_limits<int64_t>::max();
  if (t <= -9.2e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(t);
}

// The two binds of a window: its ends, the integer's ends where none is given.
std::vector<TeskValue> windowBinds(const TeskIMessage::Filter& filter) {
  // Built one by one: g++ 12 at -O2 misreads a TeskValue initializer list as
  // touching an uninitialised string.
  std::vector<TeskValue> binds;
  binds.reserve(2);
  binds.emplace_back(filter.since ? boundSeconds(*filter.since)
                                  : std::numeric_limits<int64_t>::min());
  binds.emplace_back(filter.until ? boundSeconds(*filter.until)
                                  : std::numeric_limits<int64_t>::max());
  return binds;
}

const std::string& keyOf(const Mailbox* box) { return box ? box->name : kUnknownMailbox; }

}  // namespace

// The walk behind Stream: the index, its lookups and the counts so far.
class Stream::Walk {
 public:
  Walk(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget, const std::string& home);

  const TeskRow* next() { return instants_.next(); }
  Result finish() const;
  int64_t kept() const { return kept_; }

 private:
  void open(const std::string& home);
  // Steps to the next message the filter keeps; false at the end or on a failure
  // (kept for finish()).
  bool pull(TeskRow& row);
  bool keep(const TeskRowReader& r, TeskRow& row);
  // Ends the walk with the denial of a failed envelope query; nothing else it
  // counted is reported.
  void schemaMoved(const TeskStoreError& e);
  // Ends the walk with the denial of any other failure.
  void fail(const std::exception& e);
  Recipients recipients(int64_t rowid);
  // The address of the first recipient by position, then type; empty when unknown.
  std::string firstRecipient(int64_t rowid, const Recipients& to);
  std::optional<std::string> body(int64_t rowid, const Mailbox* box);

  const TeskIMessage::Filter& filter_;
  const double now_;
  const int64_t bodyBudget_;
  Result result_;  // the counts; rows stay empty
  std::optional<Result> failed_;
  std::optional<TeskStore> store_;
  // Declared after the store: they go first.
  std::optional<TeskStore::Cursor> envelope_, recipients_, firstRecipient_;
  std::string versionRoot_;
  std::unordered_map<int64_t, Mailbox> boxes_;
  std::unordered_map<int64_t, std::string> addresses_;
  std::unordered_set<int64_t> personAddresses_;
  TeskRowSet sentMessages_;                                        // labelled with a Sent mailbox
  std::unordered_map<int64_t, std::optional<std::string>> roots_;  // data root per mailbox
  std::string whoQuery_, whoCanonical_;
  bool byWho_ = false;
  std::optional<TeskText::Needle> needle_;
  std::optional<TeskSpan> whole_;            // the store's own horizon
  std::map<std::string, TeskSpan> perBox_;   // the store's own, per mailbox
  std::optional<TeskSpan> window_;           // the dated envelope rows
  std::map<std::string, TeskSpan> windows_;  // the same, per mailbox
  int64_t kept_ = 0;
  TeskInstantOrder instants_{[this](TeskRow& row) { return pull(row); }};
};

Stream::Walk::Walk(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget,
                   const std::string& home)
    : filter_(filter), now_(now), bodyBudget_(bodyBudget) {
  try {
    open(home);
  } catch (const std::exception& e) {
    fail(e);
  }
}

// Nothing but a store error is expected while opening or walking; whatever else
// arrives is still a denial, never a crash of the whole run.
void Stream::Walk::fail(const std::exception& e) {
  Result failed;
  failed.openMode = result_.openMode;
  failed.denied.push_back(std::string("mail: ") + e.what());
  failed_ = std::move(failed);
  envelope_.reset();
}

void Stream::Walk::open(const std::string& home) {
  Result& result = result_;
  const auto index = indexPath(home);
  if (!index) {
    result.denied.push_back("mail: no Apple Mail index on this Mac");
    failed_ = result;
    return;
  }
  try {
    store_.emplace(*index);
  } catch (const TeskStoreError& e) {
    result.denied.push_back("mail: " + e.description());
    failed_ = result;
    return;
  }
  TeskStore& store = *store_;
  result.openMode = std::string(rawValue(store.mode()));
  versionRoot_ = std::filesystem::path(*index).parent_path().parent_path().string();

  // Mailboxes and addresses: each one pass into a map (as many as the index knows,
  // whatever the window); a failing query leaves what was read.
  bool boxesRead = false;
  try {
    store.query(kMailboxesSQL, [&](const TeskRowReader& r) {
      const auto url = r.textView(1);
      if (!url) return;
      if (auto box = mailbox(r.integer(0), *url)) boxes_.emplace(box->id, std::move(*box));
    });
    boxesRead = true;
  } catch (const TeskStoreError&) {
  }
  try {
    store.query(kAddressesSQL, [&](const TeskRowReader& r) {
      if (auto a = r.text(1)) addresses_.emplace(r.integer(0), std::move(*a));
    });
  } catch (const TeskStoreError&) {
  }
  // The addresses that are the person's, when `thread` asks for their group mail too.
  if (filter_.whoGroups) {
    for (const auto& [id, address] : addresses_) {
      if (filter_.namesHandle(TeskIdentity::canonical(address))) personAddresses_.insert(id);
    }
  }
  // A table that cannot be read leaves every message without what it would add.
  try {
    recipients_.emplace(store, kRecipientsSQL);
    firstRecipient_.emplace(store, kFirstRecipientSQL);
  } catch (const TeskStoreError&) {
    recipients_.reset();
  }
  // The sent set, from labels alone: as many as the owner ever sent, one bit each.
  for (const auto& [id, box] : boxes_) {
    if (!isSentLeaf(box.leaf)) continue;
    try {
      store.query(kLabelledSQL, {id},
                  [&](const TeskRowReader& r) { sentMessages_.insert(r.integer(0)); });
    } catch (const TeskStoreError&) {
    }
  }

  result.indexRows = store.scalarInt(kCountSQL).value_or(0);
  std::vector<double> samples;
  try {
    store.query(kSamplesSQL, {kFreshnessSamples},
                [&](const TeskRowReader& r) { samples.push_back(r.real(0)); });
  } catch (const TeskStoreError&) {
  }
  result.freshness = freshness(std::move(samples), now_);

  whoQuery_ = filter_.who ? std::string(*filter_.who) : std::string();
  whoCanonical_ = TeskIdentity::canonical(whoQuery_);
  byWho_ = filter_.who && !filter_.who->empty();
  const std::string readState = readStateColumn(store);
  result.readStateKnown = readState != "NULL";
  result.unreadIgnored = filter_.unreadOnly && !result.readStateKnown;
  try {
    envelope_.emplace(store, envelopeSQL(readState), windowBinds(filter_));
  } catch (const TeskStoreError& e) {
    schemaMoved(e);
    return;
  }

  // Horizons: the whole index, asked unbounded; finish() widens them by the window.
  try {
    store.query(kHorizonSQL, [&](const TeskRowReader& r) {
      if (r.isNull(0) || r.isNull(1)) return;
      const double lo = r.real(0), hi = r.real(1);
      if (lo >= 1 && hi >= 1 && lo <= hi) whole_ = TeskSpan{lo, hi};
    });
  } catch (const TeskStoreError&) {
  }
  result.noInstant = store.scalarInt(kNoInstantSQL).value_or(0);
  // Per mailbox only when every mailbox has its name.
  if (boxesRead) {
    try {
      const bool indexed = store.indexLeadsWith("messages", {"mailbox", "date_received"});
      store.query(indexed ? kMailboxEndsSQL : kMailboxHorizonSQL, [&](const TeskRowReader& r) {
        if (r.isNull(1) || r.isNull(2)) return;
        const double lo = r.real(1), hi = r.real(2);
        if (!(lo >= 1 && hi >= 1 && lo <= hi)) return;
        const auto box = r.isNull(0) ? boxes_.end() : boxes_.find(r.integer(0));
        widen(perBox_, keyOf(box == boxes_.end() ? nullptr : &box->second), lo, hi);
      });
    } catch (const TeskStoreError&) {
      perBox_.clear();
    }
  }

  const bool hasQuery = filter_.query && !filter_.query->empty();
  result.budgetWaived = hasQuery || filter_.grep.has_value();
  if (hasQuery) needle_.emplace(*filter_.query);
}

void Stream::Walk::schemaMoved(const TeskStoreError& e) {
  Result denied;
  denied.openMode = result_.openMode;
  denied.indexRows = result_.indexRows;
  denied.freshness = result_.freshness;
  denied.denied.push_back("mail: schema moved \xE2\x80\x94 " + e.description());
  failed_ = std::move(denied);
  envelope_.reset();
}

bool Stream::Walk::pull(TeskRow& row) {
  if (!envelope_) return false;
  try {
    while (envelope_->next()) {
      if (keep(envelope_->row(), row)) return true;
    }
  } catch (const TeskStoreError& e) {
    schemaMoved(e);
  } catch (const std::exception& e) {
    fail(e);
  }
  return false;
}

Recipients Stream::Walk::recipients(int64_t rowid) {
  Recipients out;
  if (!recipients_) return out;
  try {
    recipients_->rebind({rowid});
    while (recipients_->next()) {
      const int64_t address = recipients_->row().integer(0);
      if (out.count++ == 0) out.first = address;
      if (personAddresses_.count(address)) out.person = true;
    }
  } catch (const TeskStoreError&) {
    recipients_.reset();
  }
  return out;
}

std::string Stream::Walk::firstRecipient(int64_t rowid, const Recipients& to) {
  int64_t first = to.first;
  if (to.count >= 2) {
    if (!firstRecipient_) return std::string();
    try {
      firstRecipient_->rebind({rowid});
      if (!firstRecipient_->next()) return std::string();
      first = firstRecipient_->row().integer(0);
    } catch (const TeskStoreError&) {
      firstRecipient_.reset();
      return std::string();
    }
  } else if (to.count == 0) {
    return std::string();
  }
  const auto a = addresses_.find(first);
  return a == addresses_.end() ? std::string() : a->second;
}

// Within the budget (the newest candidates, as they come) unless a text selector needs
// every body.
std::optional<std::string> Stream::Walk::body(int64_t rowid, const Mailbox* box) {
  Result& result = result_;
  // An answer that reads no body (buckets, the census) opens none.
  if (!filter_.bodies && !result.budgetWaived) return std::nullopt;
  if (!result.budgetWaived && result.bodiesAttempted >= std::max<int64_t>(bodyBudget_, 0)) {
    return std::nullopt;
  }
  ++result.bodiesAttempted;
  std::optional<std::string>* root = nullptr;
  if (box) {
    auto [it, inserted] = roots_.try_emplace(box->id);
    if (inserted) it->second = dataRoot(*box, versionRoot_);
    root = &it->second;
  }
  if (!root || !*root) {
    result.census.record(Tier::notOnDisk);
    return std::nullopt;
  }
  return load(rowid, **root, result.census).text;
}

bool Stream::Walk::keep(const TeskRowReader& r, TeskRow& row) {
  Result& result = result_;
  const TeskIMessage::Filter& filter = filter_;
  const double received = r.real(1);
  // No instant, no place on the time axis (a text reads as 0): counted by kNoInstantSQL.
  if (received < 1 || !TeskTime::plausible(received)) return false;
  const int64_t rowid = r.integer(0);
  const auto boxIt = r.isNull(2) ? boxes_.end() : boxes_.find(r.integer(2));
  const Mailbox* box = boxIt == boxes_.end() ? nullptr : &boxIt->second;
  const std::string& key = keyOf(box);
  widen(window_, received, received);
  widen(windows_, key, received, received);
  if (received > now_) ++result.futureDated;

  if (box && isFilteredLeaf(box->leaf) && !filter.includeFiltered) {
    ++result.excludedFiltered;
    return false;
  }
  const bool sent = sentMessages_.contains(rowid) || (box && isSentLeaf(box->leaf));
  const auto dir = sent ? TeskRow::Direction::outgoing : TeskRow::Direction::incoming;
  if (filter.direction && *filter.direction != dir) return false;
  // Unread as for messages: received and not yet read; what the owner sent is neither.
  const bool unread = !sent && !r.isNull(7) && r.integer(7) == 0;
  if (filter.unreadOnly && result.readStateKnown && !unread) return false;

  const auto senderIt = r.isNull(6) ? addresses_.end() : addresses_.find(r.integer(6));
  const std::string& senderAddress =
      senderIt == addresses_.end() ? std::string() : senderIt->second;
  const Recipients to = recipients(rowid);
  // The counterpart: what the owner sent goes to its first recipient, the rest comes
  // from its sender; either stands in for the other when missing.
  std::string who = sent ? std::string() : senderAddress;
  if (who.empty()) who = firstRecipient(rowid, to);
  if (who.empty() && sent) who = senderAddress;

  if (to.count >= 2 && !filter.includeGroups) {
    ++result.excludedGroup;
    return false;
  }
  if (byWho_ && !TeskIdentity::matches(whoQuery_, who)) {
    const std::string canonical = TeskIdentity::canonical(who);
    const bool inGroup = to.count >= 2 && to.person;
    if (canonical != whoCanonical_ && !filter.namesHandle(canonical) && !inGroup) return false;
  }
  ++result.candidates;

  // The text selectors see subject and body together.
  std::string text(r.textView(5).value_or(std::string_view{}));
  text.append(r.textView(4).value_or(std::string_view{}));
  text = std::string(TeskText::trim(text));
  if (text.empty()) text = "(no subject)";
  const std::optional<std::string> decoded = body(rowid, box);
  const bool hasBody = decoded && !decoded->empty();
  if (hasBody) {
    text.append(" \xC2\xB7 ");
    text.append(*decoded);
  }
  if (needle_ && !needle_->in(text)) return false;
  if (filter.grep && !filter.grep->search(text)) return false;
  ++result.perMailbox[key];
  ++kept_;
  row = TeskRow();
  row.id = "mail:" + std::to_string(rowid);
  row.ts = received;
  row.src = "mail";
  row.teskID = TeskIdentity::canonical(who);
  row.who = std::move(who);
  row.dir = dir;
  row.kind = hasBody ? TeskRow::Kind::text : TeskRow::Kind::empty;
  row.body = std::move(text);
  row.group = to.count >= 2;
  row.filtered = box && isFilteredLeaf(box->leaf);
  row.chatID = r.integer(3);
  row.unread = unread;
  return true;
}

Result Stream::Walk::finish() const {
  if (failed_) return *failed_;
  Result result = result_;
  std::optional<TeskSpan> whole = whole_;
  if (window_) widen(whole, window_->from, window_->to);
  if (whole && whole->from <= whole->to) result.horizon = whole;
  result.horizons = perBox_;
  for (const auto& [key, span] : windows_) widen(result.horizons, key, span.from, span.to);
  result.bodiesSkipped = result.candidates - result.bodiesAttempted;
  result.census.notOpened = result.bodiesSkipped;
  const Census& c = result.census;
  result.bodiesOpened =
      c.plain + c.html + c.noTextPart + c.malformed + c.undecodable + c.unreadable;
  return result;
}

Stream::Stream(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget,
               const std::string& home)
    : walk_(std::make_unique<Walk>(filter, now, bodyBudget, home)) {}

Stream::~Stream() = default;

const TeskRow* Stream::next() { return walk_->next(); }

Result Stream::finish() const { return walk_->finish(); }

int64_t Stream::kept() const { return walk_->kept(); }

Result read(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget,
            const std::string& home) {
  Stream stream(filter, now, bodyBudget, home);
  std::vector<TeskRow> rows = drainOldestFirst(stream);
  Result out = stream.finish();
  out.rows = std::move(rows);
  return out;
}

}  // namespace TeskMail
