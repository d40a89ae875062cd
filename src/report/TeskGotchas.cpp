#include "report/TeskGotchas.h"

#include <array>
#include <string_view>

namespace TeskGotchas {

namespace {

struct Trap {
  std::string_view src, trap, measured, handled;
};

// Sources in the order im, web, mail, cal, contacts, then those that concern every source.
constexpr Trap kTraps[] = {
    {"im", "bodies live in attributedBody, not text",
     "1,828 of 145,767 rows populate text (1.25%); 0.11% of 2026",
     "blob first, always; `text` is a strict subset (1,828 of 1,828 also carry a blob)"},
    {"im", "the naive read is anti-correlated with recency", "text coverage falls to 0.11% in 2026",
     "every question lives on the recency axis, so the naive read fails hardest where it is asked"},
    {"im", "only the legacy unarchiver reads the blobs",
     "NSUnarchiver 144,833 / NSKeyed 0 of 144,838",
     "legacy first; modern-first costs one guaranteed-failed unarchive per row"},
    {"im", "72% of decode time builds attribute dictionaries we throw away",
     "sampled: NSAttributeDictionary + hash probing dominate NSUnarchiver",
     "`TeskDecode.directBody` reads the string straight out of the streamtyped bytes — 1.9x on a "
     "corpus-wide search, 3.3x on `body LIKE`; 144,581 of 144,581 blobs agree with the archiver"},
    {"im", "a hand-written parser may only ever be RIGHT or ABSENT",
     "marker gap exactly 4 in 144,570 of 144,570; header offsets 32-127; never reappears in body "
     "text",
     "anything unexpected returns nil and NSUnarchiver answers — the failure mode is SLOW, never "
     "WRONG; the corpus gate compares both readers on every blob and the receipt notes any "
     "fallback"},
    {"im", "no UTF-8 scrape fallback exists on purpose",
     "a scraper returned 36,244 empty bodies with no error",
     "an undecodable blob is COUNTED, never guessed — the decode rate is the tripwire"},
    {"im", "LIKE against the RAW blob returns 0 where the text matches",
     "SQLite compares typedstream bytes",
     "`tesk sql` serves `body` as a decoded column (tesk_body), so `body LIKE` works there though "
     "it never can against chat.db itself; --grep and positional text are still matched in tesk's "
     "own code, which ignores diacritics where LIKE does not"},
    {"im", "date is nanoseconds since 2001-01-01", "unix = date/1e9 + 978307200",
     "discriminated by magnitude, so legacy whole-second rows are not thrown into 1970"},
    {"im", "JOIN chat_message_join drops rows AND duplicates rows",
     "inner join reaches 144,196 of 145,767 (-1,571); 4 messages live in two chats",
     "LEFT JOIN a pre-aggregated MIN(chat_id); orphans counted in the receipt"},
    {"im", "12.4% of rows have handle_id = 0", "18,030 rows — nearly every message you sent 1:1",
     "`who` falls back to chat_identifier, or the outgoing half of every thread is lost"},
    {"im", "a tapback is an acknowledgement, not a message", "9,257 rows (6.35%) in 2000..3007",
     "kind=tapback, excluded by default, counted in the receipt"},
    {"im", "an attached file decodes to ONE INVISIBLE CHARACTER",
     "U+FFFC on 5,552 rows (3.8%); 1,176 more carry it as a prefix to a real caption",
     "placeholder stripped from the body; kind=attachment when nothing else is left"},
    {"im", "36.4% of attachment rows are Messages' own furniture",
     "hide_attachment=1 on 4,972 of 13,647 — sticker copies, link previews, tapback art",
     "dropped at the join, counted in the receipt as hidden_attachments"},
    {"im", "associated_message_type 1000 is a FILE, not a tapback",
     "277 rows, all is_from_me, all carrying __kIMFileTransferGUIDAttributeName",
     "it sits BELOW the 2000..3007 range, so a range test alone lets it through as text"},
    {"im", "unread is a five-column predicate or it is nothing",
     "668 unread here; is_read=0 alone would also count every message you ever sent",
     "item_type=0 AND is_read=0 AND is_from_me=0 AND is_finished=1 AND is_system_message=0"},
    {"im", "the schema is a moving target and a missing column kills the STATEMENT",
     "is_read/item_type/is_finished/is_system_message/hide_attachment all post-date iMessage",
     "every optional column asked for via pragma_table_info first; absent ones substituted"},
    {"im", "an undated row is dropped by SQL without a word",
     "NULL >= ? is NULL, not false; 0 such rows here, which is why nobody finds it",
     "`m.date IS NULL` spelled out in both bounds; excluded from a window but COUNTED"},
    {"im",
     "a body predicate in `tesk sql` costs the WHOLE WINDOW, and \"narrow first\" does not help",
     "`WHERE tesk_id=X AND body LIKE` decoded 135,320 rows for an answer drawn from 12,915; only "
     "ts (12,281) and dir (43,439) narrow the scan, since tesk_id, chat_id and --who depend on the "
     "joined rows",
     "to find words about one person run `tesk search <text> --who X`: SQL matches the handle, "
     "tesk's own code matches the words, and only 12,915 bodies are decoded"},
    {"im", "`tesk sql` used to decode the corpus to answer `SELECT 1`",
     "1.96 s and 144,571 blobs for a query that reads no bodies",
     "`body`/`kind` are SQL functions now, so a COUNT decodes NOTHING (0.36 s); only `body LIKE` "
     "pays, and it pays per row it tests — narrow first"},
    {"im",
     "decoding bodies through the platform archivers without an autorelease pool costs 3.4× the "
     "time and 5.7× the memory",
     "144,565 blobs: 16.9 s / 705 MB without, 5.0 s / 124 MB with",
     "nothing errors and the answer is correct either way — the pool is in TeskFunctions.decode"},
    {"im", "a function in a WHERE costs the planner its index",
     "`tesk_is_tapback(amt)=0` 2.43 s vs the same range written out 0.26 s, ZERO decodes either "
     "way",
     "the tapback range is written once in tesk's code and RENDERED into the SQL text; a test "
     "walks its boundary"},
    {"im", "reading contacts off disk asks for the whole machine",
     "AddressBook sqlite needs Full Disk Access; Contacts.framework needs one consent sheet",
     "CNContactStore first, the files only as fallback; roster.source says which answered"},
    {"im", "22% of threads are groups; ratios there are group-size arithmetic",
     "243 of 1,086 chats", "group flag on every row so a ratio can exclude them explicitly"},
    {"im", "chat.db is WAL and immutable=1 silently reads the past",
     "immutable=1: 145,763 rows / max 01:34 · mode=ro: 145,767 / max 01:57",
     "never immutable; verify journal_mode=wal, else snapshot db+-wal+-shm (0.14 s)"},
    {"web", "Chrome retains ~90 days", "horizon 2026-05-17 → 2026-08-14",
     "a query verified in June returns fewer rows every day after — that is what --assert is for"},
    {"web", "WebKit time is microseconds since 1601", "off by 11,644,473,600 s from unix",
     "converted at the producer"},
    {"web", "three browsers, three epochs, one of them a REAL",
     "chrome/arc µs-since-1601 (int) · safari seconds-since-2001 (REAL)",
     "read per engine; a float column read as an int truncates silently"},
    {"web", "Chrome is locked whenever Chrome is running", "SQLITE_BUSY on a direct open",
     "TeskStore snapshots db+-wal+-shm and reads the copy — the same path chat.db uses"},
    {"web", "Arc and Safari are near-disjoint from Chrome, and staler",
     "chrome 2026-05-17→08-14 · arc →2026-08-02 · safari →2026-05-17",
     "per-source `horizons` in the receipt; one merged horizon would hide the shortest"},
    {"mail", "the browse verb read the WHOLE archive by default",
     "`tesk mail` scanned 76,221 rows and opened 8,000 message files to print ten — 4.7 s",
     "`mail` joins `im`/`span` on the 30d default (0.34 s); find-verbs (`search`, `thread`) still "
     "read the whole horizon"},
    {"mail", "a per-mailbox horizon measured from the WINDOW is not a horizon",
     "with a 30d default it reported one row and a one-day archive over 76,221 real messages",
     "asked of the store unbounded, one grouped MIN/MAX — same law TeskIMessage learned"},
    {"mail", "the mirror dies silently",
     "newest 2025-12-12; 1 .emlx written in 2026 vs 14,266 in 2025; Accounts4 Google "
     "AUTHENTICATED=0",
     "`tesk doctor` reports Category B staleness as DEAD"},
    {"mail", "INBOX is empty as a MAILBOX and full as a LABEL",
     "messages.mailbox=INBOX: 0 rows · labels(mailbox_id=INBOX): 75,362 of 76,335",
     "Gmail over IMAP has no folders — the row lives in [Gmail]/All Mail (76,184) and every label "
     "it carries is a row in `labels`"},
    {"mail", "direction cannot be read from messages.mailbox",
     "[Gmail]/Sent Mail holds 0 rows as a mailbox and 466 as a label",
     "the Sent LABEL decides `dir`; reading the mailbox would call every message the user ever "
     "sent an incoming one"},
    {"mail", "JOIN labels drops nothing and DUPLICATES",
     "76,335 messages ⋈ labels = 79,776; 3,904 messages carry two labels",
     "labels are read once into a set, never joined — the same trap chat_message_join is, in the "
     "other direction"},
    {"mail", "the index row and the body file are written by different stages",
     "76,335 index rows vs 76,331 .emlx; the 4 are ROWIDs 78495/78500/78503/78506, all 2025-12-11, "
     "all interleaved with rows that DID land",
     "an envelope fetch wrote the row and the body fetch never came back before the grant died; "
     "counted as notOnDisk in the census, never decoded to \"\""},
    {"mail", "42% of the files on disk are .partial.emlx", "31,810 of 76,331",
     "both names are tried; a partial is a real body — it yields text/plain 94% of the time, and "
     "its final MIME part has no closing boundary"},
    {"mail", "MAX(date_received) is 2030-12-04",
     "ONE forged Date: header in 76,335 rows makes a mirror dead since 2025-12-12 report itself as "
     "fresh",
     "freshness is an order statistic over credible (<= now) timestamps plus an outlier test "
     "against the mailbox's own rhythm — never MAX(), and negative age is never freshness"},
    {"mail", "MAX(date_sent) is 2038-01-19T03:14:07Z",
     "= 2^31-1, the 32-bit time_t sentinel, on 2 rows",
     "ts is always date_received: date_sent is a header the sender wrote"},
    {"mail", "the .emlx path is COMPUTED, not searched",
     "id/1000, decimal digits REVERSED, one dir each, then Messages/ — 76,331 of 76,331 predicted "
     "exactly",
     "no directory walk on the read path; bodies open only for rows that survived the header "
     "filters, and the open count rides next to the row count"},
    {"mail", "an .emlx is THREE parts, not one",
     "byte-count line, RFC-822, then Mail's own plist (conversation-id, flags, gmail-label-ids)",
     "the declared count is honoured, or every body ends in XML that greps and renders exactly "
     "like text"},
    {"mail", "the mailbox URL authority is an ACCOUNT UUID, not a host",
     "the imap mailbox URL carries the account UUID as its authority and the percent-encoded "
     "\"[Gmail]/All Mail\" as its path, and that UUID is the directory name under V10",
     "that coincidence is the only link between the index and the files"},
    {"mail", "a dead grant looks exactly like an idle app",
     "Mail.app running for 160 s opened ZERO TCP connections and added 0 rows",
     "`tesk doctor` reads ZAUTHENTICATED from Accounts4 rather than inferring the cause from row "
     "age"},
    {"cal", "the store holds rules, not instances",
     "35 of 147 items recur; naive next-7-days returns 0",
     "recurrence is expanded in the producer and checked against Apple's own OccurrenceCache"},
    {"cal", "the store is not in ~/Library/Calendars any more",
     "that path survives as an EMPTY directory; the live store is ~/Library/Group "
     "Containers/group.com.apple.calendar/",
     "every probe is a LIST of candidate paths, and the resolved one is reported"},
    {"cal", "a numeric column compared against strftime('%s','now') matches nothing",
     "strftime returns TEXT and SQLite sorts every number below every string: 0 rows vs 60 with "
     "CAST(... AS INTEGER)",
     "CAST at the producer; no error is ever raised"},
    {"cal", "enabling a data class does not mean it synced",
     "the Google CalDAV store appeared in 1 s and failed validation in the next: "
     "CoreDAVHTTPStatusErrorDomain 401",
     "the provider's own Error table is read and printed as CAUSE"},
    {"cal", "130 of 148 rows are FLOATING dates, not instants",
     "stored 2028-04-16 00:00Z, Calendar resolves it to 07:00Z — your UTC offset, every time",
     "wall-clock components are re-formed in the local zone; east of UTC the naive read lands on "
     "the WRONG DAY, which is a missed birthday that never looks like a bug"},
    {"cal", "start_date is a REAL", "column_int64 truncates it and still sorts and renders",
     "read as double"},
    {"cal", "orig_item_id is 0, never NULL",
     "`IS NOT NULL` matches all 148 rows and finds no detached instances", "the test is `> 0`"},
    {"cal", "OccurrenceCache is a DAY INDEX, not an occurrence list",
     "one 23-day event holds 23 rows sharing an end date",
     "grouped by end, earliest start — expansion then agrees 205/205"},
    {"cal", "a relative span used to mean only the past",
     "`--until 30d` resolved a month BACKWARD and returned an empty window",
     "`+30d` parses forward; the calendar is the first source where next Tuesday is a real "
     "question"},
    {"contacts", "the top-level address book is nearly empty",
     "2 records at the top level, 628 in Sources/<uuid>/AddressBook-v22.abcddb",
     "all books are summed; Full Disk Access IS enough to read them, contrary to what this line "
     "said until it was measured"},
    {"*", "a DAY is a LOCAL thing, and `ts` is unix seconds",
     "bucketing the same 30 days by UTC day says the busiest day had 356 messages; by local day it "
     "had 360; a model doing it itself answered 356, 358 and 360 on three consecutive runs",
     "`--by day|week|month|year|who` does it in the producer, in this machine's own timezone, and "
     "names the zone in the receipt — do not group timestamps yourself"},
    {"*", "`ww` on a Gregorian calendar is NOT an ISO week",
     "it follows the calendar's own first-weekday and minimum-days rules, so 2027-01-01 labels as "
     "week 1 of 2027 instead of week 53 of 2026",
     "`--by week` uses the iso8601 calendar and the week-YEAR (`YYYY`, not `yyyy`) — week 1 can "
     "begin in December"},
};

static_assert(std::size(kTraps) == 55);

}  // namespace

const std::vector<std::string>& lines() {
  static const std::vector<std::string> table = [] {
    std::vector<std::string> out;
    out.reserve(62);
    out.emplace_back(
        "# measured on a real corpus, 2026-08-13 \u2014 each one is handled by this binary");
    out.emplace_back();
    out.emplace_back("src\ttrap\tmeasured\thandled as");
    for (const Trap& t : kTraps) {
      std::string row;
      row.reserve(t.src.size() + t.trap.size() + t.measured.size() + t.handled.size() + 3);
      row.append(t.src).append("\t").append(t.trap).append("\t").append(t.measured);
      row.append("\t").append(t.handled);
      out.push_back(std::move(row));
    }
    out.emplace_back();
    out.emplace_back("# the rule both of the architect's own failures came down to:");
    out.emplace_back(
        "# you cannot tell an empty store from a store you failed to find \u2014 so a probe "
        "names");
    out.emplace_back(
        "# candidate paths, reports which one answered, and reads the cause from the OS itself.");
    return out;
  }();
  return table;
}

}  // namespace TeskGotchas
