#include "report/TeskRow.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "report/TeskRowStream.h"

namespace {

TEST(TeskAttachment, LabelPrefersNameThenFileThenMime) {
  struct Case {
    std::optional<std::string> path, name, mime;
    const char* label;
  };
  const Case cases[] = {
      {"/a/b/c.jpg", "given.jpg", "image/jpeg", "given.jpg"},
      {"/a/b/c.jpg", "", "image/jpeg", "c.jpg"},
      {"/a/b/c.jpg", std::nullopt, std::nullopt, "c.jpg"},
      {"c.jpg", std::nullopt, std::nullopt, "c.jpg"},
      {"/a/b/", std::nullopt, "image/png", "image/png"},  // no last component
      {"", std::nullopt, "image/png", "image/png"},
      {std::nullopt, std::nullopt, "image/png", "image/png"},
      {std::nullopt, std::nullopt, "", ""},  // a present mime wins even when empty
      {std::nullopt, std::nullopt, std::nullopt, "attachment"},
      {std::nullopt, "", std::nullopt, "attachment"},
  };
  for (const auto& c : cases) {
    TeskAttachment a{c.path, c.name, c.mime, 0};
    EXPECT_EQ(a.label(), c.label) << c.path.value_or("-") << " " << c.name.value_or("-");
  }
}

TEST(TeskRow, KindsMatchCaseSensitively) {
  EXPECT_EQ(TeskRow::kindFromRaw("tapback"), TeskRow::Kind::tapback);
  for (const char* bad : {"Text", "TAPBACK", "", "text "}) EXPECT_FALSE(TeskRow::kindFromRaw(bad));
  EXPECT_FALSE(TeskRow().start);
}

TeskRow at(double ts, const std::string& id, const std::string& body = {}) {
  TeskRow r;
  r.ts = ts;
  r.id = id;
  r.src = id.substr(0, id.find(':'));
  r.body = body;
  return r;
}

std::vector<std::string> drain(TeskRowStream& stream) {
  std::vector<std::string> out;
  while (const TeskRow* r = stream.next())
    out.push_back(r->id + (r->body.empty() ? "" : "/" + r->body));
  if (stream.next()) out.push_back("(a row after the end)");
  return out;
}

// The merge must give what sorting every row in answer order and reading it backwards
// gives: the order paging and the old collected answers rely on.
TEST(TeskRowMerge, IsTheStableAnswerOrderReadNewestFirst) {
  std::vector<std::vector<TeskRow>> sources{
      {at(10, "im:9"), at(20, "im:10"), at(20, "im:11"), at(40, "im:2")},
      {at(30, "mail:3"), at(20, "mail:1"), at(5, "mail:2")},  // out of order: the list sorts
      {},
      {at(20, "chrome:7"), at(20, "safari:1"), at(10, "im:99")},
      {at(20, "x:1", "first")},
      {at(20, "x:1", "second")},  // ties with the one before: the later stream goes first
  };
  std::vector<TeskRow> all;
  for (const auto& rows : sources) all.insert(all.end(), rows.begin(), rows.end());
  std::stable_sort(all.begin(), all.end(), TeskRow::answerOrder);
  TeskRowList everything(all);
  const std::vector<std::string> expected = drain(everything);
  EXPECT_EQ(expected.front(), "im:2");
  EXPECT_EQ(std::vector<std::string>(expected.begin() + 2, expected.begin() + 9),
            (std::vector<std::string>{"x:1/second", "x:1/first", "mail:1", "safari:1", "chrome:7",
                                      "im:11", "im:10"}));

  std::vector<std::unique_ptr<TeskRowList>> lists;
  TeskRowMerge merge;
  for (auto& rows : sources) {
    lists.push_back(std::make_unique<TeskRowList>(std::move(rows)));
    merge.add(*lists.back());
  }
  EXPECT_EQ(drain(merge), expected);
}

// A statement's rows come newest first but in store order within one instant; the
// instants are handed out in answer order. The rows are filled in place into reused
// slots, so nothing of an earlier row may show through a later one.
TEST(TeskInstantOrder, OrdersEachInstantAndReusesRowsCleanly) {
  std::vector<TeskRow> read{at(40, "chrome:1"), at(40, "im:2"),     at(30, "im:12"),
                            at(30, "chrome:4"), at(30, "im:3"),     at(20, "im:1"),
                            at(10, "safari:9"), at(10, "chrome:8"), at(10, "im:77"),
                            at(10, "im:5")};
  read[2].attachments.push_back({"/a/b.jpg", "b.jpg", "image/jpeg", 9});
  read[2].start = 12;
  read[3].group = read[3].filtered = read[3].unread = true;
  read[3].chatID = 7;
  read[3].who = read[3].teskID = std::string(40, 'w');
  read[3].dir = TeskRow::Direction::outgoing;
  read[3].kind = TeskRow::Kind::attachment;
  size_t i = 0;
  TeskInstantOrder order([&](TeskRow& row) {
    if (i == read.size()) return false;
    const TeskRow& from = read[i++];
    row.clear();
    EXPECT_EQ(row, TeskRow()) << from.id;  // every field reset
    row = from;
    return true;
  });
  std::vector<TeskRow> sorted = read;
  std::stable_sort(sorted.begin(), sorted.end(), TeskRow::answerOrder);
  for (size_t n = sorted.size(); n-- > 0;) {
    const TeskRow* row = order.next();
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(*row, sorted[n]) << sorted[n].id;
  }
  EXPECT_EQ(order.next(), nullptr);
  EXPECT_EQ(order.next(), nullptr);
}

}  // namespace
