#include "sources/messages/TeskContacts.h"

#include <unicode/utf16.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "cli/TeskText.h"
#include "sources/messages/TeskIdentity.h"
#include "store/TeskStore.h"

namespace TeskContacts {

namespace {

// A strict JSON reader for one small file: validates the whole text and keeps the
// top-level string members. Nesting is bounded so hostile input cannot exhaust
// the stack.
class JSONObjectReader {
 public:
  explicit JSONObjectReader(std::string_view text) : s_(text) {}

  // True when the text is exactly one JSON object; `strings` then holds its
  // top-level members whose value is a string (a later duplicate wins).
  bool read(std::unordered_map<std::string, std::string>& strings) {
    if (s_.starts_with("\xEF\xBB\xBF")) i_ = 3;
    blanks();
    if (!object(0, &strings)) return false;
    blanks();
    return i_ == s_.size();
  }

 private:
  static constexpr int kMaxDepth = 64;

  bool more() const { return i_ < s_.size(); }
  char peek() const { return s_[i_]; }
  void blanks() {
    while (more() && (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r')) ++i_;
  }
  bool take(char c) {
    if (!more() || peek() != c) return false;
    ++i_;
    return true;
  }
  bool word(std::string_view w) {
    if (s_.substr(i_, w.size()) != w) return false;
    i_ += w.size();
    return true;
  }

  // Members of an object; with `top` set, string members are collected.
  bool object(int depth, std::unordered_map<std::string, std::string>* top) {
    if (depth > kMaxDepth || !take('{')) return false;
    blanks();
    if (take('}')) return true;
    for (;;) {
      std::string key;
      blanks();
      if (!string(&key)) return false;
      blanks();
      if (!take(':')) return false;
      blanks();
      if (top && more() && peek() == '"') {
        std::string v;
        if (!string(&v)) return false;
        (*top)[key] = std::move(v);
      } else {
        if (top) top->erase(key);
        if (!value(depth + 1)) return false;
      }
      blanks();
      if (take('}')) return true;
      if (!take(',')) return false;
    }
  }

  bool array(int depth) {
    if (depth > kMaxDepth || !take('[')) return false;
    blanks();
    if (take(']')) return true;
    for (;;) {
      blanks();
      if (!value(depth + 1)) return false;
      blanks();
      if (take(']')) return true;
      if (!take(',')) return false;
    }
  }

  bool value(int depth) {
    if (!more()) return false;
    switch (peek()) {
      case '{':
        return object(depth, nullptr);
      case '[':
        return array(depth);
      case '"':
        return string(nullptr);
      case 't':
        return word("true");
      case 'f':
        return word("false");
      case 'n':
        return word("null");
      default:
        return number();
    }
  }

  bool digits() {
    size_t start = i_;
    while (more() && peek() >= '0' && peek() <= '9') ++i_;
    return i_ > start;
  }

  bool number() {
    take('-');
    if (take('0')) {
    } else if (!digits()) {
      return false;
    }
    if (take('.') && !digits()) return false;
    if (more() && (peek() == 'e' || peek() == 'E')) {
      ++i_;
      if (!take('+')) take('-');
      if (!digits()) return false;
    }
    return true;
  }

  bool hex4(uint32_t& out) {
    if (s_.size() - i_ < 4) return false;
    out = 0;
    for (int k = 0; k < 4; ++k) {
      char c = s_[i_++];
      out <<= 4;
      if (c >= '0' && c <= '9')
        out |= static_cast<uint32_t>(c - '0');
      else if (c >= 'a' && c <= 'f')
        out |= static_cast<uint32_t>(c - 'a' + 10);
      else if (c >= 'A' && c <= 'F')
        out |= static_cast<uint32_t>(c - 'A' + 10);
      else
        return false;
    }
    return true;
  }

  static void append(std::string* out, uint32_t cp) {
    if (!out) return;
    char buf[4];
    int32_t n = 0;
    UBool error = false;
    U8_APPEND(reinterpret_cast<uint8_t*>(buf), n, 4, cp, error);
    if (!error) out->append(buf, static_cast<size_t>(n));
  }

  // A string literal, decoded into `out` when given. Rejects raw control
  // characters, bad escapes, lone surrogates and invalid UTF-8.
  bool string(std::string* out) {
    if (!take('"')) return false;
    const auto* p = reinterpret_cast<const uint8_t*>(s_.data());
    const auto n = static_cast<int32_t>(s_.size());
    for (;;) {
      if (!more()) return false;
      char c = peek();
      if (c == '"') {
        ++i_;
        return true;
      }
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c != '\\') {
        auto k = static_cast<int32_t>(i_);
        UChar32 cp;
        U8_NEXT(p, k, n, cp);
        if (cp < 0) return false;
        if (out) out->append(s_.substr(i_, static_cast<size_t>(k) - i_));
        i_ = static_cast<size_t>(k);
        continue;
      }
      ++i_;
      if (!more()) return false;
      char e = s_[i_++];
      switch (e) {
        case '"':
          append(out, '"');
          break;
        case '\\':
          append(out, '\\');
          break;
        case '/':
          append(out, '/');
          break;
        case 'b':
          append(out, '\b');
          break;
        case 'f':
          append(out, '\f');
          break;
        case 'n':
          append(out, '\n');
          break;
        case 'r':
          append(out, '\r');
          break;
        case 't':
          append(out, '\t');
          break;
        case 'u': {
          uint32_t u;
          if (!hex4(u)) return false;
          if (U16_IS_LEAD(u)) {
            uint32_t t;
            if (!word("\\u") || !hex4(t) || !U16_IS_TRAIL(t)) return false;
            u = U16_GET_SUPPLEMENTARY(u, t);
          } else if (U16_IS_TRAIL(u)) {
            return false;
          }
          append(out, u);
          break;
        }
        default:
          return false;
      }
    }
  }

  std::string_view s_;
  size_t i_ = 0;
};

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
  std::unordered_map<std::string, std::string> members;
  if (!JSONObjectReader(json).read(members)) return std::nullopt;
  auto token = members.find("token");
  auto email = members.find("email");
  if (token == members.end() || token->second.empty()) return std::nullopt;
  if (email == members.end() || email->second.find('@') == std::string::npos) return std::nullopt;
  std::string handle = TeskIdentity::canonical(email->second);
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

Roster roster(const std::string& home) { return sqliteRoster(home); }

Roster sqliteRoster(const std::string& home) {
  static const std::string handlesSQL =
      "SELECT r.ZFIRSTNAME, r.ZLASTNAME, r.ZORGANIZATION, r.ZNICKNAME, p.ZFULLNUMBER\n"
      "FROM ZABCDPHONENUMBER p JOIN ZABCDRECORD r ON r.Z_PK = p.ZOWNER\n"
      "UNION ALL\n"
      "SELECT r.ZFIRSTNAME, r.ZLASTNAME, r.ZORGANIZATION, r.ZNICKNAME, e.ZADDRESS\n"
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
    try {
      store->query(handlesSQL, [&out](const TeskRowReader& r) {
        std::optional<std::string_view> handle = r.textView(4);
        std::string key = handle ? TeskIdentity::canonical(*handle) : std::string();
        if (key.empty()) return;
        ++out.handles;
        std::optional<std::string> name =
            display(r.textView(0), r.textView(1), r.textView(2), r.textView(3));
        if (!name) {
          ++out.unnamed;
          return;
        }
        out.byHandle.try_emplace(std::move(key), std::move(*name));
      });
    } catch (const TeskStoreError&) {
      // A book whose handle tables moved keeps the counts it reached.
    }
  }
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
  std::ifstream in(home + "/.harbend/account.json", std::ios::binary);
  std::string text;
  bool whole = false;
  char chunk[4096];
  while (in && text.size() <= kMaxAccountFile) {
    in.read(chunk, sizeof chunk);
    text.append(chunk, static_cast<size_t>(in.gcount()));
    whole = in.eof();
  }
  if (whole && text.size() <= kMaxAccountFile) {
    if (auto handle = accountHandle(text)) handles.insert(std::move(*handle));
  }
  if (handles.empty()) return std::nullopt;
  return MeCard{me ? me->name : std::string(),
                std::vector<std::string>(handles.begin(), handles.end())};
}

}  // namespace TeskContacts
