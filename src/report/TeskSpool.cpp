#include "report/TeskSpool.h"

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "cli/TeskPrivate.h"

namespace {

constexpr size_t kChunk = 1 << 16;

// Calls `visit` with each line of `text`, every one ended by a line feed.
void eachLine(std::string_view text, const std::function<void(std::string_view)>& visit) {
  for (size_t end; (end = text.find('\n')) != std::string_view::npos;) {
    visit(text.substr(0, end));
    text.remove_prefix(end + 1);
  }
}

}  // namespace

TeskSpool::TeskSpool(const std::string& tmpDir) {
  const std::optional<std::string> dir = TeskPrivate::userDirectory(tmpDir);
  if (!dir) return;
  std::string name = *dir + "/answer-XXXXXX";
  fd_ = ::mkstemp(name.data());  // mode 0600, created exclusively
  if (fd_ >= 0) ::unlink(name.c_str());
}

TeskSpool::~TeskSpool() {
  if (fd_ >= 0) ::close(fd_);
}

void TeskSpool::add(std::string_view line) {
  if (!onDisk()) {
    held_.emplace_back(line);
    return;
  }
  chunk_ += line;
  chunk_ += '\n';
  if (chunk_.size() >= kChunk) flush();
}

// Writes the chunk. On an error the file counts up to its last whole line (it may end
// inside one) and the rest goes back to memory, where every later line stays too.
void TeskSpool::flush() {
  size_t done = 0;
  while (done < chunk_.size()) {
    const ssize_t n = ::write(fd_, chunk_.data() + done, chunk_.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done < chunk_.size()) {
    failed_ = true;
    const size_t lastEnd = done == 0 ? std::string::npos : chunk_.rfind('\n', done - 1);
    done = lastEnd == std::string::npos ? 0 : lastEnd + 1;
    eachLine(std::string_view(chunk_).substr(done),
             [this](std::string_view l) { held_.emplace_back(l); });
  }
  written_ += static_cast<int64_t>(done);
  chunk_.clear();
}

bool TeskSpool::each(const std::function<void(std::string_view)>& visit) const {
  std::string carry;
  char buffer[kChunk];
  bool whole = true;
  for (int64_t offset = 0; offset < written_;) {
    const auto want = static_cast<size_t>(std::min<int64_t>(kChunk, written_ - offset));
    const ssize_t n = ::pread(fd_, buffer, want, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      whole = false;
      break;
    }
    offset += n;
    std::string_view got(buffer, static_cast<size_t>(n));
    const size_t lastEnd = got.rfind('\n');
    if (lastEnd == std::string_view::npos) {
      carry.append(got);
      continue;
    }
    carry.append(got.substr(0, lastEnd + 1));
    eachLine(carry, visit);
    carry.assign(got.substr(lastEnd + 1));
  }
  eachLine(chunk_, visit);  // not flushed yet (empty after a failed write)
  for (const std::string& line : held_) visit(line);
  return whole && carry.empty();
}

void TeskHeldLines::add(std::string line) {
  if (!rest_ && held_ + line.size() <= heldBytes_) {
    held_ += line.size() + 1;
    lines_.push_back(std::move(line));
    return;
  }
  if (!rest_) rest_ = std::make_shared<TeskSpool>(tmpDir_);
  rest_->add(line);
}
