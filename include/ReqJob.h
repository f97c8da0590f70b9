#pragma once
// Jobs that a sensor's request thread hands to the deliverer. The deliverer gives each job
// the licence prepared for it, then executes it.
#include <cstdint>
#include <memory>

#include "CamDeliverExport.h"
#include "pipemgr/IPipeMgr.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

class IReqJob {
 public:
  using IRequestLicense = NSCam::camsys::pipemgr::isp7::IRequestLicense;
  virtual ~IReqJob() {}
  // Runs the job; an enqueue job's result is handed back to its sender.
  virtual int32_t execute() = 0;
  // Takes over the licence the job runs under.
  virtual int32_t assignLicense(std::unique_ptr<IRequestLicense> license) = 0;
};

// Holds its licence and does nothing else. A licence it still holds when it dies is
// destroyed, not handed back.
class ORVCAM_CAMDELIVER_API ReqBaseJob : public IReqJob {
 public:
  ReqBaseJob() {}
  ~ReqBaseJob() override;
  int32_t execute() override;
  int32_t assignLicense(std::unique_ptr<IRequestLicense> license) override;

  std::unique_ptr<IRequestLicense> mpLicense;
};

// Configures the pipe manager under its licence, then hands the licence back.
class ORVCAM_CAMDELIVER_API ReqCfgJob : public ReqBaseJob {
 public:
  using IPipeMgr = NSCam::camsys::pipemgr::isp7::IPipeMgr;
  using ConfigParam = NSCam::camsys::pipemgr::isp7::ConfigParam;

  ReqCfgJob(std::shared_ptr<IPipeMgr> pipeMgr, std::shared_ptr<ConfigParam> config)
      : mpPipeMgr(std::move(pipeMgr)), mpConfig(std::move(config)) {}
  ~ReqCfgJob() override;
  int32_t execute() override;

  std::shared_ptr<IPipeMgr> mpPipeMgr;
  std::shared_ptr<ConfigParam> mpConfig;
};

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
