#include "report/TeskBucket.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <unordered_map>

#include <unicode/gregocal.h>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"

namespace TeskBucket {

namespace {

const char* patternFor(Kind kind) {
  switch (kind) {
    case Kind::day:
      return "yyyy-MM-dd";
    case Kind::week:
      return "YYYY-'W'ww";
    case Kind::month:
      return "yyyy-MM";
    case Kind::year:
      return "yyyy";
    case Kind::who:
    case Kind::person:
      break;
  }
  return "";
}

// ICU's calendar arithmetic is exact within these instants (years 0..9999); outside
// them a label is formatted at the clamped instant, as the ISO renderer does.
double clampSeconds(double ts) {
  if (!std::isfinite(ts)) return 0;
  return std::fmax(-62167219200.0, std::fmin(ts, 253402300799.0));
}

// Labels instants of one time kind. Every label is constant within one local day, so
// the day around the last formatted instant is remembered: rows arrive sorted, and a
// day's rows then cost one format call between them.
class Labeler {
 public:
  Labeler(Kind kind, const std::string& zone)
      : format_(formatter(patternFor(kind), zone, kind == Kind::week)) {
    if (format_) {
      calendar_.reset(format_->getCalendar()->clone());
    }
  }

  std::string operator()(double ts) {
    ts = clampSeconds(ts);
    if (ts >= dayStart_ && ts < dayEnd_) return label_;
    label_.clear();
    if (!format_) return label_;
    icu::UnicodeString text;
    format_->format(ts * 1000.0, text);
    text.toUTF8String(label_);
    rememberDay(ts);
    return label_;
  }

 private:
  // The local day holding `ts` runs from its first instant to the next day's first
  // instant. Both ends are formed from the date, not by adding a day to the start:
  // where DST begins at midnight (Havana, Beirut, Santiago) a day starts at 01:00, and
  // a day added to that 01:00 would lend the next day's first hour to this one.
  void rememberDay(double ts) {
    dayStart_ = 1;  // an empty range until both ends are known
    dayEnd_ = 0;
    if (!calendar_) return;
    UErrorCode status = U_ZERO_ERROR;
    calendar_->setTime(ts * 1000.0, status);
    const int32_t year = calendar_->get(UCAL_EXTENDED_YEAR, status);
    const int32_t month = calendar_->get(UCAL_MONTH, status) + 1;
    const int32_t day = calendar_->get(UCAL_DATE, status);
    if (U_FAILURE(status)) return;
    const std::optional<double> start = TeskTime::dayStart(*calendar_, year, month, day);
    const std::optional<double> end = TeskTime::dayStart(*calendar_, year, month, day + 1);
    // Only a range that really holds the instant and looks like one day is trusted.
    if (!start || !end || !(*start <= ts && ts < *end) || *end - *start > 30 * 3600.0) return;
    dayStart_ = *start;
    dayEnd_ = *end;
  }

  std::unique_ptr<icu::SimpleDateFormat> format_;
  std::unique_ptr<icu::Calendar> calendar_;
  std::string label_;
  double dayStart_ = 1;
  double dayEnd_ = 0;
};

}  // namespace

std::string_view rawValue(Kind kind) {
  switch (kind) {
    case Kind::day:
      return "day";
    case Kind::week:
      return "week";
    case Kind::month:
      return "month";
    case Kind::year:
      return "year";
    case Kind::who:
      return "who";
    case Kind::person:
      return "person";
  }
  return "day";
}

std::optional<Kind> parse(std::string_view text) {
  std::string lowered = TeskText::lower(text);
  std::string_view t = lowered;
  if (!t.empty() && t.back() == 's') t.remove_suffix(1);
  for (Kind k : kinds) {
    if (rawValue(k) == t) return k;
  }
  return std::nullopt;
}

std::unique_ptr<icu::SimpleDateFormat> formatter(const std::string& pattern,
                                                 const std::string& zone, bool isoWeeks) {
  UErrorCode status = U_ZERO_ERROR;
  icu::Locale posix("en_US_POSIX");
  auto format =
      std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString::fromUTF8(pattern), posix, status);
  if (U_FAILURE(status)) return nullptr;
  auto calendar =
      std::make_unique<icu::GregorianCalendar>(TeskTime::makeZone(zone).release(), posix, status);
  if (U_FAILURE(status)) return nullptr;
  if (isoWeeks) {
    calendar->setFirstDayOfWeek(UCAL_MONDAY);
    calendar->setMinimalDaysInFirstWeek(4);
  }
  format->adoptCalendar(calendar.release());
  return format;
}

std::string label(Kind kind, std::string_view person, double ts, const std::string& zone) {
  if (kind == Kind::who) return std::string(person);
  return Labeler(kind, zone)(ts);
}

std::vector<Row> apply(std::span<const TeskRow> rows, Kind kind, const std::string& zone,
                       const PersonLookup& people) {
  TeskRowList list(rows);
  return apply(list, kind, zone, people);
}

std::vector<Row> apply(TeskRowStream& rows, Kind kind, const std::string& zone,
                       const PersonLookup& people) {
  std::optional<Labeler> labeler;
  if (kind != Kind::who && kind != Kind::person) labeler.emplace(kind, zone);
  std::map<std::string, Row> buckets;
  std::unordered_map<std::string, Person> personOf;  // each handle is looked up once
  while (const TeskRow* next = rows.next()) {
    const TeskRow& row = *next;
    std::string key;
    const Person* person = nullptr;
    if (labeler) {
      key = (*labeler)(row.ts);
    } else {
      key = row.teskID.empty() ? row.who : row.teskID;
      if (kind == Kind::person) {
        auto found = personOf.find(key);
        if (found == personOf.end()) {
          found = personOf.emplace(key, people ? people(key) : Person{key, {}}).first;
        }
        person = &found->second;
        key = person->key;
      }
    }
    auto [it, fresh] = buckets.try_emplace(key);
    Row& b = it->second;
    if (fresh) {
      b.key = std::move(key);
      if (person) b.name = person->name;
    }
    if (person && !row.who.empty()) b.handles.insert(row.who);
    b.count += 1;
    (row.dir == TeskRow::Direction::incoming ? b.inbound : b.outbound) += 1;
    b.first = std::min(b.first, row.ts);
    b.last = std::max(b.last, row.ts);
  }
  std::vector<Row> out;
  out.reserve(buckets.size());
  for (auto& [key, b] : buckets) out.push_back(std::move(b));
  if (kind == Kind::who || kind == Kind::person) {
    // The map already ordered keys ascending; a stable sort keeps that among equals.
    std::stable_sort(out.begin(), out.end(),
                     [](const Row& a, const Row& b) { return a.count > b.count; });
  }
  return out;
}

std::string header(Kind kind) {
  if (kind == Kind::person) return "bucket\tname\thandles\tcount\tin\tout\tfirst\tlast";
  std::string h = "bucket\tcount\tin\tout\tfirst\tlast";
  if (kind == Kind::who) h += "\tname";
  return h;
}

std::vector<std::string> render(const std::vector<Row>& buckets, const NameLookup& names,
                                Kind kind) {
  std::vector<std::string> lines;
  lines.reserve(buckets.size() + 1);
  lines.push_back(header(kind));
  for (const auto& b : buckets) {
    std::string line;
    if (kind == Kind::person) {
      // Names and handles come from address books and chats: escaped, so a tab in
      // one cannot add a column.
      std::string handles;
      for (const std::string& h : b.handles) handles += (handles.empty() ? "" : "|") + h;
      line = TeskText::escapeTSV(b.key) + "\t" + TeskText::escapeTSV(b.name) + "\t" +
             TeskText::escapeTSV(handles) + "\t";
    } else {
      line = TeskText::escapeTSV(b.key) + "\t";
    }
    line += std::to_string(b.count) + "\t" + std::to_string(b.inbound) + "\t" +
            std::to_string(b.outbound) + "\t" + TeskTime::isoString(b.first) + "\t" +
            TeskTime::isoString(b.last);
    if (kind == Kind::who) {
      line += '\t';
      if (names) {
        if (auto name = names(b.key)) line += TeskText::escapeTSV(*name);
      }
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

}  // namespace TeskBucket
