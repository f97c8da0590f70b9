#pragma once
// The record of one frame as it moves through the deliverer: which sensors take part, which
// of them must be configured and enqueued, which are kept in frame sync, and how far each
// sensor has got. The client fills it in and shares it as shared_ptr<const FrameContext>;
// progress changes through const operations on mutable state under the record's own lock.
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
  struct SensorState {
    uint32_t sensorCode = 0xFF;   // client's own; carried, not read
    int32_t streamingState = -1;  // 0 and 1 mark the two sides of a raw switch; 1 is "off"
    int32_t sensorValue = -1;     // client's own; carried, not read
    bool extraFlag = false;       // client's own; carried, not read
    bool isPrepared = false;
    bool needCfg = false;
    bool isConfigured = false;
    bool needEnq = false;
    bool isEnqued = false;
    uint64_t order = 0;  // preparation order stamp of this sensor
  };

  // Guards every field below that changes or is read after construction. A leaf lock:
  // nothing is called while it is held; callers may hold the pool's lock, never the reverse.
  mutable std::mutex mutex;
  const uint32_t frameNo;
  std::set<uint32_t> syncList ORVCAM_GUARDED_BY(mutex);  // sensors kept in frame sync in this frame
  std::set<uint32_t> inMapList ORVCAM_GUARDED_BY(mutex);  // sensors whose frames a flush visits
  mutable std::unordered_map<uint32_t, SensorState> sensorStates ORVCAM_GUARDED_BY(mutex);
  const bool isRawSwitch;  // kept for the client; the library derives raw switches itself
  mutable bool syncBroken ORVCAM_GUARDED_BY(mutex) = false;
  const int32_t logLevel;

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

  std::set<uint32_t> getNeedCfgList() const {
    return collect([](const SensorState& s) { return s.needCfg; });
  }
  std::set<uint32_t> getNeedEnqList() const {
    return collect([](const SensorState& s) { return s.needEnq; });
  }
  std::set<uint32_t> getAllList() const {
    return collect([](const SensorState&) { return true; });
  }

  int32_t getNotEnqCount() const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    return notEnqCountLocked();
  }

  int32_t getStreamingState(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    return it == sensorStates.end() ? -1 : it->second.streamingState;
  }

  // A raw-switch frame has one sensor streaming in state 0 and another in state 1. Derived
  // from the states, not from the stored flag.
  bool getIsRawSwitch() const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    return isRawSwitchLocked();
  }

  // The first order given to a sensor stays. An absent sensor is inserted unprepared but
  // carrying the order, unlike configured() and enqued(), which never insert.
  void prepared(uint32_t sensorId, uint64_t order) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    if (it != sensorStates.end()) {
      if (it->second.isPrepared) return;
      it->second.isPrepared = true;
    }
    sensorStates[sensorId].order = order;
  }

  void configured(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    if (it != sensorStates.end()) it->second.isConfigured = true;
  }

  void enqued(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    if (it != sensorStates.end()) it->second.isEnqued = true;
  }

  bool getIsPrepared(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    return it != sensorStates.end() && it->second.isPrepared;
  }

  bool getIsEnqued(uint32_t sensorId) const ORVCAM_EXCLUDES(mutex) {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = sensorStates.find(sensorId);
    return it != sensorStates.end() && it->second.isEnqued;
  }

  // For callers that read several facts under one hold of `mutex`, which they hold.
  int32_t notEnqCountLocked() const ORVCAM_REQUIRES(mutex) {
    int32_t count = 0;
    for (const auto& entry : sensorStates) {
      if (entry.second.needEnq && !entry.second.isEnqued) ++count;
    }
    return count;
  }
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
