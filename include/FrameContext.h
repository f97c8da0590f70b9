#pragma once
// The record of one frame as it moves through the deliverer: which sensors take part, which
// of them must be configured and enqueued, which are kept in frame sync, and how far each
// sensor has got. The client fills it in and shares it as shared_ptr<const FrameContext>;
// progress changes through const operations on mutable state under the record's own lock.
// Contracts use the words of ThreadContext.h. A record is built on any thread (usually the
// request thread of the frame's first sensor) and must not change outside `mutex` once it is
// emplaced; the library reads and marks it from the request threads and the event thread.
#include <cstdint>
#include <mutex>
#include <set>
#include <unordered_map>

#include "CamDeliver.h"
#include "CamDeliverExport.h"
#include "ThreadAnnotations.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

class ORVCAM_CAMDELIVER_API FrameContext {
 public:
  // One sensor's part of the frame: a plain value, filled in by the client before the record
  // is built; inside a record it is part of sensorStates, under the record's `mutex`.
  struct SensorState {
    // Thread: any thread, while building. Client's own; carried, not read.
    uint32_t sensorCode = 0xFF;
    // Thread: any thread, while building. 0 and 1 mark the two sides of a raw switch; 1 is
    // "off" (the sensor going off), 0 the one coming on.
    int32_t streamingState = -1;
    // Thread: any thread, while building. Client's own; carried, not read.
    int32_t sensorValue = -1;
    // Thread: any thread, while building. Client's own; carried, not read.
    bool extraFlag = false;
    // Internal: the library's progress mark (first prepare); leave false when building.
    bool isPrepared = false;
    // Thread: any thread, while building. The sensor configures this frame: by a configure
    // send or by setConfigured.
    bool needCfg = false;
    // Internal: the library's progress mark (configure job ran, setConfigured, drop, flush).
    bool isConfigured = false;
    // Thread: any thread, while building. The sensor enqueues this frame; every sensor of
    // the sync list needs it, else the first prepare aborts
    //   "[F:%d] sensorId(%d) in synclist but not in enqlist".
    bool needEnq = false;
    // Internal: the library's progress mark (enqueue job ran, drop, flush).
    bool isEnqued = false;
    // Internal: preparation order stamp of this sensor, given by the guard.
    uint64_t order = 0;
  };

  // Guards every field below that changes or is read after construction. A leaf lock:
  // nothing is called while it is held; callers may hold the pool's lock, never the reverse.
  // Thread: any thread. A client reading the guarded fields of an emplaced record holds it.
  mutable std::mutex mutex;
  // Thread: any thread. The frame number the record is emplaced under.
  const uint32_t frameNo;
  // Thread: any thread, holding `mutex`; read only. Sensors kept in frame sync in this frame:
  // none, or two or more (one aborts at prepare: "[F:%d] weird synclist count").
  std::set<uint32_t> syncList ORVCAM_GUARDED_BY(mutex);
  // Thread: any thread, holding `mutex`; read only. Sensors whose frames a flush visits.
  std::set<uint32_t> inMapList ORVCAM_GUARDED_BY(mutex);
  // Thread: any thread, holding `mutex`; clients only read it. The library marks progress.
  mutable std::unordered_map<uint32_t, SensorState> sensorStates ORVCAM_GUARDED_BY(mutex);
  // Thread: any thread. Kept for the client; the library derives raw switches itself.
  const bool isRawSwitch;
  // Internal: set by an InformInflight report (event thread) under `mutex`; a broken sync
  // lets the sensors' later frames go.
  mutable bool syncBroken ORVCAM_GUARDED_BY(mutex) = false;
  // Internal: CamDeliver::mLogLevel as it was when the record was built.
  const int32_t logLevel;

  // Thread: any thread, before the record is emplaced (reads CamDeliver::mLogLevel, see
  // there). Blocks: no. The lists are checked at the frame's first prepare, which aborts on
  // a bad one (see syncList and SensorState::needEnq).
  FrameContext(uint32_t frame, std::set<uint32_t> syncSensors, std::set<uint32_t> inMapSensors,
               std::unordered_map<uint32_t, SensorState> states, bool rawSwitch)
      : frameNo(frame),
        syncList(std::move(syncSensors)),
        inMapList(std::move(inMapSensors)),
        sensorStates(std::move(states)),
        isRawSwitch(rawSwitch),
        logLevel(CamDeliver::mLogLevel) {}

  FrameContext(const FrameContext&) = delete;
  FrameContext& operator=(const FrameContext&) = delete;

  // Thread: any thread. Blocks: no. These three take `mutex`: the sensors with needCfg, with
  // needEnq, and all of them.
  std::set<uint32_t> getNeedCfgList() const {
    return collect([](const SensorState& s) { return s.needCfg; });
  }
  // Thread: any thread. Blocks: no.
  std::set<uint32_t> getNeedEnqList() const {
    return collect([](const SensorState& s) { return s.needEnq; });
  }
  // Thread: any thread. Blocks: no.
  std::set<uint32_t> getAllList() const {
    return collect([](const SensorState&) { return true; });
  }

  // Thread: any thread. Blocks: no. Sensors that need enqueue and are not enqueued yet.
  int32_t getNotEnqCount() const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    return notEnqCountLocked();
  }

  // Thread: any thread. Blocks: no. -1 for a sensor not in the record.
  int32_t getStreamingState(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    return it == sensorStates.end() ? -1 : it->second.streamingState;
  }

  // A raw-switch frame has one sensor streaming in state 0 and another in state 1. Derived
  // from the states, not from the stored flag. Thread: any thread. Blocks: no.
  bool getIsRawSwitch() const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    return isRawSwitchLocked();
  }

  // The first order given to a sensor stays. An absent sensor is inserted unprepared but
  // carrying the order, unlike configured() and enqued(), which never insert.
  // Internal: the guard's mark (request thread at prepare, event thread at a drop).
  void prepared(uint32_t sensorId, uint64_t order) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    if (it != sensorStates.end()) {
      if (it->second.isPrepared) return;
      it->second.isPrepared = true;
    }
    sensorStates[sensorId].order = order;
  }

  // Internal: the guard's mark (setConfigured, a drop, a flush). Blocks: no.
  void configured(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    if (it != sensorStates.end()) it->second.isConfigured = true;
  }

  // Internal: the guard's mark (a drop, a flush). Blocks: no.
  void enqued(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    if (it != sensorStates.end()) it->second.isEnqued = true;
  }

  // Thread: any thread. Blocks: no. False for a sensor not in the record.
  bool getIsPrepared(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    return it != sensorStates.end() && it->second.isPrepared;
  }

  // Thread: any thread. Blocks: no. False for a sensor not in the record.
  bool getIsEnqued(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    return it != sensorStates.end() && it->second.isEnqued;
  }

  // For callers that read several facts under one hold of `mutex`, which they hold.
  // Thread: any thread, holding `mutex`. Blocks: no. As getNotEnqCount().
  int32_t notEnqCountLocked() const ORVCAM_REQUIRES(mutex) {
    int32_t count = 0;
    for (const auto& entry : sensorStates) {
      if (entry.second.needEnq && !entry.second.isEnqued) ++count;
    }
    return count;
  }
  // Thread: any thread, holding `mutex`. Blocks: no. As getIsRawSwitch().
  bool isRawSwitchLocked() const ORVCAM_REQUIRES(mutex) {
    bool hasOn = false;
    bool hasOff = false;
    for (const auto& entry : sensorStates) {
      hasOn = hasOn || entry.second.streamingState == 0;
      hasOff = hasOff || entry.second.streamingState == 1;
    }
    return hasOn && hasOff;
  }

 private:
  template <typename Pred>
  std::set<uint32_t> collect(Pred pred) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    std::set<uint32_t> ids;
    for (const auto& entry : sensorStates) {
      if (pred(entry.second)) ids.insert(entry.first);
    }
    return ids;
  }
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
