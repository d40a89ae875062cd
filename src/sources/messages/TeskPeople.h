// People, not handles: a --who value read as a contact's name. The value is matched
// against the roster's cards once per run, and the handles of the cards it names are
// what the producers test each row against, beside the handle match itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sources/messages/TeskContacts.h"

namespace TeskPeople {

// True when every word of `value` begins a word of `name`, ignoring case and
// diacritics: "jordan", "lee jordan" and "JORDAN" name "Jordan Lee", "elo" names
// "Élodie", "lee" does not name "Ashlee". Words are split at blanks and hyphens. A
// value without a letter, or with an "@", is a handle and names no one.
bool nameMatches(std::string_view value, std::string_view name);

// What a value resolved to.
struct Resolution {
  // The named cards that hold a handle of their own, in roster order; each keeps only
  // the handles it holds (a handle on two cards belongs to the first).
  std::vector<TeskContacts::Card> cards;
  std::vector<std::string> handles;  // every handle of those cards, canonical, sorted
  int64_t shared = 0;                // of the named cards' handles, those on another card too
};

Resolution resolve(const TeskContacts::Roster& roster, std::string_view value);

// The receipt's account of a resolution, e.g. "--who Jordan Lee: 1 card, 2 handles
// (+4155550123, jordan.lee@example.com)"; several cards are listed by key so the
// agent can narrow; then the shared-handle note when a named card shares one.
// Nothing when the value named no card.
std::vector<std::string> notes(const Resolution& r, std::string_view label, std::string_view value);

// "N handle(s) on two or more cards, each counted for the first card in address-book order".
std::string sharedNote(int64_t shared);

}  // namespace TeskPeople
