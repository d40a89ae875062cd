// "No writes, no network", checked on the system calls themselves: every verb runs
// on a demo home under strace, and any write into the home, any file written
// outside the temporary directory, or any socket fails the test.
#include <fcntl.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "reliability/reliability_support.h"

namespace {

using namespace reliability;

std::string strace() {
  for (const char* p : {"/usr/bin/strace", "/bin/strace", "/usr/local/bin/strace"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return "";
}

// The first double-quoted argument at or after `from`, unescaped (strace escapes
// quotes, backslashes and non-printing bytes).
std::string quoted(const std::string& line, size_t from = 0) {
  size_t q = line.find('"', from);
  if (q == std::string::npos) return "";
  std::string out;
  for (size_t i = q + 1; i < line.size() && line[i] != '"'; ++i) {
    if (line[i] == '\\' && i + 1 < line.size()) {
      char e = line[++i];
      if (e == 'x' && i + 2 < line.size()) {
        out += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
        i += 2;
      } else {
        out += e == 'n' ? '\n' : e == 't' ? '\t' : e;
      }
    } else {
      out += line[i];
    }
  }
  return out;
}

// The path strace -y prints for the first argument, "5</a/b>" -> "/a/b".
std::string fdPath(const std::string& args) {
  size_t lt = args.find('<');
  if (lt == std::string::npos || lt > 12) return "";
  size_t gt = args.find(">,", lt);
  if (gt == std::string::npos) gt = args.find(">)", lt);
  if (gt == std::string::npos) return "";
  return args.substr(lt + 1, gt - lt - 1);
}

bool under(const std::string& path, const std::string& dir) {
  return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         path[dir.size()] == '/';
}

// Inside the temporary directory only spill files (tesk-<uid>/) and snapshot copies
// (tesk-snapshot-*) may be written.
bool ours(const std::string& path, const std::string& tmp) {
  if (!under(path, tmp)) return false;
  const std::string rest = path.substr(tmp.size() + 1);
  const std::string spill = "tesk-" + std::to_string(::getuid());
  return rest == spill || rest.rfind(spill + "/", 0) == 0 || rest.rfind("tesk-snapshot-", 0) == 0;
}

// SQLite's own reader protocol on a WAL store: every reader, read-only or not,
// opens the live -wal and -shm read-write when it may and keeps its read marks in
// the -shm (the first reader of an idle store also rebuilds that index). The -shm
// is a shared lock table, not the store; the database and -wal bytes are checked
// unchanged below.
bool coordination(const std::string& path) {
  return path.ends_with("-shm") || path.ends_with("-wal");
}

struct Verdict {
  std::vector<std::string> violations;
  int coordinationCalls = 0;  // -wal/-shm opened read-write or -shm written
  int spillWrites = 0;        // writes into the temporary directory
};

// Reads a strace -f -y trace and judges each call.
// `existing`: the files of the home before any run; a -wal or -shm that was not
// among them must never be created.
Verdict judge(const std::string& traceFile, const std::string& home, const std::string& tmp,
              const std::set<std::string>& existing = {}) {
  Verdict v;
  std::ifstream in(traceFile);
  std::map<std::string, std::string> pending;  // pid -> unfinished call text
  std::string raw;
  auto flag = [&](const std::string& why, const std::string& line) {
    v.violations.push_back(why + ": " + line.substr(0, 300));
  };
  while (std::getline(in, raw)) {
    std::istringstream fields(raw);
    std::string pid;
    fields >> pid;
    std::string line = raw.substr(std::min(raw.size(), pid.size()));
    line.erase(0, line.find_first_not_of(' '));
    if (auto u = line.find(" <unfinished ...>"); u != std::string::npos) {
      pending[pid] = line.substr(0, u);
      continue;
    }
    if (line.rfind("<... ", 0) == 0) {
      size_t r = line.find("resumed>");
      if (r == std::string::npos) continue;
      line = pending[pid] + line.substr(r + 8);
      pending.erase(pid);
    }
    size_t paren = line.find('(');
    if (paren == std::string::npos || line[0] == '+' || line[0] == '-') continue;
    const std::string call = line.substr(0, paren);
    const std::string args = line.substr(paren + 1);
    const bool failed = has(line, ") = -1 ");

    if (call == "socket" || call == "connect" || call == "bind" || call == "sendto" ||
        call == "sendmsg" || call == "listen" || call == "accept" || call == "socketpair") {
      flag("network call", line);
      continue;
    }
    if (call == "open" || call == "openat" || call == "openat2" || call == "creat") {
      std::string path = quoted(args);
      if (!path.empty() && path[0] != '/') path = fdPath(args) + "/" + path;
      const bool writes = call == "creat" || has(args, "O_WRONLY") || has(args, "O_RDWR") ||
                          has(args, "O_CREAT") || has(args, "O_TRUNC");
      if (!writes || failed) continue;
      if (under(path, home)) {
        if (coordination(path) && (existing.empty() || existing.count(path) > 0)) {
          ++v.coordinationCalls;
        } else {
          flag("store path opened for writing", line);
        }
      } else if (!ours(path, tmp) && path != "/dev/null" && path != "/dev/tty") {
        flag("file outside the temporary directory opened for writing", line);
      }
      continue;
    }
    if (call == "unlink" || call == "unlinkat" || call == "rename" || call == "renameat" ||
        call == "renameat2" || call == "mkdir" || call == "mkdirat" || call == "rmdir" ||
        call == "truncate" || call == "link" || call == "linkat" || call == "symlink" ||
        call == "symlinkat" || call == "chmod" || call == "fchmodat" || call == "chown" ||
        call == "utimensat" || call == "utimes") {
      std::string path = quoted(args);
      if (!path.empty() && path[0] != '/') path = fdPath(args) + "/" + path;
      // rename's second path counts too: nothing may land in the home.
      std::string second = quoted(args, args.find('"', args.find('"') + 1) + 1);
      for (const std::string& p : {path, second}) {
        if (p.empty() || p[0] != '/') continue;
        if (ours(p, tmp)) {
          ++v.spillWrites;
        } else {
          flag(call + " outside the temporary directory", line);
        }
      }
      continue;
    }
    if (call == "write" || call == "pwrite64" || call == "writev" || call == "pwritev" ||
        call == "pwritev2" || call == "ftruncate" || call == "fallocate" || call == "fchmod" ||
        call == "fchown" || call == "mmap") {
      if (call == "mmap" && !(has(args, "PROT_WRITE") && has(args, "MAP_SHARED"))) continue;
      // Standard output and error go wherever the caller pointed them (a sanitizer
      // runtime may write to stderr even under a file redirection).
      if (args.rfind("1<", 0) == 0 || args.rfind("2<", 0) == 0) continue;
      const std::string path =
          call == "mmap" ? fdPath(args.substr(args.find("MAP_SHARED") + 12)) : fdPath(args);
      if (path.empty() || path[0] != '/' || path == "/dev/null") continue;
      if (under(path, home)) {
        if (path.ends_with("-shm") || (call == "fchown" && coordination(path))) {
          ++v.coordinationCalls;
        } else {
          flag(call + " into the home", line);
        }
      } else if (ours(path, tmp)) {
        ++v.spillWrites;
      } else {
        flag(call + " outside the temporary directory", line);
      }
    }
  }
  return v;
}

// Every file in the home with its bytes, except the -shm lock tables.
std::map<std::string, std::string> contents(const std::string& home) {
  std::map<std::string, std::string> files;
  for (const auto& e : fs::recursive_directory_iterator(home)) {
    if (!e.is_regular_file() || e.path().string().ends_with("-shm")) continue;
    files[e.path().string()] = tesk_test::readFile(e.path().string());
  }
  return files;
}

std::set<std::string> names(const std::string& home) {
  std::set<std::string> all;
  for (const auto& e : fs::recursive_directory_iterator(home)) all.insert(e.path().string());
  return all;
}

TEST(NoWritesNoNetwork, EveryVerbUnderStrace) {
  const std::string tracer = strace();
  if (tracer.empty()) GTEST_SKIP() << "strace is not installed: the system-call check is skipped";
  if (finish(start({tracer, "-o", "/dev/null", "/bin/true"}, "/", "/tmp")).exit != 0) {
    GTEST_SKIP() << "strace cannot trace here (ptrace refused): the system-call check is skipped";
  }
  tesk_test::TempHome home;
  tesk_test::TempHome tmp;
  copyDemoHome(home.path());
  // The canonical paths strace prints (TMPDIR may be a symlink elsewhere).
  const std::string homeDir = fs::canonical(home.path()).string();
  const std::string tmpDir = fs::canonical(tmp.path()).string();
  const auto before = contents(homeDir);
  const auto namesBefore = names(homeDir);
  ASSERT_GT(before.size(), 10u);

  const std::vector<std::vector<std::string>> verbs = {
      {"search", "the", "--since", "10y"},
      {"thread", "--who", "555"},
      // Large enough to be aggregated: the full answer goes to a spill file.
      {"span", "--src", "im,web,mail,cal,reminder", "--since", "10y", "--limit", "0"},
      {"im"},
      {"who"},
      {"who", "me"},
      {"sql", "SELECT COUNT(*) FROM tesk_message"},
      {"views"},
      {"cal"},
      {"mail", "--since", "10y"},
      {"doctor"},
      {"doors"},
      {"link"},
      {"gotchas"},
      {"api"},
      {"help"},
  };
  const std::string traceFile = tmpDir + "/../" + fs::path(tmpDir).filename().string() + ".trace";
  int coordination = 0, spill = 0;
  for (const auto& args : verbs) {
    std::vector<std::string> argv{tracer,      "-f", "-qq",     "-y", "-s",
                                  "64",        "-o", traceFile, "-e", "trace=%file,%network,%desc",
                                  teskBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    Answer a = finish(start(argv, homeDir, tmpDir));
    const std::string verb = args.front() + (args.size() > 1 ? " " + args[1] : "");
    EXPECT_EQ(a.signal, 0) << verb;
    EXPECT_LE(a.exit, 3) << verb << "\n" << a.text.substr(0, 500);
    if (verb != "help") {
      EXPECT_TRUE(framed(a)) << verb;
    }
    Verdict v = judge(traceFile, homeDir, tmpDir, namesBefore);
    for (const std::string& why : v.violations) ADD_FAILURE() << verb << ": " << why;
    coordination += v.coordinationCalls;
    spill += v.spillWrites;
    EXPECT_TRUE(snapshotsIn(tmpDir).empty()) << verb << " left a snapshot directory";
  }
  fs::remove(traceFile);
  EXPECT_GT(spill, 0) << "the aggregated span wrote no spill file: the trace is not being read";
  RecordProperty("sqlite_reader_coordination_calls", coordination);

  // Nothing created or removed in the home, and every store byte unchanged.
  EXPECT_EQ(names(homeDir), namesBefore);
  const auto after = contents(homeDir);
  for (const auto& [path, bytes] : before) {
    auto it = after.find(path);
    ASSERT_NE(it, after.end()) << path;
    EXPECT_TRUE(it->second == bytes) << path << " changed";
  }
}

// The judge itself: one line of each kind it must catch, and the ones it lets pass.
TEST(NoWritesNoNetwork, TraceJudgeCatchesEachKindOfWrite) {
  tesk_test::TempHome dir;
  const std::string home = "/h", tmp = "/t", file = dir.path() + "/trace";
  struct Case {
    std::string line;
    bool violation;
  };
  const std::vector<Case> cases = {
      {R"(7 openat(AT_FDCWD</>, "/h/Library/Messages/chat.db", O_RDONLY|O_CLOEXEC) = 3</h/x>)",
       false},
      {R"(7 openat(AT_FDCWD</>, "/h/Library/Messages/chat.db", O_RDWR|O_CLOEXEC) = 3</h/x>)", true},
      {R"(7 openat(AT_FDCWD</h>, "Library/x.db", O_WRONLY|O_CREAT|O_TRUNC, 0644) = 3</h/x>)", true},
      {R"(7 openat(AT_FDCWD</>, "/h/a.db-shm", O_RDWR|O_CREAT|O_NOFOLLOW, 0644) = 5</h/a>)", false},
      {R"(7 openat(AT_FDCWD</>, "/etc/x", O_WRONLY|O_CREAT, 0644) = 3</etc/x>)", true},
      {R"(7 openat(AT_FDCWD</>, "/t/tesk-0/a.tsv.part", O_WRONLY|O_CREAT, 0644) = 3</t/a>)", false},
      {R"(7 openat(AT_FDCWD</>, "/h/nope", O_RDWR|O_CREAT, 0644) = -1 EACCES (Permission denied))",
       false},
      {R"(7 pwrite64(3</h/Library/Messages/chat.db>, "\0", 1, 4095) = 1)", true},
      {R"(7 pwrite64(5</h/Library/Messages/chat.db-shm>, "\0", 1, 4095) = 1)", false},
      {R"(7 ftruncate(4</h/Library/Messages/chat.db-wal>, 0) = 0)", true},
      {R"(7 write(1<pipe:[1234]>, "#tesk", 5) = 5)", false},
      {R"(7 write(3</t/tesk-0/a.tsv.part>, "id", 2) = 2)", false},
      {R"(7 write(3</t/notes.txt>, "id", 2) = 2)", true},
      {R"(7 write(2</var/log/ci.txt>, "==1==HINT", 9) = 9)", false},
      {R"(7 unlink("/h/Library/Messages/chat.db-wal") = 0)", true},
      {R"(7 rename("/t/tesk-0/a.part", "/h/a") = 0)", true},
      {R"(7 rename("/t/tesk-0/a.part", "/t/tesk-0/a") = 0)", false},
      {R"(7 openat(AT_FDCWD</>, "/t/other.txt", O_WRONLY|O_CREAT, 0644) = 3</t/other.txt>)", true},
      {R"(7 mkdir("/t/tesk-snapshot-7-1", 0777) = 0)", false},
      {R"(7 socket(AF_INET, SOCK_STREAM, 0) = 3<socket:[1]>)", true},
      {R"(7 connect(3<socket:[1]>, {sa_family=AF_UNIX, sun_path="/x"}, 110) = 0)", true},
      {R"(7 mmap(NULL, 32768, PROT_READ|PROT_WRITE, MAP_SHARED, 3</h/a.db>, 0) = 0x7f)", true},
      {R"(7 mmap(NULL, 32768, PROT_READ|PROT_WRITE, MAP_SHARED, 5</h/a.db-shm>, 0) = 0x7f)", false},
      {"7 pwrite64(3</h/a.db>, \"x\", 1, 0 <unfinished ...>\n8 getpid() = 8\n7 <... pwrite64 "
       "resumed>) = 1",
       true},
  };
  // The fixture lines name uid 0's spill directory; the judge expects this user's.
  const std::string spill = "/tesk-" + std::to_string(::getuid()) + "/";
  for (const Case& c : cases) {
    std::string line = c.line;
    for (size_t at = 0; (at = line.find("/tesk-0/", at)) != std::string::npos; at += spill.size()) {
      line.replace(at, 8, spill);
    }
    std::ofstream(file) << line << "\n";
    Verdict v = judge(file, home, tmp);
    EXPECT_EQ(!v.violations.empty(), c.violation) << c.line;
  }
  // A -wal or -shm that was not there before the run must not be created.
  std::ofstream(file) << R"(7 openat(AT_FDCWD</>, "/h/a.db-wal", O_RDWR|O_CREAT, 0644) = 4</h/a>)"
                      << "\n";
  EXPECT_TRUE(judge(file, home, tmp, {"/h/a.db-wal"}).violations.empty());
  EXPECT_FALSE(judge(file, home, tmp, {"/h/a.db"}).violations.empty());
}

}  // namespace
