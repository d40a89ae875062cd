#include "cli/TeskFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace TeskFile {

Descriptor::~Descriptor() {
  if (fd_ >= 0) ::close(fd_);
}

int openRegular(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return -1;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  // O_NONBLOCK: a pipe swapped in after the stat opens at once, and fstat sees it.
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    errno = EINVAL;
    return -1;
  }
  return fd;
}

bool readRegular(const std::string& path, std::string& buffer, size_t maxBytes) {
  buffer.clear();
  Descriptor fd(openRegular(path));
  if (fd.get() < 0) return false;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) return false;
  // The size only sizes the first allocation; the read itself decides the length.
  buffer.reserve(std::min(static_cast<size_t>(std::max<off_t>(st.st_size, 0)), maxBytes));
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t got = ::read(fd.get(), chunk, sizeof chunk);
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (got == 0) return true;
    if (buffer.size() + static_cast<size_t>(got) > maxBytes) return false;
    buffer.append(chunk, static_cast<size_t>(got));
  }
}

std::optional<std::string> readRegular(const std::string& path, size_t maxBytes) {
  std::string text;
  if (!readRegular(path, text, maxBytes)) return std::nullopt;
  return text;
}

}  // namespace TeskFile
