// The line sink every part of a run writes through: buffered standard output in
// large writes, or memory for callers (tests) that want the text.
#pragma once

#include <string>
#include <string_view>

class TeskOut {
 public:
  enum class Sink { standardOutput, memory };
  static constexpr size_t flushThreshold = 65536;

  explicit TeskOut(Sink sink) : sink_(sink) {}
  TeskOut(const TeskOut&) = delete;  // one sink per run, shared by reference
  TeskOut& operator=(const TeskOut&) = delete;

  // Appends the text and "\n"; the standard-output sink flushes past 64 KiB. Bytes
  // that are not UTF-8 leave as U+FFFD: every line written is valid UTF-8.
  void line(std::string_view text);
  // Hands the buffer on (one write to fd 1, or into memory); a no-op when empty.
  void flush();
  // Everything written so far, flushed or not.
  std::string captured() const { return kept_ + buffer_; }

 private:
  std::string buffer_;
  std::string kept_;
  Sink sink_;
};
