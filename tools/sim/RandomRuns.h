#pragma once
// camdeliver-sim --random: generated scenarios, each run in a child process so that a library
// abort or a stall ends only that child, then checked; failures are kept and shrunk.
#include <cstdint>
#include <string>

namespace orvcam {
namespace sim {

struct RandomRunOptions {
  uint64_t count = 0;
  uint64_t seed = 1;
  uint32_t maxSensors = 6;
  std::string keepDir;  // where failing scenarios go; empty: not kept
  int stallSeconds = 10;
};

// Prints the counts by outcome; returns the exit code (0 when every scenario passed).
int runRandomScenarios(const RandomRunOptions& options);

}  // namespace sim
}  // namespace orvcam
