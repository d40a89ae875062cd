// Apple Mail: the Envelope Index turned into rows, and each message's .emlx file
// turned into plain text. Every body ends in exactly one tier and one census
// count; nothing that fails to decode is returned as an empty string.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/TeskText.h"
#include "report/TeskRow.h"
#include "report/TeskRowStream.h"
#include "report/TeskSpan.h"
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

// How recent the index is, judged from its newest date_received values.
struct Freshness {
  double newest = 0;       // newest credible sample (0 < sample <= now); 0 when none
  double runnerUp = 0;     // second newest credible sample; 0 when fewer than two
  double raw = 0;          // the largest sample, credible or not (what MAX() says)
  int64_t future = 0;      // samples after `now`
  int64_t sampled = 0;     // samples taken
  double now = 0;          // the instant the samples were judged against
  bool contested = false;  // the newest credible sample breaks the mailbox's rhythm

  // Days since `newest`; infinity when there is no credible sample.
  double ageDays() const;
};

// One read of the index.
struct Result {
  std::vector<TeskRow> rows;        // in answer order (TeskRow::answerOrder)
  std::vector<std::string> denied;  // "mail: <why>"; empty when the index was read
  Census census;
  std::optional<TeskSpan> horizon;            // the whole index, widened by the window
  std::map<std::string, TeskSpan> horizons;   // per mailbox name
  std::map<std::string, int64_t> perMailbox;  // emitted rows per mailbox name
  Freshness freshness;
  int64_t indexRows = 0;
  int64_t candidates = 0;        // rows that passed the header filters
  int64_t bodiesAttempted = 0;   // candidates whose body was sought
  int64_t bodiesOpened = 0;      // plain + html + noTextPart + malformed + undecodable + unreadable
  int64_t bodiesSkipped = 0;     // candidates - bodiesAttempted (= census.notOpened)
  bool budgetWaived = false;     // a text selector made every body sought
  int64_t futureDated = 0;       // window rows received after `now`
  int64_t noInstant = 0;         // dated rows whose date is no instant, kept out of horizons
  int64_t excludedFiltered = 0;  // Spam / Junk rows dropped
  int64_t excludedGroup = 0;     // rows with two or more recipients dropped
  std::string openMode;          // "ro", "snapshot", "plain"; empty when nothing was opened
  bool readStateKnown = false;   // the index keeps each message's read state
  bool unreadIgnored = false;    // --unread was asked of an index that keeps none
};

// Index rows against body files, per mailbox.
struct Ledger {
  struct Entry {
    std::string mailbox;
    int64_t indexRows = 0;
    int64_t files = 0;
    int64_t partial = 0;
    std::vector<int64_t> missing;  // index ROWIDs without a body file, ascending
    int64_t orphans = 0;           // body files whose ROWID the mailbox does not hold
  };
  std::vector<Entry> entries;
};

// Mailbox names whose messages are the owner's own ("Sent Mail", "Drafts", ...).
bool isSentLeaf(std::string_view leaf);
// Spam and Junk.
bool isFilteredLeaf(std::string_view leaf);

// The index: the newest V<n> directory under home/Library/Mail holding
// MailData/Envelope Index. Nothing when there is none.
std::optional<std::string> indexPath(const std::string& home);
// The mailbox a URL names ("imap://<account>/<percent-encoded path>"); nothing
// for a URL without "://".
std::optional<Mailbox> mailbox(int64_t id, std::string_view url);
// Freshness of the samples (any order) judged at `now`.
Freshness freshness(std::vector<double> samples, double now);

// The mail rows the filter selects as they are read, newest first, each message
// taken whole (recipients, labels, body) as it passes; the counts of a Result once
// the last row has passed. At most `bodyBudget` bodies are opened, the newest, unless
// a text query or --grep needs them all. `filter` must outlive the stream. Never
// throws: what cannot be read becomes a `denied` entry.
class Stream final : public TeskRowStream {
 public:
  Stream(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget,
         const std::string& home);
  ~Stream() override;

  const TeskRow* next() override;
  // The counts, horizons and denials, rows left empty; complete once the stream ended.
  Result finish() const;
  // The rows handed out so far.
  int64_t kept() const;

 private:
  class Walk;
  std::unique_ptr<Walk> walk_;
};

// The stream drained: every row, in answer order, and the counts.
Result read(const TeskIMessage::Filter& filter, double now, int64_t bodyBudget,
            const std::string& home);
// Every mailbox's index rows reconciled with the body files on disk; walks the
// data directories, so it is never on the read path. Nothing without an index.
std::optional<Ledger> ledger(const std::string& home);
// The receipt notes a read yields: the decode line, the below-gate warning and
// the future-dated note. No decode line for a read that was denied.
std::vector<std::string> notes(const Result& result);

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
  // The text of a part the sender attached (Content-Disposition attachment, a file
  // name) or of a calendar invitation: it is not the message's own text.
  bool attached = false;
};
// Walks one part. Inside a multipart the message's own text/plain wins wherever it
// stands, then its first HTML part; text the sender attached (a .txt file, a
// text/calendar invitation, an attached message) is used only when the message has
// no text of its own. Multiparts and message/rfc822 are followed down to maxDepth.
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
// Soft line breaks removed ('=' then optional blanks, then a line break or the end
// of the part), =XX escapes decoded, any other '=' kept.
std::string quotedPrintable(std::string_view bytes);
// `bytes` in the named charset as UTF-8. A part declared UTF-8 is repaired (each
// invalid sequence one U+FFFD); ASCII names, unknown names and bytes that fail to
// convert fall back to "valid UTF-8 unchanged", else nothing.
std::optional<std::string> utf8(std::string_view bytes, std::optional<std::string_view> charset);

// HTML and whitespace

// Tags removed (block tags become LF, others a space), script and style dropped,
// entities decoded.
std::string stripHTML(std::string_view bytes);
// Every HTML5 named character reference (case-sensitive; the legacy names also
// without their ';') and numeric references ending in ';' decoded; anything else
// kept as written, a bare '&' included.
std::string entities(std::string_view bytes);
// Leading and trailing white space dropped, blank runs made one space, runs with
// line breaks (LF, CR LF or a lone CR) one LF or one blank line; invalid UTF-8 is
// repaired.
std::string normalize(std::string_view bytes);

// Utilities the decoder shares

using TeskText::isValidUTF8;
using TeskText::repairUTF8;

}  // namespace TeskMail
