// Writes generated scenarios as JSON files, so that a script can run each through the
// simulator and read the simulator's log back:
//   random_scenarios SEED COUNT MAX_SENSORS DIR   ->  DIR/random-<index>.json
// and beside each DIR/random-<index>.noframe: one line "S:<sensor> <count>" per sensor with
// no-frame sends, which a log shows only when they wait.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

#include "client/RandomScenario.h"
#include "client/Scenario.h"

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr, "usage: random_scenarios SEED COUNT MAX_SENSORS DIR\n");
    return 2;
  }
  uint64_t seed = std::strtoull(argv[1], nullptr, 0);
  uint64_t count = std::strtoull(argv[2], nullptr, 0);
  orvcam::client::RandomLimits limits;
  limits.maxSensors = uint32_t(std::strtoul(argv[3], nullptr, 0));
  std::string dir = argv[4];
  for (uint64_t i = 0; i < count; ++i) {
    std::string path = dir + "/random-" + std::to_string(i) + ".json";
    orvcam::client::Scenario scenario = orvcam::client::randomScenario(seed, i, limits);
    std::ofstream out(path);
    out << orvcam::client::scenarioToJson(scenario) << "\n";
    std::map<uint32_t, int> noFrame;
    for (const auto& n : scenario.noFrameSends) ++noFrame[n.sensor];
    std::ofstream side(dir + "/random-" + std::to_string(i) + ".noframe");
    for (const auto& entry : noFrame) side << "S:" << entry.first << " " << entry.second << "\n";
    if (!out || !side) {
      std::fprintf(stderr, "random_scenarios: cannot write %s\n", path.c_str());
      return 2;
    }
  }
  return 0;
}
