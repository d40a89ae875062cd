// Library/Application Support/AddressBook: a nearly empty top-level book and one
// per-account book under Sources/<uuid>/ holding the people, with phone numbers
// written in the many ways people type them, unnamed and organization-only
// records, and the owner's Me card.
#include <optional>

#include "Home.h"
#include "Sqlite.h"
#include "Support.h"
#include "Texts.h"

namespace demohome {

namespace {

constexpr int kEntContainer = 18;
constexpr int kEntContact = 22;

// One of the spellings people use for a number.
std::string formatPhone(const std::string& e164, int style) {
  if (e164.rfind("+1", 0) == 0 && e164.size() == 12) {
    const std::string a = e164.substr(2, 3), b = e164.substr(5, 3), c = e164.substr(8, 4);
    switch (style % 6) {
      case 0:
        return "+1 (" + a + ") " + b + "-" + c;
      case 1:
        return "(" + a + ") " + b + "-" + c;
      case 2:
        return a + "-" + b + "-" + c;
      case 3:
        return a + b + c;
      case 4:
        return e164;
      default:
        return a + "." + b + "." + c;
    }
  }
  if (e164.rfind("+44", 0) == 0 && e164.size() == 13) {
    const std::string a = e164.substr(3, 2), b = e164.substr(5, 4), c = e164.substr(9, 4);
    return style % 2 == 0 ? "+44 " + a + " " + b + " " + c : "0" + a + " " + b + " " + c;
  }
  return e164;
}

class Book {
 public:
  Book(Home& h, const std::string& rel) : h_(h), rel_(rel), db_(h.path(rel)) {
    db_.schema("addressbook");
    db_.begin();
    rec_ = std::make_unique<Stmt>(
        db_.handle(),
        "INSERT INTO ZABCDRECORD (Z_PK, Z_ENT, Z_OPT, ZCONTAINER, ZCONTAINERWHERECONTACTISME, "
        "ZCREATIONDATE, ZMODIFICATIONDATE, ZFIRSTNAME, ZLASTNAME, ZORGANIZATION, ZNICKNAME, "
        "ZNAME, ZUNIQUEID, ZDISPLAYFLAGS) VALUES (?,?,1,?,?,?,?,?,?,?,?,?,?,?)");
    phone_ = std::make_unique<Stmt>(
        db_.handle(),
        "INSERT INTO ZABCDPHONENUMBER (Z_PK, Z_ENT, Z_OPT, ZISPRIMARY, ZORDERINGINDEX, ZOWNER, "
        "Z22_OWNER, ZFULLNUMBER, ZLABEL, ZLASTFOURDIGITS, ZUNIQUEID) VALUES "
        "(?,?,1,?,?,?,22,?,?,?,?)");
    mail_ = std::make_unique<Stmt>(
        db_.handle(),
        "INSERT INTO ZABCDEMAILADDRESS (Z_PK, Z_ENT, Z_OPT, ZISPRIMARY, ZORDERINGINDEX, ZOWNER, "
        "Z22_OWNER, ZADDRESS, ZADDRESSNORMALIZED, ZLABEL, ZUNIQUEID) VALUES "
        "(?,?,1,?,?,?,22,?,?,?,?)");
    // The container every contact of this book belongs to.
    rec_->run(int64_t{1}, kEntContainer, Null{}, Null{}, created(), created(), Null{}, Null{},
              Null{}, Null{}, std::string("Contacts"), h.rng.child(7).uuid() + ":ABAccount", 0);
    records_ = 1;
  }

  // Adds a contact record; returns its Z_PK.
  int64_t contact(Rng& rng, const std::optional<std::string>& first,
                  const std::optional<std::string>& last, const std::optional<std::string>& org,
                  const std::vector<std::string>& phones, const std::vector<std::string>& emails,
                  bool me = false) {
    const int64_t pk = ++records_;
    // The owner's own card was touched today; the rest over the past year.
    const double modified =
        static_cast<double>(h_.opt.now - kAppleEpoch) -
        (me ? 3 * 3600.0 : static_cast<double>(rng.range(2 * 86400, 400 * 86400)));
    rec_->run(pk, kEntContact, int64_t{1}, me ? std::optional<int64_t>(1) : std::nullopt,
              modified - rng.range(0, 900 * 86400), modified, first, last, org, Null{}, Null{},
              rng.uuid() + ":ABPerson", org && !first && !last ? 1 : 0);
    static const char* labels[] = {"_$!<Mobile>!$_", "_$!<Home>!$_", "_$!<Work>!$_", "iPhone"};
    for (size_t i = 0; i < phones.size(); ++i) {
      phone_->run(++phones_, 20, i == 0 ? 1 : 0, static_cast<int>(i), pk, phones[i],
                  std::string(labels[rng.next() % 4]),
                  phones[i].size() >= 4 ? phones[i].substr(phones[i].size() - 4) : phones[i],
                  rng.uuid());
    }
    for (size_t i = 0; i < emails.size(); ++i) {
      mail_->run(++emails_, 14, i == 0 ? 1 : 0, static_cast<int>(i), pk, emails[i],
                 lowerAscii(emails[i]), std::string(i == 0 ? "_$!<Home>!$_" : "_$!<Work>!$_"),
                 rng.uuid());
    }
    return pk;
  }

  int64_t records() const { return records_; }

  void finish() {
    Stmt pk(db_.handle(),
            "INSERT INTO Z_PRIMARYKEY (Z_ENT, Z_NAME, Z_SUPER, Z_MAX) VALUES (?,?,?,?)");
    pk.run(14, std::string("ABCDEmailAddress"), 0, emails_);
    pk.run(17, std::string("ABCDRecord"), 0, int64_t{0});
    pk.run(kEntContainer, std::string("ABCDContainer"), 17, records_);
    pk.run(19, std::string("ABCDGroup"), 17, int64_t{0});
    pk.run(20, std::string("ABCDPhoneNumber"), 0, phones_);
    pk.run(kEntContact, std::string("ABCDContact"), 17, records_);
    rec_.reset();
    phone_.reset();
    mail_.reset();
    db_.commit();
    db_.toWal();
    h_.stamp(rel_, static_cast<double>(h_.opt.now) - 3 * 3600);
  }

 private:
  double created() const { return static_cast<double>(h_.opt.now - kAppleEpoch) - 900 * 86400.0; }
  Home& h_;
  std::string rel_;
  Db db_;
  std::unique_ptr<Stmt> rec_, phone_, mail_;
  int64_t records_ = 0, phones_ = 0, emails_ = 0;
};

}  // namespace

void writeAddressBooks(Home& h) {
  Rng rng = h.rng.child(2);
  const std::string root = "Library/Application Support/AddressBook";
  const std::string sourceUuid = rng.uuid();
  makeDirs(h.path(root + "/Sources/" + sourceUuid));

  {
    Book top(h, root + "/AddressBook-v22.abcddb");
    top.contact(rng, std::nullopt, std::nullopt, std::string("Harbend Support"), {"+16465550142"},
                {"support@harbend.example"});
    top.finish();
  }

  Book book(h, root + "/Sources/" + sourceUuid + "/AddressBook-v22.abcddb");
  const Person& owner = h.cast.owner;
  book.contact(rng, owner.first, owner.last, std::nullopt, {formatPhone(owner.phones[0], 0)},
               owner.emails, true);
  int unnamed = 0, style = 0;
  for (size_t i = 0; i < h.cast.people.size(); ++i) {
    const Person& p = h.cast.people[i];
    std::vector<std::string> phones;
    for (const auto& ph : p.phones) phones.push_back(formatPhone(ph, style++));
    if (i != h.cast.multiHandle && rng.chance(0.03)) {
      book.contact(rng, std::nullopt, std::nullopt, std::nullopt, phones, {});  // a number, no name
      ++unnamed;
      continue;
    }
    book.contact(rng, p.first, p.last, std::nullopt, phones, p.emails);
  }
  // The same person typed twice, the number in another format.
  const Person& multi = h.cast.people[h.cast.multiHandle];
  book.contact(rng, multi.first, multi.last, std::nullopt, {formatPhone(multi.phones[0], 3)}, {});
  int n = 0;
  for (const auto& org : organizations()) {
    char num[32];
    std::snprintf(num, sizeof num, "+1650555%04d", 110 + n++);
    book.contact(rng, std::nullopt, std::nullopt, org, {formatPhone(num, n)}, {});
  }
  const int64_t records = book.records();
  book.finish();
  h.summary.push_back("address books: 2 records at the top level, " + std::to_string(records) +
                      " in Sources/" + sourceUuid + " (" + std::to_string(unnamed) + " unnamed)");
}

}  // namespace demohome
