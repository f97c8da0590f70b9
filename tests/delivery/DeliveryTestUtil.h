#pragma once
// Frame records and jobs as a camera coordinator builds them, for the delivery tests.
#include <functional>
#include <memory>
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
constexpr uint32_t kNoFrame = 0xFFFFFFFF;

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
