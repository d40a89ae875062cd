// Files tesk itself writes (snapshot copies of a store, spill files) hold the owner's
// messages: they are created readable by this user only, in directories nobody else
// can list, and never through a link someone else planted.
#pragma once

#include <optional>
#include <string>

namespace TeskPrivate {

// <tmpdir>/tesk-<uid>, this user's own directory for spill files, created 0700. An
// existing one is used only when it is a real directory (not a symbolic link) owned
// by this user; one whose mode lets others in is narrowed to 0700 first. Nothing when
// it cannot be made private (then nothing is written there).
std::optional<std::string> userDirectory(const std::string& tmpdir);

// Creates the directory `path` with mode 0700 (its parents as they come); false when
// it exists already or cannot be made.
bool createDirectory(const std::string& path);

// Creates `path` for writing with mode 0600; fails when anything exists there, a
// symbolic link included. The descriptor, or -1.
int createFile(const std::string& path);

}  // namespace TeskPrivate
