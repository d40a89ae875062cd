// Lines an answer prints after its receipt, which can only be written once every line
// is counted: the part past what memory should hold waits in a private temporary file,
// unlinked as soon as it is made, so printing a million rows holds a few megabytes and
// leaves nothing behind however the run ends. Nothing is lost when the file cannot be
// made or filled: those lines stay in memory.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
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

// An answer's printed lines as they come: the first `heldBytes` of them into `lines`,
// every later one into a spool made on first need. Printed in order, `lines` then
// `rest()` give back every line added.
class TeskHeldLines {
 public:
  TeskHeldLines(std::vector<std::string>& lines, std::string tmpDir, size_t heldBytes)
      : lines_(lines), tmpDir_(std::move(tmpDir)), heldBytes_(heldBytes) {}

  void add(std::string line);
  std::shared_ptr<const TeskSpool> rest() const { return rest_; }

 private:
  std::vector<std::string>& lines_;
  std::string tmpDir_;
  size_t heldBytes_;
  size_t held_ = 0;
  std::shared_ptr<TeskSpool> rest_;
};
