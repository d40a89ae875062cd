#include "health/TeskPermission.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>

namespace {

using TeskPermission::Capability;
using TeskPermission::Door;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

std::map<Door, bool> grantsOf(std::set<Door> open) {
  std::map<Door, bool> m;
  for (Door d : TeskPermission::allDoors) {
    if (d != Door::none) m[d] = open.count(d) != 0;
  }
  return m;
}

std::vector<std::string> linesStarting(const std::vector<std::string>& lines,
                                       std::string_view prefix) {
  std::vector<std::string> out;
  for (const auto& l : lines) {
    if (l.starts_with(prefix)) out.push_back(l);
  }
  return out;
}

TEST(TeskPermission, CanonicalOrderIsStableOverAnyInput) {
  std::vector<Door> reversed(TeskPermission::allDoors.rbegin(), TeskPermission::allDoors.rend());
  EXPECT_THAT(TeskPermission::order(reversed),
              ElementsAre(Door::accessibility, Door::screenRecording, Door::fullDisk,
                          Door::automationMessages, Door::automationMail, Door::calendarWrite,
                          Door::microphone, Door::none));
  EXPECT_THAT(TeskPermission::order({Door::microphone, Door::fullDisk, Door::microphone}),
              ElementsAre(Door::fullDisk, Door::microphone, Door::microphone));
}

TEST(TeskPermission, ServingAvailableBlockedByGrants) {
  struct Case {
    std::set<Door> open;
    size_t available;
    size_t blocked;
  };
  const Case cases[] = {
      {{}, 1, 11},
      {{Door::fullDisk}, 5, 7},
      {{Door::accessibility, Door::screenRecording}, 4, 8},
      {{Door::automationMessages, Door::automationMail, Door::calendarWrite, Door::microphone,
        Door::accessibility, Door::screenRecording, Door::fullDisk},
       12,
       0},
  };
  for (const Case& c : cases) {
    auto grants = TeskPermission::fromMap(grantsOf(c.open));
    auto avail = TeskPermission::available(grants);
    auto closed = TeskPermission::blocked(grants);
    EXPECT_EQ(avail.size(), c.available);
    EXPECT_EQ(closed.size(), c.blocked);
    EXPECT_NE(std::find(avail.begin(), avail.end(), Capability::readBrowserHistory), avail.end());
    for (const auto& [cap, door] : closed) {
      EXPECT_NE(cap, Capability::readBrowserHistory);
      EXPECT_EQ(door, TeskPermission::door(cap));
      EXPECT_EQ(TeskPermission::serving(cap, grants).blockedBy, door);
    }
  }
  auto onlyDisk = TeskPermission::fromMap(grantsOf({Door::fullDisk}));
  EXPECT_TRUE(TeskPermission::serving(Capability::searchMail, onlyDisk).properly());
  EXPECT_THAT(
      TeskPermission::available(onlyDisk),
      ElementsAre(Capability::searchMessages, Capability::searchMail, Capability::readCalendar,
                  Capability::findPerson, Capability::readBrowserHistory));
}

TEST(TeskPermission, ReportWithEveryDoorClosed) {
  auto lines = TeskPermission::report(grantsOf({}));
  ASSERT_GE(lines.size(), 9u);
  EXPECT_EQ(lines[0], "door\tgranted\tallows");
  EXPECT_EQ(lines[3].substr(0, 20), "full-disk-access\tno\t");
  EXPECT_EQ(lines[8], "");
  EXPECT_EQ(lines[9], "# not available, and the grant that would change it:");
  auto blockedLines = linesStarting(lines, "#   ");
  auto needs = std::count_if(blockedLines.begin(), blockedLines.end(), [](const auto& l) {
    return l.find(" — needs ") != std::string::npos;
  });
  EXPECT_EQ(needs, 11);
  EXPECT_EQ(lines[10], "#   search your message history — needs full disk access");
  EXPECT_THAT(lines, Not(::testing::Contains(HasSubstr("browser history — needs"))));
  EXPECT_THAT(lines, ::testing::Contains("# ask: what mirel needs — incomplete"));
}

TEST(TeskPermission, NoBlockedBlockWhenEverythingIsOpen) {
  auto lines = TeskPermission::report(
      grantsOf({Door::automationMessages, Door::automationMail, Door::calendarWrite,
                Door::microphone, Door::accessibility, Door::screenRecording, Door::fullDisk}));
  EXPECT_THAT(lines, Not(::testing::Contains(HasSubstr("# not available"))));
  EXPECT_EQ(lines[8], "");
  EXPECT_EQ(lines[9], "# ask: what mirel needs — complete");
}

// Each door's line says granted, where to grant it, or which press asks; the restart
// warning stays on the full-disk line granted or not.
TEST(TeskPermission, AskReportStatusPerDoor) {
  auto statusCells = [](const std::vector<std::string>& lines) {
    std::vector<std::string> out;
    for (const std::string& l : linesStarting(lines, "#     ")) {
      out.push_back(l.substr(6, l.find('\t', l.find('\t') + 1) - 6));
      if (l.ends_with("(restarts the app — asked last)")) out.back() += " (restarts)";
    }
    return out;
  };
  auto lines = TeskPermission::askReport(
      TeskPermission::fromMap(grantsOf({Door::accessibility, Door::calendarWrite})));
  EXPECT_EQ(lines[1], "# ask: what mirel needs — incomplete");
  EXPECT_THAT(statusCells(lines),
              ElementsAre("accessibility\tgranted", "screen recording\tSYSTEM SETTINGS",
                          "full disk access\tSYSTEM SETTINGS (restarts)",
                          "messages\tasks on send it", "mail\tasks on send it", "calendar\tgranted",
                          "microphone\tasks on the live glyph"));
  auto granted = TeskPermission::askReport(TeskPermission::fromMap(grantsOf({Door::fullDisk})));
  EXPECT_EQ(statusCells(granted)[2], "full disk access\tgranted (restarts)");
}

TEST(TeskPermission, AskListsSetupAndPressDoors) {
  auto a = TeskPermission::ask(TeskPermission::fromMap(grantsOf({Door::screenRecording})));
  EXPECT_THAT(a.rows, ElementsAre(Door::accessibility, Door::screenRecording, Door::fullDisk));
  EXPECT_THAT(a.inContext, ElementsAre(Door::automationMessages, Door::automationMail,
                                       Door::calendarWrite, Door::microphone));
  EXPECT_THAT(a.outstanding, ElementsAre(Door::accessibility, Door::fullDisk));
  EXPECT_FALSE(a.isComplete());
  EXPECT_EQ(a.capabilities.size(), 11u);
  auto done = TeskPermission::ask(TeskPermission::fromMap(
      grantsOf({Door::accessibility, Door::screenRecording, Door::fullDisk})));
  EXPECT_TRUE(done.isComplete());
}

// Full disk access is read from a probe file on macOS only: the same readable file on
// another platform opens no door, and that board says the platform keeps no grants.
TEST(TeskPermission, OnlyAPlatformThatKeepsGrantsOpensDoors) {
  const std::string readable = ::testing::TempDir() + "/tesk-permission-probe";
  { std::ofstream(readable) << "x"; }
  const std::string missing = readable + "-missing";
  const std::string note =
      "# this platform keeps no such grants: the doors are macOS privacy permissions, so";
  struct Case {
    TeskPermission::Platform platform;
    bool fullDisk;
  };
  const Case cases[] = {
      {{true, readable}, true},
      {{true, missing}, false},
      {{false, readable}, false},
      {{false, missing}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.platform.keepsGrants ? "macOS, " : "other, ") +
                 c.platform.fullDiskProbe);
    EXPECT_TRUE(TeskPermission::isGrantedOn(c.platform, Door::none));
    EXPECT_EQ(TeskPermission::isGrantedOn(c.platform, Door::fullDisk), c.fullDisk);
    auto lines = TeskPermission::report(c.platform);
    EXPECT_EQ(lines[3].substr(0, 20),
              std::string("full-disk-access\t") + (c.fullDisk ? "yes" : "no\t"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), note), c.platform.keepsGrants ? 0 : 1);
  }
  std::remove(readable.c_str());
#ifndef __APPLE__
  EXPECT_FALSE(TeskPermission::Platform::current().keepsGrants);
  for (Door d : TeskPermission::allDoors) {
    EXPECT_EQ(TeskPermission::isGranted(d), d == Door::none) << TeskPermission::rawValue(d);
  }
  EXPECT_THAT(TeskPermission::report(), ::testing::Contains(note));
#else
  EXPECT_TRUE(TeskPermission::Platform::current().keepsGrants);
#endif
}

}  // namespace
