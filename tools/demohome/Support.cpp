#include "Support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

namespace demohome {

void makeDirs(const std::string& path) {
  std::error_code ec;
  std::filesystem::create_directories(path, ec);
  if (ec) throw std::runtime_error("cannot create " + path + ": " + ec.message());
}

void writeFile(const std::string& path, std::string_view bytes) {
  struct Closer {
    void operator()(FILE* f) const { std::fclose(f); }
  };
  std::unique_ptr<FILE, Closer> f(std::fopen(path.c_str(), "wb"));
  if (!f) throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
  if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), f.get()) != bytes.size()) {
    throw std::runtime_error("short write to " + path);
  }
  if (std::fclose(f.release()) != 0) throw std::runtime_error("cannot close " + path);
}

void setMtime(const std::string& path, double unixSeconds) {
  struct timespec times[2];
  const int64_t whole = static_cast<int64_t>(unixSeconds);
  times[0].tv_sec = static_cast<time_t>(whole);
  times[0].tv_nsec = static_cast<long>((unixSeconds - static_cast<double>(whole)) * 1e9);
  times[1] = times[0];
  ::utimensat(AT_FDCWD, path.c_str(), times, 0);  // a missing file is simply skipped
}

int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void civilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  d = doy - (153 * mp + 2) / 5 + 1;
  m = mp < 10 ? mp + 3 : mp - 9;
  y = static_cast<int64_t>(yoe) + era * 400 + (m <= 2);
}

int64_t utcSeconds(int64_t y, unsigned mo, unsigned d, unsigned h, unsigned mi, unsigned s) {
  return daysFromCivil(y, mo, d) * 86400 + h * 3600 + mi * 60 + s;
}

namespace {
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }
}  // namespace

std::string iso(double unixSeconds, bool millis) {
  int64_t ms = static_cast<int64_t>(unixSeconds * 1000.0 + (unixSeconds >= 0 ? 0.5 : -0.5));
  if (!millis) ms = floorDiv(ms, 1000) * 1000;
  const int64_t secs = floorDiv(ms, 1000);
  const int64_t days = floorDiv(secs, 86400);
  const int64_t rem = secs - days * 86400;
  int64_t y;
  unsigned m, d;
  civilFromDays(days, y, m, d);
  char buf[64];
  if (millis) {
    std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%03lldZ",
                  static_cast<long long>(y), m, d, static_cast<long long>(rem / 3600),
                  static_cast<long long>(rem / 60 % 60), static_cast<long long>(rem % 60),
                  static_cast<long long>(ms - secs * 1000));
  } else {
    std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02lld:%02lld:%02lldZ",
                  static_cast<long long>(y), m, d, static_cast<long long>(rem / 3600),
                  static_cast<long long>(rem / 60 % 60), static_cast<long long>(rem % 60));
  }
  return buf;
}

std::string rfc822Date(int64_t unixSeconds, int offsetMinutes) {
  static const char* wd[] = {"Thu", "Fri", "Sat", "Sun", "Mon", "Tue", "Wed"};
  static const char* mon[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const int64_t local = unixSeconds + offsetMinutes * 60;
  const int64_t days = floorDiv(local, 86400);
  const int64_t rem = local - days * 86400;
  int64_t y;
  unsigned m, d;
  civilFromDays(days, y, m, d);
  const int64_t w = ((days % 7) + 7) % 7;
  const int off = offsetMinutes < 0 ? -offsetMinutes : offsetMinutes;
  char buf[80];
  std::snprintf(buf, sizeof buf, "%s, %u %s %04lld %02lld:%02lld:%02lld %c%02d%02d", wd[w], d,
                mon[m - 1], static_cast<long long>(y), static_cast<long long>(rem / 3600),
                static_cast<long long>(rem / 60 % 60), static_cast<long long>(rem % 60),
                offsetMinutes < 0 ? '-' : '+', off / 60, off % 60);
  return buf;
}

size_t utf16Length(std::string_view s) {
  size_t n = 0;
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : 4;
    n += len == 4 ? 2 : 1;  // astral characters take a surrogate pair
    i += len;
  }
  return n;
}

std::string jsonEscape(std::string_view s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string xmlEscape(std::string_view s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string lowerAscii(std::string s) {
  for (auto& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

}  // namespace demohome
