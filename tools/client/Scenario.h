#pragma once
// A scenario: the sensors, their sync groups, the frames to run and what happens at which
// frame. Loaded from JSON and checked completely before a run starts; planFrames() turns it
// into the request the client builds for each frame.
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "history/History.h"

namespace orvcam {
namespace client {

using history::EventKind;
using history::FramePlan;
using history::History;
using history::Nanos;

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

// When, in the client's call order, an event is reported.
enum class EventTiming {
  Usual,            // a drop replaces the sensor's enqueue; a flush or an in-flight report with
                    // value 0 is reported at a quiet barrier; anything else when the frame arrives
  BeforeConfigure,  // Drop: after the sensor prepared the frame, before its configure step
  Racing,           // Drop: as soon as the sensor has issued its enqueue send
  Late,             // Drop: after the whole frame has finished
  WhileRunning,     // InformInflight with value 0: when the frame arrives, with jobs running
};

struct PlannedEvent {
  EventKind kind = EventKind::ResumeDone;
  uint32_t frame = 0;
  uint32_t sensor = 0;
  uint32_t value = 0;
  EventTiming when = EventTiming::Usual;
};

// A sensor streaming at `frame` that does not take part in it.
struct SkipSetup {
  uint32_t sensor = 0;
  uint32_t frame = 0;
};

// An enqueue send for the no-frame number 0xFFFFFFFF, made by `sensor` right after its own
// frame `after`.
struct NoFrameSendSetup {
  uint32_t sensor = 0;
  uint32_t after = 0;
};

// The most frames a scenario keeps in flight: one fewer than the pool's limit, at which
// emplacing a record ends the process.
constexpr uint32_t kMaxInFlight = uint32_t(NSCam::camsys::camcoordinator::kPreparationWindow) - 1;

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
  std::vector<SkipSetup> skips;
  std::vector<NoFrameSendSetup> noFrameSends;
  // Frame numbers between the first and the last frame that the pipeline never uses: no record,
  // no preparation, no send; nothing may refer to them.
  std::vector<uint32_t> gaps;
  // A sensor sends as soon as it has prepared a frame itself, without waiting for the other
  // sensors of the frame to prepare it (on a raw-switch frame it still waits for the off
  // sensor's preparation, which the raw-switch rule relies on).
  bool earlySends = false;

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
// The scenario as JSON that parseScenario reads back to the same scenario.
std::string scenarioToJson(const Scenario& scenario);

// The request of every frame, ascending, gaps left out. Only for a validated scenario.
std::vector<FramePlan> planFrames(const Scenario& scenario);
// The position of `frame` in planFrames()'s result, or SIZE_MAX for a gap or a frame outside.
size_t planIndex(const std::vector<FramePlan>& plans, uint32_t frame);

}  // namespace client
}  // namespace orvcam
