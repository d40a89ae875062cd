#include "cli/TeskOptions.h"

#include <algorithm>
#include <charconv>

#include "cli/TeskText.h"
#include "cli/TeskTime.h"

namespace TeskCLI {
namespace {

constexpr double kDefaultWindow = 2592000;  // 30 days

// Decimal with an optional sign, nothing else, within int64.
std::optional<int64_t> parseInteger(const std::string& s) {
  std::string_view v = s;
  if (!v.empty() && v.front() == '+') v.remove_prefix(1);
  if (v.empty() || v.front() == '+') return std::nullopt;
  int64_t out = 0;
  auto [end, ec] = std::from_chars(v.data(), v.data() + v.size(), out);
  if (ec != std::errc() || end != v.data() + v.size()) return std::nullopt;
  return out;
}

std::vector<std::string> splitSources(const std::string& value) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start <= value.size()) {
    size_t comma = value.find(',', start);
    if (comma == std::string::npos) comma = value.size();
    if (comma > start) out.push_back(value.substr(start, comma - start));
    start = comma + 1;
  }
  return out;
}

std::string bucketNames() {
  std::string out;
  for (TeskBucket::Kind k : TeskBucket::kinds) {
    if (!out.empty()) out += ", ";
    out += TeskBucket::rawValue(k);
  }
  return out;
}

}  // namespace

Options Options::parse(const std::vector<std::string>& args, const std::string& verb, double now,
                       const std::string& zone) {
  Options o;
  std::vector<std::string> words;
  bool sinceGiven = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a.rfind("--", 0) == 0) {
      const std::string flag = a == "--include-tapbacks" ? "--include-reactions" : a;
      if (std::find(o.given.begin(), o.given.end(), flag) == o.given.end()) o.given.push_back(flag);
    }
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw OptionError(a + " needs a value");
      return args[++i];
    };
    if (a == "--src") {
      o.sources = splitSources(value());
    } else if (a == "--who") {
      o.who = value();
    } else if (a == "--since") {
      const std::string& v = value();
      auto t = TeskTime::parseWhen(v, now, zone);
      if (!t) throw OptionError("cannot parse --since " + v + " (try 30d, 12m, 2026-01-01)");
      o.since = t;
      sinceGiven = true;
    } else if (a == "--until") {
      const std::string& v = value();
      auto t = TeskTime::parseWhen(v, now, zone);
      if (!t) throw OptionError("cannot parse --until " + v);
      o.until = t;
    } else if (a == "--dir") {
      const std::string& v = value();
      if (v == "in") {
        o.direction = TeskRow::Direction::incoming;
      } else if (v == "out") {
        o.direction = TeskRow::Direction::outgoing;
      } else {
        throw OptionError("--dir must be in or out");
      }
    } else if (a == "--grep") {
      const std::string& v = value();
      o.grep = TeskRegex::compile(v);
      if (!o.grep) throw OptionError("--grep is not a valid regex: " + v);
    } else if (a == "--by") {
      const std::string& v = value();
      o.by = TeskBucket::parse(v);
      if (!o.by) throw OptionError("unknown --by " + v + " (try: " + bucketNames() + ")");
    } else if (a == "--limit") {
      auto n = parseInteger(value());
      if (!n || *n < 0) throw OptionError("--limit needs a number >= 0");
      o.limit = *n;
    } else if (a == "--format") {
      auto f = TeskEmitter::formatFromRaw(value());
      if (!f) throw OptionError("--format must be auto, tsv, json or agg");
      o.format = *f;
    } else if (a == "--assert") {
      o.asserts.push_back(value());
    } else if (a == "--include-reactions" || a == "--include-tapbacks") {
      o.includeTapbacks = true;
    } else if (a == "--no-groups") {
      o.noGroups = true;
    } else if (a == "--include-filtered") {
      o.includeFiltered = true;
    } else if (a == "--unread") {
      o.unreadOnly = true;
    } else if (a == "--db") {
      o.dbPath = value();
    } else if (a == "--cursor") {
      const std::string& v = value();
      o.cursor = TeskCursor::parse(v);
      if (!o.cursor) {
        throw OptionError("cannot parse --cursor " + v + " (pass a receipt's `next` as it stands)");
      }
    } else if (a == "--budget") {
      auto n = parseInteger(value());
      if (!n || *n < 1) throw OptionError("--budget needs a positive number");
      o.budget = *n;
    } else if (a.rfind("--", 0) == 0) {
      throw OptionError("unknown flag " + a);
    } else {
      words.push_back(a);
    }
  }
  if (!words.empty()) {
    std::string text;
    for (const std::string& w : words) {
      if (!text.empty()) text += ' ';
      text += w;
    }
    o.text = std::move(text);
  }
  if (!sinceGiven && (verb == "im" || verb == "span" || verb == "mail")) {
    // The 30 days that end where the window ends: at --until when given, else now.
    o.since = o.until.value_or(now) - kDefaultWindow;
    o.appliedDefaultWindow = true;
  }
  return o;
}

bool isSelfQuery(const std::optional<std::string>& text) {
  return text && TeskText::lower(TeskText::trim(*text)) == "me";
}

}  // namespace TeskCLI
