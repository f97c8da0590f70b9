#pragma once
// Jobs that a sensor's request thread hands to the deliverer. The deliverer gives each job
// the licence prepared for it, then executes it.
// Contracts use the words of ThreadContext.h (Thread:, Blocks:, Internal:, Aborts:).
#include <cstdint>
#include <memory>

#include "CamDeliverExport.h"
#include "pipemgr/IPipeMgr.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

// Implemented by the client; the library calls it inside a send, never holding a lock of its
// own (mJobLock excepted: shared, for an enqueue job).
class IReqJob {
 public:
  using IRequestLicense = NSCam::camsys::pipemgr::isp7::IRequestLicense;
  // Thread: any thread: the last owner of the shared_ptr, usually the sender's request thread.
  virtual ~IReqJob() {}
  // Runs the job; an enqueue job's result is handed back to its sender.
  // Thread: the sender's request thread, inside the send, after assignLicense. A configure
  // job's result is discarded. An enqueue job's run keeps InformInflight reports waiting, so
  // it must not wait for the event thread. It may block on the pipeline; later frames wait.
  virtual int32_t execute() = 0;
  // Takes over the licence the job runs under.
  // Thread: the sender's request thread, inside the send, once, just before execute(); never
  // called when there is no licence. The result is not read.
  virtual int32_t assignLicense(std::unique_ptr<IRequestLicense> license) = 0;
};

// Holds its licence and does nothing else. A licence it still holds when it dies is
// destroyed, not handed back.
class ORVCAM_CAMDELIVER_API ReqBaseJob : public IReqJob {
 public:
  // Thread: any thread. Blocks: no.
  ReqBaseJob() {}
  // Thread: any thread. Destroys, without handing back, a licence still held.
  ~ReqBaseJob() override;
  // Thread: the sender's request thread (see IReqJob). Blocks: no. Returns 0.
  int32_t execute() override;
  // Thread: the sender's request thread (see IReqJob). Blocks: no. Stores the licence in
  // mpLicense, destroying one it held before. Returns 0.
  int32_t assignLicense(std::unique_ptr<IRequestLicense> license) override;

  // The licence the job runs under, set by assignLicense. Thread: request thread: read and
  // handed back by a derived execute(); nobody else touches it during the send.
  std::unique_ptr<IRequestLicense> mpLicense;
};

// Configures the pipe manager under its licence, then hands the licence back.
class ORVCAM_CAMDELIVER_API ReqCfgJob : public ReqBaseJob {
 public:
  using IPipeMgr = NSCam::camsys::pipemgr::isp7::IPipeMgr;
  // The configure request's contents: ReqCfgJob::ConfigParam is the pipe manager's
  // pipemgr::isp7::ConfigParam, declared in pipemgr/IPipeMgr.h.
  using ConfigParam = NSCam::camsys::pipemgr::isp7::ConfigParam;

  // Thread: any thread; the request thread sends it with sendJobForConfigure. Blocks: no.
  ReqCfgJob(std::shared_ptr<IPipeMgr> pipeMgr, std::shared_ptr<ConfigParam> config)
      : mpPipeMgr(std::move(pipeMgr)), mpConfig(std::move(config)) {}
  // Thread: any thread.
  ~ReqCfgJob() override;
  // Thread: the sender's request thread, inside sendJobForConfigure. Blocks: on the pipe
  // manager's configure and releaseLicense. The manager's answer is not kept; returns 0.
  int32_t execute() override;

  // Thread: any thread, before the job is sent (the constructor sets it); then read by
  // execute() on the request thread. Must not be null.
  std::shared_ptr<IPipeMgr> mpPipeMgr;
  // Thread: any thread, before the job is sent (the constructor sets it); then read by
  // execute() on the request thread. Must not be null.
  std::shared_ptr<ConfigParam> mpConfig;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
