// The Google-to-Apple account link that fills the mail, calendar and contacts mirrors.
// When the provider refuses the credential the mirrors silently stop moving, so this
// reads the operating system's own account database (Accounts4) and the calendar
// store's own error table to say, without inferring, whether the link exists, is
// broken, or feeds only some mirrors, and what repairs it. Nothing here throws.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

class TeskStore;

namespace TeskGrant {

// The account state the doctor needs for its cause.
struct Status {
  std::string provider;
  bool active = false;
  bool authenticated = false;
  std::optional<std::string> lastError;

  // "the grant is not authenticated" (when active and not authenticated) and the last
  // error, joined with "; "; "ok" when neither applies.
  std::string summary() const;
};

// A mirror an account can feed, in this order.
enum class Mirror { mail, calendars, contacts };

inline constexpr Mirror allMirrors[] = {Mirror::mail, Mirror::calendars, Mirror::contacts};

// "Mail", "Calendars" or "Contacts".
std::string_view rawValue(Mirror mirror);
// "com.apple.Dataclass." followed by the raw value.
std::string dataclass(Mirror mirror);
// What switching the mirror on gives the owner.
std::string_view gives(Mirror mirror);
// The doctor's key for the store the mirror fills: "mail", "cal" or "contacts".
std::string_view doctorKey(Mirror mirror);

// Everything known about one provider's account.
struct Link {
  enum class Verdict { absent, broken, partial, complete };

  static constexpr std::string_view settingsAnchor =
      "x-apple.systempreferences:com.apple.Internet-Accounts-Settings.extension";

  std::optional<std::string> identifier;
  std::string provider;
  std::optional<std::string> username;
  bool active = false;
  bool authenticated = false;
  std::set<Mirror> enabled;
  std::optional<std::string> lastError;
  std::optional<double> lastRejection;  // unix seconds

  // absent when not active; broken when unauthenticated or carrying an error;
  // complete when every mirror is on, else partial.
  Verdict verdict() const;
  // The mirrors, in order, that are not switched on.
  std::vector<Mirror> missing() const;
  // What to do about the verdict; nothing when complete.
  std::optional<std::string> repair() const;
};

// "absent", "broken", "partial" or "complete".
std::string_view rawValue(Link::Verdict verdict);

// The account's flags and last error, or nothing when the account database cannot be
// read or holds no top-level account for `provider` ("Google" also matches "Gmail").
std::optional<Status> status(const std::string& provider, const std::string& home);

// The account link; one holding only `provider` when there is no such account.
Link link(const std::string& provider, const std::string& home);

// The `link` verb's lines for the provider "Google", with the doctor's rows at `now`.
std::vector<std::string> linkReport(const std::string& home, double now);

// The mirrors switched on for the account whose primary key is `account`, read through
// the generated join table between accounts and data classes. Errors yield the empty
// set.
std::set<Mirror> enabledMirrors(int64_t account, TeskStore& store);

// The newest error the calendar store recorded for `provider`'s store, as an error
// chain; nothing when there is no such store, table, row or readable error.
std::optional<std::string> calendarStoreError(const std::string& home, const std::string& provider);

// The chain of a keyed-archived error ("domain code → domain code"), or nothing.
std::optional<std::string> errorChain(std::span<const uint8_t> bytes);

}  // namespace TeskGrant
