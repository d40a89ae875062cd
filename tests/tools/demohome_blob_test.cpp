// The attributedBody writer must produce archives a direct reader of the real
// layout can read: header and class chain as Messages writes them, the string's
// length prefix in UTF-8 bytes, run lengths in UTF-16 units.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Blob.h"

namespace demohome {
namespace {

std::vector<uint8_t> fromHex(const std::string& hex) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return out;
}

// The string as a reader of the real archives finds it: after the first
// "NSString" class name, 4 bytes, '+', then a length prefix (byte, 0x81 + 16-bit
// or 0x82 + 32-bit little-endian) and that many UTF-8 bytes.
std::optional<std::string> directRead(const std::vector<uint8_t>& b) {
  const std::string marker = "NSString";
  const std::string s(b.begin(), b.end());
  const size_t p = s.find(marker);
  if (p == std::string::npos) return std::nullopt;
  size_t e = p + marker.size() + 4;
  if (e >= b.size() || b[e] != '+') return std::nullopt;
  ++e;
  uint64_t len = 0;
  if (b[e] == 0x81) {
    len = b[e + 1] | (b[e + 2] << 8);
    e += 3;
  } else if (b[e] == 0x82) {
    len = static_cast<uint64_t>(b[e + 1]) | (b[e + 2] << 8) | (b[e + 3] << 16) |
          (static_cast<uint64_t>(b[e + 4]) << 24);
    e += 5;
  } else if (b[e] < 0x80) {
    len = b[e];
    e += 1;
  } else {
    return std::nullopt;
  }
  if (e + len > b.size()) return std::nullopt;
  return s.substr(e, len);
}

// The (dictionary index, run length) pairs that follow each "iI" type string.
std::vector<std::pair<int, int>> runs(const std::vector<uint8_t>& b) {
  std::vector<std::pair<int, int>> out;
  const std::string s(b.begin(), b.end());
  const size_t first = s.find(std::string("\x84\x02iI", 4));
  if (first == std::string::npos) return out;
  // After its first appearance "iI" is the 8th shared string: back-reference 0x99.
  auto readInt = [&](size_t& i) {
    const uint8_t c = b[i++];
    if (c == 0x81) {
      const int v = b[i] | (b[i + 1] << 8);
      i += 2;
      return v;
    }
    return static_cast<int>(static_cast<int8_t>(c));
  };
  size_t i = first + 4;
  int a = readInt(i);
  out.emplace_back(a, readInt(i));
  for (size_t k = i; k < b.size(); ++k) {
    if (b[k] == 0x99 && k + 2 < b.size() && b[k + 1] == out.size() + 1) {
      size_t j = k + 1;
      const int idx = readInt(j);
      out.emplace_back(idx, readInt(j));
    }
  }
  return out;
}

TEST(DemoBlob, ReproducesARealArchiveByteForByte) {
  // attributedBody of message ROWID 8 in log2timeline/plaso test_data/sqlite/imessage_chat.db
  // (commit 4ea03ef9a48dad5284c371ac9b537a184b3eea9c, Apache-2.0).
  const auto real = fromHex(
      "040b73747265616d747970656481e803840140848484194e534d757461626c654174747269627574656453747269"
      "6e67008484"
      "124e5341747472696275746564537472696e67008484084e534f626a6563740085928484840f4e534d757461626c"
      "65537472"
      "696e67018484084e53537472696e67019584012b2144696420796f752074727920746f2073656e64206d65206120"
      "6d657373"
      "6167653f86840269490121928484840c4e5344696374696f6e617279009584016901928498981d5f5f6b494d4d65"
      "7373616765"
      "506172744174747269627574654e616d658692848484084e534e756d626572008484074e5356616c756500958401"
      "2a849b9b00"
      "868686");
  EXPECT_EQ(attributedBody("Did you try to send me a message?"), real);
}

TEST(DemoBlob, LengthPrefixCountsUtf8BytesAndRunCountsUtf16Units) {
  struct Case {
    std::string text;
    uint8_t prefix;  // first byte after '+'
    int utf16;
  };
  const std::vector<Case> cases = {
      {"hello", 0x05, 5},
      {"Résumé", 0x08, 6},    // 8 UTF-8 bytes, 6 UTF-16 units
      {"dinner 🍝", 0x0B, 9},  // the emoji is 4 bytes and a surrogate pair
      {"明日の会議", 0x0F, 5},
      {std::string(127, 'a'), 0x7F, 127},
      {std::string(128, 'b'), 0x81, 128},  // first length that needs the 16-bit form
      {std::string(300, 'c'), 0x81, 300},
      {std::string(70000, 'd'), 0x82, 0},  // beyond a signed 16-bit value: 32-bit form
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 20));
    const auto blob = attributedBody(c.text);
    const auto text = directRead(blob);
    ASSERT_TRUE(text.has_value());
    EXPECT_EQ(*text, c.text);
    const std::string s(blob.begin(), blob.end());
    const size_t plus = s.find("NSString") + 8 + 4;
    EXPECT_EQ(blob[plus + 1], c.prefix);
    if (c.utf16 > 0) {
      const auto r = runs(blob);
      ASSERT_EQ(r.size(), 1u);
      EXPECT_EQ(r[0], std::make_pair(1, c.utf16));
    }
  }
}

TEST(DemoBlob, AttachmentPartsStandAsObjectReplacementCharacters) {
  const std::string fffc = "\xEF\xBF\xBC";
  const auto blob = attributedBody({{fffc, "at_0_GUID-1", "IMG_1234.HEIC"},
                                    {fffc, "at_1_GUID-2", ""},
                                    {"nice photo 😀", "", ""}});
  EXPECT_EQ(directRead(blob), fffc + fffc + "nice photo 😀");
  const auto r = runs(blob);
  ASSERT_EQ(r.size(), 3u);
  EXPECT_EQ(r[0], std::make_pair(1, 1));
  EXPECT_EQ(r[1], std::make_pair(2, 1));
  EXPECT_EQ(r[2], std::make_pair(3, 13));
  const std::string s(blob.begin(), blob.end());
  EXPECT_NE(s.find("__kIMFileTransferGUIDAttributeName"), std::string::npos);
  EXPECT_NE(s.find("at_1_GUID-2"), std::string::npos);
  EXPECT_NE(s.find("IMG_1234.HEIC"), std::string::npos);
  // The class name is written once and referenced after, so a reader's marker
  // search cannot land on a later string object.
  EXPECT_EQ(s.find("NSString", s.find("NSString") + 8), std::string::npos);
}

}  // namespace
}  // namespace demohome
