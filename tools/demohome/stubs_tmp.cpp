#include "Home.h"
namespace demohome {
void writeReminders(Home&) {}
void writeBrowsers(Home&) {}
void writeAccounts(Home&) {}
void writeCompanionFiles(Home&) {}
void writeNotes(Home&) {}
}  // namespace demohome
