// Handle identity: one canonical form per person and the --who match.
#include <gtest/gtest.h>

#include "sources/messages/TeskIdentity.h"

namespace {

TEST(TeskIdentity, Canonical) {
  struct Case {
    const char* handle;
    const char* canonical;
  };
  const std::vector<Case> cases = {
      // E-mail: trimmed and lower-cased, digits and all.
      {"  Alice@Example.COM  ", "alice@example.com"},
      {"\tJohn.Smith4155550123@x.com", "john.smith4155550123@x.com"},
      {"MiXeD@Ünï.DE", "mixed@ünï.de"},
      // Phones: the last ten digits, whatever the prefix and formatting.
      {"+1 (415) 555-0123", "+4155550123"},
      {"14155550123", "+4155550123"},
      {"415-555-0123", "+4155550123"},
      {"4155550123", "+4155550123"},
      {"+44 20 7946 0018", "+2079460018"},
      {"0207 946 0018", "+2079460018"},
      // Short codes keep their digits alone.
      {"12345", "12345"},
      {" 1-2 3 ", "123"},
      {"123456789", "123456789"},
      // No digits: a name, lower-cased.
      {"Family Chat", "family chat"},
      {"  ÉLODIE ", "élodie"},
      // Blank.
      {"", ""},
      {"   ", ""},
      {" \t ", ""},
      // Digits of other scripts are digits, with their decimal value.
      {"+١ (٤١٥) ٥٥٥-٠١٢٣", "+4155550123"},       // Arabic-Indic
      {"４１５-５５５-０１２３", "+4155550123"},  // full-width
      {"۵۵۵۰۱۲۳", "5550123"},                     // Extended Arabic-Indic
      {"९८७६५", "98765"},                         // Devanagari
      // A numeric character with no single decimal value stays as it is.
      {"1½", "1½"},
      {"Ⅻ", "Ⅻ"},
      // Any text with ten digits reads as a phone (chat identifiers included).
      {"chat123456789012", "+3456789012"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TeskIdentity::canonical(c.handle), c.canonical) << "handle: " << c.handle;
  }
}

TEST(TeskIdentity, CanonicalSurvivesBrokenUtf8) {
  EXPECT_EQ(TeskIdentity::canonical("12\xff\xfe"
                                    "34"),
            "1234");
  EXPECT_FALSE(TeskIdentity::matches("\xe2\x82", "+14155550123"));
}

TEST(TeskIdentity, Matches) {
  struct Case {
    const char* query;
    const char* handle;
    bool match;
  };
  const std::vector<Case> cases = {
      // Case-insensitive substring of the handle.
      {"ALICE", "alice@example.com", true},
      {"alice", "ALICE@EXAMPLE.COM", true},
      {"  Bob  ", "bob@x.com", true},
      {"415) 555", "+1 (415) 555-0123", true},
      {"carol", "alice@example.com", false},
      // Digits: seven or more, inside the handle's own digits.
      {"555 01", "+14155550123", false},  // five digits are not enough
      {"5550123", "+14155550123", true},
      {"(415) 555-0123", "+14155550123", true},
      {"12-34567", "+1412345678", true},
      {"12-3456", "+14155123456", false},  // six digits
      {"5550124", "+14155550123", false},
      // Digits of other scripts on either side.
      {"٥٥٥٠١٢٣", "+14155550123", true},
      {"5550123", "+١٤١٥٥٥٥٠١٢٣", true},
      // An empty query matches nothing here (tesk_match admits it first).
      {"", "+14155550123", false},
      {"   ", "anything", false},
      {"", "", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(TeskIdentity::matches(c.query, c.handle), c.match)
        << "query: " << c.query << " handle: " << c.handle;
  }
}

}  // namespace
