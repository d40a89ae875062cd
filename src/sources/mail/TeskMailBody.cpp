// One .emlx file to one body: the byte-count line, the declared span (so Mail's
// trailing property list never reaches a body), the MIME walk, and the caps.
#include <unicode/brkiter.h>
#include <unicode/utext.h>

#include <memory>
#include <string>

#include "sources/mail/TeskMail.h"

namespace TeskMail {
namespace {

// Bytes searched for the count line's LF.
constexpr size_t countLineReach = 32;
// More digits than this could overflow a signed 64-bit count.
constexpr int maxCountDigits = 18;

Body bodyOf(Tier tier) { return Body{std::nullopt, tier}; }

// The largest length at or below `limit` that does not split a UTF-8 sequence.
size_t utf8Boundary(std::string_view text, size_t limit) {
  if (limit >= text.size()) return text.size();
  size_t cut = limit;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return cut;
}

struct UTextClose {
  void operator()(UText* t) const { utext_close(t); }
};

// The byte offset just after the first `cap` grapheme clusters, or nothing when
// the text holds no more than `cap` of them.
std::optional<size_t> graphemeCut(const std::string& text, int64_t cap) {
  // A cluster is at least one byte, so a short text cannot exceed the cap.
  if (static_cast<int64_t>(text.size()) <= cap) return std::nullopt;
  thread_local std::unique_ptr<icu::BreakIterator> iterator;
  UErrorCode status = U_ZERO_ERROR;
  if (!iterator) {
    iterator.reset(icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status)) {
      iterator.reset();
      return std::nullopt;
    }
  }
  status = U_ZERO_ERROR;
  std::unique_ptr<UText, UTextClose> ut(
      utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status));
  if (U_FAILURE(status)) return std::nullopt;
  iterator->setText(ut.get(), status);
  if (U_FAILURE(status)) return std::nullopt;
  int32_t boundary = iterator->first();
  for (int64_t clusters = 0; clusters < cap; ++clusters) {
    boundary = iterator->next();
    if (boundary == icu::BreakIterator::DONE) return std::nullopt;
  }
  if (static_cast<size_t>(boundary) >= text.size()) return std::nullopt;
  return static_cast<size_t>(boundary);
}

// Where Mail's trailing property list starts in `rest`, or its size when the
// bytes do not end in one: the last "<?xml" followed closely by a plist tag.
size_t trailingPlist(std::string_view rest) {
  static constexpr std::string_view xml = "<?xml";
  static constexpr size_t prologReach = 256;
  const size_t at = rest.rfind(xml);
  if (at == std::string_view::npos) return rest.size();
  const std::string_view prolog = rest.substr(at, prologReach);
  if (prolog.find("<!DOCTYPE plist") == std::string_view::npos &&
      prolog.find("<plist") == std::string_view::npos) {
    return rest.size();
  }
  return at;
}

}  // namespace

std::string_view rawValue(Tier tier) {
  switch (tier) {
    case Tier::plain:
      return "plain";
    case Tier::html:
      return "html";
    case Tier::noTextPart:
      return "noTextPart";
    case Tier::notOnDisk:
      return "notOnDisk";
    case Tier::unreadable:
      return "unreadable";
    case Tier::malformed:
      return "malformed";
    case Tier::undecodable:
      return "undecodable";
    case Tier::notOpened:
      return "notOpened";
  }
  return "notOpened";
}

void Census::record(Tier tier) {
  switch (tier) {
    case Tier::plain:
      ++plain;
      break;
    case Tier::html:
      ++html;
      break;
    case Tier::noTextPart:
      ++noTextPart;
      break;
    case Tier::notOnDisk:
      ++notOnDisk;
      break;
    case Tier::unreadable:
      ++unreadable;
      break;
    case Tier::malformed:
      ++malformed;
      break;
    case Tier::undecodable:
      ++undecodable;
      break;
    case Tier::notOpened:
      ++notOpened;
      break;
  }
}

Body decode(std::string_view emlx, Census& census) {
  if (emlx.empty()) return bodyOf(Tier::malformed);
  const size_t reach = std::min(emlx.size(), countLineReach);
  const size_t lf = emlx.substr(0, reach).find('\n');
  if (lf == std::string_view::npos || lf == 0) return bodyOf(Tier::malformed);

  int64_t count = 0;
  int digits = 0;
  for (char c : emlx.substr(0, lf)) {
    if (c == '\t' || c == '\r' || c == ' ') continue;
    if (c < '0' || c > '9') return bodyOf(Tier::malformed);
    if (++digits > maxCountDigits) return bodyOf(Tier::malformed);
    count = count * 10 + (c - '0');
  }
  if (digits == 0 || count < 1) return bodyOf(Tier::malformed);

  const std::string_view rest = emlx.substr(lf + 1);
  std::string_view span = rest;
  if (static_cast<uint64_t>(count) > rest.size()) {
    ++census.truncatedFiles;
    // A count longer than the file (tools that edit .emlx files leave these)
    // would carry Mail's own property list into the body; it never belongs there.
    span = rest.substr(0, trailingPlist(rest));
  } else {
    span = rest.substr(0, static_cast<size_t>(count));
  }
  if (span.empty()) return bodyOf(Tier::malformed);

  const Split top = splitHeaders(span);
  PartResult result = part(top.headers, top.body, 0);
  if (result.kind == PartResult::Kind::none) return bodyOf(Tier::noTextPart);
  if (result.kind == PartResult::Kind::undecodable) return bodyOf(Tier::undecodable);

  // Never cut inside a UTF-8 sequence: the cut would surface as U+FFFD.
  const size_t keep = utf8Boundary(result.text, textByteCap);
  std::string text = normalize(std::string_view(result.text).substr(0, keep));
  if (text.empty()) return bodyOf(Tier::noTextPart);
  if (auto cut = graphemeCut(text, bodyCap)) {
    text.resize(*cut);
    ++census.cappedBodies;
  }
  return Body{std::move(text), result.html ? Tier::html : Tier::plain};
}

}  // namespace TeskMail
