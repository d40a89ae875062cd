#include "sources/messages/TeskTypedStream.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using TeskTypedStream::RootKind;

std::vector<uint8_t> bytesOf(std::string_view s) { return {s.begin(), s.end()}; }

std::vector<uint8_t> readSample(const std::string& name) {
  std::ifstream in(std::string(TESK_TEST_DATA) + "/typedstream/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Writes streams the way NSArchiver lays them out, one token at a time, so that a
// test reads as the structure it builds.
class Stream {
 public:
  explicit Stream(std::string_view signature = "streamtyped") {
    b_ += '\x04';
    b_ += static_cast<char>(signature.size());
    b_ += signature;
    b_ += "\x81\xe8\x03";  // system version 1000
  }
  Stream& raw(std::string_view bytes) {
    b_ += bytes;
    return *this;
  }
  Stream& byte(uint8_t v) {
    b_ += static_cast<char>(v);
    return *this;
  }
  // A literal shared string (type encodings, class names).
  Stream& shared(std::string_view s) {
    return byte(0x84).byte(static_cast<uint8_t>(s.size())).raw(s);
  }
  // A reference to the `index`-th shared string or object-table entry.
  Stream& ref(int index) { return byte(static_cast<uint8_t>(0x92 + index)); }
  Stream& newObject() { return byte(0x84); }
  Stream& nil() { return byte(0x85); }
  Stream& end() { return byte(0x86); }
  // A literal class: name and version; its superclass follows.
  Stream& newClass(std::string_view name, uint8_t version) {
    return byte(0x84).shared(name).byte(version);
  }
  Stream& bytes(std::string_view s) { return byte(static_cast<uint8_t>(s.size())).raw(s); }
  std::vector<uint8_t> data() const { return bytesOf(b_); }
  const std::string& str() const { return b_; }

 private:
  std::string b_;
};

// Shared strings: 0 "@", 1 NSAttributedString, 2 NSObject, 3 NSString, 4 "+".
// Objects: 0 root, 1 class NSAttributedString, 2 class NSObject, 3 string,
// 4 class NSString.
Stream attributedPrefix() {
  Stream s;
  s.shared("@").newObject().newClass("NSAttributedString", 0).newClass("NSObject", 0).nil();
  s.ref(0).newObject().newClass("NSString", 1).ref(2);
  return s;
}

std::vector<uint8_t> attributed(std::string_view text) {
  Stream s = attributedPrefix();
  s.shared("+").bytes(text).end();
  s.end();
  return s.data();
}

TEST(TypedStream, ReadsAnAttributedStringWithItsRuns) {
  Stream s = attributedPrefix();
  s.shared("+").bytes("Bold plain").end();
  // Two attribute runs: a dictionary then a reference back to it.
  s.shared("iI").byte(1).byte(4);
  s.ref(0).newObject().newClass("NSDictionary", 0).ref(2).shared("i").byte(1);
  s.ref(0).newObject().ref(4).ref(4).bytes("__kIMTextBoldAttributeName").end();
  s.ref(0).newObject().newClass("NSNumber", 0).newClass("NSValue", 0).ref(2);
  s.shared("*").newObject().shared("c").ref(11).byte(1).end();  // "*" then "c" value 1
  s.end();                                                      // dictionary
  s.ref(5).byte(2).byte(6).ref(0).ref(5);                       // "iI" 2 6, the same dictionary
  s.end();
  const auto root = TeskTypedStream::rootString(s.data());
  ASSERT_TRUE(root.has_value());
  EXPECT_EQ(root->text, "Bold plain");
  EXPECT_EQ(root->kind, RootKind::attributedString);
  EXPECT_EQ(TeskTypedStream::rootClassName(s.data()), "NSAttributedString");
}

TEST(TypedStream, ReadsThePermissiveSamples) {
  struct Case {
    const char* name;
    std::optional<std::string> text;
    std::optional<RootKind> kind;
    const char* rootClass;
  };
  const std::vector<Case> cases = {
      {"uetchy/NSString", "abcdefgABCDEFG!?@[]/+*^&-_", RootKind::string, "NSString"},
      {"uetchy/NSStringNil", "", RootKind::string, "NSString"},
      {"plaso-chatdb/message_rowid_8", "Did you try to send me a message?",
       RootKind::attributedString, "NSMutableAttributedString"},
  };
  for (const auto& c : cases) {
    const auto blob = readSample(c.name);
    ASSERT_FALSE(blob.empty()) << c.name;
    const auto root = TeskTypedStream::rootString(blob);
    EXPECT_EQ(root.has_value(), c.text.has_value()) << c.name;
    if (root && c.text) {
      EXPECT_EQ(root->text, *c.text) << c.name;
      EXPECT_EQ(root->kind, *c.kind) << c.name;
    }
    // The whole root, numbers, arrays and dictionaries included, must read.
    EXPECT_EQ(TeskTypedStream::rootClassName(blob), std::optional<std::string>(c.rootClass))
        << c.name;
  }
  // Roots that hold no string still read whole: numbers, arrays, dictionaries.
  for (std::string name :
       {"NSNumberWith1digit", "NSNumberWithMinus5digits", "NSNumberWithULongLong",
        "NSNumberWithFloat", "NSArrayEmpty", "NSArrayWithBool", "NSArrayWithMixedType",
        "NSArrayWithNestedArray", "NSArrayWithNSNumber", "NSArrayWithNSString", "NSDictionary"}) {
    const auto blob = readSample("uetchy/" + name);
    EXPECT_FALSE(TeskTypedStream::rootString(blob)) << name;
    // The root's class is the sample's name up to "With" or "Empty".
    EXPECT_EQ(TeskTypedStream::rootClassName(blob), name.substr(0, name.find_first_of("WE", 2)))
        << name;
  }
}

TEST(TypedStream, EveryTruncationIsRefused) {
  // The root object ends with the blob, so no strict prefix may answer.
  std::vector<std::string> names = {"uetchy/NSString", "uetchy/NSDictionary",
                                    "uetchy/NSArrayWithMixedType"};
  for (int row = 1; row <= 10; ++row)
    names.push_back("plaso-chatdb/message_rowid_" + std::to_string(row));
  for (const auto& name : names) {
    const auto blob = readSample(name);
    ASSERT_FALSE(blob.empty()) << name;
    ASSERT_TRUE(TeskTypedStream::rootClassName(blob).has_value()) << name;
    for (size_t n = 0; n < blob.size(); ++n) {
      // A fresh copy of exactly n bytes, so that ASan sees any read past it.
      const std::vector<uint8_t> prefix(blob.begin(), blob.begin() + static_cast<long>(n));
      EXPECT_FALSE(TeskTypedStream::rootClassName(prefix).has_value()) << name << " at " << n;
    }
  }
}

TEST(TypedStream, ReadsHandBuiltShapes) {
  struct Case {
    const char* name;
    std::vector<uint8_t> blob;
    std::optional<std::string> text;
  };
  // Big-endian streams carry the other signature and big-endian multi-byte integers.
  Stream bigEndian("typedstream");
  bigEndian.shared("@").newObject().newClass("NSString", 1).newClass("NSObject", 0).nil();
  bigEndian.shared("+").byte(0x81).byte(0x00).byte(0x03).raw("abc").end();

  // A two-byte reference number (index 2 written as -108) is as good as a short one.
  Stream wide;
  wide.shared("@").newObject().newClass("NSAttributedString", 0).newClass("NSObject", 0).nil();
  wide.ref(0).newObject().newClass("NSString", 1).byte(0x81).byte(0x94).byte(0xff);
  wide.shared("+").bytes("wide").end().end();

  // 64-bit, float and double values, a struct, an array of ints and a selector.
  Stream scalars = attributedPrefix();
  scalars.shared("+").bytes("scalars").end();
  scalars.shared("q").byte(0x87).raw(std::string(8, '\x01'));
  scalars.shared("fd").byte(0x83).raw(std::string(4, '\0')).byte(0x83).raw(std::string(8, '\0'));
  scalars.shared("{CGPoint=dd}").byte(1).byte(2);
  scalars.shared("[3i]")
      .byte(1)
      .byte(0x81)
      .raw(std::string("\x00\x01", 2))
      .byte(0x82)
      .raw(std::string(4, '\x02'));
  scalars.shared("[4c]").raw("\x80\x81\x82\x83");
  scalars.shared(":").shared("length");
  scalars.shared("#").ref(4);  // a class value: NSString
  scalars.end();

  // A mutable string inside a mutable attributed string, as Messages writes them.
  Stream mutableKinds;
  mutableKinds.shared("@")
      .newObject()
      .newClass("NSMutableAttributedString", 0)
      .newClass("NSAttributedString", 0)
      .newClass("NSObject", 0)
      .nil();
  mutableKinds.ref(0).newObject().newClass("NSMutableString", 1).newClass("NSString", 1).ref(3);
  mutableKinds.shared("+").bytes("mutable").end().end();

  const std::vector<Case> cases = {
      {"big-endian", bigEndian.data(), "abc"},
      {"two-byte reference", wide.data(), "wide"},
      {"scalars after the string", scalars.data(), "scalars"},
      {"mutable classes", mutableKinds.data(), "mutable"},
      {"utf-8 text", attributed("caf\xc3\xa9"), "caf\xc3\xa9"},
  };
  for (const auto& c : cases) {
    const auto root = TeskTypedStream::rootString(c.blob);
    ASSERT_TRUE(root.has_value()) << c.name;
    EXPECT_EQ(root->text, *c.text) << c.name;
  }
}

TEST(TypedStream, RefusesMalformedStreams) {
  struct Case {
    const char* name;
    std::vector<uint8_t> blob;
  };
  std::vector<Case> cases;
  auto add = [&](const char* name, std::vector<uint8_t> blob) {
    cases.push_back({name, std::move(blob)});
  };

  auto good = attributed("hello");
  ASSERT_TRUE(TeskTypedStream::rootString(good).has_value());

  auto version3 = good;
  version3[0] = 3;
  add("streamer version 3", version3);
  auto badSignature = good;
  badSignature[2] = 'S';
  add("bad signature", badSignature);
  add("empty", {});
  add("header only", bytesOf(Stream().str()));

  {  // The string's declared length runs past the end, as in a corrupted blob.
    Stream s = attributedPrefix();
    s.shared("+").byte(0x81).raw(std::string("\x9d\x00", 2)).raw("This is parsing").end().end();
    add("length past the end", s.data());
  }
  {
    Stream s = attributedPrefix();
    s.shared("+").byte(0xf0).raw("abc").end().end();  // a negative length
    add("negative length", s.data());
  }
  {
    Stream s = attributedPrefix();
    s.shared("+").bytes("\xc3\x28").end().end();
    add("invalid UTF-8", s.data());
  }
  {  // A shared-string reference past the table.
    Stream s = attributedPrefix();
    s.ref(40).bytes("abc").end().end();
    add("string reference past the table", s.data());
  }
  {  // An object reference to an entry that is a class.
    Stream s;
    s.shared("@").newObject().newClass("NSAttributedString", 0).newClass("NSObject", 0).nil();
    s.ref(0).ref(1).end();
    add("object reference to a class", s.data());
  }
  {  // A superclass reference to an object.
    Stream s;
    s.shared("@").newObject().newClass("NSString", 1).ref(0);
    s.shared("+").bytes("x").end();
    add("superclass reference to an object", s.data());
  }
  {
    Stream s;
    s.shared("i").byte(1);
    add("root is not an object", s.data());
  }
  {
    Stream s;
    s.shared("@").nil();
    add("nil root", s.data());
  }
  {  // A string class whose first group is not its bytes.
    Stream s;
    s.shared("@").newObject().newClass("NSString", 1).newClass("NSObject", 0).nil();
    s.shared("i").byte(5).end();
    add("string without bytes", s.data());
  }
  {
    Stream t;
    t.shared("@").newObject().newClass("NSAttributedString", 0).newClass("NSObject", 0).nil();
    t.ref(0).nil().end();
    add("attributed string of nil", t.data());
  }
  {  // Another class at the root, holding a string.
    Stream s;
    s.shared("@").newObject().newClass("NSTextStorage", 0).newClass("NSObject", 0).nil();
    s.ref(0).newObject().newClass("NSString", 1).ref(2).shared("+").bytes("no").end().end();
    add("unknown root class", s.data());
  }
  // A readable string, then a value of `encoding` holding `bytes` in the attribute runs.
  auto afterText = [](std::string_view encoding, std::string_view bytes) {
    Stream s = attributedPrefix();
    s.shared("+").bytes("x").end();
    s.shared(encoding).raw(bytes).end();
    return s.data();
  };
  add("pointer type", afterText("^i", std::string(1, '\0')));
  add("unterminated array type", afterText("[3", ""));
  add("bool other than 0 or 1", afterText("B", "\x02"));
  add("tag where an integer belongs", afterText("i", "\x84"));
  add("empty type encoding", afterText("", ""));
  for (const auto& c : cases) {
    EXPECT_FALSE(TeskTypedStream::rootString(c.blob).has_value()) << c.name;
  }
}

// A walk that did the declared work instead of refusing it would not end: the suite's
// per-test timeout fails it.
TEST(TypedStream, BoundsDepthAndWork) {
  {  // Objects nested far deeper than any archive: refused, not a stack overflow.
    Stream s;
    s.shared("@").newObject().newClass("NSAttributedString", 0).newClass("NSObject", 0).nil();
    for (int i = 0; i < 5000; ++i) s.ref(0).newObject().ref(1);
    EXPECT_FALSE(TeskTypedStream::rootString(s.data()).has_value());
  }
  {  // A billion zero-width values cost nothing to declare and must not spin.
    Stream s = attributedPrefix();
    s.shared("+").bytes("x").end();
    s.shared("[1000000000!]").end();
    EXPECT_FALSE(TeskTypedStream::rootString(s.data()).has_value());
  }
  {  // Nested arrays multiply: 1000^3 ints declared in a few bytes.
    Stream s = attributedPrefix();
    s.shared("+").bytes("x").end();
    s.shared("[1000[1000[1000i]]]").end();
    EXPECT_FALSE(TeskTypedStream::rootString(s.data()).has_value());
  }
  {  // A type encoding nested past the depth bound.
    Stream s = attributedPrefix();
    s.shared("+").bytes("x").end();
    std::string deep;
    for (int i = 0; i < 80; ++i) deep += "{=";
    deep += 'i';
    deep += std::string(80, '}');
    ASSERT_EQ(deep.size(), 241u);  // within the encoding size bound, past the depth bound
    s.byte(0x84).byte(0x81).byte(static_cast<uint8_t>(deep.size())).byte(0).raw(deep).byte(1);
    s.end();
    EXPECT_FALSE(TeskTypedStream::rootString(s.data()).has_value());
  }
}

}  // namespace
