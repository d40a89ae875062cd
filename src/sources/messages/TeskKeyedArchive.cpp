#include "sources/messages/TeskKeyedArchive.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <unordered_set>

namespace TeskKeyedArchive {

namespace {

constexpr int kMaxDepth = 64;
constexpr int kMaxErrors = 8;
constexpr std::string_view kArrow = " \u2192 ";

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

struct IterFree {
  void operator()(void* iter) const { std::free(iter); }
};
using IterPtr = std::unique_ptr<void, IterFree>;

struct KeyFree {
  void operator()(char* key) const { std::free(key); }
};
using KeyPtr = std::unique_ptr<char, KeyFree>;

std::string_view stringOf(plist_t node) {
  uint64_t length = 0;
  const char* s = plist_get_string_ptr(node, &length);
  return s == nullptr ? std::string_view() : std::string_view(s, static_cast<size_t>(length));
}

bool isOneOf(std::string_view name, std::initializer_list<std::string_view> names) {
  for (std::string_view n : names) {
    if (name == n) return true;
  }
  return false;
}

// Walks the object graph of one archive. Every archived object is resolved afresh
// where it is referenced (values are plain), so shared sub-graphs are paid for per
// use: a work budget keeps a graph of many shared references from exploding.
class Resolver {
 public:
  Resolver(plist_t objects, uint32_t count)
      : objects_(objects), count_(count), budget_(16 * static_cast<int64_t>(count) + 4096) {}

  // The value of `$objects[uid]`; false when the graph is malformed or too large.
  bool resolve(uint64_t uid, int depth, Value& out) {
    if (--budget_ < 0 || depth > kMaxDepth || uid >= count_) return false;
    if (onPath_.count(uid) != 0) {
      out = Value{};  // a reference back into its own ancestors: the cycle reads as null
      return true;
    }
    plist_t node = plist_array_get_item(objects_, static_cast<uint32_t>(uid));
    if (node == nullptr) return false;
    if (uid == 0 && plist_get_node_type(node) == PLIST_STRING && stringOf(node) == "$null") {
      out = Value{};  // the archive's nil
      return true;
    }
    onPath_.insert(uid);
    const bool ok = decodeNode(node, depth, out);
    onPath_.erase(uid);
    return ok;
  }

  // Class names met while resolving, for callers that allow only some.
  const std::unordered_set<std::string>& classesSeen() const { return classesSeen_; }

 private:
  // A value as it stands inside an object or collection: a UID is followed, plain
  // plist values are taken as they are.
  bool decodeNode(plist_t node, int depth, Value& out) {
    if (--budget_ < 0 || depth > kMaxDepth) return false;
    switch (plist_get_node_type(node)) {
      case PLIST_UID: {
        uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return resolve(uid, depth + 1, out);
      }
      case PLIST_STRING: {
        out = Value{};
        out.type = Value::Type::string;
        out.string.assign(stringOf(node));
        return true;
      }
      case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        out = Value{};
        out.type = Value::Type::boolean;
        out.boolean = b != 0;
        return true;
      }
      case PLIST_UINT: {
        // Binary plists store integers as signed 64-bit two's complement.
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        out = Value{};
        out.type = Value::Type::integer;
        out.integer = static_cast<int64_t>(v);
        return true;
      }
      case PLIST_REAL: {
        out = Value{};
        out.type = Value::Type::real;
        plist_get_real_val(node, &out.real);
        return true;
      }
      case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        out = Value{};
        out.type = Value::Type::date;
        out.real = static_cast<double>(sec) + static_cast<double>(usec) / 1e6;
        return true;
      }
      case PLIST_DATA: {
        uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(node, &length);
        out = Value{};
        out.type = Value::Type::data;
        if (bytes != nullptr) out.string.assign(bytes, static_cast<size_t>(length));
        return true;
      }
      case PLIST_ARRAY:
        return decodeArray(node, depth, out);
      case PLIST_DICT:
        return plist_dict_get_item(node, "$class") != nullptr ? decodeObject(node, depth, out)
                                                              : decodePlainDict(node, depth, out);
      default:
        return false;
    }
  }

  bool decodeArray(plist_t node, int depth, Value& out) {
    out = Value{};
    out.type = Value::Type::array;
    const uint32_t n = plist_array_get_size(node);
    out.items.reserve(std::min<uint32_t>(n, 1024));
    for (uint32_t i = 0; i < n; ++i) {
      Value item;
      if (!decodeNode(plist_array_get_item(node, i), depth + 1, item)) return false;
      out.items.push_back(std::move(item));
    }
    return true;
  }

  // Calls `f(key, value)` for each entry of a plist dictionary in stored order.
  template <typename F>
  static bool eachEntry(plist_t dict, F f) {
    plist_dict_iter raw = nullptr;
    plist_dict_new_iter(dict, &raw);
    IterPtr iter(raw);
    if (!iter) return false;
    for (;;) {
      char* rawKey = nullptr;
      plist_t value = nullptr;
      plist_dict_next_item(dict, iter.get(), &rawKey, &value);
      KeyPtr key(rawKey);
      if (value == nullptr) return true;
      if (!key || !f(std::string_view(key.get()), value)) return false;
    }
  }

  bool decodePlainDict(plist_t node, int depth, Value& out) {
    out = Value{};
    out.type = Value::Type::dictionary;
    return eachEntry(node, [&](std::string_view key, plist_t value) {
      Value::Entry entry;
      entry.key.type = Value::Type::string;
      entry.key.string.assign(key);
      if (!decodeNode(value, depth + 1, entry.value)) return false;
      out.entries.push_back(std::move(entry));
      return true;
    });
  }

  // The class chain of an archived object from its `$class` reference.
  bool classChain(plist_t object, std::vector<std::string>& chain) {
    plist_t ref = plist_dict_get_item(object, "$class");
    if (plist_get_node_type(ref) != PLIST_UID) return false;
    uint64_t uid = 0;
    plist_get_uid_val(ref, &uid);
    if (uid >= count_) return false;
    plist_t klass = plist_array_get_item(objects_, static_cast<uint32_t>(uid));
    if (plist_get_node_type(klass) != PLIST_DICT) return false;
    plist_t name = plist_dict_get_item(klass, "$classname");
    if (plist_get_node_type(name) != PLIST_STRING) return false;
    chain.emplace_back(stringOf(name));
    plist_t classes = plist_dict_get_item(klass, "$classes");
    if (plist_get_node_type(classes) == PLIST_ARRAY) {
      const uint32_t n = plist_array_get_size(classes);
      for (uint32_t i = 0; i < n && i < 64; ++i) {
        plist_t c = plist_array_get_item(classes, i);
        if (plist_get_node_type(c) != PLIST_STRING) return false;
        const std::string_view s = stringOf(c);
        if (i == 0 && s == chain.front()) continue;
        chain.emplace_back(s);
      }
    }
    return true;
  }

  // A collection's elements stored under `key` as an array of references.
  bool elements(plist_t object, const char* key, int depth, std::vector<Value>& out) {
    plist_t list = plist_dict_get_item(object, key);
    if (list == nullptr) return true;  // an empty collection may omit it
    if (plist_get_node_type(list) != PLIST_ARRAY) return false;
    const uint32_t n = plist_array_get_size(list);
    out.reserve(std::min<uint32_t>(n, 1024));
    for (uint32_t i = 0; i < n; ++i) {
      Value v;
      if (!decodeNode(plist_array_get_item(list, i), depth + 1, v)) return false;
      out.push_back(std::move(v));
    }
    return true;
  }

  bool decodeObject(plist_t node, int depth, Value& out) {
    out = Value{};
    std::vector<std::string> chain;
    if (!classChain(node, chain)) return false;
    const std::string& name = chain.front();
    classesSeen_.insert(name);
    if (isOneOf(name, {"NSString", "NSMutableString"})) {
      plist_t s = plist_dict_get_item(node, "NS.string");
      if (s == nullptr) return false;
      Value inner;
      if (!decodeNode(s, depth + 1, inner) || inner.type != Value::Type::string) return false;
      out = std::move(inner);
      return true;
    }
    if (isOneOf(name, {"NSArray", "NSMutableArray", "NSSet", "NSMutableSet", "NSOrderedSet",
                       "NSMutableOrderedSet"})) {
      out.type = Value::Type::array;
      return elements(node, "NS.objects", depth, out.items);
    }
    if (isOneOf(name, {"NSDictionary", "NSMutableDictionary"})) {
      out.type = Value::Type::dictionary;
      std::vector<Value> keys, values;
      if (!elements(node, "NS.keys", depth, keys) || !elements(node, "NS.objects", depth, values))
        return false;
      if (keys.size() != values.size()) return false;
      out.entries.reserve(keys.size());
      for (size_t i = 0; i < keys.size(); ++i) {
        out.entries.push_back(Value::Entry{std::move(keys[i]), std::move(values[i])});
      }
      return true;
    }
    if (name == "NSDate") {
      plist_t t = plist_dict_get_item(node, "NS.time");
      Value time;
      if (t == nullptr || !decodeNode(t, depth + 1, time)) return false;
      if (time.type == Value::Type::real) {
        out.real = time.real;
      } else if (time.type == Value::Type::integer) {
        out.real = static_cast<double>(time.integer);
      } else {
        return false;
      }
      out.type = Value::Type::date;
      return true;
    }
    if (isOneOf(name, {"NSData", "NSMutableData"})) {
      plist_t d = plist_dict_get_item(node, "NS.data");
      Value data;
      if (d == nullptr || !decodeNode(d, depth + 1, data) || data.type != Value::Type::data)
        return false;
      out = std::move(data);
      return true;
    }
    if (name == "NSNull") return true;
    // Any other class (NSURL, NSError, NSAttributedString, NSNumber's keyed form ...):
    // its fields, decoded, in stored order.
    out.type = Value::Type::object;
    out.classes = std::move(chain);
    return eachEntry(node, [&](std::string_view key, plist_t value) {
      if (key == "$class") return true;
      Value::Field field;
      field.key.assign(key);
      if (!decodeNode(value, depth + 1, field.value)) return false;
      out.fields.push_back(std::move(field));
      return true;
    });
  }

  plist_t objects_;
  uint32_t count_;
  int64_t budget_;
  std::unordered_set<uint64_t> onPath_;
  std::unordered_set<std::string> classesSeen_;
};

// What libplist 2.2 cannot be trusted with, checked on the raw object table before
// the library sees the bytes:
// - a string object holding a NUL (ASCII or UTF-16): asked for such a dictionary key,
//   the library aborts on an assertion;
// - a table entry or a container reference pointing outside the object data;
// - deep nesting: the library parses containers recursively and frees them
//   recursively, so a chain of arrays 100,000 deep overflows the stack; and since it
//   copies an object once per reference, a few shared containers nested a few dozen
//   deep expand to billions of nodes.
// The walk below is iterative (an explicit stack) and refuses containers nested
// deeper than kMaxPlistDepth, reference cycles, and trees that would expand to more
// nodes than the archive has bytes. Every reference takes at least one byte, so a
// tree whose containers are each referenced once (what archivers write) never
// exceeds that.
constexpr uint32_t kMaxPlistDepth = 64;

class ObjectTable {
 public:
  explicit ObjectTable(Bytes b) : b_(b) {}

  bool acceptable() {
    constexpr size_t kHeader = 8, kTrailer = 32;
    if (b_.size() < kHeader + kTrailer) return false;
    end_ = b_.size() - kTrailer;
    const size_t offsetWidth = b_[end_ + 6];
    refWidth_ = b_[end_ + 7];
    uint64_t count = 0, top = 0, table = 0;
    if (!be(end_ + 8, 8, count) || !be(end_ + 16, 8, top) || !be(end_ + 24, 8, table)) return false;
    if (offsetWidth == 0 || offsetWidth > 8 || refWidth_ == 0 || refWidth_ > 8) return false;
    if (table > end_ || count > end_ || top >= count) return false;
    if ((end_ - table) / offsetWidth < count) return false;
    offsets_.resize(static_cast<size_t>(count));
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t at = 0;
      if (!be(table + i * offsetWidth, offsetWidth, at) || at < kHeader || at >= end_) return false;
      offsets_[i] = static_cast<size_t>(at);
      if (!stringFreeOfNul(offsets_[i])) return false;
    }
    return shallowEnough(static_cast<size_t>(top));
  }

 private:
  // A container's references: `n` of them, each refWidth_ bytes, from `first`.
  struct Refs {
    size_t first = 0;
    uint64_t n = 0;
  };

  bool be(size_t at, size_t width, uint64_t& out) const {
    if (width == 0 || width > 8 || at > b_.size() || b_.size() - at < width) return false;
    out = 0;
    for (size_t i = 0; i < width; ++i) out = (out << 8) | b_[at + i];
    return true;
  }

  // The length of the object whose marker is at `at`: the low nibble, or, when that
  // is 0xF, an integer object that follows (0x1N, then 2^N big-endian bytes).
  // `start` is where the object's contents begin.
  bool length(size_t at, uint64_t& n, size_t& start) const {
    n = b_[at] & 0x0F;
    start = at + 1;
    if (n != 0x0F) return true;
    if (start >= end_ || (b_[start] >> 4) != 0x1 || (b_[start] & 0x0F) > 3) return false;
    const size_t width = size_t{1} << (b_[start] & 0x0F);
    if (!be(start + 1, width, n)) return false;
    start += 1 + width;
    return true;
  }

  bool stringFreeOfNul(size_t at) const {
    const uint8_t kind = b_[at] >> 4;
    if (kind != 0x5 && kind != 0x6) return true;
    uint64_t n = 0;
    size_t start = 0;
    if (!length(at, n, start)) return false;
    const uint64_t unit = kind == 0x6 ? 2 : 1;
    if (start > end_ || n > (end_ - start) / unit) return false;
    for (uint64_t k = 0; k < n; ++k) {
      const size_t pos = start + static_cast<size_t>(k * unit);
      if (b_[pos] == 0 && (unit == 1 || b_[pos + 1] == 0)) return false;
    }
    return true;
  }

  // Arrays and sets hold n references, dictionaries n keys and n values.
  bool refsOf(size_t object, Refs& refs) const {
    const size_t at = offsets_[object];
    const uint8_t kind = b_[at] >> 4;
    refs = Refs{};
    if (kind != 0xA && kind != 0xB && kind != 0xC && kind != 0xD) return true;
    uint64_t n = 0;
    size_t start = 0;
    if (!length(at, n, start)) return false;
    if (kind == 0xD) {
      if (n > std::numeric_limits<uint64_t>::max() / 2) return false;
      n *= 2;
    }
    if (start > end_ || n > (end_ - start) / refWidth_) return false;
    refs.first = start;
    refs.n = n;
    return true;
  }

  // Depth-first from the top object with an explicit stack: containers on the current
  // path are "open"; a finished one keeps the number of nodes its subtree expands to.
  bool shallowEnough(size_t top) {
    enum : uint8_t { unseen, open, done };
    std::vector<uint8_t> state(offsets_.size(), unseen);
    std::vector<uint64_t> nodes(offsets_.size(), 0);
    const uint64_t budget = b_.size();
    struct Frame {
      size_t object;
      Refs refs;
      uint64_t next;   // the reference to visit next
      uint64_t total;  // nodes of the subtree so far, itself included
    };
    std::vector<Frame> stack;
    // Enters `object`: a leaf or a finished container is counted into its parent at
    // once, an unseen container is pushed.
    auto enter = [&](size_t object) -> bool {
      if (state[object] == open) return false;  // a cycle
      uint64_t counted = 1;
      if (state[object] == done) {
        counted = nodes[object];
      } else {
        Refs refs;
        if (!refsOf(object, refs)) return false;
        if (refs.n > 0) {
          if (stack.size() >= kMaxPlistDepth) return false;
          state[object] = open;
          stack.push_back(Frame{object, refs, 0, 1});
          return true;
        }
        state[object] = done;
        nodes[object] = 1;
      }
      if (!stack.empty()) {
        stack.back().total += counted;
        if (stack.back().total > budget) return false;
      }
      return true;
    };
    if (!enter(top)) return false;
    while (!stack.empty()) {
      Frame& f = stack.back();
      if (f.next == f.refs.n) {
        const Frame finished = f;
        stack.pop_back();
        state[finished.object] = done;
        nodes[finished.object] = finished.total;
        if (!stack.empty()) {
          stack.back().total += finished.total;
          if (stack.back().total > budget) return false;
        }
        continue;
      }
      uint64_t ref = 0;
      be(f.refs.first + static_cast<size_t>(f.next * refWidth_), refWidth_, ref);
      ++f.next;
      if (ref >= offsets_.size() || !enter(static_cast<size_t>(ref))) return false;
    }
    return true;
  }

  Bytes b_;
  size_t end_ = 0;
  size_t refWidth_ = 0;
  std::vector<size_t> offsets_;
};

// Decodes `bytes` and reports the classes met on the way.
std::optional<Value> decodeWithClasses(Bytes bytes, std::unordered_set<std::string>* classes) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<uint32_t>::max()) return std::nullopt;
  const char* data = reinterpret_cast<const char*>(bytes.data());
  const auto length = static_cast<uint32_t>(bytes.size());
  if (!plist_is_binary(data, length) || !ObjectTable(bytes).acceptable()) return std::nullopt;
  plist_t raw = nullptr;
  plist_from_bin(data, length, &raw);
  PlistPtr root(raw);
  if (!root || plist_get_node_type(root.get()) != PLIST_DICT) return std::nullopt;
  plist_t objects = plist_dict_get_item(root.get(), "$objects");
  plist_t top = plist_dict_get_item(root.get(), "$top");
  if (plist_get_node_type(objects) != PLIST_ARRAY || plist_get_node_type(top) != PLIST_DICT)
    return std::nullopt;
  plist_t start = plist_dict_get_item(top, "root");
  if (start == nullptr) {
    // Archives made with encodeObject:forKey: other than "root": the first entry.
    plist_dict_iter raw_iter = nullptr;
    plist_dict_new_iter(top, &raw_iter);
    IterPtr iter(raw_iter);
    if (!iter) return std::nullopt;
    char* rawKey = nullptr;
    plist_dict_next_item(top, iter.get(), &rawKey, &start);
    KeyPtr key(rawKey);
  }
  if (plist_get_node_type(start) != PLIST_UID) return std::nullopt;
  uint64_t uid = 0;
  plist_get_uid_val(start, &uid);
  Resolver resolver(objects, plist_array_get_size(objects));
  Value out;
  if (!resolver.resolve(uid, 0, out)) return std::nullopt;
  if (classes != nullptr) *classes = resolver.classesSeen();
  return out;
}

// The first error depth-first: the value itself, else inside dictionary values and
// array elements, in stored order.
const Value* firstError(const Value& value, int depth) {
  if (depth > kMaxDepth) return nullptr;
  if (value.type == Value::Type::object && value.className() == "NSError") return &value;
  if (value.type == Value::Type::dictionary) {
    for (const auto& entry : value.entries) {
      if (const Value* e = firstError(entry.value, depth + 1)) return e;
    }
  } else if (value.type == Value::Type::array) {
    for (const auto& item : value.items) {
      if (const Value* e = firstError(item, depth + 1)) return e;
    }
  }
  return nullptr;
}

std::string describe(const Value& error) {
  std::string out;
  const Value* domain = error.field("NSDomain");
  if (domain != nullptr && domain->type == Value::Type::string) out = domain->string;
  out += ' ';
  const Value* code = error.field("NSCode");
  if (code != nullptr && code->type == Value::Type::integer) {
    out += std::to_string(code->integer);
  } else {
    out += '0';
  }
  return out;
}

}  // namespace

const std::string& Value::className() const {
  static const std::string empty;
  return classes.empty() ? empty : classes.front();
}

const Value* Value::field(std::string_view key) const {
  for (const auto& f : fields) {
    if (f.key == key) return &f.value;
  }
  return nullptr;
}

const Value* Value::entry(std::string_view key) const {
  for (const auto& e : entries) {
    if (e.key.type == Type::string && e.key.string == key) return &e.value;
  }
  return nullptr;
}

std::optional<Value> decode(Bytes bytes) { return decodeWithClasses(bytes, nullptr); }

std::optional<std::string> attributedString(Bytes bytes) {
  auto root = decode(bytes);
  if (!root || root->type != Value::Type::object) return std::nullopt;
  if (!isOneOf(root->className(), {"NSAttributedString", "NSMutableAttributedString"}))
    return std::nullopt;
  const Value* s = root->field("NSString");
  if (s == nullptr) s = root->field("NS.string");
  if (s == nullptr || s->type != Value::Type::string) return std::nullopt;
  return s->string;
}

std::optional<std::string> string(Bytes bytes) {
  auto root = decode(bytes);
  if (!root || root->type != Value::Type::string) return std::nullopt;
  return std::move(root->string);
}

std::optional<std::string> errorChain(Bytes bytes) {
  std::unordered_set<std::string> classes;
  auto root = decodeWithClasses(bytes, &classes);
  if (!root) return std::nullopt;
  for (const std::string& name : classes) {
    if (!isOneOf(name, {"NSDictionary", "NSMutableDictionary", "NSArray", "NSMutableArray",
                        "NSError", "NSString", "NSMutableString", "NSNumber", "NSDate", "NSURL"}))
      return std::nullopt;
  }
  const Value* error = firstError(*root, 0);
  if (error == nullptr) return std::nullopt;
  std::string chain;
  for (int n = 0; error != nullptr && n < kMaxErrors; ++n) {
    if (n > 0) chain += kArrow;
    chain += describe(*error);
    const Value* info = error->field("NSUserInfo");
    const Value* next = info != nullptr ? info->entry("NSUnderlyingError") : nullptr;
    error = next != nullptr && next->type == Value::Type::object && next->className() == "NSError"
                ? next
                : nullptr;
  }
  return chain;
}

}  // namespace TeskKeyedArchive
