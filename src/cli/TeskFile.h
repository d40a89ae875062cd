// Reading files the owner's home holds without ever blocking: a named pipe, socket or
// device put where a file is expected must give "unreadable", not a reader waiting
// for ever for a writer that never comes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace TeskFile {

// A file descriptor, closed when it goes.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Opens `path` for reading when it is a regular file (a symbolic link is followed);
// -1 with errno set otherwise. A device is never opened (opening one can have
// effects), and the kind is checked again on the descriptor, so a file swapped for
// a pipe in between is refused too.
int openRegular(const std::string& path);

// The whole regular file at `path` into `buffer`, at most `maxBytes` of it; false
// when it cannot be opened or read, is no regular file, or is larger than that.
bool readRegular(const std::string& path, std::string& buffer, size_t maxBytes);

// The same, returned; nothing on any failure.
std::optional<std::string> readRegular(const std::string& path, size_t maxBytes);

}  // namespace TeskFile
