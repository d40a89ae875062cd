#include "report/TeskGotchas.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace {

TEST(TeskGotchas, ShapeOfTheTable) {
  const auto& lines = TeskGotchas::lines();
  ASSERT_EQ(lines.size(), 62u);
  EXPECT_EQ(lines[0],
            "# measured on a real corpus, 2026-08-13 \u2014 each one is handled by this binary");
  EXPECT_TRUE(lines[1].empty());
  EXPECT_EQ(lines[2], "src\ttrap\tmeasured\thandled as");
  EXPECT_TRUE(lines[58].empty());
  EXPECT_EQ(lines[59], "# the rule both of the architect's own failures came down to:");
  EXPECT_EQ(
      lines[61],
      "# candidate paths, reports which one answered, and reads the cause from the OS itself.");
  for (size_t i = 2; i < 58; ++i) {
    EXPECT_EQ(std::count(lines[i].begin(), lines[i].end(), '\t'), 3) << "line " << i + 1;
    EXPECT_EQ(lines[i].find('\n'), std::string::npos);
  }
}

TEST(TeskGotchas, SourcesInOrderWithTheirRowCounts) {
  const auto& lines = TeskGotchas::lines();
  std::vector<std::pair<std::string, int>> runs;
  for (size_t i = 3; i < 58; ++i) {
    std::string src = lines[i].substr(0, lines[i].find('\t'));
    if (runs.empty() || runs.back().first != src) runs.emplace_back(src, 0);
    ++runs.back().second;
  }
  EXPECT_EQ(runs,
            (std::vector<std::pair<std::string, int>>{
                {"im", 24}, {"web", 5}, {"mail", 14}, {"cal", 9}, {"contacts", 1}, {"*", 2}}));
  EXPECT_EQ(lines[3],
            "im\tbodies live in attributedBody, not text\t1,828 of 145,767 rows populate text "
            "(1.25%); 0.11% of 2026\tblob first, always; `text` is a strict subset (1,828 of 1,828 "
            "also carry a blob)");
}

TEST(TeskGotchas, NonASCIIKeptAsUTF8) {
  std::string all;
  for (const auto& l : TeskGotchas::lines()) all += l + "\n";
  // em dash, arrow, middle dot, multiplication sign, micro sign
  for (const char* s : {"\u2014", "\u2192", "\u00b7", "\u00d7", "\u00b5"}) {
    EXPECT_NE(all.find(s), std::string::npos) << s;
  }
}

}  // namespace
