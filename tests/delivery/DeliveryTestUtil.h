#pragma once
// Frame records and jobs as a camera coordinator builds them, for the delivery tests.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "CamDeliver.h"
#include "FrameContextPool.h"
#include "TestSupport.h"

namespace orvcam {
namespace test {

namespace cc = NSCam::camsys::camcoordinator;
using cc::CamDeliver;
using cc::CamDeliverGuard;
using cc::FrameContext;
using cc::FrameContextPool;
using FcPtr = std::shared_ptr<const FrameContext>;
constexpr uint32_t kNoFrame = CamDeliver::kNoFrame;

// One sensor's part in a frame.
struct Part {
  uint32_t sensor;
  bool enq = true;
  bool cfg = false;
  int32_t streaming = -1;
};

// Every sensor of the frame is in its in-map list, so a flush of the sensor visits it.
inline FcPtr makeFrame(uint32_t frameNo, const std::vector<Part>& parts,
                       std::set<uint32_t> sync = {}) {
  std::unordered_map<uint32_t, FrameContext::SensorState> states;
  std::set<uint32_t> all;
  for (const Part& p : parts) {
    states[p.sensor].needEnq = p.enq;
    states[p.sensor].needCfg = p.cfg;
    states[p.sensor].streamingState = p.streaming;
    all.insert(p.sensor);
  }
  return std::make_shared<const FrameContext>(frameNo, std::move(sync), std::move(all),
                                              std::move(states), false);
}

inline FcPtr addFrame(FrameContextPool& pool, uint32_t frameNo, const std::vector<Part>& parts,
                      std::set<uint32_t> sync = {}) {
  FcPtr fc = makeFrame(frameNo, parts, std::move(sync));
  pool.emplace(frameNo, fc);
  return fc;
}

inline size_t poolSize(FrameContextPool& pool) {
  std::lock_guard<std::mutex> lock(pool.mutex);
  return pool.pool.size();
}

inline bool isConfigured(const FcPtr& fc, uint32_t sensor) {
  std::lock_guard<std::mutex> lock(fc->mutex);
  return fc->sensorStates.at(sensor).isConfigured;
}

// ---- Where a sender is, from the guard's own lines ----------------------------------------
//
// The guard writes these under its lock. "wait previous syncframe enque ..." comes each time
// the frame-sync check fails, right before the thread sleeps; the pool writes its
// previous-frame line each time a check looks the sensor's previous frame up; "enqed -" ends
// the raw-switch wait. They need the debug lines on (LoggerScope's default).

inline std::string label(bool isConfig) { return isConfig ? "ConfigJob" : "EnqJob"; }
// Frame numbers are printed with "%d": the "no frame" number shows as -1.
inline std::string frameText(uint32_t f) { return std::to_string(static_cast<int32_t>(f)); }

inline std::string syncWaitLine(uint32_t s, uint32_t f, bool isConfig = false) {
  return "[operator()] [S:" + std::to_string(s) + " F:" + frameText(f) + "][" + label(isConfig) +
         "] wait previous syncframe enque ...";
}

inline std::string offSensorLine(uint32_t s, uint32_t f, uint32_t off, bool isConfig, char sign) {
  return "[wait] [S:" + std::to_string(s) + " F:" + frameText(f) + "][" + label(isConfig) +
         "] wait offSensor(" + std::to_string(off) + ") enqed " + sign;
}

inline std::string previousFrameLine(uint32_t s, uint32_t f, uint32_t prev, uint64_t order,
                                     uint64_t currentOrder) {
  return "[getPreviousFC] [S:" + std::to_string(s) + " F:" + frameText(f) +
         "] get previous frameNo(" + std::to_string(prev) + ") order(" + std::to_string(order) +
         ") < currentOrder(" + std::to_string(currentOrder) + ")";
}

// A sender asleep in the guard: `checkLine` is written by each of its checks, `passLine`
// (optional) when a check lets it through.
struct Sleeper {
  const host::LogCapture& capture;
  CamDeliverGuard& guard;
  const BlockingCall& call;
  std::string checkLine;
  std::string passLine;

  // Its `n`th check has run and failed: the line is there and, once the guard's lock has been
  // free, no pass line followed, so the thread sleeps in the guard.
  ::testing::AssertionResult checkedAndAsleep(size_t n = 1) const {
    if (!capture.waitFor(checkLine, n)) {
      return ::testing::AssertionFailure()
             << "no check number " << n << " within " << kReleaseBound.count() << " ms: \""
             << checkLine << "\"";
    }
    { std::lock_guard<std::mutex> lock(guard.mutex); }
    if (!passLine.empty() && capture.has(passLine)) {
      return ::testing::AssertionFailure() << "let through: \"" << passLine << "\"";
    }
    if (call.returned()) return ::testing::AssertionFailure() << "the call returned";
    return ::testing::AssertionSuccess();
  }

  // `change` wakes every waiter (follow a change that does not with a pure wake-up such as
  // breakFrameSync(s, {})); the sender checks once more and goes back to sleep.
  ::testing::AssertionResult staysAsleepThrough(const std::function<void()>& change) const {
    const size_t before = capture.count(checkLine);
    change();
    return checkedAndAsleep(before + 1);
  }
};

// Holds a job inside execute() until the test opens it: the job has its licence and has not
// reported completion yet. Both waits are bounded.
class Gate {
 public:
  void hold() {
    std::unique_lock<std::mutex> lock(mMutex);
    mEntered = true;
    mCond.notify_all();
    mCond.wait_for(lock, kReleaseBound, [this] { return mOpen; });
  }
  bool entered() {
    std::unique_lock<std::mutex> lock(mMutex);
    return mCond.wait_for(lock, kReleaseBound, [this] { return mEntered; });
  }
  void open() {
    std::lock_guard<std::mutex> lock(mMutex);
    mOpen = true;
    mCond.notify_all();
  }

 private:
  std::mutex mMutex;
  std::condition_variable mCond;
  bool mEntered = false;
  bool mOpen = false;
};

// An enqueue job that remembers the FD of the licence it was given and whether it ran.
class RecordingJob : public cc::ReqBaseJob {
 public:
  explicit RecordingJob(int32_t result = 0, std::function<void()> onExecute = {})
      : mResult(result), mOnExecute(std::move(onExecute)) {}
  int32_t assignLicense(std::unique_ptr<IRequestLicense> license) override {
    fd = license ? license->getFD() : -2;
    return ReqBaseJob::assignLicense(std::move(license));
  }
  int32_t execute() override {
    if (mOnExecute) mOnExecute();
    executed = true;
    return mResult;
  }

  int32_t fd = -1;  // -1: never given a licence
  bool executed = false;

 private:
  int32_t mResult;
  std::function<void()> mOnExecute;
};

}  // namespace test
}  // namespace orvcam
