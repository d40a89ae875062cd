// Finding a message's body file from its ROWID and mailbox without searching,
// and reading it whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "cli/TeskFile.h"
#include "sources/mail/TeskMail.h"

namespace TeskMail {
namespace {

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

std::string relativeDirectory(int64_t id) {
  if (id < 1000) return "Messages";
  std::string digits = std::to_string(id / 1000);
  std::string out;
  out.reserve(digits.size() * 2 + 8);
  for (auto it = digits.rbegin(); it != digits.rend(); ++it) {
    out.push_back(*it);
    out.push_back('/');
  }
  out.append("Messages");
  return out;
}

std::array<std::string, 2> bodyPaths(std::string_view dataRoot, int64_t id) {
  std::string dir(dataRoot);
  dir.push_back('/');
  dir.append(relativeDirectory(id));
  dir.push_back('/');
  const std::string number = std::to_string(id);
  return {dir + number + ".emlx", dir + number + ".partial.emlx"};
}

std::optional<std::string> dataRoot(const Mailbox& box, std::string_view versionRoot) {
  std::string base(versionRoot);
  base.push_back('/');
  base.append(box.account);
  std::string_view name = box.name;
  while (!name.empty()) {
    const size_t slash = name.find('/');
    const std::string_view piece = name.substr(0, slash);
    if (!piece.empty()) {
      base.push_back('/');
      base.append(piece);
      base.append(".mbox");
    }
    if (slash == std::string_view::npos) break;
    name.remove_prefix(slash + 1);
  }
  std::error_code ec;
  std::filesystem::directory_iterator it(base, ec);
  if (ec) return std::nullopt;
  std::vector<std::string> entries;
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) return std::nullopt;
    entries.push_back(it->path().filename().string());
  }
  std::sort(entries.begin(), entries.end());
  for (const std::string& entry : entries) {
    std::string candidate = base + "/" + entry + "/Data";
    if (isDirectory(candidate)) return candidate;
  }
  return std::nullopt;
}

Body load(int64_t id, std::string_view root, Census& census) {
  // Reused across calls: bodies are read one after another.
  thread_local std::string buffer;
  for (const std::string& path : bodyPaths(root, id)) {
    if (!exists(path)) continue;
    if (!TeskFile::readRegular(path, buffer, SIZE_MAX) || buffer.empty()) {
      census.record(Tier::unreadable);
      return Body{std::nullopt, Tier::unreadable};
    }
    Body body = decode(buffer, census);
    census.record(body.tier);
    if (buffer.capacity() > (8u << 20)) std::string().swap(buffer);  // do not pin a huge file
    return body;
  }
  census.record(Tier::notOnDisk);
  return Body{std::nullopt, Tier::notOnDisk};
}

}  // namespace TeskMail
