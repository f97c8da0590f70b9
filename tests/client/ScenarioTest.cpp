// Scenario files: what a wrong file is told, and the request each frame turns into.
#include <gtest/gtest.h>

#include <dirent.h>

#include "client/Scenario.h"

namespace orvcam {
namespace client {

using namespace history;
namespace {

std::string refusal(const std::string& text) {
  Scenario s;
  ScenarioError e;
  EXPECT_FALSE(parseScenario(text, "x.json", &s, &e));
  return e.text();
}

TEST(SimScenario, RefusalNamesTheFileTheFieldAndTheProblem) {
  const std::string base = R"("frames": 10, "sensors": [{"id": 0}, {"id": 1}])";
  EXPECT_EQ(refusal("{" + base + R"(, "framez": 3})"),
            "x.json: field \"framez\": unknown field (expected one of: description, frames, "
            "firstFrame, frameIntervalUs, maxInFlight, seed, jobDuration, sensors, syncGroups, "
            "configure, rawSwitches, events, skips, noFrameSends, earlySends, gaps)");
  EXPECT_EQ(refusal("{" + base + R"(, "maxInFlight": 20})"),
            "x.json: field \"maxInFlight\": is 20, must be between 1 and 19");
  EXPECT_EQ(refusal("{" + base + R"(, "syncGroups": [{"sensors": [0]}]})"),
            "x.json: field \"syncGroups[0].sensors\": needs at least 2 sensors");
  EXPECT_EQ(refusal("{" + base + R"(, "events": [{"frame": 11, "type": "Drop", "sensor": 0}]})"),
            "x.json: field \"events[0].frame\": is 11, must be between 1 and 10");
  EXPECT_EQ(refusal("{" + base + R"(, "rawSwitches": [{"frame": 4, "off": 1, "on": 0},
                                                       {"frame": 6, "off": 1, "on": 0}]})"),
            "x.json: field \"rawSwitches[1].off\": sensor 1 is not streaming at frame 6");
  EXPECT_EQ(refusal("{" + base + R"(, "syncGroups": [{"sensors": [0, 1]}],
                                     "configure": [{"frame": 5}],
                                     "events": [{"frame": 5, "type": "InformInflight",
                                                 "sensor": 1, "value": 0}]})"),
            "x.json: field \"events[0].frame\": InformInflight with value 0 at frame 5, which "
            "configures sensors while sensor 1 is in its sync list; frame descriptors can only "
            "change on frames without configuration");
  EXPECT_EQ(refusal(R"({"frames": 10, "sensors": [{"id": 0, "streaming": false}]})"),
            "x.json: field \"sensors\": no sensor streams from the first frame (every sensor "
            "has \"streaming\": false)");
  EXPECT_EQ(refusal("{" + base + R"(, "jobDuration": {"distribution": "uniform", "minUs": 9,
                                                        "maxUs": 3}})"),
            "x.json: field \"jobDuration.maxUs\": is below minUs");
  EXPECT_NE(refusal("{\"frames\": 10,}").find("x.json: not valid JSON: "), std::string::npos);
}

// The free call orders are refused where the client could not keep the protocol.
TEST(SimScenario, FreeCallOrdersAreRefusedWhereTheyCannotBeKept) {
  const std::string base = R"("frames": 10, "sensors": [{"id": 0}, {"id": 1}])";
  EXPECT_EQ(refusal("{" + base + R"(, "gaps": [4], "events": [{"frame": 4, "type": "Flush",
                                                                 "sensor": 0}]})"),
            "x.json: field \"events[0].frame\": frame 4 is a gap");
  EXPECT_EQ(refusal("{" + base + R"(, "skips": [{"sensor": 0, "frame": 3},
                                                  {"sensor": 1, "frame": 3}]})"),
            "x.json: field \"skips[1]\": frame 3 would have no sensor left");
  EXPECT_EQ(refusal("{" + base + R"(, "events": [{"frame": 3, "type": "Drop", "sensor": 0,
      "when": "racing"}, {"frame": 3, "type": "Drop", "sensor": 1}]})"),
            "x.json: field \"events[0].when\": a racing drop needs another sensor in frame 3 "
            "that keeps the frame in the pool until the drop is reported");
  EXPECT_EQ(refusal("{" + base + R"(, "events": [{"frame": 3, "type": "Flush", "sensor": 0,
      "when": "racing"}]})"),
            "x.json: field \"events[0].when\": is \"racing\"; a Drop takes usual, "
            "beforeConfigure, racing or late, an InformInflight with value 0 takes usual or "
            "whileRunning, other events only usual");
  EXPECT_EQ(refusal(R"({"frames": 10, "sensors": [{"id": 0}, {"id": 1, "streaming": false}],
      "rawSwitches": [{"frame": 5, "off": 0, "on": 1}], "skips": [{"sensor": 1, "frame": 5}]})"),
            "x.json: field \"skips[0]\": sensor 1 switches at frame 5 and must take part in it");

  Scenario s;
  ScenarioError e;
  ASSERT_TRUE(parseScenario("{" + base + R"(, "gaps": [2, 3], "skips": [{"sensor": 1,
      "frame": 5}], "noFrameSends": [{"sensor": 0, "after": 4}], "earlySends": true})",
                            "x.json", &s, &e))
      << e.text();
  std::vector<FramePlan> plans = planFrames(s);
  ASSERT_EQ(plans.size(), 8u);
  EXPECT_EQ(plans[1].frame, 4u);
  EXPECT_EQ(planIndex(plans, 5), 2u);
  EXPECT_EQ(planIndex(plans, 3), SIZE_MAX);
  EXPECT_EQ(plans[2].sensors, (std::vector<uint32_t>{0}));
  Scenario again;
  ASSERT_TRUE(parseScenario(scenarioToJson(s), "again.json", &again, &e)) << e.text();
  EXPECT_EQ(scenarioToJson(again), scenarioToJson(s));
}

TEST(SimScenario, FramesFollowSyncGroupsRawSwitchesAndConfiguration) {
  Scenario s;
  ScenarioError e;
  ASSERT_TRUE(parseScenario(R"({"frames": 6, "firstFrame": 10,
      "sensors": [{"id": 0}, {"id": 1}, {"id": 2, "streaming": false}],
      "syncGroups": [{"sensors": [0, 1], "toFrame": 13}, {"sensors": [1, 2]}],
      "configure": [{"frame": 12, "sensors": [2]}, {"frames": [14], "via": "setConfigured"}],
      "rawSwitches": [{"frame": 12, "off": 0, "on": 2}]})",
                            "x.json", &s, &e))
      << e.text();
  std::vector<FramePlan> plans = planFrames(s);
  ASSERT_EQ(plans.size(), 6u);
  EXPECT_EQ(plans[0].frame, 10u);
  EXPECT_EQ(plans[0].sensors, (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(plans[0].syncList, (std::set<uint32_t>{0, 1}));
  // The raw-switch frame: the off sensor's last frame and the on sensor's first; the two
  // groups active on one frame make one sync list.
  const FramePlan& raw = plans[2];
  EXPECT_EQ(raw.sensors, (std::vector<uint32_t>{0, 1, 2}));
  EXPECT_EQ(raw.offSensor, 0);
  EXPECT_EQ(raw.onSensor, 2);
  EXPECT_EQ(raw.syncList, (std::set<uint32_t>{0, 1, 2}));
  EXPECT_EQ(raw.needCfg, (std::set<uint32_t>{2}));
  EXPECT_EQ(raw.cfgByJob, (std::set<uint32_t>{2}));
  // After it: sensor 0 is off, and group {0, 1} has a single member left, so it is not listed.
  EXPECT_EQ(plans[3].sensors, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(plans[3].syncList, (std::set<uint32_t>{1, 2}));
  EXPECT_FALSE(plans[3].isRawSwitch());
  EXPECT_EQ(plans[4].needCfg, (std::set<uint32_t>{1, 2}));
  EXPECT_TRUE(plans[4].cfgByJob.empty());
}

TEST(SimScenario, DefaultAndShippedScenariosLoad) {
  Scenario s;
  ScenarioError e;
  ASSERT_TRUE(loadDefaultScenario(&s, &e)) << e.text();
  EXPECT_EQ(s.source, "<built-in default>");
  int loaded = 0;
  DIR* dir = opendir(ORVCAM_SCENARIO_DIR);
  ASSERT_NE(dir, nullptr);
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name.size() < 5 || name.substr(name.size() - 5) != ".json") continue;
    EXPECT_TRUE(loadScenarioFile(std::string(ORVCAM_SCENARIO_DIR) + "/" + name, &s, &e))
        << e.text();
    EXPECT_FALSE(s.description.empty()) << name << " has no description";
    ++loaded;
  }
  closedir(dir);
  EXPECT_GE(loaded, 4);
}

}  // namespace
}  // namespace client
}  // namespace orvcam
