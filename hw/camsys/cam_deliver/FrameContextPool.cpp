#define CD_LOG_TAG "OrvCam/FrameContextPool"

#include "FrameContextPool.h"

#include <string>

#include "CamDeliverLog.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

namespace {

// A sensor's entry in a record, or null. Records hold a handful of sensors, for which a scan
// of the map's nodes is cheaper than hashing into its buckets; the walks below do this once
// per record. The caller holds the record's lock.
const FrameContext::SensorState* findState(const FrameContext& fc, uint32_t sensorId)
    ORVCAM_REQUIRES(fc.mutex) {
  constexpr size_t kScanLimit = 8;
  if (fc.sensorStates.size() <= kScanLimit) {
    for (const auto& entry : fc.sensorStates) {
      if (entry.first == sensorId) return &entry.second;
    }
    return nullptr;
  }
  auto it = fc.sensorStates.find(sensorId);
  return it == fc.sensorStates.end() ? nullptr : &it->second;
}

}  // namespace

FrameContextPool::FrameContextPool() : logLevel(CamDeliver::mLogLevel) {}

void FrameContextPool::emplace(uint32_t frameNo, std::shared_ptr<const FrameContext> fc) {
  std::lock_guard<std::mutex> lock(mutex);
  pool.emplace(frameNo, std::move(fc));
  if (pool.size() < kMaxRecords) return;
  std::string frames;
  for (const auto& entry : pool) frames += std::to_string(entry.first) + " ";
  CD_FATAL("FCPool size > %d : %s", static_cast<int>(kMaxRecords), frames.c_str());
}

std::shared_ptr<const FrameContext> FrameContextPool::tryGet(uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mutex);
  auto it = pool.find(frameNo);
  return it == pool.end() ? nullptr : it->second;
}

bool FrameContextPool::exist(uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mutex);
  return pool.count(frameNo) != 0;
}

std::shared_ptr<const FrameContext> FrameContextPool::getPreviousFC(uint32_t sensorId,
                                                                    uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mutex);
  // Both walks go from the highest frame number down. They step a plain iterator back once
  // per record: a reverse iterator steps back again on every dereference, and each step is a
  // call into the tree's code.
  if (frameNo == kNoFrame) {
    for (auto it = pool.end(); it != pool.begin();) {
      const auto& entry = *--it;
      if (!entry.second) continue;
      if (entry.second->getIsEnqued(sensorId)) {
        CD_LOGD("[%s] get latest frameNo(%d)", entry.first);
        return entry.second;
      }
    }
    return nullptr;
  }

  auto current = pool.find(frameNo);
  if (current == pool.end()) return nullptr;
  uint64_t currentOrder;
  {
    const FrameContext& fc = *current->second;
    std::lock_guard<std::mutex> fcLock(fc.mutex);
    // An absent sensor gets a default entry, as an indexing lookup gives it.
    const FrameContext::SensorState* state = findState(fc, sensorId);
    currentOrder = state != nullptr ? state->order : fc.sensorStates[sensorId].order;
  }
  // The previous frame is the highest-numbered one prepared earlier in the sensor's order,
  // which need not be the next lower frame number.
  // One lock and one lookup per record: a prepared sensor is present, so its order is read
  // from the entry found rather than by a second, inserting lookup.
  for (auto it = pool.end(); it != pool.begin();) {
    const auto& entry = *--it;
    if (!entry.second) continue;
    const FrameContext& fc = *entry.second;
    uint64_t order;
    {
      std::lock_guard<std::mutex> fcLock(fc.mutex);
      const FrameContext::SensorState* state = findState(fc, sensorId);
      if (state == nullptr || !state->isPrepared) continue;
      order = state->order;
    }
    if (order < currentOrder) {
      CD_LOGD("[%s] [S:%d F:%d] get previous frameNo(%d) order(%ld) < currentOrder(%ld)", sensorId,
              frameNo, entry.first, order, currentOrder);
      return entry.second;
    }
  }
  return nullptr;
}

void FrameContextPool::erase(uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mutex);
  if (pool.erase(frameNo) == 0) CD_LOGW("[%s] [F:%d] FC not exist, skip", frameNo);
}

bool FrameContextPool::isEmpty(uint32_t sensorId) {
  std::lock_guard<std::mutex> lock(mutex);
  for (const auto& entry : pool) {
    if (entry.second->getNeedEnqList().count(sensorId)) {
      CD_LOGW("[%s] not empty, S:%d F:%d still there ...", sensorId, entry.first);
      return false;
    }
  }
  return true;
}

template <typename Pred>
std::set<uint32_t> FrameContextPool::framesWhere(Pred pred) {
  std::lock_guard<std::mutex> lock(mutex);
  std::set<uint32_t> frames;
  for (const auto& entry : pool) {
    if (pred(*entry.second)) frames.insert(entry.first);
  }
  return frames;
}

namespace {

bool needsEnq(const FrameContext& fc, uint32_t sensorId) {
  return fc.getNeedEnqList().count(sensorId) != 0;
}

// In frame sync for the sensor: it must be enqueued, the sync holds, and it is in the list.
bool inLiveSync(const FrameContext& fc, uint32_t sensorId) {
  if (!needsEnq(fc, sensorId)) return false;
  std::lock_guard<std::mutex> fcLock(fc.mutex);
  return !fc.syncBroken && fc.syncList.count(sensorId) != 0;
}

}  // namespace

std::set<uint32_t> FrameContextPool::getEnquedFrames(uint32_t sensorId) {
  return framesWhere([sensorId](const FrameContext& fc) {
    return needsEnq(fc, sensorId) && fc.getIsEnqued(sensorId);
  });
}

std::set<uint32_t> FrameContextPool::getSyncFrames(uint32_t sensorId) {
  return framesWhere([sensorId](const FrameContext& fc) { return inLiveSync(fc, sensorId); });
}

std::set<uint32_t> FrameContextPool::getEnquedSyncFrames(uint32_t sensorId) {
  return framesWhere([sensorId](const FrameContext& fc) {
    return inLiveSync(fc, sensorId) && fc.getIsEnqued(sensorId);
  });
}

std::set<uint32_t> FrameContextPool::getPreparedFramesInMap(uint32_t sensorId) {
  return framesWhere([sensorId](const FrameContext& fc) {
    bool inMap;
    {
      std::lock_guard<std::mutex> fcLock(fc.mutex);
      inMap = fc.inMapList.count(sensorId) != 0;
    }
    return inMap && fc.getIsPrepared(sensorId);
  });
}

void FrameContextPool::clear() {
  std::lock_guard<std::mutex> lock(mutex);
  pool.clear();
}

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
