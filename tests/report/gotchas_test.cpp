#include "report/TeskGotchas.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

// The text itself is prose; what can break is the table inside it: every row between
// the header and the next blank line is four tab-separated cells on one line.
TEST(TeskGotchas, EveryTableRowIsFourCellsOnOneLine) {
  const auto& lines = TeskGotchas::lines();
  const auto header = std::find(lines.begin(), lines.end(), "src\ttrap\tmeasured\thandled as");
  ASSERT_NE(header, lines.end());
  int rows = 0;
  for (auto it = header + 1; it != lines.end() && !it->empty(); ++it, ++rows) {
    EXPECT_EQ(std::count(it->begin(), it->end(), '\t'), 3) << *it;
    EXPECT_EQ(it->find('\n'), std::string::npos) << *it;
  }
  EXPECT_GT(rows, 40);
}

}  // namespace
