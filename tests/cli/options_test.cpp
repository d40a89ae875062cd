// Selector parsing: every default and every exact error message.
#include <gtest/gtest.h>

#include <sstream>

#include "cli/TeskCLI.h"
#include "cli/TeskOptions.h"
#include "cli/TeskReports.h"
#include "cli/TeskSelectorNotes.h"

namespace {

using TeskCLI::OptionError;
using TeskCLI::Options;

constexpr double kNow = 1790000000;

Options parse(std::vector<std::string> args, const std::string& verb = "search") {
  return Options::parse(args, verb, kNow, "UTC");
}

std::vector<std::string> words(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string w; in >> w;) out.push_back(w);
  return out;
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

// With --until alone the default window is the 30 days that end there, never an
// inverted window that can only answer "nothing".
TEST(Options, DefaultWindowEndsAtAGivenUntil) {
  constexpr double kJune = 1780272000;  // 2026-06-01T00:00:00Z
  for (const char* verb : {"im", "span", "mail"}) {
    Options o = parse({"--until", "2026-06-01T00:00:00Z"}, verb);
    EXPECT_TRUE(o.appliedDefaultWindow) << verb;
    EXPECT_EQ(o.until, kJune) << verb;
    EXPECT_EQ(o.since, kJune - 2592000) << verb;
    Options ahead = parse({"--until", "+2d"}, verb);
    EXPECT_EQ(ahead.since, kNow + 2 * 86400 - 2592000) << verb;
    Options both =
        parse({"--until", "2026-06-01T00:00:00Z", "--since", "2026-01-01T00:00:00Z"}, verb);
    EXPECT_FALSE(both.appliedDefaultWindow) << verb;
    EXPECT_EQ(both.since, 1767225600) << verb;
  }
  EXPECT_FALSE(parse({"--until", "2026-06-01T00:00:00Z"}, "search").since);
}

// The usage names exactly the verbs that get the default window, and points to a verb
// whose answer lists the --assert terms.
TEST(Usage, TellsTheTruthAboutWindowsAndAssertTerms) {
  const std::string usage(TeskCLI::usage);
  const size_t line = usage.find("default to 30d");
  ASSERT_NE(line, std::string::npos);
  const std::string head = usage.substr(usage.rfind('\n', line), line - usage.rfind('\n', line));
  for (const char* verb : {"search", "thread", "span", "im", "cal", "mail", "who", "sql"}) {
    const bool named = head.find(std::string("`") + verb + "`") != std::string::npos;
    EXPECT_EQ(named, parse({}, verb).appliedDefaultWindow) << verb;
  }
  EXPECT_NE(usage.find("`tesk views` lists terms"), std::string::npos);
  bool listed = false;
  for (const std::string& l : TeskCLI::viewsBody()) listed = listed || l == "# assert terms";
  EXPECT_TRUE(listed);
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
      {{"--by", "hour"}, "unknown --by hour (try: day, week, month, year, who, person)"},
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

// A selector the answer cannot honour is named in one note, in the order given; one it
// honours never is.
TEST(SelectorNotes, NameWhatTheAnswerCannotHonour) {
  using S = TeskCLI::AnswerShape;
  const std::string census = "the who census lists every person — not applied\n";
  const std::string table = "`sql` answers with its statement's own table — not applied\n";
  const std::string me = "`who me` reads the Me card and the account file, no rows — not applied\n";
  const std::string buckets = "--by writes every bucket — not applied\n";
  struct Case {
    std::string name;
    S shape;
    std::string args, requested, read;  // words split at blanks
    std::string notes;                  // each note ends its line
  } cases[] = {
      {"unread where a read state is kept", S::rows, "--unread", "im mail", "im mail", ""},
      {"unread on a calendar and a browser", S::rows, "--unread --src im,cal,arc", "im cal arc",
       "im arc cal",
       "--unread: only Messages and Mail keep a read state — not applied to arc, cal\n"},
      {"an alias is the flag it stands for", S::rows,
       "--include-tapbacks --no-groups --include-reactions", "mail safari", "mail safari",
       "--include-reactions: only Messages has reactions — not applied to mail, safari\n"
       "--no-groups: only messages, mail and events have groups — not applied to safari\n"},
      {"a message store path without messages", S::rows, "--db x.db --include-filtered", "cal",
       "cal",
       "--db: it replaces the message store alone — not applied to cal\n"
       "--include-filtered: only Messages (unknown senders) and Mail (spam, junk) set rows "
       "aside — not applied to cal\n"},
      {"the census pages nothing", S::census, "--limit 3 --who x --format json --unread", "im",
       "im", "--limit: " + census + "--format: " + census},
      {"buckets page nothing", S::buckets, "--budget 9 --by day --cursor 2026-01-01T00:00:00Z,im:1",
       "im", "im", "--budget: " + buckets + "--cursor: " + buckets},
      {"who me reads no rows", S::self, "--since 3d --assert any --unread", "im", "",
       "--since: " + me + "--unread: " + me},
      {"sql keeps its table and its store", S::table,
       "--src im,mail --by day --limit 3 --no-groups --grep x", "im mail", "im",
       "--src: `sql` reads the message store alone — not read: mail\n--by: " + table +
           "--grep: " + table},
  };
  for (const Case& c : cases) {
    std::string notes;
    for (const std::string& n : TeskCLI::selectorNotes(c.shape, parse(words(c.args)).given,
                                                       words(c.requested), words(c.read)))
      notes += n + "\n";
    EXPECT_EQ(notes, c.notes) << c.name;
  }
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

}  // namespace
