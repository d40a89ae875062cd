// Library/Group Containers/group.com.apple.notes/NoteStore.sqlite: only what the
// freshness probe reads (ZICCLOUDSYNCINGOBJECT.ZMODIFICATIONDATE1, REAL seconds
// since 2001). No schema with provenance exists, so the table is minimal. Like
// the real store it is read with its -wal.
#include "Home.h"
#include "Sqlite.h"
#include "Support.h"

namespace demohome {

void writeNotes(Home& h) {
  Rng rng = h.rng.child(9);
  const std::string dir = "Library/Group Containers/group.com.apple.notes";
  makeDirs(h.path(dir));
  const std::string rel = dir + "/NoteStore.sqlite";
  Db db(h.path(rel));
  db.exec(
      "CREATE TABLE ZICCLOUDSYNCINGOBJECT (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, "
      "ZMARKEDFORDELETION INTEGER, ZCREATIONDATE1 TIMESTAMP, ZMODIFICATIONDATE1 TIMESTAMP, "
      "ZIDENTIFIER VARCHAR, "
      "ZTITLE1 VARCHAR, ZSNIPPET VARCHAR);");
  static const char* titles[] = {"Packing list",    "Dinner ideas",  "Flight confirmation numbers",
                                 "Résumé notes",    "Books to read", "Gift ideas",
                                 "Wi-Fi passwords", "Meeting notes"};
  const double now = static_cast<double>(h.opt.now - kAppleEpoch);
  db.begin();
  Stmt ins(
      db.handle(),
      "INSERT INTO ZICCLOUDSYNCINGOBJECT (Z_PK, Z_ENT, Z_OPT, ZMARKEDFORDELETION, ZCREATIONDATE1, "
      "ZMODIFICATIONDATE1, ZIDENTIFIER, ZTITLE1, ZSNIPPET) VALUES (?,12,1,0,?,?,?,?,?)");
  const int notes = 40;
  for (int i = 0; i < notes; ++i) {
    if (i == notes - 3) {
      db.commit();
      db.toLiveWal();
      db.begin();
    }
    // Older notes every few days; the three newest edited within the last hours.
    const double modified =
        i >= notes - 3 ? now - 7200.0 * (notes - i)
                       : now - 86400.0 * 3 * (notes - i) + static_cast<double>(rng.range(0, 3600));
    ins.run(int64_t{i + 1}, modified - 86400.0 * 10, modified, rng.uuid(),
            std::string(titles[i % 8]), std::string("…"));
  }
  db.commit();
  h.stamp(rel, static_cast<double>(h.opt.now) - 7200);
  h.summary.push_back("notes: NoteStore.sqlite, " + std::to_string(notes) +
                      " notes (3 only in the -wal)");
}

}  // namespace demohome
