// The explored coordinator of CoordinatorUnderTest.h and its seeded faults.
#include "CoordinatorUnderTest.h"

#include <pthread.h>

#include <condition_variable>
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

namespace coordinator_under_test {
namespace {

namespace cc = NSCam::camsys::camcoordinator;
namespace ex = orvcam::explore;
using cc::CamDeliver;

constexpr uint32_t kSensors = 2;
constexpr uint32_t kFrames = 3;
constexpr uint32_t kDropSensor = 1;  // drop path: sensor 1's request for frame 2
constexpr uint32_t kDropFrame = 2;
constexpr uint32_t kFlushedFrame = 3;  // flush path: frame 3 is discarded
constexpr unsigned kBoth = 0x3;

class Coordinator {
 public:
  Coordinator(Path path, Bug bug) : mPath(path), mBug(bug) {
    for (uint32_t f = 1; f <= kFrames; ++f) {
      std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
      for (uint32_t s = 0; s < kSensors; ++s) states[s].needEnq = true;
      std::set<uint32_t> both{0, 1};
      auto fc = std::make_shared<const cc::FrameContext>(f, both, both, states, false);
      ex::name(&fc->mutex, "F:" + std::to_string(f) + ".mutex");
      mPool->emplace(f, fc);
    }
    ex::name(&mMutex, "coordinator.mutex");
    ex::name(&mCond, "coordinator.cond");
    // The library's own objects by name too: the search then knows a state it met in an
    // earlier schedule, whose objects were at other addresses.
    ex::name(&mPool->mutex, "pool.mutex");
    ex::name(&mDeliver->mPrepareMutex, "deliver.prepareMutex");
    ex::name(&mDeliver->mLicenseMutex, "deliver.licenseMutex");
    ex::name(&mDeliver->mJobLock, "deliver.jobLock");
    ex::name(&mDeliver->mGuard.mutex, "guard.mutex");
    ex::name(&mDeliver->mGuard.cond, "guard.cond");
    ex::name(&mDeliver->mGuard.eraseCond, "guard.eraseCond");
    ex::name(&mDeliver->mLicenseQueue.mutex, "licenseQueue.mutex");
  }

  // The session's records: each frame emplaced and prepared for both sensors, in frame
  // order, before the threads start.
  void record() {
    for (uint32_t f = 1; f <= kFrames; ++f) {
      std::shared_ptr<const cc::FrameContext> fc = mPool->tryGet(f);
      for (uint32_t s = 0; s < kSensors; ++s) mDeliver->prepare(s, f, fc);
    }
  }

  // A request thread: sends its frames in frame order.
  void requestThread(uint32_t sensor) {
    pthread_setname_np(pthread_self(), sensor == 0 ? "sensor 0" : "sensor 1");
    for (uint32_t f = 1; f <= kFrames; ++f) sendFrame(sensor, f);
  }

  // The pipeline thread: reports its one event, a drop or a flush.
  void pipelineThread() {
    pthread_setname_np(pthread_self(), "pipeline");
    if (mPath == Path::Drop) {
      reportDrop();
    } else {
      reportFlush();
    }
  }

  // After every thread has ended.
  void finish() {
    std::lock_guard<std::mutex> lock(mMutex);
    int expected = mPath == Path::Flush ? 4 : mDropped ? 5 : 6;
    if (mEnqueued != expected) {
      ex::fail(std::to_string(mEnqueued) + " enqueues ran, " + std::to_string(expected) +
               " expected");
    }
    for (uint32_t f = 1; f <= kFrames; ++f) {
      if (mPool->exist(f)) ex::fail("F:" + std::to_string(f) + " is still in the pool");
    }
  }

 private:
  void sendFrame(uint32_t sensor, uint32_t f) {
    if (mPath == Path::Flush && f == kFlushedFrame) {
      // Held until the flush, which discards it: nothing is sent for it.
      std::unique_lock<std::mutex> lock(mMutex);
      mCond.wait(lock, [&] { return mFlushed; });
      return;
    }
    if (!claimSend(sensor, f)) {
      // Dropped: the sensor sends nothing for the frame, and goes on once it is reported.
      std::unique_lock<std::mutex> lock(mMutex);
      mCond.wait(lock, [&] { return mDropReported; });
      return;
    }
    auto job = std::make_shared<cc::ReqBaseJob>();
    if (mBug == Bug::LockAcrossSend && sensor == 0 && f == 2) {
      std::lock_guard<std::mutex> lock(mMutex);
      recordLocked(sensor, f, mDeliver->sendJobForEnque(sensor, f, job));
      return;
    }
    int32_t result = mDeliver->sendJobForEnque(sensor, f, job);
    std::lock_guard<std::mutex> lock(mMutex);
    recordLocked(sensor, f, result);
  }

  // Request thread: hands the request over to the pipeline (noted under the lock), unless
  // the pipeline dropped it. The check and the claim are one hold of the lock, so that a drop
  // is either recorded before (no send) or not made at all.
  bool claimSend(uint32_t sensor, uint32_t f) {
    const bool dropFrame = mPath == Path::Drop && sensor == kDropSensor && f == kDropFrame;
    if (dropFrame && mBug == Bug::DropFlagReadEarly) {
      bool dropped;
      {
        std::lock_guard<std::mutex> lock(mMutex);
        dropped = mDropped;
      }
      if (dropped) return false;
      std::lock_guard<std::mutex> lock(mMutex);
      mClaimed[f] |= 1u << sensor;  // the drop may have been recorded since the check
      return true;
    }
    std::lock_guard<std::mutex> lock(mMutex);
    if (dropFrame && mDropped) return false;
    mClaimed[f] |= 1u << sensor;
    return true;
  }

  void recordLocked(uint32_t sensor, uint32_t f, int32_t result) {
    if (result != 0) {
      ex::fail("S:" + std::to_string(sensor) + " F:" + std::to_string(f) +
               ": the enqueue returned " + std::to_string(result));
    } else {
      ++mEnqueued;
    }
    mDone[f] |= 1u << sensor;
    if (mPath == Path::Flush && quiet()) mCond.notify_all();  // the flush waits for this
  }

  // Flush path: frames 1 and 2 are finished by both sensors; no send is pending or to come
  // but frame 3's, which are held.
  bool quiet() const { return mDone[1] == kBoth && mDone[2] == kBoth; }

  // Drop path, pipeline thread: the pipeline drops sensor 1's request for frame 2 unless the
  // sensor already handed it over.
  void reportDrop() {
    std::unique_lock<std::mutex> lock(mMutex);
    if (mClaimed[kDropFrame] & (1u << kDropSensor)) return;  // in the pipeline: nothing to drop
    mDropped = true;
    lock.unlock();
    mDeliver->notifyEvent(CamDeliver::Drop, kDropSensor, kDropFrame, 0);
    lock.lock();
    mDropReported = true;
    mCond.notify_all();
  }

  // Flush path, pipeline thread: the flush at a quiet barrier. Frames 1 and 2 finished by
  // both sensors (no send pending or to come), frame 3 prepared (above) and its sends held;
  // then the flush of each sensor, and the deliverer's flush once.
  void reportFlush() {
    std::unique_lock<std::mutex> lock(mMutex);
    if (mBug != Bug::FlushWithoutBarrier) mCond.wait(lock, [&] { return quiet(); });
    lock.unlock();
    for (uint32_t s = 0; s < kSensors; ++s) mDeliver->notifyEvent(CamDeliver::Flush, s, 0, 0);
    mDeliver->flush(0);
    lock.lock();
    mFlushed = true;
    if (mBug != Bug::LostNotification) mCond.notify_all();
  }

  const Path mPath;
  const Bug mBug;
  std::shared_ptr<cc::FrameContextPool> mPool = std::make_shared<cc::FrameContextPool>();
  std::unique_ptr<CamDeliver> mDeliver = std::make_unique<CamDeliver>(mPool);
  std::mutex mMutex;
  std::condition_variable mCond;
  // Under mMutex.
  unsigned mDone[kFrames + 1] = {};  // per frame (1..3), a bit per sensor whose send returned
  int mEnqueued = 0;
  unsigned mClaimed[kFrames + 1] = {};  // per frame, a bit per sensor that handed it over
  bool mDropped = false;                // drop path: the pipeline dropped sensor 1's frame 2
  bool mDropReported = false;           // drop path: and reported the drop
  bool mFlushed = false;                // flush path: frame 3 was discarded
};

}  // namespace

void runSession(Path path, Bug bug) {
  Coordinator c(path, bug);
  c.record();
  std::thread s0([&] { c.requestThread(0); });
  std::thread s1([&] { c.requestThread(1); });
  std::thread pipeline([&] { c.pipelineThread(); });
  s0.join();
  s1.join();
  pipeline.join();
  c.finish();
}

}  // namespace coordinator_under_test
