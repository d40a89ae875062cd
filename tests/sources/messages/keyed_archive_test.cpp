#include "sources/messages/TeskKeyedArchive.h"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "common/KeyedArchiveWriter.h"
#include "sources/messages/TeskDecode.h"

namespace {

using TeskKeyedArchive::Value;
using Type = Value::Type;

using tesk_test::PlistPtr;
using Archive = tesk_test::KeyedArchive;

// Writes binary plists object by object, with 4-byte offsets and references, for
// shapes libplist's own writer cannot make (it recurses): chains thousands deep and
// containers referenced many times.
class RawPlist {
 public:
  uint32_t array(const std::vector<uint32_t>& refs) {
    std::vector<uint8_t> o;
    marker(o, 0xA0, refs.size());
    for (uint32_t r : refs) be(o, r, 4);
    return add(std::move(o));
  }
  uint32_t dict(const std::vector<std::pair<uint32_t, uint32_t>>& entries) {
    std::vector<uint8_t> o;
    marker(o, 0xD0, entries.size());
    for (const auto& e : entries) be(o, e.first, 4);
    for (const auto& e : entries) be(o, e.second, 4);
    return add(std::move(o));
  }
  uint32_t ascii(std::string_view s) {
    std::vector<uint8_t> o;
    marker(o, 0x50, s.size());
    o.insert(o.end(), s.begin(), s.end());
    return add(std::move(o));
  }
  uint32_t uid(uint8_t value) { return add({0x80, value}); }

  // A chain of single-element arrays `depth` deep around `inner`; its outermost array.
  uint32_t nest(uint32_t inner, int depth) {
    for (int i = 0; i < depth; ++i) inner = array({inner});
    return inner;
  }

  std::vector<uint8_t> bytes(uint32_t top) const {
    std::vector<uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<uint64_t> offsets;
    for (const auto& o : objects_) {
      offsets.push_back(out.size());
      out.insert(out.end(), o.begin(), o.end());
    }
    const uint64_t table = out.size();
    for (uint64_t at : offsets) be(out, at, 4);
    out.insert(out.end(), {0, 0, 0, 0, 0, 0, 4, 4});
    be(out, objects_.size(), 8);
    be(out, top, 8);
    be(out, table, 8);
    return out;
  }

 private:
  static void be(std::vector<uint8_t>& o, uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i) o.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
  static void marker(std::vector<uint8_t>& o, uint8_t kind, size_t n) {
    if (n < 15) {
      o.push_back(static_cast<uint8_t>(kind | n));
      return;
    }
    o.push_back(static_cast<uint8_t>(kind | 0x0F));
    o.push_back(0x12);  // the length as a 4-byte integer object
    be(o, n, 4);
  }
  uint32_t add(std::vector<uint8_t> o) {
    objects_.push_back(std::move(o));
    return static_cast<uint32_t>(objects_.size() - 1);
  }

  std::vector<std::vector<uint8_t>> objects_;
};

// A keyed archive whose root object is a plain plist array nested `depth` deep
// around the string "leaf", laid out as root dict -> $objects -> the chain.
std::vector<uint8_t> nestedArchive(int depth) {
  RawPlist p;
  const uint32_t chain = p.nest(p.ascii("leaf"), depth);
  const uint32_t objects = p.array({p.ascii("$null"), chain});
  const uint32_t top = p.dict({{p.ascii("root"), p.uid(1)}});
  return p.bytes(p.dict({{p.ascii("$objects"), objects}, {p.ascii("$top"), top}}));
}

std::vector<uint8_t> readSample(const std::string& name) {
  std::ifstream in(std::string(TESK_TEST_DATA) + "/plist/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(KeyedArchive, ReadsStringRoots) {
  {
    Archive a;
    EXPECT_EQ(TeskKeyedArchive::string(a.bytes(a.string("plain"))), "plain");
  }
  {
    Archive a;
    const uint64_t cls = a.klass({"NSMutableString", "NSString", "NSObject"});
    const uint64_t s = a.object(cls, {{"NS.string", plist_new_string("mutable")}});
    EXPECT_EQ(TeskKeyedArchive::string(a.bytes(s)), "mutable");
    EXPECT_EQ(TeskKeyedArchive::attributedString(a.bytes(s)), std::nullopt);
  }
  {  // Archives whose root was stored under another key.
    Archive a;
    EXPECT_EQ(TeskKeyedArchive::string(a.bytes(a.string("other key"), "name")), "other key");
  }
  // The account database keeps its data-class names this way.
  EXPECT_EQ(TeskKeyedArchive::string(readSample("dataclass-Contacts")),
            "com.apple.Dataclass.Contacts");
  EXPECT_EQ(TeskKeyedArchive::string(readSample("dataclass-Calendars")),
            "com.apple.Dataclass.Calendars");
}

TEST(KeyedArchive, ReadsAttributedStrings) {
  {
    Archive a;
    const uint64_t text = a.string("keyed body");
    const uint64_t cls = a.klass({"NSAttributedString", "NSObject"});
    const uint64_t root = a.object(cls, {{"NSString", plist_new_uid(text)}});
    EXPECT_EQ(TeskKeyedArchive::attributedString(a.bytes(root)), "keyed body");
    const auto out = TeskDecode::attributedBody(a.bytes(root));
    EXPECT_EQ(out.body, std::optional<std::string>("keyed body"));
    EXPECT_EQ(out.tier, TeskDecode::Tier::keyedAttributed);
    EXPECT_FALSE(out.direct);
  }
  {  // The mutable form, its string an NSMutableString object.
    Archive a;
    const uint64_t strCls = a.klass({"NSMutableString", "NSString", "NSObject"});
    const uint64_t text = a.object(strCls, {{"NS.string", plist_new_string("mutable body")}});
    const uint64_t cls = a.klass({"NSMutableAttributedString", "NSAttributedString", "NSObject"});
    const uint64_t root =
        a.object(cls, {{"NSString", plist_new_uid(text)}, {"NSAttributes", plist_new_uid(0)}});
    EXPECT_EQ(TeskKeyedArchive::attributedString(a.bytes(root)), "mutable body");
  }
  {  // Another class holding an NSString field is not an attributed string.
    Archive a;
    const uint64_t cls = a.klass({"NSTextStorage", "NSObject"});
    const uint64_t root = a.object(cls, {{"NSString", plist_new_uid(a.string("x"))}});
    EXPECT_EQ(TeskKeyedArchive::attributedString(a.bytes(root)), std::nullopt);
    EXPECT_EQ(TeskDecode::attributedBody(a.bytes(root)).tier, TeskDecode::Tier::undecodable);
  }
}

TEST(KeyedArchive, DecodesTheValueModel) {
  Archive a;
  const uint64_t arrayCls = a.klass({"NSArray", "NSObject"});
  const uint64_t dictCls = a.klass({"NSMutableDictionary", "NSDictionary", "NSObject"});
  const uint64_t dateCls = a.klass({"NSDate", "NSObject"});
  const uint64_t dataCls = a.klass({"NSData", "NSObject"});
  const uint64_t urlCls = a.klass({"NSURL", "NSObject"});
  const uint64_t nullCls = a.klass({"NSNull", "NSObject"});
  const uint64_t date = a.object(dateCls, {{"NS.time", plist_new_real(700000000.5)}});
  const uint64_t data = a.object(dataCls, {{"NS.data", plist_new_data("\x01\x00\x02", 3)}});
  const uint64_t url = a.object(
      urlCls,
      {{"NS.base", plist_new_uid(0)}, {"NS.relative", plist_new_uid(a.string("https://x.test/"))}});
  const uint64_t null = a.object(nullCls, {});
  const uint64_t list = a.object(
      arrayCls, {{"NS.objects",
                  Archive::uids({a.add(plist_new_uint(static_cast<uint64_t>(-5))),
                                 a.add(plist_new_real(2.5)), a.add(plist_new_bool(1)), date, data,
                                 url, null, 0, a.add(plist_new_date(700000000, 250000))})}});
  const uint64_t root =
      a.object(dictCls, {{"NS.keys", Archive::uids({a.string("list"), a.string("name")})},
                         {"NS.objects", Archive::uids({list, a.string("value")})}});

  const auto v = TeskKeyedArchive::decode(a.bytes(root));
  ASSERT_TRUE(v.has_value());
  ASSERT_EQ(v->type, Type::dictionary);
  ASSERT_EQ(v->entries.size(), 2u);
  ASSERT_NE(v->entry("name"), nullptr);
  EXPECT_EQ(v->entry("name")->string, "value");
  const Value* items = v->entry("list");
  ASSERT_NE(items, nullptr);
  ASSERT_EQ(items->type, Type::array);
  ASSERT_EQ(items->items.size(), 9u);
  const auto& it = items->items;
  EXPECT_EQ(it[0].type, Type::integer);
  EXPECT_EQ(it[0].integer, -5);
  EXPECT_EQ(it[1].type, Type::real);
  EXPECT_DOUBLE_EQ(it[1].real, 2.5);
  EXPECT_EQ(it[2].type, Type::boolean);
  EXPECT_TRUE(it[2].boolean);
  EXPECT_EQ(it[3].type, Type::date);
  EXPECT_DOUBLE_EQ(it[3].real, 700000000.5);
  EXPECT_EQ(it[4].type, Type::data);
  EXPECT_EQ(it[4].string, std::string("\x01\x00\x02", 3));
  ASSERT_EQ(it[5].type, Type::object);
  EXPECT_EQ(it[5].className(), "NSURL");
  EXPECT_EQ(it[5].classes, (std::vector<std::string>{"NSURL", "NSObject"}));
  ASSERT_NE(it[5].field("NS.relative"), nullptr);
  EXPECT_EQ(it[5].field("NS.relative")->string, "https://x.test/");
  EXPECT_EQ(it[5].field("NS.base")->type, Type::null);
  EXPECT_EQ(it[6].type, Type::null);  // NSNull
  EXPECT_EQ(it[7].type, Type::null);  // $null
  EXPECT_EQ(it[8].type, Type::date);  // a plist date, seconds since 2001 as well
  EXPECT_DOUBLE_EQ(it[8].real, 700000000.25);
}

TEST(KeyedArchive, FollowsErrorChains) {
  {  // Three deep, the root an error.
    Archive a;
    const uint64_t inner = a.error("kCFErrorDomainCFNetwork", 2, std::nullopt);
    const uint64_t middle = a.error("NSPOSIXErrorDomain", 50, inner);
    const uint64_t outer = a.error("NSURLErrorDomain", -1009, middle);
    EXPECT_EQ(
        TeskKeyedArchive::errorChain(a.bytes(outer)),
        "NSURLErrorDomain -1009 \u2192 NSPOSIXErrorDomain 50 \u2192 kCFErrorDomainCFNetwork 2");
  }
  {  // The first error depth-first inside a dictionary of arrays.
    Archive a;
    const uint64_t arrayCls = a.klass({"NSArray", "NSObject"});
    const uint64_t dictCls = a.klass({"NSDictionary", "NSObject"});
    const uint64_t first = a.error("com.google.auth", 401, std::nullopt);
    const uint64_t second = a.error("second", 1, std::nullopt);
    const uint64_t list =
        a.object(arrayCls, {{"NS.objects", Archive::uids({a.string("x"), first})}});
    const uint64_t root =
        a.object(dictCls, {{"NS.keys", Archive::uids({a.string("a"), a.string("b")})},
                           {"NS.objects", Archive::uids({list, second})}});
    EXPECT_EQ(TeskKeyedArchive::errorChain(a.bytes(root)), "com.google.auth 401");
  }
  {  // At most eight errors.
    Archive a;
    std::optional<uint64_t> next;
    for (int i = 10; i >= 1; --i) next = a.error("d", i, next);
    EXPECT_EQ(TeskKeyedArchive::errorChain(a.bytes(*next)),
              "d 1 \u2192 d 2 \u2192 d 3 \u2192 d 4 \u2192 d 5 \u2192 d 6 \u2192 d 7 \u2192 d 8");
  }
  {  // Classes outside the allowed set make the archive unreadable for this purpose.
    Archive a;
    const uint64_t err = a.error("d", 1, std::nullopt);
    const uint64_t cls = a.klass({"LPLinkMetadata", "NSObject"});
    const uint64_t root = a.object(cls, {{"error", plist_new_uid(err)}});
    EXPECT_EQ(TeskKeyedArchive::errorChain(a.bytes(root)), std::nullopt);
  }
  {
    Archive a;
    EXPECT_EQ(TeskKeyedArchive::errorChain(a.bytes(a.string("no error here"))), std::nullopt);
  }
  EXPECT_EQ(TeskKeyedArchive::errorChain(std::vector<uint8_t>{'b', 'p', 'l', 'i', 's', 't'}),
            std::nullopt);
}

TEST(KeyedArchive, ErrorCycleTerminates) {
  // UIDs are positions in $objects: 1 and 2 the classes, 3 the key, 4 the user info,
  // 5 the error, 6 its domain. The user info's underlying error is the error itself.
  Archive a;
  const uint64_t errorCls = a.klass({"NSError", "NSObject"});
  const uint64_t dictCls = a.klass({"NSDictionary", "NSObject"});
  const uint64_t key = a.string("NSUnderlyingError");
  const uint64_t info =
      a.object(dictCls, {{"NS.keys", Archive::uids({key})}, {"NS.objects", Archive::uids({5})}});
  const uint64_t error = a.object(errorCls, {{"NSDomain", plist_new_uid(6)},
                                             {"NSCode", plist_new_uint(7)},
                                             {"NSUserInfo", plist_new_uid(info)}});
  ASSERT_EQ(error, 5u);
  ASSERT_EQ(a.string("loop"), 6u);
  EXPECT_EQ(TeskKeyedArchive::errorChain(a.bytes(error)), "loop 7");
}

TEST(KeyedArchive, RefusesMalformedGraphs) {
  const auto arrayOf = [](Archive& a, std::vector<uint64_t> uids) {
    return a.object(a.klass({"NSArray", "NSObject"}), {{"NS.objects", Archive::uids(uids)}});
  };
  {
    Archive a;
    EXPECT_EQ(TeskKeyedArchive::decode(a.bytes(99)), std::nullopt) << "root past $objects";
  }
  {
    Archive a;
    const uint64_t list = arrayOf(a, {1000});
    EXPECT_EQ(TeskKeyedArchive::decode(a.bytes(list)), std::nullopt) << "element past $objects";
  }
  {  // An array that holds itself: the inner reference reads as null.
    Archive a;
    const uint64_t cls = a.klass({"NSArray", "NSObject"});
    const uint64_t list = a.object(cls, {{"NS.objects", Archive::uids({2, 0})}});
    ASSERT_EQ(list, 2u);
    const auto v = TeskKeyedArchive::decode(a.bytes(list));
    ASSERT_TRUE(v.has_value());
    ASSERT_EQ(v->items.size(), 2u);
    EXPECT_EQ(v->items[0].type, Type::null);
  }
  {
    Archive a;
    const uint64_t cls = a.klass({"NSDictionary", "NSObject"});
    const uint64_t d = a.object(
        cls, {{"NS.keys", Archive::uids({a.string("k")})}, {"NS.objects", Archive::uids({})}});
    EXPECT_EQ(TeskKeyedArchive::decode(a.bytes(d)), std::nullopt) << "keys without objects";
  }
  {  // $class pointing at something that is not a class description.
    Archive a;
    const uint64_t d = a.object(a.string("not a class"), {});
    EXPECT_EQ(TeskKeyedArchive::decode(a.bytes(d)), std::nullopt) << "bad $class";
  }
  {  // Shared references that double at every level: 2^40 paths through 80 objects (a
     // walk of every path would not end; the suite's per-test timeout fails it).
    Archive a;
    const uint64_t cls = a.klass({"NSArray", "NSObject"});
    uint64_t next = a.string("leaf");
    for (int i = 0; i < 40; ++i)
      next = a.object(cls, {{"NS.objects", Archive::uids({next, next})}});
    EXPECT_EQ(TeskKeyedArchive::decode(a.bytes(next)), std::nullopt) << "exponential sharing";
  }
  {  // A chain deeper than the depth bound.
    Archive a;
    const uint64_t cls = a.klass({"NSArray", "NSObject"});
    uint64_t next = a.string("leaf");
    for (int i = 0; i < 200; ++i) next = a.object(cls, {{"NS.objects", Archive::uids({next})}});
    EXPECT_EQ(TeskKeyedArchive::decode(a.bytes(next)), std::nullopt) << "too deep";
  }
  {  // A key holding a NUL (found by fuzzing): libplist would abort on reading it.
    Archive a;
    const uint64_t cls = a.klass({"NSURL", "NSObject"});
    auto bytes = a.bytes(a.object(cls, {{"NS.relative", plist_new_string("x")}}));
    const std::string key = "NS.relative";
    auto at = std::search(bytes.begin(), bytes.end(), key.begin(), key.end());
    ASSERT_NE(at, bytes.end());
    at[2] = '\0';
    EXPECT_EQ(TeskKeyedArchive::decode(bytes), std::nullopt) << "NUL in a key";
    EXPECT_EQ(TeskKeyedArchive::errorChain(bytes), std::nullopt) << "NUL in a key";
  }
  const std::vector<std::string> notArchives = {"", "bplist00", "not a plist at all",
                                                "<?xml version=\"1.0\"?><plist><dict/></plist>"};
  for (const auto& bytes : notArchives) {
    const std::vector<uint8_t> b(bytes.begin(), bytes.end());
    EXPECT_EQ(TeskKeyedArchive::decode(b), std::nullopt) << bytes;
    EXPECT_EQ(TeskKeyedArchive::attributedString(b), std::nullopt) << bytes;
  }
  {  // A binary plist that is not an archive.
    PlistPtr dict(plist_new_dict());
    plist_dict_set_item(dict.get(), "key", plist_new_string("value"));
    char* raw = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict.get(), &raw, &length);
    const std::vector<uint8_t> b(raw, raw + length);
    plist_to_bin_free(raw);
    EXPECT_EQ(TeskKeyedArchive::decode(b), std::nullopt);
  }
}

// The plist library parses and frees containers recursively: nesting is bounded on
// the raw object table before it sees the bytes, and every such body reads as
// undecodable rather than taking the process down.
TEST(KeyedArchive, BoundsPlistNestingBeforeParsing) {
  {  // Under the bound: root dict and $objects take two levels, the chain 62 more.
    const auto v = TeskKeyedArchive::decode(nestedArchive(62));
    ASSERT_TRUE(v.has_value());
    const Value* at = &*v;
    for (int i = 0; i < 62; ++i) {
      ASSERT_EQ(at->type, Type::array) << i;
      ASSERT_EQ(at->items.size(), 1u) << i;
      at = &at->items[0];
    }
    EXPECT_EQ(at->string, "leaf");
  }
  struct Case {
    const char* name;
    std::vector<uint8_t> bytes;
  };
  std::vector<Case> refused;
  refused.push_back({"one level past the bound", nestedArchive(63)});
  {
    RawPlist p;
    refused.push_back({"arrays 100,000 deep", p.bytes(p.nest(p.array({}), 100000))});
  }
  {
    RawPlist p;
    uint32_t next = p.ascii("x");
    for (int i = 0; i < 40; ++i) next = p.array({next, next});
    refused.push_back({"a container shared at every level (2^40 nodes)", p.bytes(next)});
  }
  {
    RawPlist p;
    const uint32_t self = p.array({0});  // holds itself
    refused.push_back({"an array that holds itself", p.bytes(self)});
  }
  {
    RawPlist p;
    const uint32_t list = p.array({7});
    refused.push_back({"a reference past the table", p.bytes(list)});
  }
  for (const Case& c : refused) {
    EXPECT_EQ(TeskKeyedArchive::decode(c.bytes), std::nullopt) << c.name;
    EXPECT_EQ(TeskKeyedArchive::errorChain(c.bytes), std::nullopt) << c.name;
    const TeskDecode::Outcome o = TeskDecode::attributedBody(c.bytes);
    EXPECT_EQ(o.tier, TeskDecode::Tier::undecodable) << c.name;
    EXPECT_FALSE(o.body.has_value()) << c.name;
  }
}

}  // namespace
