#include "report/TeskJSON.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "report/TeskJSONValue.h"

namespace {

TEST(TeskJSON, StringEscapes) {
  struct Case {
    std::string in, out;
  };
  const Case cases[] = {
      {"", "\"\""},
      {"plain", "\"plain\""},
      {"a/b", "\"a\\/b\""},
      {"q\"b\\", "\"q\\\"b\\\\\""},
      {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\""},
      {std::string("\x00\x01\x1f", 3), "\"\\u0000\\u0001\\u001f\""},
      {"\x7f", "\"\x7f\""},  // DEL is no control for JSON
      {"caf\xC3\xA9 \xE2\x86\x92 \xF0\x9F\x98\x80",
       "\"caf\xC3\xA9 \xE2\x86\x92 \xF0\x9F\x98\x80\""},
      {"\xFF", "\"\xEF\xBF\xBD\""},                                  // stray byte
      {"a\xC3", "\"a\xEF\xBF\xBD\""},                                // truncated sequence
      {"\xC0\xAF", "\"\xEF\xBF\xBD\xEF\xBF\xBD\""},                  // overlong "/"
      {"\xED\xA0\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},  // surrogate
      {"\xF4\x90\x80\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},  // > U+10FFFF
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskJSON::quoted(c.in), c.out);
    EXPECT_TRUE(TeskJSONValue::parse(TeskJSON::quoted(c.in)));
  }
}

TEST(TeskJSON, RandomBytesAlwaysGiveAValidString) {
  std::mt19937 gen(7);
  for (int i = 0; i < 2000; ++i) {
    std::string s(gen() % 16, '\0');
    for (char& c : s) c = static_cast<char>(gen());
    auto q = TeskJSON::quoted(s);
    auto parsed = TeskJSONValue::parse(q);
    ASSERT_TRUE(parsed) << q;
    bool ascii = std::all_of(s.begin(), s.end(), [](char c) { return (c & 0x80) == 0; });
    if (ascii) {
      EXPECT_EQ(*parsed->string(), s);  // escaping is lossless where no byte is replaced
    }
  }
}

TEST(TeskJSON, NumbersArePlainShortestDecimals) {
  struct Case {
    double value;
    const char* text;
  };
  const Case cases[] = {
      {1767225600, "1767225600"},
      {1678307200.5, "1678307200.5"},
      {-0.0, "0"},
      {0.1, "0.1"},
      {1e-7, "0.0000001"},
      {1e21, "1000000000000000000000"},
      {123456789.125, "123456789.125"},
  };
  for (const auto& c : cases) {
    std::string out;
    EXPECT_TRUE(TeskJSON::appendNumber(out, c.value));
    EXPECT_EQ(out, c.text);
  }
  for (double v : {std::numeric_limits<double>::max(), std::numeric_limits<double>::denorm_min(),
                   -std::numeric_limits<double>::min()}) {
    std::string out;
    ASSERT_TRUE(TeskJSON::appendNumber(out, v));
    EXPECT_EQ(out.find_first_of("eE"), std::string::npos);
    EXPECT_EQ(std::strtod(out.c_str(), nullptr), v);
  }
  for (double v : {std::nan(""), std::numeric_limits<double>::infinity()}) {
    std::string out = "x";
    EXPECT_FALSE(TeskJSON::appendNumber(out, v));
    EXPECT_EQ(out, "x");
  }
}

TEST(TeskJSON, PrettyLayoutAndSortedKeys) {
  using TeskJSON::Array;
  using TeskJSON::Object;
  TeskJSON::Value doc = Object{
      {"b", Array{1, "x/y"}},
      {"a", Object{{"z", true}, {"y", nullptr}}},
      {"c", Array{}},
      {"d", Object{}},
      {"e", 2.5},
  };
  EXPECT_EQ(TeskJSON::pretty(doc),
            "{\n"
            "  \"a\" : {\n"
            "    \"y\" : null,\n"
            "    \"z\" : true\n"
            "  },\n"
            "  \"b\" : [\n"
            "    1,\n"
            "    \"x\\/y\"\n"
            "  ],\n"
            "  \"c\" : [\n"
            "\n"
            "  ],\n"
            "  \"d\" : {\n"
            "\n"
            "  },\n"
            "  \"e\" : 2.5\n"
            "}");
  EXPECT_EQ(TeskJSON::compact(doc),
            "{\"a\":{\"y\":null,\"z\":true},\"b\":[1,\"x\\/y\"],\"c\":[],\"d\":{},\"e\":2.5}");
  EXPECT_FALSE(TeskJSON::pretty(Object{{"n", std::nan("")}}));
}

}  // namespace
