#define CD_LOG_TAG "OrvCam/CamDeliver"

#include "CamDeliver.h"

#include <algorithm>
#include <vector>

#include "CamDeliverLog.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "properties/Properties.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

using pipemgr::isp7::ILicenseMgr;

int32_t CamDeliver::mLogLevel = 0;

namespace {

const char* eventName(CamDeliver::EventType type) {
  switch (type) {
    case CamDeliver::InformInflight: return "InformInflight";
    case CamDeliver::ResumeDone: return "ResumeDone";
    case CamDeliver::Suspend: return "Suspend";
    case CamDeliver::Drop: return "Drop";
    case CamDeliver::Flush: return "Flush";
    case CamDeliver::LicenseRelease: return "LicenseRelease";
    case CamDeliver::RawSwitch: return "RawSwitch";
  }
  return "UNKNOWN";
}

// Hands a licence back through the licence interface (the manager's virtual base); what the
// manager leaves in the pointer is destroyed on return.
void giveBack(CamDeliver::IPipeMgr& pipeMgr, std::unique_ptr<CamDeliver::IRequestLicense> license) {
  static_cast<ILicenseMgr&>(pipeMgr).releaseLicense(license, false, true);
}

// Distinct sensor ids in ascending order. Up to kInline of them live inside the object;
// more move to the heap.
class SensorIds {
 public:
  void add(uint32_t id) {
    if (mSize == kInline && mMore.empty()) mMore.assign(mInline, mInline + kInline);
    if (!mMore.empty()) {
      mMore.insert(std::upper_bound(mMore.begin(), mMore.end(), id), id);
    } else {
      size_t i = mSize;
      for (; i > 0 && mInline[i - 1] > id; --i) mInline[i] = mInline[i - 1];
      mInline[i] = id;
    }
    ++mSize;
  }
  bool contains(uint32_t id) const { return std::binary_search(begin(), end(), id); }
  bool empty() const { return mSize == 0; }
  size_t size() const { return mSize; }
  const uint32_t* begin() const { return mMore.empty() ? mInline : mMore.data(); }
  const uint32_t* end() const { return begin() + mSize; }

 private:
  static constexpr size_t kInline = 16;
  uint32_t mInline[kInline];
  size_t mSize = 0;
  std::vector<uint32_t> mMore;
};

}  // namespace

CamDeliver::CamDeliver(std::shared_ptr<FrameContextPool> pool) {
  // The guard and the licence queue were built above with the level the previous deliverer
  // left behind; they keep that copy.
  mpPipeMgr = IPipeMgr::getInstance();
  mGuard.fcPool = std::move(pool);
  mLogLevel =
      NSCam::Utils::Properties::property_get_int32("vendor.debug.camcoordinator.force.log", 0);
  CD_LOGV(mLogLevel, "[%s] vendor.debug.camcoordinator.force.log_CamDeliver(%d)", mLogLevel);
}

CamDeliver::~CamDeliver() { mLicenseQueue.clear(); }

void CamDeliver::prepare(uint32_t sensorId, uint32_t frameNo,
                         std::shared_ptr<const FrameContext> fc) {
  std::lock_guard<std::mutex> lock(mPrepareMutex);
  if (std::find(mPreparedFrames.begin(), mPreparedFrames.end(), frameNo) != mPreparedFrames.end()) {
    CD_LOGD("[%s] [F:%d] coming before, skip prepare license", frameNo);
  } else {
    prepareLicense(static_cast<int32_t>(frameNo), fc);
    mPreparedFrames.push_back(frameNo);
    if (mPreparedFrames.size() > kPreparedFramesKept) mPreparedFrames.pop_front();
  }
  mGuard.prepare(sensorId, frameNo, std::move(fc));
}

void CamDeliver::prepareLicense(int32_t frameNo, std::shared_ptr<const FrameContext> fc) {
  std::lock_guard<std::mutex> lock(mLicenseMutex);
  const uint32_t frame = static_cast<uint32_t>(frameNo);
  // The record's sensor lists, read under its lock in one pass; held sorted on the stack so
  // that preparing a frame, which other sensors wait for, allocates nothing of its own.
  SensorIds enq;
  SensorIds cfg;
  SensorIds syncList;
  {
    std::lock_guard<std::mutex> fcLock(fc->mutex);
    for (const auto& entry : fc->sensorStates) {
      if (entry.second.needEnq) enq.add(entry.first);
      if (entry.second.needCfg) cfg.add(entry.first);
    }
    if (cfg.empty()) {
      for (uint32_t s : fc->syncList) syncList.add(s);
    }
  }

  if (!cfg.empty()) {
    // A configure licence shares the FD of its sensor's enqueue licence; frame sync is not
    // looked at on a configure frame and nothing goes back.
    for (uint32_t s : cfg) {
      std::unique_ptr<IRequestLicense> enqLicense = mpPipeMgr->acquireLicense();
      std::unique_ptr<IRequestLicense> cfgLicense =
          mpPipeMgr->acquireLicenseForFD(enqLicense->getFD());
      mLicenseQueue.pushLicense(s | kConfigKeyBase, frame, std::move(cfgLicense));
      mLicenseQueue.pushLicense(s, frame, std::move(enqLicense));
    }
    for (uint32_t s : enq) {
      if (!cfg.contains(s)) mLicenseQueue.pushLicense(s, frame, mpPipeMgr->acquireLicense());
    }
    return;
  }

  if (syncList.size() == 1) CD_FATAL("[F:%d] weird synclist count", frameNo);
  if (syncList.size() >= 2) {
    // One FD for the whole sync group, taken from a group licence that goes back at once.
    std::unique_ptr<IRequestLicense> group = mpPipeMgr->acquireLicense();
    const int32_t fd = group->getFD();
    for (uint32_t s : syncList) {
      mLicenseQueue.pushLicense(s, frame, mpPipeMgr->acquireLicenseForFD(fd));
      if (!enq.contains(s)) {
        // Sensor first, frame second: integrators match this text as it stands.
        CD_FATAL("[F:%d] sensorId(%d) in synclist but not in enqlist", s, frameNo);
      }
    }
    giveBack(*mpPipeMgr, std::move(group));
  }
  for (uint32_t s : enq) {
    if (syncList.contains(s)) continue;
    std::unique_ptr<IRequestLicense> leader = mpPipeMgr->acquireLicense();
    mLicenseQueue.pushLicense(s, frame, mpPipeMgr->acquireLicenseForFD(leader->getFD()));
    giveBack(*mpPipeMgr, std::move(leader));
  }
}

void CamDeliver::sendJobForConfigure(uint32_t sensorId, uint32_t frameNo,
                                     std::shared_ptr<IReqJob> job) {
  CD_TRACE_SCOPE("S:%d F:%d", sensorId, frameNo);
  CD_LOGD("[%s] [S:%d F:%d]", sensorId, frameNo);
  mGuard.wait(sensorId, frameNo, true);
  std::unique_ptr<IRequestLicense> license = getLicense(sensorId | kConfigKeyBase, frameNo);
  if (!license) {
    CD_FATAL("[S:%d F:%d] No license to config, please check flow !!", sensorId, frameNo);
  }
  job->assignLicense(std::move(license));
  job->execute();
  mGuard.finished(sensorId, frameNo, true);
}

int32_t CamDeliver::sendJobForEnque(uint32_t sensorId, uint32_t frameNo,
                                    std::shared_ptr<IReqJob> job) {
  if (!job) CD_FATAL("[S:%d F:%d] pJob is null", sensorId, frameNo);
  CD_LOGV(mLogLevel, "[%s] [S:%d F:%d]", sensorId, frameNo);
  CD_TRACE_SCOPE("S:%d F:%d", sensorId, frameNo);
  // The guard wait is done holding no deliverer lock.
  mGuard.wait(sensorId, frameNo, false);

  std::shared_lock<std::shared_mutex> jobLock(mJobLock);
  std::unique_ptr<IRequestLicense> license = getLicense(sensorId, frameNo);
  if (!license) {
    CD_LOGW("[%s] [S:%d F:%d] null license, maybe flushed, skip execute", sensorId, frameNo);
    return -1;
  }
  job->assignLicense(std::move(license));
  int32_t result = job->execute();
  if (frameNo != kNoFrame) mGuard.finished(sensorId, frameNo, false);
  return result;
}

std::unique_ptr<CamDeliver::IRequestLicense> CamDeliver::getLicense(uint32_t key,
                                                                    uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mLicenseMutex);
  if (frameNo == kNoFrame) return mpPipeMgr->acquireLicense();
  std::unique_ptr<IRequestLicense> license = mLicenseQueue.popLicenseLocked(key, frameNo);
  if (license) {
    CD_LOGD("[%s] [S:%d F:%d] FD(%d)", key, frameNo, license->getFD());
  } else {
    CD_LOGW("[%s] [S:%d F:%d] FD(NULL)", key, frameNo);
  }
  return license;
}

void CamDeliver::setConfigured(uint32_t sensorId, uint32_t frameNo) {
  mLicenseQueue.releaseLicense(sensorId | kConfigKeyBase, frameNo);
  mGuard.setConfigured(sensorId, frameNo);
}

void CamDeliver::flush(uint32_t /*sensorId*/) {
  // Every sensor's queued licences go, whichever sensor was named.
  mLicenseQueue.clear();
}

void CamDeliver::notifyEvent(EventType type, uint32_t sensorId, uint32_t frameNo, uint32_t value) {
  CD_LOGD("[%s] [S:%d F:%d] type(%s), value(%d)", sensorId, frameNo, eventName(type), value);
  switch (type) {
    case Drop:
      // Only the enqueue licence goes back; a configure licence of the frame stays queued.
      mLicenseQueue.releaseLicense(sensorId, frameNo);
      mGuard.drop(sensorId, frameNo);
      break;
    case Flush: mGuard.flush(sensorId); break;
    case InformInflight:
      if (value == 0) {
        // No enqueue may sit between licence fetch and finished() while FDs change.
        std::unique_lock<std::shared_mutex> jobLock(mJobLock);
        std::set<uint32_t> frames = mGuard.getSyncFrames(sensorId);
        mLicenseQueue.changeFramesFD(frames);
        mGuard.breakFrameSync(sensorId, frames);
      }
      break;
    default: break;
  }
}

ReqBaseJob::~ReqBaseJob() {}

int32_t ReqBaseJob::execute() { return 0; }

int32_t ReqBaseJob::assignLicense(std::unique_ptr<IRequestLicense> license) {
  mpLicense = std::move(license);
  return 0;
}

ReqCfgJob::~ReqCfgJob() {}

int32_t ReqCfgJob::execute() {
  mpPipeMgr->configure(mpConfig, mpLicense);
  static_cast<ILicenseMgr&>(*mpPipeMgr).releaseLicense(mpLicense, false, true);
  return 0;
}

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
