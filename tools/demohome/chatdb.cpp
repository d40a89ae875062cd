// Library/Messages/chat.db: the Messages store, with the traps the reader must
// handle (blobs not text, tapbacks, handle_id 0, orphans, double-joined rows,
// hidden attachments, mixed date units, an unread set, a live -wal).
#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <set>

#include "Blob.h"
#include "Home.h"
#include "Sqlite.h"
#include "Support.h"
#include "Texts.h"

namespace demohome {

namespace {

struct HandleRow {
  int64_t rowid;
  std::string id, service, country;
};

struct ChatRow {
  int64_t rowid;
  int style;  // 43 group, 45 one-to-one
  std::string guid, identifier, service, displayName;
  std::vector<int64_t> members;  // handle rowids
  bool filtered = false;
  bool unreadBacklog = false;  // its newest incoming messages stay unread
};

enum class Kind { text, tapback, fileTransfer, attachment, caption, link, system, textOnly, empty };

struct Msg {
  double t = 0;
  int chat = -1;  // index into chats; -1 = in no chat
  int secondChat = -1;
  bool fromMe = false;
  int64_t handle = 0;
  Kind kind = Kind::text;
  bool textColumn = false, emptyTextColumn = false, unread = false, edited = false;
  int dateForm = 0;  // 0 ns, 1 whole seconds, 2 NULL, 3 zero
  int attachments = 0;
};

// Picks k distinct indices from candidates, preferring larger weights (weighted
// sampling without replacement via exponential keys).
std::vector<size_t> pickWeighted(Rng& rng, const std::vector<size_t>& cand,
                                 const std::vector<double>& w, size_t k) {
  std::vector<std::pair<double, size_t>> keyed;
  keyed.reserve(cand.size());
  for (size_t i = 0; i < cand.size(); ++i) {
    const double u = std::max(rng.uniform(), 1e-300);
    keyed.emplace_back(std::log(u) / std::max(w[i], 1e-12), cand[i]);
  }
  k = std::min(k, keyed.size());
  std::partial_sort(keyed.begin(), keyed.begin() + static_cast<long>(k), keyed.end(),
                    [](const auto& a, const auto& b) { return a.first > b.first; });
  std::vector<size_t> out;
  for (size_t i = 0; i < k; ++i) out.push_back(keyed[i].second);
  return out;
}

std::vector<size_t> pickUniform(Rng& rng, const std::vector<size_t>& cand, size_t k) {
  return pickWeighted(rng, cand, std::vector<double>(cand.size(), 1.0), k);
}

int64_t appleNs(double unix) {
  return static_cast<int64_t>(std::llround((unix - static_cast<double>(kAppleEpoch)) * 1e9));
}

const char* kTapbackVerbs[] = {"Loved",      "Liked",      "Disliked",
                               "Laughed at", "Emphasized", "Questioned"};

}  // namespace

void writeChatDb(Home& h) {
  Rng rng = h.rng.child(1);
  const Sizes& sz = h.size;
  const double now = static_cast<double>(h.opt.now);
  const int n = sz.messages;
  makeDirs(h.path("Library/Messages"));
  const std::string rel = "Library/Messages/chat.db";
  Db db(h.path(rel));
  db.schema("chatdb");
  // The transcribed schema carries tables only; the store's own indexes on these
  // columns matter to the planner, so equivalents are added.
  db.exec(
      "CREATE INDEX message_idx_date ON message(date);"
      "CREATE INDEX message_idx_handle ON message(handle_id, date);"
      "CREATE INDEX message_idx_associated_message ON message(associated_message_guid);"
      "CREATE INDEX chat_message_join_idx_message_id_only ON chat_message_join(message_id);"
      "CREATE INDEX message_attachment_join_idx_message_id ON message_attachment_join(message_id);"
      "CREATE INDEX chat_idx_chat_identifier ON chat(chat_identifier);");
  db.begin();
  db.exec(
      "INSERT INTO _SqliteDatabaseProperties VALUES('_ClientVersion','18026');"
      "INSERT INTO _SqliteDatabaseProperties VALUES('__CSDBRecordSequenceNumber','0');");

  // ---- handles and chats ----
  std::vector<HandleRow> handles;
  std::map<std::string, int64_t> handleByKey;
  auto handleFor = [&](const std::string& id, const std::string& service) {
    const std::string key = id + "|" + service;
    auto it = handleByKey.find(key);
    if (it != handleByKey.end()) return it->second;
    const int64_t rowid = static_cast<int64_t>(handles.size()) + 1;
    const bool uk = id.rfind("+44", 0) == 0;
    handles.push_back({rowid, id, service, uk ? "gb" : "us"});
    handleByKey.emplace(key, rowid);
    return rowid;
  };
  std::vector<ChatRow> chats;
  std::set<std::string> usedIds;
  auto addChat = [&](int style, const std::string& identifier, const std::string& service,
                     std::vector<int64_t> members) {
    ChatRow c;
    c.rowid = static_cast<int64_t>(chats.size()) + 1;
    c.style = style;
    c.identifier = identifier;
    c.service = service;
    c.members = std::move(members);
    c.guid = service + (style == 43 ? ";+;" : ";-;") + identifier;
    usedIds.insert(identifier);
    chats.push_back(c);
    return chats.size() - 1;
  };

  const auto& people = h.cast.people;
  const int oneToOne = sz.chats - sz.groups;
  // The multi-spelling person: one chat per spelling.
  const Person& multi = people[h.cast.multiHandle];
  const std::string national = multi.phones[0].substr(2);  // "4155550123"
  addChat(45, multi.phones[0], "iMessage", {handleFor(multi.phones[0], "iMessage")});
  addChat(45, national, "SMS", {handleFor(national, "SMS")});
  addChat(45, multi.emails[0], "iMessage", {handleFor(multi.emails[0], "iMessage")});
  // Unknown senders the platform filed away: short codes and stray numbers.
  const int filteredChats = std::max(2, oneToOne / 30);
  for (int i = 0; i < filteredChats; ++i) {
    std::string id = i % 2 == 0 ? std::to_string(20000 + rng.range(0, 79999))
                                : "+1800555" + std::to_string(100 + i % 99).substr(0, 3) + "9";
    const std::string svc = i % 2 == 0 ? "SMS" : "iMessage";
    size_t c = addChat(45, id, svc, {handleFor(id, svc)});
    chats[c].filtered = true;
    chats[c].unreadBacklog = true;
  }
  for (size_t p = 1; static_cast<int>(chats.size()) < oneToOne; ++p) {
    const Person& person = people[p % people.size()];
    const bool byMail = !person.emails.empty() && (p >= people.size() || rng.chance(0.25));
    const std::string id =
        byMail ? person.emails[0] : person.phones[(p / people.size()) % person.phones.size()];
    const std::string svc = byMail || rng.chance(0.85) ? "iMessage" : "SMS";
    if (!usedIds.insert(id).second) continue;  // one thread per handle
    addChat(45, id, svc, {handleFor(id, svc)});
  }
  static const std::vector<std::string> groupNames = {
      "Family",        "Book club 📚",       "Lisbon trip ✈️", "Soccer parents",
      "Roommates",     "Dinner crew",       "Work friends",       "Cousins",
      "Climbing 🧗", "Wedding planning 💍"};
  std::vector<int64_t> oneToOneHandles;
  for (const auto& c : chats) {
    if (!c.filtered && c.service == "iMessage") oneToOneHandles.push_back(c.members[0]);
  }
  for (int g = 0; g < sz.groups; ++g) {
    std::vector<int64_t> members;
    const int64_t k = rng.range(2, 6);
    std::set<int64_t> seen;
    while (static_cast<int64_t>(members.size()) < k) {
      const int64_t m = oneToOneHandles[rng.skewed(oneToOneHandles.size(), 0.7)];
      if (seen.insert(m).second) members.push_back(m);
    }
    std::string ident =
        "chat" + std::to_string(100000000000000000LL + rng.range(0, 899999999999999999LL));
    size_t c = addChat(43, ident, "iMessage", members);
    if (g < static_cast<int>(groupNames.size()) || rng.chance(0.3)) {
      chats[c].displayName = groupNames[static_cast<size_t>(g) % groupNames.size()];
    }
  }
  for (auto& c : chats) {
    if (!c.filtered && rng.chance(0.12)) c.unreadBacklog = true;
  }
  // Conversation weights: a few threads carry most of the traffic.
  std::vector<size_t> order(chats.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  for (size_t i = order.size(); i > 1; --i) std::swap(order[i - 1], order[rng.next() % i]);
  // Keep the multi-spelling person busy so demos find them.
  for (size_t k = 0; k < 3; ++k) {
    auto it = std::find(order.begin(), order.end(), k);
    std::iter_swap(order.begin() + static_cast<long>(k * 3 + 1), it);
  }

  // ---- message skeletons ----
  const double span = 3.0 * 365.0 * 86400.0;
  std::vector<Msg> msgs(static_cast<size_t>(n));
  for (auto& m : msgs) {
    const double u = rng.uniform();
    m.t = now - 60.0 - span * (1.0 - std::sqrt(u));  // denser toward now
  }
  std::sort(msgs.begin(), msgs.end(), [](const Msg& a, const Msg& b) { return a.t < b.t; });
  std::vector<size_t> all(msgs.size());
  for (size_t i = 0; i < all.size(); ++i) all[i] = i;
  const auto count = [&](double share) { return static_cast<size_t>(std::llround(share * n)); };
  const auto atLeast = [](size_t v, size_t lo) { return std::max(v, lo); };

  for (auto& m : msgs) {
    m.chat = static_cast<int>(order[rng.skewed(order.size(), 1.05)]);
    m.fromMe = rng.chance(0.42);
  }
  // Orphans: messages in no chat.
  for (size_t i : pickUniform(rng, all, atLeast(count(1571.0 / 145767.0), 3))) {
    msgs[i].secondChat = -2;  // marker, resolved below
  }
  for (auto& m : msgs) {
    if (m.secondChat == -2) {
      m.secondChat = -1;
      m.handle = chats[static_cast<size_t>(m.chat)].members[0];
      m.chat = -1;
      m.fromMe = false;
    }
  }
  // Kinds, each an exact share of the rows.
  std::vector<size_t> free;
  auto refreshFree = [&](bool needChat) {
    free.clear();
    for (size_t i = 0; i < msgs.size(); ++i) {
      if (msgs[i].kind == Kind::text && (!needChat || msgs[i].chat >= 0)) free.push_back(i);
    }
  };
  refreshFree(true);
  for (size_t i : pickUniform(rng, free, atLeast(count(0.0635), 8))) msgs[i].kind = Kind::tapback;
  refreshFree(true);
  {
    std::vector<size_t> mine;
    for (size_t i : free) {
      if (msgs[i].fromMe) mine.push_back(i);
    }
    for (size_t i : pickUniform(rng, mine, atLeast(count(277.0 / 145767.0), 2))) {
      msgs[i].kind = Kind::fileTransfer;
    }
  }
  refreshFree(true);
  for (size_t i : pickUniform(rng, free, atLeast(count(0.0380), 10)))
    msgs[i].kind = Kind::attachment;
  refreshFree(true);
  for (size_t i : pickUniform(rng, free, atLeast(count(0.0081), 4))) msgs[i].kind = Kind::caption;
  refreshFree(true);
  for (size_t i : pickUniform(rng, free, atLeast(count(0.032), 8))) msgs[i].kind = Kind::link;
  refreshFree(true);
  {
    std::vector<size_t> inGroups;
    for (size_t i : free) {
      if (chats[static_cast<size_t>(msgs[i].chat)].style == 43) inGroups.push_back(i);
    }
    for (size_t i : pickUniform(rng, inGroups, atLeast(count(0.0130), 3)))
      msgs[i].kind = Kind::system;
  }
  refreshFree(true);
  for (size_t i : pickUniform(rng, free, atLeast(count(0.0050), 2))) msgs[i].kind = Kind::empty;
  // A few old rows with text and no blob (the oldest tenth of the store).
  refreshFree(false);
  {
    std::vector<size_t> old;
    for (size_t i : free) {
      if (i < msgs.size() / 10) old.push_back(i);
    }
    for (size_t i : pickUniform(rng, old, atLeast(count(0.0005), 2))) msgs[i].kind = Kind::textOnly;
  }
  // The text column: 1.25% of rows, far more often on old rows.
  {
    std::vector<size_t> cand;
    std::vector<double> w;
    for (size_t i = 0; i < msgs.size(); ++i) {
      if (msgs[i].kind != Kind::text) continue;
      const double age = now - msgs[i].t;
      cand.push_back(i);
      w.push_back(age > 2 * 365 * 86400.0 ? 56.0 : age > 365 * 86400.0 ? 13.6 : 1.0);
    }
    const size_t textOnlyRows = static_cast<size_t>(std::count_if(
        msgs.begin(), msgs.end(), [](const Msg& m) { return m.kind == Kind::textOnly; }));
    const size_t want = atLeast(count(0.0125), 6) - std::min(textOnlyRows, count(0.0125));
    auto chosen = pickWeighted(rng, cand, w, want);
    for (size_t k = 0; k < chosen.size(); ++k) {
      msgs[chosen[k]].textColumn = true;
      msgs[chosen[k]].emptyTextColumn = k < 2;  // '' beside a blob, as real stores have
    }
  }
  // handle_id: incoming rows carry the sender; 11.1% of all rows are the owner's
  // 1:1 messages with handle_id 0, the rest of the owner's rows name the recipient.
  std::vector<size_t> mineOneToOne;
  for (size_t i = 0; i < msgs.size(); ++i) {
    Msg& m = msgs[i];
    if (m.chat < 0) continue;
    const ChatRow& c = chats[static_cast<size_t>(m.chat)];
    if (c.style == 43) {
      // The owner's group rows name the first member; system rows name nobody.
      m.handle = m.fromMe ? c.members[0] : c.members[rng.next() % c.members.size()];
    } else {
      m.handle = c.members[0];
      if (m.fromMe) mineOneToOne.push_back(i);
    }
  }
  for (size_t i : pickUniform(rng, mineOneToOne, atLeast(count(0.111), 10))) msgs[i].handle = 0;
  for (auto& m : msgs) {
    if (m.kind == Kind::system) m.handle = 0;
  }
  // Unread: the newest incoming messages of backlog chats, up to the target.
  {
    size_t want = atLeast(count(670.0 / 145767.0), 6);
    for (size_t i = msgs.size(); i-- > 0 && want > 0;) {
      Msg& m = msgs[i];
      if (m.chat < 0 || m.fromMe || m.kind == Kind::system || m.kind == Kind::tapback) continue;
      if (!chats[static_cast<size_t>(m.chat)].unreadBacklog) continue;
      m.unread = true;
      --want;
    }
  }
  // Edited messages (the owner's own text).
  {
    std::vector<size_t> cand;
    for (size_t i = 0; i < msgs.size(); ++i) {
      if (msgs[i].fromMe && msgs[i].kind == Kind::text && now - msgs[i].t < 400 * 86400.0)
        cand.push_back(i);
    }
    for (size_t i : pickUniform(rng, cand, atLeast(count(0.0025), 3))) msgs[i].edited = true;
  }
  // Dates: whole seconds on a handful of the oldest rows, NULL and 0 on a few.
  for (size_t i = 0; i < std::min<size_t>(sz.messages >= 100000 ? 5 : 2, msgs.size()); ++i) {
    msgs[i].dateForm = 1;
  }
  {
    std::vector<size_t> mid;
    for (size_t i = msgs.size() / 4; i < msgs.size() / 2; ++i) {
      if (msgs[i].kind == Kind::text && !msgs[i].unread) mid.push_back(i);
    }
    auto picked = pickUniform(rng, mid, 4);
    for (size_t k = 0; k < picked.size(); ++k) msgs[picked[k]].dateForm = k < 2 ? 2 : 3;
  }
  // A few messages live in two chats.
  {
    std::vector<size_t> cand;
    for (size_t i = 0; i < msgs.size(); ++i) {
      if (msgs[i].chat >= 0 && msgs[i].kind == Kind::text && msgs[i].fromMe) cand.push_back(i);
    }
    for (size_t i : pickUniform(rng, cand, sz.messages >= 100000 ? 4 : 2)) {
      const int other = msgs[i].chat == 0 ? 1 : 0;
      msgs[i].secondChat = other;
    }
  }

  // Handles and chats go in first, with the bulk of the store.
  const std::string ownerAccount = "e:" + h.cast.owner.emails[0];
  Stmt insHandle(db.handle(),
                 "INSERT INTO handle (ROWID, id, country, service, uncanonicalized_id, "
                 "person_centric_id) VALUES (?,?,?,?,NULL,NULL)");
  for (const auto& hr : handles) insHandle.run(hr.rowid, hr.id, hr.country, hr.service);
  Stmt insChat(
      db.handle(),
      "INSERT INTO chat (ROWID, guid, style, state, account_id, chat_identifier, "
      "service_name, room_name, account_login, display_name, group_id, is_filtered, "
      "successful_query, last_read_message_timestamp) VALUES (?,?,?,3,?,?,?,?,?,?,?,?,1,?)");
  Stmt insCHJ(db.handle(), "INSERT INTO chat_handle_join (chat_id, handle_id) VALUES (?,?)");
  for (const auto& c : chats) {
    insChat.run(c.rowid, c.guid, c.style, std::string("4B3F6D2A-1C5E-4E8B-9A77-0D2F1E6C5B10"),
                c.identifier, c.service,
                c.style == 43 ? std::optional<std::string>(c.identifier) : std::nullopt,
                ownerAccount, c.displayName, rng.uuid(), c.filtered ? 1 : 0, appleNs(now - 3600));
    for (int64_t m : c.members) insCHJ.run(c.rowid, m);
  }

  // ---- rows ----
  Stmt insMsg(db.handle(),
              "INSERT INTO message (ROWID, guid, text, handle_id, service, account, account_guid, "
              "date, date_read, date_delivered, is_delivered, is_finished, is_from_me, is_empty, "
              "is_read, is_system_message, is_sent, cache_has_attachments, item_type, "
              "group_action_type, associated_message_guid, associated_message_type, "
              "associated_message_range_length, associated_message_emoji, attributedBody, "
              "date_edited, date_retracted, part_count, destination_caller_id, cache_roomnames, "
              "balloon_bundle_id, version, sort_id) VALUES "
              "(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,10,0)");
  Stmt insJoin(db.handle(),
               "INSERT INTO chat_message_join (chat_id, message_id, message_date) VALUES (?,?,?)");
  Stmt insAtt(db.handle(),
              "INSERT INTO attachment (ROWID, guid, created_date, start_date, filename, uti, "
              "mime_type, transfer_state, is_outgoing, transfer_name, total_bytes, is_sticker, "
              "hide_attachment, original_guid) VALUES (?,?,?,0,?,?,?,5,?,?,?,?,?,?)");
  Stmt insMaj(db.handle(),
              "INSERT INTO message_attachment_join (message_id, attachment_id) VALUES (?,?)");

  std::vector<std::string> guids(msgs.size());
  std::vector<std::string> bodies(msgs.size());
  std::vector<std::vector<size_t>> recentByChat(chats.size());
  int64_t attachmentRow = 0, hiddenCount = 0;
  const size_t liveFrom =
      msgs.size() - std::min<size_t>(static_cast<size_t>(sz.liveMessages), msgs.size());

  for (size_t i = 0; i < msgs.size(); ++i) {
    if (i == liveFrom) {
      db.commit();
      db.toLiveWal();  // everything after this stays in the -wal, unchecked-pointed
      db.begin();
    }
    Msg& m = msgs[i];
    const int64_t rowid = static_cast<int64_t>(i) + 1;
    guids[i] = rng.uuid();
    const ChatRow* chat = m.chat >= 0 ? &chats[static_cast<size_t>(m.chat)] : nullptr;
    const std::string service = chat ? chat->service : "iMessage";

    std::vector<BodyPart> parts;
    std::string body;
    int amt = 0;
    std::string assocGuid, emoji, balloon;
    int64_t rangeLen = 0;
    struct Att {
      std::string name, uti, mime;
      int64_t bytes;
      bool hidden, sticker;
    };
    std::vector<Att> atts;
    auto photo = [&](bool hidden) {
      const int64_t k = rng.range(0, 9);
      if (k < 6)
        return Att{"IMG_" + std::to_string(rng.range(1000, 9999)) + ".HEIC",
                   "public.heic",
                   "image/heic",
                   rng.range(800000, 3500000),
                   hidden,
                   false};
      if (k < 8)
        return Att{"IMG_" + std::to_string(rng.range(1000, 9999)) + ".MOV",
                   "com.apple.quicktime-movie",
                   "video/quicktime",
                   rng.range(3000000, 60000000),
                   hidden,
                   false};
      if (k < 9)
        return Att{"Résumé " + h.cast.owner.last + ".pdf",
                   "com.adobe.pdf",
                   "application/pdf",
                   rng.range(60000, 400000),
                   hidden,
                   false};
      return Att{"Audio Message.caf",
                 "com.apple.coreaudio-format",
                 "audio/x-caf",
                 rng.range(20000, 200000),
                 hidden,
                 false};
    };
    switch (m.kind) {
      case Kind::text:
      case Kind::textOnly:
        body = messageText(rng);
        break;
      case Kind::tapback: {
        auto& recent = recentByChat[static_cast<size_t>(m.chat)];
        const int type = static_cast<int>(rng.range(0, 5));
        const bool removal = rng.chance(0.08);
        const bool custom = rng.chance(0.04);
        amt = custom ? (removal ? 3006 : 2006) : (removal ? 3000 : 2000) + type;
        std::string quoted = "an image";
        if (!recent.empty()) {
          const size_t target = recent[rng.next() % recent.size()];
          assocGuid = "p:0/" + guids[target];
          quoted = "“" + bodies[target] + "”";
          rangeLen = static_cast<int64_t>(utf16Length(bodies[target]));
        } else {
          assocGuid = "p:0/" + rng.uuid();
        }
        if (custom) {
          emoji = rng.chance(0.5) ? "🔥" : "🙌";
          body = (removal ? "Removed " + emoji + " from " : "Reacted " + emoji + " to ") + quoted;
        } else {
          body = (removal ? std::string("Removed a ") + (type == 0 ? "heart" : "like") + " from "
                          : std::string(kTapbackVerbs[type]) + " ") +
                 quoted;
        }
        break;
      }
      case Kind::fileTransfer:
        amt = 1000;
        atts.push_back(photo(false));
        break;
      case Kind::attachment: {
        const double u = rng.uniform();
        const int k = u < 0.82 ? 1 : u < 0.92 ? 2 : u < 0.97 ? 3 : 4;
        for (int a = 0; a < k; ++a) atts.push_back(photo(false));
        if (rng.chance(0.04))
          atts.push_back({"sticker.heic", "public.heic", "image/heic", 40000, true, true});
        break;
      }
      case Kind::caption:
        atts.push_back(photo(false));
        body = captionText(rng);
        break;
      case Kind::link:
        body = linkText(rng);
        balloon = "com.apple.messages.URLBalloonProvider";
        atts.push_back({rng.uuid() + ".pluginPayloadAttachment", "dyn.ah62d4rv4gu8y", "",
                        rng.range(2000, 90000), true, false});
        break;
      case Kind::system:
      case Kind::empty:
        break;
    }
    // The body as the archive sees it: one U+FFFC per attached file, then text.
    std::vector<std::string> attGuids;
    for (const auto& a : atts) {
      attGuids.push_back("at_0_" + rng.uuid());
      if (!a.hidden) parts.push_back(BodyPart{"\xEF\xBF\xBC", attGuids.back(), a.name});
    }
    if (!body.empty()) parts.push_back(BodyPart{body, {}, {}});
    bodies[i] = body;
    if (chat && (m.kind == Kind::text || m.kind == Kind::caption)) {
      auto& recent = recentByChat[static_cast<size_t>(m.chat)];
      recent.push_back(i);
      if (recent.size() > 6) recent.erase(recent.begin());
    }

    std::optional<std::vector<uint8_t>> blob;
    if (m.kind != Kind::system && m.kind != Kind::empty && m.kind != Kind::textOnly &&
        !parts.empty()) {
      blob = attributedBody(parts);
    }
    std::optional<std::string> textCol;
    if (m.kind == Kind::textOnly) textCol = body;
    if (m.textColumn) {
      std::string full;
      for (const auto& p : parts) full += p.text;
      textCol = m.emptyTextColumn ? std::string() : full;
    }
    std::optional<int64_t> date;
    const int64_t ns = appleNs(m.t) + rng.range(0, 999999);
    switch (m.dateForm) {
      case 0:
        date = ns;
        break;
      case 1:
        date = static_cast<int64_t>(m.t) - kAppleEpoch;
        break;
      case 2:
        break;
      case 3:
        date = 0;
        break;
    }
    const bool isRead = !m.fromMe && !m.unread;
    const int64_t dateRead = isRead && date ? ns + rng.range(1, 3600) * 1000000000LL : 0;
    const int64_t dateDelivered = m.fromMe && date ? ns + rng.range(1, 5) * 1000000000LL : 0;
    std::optional<int64_t> edited;
    if (m.edited) edited = ns + rng.range(30, 600) * 1000000000LL;
    std::optional<int64_t> retracted;
    if (m.kind == Kind::empty && m.fromMe) retracted = ns + rng.range(10, 120) * 1000000000LL;
    const int itemType = m.kind == Kind::system ? static_cast<int>(rng.range(1, 3)) : 0;
    const int visible = static_cast<int>(
        std::count_if(atts.begin(), atts.end(), [](const Att& a) { return !a.hidden; }));
    const std::string roomnames = chat && chat->style == 43 ? chat->identifier : std::string();

    insMsg.run(rowid, guids[i], textCol, m.handle, service, ownerAccount,
               std::string("4B3F6D2A-1C5E-4E8B-9A77-0D2F1E6C5B10"), date, dateRead, dateDelivered,
               m.fromMe ? 1 : 0, 1, m.fromMe ? 1 : 0, m.kind == Kind::empty ? 1 : 0, isRead ? 1 : 0,
               0, m.fromMe ? 1 : 0, atts.empty() ? 0 : 1, itemType,
               itemType == 0 ? 0 : static_cast<int>(rng.range(0, 1)),
               assocGuid.empty() ? std::optional<std::string>() : assocGuid, amt, rangeLen,
               emoji.empty() ? std::optional<std::string>() : emoji, blob, edited, retracted,
               std::max(1, visible + (body.empty() ? 0 : 1)), h.cast.owner.emails[0],
               roomnames.empty() ? std::optional<std::string>() : roomnames,
               balloon.empty() ? std::optional<std::string>() : balloon);
    if (chat) insJoin.run(chat->rowid, rowid, date.value_or(0));
    if (m.secondChat >= 0)
      insJoin.run(chats[static_cast<size_t>(m.secondChat)].rowid, rowid, date.value_or(0));

    for (size_t a = 0; a < atts.size(); ++a) {
      const Att& at = atts[a];
      const int64_t arow = ++attachmentRow;
      const std::string aguid = attGuids[a];
      const std::string dir =
          rng.hex(2) + "/" + std::to_string(rng.range(10, 99)) + "/" + rng.uuid();
      insAtt.run(arow, aguid, static_cast<int64_t>(m.t) - kAppleEpoch,
                 "~/Library/Messages/Attachments/" + dir + "/" + at.name, at.uti,
                 at.mime.empty() ? std::optional<std::string>() : at.mime, m.fromMe ? 1 : 0,
                 at.name, at.bytes, at.sticker ? 1 : 0, at.hidden ? 1 : 0, aguid);
      insMaj.run(rowid, arow);
      if (at.hidden) ++hiddenCount;
    }
  }
  db.commit();

  h.stamp(rel, now - 30);
  h.summary.push_back("chat.db: " + std::to_string(msgs.size()) + " messages, " +
                      std::to_string(chats.size()) + " chats, " + std::to_string(attachmentRow) +
                      " attachments (" + std::to_string(hiddenCount) + " hidden), " +
                      std::to_string(msgs.size() - liveFrom) + " rows only in the -wal");
}

}  // namespace demohome
