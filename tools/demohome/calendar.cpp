// Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb (and the
// empty Library/Calendars/ it replaced): 150 items, 35 of them recurring, floating
// and zoned dates, exceptions, a detached instance, an unsupported rule, invited
// events, and an OccurrenceCache consistent with all of it. With --link broken
// the Google store carries an Error row whose user_info is a keyed NSError chain.
#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>

#include "Home.h"
#include "Keyed.h"
#include "Sqlite.h"
#include "Support.h"

namespace demohome {

namespace {

// Local wall-clock arithmetic in one zone (ICU Gregorian calendar).
class Clock {
 public:
  explicit Clock(const std::string& zone) {
    UErrorCode err = U_ZERO_ERROR;
    icu::TimeZone* tz = zone.empty() || zone == "_float"
                            ? icu::TimeZone::createDefault()
                            : icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(zone));
    if (*tz == icu::TimeZone::getUnknown()) {
      delete tz;
      throw std::runtime_error("unknown time zone: " + zone);
    }
    cal_ = std::make_unique<icu::GregorianCalendar>(tz, err);
    if (U_FAILURE(err)) throw std::runtime_error("ICU calendar for zone " + zone);
  }
  double at(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    cal_->clear();
    cal_->set(y, mo - 1, d, h, mi, s);
    return now();
  }
  void set(double unix) {
    UErrorCode err = U_ZERO_ERROR;
    cal_->setTime(unix * 1000.0, err);
  }
  int get(UCalendarDateFields f) {
    UErrorCode err = U_ZERO_ERROR;
    return cal_->get(f, err);
  }
  void add(UCalendarDateFields f, int n) {
    UErrorCode err = U_ZERO_ERROR;
    cal_->add(f, n, err);
  }
  double now() {
    UErrorCode err = U_ZERO_ERROR;
    return cal_->getTime(err) / 1000.0;
  }
  double dayStart(double unix) {
    set(unix);
    return at(get(UCAL_YEAR), get(UCAL_MONTH) + 1, get(UCAL_DATE));
  }
  icu::Calendar& cal() { return *cal_; }

 private:
  std::unique_ptr<icu::Calendar> cal_;
};

struct Rule {
  int frequency = 0;  // 1 daily, 2 weekly, 3 monthly, 4 yearly; others unsupported
  int interval = 1;
  int count = 0;
  std::optional<double> end;  // unix seconds
  std::string specifier;
};

struct Item {
  int64_t rowid = 0;
  std::string title, zone;    // zone "_float" or an IANA name
  double start = 0, end = 0;  // real instants (unix)
  bool allDay = false;
  int64_t calendar = 1;
  std::optional<Rule> rule;
  bool invited = false, attendees = false;
  int64_t origItem = 0;
  double origDate = 0;             // unix instant of the replaced occurrence
  std::vector<double> exceptions;  // unix instants removed from the series
};

const int kUnit[] = {UCAL_DATE, UCAL_DATE, UCAL_WEEK_OF_YEAR, UCAL_MONTH, UCAL_YEAR};

// The series' instants within [from, to], stepping periods from the first
// instance as Calendar does (see the reader's recurrence rules).
std::vector<double> expand(const Item& it, double from, double to, const std::string& localZone) {
  std::vector<double> out;
  const Rule& r = *it.rule;
  if (r.frequency < 1 || r.frequency > 4) return out;
  // Floating series step in the local zone the home is written for.
  Clock c(it.zone == "_float" ? localZone : it.zone);
  const UCalendarDateFields unit = static_cast<UCalendarDateFields>(kUnit[r.frequency]);
  c.set(it.start);
  const int hh = it.allDay ? 0 : c.get(UCAL_HOUR_OF_DAY), mm = it.allDay ? 0 : c.get(UCAL_MINUTE),
            ss = it.allDay ? 0 : c.get(UCAL_SECOND);
  // Specifier: "D=0MO,0WE,0FR", "D=-1FR", "D=+2SU;O=5".
  std::vector<std::pair<int, int>> days;
  std::vector<int> months;
  static const std::map<std::string, int> wd = {{"SU", 1}, {"MO", 2}, {"TU", 3}, {"WE", 4},
                                                {"TH", 5}, {"FR", 6}, {"SA", 7}};
  size_t p = 0;
  while (p < r.specifier.size()) {
    size_t semi = r.specifier.find(';', p);
    if (semi == std::string::npos) semi = r.specifier.size();
    const std::string piece = r.specifier.substr(p, semi - p);
    p = semi + 1;
    const size_t eq = piece.find('=');
    if (eq == std::string::npos) continue;
    const std::string key = piece.substr(0, eq);
    std::string list = piece.substr(eq + 1) + ",";
    for (size_t q = 0, comma; (comma = list.find(',', q)) != std::string::npos; q = comma + 1) {
      const std::string item = list.substr(q, comma - q);
      if (item.empty()) continue;
      if (key == "D" && item.size() >= 2) {
        days.emplace_back(item.size() > 2 ? std::stoi(item.substr(0, item.size() - 2)) : 0,
                          wd.at(item.substr(item.size() - 2)));
      } else if (key == "O") {
        months.push_back(std::stoi(item));
      }
    }
  }
  bool plainWeekdays = months.empty();
  for (const auto& d : days) plainWeekdays = plainWeekdays && d.first == 0;
  for (int i = 0; i < 4000; ++i) {
    if (r.count > 0 && i >= r.count) break;
    c.set(it.start);
    c.add(unit, i * r.interval);
    const double P = c.now();
    if (P > to) break;
    if (r.end && *r.end < P) break;
    auto keep = [&](double d, bool notBeforeStart) {
      if (r.end && d > *r.end) return;
      if (notBeforeStart && d < it.start) return;
      if (d >= from && d <= to) out.push_back(d);
    };
    if (days.empty()) {
      if (P >= from) out.push_back(P);
    } else if (plainWeekdays) {
      // Every wanted weekday of the period (week) that holds P.
      UErrorCode err = U_ZERO_ERROR;
      icu::Calendar& k = c.cal();
      k.set(UCAL_DAY_OF_WEEK, k.getFirstDayOfWeek());
      const double weekStart = c.dayStart(c.now());
      (void)err;
      for (int d = 0; d < 7; ++d) {
        c.set(weekStart);
        c.add(UCAL_DATE, d);
        const int w = c.get(UCAL_DAY_OF_WEEK);
        bool wanted = false;
        for (const auto& dd : days) wanted = wanted || dd.second == w;
        if (!wanted) continue;
        keep(c.at(c.get(UCAL_YEAR), c.get(UCAL_MONTH) + 1, c.get(UCAL_DATE), hh, mm, ss), true);
      }
    } else {
      c.set(P);
      const int year = c.get(UCAL_YEAR);
      std::vector<int> ms = months.empty() ? std::vector<int>{c.get(UCAL_MONTH) + 1} : months;
      std::vector<double> found;
      for (int m : ms) {
        for (const auto& [ord, w] : days) {
          icu::Calendar& k = c.cal();
          k.clear();
          k.set(UCAL_YEAR, year);
          k.set(UCAL_MONTH, m - 1);
          k.set(UCAL_DAY_OF_WEEK, static_cast<UCalendarDaysOfWeek>(w));
          k.set(UCAL_DAY_OF_WEEK_IN_MONTH, ord);
          k.set(UCAL_HOUR_OF_DAY, hh);
          k.set(UCAL_MINUTE, mm);
          k.set(UCAL_SECOND, ss);
          found.push_back(c.now());
        }
      }
      std::sort(found.begin(), found.end());
      for (double d : found) keep(d, false);
    }
  }
  return out;
}

}  // namespace

void writeCalendar(Home& h) {
  Rng rng = h.rng.child(4);
  const double now = static_cast<double>(h.opt.now);
  const bool google = h.opt.link != Link::absent;
  makeDirs(h.path("Library/Calendars"));  // the old location survives, empty
  makeDirs(h.path("Library/Group Containers/group.com.apple.calendar"));
  const std::string rel = "Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";
  Db db(h.path(rel));
  db.schema("calendar");
  db.begin();

  // Stores and calendars.
  Stmt insStore(db.handle(),
                "INSERT INTO Store (ROWID, name, type, disabled, external_id, persistent_id, "
                "display_order) VALUES (?,?,?,0,?,?,?)");
  insStore.run(int64_t{1}, std::string("On My Mac"), 0, Null{}, rng.uuid(), 0);
  if (google) insStore.run(int64_t{2}, std::string("Google"), 2, h.cast.googleEmail, rng.uuid(), 1);
  insStore.run(int64_t{3}, std::string("Other"), 5, Null{}, rng.uuid(), 2);
  const int64_t work = 1, home = 2, birthdays = 3, family = 4;
  Stmt insCal(db.handle(),
              "INSERT INTO Calendar (ROWID, store_id, title, color, type, UUID, display_order, "
              "self_identity_email) VALUES (?,?,?,?,?,?,?,?)");
  insCal.run(work, google ? 2 : 1, std::string("Work Projects"), std::string("#1BADF8"),
             std::string("caldav"), rng.uuid(), 0, h.cast.googleEmail);
  insCal.run(home, google ? 2 : 1, std::string("Home"), std::string("#63DA38"),
             std::string("caldav"), rng.uuid(), 1, h.cast.googleEmail);
  insCal.run(birthdays, int64_t{3}, std::string("Birthdays"), std::string("#A2845E"),
             std::string("birthday"), rng.uuid(), 2, Null{});
  insCal.run(family, int64_t{1}, std::string("Family"), std::string("#FF2968"),
             std::string("local"), rng.uuid(), 3, Null{});

  // ---- the items ----
  Clock local(h.opt.zone);
  local.set(now);
  const int ty = local.get(UCAL_YEAR), tm = local.get(UCAL_MONTH) + 1, td = local.get(UCAL_DATE);
  auto day = [&](int offset, int hh = 0, int mi = 0) {  // local wall time, offset days from today
    Clock c(h.opt.zone);
    c.at(ty, tm, td, hh, mi);
    c.add(UCAL_DATE, offset);
    return c.now();
  };
  std::vector<Item> items;
  auto add = [&](Item it) {
    it.rowid = static_cast<int64_t>(items.size()) + 1;
    items.push_back(it);
    return items.size() - 1;
  };
  auto floating = [&](const std::string& title, int offset, int hh, int mi, double hours,
                      int64_t cal) {
    Item it;
    it.title = title;
    it.zone = "_float";
    it.start = day(offset, hh, mi);
    it.end = it.start + hours * 3600;
    it.calendar = cal;
    return it;
  };
  auto allDay = [&](const std::string& title, int offset, int days, int64_t cal) {
    Item it = floating(title, offset, 0, 0, 0, cal);
    it.allDay = true;
    Clock c(h.opt.zone);
    c.set(it.start);
    c.add(UCAL_DATE, days);
    it.end = c.now();
    return it;
  };
  auto recurring = [&](Item it, int freq, int interval, int count, std::optional<double> end,
                       const char* specifier) {
    it.rule = Rule{freq, interval, count, end, specifier};
    return add(it);
  };
  // Local weekday of today (1 = Sunday): used to anchor weekly series.
  const int todayWd = local.get(UCAL_DAY_OF_WEEK);
  auto lastWeekday = [&](int wd, int weeksBack) {  // offset of that weekday weeksBack weeks ago
    int off = wd - todayWd;
    if (off > 0) off -= 7;
    return off - 7 * weeksBack;
  };

  // 35 recurring items.
  recurring(floating("Morning standup", -60, 9, 30, 0.25, work), 1, 1, 0, std::nullopt, "");
  recurring(floating("Take vitamins", -10, 8, 0, 0.1, home), 1, 1, 30, std::nullopt, "");
  recurring(floating("Water the plants", -20, 18, 0, 0.25, home), 1, 3, 0, day(20, 23, 59), "");
  recurring(floating("Gym", lastWeekday(4, 4), 7, 0, 1, home), 2, 1, 0, std::nullopt,
            "D=0MO,0WE,0FR");
  Item sync;
  sync.title = "Team sync";
  sync.zone = "America/Los_Angeles";
  {
    Clock la(sync.zone);
    la.set(now);
    la.at(la.get(UCAL_YEAR), la.get(UCAL_MONTH) + 1, la.get(UCAL_DATE), 10, 0);
    la.add(UCAL_DATE, -35);
    sync.start = la.now();
  }
  sync.end = sync.start + 1800;
  sync.calendar = work;
  sync.attendees = true;
  const size_t syncIdx = recurring(sync, 2, 1, 0, std::nullopt, "");
  Item oneOnOne = sync;
  oneOnOne.title = "1:1 with Priya";
  oneOnOne.start += 3 * 86400 + 5400;
  oneOnOne.end = oneOnOne.start + 1800;
  recurring(oneOnOne, 2, 2, 0, std::nullopt, "");
  recurring(floating("Piano lesson", lastWeekday(7, 3), 11, 0, 1, family), 2, 1, 10, std::nullopt,
            "");
  recurring(floating("Soccer practice", lastWeekday(3, 2), 17, 30, 1.5, family), 2, 1, 0,
            day(45, 23, 0), "D=0TU,0TH");
  // Positional monthly series start on a day the rule itself names.
  auto nthWeekday = [&](int monthsBack, int weekday, int ordinal, int hh) {
    Clock c(h.opt.zone);
    c.at(ty, tm, 1, hh, 0);
    c.add(UCAL_MONTH, -monthsBack);
    c.cal().set(UCAL_DAY_OF_WEEK, static_cast<UCalendarDaysOfWeek>(weekday));
    c.cal().set(UCAL_DAY_OF_WEEK_IN_MONTH, ordinal);
    return c.now();
  };
  {
    Item quiz = floating("Pub quiz", 0, 20, 0, 2, home);
    quiz.start = nthWeekday(2, UCAL_FRIDAY, -1, 20);
    quiz.end = quiz.start + 7200;
    recurring(quiz, 3, 1, 0, std::nullopt, "D=-1FR");
    Item board = floating("Board meeting", 0, 14, 0, 2, work);
    board.start = nthWeekday(3, UCAL_TUESDAY, 2, 14);
    board.end = board.start + 7200;
    recurring(board, 3, 1, 0, std::nullopt, "D=+2TU");
  }
  recurring(floating("Rent due", -90, 9, 0, 0.5, home), 3, 1, 0, std::nullopt, "");
  {
    // Second Sunday of May, from two years back.
    Clock c(h.opt.zone);
    c.at(ty - 2, 5, 1, 11, 0);
    c.cal().set(UCAL_DAY_OF_WEEK, UCAL_SUNDAY);
    c.cal().set(UCAL_DAY_OF_WEEK_IN_MONTH, 2);
    Item mday = floating("Mother's Day brunch", 0, 11, 0, 2, family);
    mday.start = c.now();
    mday.end = mday.start + 7200;
    recurring(mday, 4, 1, 0, std::nullopt, "D=+2SU;O=5");
  }
  Item legacy = floating("Sync legacy rule", -30, 12, 0, 1, work);
  recurring(legacy, 7, 1, 0, std::nullopt, "");  // a frequency Calendar never wrote
  for (int b = 0; b < 8; ++b) {
    const Person& p = h.cast.people[static_cast<size_t>(b * 3 + 1) % h.cast.people.size()];
    Item bd = allDay(p.first + " " + p.last + "'s Birthday", -200 + b * 53 - 365 * (1 + b % 3), 1,
                     birthdays);
    recurring(bd, 4, 1, 0, std::nullopt, "");
  }
  recurring(allDay("Anniversary", -300, 1, family), 4, 1, 0, std::nullopt, "");
  static const char* moreWeekly[] = {"Yoga",         "Guitar practice", "Planning review",
                                     "Grocery run",  "Date night",      "Family call",
                                     "Running club", "Spanish class",   "Code review",
                                     "Trash day",    "Cleaning",        "Therapy",
                                     "Choir"};
  for (int k = 0; static_cast<int>(items.size()) < 35 && k < 13; ++k) {
    const int wd = 1 + k % 7;
    recurring(floating(moreWeekly[k], lastWeekday(wd, 2 + k % 5), 8 + k % 10, (k % 2) * 30, 1,
                       k % 3 == 0 ? work : home),
              2, 1 + k % 2, k % 4 == 0 ? 12 : 0,
              k % 5 == 1 ? std::optional<double>(day(30 + k, 23, 0)) : std::nullopt, "");
  }
  // Exceptions and a detached instance on the zoned weekly series.
  {
    Item& s = items[syncIdx];
    const auto occ = expand(s, now - 20 * 86400, now + 40 * 86400, h.opt.zone);
    if (occ.size() >= 6) {
      s.exceptions = {occ[1], occ[4]};
      Item moved = s;
      moved.rule.reset();
      moved.exceptions.clear();
      moved.title = "Team sync (moved)";
      moved.origItem = s.rowid;
      moved.origDate = occ[3];
      moved.start = occ[3] + 3600;
      moved.end = moved.start + 1800;
      add(moved);
    }
  }
  // Single items (floating mostly, some zoned, some all-day, multi-day, invited).
  static const char* singles[] = {"Dinner with Sam",
                                  "Dentist",
                                  "Flight to Lisbon",
                                  "Coffee with Jordan",
                                  "Quarterly planning",
                                  "Haircut",
                                  "Parent-teacher conference",
                                  "Car service",
                                  "Design review",
                                  "Dinner at Kin Khao",
                                  "Concert",
                                  "Book launch",
                                  "Vet appointment",
                                  "Interview: senior engineer",
                                  "Farmers market"};
  int multiDay = 0;
  while (items.size() < 150) {
    const size_t k = items.size();
    const int offset = static_cast<int>(rng.range(-120, 120));
    const std::string title = singles[rng.next() % 15];
    Item it;
    if (k % 23 == 0 && multiDay < 3) {
      it = allDay(multiDay == 0   ? "Conference in Lisbon"
                  : multiDay == 1 ? "Vacation"
                                  : "Offsite",
                  multiDay == 0   ? 20
                  : multiDay == 1 ? -4
                                  : 45,  // inside the cache window
                  multiDay == 1 ? 10 : 3, multiDay == 2 ? work : home);
      ++multiDay;
    } else if (k % 9 == 0) {
      it = allDay(title, offset, 1, rng.chance(0.5) ? home : family);
    } else if (k % 8 == 0) {
      it.title = title;
      it.zone = k % 16 == 0 ? "Europe/Lisbon" : "America/New_York";
      it.start = std::floor(day(offset, 0, 0) / 3600) * 3600 +
                 3600 * static_cast<double>(rng.range(8, 20));
      it.end = it.start + 3600 * static_cast<double>(rng.range(1, 3));
      it.calendar = work;
    } else {
      it = floating(title, offset, static_cast<int>(rng.range(8, 20)), rng.chance(0.5) ? 30 : 0,
                    static_cast<double>(rng.range(1, 3)), rng.chance(0.5) ? work : home);
    }
    it.invited = it.calendar == work && rng.chance(0.35);
    it.attendees = it.invited || rng.chance(0.1);
    add(it);
  }

  // ---- rows ----
  auto stored = [&](const Item& it, double unix) {
    if (it.zone != "_float") return unix - static_cast<double>(kAppleEpoch);
    // Floating: the local wall-clock time written as if it were UTC.
    Clock c(h.opt.zone);
    c.set(unix);
    return static_cast<double>(
        utcSeconds(
            c.get(UCAL_YEAR), static_cast<unsigned>(c.get(UCAL_MONTH) + 1),
            static_cast<unsigned>(c.get(UCAL_DATE)), static_cast<unsigned>(c.get(UCAL_HOUR_OF_DAY)),
            static_cast<unsigned>(c.get(UCAL_MINUTE)), static_cast<unsigned>(c.get(UCAL_SECOND))) -
        kAppleEpoch);
  };
  Stmt insItem(
      db.handle(),
      "INSERT INTO CalendarItem (ROWID, summary, start_date, start_tz, end_date, end_tz, all_day, "
      "calendar_id, "
      "orig_item_id, orig_date, organizer_id, self_attendee_id, status, invitation_status, hidden, "
      "has_recurrences, has_attendees, UUID, entity_type, last_modified, creation_date, "
      "unique_identifier) "
      "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,1,?,0,?,?,?,2,?,?,?)");
  Stmt insRec(db.handle(),
              "INSERT INTO Recurrence (frequency, interval, week_start, count, end_date, "
              "specifier, owner_id, UUID) "
              "VALUES (?,?,0,?,?,?,?,?)");
  Stmt insExc(db.handle(), "INSERT INTO ExceptionDate (owner_id, date) VALUES (?,?)");
  Stmt insPart(db.handle(),
               "INSERT INTO Participant (ROWID, entity_type, type, status, role, owner_id, UUID, "
               "email, is_self) "
               "VALUES (?,7,1,?,?,?,?,?,?)");
  int64_t participant = 0;
  for (const Item& it : items) {
    int64_t organizer = 0, self = 0;
    if (it.attendees) {
      const Person& o = h.cast.people[static_cast<size_t>(it.rowid * 7) % h.cast.people.size()];
      const std::string orgMail = it.invited
                                      ? (o.emails.empty() ? "organizer@example.org" : o.emails[0])
                                      : h.cast.googleEmail;
      organizer = ++participant;
      insPart.run(organizer, 1, 2, it.rowid, rng.uuid(), orgMail, it.invited ? 0 : 1);
      if (it.invited) {
        self = ++participant;
        insPart.run(self, 1, 1, it.rowid, rng.uuid(), h.cast.googleEmail, 1);
      }
    }
    const double created =
        std::min(it.start, now) - 86400.0 * static_cast<double>(rng.range(1, 60));
    insItem.run(it.rowid, it.title, stored(it, it.start), it.zone, stored(it, it.end), it.zone,
                it.allDay ? 1 : 0, it.calendar, it.origItem,
                it.origItem > 0 ? std::optional<double>(stored(it, it.origDate)) : std::nullopt,
                organizer, self, it.invited ? 1 : 0, it.rule ? 1 : 0, it.attendees ? 1 : 0,
                rng.uuid(), created - static_cast<double>(kAppleEpoch) + 3600,
                created - static_cast<double>(kAppleEpoch), rng.uuid() + "@google.com");
    if (it.rule) {
      insRec.run(it.rule->frequency, it.rule->interval, it.rule->count,
                 it.rule->end ? std::optional<double>(stored(it, *it.rule->end)) : std::nullopt,
                 it.rule->specifier.empty() ? std::optional<std::string>() : it.rule->specifier,
                 it.rowid, rng.uuid());
    }
    for (double e : it.exceptions) insExc.run(it.rowid, stored(it, e));
  }

  // OccurrenceCache: one row per local day each occurrence touches, within a
  // window around today, sharing the occurrence's end.
  Stmt insOcc(db.handle(),
              "INSERT INTO OccurrenceCache (day, event_id, calendar_id, store_id, occurrence_date, "
              "occurrence_start_date, occurrence_end_date) VALUES (?,?,?,?,?,?,?)");
  const double from = local.dayStart(now - 60 * 86400.0), to = local.dayStart(now + 90 * 86400.0);
  int64_t cacheRows = 0;
  std::set<double> detachedOrig;
  for (const Item& it : items) {
    if (it.origItem > 0) detachedOrig.insert(it.origDate);
  }
  for (const Item& it : items) {
    std::vector<double> occ;
    if (it.rule) {
      occ = expand(it, from, to, h.opt.zone);
    } else if (it.start >= from && it.start <= to) {
      occ = {it.start};
    }
    const double duration = it.end - it.start;
    const int64_t store = it.calendar == birthdays ? 3 : (it.calendar == family || !google) ? 1 : 2;
    for (double t : occ) {
      bool removed = false;
      for (double e : it.exceptions) removed = removed || std::fabs(e - t) < 0.5;
      if (it.rule && std::any_of(items.begin(), items.end(), [&](const Item& d) {
            return d.origItem == it.rowid && std::fabs(d.origDate - t) < 0.5;
          })) {
        removed = true;
      }
      if (removed) continue;
      const double end = t + duration;
      bool first = true;
      for (double d = local.dayStart(t); d < std::max(end, t + 1);
           d = local.dayStart(d + 36 * 3600.0)) {
        const double occurrenceDate = first ? t : d;
        insOcc.run(d - static_cast<double>(kAppleEpoch), it.rowid, it.calendar, store,
                   occurrenceDate - static_cast<double>(kAppleEpoch),
                   t - static_cast<double>(kAppleEpoch), end - static_cast<double>(kAppleEpoch));
        ++cacheRows;
        first = false;
      }
    }
  }

  if (h.opt.link == Link::broken) {
    const std::string url =
        "https://apidata.googleusercontent.com/caldav/v2/" + h.cast.googleEmail + "/user";
    const auto blob = keyedErrorChain({
        {"CoreDAVHTTPStatusErrorDomain",
         401,
         {{"NSLocalizedDescription", "The server responded with 401 Unauthorized."}}},
        {"NSURLErrorDomain",
         -1013,
         {{"NSErrorFailingURLStringKey", url},
          {"NSLocalizedDescription", "User authentication required."}}},
        {"kCFErrorDomainCFNetwork", -1013, {{"NSErrorFailingURLStringKey", url}}},
    });
    Stmt insErr(db.handle(),
                "INSERT INTO Error (store_owner_id, calendar_owner_id, calendaritem_owner_id, "
                "error_type, error_code, user_info) "
                "VALUES (2, NULL, NULL, 1, 401, ?)");
    insErr.run(blob);
  }
  db.commit();
  db.toWal();
  const double touched = h.opt.link == Link::broken   ? now - 12 * 86400.0
                         : h.opt.link == Link::absent ? now - 60 * 86400.0
                                                      : now - 300;
  h.stamp(rel, touched);
  int recurringCount = 0;
  for (const auto& it : items) recurringCount += it.rule ? 1 : 0;
  h.summary.push_back("calendar: " + std::to_string(items.size()) + " items (" +
                      std::to_string(recurringCount) + " recurring), " + std::to_string(cacheRows) +
                      " OccurrenceCache rows" +
                      (h.opt.link == Link::broken ? ", Google Error row (401)" : ""));
}

}  // namespace demohome
