#define CD_LOG_TAG "OrvCam/CamDeliverGuard"

#include "CamDeliverGuard.h"

#include <string>

#include "CamDeliver.h"
#include "CamDeliverLog.h"
#include "FrameContextPool.h"
#include "MutexLocker.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

namespace {

const char* jobLabel(bool isConfig) { return isConfig ? "ConfigJob" : "EnqJob"; }

std::string joinFrames(const std::set<uint32_t>& frames) {
  std::string text;
  for (uint32_t frameNo : frames) text += std::to_string(frameNo) + " ";
  return text;
}

// Whether the sensor is enqueued in the record; the caller holds the record's lock. Records
// hold a handful of sensors, for which scanning the map's nodes is cheaper than hashing.
bool isEnquedLocked(const FrameContext& fc, uint32_t sensorId) ORVCAM_REQUIRES(fc.mutex) {
  for (const auto& entry : fc.sensorStates) {
    if (entry.first == sensorId) return entry.second.isEnqued;
  }
  return false;
}

// What the wait checks of the record before its rules, read under one hold of its lock: the
// sensors still to enqueue, and whether the frame is a raw switch. Neither the need lists nor
// the streaming states change after the record is built.
struct WaitFacts {
  int32_t notEnq;
  bool rawSwitch;
};

WaitFacts readWaitFacts(const FrameContext& fc) {
  std::lock_guard<std::mutex> fcLock(fc.mutex);
  return {fc.notEnqCountLocked(), fc.isRawSwitchLocked()};
}

}  // namespace

CamDeliverGuard::CamDeliverGuard() : logLevel(CamDeliver::mLogLevel) {
  orderMap.max_load_factor(1.0f);
}

void CamDeliverGuard::prepare(uint32_t sensorId, uint32_t frameNo,
                              std::shared_ptr<const FrameContext> pFc) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!pFc) CD_FATAL("[S:%d F:%d] pFc nullptr !", sensorId, frameNo);
  uint64_t& next = orderMap[sensorId];
  CD_LOGD("[%s] [S:%d F:%d] prepared, order(%ld)", sensorId, frameNo, next);
  uint64_t order = next;
  next = order + 1;
  // A sensor already prepared in this record keeps its first stamp; the counter has moved on
  // all the same.
  pFc->prepared(sensorId, order);
  cond.notify_all();
}

void CamDeliverGuard::setConfigured(uint32_t sensorId, uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mutex);
  std::shared_ptr<const FrameContext> pFc = fcPool->tryGet(frameNo);
  if (frameNo != kNoFrame && !pFc) {
    CD_LOGW("[%s] [S:%d F:%d] FC not found ! maybe flushed", sensorId, frameNo);
    return;
  }
  // "No frame" skips the warning and relies on a record kept under that number; without one
  // there is nothing to mark, and going on would dereference an empty record.
  if (!pFc) CD_FATAL("[S:%d F:%d] FC not found !", sensorId, frameNo);
  if (pFc->getNotEnqCount() == 0) {
    CD_FATAL("[S:%d F:%d] FC already finished, please check it !", sensorId, frameNo);
  }
  // Configuration alone never lets anybody go, so nobody is woken.
  pFc->configured(sensorId);
}

bool CamDeliverGuard::isPreviousSyncFrameFinished(uint32_t sensorId, uint32_t frameNo) {
  std::shared_ptr<const FrameContext> prev = fcPool->getPreviousFC(sensorId, frameNo);
  if (!prev) {
    CD_LOGV(logLevel, "[%s] [S:%d F:%d] previous synced FC not found !", sensorId, frameNo);
    return true;
  }
  // Runs under the guard's lock on every wake-up of every waiter, so it reads the record in
  // one go under the record's lock, without copying its sync list.
  // A broken sync lets everybody go whatever is enqueued, so it is tested first.
  std::lock_guard<std::mutex> fcLock(prev->mutex);
  if (prev->syncBroken) return true;
  for (uint32_t s : prev->syncList) {
    if (!isEnquedLocked(*prev, s)) return false;
  }
  return true;
}

bool CamDeliverGuard::waitOffSensorPreviousFrameEnqued(uint32_t offSensor, uint32_t frameNo) {
  std::shared_ptr<const FrameContext> prev = fcPool->getPreviousFC(offSensor, frameNo);
  if (prev) return prev->getIsEnqued(offSensor);
  CD_LOGD("[%s] [S:%d F:%d] off sensor previous FC not found !", offSensor, frameNo);
  return true;
}

void CamDeliverGuard::wait(uint32_t sensorId, uint32_t frameNo, bool isConfig) {
  orvcam::MutexLocker lock(mutex);
  std::shared_ptr<const FrameContext> pFc = fcPool->tryGet(frameNo);
  bool rawSwitch = false;
  if (frameNo != kNoFrame) {
    if (!pFc) CD_FATAL("[S:%d F:%d] FC not found !", sensorId, frameNo);
    WaitFacts facts = readWaitFacts(*pFc);
    if (facts.notEnq == 0) {
      CD_FATAL("[S:%d F:%d] unexpected not enq count(%d)", sensorId, frameNo, facts.notEnq);
    }
    rawSwitch = facts.rawSwitch;
  }
  const char* label = jobLabel(isConfig);
  CD_TRACE_SCOPE("S:%d F:%d isConfig:%d", sensorId, frameNo, isConfig ? 1 : 0);

  // Raw switch: the sensor being switched off goes first with its previous frame.
  if (rawSwitch) {
    uint32_t offSensor = 0;
    for (uint32_t id : pFc->getAllList()) {
      if (pFc->getStreamingState(id) == 1) offSensor = id;
    }
    CD_LOGD("[%s] [S:%d F:%d][%s] wait offSensor(%d) enqed +", sensorId, frameNo, label, offSensor);
    while (!waitOffSensorPreviousFrameEnqued(offSensor, frameNo)) lock.wait(cond);
    CD_LOGD("[%s] [S:%d F:%d][%s] wait offSensor(%d) enqed -", sensorId, frameNo, label, offSensor);
  }

  // Frame sync: the whole sync group of the previous synchronised frame is enqueued first.
  // The condition is a lambda so that its lines name it "operator()", as they always have.
  auto syncFrameDone = [&]() ORVCAM_REQUIRES(mutex) {
    if (isPreviousSyncFrameFinished(sensorId, frameNo)) {
      CD_LOGV(logLevel, "[%s] [S:%d F:%d][%s] previous syncframe enque done", sensorId, frameNo,
              label);
      return true;
    }
    CD_LOGD("[%s] [S:%d F:%d][%s] wait previous syncframe enque ...", sensorId, frameNo, label);
    return false;
  };
  while (!syncFrameDone()) lock.wait(cond);
}

void CamDeliverGuard::finished(uint32_t sensorId, uint32_t frameNo, bool isConfig) {
  // Declared before the lock: when the erase below drops the pool's reference and the client
  // holds none, the record is destroyed after the guard's lock is released.
  std::shared_ptr<const FrameContext> pFc;
  std::lock_guard<std::mutex> lock(mutex);
  pFc = fcPool->tryGet(frameNo);
  if (frameNo != kNoFrame && !pFc) {
    CD_LOGW("[%s] [S:%d F:%d] FC not found ! maybe flushed", sensorId, frameNo);
    return;
  }
  // "No frame" skips the warning and relies on a record kept under that number; without one
  // there is nothing to mark, and going on would dereference an empty record.
  if (!pFc) CD_FATAL("[S:%d F:%d] FC not found !", sensorId, frameNo);
  // The check, the sensor's progress and the count after it are made under one hold of the
  // record's lock. Like configured() and enqued(), the update never inserts an absent sensor.
  bool wasFinished;
  bool isLast = false;
  {
    std::lock_guard<std::mutex> fcLock(pFc->mutex);
    wasFinished = pFc->notEnqCountLocked() == 0;
    auto state = pFc->sensorStates.find(sensorId);
    if (!wasFinished && state != pFc->sensorStates.end()) {
      // A configure job never retires a frame.
      (isConfig ? state->second.isConfigured : state->second.isEnqued) = true;
    }
    isLast = !wasFinished && !isConfig && pFc->notEnqCountLocked() == 0;
  }
  if (wasFinished) {
    CD_FATAL("[S:%d F:%d] FC already finished, please check it !", sensorId, frameNo);
  }
  // The line's text is one of three constants, picked without building anything.
  const char* message = isConfig ? "ConfigJob finished. " : "EnqJob finished. ";
  if (isLast) {
    message = "EnqJob finished. Is last, erase it.";
    fcPool->erase(frameNo);
    eraseCond.notify_all();
  }
  CD_LOGD("[%s] [S:%d F:%d] %s", sensorId, frameNo, message);
  cond.notify_all();
}

void CamDeliverGuard::drop(uint32_t sensorId, uint32_t frameNo) {
  std::shared_ptr<const FrameContext> pFc;  // outlives the lock, as in finished()
  std::lock_guard<std::mutex> lock(mutex);
  pFc = fcPool->tryGet(frameNo);
  if (!pFc) {
    CD_LOGW("[%s] [S:%d F:%d] FC not found", sensorId, frameNo);
    return;
  }
  if (pFc->getNotEnqCount() == 0) {
    CD_LOGW("[%s] [S:%d F:%d] already finished", sensorId, frameNo);
    return;
  }
  CD_LOGD("[%s] [S:%d F:%d] drop", sensorId, frameNo);
  // A dropped frame takes a stamp like a prepared one, so that the sensor's later frames
  // find it as their previous frame.
  uint64_t& next = orderMap[sensorId];
  uint64_t order = next;
  next = order + 1;
  pFc->prepared(sensorId, order);
  pFc->configured(sensorId);
  pFc->enqued(sensorId);
  if (pFc->getNotEnqCount() == 0) {
    CD_LOGD("[%s] [S:%d F:%d] is last, erase", sensorId, frameNo);
    fcPool->erase(frameNo);
  }
  cond.notify_all();
  eraseCond.notify_all();
}

void CamDeliverGuard::flush(uint32_t sensorId) {
  std::lock_guard<std::mutex> lock(mutex);
  for (uint32_t frameNo : fcPool->getPreparedFramesInMap(sensorId)) {
    std::shared_ptr<const FrameContext> pFc = fcPool->tryGet(frameNo);
    pFc->configured(sensorId);
    pFc->enqued(sensorId);
    if (pFc->getNotEnqCount() == 0) {
      CD_LOGD("[%s] [S:%d F:%d] is last, erase", sensorId, frameNo);
      fcPool->erase(frameNo);
    }
  }
  cond.notify_all();
  eraseCond.notify_all();
  orderMap[sensorId] = 0;
}

void CamDeliverGuard::breakFrameSync(uint32_t sensorId, std::set<uint32_t> frames) {
  std::lock_guard<std::mutex> lock(mutex);
  for (uint32_t frameNo : frames) {
    std::shared_ptr<const FrameContext> pFc = fcPool->tryGet(frameNo);
    if (!pFc) CD_FATAL("[S:%d F:%d] pFc nullptr !", sensorId, frameNo);
    CD_LOGD("[%s] [S:%d F:%d] come to break frameSync", sensorId, frameNo);
    std::lock_guard<std::mutex> fcLock(pFc->mutex);
    pFc->syncBroken = true;
  }
  CD_LOGD("[%s] [S:%d] break all frameSync, notify_all!", sensorId);
  cond.notify_all();
}

int32_t CamDeliverGuard::waitUntilEnquedEmpty(uint32_t sensorId) {
  orvcam::MutexLocker lock(mutex);
  std::set<uint32_t> pending = fcPool->getEnquedFrames(sensorId);
  if (pending.empty()) return 0;
  if (logging::debugEnabled()) {
    std::string text = "wait until sensorId(" + std::to_string(sensorId) +
                       ") enqued empty +, wait: " + joinFrames(pending);
    CD_LOGD("[%s] %s", text.c_str());
  }
  for (;;) {
    std::set<uint32_t> left;
    for (uint32_t frameNo : pending) {
      if (fcPool->exist(frameNo)) left.insert(frameNo);
    }
    if (left.empty()) break;
    pending = std::move(left);
    lock.wait(eraseCond);
  }
  CD_LOGD("[%s] wait until sensorId(%d) enqued empty -", sensorId);
  return 0;
}

std::set<uint32_t> CamDeliverGuard::logFrameList(const char* func, uint32_t sensorId,
                                                 std::set<uint32_t> frames) {
  if (!frames.empty() && logging::debugEnabled()) {
    std::string text = "[S:" + std::to_string(sensorId) + "] frame list: " + joinFrames(frames);
    // The line names the public query that asked, not this helper.
    logging::emit(CD_LOG_TAG, CAM_DEBUG_LEVEL_DEBUG, logging::kULogDebug, __FILE__, __LINE__, func,
                  "[%s] %s", text.c_str());
  }
  return frames;
}

std::set<uint32_t> CamDeliverGuard::getEnquedSyncFrames(uint32_t sensorId) {
  std::lock_guard<std::mutex> lock(mutex);
  return logFrameList(__FUNCTION__, sensorId, fcPool->getEnquedSyncFrames(sensorId));
}

std::set<uint32_t> CamDeliverGuard::getSyncFrames(uint32_t sensorId) {
  std::lock_guard<std::mutex> lock(mutex);
  return logFrameList(__FUNCTION__, sensorId, fcPool->getSyncFrames(sensorId));
}

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
