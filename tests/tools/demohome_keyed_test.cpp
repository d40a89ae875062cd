// Keyed archives must unarchive the way NSKeyedUnarchiver would: $top.root names
// the root object, UIDs index $objects, NSError chains nest under NSUnderlyingError.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <memory>
#include <string>
#include <vector>

#include "Keyed.h"

namespace demohome {
namespace {

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using Plist = std::unique_ptr<void, PlistFree>;

Plist parse(const std::vector<uint8_t>& bin) {
  plist_t root = nullptr;
  plist_from_bin(reinterpret_cast<const char*>(bin.data()), static_cast<uint32_t>(bin.size()),
                 &root);
  return Plist(root);
}

std::string str(plist_t node) {
  char* s = nullptr;
  plist_get_string_val(node, &s);
  std::string out = s ? s : "";
  free(s);
  return out;
}

uint64_t uid(plist_t node) {
  uint64_t v = 0;
  plist_get_uid_val(node, &v);
  return v;
}

TEST(DemoKeyed, StringArchiveHasTheArchiverShape) {
  const auto bin = keyedString("com.apple.Dataclass.Mail");
  ASSERT_GT(bin.size(), 8u);
  EXPECT_EQ(std::string(bin.begin(), bin.begin() + 8), "bplist00");
  Plist root = parse(bin);
  ASSERT_TRUE(root);
  EXPECT_EQ(str(plist_dict_get_item(root.get(), "$archiver")), "NSKeyedArchiver");
  uint64_t version = 0;
  plist_get_uint_val(plist_dict_get_item(root.get(), "$version"), &version);
  EXPECT_EQ(version, 100000u);
  plist_t objects = plist_dict_get_item(root.get(), "$objects");
  const uint64_t r = uid(plist_dict_get_item(plist_dict_get_item(root.get(), "$top"), "root"));
  EXPECT_EQ(r, 1u);
  EXPECT_EQ(str(plist_array_get_item(objects, 0)), "$null");
  EXPECT_EQ(str(plist_array_get_item(objects, static_cast<uint32_t>(r))),
            "com.apple.Dataclass.Mail");
}

// Follows the chain the way a reader does: root error, then NSUnderlyingError
// inside each NSUserInfo dictionary (NS.keys / NS.objects).
std::vector<std::string> chainOf(const std::vector<uint8_t>& bin) {
  std::vector<std::string> out;
  Plist root = parse(bin);
  if (!root) return out;
  plist_t objects = plist_dict_get_item(root.get(), "$objects");
  uint64_t at = uid(plist_dict_get_item(plist_dict_get_item(root.get(), "$top"), "root"));
  for (int guard = 0; guard < 10 && at != 0; ++guard) {
    plist_t err = plist_array_get_item(objects, static_cast<uint32_t>(at));
    plist_t cls = plist_array_get_item(
        objects, static_cast<uint32_t>(uid(plist_dict_get_item(err, "$class"))));
    if (str(plist_dict_get_item(cls, "$classname")) != "NSError") break;
    uint64_t code = 0;
    plist_get_uint_val(plist_dict_get_item(err, "NSCode"), &code);
    out.push_back(str(plist_array_get_item(
                      objects, static_cast<uint32_t>(uid(plist_dict_get_item(err, "NSDomain"))))) +
                  " " + std::to_string(static_cast<int64_t>(code)));
    plist_t info = plist_array_get_item(
        objects, static_cast<uint32_t>(uid(plist_dict_get_item(err, "NSUserInfo"))));
    plist_t keys = plist_dict_get_item(info, "NS.keys");
    plist_t values = plist_dict_get_item(info, "NS.objects");
    at = 0;
    for (uint32_t k = 0; k < plist_array_get_size(keys); ++k) {
      if (str(plist_array_get_item(objects, static_cast<uint32_t>(uid(plist_array_get_item(
                                                keys, k))))) == "NSUnderlyingError") {
        at = uid(plist_array_get_item(values, k));
      }
    }
  }
  return out;
}

TEST(DemoKeyed, ErrorChainsNestUnderlyingErrorsWithSignedCodes) {
  struct Case {
    std::vector<ErrorLink> chain;
    std::vector<std::string> expected;
  };
  const std::vector<Case> cases = {
      {{{"CoreDAVHTTPStatusErrorDomain", 401, {{"NSLocalizedDescription", "401"}}},
        {"NSURLErrorDomain", -1013, {{"NSErrorFailingURLStringKey", "https://example.com/"}}},
        {"kCFErrorDomainCFNetwork",
         -1013,
         {{"NSErrorFailingURLStringKey", "https://example.com/"}}}},
       {"CoreDAVHTTPStatusErrorDomain 401", "NSURLErrorDomain -1013",
        "kCFErrorDomainCFNetwork -1013"}},
      {{{"NSCocoaErrorDomain", 4, {}}}, {"NSCocoaErrorDomain 4"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(chainOf(keyedErrorChain(c.chain)), c.expected);
  }
  EXPECT_TRUE(keyedErrorChain({}).empty());
}

}  // namespace
}  // namespace demohome
