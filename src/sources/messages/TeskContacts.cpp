#include "sources/messages/TeskContacts.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "cli/TeskFile.h"
#include "cli/TeskText.h"
#include "report/TeskJSONValue.h"
#include "sources/messages/TeskIdentity.h"
#include "store/TeskStore.h"

namespace TeskContacts {

namespace {

std::string lastComponent(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool fileExists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

}  // namespace

std::optional<std::string> display(std::optional<std::string_view> first,
                                   std::optional<std::string_view> last,
                                   std::optional<std::string_view> organization,
                                   std::optional<std::string_view> nickname) {
  std::string_view f = first ? TeskText::trimBlanks(*first) : std::string_view();
  std::string_view l = last ? TeskText::trimBlanks(*last) : std::string_view();
  if (!f.empty() || !l.empty()) {
    std::string name(f);
    if (!f.empty() && !l.empty()) name += ' ';
    name += l;
    return name;
  }
  for (const auto& field : {organization, nickname}) {
    std::string_view v = field ? TeskText::trimBlanks(*field) : std::string_view();
    if (!v.empty()) return std::string(v);
  }
  return std::nullopt;
}

std::optional<std::string> accountHandle(std::string_view json) {
  if (json.starts_with("\xEF\xBB\xBF")) json.remove_prefix(3);  // a byte-order mark
  std::optional<TeskJSONValue::Value> doc = TeskJSONValue::parse(json);
  if (!doc || !doc->object()) return std::nullopt;
  const TeskJSONValue::Value* token = doc->member("token");
  const TeskJSONValue::Value* email = doc->member("email");
  if (!token || !token->string() || token->string()->empty()) return std::nullopt;
  if (!email || !email->string() || email->string()->find('@') == std::string::npos) {
    return std::nullopt;
  }
  std::string handle = TeskIdentity::canonical(*email->string());
  if (handle.empty()) return std::nullopt;
  return handle;
}

std::vector<std::string> books(const std::string& home) {
  const std::string root = home + "/Library/Application Support/AddressBook";
  std::vector<std::string> found;
  if (fileExists(root + "/AddressBook-v22.abcddb"))
    found.push_back(root + "/AddressBook-v22.abcddb");
  std::vector<std::string> names;
  std::error_code ec;
  std::filesystem::directory_iterator it(root + "/Sources", ec), end;
  for (; !ec && it != end; it.increment(ec)) names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    std::string path = root + "/Sources/" + name + "/AddressBook-v22.abcddb";
    if (fileExists(path)) found.push_back(std::move(path));
  }
  return found;
}

std::optional<std::string> Roster::name(std::string_view handle) const {
  auto it = byHandle.find(TeskIdentity::canonical(handle));
  if (it == byHandle.end()) return std::nullopt;
  return it->second;
}

const Card* Roster::cardOf(const std::string& canonicalHandle) const {
  auto it = holder.find(canonicalHandle);
  return it == holder.end() ? nullptr : &cards[it->second];
}

namespace {

// Which card each handle belongs to, how many handles two cards claim, and each
// card's key. A handle counts for the first card that holds it, so a card whose
// handles all belong to earlier cards is never anyone's person.
void settleCards(Roster& r) {
  std::unordered_map<std::string, int> claims;
  for (size_t i = 0; i < r.cards.size(); ++i) {
    for (const std::string& h : r.cards[i].handles) {
      r.holder.try_emplace(h, i);
      if (++claims[h] == 2) ++r.sharedHandles;
    }
  }
  auto firstOwn = [&r](size_t i) -> const std::string* {
    for (const std::string& h : r.cards[i].handles) {
      if (r.holder.at(h) == i) return &h;
    }
    return nullptr;
  };
  std::unordered_map<std::string, int> owningByName;
  for (size_t i = 0; i < r.cards.size(); ++i) {
    if (!r.cards[i].name.empty() && firstOwn(i)) ++owningByName[r.cards[i].name];
  }
  for (size_t i = 0; i < r.cards.size(); ++i) {
    Card& c = r.cards[i];
    const std::string* own = firstOwn(i);
    const std::string& first = own ? *own : c.handles.front();
    if (c.name.empty()) {
      c.key = first;
    } else if (owningByName[c.name] > 1) {
      c.key = c.name + " (" + first + ")";
    } else {
      c.key = c.name;
    }
  }
}

}  // namespace

Roster roster(const std::string& home) { return sqliteRoster(home); }

Roster sqliteRoster(const std::string& home) {
  static const std::string handlesSQL =
      "SELECT r.ZFIRSTNAME, r.ZLASTNAME, r.ZORGANIZATION, r.ZNICKNAME, p.ZFULLNUMBER, r.Z_PK\n"
      "FROM ZABCDPHONENUMBER p JOIN ZABCDRECORD r ON r.Z_PK = p.ZOWNER\n"
      "UNION ALL\n"
      "SELECT r.ZFIRSTNAME, r.ZLASTNAME, r.ZORGANIZATION, r.ZNICKNAME, e.ZADDRESS, r.Z_PK\n"
      "FROM ZABCDEMAILADDRESS e JOIN ZABCDRECORD r ON r.Z_PK = e.ZOWNER";
  Roster out;
  out.source = "addressbook-sqlite";
  for (const std::string& path : books(home)) {
    std::optional<TeskStore> store;
    try {
      store.emplace(path);
    } catch (const TeskStoreError& e) {
      out.denied.push_back(lastComponent(path) + ": " + e.description());
      continue;
    }
    if (!store->tableExists("ZABCDRECORD")) {
      out.denied.push_back(lastComponent(path) + ": not an address book");
      continue;
    }
    out.books.push_back(path);
    out.records += store->scalarInt("SELECT COUNT(*) FROM ZABCDRECORD").value_or(0);
    std::map<int64_t, Card> byRecord;  // this book's cards in record order
    try {
      store->query(handlesSQL, [&out, &byRecord](const TeskRowReader& r) {
        std::optional<std::string_view> handle = r.textView(4);
        std::string key = handle ? TeskIdentity::canonical(*handle) : std::string();
        if (key.empty()) return;
        ++out.handles;
        std::optional<std::string> name =
            display(r.textView(0), r.textView(1), r.textView(2), r.textView(3));
        Card& card = byRecord[r.integer(5)];
        if (std::find(card.handles.begin(), card.handles.end(), key) == card.handles.end()) {
          card.handles.push_back(key);
        }
        if (!name) {
          ++out.unnamed;
          return;
        }
        card.name = *name;
        out.byHandle.try_emplace(std::move(key), std::move(*name));
      });
    } catch (const TeskStoreError&) {
      // A book whose handle tables moved keeps the counts it reached.
    }
    for (auto& [record, card] : byRecord) out.cards.push_back(std::move(card));
  }
  settleCards(out);
  return out;
}

std::optional<MeCard> meCard(const std::string& home) {
  std::optional<std::string> name;
  std::set<std::string> handles;
  for (const std::string& path : books(home)) {
    std::optional<TeskStore> store;
    try {
      store.emplace(path);
    } catch (const TeskStoreError&) {
      continue;
    }
    if (!store->tableExists("ZABCDRECORD") ||
        !store->columnExists("ZCONTAINERWHERECONTACTISME", "ZABCDRECORD")) {
      continue;
    }
    std::vector<int64_t> keys;
    try {
      store->query(
          "SELECT Z_PK, ZFIRSTNAME, ZLASTNAME, ZORGANIZATION, ZNICKNAME\n"
          "FROM ZABCDRECORD\n"
          "WHERE COALESCE(ZCONTAINERWHERECONTACTISME, 0) <> 0",
          [&](const TeskRowReader& r) {
            keys.push_back(r.integer(0));
            if (!name) name = display(r.textView(1), r.textView(2), r.textView(3), r.textView(4));
          });
    } catch (const TeskStoreError&) {
      // The keys read before the failure still count.
    }
    const bool phones = store->tableExists("ZABCDPHONENUMBER");
    const bool emails = store->tableExists("ZABCDEMAILADDRESS");
    auto collect = [&handles](const TeskRowReader& r) {
      if (auto h = r.textView(0)) {
        std::string c = TeskIdentity::canonical(*h);
        if (!c.empty()) handles.insert(std::move(c));
      }
    };
    for (int64_t key : keys) {
      try {
        if (phones)
          store->query("SELECT ZFULLNUMBER FROM ZABCDPHONENUMBER WHERE ZOWNER = ?", {key}, collect);
      } catch (const TeskStoreError&) {
      }
      try {
        if (emails)
          store->query("SELECT ZADDRESS FROM ZABCDEMAILADDRESS WHERE ZOWNER = ?", {key}, collect);
      } catch (const TeskStoreError&) {
      }
    }
  }
  if (handles.empty()) return std::nullopt;
  return MeCard{name.value_or(std::string()),
                std::vector<std::string>(handles.begin(), handles.end())};
}

std::optional<MeCard> selfCard(const std::string& home) {
  std::optional<MeCard> me = meCard(home);
  std::set<std::string> handles;
  if (me) handles.insert(me->handles.begin(), me->handles.end());
  // The account file is a few hundred bytes; anything far larger is not it.
  constexpr size_t kMaxAccountFile = 1 << 20;
  if (auto text = TeskFile::readRegular(home + "/.harbend/account.json", kMaxAccountFile)) {
    if (auto handle = accountHandle(*text)) handles.insert(std::move(*handle));
  }
  if (handles.empty()) return std::nullopt;
  return MeCard{me ? me->name : std::string(),
                std::vector<std::string>(handles.begin(), handles.end())};
}

}  // namespace TeskContacts
