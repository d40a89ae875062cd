#include "sources/messages/TeskPeople.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <set>

#include "cli/TeskText.h"

namespace TeskPeople {

namespace {

// The words of a folded text: runs between blanks and hyphens.
std::vector<std::u16string> words(const std::u16string& folded) {
  std::vector<std::u16string> out;
  std::u16string word;
  for (char16_t c : folded) {
    if (u_isUWhiteSpace(c) || u_hasBinaryProperty(c, UCHAR_DASH)) {
      if (!word.empty()) out.push_back(std::move(word));
      word.clear();
    } else {
      word += c;
    }
  }
  if (!word.empty()) out.push_back(std::move(word));
  return out;
}

bool readsAsName(std::string_view value) {
  if (value.find('@') != std::string_view::npos) return false;
  const std::u16string folded = TeskText::foldWhole(value);
  return std::any_of(folded.begin(), folded.end(), [](char16_t c) { return u_isalpha(c); });
}

// A value folded and split once, tested against many names.
class NameQuery {
 public:
  explicit NameQuery(std::string_view value) {
    if (readsAsName(value)) words_ = words(TeskText::foldWhole(value));
  }
  bool empty() const { return words_.empty(); }
  bool in(std::string_view name) const {
    if (words_.empty()) return false;
    const std::vector<std::u16string> nameWords = words(TeskText::foldWhole(name));
    return std::all_of(words_.begin(), words_.end(), [&nameWords](const std::u16string& w) {
      return std::any_of(nameWords.begin(), nameWords.end(),
                         [&w](const std::u16string& n) { return n.starts_with(w); });
    });
  }

 private:
  std::vector<std::u16string> words_;
};

std::string joined(const std::vector<std::string>& items, std::string_view sep) {
  std::string s;
  for (const std::string& item : items) {
    if (!s.empty()) s += sep;
    s += item;
  }
  return s;
}

std::string counted(size_t n, std::string_view one) {
  return std::to_string(n) + " " + std::string(one) + (n == 1 ? "" : "s");
}

}  // namespace

std::string sharedNote(int64_t shared) {
  return counted(static_cast<size_t>(shared), "handle") +
         " on two or more cards, each counted for the first card in address-book order";
}

bool nameMatches(std::string_view value, std::string_view name) {
  return NameQuery(value).in(name);
}

Resolution resolve(const TeskContacts::Roster& roster, std::string_view value) {
  Resolution out;
  const NameQuery query(value);
  if (query.empty()) return out;
  std::set<std::string> handles;
  std::set<std::string> shared;
  for (size_t i = 0; i < roster.cards.size(); ++i) {
    const TeskContacts::Card& card = roster.cards[i];
    if (card.name.empty() || !query.in(card.name)) continue;
    TeskContacts::Card own{card.name, {}, card.key};
    for (const std::string& h : card.handles) {
      if (roster.holder.at(h) == i) {
        own.handles.push_back(h);
      } else {
        shared.insert(h);
      }
    }
    if (own.handles.empty()) continue;
    handles.insert(own.handles.begin(), own.handles.end());
    out.cards.push_back(std::move(own));
  }
  // A named card's own handle that a later card also holds is shared too.
  for (size_t i = 0; i < roster.cards.size(); ++i) {
    for (const std::string& h : roster.cards[i].handles) {
      if (roster.holder.at(h) != i && handles.count(h)) shared.insert(h);
    }
  }
  out.handles.assign(handles.begin(), handles.end());
  out.shared = static_cast<int64_t>(shared.size());
  return out;
}

std::vector<std::string> notes(const Resolution& r, std::string_view label,
                               std::string_view value) {
  if (r.cards.empty()) return {};
  std::string s = std::string(label) + " " + std::string(TeskText::trim(value)) + ": " +
                  counted(r.cards.size(), "card") + ", " + counted(r.handles.size(), "handle");
  if (r.cards.size() == 1) {
    s += " (" + joined(r.cards.front().handles, ", ") + ")";
  } else {
    // Enough to narrow by; a value that names half the address book says how many more.
    constexpr size_t kListed = 10;
    s += " — ";
    for (size_t i = 0; i < r.cards.size() && i < kListed; ++i) {
      if (i) s += "; ";
      s += r.cards[i].key + " (" + joined(r.cards[i].handles, ", ") + ")";
    }
    if (r.cards.size() > kListed)
      s += "; and " + std::to_string(r.cards.size() - kListed) + " more";
    s += " — a fuller name narrows it";
  }
  std::vector<std::string> out{std::move(s)};
  if (r.shared > 0) out.push_back(sharedNote(r.shared));
  return out;
}

}  // namespace TeskPeople
