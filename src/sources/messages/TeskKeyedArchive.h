// A portable reader of NSKeyedArchiver binary property lists: resolves the object
// graph ($top -> $objects by UID, classes from $class/$classname) into a small
// value model. Used for keyed-archived message bodies and for the archived values
// of the account database (strings, NSError chains).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace TeskKeyedArchive {

using Bytes = std::span<const uint8_t>;

// One decoded value. Foundation objects the model knows become their plain
// counterpart (NSString -> string, NSArray -> array, NSDictionary -> dictionary,
// NSNumber -> integer/real/boolean, NSDate -> date, NSData -> data); any other
// archived object is `object` with its class chain and its keyed fields, also
// the NSURL, NSError and NSAttributedString objects, whose fields are decoded.
struct Value {
  enum class Type { null, string, integer, real, boolean, date, data, array, dictionary, object };

  Type type = Type::null;
  std::string string;        // string; data bytes for data
  int64_t integer = 0;       // integer
  double real = 0;           // real; date as seconds since 2001-01-01 UTC
  bool boolean = false;      // boolean
  std::vector<Value> items;  // array elements
  struct Entry;
  struct Field;
  std::vector<Entry> entries;        // dictionary entries, archive order
  std::vector<std::string> classes;  // object: class chain, most derived first
  std::vector<Field> fields;         // object: keyed fields, archive order

  // The class name of an object (first of its chain), else empty.
  const std::string& className() const;
  // The field of an object under `key`, else nullptr.
  const Value* field(std::string_view key) const;
  // The dictionary entry whose key is the string `key`, else nullptr.
  const Value* entry(std::string_view key) const;
};

struct Value::Entry {
  Value key;
  Value value;
};

struct Value::Field {
  std::string key;
  Value value;
};

// Decodes the archive's root object ($top "root", else the first $top entry).
// Nothing when the bytes are not a keyed archive or the graph is malformed; UID
// cycles and depth are bounded, a cycle reads as null at the point it closes.
std::optional<Value> decode(Bytes bytes);

// The plain string of a keyed-archived NSAttributedString /
// NSMutableAttributedString root; nothing for any other root.
std::optional<std::string> attributedString(Bytes bytes);

// A keyed-archived NSString / NSMutableString root; nothing for any other root.
std::optional<std::string> string(Bytes bytes);

// The first NSError found depth-first from the root (the root itself, else inside
// dictionary values and array elements), followed through NSUnderlyingError for at
// most 8 errors, written as "domain code" and joined with " \u2192 ". Nothing when
// there is no error, the bytes do not decode, or the graph holds a class outside
// dictionaries, arrays, errors, strings, numbers, dates and URLs.
std::optional<std::string> errorChain(Bytes bytes);

}  // namespace TeskKeyedArchive
