// Library/Accounts/Accounts4.sqlite: the Internet Accounts database (same Core Data
// model family as the iOS Accounts3 schema). The Google account's state follows
// --link: complete (Mail, Calendars, Contacts on), partial (Mail only), broken
// (switched on, credential refused, a rejection date), absent (no Google account).
#include "Home.h"
#include "Keyed.h"
#include "Sqlite.h"
#include "Support.h"

namespace demohome {

void writeAccounts(Home& h) {
  Rng rng = h.rng.child(7);
  makeDirs(h.path("Library/Accounts"));
  const std::string rel = "Library/Accounts/Accounts4.sqlite";
  Db db(h.path(rel));
  db.schema("accounts");
  db.begin();
  const double now = static_cast<double>(h.opt.now - kAppleEpoch);

  Stmt insType(db.handle(),
               "INSERT INTO ZACCOUNTTYPE (Z_PK, Z_ENT, Z_OPT, ZSUPPORTSAUTHENTICATION, "
               "ZSUPPORTSMULTIPLEACCOUNTS, "
               "ZVISIBILITY, ZACCOUNTTYPEDESCRIPTION, ZIDENTIFIER, ZCREDENTIALTYPE) VALUES "
               "(?,4,1,1,1,0,?,?,?)");
  struct Type {
    int64_t pk;
    const char *desc, *id, *cred;
  };
  const Type types[] = {{1, "iCloud", "com.apple.account.AppleAccount", "token"},
                        {2, "Google", "com.apple.account.Google", "oauth2"},
                        {3, "IMAP", "com.apple.account.IMAP", "password"},
                        {4, "CalDAV", "com.apple.account.CalDAV", "password"},
                        {5, "CardDAV", "com.apple.account.CardDAV", "password"},
                        {6, "SMTP", "com.apple.account.SMTP", "password"},
                        {7, "Game Center", "com.apple.account.GameCenter", "token"}};
  for (const auto& t : types)
    insType.run(t.pk, std::string(t.desc), std::string(t.id), std::string(t.cred));

  Stmt insClass(db.handle(), "INSERT INTO ZDATACLASS (Z_PK, Z_ENT, Z_OPT, ZNAME) VALUES (?,7,1,?)");
  const char* classes[] = {"Mail",      "Calendars", "Contacts",    "Notes",
                           "Reminders", "Bookmarks", "KeychainSync"};
  for (int i = 0; i < 7; ++i) {
    insClass.run(int64_t{i + 1}, keyedString(std::string("com.apple.Dataclass.") + classes[i]));
  }

  Stmt insAcct(db.handle(),
               "INSERT INTO ZACCOUNT (Z_PK, Z_ENT, Z_OPT, ZACTIVE, ZAUTHENTICATED, "
               "ZSUPPORTSAUTHENTICATION, ZVISIBLE, "
               "ZACCOUNTTYPE, ZPARENTACCOUNT, ZDATE, ZLASTCREDENTIALRENEWALREJECTIONDATE, "
               "ZACCOUNTDESCRIPTION, "
               "ZAUTHENTICATIONTYPE, ZIDENTIFIER, ZOWNINGBUNDLEID, ZUSERNAME) VALUES "
               "(?,2,1,?,?,1,?,?,?,?,?,?,?,?,?,?)");
  Stmt enable(
      db.handle(),
      "INSERT INTO Z_2ENABLEDDATACLASSES (Z_2ENABLEDACCOUNTS, Z_7ENABLEDDATACLASSES) VALUES (?,?)");
  const std::string icloudUser = "alex.morgan@icloud.example";
  insAcct.run(int64_t{1}, 1, 1, 1, int64_t{1}, Null{}, now - 800 * 86400.0, Null{},
              std::string("iCloud"), std::string("token"), rng.uuid(),
              std::string("com.apple.accountsd"), icloudUser);
  for (int64_t c : {4, 5, 6}) enable.run(int64_t{1}, c);
  insAcct.run(int64_t{2}, 1, 1, 0, int64_t{4}, int64_t{1}, now - 800 * 86400.0, Null{},
              std::string("iCloud CalDAV"), Null{}, rng.uuid(), Null{}, icloudUser);
  insAcct.run(int64_t{3}, 1, 1, 1, int64_t{7}, Null{}, now - 700 * 86400.0, Null{},
              std::string("Game Center"), Null{}, rng.uuid(), Null{}, icloudUser);
  std::string state = "absent";
  if (h.opt.link != Link::absent) {
    const bool broken = h.opt.link == Link::broken;
    const std::string googleId = rng.uuid();
    if (broken) {
      insAcct.run(int64_t{4}, 1, 0, 1, int64_t{2}, Null{}, now - 600 * 86400.0,
                  now - 12 * 86400.0 + 1800, std::string("Google"), std::string("oauth2"), googleId,
                  std::string("com.apple.accountsd"), h.cast.googleEmail);
    } else {
      insAcct.run(int64_t{4}, 1, 1, 1, int64_t{2}, Null{}, now - 600 * 86400.0, Null{},
                  std::string("Google"), std::string("oauth2"), googleId,
                  std::string("com.apple.accountsd"), h.cast.googleEmail);
    }
    const char* children[] = {"Gmail IMAP", "Google CalDAV", "Google CardDAV", "Gmail SMTP"};
    const int64_t childTypes[] = {3, 4, 5, 6};
    for (int i = 0; i < 4; ++i) {
      insAcct.run(int64_t{5 + i}, 1, broken ? 0 : 1, 0, childTypes[i], int64_t{4},
                  now - 600 * 86400.0, Null{}, std::string(children[i]), Null{}, rng.uuid(), Null{},
                  h.cast.googleEmail);
    }
    enable.run(int64_t{4}, int64_t{1});
    if (h.opt.link != Link::partial) {
      enable.run(int64_t{4}, int64_t{2});
      enable.run(int64_t{4}, int64_t{3});
    }
    state = broken                        ? "broken (ZAUTHENTICATED=0, rejection date set)"
            : h.opt.link == Link::partial ? "partial (Mail only)"
                                          : "complete (Mail, Calendars, Contacts)";
  }
  Stmt insPk(db.handle(),
             "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?,?,0,?)");
  insPk.run(2, std::string("Account"), int64_t{h.opt.link == Link::absent ? 3 : 8});
  insPk.run(4, std::string("AccountType"), int64_t{7});
  insPk.run(7, std::string("Dataclass"), int64_t{7});
  db.commit();
  db.toWal();
  h.stamp(rel, static_cast<double>(h.opt.now) -
                   (h.opt.link == Link::broken ? 12 * 86400.0 - 1800 : 40 * 86400.0));
  h.summary.push_back("accounts: Google link " + state);
}

}  // namespace demohome
