// Selector parsing: every default and every exact error message.
#include <gtest/gtest.h>

#include "cli/TeskCLI.h"
#include "cli/TeskOptions.h"

namespace {

using TeskCLI::OptionError;
using TeskCLI::Options;

constexpr double kNow = 1790000000;

Options parse(std::vector<std::string> args, const std::string& verb = "search") {
  return Options::parse(args, verb, kNow, "UTC");
}

std::string error(std::vector<std::string> args, const std::string& verb = "search") {
  try {
    parse(args, verb);
  } catch (const OptionError& e) {
    return e.message();
  }
  return "(no error)";
}

TEST(Options, Defaults) {
  Options o = parse({});
  EXPECT_EQ(o.sources, std::vector<std::string>{"im"});
  EXPECT_EQ(o.limit, 50);
  EXPECT_EQ(o.budget, 30000);
  EXPECT_EQ(o.format, TeskFormat::automatic);
  EXPECT_FALSE(o.since);
  EXPECT_FALSE(o.text);
  EXPECT_FALSE(o.appliedDefaultWindow);
  for (const char* verb : {"im", "span", "mail"}) {
    Options w = parse({}, verb);
    EXPECT_TRUE(w.appliedDefaultWindow) << verb;
    EXPECT_EQ(w.since, kNow - 2592000) << verb;
  }
  for (const char* verb : {"search", "thread", "cal", "who", "sql"}) {
    EXPECT_FALSE(parse({}, verb).since) << verb;
  }
  Options given = parse({"--since", "30d"}, "span");
  EXPECT_FALSE(given.appliedDefaultWindow);
}

struct ErrorCase {
  std::vector<std::string> args;
  std::string message;
};

TEST(Options, ErrorMessagesAreExact) {
  const std::vector<ErrorCase> cases{
      {{"--limit", "x"}, "--limit needs a number >= 0"},
      {{"--limit", "-1"}, "--limit needs a number >= 0"},
      {{"--limit", ""}, "--limit needs a number >= 0"},
      {{"--limit", "99999999999999999999"}, "--limit needs a number >= 0"},
      {{"--limit", "1 "}, "--limit needs a number >= 0"},
      {{"--budget", "0"}, "--budget needs a positive number"},
      {{"--dir", "IN"}, "--dir must be in or out"},
      {{"--format", "TSV"}, "--format must be auto, tsv, json or agg"},
      {{"--by", "hour"}, "unknown --by hour (try: day, week, month, year, who)"},
      {{"--grep", "(unbalanced"}, "--grep is not a valid regex: (unbalanced"},
      {{"--since"}, "--since needs a value"},
      {{"--since", "yesterdayish"}, "cannot parse --since yesterdayish (try 30d, 12m, 2026-01-01)"},
      {{"--until", "yesterdayish"}, "cannot parse --until yesterdayish"},
      {{"--verbose"}, "unknown flag --verbose"},
      {{"--"}, "unknown flag --"},
      {{"--limit", "5", "--bogus", "--limit", "x"}, "unknown flag --bogus"},
  };
  for (const ErrorCase& c : cases) {
    EXPECT_EQ(error(c.args), c.message) << c.args[0];
  }
}

TEST(Options, ValuesAndPositionalWords) {
  Options o = parse({"-v",          "hello",    "--src",
                     "im,,web,",    "--limit",  "+0",
                     "--who",       "--dir",    "--include-tapbacks",
                     "--no-groups", "--unread", "--include-filtered",
                     "--assert",    "rows>=1",  "--assert",
                     "fresh",       "--by",     "Weeks",
                     "world",       "--budget", "7",
                     "--db",        "/x?y#z",   "--format",
                     "json",        "--dir",    "out"});
  EXPECT_EQ(o.text, "-v hello world");
  EXPECT_EQ(o.sources, (std::vector<std::string>{"im", "web"}));
  EXPECT_EQ(o.limit, 0);
  EXPECT_EQ(o.who, "--dir");  // a flag's value is taken whatever it looks like
  EXPECT_TRUE(o.includeTapbacks && o.noGroups && o.unreadOnly && o.includeFiltered);
  EXPECT_EQ(o.asserts, (std::vector<std::string>{"rows>=1", "fresh"}));
  EXPECT_EQ(o.by, TeskBucket::Kind::week);
  EXPECT_EQ(o.budget, 7);
  EXPECT_EQ(o.dbPath, "/x?y#z");
  EXPECT_EQ(o.format, TeskFormat::json);
  EXPECT_EQ(o.direction, TeskRow::Direction::outgoing);
  EXPECT_TRUE(parse({"--src", ",,"}).sources.empty());
  EXPECT_EQ(parse({"--by", "Days"}).by, TeskBucket::Kind::day);
}

TEST(Options, SelfQuery) {
  EXPECT_TRUE(TeskCLI::isSelfQuery(std::string(" Me\n")));
  EXPECT_TRUE(TeskCLI::isSelfQuery(std::string("ME")));
  EXPECT_FALSE(TeskCLI::isSelfQuery(std::nullopt));
  EXPECT_FALSE(TeskCLI::isSelfQuery(std::string("myself")));
  EXPECT_FALSE(TeskCLI::isSelfQuery(std::string("me too")));
}

TEST(Sources, ExpandWebInPlaceAndDropRepeats) {
  using V = std::vector<std::string>;
  EXPECT_EQ(TeskCLI::expandSources({"im", "web", "chrome", "fax", "im"}),
            (V{"im", "chrome", "arc", "safari", "fax"}));
  EXPECT_EQ(TeskCLI::expandSources({"web", "chrome"}), (V{"chrome", "arc", "safari"}));
  EXPECT_EQ(TeskCLI::expandSources({}), V{});
}

TEST(ErrorLine, EscapesLikeTheReceipt) {
  EXPECT_EQ(TeskCLI::errorLine("--limit needs a number >= 0"),
            "#tesk {\"v\":1,\"error\":\"--limit needs a number >= 0\"}");
  EXPECT_EQ(TeskCLI::errorLine("a\"b\\c\nd\te"),
            "#tesk {\"v\":1,\"error\":\"a\\\"b\\\\c\\nd\\te\"}");
}

}  // namespace
