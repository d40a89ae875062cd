#include <map>
#include <utility>

#include "Blob.h"
#include "Support.h"

namespace demohome {

namespace {

// Typed-stream tags (signed bytes): a new shared item, nil, end of object, and the
// base that back-references are counted from.
constexpr uint8_t kNew = 0x84;
constexpr uint8_t kNil = 0x85;
constexpr uint8_t kEnd = 0x86;
constexpr int64_t kReferenceBase = -110;

struct ClassLevel {
  const char* name;
  int version;
};

class TypedStream {
 public:
  TypedStream() {
    out_.push_back(4);  // stream version
    out_.push_back(11);
    for (char c : std::string_view("streamtyped")) out_.push_back(static_cast<uint8_t>(c));
    integer(1000);  // system version
  }

  std::vector<uint8_t> take() { return std::move(out_); }

  void integer(int64_t v) {
    if (v >= kReferenceBase && v <= 127) {
      out_.push_back(static_cast<uint8_t>(static_cast<int8_t>(v)));
    } else if (v >= -32768 && v <= 32767) {
      out_.push_back(0x81);
      out_.push_back(static_cast<uint8_t>(v & 0xFF));
      out_.push_back(static_cast<uint8_t>((v >> 8) & 0xFF));
    } else {
      out_.push_back(0x82);
      for (int i = 0; i < 4; ++i) out_.push_back(static_cast<uint8_t>((v >> (8 * i)) & 0xFF));
    }
  }

  // Type encodings, class names and C-string values share one table.
  void sharedString(std::string_view s) {
    auto it = strings_.find(std::string(s));
    if (it != strings_.end()) {
      integer(kReferenceBase + static_cast<int64_t>(it->second));
      return;
    }
    strings_.emplace(std::string(s), strings_.size());
    out_.push_back(kNew);
    integer(static_cast<int64_t>(s.size()));
    out_.insert(out_.end(), s.begin(), s.end());
  }

  // Objects and classes share the other table; an object takes its number
  // before its class chain is written.
  void beginObject(std::initializer_list<ClassLevel> chain) {
    out_.push_back(kNew);
    ++objects_;
    for (const auto& level : chain) {
      auto it = classes_.find(level.name);
      if (it != classes_.end()) {
        integer(kReferenceBase + static_cast<int64_t>(it->second));
        return;
      }
      out_.push_back(kNew);
      classes_.emplace(level.name, objects_++);
      sharedString(level.name);
      integer(level.version);
    }
    out_.push_back(kNil);
  }

  void endObject() { out_.push_back(kEnd); }

  void bytes(std::string_view s) { out_.insert(out_.end(), s.begin(), s.end()); }

  void nsString(std::string_view s) {
    sharedString("@");
    beginObject({{"NSString", 1}, {"NSObject", 0}});
    sharedString("+");
    integer(static_cast<int64_t>(s.size()));
    bytes(s);
    endObject();
  }

  void nsNumber(int64_t v, const char* type) {
    sharedString("@");
    beginObject({{"NSNumber", 0}, {"NSValue", 0}, {"NSObject", 0}});
    sharedString("*");
    out_.push_back(kNew);  // the C string is present
    sharedString(type);
    sharedString(type);
    integer(v);
    endObject();
  }

 private:
  std::vector<uint8_t> out_;
  std::map<std::string, size_t> strings_;
  std::map<std::string, size_t> classes_;
  size_t objects_ = 0;
};

}  // namespace

std::vector<uint8_t> attributedBody(const std::vector<BodyPart>& parts) {
  std::string text;
  for (const auto& p : parts) text += p.text;

  TypedStream ts;
  ts.sharedString("@");
  ts.beginObject({{"NSMutableAttributedString", 0}, {"NSAttributedString", 0}, {"NSObject", 0}});
  ts.sharedString("@");
  ts.beginObject({{"NSMutableString", 1}, {"NSString", 1}, {"NSObject", 0}});
  ts.sharedString("+");
  ts.integer(static_cast<int64_t>(text.size()));
  ts.bytes(text);
  ts.endObject();

  int64_t dictionary = 0;
  for (size_t i = 0; i < parts.size(); ++i) {
    const auto& p = parts[i];
    ts.sharedString("iI");
    ts.integer(++dictionary);
    ts.integer(static_cast<int64_t>(utf16Length(p.text)));
    ts.sharedString("@");
    ts.beginObject({{"NSDictionary", 0}, {"NSObject", 0}});
    ts.sharedString("i");
    if (p.fileTransferGuid.empty()) {
      ts.integer(1);
      ts.nsString("__kIMMessagePartAttributeName");
      ts.nsNumber(static_cast<int64_t>(i), "i");
    } else {
      ts.integer(p.fileName.empty() ? 3 : 4);
      ts.nsString("__kIMFileTransferGUIDAttributeName");
      ts.nsString(p.fileTransferGuid);
      ts.nsString("__kIMBaseWritingDirectionAttributeName");
      ts.nsNumber(-1, "q");
      ts.nsString("__kIMMessagePartAttributeName");
      ts.nsNumber(static_cast<int64_t>(i), "i");
      if (!p.fileName.empty()) {
        ts.nsString("__kIMFilenameAttributeName");
        ts.nsString(p.fileName);
      }
    }
    ts.endObject();
  }
  ts.endObject();
  return ts.take();
}

std::vector<uint8_t> attributedBody(std::string_view text) {
  return attributedBody(std::vector<BodyPart>{BodyPart{std::string(text), {}, {}}});
}

}  // namespace demohome
