// The file-level steps of opening a store, none of which can block: what kind of
// file sits at a path, whether a rollback journal is hot, and the private copy of a
// store file. A named pipe in place of a store or one of its companions must give a
// denial, not a reader waiting for ever for a writer that never comes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace TeskStoreFiles {

enum class Kind { missing, regular, directory, namedPipe, socket, device, other };

// What is at `path` (a symbolic link is followed), learned without blocking: a
// named pipe is opened non-blocking or not at all, a device is never opened.
Kind kindOf(const std::string& path);

// "a directory", "a named pipe", "a socket", "a device", "not a file" (for
// `other`), "" for `regular` and `missing`.
std::string_view describe(Kind kind);

// True when `journal` is a rollback journal SQLite would roll back: it exists and
// its header is not zeroed (a committed PERSIST journal is). One that cannot be
// read counts as hot: the safe way round is a copy.
bool hotJournal(const std::string& journal);

// Copies the regular file `from` to a new file `to` (mode 0600). The kind is checked
// on the opened descriptor, so what is checked is what is copied. The reason it
// failed, or nothing on success.
std::optional<std::string> copyPrivately(const std::string& from, const std::string& to);

}  // namespace TeskStoreFiles
