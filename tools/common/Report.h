#pragma once
// The run's summary: one row per sensor, the violations the checker found and a one-line
// verdict.
#include <cstdint>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

#include "Checker.h"
#include "History.h"
#include "OrderedWorker.h"

namespace orvcam {
namespace sim {

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

// The whole recorded run as JSON, for a closer look or to keep with a bug report.
void writeHistoryJson(std::ostream& out, const History& history);

// The same JSON written as the history is made, for histories that do not fit in memory: each
// part's list items go to a file of their own named after `prefix` (prefix.jobs.part, ...),
// and finish() writes the file: the scalars, then every list. The part files are removed
// when the stream is destroyed.
//
// Threads: add() and finish() are called by one thread. With a worker, add() hands it a copy
// of the part and the worker writes it, in order; finish() drains the worker first, and the
// files are the worker's alone until then.
class HistoryJsonStream {
 public:
  explicit HistoryJsonStream(std::string prefix, OrderedWorker* worker = nullptr);
  ~HistoryJsonStream();
  HistoryJsonStream(const HistoryJsonStream&) = delete;
  HistoryJsonStream& operator=(const HistoryJsonStream&) = delete;
  void add(History part);
  // `scalars`: the history whose scalars (scenario, sensors, times, account) head the file;
  // its lists are not written. False when a file could not be written or read.
  bool finish(const History& scalars, const std::string& path);

 private:
  static constexpr size_t kLists = 6;
  std::string partPath(size_t list) const;
  void write(const History& part);
  std::string prefix_;
  OrderedWorker* worker_;
  std::ofstream files_[kLists];
  uint64_t counts_[kLists] = {};
  bool ok_ = true;
};

}  // namespace sim
}  // namespace orvcam
