// Grants belong to the signed application, not to whichever process runs tesk. When
// tesk ships inside the companion app (X.app/Contents/Helpers/tesk), the `doors` verb
// asks the app itself: it launches the app in its door-probe mode, reads the seven-door
// board it prints, and renders that. No complete board means no answer.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace TeskShippedDoorBoard {

// Returns the application bundle that holds the executable at `executablePath` as
// .../X.app/Contents/Helpers/tesk, after resolving symbolic links; nothing for an empty
// path or any other layout (the MacOS folder does not count).
std::optional<std::string> appURL(std::string_view executablePath);

// How the app is launched; production uses the defaults, tests inject a fake opener,
// a short bound and their own temporary directory.
struct LaunchOptions {
  std::string program = "/usr/bin/open";
  double timeoutSeconds = 25;
  double pollSeconds = 0.05;
  std::string tmpDir;  // empty: $TMPDIR, else /tmp
};

// Starts a new hidden instance of `app` in door-probe mode and returns what it printed
// on standard output; nothing when the launch fails, it runs past the bound (it is then
// terminated), it exits non-zero, or its output is unreadable or not UTF-8. The two
// temporary files it writes to are removed in every case.
std::optional<std::string> launch(const std::string& app, const LaunchOptions& options = {});

// The door report (TeskPermission::report over the printed grants) when `output` holds
// a line "DOOR │ <door> granted|missing" for exactly the seven doors other than none;
// nothing otherwise.
std::optional<std::vector<std::string>> report(std::string_view output);

}  // namespace TeskShippedDoorBoard
