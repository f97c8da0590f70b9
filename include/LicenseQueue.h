#pragma once
// Request licences obtained ahead of time, per frame and licence key, until the sensor's job
// takes them or they go back to the pipe manager. The key is the sensor id for an enqueue
// licence and sensorId | 0xFF00 for a configure licence.
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>

#include "CamDeliverConstants.h"
#include "CamDeliverExport.h"
#include "ThreadAnnotations.h"
#include "pipemgr/IPipeMgr.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

class ORVCAM_CAMDELIVER_API LicenseQueue {
 public:
  using IPipeMgr = NSCam::camsys::pipemgr::isp7::IPipeMgr;
  using IRequestLicense = NSCam::camsys::pipemgr::isp7::IRequestLicense;
  static constexpr uint32_t kConfigKeyBase = kConfigureKeyBase;

  LicenseQueue();
  // Aborts when licences are left: the owner hands them back with clear() first.
  virtual ~LicenseQueue();  // NOLINT(bugprone-exception-escape): ends the process, see there
  LicenseQueue(const LicenseQueue&) = delete;
  LicenseQueue& operator=(const LicenseQueue&) = delete;

  // Caller holds `mutex`.
  bool isLicenseExist(uint32_t sensorId, uint32_t frameNo) ORVCAM_REQUIRES(mutex);
  void pushLicense(uint32_t sensorId, uint32_t frameNo, std::unique_ptr<IRequestLicense> license)
      ORVCAM_EXCLUDES(mutex);
  // Caller holds `mutex`. Null when absent.
  std::unique_ptr<IRequestLicense> popLicense(uint32_t sensorId, uint32_t frameNo)
      ORVCAM_REQUIRES(mutex);
  // Takes `mutex` around popLicense.
  std::unique_ptr<IRequestLicense> popLicenseLocked(uint32_t sensorId, uint32_t frameNo)
      ORVCAM_EXCLUDES(mutex);
  // Hands one licence back to the pipe manager; touches no queue state.
  void releaseLicense(std::unique_ptr<IRequestLicense> license);
  // Pops (sensorId, frameNo) under `mutex`, then hands it back without the lock.
  void releaseLicense(uint32_t sensorId, uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // Replaces every licence of `frames` by a fresh one with an FD of its own; each old
  // licence goes back before its replacement is acquired. Always 0.
  int32_t changeFramesFD(std::set<uint32_t> frames) ORVCAM_EXCLUDES(mutex);
  // Hands every queued licence back.
  void clear() ORVCAM_EXCLUDES(mutex);

  // Guards `mQueue`. A leaf lock: only the pipe manager is called while it is held (during
  // changeFramesFD and clear), and it never calls back into this library.
  std::mutex mutex;
  std::shared_ptr<IPipeMgr> mpPipeMgr;
  // frame number -> licence key -> licence. A frame entry exists only while it holds a
  // licence, and no stored licence is null.
  std::map<uint32_t, std::unordered_map<uint32_t, std::unique_ptr<IRequestLicense>>> mQueue
      ORVCAM_GUARDED_BY(mutex);
  const int32_t logLevel;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
