#pragma once
// Plays the camera coordinator around the deliverer: a pipeline thread that builds and emplaces
// each frame's record and reports events, and one request thread per sensor that prepares its
// frames and sends their configure and enqueue jobs. Everything it sees goes into a History.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/Scenario.h"
#include "history/History.h"

namespace orvcam {
namespace sim {

using client::Scenario;
using history::History;

struct RunProgress {
  uint32_t framesTotal = 0;
  uint32_t framesEmplaced = 0;
  uint32_t framesDone = 0;
  uint64_t jobsRun = 0;
};

struct RunOptions {
  uint64_t seed = 1;
  // Add the simulator's own sections and instants to an open trace file.
  bool trace = false;
  // No call returning and no frame moving for this long means the run is stuck.
  std::chrono::milliseconds stallTimeout{10000};
  // Called from the thread that runs run(), about every 100 ms.
  std::function<void(const RunProgress&)> onProgress;
};

// An enqueue that waited for its previous synchronised frame and the partner's enqueue job
// whose end released it: the last of that frame's partners to be enqueued, having ended while
// the send waited. Indices into History::jobs.
struct Release {
  size_t releaser = 0;
  size_t released = 0;
};
std::vector<Release> releasedWaits(const History& history);

class Runner {
 public:
  Runner(const Scenario& scenario, RunOptions options);
  ~Runner();
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  // Runs the scenario to its end; called once, from one thread, and blocks until every client
  // thread has finished. Returns false when the run stalled: `stallReport` then says where
  // each thread is. The stuck threads are left blocked where they are; they keep the run's
  // state (scenario copy, deliverer, pool) alive by themselves, so the Runner may be destroyed
  // and the caller may go on (a test fails, the program exits).
  bool run(History* history, std::string* stallReport);

  // After a stalled run: waits up to `timeout` for the client threads to end by themselves
  // (a run that was only slow). True when none is left. Any thread.
  bool awaitThreads(std::chrono::milliseconds timeout);

  struct Impl;

 private:
  std::shared_ptr<Impl> mImpl;
};

}  // namespace sim
}  // namespace orvcam
