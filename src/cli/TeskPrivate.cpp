#include "cli/TeskPrivate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

namespace TeskPrivate {

std::optional<std::string> userDirectory(const std::string& tmpdir) {
  std::string dir = tmpdir.empty() ? std::string("/tmp") : tmpdir;
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  dir += "/tesk-" + std::to_string(static_cast<unsigned long>(::getuid()));
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(dir).parent_path(), ignored);
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return std::nullopt;
  // Checked on the opened directory, so what is checked is what is used.
  const int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st;
  bool mine = ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode) && st.st_uid == ::getuid();
  if (mine && (st.st_mode & 077) != 0) mine = ::fchmod(fd, 0700) == 0;
  ::close(fd);
  if (!mine) return std::nullopt;
  return dir;
}

bool createDirectory(const std::string& path) {
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
  // mkdir's mode is narrowed by the umask only, never widened: 0700 or less.
  return ::mkdir(path.c_str(), 0700) == 0;
}

int createFile(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
}

}  // namespace TeskPrivate
