// The who census: one line per canonical person, handles merged, names from the roster.
#include <gtest/gtest.h>

#include "cli/TeskWho.h"

namespace {

TeskRow message(std::string who, std::string id, TeskRow::Direction dir, double ts) {
  TeskRow r;
  r.who = std::move(who);
  r.teskID = std::move(id);
  r.dir = dir;
  r.ts = ts;
  return r;
}

std::vector<std::string> lines(const std::vector<TeskCLI::WhoRow>& rows) {
  std::vector<std::string> out;
  for (const auto& r : rows) out.push_back(r.line);
  return out;
}

TEST(WhoTable, MergesHandlesOrdersByCountThenIdAndNamesFromTheRoster) {
  using D = TeskRow::Direction;
  std::vector<TeskRow> rows{
      message("+14155550123", "+4155550123", D::incoming, 100),
      message("415-555-0123", "+4155550123", D::outgoing, 300),
      message("zed@example.com", "zed@example.com", D::incoming, 50),
      message("amy@example.com", "amy@example.com", D::incoming, 60),
      message("group", "", D::incoming, 70),  // no person: not counted
  };
  TeskContacts::Roster roster;
  roster.byHandle["+4155550123"] = "Bob\tBuilder";
  roster.byHandle["zed@example.com"] = "Zed";
  EXPECT_EQ(lines(TeskCLI::whoTable(rows, std::nullopt, roster, std::nullopt)),
            (std::vector<std::string>{
                "+4155550123\t+14155550123|415-555-0123\t2\t1\t1\t1970-01-01T00:01:40Z\t"
                "1970-01-01T00:05:00Z\tBob\\tBuilder",
                "amy@example.com\tamy@example.com\t1\t1\t0\t1970-01-01T00:01:00Z\t"
                "1970-01-01T00:01:00Z\t",
                "zed@example.com\tzed@example.com\t1\t1\t0\t1970-01-01T00:00:50Z\t"
                "1970-01-01T00:00:50Z\tZed"}));
  // A query keeps rows whose handle matches it (7+ digits) or whose id contains it.
  auto bob = TeskCLI::whoTable(rows, std::string("(415) 555-0123"), roster, std::nullopt);
  ASSERT_EQ(bob.size(), 1u);
  EXPECT_EQ(bob[0].line.substr(0, 11), "+4155550123");
  EXPECT_TRUE(TeskCLI::whoTable(rows, std::string("nobody"), roster, std::nullopt).empty());
}

TEST(WhoTable, StoredTextNeverOpensAColumnOrALine) {
  using D = TeskRow::Direction;
  TeskContacts::Roster roster;
  roster.byHandle["x\ty"] = "Name\r\nForged";
  const auto census = TeskCLI::whoTable({message("h\n1", "x\ty", D::incoming, 60)}, std::nullopt,
                                        roster, std::nullopt);
  EXPECT_EQ(lines(census), std::vector<std::string>{"x\\ty\th\\n1\t1\t1\t0\t1970-01-01T00:01:00Z\t"
                                                    "1970-01-01T00:01:00Z\tName\\r\\nForged"});
  TeskContacts::MeCard me{"Me\r", {"a\tb"}};
  EXPECT_EQ(lines(TeskCLI::whoTable({}, std::string("me"), roster, me)),
            std::vector<std::string>{"me\ta\\tb\t0\t0\t0\t\t\tMe\\r"});
}

// A query that names a contact keeps the rows of every handle on the card, and the
// census stays one line per canonical handle.
TEST(WhoTable, ANameKeepsEveryHandleOfTheCard) {
  using D = TeskRow::Direction;
  std::vector<TeskRow> rows{
      message("+14155550123", "+4155550123", D::incoming, 100),
      message("jordan.lee@example.com", "jordan.lee@example.com", D::outgoing, 200),
      message("zed@example.com", "zed@example.com", D::incoming, 50),
  };
  TeskContacts::Roster roster;
  const std::optional<std::string> name("Jordan Lee");
  EXPECT_TRUE(TeskCLI::whoTable(rows, name, roster, std::nullopt).empty());
  auto census = lines(TeskCLI::whoTable(rows, name, roster, std::nullopt,
                                        {"+4155550123", "jordan.lee@example.com"}));
  ASSERT_EQ(census.size(), 2u);
  EXPECT_TRUE(census[0].starts_with("+4155550123\t+14155550123\t1\t1\t0\t")) << census[0];
  EXPECT_TRUE(census[1].starts_with("jordan.lee@example.com\t")) << census[1];
}

TEST(WhoTable, SelfQueryPrintsTheMeCardOrNothing) {
  TeskContacts::Roster roster;
  EXPECT_TRUE(TeskCLI::whoTable({}, std::string(" me "), roster, std::nullopt).empty());
  TeskContacts::MeCard me{"Alex Morgan", {"+4155550100", "alex@example.com"}};
  EXPECT_EQ(lines(TeskCLI::whoTable({}, std::string("ME"), roster, me)),
            std::vector<std::string>{"me\t+4155550100|alex@example.com\t0\t0\t0\t\t\tAlex Morgan"});
}

}  // namespace
