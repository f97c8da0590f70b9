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
#include "ThreadAnnotations.h"
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
  // Not synchronised: every constructor writes it and every send reads it with no lock (its
  // type is part of the exported interface and stays a plain int32_t). An integrator builds
  // all deliverers before their request and event threads start sending, and builds no
  // deliverer while another one is in use.
  static int32_t mLogLevel;

  explicit CamDeliver(std::shared_ptr<FrameContextPool> pool);
  // Hands every queued licence back first.
  virtual ~CamDeliver();
  CamDeliver(const CamDeliver&) = delete;
  CamDeliver& operator=(const CamDeliver&) = delete;

  // Once per (sensor, frame), before any job of the frame. The first sensor of a frame
  // obtains the licences of all its sensors.
  void prepare(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<const FrameContext> fc)
      ORVCAM_EXCLUDES(mPrepareMutex, mLicenseMutex);
  void prepareLicense(int32_t frameNo, std::shared_ptr<const FrameContext> fc)
      ORVCAM_EXCLUDES(mLicenseMutex);

  void sendJobForConfigure(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<IReqJob> job)
      ORVCAM_EXCLUDES(mPrepareMutex, mLicenseMutex);
  // The job's result, or -1 when there was no licence (the job is then not run).
  int32_t sendJobForEnque(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<IReqJob> job)
      ORVCAM_EXCLUDES(mPrepareMutex, mLicenseMutex);
  std::unique_ptr<IRequestLicense> getLicense(uint32_t key, uint32_t frameNo)
      ORVCAM_EXCLUDES(mLicenseMutex);
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
  // Unchecked: the analysis cannot follow a lock that is only tried and then released later.
  void dump(int fd) ORVCAM_NO_THREAD_SAFETY_ANALYSIS;

  // Lock order, never reversed: mPrepareMutex -> mLicenseMutex; mJobLock -> mLicenseMutex;
  // then the guard's, the pool's and a record's locks; the licence queue's lock is a leaf.
  // No deliverer lock is held while a thread waits in the guard.
  //
  // Held for the whole of prepare(): serialises preparation across sensors. Guards
  // mPreparedFrames; the licences a frame's first preparation pushes are guarded by the
  // licence queue's own lock.
  std::mutex mPrepareMutex ORVCAM_ACQUIRED_BEFORE(mLicenseMutex);
  // Never locked. It stays because CamDeliver is exported: removing it would move every later
  // member and break integrators' binaries built against this layout.
  std::mutex mSpareMutex;
  // Held for the whole of prepareLicense() and getLicense(): the queue fills and empties
  // under it. Guards no field of its own; it makes a frame's licence preparation and a
  // licence fetch exclude each other.
  std::mutex mLicenseMutex ORVCAM_ACQUIRED_BEFORE(mLicenseQueue.mutex);
  // Shared by an enqueue send from licence fetch to finished(); exclusive while an in-flight
  // report changes frame descriptors and breaks frame sync. Guards no field. The standard
  // library's shared_mutex carries no thread-safety attributes, so its uses are unchecked.
  std::shared_mutex mJobLock;
  std::shared_ptr<IPipeMgr> mpPipeMgr;
  CamDeliverGuard mGuard;
  // Frames whose licences were prepared, oldest first; the 20 most recent.
  std::deque<uint32_t> mPreparedFrames ORVCAM_GUARDED_BY(mPrepareMutex);
  LicenseQueue mLicenseQueue;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
