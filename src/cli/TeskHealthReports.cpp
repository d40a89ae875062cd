// The health verbs' answers for the command line: the doctor's rows rendered with
// the stale and denied lists and exit code taken from the verdicts, and the link.
#include <algorithm>

#include "cli/TeskReports.h"
#include "health/TeskDoctor.h"
#include "health/TeskGrant.h"

namespace TeskCLI {

DoctorAnswer doctorReport(const Environment& env) {
  DoctorAnswer a;
  std::vector<TeskDoctor::Row> rows = TeskDoctor::run(env.clock(), env.home);
  a.body = TeskDoctor::render(rows);
  a.rows = static_cast<int64_t>(rows.size());
  std::vector<std::string> dead, heartbeat;
  for (const TeskDoctor::Row& r : rows) {
    if (r.verdict == TeskDoctor::Verdict::dead) dead.push_back(r.key);
    if (r.verdict == TeskDoctor::Verdict::denied) a.denied.push_back(r.key);
    if (r.key == "optel" && r.verdict != TeskDoctor::Verdict::fresh) heartbeat.push_back(r.key);
  }
  a.stale = dead;
  a.stale.insert(a.stale.end(), heartbeat.begin(), heartbeat.end());
  std::sort(a.stale.begin(), a.stale.end());
  a.stale.erase(std::unique(a.stale.begin(), a.stale.end()), a.stale.end());
  a.exit = a.stale.empty() ? success : drift;
  return a;
}

LinkAnswer linkReport(const Environment& env) {
  LinkAnswer a;
  a.body = TeskGrant::linkReport(env.home, env.clock());
  TeskGrant::Link link = TeskGrant::link("Google", env.home);
  a.exit = link.verdict() == TeskGrant::Link::Verdict::complete ? success : drift;
  return a;
}

}  // namespace TeskCLI
