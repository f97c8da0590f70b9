#pragma once
// The ordering checker. It reads a recorded run (History.h) and nothing else, and lists every
// place where the observed order, frame descriptors or licence handling break the rules a
// client relies on.
#include <string>
#include <vector>

#include "History.h"

namespace orvcam {
namespace sim {

struct Violation {
  // One of: order, sync, raw-switch, fd, licence, pool, delivery.
  std::string rule;
  std::string message;
  Nanos at = 0;  // when it happened, for sorting
};

struct CheckResult {
  std::vector<Violation> violations;  // by time
  size_t jobsChecked = 0;
  size_t licencesChecked = 0;
  bool clean() const { return violations.empty(); }
};

CheckResult checkHistory(const History& history);

// "12.345 ms"
std::string formatTime(Nanos at);

}  // namespace sim
}  // namespace orvcam
