// The address books as a roster (canonical handle -> display name, so rows and the
// who census can name people) and as the owner's own card (the handles that are
// "me"), read from every address-book store on the Mac. The top-level book is
// nearly empty and the per-account books under Sources/ hold the records, so all
// are read and summed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace TeskContacts {

// One address-book record with at least one handle: the person behind those handles.
struct Card {
  std::string name;                  // display name; empty when the record has none
  std::vector<std::string> handles;  // canonical, phones before e-mails, no duplicates
  // How rows name this person: the display name; a card without one is keyed by its
  // first handle, and cards that share a name add their first handle in parentheses.
  std::string key;
};

struct Roster {
  // Canonical handle -> display name; the first named record met wins (books in
  // order, rows in statement order).
  std::unordered_map<std::string, std::string> byHandle;
  // Every card with a handle, in roster order: books in order, records by key.
  std::vector<Card> cards;
  // Canonical handle -> index into cards of the first card that holds it.
  std::unordered_map<std::string, size_t> holder;
  int64_t sharedHandles = 0;       // handles held by more than one card (each counted once)
  std::vector<std::string> books;  // paths of the books that were read
  int64_t records = 0;             // records over the read books
  int64_t handles = 0;             // phone and e-mail rows with a non-empty canonical form
  int64_t unnamed = 0;             // of those, rows whose record has no display name
  // "<file name>: <store error>" or "<file name>: not an address book".
  std::vector<std::string> denied;
  std::string source = "none";  // which reader answered

  // The display name of `handle` after canonicalisation, if any record names it.
  std::optional<std::string> name(std::string_view handle) const;
  // The card a canonical handle belongs to (the first that holds it), if any.
  const Card* cardOf(const std::string& canonicalHandle) const;
};

// The owner's own card.
struct MeCard {
  std::string name;                  // empty when no Me record has a display name
  std::vector<std::string> handles;  // canonical, ascending, no duplicates
  bool operator==(const MeCard&) const = default;
};

// The address-book stores: the top-level book first (when it exists), then the
// per-account books under Sources/ in name order. No directory walk beyond that.
std::vector<std::string> books(const std::string& home);

// The roster the rest of the program uses (today the SQLite reader).
Roster roster(const std::string& home);

// Every book read through SQLite; `source` = "addressbook-sqlite". Never throws.
Roster sqliteRoster(const std::string& home);

// The handles of the records the books mark as the owner; nothing when none has
// a handle.
std::optional<MeCard> meCard(const std::string& home);

// The Me card plus the e-mail of the companion application's signed-in account
// (~/.harbend/account.json with a non-empty "token"); nothing when neither
// yields a handle.
std::optional<MeCard> selfCard(const std::string& home);

// The name a record is shown by: "first last" (trimmed, blanks skipped), else the
// organization, else the nickname; nothing when all are blank or absent.
std::optional<std::string> display(std::optional<std::string_view> first,
                                   std::optional<std::string_view> last,
                                   std::optional<std::string_view> organization,
                                   std::optional<std::string_view> nickname);

// The canonical e-mail that an account file proves, when the text is a JSON object
// whose "token" is a non-empty string and whose "email" is a string with "@".
// Nothing for any other shape, including malformed JSON.
std::optional<std::string> accountHandle(std::string_view json);

}  // namespace TeskContacts
