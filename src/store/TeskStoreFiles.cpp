#include "store/TeskStoreFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/TeskFile.h"
#include "cli/TeskPrivate.h"

namespace TeskStoreFiles {
namespace {

using TeskFile::Descriptor;
using TeskFile::openRegular;

Kind kindOfMode(mode_t mode) {
  if (S_ISREG(mode)) return Kind::regular;
  if (S_ISDIR(mode)) return Kind::directory;
  if (S_ISFIFO(mode)) return Kind::namedPipe;
  if (S_ISSOCK(mode)) return Kind::socket;
  if (S_ISCHR(mode) || S_ISBLK(mode)) return Kind::device;
  return Kind::other;
}

}  // namespace

Kind kindOf(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return Kind::missing;
  return kindOfMode(st.st_mode);
}

std::string_view describe(Kind kind) {
  switch (kind) {
    case Kind::directory:
      return "a directory";
    case Kind::namedPipe:
      return "a named pipe";
    case Kind::socket:
      return "a socket";
    case Kind::device:
      return "a device";
    case Kind::other:
      return "not a file";
    case Kind::regular:
    case Kind::missing:
      break;
  }
  return "";
}

bool hotJournal(const std::string& journal) {
  struct stat st;
  if (::stat(journal.c_str(), &st) != 0) return false;
  Descriptor fd(openRegular(journal));
  if (fd.get() < 0) return true;
  unsigned char first = 0;
  ssize_t got;
  do {
    got = ::pread(fd.get(), &first, 1, 0);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return true;
  return got == 1 && first != 0;
}

std::optional<std::string> copyPrivately(const std::string& from, const std::string& to) {
  Descriptor in(openRegular(from));
  if (in.get() < 0) return std::string(std::strerror(errno));
  Descriptor out(TeskPrivate::createFile(to));
  if (out.get() < 0) return std::string(std::strerror(errno));
  char buffer[1 << 16];
  for (;;) {
    ssize_t got = ::read(in.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::string(std::strerror(errno));
    if (got == 0) break;
    for (ssize_t done = 0; done < got;) {
      ssize_t put = ::write(out.get(), buffer + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put < 0) return std::string(std::strerror(errno));
      done += put;
    }
  }
  return std::nullopt;
}

}  // namespace TeskStoreFiles
