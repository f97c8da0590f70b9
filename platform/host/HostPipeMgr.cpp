// Host pipe manager: hands out request licences, counts what becomes of them and records
// configure calls, so that tests and the simulator can check the library's licence traffic.
#include <atomic>

#include "HostPlatform.h"

namespace NSCam {
namespace camsys {
namespace pipemgr {
namespace isp7 {

IRequestLicense::~IRequestLicense() = default;
ILicenseMgr::~ILicenseMgr() = default;
IPipeMgr::~IPipeMgr() = default;

}  // namespace isp7
}  // namespace pipemgr
}  // namespace camsys
}  // namespace NSCam

namespace orvcam {
namespace host {

using Observer = std::function<void(LicenseEvent, uint64_t, int32_t)>;

namespace detail {

struct PipeMgrState {
  // Guards every field below; shared by a manager and the licences it handed out. A leaf
  // lock: the library may hold its own locks when it calls in, and nothing is called while
  // it is held (the observer runs after it is released, a dying observer too).
  std::mutex mutex;
  int32_t nextFd ORVCAM_GUARDED_BY(mutex) = 1;
  // Bumped by reset(); older licences are no longer counted.
  uint64_t generation ORVCAM_GUARDED_BY(mutex) = 0;
  bool managerAlive ORVCAM_GUARDED_BY(mutex) = true;
  LicenseAccount account ORVCAM_GUARDED_BY(mutex);
  std::vector<ConfigureCall> configureCalls ORVCAM_GUARDED_BY(mutex);
  // Copied under the lock and called outside it, so an observer may call the manager.
  std::shared_ptr<const Observer> observer ORVCAM_GUARDED_BY(mutex);
};

}  // namespace detail

namespace {

// Serials are unique across managers and resets, until restartLicenceSerials(). A counter
// under a leaf lock, not an atomic add, so that whoever follows the host's memory by value
// (camdeliver-explore) reads the serial a licence got as the counter's value.
struct Serials {
  std::mutex mutex;
  uint64_t next ORVCAM_GUARDED_BY(mutex) = 1;
};

Serials& serials() {
  static Serials* s = new Serials;  // leaked: licences may outlive static destruction
  return *s;
}

uint64_t nextSerial() {
  Serials& s = serials();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.next++;
}

void notify(const std::shared_ptr<const Observer>& observer, LicenseEvent event, uint64_t serial,
            int32_t fd) {
  if (observer && *observer) (*observer)(event, serial, fd);
}

}  // namespace

// The lock and the observer (no-throw by contract) could only throw on a broken mutex or a
// broken observer, which ends the process either way.
HostLicense::~HostLicense() {  // NOLINT(bugprone-exception-escape)
  if (mReleased) return;
  std::shared_ptr<const Observer> observer;
  {
    std::lock_guard<std::mutex> lock(mState->mutex);
    if (mGeneration != mState->generation) return;
    ++mState->account.destroyed;
    // The observer belongs to the manager; once the manager is gone nobody listens.
    if (mState->managerAlive) observer = mState->observer;
  }
  notify(observer, LicenseEvent::Destroyed, mSerial, mFd);
}

HostPipeMgr::HostPipeMgr() : mState(std::make_shared<detail::PipeMgrState>()) {}

// An observer goes out of the state under the lock but dies after it: it may own licences of
// this manager, whose destructors take the lock.
HostPipeMgr::~HostPipeMgr() {
  std::shared_ptr<const Observer> old;
  std::lock_guard<std::mutex> lock(mState->mutex);
  mState->managerAlive = false;
  old.swap(mState->observer);
}

std::unique_ptr<IRequestLicense> HostPipeMgr::acquireLicense() {
  int32_t fd;
  {
    std::lock_guard<std::mutex> lock(mState->mutex);
    fd = mState->nextFd++;
  }
  return acquireLicenseForFD(fd);
}

std::unique_ptr<IRequestLicense> HostPipeMgr::acquireLicenseForFD(int32_t fd) {
  uint64_t serial = nextSerial();
  std::shared_ptr<const Observer> observer;
  uint64_t generation;
  {
    std::lock_guard<std::mutex> lock(mState->mutex);
    ++mState->account.acquired;
    generation = mState->generation;
    observer = mState->observer;
  }
  std::unique_ptr<IRequestLicense> license(new HostLicense(mState, generation, fd, serial));
  notify(observer, LicenseEvent::Acquired, serial, fd);
  return license;
}

void HostPipeMgr::releaseLicense(std::unique_ptr<IRequestLicense>& license, bool /*flag1*/,
                                 bool /*flag2*/) {
  std::unique_ptr<IRequestLicense> taken = std::move(license);
  if (!taken) {
    std::lock_guard<std::mutex> lock(mState->mutex);
    ++mState->account.emptyReleases;
    return;
  }
  auto* host = dynamic_cast<HostLicense*>(taken.get());
  // A licence of another manager (or not of the host at all) is only destroyed here; its own
  // manager counts it as destroyed without release.
  if (host == nullptr || host->mState != mState) return;
  host->mReleased = true;
  std::shared_ptr<const Observer> observer;
  {
    std::lock_guard<std::mutex> lock(mState->mutex);
    if (host->mGeneration != mState->generation) return;
    ++mState->account.released;
    observer = mState->observer;
  }
  notify(observer, LicenseEvent::Released, host->mSerial, host->mFd);
}

std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>> HostPipeMgr::configure(
    const std::shared_ptr<ConfigParam>& config, std::unique_ptr<IRequestLicense>& license) {
  ConfigureCall call{config ? *config : ConfigParam{}, -1, 0};
  if (license) {
    call.fd = license->getFD();
    auto* host = dynamic_cast<HostLicense*>(license.get());
    if (host != nullptr && host->mState == mState) call.serial = host->mSerial;
  }
  {
    std::lock_guard<std::mutex> lock(mState->mutex);
    mState->configureCalls.push_back(call);
  }
  return {{call.config.sensorId, std::make_tuple(call.config.frameNo, call.fd, 0)}};
}

LicenseAccount HostPipeMgr::account() const {
  std::lock_guard<std::mutex> lock(mState->mutex);
  return mState->account;
}

std::vector<ConfigureCall> HostPipeMgr::configureCalls() const {
  std::lock_guard<std::mutex> lock(mState->mutex);
  return mState->configureCalls;
}

void HostPipeMgr::setObserver(std::function<void(LicenseEvent, uint64_t, int32_t)> observer) {
  auto shared = observer ? std::make_shared<const Observer>(std::move(observer)) : nullptr;
  std::lock_guard<std::mutex> lock(mState->mutex);
  shared.swap(mState->observer);  // the old one dies in `shared`, after the lock
}

void HostPipeMgr::reset() {
  std::lock_guard<std::mutex> lock(mState->mutex);
  ++mState->generation;
  mState->nextFd = 1;
  mState->account = LicenseAccount{};
  mState->configureCalls.clear();
}

namespace {

// Leaked on purpose: licences and the library's objects may outlive static destruction.
struct Instance {
  // Guards which manager getInstance() hands out. A leaf lock, held only to copy a pointer;
  // taken when a deliverer or a licence queue is built, under none of the library's locks.
  std::mutex mutex;
  std::shared_ptr<HostPipeMgr> host ORVCAM_GUARDED_BY(mutex) = std::make_shared<HostPipeMgr>();
  std::shared_ptr<IPipeMgr> replacement ORVCAM_GUARDED_BY(mutex);
};

Instance& instance() {
  static Instance* s = new Instance;
  return *s;
}

}  // namespace

std::shared_ptr<HostPipeMgr> hostPipeMgr() {
  Instance& s = instance();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.host;
}

void restartLicenceSerials() {
  Serials& s = serials();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.next = 1;
}

void setPipeMgrInstance(std::shared_ptr<IPipeMgr> replacement) {
  Instance& s = instance();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.replacement = std::move(replacement);
}

}  // namespace host
}  // namespace orvcam

std::shared_ptr<NSCam::camsys::pipemgr::isp7::IPipeMgr>
NSCam::camsys::pipemgr::isp7::IPipeMgr::getInstance() {
  orvcam::host::Instance& s = orvcam::host::instance();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.replacement) return s.replacement;
  return s.host;
}
