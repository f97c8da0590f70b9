#pragma once
// Request licences obtained ahead of time, per frame and licence key, until the sensor's job
// takes them or they go back to the pipe manager. The key is the sensor id for an enqueue
// licence and sensorId | 0xFF00 for a configure licence.
// Contracts use the words of ThreadContext.h. The queue is the deliverer's member
// mLicenseQueue: every member here is the library's own, reached through CamDeliver.
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
  // Thread: any thread. kConfigureKeyBase.
  static constexpr uint32_t kConfigKeyBase = kConfigureKeyBase;

  // Internal: built as CamDeliver::mLicenseQueue. Thread: setup. Takes the pipe manager's
  // instance and copies CamDeliver::mLogLevel.
  LicenseQueue();
  // Aborts when licences are left: the owner hands them back with clear() first.
  // Internal: ~CamDeliver empties it first. Thread: setup. Aborts: "mQueue size should be 0!".
  virtual ~LicenseQueue();  // NOLINT(bugprone-exception-escape): ends the process, see there
  LicenseQueue(const LicenseQueue&) = delete;
  LicenseQueue& operator=(const LicenseQueue&) = delete;

  // Caller holds `mutex`.
  // Internal: pushLicense's check. Thread: any thread, holding `mutex`. Blocks: no.
  bool isLicenseExist(uint32_t sensorId, uint32_t frameNo) ORVCAM_REQUIRES(mutex);
  // Internal: CamDeliver::prepareLicense (request thread). Blocks: no. Aborts:
  //   "[S:%d F:%d] pLicense is null",
  //   "[S:%d F:%d] license should not exist !!, please check the flow !!".
  void pushLicense(uint32_t sensorId, uint32_t frameNo, std::unique_ptr<IRequestLicense> license)
      ORVCAM_EXCLUDES(mutex);
  // Caller holds `mutex`. Null when absent.
  // Internal: popLicenseLocked. Thread: any thread, holding `mutex`. Blocks: no. Absent:
  //   warns "[%s] Cam %d NOT have F:%d in licenseQueue".
  std::unique_ptr<IRequestLicense> popLicense(uint32_t sensorId, uint32_t frameNo)
      ORVCAM_REQUIRES(mutex);
  // Takes `mutex` around popLicense.
  // Internal: CamDeliver::getLicense (request thread). Blocks: no.
  std::unique_ptr<IRequestLicense> popLicenseLocked(uint32_t sensorId, uint32_t frameNo)
      ORVCAM_EXCLUDES(mutex);
  // Hands one licence back to the pipe manager; touches no queue state.
  // Internal: clear() and changeFramesFD. Thread: any thread. Blocks: on the pipe manager's
  // releaseLicense. A null licence only warns.
  void releaseLicense(std::unique_ptr<IRequestLicense> license);
  // Pops (sensorId, frameNo) under `mutex`, then hands it back without the lock.
  // Internal: setConfigured (request thread) and a drop (event thread). Blocks: on the pipe
  // manager's releaseLicense. Warns "license already null !" on every call.
  void releaseLicense(uint32_t sensorId, uint32_t frameNo) ORVCAM_EXCLUDES(mutex);
  // Replaces every licence of `frames` by a fresh one with an FD of its own; each old
  // licence goes back before its replacement is acquired. Always 0.
  // Internal: an InformInflight report (event thread). Blocks: on the pipe manager, under
  // `mutex`. Aborts: "frameNo(%d) not exist, check it has been poped or not",
  //   "frameNo(%d) doesn't contain any FD, should not happen",
  //   "[S:%d] configure frame(%d) must not in change-FD flow, please check
  //   CamDeliver::prepareLicense() !" (one message).
  int32_t changeFramesFD(std::set<uint32_t> frames) ORVCAM_EXCLUDES(mutex);
  // Hands every queued licence back.
  // Internal: CamDeliver::flush (event thread) and ~CamDeliver (setup). Blocks: on the pipe
  // manager's releaseLicense, under `mutex`.
  void clear() ORVCAM_EXCLUDES(mutex);

  // Guards `mQueue`. A leaf lock: only the pipe manager is called while it is held (during
  // changeFramesFD and clear), and it never calls back into this library.
  // Internal: public for the exported layout; clients never lock it.
  std::mutex mutex;
  // Internal: the pipe manager's instance, set by the constructor.
  std::shared_ptr<IPipeMgr> mpPipeMgr;
  // frame number -> licence key -> licence. A frame entry exists only while it holds a
  // licence, and no stored licence is null.
  // Internal: public for the exported layout; read by the tools and tests under `mutex`.
  std::map<uint32_t, std::unordered_map<uint32_t, std::unique_ptr<IRequestLicense>>> mQueue
      ORVCAM_GUARDED_BY(mutex);
  // Internal: CamDeliver::mLogLevel as it was when the queue was built.
  const int32_t logLevel;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
