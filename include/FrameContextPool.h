#pragma once
// The records of all frames in flight, by frame number, and the ordering questions the
// guard asks of them. Holds at most 19 records; the 20th is a fatal error.
// Contracts use the words of ThreadContext.h. The client builds the pool, hands it to the
// deliverer and emplaces records; the guard does the rest, under its own lock.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "CamDeliverConstants.h"
#include "CamDeliverExport.h"
#include "FrameContext.h"
#include "ThreadAnnotations.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

class ORVCAM_CAMDELIVER_API FrameContextPool {
 public:
  // Thread: any thread. The pool's size at which emplace() aborts.
  static constexpr size_t kMaxRecords = kPreparationWindow;
  // Thread: any thread. kNoFrameNumber, for getPreviousFC().
  static constexpr uint32_t kNoFrame = kNoFrameNumber;

  // Thread: setup, before the deliverer that shares it is built (copies
  // CamDeliver::mLogLevel). Blocks: no.
  FrameContextPool();

  // Inserts unless the number is present (an existing record is kept). Aborts when the pool
  // then holds 20 records.
  // Thread: any thread, before any sensor prepares the frame. Blocks: no.
  // Aborts: "FCPool size > %d : %s" (20, then the frame numbers held).
  void emplace(uint32_t frameNo, std::shared_ptr<const FrameContext> fc) ORVCAM_EXCLUDES(mutex);
  // Thread: any thread. Blocks: no. The record, or null when none is kept under the number.
  std::shared_ptr<const FrameContext> tryGet(uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // Thread: any thread. Blocks: no.
  bool exist(uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // The record the sensor handled before `frameNo`, by preparation order: the highest frame
  // number prepared with a lower order stamp. For kNoFrame: the highest frame in which the
  // sensor is enqueued.
  // Internal: the guard's rules, under the guard's lock (request thread). Gives an absent
  // sensor a default entry in the record of `frameNo`, and logs.
  std::shared_ptr<const FrameContext> getPreviousFC(uint32_t sensorId, uint32_t frameNo)
      ORVCAM_EXCLUDES(mutex);
  // Internal: the guard retires a record with it after its last enqueue, a drop or a flush;
  // a record erased under a sender makes it abort "[S:%d F:%d] FC not found !".
  void erase(uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // True when no record needs the sensor's enqueue (enqueued or not).
  // Not called by the library. Thread: any thread. Blocks: no. Logs a record that does.
  bool isEmpty(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliverGuard::waitUntilEnquedEmpty. Thread: any thread. Blocks: no. Frames
  // that need the sensor's enqueue and have it.
  std::set<uint32_t> getEnquedFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliverGuard::getSyncFrames. Thread: any thread. Blocks: no. Frames that
  // need the sensor's enqueue and keep it in live (unbroken) frame sync.
  std::set<uint32_t> getSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliverGuard::getEnquedSyncFrames. Thread: any thread. Blocks: no. Those of
  // getSyncFrames() in which the sensor is enqueued.
  std::set<uint32_t> getEnquedSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Internal: CamDeliverGuard::flush. Thread: any thread. Blocks: no. Frames whose in-map
  // list holds the sensor and in which it is prepared.
  std::set<uint32_t> getPreparedFramesInMap(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  // Thread: setup. Blocks: no. Drops every record; a send or event for one of them afterwards
  // aborts or warns as for a frame never emplaced.
  void clear() ORVCAM_EXCLUDES(mutex);

  // Guards `pool`. Taken before any record's lock (pool -> record), never after it.
  // Thread: any thread. A client reading `pool` holds it, and calls into neither the
  // deliverer nor the pool meanwhile (the guard takes its own lock before this one).
  std::mutex mutex;
  // Thread: any thread, holding `mutex`; clients only read it. Frame number -> record.
  std::map<uint32_t, std::shared_ptr<const FrameContext>> pool ORVCAM_GUARDED_BY(mutex);
  // Internal: CamDeliver::mLogLevel as it was when the pool was built.
  const int32_t logLevel;

 private:
  template <typename Pred>
  std::set<uint32_t> framesWhere(Pred pred) ORVCAM_EXCLUDES(mutex);
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
