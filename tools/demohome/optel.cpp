// The companion application's files under ~/.harbend: its signed-in account and
// the screen-capture component's status heartbeat.
#include "Home.h"
#include "Support.h"

namespace demohome {

void writeCompanionFiles(Home& h) {
  Rng rng = h.rng.child(8);
  const double now = static_cast<double>(h.opt.now);
  makeDirs(h.path(".harbend/optel"));
  writeFile(h.path(".harbend/account.json"), "{\"email\": \"" + jsonEscape(h.cast.googleEmail) +
                                                 "\", \"token\": \"demo-" + rng.hex(32) + "\"}\n");
  const double heartbeat = now - 4.25;
  const std::string status =
      std::string("{\n") + "  \"heartbeat_at\": \"" + iso(heartbeat, true) + "\",\n" +
      "  \"written_at\": \"" + iso(heartbeat, true) + "\",\n" + "  \"last_event_at\": \"" +
      iso(now - 41, false) + "\",\n" + "  \"events_written\": 18233,\n" + "  \"poll_s\": 5,\n" +
      "  \"idle_heartbeat_s\": 300,\n" + "  \"title_capability\": \"available\",\n" +
      "  \"titles_observed\": true,\n" +
      "  \"executable\": \"/Applications/Harbend.app/Contents/Helpers/optel\"\n}\n";
  writeFile(h.path(".harbend/optel/capture-status.json"), status);
  h.stamp(".harbend/optel/capture-status.json", heartbeat);
  h.stamp(".harbend/account.json", now - 20 * 86400.0);
  h.summary.push_back(
      "companion: ~/.harbend/account.json and optel/capture-status.json (heartbeat " +
      iso(heartbeat, true) + ")");
}

}  // namespace demohome
