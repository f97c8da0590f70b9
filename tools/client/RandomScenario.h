#pragma once
// Random but legal scenarios, from a seed, and the smaller variants of a scenario that
// shrinking tries.
#include <cstdint>
#include <string>
#include <vector>

#include "client/Scenario.h"

namespace orvcam {
namespace client {

struct RandomLimits {
  uint32_t maxSensors = 6;  // 1 to 6
};

// The `index`-th scenario of the batch seeded with `seed`: the same pair always gives the same
// scenario, durations included. It has passed parseScenario.
Scenario randomScenario(uint64_t seed, uint64_t index, const RandomLimits& limits);

// Scenarios one step simpler than `s` (fewer frames, sensors, events, groups, simpler
// durations), each of them valid; the most aggressive first.
std::vector<Scenario> shrinkCandidates(const Scenario& s);

}  // namespace client
}  // namespace orvcam
