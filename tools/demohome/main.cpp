// tesk-demo-home: writes a synthetic, deterministic Mac home for demos and tests.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <unicode/timezone.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Home.h"
#include "Support.h"

namespace fs = std::filesystem;
using namespace demohome;

namespace {

const char* kUsage =
    "usage: tesk-demo-home <target-dir> [--scale small|default|large] [--now <unix seconds>]\n"
    "                      [--rng N] [--link complete|partial|broken|absent] [--zone <IANA "
    "zone>]\n";

[[noreturn]] void fail(const std::string& msg, int code = 1) {
  std::fprintf(stderr, "tesk-demo-home: %s\n", msg.c_str());
  std::exit(code);
}

std::string canonical(const std::string& p) {
  std::error_code ec;
  fs::path c = fs::weakly_canonical(fs::absolute(p, ec), ec);
  return ec ? p : c.string();
}

int64_t parseInt(const std::string& s, const char* what) {
  char* end = nullptr;
  errno = 0;
  const long long v = std::strtoll(s.c_str(), &end, 10);
  if (s.empty() || *end != '\0' || errno != 0) fail(std::string("invalid ") + what + ": " + s, 2);
  return v;
}

Options parse(int argc, char** argv) {
  Options o;
  o.now = static_cast<int64_t>(std::time(nullptr));
  std::vector<std::string> args(argv + 1, argv + argc);
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) fail(a + " needs a value", 2);
      return args[++i];
    };
    if (a == "--scale") {
      const std::string& v = value();
      if (v == "small") {
        o.scale = Scale::small;
      } else if (v == "default") {
        o.scale = Scale::standard;
      } else if (v == "large") {
        o.scale = Scale::large;
      } else {
        fail("unknown scale: " + v + " (small, default or large)", 2);
      }
    } else if (a == "--now") {
      o.now = parseInt(value(), "--now");
      if (o.now < 1000000000 || o.now > 4102444800) fail("--now out of range: " + args[i], 2);
    } else if (a == "--rng") {
      o.rng = static_cast<uint64_t>(parseInt(value(), "--rng"));
    } else if (a == "--link") {
      const std::string& v = value();
      if (v == "complete")
        o.link = Link::complete;
      else if (v == "partial")
        o.link = Link::partial;
      else if (v == "broken")
        o.link = Link::broken;
      else if (v == "absent")
        o.link = Link::absent;
      else
        fail("unknown link state: " + v + " (complete, partial, broken or absent)", 2);
    } else if (a == "--zone") {
      o.zone = value();
      std::unique_ptr<icu::TimeZone> tz(
          icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(o.zone)));
      if (!tz || *tz == icu::TimeZone::getUnknown()) fail("unknown time zone: " + o.zone, 2);
    } else if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (!a.empty() && a[0] == '-') {
      fail("unknown option: " + a + "\n" + kUsage, 2);
    } else if (o.target.empty()) {
      o.target = a;
    } else {
      fail("more than one target directory\n" + std::string(kUsage), 2);
    }
  }
  if (o.target.empty()) fail(std::string("no target directory\n") + kUsage, 2);
  return o;
}

// Refuses the real home (by $HOME and by the password database) and anything
// that is neither empty nor a previous demo home; empties a previous demo home.
void prepareTarget(const std::string& target) {
  const std::string t = canonical(target);
  std::vector<std::string> homes;
  if (const char* env = std::getenv("HOME"); env && *env) homes.push_back(canonical(env));
  if (const struct passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir)
    homes.push_back(canonical(pw->pw_dir));
  for (const auto& home : homes) {
    if (t == home) fail("refusing to write into your real home directory (" + home + ")");
    if (home.rfind(t + "/", 0) == 0 || t == "/") {
      fail("refusing to write into " + t + ": it contains your real home directory");
    }
  }
  std::error_code ec;
  if (!fs::exists(t, ec)) {
    makeDirs(t);
    return;
  }
  if (!fs::is_directory(t, ec)) fail(t + " exists and is not a directory");
  if (fs::is_empty(t, ec)) return;
  if (!fs::exists(fs::path(t) / kMarkerName, ec)) {
    fail(t + " is not empty and is not a demo home (no " + kMarkerName + "); refusing to touch it");
  }
  for (const auto& entry : fs::directory_iterator(t, ec)) {
    fs::remove_all(entry.path(), ec);
    if (ec) fail("cannot clear " + entry.path().string() + ": " + ec.message());
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options opt = parse(argc, argv);
  try {
    prepareTarget(opt.target);
    opt.target = canonical(opt.target);
    writeFile(opt.target + "/" + kMarkerName,
              "synthetic Mac home written by tesk-demo-home; safe to delete\n");
    const auto started = std::chrono::steady_clock::now();
    std::vector<std::string> summary;
    generate(opt, &summary);
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    for (const auto& line : summary) std::printf("%s\n", line.c_str());
    std::printf("demo home written to %s in %.1f s (now %s)\n", opt.target.c_str(), secs,
                iso(static_cast<double>(opt.now)).c_str());
  } catch (const std::exception& e) {
    fail(e.what());
  }
  return 0;
}
