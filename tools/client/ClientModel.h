#pragma once
// The client's bookkeeping that the simulator's runner (Runner.cpp) and the schedule explorer's
// client (tools/explore/Client.cpp) share: the plan of a scenario's frames and events, what has
// happened to each frame so far, and the client protocol's rules for when a sensor may send and
// when the pipeline may emplace. The two drive the same protocol with different threads and
// waits (real time and a mutex there, one scheduled thread at a time here), so only the state
// and its rules are shared. Nothing here locks: the runner guards a ClientState with its mutex.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "FrameContext.h"
#include "client/Scenario.h"

namespace orvcam {
namespace client {

using history::FramePlan;

constexpr size_t kNoGate = SIZE_MAX;

// What the scenario asks for, fixed before the client's threads start.
struct ClientPlan {
  explicit ClientPlan(const Scenario& scenario);

  // A flush, or an in-flight report with value 0, reported at a quiet barrier.
  static bool gated(const PlannedEvent& e);
  bool hasGatedEvent(size_t idx) const;
  bool hasWhileRunningEvent(size_t idx) const;
  // The sensor's planned drop of the frame, if any.
  const EventTiming* dropFor(uint32_t sensor, uint32_t frame) const;

  bool earlySends;
  std::vector<FramePlan> plans;
  std::map<std::pair<uint32_t, uint32_t>, EventTiming> dropsPlanned;  // (sensor, frame)
  std::vector<const PlannedEvent*> drops;                             // in the scenario's order
  std::map<size_t, std::vector<const PlannedEvent*>> eventsAt;        // all but drops; by index
  std::set<std::pair<uint32_t, uint32_t>> noFrameAfter;               // (sensor, frame)
};

// The record the pipeline emplaces for a planned frame. Inline: it calls the library, which the
// runner and the explorer link and this header's own library does not.
inline std::shared_ptr<const NSCam::camsys::camcoordinator::FrameContext> makeFrameContext(
    const FramePlan& p) {
  using NSCam::camsys::camcoordinator::FrameContext;
  std::unordered_map<uint32_t, FrameContext::SensorState> states;
  for (uint32_t s : p.sensors) {
    FrameContext::SensorState st;
    st.sensorCode = s;
    st.needEnq = true;
    st.needCfg = p.needCfg.count(s) > 0;
    st.streamingState = int64_t(s) == p.offSensor ? 1 : int64_t(s) == p.onSensor ? 0 : -1;
    states[s] = st;
  }
  std::set<uint32_t> all(p.sensors.begin(), p.sensors.end());
  return std::make_shared<const FrameContext>(p.frame, p.syncList, all, std::move(states),
                                              p.isRawSwitch());
}

// What has happened so far, as the client sees it. Indices are those of ClientPlan::plans.
struct ClientState {
  struct FrameState {
    std::shared_ptr<const NSCam::camsys::camcoordinator::FrameContext> fc;
    bool emplaced = false;
    bool flushed = false;
    bool firstPrepareStarted = false;   // a sensor has been chosen to prepare it first
    bool firstPrepareDone = false;      // and that call has returned
    bool syncBroken = false;            // named by an in-flight report with value 0
    std::set<uint32_t> racing;          // sensors with a racing drop in this frame
    std::set<uint32_t> racingSent;      // of those: issued the enqueue send
    std::set<uint32_t> racingReturned;  // of those: the send returned
    std::set<uint32_t> prepared;        // prepare() returned
    std::set<uint32_t> done;            // enqueued, dropped or flushed, as the client sees it
    std::set<uint32_t> dropReported;
  };

  explicit ClientState(const ClientPlan& plan);

  bool complete(size_t idx) const;
  bool fullyPrepared(size_t idx) const;
  // A frame may be emplaced once the frame the preparation window's length before it is
  // prepared by all of its sensors; with first preparations in frame order, no frame can then
  // drop out of the deliverer's window of recently prepared frames while a sensor still has to
  // prepare it.
  bool mayEmplace(size_t idx) const;
  // Whether the sensor may send frame `idx` now: it prepared it itself; the pipeline does not
  // hold the frame; the other sensors prepared it (with early sends: on a raw-switch frame, the
  // off sensor did); a racing drop of another sensor of the frame has been reported.
  bool maySend(uint32_t sensor, size_t idx) const;
  // Notes the sensor done with the frame; true when that retired the frame.
  bool markDone(uint32_t sensor, size_t idx);
  // Frames an in-flight report of `sensor` names: in flight, holding the sensor in their sync
  // list, not yet broken.
  std::vector<size_t> syncFrames(uint32_t sensor) const;
  // Whether a drop is due: one a sensor asked for, a racing drop whose send has been issued, a
  // late drop whose frame has finished.
  bool dropsDue() const;
  // The due drops, each taken out of its list as it is reported: those the sensors asked for,
  // racing drops whose send has been issued (a flushed frame's are let go), late drops whose
  // frame has finished. Each is (sensor, frame index); empty when none is due.
  std::optional<std::pair<uint32_t, size_t>> takeRequestedDrop();
  std::optional<std::pair<uint32_t, size_t>> takeRacingDrop();
  std::optional<std::pair<uint32_t, size_t>> takeLateDrop();
  // The due drops of one round, in that order: requested ones, then racing ones, then late
  // ones; `*round` (Requested to begin with) keeps where the round has got to. Each is taken
  // out of its list as it is returned, to be reported.
  enum class DropRound { Requested, Racing, Late };
  struct DueDrop {
    uint32_t sensor;
    size_t idx;
    bool late;
  };
  std::optional<DueDrop> nextDueDrop(DropRound* round);
  // The next first preparation comes after the frames whose first preparation has returned.
  void firstPrepareReturned(size_t idx);

  // ---- a barrier of held events (a flush, an in-flight report with value 0) at plan index
  // `idx`: every send from `idx` on is held (gate), the frames before it finish, the frames
  // [idx, end) are emplaced and prepared by every sensor, then the events are reported with no
  // thread inside the deliverer.
  // Every frame before `idx` is complete.
  bool completeBefore(size_t idx) const;
  // Whether frame `end` may be emplaced behind the barrier too: there is room for it, it is no
  // other barrier nor a while-running event's frame (an in-flight report while sends go on
  // may wait for frames this barrier holds), and it needs no configure licence in a frame of
  // a sensor that reports in flight here (a configure licence must not meet a frame-descriptor
  // change).
  bool mayEmplaceBehind(size_t idx, size_t end, uint32_t maxInFlight) const;
  // Every sensor prepared every frame of [idx, end).
  bool preparedAll(size_t idx, size_t end) const;
  // One report a held event makes: what the client tells the deliverer, with the pending
  // frames it names.
  struct HeldReport {
    EventKind kind;
    uint32_t sensor;
    uint32_t value;
    std::vector<uint32_t> frames;
  };
  // The reports of held event `ev` over [idx, end), in order. An in-flight report is one, and
  // breaks the sync of the frames that hold its sensor; a flush is reported for every sensor,
  // the named one first (the deliverer's flush() hands back every sensor's queued licences, so
  // every sensor's frames are flushed in the guard too), then as the queue's flush.
  std::vector<HeldReport> heldReports(const PlannedEvent& ev, size_t idx, size_t end,
                                      const std::vector<SensorSetup>& sensors);
  // After a flush's reports: the frames of [idx, end) not yet complete are flushed and leave
  // the pipeline. Returns their indices.
  std::vector<size_t> flushHeld(size_t idx, size_t end);

  const ClientPlan* plan;
  std::vector<FrameState> frames;
  size_t gate = kNoGate;  // sends of frame indices from here on are held
  size_t inFlight = 0;
  uint32_t framesDone = 0;
  size_t nextFirstPrepare = 0;  // the frame whose first preparation comes next
  bool firstPrepareBusy = false;
  std::deque<std::pair<uint32_t, size_t>> dropRequests;  // (sensor, frame index)
  std::vector<std::pair<uint32_t, size_t>> racingDrops;  // not yet reported
  std::vector<std::pair<uint32_t, size_t>> lateDrops;    // not yet reported
};

}  // namespace client
}  // namespace orvcam
