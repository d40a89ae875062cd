// The usage text: printed by help, after an unknown verb and after an option error.
#include "cli/TeskCLI.h"

namespace TeskCLI {

const std::string_view usage =
    R"TESKUSAGE(tesk — read this Mac's tesk. Read-only by construction: no writes, no network.

  tesk search <text>     full text over decoded bodies
  tesk thread --who X    everything with one person: a contact's name brings
                         every handle on their card and the group threads
                         they are in
  tesk span              a window, newest last
  tesk im [text]         iMessage; alias for span/search over --src im
  tesk who <text>        handle or name → canonical person, and every handle
                         they use
  tesk who me            proven self handles: macOS Me card + account email
  tesk sql "<SELECT>"    SQL over the DECODED view (see `tesk views`)
  tesk views             the schema `tesk sql` sees
  tesk cal               calendar, recurrence expanded; `--until +30d` looks forward
  tesk mail              Apple Mail's Gmail mirror; bodies decoded from .emlx
  tesk span --src reminder
                         unfinished Apple Reminders, read from the local store
  tesk span --src im,web a window across every source, merged on time
  tesk doctor            per-source freshness, grant state, lock state
  tesk doors             which permission each capability needs, and what it buys
  tesk link              the google↔apple account link that FILLS the stores
  tesk gotchas           the measured traps, and how this binary handles each
  tesk api               this binary's own surface, as JSON — what the agent
                         is told it can call is checked against this

selectors — identical on every verb; one a source or an answer cannot honour
(--unread on a calendar, --limit on `who`) is named in the receipt's notes
  --src im,web           im · mail · cal · reminder · web (= chrome,arc,safari)
                         or a browser by name.
                         Rows from every source merge and sort on `ts` — a path
                         exists in one store, a timestamp exists in all of them.
                         Anything with no producer yet is REPORTED, never faked.
  --who X                phone, email, fragment, or a contact's name ("Jordan
                         Lee", "jordan"): a name finds every handle on the card
  --since 30d --until D  30d 12m 5y 48h 90min, or 2026-01-01.
                         `im`, `span` and `mail` default to 30d (the 30 days
                         that end at --until when only --until is given); every
                         other verb reads the WHOLE horizon, because a search
                         that quietly looked at one month would answer "never"
                         about last year.
  --dir in|out           direction
  --grep RE              regex over the decoded body
  --by day|week|month|year|who|person
                         one row per bucket instead of per message. Time buckets
                         are LOCAL — the day the person was standing in, not UTC.
                         person: one line per contact card (or lone handle),
                         every handle seen joined with "|".
  --limit N              default 50; 0 means no limit
  --cursor T,ID          where a capped answer stopped. Append the receipt's
                         `next` (`--since` pinned to its exact instant, then
                         `--cursor <exact instant>,<id of the last row shown>`)
                         to the same command for the next page. Rows come newest
                         first; rows at one instant come in a fixed order
                         (reminder, cal, mail, safari, arc, chrome, im; then id),
                         so the pages together hold every row exactly once.
  --format auto|tsv|json|agg
                         auto (default): rows when the complete answer fits the
                         budget, an aggregate when it does not — so a head of a
                         large set is never mistaken for the whole. tsv/json are
                         the explicit override. NDJSON costs ~50% more characters.
  --assert EXPR          exit 3 on drift; repeatable. `tesk views` lists terms
  --include-reactions    tapbacks are excluded by default (6.35% of rows)
  --no-groups            drop chat.style=43 threads
  --include-filtered     include chats Apple flagged unknown-sender
  --unread               only messages and mail you have not read — incoming,
                         finished, not a system message. Older stores lack the
                         columns; the receipt says `schema_lacks` when they do.
  --db PATH              read a specific store instead of the default
  --budget N             character budget before switching to agg (default 30000)

output contract
  line 1 and the last line are the SAME receipt, prefixed `#tesk `.
  Two receipts means the stream is complete. One means it was truncated.)TESKUSAGE";

}  // namespace TeskCLI
