// The Envelope Index to rows. Built around the traps of Mail's Gmail mirror:
// direction comes from the Sent label (read once into a set, never joined, so a
// two-label message stays one row), freshness is an order statistic with an
// outlier test, and the horizons are asked of the store unbounded.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "sources/mail/TeskMail.h"
#include "sources/messages/TeskIdentity.h"
#include "store/TeskStore.h"

namespace TeskMail {
namespace {

const std::string kMailboxesSQL = "SELECT ROWID, url FROM mailboxes";
const std::string kAddressesSQL = "SELECT ROWID, address FROM addresses";
const std::string kRecipientsSQL =
    "SELECT message, address FROM recipients ORDER BY message, position, type";
const std::string kLabelsSQL = "SELECT message_id, mailbox_id FROM labels";
// The envelope window's messages: with a window, recipients and labels are read for
// those alone (on 76k mails, the two whole-table reads were most of a 30-day `mail`).
// A plain range, so the date index answers it: the "(? = 0 OR ...)" form it replaces
// walked the whole index. A missing bound is the integer's end; the NULL and text dates
// a range leaves out are no instants, which the envelope pass drops anyway.
const std::string kWindowIDs = "(SELECT ROWID FROM messages WHERE date_received BETWEEN ? AND ?)";
const std::string kRecipientsWindowSQL =
    "SELECT message, address FROM recipients\nWHERE message IN " + kWindowIDs +
    "\nORDER BY message, position, type";
const std::string kLabelsWindowSQL =
    "SELECT message_id, mailbox_id FROM labels\nWHERE message_id IN " + kWindowIDs;
const std::string kCountSQL = "SELECT COUNT(*) FROM messages";
const std::string kSamplesSQL =
    "SELECT date_received FROM messages ORDER BY date_received DESC LIMIT ?";
// Column 7 is the message's read state: 1 read, 0 not, NULL when the index keeps none.
std::string envelopeSQL(const std::string& readState) {
  return "SELECT m.ROWID, m.date_received, m.mailbox, m.conversation_id,\n"
         "       s.subject, m.subject_prefix, m.sender, " +
         readState +
         "\n"
         "FROM messages m\n"
         "LEFT JOIN subjects s ON s.ROWID = m.subject\n"
         "WHERE m.date_received BETWEEN ? AND ?\n"
         "ORDER BY m.date_received";
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
// The complement of kDated for non-NULL values, as two ranges an index can answer.
const std::string kNoInstantSQL =
    "SELECT COUNT(*) FROM messages WHERE date_received <= 0 OR date_received >= 7258118400";

constexpr int64_t kFreshnessSamples = 16;
const std::string kUnknownMailbox = "(unknown mailbox)";

struct Candidate {
  int64_t rowid = 0;
  double ts = 0;
  std::string who;
  bool sent = false;
  const Mailbox* box = nullptr;
  std::string subject;
  int64_t conversation = 0;
  int64_t recipients = 0;
  bool unread = false;
  std::optional<std::string> body;
};

struct Recipients {
  int64_t first = 0;
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

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decoding that fails (nothing) on a broken escape or invalid UTF-8.
std::optional<std::string> percentDecoded(std::string_view s) {
  if (s.find('%') == std::string_view::npos) return std::string(s);
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '%') {
      out.push_back(s[i]);
      continue;
    }
    if (i + 2 >= s.size()) return std::nullopt;
    const int hi = hexDigit(s[i + 1]);
    const int lo = hexDigit(s[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  if (!isValidUTF8(out)) return std::nullopt;
  return out;
}

const std::string& keyOf(const Mailbox* box) { return box ? box->name : kUnknownMailbox; }

}  // namespace

bool isSentLeaf(std::string_view leaf) {
  return leaf == "Sent Mail" || leaf == "Sent Messages" || leaf == "Sent" || leaf == "Outbox" ||
         leaf == "Drafts" || leaf == "SendLater";
}

bool isFilteredLeaf(std::string_view leaf) { return leaf == "Spam" || leaf == "Junk"; }

double Freshness::ageDays() const {
  if (newest <= 0) return std::numeric_limits<double>::infinity();
  return (now - newest) / 86400.0;
}

std::optional<std::string> indexPath(const std::string& home) {
  const std::string mailDir = home + "/Library/Mail";
  std::error_code ec;
  std::filesystem::directory_iterator it(mailDir, ec);
  if (ec) return std::nullopt;
  std::vector<std::pair<int64_t, std::string>> versions;
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    const std::string name = it->path().filename().string();
    if (name.size() < 2 || name.size() > 19 || name[0] != 'V') continue;
    int64_t n = 0;
    bool digits = true;
    for (size_t i = 1; i < name.size(); ++i) {
      if (name[i] < '0' || name[i] > '9') {
        digits = false;
        break;
      }
      n = n * 10 + (name[i] - '0');
    }
    if (digits) versions.emplace_back(n, name);
  }
  std::sort(versions.begin(), versions.end(),
            [](const auto& a, const auto& b) { return a.first > b.first; });
  for (const auto& [n, name] : versions) {
    std::string path = mailDir + "/" + name + "/MailData/Envelope Index";
    if (std::filesystem::exists(path, ec)) return path;
  }
  return std::nullopt;
}

std::optional<Mailbox> mailbox(int64_t id, std::string_view url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return std::nullopt;
  const std::string_view rest = url.substr(scheme + 3);
  const size_t slash = rest.find('/');
  Mailbox box;
  box.id = id;
  box.account = std::string(rest.substr(0, slash));
  const std::string_view rawPath =
      slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
  std::string path = percentDecoded(rawPath).value_or(std::string(rawPath));
  // The last non-empty component; the path itself when splitting yields nothing.
  std::string_view leaf = path;
  size_t end = path.size();
  while (end > 0 && path[end - 1] == '/') --end;
  if (end > 0) {
    const size_t start = path.rfind('/', end - 1);
    const size_t from = start == std::string::npos ? 0 : start + 1;
    leaf = std::string_view(path).substr(from, end - from);
  }
  box.leaf = std::string(leaf);
  box.name = path.empty() ? "(root)" : path;
  return box;
}

Freshness freshness(std::vector<double> samples, double now) {
  Freshness f;
  f.now = now;
  std::sort(samples.begin(), samples.end(), std::greater<double>());
  f.sampled = static_cast<int64_t>(samples.size());
  if (!samples.empty()) f.raw = samples.front();
  std::vector<double> credible;
  for (double s : samples) {
    if (s > now) ++f.future;
    if (s > 0 && s <= now) credible.push_back(s);
  }
  if (!credible.empty()) f.newest = credible[0];
  if (credible.size() >= 2) f.runnerUp = credible[1];
  if (credible.size() >= 4) {
    const double firstGap = credible[0] - credible[1];
    std::vector<double> gaps;
    for (size_t i = 1; i + 1 < credible.size(); ++i) gaps.push_back(credible[i] - credible[i + 1]);
    std::sort(gaps.begin(), gaps.end());
    const double median = gaps[gaps.size() / 2];
    f.contested = std::max(median, 1.0) * 20 < firstGap;
  }
  return f;
}

Result read(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget,
            const std::string& home) {
  Result result;
  try {
    const auto index = indexPath(home);
    if (!index) {
      result.denied.push_back("mail: no Apple Mail index on this Mac");
      return result;
    }
    std::optional<TeskStore> opened;
    try {
      opened.emplace(*index);
    } catch (const TeskStoreError& e) {
      result.denied.push_back("mail: " + e.description());
      return result;
    }
    TeskStore& store = *opened;
    result.openMode = std::string(rawValue(store.mode()));
    const std::string versionRoot =
        std::filesystem::path(*index).parent_path().parent_path().string();

    // Mailboxes, addresses and recipients: each one pass into a map; a failing
    // query leaves what was read.
    std::unordered_map<int64_t, Mailbox> boxes;
    std::unordered_map<int64_t, std::string> addresses;
    std::unordered_map<int64_t, Recipients> recipients;
    try {
      store.query(kMailboxesSQL, [&](const TeskRowReader& r) {
        const auto url = r.textView(1);
        if (!url) return;
        if (auto box = mailbox(r.integer(0), *url)) boxes.emplace(box->id, std::move(*box));
      });
    } catch (const TeskStoreError&) {
    }
    try {
      store.query(kAddressesSQL, [&](const TeskRowReader& r) {
        if (auto a = r.text(1)) addresses.emplace(r.integer(0), std::move(*a));
      });
    } catch (const TeskStoreError&) {
    }
    // The addresses that are the person's, when `thread` asks for their group mail too.
    std::unordered_set<int64_t> personAddresses;
    if (filter.whoGroups) {
      for (const auto& [id, address] : addresses) {
        if (filter.namesHandle(TeskIdentity::canonical(address))) personAddresses.insert(id);
      }
    }
    const bool windowed = filter.since || filter.until;
    const std::vector<TeskValue> noBinds;
    try {
      store.query(windowed ? kRecipientsWindowSQL : kRecipientsSQL,
                  windowed ? windowBinds(filter) : noBinds, [&](const TeskRowReader& r) {
                    auto [it, inserted] = recipients.try_emplace(r.integer(0));
                    if (inserted) it->second.first = r.integer(1);
                    ++it->second.count;
                    if (personAddresses.count(r.integer(1))) it->second.person = true;
                  });
    } catch (const TeskStoreError&) {
    }

    // The sent set, from labels alone.
    std::unordered_set<int64_t> sentBoxes;
    for (const auto& [id, box] : boxes) {
      if (isSentLeaf(box.leaf)) sentBoxes.insert(id);
    }
    std::unordered_set<int64_t> sentMessages;
    if (!sentBoxes.empty()) {
      try {
        store.query(windowed ? kLabelsWindowSQL : kLabelsSQL,
                    windowed ? windowBinds(filter) : noBinds, [&](const TeskRowReader& r) {
                      if (sentBoxes.count(r.integer(1))) sentMessages.insert(r.integer(0));
                    });
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
    result.freshness = freshness(std::move(samples), now);

    // The envelope query, in ascending date_received.
    std::vector<Candidate> candidates;
    std::optional<TeskSpan> window;
    std::map<std::string, TeskSpan> windows;
    const std::string whoQuery = filter.who ? std::string(*filter.who) : std::string();
    const std::string whoCanonical = TeskIdentity::canonical(whoQuery);
    const bool byWho = filter.who && !filter.who->empty();
    const std::string readState = readStateColumn(store);
    result.readStateKnown = readState != "NULL";
    result.unreadIgnored = filter.unreadOnly && !result.readStateKnown;
    try {
      store.query(envelopeSQL(readState), windowBinds(filter), [&](const TeskRowReader& r) {
        const double received = r.real(1);
        // No instant, no place on the time axis (a text reads as 0): counted by kNoInstantSQL.
        if (received < 1 || !TeskTime::plausible(received)) return;
        const int64_t rowid = r.integer(0);
        const auto boxIt = r.isNull(2) ? boxes.end() : boxes.find(r.integer(2));
        const Mailbox* box = boxIt == boxes.end() ? nullptr : &boxIt->second;
        const std::string& key = keyOf(box);
        widen(window, received, received);
        widen(windows, key, received, received);
        if (received > now) ++result.futureDated;

        bool sent = sentMessages.count(rowid) > 0;
        if (box) {
          if (isFilteredLeaf(box->leaf) && !filter.includeFiltered) {
            ++result.excludedFiltered;
            return;
          }
          sent = sent || isSentLeaf(box->leaf);
        }
        const auto dir = sent ? TeskRow::Direction::outgoing : TeskRow::Direction::incoming;
        if (filter.direction && *filter.direction != dir) return;
        // Unread as for messages: received and not yet read; what the owner sent is neither.
        const bool unread = !sent && !r.isNull(7) && r.integer(7) == 0;
        if (filter.unreadOnly && result.readStateKnown && !unread) return;

        const auto senderIt = r.isNull(6) ? addresses.end() : addresses.find(r.integer(6));
        const std::string& senderAddress =
            senderIt == addresses.end() ? std::string() : senderIt->second;
        const auto recIt = recipients.find(rowid);
        const int64_t recipientCount = recIt == recipients.end() ? 0 : recIt->second.count;
        std::string recipientAddress;
        if (recIt != recipients.end()) {
          const auto a = addresses.find(recIt->second.first);
          if (a != addresses.end()) recipientAddress = a->second;
        }
        std::string who = sent ? recipientAddress : senderAddress;
        if (who.empty()) who = sent ? senderAddress : recipientAddress;

        if (recipientCount >= 2 && !filter.includeGroups) {
          ++result.excludedGroup;
          return;
        }
        if (byWho && !TeskIdentity::matches(whoQuery, who)) {
          const std::string canonical = TeskIdentity::canonical(who);
          const bool inGroup = recipientCount >= 2 && recIt->second.person;
          if (canonical != whoCanonical && !filter.namesHandle(canonical) && !inGroup) return;
        }

        Candidate c;
        c.rowid = rowid;
        c.ts = received;
        c.who = std::move(who);
        c.sent = sent;
        c.box = box;
        std::string subject(r.textView(5).value_or(std::string_view{}));
        subject.append(r.textView(4).value_or(std::string_view{}));
        c.subject = std::string(TeskText::trim(subject));
        c.conversation = r.integer(3);
        c.recipients = recipientCount;
        c.unread = unread;
        candidates.push_back(std::move(c));
      });
    } catch (const TeskStoreError& e) {
      // Nothing of a half-read envelope query is reported.
      Result denied;
      denied.openMode = result.openMode;
      denied.indexRows = result.indexRows;
      denied.freshness = result.freshness;
      denied.denied.push_back("mail: schema moved \xE2\x80\x94 " + e.description());
      return denied;
    }
    result.candidates = static_cast<int64_t>(candidates.size());

    // Horizons: the whole index, asked unbounded, widened by the window.
    std::optional<TeskSpan> whole;
    try {
      store.query(kHorizonSQL, [&](const TeskRowReader& r) {
        if (r.isNull(0) || r.isNull(1)) return;
        const double lo = r.real(0), hi = r.real(1);
        if (lo >= 1 && hi >= 1 && lo <= hi) whole = TeskSpan{lo, hi};
      });
    } catch (const TeskStoreError&) {
    }
    result.noInstant = store.scalarInt(kNoInstantSQL).value_or(0);
    if (window) widen(whole, window->from, window->to);
    if (whole && whole->from <= whole->to) result.horizon = whole;

    std::map<std::string, TeskSpan> perBox;
    try {
      std::unordered_map<int64_t, std::string> names;
      store.query(kMailboxesSQL, [&](const TeskRowReader& r) {
        const auto url = r.textView(1);
        if (!url) return;
        if (auto box = mailbox(r.integer(0), *url)) names.emplace(box->id, std::move(box->name));
      });
      store.query(kMailboxHorizonSQL, [&](const TeskRowReader& r) {
        if (r.isNull(1) || r.isNull(2)) return;
        const double lo = r.real(1), hi = r.real(2);
        if (!(lo >= 1 && hi >= 1 && lo <= hi)) return;
        const auto name = r.isNull(0) ? names.end() : names.find(r.integer(0));
        widen(perBox, name == names.end() ? kUnknownMailbox : name->second, lo, hi);
      });
    } catch (const TeskStoreError&) {
      perBox.clear();
    }
    for (const auto& [key, span] : windows) widen(perBox, key, span.from, span.to);
    result.horizons = std::move(perBox);

    // Bodies, newest first, within the budget unless a text selector needs all.
    const bool hasQuery = filter.query && !filter.query->empty();
    result.budgetWaived = hasQuery || filter.grep.has_value();
    const int64_t limit = result.budgetWaived
                              ? result.candidates
                              : std::min(std::max<int64_t>(bodyBudget, 0), result.candidates);
    std::unordered_map<int64_t, std::optional<std::string>> roots;
    for (auto it = candidates.rbegin(); it != candidates.rend() && result.bodiesAttempted < limit;
         ++it) {
      ++result.bodiesAttempted;
      std::optional<std::string>* root = nullptr;
      if (it->box) {
        auto [r, inserted] = roots.try_emplace(it->box->id);
        if (inserted) r->second = dataRoot(*it->box, versionRoot);
        root = &r->second;
      }
      if (!root || !*root) {
        result.census.record(Tier::notOnDisk);
        continue;
      }
      it->body = load(it->rowid, **root, result.census).text;
    }
    result.bodiesSkipped = result.candidates - result.bodiesAttempted;
    result.census.notOpened = result.bodiesSkipped;
    const Census& c = result.census;
    result.bodiesOpened =
        c.plain + c.html + c.noTextPart + c.malformed + c.undecodable + c.unreadable;

    // Rows, ascending; the text selectors see subject and body together.
    std::optional<TeskText::Needle> needle;
    if (hasQuery) needle.emplace(*filter.query);
    result.rows.reserve(candidates.size());
    for (Candidate& cand : candidates) {
      std::string text = cand.subject.empty() ? std::string("(no subject)") : cand.subject;
      const bool hasBody = cand.body && !cand.body->empty();
      if (hasBody) {
        text.append(" \xC2\xB7 ");
        text.append(*cand.body);
      }
      if (needle && !needle->in(text)) continue;
      if (filter.grep && !filter.grep->search(text)) continue;
      ++result.perMailbox[keyOf(cand.box)];
      TeskRow row;
      row.id = "mail:" + std::to_string(cand.rowid);
      row.ts = cand.ts;
      row.src = "mail";
      row.teskID = TeskIdentity::canonical(cand.who);
      row.who = std::move(cand.who);
      row.dir = cand.sent ? TeskRow::Direction::outgoing : TeskRow::Direction::incoming;
      row.kind = hasBody ? TeskRow::Kind::text : TeskRow::Kind::empty;
      row.body = std::move(text);
      row.group = cand.recipients >= 2;
      row.filtered = cand.box && isFilteredLeaf(cand.box->leaf);
      row.chatID = cand.conversation;
      row.unread = cand.unread;
      result.rows.push_back(std::move(row));
    }
    // The envelope query already returns ascending dates; sorting would only
    // allocate a second copy of every row.
    const auto byTime = [](const TeskRow& a, const TeskRow& b) { return a.ts < b.ts; };
    if (!std::is_sorted(result.rows.begin(), result.rows.end(), byTime)) {
      std::stable_sort(result.rows.begin(), result.rows.end(), byTime);
    }
  } catch (const std::exception& e) {
    // Nothing but a store error is expected here; whatever else reaches this
    // point is still a denial, never a crash of the whole run.
    Result failed;
    failed.openMode = result.openMode;
    failed.denied.push_back(std::string("mail: ") + e.what());
    return failed;
  }
  return result;
}

std::vector<std::string> notes(const Result& result) {
  std::vector<std::string> out;
  if (result.denied.empty()) {
    const Census& c = result.census;
    const int64_t decoded = c.plain + c.html;
    const int64_t demanded = c.attempted();
    const int64_t decodable = std::max<int64_t>(demanded - c.noTextPart - c.notOnDisk, 0);
    const double rate =
        decodable < 1 ? 1.0 : static_cast<double>(decoded) / static_cast<double>(decodable);
    char line[256];
    std::snprintf(line, sizeof line,
                  "mail decode %.5f (%lld of %lld decodable; %lld demanded, %lld files opened)",
                  rate, static_cast<long long>(decoded), static_cast<long long>(decodable),
                  static_cast<long long>(demanded), static_cast<long long>(c.filesRead()));
    std::string decode = line;
    const auto suffix = [&decode](int64_t n, const char* what) {
      if (n >= 1) decode += " \xC2\xB7 " + std::to_string(n) + what;
    };
    suffix(c.noTextPart, " had no text part");
    suffix(c.notOnDisk, " never reached this disk");
    suffix(c.undecodable, " undecodable, counted not guessed");
    out.push_back(std::move(decode));
    if (rate < 0.999 && decodable >= 1) {
      out.push_back("MAIL DECODE BELOW GATE \xE2\x80\x94 treat every mail count as a floor");
    }
  }
  if (result.unreadIgnored) {
    out.push_back("--unread: this mail index keeps no read state; mail rows are not filtered");
  }
  if (result.noInstant >= 1) {
    out.push_back("mail: " + std::to_string(result.noInstant) +
                  " message(s) whose date is no instant (not a number, before 1970 or after "
                  "2200) left out of rows and horizon");
  }
  if (result.futureDated >= 1) {
    out.push_back("mail: " + std::to_string(result.futureDated) +
                  " row(s) dated in the future excluded from freshness");
  }
  return out;
}

}  // namespace TeskMail
