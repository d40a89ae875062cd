#include "sources/messages/TeskTypedStream.h"
#include "cli/TeskText.h"

#include <cstring>
#include <string_view>
#include <vector>

#include "sources/messages/TeskDecode.h"

// The stream, as NSArchiver writes it:
//   header: streamer version (4), signature as an unshared string ("streamtyped" for
//   little-endian, "typedstream" for big-endian), system version as an integer;
//   then groups of typed values, each opened by its type encoding (a shared string)
//   and followed by one value per type in it. The root object is the first group.
// Every head byte is read as a signed char. -128 ... -111 are tags, anything else a
// literal: a small integer, or a reference number (index + -110) into one of the
// two tables (shared strings; objects, classes and C strings together).
namespace TeskTypedStream {

namespace {

constexpr int kTagInteger2 = -127;   // 0x81: 2-byte integer follows
constexpr int kTagInteger4 = -126;   // 0x82: 4-byte integer follows
constexpr int kTagFloat = -125;      // 0x83: IEEE float or double follows
constexpr int kTagNew = -124;        // 0x84: a literal string, class or object follows
constexpr int kTagNil = -123;        // 0x85: nil
constexpr int kTagEndObject = -122;  // 0x86: end of an object's value groups
constexpr int kTagInteger8 = -121;   // 0x87: 8-byte integer follows (64-bit values)
constexpr int kFirstTag = -128;
constexpr int kLastTag = -111;
constexpr int64_t kFirstReference = kLastTag + 1;

constexpr int kMaxDepth = 64;           // nested objects, structs and arrays
constexpr size_t kMaxTable = 1u << 20;  // entries per reference table
constexpr size_t kMaxEncoding = 256;    // bytes of one type encoding string

// One entry of the object table: a literal object, class or C string, in the order
// the stream introduced them.
struct Entry {
  enum class Kind : uint8_t { object, klass, cstring };
  Kind kind = Kind::object;
  std::string_view name;     // class name, or C string contents
  int32_t super = -1;        // class: superclass entry, -1 for none
  int32_t cls = -1;          // object: class entry, -1 for nil
  bool hasText = false;      // object: its first group was a single '+' value
  std::string_view text;     // ... and these are its bytes
  int32_t firstObject = -2;  // object: its first group's '@' value (-1 nil, -2 none)
};

class Reader {
 public:
  explicit Reader(Bytes blob) : p_(blob.data()), end_(blob.data() + blob.size()) {
    // Each value read costs one unit; no well-formed stream needs more than a few
    // per byte, so zero-width values ('!', empty structs) cannot spin.
    budget_ = 4 * static_cast<int64_t>(blob.size()) + 64;
    // A Messages body holds a dozen or two of each; start there.
    strings_.reserve(32);
    table_.reserve(32);
  }

  // Reads the header and the root object's group; true and `root` (an object
  // entry) when both are well formed.
  bool readRoot(int32_t& root) {
    if (!readHeader()) return false;
    int head;
    if (!readHead(head)) return false;
    std::string_view encoding;
    if (!readSharedString(head, encoding, false) || encoding.empty()) return false;
    if (encoding.front() != '@') return false;
    // The root group holds the root object first; anything else in it must still read.
    int32_t first = -2;
    if (!readGroupValues(encoding, &first)) return false;
    if (first < 0) return false;
    root = first;
    return true;
  }

  const Entry& entry(int32_t index) const { return table_[static_cast<size_t>(index)]; }

 private:
  bool consume(size_t n, const uint8_t*& at) {
    if (static_cast<size_t>(end_ - p_) < n) return false;
    at = p_;
    p_ += n;
    return true;
  }

  bool spend() { return --budget_ >= 0; }

  uint64_t load(const uint8_t* at, size_t n) const {
    uint64_t v = 0;
    if (littleEndian_) {
      for (size_t i = n; i-- > 0;) v = (v << 8) | at[i];
    } else {
      for (size_t i = 0; i < n; ++i) v = (v << 8) | at[i];
    }
    return v;
  }

  bool readHead(int& head) {
    if (p_ >= end_) return false;
    head = static_cast<int8_t>(*p_++);
    return true;
  }

  // An integer whose head byte is already read. Literal heads are signed chars;
  // the tagged forms are sign-extended two's complement of their width.
  bool readInteger(int head, int64_t& value, bool allowWide = true) {
    if (head < kFirstTag || head > kLastTag) {
      value = head;
      return true;
    }
    const uint8_t* at;
    switch (head) {
      case kTagInteger2:
        if (!consume(2, at)) return false;
        value = static_cast<int16_t>(load(at, 2));
        return true;
      case kTagInteger4:
        if (!consume(4, at)) return false;
        value = static_cast<int32_t>(load(at, 4));
        return true;
      case kTagInteger8:
        if (!allowWide || !consume(8, at)) return false;
        value = static_cast<int64_t>(load(at, 8));
        return true;
      default:
        return false;
    }
  }

  bool readInteger(int64_t& value, bool allowWide = true) {
    int head;
    return readHead(head) && readInteger(head, value, allowWide);
  }

  bool readReference(int head, size_t tableSize, int32_t& index) {
    int64_t number;
    if (!readInteger(head, number, false)) return false;
    const int64_t i = number - kFirstReference;
    if (i < 0 || static_cast<uint64_t>(i) >= tableSize) return false;
    index = static_cast<int32_t>(i);
    return true;
  }

  bool readHeader() {
    const uint8_t* at;
    if (!consume(2, at)) return false;
    if (at[0] != 4 || at[1] != 11) return false;
    if (!consume(11, at)) return false;
    std::string_view signature(reinterpret_cast<const char*>(at), 11);
    if (signature == "streamtyped") {
      littleEndian_ = true;
    } else if (signature == "typedstream") {
      littleEndian_ = false;
    } else {
      return false;
    }
    int64_t systemVersion;
    return readInteger(systemVersion, false);
  }

  // Length-prefixed bytes; nil when the head is the nil tag.
  bool readUnsharedString(int head, std::string_view& out, bool& isNil) {
    isNil = false;
    if (head == kTagNil) {
      isNil = true;
      out = {};
      return true;
    }
    int64_t length;
    if (!readInteger(head, length, false) || length < 0) return false;
    const uint8_t* at;
    // The declared length must fit in what is left before anything is taken.
    if (!consume(static_cast<size_t>(length), at)) return false;
    out = std::string_view(reinterpret_cast<const char*>(at), static_cast<size_t>(length));
    return true;
  }

  bool readSharedString(int head, std::string_view& out, bool allowNil) {
    if (head == kTagNil) {
      out = {};
      return allowNil;
    }
    if (head == kTagNew) {
      int next;
      bool isNil;
      if (!readHead(next) || !readUnsharedString(next, out, isNil) || isNil) return false;
      if (strings_.size() >= kMaxTable) return false;
      strings_.push_back(out);
      return true;
    }
    int32_t index;
    if (!readReference(head, strings_.size(), index)) return false;
    out = strings_[static_cast<size_t>(index)];
    return true;
  }

  bool push(Entry e, int32_t& index) {
    if (table_.size() >= kMaxTable) return false;
    index = static_cast<int32_t>(table_.size());
    table_.push_back(e);
    return true;
  }

  // A class chain: literal classes, each followed by its superclass, ending in nil
  // or a reference to a class read before. `index` is the first class (-1 for nil).
  bool readClass(int head, int32_t& index) {
    int32_t previous = -1;
    index = -1;
    while (head == kTagNew) {
      if (!spend()) return false;
      Entry klass;
      klass.kind = Entry::Kind::klass;
      int next;
      if (!readHead(next) || !readSharedString(next, klass.name, false)) return false;
      int64_t version;
      if (!readInteger(version, false)) return false;
      int32_t at;
      if (!push(klass, at)) return false;
      if (previous >= 0) {
        table_[static_cast<size_t>(previous)].super = at;
      } else {
        index = at;
      }
      previous = at;
      if (!readHead(head)) return false;
    }
    int32_t tail = -1;
    if (head != kTagNil) {
      if (!readReference(head, table_.size(), tail)) return false;
      if (table_[static_cast<size_t>(tail)].kind != Entry::Kind::klass) return false;
    }
    if (previous >= 0) {
      table_[static_cast<size_t>(previous)].super = tail;
    } else {
      index = tail;
    }
    return true;
  }

  bool readObject(int head, int32_t& index) {
    if (head == kTagNil) {
      index = -1;
      return true;
    }
    if (head != kTagNew) {
      if (!readReference(head, table_.size(), index)) return false;
      return table_[static_cast<size_t>(index)].kind == Entry::Kind::object;
    }
    if (++depth_ > kMaxDepth) return false;
    if (!push(Entry{}, index)) return false;
    int classHead;
    int32_t cls;
    if (!readHead(classHead) || !readClass(classHead, cls)) return false;
    if (cls < 0) return false;  // an object always names its class
    table_[static_cast<size_t>(index)].cls = cls;
    bool first = true;
    for (;;) {
      int next;
      if (!readHead(next)) return false;
      if (next == kTagEndObject) break;
      std::string_view encoding;
      if (!readSharedString(next, encoding, false) || encoding.empty()) return false;
      if (first) {
        // What the string classes keep first: their bytes ('+') or their string ('@').
        int32_t firstObject = -2;
        if (!readGroupValues(encoding, &firstObject)) return false;
        Entry& self = table_[static_cast<size_t>(index)];
        self.firstObject = firstObject;
        if (encoding == "+") {
          self.text = lastUnshared_;
          self.hasText = !lastUnsharedNil_;
        }
        first = false;
      } else if (!readGroupValues(encoding, nullptr)) {
        return false;
      }
    }
    --depth_;
    return true;
  }

  // The end of the single type starting at `pos` in `encoding`, or npos.
  static size_t typeEnd(std::string_view encoding, size_t pos, int depth) {
    if (pos >= encoding.size() || depth > kMaxDepth) return std::string_view::npos;
    const char c = encoding[pos];
    if (std::strchr("cCBsSiIlLqQfd*%:+#@!", c) != nullptr && c != '\0') return pos + 1;
    if (c == '[') {
      size_t i = pos + 1;
      while (i < encoding.size() && encoding[i] >= '0' && encoding[i] <= '9') ++i;
      if (i == pos + 1) return std::string_view::npos;
      i = typeEnd(encoding, i, depth + 1);
      if (i == std::string_view::npos || i >= encoding.size() || encoding[i] != ']')
        return std::string_view::npos;
      return i + 1;
    }
    if (c == '{') {
      size_t i = pos + 1;
      while (i < encoding.size() && encoding[i] != '=' && encoding[i] != '}') ++i;
      if (i >= encoding.size()) return std::string_view::npos;
      if (encoding[i] == '=') {
        ++i;
        while (i < encoding.size() && encoding[i] != '}') {
          i = typeEnd(encoding, i, depth + 1);
          if (i == std::string_view::npos) return i;
        }
        if (i >= encoding.size()) return std::string_view::npos;
      }
      return i + 1;
    }
    return std::string_view::npos;
  }

  bool readGroupValues(std::string_view encoding, int32_t* firstObject) {
    if (encoding.size() > kMaxEncoding) return false;
    size_t pos = 0;
    bool first = true;
    while (pos < encoding.size()) {
      const size_t next = typeEnd(encoding, pos, 0);
      if (next == std::string_view::npos) return false;
      int32_t object = -2;
      if (!readValue(encoding.substr(pos, next - pos), first ? &object : nullptr)) return false;
      if (first && firstObject != nullptr) *firstObject = object;
      first = false;
      pos = next;
    }
    return true;
  }

  // One value of the single type `type`; `object` receives an '@' value's entry.
  bool readValue(std::string_view type, int32_t* object) {
    if (!spend()) return false;
    const uint8_t* at;
    const char c = type.front();
    switch (c) {
      case 'c':
      case 'C':
        return consume(1, at);  // chars are raw bytes, never tagged
      case 'B':
        return consume(1, at) && at[0] <= 1;
      case 's':
      case 'S':
      case 'i':
      case 'I':
      case 'l':
      case 'L':
      case 'q':
      case 'Q': {
        int64_t value;
        return readInteger(value);
      }
      case 'f':
      case 'd': {
        int head;
        if (!readHead(head)) return false;
        if (head == kTagFloat) return consume(c == 'f' ? 4 : 8, at);
        int64_t value;
        return readInteger(head, value);
      }
      case '*': {
        int head;
        if (!readHead(head)) return false;
        if (head == kTagNil) return true;
        if (head == kTagNew) {
          Entry string;
          string.kind = Entry::Kind::cstring;
          int next;
          if (!readHead(next) || !readSharedString(next, string.name, false)) return false;
          int32_t index;
          return push(string, index);
        }
        int32_t index;
        if (!readReference(head, table_.size(), index)) return false;
        return table_[static_cast<size_t>(index)].kind == Entry::Kind::cstring;
      }
      case '%':
      case ':': {
        int head;
        std::string_view name;
        return readHead(head) && readSharedString(head, name, true);
      }
      case '+': {
        int head;
        if (!readHead(head)) return false;
        return readUnsharedString(head, lastUnshared_, lastUnsharedNil_);
      }
      case '#': {
        int head;
        int32_t index;
        return readHead(head) && readClass(head, index);
      }
      case '@': {
        int head;
        int32_t index;
        if (!readHead(head) || !readObject(head, index)) return false;
        if (object != nullptr) *object = index;
        return true;
      }
      case '!':
        return true;  // an ignored field: the type is written, no data
      case '[':
        return readArray(type);
      case '{':
        return readStruct(type);
      default:
        return false;
    }
  }

  bool readArray(std::string_view type) {
    size_t i = 1;
    uint64_t count = 0;
    while (i < type.size() && type[i] >= '0' && type[i] <= '9') {
      count = count * 10 + static_cast<uint64_t>(type[i] - '0');
      if (count > (1u << 30)) return false;
      ++i;
    }
    const std::string_view element = type.substr(i, type.size() - 1 - i);
    if (element == "c" || element == "C") {
      const uint8_t* at;
      return consume(static_cast<size_t>(count), at);  // byte arrays are stored raw
    }
    if (++depth_ > kMaxDepth) return false;
    for (uint64_t k = 0; k < count; ++k) {
      if (!readValue(element, nullptr)) return false;
    }
    --depth_;
    return true;
  }

  bool readStruct(std::string_view type) {
    size_t i = 1;
    while (i < type.size() && type[i] != '=' && type[i] != '}') ++i;
    if (i >= type.size() || type[i] == '}') return true;  // no fields
    ++i;
    if (++depth_ > kMaxDepth) return false;
    while (i < type.size() - 1) {
      const size_t next = typeEnd(type, i, 0);
      if (next == std::string_view::npos) return false;
      if (!readValue(type.substr(i, next - i), nullptr)) return false;
      i = next;
    }
    --depth_;
    return true;
  }

  const uint8_t* p_;
  const uint8_t* end_;
  bool littleEndian_ = true;
  int depth_ = 0;
  int64_t budget_ = 0;
  std::vector<std::string_view> strings_;
  std::vector<Entry> table_;
  std::string_view lastUnshared_;
  bool lastUnsharedNil_ = true;
};

bool isClass(std::string_view name, std::string_view a, std::string_view b) {
  return name == a || name == b;
}

// The bytes of a string-class object, when it is one and they were present.
std::optional<std::string_view> stringBytes(const Reader& reader, int32_t index) {
  const Entry& object = reader.entry(index);
  if (object.kind != Entry::Kind::object || object.cls < 0) return std::nullopt;
  const std::string_view name = reader.entry(object.cls).name;
  if (!isClass(name, "NSString", "NSMutableString") || !object.hasText) return std::nullopt;
  return object.text;
}

}  // namespace

std::optional<RootString> rootString(Bytes blob) {
  Reader reader(blob);
  int32_t root;
  if (!reader.readRoot(root)) return std::nullopt;
  const Entry& object = reader.entry(root);
  if (object.cls < 0) return std::nullopt;
  const std::string_view name = reader.entry(object.cls).name;
  RootString out;
  std::optional<std::string_view> bytes;
  if (isClass(name, "NSString", "NSMutableString")) {
    bytes = stringBytes(reader, root);
    out.kind = RootKind::string;
  } else if (isClass(name, "NSAttributedString", "NSMutableAttributedString")) {
    if (object.firstObject < 0) return std::nullopt;
    bytes = stringBytes(reader, object.firstObject);
    out.kind = RootKind::attributedString;
  }
  if (!bytes || !TeskText::isValidUTF8(*bytes)) return std::nullopt;
  out.text.assign(bytes->data(), bytes->size());
  return out;
}

std::optional<std::string> rootClassName(Bytes blob) {
  Reader reader(blob);
  int32_t root;
  if (!reader.readRoot(root)) return std::nullopt;
  const Entry& object = reader.entry(root);
  if (object.cls < 0) return std::nullopt;
  return std::string(reader.entry(object.cls).name);
}

}  // namespace TeskTypedStream
