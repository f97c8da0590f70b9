#pragma once
// The records of all frames in flight, by frame number, and the ordering questions the
// guard asks of them. Holds at most 19 records; the 20th is a fatal error.
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
  static constexpr size_t kMaxRecords = kPreparationWindow;
  static constexpr uint32_t kNoFrame = kNoFrameNumber;

  FrameContextPool();

  // Inserts unless the number is present (an existing record is kept). Aborts when the pool
  // then holds 20 records.
  void emplace(uint32_t frameNo, std::shared_ptr<const FrameContext> fc) ORVCAM_EXCLUDES(mutex);
  std::shared_ptr<const FrameContext> tryGet(uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  bool exist(uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // The record the sensor handled before `frameNo`, by preparation order: the highest frame
  // number prepared with a lower order stamp. For kNoFrame: the highest frame in which the
  // sensor is enqueued.
  std::shared_ptr<const FrameContext> getPreviousFC(uint32_t sensorId, uint32_t frameNo)
      ORVCAM_EXCLUDES(mutex);
  void erase(uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // True when no record needs the sensor's enqueue (enqueued or not).
  bool isEmpty(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  std::set<uint32_t> getEnquedFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  std::set<uint32_t> getSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  std::set<uint32_t> getEnquedSyncFrames(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  std::set<uint32_t> getPreparedFramesInMap(uint32_t sensorId) ORVCAM_EXCLUDES(mutex);
  void clear() ORVCAM_EXCLUDES(mutex);

  // Guards `pool`. Taken before any record's lock (pool -> record), never after it.
  std::mutex mutex;
  std::map<uint32_t, std::shared_ptr<const FrameContext>> pool ORVCAM_GUARDED_BY(mutex);
  const int32_t logLevel;

 private:
  template <typename Pred>
  std::set<uint32_t> framesWhere(Pred pred) ORVCAM_EXCLUDES(mutex);
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
