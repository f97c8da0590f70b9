// A two-sensor coordinator of its own, explored with the installed harness. Its faulty form
// holds its mutex across a send that waits for the partner sensor, whose thread needs that
// mutex first. Exit 0 when the clean form is exhausted at bound 2 with no finding and the
// faulty one is found as a deadlock whose replay fails again.
#include <pthread.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "CamDeliver.h"
#include "Explore.h"
#include "FrameContext.h"
#include "FrameContextPool.h"

namespace cc = NSCam::camsys::camcoordinator;
namespace ex = orvcam::explore;

namespace {

class Coordinator {
 public:
  explicit Coordinator(bool lockAcrossSend) : mLockAcrossSend(lockAcrossSend) {
    for (uint32_t f = 1; f <= 2; ++f) {
      std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
      states[0].needEnq = true;
      states[1].needEnq = true;
      mPool->emplace(f, std::make_shared<const cc::FrameContext>(
                            f, std::set<uint32_t>{0, 1}, std::set<uint32_t>{0, 1}, states, false));
    }
    ex::name(&mMutex, "coordinator.mutex");
  }

  void requestThread(uint32_t sensor) {
    for (uint32_t f = 1; f <= 2; ++f) {
      mDeliver->prepare(sensor, f, mPool->tryGet(f));
      if (sensor == 1 && f == 1) {
        std::lock_guard<std::mutex> lock(mMutex);
        ++mNotes;
      }
      if (mLockAcrossSend && sensor == 0 && f == 2) {
        std::lock_guard<std::mutex> lock(mMutex);
        mSent += mDeliver->sendJobForEnque(sensor, f, std::make_shared<cc::ReqBaseJob>()) == 0;
        continue;
      }
      int32_t result = mDeliver->sendJobForEnque(sensor, f, std::make_shared<cc::ReqBaseJob>());
      std::lock_guard<std::mutex> lock(mMutex);
      mSent += result == 0;
    }
  }

  int sent() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSent;
  }

 private:
  bool mLockAcrossSend;
  std::shared_ptr<cc::FrameContextPool> mPool = std::make_shared<cc::FrameContextPool>();
  std::unique_ptr<cc::CamDeliver> mDeliver = std::make_unique<cc::CamDeliver>(mPool);
  std::mutex mMutex;
  int mSent = 0;
  int mNotes = 0;
};

void body(bool lockAcrossSend) {
  Coordinator c(lockAcrossSend);
  std::thread s0([&] { c.requestThread(0); });
  std::thread s1([&] { c.requestThread(1); });
  s0.join();
  s1.join();
  if (c.sent() != 4) ex::fail(std::to_string(c.sent()) + " of 4 enqueues ran");
}

}  // namespace

int main() {
  ex::Result clean = ex::check({}, [] { body(false); });
  std::printf("clean: %s\n", ex::describe(clean).c_str());
  if (clean.failed || !clean.exhausted || clean.schedules < 2) return 1;

  ex::Result faulty = ex::check({}, [] { body(true); });
  std::printf("lock across the send: %s\n", ex::describe(faulty).c_str());
  if (!faulty.failed || faulty.findings.empty() ||
      faulty.findings[0].rfind("deadlock: every live thread is blocked", 0) != 0 ||
      faulty.findings[0].find("waits for mutex coordinator.mutex held by") == std::string::npos) {
    return 1;
  }
  ex::Result again = ex::replay(faulty.replay, [] { body(true); });
  if (!again.failed || again.findings.empty() ||
      again.findings[0].rfind("deadlock: every live thread is blocked", 0) != 0) {
    std::printf("the replay did not fail again: %s\n", ex::describe(again).c_str());
    return 1;
  }
  std::printf("explored-coordinator: the clean coordinator passed, the faulty one deadlocked\n");
  return 0;
}
