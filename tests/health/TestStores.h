// Tiny SQLite stores and keyed archives built at test time for the health tests.
#pragma once

#include <plist/plist.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace teststores {

// Inserts one blob value with `sql` (one `?` parameter).
inline void execBlob(const std::string& path, const std::string& sql,
                     const std::vector<uint8_t>& bytes) {
  sqlite3* raw = nullptr;
  sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
  std::unique_ptr<sqlite3, decltype(&sqlite3_close_v2)> db(raw, &sqlite3_close_v2);
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db.get(), sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(db.get()));
  }
  std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> stmt(st, &sqlite3_finalize);
  sqlite3_bind_blob(st, 1, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
  if (sqlite3_step(st) != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(db.get()));
}

// Builds NSKeyedArchiver binary plists: objects are appended to $objects and referred
// to by UID.
class Archive {
 public:
  Archive() : objects_(plist_new_array()) {
    plist_array_append_item(objects_, plist_new_string("$null"));
  }
  ~Archive() {
    if (objects_ != nullptr) plist_free(objects_);
  }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  uint64_t add(plist_t object) {
    plist_array_append_item(objects_, object);
    return plist_array_get_size(objects_) - 1;
  }
  uint64_t string(const std::string& s) { return add(plist_new_string(s.c_str())); }
  uint64_t klass(const std::string& name) {
    plist_t c = plist_new_dict();
    plist_dict_set_item(c, "$classname", plist_new_string(name.c_str()));
    plist_t chain = plist_new_array();
    plist_array_append_item(chain, plist_new_string(name.c_str()));
    plist_array_append_item(chain, plist_new_string("NSObject"));
    plist_dict_set_item(c, "$classes", chain);
    return add(c);
  }
  // An object of `className` with the keyed fields given as UIDs or plain values.
  uint64_t object(const std::string& className,
                  std::vector<std::pair<std::string, plist_t>> fields) {
    uint64_t cls = klass(className);
    plist_t o = plist_new_dict();
    for (auto& [k, v] : fields) plist_dict_set_item(o, k.c_str(), v);
    plist_dict_set_item(o, "$class", plist_new_uid(cls));
    return add(o);
  }
  uint64_t dictionary(std::vector<std::pair<uint64_t, uint64_t>> keyValues) {
    plist_t keys = plist_new_array(), values = plist_new_array();
    for (auto [k, v] : keyValues) {
      plist_array_append_item(keys, plist_new_uid(k));
      plist_array_append_item(values, plist_new_uid(v));
    }
    return object("NSDictionary", {{"NS.keys", keys}, {"NS.objects", values}});
  }
  // The archive bytes with `root` as $top.root.
  std::vector<uint8_t> bytes(uint64_t root) {
    plist_t top = plist_new_dict();
    plist_dict_set_item(top, "root", plist_new_uid(root));
    plist_t doc = plist_new_dict();
    plist_dict_set_item(doc, "$version", plist_new_uint(100000));
    plist_dict_set_item(doc, "$archiver", plist_new_string("NSKeyedArchiver"));
    plist_dict_set_item(doc, "$top", top);
    plist_dict_set_item(doc, "$objects", objects_);
    objects_ = nullptr;
    char* out = nullptr;
    uint32_t len = 0;
    plist_to_bin(doc, &out, &len);
    std::vector<uint8_t> result(out, out + len);
    std::free(out);
    plist_free(doc);
    return result;
  }

 private:
  plist_t objects_;
};

// A keyed-archived NSString.
inline std::vector<uint8_t> keyedString(const std::string& s) {
  Archive a;
  return a.bytes(a.string(s));
}

// A keyed-archived NSError whose chain of underlying errors is `chain` (outermost
// first), optionally wrapped in a dictionary under "wrapper".
inline std::vector<uint8_t> keyedError(const std::vector<std::pair<std::string, int>>& chain,
                                       bool wrapped = false) {
  Archive a;
  uint64_t inner = 0;
  bool haveInner = false;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    std::vector<std::pair<std::string, plist_t>> fields;
    fields.emplace_back("NSDomain", plist_new_uid(a.string(it->first)));
    fields.emplace_back("NSCode", plist_new_uint(static_cast<uint64_t>(it->second)));
    if (haveInner) {
      uint64_t key = a.string("NSUnderlyingError");
      fields.emplace_back("NSUserInfo", plist_new_uid(a.dictionary({{key, inner}})));
    }
    inner = a.object("NSError", std::move(fields));
    haveInner = true;
  }
  if (wrapped) {
    uint64_t key = a.string("wrapper");
    inner = a.dictionary({{key, inner}});
  }
  return a.bytes(inner);
}

}  // namespace teststores
