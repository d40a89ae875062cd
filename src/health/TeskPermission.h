// The privacy permissions ("doors") behind each capability of the assistant, which
// of them the operating system has opened for this process, and the `doors` report.
// Nothing is stored: every live call asks the operating system afresh, so a grant
// given while the process runs is seen by the next call.
#pragma once

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace TeskPermission {

// One macOS privacy permission, in declaration order.
enum class Door {
  automationMessages,
  automationMail,
  calendarWrite,
  microphone,
  accessibility,
  screenRecording,
  fullDisk,
  none,
};

// Every door, in declaration order.
inline constexpr std::array<Door, 8> allDoors = {
    Door::automationMessages, Door::automationMail,  Door::calendarWrite, Door::microphone,
    Door::accessibility,      Door::screenRecording, Door::fullDisk,      Door::none};

// One thing the assistant can do, in declaration order.
enum class Capability {
  searchMessages,
  searchMail,
  readCalendar,
  findPerson,
  readBrowserHistory,
  arrangeWindows,
  actOnScreen,
  seeScreen,
  sendMessage,
  sendMail,
  addCalendarEvent,
  talkLive,
};

// Every capability, in declaration order.
inline constexpr std::array<Capability, 12> allCapabilities = {
    Capability::searchMessages, Capability::searchMail,         Capability::readCalendar,
    Capability::findPerson,     Capability::readBrowserHistory, Capability::arrangeWindows,
    Capability::actOnScreen,    Capability::seeScreen,          Capability::sendMessage,
    Capability::sendMail,       Capability::addCalendarEvent,   Capability::talkLive};

// The printed name of a door ("full-disk-access").
std::string_view rawValue(Door door);
// The door whose raw value is exactly `raw`, or nothing.
std::optional<Door> doorFromRaw(std::string_view raw);
// The short human name ("full disk access").
std::string_view title(Door door);
// What the door lets the assistant do.
std::string_view allows(Door door);
// The System Settings deep link for the door; nothing for `none`.
std::optional<std::string_view> settingsAnchor(Door door);
// True for the four doors whose consent sheet appears when a press first acts.
bool asksWithASheet(Door door);
// True for accessibility, screen recording and full disk access.
bool askedAtSetup(Door door);
// True for full disk access only: granting it restarts the app.
bool restartsTheApp(Door door);
// The press that asks for the door ("send it"), or nothing for doors asked otherwise.
std::optional<std::string_view> askedBy(Door door);

// The printed name of a capability ("search-messages").
std::string_view rawValue(Capability capability);
// The one-line summary ("search your message history").
std::string_view summary(Capability capability);
// The door the capability needs.
Door door(Capability capability);

// Answers whether a door is open. The live answer is `isGranted`; a map measured by
// another process is wrapped with `fromMap`.
using GrantFn = std::function<bool(Door)>;

// Where live answers come from. Only macOS keeps privacy grants; anywhere else no
// door but `none` can be open, whatever files happen to exist (a readable copy of
// the full-disk probe file on another system proves nothing).
struct Platform {
  bool keepsGrants = false;
  // Readable only with full disk access, on a platform that keeps grants.
  std::string fullDiskProbe;
  // The platform this binary was built for.
  static Platform current();
};

// One live query of the operating system, never prompting. `none` is always granted.
// Full disk access is the readability of a file only that grant opens.
bool isGranted(Door door);
// The same as `platform` would answer it.
bool isGrantedOn(const Platform& platform, Door door);

// A grant function over a measured map: `none` is granted, a door missing from the map
// is not.
GrantFn fromMap(const std::map<Door, bool>& grants);

// A door and whether it is open.
struct Status {
  Door door = Door::none;
  bool granted = false;
  bool operator==(const Status&) const = default;
};

// How a capability is served: `properly`, or blocked by the door it needs.
struct Served {
  std::optional<Door> blockedBy;  // nothing means properly
  bool properly() const { return !blockedBy.has_value(); }
  bool operator==(const Served&) const = default;
};

// The setup plan: which doors are asked at setup, which later by their press.
struct Ask {
  std::string title;
  std::string purpose;
  std::vector<Door> rows;       // asked at setup, canonical order
  std::vector<Door> inContext;  // asked by the press that needs them, canonical order
  std::vector<Capability> capabilities;
  std::vector<Door> outstanding;  // the `rows` that were not granted when asked
  // True when no setup door is outstanding.
  bool isComplete() const { return outstanding.empty(); }
};

// `properly` when the capability's door is granted, else blocked by that door.
Served serving(Capability capability, const GrantFn& granted = isGranted);
// Capabilities, in declaration order, whose door is `none` or granted.
std::vector<Capability> available(const GrantFn& granted = isGranted);
// Capabilities, in declaration order, whose door is not `none` and not granted.
std::vector<std::pair<Capability, Door>> blocked(const GrantFn& granted = isGranted);
// The canonical order: setup doors first, then the app-restarting door after the
// others, then by rank (accessibility, screen recording, full disk access,
// automation.messages, automation.mail, calendar.write, microphone, none). Stable.
std::vector<Door> order(std::vector<Door> doors);
// Every door but `none`, in canonical order, with its grant.
std::vector<Status> board(const GrantFn& granted = isGranted);
// The same over a measured map.
std::vector<Status> board(const std::map<Door, bool>& grants);
// The setup plan, with the outstanding setup doors.
Ask ask(const GrantFn& granted = isGranted);
// The `doors` verb's lines: board, blocked capabilities, setup plan, warning.
std::vector<std::string> report(const GrantFn& granted);
// The live board of `platform`; on one that keeps no grants the board says so.
std::vector<std::string> report(const Platform& platform);
// The live board of this platform.
std::vector<std::string> report();
// The same over a measured map (a board another process printed).
std::vector<std::string> report(const std::map<Door, bool>& grants);
// The setup-plan block (starts with an empty line).
std::vector<std::string> askReport(const GrantFn& granted = isGranted);

// The operating system's own answer for the doors other than `none` and full disk
// access. Implemented per platform; off macOS it is always false.
bool systemGrant(Door door);

}  // namespace TeskPermission
