// Running the built tesk as a separate process: HOME, TMPDIR and TZ=UTC set, its
// standard output and exit status (or killing signal) collected.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

extern char** environ;

namespace tesk_test {

struct Answer {
  int exit = -1;     // exit status, or 128 + signal
  int signal = 0;    // the signal that ended the process, else 0
  std::string text;  // standard output
  std::vector<std::string> lines;
};

inline std::string teskBinary() { return std::string(TESK_BINARY_DIR) + "/tesk"; }

// A started process whose standard output is read through `out`.
struct Child {
  pid_t pid = -1;
  int out = -1;
};

// Starts `argv` with HOME, TMPDIR, TZ=UTC and a fixed PATH; stdout into a pipe.
inline Child start(std::vector<std::string> argv, const std::string& home,
                   const std::string& tmpdir) {
  std::vector<char*> cargv;
  for (std::string& a : argv) cargv.push_back(a.data());
  cargv.push_back(nullptr);
  std::vector<std::string> env{"HOME=" + home, "TMPDIR=" + tmpdir, "TZ=UTC", "PATH=/usr/bin:/bin"};
  std::vector<char*> cenv;
  for (std::string& e : env) cenv.push_back(e.data());
  cenv.push_back(nullptr);
  int fds[2];
  if (pipe(fds) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  posix_spawn_file_actions_addclose(&actions, fds[1]);
  Child c;
  int rc = posix_spawn(&c.pid, argv[0].c_str(), &actions, nullptr, cargv.data(), cenv.data());
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  if (rc != 0) {
    close(fds[0]);
    ADD_FAILURE() << "cannot start " << argv[0];
    return {};
  }
  c.out = fds[0];
  return c;
}

// Reads the child's output to its end and waits for it.
inline Answer finish(Child c) {
  Answer a;
  if (c.pid < 0) return a;
  std::array<char, 65536> buf;
  ssize_t n;
  while ((n = read(c.out, buf.data(), buf.size())) > 0) a.text.append(buf.data(), n);
  close(c.out);
  int status = 0;
  waitpid(c.pid, &status, 0);
  if (WIFSIGNALED(status)) {
    a.signal = WTERMSIG(status);
    a.exit = 128 + a.signal;
  } else {
    a.exit = WEXITSTATUS(status);
  }
  size_t from = 0;
  while (from < a.text.size()) {
    size_t end = a.text.find('\n', from);
    if (end == std::string::npos) end = a.text.size();
    a.lines.push_back(a.text.substr(from, end - from));
    from = end + 1;
  }
  return a;
}

// Like finish, but kills the child when it has not ended within `seconds` (its
// answer then has signal SIGKILL), so a run that blocks fails instead of hanging.
inline Answer finishWithin(Child c, int seconds) {
  if (c.pid < 0) return finish(c);
  int fds[2];
  if (pipe(fds) != 0) return finish(c);
  pid_t watchdog = fork();
  if (watchdog == 0) {
    close(fds[1]);
    pollfd p{fds[0], POLLIN, 0};
    // The pipe closes when the test stops waiting; until then, count down.
    if (poll(&p, 1, seconds * 1000) == 0) kill(c.pid, SIGKILL);
    _exit(0);
  }
  close(fds[0]);
  Answer a = finish(c);
  close(fds[1]);
  waitpid(watchdog, nullptr, 0);
  return a;
}

inline Answer teskWithin(int seconds, const std::vector<std::string>& args, const std::string& home,
                         const std::string& tmpdir) {
  std::vector<std::string> argv{teskBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return finishWithin(start(argv, home, tmpdir), seconds);
}

inline Answer tesk(const std::vector<std::string>& args, const std::string& home,
                   const std::string& tmpdir) {
  std::vector<std::string> argv{teskBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return finish(start(argv, home, tmpdir));
}

// The first and the last line are the same receipt.
inline bool framed(const Answer& a) {
  return a.lines.size() >= 2 && a.lines.front().rfind("#tesk {\"v\":1,", 0) == 0 &&
         a.lines.front() == a.lines.back();
}

inline bool has(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

}  // namespace tesk_test
