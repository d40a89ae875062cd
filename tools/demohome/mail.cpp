// Library/Mail/V10: a Gmail account over IMAP. The Envelope Index files every
// message under [Gmail]/All Mail (INBOX is empty as a mailbox), keeps Sent only as
// a label, carries a forged future date and the 2^31-1 date_sent sentinel; the
// .emlx bodies use every MIME shape the reader must undo, 42% of them partial.
#include <unicode/ucnv.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>

#include "Home.h"
#include "Sqlite.h"
#include "Support.h"
#include "Texts.h"

namespace demohome {

namespace {

enum Box : int64_t { kInbox = 1, kAllMail, kSent, kSpam, kDrafts, kTrash, kImportant, kStarred };

std::string base64(std::string_view in) {
  static const char* t = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t line = 0;
  for (size_t i = 0; i < in.size(); i += 3) {
    const uint32_t b0 = static_cast<unsigned char>(in[i]);
    const uint32_t b1 = i + 1 < in.size() ? static_cast<unsigned char>(in[i + 1]) : 0;
    const uint32_t b2 = i + 2 < in.size() ? static_cast<unsigned char>(in[i + 2]) : 0;
    const uint32_t v = (b0 << 16) | (b1 << 8) | b2;
    out += t[(v >> 18) & 63];
    out += t[(v >> 12) & 63];
    out += i + 1 < in.size() ? t[(v >> 6) & 63] : '=';
    out += i + 2 < in.size() ? t[v & 63] : '=';
    if ((line += 4) >= 76) {
      out += "\r\n";
      line = 0;
    }
  }
  if (line) out += "\r\n";
  return out;
}

std::string quotedPrintable(std::string_view in) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  size_t line = 0;
  for (size_t i = 0; i < in.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(in[i]);
    if (c == '\n') {
      out += "\r\n";
      line = 0;
      continue;
    }
    std::string piece;
    if ((c >= 33 && c <= 126 && c != '=') || (c == ' ' && i + 1 < in.size() && in[i + 1] != '\n')) {
      piece = static_cast<char>(c);
    } else {
      piece = {'=', hex[c >> 4], hex[c & 15]};
    }
    if (line + piece.size() > 75) {
      out += "=\r\n";
      line = 0;
    }
    out += piece;
    line += piece.size();
  }
  return out;
}

// UTF-8 text re-encoded in a legacy charset through ICU.
std::string encodeCharset(const std::string& utf8, const char* charset) {
  UErrorCode err = U_ZERO_ERROR;
  std::string out(utf8.size() * 4 + 16, '\0');
  const int32_t n = ucnv_convert(charset, "UTF-8", out.data(), static_cast<int32_t>(out.size()),
                                 utf8.data(), static_cast<int32_t>(utf8.size()), &err);
  if (U_FAILURE(err)) throw std::runtime_error(std::string("ICU cannot encode ") + charset);
  out.resize(static_cast<size_t>(n));
  return out;
}

struct Legacy {
  const char* charset;
  const char* encoding;  // transfer encoding
  const char* subject;
  const char* text;
};

const Legacy kLegacy[] = {
    {"windows-1252", "quoted-printable", "Café René: résumé attached",
     "Bonjour Alex,\n\nVoici mon résumé — merci d'avance. Rendez-vous au café René pour le dîner "
     "?\n\nRenée"},
    {"iso-8859-1", "8bit", "Grüße aus München",
     "Hallo Alex,\n\nviele Grüße aus München! Der Flug war pünktlich. Bis bald,\nJürgen"},
    {"Shift_JIS", "base64", "Meeting materials",
     "アレックスさん\n\n明日の会議の資料を送ります。よろしくお願いします。\n\n佐藤"},
    {"KOI8-R", "8bit", "Privet", "Привет, Алекс!\n\nУвидимся за ужином в пятницу.\n\nНиколай"},
    {"GB2312", "base64", "Flight details",
     "亚历克斯你好，\n\n今晚一起吃饭吗？航班信息如下。\n\n王伟"},
    {"ISO-2022-JP", "7bit", "Business trip", "アレックスさん\n\n来週の出張の件です。\n\n田中"},
};

struct Correspondent {
  std::string name, address;
  bool service;
};

std::string htmlOf(const std::string& text) {
  std::string html =
      "<html><head><meta charset=\"utf-8\"><style>p{margin:0}</style></head><body><div "
      "dir=\"ltr\">";
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    html += line.empty() ? "<br>" : "<p>" + xmlEscape(line) + "</p>";
    start = end + 1;
  }
  html += "<p>&mdash; sent with care &amp; coffee</p></div></body></html>";
  return html;
}

}  // namespace

void writeMail(Home& h) {
  Rng rng = h.rng.child(3);
  const Sizes& sz = h.size;
  const int n = sz.mails;
  const double now = static_cast<double>(h.opt.now);
  // A mirror whose grant died stops moving; so does one whose account was removed.
  const double stopAt = h.opt.link == Link::broken   ? now - 12 * 86400.0
                        : h.opt.link == Link::absent ? now - 60 * 86400.0
                                                     : now - 240;
  const std::string account = rng.uuid();
  const std::string v10 = "Library/Mail/V10";
  makeDirs(h.path(v10 + "/MailData"));
  const std::string rel = v10 + "/MailData/Envelope Index";
  Db db(h.path(rel));
  db.schema("mail-index");
  db.exec(
      "CREATE INDEX date_index ON messages(date_received);"
      "CREATE INDEX messages_mailbox_index ON messages(mailbox, date_received);"
      "CREATE INDEX labels_mailbox_id_index ON labels(mailbox_id);");
  db.begin();

  const std::string base = "imap://" + account + "/";
  Stmt insBox(db.handle(),
              "INSERT INTO mailboxes (ROWID, url, total_count, unread_count, source) VALUES "
              "(?,?,?,?,NULL)");
  const std::vector<std::pair<Box, std::string>> boxes = {{kInbox, "INBOX"},
                                                          {kAllMail, "%5BGmail%5D/All%20Mail"},
                                                          {kSent, "%5BGmail%5D/Sent%20Mail"},
                                                          {kSpam, "%5BGmail%5D/Spam"},
                                                          {kDrafts, "%5BGmail%5D/Drafts"},
                                                          {kTrash, "%5BGmail%5D/Trash"},
                                                          {kImportant, "%5BGmail%5D/Important"},
                                                          {kStarred, "%5BGmail%5D/Starred"}};

  // Correspondents: people with addresses, and the services that write to everyone.
  std::vector<Correspondent> people;
  for (const auto& p : h.cast.people) {
    if (!p.emails.empty()) people.push_back({p.first + " " + p.last, p.emails[0], false});
  }
  const std::vector<Correspondent> services = {
      {"The Daily Brief", "news@daily.example.com", true},
      {"SkyWays Airlines", "no-reply@skyways.example", true},
      {"Shopfront", "orders@shopfront.example", true},
      {"City Library", "notices@library.example.org", true},
      {"Bank of Example", "alerts@bank.example", true},
      {"GitHub", "noreply@github.example", true},
      {"Calendar", "calendar-notification@example.com", true}};
  std::map<std::string, int64_t> addressIds;
  Stmt insAddr(db.handle(), "INSERT INTO addresses (ROWID, address, comment) VALUES (?,?,?)");
  auto addressId = [&](const std::string& addr, const std::string& name) {
    auto it = addressIds.find(addr);
    if (it != addressIds.end()) return it->second;
    const int64_t id = static_cast<int64_t>(addressIds.size()) + 1;
    insAddr.run(id, addr, name);
    addressIds.emplace(addr, id);
    return id;
  };
  const int64_t ownerAddr =
      addressId(h.cast.googleEmail, h.cast.owner.first + " " + h.cast.owner.last);
  std::map<std::string, int64_t> subjectIds;
  Stmt insSubj(db.handle(), "INSERT INTO subjects (ROWID, subject) VALUES (?,?)");
  auto subjectId = [&](const std::string& s) {
    auto it = subjectIds.find(s);
    if (it != subjectIds.end()) return it->second;
    const int64_t id = static_cast<int64_t>(subjectIds.size()) + 1;
    insSubj.run(id, s);
    subjectIds.emplace(s, id);
    return id;
  };

  // ---- timeline and the special rows ----
  const double spanDays = h.opt.scale == Scale::small ? 180 : 1150;
  std::vector<double> times(static_cast<size_t>(n));
  for (auto& t : times) t = stopAt - spanDays * 86400.0 * rng.uniform();
  std::sort(times.begin(), times.end());
  std::set<size_t> sent, spam, twoLabels, twoRecipients, missing, sentinel, legacy;
  auto pickSet = [&](std::set<size_t>& into, size_t k, size_t from, size_t to) {
    while (into.size() < k && to > from)
      into.insert(from + static_cast<size_t>(rng.next() % (to - from)));
  };
  const size_t N = static_cast<size_t>(n);
  pickSet(sent, std::max<size_t>(5, N * 6 / 1000), 0, N);
  pickSet(spam, std::max<size_t>(2, N * 3 / 1000), 0, N);
  pickSet(twoLabels, std::max<size_t>(3, N * 5 / 100), 0, N);
  pickSet(twoRecipients, std::max<size_t>(4, N * 5 / 100), 0, N);
  pickSet(legacy, std::max<size_t>(6, N * 2 / 1000), 0, N);  // a few, every charset at least once
  pickSet(sentinel, 2, 0, N);
  // Bodies that never arrived: interleaved among the newest rows that did.
  pickSet(missing, N >= 10000 ? 4 : 2, N - std::min<size_t>(N, 40), N);
  for (size_t i : missing) {
    sent.erase(i);
    spam.erase(i);
    legacy.erase(i);
  }
  // Every legacy charset keeps at least one body on disk.
  for (size_t i = 0; legacy.size() < 6 && i < N; ++i) {
    if (!missing.count(i)) legacy.insert(i);
  }
  const size_t forged = N - 1 - static_cast<size_t>(rng.next() % std::max<size_t>(1, N / 5));
  const int64_t forgedDate = utcSeconds(2030, 12, 4, 9, 17, 0);

  Stmt insMsg(
      db.handle(),
      "INSERT INTO messages (ROWID, message_id, global_message_id, remote_id, document_id, "
      "sender, subject_prefix, subject, date_sent, date_received, mailbox, remote_mailbox, "
      "flags, read, flagged, deleted, size, conversation_id, date_last_viewed, display_date) "
      "VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,0,?,?,?,?)");
  Stmt insRcpt(db.handle(),
               "INSERT INTO recipients (message, address, type, position) VALUES (?,?,?,?)");
  Stmt insLabel(db.handle(), "INSERT INTO labels (message_id, mailbox_id) VALUES (?,?)");

  const std::string allMailData =
      v10 + "/" + account + "/[Gmail].mbox/All Mail.mbox/" + rng.uuid() + "/Data";
  const std::string spamData =
      v10 + "/" + account + "/[Gmail].mbox/Spam.mbox/" + rng.uuid() + "/Data";
  makeDirs(h.path(allMailData));
  makeDirs(h.path(spamData));
  std::set<std::string> madeDirs;
  std::map<std::string, int64_t> conversations;
  int64_t unread = 0, partials = 0, files = 0, legacyUsed = 0, lastThirtyDays = 0;
  static const std::vector<std::string> personalSubjects = {
      "Dinner on Friday?",       "Flight to Lisbon",       "Résumé — final version",
      "Photos from the weekend", "Quick question",         "Birthday plans 🎂",
      "Lunch next week",         "The apartment",          "Weekend hike",
      "Book club: next pick",    "Re-scheduling our call", "Flight details for the wedding"};
  static const std::vector<std::string> serviceSubjects = {
      "Your order has shipped",  "Your flight confirmation",
      "Your statement is ready", "Weekly digest",
      "Items due soon",          "Security alert: new sign-in",
      "Invitation: Team sync",   "Your receipt"};

  for (size_t i = 0; i < N; ++i) {
    const int64_t rowid = static_cast<int64_t>(i) + 1;
    const bool isSent = sent.count(i) > 0;
    const bool isSpam = !isSent && spam.count(i) > 0;
    Correspondent who = (isSpam || rng.chance(0.45)) && !isSent
                            ? rng.pick(services)
                            : people[rng.skewed(people.size(), 1.0)];
    if (isSpam) who = {"Prize Center", "winner@prizes.example", true};
    std::string subject = who.service ? rng.pick(serviceSubjects) : rng.pick(personalSubjects);
    if (isSpam) subject = "You have WON a $1000 gift card!!!";
    std::string prefix;
    if (!who.service && rng.chance(0.35)) prefix = rng.chance(0.85) ? "Re: " : "Fwd: ";
    const Legacy* lg = nullptr;
    if (legacy.count(i)) {
      lg = &kLegacy[legacyUsed++ % 6];
      subject = lg->subject;
    }
    const auto convKey = who.address + "|" + subject;
    auto conv = conversations.find(convKey);
    if (conv == conversations.end()) {
      conv =
          conversations.emplace(convKey, static_cast<int64_t>(conversations.size()) + 1000).first;
    }
    int64_t received = static_cast<int64_t>(times[i]);
    if (i == forged) received = forgedDate;
    const int64_t dateSent = sentinel.count(i) ? 2147483647 : received - rng.range(2, 400);
    if (received >= now - 30 * 86400) ++lastThirtyDays;
    const bool isRead = isSent || received < now - 3 * 86400 || rng.chance(0.6);
    if (!isRead) ++unread;
    const int64_t mailbox = isSpam ? kSpam : kAllMail;
    const int64_t senderId = isSent ? ownerAddr : addressId(who.address, who.name);

    // ---- the RFC 822 message ----
    const std::string fromHdr =
        isSent ? h.cast.owner.first + " " + h.cast.owner.last + " <" + h.cast.googleEmail + ">"
               : who.name + " <" + who.address + ">";
    const std::string toHdr =
        isSent ? who.name + " <" + who.address + ">"
               : h.cast.owner.first + " " + h.cast.owner.last + " <" + h.cast.googleEmail + ">";
    std::vector<std::pair<int64_t, int>> rcpts = {
        {isSent ? addressId(who.address, who.name) : ownerAddr, 0}};
    std::string ccHdr;
    if (twoRecipients.count(i)) {
      const Correspondent& other = people[rng.next() % people.size()];
      rcpts.push_back({addressId(other.address, other.name), 1});
      ccHdr = "Cc: " + other.name + " <" + other.address + ">\r\n";
    }
    std::string text;
    if (lg) {
      text = lg->text;
    } else if (isSpam) {
      text = "Congratulations!!! Click here to claim your prize before it expires.";
    } else if (who.service) {
      text = "Hello " + h.cast.owner.first + ",\n\n" + subject + ". " +
             (rng.chance(0.3)
                  ? "Your flight SW " + std::to_string(rng.range(100, 999)) + " departs at 07:45."
                  : "Thank you for being a customer.") +
             "\n\nManage your preferences at https://" +
             who.address.substr(who.address.find('@') + 1) + "/prefs";
    } else {
      text = "Hi " + (isSent ? who.name.substr(0, who.name.find(' ')) : h.cast.owner.first) +
             ",\n\n" + messageText(rng) + "\n" + messageText(rng) + "\n\nCheers,\n" +
             (isSent ? h.cast.owner.first : who.name.substr(0, who.name.find(' ')));
    }
    std::string headers = "Return-Path: <" + (isSent ? h.cast.googleEmail : who.address) + ">\r\n";
    headers += "From: " + fromHdr + "\r\nTo: " + toHdr + "\r\n" + ccHdr;
    headers += "Subject: " + prefix + subject + "\r\n";
    headers += "Date: " +
               rfc822Date(i == forged              ? forgedDate
                          : dateSent == 2147483647 ? received
                                                   : dateSent,
                          -480) +
               "\r\n";
    headers +=
        "Message-Id: <" + rng.uuid() + "@" +
        (isSent ? std::string("example.com") : who.address.substr(who.address.find('@') + 1)) +
        ">\r\n";
    headers += "Mime-Version: 1.0\r\n";
    const bool partial = !lg && rng.chance(0.42);
    const std::string boundary = "Apple-Mail=_" + rng.uuid();
    std::string body;
    auto textPart = [&](const std::string& t, int style) {
      switch (style) {
        case 0:
          return "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: "
                 "8bit\r\n\r\n" +
                 t + "\r\n";
        case 1:
          return "Content-Type: text/plain;\r\n\tcharset=utf-8\r\nContent-Transfer-Encoding: "
                 "quoted-printable\r\n\r\n" +
                 quotedPrintable(t) + "\r\n";
        default:
          return "Content-Type: text/plain; charset=\"utf-8\"\r\nContent-Transfer-Encoding: "
                 "base64\r\n\r\n" +
                 base64(t);
      }
    };
    auto htmlPart = [&](const std::string& t, bool b64) {
      const std::string html = htmlOf(t);
      return std::string("Content-Type: text/html; charset=utf-8\r\nContent-Transfer-Encoding: ") +
             (b64 ? "base64\r\n\r\n" + base64(html)
                  : "quoted-printable\r\n\r\n" + quotedPrintable(html) + "\r\n");
    };
    auto stub = [&]() {
      return "Content-Type: application/pdf;\r\n\tname=\"Itinerary.pdf\"\r\nContent-Disposition: "
             "attachment;\r\n\tfilename=\"Itinerary.pdf\"\r\n"
             "Content-Transfer-Encoding: base64\r\nX-Apple-Content-Length: " +
             std::to_string(rng.range(40000, 900000)) + "\r\n\r\n";
    };
    if (lg) {
      std::string enc = encodeCharset(lg->text, lg->charset);
      std::string encoded = std::string(lg->encoding) == "base64"             ? base64(enc)
                            : std::string(lg->encoding) == "quoted-printable" ? quotedPrintable(enc)
                                                                              : enc + "\r\n";
      headers += std::string("Content-Type: text/plain; charset=") + lg->charset +
                 "\r\nContent-Transfer-Encoding: " + lg->encoding + "\r\n";
      body = encoded;
    } else if (partial) {
      ++partials;
      headers += "Content-Type: multipart/mixed;\r\n\tboundary=\"" + boundary + "\"\r\n";
      if (rng.chance(0.5)) {
        body = "\r\n--" + boundary + "\r\n" + textPart(text, 1) + "\r\n--" + boundary + "\r\n" +
               stub() + "\r\n--" + boundary + "--\r\n";
      } else {
        // The fetch stopped before the closing delimiter of the last part.
        body = "\r\n--" + boundary + "\r\n" + stub() + "\r\n--" + boundary + "\r\n" +
               textPart(text, 0);
      }
    } else {
      const double u = rng.uniform();
      if (u < 0.33) {
        headers += "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: 8bit\r\n";
        body = text + "\r\n";
      } else if (u < 0.43) {
        headers +=
            "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: "
            "quoted-printable\r\n";
        body = quotedPrintable(text) + "\r\n";
      } else if (u < 0.48) {
        headers +=
            "Content-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: base64\r\n";
        body = base64(text);
      } else if (u < 0.80) {
        headers += "Content-Type: multipart/alternative;\r\n\tboundary=\"" + boundary + "\"\r\n";
        body = "\r\n--" + boundary + "\r\n" + textPart(text, 1) + "\r\n--" + boundary + "\r\n" +
               htmlPart(text, false) + "\r\n--" + boundary + "--\r\n";
      } else if (u < 0.93) {
        const bool b64 = rng.chance(0.4);
        headers +=
            std::string("Content-Type: text/html; charset=utf-8\r\nContent-Transfer-Encoding: ") +
            (b64 ? "base64" : "quoted-printable") + "\r\n";
        const std::string html = htmlOf(text);
        body = b64 ? base64(html) : quotedPrintable(html) + "\r\n";
      } else {
        const std::string inner = "Apple-Mail=_" + rng.uuid();
        headers += "Content-Type: multipart/mixed;\r\n\tboundary=\"" + boundary + "\"\r\n";
        body = "\r\n--" + boundary + "\r\nContent-Type: multipart/alternative;\r\n\tboundary=\"" +
               inner + "\"\r\n\r\n--" + inner + "\r\n" + textPart(text, 2) + "\r\n--" + inner +
               "\r\n" + htmlPart(text, true) + "\r\n--" + inner + "--\r\n\r\n--" + boundary +
               "\r\nContent-Type: application/pdf; name=\"Receipt.pdf\"\r\n"
               "Content-Disposition: attachment; "
               "filename=\"Receipt.pdf\"\r\nContent-Transfer-Encoding: base64\r\n\r\n" +
               base64(
                   "%PDF-1.4\n% demo receipt\n1 0 obj << /Type /Catalog >> endobj\ntrailer << "
                   "/Root 1 0 R >>\n%%EOF\n") +
               "\r\n--" + boundary + "--\r\n";
      }
    }
    const std::string message = headers + "\r\n" + body;
    const int64_t flags = (isRead ? 1 : 0) | (static_cast<int64_t>(rng.range(0, 3)) << 10);

    insMsg.run(rowid, static_cast<int64_t>(rng.next() >> 2), rowid, rowid + 50000, rng.uuid(),
               senderId, prefix.empty() ? std::optional<std::string>() : prefix, subjectId(subject),
               dateSent, received, mailbox, Null{}, flags, isRead ? 1 : 0, rng.chance(0.02) ? 1 : 0,
               static_cast<int64_t>(message.size()), conv->second,
               isRead ? std::optional<int64_t>(received + 3600) : std::nullopt, received);
    for (size_t r = 0; r < rcpts.size(); ++r)
      insRcpt.run(rowid, rcpts[r].first, rcpts[r].second, static_cast<int>(r));
    if (isSent) {
      insLabel.run(rowid, int64_t{kSent});
      if (twoLabels.count(i)) insLabel.run(rowid, int64_t{kImportant});
    } else if (!isSpam) {
      if (rng.chance(0.987)) insLabel.run(rowid, int64_t{kInbox});
      if (twoLabels.count(i)) insLabel.run(rowid, int64_t{kImportant});
    }

    if (missing.count(i)) continue;  // the index row landed, the body never did
    std::string dir = (isSpam ? spamData : allMailData) + "/";
    for (int64_t q = rowid / 1000; rowid >= 1000 && q > 0; q /= 10)
      dir += std::to_string(q % 10) + "/";
    dir += "Messages";
    if (madeDirs.insert(dir).second) makeDirs(h.path(dir));
    std::string count = std::to_string(message.size());
    count.resize(std::max<size_t>(10, count.size()), ' ');
    std::string plist =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST "
        "1.0//EN\" "
        "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist version=\"1.0\">\n<dict>\n"
        "\t<key>conversation-id</key>\n\t<integer>" +
        std::to_string(conv->second) +
        "</integer>\n"
        "\t<key>date-last-viewed</key>\n\t<integer>" +
        std::to_string(isRead ? received + 3600 : 0) +
        "</integer>\n"
        "\t<key>date-received</key>\n\t<integer>" +
        std::to_string(received) +
        "</integer>\n"
        "\t<key>flags</key>\n\t<integer>" +
        std::to_string(flags) +
        "</integer>\n"
        "\t<key>gmail-label-ids</key>\n\t<array>\n\t\t<string>" +
        (isSent   ? "\\\\Sent"
         : isSpam ? "\\\\Spam"
                  : "\\\\Inbox") +
        "</string>\n\t</array>\n"
        "\t<key>remote-id</key>\n\t<string>" +
        std::to_string(rowid + 50000) + "</string>\n</dict>\n</plist>\n";
    writeFile(h.path(dir + "/" + std::to_string(rowid) + (partial ? ".partial.emlx" : ".emlx")),
              count + "\n" + message + plist);
    ++files;
  }
  for (const auto& [box, path] : boxes) {
    const int64_t total = box == kAllMail ? static_cast<int64_t>(N - spam.size())
                          : box == kSpam  ? static_cast<int64_t>(spam.size())
                                          : 0;
    insBox.run(int64_t{box}, base + path, total, box == kAllMail ? unread : 0);
  }
  db.commit();
  db.toWal();
  h.stamp(rel, stopAt + 5);
  h.summary.push_back("mail: " + std::to_string(N) + " index rows (" +
                      std::to_string(lastThirtyDays) + " in the last 30 days), " +
                      std::to_string(files) + " .emlx files (" + std::to_string(partials) +
                      " partial), " + std::to_string(missing.size()) +
                      " bodies never arrived, account " + account);
}

}  // namespace demohome
