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

}  // namespace
