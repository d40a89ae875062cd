#include <chrono>
#include <cstdio>

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

  using Writer = void (*)(Home&);
  for (Writer w : {writeChatDb, writeAddressBooks, writeMail, writeCalendar, writeReminders,
                   writeBrowsers, writeAccounts, writeNotes, writeCompanionFiles}) {
    const auto started = std::chrono::steady_clock::now();
    const size_t lines = h.summary.size();
    w(h);
    const double secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    if (h.summary.size() > lines) {
      char buf[32];
      std::snprintf(buf, sizeof buf, " [%.1f s]", secs);
      h.summary.back() += buf;
    }
  }

  // mtimes last: writing a store touches its files until the very end.
  for (const auto& [path, t] : h.stamps) {
    for (const char* suffix : {"", "-wal", "-shm"}) setMtime(path + suffix, t);
  }
  if (summary) *summary = h.summary;
}

}  // namespace demohome
