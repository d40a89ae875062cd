// The Envelope Index around the walk: where it lives, its mailboxes, how fresh it is,
// and the receipt notes of a read. Freshness is an order statistic with an outlier
// test.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>

#include "sources/mail/TeskMail.h"

namespace TeskMail {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decoding that fails (nothing) on a broken escape or invalid UTF-8.
std::optional<std::string> percentDecoded(std::string_view s) {
  if (s.find('%') == std::string_view::npos) return std::string(s);
  std::string out;
  out.reserve(s.size());
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '%') {
      out.push_back(s[i]);
      continue;
    }
    if (i + 2 >= s.size()) return std::nullopt;
    const int hi = hexDigit(s[i + 1]);
    const int lo = hexDigit(s[i + 2]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<char>(hi * 16 + lo));
    i += 2;
  }
  if (!isValidUTF8(out)) return std::nullopt;
  return out;
}

}  // namespace

bool isSentLeaf(std::string_view leaf) {
  return leaf == "Sent Mail" || leaf == "Sent Messages" || leaf == "Sent" || leaf == "Outbox" ||
         leaf == "Drafts" || leaf == "SendLater";
}

bool isFilteredLeaf(std::string_view leaf) { return leaf == "Spam" || leaf == "Junk"; }

double Freshness::ageDays() const {
  if (newest <= 0) return std::numeric_limits<double>::infinity();
  return (now - newest) / 86400.0;
}

std::optional<std::string> indexPath(const std::string& home) {
  const std::string mailDir = home + "/Library/Mail";
  std::error_code ec;
  std::filesystem::directory_iterator it(mailDir, ec);
  if (ec) return std::nullopt;
  std::vector<std::pair<int64_t, std::string>> versions;
  for (; it != std::filesystem::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    const std::string name = it->path().filename().string();
    if (name.size() < 2 || name.size() > 19 || name[0] != 'V') continue;
    int64_t n = 0;
    bool digits = true;
    for (size_t i = 1; i < name.size(); ++i) {
      if (name[i] < '0' || name[i] > '9') {
        digits = false;
        break;
      }
      n = n * 10 + (name[i] - '0');
    }
    if (digits) versions.emplace_back(n, name);
  }
  std::sort(versions.begin(), versions.end(),
            [](const auto& a, const auto& b) { return a.first > b.first; });
  for (const auto& [n, name] : versions) {
    std::string path = mailDir + "/" + name + "/MailData/Envelope Index";
    if (std::filesystem::exists(path, ec)) return path;
  }
  return std::nullopt;
}

std::optional<Mailbox> mailbox(int64_t id, std::string_view url) {
  const size_t scheme = url.find("://");
  if (scheme == std::string_view::npos) return std::nullopt;
  const std::string_view rest = url.substr(scheme + 3);
  const size_t slash = rest.find('/');
  Mailbox box;
  box.id = id;
  box.account = std::string(rest.substr(0, slash));
  const std::string_view rawPath =
      slash == std::string_view::npos ? std::string_view{} : rest.substr(slash + 1);
  std::string path = percentDecoded(rawPath).value_or(std::string(rawPath));
  // The last non-empty component; the path itself when splitting yields nothing.
  std::string_view leaf = path;
  size_t end = path.size();
  while (end > 0 && path[end - 1] == '/') --end;
  if (end > 0) {
    const size_t start = path.rfind('/', end - 1);
    const size_t from = start == std::string::npos ? 0 : start + 1;
    leaf = std::string_view(path).substr(from, end - from);
  }
  box.leaf = std::string(leaf);
  box.name = path.empty() ? "(root)" : path;
  return box;
}

Freshness freshness(std::vector<double> samples, double now) {
  Freshness f;
  f.now = now;
  std::sort(samples.begin(), samples.end(), std::greater<double>());
  f.sampled = static_cast<int64_t>(samples.size());
  if (!samples.empty()) f.raw = samples.front();
  std::vector<double> credible;
  for (double s : samples) {
    if (s > now) ++f.future;
    if (s > 0 && s <= now) credible.push_back(s);
  }
  if (!credible.empty()) f.newest = credible[0];
  if (credible.size() >= 2) f.runnerUp = credible[1];
  if (credible.size() >= 4) {
    const double firstGap = credible[0] - credible[1];
    std::vector<double> gaps;
    for (size_t i = 1; i + 1 < credible.size(); ++i) gaps.push_back(credible[i] - credible[i + 1]);
    std::sort(gaps.begin(), gaps.end());
    const double median = gaps[gaps.size() / 2];
    f.contested = std::max(median, 1.0) * 20 < firstGap;
  }
  return f;
}

std::vector<std::string> notes(const Result& result) {
  std::vector<std::string> out;
  if (result.denied.empty()) {
    const Census& c = result.census;
    const int64_t decoded = c.plain + c.html;
    const int64_t demanded = c.attempted();
    const int64_t decodable = std::max<int64_t>(demanded - c.noTextPart - c.notOnDisk, 0);
    const double rate =
        decodable < 1 ? 1.0 : static_cast<double>(decoded) / static_cast<double>(decodable);
    char line[256];
    std::snprintf(line, sizeof line,
                  "mail decode %.5f (%lld of %lld decodable; %lld demanded, %lld files opened)",
                  rate, static_cast<long long>(decoded), static_cast<long long>(decodable),
                  static_cast<long long>(demanded), static_cast<long long>(c.filesRead()));
    std::string decode = line;
    const auto suffix = [&decode](int64_t n, const char* what) {
      if (n >= 1) decode += " \xC2\xB7 " + std::to_string(n) + what;
    };
    suffix(c.noTextPart, " had no text part");
    suffix(c.notOnDisk, " never reached this disk");
    suffix(c.undecodable, " undecodable, counted not guessed");
    out.push_back(std::move(decode));
    if (rate < 0.999 && decodable >= 1) {
      out.push_back("MAIL DECODE BELOW GATE \xE2\x80\x94 treat every mail count as a floor");
    }
  }
  if (result.unreadIgnored) {
    out.push_back("--unread: this mail index keeps no read state; mail rows are not filtered");
  }
  if (result.noInstant >= 1) {
    out.push_back("mail: " + std::to_string(result.noInstant) +
                  " message(s) whose date is no instant (not a number, before 1970 or after "
                  "2200) left out of rows and horizon");
  }
  if (result.futureDated >= 1) {
    out.push_back("mail: " + std::to_string(result.futureDated) +
                  " row(s) dated in the future excluded from freshness");
  }
  return out;
}

}  // namespace TeskMail
