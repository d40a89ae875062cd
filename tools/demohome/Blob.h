// Writer of Messages' attributedBody blobs: an NSArchiver ("streamtyped") archive
// of an NSMutableAttributedString, laid out byte for byte like the store's own.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace demohome {

// One message part: a run of text, or an attached file standing in the text as
// U+FFFC with its transfer GUID and file name as attributes.
struct BodyPart {
  std::string text;              // UTF-8; for an attachment exactly U+FFFC
  std::string fileTransferGuid;  // non-empty marks an attachment part
  std::string fileName;
};

// Archive of the concatenated parts, one attribute run per part
// (__kIMMessagePartAttributeName = part index). Run lengths count UTF-16 units,
// the string's length prefix counts UTF-8 bytes.
std::vector<uint8_t> attributedBody(const std::vector<BodyPart>& parts);

// Archive of one plain text part.
std::vector<uint8_t> attributedBody(std::string_view text);

}  // namespace demohome
