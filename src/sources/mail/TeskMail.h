// Apple Mail: the Envelope Index turned into rows, and each message's .emlx file
// turned into plain text. Every body ends in exactly one tier and one census
// count; nothing that fails to decode is returned as an empty string.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report/TeskRow.h"
#include "sources/messages/TeskFilter.h"

namespace TeskMail {

// Characters (grapheme clusters) of body kept per message.
inline constexpr int64_t bodyCap = 20000;
// Decoded text is cut to this many bytes before it is normalised.
inline constexpr size_t textByteCap = 80000;
// Deepest MIME nesting followed; the top level is depth 0.
inline constexpr int maxDepth = 7;

// How a body was (or was not) obtained, in census order.
enum class Tier {
  plain,
  html,
  noTextPart,
  notOnDisk,
  unreadable,
  malformed,
  undecodable,
  notOpened
};

// The case name ("plain", "noTextPart", ...).
std::string_view rawValue(Tier tier);

// Body outcomes of one read. The first eight counters match the tiers one to one.
struct Census {
  int64_t plain = 0;
  int64_t html = 0;
  int64_t noTextPart = 0;
  int64_t notOnDisk = 0;
  int64_t unreadable = 0;
  int64_t malformed = 0;
  int64_t undecodable = 0;
  int64_t notOpened = 0;
  int64_t truncatedFiles = 0;  // files shorter than their declared byte count
  int64_t cappedBodies = 0;    // bodies cut at bodyCap

  // Adds one to the counter of `tier`.
  void record(Tier tier);
  int64_t attempted() const {
    return plain + html + noTextPart + notOnDisk + unreadable + malformed + undecodable;
  }
  int64_t decoded() const { return plain + html; }
  int64_t filesRead() const { return plain + html + noTextPart + malformed + undecodable; }
  int64_t bodies() const { return attempted() - noTextPart; }
  // decoded / bodies; exactly 1.0 when there are no bodies.
  double rate() const {
    return bodies() == 0 ? 1.0 : static_cast<double>(decoded()) / static_cast<double>(bodies());
  }
};

// A decoded body: text only for the plain and html tiers.
struct Body {
  std::optional<std::string> text;
  Tier tier = Tier::notOpened;
};

// A mailbox of the index, derived from its URL.
struct Mailbox {
  int64_t id = 0;
  std::string account;  // URL authority = the account's directory name
  std::string name;     // percent-decoded path, "(root)" when empty
  std::string leaf;     // last non-empty path component; empty for an empty path
};

// Body files: locating them

// "Messages" under n < 1000, else the reversed digits of n / 1000 as directory
// levels followed by "Messages" (78495 -> "8/7/Messages").
std::string relativeDirectory(int64_t id);
// The full and the partial body file of message `id`, in the order to try them.
std::array<std::string, 2> bodyPaths(std::string_view dataRoot, int64_t id);
// The first "<entry>/Data" directory (entries sorted) under the mailbox's .mbox
// directory inside `versionRoot`; nothing when the directory cannot be listed or
// no entry has one. Lists exactly one directory.
std::optional<std::string> dataRoot(const Mailbox& box, std::string_view versionRoot);
// Reads and decodes the body of message `id` and records its tier in `census`
// (notOnDisk when neither file exists, unreadable when the read yields nothing).
Body load(int64_t id, std::string_view dataRoot, Census& census);

// Body files: decoding (all byte work happens on views of the caller's buffer)

// Decodes a whole .emlx file. Does not record the tier; adds to truncatedFiles
// and cappedBodies.
Body decode(std::string_view emlx, Census& census);

struct Split {
  std::string headers;    // unfolded header text
  std::string_view body;  // view into the input
};
// Splits at the first CRLFCRLF, else the first LFLF; without either the whole
// input is header text and the body is empty.
Split splitHeaders(std::string_view bytes);
// Drops CRs, joins folded lines with one space; invalid UTF-8 is repaired.
std::string unfold(std::string_view bytes);
// The trimmed value of the first header line whose key (lower-cased) is `name`;
// `name` must be lower case. The view points into `text`.
std::optional<std::string_view> header(std::string_view name, std::string_view text);
// The value of parameter `name` (lower case) in a header value; quoted values
// end at the next quote, bare ones at ';', space, LF or TAB. View into `value`.
std::optional<std::string_view> parameter(std::string_view name, std::string_view value);

// The outcome of one MIME part.
struct PartResult {
  enum class Kind { none, undecodable, text };
  Kind kind = Kind::none;
  std::string text;  // UTF-8, only for Kind::text
  bool html = false;
};
// Walks one part: text/plain anywhere wins over HTML; multiparts and
// message/rfc822 are followed down to maxDepth.
PartResult part(std::string_view headers, std::string_view body, int depth);
// Multipart splitting on a raw delimiter: preamble dropped, stops at the closing
// delimiter; bytes after the last delimiter line are a last part (partial files).
std::vector<std::string_view> split(std::string_view bytes, std::string_view delimiter);
// The first index of `needle` in `haystack`; nothing for an empty needle.
std::optional<size_t> find(std::string_view needle, std::string_view haystack);

// Transfer and character encodings

// Standard base64 over the alphabet bytes only; nothing when no whole quantum is
// left or the data does not decode.
std::optional<std::string> base64(std::string_view bytes);
// Soft line breaks removed, =XX escapes decoded, any other '=' kept.
std::string quotedPrintable(std::string_view bytes);
// `bytes` in the named charset as UTF-8. UTF-8 and ASCII names, unknown names and
// bytes that fail to convert fall back to "valid UTF-8 unchanged", else nothing.
std::optional<std::string> utf8(std::string_view bytes, std::optional<std::string_view> charset);

// HTML and whitespace

// Tags removed (block tags become LF, others a space), script and style dropped,
// entities decoded.
std::string stripHTML(std::string_view bytes);
// Named (a fixed short table) and numeric character references decoded; anything
// else kept as written.
std::string entities(std::string_view bytes);
// Leading and trailing white space dropped, blank runs made one space, runs with
// line breaks one LF or one blank line; invalid UTF-8 is repaired.
std::string normalize(std::string_view bytes);

// Utilities the decoder shares

// `bytes` with every invalid UTF-8 sequence replaced by U+FFFD.
std::string repairUTF8(std::string_view bytes);
// True when `bytes` is well-formed UTF-8.
bool isValidUTF8(std::string_view bytes);

}  // namespace TeskMail
