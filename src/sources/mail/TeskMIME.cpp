// RFC 822 headers and the MIME walk: header unfolding and lookup, parameters,
// multipart splitting by raw byte search, and the transfer encodings. Everything
// works on views of the caller's buffer; copies happen only where bytes change.
#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "sources/mail/TeskMail.h"

namespace TeskMail {
namespace {

constexpr std::string_view crlfHeaderSeparator = "\r\n\r\n";
constexpr std::string_view lfHeaderSeparator = "\n\n";

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string_view trimSpacesTabs(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::string_view trimWhitespace(std::string_view s) {
  const auto ws = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!s.empty() && ws(s.front())) s.remove_prefix(1);
  while (!s.empty() && ws(s.back())) s.remove_suffix(1);
  return s;
}

bool equalsFolded(std::string_view a, std::string_view lowerB) {
  if (a.size() != lowerB.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (lowerASCII(a[i]) != lowerB[i]) return false;
  }
  return true;
}

// ASCII-folded search of a lower-case needle from `from`.
size_t findFolded(std::string_view hay, std::string_view lowerNeedle, size_t from) {
  if (lowerNeedle.empty() || hay.size() < lowerNeedle.size()) return std::string_view::npos;
  for (size_t i = from; i + lowerNeedle.size() <= hay.size(); ++i) {
    if (lowerASCII(hay[i]) != lowerNeedle[0]) continue;
    if (equalsFolded(hay.substr(i, lowerNeedle.size()), lowerNeedle)) return i;
  }
  return std::string_view::npos;
}

// True when the code point that ends just before `at` is a letter, a number or '-'.
bool wordCharBefore(std::string_view s, size_t at) {
  if (at == 0) return false;
  const auto* bytes = reinterpret_cast<const uint8_t*>(s.data());
  int32_t i = static_cast<int32_t>(at);
  UChar32 c = 0;
  U8_PREV(bytes, 0, i, c);
  if (c < 0) return false;
  if (c == '-') return true;
  if (u_isalpha(c)) return true;
  const int8_t type = u_charType(c);
  return type == U_DECIMAL_DIGIT_NUMBER || type == U_LETTER_NUMBER || type == U_OTHER_NUMBER;
}

int hexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

int base64Value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Where the line after a soft line break starts, when the '=' just before `from`
// ends its encoded line: blanks an encoder may have left (RFC 2045 transport
// padding), then LF, CR LF or a lone CR, or the end of the part (whose last line
// break went with the multipart delimiter that follows it).
std::optional<size_t> softBreakEnd(std::string_view bytes, size_t from) {
  size_t j = from;
  while (j < bytes.size() && (bytes[j] == ' ' || bytes[j] == '\t')) ++j;
  if (j == bytes.size()) return j;
  if (bytes[j] == '\n') return j + 1;
  if (bytes[j] == '\r') return j + 1 < bytes.size() && bytes[j + 1] == '\n' ? j + 2 : j + 1;
  return std::nullopt;
}

// True when `value` carries the parameter `lowerName` in any form, RFC 2231 ones
// included (name=, name*=, name*0=, name*0*=).
bool hasParameter(std::string_view lowerName, std::string_view value) {
  size_t from = 0;
  size_t at;
  while ((at = findFolded(value, lowerName, from)) != std::string_view::npos) {
    const size_t after = at + lowerName.size();
    if (!wordCharBefore(value, at) && after < value.size() &&
        (value[after] == '=' || value[after] == '*')) {
      return true;
    }
    from = at + 1;
  }
  return false;
}

// A part the sender attached rather than wrote: its disposition says attachment,
// or it names a file (Content-Disposition filename, or the older Content-Type name).
bool isAttachment(std::string_view headers, std::string_view contentType) {
  if (hasParameter("name", contentType)) return true;
  const auto disposition = header("content-disposition", headers);
  if (!disposition) return false;
  const std::string_view type = trimSpacesTabs(disposition->substr(0, disposition->find(';')));
  return equalsFolded(type, "attachment") || hasParameter("filename", *disposition);
}

PartResult undecodablePart() {
  PartResult r;
  r.kind = PartResult::Kind::undecodable;
  return r;
}

bool isHTMLType(std::string_view media) {
  return media == "text/html" || media == "text/x-amp-html";
}

PartResult textPart(std::string_view media, std::string_view contentType, std::string_view headers,
                    std::string_view body) {
  PartResult result;
  std::string decoded;
  std::string_view bytes = body;
  std::string_view encoding;
  if (auto cte = header("content-transfer-encoding", headers)) encoding = trimWhitespace(*cte);
  if (equalsFolded(encoding, "quoted-printable")) {
    decoded = quotedPrintable(body);
    bytes = decoded;
  } else if (equalsFolded(encoding, "base64")) {
    auto raw = base64(body);
    if (!raw) {
      result.kind = PartResult::Kind::undecodable;
      return result;
    }
    decoded = std::move(*raw);
    bytes = decoded;
  }
  auto text = utf8(bytes, parameter("charset", contentType));
  if (!text) {
    result.kind = PartResult::Kind::undecodable;
    return result;
  }
  if (isHTMLType(media)) {
    result.text = stripHTML(*text);
    result.html = true;
  } else {
    result.text = std::move(*text);
  }
  const bool visible = std::any_of(result.text.begin(), result.text.end(),
                                   [](char c) { return static_cast<unsigned char>(c) > 32; });
  if (!visible) return PartResult{};
  result.kind = PartResult::Kind::text;
  return result;
}

// Appends [from, to) without its CRs.
void appendWithoutCR(std::string& out, const char* from, const char* to) {
  while (from < to) {
    const void* cr = std::memchr(from, '\r', static_cast<size_t>(to - from));
    const char* stop = cr ? static_cast<const char*>(cr) : to;
    out.append(from, stop);
    from = cr ? stop + 1 : to;
  }
}

}  // namespace

std::optional<size_t> find(std::string_view needle, std::string_view haystack) {
  if (needle.empty() || haystack.size() < needle.size()) return std::nullopt;
  const void* hit = memmem(haystack.data(), haystack.size(), needle.data(), needle.size());
  if (hit == nullptr) return std::nullopt;
  return static_cast<size_t>(static_cast<const char*>(hit) - haystack.data());
}

// Line by line rather than byte by byte: a header block is read for every body decoded.
std::string unfold(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  const char* p = bytes.data();
  const char* const end = p + bytes.size();
  while (p < end) {
    const void* found = std::memchr(p, '\n', static_cast<size_t>(end - p));
    const char* lf = found ? static_cast<const char*>(found) : end;
    appendWithoutCR(out, p, lf);
    if (lf == end) break;
    // A line break whose next byte other than a CR is a blank folds, with every blank
    // (and CR) after it, into one space.
    p = lf + 1;
    while (p < end && *p == '\r') ++p;
    if (p < end && (*p == ' ' || *p == '\t')) {
      while (p < end && (*p == ' ' || *p == '\t' || *p == '\r')) ++p;
      out.push_back(' ');
    } else {
      out.push_back('\n');
    }
  }
  if (isValidUTF8(out)) return out;
  return repairUTF8(out);
}

Split splitHeaders(std::string_view bytes) {
  if (auto p = find(crlfHeaderSeparator, bytes)) {
    return {unfold(bytes.substr(0, *p)), bytes.substr(*p + crlfHeaderSeparator.size())};
  }
  if (auto p = find(lfHeaderSeparator, bytes)) {
    return {unfold(bytes.substr(0, *p)), bytes.substr(*p + lfHeaderSeparator.size())};
  }
  return {unfold(bytes), std::string_view{}};
}

std::optional<std::string_view> header(std::string_view name, std::string_view text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view line = text.substr(start, end - start);
    start = end + 1;
    if (line.empty()) continue;
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    if (equalsFolded(trimSpacesTabs(line.substr(0, colon)), name)) {
      return trimSpacesTabs(line.substr(colon + 1));
    }
  }
  return std::nullopt;
}

std::optional<std::string_view> parameter(std::string_view name, std::string_view value) {
  std::string key(name);
  key.push_back('=');
  size_t from = 0;
  size_t at = std::string_view::npos;
  while ((at = findFolded(value, key, from)) != std::string_view::npos) {
    if (!wordCharBefore(value, at)) break;
    from = at + key.size();
  }
  if (at == std::string_view::npos) return std::nullopt;
  const size_t begin = at + key.size();
  if (begin < value.size() && value[begin] == '"') {
    if (begin + 1 >= value.size()) return std::nullopt;
    const size_t close = value.find('"', begin + 1);
    if (close == std::string_view::npos) return std::nullopt;
    return value.substr(begin + 1, close - begin - 1);
  }
  size_t end = begin;
  while (end < value.size() && value[end] != ';' && value[end] != ' ' && value[end] != '\n' &&
         value[end] != '\t') {
    ++end;
  }
  const std::string_view bare = trimSpacesTabs(value.substr(begin, end - begin));
  if (bare.empty()) return std::nullopt;
  return bare;
}

std::vector<std::string_view> split(std::string_view bytes, std::string_view delimiter) {
  std::vector<std::string_view> parts;
  if (bytes.empty()) return parts;
  auto first = find(delimiter, bytes);
  if (!first) return parts;
  size_t occurrence = *first;
  for (;;) {
    const size_t after = occurrence + delimiter.size();
    if (bytes.substr(after, 2) == "--") return parts;
    size_t start = after;
    while (start < bytes.size() && bytes[start] == '\r') ++start;
    if (start < bytes.size() && bytes[start] == '\n') ++start;
    const size_t searchFrom = std::max(occurrence + 1, start);
    auto next =
        searchFrom < bytes.size() ? find(delimiter, bytes.substr(searchFrom)) : std::nullopt;
    if (!next) {
      if (start < bytes.size()) parts.push_back(bytes.substr(start));
      return parts;
    }
    const size_t at = searchFrom + *next;
    size_t end = at;
    while (end > start && (bytes[end - 1] == '\r' || bytes[end - 1] == '\n')) --end;
    parts.push_back(bytes.substr(start, end - start));
    occurrence = at;
  }
}

PartResult part(std::string_view headers, std::string_view body, int depth) {
  if (depth > maxDepth) return PartResult{};
  const std::string_view contentType = header("content-type", headers).value_or("text/plain");
  // The first non-empty ';' piece, trimmed and lower-cased.
  std::string media;
  {
    size_t start = 0;
    while (start <= contentType.size()) {
      size_t end = contentType.find(';', start);
      if (end == std::string_view::npos) end = contentType.size();
      if (end > start) {
        const std::string_view piece = trimSpacesTabs(contentType.substr(start, end - start));
        media.reserve(piece.size());
        for (char c : piece) media.push_back(lowerASCII(c));
        break;
      }
      start = end + 1;
    }
    if (start > contentType.size()) media = "text/plain";
  }

  if (media.starts_with("multipart/")) {
    const auto boundary = parameter("boundary", contentType);
    if (!boundary) return undecodablePart();
    std::string delimiter = "--";
    delimiter.append(*boundary);
    const auto pieces = split(body, delimiter);
    if (pieces.empty()) return PartResult{};
    std::optional<PartResult> html;
    std::optional<PartResult> attached;
    std::optional<PartResult> undecodable;  // the message's own text, if any failed
    std::optional<PartResult> attachedUndecodable;
    for (std::string_view piece : pieces) {
      const Split inner = splitHeaders(piece);
      PartResult r = part(inner.headers, inner.body, depth + 1);
      if (r.kind == PartResult::Kind::text) {
        if (r.attached) {
          if (!attached) attached = std::move(r);
        } else if (!r.html) {
          return r;
        } else if (!html) {
          html = std::move(r);
        }
      } else if (r.kind == PartResult::Kind::undecodable) {
        (r.attached ? attachedUndecodable : undecodable) = std::move(r);
      }
    }
    // Own text that failed is counted as such; an attachment never stands in for it.
    for (auto* r : {&html, &undecodable, &attached, &attachedUndecodable}) {
      if (*r) return std::move(**r);
    }
    return PartResult{};
  }
  if (media == "message/rfc822") {
    const Split inner = splitHeaders(body);
    PartResult r = part(inner.headers, inner.body, depth + 1);
    r.attached = r.attached || isAttachment(headers, contentType);
    return r;
  }
  if (media.starts_with("text/")) {
    PartResult r = textPart(media, contentType, headers, body);
    r.attached = media == "text/calendar" || isAttachment(headers, contentType);
    return r;
  }
  return PartResult{};
}

std::string quotedPrintable(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  size_t i = 0;
  while (i < bytes.size()) {
    const void* eq = std::memchr(bytes.data() + i, '=', bytes.size() - i);
    const size_t at =
        eq ? static_cast<size_t>(static_cast<const char*>(eq) - bytes.data()) : bytes.size();
    out.append(bytes.substr(i, at - i));
    if (at >= bytes.size()) break;
    const size_t rest = bytes.size() - at - 1;
    if (auto next = softBreakEnd(bytes, at + 1)) {
      i = *next;
    } else if (rest >= 2 && hexValue(static_cast<unsigned char>(bytes[at + 1])) >= 0 &&
               hexValue(static_cast<unsigned char>(bytes[at + 2])) >= 0) {
      out.push_back(static_cast<char>(hexValue(static_cast<unsigned char>(bytes[at + 1])) * 16 +
                                      hexValue(static_cast<unsigned char>(bytes[at + 2]))));
      i = at + 3;
    } else {
      out.push_back('=');
      i = at + 1;
    }
  }
  return out;
}

std::optional<std::string> base64(std::string_view bytes) {
  if (bytes.empty()) return std::nullopt;
  std::string kept;
  kept.reserve(bytes.size());
  for (char c : bytes) {
    if (base64Value(static_cast<unsigned char>(c)) >= 0 || c == '=') kept.push_back(c);
  }
  kept.resize(kept.size() - kept.size() % 4);
  if (kept.empty()) return std::nullopt;
  std::string out;
  out.reserve(kept.size() / 4 * 3);
  for (size_t q = 0; q < kept.size(); q += 4) {
    const bool last = q + 4 == kept.size();
    int v[4];
    int pad = 0;
    for (int k = 0; k < 4; ++k) {
      const char c = kept[q + static_cast<size_t>(k)];
      if (c == '=') {
        // Padding only ends the last quantum, and never more than two of it.
        if (!last || k < 2) return std::nullopt;
        v[k] = 0;
        ++pad;
      } else {
        if (pad > 0) return std::nullopt;
        v[k] = base64Value(static_cast<unsigned char>(c));
      }
    }
    const uint32_t bits = static_cast<uint32_t>(v[0] << 18 | v[1] << 12 | v[2] << 6 | v[3]);
    out.push_back(static_cast<char>(bits >> 16 & 0xFF));
    if (pad < 2) out.push_back(static_cast<char>(bits >> 8 & 0xFF));
    if (pad < 1) out.push_back(static_cast<char>(bits & 0xFF));
  }
  return out;
}

}  // namespace TeskMail
