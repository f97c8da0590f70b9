// A minimal client: one frame of two frame-synchronised sensors through the deliverer on the
// host platform. Exits 0 when both enqueues ran and every licence went back.
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include "CamDeliver.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"

using namespace NSCam::camsys::camcoordinator;

// An enqueue job that hands its licence back when the pipeline is done with it.
struct EnqueueJob : ReqBaseJob {
  int32_t execute() override {
    CamDeliver::IPipeMgr::getInstance()->releaseLicense(mpLicense, false, false);
    return 0;
  }
};

int main() {
  auto pool = std::make_shared<FrameContextPool>();
  int32_t results[2] = {-1, -1};
  {
    CamDeliver deliver(pool);
    FrameContext::SensorState state;
    state.needEnq = true;
    auto fc = std::make_shared<const FrameContext>(
        1, std::set<uint32_t>{0, 1}, std::set<uint32_t>{0, 1},
        std::unordered_map<uint32_t, FrameContext::SensorState>{{0, state}, {1, state}}, false);
    pool->emplace(1, fc);
    auto sensor = [&](uint32_t id) {  // each sensor's request thread
      deliver.prepare(id, 1, fc);
      results[id] = deliver.sendJobForEnque(id, 1, std::make_shared<EnqueueJob>());
    };
    std::thread sensor1(sensor, 1);
    sensor(0);
    sensor1.join();
  }
  const orvcam::host::LicenseAccount account = orvcam::host::hostPipeMgr()->account();
  size_t frames = 0;
  {
    // The pool's records are guarded by its lock; a consumer built with -Wthread-safety is
    // told so if it reads them without it.
    std::lock_guard<std::mutex> lock(pool->mutex);
    frames = pool->pool.size();
  }
  std::printf("results %d %d, licences acquired %llu released %llu, %zu frames in the pool\n",
              results[0], results[1], static_cast<unsigned long long>(account.acquired),
              static_cast<unsigned long long>(account.released), frames);
  return results[0] == 0 && results[1] == 0 && account.acquired > 0 && account.balanced() &&
                 frames == 0
             ? 0
             : 1;
}
