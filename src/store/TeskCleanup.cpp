#include "store/TeskCleanup.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <set>

namespace {

// Longest path kept; longer ones are not remembered (their owner still removes them).
constexpr size_t kPathBytes = 4096;
constexpr const char* kSuffixes[] = {"-wal", "-shm", "-journal", ""};

// One remembered snapshot. `live` is written last on remember and first on forget,
// so a handler never reads a half-written slot.
struct Slot {
  volatile sig_atomic_t live;
  char directory[kPathBytes];
  char copy[kPathBytes];
};

Slot slots[TeskCleanup::kSlots];
bool handlersInstalled = false;
constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

bool copyPath(char (&to)[kPathBytes], std::string_view from) {
  if (from.empty() || from.size() >= kPathBytes || from.find('\0') != std::string_view::npos) {
    return false;
  }
  std::memcpy(to, from.data(), from.size());
  to[from.size()] = '\0';
  return true;
}

// Async-signal-safe: unlinks the copy and its siblings, then the directory.
void removeSlot(Slot& slot) {
  char path[kPathBytes + 16];
  size_t base = 0;
  while (base < kPathBytes && slot.copy[base] != '\0') ++base;
  for (const char* suffix : kSuffixes) {
    size_t n = 0;
    while (suffix[n] != '\0') ++n;
    for (size_t k = 0; k < base; ++k) path[k] = slot.copy[k];
    for (size_t k = 0; k < n; ++k) path[base + k] = suffix[k];
    path[base + n] = '\0';
    ::unlink(path);
  }
  ::rmdir(slot.directory);
}

extern "C" void onSignal(int signal) {
  const int saved = errno;
  TeskCleanup::removeAll();
  // Die of the same signal, so the parent sees what happened.
  struct sigaction fallback;
  std::memset(&fallback, 0, sizeof fallback);
  fallback.sa_handler = SIG_DFL;
  sigemptyset(&fallback.sa_mask);
  ::sigaction(signal, &fallback, nullptr);
  errno = saved;
  ::raise(signal);
}

void installHandlers() {
  if (handlersInstalled) return;
  handlersInstalled = true;
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  // A second signal while the first is cleaning up waits for it.
  for (int s : kSignals) sigaddset(&action.sa_mask, s);
  for (int s : kSignals) {
    struct sigaction old;
    if (::sigaction(s, nullptr, &old) != 0) continue;
    const bool isDefault = (old.sa_flags & SA_SIGINFO) == 0 && old.sa_handler == SIG_DFL;
    if (isDefault) ::sigaction(s, &action, nullptr);
  }
}

}  // namespace

namespace TeskCleanup {

bool remember(std::string_view directory, std::string_view copy) noexcept {
  installHandlers();
  for (Slot& slot : slots) {
    if (slot.live) continue;
    if (!copyPath(slot.directory, directory) || !copyPath(slot.copy, copy)) return false;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    slot.live = 1;
    return true;
  }
  return false;
}

void forget(std::string_view directory) noexcept {
  for (Slot& slot : slots) {
    if (slot.live && directory == slot.directory) {
      slot.live = 0;
      std::atomic_signal_fence(std::memory_order_seq_cst);
      return;
    }
  }
}

int remembered() noexcept {
  int n = 0;
  for (const Slot& slot : slots) n += slot.live ? 1 : 0;
  return n;
}

void removeAll() noexcept {
  for (Slot& slot : slots) {
    if (!slot.live) continue;
    removeSlot(slot);
    slot.live = 0;
  }
}

namespace {

// The process id in "tesk-snapshot-<pid>-<n>", or 0 when the name is not of that form.
pid_t snapshotOwner(const std::string& name) {
  static constexpr std::string_view prefix = "tesk-snapshot-";
  if (name.rfind(prefix, 0) != 0) return 0;
  size_t at = prefix.size();
  long long pid = 0;
  size_t digits = 0;
  while (at < name.size() && name[at] >= '0' && name[at] <= '9' && digits < 10) {
    pid = pid * 10 + (name[at++] - '0');
    ++digits;
  }
  if (digits == 0 || at >= name.size() || name[at] != '-' || at + 1 == name.size()) return 0;
  for (size_t k = at + 1; k < name.size(); ++k) {
    if (name[k] < '0' || name[k] > '9') return 0;
  }
  return static_cast<pid_t>(pid);
}

}  // namespace

int sweepOrphans(const std::string& temporaryDirectory) noexcept {
  namespace fs = std::filesystem;
  try {
    static std::set<std::string> swept;
    if (!swept.insert(temporaryDirectory).second) return 0;
    int removed = 0;
    std::error_code ec;
    for (fs::directory_iterator it(temporaryDirectory, ec), end; !ec && it != end;
         it.increment(ec)) {
      const std::string name = it->path().filename().string();
      const pid_t pid = snapshotOwner(name);
      if (pid <= 0 || pid == ::getpid()) continue;
      struct stat st;
      if (::lstat(it->path().c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
          st.st_uid != ::getuid()) {
        continue;
      }
      // Still running (or someone else's process by that number): not ours to take.
      if (::kill(pid, 0) == 0 || errno != ESRCH) continue;
      std::error_code gone;
      fs::remove_all(it->path(), gone);
      if (!gone) ++removed;
    }
    return removed;
  } catch (...) {
    return 0;
  }
}

}  // namespace TeskCleanup
