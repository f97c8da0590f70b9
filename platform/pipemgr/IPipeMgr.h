#pragma once
// Interface of the pipe manager (liborvcam_pipemgr on a device) as this library uses it.
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
  virtual ~IRequestLicense();
  virtual int32_t getFD() const = 0;
};

class ILicenseMgr {
 public:
  virtual ~ILicenseMgr();
  // A licence with a new FD of its own.
  virtual std::unique_ptr<IRequestLicense> acquireLicense() = 0;
  // A further licence sharing `fd`.
  virtual std::unique_ptr<IRequestLicense> acquireLicenseForFD(int32_t fd) = 0;
  // Takes a licence back. The manager may move it out of `license`; what is left there when
  // the call returns belongs to the caller.
  virtual void releaseLicense(std::unique_ptr<IRequestLicense>& license, bool flag1,
                              bool flag2) = 0;
};

// What a configure request tells the pipeline.
struct ConfigParam {
  uint32_t sensorId = 0;
  uint32_t frameNo = 0;
};

class IPipeMgr : public virtual ILicenseMgr {
 public:
  ~IPipeMgr() override;
  // The process-wide manager; never null.
  static std::shared_ptr<IPipeMgr> getInstance();
  // Configures the pipeline under `license`; answers sensor id -> (value, value, value).
  virtual std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>> configure(
      const std::shared_ptr<ConfigParam>& config, std::unique_ptr<IRequestLicense>& license) = 0;
};

}  // namespace isp7
}  // namespace pipemgr
}  // namespace camsys
}  // namespace NSCam
#pragma GCC visibility pop
