#include "cli/TeskOut.h"

#include <unistd.h>

#include <cerrno>

#include "cli/TeskText.h"

void TeskOut::line(std::string_view text) {
  // The last guard: whatever a writer put together (a store's bytes, an argument),
  // every line leaves as UTF-8. The check is one read of the line; the copy happens
  // only when it fails.
  if (TeskText::isValidUTF8(text)) {
    buffer_.append(text);
  } else {
    buffer_.append(TeskText::repairUTF8(text));
  }
  buffer_.push_back('\n');
  if (sink_ == Sink::standardOutput && buffer_.size() > flushThreshold) flush();
}

void TeskOut::flush() {
  if (buffer_.empty()) return;
  if (sink_ == Sink::memory) {
    kept_ += buffer_;
  } else {
    const char* p = buffer_.data();
    size_t left = buffer_.size();
    while (left > 0) {
      ssize_t n = ::write(STDOUT_FILENO, p, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;  // a closed pipe: the missing second receipt tells the reader
      p += n;
      left -= static_cast<size_t>(n);
    }
  }
  buffer_.clear();
}
