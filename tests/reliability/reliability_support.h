// A demo home written once per test binary, and the checks every reliability test
// shares; the process runner itself is common/TeskProcess.h.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/TeskProcess.h"
#include "common/TeskTestHome.h"

namespace reliability {

namespace fs = std::filesystem;

using tesk_test::Answer;
using tesk_test::Child;
using tesk_test::finish;
using tesk_test::finishWithin;
using tesk_test::framed;
using tesk_test::has;
using tesk_test::start;
using tesk_test::tesk;
using tesk_test::teskBinary;
using tesk_test::teskWithin;

// Names of tesk-snapshot-* entries directly under `dir`.
inline std::vector<std::string> snapshotsIn(const std::string& dir) {
  std::vector<std::string> found;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec)) {
    std::string name = e.path().filename().string();
    if (name.rfind("tesk-snapshot-", 0) == 0) found.push_back(name);
  }
  return found;
}

// A small demo home written once per test binary and removed at exit. Tests that
// change a store copy it first.
inline std::string demoHome() {
  struct Demo {
    tesk_test::TempHome dir;
    Demo() {
      std::error_code ec;
      fs::remove_all(dir.path(), ec);  // the generator wants a fresh directory
      Answer a = finish(start({std::string(TESK_BINARY_DIR) + "/tesk-demo-home", dir.path(),
                               "--scale", "small", "--zone", "UTC"},
                              "/nonexistent-home", fs::temp_directory_path().string()));
      EXPECT_EQ(a.exit, 0) << a.text;
    }
  };
  static Demo demo;
  return demo.dir.path();
}

// Copies the demo home into `to` (a fresh test home) so a test may damage it.
inline void copyDemoHome(const std::string& to) {
  fs::copy(demoHome(), to, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
}

}  // namespace reliability
