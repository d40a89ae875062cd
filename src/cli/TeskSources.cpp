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

// In answer order (TeskRow::answerOrder), whose ties paging relies on. The merged list
// is always sorted and a producer's rows nearly always are, so one merge replaces a
// sort of everything (the sort was a tenth of a 34,000-visit span); a source whose
// rows arrive out of order is sorted on its own first.
void mergeSorted(Accumulator& acc, std::vector<TeskRow>&& rows) {
  const auto byTime = TeskRow::answerOrder;
  const auto first = static_cast<std::ptrdiff_t>(acc.rows.size());
  acc.rows.insert(acc.rows.end(), std::make_move_iterator(rows.begin()),
                  std::make_move_iterator(rows.end()));
  const auto middle = acc.rows.begin() + first;
  if (!std::is_sorted(middle, acc.rows.end(), byTime)) {
    std::stable_sort(middle, acc.rows.end(), byTime);
  }
  std::inplace_merge(acc.rows.begin(), middle, acc.rows.end(), byTime);
}

void setHorizon(Accumulator& acc, const std::string& key, const std::optional<TeskSpan>& span) {
  if (!span) return;
  acc.horizons[key] = *span;
  acc.widenHorizon(*span);
}

void readMessages(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  const std::string path =
      ctx.options.dbPath ? *ctx.options.dbPath : TeskIMessage::defaultPath(ctx.env.home);
  const bool only = ctx.keys == std::vector<std::string>{"im"};
  try {
    auto store = std::make_shared<TeskStore>(path);
    acc.receipt.openMode = std::string(rawValue(store->mode()));
    acc.receipt.sourceModified = store->sourceModified();
    TeskIMessage::Result r = ctx.verb == "sql"
                                 ? TeskIMessage::stats(*store, ctx.filter)
                                 : TeskIMessage::read(*store, ctx.filter, ctx.env.home);
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
    acc.perSource["im"] = static_cast<int64_t>(r.rows.size());
    setHorizon(acc, "im", r.horizon);
    if (r.noInstant > 0) {
      acc.notes.push_back("im: " + std::to_string(r.noInstant) +
                          " message(s) whose date is no instant (not a number, before 1970 or "
                          "after 2200) left out of the horizon");
    }
    // m.date order puts whole-second rows before nanosecond ones; sort on ts.
    mergeSorted(acc, std::move(r.rows));
    if (ctx.verb == "sql") acc.messageStore = std::move(store);
  } catch (const TeskStoreError& e) {
    if (only) {
      acc.fatalStoreError = e.description();
    } else {
      acc.denied.push_back("im: " + e.description());
    }
  }
}

void readBrowsers(const ReadContext& ctx, const std::vector<std::string>& requested,
                  Accumulator& acc) {
  std::set<std::string> only(requested.begin(), requested.end());
  TeskWeb::Result r = TeskWeb::read(ctx.filter, only, ctx.env.home);
  acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
  for (const auto& [key, n] : r.perSource) acc.perSource[key] = n;
  for (const auto& [key, span] : r.horizons) acc.horizons[key] = span;
  if (r.horizon) acc.widenHorizon(*r.horizon);
  acc.receipt.excludedNoHost += r.excludedNoHost;
  for (std::string& note : TeskWeb::notes(r)) acc.notes.push_back(std::move(note));
  mergeSorted(acc, std::move(r.rows));
}

void readMail(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  constexpr int64_t kBodyBudget = 8000;
  TeskMail::Result r = TeskMail::read(ctx.filter, ctx.now, kBodyBudget, ctx.env.home);
  acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
  acc.perSource["mail"] = static_cast<int64_t>(r.rows.size());
  setHorizon(acc, "mail", r.horizon);
  for (const auto& [box, span] : r.horizons) acc.horizons["mail:" + box] = span;
  for (std::string& note : TeskMail::notes(r)) acc.notes.push_back(std::move(note));
  mergeSorted(acc, std::move(r.rows));
}

void readCalendar(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  TeskCal::Result r = TeskCal::read(ctx.filter, ctx.now, ctx.env.home, ctx.env.zone);
  acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
  acc.perSource["cal"] = static_cast<int64_t>(r.rows.size());
  setHorizon(acc, "cal", TeskSpan{r.window.from, r.window.to});
  for (std::string& note : TeskCal::notes(r)) acc.notes.push_back(std::move(note));
  acc.calendarForwardNote = TeskCal::forwardWindowNote(r, ctx.options.until.has_value(), ctx.now);
  mergeSorted(acc, std::move(r.rows));
}

void readReminders(const ReadContext& ctx, const std::vector<std::string>&, Accumulator& acc) {
  TeskReminders::Result r = TeskReminders::read(ctx.filter, ctx.env.home);
  acc.denied.insert(acc.denied.end(), r.denied.begin(), r.denied.end());
  acc.perSource["reminder"] = static_cast<int64_t>(r.rows.size());
  setHorizon(acc, "reminder", r.horizon);
  if (r.noInstant > 0) {
    acc.notes.push_back("reminder: " + std::to_string(r.noInstant) +
                        " reminder(s) whose date is no instant (not a number, before 1970 or "
                        "after 2200) left out of the horizon");
  }
  mergeSorted(acc, std::move(r.rows));
  acc.notes.push_back(
      "reminder rows are unfinished Apple Reminders; this reader has no write path");
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
