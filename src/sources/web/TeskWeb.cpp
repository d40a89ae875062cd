#include "sources/web/TeskWeb.h"

#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <memory>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "store/TeskStore.h"

namespace TeskWeb {

namespace {

constexpr size_t kBareURLLimit = 60;  // characters kept of a URL without "://"

// The first `limit` user-perceived characters of `s`, as its own bytes (the
// iterator runs over the UTF-8 text itself, so its offsets are byte offsets).
std::string prefixCharacters(std::string_view s, size_t limit) {
  if (TeskText::isASCII(s)) return std::string(s.substr(0, limit));
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<UText, decltype(&utext_close)> text(
      utext_openUTF8(nullptr, s.data(), static_cast<int64_t>(s.size()), &status), &utext_close);
  std::unique_ptr<icu::BreakIterator> it(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  if (U_FAILURE(status) || !text || !it) return std::string(s.substr(0, limit));
  it->setText(text.get(), status);
  if (U_FAILURE(status)) return std::string(s.substr(0, limit));
  int32_t end = it->first();
  for (size_t n = 0; n < limit; ++n) {
    int32_t next = it->next();
    if (next == icu::BreakIterator::DONE) return std::string(s);
    end = next;
  }
  return std::string(s.substr(0, static_cast<size_t>(end)));
}

}  // namespace

void host(std::string_view url, std::string& into) {
  size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) {
    into = prefixCharacters(url, kBareURLLimit);
    return;
  }
  // One pass over the authority: where it ends, its last "@", the first ":" after
  // that, and whether it is ASCII.
  std::string_view rest = url.substr(scheme + 3);
  size_t end = 0, from = 0, colon = std::string_view::npos;
  unsigned char bits = 0;
  for (; end < rest.size(); ++end) {
    const char c = rest[end];
    bits |= static_cast<unsigned char>(c);
    if (c > '@') continue;  // no letter ends or cuts a host
    if (c == '/' || c == '?' || c == '#') break;
    if (c == '@') {
      from = end + 1;
      colon = std::string_view::npos;
    } else if (c == ':' && colon == std::string_view::npos) {
      colon = end;
    }
  }
  if (bits >= 0x80) {
    // Lowered before it is cut, as a whole: beyond ASCII a letter's lower case can
    // depend on the letters around it (a final sigma).
    into = TeskText::lower(rest.substr(0, end));
    if (size_t at = into.rfind('@'); at != std::string::npos) into.erase(0, at + 1);
    if (size_t colon = into.find(':'); colon != std::string::npos) into.erase(colon);
    if (into.starts_with("www.")) into.erase(0, 4);
    return;
  }
  const auto lowered = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  rest = rest.substr(from, std::min(end, colon) - from);
  if (rest.size() >= 4 && lowered(rest[0]) == 'w' && lowered(rest[1]) == 'w' &&
      lowered(rest[2]) == 'w' && rest[3] == '.') {
    rest.remove_prefix(4);
  }
  into.assign(rest);
  for (char& c : into) c = lowered(c);
}

std::string host(std::string_view url) {
  std::string h;
  host(url, h);
  return h;
}

namespace {

constexpr auto kEpochMicros = static_cast<int64_t>(-TeskTime::webkitEpochOffset) * 1000000;
// The first raw value of each engine that is no longer an instant (2200).
constexpr auto kChromiumEnd =
    static_cast<int64_t>(TeskTime::latestPlausible) * 1000000 + kEpochMicros;
constexpr double kWebKitEnd = TeskTime::latestPlausible - TeskTime::appleEpochOffset;

}  // namespace

std::optional<double> chromiumInstant(int64_t microsSince1601) {
  // Subtract in integers first: dividing the 1601-based count first would round
  // away the microseconds (a double holds ~16 digits, the count has 17).
  if (microsSince1601 <= kEpochMicros || microsSince1601 >= kChromiumEnd) return std::nullopt;
  return static_cast<double>(microsSince1601 - kEpochMicros) / 1e6;
}

std::optional<double> webkitInstant(double secondsSince2001) {
  double t = secondsSince2001 + TeskTime::appleEpochOffset;
  if (!std::isfinite(t) || !(t > 0) || !TeskTime::plausible(t)) return std::nullopt;
  return t;
}

std::string_view querySQL(Source::Engine engine) {
  switch (engine) {
    case Source::Engine::chromium:
      return "SELECT v.id, v.visit_time, u.url, u.title\n"
             "FROM visits v JOIN urls u ON u.id = v.url\n"
             "ORDER BY v.visit_time DESC";
    case Source::Engine::webkit:
      return "SELECT v.id, v.visit_time, i.url, v.title\n"
             "FROM history_visits v JOIN history_items i ON i.id = v.history_item\n"
             "ORDER BY v.visit_time DESC";
  }
  return {};
}

std::vector<Source> sources(const std::string& home) {
  static const Source known[] = {
      {"chrome", "/Library/Application Support/Google/Chrome/Default/History",
       Source::Engine::chromium},
      {"arc", "/Library/Application Support/Arc/User Data/Default/History",
       Source::Engine::chromium},
      {"safari", "/Library/Safari/History.db", Source::Engine::webkit},
  };
  std::vector<Source> found;
  for (const Source& s : known) {
    std::string path = home + s.path;
    std::error_code ec;
    if (std::filesystem::exists(path, ec)) found.push_back({s.key, std::move(path), s.engine});
  }
  return found;
}

namespace {

void widen(std::optional<TeskSpan>& span, double t) {
  if (!span) {
    span = TeskSpan{t, t};
    return;
  }
  span->from = std::min(span->from, t);
  span->to = std::max(span->to, t);
}

}  // namespace

// The filter's selectors, prepared once per read rather than once per row.
struct Selectors {
  explicit Selectors(const TeskIMessage::Filter& f)
      : filter(f),
        who(f.who && !f.who->empty() ? &*f.who : nullptr),
        needle(f.query ? std::string_view(*f.query) : std::string_view()) {}

  // True when the visit passes every selector: host contains who, body the query and
  // the pattern, and the asked direction admits outgoing rows.
  bool keep(const std::string& hostName, const std::string& body) const {
    if (who && !TeskText::containsCaseInsensitive(hostName, *who)) return false;
    if (!needle.empty() && !needle.in(body)) return false;
    if (filter.grep && !filter.grep->search(body)) return false;
    if (filter.direction && *filter.direction == TeskRow::Direction::incoming) return false;
    return true;
  }

  const TeskIMessage::Filter& filter;
  const std::string* who;
  TeskText::Needle needle;
};

namespace {

// A window bound in the store's own time unit, one unit looser than the instant so
// rounding never drops a visit (the exact test on the converted instant stays in the
// reader); absent when the bound does not fit the column's range.
std::optional<TeskValue> rawBound(Source::Engine engine, double t, bool upper) {
  const double slack = upper ? 1 : -1;
  if (engine == Source::Engine::webkit) {
    const double v = t - TeskTime::appleEpochOffset + slack;
    if (!std::isfinite(v)) return std::nullopt;
    return TeskValue(v);
  }
  const double v = std::floor((t - TeskTime::webkitEpochOffset) * 1e6) + slack * 2;
  if (!std::isfinite(v) || std::fabs(v) >= 9.0e18) return std::nullopt;
  return TeskValue(static_cast<int64_t>(v));
}

// The statement for a window: the bounds are written only when given, so SQLite
// searches the visit-time index instead of reading every visit.
std::string windowSQL(Source::Engine engine, const TeskIMessage::Filter& f,
                      std::vector<TeskValue>& binds) {
  std::string sql(querySQL(engine));
  std::string where;
  auto add = [&](const std::optional<double>& t, bool upper) {
    if (!t) return;
    const std::optional<TeskValue> bound = rawBound(engine, *t, upper);
    if (!bound) return;
    where += where.empty() ? "WHERE " : " AND ";
    where += upper ? "v.visit_time <= ?" : "v.visit_time >= ?";
    binds.push_back(*bound);
  };
  add(f.since, false);
  add(f.until, true);
  if (!where.empty()) sql.insert(sql.rfind("ORDER BY"), where + "\n");
  return sql;
}

// The visits of `engine` joined to their pages, and the test that a visit's time
// is an instant (two binds: the raw ends); a text or blob compares above every
// number and NULL passes no comparison, so neither passes it.
std::string visitsFrom(Source::Engine engine) {
  return engine == Source::Engine::webkit
             ? "FROM history_visits v JOIN history_items i ON i.id = v.history_item\n"
             : "FROM visits v JOIN urls u ON u.id = v.url\n";
}
constexpr const char* kHasInstant = "v.visit_time > ? AND v.visit_time < ?";

void bindInstantRange(Source::Engine engine, std::vector<TeskValue>& binds) {
  if (engine == Source::Engine::webkit) {
    binds.emplace_back(-TeskTime::appleEpochOffset);
    binds.emplace_back(kWebKitEnd);
  } else {
    binds.emplace_back(kEpochMicros);
    binds.emplace_back(kChromiumEnd);
  }
}

// What a windowed read cannot see for itself: the first and last visit with a usable
// instant, and how many visits have a time that is no instant (never rows, never in a
// horizon).
struct Bounds {
  std::optional<TeskSpan> span;
  int64_t noInstant = 0;
};

std::optional<TeskSpan> spanOf(const TeskRowReader& r, Source::Engine engine, int first) {
  if (r.isNull(first) || r.isNull(first + 1)) return std::nullopt;
  const bool webkit = engine == Source::Engine::webkit;
  const auto a = webkit ? webkitInstant(r.real(first)) : chromiumInstant(r.integer(first));
  const auto b = webkit ? webkitInstant(r.real(first + 1)) : chromiumInstant(r.integer(first + 1));
  if (!a || !b) return std::nullopt;
  return TeskSpan{*a, *b};
}

// Chromium keeps an index on visit_time: the span is read from its two ends, and the
// visits with no instant are the complement of kHasInstant as three ranges of it (a
// text or blob sorts above every number, so the upper range holds them; NULL is the
// third). One NOT over the range read every visit.
Bounds indexedBounds(TeskStore& store, Source::Engine engine) {
  Bounds out;
  const std::string from = visitsFrom(engine) + "WHERE " + kHasInstant;
  std::vector<TeskValue> binds;
  for (int i = 0; i < 2; ++i) bindInstantRange(engine, binds);
  store.query("SELECT (SELECT v.visit_time " + from +
                  " ORDER BY v.visit_time LIMIT 1),\n"
                  "       (SELECT v.visit_time " +
                  from + " ORDER BY v.visit_time DESC LIMIT 1)",
              binds, [&](const TeskRowReader& r) { out.span = spanOf(r, engine, 0); });
  std::vector<TeskValue> range;
  bindInstantRange(engine, range);
  const std::string count = "(SELECT COUNT(*) " + visitsFrom(engine) + "WHERE v.visit_time ";
  store.query("SELECT " + count + "<= ?) + " + count + ">= ?) + " + count + "IS NULL)", range,
              [&](const TeskRowReader& r) { out.noInstant = r.integer(0); });
  return out;
}

// Safari keeps no index on visit_time alone, so each of those statements read every
// visit (and the span's sorted them): one pass answers all three. The visits outside
// kHasInstant are exactly those the three ranges count. The test runs once per visit:
// LIMIT -1 keeps the inner query a co-routine, where flattened it would be evaluated
// once per aggregate (a third of the pass).
Bounds scannedBounds(TeskStore& store, Source::Engine engine) {
  Bounds out;
  std::vector<TeskValue> binds;
  bindInstantRange(engine, binds);
  store.query(std::string("SELECT MIN(t), MAX(t), COUNT(*) - COUNT(t) FROM (SELECT CASE WHEN ") +
                  kHasInstant + " THEN v.visit_time END AS t " + visitsFrom(engine) + "LIMIT -1)",
              binds, [&](const TeskRowReader& r) {
                out.span = spanOf(r, engine, 0);
                out.noInstant = r.integer(2);
              });
  return out;
}

}  // namespace

// One history's visits, newest first: a statement failure ends the source with a
// denial, keeping what it had handed out.
class Stream::Reader final : public TeskRowStream {
 public:
  Reader(const Source& source, const Selectors& sel, std::optional<TeskSpan>& overall)
      : source_(source), sel_(sel), prefix_(source.key + ":") {
    try {
      store_.emplace(source.path);
    } catch (const TeskStoreError& e) {
      denial_ = source.key + ": " + e.description();
      return;
    }
    try {
      std::vector<TeskValue> binds;
      const std::string sql = windowSQL(source.engine, sel.filter, binds);
      // Without a window the one pass sees every visit and measures the span itself.
      windowed_ = !binds.empty();
      noInstant_ = 0;
      if (windowed_) {
        const Bounds bounds = source.engine == Source::Engine::webkit
                                  ? scannedBounds(*store_, source.engine)
                                  : indexedBounds(*store_, source.engine);
        span_ = bounds.span;
        noInstant_ = bounds.noInstant;
        if (span_) {
          widen(overall, span_->from);
          widen(overall, span_->to);
        }
      }
      cursor_.emplace(*store_, sql, binds);
      // Every visit with an instant lies in the span, so a window that misses it holds
      // no row: the statement is prepared (a moved schema is still named) but not run.
      // A stale history (Safari keeps no index on visit_time) is then not read twice.
      const TeskIMessage::Filter& f = sel.filter;
      if (windowed_ &&
          (!span_ || (f.since && span_->to < *f.since) || (f.until && span_->from > *f.until))) {
        cursor_.reset();
      }
    } catch (const TeskStoreError& e) {
      fail(e);
    }
  }

  const TeskRow* next() override { return instants_.next(); }

  // The source's counts into `out`, in the order the sources were read.
  void finish(Result& out, std::optional<TeskSpan>& overall) const {
    if (!store_) {
      out.denied.push_back(*denial_);
      return;
    }
    if (noInstant_) out.noInstant[source_.key] = *noInstant_;
    out.excludedNoHost += excludedNoHost_;
    if (!windowed_ && span_) {
      widen(overall, span_->from);
      widen(overall, span_->to);
    }
    if (denial_) out.denied.push_back(*denial_);
    out.perSource[source_.key] = emitted_;
    if (span_) out.horizons[source_.key] = *span_;
  }

 private:
  void fail(const TeskStoreError& e) {
    denial_ = source_.key + ": schema moved \xE2\x80\x94 " + e.description();
    cursor_.reset();
  }

  bool pull(TeskRow& row) {
    if (!cursor_) return false;
    try {
      while (cursor_->next()) {
        if (keep(cursor_->row(), row)) return true;
      }
    } catch (const TeskStoreError& e) {
      fail(e);
    }
    return false;
  }

  bool keep(const TeskRowReader& r, TeskRow& row) {
    const TeskIMessage::Filter& f = sel_.filter;
    std::optional<double> t;
    if (r.isNumber(1)) {
      t = source_.engine == Source::Engine::chromium ? chromiumInstant(r.integer(1))
                                                     : webkitInstant(r.real(1));
    }
    if (!t) {
      if (!windowed_) ++*noInstant_;
      return false;
    }
    if (!windowed_) widen(span_, *t);
    if ((f.since && *t < *f.since) || (f.until && *t > *f.until)) return false;
    std::string_view url = r.textView(2).value_or(std::string_view());
    std::string_view title = r.textView(3).value_or(std::string_view());
    // Filled in place: the row's buffers are those of a row read before.
    row.clear();
    host(url, row.teskID);
    if (row.teskID.empty()) {
      ++excludedNoHost_;
      return false;
    }
    if (title.empty()) {
      row.body.assign(url);
    } else {
      row.body.assign(title).append(" \xC2\xB7 ").append(url);
    }
    if (!sel_.keep(row.teskID, row.body)) return false;
    char number[24];
    const auto written = std::to_chars(number, number + sizeof number, r.integer(0));
    row.id.assign(prefix_).append(number, written.ptr);
    row.ts = *t;
    row.src.assign(source_.key);
    row.who.assign(row.teskID);
    row.dir = TeskRow::Direction::outgoing;
    row.kind = TeskRow::Kind::text;
    ++emitted_;
    return true;
  }

  Source source_;
  const Selectors& sel_;
  std::string prefix_;
  std::optional<TeskStore> store_;
  std::optional<TeskStore::Cursor> cursor_;  // declared after the store: it goes first
  bool windowed_ = false;
  std::optional<TeskSpan> span_;
  std::optional<int64_t> noInstant_;  // set once the store's statements prepared
  int64_t excludedNoHost_ = 0;
  int64_t emitted_ = 0;
  std::optional<std::string> denial_;
  TeskInstantOrder instants_{[this](TeskRow& row) { return pull(row); }};
};

std::vector<std::string> notes(const Result& result) {
  std::vector<std::string> out;
  for (const auto& [key, n] : result.noInstant) {
    if (n == 0) continue;
    out.push_back(key + ": " + std::to_string(n) +
                  " visit(s) whose time is no instant (missing, not a number, before 1970 or "
                  "after 2200) left out of rows and horizon");
  }
  return out;
}

Stream::Stream(const TeskIMessage::Filter& filter, const std::optional<std::set<std::string>>& only,
               const std::string& home)
    : selectors_(std::make_unique<Selectors>(filter)) {
  for (const Source& source : sources(home)) {
    if (only && !only->contains(source.key)) continue;
    readers_.push_back(std::make_unique<Reader>(source, *selectors_, overall_));
    merge_.add(*readers_.back());
  }
}

Stream::~Stream() = default;

const TeskRow* Stream::next() { return merge_.next(); }

Result Stream::finish() const {
  Result out;
  std::optional<TeskSpan> overall = overall_;
  for (const auto& reader : readers_) reader->finish(out, overall);
  out.horizon = overall;
  return out;
}

Result read(const TeskIMessage::Filter& filter, const std::optional<std::set<std::string>>& only,
            const std::string& home) {
  Stream stream(filter, only, home);
  std::vector<TeskRow> rows = drainOldestFirst(stream);
  Result out = stream.finish();
  out.rows = std::move(rows);
  return out;
}

}  // namespace TeskWeb
