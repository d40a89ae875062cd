#include "cli/TeskAPI.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "report/TeskJSONValue.h"
#include "report/TeskReceipt.h"

namespace {

using Node = TeskJSONValue::Value;

std::vector<std::string> strings(const Node& array) {
  std::vector<std::string> out;
  for (const auto& item : *array.array()) out.push_back(*item.string());
  return out;
}

const Node* entry(const Node& array, const char* key, const std::string& value) {
  for (const auto& item : *array.array()) {
    if (const Node* k = item.member(key); k && k->string() && *k->string() == value) return &item;
  }
  return nullptr;
}

TEST(TeskAPI, DocumentParsesWithTheTablesInOrder) {
  auto doc = TeskJSONValue::parse(TeskAPI::json());
  ASSERT_TRUE(doc) << TeskAPI::json();
  EXPECT_EQ(doc->keys(),
            (std::vector<std::string>{"readOnly", "receipt", "schema", "selectableVerbs",
                                      "selectors", "sources", "verbs"}));
  EXPECT_EQ(*doc->member("schema")->number(), 1);  // written "1": see PlatformPrettyLayout
  EXPECT_TRUE(*doc->member("readOnly")->boolean());
  const Node& verbs = *doc->member("verbs");
  EXPECT_EQ(verbs.array()->size(), TeskAPI::verbs().size());
  EXPECT_EQ(strings(*doc->member("receipt")),
            std::vector<std::string>(TeskReceipt::keys().begin(), TeskReceipt::keys().end()));
  // Keys inside every object are sorted too.
  for (const char* table : {"verbs", "selectors", "sources"}) {
    for (const auto& item : *doc->member(table)->array()) {
      auto keys = item.keys();
      EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end())) << table;
    }
  }
}

TEST(TeskAPI, SelectorValuesOnlyWhereThereAreAny) {
  auto doc = TeskJSONValue::parse(TeskAPI::json());
  ASSERT_TRUE(doc);
  const Node& selectors = *doc->member("selectors");
  const Node* who = entry(selectors, "flag", "--who");
  ASSERT_TRUE(who);
  EXPECT_EQ(who->keys(), (std::vector<std::string>{"flag", "takes"}));  // no "values" at all
  const Node* dir = entry(selectors, "flag", "--dir");
  ASSERT_TRUE(dir);
  EXPECT_EQ(strings(*dir->member("values")), (std::vector<std::string>{"in", "out"}));
  EXPECT_EQ(strings(*entry(selectors, "flag", "--by")->member("values")),
            (std::vector<std::string>{"day", "week", "month", "year", "who", "person"}));
  EXPECT_FALSE(entry(selectors, "flag", "--include-tapbacks"));  // an alias, not advertised
}

TEST(TeskAPI, PlatformPrettyLayout) {
  const std::string doc = TeskAPI::json();
  EXPECT_EQ(doc.rfind("{\n  \"readOnly\" : true,\n  \"receipt\" : [\n    \"v\",\n    \"q\",\n", 0),
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
