#include <plist/plist.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>

#include "Keyed.h"

namespace demohome {

namespace {

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// The $objects table of an archive under construction; index 0 is "$null".
class Archive {
 public:
  Archive() : objects_(plist_new_array()) {
    plist_array_append_item(objects_.get(), plist_new_string("$null"));
  }

  // Appends an object (ownership passes to the archive) and returns its UID number.
  uint64_t add(plist_t obj) {
    plist_array_append_item(objects_.get(), obj);
    return plist_array_get_size(objects_.get()) - 1;
  }
  // Reserves a slot to fill later, so a parent can precede its children.
  uint64_t reserve() { return add(plist_new_string("$placeholder")); }
  void fill(uint64_t uid, plist_t obj) {
    plist_array_set_item(objects_.get(), obj, static_cast<uint32_t>(uid));
  }
  uint64_t string(const std::string& s) {
    auto it = strings_.find(s);
    if (it != strings_.end()) return it->second;
    const uint64_t uid = add(plist_new_string(s.c_str()));
    strings_.emplace(s, uid);
    return uid;
  }
  uint64_t classRef(const std::string& name) {
    auto it = classes_.find(name);
    if (it != classes_.end()) return it->second;
    plist_t cls = plist_new_dict();
    plist_dict_set_item(cls, "$classname", plist_new_string(name.c_str()));
    plist_t chain = plist_new_array();
    plist_array_append_item(chain, plist_new_string(name.c_str()));
    plist_array_append_item(chain, plist_new_string("NSObject"));
    plist_dict_set_item(cls, "$classes", chain);
    const uint64_t uid = add(cls);
    classes_.emplace(name, uid);
    return uid;
  }

  std::vector<uint8_t> finish(uint64_t rootUid) {
    PlistPtr root(plist_new_dict());
    plist_dict_set_item(root.get(), "$version", plist_new_uint(100000));
    plist_dict_set_item(root.get(), "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(rootUid));
    plist_dict_set_item(root.get(), "$top", top);
    plist_dict_set_item(root.get(), "$objects", objects_.release());
    char* bin = nullptr;
    uint32_t len = 0;
    plist_to_bin(root.get(), &bin, &len);
    std::unique_ptr<char, decltype(&std::free)> guard(bin, &std::free);
    if (bin == nullptr) throw std::runtime_error("plist_to_bin failed");
    return std::vector<uint8_t>(bin, bin + len);
  }

 private:
  PlistPtr objects_;
  std::map<std::string, uint64_t> strings_;
  std::map<std::string, uint64_t> classes_;
};

// Archives chain[i] (and the rest below it); returns its UID.
uint64_t archiveError(Archive& a, const std::vector<ErrorLink>& chain, size_t i) {
  const uint64_t self = a.reserve();
  const ErrorLink& e = chain[i];
  const uint64_t domain = a.string(e.domain);

  // The user info dictionary: string entries, then the underlying error.
  const uint64_t infoUid = a.reserve();
  plist_t keys = plist_new_array();
  plist_t values = plist_new_array();
  for (const auto& [k, v] : e.info) {
    plist_array_append_item(keys, plist_new_uid(a.string(k)));
    plist_array_append_item(values, plist_new_uid(a.string(v)));
  }
  if (i + 1 < chain.size()) {
    plist_array_append_item(keys, plist_new_uid(a.string("NSUnderlyingError")));
    plist_array_append_item(values, plist_new_uid(archiveError(a, chain, i + 1)));
  }
  plist_t info = plist_new_dict();
  plist_dict_set_item(info, "NS.keys", keys);
  plist_dict_set_item(info, "NS.objects", values);
  plist_dict_set_item(info, "$class", plist_new_uid(a.classRef("NSDictionary")));
  a.fill(infoUid, info);

  plist_t err = plist_new_dict();
  plist_dict_set_item(err, "NSCode", plist_new_uint(static_cast<uint64_t>(e.code)));
  plist_dict_set_item(err, "NSDomain", plist_new_uid(domain));
  plist_dict_set_item(err, "NSUserInfo", plist_new_uid(infoUid));
  plist_dict_set_item(err, "$class", plist_new_uid(a.classRef("NSError")));
  a.fill(self, err);
  return self;
}

}  // namespace

std::vector<uint8_t> keyedString(const std::string& s) {
  Archive a;
  const uint64_t uid = a.string(s);
  return a.finish(uid);
}

std::vector<uint8_t> keyedErrorChain(const std::vector<ErrorLink>& chain) {
  if (chain.empty()) return {};
  Archive a;
  const uint64_t root = archiveError(a, chain, 0);
  return a.finish(root);
}

}  // namespace demohome
