#include "sources/messages/TeskContacts.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "common/TeskTestHome.h"

namespace {

using tesk_test::TempHome;

const std::string kRoot = "/Library/Application Support/AddressBook";

// A book with the real macOS schema and `rows` applied; `where` is "" for the
// top-level book or "Sources/<id>" for an account's book.
std::string makeBook(const TempHome& home, const std::string& where, const std::string& rows) {
  std::string path =
      home.file(kRoot + (where.empty() ? "" : "/" + where) + "/AddressBook-v22.abcddb");
  tesk_test::makeDB(path, tesk_test::schema("addressbook.sql") + rows);
  return path;
}

void writeAccount(const TempHome& home, const std::string& json) {
  tesk_test::writeFile(home.file("/.harbend/account.json"), json);
}

TEST(ContactsDisplay, Table) {
  using O = std::optional<std::string_view>;
  const struct {
    O first, last, org, nick;
    std::optional<std::string> name;
  } cases[] = {
      {"Ada", "Lovelace", "Analytical", "Countess", "Ada Lovelace"},
      {"  Ada ", std::nullopt, "Analytical", std::nullopt, "Ada"},
      {std::nullopt, " Lovelace", std::nullopt, std::nullopt, "Lovelace"},
      {"", "  ", " Acme Corp ", "Wile", "Acme Corp"},  // organization-only record
      {std::nullopt, std::nullopt, "   ", " Bunny ", "Bunny"},
      {" ", "", "", "", std::nullopt},
      {std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt},
      {"Zo\xC3\xAB", "\xC3\x89lise", std::nullopt, std::nullopt, "Zo\xC3\xAB \xC3\x89lise"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TeskContacts::display(c.first, c.last, c.org, c.nick), c.name)
        << (c.name ? *c.name : "(none)");
  }
}

TEST(ContactsAccountHandle, OnlyASignedInAccountWithAnEmail) {
  const struct {
    std::string json;
    std::optional<std::string> handle;
  } cases[] = {
      {R"({"token":"t0k","email":" Me@Example.COM "})", "me@example.com"},
      {R"( { "email" : "me@example.com", "token" : "x", "other": [1, 2.5e-3, {"a": null}], "b": true } )",
       "me@example.com"},
      {R"({"token":"x","email":"me\u0040example.com"})", "me@example.com"},  // escaped "@"
      {R"({"token":"x","email":"\u00C9mile@ex.fr"})", "\xC3\xA9mile@ex.fr"},
      {"\xEF\xBB\xBF{\"token\":\"x\",\"email\":\"a@b\"}", "a@b"},  // byte-order mark
      {R"({"token":"","email":"me@example.com"})", std::nullopt},  // signed out
      {R"({"email":"me@example.com"})", std::nullopt},
      {R"({"token":1,"email":"me@example.com"})", std::nullopt},
      {R"({"token":"x","email":"me.example.com"})", std::nullopt},
      {R"({"token":"x","email":["me@example.com"]})", std::nullopt},
      {R"({"token":"x","email":"a@b","email":1})", std::nullopt},   // last duplicate wins
      {R"({"token":"x","nested":{"email":"a@b"}})", std::nullopt},  // top level only
      {R"([{"token":"x","email":"a@b"}])", std::nullopt},
      // Not JSON at all (TeskJSONValue's own tests hold the malformed forms).
      {R"({"token":"x","email":"a@b"} trailing)", std::nullopt},
      {"", std::nullopt},
      {"null", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(TeskContacts::accountHandle(c.json), c.handle) << c.json;
}

TEST(ContactsBooks, TopLevelThenSourcesByName) {
  TempHome home;
  EXPECT_TRUE(TeskContacts::books(home.path()).empty());
  const std::string root = home.path() + kRoot;
  tesk_test::writeFile(home.file(kRoot + "/Sources/B/AddressBook-v22.abcddb"), "");
  tesk_test::writeFile(home.file(kRoot + "/Sources/A/AddressBook-v22.abcddb"), "");
  tesk_test::writeFile(home.file(kRoot + "/Sources/C/other.abcddb"), "");
  EXPECT_EQ(TeskContacts::books(home.path()),
            (std::vector<std::string>{root + "/Sources/A/AddressBook-v22.abcddb",
                                      root + "/Sources/B/AddressBook-v22.abcddb"}));
  tesk_test::writeFile(home.file(kRoot + "/AddressBook-v22.abcddb"), "");
  EXPECT_EQ(TeskContacts::books(home.path()).front(), root + "/AddressBook-v22.abcddb");
}

class ContactsRoster : public ::testing::Test {
 protected:
  void SetUp() override {
    // The top-level book is nearly empty, as on a real Mac.
    makeBook(home_, "",
             "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME) VALUES (1, 'Top');"
             "INSERT INTO ZABCDEMAILADDRESS(ZOWNER, ZADDRESS) VALUES (1, 'TOP@example.com');");
    makeBook(home_, "Sources/1-account",
             "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZLASTNAME, ZORGANIZATION, ZNICKNAME) VALUES"
             " (1, 'Alice', 'Archer', NULL, NULL),"
             " (2, 'Bob', NULL, NULL, NULL),"
             " (3, NULL, NULL, 'Acme Plumbing', NULL),"
             " (4, NULL, NULL, NULL, NULL),"
             " (5, 'Nobody', 'Withhandles', NULL, NULL);"
             // The same number, written two ways, on two records: Alice's row comes first.
             "INSERT INTO ZABCDPHONENUMBER(Z_PK, ZOWNER, ZFULLNUMBER) VALUES"
             " (1, 1, '+1 (415) 555-0123'), (2, 2, '415.555.0123'), (3, 3, '0800 123 4567'),"
             " (4, 4, '+44 20 7946 0018'), (5, 2, NULL), (6, 2, '   ');"
             "INSERT INTO ZABCDEMAILADDRESS(Z_PK, ZOWNER, ZADDRESS) VALUES"
             " (1, 2, ' Bob@Example.com'), (2, 4, 'ghost@example.com');");
    // Not an address book at all, and a book that is not a database.
    tesk_test::makeDB(home_.file(kRoot + "/Sources/2-other/AddressBook-v22.abcddb"),
                      "CREATE TABLE unrelated(x);");
  }
  TempHome home_;
};

TEST_F(ContactsRoster, NamesCountsAndDenials) {
  TeskContacts::Roster r = TeskContacts::sqliteRoster(home_.path());
  EXPECT_EQ(r.source, "addressbook-sqlite");
  const std::string root = home_.path() + kRoot;
  EXPECT_EQ(r.books,
            (std::vector<std::string>{root + "/AddressBook-v22.abcddb",
                                      root + "/Sources/1-account/AddressBook-v22.abcddb"}));
  EXPECT_EQ(r.denied, std::vector<std::string>{"AddressBook-v22.abcddb: not an address book"});
  EXPECT_EQ(r.records, 6);
  // Phones 1-4 and e-mails (top, Bob's, ghost): NULL and blank numbers are not handles.
  EXPECT_EQ(r.handles, 7);
  EXPECT_EQ(r.unnamed, 2);  // record 4's phone and e-mail
  EXPECT_EQ(r.byHandle.size(), 4u);
  EXPECT_EQ(r.name("+4155550123"), "Alice Archer");  // first met wins
  EXPECT_EQ(r.name("(415) 555 0123"), "Alice Archer");
  EXPECT_EQ(r.name("bob@EXAMPLE.com"), "Bob");
  EXPECT_EQ(r.name("08001234567"), "Acme Plumbing");
  EXPECT_EQ(r.name("top@example.com"), "Top");
  EXPECT_EQ(r.name("+2079460018"), std::nullopt);  // unnamed record
  EXPECT_EQ(r.name("ghost@example.com"), std::nullopt);
  EXPECT_EQ(TeskContacts::roster(home_.path()).byHandle, r.byHandle);

  // Cards: books in order, records by key; the number Alice and Bob share is Alice's.
  std::vector<std::pair<std::string, std::vector<std::string>>> cards;
  for (const auto& c : r.cards) cards.emplace_back(c.key, c.handles);
  EXPECT_EQ(cards, (decltype(cards){
                       {"Top", {"top@example.com"}},
                       {"Alice Archer", {"+4155550123"}},
                       {"Bob", {"+4155550123", "bob@example.com"}},
                       {"Acme Plumbing", {"+8001234567"}},
                       {"+2079460018", {"+2079460018", "ghost@example.com"}},  // no name
                   }));
  EXPECT_EQ(r.sharedHandles, 1);
  ASSERT_NE(r.cardOf("+4155550123"), nullptr);
  EXPECT_EQ(r.cardOf("+4155550123")->key, "Alice Archer");
  EXPECT_EQ(r.cardOf("bob@example.com")->key, "Bob");
  EXPECT_EQ(r.cardOf("nobody@example.com"), nullptr);
}

TEST(ContactsRosterEdge, MissingDirectoryAndBrokenBooks) {
  TempHome home;
  TeskContacts::Roster empty = TeskContacts::sqliteRoster(home.path());
  EXPECT_TRUE(empty.books.empty());
  EXPECT_TRUE(empty.denied.empty());
  EXPECT_EQ(empty.records, 0);
  EXPECT_EQ(empty.source, "addressbook-sqlite");

  // A book whose handle tables moved: counted, read, no names.
  makeBook(home, "Sources/a",
           "DROP TABLE ZABCDPHONENUMBER;"
           "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME) VALUES (1, 'X');");
  // A book path that is a directory cannot be opened at all.
  std::filesystem::create_directories(home.path() + kRoot + "/Sources/b/AddressBook-v22.abcddb");
  TeskContacts::Roster r = TeskContacts::sqliteRoster(home.path());
  EXPECT_EQ(r.books.size(), 1u);
  EXPECT_EQ(r.records, 1);
  EXPECT_EQ(r.handles, 0);
  ASSERT_EQ(r.denied.size(), 1u);
  EXPECT_TRUE(r.denied[0].starts_with("AddressBook-v22.abcddb: cannot read ")) << r.denied[0];
}

TEST(ContactsMe, MeCardFromTheBooks) {
  TempHome home;
  EXPECT_EQ(TeskContacts::meCard(home.path()), std::nullopt);
  makeBook(
      home, "",
      "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZCONTAINERWHERECONTACTISME) VALUES (1, NULL, 1);"
      "INSERT INTO ZABCDEMAILADDRESS(ZOWNER, ZADDRESS) VALUES (1, 'Old@Example.com');");
  makeBook(home, "Sources/x",
           "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZLASTNAME, ZCONTAINERWHERECONTACTISME) VALUES"
           " (7, 'Owner', 'Person', 3), (8, 'Someone', 'Else', 0), (9, 'Also', 'Else', NULL);"
           "INSERT INTO ZABCDPHONENUMBER(ZOWNER, ZFULLNUMBER) VALUES (7, '+1 415 555 0199'),"
           " (7, '(415) 555-0199'), (8, '+1 212 555 0100'), (9, '+1 212 555 0101');"
           "INSERT INTO ZABCDEMAILADDRESS(ZOWNER, ZADDRESS) VALUES (7, 'owner@example.com'),"
           " (8, 'else@example.com');");
  auto me = TeskContacts::meCard(home.path());
  ASSERT_TRUE(me.has_value());
  // The first Me record has no name; the next one names the card.
  EXPECT_EQ(*me, (TeskContacts::MeCard{"Owner Person",
                                       {"+4155550199", "old@example.com", "owner@example.com"}}));
}

TEST(ContactsMe, MeRecordWithoutHandlesIsNoCard) {
  TempHome home;
  makeBook(
      home, "",
      "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZCONTAINERWHERECONTACTISME) VALUES (1, 'Me', 1);");
  EXPECT_EQ(TeskContacts::meCard(home.path()), std::nullopt);
  EXPECT_EQ(TeskContacts::selfCard(home.path()), std::nullopt);
}

TEST(ContactsMe, SelfCardAddsTheSignedInAccount) {
  TempHome home;
  // No Me record and no account file: no card.
  makeBook(home, "", "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME) VALUES (1, 'Not me');");
  EXPECT_EQ(TeskContacts::selfCard(home.path()), std::nullopt);

  // Signed in: the account alone makes an unnamed card.
  writeAccount(home, R"({"token":"abc","email":"Me@Gmail.com"})");
  EXPECT_EQ(TeskContacts::selfCard(home.path()), (TeskContacts::MeCard{"", {"me@gmail.com"}}));

  // With a Me record the handles merge, sorted, without duplicates.
  makeBook(
      home, "Sources/s",
      "INSERT INTO ZABCDRECORD(Z_PK, ZFIRSTNAME, ZCONTAINERWHERECONTACTISME) VALUES (1, 'Me', 1);"
      "INSERT INTO ZABCDEMAILADDRESS(ZOWNER, ZADDRESS) VALUES (1, 'me@gmail.com'), (1, 'a@b.c');");
  EXPECT_EQ(TeskContacts::selfCard(home.path()),
            (TeskContacts::MeCard{"Me", {"a@b.c", "me@gmail.com"}}));

  // A garbled account file adds nothing but does not hide the Me card.
  writeAccount(home, "{\"token\":\"abc\",\"email\":\"x@y.z\"");
  EXPECT_EQ(TeskContacts::selfCard(home.path()),
            (TeskContacts::MeCard{"Me", {"a@b.c", "me@gmail.com"}}));
}

}  // namespace
