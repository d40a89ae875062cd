// Lines an answer prints after its receipt, which can only be written once every line
// is counted: the part past what memory should hold waits in a private temporary file,
// unlinked as soon as it is made, so printing a million rows holds a few megabytes and
// leaves nothing behind however the run ends. Nothing is lost when the file cannot be
// made or filled: those lines stay in memory.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

class TeskSpool {
 public:
  // `tmpDir` is the user's temporary directory; the file goes to its tesk-<uid>/.
  explicit TeskSpool(const std::string& tmpDir);
  TeskSpool(const TeskSpool&) = delete;
  TeskSpool& operator=(const TeskSpool&) = delete;
  ~TeskSpool();

  void add(std::string_view line);
  // Every line, in the order added; false when the file could not be read back whole.
  bool each(const std::function<void(std::string_view)>& visit) const;
  // True while the lines go to the file.
  bool onDisk() const { return fd_ >= 0 && !failed_; }

 private:
  void flush();

  int fd_ = -1;
  bool failed_ = false;
  int64_t written_ = 0;            // bytes in the file, whole lines only
  std::string chunk_;              // lines on their way to the file
  std::vector<std::string> held_;  // lines after the file's (all of them without one)
};
