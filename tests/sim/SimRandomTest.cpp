// Generated scenarios: the same seed gives the same scenarios, every one of them is valid, a
// batch exercises the free call orders, and shrinking only offers valid, simpler scenarios.
#include <gtest/gtest.h>

#include <set>

#include "check/Checker.h"
#include "client/RandomScenario.h"
#include "sim/Runner.h"

namespace orvcam {
namespace sim {
namespace {

using namespace client;
using check::checkHistory;
using check::CheckResult;

TEST(SimRandom, SameSeedSameScenariosAndEveryOneValid) {
  RandomLimits limits;
  std::set<std::string> distinct;
  size_t racing = 0, late = 0, beforeCfg = 0, whileRunning = 0, noFrame = 0, skips = 0, early = 0,
         raw = 0;
  for (uint64_t i = 0; i < 300; ++i) {
    Scenario a = randomScenario(7, i, limits);
    Scenario b = randomScenario(7, i, limits);
    std::string text = scenarioToJson(a);
    ASSERT_EQ(text, scenarioToJson(b)) << "scenario " << i;
    Scenario reread;
    ScenarioError error;
    ASSERT_TRUE(parseScenario(text, "generated", &reread, &error)) << error.text();
    EXPECT_EQ(scenarioToJson(reread), text);
    EXPECT_GE(a.sensors.size(), 1u);
    EXPECT_LE(a.sensors.size(), 6u);
    distinct.insert(text);
    for (const auto& e : a.events) {
      racing += e.when == EventTiming::Racing;
      late += e.when == EventTiming::Late;
      beforeCfg += e.when == EventTiming::BeforeConfigure;
      whileRunning += e.when == EventTiming::WhileRunning;
    }
    noFrame += a.noFrameSends.size();
    skips += a.skips.size();
    early += a.earlySends;
    raw += a.rawSwitches.size();
  }
  EXPECT_EQ(distinct.size(), 300u);
  EXPECT_NE(scenarioToJson(randomScenario(8, 0, limits)),
            scenarioToJson(randomScenario(7, 0, limits)));
  for (size_t n : {racing, late, beforeCfg, whileRunning, noFrame, skips, early, raw}) {
    EXPECT_GT(n, 10u);
  }
  limits.maxSensors = 2;
  for (uint64_t i = 0; i < 50; ++i) EXPECT_LE(randomScenario(7, i, limits).sensors.size(), 2u);
}

TEST(SimRandom, ShrinkCandidatesAreValidAndSmaller) {
  Scenario s = randomScenario(3, 11, RandomLimits());
  for (uint64_t i = 12; s.events.size() < 2 || s.frames < 4; ++i) {
    s = randomScenario(3, i, RandomLimits());
  }
  std::vector<Scenario> candidates = shrinkCandidates(s);
  ASSERT_FALSE(candidates.empty());
  for (const Scenario& c : candidates) {
    Scenario reread;
    ScenarioError error;
    ASSERT_TRUE(parseScenario(scenarioToJson(c), "candidate", &reread, &error)) << error.text();
    size_t before = s.frames + s.sensors.size() + s.events.size() + s.syncGroups.size() +
                    s.rawSwitches.size() + s.configure.size() + s.skips.size() +
                    s.noFrameSends.size();
    size_t after = c.frames + c.sensors.size() + c.events.size() + c.syncGroups.size() +
                   c.rawSwitches.size() + c.configure.size() + c.skips.size() +
                   c.noFrameSends.size();
    bool simpler = after < before || (s.earlySends && !c.earlySends) ||
                   c.frameIntervalUs < s.frameIntervalUs || c.firstFrame != s.firstFrame ||
                   c.jobDuration.kind != s.jobDuration.kind || c.jobDuration.a != s.jobDuration.a;
    EXPECT_TRUE(simpler || after <= before) << scenarioToJson(c);
    EXPECT_LE(after, before);
  }
}

// A few generated scenarios run in-process against the library and come out clean, with no
// note against the simulator's own client.
TEST(SimRandom, GeneratedScenariosRunClean) {
  for (uint64_t i = 0; i < 20; ++i) {
    Scenario s = randomScenario(5, i, RandomLimits());
    RunOptions options;
    options.seed = s.seed;
    options.stallTimeout = std::chrono::seconds(20);
    Runner runner(s, options);
    History history;
    std::string stall;
    ASSERT_TRUE(runner.run(&history, &stall)) << scenarioToJson(s) << "\n" << stall;
    CheckResult check = checkHistory(history);
    for (const auto& v : check.violations) ADD_FAILURE() << i << " " << v.rule << ": " << v.message;
    for (const auto& n : check.notes) ADD_FAILURE() << i << " client: " << n.message;
  }
}

}  // namespace
}  // namespace sim
}  // namespace orvcam
