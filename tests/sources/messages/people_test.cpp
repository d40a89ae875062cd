// A --who value read as a contact's name: which cards it names and which handles
// those cards bring, over rosters read from books with the real schema.
#include "sources/messages/TeskPeople.h"

#include <gtest/gtest.h>

#include "common/TeskTestHome.h"

namespace {

using tesk_test::TempHome;

TEST(PeopleName, EveryWordBeginsAWordOfTheName) {
  const struct {
    const char* value;
    const char* name;
    bool match;
  } cases[] = {
      {"jordan", "Jordan Lee", true},
      {"Jordan Lee", "Jordan Lee", true},
      {"lee jordan", "Jordan Lee", true},
      {"JORDAN", "Jordan Lee", true},
      {"  jor  ", "Jordan Lee", true},  // a beginning is enough
      {"\xC3\x89lodie", "Elodie Martin", true},
      {"elodie martin", "\xC3\x89lodie Mart\xC3\xADn", true},
      {"jones", "Anna Smith-Jones", true},  // hyphens split words
      {"lee", "Ashlee Smith", false},       // not inside a word
      {"jordan smith", "Jordan Lee", false},
      {"jordan.lee", "Jordan Lee", false},  // one word, not two
      {"jordan.lee@example.com", "Jordan Lee", false},
      {"4155550123", "4155550123 Pizza", false},  // digits are a handle, never a name
      {"", "Jordan Lee", false},
      {"   ", "Jordan Lee", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskPeople::nameMatches(c.value, c.name), c.match) << c.value << " / " << c.name;
  }
}

class PeopleResolve : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string path =
        home_.file("/Library/Application Support/AddressBook/Sources/a/AddressBook-v22.abcddb");
    tesk_test::makeDB(
        path,
        tesk_test::schema("addressbook.sql") +
            "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZLASTNAME, ZORGANIZATION) VALUES"
            " (1, 'Jordan', 'Lee', NULL), (2, 'Jordan', 'Smith', NULL),"
            " (3, 'Jordan', 'Lee', NULL),"  // typed twice, the number in another spelling
            " (4, '\xC3\x89lodie', 'Durand', NULL), (5, 'Sam', 'Roe', NULL),"
            " (6, 'Sam', 'Roe', NULL), (7, NULL, NULL, NULL);"
            "INSERT INTO ZABCDPHONENUMBER(Z_PK, ZOWNER, ZFULLNUMBER) VALUES"
            " (1, 1, '+1 (415) 555-0123'), (2, 2, '212-555-0101'), (3, 3, '4155550123'),"
            " (4, 5, '+1 312 555 0107'), (5, 6, '+1 312 555 0108'), (6, 7, '+1 503 555 0199');"
            "INSERT INTO ZABCDEMAILADDRESS(Z_PK, ZOWNER, ZADDRESS) VALUES"
            " (1, 1, 'Jordan.Lee@Example.com'), (2, 4, 'elodie@example.fr');");
    roster_ = TeskContacts::sqliteRoster(home_.path());
  }
  std::vector<std::string> keys(const TeskPeople::Resolution& r) {
    std::vector<std::string> out;
    for (const auto& c : r.cards) out.push_back(c.key);
    return out;
  }
  TempHome home_;
  TeskContacts::Roster roster_;
};

TEST_F(PeopleResolve, PhoneAndEmailOnOneCardAreOnePerson) {
  TeskPeople::Resolution r = TeskPeople::resolve(roster_, "Jordan Lee");
  EXPECT_EQ(keys(r), std::vector<std::string>{"Jordan Lee"});
  EXPECT_EQ(r.handles, (std::vector<std::string>{"+4155550123", "jordan.lee@example.com"}));
  // The second Jordan Lee card holds only a number the first already has.
  EXPECT_EQ(r.shared, 1);
  EXPECT_EQ(TeskPeople::notes(r, "--who", " Jordan Lee "),
            (std::vector<std::string>{
                "--who Jordan Lee: 1 card, 2 handles (+4155550123, jordan.lee@example.com)",
                "1 handle on two or more cards, each counted for the first card in address-book "
                "order"}));
}

TEST_F(PeopleResolve, AFirstNameListsEveryCardItNames) {
  TeskPeople::Resolution r = TeskPeople::resolve(roster_, "jordan");
  EXPECT_EQ(keys(r), (std::vector<std::string>{"Jordan Lee", "Jordan Smith"}));
  EXPECT_EQ(r.handles,
            (std::vector<std::string>{"+2125550101", "+4155550123", "jordan.lee@example.com"}));
  EXPECT_EQ(TeskPeople::notes(r, "--who", "jordan").front(),
            "--who jordan: 2 cards, 3 handles — Jordan Lee (+4155550123, jordan.lee@example.com); "
            "Jordan Smith (+2125550101) — a fuller name narrows it");
}

TEST_F(PeopleResolve, DiacriticsSharedNamesAndHandles) {
  EXPECT_EQ(TeskPeople::resolve(roster_, "ELODIE").handles,
            std::vector<std::string>{"elodie@example.fr"});
  // Two people with one name stay two, told apart by their first handle.
  EXPECT_EQ(keys(TeskPeople::resolve(roster_, "sam roe")),
            (std::vector<std::string>{"Sam Roe (+3125550107)", "Sam Roe (+3125550108)"}));
  // A handle or digits never resolve, so their answers stay the handle match alone.
  for (const char* v : {"+1 415 555 0123", "5550123", "jordan.lee@example.com", "nobody"}) {
    TeskPeople::Resolution r = TeskPeople::resolve(roster_, v);
    EXPECT_TRUE(r.cards.empty()) << v;
    EXPECT_TRUE(TeskPeople::notes(r, "--who", v).empty()) << v;
  }
  // An unnamed card is keyed by its first handle and found by no name.
  EXPECT_EQ(roster_.cardOf("+5035550199")->key, "+5035550199");
}

}  // namespace
