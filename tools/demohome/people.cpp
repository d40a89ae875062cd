// The cast: the owner and the people every store talks about. Phone numbers come
// from ranges reserved for fiction (NANP 555-01xx, Ofcom 020 7946 0xxx) and
// addresses use the example.* domains, so no real person is ever named.
#include <cstdio>
#include <set>

#include "Home.h"
#include "Support.h"
#include "Texts.h"

namespace demohome {

Sizes sizesFor(Scale s) {
  if (s == Scale::small) {
    return Sizes{2000, 40, 9, 60, 300, 500, 120, 120, 25, 20};
  }
  const Sizes standard{145000, 1086, 243, 600, 76000, 100000, 15000, 9000, 220, 300};
  if (s == Scale::standard) return standard;
  // A million messages with the default's shapes: the same people, chats and groups
  // (each thread simply longer; the chat writer gives every one-to-one chat its own
  // handle, which the default cast has just enough of), and every other count grown by
  // the factor of the messages.
  auto grow = [](int n) { return static_cast<int>(static_cast<int64_t>(n) * 1000000 / 145000); };
  return Sizes{1000000,
               standard.chats,
               standard.groups,
               standard.contacts,
               grow(standard.mails),
               grow(standard.chromeVisits),
               grow(standard.arcVisits),
               grow(standard.safariVisits),
               grow(standard.liveMessages),
               grow(standard.liveVisits)};
}

namespace {

std::string asciiFold(const std::string& s) {
  // Enough folding for e-mail local parts built from the name lists.
  static const std::vector<std::pair<std::string, std::string>> map = {
      {"é", "e"}, {"è", "e"}, {"ë", "e"}, {"ö", "o"}, {"ø", "o"}, {"ü", "u"},
      {"í", "i"}, {"á", "a"}, {"ó", "o"}, {"ú", "u"}, {"ç", "c"}, {"Ł", "L"},
      {"ł", "l"}, {"ñ", "n"}, {"Ø", "O"}, {"É", "E"}, {"Ö", "O"}, {"Ü", "U"},
      {"Ç", "C"}, {"ï", "i"}, {"'", ""},  {"-", ""},  {" ", ""}};
  std::string out = s;
  for (const auto& [from, to] : map) {
    for (size_t p = out.find(from); p != std::string::npos; p = out.find(from, p)) {
      out.replace(p, from.size(), to);
      p += to.size();
    }
  }
  return lowerAscii(out);
}

}  // namespace

Cast makeCast(Rng& rng, int contacts) {
  Cast c;
  c.owner.first = "Alex";
  c.owner.last = "Morgan";
  c.owner.phones = {"+14155550100"};
  c.owner.emails = {"alex@example.net"};
  c.googleEmail = "alex.morgan@example.com";

  // Fictional numbers, shuffled deterministically.
  std::vector<std::string> numbers;
  for (const char* area : {"415", "212", "312", "617", "206", "303", "512", "702", "503", "646"}) {
    for (int i = 1; i < 100; ++i) {
      char buf[24];
      std::snprintf(buf, sizeof buf, "+1%s55501%02d", area, i);
      if (std::string(buf) != "+14155550123") numbers.emplace_back(buf);
    }
  }
  for (int i = 0; i < 300; ++i) {
    char buf[24];
    std::snprintf(buf, sizeof buf, "+4420794600%02d", i % 100);
    if (i < 100) numbers.emplace_back(buf);
  }
  for (size_t i = numbers.size(); i > 1; --i) std::swap(numbers[i - 1], numbers[rng.next() % i]);

  std::set<std::string> usedEmails;
  const auto& firsts = firstNames();
  const auto& lasts = lastNames();
  static const char* domains[] = {"example.com", "example.org", "example.net", "mail.example.com"};
  size_t nextNumber = 0;
  for (int i = 0; i < contacts && nextNumber < numbers.size(); ++i) {
    Person p;
    p.first = rng.pick(firsts);
    p.last = rng.pick(lasts);
    p.phones.push_back(numbers[nextNumber++]);
    if (rng.chance(0.15) && nextNumber < numbers.size()) p.phones.push_back(numbers[nextNumber++]);
    if (rng.chance(0.55)) {
      std::string local = asciiFold(p.first) + "." + asciiFold(p.last);
      std::string email = local + "@" + domains[rng.next() % 4];
      for (int n = 2; usedEmails.count(email); ++n) {
        email = local + std::to_string(n) + "@" + domains[rng.next() % 4];
      }
      usedEmails.insert(email);
      p.emails.push_back(email);
    }
    c.people.push_back(std::move(p));
  }
  // The person reachable under several spellings of one number and an e-mail.
  Person multi;
  multi.first = "Jordan";
  multi.last = "Lee";
  multi.phones = {"+14155550123"};
  multi.emails = {"jordan.lee@example.com"};
  c.people.insert(c.people.begin(), multi);
  c.multiHandle = 0;
  return c;
}

}  // namespace demohome
