// The demo home being written: options, the cast of people every store shares,
// and one writer per store. Each writer draws from its own Rng child so stores
// stay byte-stable when another store's generator changes.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Rng.h"

namespace demohome {

constexpr int64_t kAppleEpoch = 978307200;      // 2001-01-01 in unix seconds
constexpr int64_t kWebKitOffset = 11644473600;  // 1601-01-01 to 1970-01-01 in seconds
constexpr const char* kMarkerName = ".tesk-demo-home";

enum class Scale { small, standard, large };
enum class Link { complete, partial, broken, absent };

struct Options {
  std::string target;
  Scale scale = Scale::standard;
  int64_t now = 0;   // unix seconds
  uint64_t rng = 1;  // rng start value
  Link link = Link::complete;
  std::string zone;  // IANA zone for local wall-clock data; "" = process zone
};

// One person of the owner's world. Phones are E.164 ("+14155550123").
struct Person {
  std::string first, last, organization, nickname;
  std::vector<std::string> phones;
  std::vector<std::string> emails;
  bool inContacts = true;  // has an address-book record
};

struct Cast {
  Person owner;             // the Me card
  std::string googleEmail;  // the Google account (mail, calendar, contacts)
  std::vector<Person> people;
  // Index into people of the person reachable under several spellings.
  size_t multiHandle = 0;
};

// Sizes that differ between scales.
struct Sizes {
  int messages, chats, groups, contacts, mails, chromeVisits, arcVisits, safariVisits;
  int liveMessages, liveVisits;  // rows left in the -wal
};

struct Home {
  Options opt;
  std::string root;  // target directory, no trailing slash
  Sizes size{};
  Cast cast;
  Rng rng{1};
  std::vector<std::pair<std::string, double>> stamps;  // files and their mtimes
  std::vector<std::string> summary;                    // one line per store

  std::string path(const std::string& rel) const { return root + "/" + rel; }
  // Records that the file at rel (and its -wal/-shm when present) gets this mtime.
  void stamp(const std::string& rel, double unixSeconds) {
    stamps.emplace_back(path(rel), unixSeconds);
  }
};

Sizes sizesFor(Scale s);
Cast makeCast(Rng& rng, int contacts);

// Store writers (one file each).
void writeChatDb(Home& h);
void writeAddressBooks(Home& h);
void writeMail(Home& h);
void writeCalendar(Home& h);
void writeReminders(Home& h);
void writeBrowsers(Home& h);
void writeAccounts(Home& h);
void writeCompanionFiles(Home& h);  // ~/.harbend account and capture status
void writeNotes(Home& h);

// Writes the whole home into opt.target (which the caller has vetted and emptied).
void generate(const Options& opt, std::vector<std::string>* summary);

}  // namespace demohome
