#pragma once
// The ordering core: decides when a sensor's configure or enqueue job for a frame may go,
// and retires frames when their last sensor is done. Frame records live in the shared pool;
// the guard owns a per-sensor counter of preparation order, one lock and two conditions.
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>

#include "CamDeliverConstants.h"
#include "CamDeliverExport.h"
#include "ThreadAnnotations.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

class FrameContext;
class FrameContextPool;

class ORVCAM_CAMDELIVER_API CamDeliverGuard {
 public:
  static constexpr uint32_t kNoFrame = kNoFrameNumber;

  CamDeliverGuard();
  CamDeliverGuard(const CamDeliverGuard&) = delete;
  CamDeliverGuard& operator=(const CamDeliverGuard&) = delete;

  // Stamps the sensor's entry in `pFc` with its next preparation order; wakes the waiters.
  void prepare(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<const FrameContext> pFc)
      ORVCAM_EXCLUDES(mutex);
  // Marks the sensor configured; wakes nobody.
  void setConfigured(uint32_t sensorId, uint32_t frameNo) ORVCAM_EXCLUDES(mutex);

  // Blocks until the frame may go for the sensor: the off sensor's previous frame is enqueued
  // on a raw-switch frame, then the previous synchronised frame is fully enqueued or broken.
  // Unchecked inside: it waits through std::unique_lock, which the analysis cannot follow.
  void wait(uint32_t sensorId, uint32_t frameNo, bool isConfig)
      ORVCAM_EXCLUDES(mutex) ORVCAM_NO_THREAD_SAFETY_ANALYSIS;
  // Both predicates expect `mutex` held.
  bool isPreviousSyncFrameFinished(uint32_t sensorId, uint32_t frameNo) ORVCAM_REQUIRES(mutex);
  bool waitOffSensorPreviousFrameEnqued(uint32_t offSensor, uint32_t frameNo)
      ORVCAM_REQUIRES(mutex);

  void finished(uint32_t sensorId, uint32_t frameNo, bool isConfig) ORVCAM_EXCLUDES(mutex);
  void drop(uint32_t sensorId, uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  void flush(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);

  void breakFrameSync(uint32_t sensorId, std::set<uint32_t> frames) ORVCAM_EXCLUDES(mutex);
  // Blocks until none of the frames the sensor had enqueued at the call is in the pool.
  // Unchecked inside, like wait().
  int32_t waitUntilEnquedEmpty(uint32_t sensorId)
      ORVCAM_EXCLUDES(mutex) ORVCAM_NO_THREAD_SAFETY_ANALYSIS;
  std::set<uint32_t> getEnquedSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  std::set<uint32_t> getSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);

  // sensor id -> the stamp its next prepare (or drop) hands out.
  std::unordered_map<uint32_t, uint64_t> orderMap ORVCAM_GUARDED_BY(mutex);
  // The guard's lock; it guards orderMap. Every public operation but the two predicates holds
  // it for its whole body; the waits release it only while blocked. Order: deliverer locks ->
  // this -> pool -> record; neither the pool nor a record calls back into the guard.
  std::mutex mutex;
  // Progress: waited on by wait(); notified by prepare, finished, drop, flush, breakFrameSync.
  std::condition_variable cond;
  // Never locked; waits on eraseCond use `mutex`. It stays because CamDeliverGuard is exported:
  // removing it would move every later member and break binaries built against this layout.
  std::mutex eraseMutex;
  // Records left the pool: waited on by waitUntilEnquedEmpty; notified by finished when it
  // erases, drop and flush.
  std::condition_variable eraseCond;
  // Assigned by the owning deliverer right after construction.
  std::shared_ptr<FrameContextPool> fcPool;
  const int32_t logLevel;

 private:
  std::set<uint32_t> logFrameList(const char* func, uint32_t sensorId, std::set<uint32_t> frames)
      ORVCAM_REQUIRES(mutex);
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
