#include <filesystem>

#include "Home.h"
#include "Sqlite.h"
#include "Support.h"

namespace demohome {

void generate(const Options& opt, std::vector<std::string>* summary) {
  installFixedRandomnessVfs();
  Home h;
  h.opt = opt;
  h.root = opt.target;
  while (h.root.size() > 1 && h.root.back() == '/') h.root.pop_back();
  h.size = sizesFor(opt.scale);
  h.rng = Rng(opt.rng);
  Rng castRng = h.rng.child(100);
  h.cast = makeCast(castRng, h.size.contacts);

  writeChatDb(h);
  writeAddressBooks(h);
  writeMail(h);
  writeCalendar(h);
  writeReminders(h);
  writeBrowsers(h);
  writeAccounts(h);
  writeNotes(h);
  writeCompanionFiles(h);

  // mtimes last: writing a store touches its files until the very end.
  for (const auto& [path, t] : h.stamps) {
    for (const char* suffix : {"", "-wal", "-shm"}) setMtime(path + suffix, t);
  }
  if (summary) *summary = h.summary;
}

}  // namespace demohome
