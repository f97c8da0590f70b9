#pragma once
// Interface of the pipe manager (liborvcam_pipemgr on a device) as this library uses it.
// The platform implements it; the library calls it. Contracts use the words of the library's
// ThreadContext.h: the library calls the manager and licences from every sensor's request
// thread and the event thread at once, sometimes holding its licence queue's lock or its
// mLicenseMutex, so an implementation is thread-safe and never calls back into the library.
#include <cstdint>
#include <map>
#include <memory>
#include <tuple>

#pragma GCC visibility push(default)
namespace NSCam {
namespace camsys {
namespace pipemgr {
namespace isp7 {

// A permit that a request carries into the pipeline. Licences of one request of several
// frame-synchronised sensors share one frame descriptor number (FD).
class IRequestLicense {
 public:
  // Thread: any thread: whoever holds the licence last (a job, the library, the manager).
  virtual ~IRequestLicense();
  // Thread: any thread. Blocks: no. The licence's frame descriptor number.
  virtual int32_t getFD() const = 0;
};

class ILicenseMgr {
 public:
  // Thread: setup (the manager outlives every deliverer).
  virtual ~ILicenseMgr();
  // A licence with a new FD of its own.
  // Thread: request thread (prepare, a kNoFrame send) or event thread (InformInflight), under
  // the library's locks. Must not return null: the library dereferences the result.
  virtual std::unique_ptr<IRequestLicense> acquireLicense() = 0;
  // A further licence sharing `fd`.
  // Thread: request thread (prepare), under mLicenseMutex. Must not return null.
  virtual std::unique_ptr<IRequestLicense> acquireLicenseForFD(int32_t fd) = 0;
  // Takes a licence back. The manager may move it out of `license`; what is left there when
  // the call returns belongs to the caller.
  // Thread: any thread: request threads (jobs, setConfigured, prepare), the event thread
  // (drop; flush and InformInflight under the queue's lock), setup (~CamDeliver).
  virtual void releaseLicense(std::unique_ptr<IRequestLicense>& license, bool flag1,
                              bool flag2) = 0;
};

// What a configure request tells the pipeline.
// ReqCfgJob::ConfigParam names this type.
struct ConfigParam {
  // Thread: any thread, while the client builds a configure job.
  uint32_t sensorId = 0;
  // Thread: any thread, while the client builds a configure job.
  uint32_t frameNo = 0;
};

class IPipeMgr : public virtual ILicenseMgr {
 public:
  // Thread: setup.
  ~IPipeMgr() override;
  // The process-wide manager; never null.
  // Thread: any thread; the library calls it in the constructors of CamDeliver and
  // LicenseQueue (setup). Blocks: no.
  static std::shared_ptr<IPipeMgr> getInstance();
  // Configures the pipeline under `license`; answers sensor id -> (value, value, value).
  // Thread: request thread, in ReqCfgJob::execute inside sendJobForConfigure, holding no
  // library lock. The library does not read the answer.
  virtual std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>> configure(
      const std::shared_ptr<ConfigParam>& config, std::unique_ptr<IRequestLicense>& license) = 0;
};

}  // namespace isp7
}  // namespace pipemgr
}  // namespace camsys
}  // namespace NSCam
#pragma GCC visibility pop
