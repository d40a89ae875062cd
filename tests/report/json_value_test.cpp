#include "report/TeskJSONValue.h"

#include <gtest/gtest.h>

namespace {

using TeskJSONValue::parse;

TEST(TeskJSONValue, AcceptsAndReadsValues) {
  auto v = parse(R"( {"a": [1, -2.5e1, true, false, null, "x"], "b": {"c": "\u00e9\ud83d\ude00"},
                     "a2": 0, "e": 1E+2 } )");
  ASSERT_TRUE(v.has_value());
  ASSERT_NE(v->object(), nullptr);
  const auto* a = v->member("a");
  ASSERT_NE(a, nullptr);
  ASSERT_NE(a->array(), nullptr);
  ASSERT_EQ(a->array()->size(), 6u);
  EXPECT_EQ(*(*a->array())[0].number(), 1);
  EXPECT_EQ(*(*a->array())[1].number(), -25);
  EXPECT_TRUE(*(*a->array())[2].boolean());
  EXPECT_FALSE(*(*a->array())[3].boolean());
  EXPECT_TRUE((*a->array())[4].isNull());
  EXPECT_EQ(*(*a->array())[5].string(), "x");
  EXPECT_EQ(*v->member("b")->member("c")->string(), "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(*v->member("e")->number(), 100);
  EXPECT_EQ(v->member("missing"), nullptr);
  EXPECT_EQ(a->member("a"), nullptr);  // not an object
  EXPECT_EQ(v->member("a2")->string(), nullptr);
}

TEST(TeskJSONValue, EscapesAndRawUTF8) {
  auto v = parse(R"("q\"b\\s\/n\nt\tr\rf\fb\b")");
  ASSERT_TRUE(v.has_value());
  EXPECT_EQ(*v->string(), "q\"b\\s/n\nt\tr\rf\fb\b");
  EXPECT_EQ(*parse("\"caf\xC3\xA9 \xE2\x94\x82\"")->string(), "caf\xC3\xA9 \xE2\x94\x82");
  EXPECT_EQ(*parse(R"({"k":1,"k":2})")->member("k")->number(), 2);
}

TEST(TeskJSONValue, RejectsMalformedText) {
  const char* bad[] = {
      "",
      " ",
      "{",
      "}",
      "[1,]",
      "[,1]",
      "{\"a\"}",
      "{\"a\":}",
      "{a:1}",
      "{\"a\":1,}",
      "01",
      "1.",
      ".5",
      "-",
      "1e",
      "+1",
      "tru",
      "nul",
      "\"abc",
      "\"\\x\"",
      "\"\\u12\"",
      "\"\\udc00\"",
      "\"\\ud800\"",
      "\"\\ud800\\u0041\"",
      "\"a\nb\"",
      "1 2",
      "{} x",
      "1e999",
      "NaN",
      "[1]]",
      "\"\xC3\"",
      "\"\xC0\xAF\"",
      "\"\xED\xA0\x80\"",
      "\"\xF4\x90\x80\x80\"",
      "\"\xFF\"",
  };
  for (const char* text : bad) {
    EXPECT_FALSE(parse(text).has_value()) << text;
  }
}

TEST(TeskJSONValue, NestingIsBounded) {
  auto nested = [](int depth) {
    return std::string(static_cast<size_t>(depth), '[') +
           std::string(static_cast<size_t>(depth), ']');
  };
  EXPECT_TRUE(parse(nested(TeskJSONValue::kMaxDepth)).has_value());
  EXPECT_FALSE(parse(nested(TeskJSONValue::kMaxDepth + 1)).has_value());
  EXPECT_FALSE(parse(std::string(100000, '[')).has_value());
  std::string objects;
  for (int i = 0; i < 100000; ++i) objects += "{\"a\":";
  EXPECT_FALSE(parse(objects).has_value());
}

}  // namespace
