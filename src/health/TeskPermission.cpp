#include "health/TeskPermission.h"

#include <unistd.h>

#include <algorithm>

namespace TeskPermission {
namespace {

// Readable only with Full Disk Access; owned by root and present on every Mac.
constexpr const char* kFullDiskProbe = "/Library/Preferences/com.apple.TimeMachine.plist";

constexpr std::string_view kAutomationAnchor =
    "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation";

struct DoorInfo {
  std::string_view raw;
  std::string_view title;
  std::string_view allows;
  std::string_view anchor;   // empty: none
  std::string_view askedBy;  // empty: none
  int rank;
};

const DoorInfo& info(Door door) {
  static const std::array<DoorInfo, 8> table = {{
      {"automation.messages", "messages", "lets mirel send a message from your messages app",
       kAutomationAnchor, "send it", 3},
      {"automation.mail", "mail", "lets mirel send mail from your mail app", kAutomationAnchor,
       "send it", 4},
      {"calendar.write", "calendar", "lets mirel add the calendar events you approve",
       "x-apple.systempreferences:com.apple.preference.security?Privacy_Calendars", "add it", 5},
      {"microphone", "microphone", "lets mirel hear you only while live is on",
       "x-apple.systempreferences:com.apple.preference.security?Privacy_Microphone",
       "the live glyph", 6},
      {"accessibility", "accessibility", "lets mirel click and type in your apps",
       "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility", "", 0},
      {"screen-recording", "screen recording", "lets mirel see what is on your screen",
       "x-apple.systempreferences:com.apple.preference.security?Privacy_ScreenCapture", "", 1},
      {"full-disk-access", "full disk access",
       "lets mirel read your messages, gmail and google calendar",
       "x-apple.systempreferences:com.apple.preference.security?Privacy_AllFiles", "", 2},
      {"none", "no permission", "macos does not gate this", "", "", 7},
  }};
  return table[static_cast<size_t>(door)];
}

struct CapabilityInfo {
  std::string_view raw;
  std::string_view summary;
  Door door;
};

const CapabilityInfo& info(Capability capability) {
  static const std::array<CapabilityInfo, 12> table = {{
      {"search-messages", "search your message history", Door::fullDisk},
      {"search-mail", "search your mail", Door::fullDisk},
      {"read-calendar", "read your calendar", Door::fullDisk},
      {"find-a-person", "find a person by name", Door::fullDisk},
      {"read-browser-history", "read your browser history", Door::none},
      {"arrange-windows", "arrange your windows", Door::accessibility},
      {"act-on-screen", "act on what is on your screen", Door::accessibility},
      {"see-the-screen", "see what is on your screen", Door::screenRecording},
      {"send-a-message", "send a message", Door::automationMessages},
      {"send-mail", "send mail", Door::automationMail},
      {"add-calendar-event", "add an event to your calendar", Door::calendarWrite},
      {"talk-live", "talk with mirel live", Door::microphone},
  }};
  return table[static_cast<size_t>(capability)];
}

bool open(Door d, const GrantFn& granted) { return d == Door::none || granted(d); }

}  // namespace

std::string_view rawValue(Door door) { return info(door).raw; }

std::optional<Door> doorFromRaw(std::string_view raw) {
  for (Door d : allDoors) {
    if (info(d).raw == raw) return d;
  }
  return std::nullopt;
}

std::string_view title(Door door) { return info(door).title; }
std::string_view allows(Door door) { return info(door).allows; }

std::optional<std::string_view> settingsAnchor(Door door) {
  if (info(door).anchor.empty()) return std::nullopt;
  return info(door).anchor;
}

bool asksWithASheet(Door door) {
  return door == Door::automationMessages || door == Door::automationMail ||
         door == Door::calendarWrite || door == Door::microphone;
}

bool askedAtSetup(Door door) {
  return door == Door::accessibility || door == Door::screenRecording || door == Door::fullDisk;
}

bool restartsTheApp(Door door) { return door == Door::fullDisk; }

std::optional<std::string_view> askedBy(Door door) {
  if (info(door).askedBy.empty()) return std::nullopt;
  return info(door).askedBy;
}

std::string_view rawValue(Capability capability) { return info(capability).raw; }
std::string_view summary(Capability capability) { return info(capability).summary; }
Door door(Capability capability) { return info(capability).door; }

Platform Platform::current() {
#ifdef __APPLE__
  return Platform{true, kFullDiskProbe};
#else
  return Platform{false, kFullDiskProbe};
#endif
}

bool isGranted(Door door) { return isGrantedOn(Platform::current(), door); }

bool isGrantedOn(const Platform& platform, Door door) {
  if (door == Door::none) return true;
  if (!platform.keepsGrants) return false;
  if (door == Door::fullDisk) return ::access(platform.fullDiskProbe.c_str(), R_OK) == 0;
  return systemGrant(door);
}

GrantFn fromMap(const std::map<Door, bool>& grants) {
  return [grants](Door d) {
    if (d == Door::none) return true;
    auto it = grants.find(d);
    return it != grants.end() && it->second;
  };
}

Served serving(Capability capability, const GrantFn& granted) {
  Door d = door(capability);
  if (open(d, granted)) return Served{};
  return Served{d};
}

std::vector<Capability> available(const GrantFn& granted) {
  std::vector<Capability> out;
  for (Capability c : allCapabilities) {
    if (open(door(c), granted)) out.push_back(c);
  }
  return out;
}

std::vector<std::pair<Capability, Door>> blocked(const GrantFn& granted) {
  std::vector<std::pair<Capability, Door>> out;
  for (Capability c : allCapabilities) {
    Door d = door(c);
    if (!open(d, granted)) out.emplace_back(c, d);
  }
  return out;
}

std::vector<Door> order(std::vector<Door> doors) {
  auto key = [](Door d) {
    return std::array<int, 3>{askedAtSetup(d) ? 0 : 1, restartsTheApp(d) ? 1 : 0, info(d).rank};
  };
  std::stable_sort(doors.begin(), doors.end(), [&](Door a, Door b) { return key(a) < key(b); });
  return doors;
}

std::vector<Status> board(const GrantFn& granted) {
  std::vector<Status> out;
  for (Door d : order({allDoors.begin(), allDoors.end()})) {
    if (d == Door::none) continue;
    out.push_back({d, granted(d)});
  }
  return out;
}

std::vector<Status> board(const std::map<Door, bool>& grants) { return board(fromMap(grants)); }

Ask ask(const GrantFn& granted) {
  Ask a;
  a.title = "what mirel needs";
  a.purpose =
      "mirel needs three permissions from macos at setup. four more are asked by the press "
      "that needs them, once each.";
  for (Door d : order({allDoors.begin(), allDoors.end()})) {
    if (askedAtSetup(d)) {
      a.rows.push_back(d);
      if (!granted(d)) a.outstanding.push_back(d);
    } else if (d != Door::none) {
      a.inContext.push_back(d);
    }
  }
  for (Capability c : allCapabilities) {
    if (door(c) != Door::none) a.capabilities.push_back(c);
  }
  return a;
}

std::vector<std::string> askReport(const GrantFn& granted) {
  Ask a = ask(granted);
  std::vector<std::string> lines;
  lines.emplace_back();
  lines.push_back("# ask: " + a.title + " — " + (a.isComplete() ? "complete" : "incomplete"));
  lines.push_back("#   " + a.purpose);
  lines.emplace_back("#   at setup:");
  for (Door d : a.rows) {
    std::string line = "#     ";
    line += title(d);
    line += '\t';
    line += granted(d) ? "granted" : "SYSTEM SETTINGS";
    line += '\t';
    line += allows(d);
    if (restartsTheApp(d)) line += "\t(restarts the app — asked last)";
    lines.push_back(std::move(line));
  }
  lines.emplace_back("#   at the press, once each:");
  for (Door d : a.inContext) {
    std::string line = "#     ";
    line += title(d);
    line += '\t';
    if (granted(d)) {
      line += "granted";
    } else {
      line += "asks on ";
      line += askedBy(d).value_or("the press");
    }
    line += '\t';
    line += allows(d);
    lines.push_back(std::move(line));
  }
  return lines;
}

std::vector<std::string> report(const GrantFn& granted) {
  std::vector<std::string> lines;
  lines.emplace_back("door\tgranted\tallows");
  for (const Status& s : board(granted)) {
    std::string line(rawValue(s.door));
    line += s.granted ? "\tyes\t" : "\tno\t";
    line += allows(s.door);
    lines.push_back(std::move(line));
  }
  auto closed = blocked(granted);
  if (!closed.empty()) {
    lines.emplace_back();
    lines.emplace_back("# not available, and the grant that would change it:");
    for (const auto& [c, d] : closed) {
      std::string line = "#   ";
      line += summary(c);
      line += " — needs ";
      line += title(d);
      lines.push_back(std::move(line));
    }
  }
  for (std::string& l : askReport(granted)) lines.push_back(std::move(l));
  lines.emplace_back();
  lines.emplace_back(
      "# ⚠ a granted door is not fresh data. the stores behind full disk access are");
  lines.emplace_back("#   only as current as the account that fills them — see `tesk link`.");
  return lines;
}

std::vector<std::string> report(const Platform& platform) {
  std::vector<std::string> lines = report([&platform](Door d) { return isGrantedOn(platform, d); });
  if (!platform.keepsGrants) {
    lines.emplace_back();
    lines.emplace_back(
        "# this platform keeps no such grants: the doors are macOS privacy permissions, so");
    lines.emplace_back("#   none can read as granted here.");
  }
  return lines;
}

std::vector<std::string> report() { return report(Platform::current()); }

std::vector<std::string> report(const std::map<Door, bool>& grants) {
  return report(fromMap(grants));
}

}  // namespace TeskPermission
