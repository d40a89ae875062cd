#include "health/TeskGrant.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"
#include "health/TeskDoctor.h"
#include "sources/messages/TeskKeyedArchive.h"
#include "store/TeskStore.h"

namespace TeskGrant {
namespace {

const char* const kAccountQuery =
    "SELECT a.ZACTIVE, a.ZAUTHENTICATED\n"
    "FROM ZACCOUNT a JOIN ZACCOUNTTYPE t ON a.ZACCOUNTTYPE = t.Z_PK\n"
    "WHERE a.ZPARENTACCOUNT IS NULL\n"
    "  AND (t.ZACCOUNTTYPEDESCRIPTION = ? OR a.ZACCOUNTDESCRIPTION = ?)";

const char* const kLinkQuery =
    "SELECT a.Z_PK, a.ZUSERNAME, a.ZACTIVE, a.ZAUTHENTICATED,\n"
    "       a.ZLASTCREDENTIALRENEWALREJECTIONDATE, a.ZIDENTIFIER\n"
    "FROM ZACCOUNT a JOIN ZACCOUNTTYPE t ON a.ZACCOUNTTYPE = t.Z_PK\n"
    "WHERE a.ZPARENTACCOUNT IS NULL\n"
    "  AND (t.ZACCOUNTTYPEDESCRIPTION = ? OR a.ZACCOUNTDESCRIPTION = ?)";

const char* const kErrorQuery =
    "SELECT s.name, e.user_info\n"
    "FROM Error e JOIN Store s ON s.ROWID = e.store_owner_id\n"
    "WHERE s.name = ?\n"
    "ORDER BY e.ROWID DESC";

std::string accountsPath(const std::string& home) {
  return home + "/Library/Accounts/Accounts4.sqlite";
}

// Google's accounts are typed "Gmail" in the account database.
std::vector<TeskValue> providerBinds(const std::string& provider) {
  return {provider, provider == "Google" ? std::string("Gmail") : provider};
}

std::optional<TeskStore> openQuietly(const std::string& path) {
  try {
    return std::optional<TeskStore>(std::in_place, path);
  } catch (const TeskStoreError&) {
    return std::nullopt;
  }
}

// A data-class name is a keyed-archived string in real stores, plain text in others.
std::optional<std::string> dataclassName(const TeskRowReader& row, int column) {
  if (row.isNull(column)) return std::nullopt;
  auto bytes = row.blobView(column);
  static constexpr std::string_view kPlist = "bplist";
  if (bytes && bytes->size() >= kPlist.size() &&
      std::equal(kPlist.begin(), kPlist.end(), bytes->begin())) {
    return TeskKeyedArchive::string(*bytes);
  }
  return row.text(column);
}

std::string upper(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

std::string lowerASCII(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

}  // namespace

std::string Status::summary() const {
  std::string out;
  if (active && !authenticated) out = "the grant is not authenticated";
  if (lastError) {
    if (!out.empty()) out += "; ";
    out += *lastError;
  }
  return out.empty() ? "ok" : out;
}

std::string_view rawValue(Mirror mirror) {
  switch (mirror) {
    case Mirror::mail:
      return "Mail";
    case Mirror::calendars:
      return "Calendars";
    case Mirror::contacts:
      return "Contacts";
  }
  return "Mail";
}

std::string dataclass(Mirror mirror) {
  return "com.apple.Dataclass." + std::string(rawValue(mirror));
}

std::string_view gives(Mirror mirror) {
  switch (mirror) {
    case Mirror::mail:
      return "puts your gmail on this mac, so mirel can read it in milliseconds";
    case Mirror::calendars:
      return "puts your google calendar on this mac";
    case Mirror::contacts:
      return "puts your google contacts on this mac";
  }
  return "";
}

std::string_view doctorKey(Mirror mirror) {
  switch (mirror) {
    case Mirror::mail:
      return "mail";
    case Mirror::calendars:
      return "cal";
    case Mirror::contacts:
      return "contacts";
  }
  return "";
}

std::string_view rawValue(Link::Verdict verdict) {
  switch (verdict) {
    case Link::Verdict::absent:
      return "absent";
    case Link::Verdict::broken:
      return "broken";
    case Link::Verdict::partial:
      return "partial";
    case Link::Verdict::complete:
      return "complete";
  }
  return "absent";
}

Link::Verdict Link::verdict() const {
  if (!active) return Verdict::absent;
  if (!authenticated || lastError) return Verdict::broken;
  return enabled.size() == std::size(allMirrors) ? Verdict::complete : Verdict::partial;
}

std::vector<Mirror> Link::missing() const {
  std::vector<Mirror> out;
  for (Mirror m : allMirrors) {
    if (enabled.count(m) == 0) out.push_back(m);
  }
  return out;
}

std::optional<std::string> Link::repair() const {
  switch (verdict()) {
    case Verdict::absent:
      return "add your google account in system settings → internet accounts, and turn on "
             "mail, calendars and contacts";
    case Verdict::broken:
      return "sign in again in system settings → internet accounts → google. the account is "
             "switched on and google is refusing the credential, so nothing new reaches this "
             "mac until it is renewed";
    case Verdict::partial: {
      std::string text = "turn on ";
      bool first = true;
      for (Mirror m : missing()) {
        if (!first) text += " and ";
        text += lowerASCII(rawValue(m));
        first = false;
      }
      return text + " in system settings → internet accounts → google";
    }
    case Verdict::complete:
      return std::nullopt;
  }
  return std::nullopt;
}

std::optional<Status> status(const std::string& provider, const std::string& home) {
  auto store = openQuietly(accountsPath(home));
  if (!store) return std::nullopt;
  Status s;
  s.provider = provider;
  bool any = false;
  try {
    store->query(kAccountQuery, providerBinds(provider), [&](const TeskRowReader& row) {
      any = true;
      s.active |= row.integer(0) == 1;
      s.authenticated |= row.integer(1) == 1;
    });
  } catch (const TeskStoreError&) {
    return std::nullopt;
  }
  if (!any) return std::nullopt;
  store.reset();
  s.lastError = calendarStoreError(home, provider);
  return s;
}

Link link(const std::string& provider, const std::string& home) {
  Link l;
  l.provider = provider;
  auto store = openQuietly(accountsPath(home));
  if (!store) return l;
  std::optional<int64_t> account;
  Link found = l;
  try {
    store->query(kLinkQuery, providerBinds(provider), [&](const TeskRowReader& row) {
      if (!account) account = row.integer(0);
      if (!found.username) found.username = row.text(1);
      found.active |= row.integer(2) == 1;
      found.authenticated |= row.integer(3) == 1;
      if (!found.lastRejection && !row.isNull(4)) {
        found.lastRejection = row.real(4) + TeskTime::appleEpochOffset;
      }
      if (!found.identifier) found.identifier = row.text(5);
    });
  } catch (const TeskStoreError&) {
    return l;
  }
  if (!account) return l;
  found.enabled = enabledMirrors(*account, *store);
  store.reset();
  found.lastError = calendarStoreError(home, provider);
  return found;
}

std::set<Mirror> enabledMirrors(int64_t account, TeskStore& store) {
  std::set<Mirror> out;
  try {
    // Core Data numbers the join table by model version (Z_2ENABLEDDATACLASSES, ...).
    std::optional<std::string> table;
    store.query(
        "SELECT name FROM sqlite_master WHERE type='table' AND name LIKE "
        "'Z!_%ENABLEDDATACLASSES' ESCAPE '!'",
        [&](const TeskRowReader& row) {
          if (!table) table = row.text(0);
        });
    if (!table) return out;
    std::optional<std::string> accountColumn, dataclassColumn;
    store.query("SELECT name FROM pragma_table_info('" + *table + "')",
                [&](const TeskRowReader& row) {
                  auto name = row.text(0);
                  if (!name) return;
                  if (!accountColumn && name->ends_with("ACCOUNTS")) accountColumn = *name;
                  if (!dataclassColumn && name->ends_with("DATACLASSES")) dataclassColumn = *name;
                });
    if (!accountColumn || !dataclassColumn) return out;
    store.query("SELECT d.ZNAME FROM " + *table + " j JOIN ZDATACLASS d ON d.Z_PK = j." +
                    *dataclassColumn + " WHERE j." + *accountColumn + " = ?",
                {account}, [&](const TeskRowReader& row) {
                  auto name = dataclassName(row, 0);
                  if (!name) return;
                  for (Mirror m : allMirrors) {
                    if (*name == dataclass(m)) out.insert(m);
                  }
                });
  } catch (const TeskStoreError&) {
    // What was gathered stands.
  }
  return out;
}

std::optional<std::string> calendarStoreError(const std::string& home,
                                              const std::string& provider) {
  std::string path = home + "/Library/Group Containers/group.com.apple.calendar/Calendar.sqlitedb";
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) return std::nullopt;
  auto store = openQuietly(path);
  if (!store || !store->tableExists("Error")) return std::nullopt;
  std::optional<std::string> chain;
  try {
    store->query(kErrorQuery, {provider}, [&](const TeskRowReader& row) {
      if (chain) return;  // the newest readable error wins
      auto blob = row.blobView(1);
      if (!blob || blob->empty()) return;
      chain = errorChain(*blob);
    });
  } catch (const TeskStoreError&) {
    return std::nullopt;
  }
  return chain;
}

std::optional<std::string> errorChain(std::span<const uint8_t> bytes) {
  return TeskKeyedArchive::errorChain(bytes);
}

std::vector<std::string> linkReport(const std::string& home, double now) {
  Link l = link("Google", home);
  std::map<std::string, TeskDoctor::Row, std::less<>> rows;
  for (TeskDoctor::Row& r : TeskDoctor::run(now, home)) rows.emplace(r.key, std::move(r));

  const std::string dash = "—";
  std::vector<std::string> lines;
  lines.emplace_back("field\tvalue");
  lines.push_back("provider\t" + lowerASCII(l.provider));
  lines.push_back("account\t" + TeskText::escapeTSV(l.username.value_or(dash)));
  lines.push_back("verdict\t" + upper(rawValue(l.verdict())));
  lines.push_back("account_id\t" + TeskText::escapeTSV(l.identifier.value_or(dash)));
  lines.push_back(std::string("active\t") + (l.active ? "yes" : "no"));
  lines.push_back(std::string("authenticated\t") + (l.authenticated ? "yes" : "no"));
  lines.push_back("last_rejection\t" +
                  (l.lastRejection ? TeskTime::isoString(*l.lastRejection) : dash));
  lines.push_back("provider_error\t" + TeskText::escapeTSV(l.lastError.value_or(dash)));
  lines.emplace_back();
  lines.emplace_back("mirror\tswitched_on\tnewest_on_disk\tstate\tfills");
  for (Mirror m : allMirrors) {
    std::string line(doctorKey(m));
    line += l.enabled.count(m) != 0 ? "\tyes\t" : "\tNO\t";
    auto it = rows.find(doctorKey(m));
    if (it == rows.end()) {
      line += dash + "\t" + dash;
    } else {
      // A store with no dated row has no newest instant to show.
      line += it->second.newest > 0 ? TeskTime::isoString(it->second.newest) : dash;
      line += '\t';
      line += TeskDoctor::rawValue(it->second.verdict);
    }
    line += '\t';
    line += gives(m);
    lines.push_back(std::move(line));
  }
  if (auto repair = l.repair()) {
    lines.emplace_back();
    lines.emplace_back("# what to do — and it is the only thing that helps:");
    lines.push_back("#   " + *repair);
    lines.push_back("#   " + std::string(Link::settingsAnchor));
  }
  lines.emplace_back();
  lines.emplace_back("# ⚠ a switched-on mirror is not a moving one. every switch here can be in");
  lines.emplace_back(
      "#   the right position while the credential behind them is refused, which is");
  lines.emplace_back("#   exactly the state this Mac was in. `tesk doctor` says how stale each");
  lines.emplace_back("#   store actually is; this verb says why.");
  return lines;
}

}  // namespace TeskGrant
