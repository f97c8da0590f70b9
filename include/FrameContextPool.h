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
  void emplace(uint32_t frameNo, std::shared_ptr<const FrameContext> fc);
  std::shared_ptr<const FrameContext> tryGet(uint32_t frameNo);
  bool exist(uint32_t frameNo);
  // The record the sensor handled before `frameNo`, by preparation order: the highest frame
  // number prepared with a lower order stamp. For kNoFrame: the highest frame in which the
  // sensor is enqueued.
  std::shared_ptr<const FrameContext> getPreviousFC(uint32_t sensorId, uint32_t frameNo);
  void erase(uint32_t frameNo);
  // True when no record needs the sensor's enqueue (enqueued or not).
  bool isEmpty(uint32_t sensorId);
  std::set<uint32_t> getEnquedFrames(uint32_t sensorId);
  std::set<uint32_t> getSyncFrames(uint32_t sensorId);
  std::set<uint32_t> getEnquedSyncFrames(uint32_t sensorId);
  std::set<uint32_t> getPreparedFramesInMap(uint32_t sensorId);
  void clear();

  // Guards `pool`. Taken before any record's lock (pool -> record), never after it.
  std::mutex mutex;
  std::map<uint32_t, std::shared_ptr<const FrameContext>> pool;
  const int32_t logLevel;

 private:
  template <typename Pred>
  std::set<uint32_t> framesWhere(Pred pred);
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
