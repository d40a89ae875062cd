// The health verbs' answers for the command line: the doctor's rows rendered with
// the stale and denied lists and exit code taken from the verdicts, and the link.
#include <algorithm>

#include "cli/TeskReports.h"
#include "cli/TeskTime.h"
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

StaleAnswer staleSources(const std::vector<std::string>& keys, const Environment& env, double now) {
  StaleAnswer a;
  std::vector<TeskDoctor::Row> rows = TeskDoctor::verdicts(now, env.home, keys);
  std::sort(rows.begin(), rows.end(),
            [](const TeskDoctor::Row& x, const TeskDoctor::Row& y) { return x.key < y.key; });
  std::string named;
  for (const TeskDoctor::Row& r : rows) {
    using V = TeskDoctor::Verdict;
    if (r.verdict != V::stale && r.verdict != V::dead && r.verdict != V::denied) continue;
    a.keys.push_back(r.key);
    named += (named.empty() ? "" : ", ") + r.key + " " + std::string(rawValue(r.verdict));
    if (r.verdict != V::denied) {
      named +=
          r.newest > 0 ? " (newest row " + TeskTime::isoString(r.newest) + ")" : " (no dated row)";
    }
  }
  if (!named.empty()) a.note = "stale by the rules of `tesk doctor`: " + named;
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
