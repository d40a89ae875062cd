// Keyed archives (NSKeyedArchiver binary plists) built at test time, the way
// Foundation lays them out, and blobs written into fixture stores.
#pragma once

#include <plist/plist.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/TeskTestHome.h"

namespace tesk_test {

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// Builds NSKeyedArchiver archives the way Foundation lays them out: "$objects"[0] is
// "$null", objects refer to each other and to their class by UID.
class KeyedArchive {
 public:
  KeyedArchive() : objects_(plist_new_array()) { add(plist_new_string("$null")); }

  // Appends a node to $objects (taking ownership) and returns its UID.
  uint64_t add(plist_t node) {
    plist_array_append_item(objects_.get(), node);
    return plist_array_get_size(objects_.get()) - 1;
  }
  uint64_t string(const char* s) { return add(plist_new_string(s)); }

  // A class description, shared by every object of that class.
  uint64_t klass(std::vector<const char*> chain) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "$classname", plist_new_string(chain.front()));
    plist_t classes = plist_new_array();
    for (const char* c : chain) plist_array_append_item(classes, plist_new_string(c));
    plist_dict_set_item(dict, "$classes", classes);
    return add(dict);
  }

  // An object of class `cls` with `fields`, each a key and a node (a UID for objects).
  uint64_t object(uint64_t cls, std::vector<std::pair<const char*, plist_t>> fields) {
    plist_t dict = plist_new_dict();
    for (auto& [key, node] : fields) plist_dict_set_item(dict, key, node);
    plist_dict_set_item(dict, "$class", plist_new_uid(cls));
    return add(dict);
  }

  static plist_t uids(std::vector<uint64_t> list) {
    plist_t array = plist_new_array();
    for (uint64_t u : list) plist_array_append_item(array, plist_new_uid(u));
    return array;
  }

  uint64_t error(const char* domain, int64_t code, std::optional<uint64_t> underlying) {
    if (!errorClass_) errorClass_ = klass({"NSError", "NSObject"});
    if (!dictClass_) dictClass_ = klass({"NSDictionary", "NSObject"});
    std::vector<uint64_t> keys, values;
    if (underlying) {
      keys.push_back(string("NSUnderlyingError"));
      values.push_back(*underlying);
    }
    keys.push_back(string("NSLocalizedDescription"));
    values.push_back(string("something failed"));
    const uint64_t info =
        object(*dictClass_, {{"NS.keys", uids(keys)}, {"NS.objects", uids(values)}});
    return object(*errorClass_, {{"NSDomain", plist_new_uid(string(domain))},
                                 {"NSCode", plist_new_uint(static_cast<uint64_t>(code))},
                                 {"NSUserInfo", plist_new_uid(info)}});
  }

  // The archive's bytes with `root` as $top.root.
  std::vector<uint8_t> bytes(uint64_t root, const char* topKey = "root") const {
    PlistPtr top(plist_new_dict());
    plist_dict_set_item(top.get(), "$version", plist_new_uint(100000));
    plist_dict_set_item(top.get(), "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_t t = plist_new_dict();
    plist_dict_set_item(t, topKey, plist_new_uid(root));
    plist_dict_set_item(top.get(), "$top", t);
    plist_dict_set_item(top.get(), "$objects", plist_copy(objects_.get()));
    char* raw = nullptr;
    uint32_t length = 0;
    plist_to_bin(top.get(), &raw, &length);
    std::unique_ptr<char, void (*)(char*)> owned(raw, [](char* p) { plist_to_bin_free(p); });
    return {raw, raw + length};
  }

 private:
  PlistPtr objects_;
  std::optional<uint64_t> errorClass_, dictClass_;
};

// A keyed-archived NSString.
inline std::vector<uint8_t> keyedString(const std::string& s) {
  KeyedArchive a;
  return a.bytes(a.string(s.c_str()));
}

// A keyed-archived NSError whose underlying errors are `chain` (outermost first).
inline std::vector<uint8_t> keyedError(const std::vector<std::pair<std::string, int>>& chain) {
  KeyedArchive a;
  std::optional<uint64_t> inner;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    inner = a.error(it->first.c_str(), it->second, inner);
  }
  return a.bytes(inner.value_or(0));
}

// Runs `sql` (one `?` parameter, bound to `bytes`) on the store at `path`.
inline void execBlob(const std::string& path, const std::string& sql,
                     const std::vector<uint8_t>& bytes) {
  DB db = openDB(path);
  Insert(db.get(), sql).b(bytes).run();
}

}  // namespace tesk_test
