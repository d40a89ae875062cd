#include "cli/TeskCLI.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>

#include "cli/TeskAPI.h"
#include "cli/TeskOptions.h"
#include "cli/TeskReports.h"
#include "cli/TeskSelectorNotes.h"
#include "cli/TeskSources.h"
#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "cli/TeskWho.h"
#include "report/TeskAssert.h"
#include "report/TeskBucket.h"
#include "report/TeskEmitter.h"
#include "report/TeskGotchas.h"
#include "report/TeskReceipt.h"
#include "report/TeskRowStream.h"
#include "sources/messages/TeskContacts.h"
#include "sources/messages/TeskPeople.h"

namespace TeskCLI {
namespace {

int64_t elapsedMS(double started, double now) {
  double ms = (now - started) * 1000.0;
  return ms > 0 ? static_cast<int64_t>(ms) : 0;
}

std::string joinArgs(const std::string& verb, const std::vector<std::string>& args) {
  std::string q = verb;
  for (size_t i = 2; i < args.size(); ++i) q += " " + args[i];
  return q;
}

void frame(TeskOut& out, const TeskReceipt& receipt, const std::vector<std::string>& body,
           const TeskSpool* rest = nullptr) {
  std::string line = receipt.render();
  out.line(line);
  for (const std::string& b : body) out.line(b);
  if (rest && !rest->each([&out](std::string_view l) { out.line(l); })) {
    out.line("tesk: the end of this answer could not be read back from its temporary file");
  }
  out.line(line);
}

bool isReportVerb(const std::string& v) {
  return v == "api" || v == "gotchas" || v == "views" || v == "doors" || v == "link" ||
         v == "doctor";
}

bool isRowsVerb(const std::string& v) {
  return v == "search" || v == "thread" || v == "span" || v == "im" || v == "cal" || v == "mail" ||
         v == "who" || v == "sql";
}

int32_t reportVerb(const std::string& verb, const std::vector<std::string>& args, double started,
                   TeskOut& out, const Environment& env) {
  std::vector<std::string> body;
  if (verb == "api") {
    body = {TeskAPI::json()};
  } else if (verb == "gotchas") {
    body = TeskGotchas::lines();
  } else if (verb == "views") {
    body = viewsBody();
  } else if (verb == "doors") {
    int32_t code = success;
    if (env.insideCompanionApp && env.insideCompanionApp(args[0])) {
      auto board = env.shippedDoorReport ? env.shippedDoorReport(args[0]) : std::nullopt;
      if (board) {
        body = *board;
      } else {
        body = {"# refused: the signed app did not return a complete seven-door board"};
        code = storeUnavailable;
      }
    } else if (env.currentDoorReport) {
      body = env.currentDoorReport();
    }
    return envelope(verb, args, started, env.clock(), out, body, static_cast<int64_t>(body.size()),
                    {}, {}, code);
  } else if (verb == "link") {
    LinkAnswer link = linkReport(env);
    return envelope(verb, args, started, env.clock(), out, link.body,
                    static_cast<int64_t>(link.body.size()), {}, {}, link.exit);
  } else if (verb == "doctor") {
    DoctorAnswer doc = doctorReport(env);
    return envelope(verb, args, started, env.clock(), out, doc.body, doc.rows, doc.stale,
                    doc.denied, doc.exit);
  }
  return envelope(verb, args, started, env.clock(), out, body, static_cast<int64_t>(body.size()),
                  {}, {}, success);
}

TeskIMessage::Filter buildFilter(const std::string& verb, const Options& o) {
  TeskIMessage::Filter f;
  f.since = o.since;
  // A cursor is not a bound for the producers: some place a row by another instant
  // than its ts (a reminder's due date) or round a bound to their epoch, so every page
  // reads what the first read, and the cut is made on the merged rows alone.
  f.until = o.until;
  f.who = o.who;
  f.direction = o.direction;
  f.grep = o.grep;
  // The positional words are the query of every verb that reads rows; `who` takes them
  // as the person and `sql` as the statement.
  if (verb != "who" && verb != "sql") f.query = o.text;
  f.includeTapbacks = o.includeTapbacks;
  f.includeFiltered = o.includeFiltered;
  f.unreadOnly = o.unreadOnly;
  f.includeGroups = !o.noGroups;
  // Buckets and the who census read who, when and which way, never a body.
  f.bodies = !o.by && verb != "who";
  return f;
}

std::string joinKeys(const std::vector<std::string>& keys) {
  std::string s;
  for (const std::string& k : keys) {
    if (!s.empty()) s += ",";
    s += k;
  }
  return s;
}

bool contains(const std::vector<std::string>& v, const std::string& k) {
  return std::find(v.begin(), v.end(), k) != v.end();
}

// Every feed on one time axis, newest first, less the rows an earlier page showed
// (they are the newest, so they come first), counted per source as they are cut.
class AnswerRows final : public TeskRowStream {
 public:
  AnswerRows(std::vector<Feed>& feeds, const std::optional<TeskCursor>& cursor) : cursor_(cursor) {
    for (Feed& feed : feeds) merged_.add(*feed.rows);
  }

  const TeskRow* next() override {
    const TeskRow* row = merged_.next();
    for (; row && cursor_ && !cursor_->admits(*row); row = merged_.next()) ++cut_[row->src];
    if (row) ++total_;
    return row;
  }

  // The rows that went out, and those cut per source.
  int64_t total() const { return total_; }
  const std::map<std::string, int64_t>& cut() const { return cut_; }

 private:
  TeskRowMerge merged_;
  const std::optional<TeskCursor>& cursor_;
  std::map<std::string, int64_t> cut_;
  int64_t total_ = 0;
};

// The start of the window every page of one answer must share: the given or default
// --since, pinned to its exact instant so a relative one does not move with the clock;
// a calendar-only answer's window starts where the calendar's did.
std::optional<double> pageStart(const Options& opts, const std::vector<std::string>& keys,
                                const Accumulator& acc) {
  if (opts.since) return opts.since;
  auto cal = acc.horizons.find("cal");
  if (keys == std::vector<std::string>{"cal"} && cal != acc.horizons.end()) return cal->second.from;
  return std::nullopt;
}

}  // namespace

void Accumulator::widenHorizon(const TeskSpan& span) {
  if (!horizon) {
    horizon = span;
  } else {
    horizon->from = std::min(horizon->from, span.from);
    horizon->to = std::max(horizon->to, span.to);
  }
}

const std::set<std::string>& webSources() {
  static const std::set<std::string> keys{"chrome", "arc", "safari"};
  return keys;
}

const std::set<std::string>& known() {
  static const std::set<std::string> keys = [] {
    std::set<std::string> k;
    for (const SourceReader& r : sourceReaders()) k.insert(r.keys.begin(), r.keys.end());
    return k;
  }();
  return keys;
}

std::vector<std::string> expandSources(const std::vector<std::string>& keys) {
  std::vector<std::string> out;
  auto add = [&out](const std::string& k) {
    if (!contains(out, k)) out.push_back(k);
  };
  for (const std::string& k : keys) {
    if (k == "web") {
      add("chrome");
      add("arc");
      add("safari");
    } else {
      add(k);
    }
  }
  return out;
}

std::vector<std::string> decodeNotes(const TeskDecode::Census& c) {
  std::vector<std::string> notes;
  if (c.legacyAttributed >= 1 && c.legacyAttributed - c.direct >= 1) {
    notes.push_back("the direct reader declined " + std::to_string(c.legacyAttributed - c.direct) +
                    " of " + std::to_string(c.legacyAttributed) +
                    " blobs and NSUnarchiver answered — slower, not wrong; the archive "
                    "layout may have moved");
  }
  if (c.rate() < 0.999 && c.blobs() >= 1) {
    notes.push_back("DECODE RATE BELOW GATE — " + std::to_string(c.undecodable) +
                    " blobs unreadable; treat every count as a floor");
  }
  return notes;
}

std::string errorLine(std::string_view message) {
  return "#tesk {\"v\":1,\"error\":\"" + TeskReceipt::escape(message) + "\"}";
}

int32_t envelope(const std::string& verb, const std::vector<std::string>& args, double started,
                 double now, TeskOut& out, const std::vector<std::string>& body, int64_t rows,
                 const std::vector<std::string>& stale, const std::vector<std::string>& denied,
                 int32_t exit) {
  TeskReceipt r;
  r.query = joinArgs(verb, args);
  r.rowsTotal = r.rowsOut = rows;
  r.mode = "report";
  r.stale = stale;
  r.denied = denied;
  r.elapsedMS = elapsedMS(started, now);
  frame(out, r, body);
  return exit;
}

int32_t run(const std::vector<std::string>& args, TeskOut& out, const Environment& env) {
  const double started = env.clock();
  if (args.size() < 2) {
    out.line(usage);
    return usageError;
  }
  const std::string& verb = args[1];
  if (verb == "-h" || verb == "--help" || verb == "help") {
    out.line(usage);
    return success;
  }
  if (isReportVerb(verb)) return reportVerb(verb, args, started, out, env);

  // Options are parsed before the verb is checked, so a bad option wins.
  const double now = env.clock();
  Options opts;
  try {
    opts =
        Options::parse(std::vector<std::string>(args.begin() + 2, args.end()), verb, now, env.zone);
  } catch (const OptionError& e) {
    out.line(errorLine(e.message()));
    out.line("tesk: " + e.message());
    out.line("");
    out.line(usage);
    return usageError;
  } catch (const std::exception& e) {
    out.line(std::string("tesk: ") + e.what());
    return usageError;
  }

  Accumulator acc;
  acc.receipt.query = joinArgs(verb, args);
  if (!isRowsVerb(verb)) {
    out.line("tesk: unknown verb '" + verb + "'");
    out.line(usage);
    return usageError;
  }

  std::vector<std::string> sources = opts.sources;
  bool srcGiven = contains(std::vector<std::string>(args.begin() + 2, args.end()), "--src");
  if (verb == "cal" && !srcGiven) sources = {"cal"};
  if (verb == "mail" && !srcGiven) sources = {"mail"};
  std::vector<std::string> keys = expandSources(sources);

  bool defaultWindow = opts.appliedDefaultWindow;
  if (keys == std::vector<std::string>{"reminder"} && defaultWindow) {
    opts.since.reset();
    defaultWindow = false;
  }
  for (const std::string& k : keys) {
    if (!known().count(k)) acc.denied.push_back(k + ": no producer yet — see `tesk doctor`");
  }
  bool anyKnown = std::any_of(keys.begin(), keys.end(),
                              [](const std::string& k) { return known().count(k) > 0; });
  auto finishEarly = [&](const std::string& message, int32_t code) {
    acc.receipt.denied = acc.denied;
    acc.receipt.elapsedMS = elapsedMS(started, env.clock());
    frame(out, acc.receipt, {message});
    return code;
  };
  if (!anyKnown) {
    return finishEarly("tesk: no readable source in --src " + joinKeys(keys), usageError);
  }

  TeskIMessage::Filter filter = buildFilter(verb, opts);
  if (verb == "thread" && (!filter.who || filter.who->empty())) {
    out.line("tesk: `thread` needs --who");
    return usageError;
  }
  if (verb == "sql" && (!opts.text || opts.text->empty())) {
    out.line("tesk: `sql` needs a SELECT statement");
    return usageError;
  }

  // The address books, read at most once per run and only when a person is asked
  // about; a book that cannot be read is a denial, so "has no card" is never guessed.
  std::optional<TeskContacts::Roster> roster;
  auto contacts = [&]() -> const TeskContacts::Roster& {
    if (!roster) roster = TeskContacts::roster(env.home);
    return *roster;
  };
  // Its denials join the others where the books are first needed: before the producers
  // for a --who name, after them (and their own denials) for an answer that names people.
  bool booksDenied = false;
  auto reportBooks = [&] {
    if (!roster || booksDenied) return;
    for (const std::string& d : roster->denied) acc.denied.push_back("contacts: " + d);
    booksDenied = true;
  };
  // `who me` is identity, not a census: the Me card and the account file answer it, so
  // no store is opened and no body decoded (a Mac without chat.db has an owner too).
  const bool selfQuery = verb == "who" && isSelfQuery(opts.text);
  // `sql` answers its own table (from the message store alone) whatever --by asks.
  const AnswerShape shape = selfQuery       ? AnswerShape::self
                            : verb == "sql" ? AnswerShape::table
                            : opts.by       ? AnswerShape::buckets
                            : verb == "who" ? AnswerShape::census
                                            : AnswerShape::rows;

  // A --who value may be a contact's name: resolved here, once, into the handles of
  // the cards it names, which every producer tests beside its handle match.
  if (filter.who && !filter.who->empty() && !selfQuery) {
    TeskPeople::Resolution named = TeskPeople::resolve(contacts(), *filter.who);
    reportBooks();
    filter.whoHandles = std::move(named.handles);
    filter.whoGroups = verb == "thread" && !filter.whoHandles.empty();
    named.handles = filter.whoHandles;
    for (std::string& n : TeskPeople::notes(named, "--who", *filter.who)) {
      acc.notes.push_back(std::move(n));
    }
  }

  ReadContext ctx{verb, opts, filter, env, now, keys};
  std::vector<std::string> read;  // the keys whose reader ran
  for (const SourceReader& reader : sourceReaders()) {
    if (shape == AnswerShape::self) break;
    if (shape == AnswerShape::table && reader.keys != std::vector<std::string>{"im"}) continue;
    std::vector<std::string> requested;
    for (const std::string& k : keys) {
      if (contains(reader.keys, k)) requested.push_back(k);
    }
    if (requested.empty()) continue;
    reader.read(ctx, requested, acc);
    read.insert(read.end(), requested.begin(), requested.end());
    if (acc.fatalStoreError) {
      return finishEarly("tesk: " + *acc.fatalStoreError, storeUnavailable);
    }
  }

  // The answer takes each row as it passes: buckets, the census or the emitter.
  const bool namesPeople =
      shape == AnswerShape::census ||
      (shape == AnswerShape::buckets &&
       (*opts.by == TeskBucket::Kind::who || *opts.by == TeskBucket::Kind::person));
  const TeskContacts::Roster noBooks;
  const TeskContacts::Roster& names = namesPeople ? contacts() : noBooks;
  AnswerRows answer(acc.feeds, opts.cursor);
  std::optional<BucketAnswer> buckets;
  std::optional<WhoAnswer> census;
  std::optional<TeskEmitter::Output> emitted;
  if (shape == AnswerShape::buckets) {
    buckets = bucketAnswer(answer, *opts.by, names, env);
  } else if (verb == "who") {  // the census, or `who me`
    census = whoAnswer(answer, opts.text, names, env);
  } else if (verb != "sql") {
    emitted = TeskEmitter(opts.format, opts.limit, opts.budget, true, env.tmpdir).emit(answer);
  }
  while (answer.next()) {
  }
  // The producers' counts are final once their rows have all passed.
  for (Feed& feed : acc.feeds) feed.finish(acc);
  acc.feeds.clear();  // the stores close here, before the answer is written
  if (acc.fatalStoreError) {
    if (emitted && emitted->spill) std::remove(emitted->spill->c_str());
    return finishEarly("tesk: " + *acc.fatalStoreError, storeUnavailable);
  }
  for (const auto& [src, n] : answer.cut()) acc.perSource[src] -= n;

  // Notes that follow the producers' own.
  if (acc.calendarForwardNote) acc.notes.push_back(*acc.calendarForwardNote);
  if (defaultWindow) acc.notes.push_back("default window 30d applied — pass --since to widen");
  if (acc.receipt.openMode == "snapshot") {
    acc.notes.push_back(
        "read from a snapshot (db+-wal+-shm copied) — the live handle could not see the WAL");
  }
  std::vector<std::string> asked;
  std::copy_if(keys.begin(), keys.end(), std::back_inserter(asked),
               [](const std::string& k) { return known().count(k) > 0; });
  for (std::string& n : selectorNotes(shape, opts.given, asked, read)) {
    acc.notes.push_back(std::move(n));
  }
  // What was read is only as current as its stores: the doctor's verdicts, from each
  // store's newest row.
  StaleAnswer stale = staleSources(read, env, now);
  if (stale.note) acc.notes.push_back(*stale.note);
  // The decode notes take their place here once the census is final (see below).
  const auto decodeNotesAt = static_cast<std::ptrdiff_t>(acc.notes.size());
  auto notesWithDecode = [&] {
    std::vector<std::string> notes = acc.notes;
    const std::vector<std::string> decode = decodeNotes(acc.receipt.decoded);
    notes.insert(notes.begin() + decodeNotesAt, decode.begin(), decode.end());
    return notes;
  };

  reportBooks();

  TeskReceipt& r = acc.receipt;
  r.rowsTotal = answer.total();
  r.denied = acc.denied;
  r.stale = stale.keys;
  r.perSource = acc.perSource;
  r.horizons = acc.horizons;
  if (acc.horizon) r.horizon = acc.horizon;
  std::optional<double> until = opts.until;
  if (opts.cursor) until = std::min(until.value_or(HUGE_VAL), opts.cursor->ts);
  if ((opts.since || until) && shape != AnswerShape::self) {
    // An open end of the window is as far as the stores read actually reach.
    double from = opts.since ? *opts.since : (acc.horizon ? acc.horizon->from : 0);
    double to = until ? *until : std::max(now, acc.horizon ? acc.horizon->to : now);
    r.window = TeskSpan{from, to};
  }

  std::vector<std::string> body;
  std::shared_ptr<const TeskSpool> rest;
  if (buckets) {
    body = std::move(buckets->lines);
    r.rowsTotal = r.rowsOut = buckets->buckets;
    r.mode = "rows";
    acc.notes.push_back(buckets->note);
  } else if (census) {
    body = std::move(census->lines);
    r.rowsTotal = r.rowsOut = census->people;
    r.mode = "rows";
    acc.notes.insert(acc.notes.end(), census->resolved.begin(), census->resolved.end());
    acc.notes.push_back(census->note);
  } else if (verb == "sql") {
    if (!acc.messageStore) {
      r.notes = acc.notes;
      r.denied = acc.denied;
      return finishEarly("tesk: sql: no store open — `sql` reads iMessage", usageError);
    }
    SqlAnswer s = sqlAnswer(*acc.messageStore, filter, *opts.text, opts.limit, env.tmpdir);
    if (s.error) {
      r.decoded = s.census;
      r.notes = notesWithDecode();
      return finishEarly("tesk: " + *s.error, usageError);
    }
    body = std::move(s.lines);
    rest = std::move(s.rest);
    r.rowsTotal = s.rowsTotal;
    r.rowsOut = s.rowsOut;
    r.capped = s.rowsOut < s.rowsTotal;
    r.mode = "rows";
    r.decoded = s.census;
  } else if (emitted) {
    TeskEmitter::Output& o = *emitted;
    body = std::move(o.lines);
    rest = std::move(o.rest);
    r.rowsOut = o.rowsOut;
    r.capped = o.capped;
    r.mode = o.mode;
    r.spill = o.spill;
    r.next = o.next;
    if (r.next) {
      if (auto start = pageStart(opts, keys, acc)) {
        r.next = "--since " + TeskTime::exactString(*start) + " " + *r.next;
      }
    }
  }
  acc.messageStore.reset();  // release the snapshot before the answer is written
  r.notes = notesWithDecode();
  r.elapsedMS = elapsedMS(started, env.clock());
  frame(out, r, body, rest.get());

  if (auto failure = TeskAssert::evaluate(opts.asserts, r, now)) {
    out.line("tesk: assertion failed: " + failure->expression + " (actual: " + failure->actual +
             ")");
    return drift;
  }
  return r.rowsTotal == 0 ? emptyAnswer : success;
}

int32_t run(const std::vector<std::string>& args, TeskOut& out) {
  return run(args, out, Environment::fromProcess());
}

int32_t main(const std::vector<std::string>& args) {
  // A closed pipe must end in a short stream (one receipt), not a signal.
  ::signal(SIGPIPE, SIG_IGN);
  TeskOut out(TeskOut::Sink::standardOutput);
  int32_t code = run(args, out);
  out.flush();
  return code;
}

}  // namespace TeskCLI
