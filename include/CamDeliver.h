#pragma once
// The deliverer: the object a camera coordinator creates, prepares frames on, hands jobs to
// and feeds pipeline events into. It has no thread of its own; every call runs on the
// caller's thread and a send blocks in the guard until its frame may go.
// Contracts use the words of ThreadContext.h (Thread:, Blocks:, Internal:, Aborts:).
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

  // What notifyEvent reports. The values are part of the interface; unknown ones are logged.
  enum EventType : uint32_t {
    // Thread: event thread. The sensor has nothing in flight; with value 0 its synchronised
    // frames get licences with FDs of their own and stop being synchronised.
    InformInflight = event::kInformInflight,
    // Thread: event thread. Only logged.
    ResumeDone = event::kResumeDone,
    // Thread: event thread. Only logged.
    Suspend = event::kSuspend,
    // Thread: event thread. The pipeline dropped the sensor's request for the frame.
    Drop = event::kDrop,
    // Thread: event thread. The sensor's frames in flight are done with; follow with flush().
    Flush = event::kFlush,
    // Thread: event thread. Only logged.
    LicenseRelease = event::kLicenseRelease,
    // Thread: event thread. Only logged: the library finds raw switches from the records.
    RawSwitch = event::kRawSwitch,
  };

  // Thread: any thread. kNoFrameNumber: a send not tied to a frame.
  static constexpr uint32_t kNoFrame = kNoFrameNumber;
  // Thread: any thread. kConfigureKeyBase: sensorId | this keys a configure licence.
  static constexpr uint32_t kConfigKeyBase = kConfigureKeyBase;
  // Thread: any thread. How many most recently first-prepared frames the deliverer remembers.
  static constexpr size_t kPreparedFramesKept = kPreparationWindow;

  // Library-wide verbosity, from "vendor.debug.camcoordinator.force.log". The guard, the
  // licence queue and the records copy it when they are built.
  // Not synchronised: every constructor writes it and every send reads it with no lock (its
  // type is part of the exported interface and stays a plain int32_t). An integrator builds
  // all deliverers before their request and event threads start sending, and builds no
  // deliverer while another one is in use.
  // Internal: public because FrameContext's inline constructor reads it. Written in setup only.
  static int32_t mLogLevel;

  // Thread: setup. Blocks: no. Takes the pipe manager's instance and the log level property
  // (writes mLogLevel, see there). `pool` is the pool the client emplaces its records in; it
  // must not be null (it is dereferenced by the first send).
  explicit CamDeliver(std::shared_ptr<FrameContextPool> pool);
  // Hands every queued licence back first.
  // Thread: setup. Blocks: on the pipe manager's releaseLicense. Destroying the deliverer
  // while a thread is inside it is undefined: its locks and guard die under that thread.
  virtual ~CamDeliver();
  CamDeliver(const CamDeliver&) = delete;
  CamDeliver& operator=(const CamDeliver&) = delete;

  // Once per (sensor, frame), before any job of the frame. The first sensor of a frame
  // obtains the licences of all its sensors.
  // Thread: the sensor's request thread, in its frame order. Blocks: on mPrepareMutex and
  // mLicenseMutex (other preparations, licence fetches); never waits in the guard. `fc` must
  // not be null: a frame's first preparation dereferences it, a later one aborts
  //   "[S:%d F:%d] pFc nullptr !". Aborts (bad record, frame outside the 20-frame window):
  //   "[F:%d] weird synclist count", "[F:%d] sensorId(%d) in synclist but not in enqlist",
  //   "[S:%d F:%d] license should not exist !!, please check the flow !!".
  void prepare(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<const FrameContext> fc)
      ORVCAM_EXCLUDES(mPrepareMutex, mLicenseMutex);
  // Internal: prepare() calls it for a frame's first preparation, under mPrepareMutex.
  // Thread: request thread (inside prepare). Blocks: on mLicenseMutex. Clients do not call
  // it: a second call for a frame whose licences are still queued aborts
  //   "[S:%d F:%d] license should not exist !!, please check the flow !!".
  void prepareLicense(int32_t frameNo, std::shared_ptr<const FrameContext> fc)
      ORVCAM_EXCLUDES(mLicenseMutex);

  // Thread: the sensor's request thread. Blocks: on the guard, until the off sensor's previous
  // frame is enqueued (raw switch) and the previous synchronised frame is fully enqueued or
  // broken; then runs the job under the sensor's configure licence and marks it configured.
  // The job's result is discarded (execute()'s return is not read): a job keeps its own.
  // Aborts: "[S:%d F:%d] FC not found !", "[S:%d F:%d] unexpected not enq count(%d)",
  // "[S:%d F:%d] No license to config, please check flow !!". `job` must not be null.
  void sendJobForConfigure(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<IReqJob> job)
      ORVCAM_EXCLUDES(mPrepareMutex, mLicenseMutex);
  // The job's result, or -1 when there was no licence (the job is then not run).
  // Thread: the sensor's request thread. Blocks: on the guard, as sendJobForConfigure; then
  // shared on mJobLock while an InformInflight report changes FDs. kNoFrame: a fresh licence,
  // waits only for the sync group of the sensor's latest enqueued frame, reports no
  // completion. Aborts: "[S:%d F:%d] pJob is null", "[S:%d F:%d] FC not found !",
  // "[S:%d F:%d] unexpected not enq count(%d)".
  int32_t sendJobForEnque(uint32_t sensorId, uint32_t frameNo, std::shared_ptr<IReqJob> job)
      ORVCAM_EXCLUDES(mPrepareMutex, mLicenseMutex);
  // Internal: the sends fetch their licence with it; a client calling it takes the licence
  // from the send (which then returns -1, or aborts for a configure job). Returns the licence
  // queued under `key` (sensorId, or sensorId | kConfigKeyBase) for the frame, null when
  // absent; for kNoFrame a fresh one. Thread: request thread. Blocks: on mLicenseMutex.
  std::unique_ptr<IRequestLicense> getLicense(uint32_t key, uint32_t frameNo)
      ORVCAM_EXCLUDES(mLicenseMutex);
  // The sensor was configured without a configure job: its configure licence goes back.
  // Thread: the sensor's request thread (also after a drop of the frame). Blocks: no (but for
  // the pipe manager's releaseLicense). A frame no longer in the pool only warns. Aborts:
  //   "[S:%d F:%d] FC already finished, please check it !" (every enqueue of it was done),
  //   "[S:%d F:%d] FC not found !" (kNoFrame, with no record kept under that number).
  void setConfigured(uint32_t sensorId, uint32_t frameNo);
  // Hands back every queued licence, of every sensor.
  // Thread: event thread, right after notifyEvent(Flush, sensorId, ...). `sensorId` is not
  // read: whichever sensor is named, every sensor's licences go. Blocks: on the pipe
  // manager's releaseLicense. Afterwards pending enqueues return -1 and a configure send for
  // a flushed frame aborts "[S:%d F:%d] No license to config, please check flow !!".
  void flush(uint32_t sensorId);

  // Thread: event thread. Blocks: no, except InformInflight with value 0: on mJobLock, until
  // running enqueue jobs return. Drop: hands back the sensor's enqueue licence of the frame,
  // which then counts prepared, configured and enqueued for it. Flush: the sensor's prepared
  // in-map frames count configured and enqueued; its order restarts. Other types: logged.
  // InformInflight with value 0 aborts: "[S:%d F:%d] pFc nullptr !",
  //   "frameNo(%d) not exist, check it has been poped or not",
  //   "[S:%d] configure frame(%d) must not in change-FD flow, please check
  //   CamDeliver::prepareLicense() !" (one message, too long for one line).
  void notifyEvent(EventType type, uint32_t sensorId, uint32_t frameNo, uint32_t value);

  // Writes the deliverer's state to `fd` for a dumpsys: the pool's records, each sensor's next
  // order stamp, the prepared-frame list, the queued licences, and what every prepared sensor
  // still waits for. Thread: any thread. Blocks: at most 10 ms in all: each lock is only
  // tried until then, and a part whose lock stayed busy is reported as not read. Writes no
  // log line and changes nothing.
  // Unchecked: the analysis cannot follow a lock that is only tried and then released later.
  void dump(int fd) ORVCAM_NO_THREAD_SAFETY_ANALYSIS;

  // Lock order, never reversed: mPrepareMutex -> mLicenseMutex; mJobLock -> mLicenseMutex;
  // then the guard's, the pool's and a record's locks; the licence queue's lock is a leaf.
  // No deliverer lock is held while a thread waits in the guard.
  //
  // Held for the whole of prepare(): serialises preparation across sensors. Guards
  // mPreparedFrames; the licences a frame's first preparation pushes are guarded by the
  // licence queue's own lock.
  // Internal: public for the exported layout; clients never lock it.
  std::mutex mPrepareMutex ORVCAM_ACQUIRED_BEFORE(mLicenseMutex);
  // Never locked. It stays because CamDeliver is exported: removing it would move every later
  // member and break integrators' binaries built against this layout.
  // Internal: layout only.
  std::mutex mSpareMutex;
  // Held for the whole of prepareLicense() and getLicense(): the queue fills and empties
  // under it. Guards no field of its own; it makes a frame's licence preparation and a
  // licence fetch exclude each other.
  // Internal: public for the exported layout; clients never lock it.
  std::mutex mLicenseMutex ORVCAM_ACQUIRED_BEFORE(mLicenseQueue.mutex);
  // Shared by an enqueue send from licence fetch to finished(); exclusive while an in-flight
  // report changes frame descriptors and breaks frame sync. Guards no field. The standard
  // library's shared_mutex carries no thread-safety attributes, so its uses are unchecked.
  // Internal: public for the exported layout; clients never lock it.
  std::shared_mutex mJobLock;
  // Internal: the pipe manager's instance, set by the constructor.
  std::shared_ptr<IPipeMgr> mpPipeMgr;
  // Internal: the ordering core; public for the exported layout, the tools and the tests.
  CamDeliverGuard mGuard;
  // Frames whose licences were prepared, oldest first; the 20 most recent.
  // Internal: public for the exported layout.
  std::deque<uint32_t> mPreparedFrames ORVCAM_GUARDED_BY(mPrepareMutex);
  // Internal: the licences prepared ahead; public for the exported layout and the tools.
  LicenseQueue mLicenseQueue;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
