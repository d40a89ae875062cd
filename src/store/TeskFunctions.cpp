#include "store/TeskFunctions.h"

#include <sqlite3.h>

#include <memory>
#include <new>

#include "cli/TeskTime.h"
#include "sources/messages/TeskIdentity.h"

namespace {

// Group chats carry this chat.style; they have no single counterpart.
constexpr int64_t kGroupStyle = 43;
// A file transfer; below the tapback range.
constexpr int64_t kFileTransfer = 1000;

// A text argument: absent for NULL or when SQLite gives no text. Views the
// argument's own buffer, valid for the rest of the callback.
std::optional<std::string_view> textArg(sqlite3_value* v) {
  if (sqlite3_value_type(v) == SQLITE_NULL) return std::nullopt;
  const unsigned char* p = sqlite3_value_text(v);
  if (p == nullptr) return std::nullopt;
  return std::string_view(reinterpret_cast<const char*>(p),
                          static_cast<size_t>(sqlite3_value_bytes(v)));
}

// A blob argument, viewed in place (no copy): empty for NULL or zero length.
TeskDecode::Bytes blobArg(sqlite3_value* v) {
  if (sqlite3_value_type(v) == SQLITE_NULL) return {};
  const void* p = sqlite3_value_blob(v);
  int n = sqlite3_value_bytes(v);
  if (p == nullptr || n < 1) return {};
  return {static_cast<const uint8_t*>(p), static_cast<size_t>(n)};
}

void resultText(sqlite3_context* ctx, std::string_view text) {
  sqlite3_result_text(ctx, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

TeskFunctions* state(sqlite3_context* ctx) {
  return static_cast<TeskFunctions*>(sqlite3_user_data(ctx));
}

void teskBody(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 3) return;
  TeskFunctions* functions = state(ctx);
  if (functions == nullptr) return;
  const TeskFunctions::Decoded& d =
      functions->decode(sqlite3_value_int64(argv[0]), textArg(argv[1]), blobArg(argv[2]));
  if (d.stripped) {
    resultText(ctx, *d.stripped);
  } else {
    sqlite3_result_null(ctx);
  }
}

void teskKind(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 6) return;
  TeskFunctions* functions = state(ctx);
  if (functions == nullptr) return;
  const int64_t amt = sqlite3_value_int64(argv[3]);
  static const TeskFunctions::Decoded kUndecoded;
  // A tapback's kind is decided without decoding it.
  const TeskFunctions::Decoded& d =
      TeskFunctions::isTapback(amt)
          ? kUndecoded
          : functions->decode(sqlite3_value_int64(argv[0]), textArg(argv[1]), blobArg(argv[2]));
  const char* kind =
      TeskFunctions::kind(amt, d, sqlite3_value_int64(argv[4]), sqlite3_value_int64(argv[5]));
  sqlite3_result_text(ctx, kind, -1, SQLITE_STATIC);
}

void teskIsTapback(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 1) return;
  sqlite3_result_int64(ctx, TeskFunctions::isTapback(sqlite3_value_int64(argv[0])) ? 1 : 0);
}

void teskWho(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 3) return;
  resultText(ctx,
             TeskFunctions::who(textArg(argv[0]), textArg(argv[1]), sqlite3_value_int64(argv[2])));
}

void teskCanonical(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 1) return;
  resultText(ctx, TeskIdentity::canonical(textArg(argv[0]).value_or("")));
}

void teskTs(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 1) return;
  sqlite3_result_double(ctx, TeskTime::fromAppleDate(sqlite3_value_int64(argv[0])));
}

void teskIso(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 1) return;
  resultText(ctx, TeskTime::isoString(sqlite3_value_double(argv[0])));
}

// The query side of tesk_match, prepared once per statement when the query is a
// constant or bound value (SQLite keeps it as auxiliary data of argument 0).
struct MatchQuery {
  bool empty;
  TeskIdentity::Query query;
  std::string canonical;
};

void teskMatch(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  if (ctx == nullptr || argv == nullptr || argc < 2) return;
  auto* prepared = static_cast<const MatchQuery*>(sqlite3_get_auxdata(ctx, 0));
  std::unique_ptr<MatchQuery> fresh;
  if (prepared == nullptr) {
    std::string_view q = textArg(argv[0]).value_or("");
    fresh.reset(new MatchQuery{q.empty(), TeskIdentity::Query(q), TeskIdentity::canonical(q)});
    prepared = fresh.get();
  }
  std::string_view handle = textArg(argv[1]).value_or("");
  bool match = prepared->empty || prepared->query.matches(handle) ||
               TeskIdentity::canonical(handle) == prepared->canonical;
  sqlite3_result_int64(ctx, match ? 1 : 0);
  if (fresh) {
    // SQLite owns it from here (and frees it at once if it cannot keep it).
    sqlite3_set_auxdata(ctx, 0, fresh.release(),
                        [](void* p) { delete static_cast<MatchQuery*>(p); });
  }
}

// SQLite's frames are C: nothing may unwind through them. Out of memory is the
// one failure a function reports; anything else reads as an absent result.
template <void (*F)(sqlite3_context*, int, sqlite3_value**)>
void guarded(sqlite3_context* ctx, int argc, sqlite3_value** argv) {
  try {
    F(ctx, argc, argv);
  } catch (const std::bad_alloc&) {
    if (ctx != nullptr) sqlite3_result_error_nomem(ctx);
  } catch (...) {
    if (ctx != nullptr) sqlite3_result_null(ctx);
  }
}

}  // namespace

void TeskFunctions::install(sqlite3* db, TeskFunctions& functions) {
  struct Entry {
    const char* name;
    int arity;
    void (*call)(sqlite3_context*, int, sqlite3_value**);
  };
  static constexpr Entry entries[] = {
      {"tesk_body", 3, guarded<teskBody>},
      {"tesk_kind", 6, guarded<teskKind>},
      {"tesk_is_tapback", 1, teskIsTapback},
      {"tesk_who", 3, guarded<teskWho>},
      {"tesk_canonical", 1, guarded<teskCanonical>},
      {"tesk_ts", 1, teskTs},
      {"tesk_iso", 1, guarded<teskIso>},
      {"tesk_match", 2, guarded<teskMatch>},
  };
  for (const Entry& e : entries) {
    // A failed registration surfaces later as "no such function" in the statement.
    sqlite3_create_function_v2(db, e.name, e.arity, SQLITE_UTF8 | SQLITE_DETERMINISTIC, &functions,
                               e.call, nullptr, nullptr, nullptr);
  }
}

const TeskFunctions::Decoded& TeskFunctions::decode(int64_t rowID,
                                                    std::optional<std::string_view> text,
                                                    TeskDecode::Bytes blob) {
  if (rowID >= 0 && rowID == memoRowID_ && memo_) return *memo_;
  Decoded d;
  d.outcome = TeskDecode::body(text, blob);
  // The body moves into `stripped`: nobody reads the outcome's own copy.
  TeskDecode::Stripped s = TeskDecode::stripPlaceholders(std::move(d.outcome.body));
  d.outcome.body.reset();
  d.stripped = std::move(s.text);
  d.hadPlaceholder = s.hadPlaceholder;
  if (rowID < 0 || counted_.insert(rowID)) census_.record(d.outcome);
  memoRowID_ = rowID;
  memo_ = std::move(d);
  return *memo_;
}

const char* TeskFunctions::kind(int64_t amt, const Decoded& d, int64_t edited,
                                int64_t attachments) {
  if (isTapback(amt)) return "tapback";
  if (d.stripped && !d.stripped->empty()) return edited >= 1 ? "edited" : "text";
  if (d.stripped) {
    return (d.hadPlaceholder || amt == kFileTransfer || attachments >= 1) ? "attachment" : "empty";
  }
  return attachments >= 1 ? "attachment" : "empty";
}

std::optional<std::string> TeskFunctions::body(int64_t rowID, std::optional<std::string_view> text,
                                               TeskDecode::Bytes blob) {
  return decode(rowID, text, blob).stripped;
}

std::string_view TeskFunctions::who(std::optional<std::string_view> handle,
                                    std::optional<std::string_view> chatIdentifier, int64_t style) {
  // "" rather than an empty view: SQLite reads a null pointer as NULL.
  if (handle && !handle->empty()) return *handle;
  if (style == kGroupStyle) return "";
  return chatIdentifier.value_or("");
}
