#pragma once
// The client the explorer runs under its scheduler: the simulator's client model
// (docs/integrating.md's client protocol) without time. One pipeline thread emplaces frames and
// reports events; one request thread per sensor prepares its frames and sends their jobs, which
// take no time. The client's own coordination is made of scheduler waits (Scheduler::waitUntil),
// not of locks: with one thread running at a time its state needs none, and each wait is one
// scheduling point instead of a lock, a check and a notification.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/Scenario.h"
#include "explore/Scheduler.h"
#include "history/History.h"

namespace orvcam {
namespace explore {

using client::Scenario;
using history::History;

// What makes no sense without time, or is not played: job durations, the frame interval,
// gaps. Empty when the scenario can be explored, else why not.
std::string unsupportedFeature(const client::Scenario& scenario);

class ClientRun {
 public:
  // With `memoryState`, runs under the scheduler take the library's memory as their state
  // where the instrumented library is linked (Scheduler::setMemoryState).
  explicit ClientRun(const client::Scenario& scenario, bool memoryState = true);
  ~ClientRun();
  ClientRun(const ClientRun&) = delete;
  ClientRun& operator=(const ClientRun&) = delete;

  // "pipeline", "sensor N", ...
  std::vector<std::string> threadNames() const;
  // Builds a fresh deliverer, pool and pipe-manager state; unmanaged thread, before the run.
  std::vector<std::function<void()>> begin();
  // After a completed run: tears the deliverer down and returns the history to judge.
  // Before that it compares the deliverer's own state with the client's account of the run
  // (each sensor's next order stamp; the sync of frames an in-flight report named), which
  // the history cannot show; what differs is in endFindings() until the next begin().
  // Needs the logger to write warnings (detail level 2 or more): the library's "FC not
  // found" and "already finished" warnings say which drops found nothing to drop.
  history::History end();
  const std::vector<std::string>& endFindings() const;
  // One run on real threads without the scheduler, for comparison; unmanaged thread only.
  history::History runPlain();

  struct Impl;

 private:
  std::unique_ptr<Impl> mImpl;
  bool mMemoryState;
};

}  // namespace explore
}  // namespace orvcam
