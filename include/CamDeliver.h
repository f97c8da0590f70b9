#pragma once
// The deliverer: the object a camera coordinator creates, prepares frames on, hands jobs to
// and feeds pipeline events into. It has no thread of its own; every call runs on the
// caller's thread and a send blocks in the guard until its frame may go.
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "CamDeliverConstants.h"
#include "CamDeliverExport.h"
#include "CamDeliverGuard.h"
#include "LicenseQueue.h"
#include "ReqJob.h"
#include "pipemgr/IPipeMgr.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

class FrameContext;
class FrameContextPool;

class ORVCAM_CAMDELIVER_API CamDeliver {
 public:
  using IPipeMgr = NSCam::camsys::pipemgr::isp7::IPipeMgr;
  using IRequestLicense = NSCam::camsys::pipemgr::isp7::IRequestLicense;

  enum EventType : uint32_t {
    InformInflight = 0,
    ResumeDone = 1,
    Suspend = 2,
    Drop = 3,
    Flush = 4,
    LicenseRelease = 5,
    RawSwitch = 6,
  };

  static constexpr uint32_t kNoFrame = kNoFrameNumber;
  static constexpr uint32_t kConfigKeyBase = kConfigureKeyBase;
  static constexpr size_t kPreparedFramesKept = kPreparationWindow;

  // Library-wide verbosity, from "vendor.debug.camcoordinator.force.log". The guard, the
  // licence queue and the records copy it when they are built.
  static int32_t mLogLevel;

  explicit CamDeliver(std::shared_ptr<FrameContextPool> pool);
  // Hands every queued licence back first.
  virtual ~CamDeliver();
  CamDeliver(const CamDeliver&) = delete;
  CamDeliver& operator=(const CamDeliver&) = delete;

  // Once per (sensor, frame), before any job of the frame. The first sensor of a frame
  // obtains the licences of all its sensors.
  void prepare(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<const FrameContext> fc);
  void prepareLicense(int32_t frameNo, std::shared_ptr<const FrameContext> fc);

  void sendJobForConfigure(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<IReqJob> job);
  // The job's result, or -1 when there was no licence (the job is then not run).
  int32_t sendJobForEnque(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<IReqJob> job);
  std::unique_ptr<IRequestLicense> getLicense(uint32_t key, uint32_t frameNo);
  // The sensor was configured without a configure job: its configure licence goes back.
  void setConfigured(uint32_t sensorId, uint32_t frameNo);
  // Hands back every queued licence, of every sensor.
  void flush(uint32_t sensorId);

  void notifyEvent(EventType type, uint32_t sensorId, uint32_t frameNo, uint32_t value);

  // Writes the deliverer's state to `fd` for a dumpsys: the pool's records, each sensor's next
  // order stamp, the prepared-frame list, the queued licences, and what every prepared sensor
  // still waits for. Any thread; never blocks on the library's locks: each is tried until 10
  // ms in all have passed, and a part whose lock stayed busy is reported as not read. Writes
  // no log line and changes nothing.
  void dump(int fd);

  // Lock order, never reversed: mPrepareMutex -> mLicenseMutex; mJobLock -> mLicenseMutex;
  // then the guard's, the pool's and a record's locks; the licence queue's lock is a leaf.
  // No deliverer lock is held while a thread waits in the guard.
  //
  // Held for the whole of prepare(): serialises preparation across sensors.
  std::mutex mPrepareMutex;
  // Never locked.
  std::mutex mSpareMutex;
  // Held for the whole of prepareLicense() and getLicense(): the queue fills and empties
  // under it.
  std::mutex mLicenseMutex;
  // Shared by an enqueue send from licence fetch to finished(); exclusive while an in-flight
  // report changes frame descriptors and breaks frame sync.
  std::shared_mutex mJobLock;
  std::shared_ptr<IPipeMgr> mpPipeMgr;
  CamDeliverGuard mGuard;
  // Frames whose licences were prepared, oldest first; the 20 most recent.
  std::deque<uint32_t> mPreparedFrames;
  LicenseQueue mLicenseQueue;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
