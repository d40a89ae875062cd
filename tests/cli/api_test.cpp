#include "cli/TeskAPI.h"

#include <gtest/gtest.h>

#include "report/json_reader.h"

namespace {

using testjson::Node;

std::vector<std::string> strings(const Node& array) {
  std::vector<std::string> out;
  for (const auto& item : array.items) out.push_back(item.s);
  return out;
}

const Node* entry(const Node& array, const char* key, const std::string& value) {
  for (const auto& item : array.items) {
    if (const Node* k = item.find(key); k && k->s == value) return &item;
  }
  return nullptr;
}

TEST(TeskAPI, DocumentParsesWithTheTablesInOrder) {
  auto doc = testjson::parse(TeskAPI::json());
  ASSERT_TRUE(doc) << TeskAPI::json();
  EXPECT_EQ(doc->keys(),
            (std::vector<std::string>{"readOnly", "receipt", "schema", "selectableVerbs",
                                      "selectors", "sources", "verbs"}));
  EXPECT_EQ(doc->find("schema")->numberText, "1");
  EXPECT_TRUE(doc->find("readOnly")->b);
  const Node& verbs = *doc->find("verbs");
  ASSERT_EQ(verbs.items.size(), 14u);
  EXPECT_EQ(verbs.items.front().find("name")->s, "search");
  EXPECT_EQ(verbs.items.back().find("name")->s, "api");
  EXPECT_EQ(entry(verbs, "name", "who")->find("answers")->s,
            "handle \u2192 canonical person, and every handle they use");
  EXPECT_EQ(doc->find("selectors")->items.size(), 16u);
  EXPECT_EQ(doc->find("sources")->items.size(), 5u);
  EXPECT_EQ(
      strings(*doc->find("selectableVerbs")),
      (std::vector<std::string>{"search", "thread", "span", "im", "cal", "mail", "who", "sql"}));
  EXPECT_EQ(strings(*doc->find("receipt")),
            (std::vector<std::string>{"rows_total", "returned", "sources", "notes", "ms"}));
  // Keys inside every object are sorted too.
  for (const char* table : {"verbs", "selectors", "sources"}) {
    for (const auto& item : doc->find(table)->items) {
      auto keys = item.keys();
      EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end())) << table;
    }
  }
}

TEST(TeskAPI, SelectorValuesOnlyWhereThereAreAny) {
  auto doc = testjson::parse(TeskAPI::json());
  ASSERT_TRUE(doc);
  const Node& selectors = *doc->find("selectors");
  const Node* who = entry(selectors, "flag", "--who");
  ASSERT_TRUE(who);
  EXPECT_EQ(who->keys(), (std::vector<std::string>{"flag", "takes"}));  // no "values" at all
  const Node* dir = entry(selectors, "flag", "--dir");
  ASSERT_TRUE(dir);
  EXPECT_EQ(strings(*dir->find("values")), (std::vector<std::string>{"in", "out"}));
  EXPECT_EQ(strings(*entry(selectors, "flag", "--by")->find("values")),
            (std::vector<std::string>{"day", "week", "month", "year", "who"}));
  EXPECT_FALSE(entry(selectors, "flag", "--include-tapbacks"));  // an alias, not advertised
}

TEST(TeskAPI, PlatformPrettyLayout) {
  const std::string doc = TeskAPI::json();
  EXPECT_EQ(doc.rfind("{\n  \"readOnly\" : true,\n  \"receipt\" : [\n    \"rows_total\",\n", 0),
            0u);
  EXPECT_NE(doc.find("\n  \"schema\" : 1,\n"), std::string::npos);
  EXPECT_NE(doc.find("    {\n      \"flag\" : \"--src\",\n      \"takes\" : \"sources, comma "
                     "separated\",\n      \"values\" : [\n        \"im\",\n"),
            std::string::npos);
  EXPECT_NE(doc.find("\"answers\" : \"iMessage; alias for span\\/search over --src im\""),
            std::string::npos);
  EXPECT_EQ(doc.substr(doc.size() - 6), "\n  ]\n}");
}

}  // namespace
