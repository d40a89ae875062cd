#include "health/TeskShippedDoorBoard.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "cli/TeskFile.h"
#include "health/TeskPermission.h"

extern char** environ;

namespace TeskShippedDoorBoard {
namespace {

namespace fs = std::filesystem;

// The board is a few hundred bytes; anything past this is not a board.
constexpr size_t kMaxOutputBytes = 1 << 20;
// How long a terminated app gets to exit before it is killed outright.
constexpr double kTerminateGraceSeconds = 1.0;

std::string uuidString() {
  std::random_device rd;
  std::mt19937_64 gen((static_cast<uint64_t>(rd()) << 32) ^ rd());
  uint64_t hi = gen(), lo = gen();
  hi = (hi & ~0xF000ULL) | 0x4000ULL;        // version 4
  lo = (lo & ~(3ULL << 62)) | (2ULL << 62);  // RFC 4122 variant
  char buf[37];
  std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(hi >> 32),
                static_cast<unsigned>((hi >> 16) & 0xFFFF), static_cast<unsigned>(hi & 0xFFFF),
                static_cast<unsigned>(lo >> 48),
                static_cast<unsigned long long>(lo & 0xFFFFFFFFFFFFULL));
  return buf;
}

std::string temporaryDirectory(const std::string& injected) {
  std::string dir = injected;
  if (dir.empty()) {
    const char* env = std::getenv("TMPDIR");
    dir = env != nullptr && *env != '\0' ? env : "/tmp";
  }
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

// Removes the files it names when the launch is left, whichever way.
class TempFiles {
 public:
  explicit TempFiles(std::vector<std::string> paths) : paths_(std::move(paths)) {}
  TempFiles(const TempFiles&) = delete;
  TempFiles& operator=(const TempFiles&) = delete;
  ~TempFiles() {
    for (const std::string& p : paths_) ::unlink(p.c_str());
  }

 private:
  std::vector<std::string> paths_;
};

struct SpawnActions {
  posix_spawn_file_actions_t actions;
  bool ready = false;
  SpawnActions() { ready = posix_spawn_file_actions_init(&actions) == 0; }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  ~SpawnActions() {
    if (ready) posix_spawn_file_actions_destroy(&actions);
  }
};

// Non-blocking check: the exit status once the child has ended, else nothing.
std::optional<int> reaped(pid_t pid) {
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(pid, &status, WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == pid) return status;
  if (r < 0) return -1;  // no such child any more: treat as a failed run
  return std::nullopt;
}

int waitBlocking(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

void sleepSeconds(double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); }

bool validUTF8(std::string_view s) {
  size_t i = 0, n = s.size();
  while (i < n) {
    auto c = static_cast<unsigned char>(s[i]);
    size_t len;
    uint32_t cp;
    if (c < 0x80) {
      ++i;
      continue;
    } else if ((c & 0xE0) == 0xC0) {
      len = 2, cp = c & 0x1F;
    } else if ((c & 0xF0) == 0xE0) {
      len = 3, cp = c & 0x0F;
    } else if ((c & 0xF8) == 0xF0) {
      len = 4, cp = c & 0x07;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (size_t k = 1; k < len; ++k) {
      auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static constexpr uint32_t kMin[5] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += len;
  }
  return true;
}

std::optional<std::string> readUTF8File(const std::string& path) {
  std::optional<std::string> text = TeskFile::readRegular(path, kMaxOutputBytes);
  if (!text || !validUTF8(*text)) return std::nullopt;
  return text;
}

}  // namespace

std::optional<std::string> appURL(std::string_view executablePath) {
  if (executablePath.empty()) return std::nullopt;
  std::string given(executablePath);
  fs::path resolved;
  if (std::unique_ptr<char, decltype(&std::free)> real(::realpath(given.c_str(), nullptr),
                                                       &std::free);
      real) {
    resolved = real.get();
  } else {
    // Nothing on disk to resolve: standardise the text alone.
    std::error_code ec;
    resolved = fs::absolute(given, ec);
    if (ec) resolved = given;
    resolved = resolved.lexically_normal();
  }
  fs::path helpers = resolved.parent_path();
  fs::path contents = helpers.parent_path();
  fs::path app = contents.parent_path();
  if (resolved.filename() != "tesk" || helpers.filename() != "Helpers" ||
      contents.filename() != "Contents" || app.extension() != ".app") {
    return std::nullopt;
  }
  return app.string();
}

std::optional<std::string> launch(const std::string& app, const LaunchOptions& options) {
  std::string base = temporaryDirectory(options.tmpDir) + "/harbend-tesk-doors-" + uuidString();
  std::string outPath = base + ".out";
  std::string errPath = base + ".err";
  TempFiles cleanup({outPath, errPath});

  std::vector<std::string> args = {
      options.program,      "-n", "-W", "-j", "--stdout", outPath, "--stderr", errPath, "--env",
      "HARBEND_QA_DOORS=1", app};
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  // The opener's own standard output would land inside tesk's answer; the app's output
  // goes to the files named above.
  SpawnActions actions;
  if (!actions.ready ||
      posix_spawn_file_actions_addopen(&actions.actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0) !=
          0 ||
      posix_spawn_file_actions_addopen(&actions.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) !=
          0) {
    return std::nullopt;
  }
  pid_t pid = 0;
  if (posix_spawn(&pid, options.program.c_str(), &actions.actions, nullptr, argv.data(), environ) !=
      0) {
    return std::nullopt;
  }

  using Clock = std::chrono::steady_clock;
  auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                     std::chrono::duration<double>(options.timeoutSeconds));
  std::optional<int> status = reaped(pid);
  while (!status) {
    if (Clock::now() >= deadline) {
      ::kill(pid, SIGTERM);
      auto grace = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(kTerminateGraceSeconds));
      while (!(status = reaped(pid)) && Clock::now() < grace) sleepSeconds(options.pollSeconds);
      if (!status) {
        // It ignored the request; do not hang the verb on it.
        ::kill(pid, SIGKILL);
        waitBlocking(pid);
      }
      return std::nullopt;
    }
    sleepSeconds(options.pollSeconds);
    status = reaped(pid);
  }
  if (*status < 0 || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0) return std::nullopt;
  return readUTF8File(outPath);
}

std::optional<std::vector<std::string>> report(std::string_view output) {
  static constexpr std::string_view kMarker = "DOOR \xE2\x94\x82 ";
  std::map<TeskPermission::Door, bool> grants;
  size_t start = 0;
  while (start <= output.size()) {
    size_t end = output.find('\n', start);
    if (end == std::string_view::npos) end = output.size();
    std::string_view line = output.substr(start, end - start);
    start = end + 1;

    size_t at = line.find(kMarker);
    if (at == std::string_view::npos) continue;
    std::string_view rest = line.substr(at + kMarker.size());
    std::vector<std::string_view> fields;
    size_t i = 0;
    while (i < rest.size() && fields.size() < 2) {
      while (i < rest.size() && (rest[i] == ' ' || rest[i] == '\t')) ++i;
      size_t j = i;
      while (j < rest.size() && rest[j] != ' ' && rest[j] != '\t') ++j;
      if (j > i) fields.push_back(rest.substr(i, j - i));
      i = j;
    }
    if (fields.size() < 2) continue;
    auto door = TeskPermission::doorFromRaw(fields[0]);
    if (!door) continue;
    if (fields[1] == "granted") {
      grants[*door] = true;
    } else if (fields[1] == "missing") {
      grants[*door] = false;
    }
  }
  // Exactly the seven real doors: a `none` line or a missing door is not a board.
  if (grants.size() != 7 || grants.count(TeskPermission::Door::none) != 0) return std::nullopt;
  return TeskPermission::report(grants);
}

}  // namespace TeskShippedDoorBoard
