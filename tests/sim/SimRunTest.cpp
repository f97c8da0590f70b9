// The default scenario run in-process against the library: it must finish clean, leave the
// pipe manager balanced, and write a trace with begin and end sections on each sensor thread.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "HostPlatform.h"
#include "check/Checker.h"
#include "client/Scenario.h"
#include "sim/Runner.h"

namespace orvcam {
namespace sim {

using namespace client;
using namespace check;
namespace {

TEST(SimRun, DefaultScenarioRunsCleanAndTracesEachSensorThread) {
  Scenario scenario;
  ScenarioError error;
  ASSERT_TRUE(loadDefaultScenario(&scenario, &error)) << error.text();
  std::string tracePath = ::testing::TempDir() + "sim_run_test_trace.json";
  std::string traceError;
  ASSERT_TRUE(host::openTraceFile(tracePath, &traceError)) << traceError;
  host::setTraceTags(0x400);

  RunOptions options;
  options.seed = scenario.seed;
  options.trace = true;
  options.stallTimeout = std::chrono::seconds(30);
  Runner runner(scenario, options);
  History history;
  std::string stall;
  ASSERT_TRUE(runner.run(&history, &stall)) << stall;
  host::setTraceTags(0);
  host::closeTraceFile();

  CheckResult check = checkHistory(history);
  for (const auto& v : check.violations) ADD_FAILURE() << v.rule << ": " << v.message;
  EXPECT_GT(check.jobsChecked, 100u);
  EXPECT_EQ(history.account.live(), 0u);
  EXPECT_TRUE(history.framesLeftInPool.empty());

  std::ifstream in(tracePath);
  nlohmann::json trace = nlohmann::json::parse(in);
  const nlohmann::json& events = trace.is_array() ? trace : trace["traceEvents"];
  std::map<int64_t, std::string> threadNames;
  std::map<std::string, std::map<std::string, int>> phases;  // thread name -> phase -> count
  for (const auto& e : events) {
    if (e.value("ph", "") == "M" && e.value("name", "") == "thread_name") {
      threadNames[e["tid"].get<int64_t>()] = e["args"]["name"].get<std::string>();
    }
  }
  for (const auto& e : events) {
    auto name = threadNames.find(e.value("tid", int64_t(-1)));
    if (name != threadNames.end()) ++phases[name->second][e.value("ph", "")];
  }
  for (const char* thread : {"sensor 0", "sensor 1"}) {
    EXPECT_GT(phases[thread]["B"], 50) << thread;
    EXPECT_EQ(phases[thread]["B"], phases[thread]["E"]) << thread;
  }
  EXPECT_GE(phases["pipeline"]["i"], 5);
}

// Two drops racing their sensors' own enqueues on one frame: the third sensor keeps the frame
// in the pool until both racing sends have returned, so neither send finds the frame gone.
// Timing decides which side takes each licence; every run must come out clean.
TEST(SimRun, RacingDropsNeverLeaveASendWithoutItsFrame) {
  Scenario scenario;
  ScenarioError error;
  ASSERT_TRUE(parseScenario(R"({"frames": 3, "frameIntervalUs": 0, "earlySends": true,
      "jobDuration": {"distribution": "fixed", "us": 0},
      "sensors": [{"id": 1}, {"id": 14}, {"id": 12}],
      "events": [{"frame": 1, "type": "Drop", "sensor": 14, "when": "racing"},
                 {"frame": 1, "type": "Drop", "sensor": 1, "when": "racing"},
                 {"frame": 2, "type": "Drop", "sensor": 12, "when": "racing"}]})",
                            "racing", &scenario, &error))
      << error.text();
  for (int i = 0; i < 30; ++i) {
    RunOptions options;
    options.stallTimeout = std::chrono::seconds(20);
    Runner runner(scenario, options);
    History history;
    std::string stall;
    ASSERT_TRUE(runner.run(&history, &stall)) << stall;
    CheckResult check = checkHistory(history);
    for (const auto& v : check.violations) ADD_FAILURE() << v.rule << ": " << v.message;
    EXPECT_TRUE(check.notes.empty());
  }
}

// A run that makes no progress within the stall timeout (here: jobs far longer than it) is
// reported as stalled; the test goes on, and the threads, which own the run's state, end by
// themselves without touching the returned stack frame or the Runner.
TEST(SimRun, StallIsReportedAndTheThreadsOutliveTheRunSafely) {
  Scenario scenario;
  ScenarioError error;
  ASSERT_TRUE(parseScenario(R"({"frames": 2, "frameIntervalUs": 0,
      "jobDuration": {"distribution": "fixed", "us": 300000}, "sensors": [{"id": 0}, {"id": 1}],
      "syncGroups": [{"sensors": [0, 1]}]})",
                            "slow", &scenario, &error))
      << error.text();
  RunOptions options;
  options.stallTimeout = std::chrono::milliseconds(50);
  History history;
  std::string stall;
  {
    Runner runner(scenario, options);
    ASSERT_FALSE(runner.run(&history, &stall));
    EXPECT_NE(stall.find("the run made no progress for 50 ms:"), std::string::npos) << stall;
    EXPECT_NE(stall.find("inside sendJobForEnque()"), std::string::npos) << stall;
    ASSERT_TRUE(runner.awaitThreads(std::chrono::seconds(20))) << "threads did not end";
  }
}

}  // namespace
}  // namespace sim
}  // namespace orvcam
