#pragma once
// The run's summary: one row per sensor, the violations the checker found and a one-line
// verdict.
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "check/Checker.h"
#include "history/History.h"

namespace orvcam {
namespace report {

using check::CheckResult;
using history::History;
using history::Nanos;

struct SensorSummary {
  std::string label;  // "S:0", or "shared" for licences no single sensor used or gave back
  uint64_t prepared = 0;
  uint64_t configured = 0;  // configure jobs run and setConfigured calls
  uint64_t enqueued = 0;    // enqueue jobs run
  uint64_t dropped = 0;
  uint64_t flushed = 0;
  // Time from a send call to its job starting.
  Nanos waitP50 = 0;
  Nanos waitP99 = 0;
  Nanos waitMax = 0;
  uint64_t waits = 0;
  // A licence belongs to the sensor whose job used it, else to the sensor whose setConfigured
  // or drop handed it back, else to "shared" (frame leaders, flushes, FD changes).
  uint64_t licAcquired = 0;
  uint64_t licReleased = 0;
  uint64_t licLeaked = 0;  // never handed back, or destroyed without being handed back
};

// Rows per sensor, then "shared", then "total".
std::vector<SensorSummary> summarize(const History& history);

void printReport(std::ostream& out, const History& history, const CheckResult& check,
                 size_t maxViolations = 50);
std::string verdictLine(const CheckResult& check);

}  // namespace report
}  // namespace orvcam
