#pragma once
// The ordering core: decides when a sensor's configure or enqueue job for a frame may go,
// and retires frames when their last sensor is done. Frame records live in the shared pool;
// the guard owns a per-sensor counter of preparation order, one lock and two conditions.
// Contracts use the words of ThreadContext.h. The guard is the deliverer's member mGuard:
// clients reach it only through CamDeliver, and every member here is the library's own.
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
  // Thread: any thread. kNoFrameNumber, for the guard's own code.
  static constexpr uint32_t kNoFrame = kNoFrameNumber;

  // Internal: built as CamDeliver::mGuard (copies CamDeliver::mLogLevel). Thread: setup.
  CamDeliverGuard();
  CamDeliverGuard(const CamDeliverGuard&) = delete;
  CamDeliverGuard& operator=(const CamDeliverGuard&) = delete;

  // Stamps the sensor's entry in `pFc` with its next preparation order; wakes the waiters.
  // Internal: called by CamDeliver::prepare. Thread: request thread. Blocks: no.
  // Aborts: "[S:%d F:%d] pFc nullptr !".
  void prepare(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<const FrameContext> pFc)
      ORVCAM_EXCLUDES(mutex);
  // Marks the sensor configured; wakes nobody.
  // Internal: called by CamDeliver::setConfigured. Thread: request thread. Blocks: no.
  // Aborts: "[S:%d F:%d] FC already finished, please check it !", "[S:%d F:%d] FC not found !".
  void setConfigured(uint32_t sensorId, uint32_t frameNo) ORVCAM_EXCLUDES(mutex);

  // Blocks until the frame may go for the sensor: the off sensor's previous frame is enqueued
  // on a raw-switch frame, then the previous synchronised frame is fully enqueued or broken.
  // Internal: called by the sends. Thread: request thread. Blocks: on `cond`, until the rules
  // hold. Aborts: "[S:%d F:%d] FC not found !", "[S:%d F:%d] unexpected not enq count(%d)".
  void wait(uint32_t sensorId, uint32_t frameNo, bool isConfig) ORVCAM_EXCLUDES(mutex);
  // Both predicates expect `mutex` held.
  // Internal: wait()'s sync rule. Thread: request thread, holding `mutex`. Blocks: no. True
  // when the sensor's previous record is absent, broken, or enqueued by its whole sync list.
  bool isPreviousSyncFrameFinished(uint32_t sensorId, uint32_t frameNo) ORVCAM_REQUIRES(mutex);
  // Internal: wait()'s raw-switch rule; despite the name it does not wait. Thread: request
  // thread, holding `mutex`. Blocks: no. True when the off sensor's previous record is absent
  // or has it enqueued.
  bool waitOffSensorPreviousFrameEnqued(uint32_t offSensor, uint32_t frameNo)
      ORVCAM_REQUIRES(mutex);

  // Internal: a send's job ran; marks the sensor configured or enqueued and erases the record
  // after its last enqueue. Thread: request thread. Blocks: no. A record no longer in the
  // pool only warns. Aborts: "[S:%d F:%d] FC already finished, please check it !".
  void finished(uint32_t sensorId, uint32_t frameNo, bool isConfig) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliver::notifyEvent(Drop). Thread: event thread. Blocks: no. An unknown or
  // finished frame only warns ("FC not found", "already finished").
  void drop(uint32_t sensorId, uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliver::notifyEvent(Flush). Thread: event thread. Blocks: no.
  void flush(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);

  // Internal: CamDeliver::notifyEvent(InformInflight). Thread: event thread. Blocks: no.
  // Aborts: "[S:%d F:%d] pFc nullptr !" for a frame no longer in the pool.
  void breakFrameSync(uint32_t sensorId, std::set<uint32_t> frames) ORVCAM_EXCLUDES(mutex);
  // Blocks until none of the frames the sensor had enqueued at the call is in the pool.
  // Not called by the library. Thread: any thread but a request thread whose own sends those
  // frames still need. Blocks: on `eraseCond`, until those frames are erased. Returns 0.
  int32_t waitUntilEnquedEmpty(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Not called by the library. Thread: any thread. Blocks: no. The frames in the pool in
  // which the sensor is enqueued and still in live frame sync.
  std::set<uint32_t> getEnquedSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliver::notifyEvent(InformInflight). Thread: event thread. Blocks: no. The
  // frames in the pool that need the sensor's enqueue and keep it in live frame sync.
  std::set<uint32_t> getSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);

  // sensor id -> the stamp its next prepare (or drop) hands out.
  // Internal: public for the exported layout; read by the tools and tests under `mutex`.
  std::unordered_map<uint32_t, uint64_t> orderMap ORVCAM_GUARDED_BY(mutex);
  // The guard's lock; it guards orderMap. Every public operation but the two predicates holds
  // it for its whole body; the waits release it only while blocked. Order: deliverer locks ->
  // this -> pool -> record; neither the pool nor a record calls back into the guard.
  // Internal: public for the exported layout; clients never lock it.
  std::mutex mutex;
  // Progress: waited on by wait(); notified by prepare, finished, drop, flush, breakFrameSync.
  // Internal: public for the exported layout.
  std::condition_variable cond;
  // Never locked; waits on eraseCond use `mutex`. It stays because CamDeliverGuard is exported:
  // removing it would move every later member and break binaries built against this layout.
  // Internal: layout only.
  std::mutex eraseMutex;
  // Records left the pool: waited on by waitUntilEnquedEmpty; notified by finished when it
  // erases, drop and flush.
  // Internal: public for the exported layout.
  std::condition_variable eraseCond;
  // Assigned by the owning deliverer right after construction.
  // Internal: written in setup, by CamDeliver's constructor; read by every operation.
  std::shared_ptr<FrameContextPool> fcPool;
  // Internal: CamDeliver::mLogLevel as it was when the guard was built.
  const int32_t logLevel;

 private:
  std::set<uint32_t> logFrameList(const char* func, uint32_t sensorId, std::set<uint32_t> frames)
      ORVCAM_REQUIRES(mutex);
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
