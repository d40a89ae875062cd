#include "health/TeskShippedDoorBoard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "common/TeskTestHome.h"
#include "health/TeskPermission.h"

namespace {

namespace fs = std::filesystem;
using TeskPermission::Door;

const std::string kMarker = "DOOR \xE2\x94\x82 ";

std::string fullBoard() {
  return kMarker + "accessibility granted\n" + kMarker + "screen-recording missing\n" + kMarker +
         "full-disk-access granted\n" + kMarker + "automation.messages missing\n" + kMarker +
         "automation.mail missing\n" + kMarker + "calendar.write granted\n" + kMarker +
         "microphone missing\n";
}

std::map<Door, bool> fullBoardGrants() {
  return {{Door::accessibility, true},   {Door::screenRecording, false},
          {Door::fullDisk, true},        {Door::automationMessages, false},
          {Door::automationMail, false}, {Door::calendarWrite, true},
          {Door::microphone, false}};
}

TEST(TeskShippedDoorBoard, AppURLFindsTheBundleOnlyFromHelpers) {
  tesk_test::TempHome dir;
  std::string helper = dir.write("Harbend.app/Contents/Helpers/tesk", "");
  std::string macos = dir.write("Harbend.app/Contents/MacOS/tesk", "");
  std::string notApp = dir.write("Harbend.bundle/Contents/Helpers/tesk", "");
  std::string otherName = dir.write("Harbend.app/Contents/Helpers/tesk2", "");
  fs::create_directories(dir.path() + "/bin");
  fs::create_symlink(helper, dir.path() + "/bin/tesk");
  fs::create_symlink(macos, dir.path() + "/bin/tesk-macos");
  std::string app = fs::canonical(dir.path() + "/Harbend.app").string();

  struct Case {
    std::string path;
    std::optional<std::string> want;
  };
  const Case cases[] = {
      {helper, app},
      {dir.path() + "/bin/tesk", app},  // a link elsewhere resolves into the bundle
      {dir.path() + "/Harbend.app/Contents/Helpers/../Helpers/./tesk", app},
      {macos, std::nullopt},
      {dir.path() + "/bin/tesk-macos", std::nullopt},
      {notApp, std::nullopt},
      {otherName, std::nullopt},
      {"", std::nullopt},
      {"tesk", std::nullopt},
      {"/Applications/Missing.app/Contents/Helpers/tesk", "/Applications/Missing.app"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TeskShippedDoorBoard::appURL(c.path), c.want) << c.path;
  }
}

TEST(TeskShippedDoorBoard, CompleteBoardRendersTheMeasuredGrants) {
  std::string output = "harbend 1.4 starting\n" + fullBoard() + "bye\n";
  auto lines = TeskShippedDoorBoard::report(output);
  ASSERT_TRUE(lines.has_value());
  EXPECT_EQ(*lines, TeskPermission::report(fullBoardGrants()));
}

TEST(TeskShippedDoorBoard, BoardParserTable) {
  const std::string board = fullBoard();
  auto without = [&](std::string_view door) {
    std::istringstream in(board);
    std::string out, line;
    while (std::getline(in, line)) {
      if (line.find(door) == std::string::npos) out += line + "\n";
    }
    return out;
  };
  struct Case {
    std::string name;
    std::string output;
    bool complete;
  };
  const Case cases[] = {
      {"six doors", without("microphone"), false},
      {"denied is not a word of the board", without("microphone") + kMarker + "microphone denied\n",
       false},
      {"a none line spoils it", board + kMarker + "none granted\n", false},
      {"extra lines between",
       "x\n" + without("accessibility") + "noise DOOR\n" + kMarker + "\n" + kMarker +
           "accessibility\n" + kMarker + "accessibility\tgranted\textra\n",
       true},
      {"tabs and repeated blanks", without("microphone") + kMarker + "\t microphone \t  missing",
       true},
      {"marker after a prefix",
       without("microphone") + "[12:00] " + kMarker + "microphone granted\n", true},
      {"unknown door ignored", without("microphone") + kMarker + "camera granted\n", false},
      {"marker without the box line", without("microphone") + "DOOR | microphone granted\n", false},
      {"wrong case", without("microphone") + kMarker + "microphone Granted\n", false},
      {"empty", "", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TeskShippedDoorBoard::report(c.output).has_value(), c.complete) << c.name;
  }
}

TEST(TeskShippedDoorBoard, LaterLineForADoorWins) {
  auto lines = TeskShippedDoorBoard::report(fullBoard() + kMarker + "microphone granted\n");
  ASSERT_TRUE(lines.has_value());
  auto grants = fullBoardGrants();
  grants[Door::microphone] = true;
  EXPECT_EQ(*lines, TeskPermission::report(grants));
}

// A stand-in for /usr/bin/open: a shell script whose body is `body`; it sees the same
// argument list ($5 is the .out path, $7 the .err path).
std::string fakeOpener(const tesk_test::TempHome& dir, const std::string& body) {
  std::string path = dir.write("open", "#!/bin/sh\n" + body + "\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

std::vector<std::string> leftovers(const std::string& tmp) {
  std::vector<std::string> out;
  for (const auto& e : fs::directory_iterator(tmp)) {
    std::string name = e.path().filename().string();
    if (name.starts_with("harbend-tesk-doors-")) out.push_back(name);
  }
  return out;
}

TEST(TeskShippedDoorBoard, LaunchPassesTheArgumentsAndReadsTheBoard) {
  tesk_test::TempHome dir, tmp;
  std::string args = dir.path() + "/args";
  std::string opener =
      fakeOpener(dir, "for a in \"$@\"; do printf '%s\\n' \"$a\" >> '" + args + "'; done\n" +
                          "printf 'DOOR \\342\\224\\202 accessibility granted\\n' > \"$5\"\n" +
                          "echo stray output\necho noise > \"$7\"\nexit 0");
  TeskShippedDoorBoard::LaunchOptions options{opener, 5, 0.01, tmp.path()};
  auto out = TeskShippedDoorBoard::launch("/Applications/Harbend.app", options);
  ASSERT_TRUE(out.has_value());
  EXPECT_EQ(*out, kMarker + "accessibility granted\n");
  EXPECT_THAT(leftovers(tmp.path()), ::testing::IsEmpty());

  auto argLines = [&] {
    std::ifstream in(args);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  };
  const std::vector<std::string> seen = argLines();
  ASSERT_EQ(seen.size(), 10u);
  std::vector<std::string> fixed = seen;
  fixed[4] = fixed[6] = "<file>";
  EXPECT_EQ(fixed,
            (std::vector<std::string>{"-n", "-W", "-j", "--stdout", "<file>", "--stderr", "<file>",
                                      "--env", "HARBEND_QA_DOORS=1", "/Applications/Harbend.app"}));
  EXPECT_TRUE(seen[4].starts_with(tmp.path() + "/harbend-tesk-doors-")) << seen[4];
  EXPECT_TRUE(seen[4].ends_with(".out"));
  EXPECT_EQ(seen[6].substr(0, seen[6].size() - 4), seen[4].substr(0, seen[4].size() - 4));
  EXPECT_TRUE(seen[6].ends_with(".err"));
  // A fresh name each launch.
  ASSERT_TRUE(TeskShippedDoorBoard::launch("/Applications/Harbend.app", options));
  const std::vector<std::string> all = argLines();
  ASSERT_EQ(all.size(), 20u);
  EXPECT_NE(all[14], seen[4]);
}

TEST(TeskShippedDoorBoard, LaunchFailuresYieldNothingAndLeaveNoFiles) {
  tesk_test::TempHome dir, tmp;
  struct Case {
    std::string name;
    std::string body;
  };
  const Case cases[] = {
      {"non-zero exit", "echo board > \"$5\"; exit 3"},
      {"no output file", "exit 0"},
      {"not UTF-8", "printf '\\377\\376 DOOR' > \"$5\"; exit 0"},
      {"killed by a signal", "echo board > \"$5\"; kill -9 $$"},
  };
  for (const Case& c : cases) {
    std::string opener = fakeOpener(dir, c.body);
    TeskShippedDoorBoard::LaunchOptions options{opener, 5, 0.01, tmp.path()};
    EXPECT_EQ(TeskShippedDoorBoard::launch("/x.app", options), std::nullopt) << c.name;
    EXPECT_THAT(leftovers(tmp.path()), ::testing::IsEmpty()) << c.name;
  }
  TeskShippedDoorBoard::LaunchOptions missing{dir.path() + "/no-such-open", 5, 0.01, tmp.path()};
  EXPECT_EQ(TeskShippedDoorBoard::launch("/x.app", missing), std::nullopt);
  EXPECT_THAT(leftovers(tmp.path()), ::testing::IsEmpty());
}

TEST(TeskShippedDoorBoard, HungAppIsTerminatedAtTheBound) {
  tesk_test::TempHome dir, tmp;
  struct Case {
    std::string name;
    std::string body;
  };
  const Case cases[] = {
      {"hangs", "echo partial > \"$5\"\nexec sleep 30"},
      {"ignores terminate", "echo partial > \"$5\"\ntrap '' TERM\nexec sleep 30"},
  };
  for (const Case& c : cases) {
    std::string opener = fakeOpener(dir, c.body);
    TeskShippedDoorBoard::LaunchOptions options{opener, 0.3, 0.05, tmp.path()};
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(TeskShippedDoorBoard::launch("/x.app", options), std::nullopt) << c.name;
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    EXPECT_GE(took, 0.3) << c.name;
    EXPECT_LT(took, 5.0) << c.name;
    EXPECT_THAT(leftovers(tmp.path()), ::testing::IsEmpty()) << c.name;
  }
}

}  // namespace
