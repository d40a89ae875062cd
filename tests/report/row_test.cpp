#include "report/TeskRow.h"

#include <gtest/gtest.h>

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

}  // namespace
