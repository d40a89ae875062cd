#include "health/TeskOptelHealth.h"

#include <gtest/gtest.h>

#include <cmath>

#include "cli/TeskTime.h"
#include "common/TeskTestHome.h"

namespace {

using TeskDoctor::Verdict;

const double kNow = *TeskTime::parseISO("2026-08-13T10:00:00Z");

std::string at(double secondsAgo) { return TeskTime::isoString(kNow - secondsAgo); }

TEST(TeskOptelHealth, DateParsesWithAndWithoutFraction) {
  struct Case {
    std::string text;
    std::optional<double> want;
  };
  const Case cases[] = {
      {"2026-08-13T10:00:00Z", kNow},
      {"2026-08-13T10:00:00.250Z", kNow + 0.25},
      {"2026-08-13T10:00:00.5+02:00", kNow + 0.5 - 7200},
      {"2026-08-13T10:00:00.123456789Z", kNow + 0.123456789},
      {"2026-08-13T10:00:00.Z", std::nullopt},
      {"2026-08-13T10:00:00.1234567890Z", std::nullopt},
      {"2026-08-13T10:00:00.25", std::nullopt},
      {"2026-08-13 10:00:00Z", std::nullopt},
      {"2026-08-13", std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    auto got = TeskOptelHealth::date(c.text);
    ASSERT_EQ(got.has_value(), c.want.has_value()) << c.text;
    if (got) {
      EXPECT_NEAR(*got, *c.want, 1e-6) << c.text;
    }
  }
}

TEST(TeskOptelHealth, UnusableFilesAreAbsent) {
  const std::optional<std::string> contents[] = {
      std::nullopt, "", "not json", "[1,2]", "\"s\"", "{\"heartbeat_at\": ", "null"};
  for (const auto& text : contents) {
    tesk_test::TempHome home;
    if (text) home.write(".harbend/optel/capture-status.json", *text);
    auto r = TeskOptelHealth::row(home.path(), kNow);
    EXPECT_EQ(r.key, "optel");
    EXPECT_EQ(r.category, TeskDoctor::Category::a);
    EXPECT_EQ(r.verdict, Verdict::absent) << text.value_or("<missing>");
    EXPECT_EQ(r.detail, "Chronlet: no capture heartbeat");
    EXPECT_EQ(r.openMode, "-");
    EXPECT_EQ(r.count, 0);
    EXPECT_EQ(r.newest, 0);
    EXPECT_TRUE(std::isinf(r.ageHours));
    EXPECT_EQ(r.stores, 1);
    EXPECT_FALSE(r.cause.has_value());
  }
}

// A status file whose heartbeat and last event lie the given seconds ago, with more fields.
std::string status(double heartbeat, double event, const std::string& more = "") {
  return R"({"heartbeat_at":")" + at(heartbeat) + R"(","last_event_at":")" + at(event) + "\"" +
         (more.empty() ? "" : "," + more) + "}";
}

TEST(TeskOptelHealth, HeartbeatVerdictsAndDetail) {
  const std::string installed =
      R"("executable": "/Applications/Harbend.app/Contents/Helpers/optel")";
  const std::string lag10 =
      "Chronlet: heartbeat 31s; source lag 10s; titles need screen recording; legacy helper; "
      "process events 0";
  struct Case {
    std::string name;
    std::string json;
    Verdict verdict;
    std::string detail;
  };
  const Case cases[] = {
      {"the documented example",
       status(4, 41, R"("events_written":18233,"titles":true,"titles_observed":true,)" + installed),
       Verdict::fresh,
       "Chronlet: heartbeat 4s; source lag 41s; titles available and observed; installed "
       "helper; process events 18233"},
      {"heartbeat 31s without poll_s is stale", status(31, 10), Verdict::stale, lag10},
      {"poll_s 20 widens the heartbeat bound to 60s", status(31, 10, R"("poll_s":20)"),
       Verdict::fresh, lag10},
      {"poll_s 20 still stale past 60s", status(61, 10, R"("poll_s":20)"), Verdict::stale, ""},
      {"small poll_s keeps the 30s floor", status(29, 5, R"("poll_s":1)"), Verdict::fresh, ""},
      {"small poll_s: event bound is 3*poll + idle", status(1, 304, R"("poll_s":1)"),
       Verdict::stale, ""},
      {"event at exactly allowance + idle is fresh", status(1, 315), Verdict::fresh, ""},
      {"event one second past is stale", status(1, 316), Verdict::stale, ""},
      {"idle_heartbeat_s widens the event bound", status(1, 900, R"("idle_heartbeat_s":1000)"),
       Verdict::fresh, ""},
      {"written_at stands in for heartbeat_at",
       R"({"written_at":")" + at(7) + R"(","last_event_at":")" + at(8) +
           R"(","title_capability":"available"})",
       Verdict::fresh,
       "Chronlet: heartbeat 7s; source lag 8s; titles available, none observed yet; legacy "
       "helper; process events 0"},
      {"a non-string heartbeat falls back to written_at",
       R"({"heartbeat_at":12,"written_at":")" + at(2) + R"(","last_event_at":")" + at(2) + R"("})",
       Verdict::fresh, ""},
      {"no committed event",
       R"({"heartbeat_at":")" + at(2) +
           R"(","events_written":5,"titles":true,"titles_observed":true})",
       Verdict::stale,
       "Chronlet: heartbeat 2s; no committed event; titles available and observed; legacy "
       "helper; process events 5"},
      {"fractional seconds round to whole seconds",
       R"({"heartbeat_at":"2026-08-13T09:59:58.250Z","last_event_at":"2026-08-13T09:59:57Z",
          "title_capability":"blocked","titles":true,"executable":"/Applications/Harbend.app/Contents/MacOS/optel"})",
       Verdict::fresh,
       "Chronlet: heartbeat 2s; source lag 3s; titles need screen recording; legacy helper; "
       "process events 0"},
      {"future timestamps count as age 0", status(-100, -50), Verdict::fresh,
       "Chronlet: heartbeat 0s; source lag 0s; titles need screen recording; legacy helper; "
       "process events 0"},
      {"no parseable heartbeat",
       R"({"heartbeat_at":"yesterday","last_event_at":")" + at(1) + R"(","events_written":9})",
       Verdict::stale, "Chronlet: capture status has no parseable heartbeat"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    tesk_test::TempHome home;
    home.write(".harbend/optel/capture-status.json", c.json);
    auto r = TeskOptelHealth::row(home.path(), kNow);
    EXPECT_EQ(r.verdict, c.verdict);
    if (!c.detail.empty()) {
      EXPECT_EQ(r.detail, c.detail);
    }
    EXPECT_EQ(r.openMode, "stream");
    EXPECT_EQ(r.future, 0);
    EXPECT_EQ(r.stores, 1);
  }
}

TEST(TeskOptelHealth, RowFieldsFollowTheLastEvent) {
  tesk_test::TempHome home;
  home.write(".harbend/optel/capture-status.json", status(3, 7200, R"("events_written":42)"));
  auto r = TeskOptelHealth::row(home.path(), kNow);
  EXPECT_EQ(r.count, 42);
  EXPECT_DOUBLE_EQ(r.newest, kNow - 7200);
  EXPECT_DOUBLE_EQ(r.ageHours, 2.0);
  EXPECT_EQ(r.verdict, Verdict::stale);

  tesk_test::TempHome none;
  none.write(".harbend/optel/capture-status.json", R"({"written_at":")" + at(3) + R"("})");
  auto n = TeskOptelHealth::row(none.path(), kNow);
  EXPECT_EQ(n.newest, 0);
  EXPECT_TRUE(std::isinf(n.ageHours));
}

}  // namespace
