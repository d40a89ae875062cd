// Reminders keeps one Core Data store per account:
// Library/Group Containers/group.com.apple.reminders/Container_v1/Stores/Data-<uuid>.sqlite.
// Two stores here, with lists, open and completed items, due dates next week,
// notes, one item marked for deletion and one synced into both stores.
#include <optional>

#include "Home.h"
#include "Sqlite.h"
#include "Support.h"

namespace demohome {

namespace {

constexpr int kEntList = 3;
constexpr int kEntReminder = 23;

struct Todo {
  std::string title, notes;
  int list;              // 0-based list index; -1 = no list
  int dueInDays = 9999;  // 9999 = no due date
  bool completed = false, deleted = false;
  std::string ckid;  // CloudKit identifier; empty = generated
};

void writeStore(Home& h, Rng& rng, const std::string& rel, const std::vector<std::string>& lists,
                const std::vector<Todo>& todos, double modified) {
  Db db(h.path(rel));
  db.schema("reminders");
  db.begin();
  const double now = static_cast<double>(h.opt.now - kAppleEpoch);
  Stmt insList(
      db.handle(),
      "INSERT INTO ZREMCDBASELIST (Z_PK, Z_ENT, Z_OPT, ZMARKEDFORDELETION, ZNAME, ZCKIDENTIFIER, "
      "ZEXTERNALIDENTIFIER, ZISGROUP) VALUES (?,?,1,0,?,?,?,0)");
  for (size_t i = 0; i < lists.size(); ++i) {
    insList.run(static_cast<int64_t>(i) + 1, kEntList, lists[i], rng.uuid(), rng.uuid());
  }
  Stmt insRem(db.handle(),
              "INSERT INTO ZREMCDREMINDER (Z_PK, Z_ENT, Z_OPT, ZALLDAY, ZCOMPLETED, ZFLAGGED, "
              "ZMARKEDFORDELETION, "
              "ZPRIORITY, ZLIST, ZCOMPLETIONDATE, ZCREATIONDATE, ZDUEDATE, ZLASTMODIFIEDDATE, "
              "ZCKIDENTIFIER, "
              "ZEXTERNALIDENTIFIER, ZNOTES, ZTITLE, ZTIMEZONE) VALUES "
              "(?,?,1,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
  int64_t pk = 0;
  for (const Todo& t : todos) {
    const double created = now - 86400.0 * static_cast<double>(rng.range(1, 200));
    const double lastMod =
        std::min(now - 3600.0 * static_cast<double>(rng.range(1, 72)), created + 86400.0 * 30);
    std::optional<double> due;
    if (t.dueInDays != 9999)
      due = now + 86400.0 * t.dueInDays - static_cast<double>(static_cast<int64_t>(now) % 3600);
    insRem.run(++pk, kEntReminder, due && t.dueInDays % 2 == 0 ? 1 : 0, t.completed ? 1 : 0,
               rng.chance(0.1) ? 1 : 0, t.deleted ? 1 : 0, static_cast<int>(rng.range(0, 1)) * 5,
               t.list >= 0 ? std::optional<int64_t>(t.list + 1) : std::nullopt,
               t.completed ? std::optional<double>(lastMod) : std::nullopt, created, due, lastMod,
               t.ckid.empty() ? rng.uuid() : t.ckid, rng.uuid(),
               t.notes.empty() ? std::optional<std::string>() : t.notes,
               t.title.empty() ? std::optional<std::string>() : t.title,
               std::string("America/Los_Angeles"));
  }
  Stmt insPk(db.handle(),
             "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?,?,?,?)");
  insPk.run(2, std::string("REMCDBaseList"), 0, int64_t{0});
  insPk.run(kEntList, std::string("REMCDList"), 2, static_cast<int64_t>(lists.size()));
  insPk.run(kEntReminder, std::string("REMCDReminder"), 0, pk);
  db.commit();
  db.toWal();
  h.stamp(rel, modified);
}

}  // namespace

void writeReminders(Home& h) {
  Rng rng = h.rng.child(5);
  const std::string dir = "Library/Group Containers/group.com.apple.reminders/Container_v1/Stores";
  makeDirs(h.path(dir));
  const double now = static_cast<double>(h.opt.now);
  const std::string shared = rng.uuid();  // synced into both stores

  std::vector<Todo> first = {
      {"Renew passport", "Photos are in the desk drawer", 0, 6, false, false, shared},
      {"Book flight to Lisbon", "Check SkyWays first", 0, 4, false, false, ""},
      {"Send Résumé to Priya", "", 2, 2, false, false, ""},
      {"Call the dentist", "", 0, 1, false, false, ""},
      {"Plan dinner party", "Ask Sam about the date\nOrder wine", 3, 10, false, false, ""},
      {"Pick up dry cleaning", "", 3, 9999, false, false, ""},
      {"Oat milk", "", 1, 9999, false, false, ""},
      {"Eggs", "", 1, 9999, false, false, ""},
      {"Coffee beans", "The Ethiopian one", 1, 9999, false, false, ""},
      {"Avocados", "", 1, 9999, true, false, ""},
      {"Quarterly report draft", "", 2, 5, false, false, ""},
      {"Expense report", "", 2, -2, false, false, ""},
      {"Fix the bike tire", "", 3, 9999, true, false, ""},
      {"Old idea nobody wants", "", 0, 9999, false, true, ""},
      {"Water the garden", "", -1, 3, false, false, ""},
      {"", "", 0, 9999, false, false, ""},  // an empty item: not a row
  };
  static const char* fillers[] = {
      "Return library books",    "Schedule car service", "Buy birthday gift", "Update résumé",
      "Cancel old subscription", "Back up photos",       "Clean the fridge",  "Reply to landlord",
      "Order new filters",       "Check flight status"};
  for (int i = 0; i < 30; ++i) {
    Todo t{fillers[i % 10],
           i % 3 == 0 ? "Remember: " + std::string(fillers[(i + 3) % 10]) : "",
           i % 4,
           i % 2 == 0 ? static_cast<int>(rng.range(-20, 14)) : 9999,
           rng.chance(0.4),
           false,
           ""};
    first.push_back(t);
  }
  std::vector<Todo> second = {
      {"Renew passport", "Photos are in the desk drawer", 1, 6, false, false, shared},
      {"Drop off package", "", 0, 1, false, false, ""},
      {"Buy stamps", "", 0, 9999, false, false, ""},
      {"Pay parking ticket", "Due before the 30th", 1, 7, false, false, ""},
      {"Get keys copied", "", 0, 9999, true, false, ""},
  };
  const std::string a = "Data-" + rng.uuid() + ".sqlite", b = "Data-" + rng.uuid() + ".sqlite";
  writeStore(h, rng, dir + "/" + a, {"Reminders", "Groceries", "Work", "Home"}, first, now - 3600);
  writeStore(h, rng, dir + "/" + b, {"Errands", "Reminders"}, second, now - 3 * 86400);
  h.summary.push_back("reminders: 2 stores (" + std::to_string(first.size()) + " and " +
                      std::to_string(second.size()) + " items, one synced into both)");
}

}  // namespace demohome
