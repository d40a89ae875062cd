// The process's live snapshot directories, removed even when the run is cut short.
//
// A snapshot copy of a store is private but can be large and holds the owner's
// data; an interrupted run (Ctrl-C, a host killing a slow call) must not leave it
// in the temporary directory. The table is fixed and static so the signal handler
// allocates nothing and calls only async-signal-safe functions (unlink, rmdir,
// sigaction, raise).
#pragma once

#include <string>
#include <string_view>

namespace TeskCleanup {

// How many snapshot directories can be remembered at once; a run holds a few.
inline constexpr int kSlots = 16;

// Remembers `directory` and the copy's base path `copy` (the store file inside it;
// its -wal, -shm and -journal siblings are removed too). On first use, installs
// handlers for SIGINT, SIGTERM and SIGHUP whose disposition is still the default;
// a signal ignored by the parent stays ignored. Returns false when the table is
// full or a path does not fit: the directory is then still removed by its owner
// normally, only an interruption could leave it behind.
bool remember(std::string_view directory, std::string_view copy) noexcept;

// Forgets `directory` (the owner is about to remove it). Unknown paths are ignored.
void forget(std::string_view directory) noexcept;

// Number of directories remembered now.
int remembered() noexcept;

// What the handler does, callable outside a handler (tests): removes every
// remembered copy and directory and empties the table.
void removeAll() noexcept;

// Removes the snapshot directories under `temporaryDirectory` that a run killed
// beyond any handler's reach (SIGKILL) left behind: only "tesk-snapshot-<pid>-<n>"
// directories (never a symbolic link) owned by this user whose process is gone.
// Looked at once per directory per process. Returns how many were removed.
int sweepOrphans(const std::string& temporaryDirectory) noexcept;

}  // namespace TeskCleanup
