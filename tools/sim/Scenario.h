#pragma once
// A scenario: the sensors, their sync groups, the frames to run and what happens at which
// frame. Loaded from JSON and checked completely before a run starts; planFrames() turns it
// into the request the client builds for each frame.
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "History.h"

namespace orvcam {
namespace sim {

// How long a simulated job takes, in microseconds.
struct DurationModel {
  enum class Kind { Fixed, Uniform, Normal, Exponential };
  Kind kind = Kind::Uniform;
  double a = 200;   // fixed: the value; uniform: min; normal, exponential: mean
  double b = 1200;  // uniform: max; normal: standard deviation
  Nanos sample(std::mt19937_64& rng) const;
};

struct SensorSetup {
  uint32_t id = 0;
  bool streaming = true;  // streams from the first frame; otherwise joins by a raw switch
  bool hasOwnDuration = false;
  DurationModel jobDuration;
};

struct SyncGroupSetup {
  std::vector<uint32_t> sensors;
  uint32_t fromFrame = 0;
  uint32_t toFrame = 0;
};

struct ConfigureSetup {
  uint32_t frame = 0;
  std::vector<uint32_t> sensors;  // empty: every sensor of the frame
  bool viaJob = true;             // false: setConfigured
};

struct RawSwitchSetup {
  uint32_t frame = 0;
  uint32_t off = 0;
  uint32_t on = 0;
};

struct PlannedEvent {
  EventKind kind = EventKind::ResumeDone;
  uint32_t frame = 0;
  uint32_t sensor = 0;
  uint32_t value = 0;
};

struct Scenario {
  std::string name;
  std::string source;  // file path, or "<built-in default>"
  std::string description;
  uint32_t firstFrame = 1;
  uint32_t frames = 0;
  uint32_t frameIntervalUs = 1000;
  uint32_t maxInFlight = 6;
  uint64_t seed = 1;
  DurationModel jobDuration;
  std::vector<SensorSetup> sensors;
  std::vector<SyncGroupSetup> syncGroups;
  std::vector<ConfigureSetup> configure;
  std::vector<RawSwitchSetup> rawSwitches;
  std::vector<PlannedEvent> events;

  uint32_t lastFrame() const { return firstFrame + frames - 1; }
  const SensorSetup* sensor(uint32_t id) const;
};

// Where a scenario is wrong: the file, the field (a JSON path such as "events[2].type") and
// what is wrong with it.
struct ScenarioError {
  std::string file;
  std::string field;
  std::string message;
  std::string text() const;
};

// Parses and validates. On failure returns false and fills `error`.
bool parseScenario(const std::string& text, const std::string& source, Scenario* out,
                   ScenarioError* error);
bool loadScenarioFile(const std::string& path, Scenario* out, ScenarioError* error);
// The scenario used when no file is given (scenarios/default.json, compiled in).
bool loadDefaultScenario(Scenario* out, ScenarioError* error);
const char* defaultScenarioText();

// The request of every frame, ascending. Only for a validated scenario.
std::vector<FramePlan> planFrames(const Scenario& scenario);

}  // namespace sim
}  // namespace orvcam
