#include "sources/messages/TeskDecode.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "cli/TeskText.h"
#include "sources/messages/TeskKeyedArchive.h"
#include "sources/messages/TeskTypedStream.h"

namespace TeskDecode {

namespace {

constexpr std::string_view kSignature = "streamtyped";
constexpr size_t kSignatureWindow = 32;
constexpr size_t kMinLegacyBlob = 17;
constexpr std::string_view kMarker = "NSString";
constexpr size_t kMarkerWindow = 512;
constexpr uint8_t kPlus = 0x2B;
constexpr std::string_view kPlaceholder = "\xEF\xBF\xBC";  // U+FFFC in UTF-8

bool hasLegacySignature(Bytes blob) {
  if (blob.size() < kMinLegacyBlob) return false;
  std::string_view head(reinterpret_cast<const char*>(blob.data()),
                        std::min(blob.size(), kSignatureWindow));
  return head.find(kSignature) != std::string_view::npos;
}

Outcome found(std::string text, Tier tier, bool direct) {
  Outcome out;
  out.body = std::move(text);
  out.tier = tier;
  out.direct = direct;
  return out;
}

}  // namespace

std::string_view rawValue(Tier tier) {
  switch (tier) {
    case Tier::plainText:
      return "plainText";
    case Tier::legacyAttributed:
      return "legacyAttributed";
    case Tier::legacyString:
      return "legacyString";
    case Tier::keyedAttributed:
      return "keyedAttributed";
    case Tier::undecodable:
      return "undecodable";
    case Tier::absent:
      return "absent";
  }
  return "absent";
}

void Census::record(Tier tier) {
  switch (tier) {
    case Tier::plainText:
      ++plainText;
      break;
    case Tier::legacyAttributed:
      ++legacyAttributed;
      break;
    case Tier::legacyString:
      ++legacyString;
      break;
    case Tier::keyedAttributed:
      ++keyedAttributed;
      break;
    case Tier::undecodable:
      ++undecodable;
      break;
    case Tier::absent:
      ++absent;
      break;
  }
}

void Census::record(const Outcome& outcome) {
  record(outcome.tier);
  if (outcome.direct) ++direct;
}

std::optional<std::string> directBody(Bytes blob) {
  const size_t n = blob.size();
  const size_t window = std::min(n, kMarkerWindow);
  if (window <= kMarker.size()) return std::nullopt;
  std::string_view head(reinterpret_cast<const char*>(blob.data()), window);
  const size_t p = head.find(kMarker);
  if (p == std::string_view::npos) return std::nullopt;
  // Past the marker: version and superclass reference and the new type tag, four
  // bytes in every archive Messages wrote; then the '+' type and the length prefix.
  const size_t e = p + kMarker.size();
  if (e + 4 >= n || blob[e + 4] != kPlus) return std::nullopt;
  if (e + 5 >= n) return std::nullopt;
  const uint8_t prefix = blob[e + 5];
  size_t length = 0;
  size_t start = 0;
  if (prefix == 0x81) {
    if (e + 7 >= n) return std::nullopt;
    length = static_cast<size_t>(blob[e + 6]) | (static_cast<size_t>(blob[e + 7]) << 8);
    start = e + 8;
  } else if (prefix == 0x82) {
    if (e + 9 >= n) return std::nullopt;
    length = static_cast<size_t>(blob[e + 6]) | (static_cast<size_t>(blob[e + 7]) << 8) |
             (static_cast<size_t>(blob[e + 8]) << 16) | (static_cast<size_t>(blob[e + 9]) << 24);
    start = e + 10;
  } else if (prefix >= 0x80) {
    return std::nullopt;
  } else {
    length = prefix;
    start = e + 6;
  }
  if (length > n - start) return std::nullopt;
  std::string_view text(reinterpret_cast<const char*>(blob.data()) + start, length);
  if (!TeskText::isValidUTF8(text)) return std::nullopt;
  return std::string(text);
}

Outcome attributedBody(Bytes blob) {
  Outcome none;
  none.tier = Tier::undecodable;
  if (blob.empty()) return none;
  if (hasLegacySignature(blob)) {
    if (auto text = directBody(blob); text && !text->empty()) {
      return found(std::move(*text), Tier::legacyAttributed, true);
    }
    // One full read answers both legacy questions: the root is either kind or neither.
    if (auto root = TeskTypedStream::rootString(blob); root && !root->text.empty()) {
      const Tier tier = root->kind == TeskTypedStream::RootKind::attributedString
                            ? Tier::legacyAttributed
                            : Tier::legacyString;
      return found(std::move(root->text), tier, false);
    }
  }
  if (auto text = TeskKeyedArchive::attributedString(blob); text && !text->empty()) {
    return found(std::move(*text), Tier::keyedAttributed, false);
  }
  return none;
}

Outcome body(const std::optional<std::string_view>& text, Bytes blob) {
  const bool hasText = text && !text->empty();
  if (!blob.empty()) {
    Outcome out = attributedBody(blob);
    if (!out.body && hasText) {
      out.body = std::string(*text);
      out.tier = Tier::undecodable;
      out.direct = false;
    }
    return out;
  }
  Outcome out;
  if (hasText) {
    out.body = std::string(*text);
    out.tier = Tier::plainText;
  } else {
    out.tier = Tier::absent;
  }
  return out;
}

Stripped stripPlaceholders(std::optional<std::string> body) {
  Stripped out;
  if (!body) return out;
  std::string& text = *body;
  if (text.find(kPlaceholder) != std::string::npos) {
    std::string removed;
    removed.reserve(text.size());
    size_t from = 0;
    for (size_t at; (at = text.find(kPlaceholder, from)) != std::string::npos;
         from = at + kPlaceholder.size()) {
      removed.append(text, from, at - from);
    }
    removed.append(text, from, std::string::npos);
    text = std::move(removed);
    out.hadPlaceholder = true;
  }
  // Trimmed in place: a body handed over is kept without a copy.
  const std::string_view kept = TeskText::trim(text);
  const auto begin = static_cast<size_t>(kept.data() - text.data());
  text.erase(begin + kept.size());
  text.erase(0, begin);
  out.text = std::move(text);
  return out;
}

}  // namespace TeskDecode
