#include "cli/TeskSources.h"

#include <algorithm>

#include "sources/calendar/TeskCal.h"
#include "sources/mail/TeskMail.h"
#include "sources/messages/TeskIMessage.h"
#include "sources/reminders/TeskReminders.h"
#include "sources/web/TeskWeb.h"
#include "store/TeskStore.h"

namespace TeskCLI {
namespace {

void setHorizon(Accumulator& acc, const std::string& key, const std::optional<TeskSpan>& span) {
  if (!span) return;
  acc.horizons[key] = *span;
  acc.widenHorizon(*span);
}

// The message producer's counts into the receipt; `rows` counted as they passed.
void addCounts(Accumulator& acc, const TeskIMessage::Result& r) {
  TeskReceipt& rc = acc.receipt;
  rc.decoded = r.census;
  rc.excludedTapback = r.excludedTapback;
  rc.excludedGroup = r.excludedGroup;
  rc.excludedFiltered = r.excludedFiltered;
  rc.orphans = r.orphans;
  rc.undated = r.undated;
  rc.hiddenAttachments = r.hiddenAttachments;
  rc.unreadSupported = r.unreadSupported;
  rc.attachmentsSupported = r.attachmentsSupported;
  setHorizon(acc, "im", r.horizon);
  if (r.noInstant > 0) {
    acc.notes.push_back("im: " + std::to_string(r.noInstant) +
                        " message(s) whose date is no instant (not a number, before 1970 or "
                        "after 2200) left out of the horizon");
  }
}

void readMessages(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  const std::string path =
      ctx.options.dbPath ? *ctx.options.dbPath : TeskIMessage::defaultPath(ctx.env.home);
  const bool only = ctx.keys == std::vector<std::string>{"im"};
  auto fail = [only](Accumulator& acc, const TeskStoreError& e) {
    if (only) {
      acc.fatalStoreError = e.description();
    } else {
      acc.denied.push_back("im: " + e.description());
    }
  };
  Feed feed;
  try {
    feed.store = std::make_shared<TeskStore>(path);
    acc.receipt.openMode = std::string(rawValue(feed.store->mode()));
    acc.receipt.sourceModified = feed.store->sourceModified();
    if (ctx.verb == "sql") {
      acc.messageStore = feed.store;
      TeskIMessage::Result r = TeskIMessage::stats(*feed.store, ctx.filter);
      feed.rows = std::make_unique<TeskRowList>(std::vector<TeskRow>());
      feed.finish = [r](Accumulator& acc) {
        addCounts(acc, r);
        acc.perSource["im"] = 0;
      };
    } else {
      auto stream = std::make_unique<TeskIMessage::Stream>(*feed.store, ctx.filter, ctx.env.home);
      feed.finish = [stream = stream.get(), fail](Accumulator& acc) {
        try {
          addCounts(acc, stream->finish());
          acc.perSource["im"] = stream->kept();
        } catch (const TeskStoreError& e) {
          fail(acc, e);
        }
      };
      feed.rows = std::move(stream);
    }
  } catch (const TeskStoreError& e) {
    fail(acc, e);
    return;
  }
  acc.feeds.push_back(std::move(feed));
}

// A producer that hands over all its rows at once (calendar, reminders): they
// stream from a list, and its counts go into the receipt when the rows have passed,
// as the others' do.
template <typename Result, typename Finish>
void addFeed(Accumulator& acc, Result&& r, Finish finish) {
  Feed feed;
  feed.rows = std::make_unique<TeskRowList>(std::move(r.rows));
  feed.finish = [r = std::move(r), finish](Accumulator& acc) { finish(acc, r); };
  acc.feeds.push_back(std::move(feed));
}

void readBrowsers(const ReadContext& ctx, const std::vector<std::string>& requested,
                  Accumulator& acc) {
  auto stream = std::make_unique<TeskWeb::Stream>(
      ctx.filter, std::set<std::string>(requested.begin(), requested.end()), ctx.env.home);
  Feed feed;
  feed.finish = [stream = stream.get()](Accumulator& acc) {
    const TeskWeb::Result r = stream->finish();
    acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
    for (const auto& [key, n] : r.perSource) acc.perSource[key] = n;
    for (const auto& [key, span] : r.horizons) acc.horizons[key] = span;
    if (r.horizon) acc.widenHorizon(*r.horizon);
    acc.receipt.excludedNoHost += r.excludedNoHost;
    for (std::string& note : TeskWeb::notes(r)) acc.notes.push_back(std::move(note));
  };
  feed.rows = std::move(stream);
  acc.feeds.push_back(std::move(feed));
}

void readMail(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  constexpr int64_t kBodyBudget = 8000;
  auto stream = std::make_unique<TeskMail::Stream>(ctx.filter, ctx.now, kBodyBudget, ctx.env.home);
  Feed feed;
  feed.finish = [stream = stream.get()](Accumulator& acc) {
    const TeskMail::Result r = stream->finish();
    acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
    acc.perSource["mail"] = stream->kept();
    setHorizon(acc, "mail", r.horizon);
    for (const auto& [box, span] : r.horizons) acc.horizons["mail:" + box] = span;
    for (std::string& note : TeskMail::notes(r)) acc.notes.push_back(std::move(note));
  };
  feed.rows = std::move(stream);
  acc.feeds.push_back(std::move(feed));
}

void readCalendar(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  TeskCal::Result r = TeskCal::read(ctx.filter, ctx.now, ctx.env.home, ctx.env.zone);
  const auto n = static_cast<int64_t>(r.rows.size());
  const bool until = ctx.options.until.has_value();
  const double now = ctx.now;
  addFeed(acc, std::move(r), [n, until, now](Accumulator& acc, const TeskCal::Result& r) {
    acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
    acc.perSource["cal"] = n;
    setHorizon(acc, "cal", TeskSpan{r.window.from, r.window.to});
    for (std::string& note : TeskCal::notes(r)) acc.notes.push_back(std::move(note));
    acc.calendarForwardNote = TeskCal::forwardWindowNote(r, until, now);
  });
}

void readReminders(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  TeskReminders::Result r = TeskReminders::read(ctx.filter, ctx.env.home);
  const auto n = static_cast<int64_t>(r.rows.size());
  addFeed(acc, std::move(r), [n](Accumulator& acc, const TeskReminders::Result& r) {
    acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
    acc.perSource["reminder"] = n;
    setHorizon(acc, "reminder", r.horizon);
    if (r.noInstant > 0) {
      acc.notes.push_back("reminder: " + std::to_string(r.noInstant) +
                          " reminder(s) whose date is no instant (not a number, before 1970 or "
                          "after 2200) left out of the horizon");
    }
    acc.notes.push_back(
        "reminder rows are unfinished Apple Reminders; this reader has no write path");
  });
}

}  // namespace

const std::vector<SourceReader>& sourceReaders() {
  static const std::vector<SourceReader> readers{
      {{"im"}, readMessages},        {{"chrome", "arc", "safari"}, readBrowsers},
      {{"mail"}, readMail},          {{"cal"}, readCalendar},
      {{"reminder"}, readReminders},
  };
  return readers;
}

}  // namespace TeskCLI
