#define CD_LOG_TAG "OrvCam/LicenseQueue"

#include "LicenseQueue.h"

#include <string>

#include "CamDeliver.h"
#include "CamDeliverLog.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

LicenseQueue::LicenseQueue()
    : mpPipeMgr(IPipeMgr::getInstance()), logLevel(CamDeliver::mLogLevel) {}

// A queue left with licences ends the process below; so does a failed allocation while the
// leak is described, which is all an escaping exception could do here.
LicenseQueue::~LicenseQueue() {  // NOLINT(bugprone-exception-escape)
  if (mQueue.empty()) return;
  std::string dump = "(F:S) : ";
  for (const auto& frame : mQueue) {
    dump += "(" + std::to_string(frame.first) + ":";
    for (const auto& entry : frame.second) dump += std::to_string(entry.first) + " ";
    dump += ") ";
  }
  CD_LOGE("[%s] %s", dump.c_str());
  CD_FATAL("mQueue size should be 0!");
}

bool LicenseQueue::isLicenseExist(uint32_t sensorId, uint32_t frameNo) {
  auto frame = mQueue.find(frameNo);
  return frame != mQueue.end() && frame->second.count(sensorId) != 0;
}

void LicenseQueue::pushLicense(uint32_t sensorId, uint32_t frameNo,
                               std::unique_ptr<IRequestLicense> license) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!license) CD_FATAL("[S:%d F:%d] pLicense is null", sensorId, frameNo);
  if (isLicenseExist(sensorId, frameNo)) {
    CD_FATAL("[S:%d F:%d] license should not exist !!, please check the flow !!", sensorId,
             frameNo);
  }
  CD_LOGV(logLevel, "[%s] [S:%d F:%d] fd(%d)", sensorId, frameNo, license->getFD());
  mQueue[frameNo][sensorId] = std::move(license);
}

std::unique_ptr<LicenseQueue::IRequestLicense> LicenseQueue::popLicense(uint32_t sensorId,
                                                                        uint32_t frameNo) {
  auto frame = mQueue.find(frameNo);
  if (frame == mQueue.end() || frame->second.count(sensorId) == 0) {
    CD_LOGW("[%s] Cam %d NOT have F:%d in licenseQueue", sensorId, frameNo);
    return nullptr;
  }
  auto entry = frame->second.find(sensorId);
  std::unique_ptr<IRequestLicense> license = std::move(entry->second);
  if (!license) CD_FATAL("[S:%d F:%d] pLicense is null", sensorId, frameNo);
  frame->second.erase(entry);
  CD_LOGV(logLevel, "[%s] [S:%d F:%d] license(%p) fd(%d)", sensorId, frameNo,
          static_cast<const void*>(license.get()), license->getFD());
  if (frame->second.empty()) {
    mQueue.erase(frame);
    CD_LOGV(logLevel, "[%s] [S:%d F:%d] erase.", sensorId, frameNo);
  }
  return license;
}

std::unique_ptr<LicenseQueue::IRequestLicense> LicenseQueue::popLicenseLocked(uint32_t sensorId,
                                                                              uint32_t frameNo) {
  std::lock_guard<std::mutex> lock(mutex);
  return popLicense(sensorId, frameNo);
}

void LicenseQueue::releaseLicense(std::unique_ptr<IRequestLicense> license) {
  if (!license) {
    CD_LOGW("[%s] license is null, skip");
    return;
  }
  // Goes through the licence interface (the manager's virtual base). Whatever the manager
  // leaves in `license` is destroyed when this returns.
  static_cast<pipemgr::isp7::ILicenseMgr&>(*mpPipeMgr).releaseLicense(license, false, true);
}

void LicenseQueue::releaseLicense(uint32_t sensorId, uint32_t frameNo) {
  std::unique_ptr<IRequestLicense> license;
  {
    std::lock_guard<std::mutex> lock(mutex);
    license = popLicense(sensorId, frameNo);
  }
  // Written on every call, found or not; integrators grep for it.
  CD_LOGW("[%s] [S:%d F:%d] license already null !", sensorId, frameNo);
  if (license) {
    CD_LOGD("[%s] [S:%d F:%d] release license(%d) from pipeMgr", sensorId, frameNo,
            license->getFD());
    static_cast<pipemgr::isp7::ILicenseMgr&>(*mpPipeMgr).releaseLicense(license, false, true);
    license.reset();
  } else {
    CD_LOGW("[%s] Cam %d NOT have F:%d in licenseQueue", sensorId, frameNo);
  }
}

int32_t LicenseQueue::changeFramesFD(std::set<uint32_t> frames) {
  std::lock_guard<std::mutex> lock(mutex);
  for (uint32_t frameNo : frames) {
    auto frame = mQueue.find(frameNo);
    if (frame == mQueue.end()) {
      CD_FATAL("frameNo(%d) not exist, check it has been poped or not", frameNo);
    }
    if (frame->second.empty()) {
      CD_FATAL("frameNo(%d) doesn't contain any FD, should not happen", frameNo);
    }
    // In place: the frame's entries stay, only their licences are replaced.
    for (auto& entry : frame->second) {
      if (entry.first >= kConfigKeyBase) {
        CD_FATAL(
            "[S:%d] configure frame(%d) must not in change-FD flow, please check "
            "CamDeliver::prepareLicense() !",
            entry.first, frameNo);
      }
      std::unique_ptr<IRequestLicense> old = std::move(entry.second);
      int32_t oldFd = old->getFD();
      releaseLicense(std::move(old));
      entry.second = mpPipeMgr->acquireLicense();
      int32_t newFd = entry.second->getFD();
      CD_LOGD("[%s] [S:%d F:%d] change FD (%d) -> (%d)", entry.first, frameNo, oldFd, newFd);
    }
  }
  return 0;
}

void LicenseQueue::clear() {
  std::lock_guard<std::mutex> lock(mutex);
  for (auto& frame : mQueue) {
    for (auto& entry : frame.second) {
      CD_LOGD("[%s] [S:%d F:%d] release", entry.first, frame.first);
      releaseLicense(std::move(entry.second));
    }
  }
  mQueue.clear();
}

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
