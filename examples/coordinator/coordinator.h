#pragma once
// A camera coordinator around liborvcam_camdeliver, written to be copied: one CamDeliver and one
// FrameContextPool shared with it, one request thread per sensor, a pipeline thread that
// builds each frame's record on a frame clock and reports the pipeline's events, and a
// watchdog. Every frame goes record -> prepare -> configure -> enqueue; around them the run
// shows a drop, a flush, an in-flight report and a raw switch, each at a point where the
// deliverer's rules allow it.
//
// Sensors (default 3): sensors 0 and 1 are a frame-synchronised pair (say wide and ultra-wide
// for depth) until the raw switch; sensor 2 (say tele) shares a raw engine with sensor 1 and is
// switched in at the raw-switch frame, replacing sensor 1, and then streams unsynchronised.
// Sensors 3 and up, if asked for, stream on their own from the first frame.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"

namespace example {

namespace cc = NSCam::camsys::camcoordinator;

struct Options {
  uint32_t frames = 60;
  uint32_t sensors = 3;
  std::chrono::milliseconds stallLimit{2000};  // a send waiting longer is a stall
  // The frame clock. A sensor at 30 fps delivers a frame every 33 ms; the example runs faster
  // than a camera so that frames overlap and sends wait on each other.
  std::chrono::microseconds frameInterval{1000};
  // Whether an enqueue job's pipeline work takes time (a sleep of 0.3 to 1.5 ms).
  bool jobsTakeTime = true;
  // The watchdog that ends a stuck run. An explored run goes without: the explorer judges a
  // stuck schedule itself, and a thread that sleeps in a loop is no scheduling point of its.
  bool watchdog = true;
};

// What the camera session asks of one frame, fixed before the threads start. A HAL builds this
// from the capture request; here it comes from a fixed script (see makePlan()).
struct FramePlan {
  uint32_t frameNo = 0;
  std::vector<uint32_t> sensors;      // sensors taking part, ascending
  std::set<uint32_t> syncList;        // kept in frame sync: none, or two or more
  std::set<uint32_t> configureByJob;  // need configuration, sent as a ReqCfgJob
  std::set<uint32_t> configureBySet;  // need configuration, reported with setConfigured()
  int64_t offSensor = -1;             // raw switch: the sensor going off (streamingState 1)
  int64_t onSensor = -1;              // and the one coming on (streamingState 0)
  int64_t droppedSensor = -1;         // the pipeline drops this sensor's request
  bool flushed = false;               // discarded by the flush before it is sent
  bool has(uint32_t s) const;
  bool needsConfigure(uint32_t s) const {
    return configureByJob.count(s) || configureBySet.count(s);
  }
};

// The script: where the drop, flush, in-flight report and raw switch fall. A frame number of
// 0 (frames start at kFirstFrame) or a flush of no frames leaves that event out.
struct Plan {
  std::vector<FramePlan> frames;  // frames[i].frameNo == kFirstFrame + i
  uint32_t dropFrame = 0;
  uint32_t flushFrame = 0;  // first of the frames the flush discards
  uint32_t flushCount = 3;
  uint32_t inflightFrame = 0;  // the report comes before this frame's record
  uint32_t inflightSensor = 1;
  uint32_t rawSwitchFrame = 0;   // UINT32_MAX: none (sensor 1 streams throughout)
  uint32_t flushSensor = 0;      // the sensor the framework's flush request names
  bool configureAtStart = true;  // the first frame configures every sensor
};

constexpr uint32_t kFirstFrame = 1;
Plan makePlan(const Options& options);

// The small sessions an explored run takes (explore.cpp): sensors 0 and 1 in frame sync over
// two frames, with one of the pipeline's events. Their options: smallOptions().
enum class Event { Drop, Flush, Inflight };
Plan makeSmallPlan(Event event);
Options smallOptions();

struct Summary {
  uint64_t enqueues = 0;
  uint64_t expectedEnqueues = 0;  // from the script: every sensor of every frame kept, less drops
  uint64_t enqueueFailures = 0;   // sends that returned something other than the job's 0
  uint64_t configureJobs = 0;
  uint64_t setConfigured = 0;
  uint64_t drops = 0;
  uint64_t framesFlushed = 0;
  uint64_t inflightNamed = 0;  // frames in flight named by the in-flight report
  size_t framesLeftInPool = 0;
  uint64_t licencesAcquired = 0;
  uint64_t licencesReleased = 0;
  uint64_t licencesDestroyed = 0;  // destroyed without being handed back: a leak
  uint64_t emptyReleases = 0;
  bool balanced = false;
  bool stalled = false;
  bool clean() const;
  std::string line(const Options& options, const Plan& plan) const;
};

class Coordinator {
 public:
  Coordinator(Options options, Plan plan);
  Coordinator(const Coordinator&) = delete;
  Coordinator& operator=(const Coordinator&) = delete;
  // Runs every frame through the deliverer and checks what is left; never hangs (the
  // watchdog ends a stuck process).
  Summary run();

 private:
  // The client's own view of one frame; guarded by mMutex.
  struct FrameState {
    std::shared_ptr<const cc::FrameContext> fc;  // set when the record is emplaced
    bool emplaced = false;
    bool flushed = false;
    std::set<uint32_t> prepared;  // sensors whose prepare() has returned
    std::set<uint32_t> done;      // sensors finished with it: enqueued or dropped
    bool dropReported = false;
  };

  void sensorLoop(uint32_t sensor);
  void sendFrame(uint32_t sensor, const FramePlan& p);
  void pipelineLoop();
  void watchdogLoop();

  // Helpers that expect mMutex held.
  FrameState& state(uint32_t frameNo) { return mFrames[frameNo - kFirstFrame]; }
  const FramePlan& plan(uint32_t frameNo) const { return mPlan.frames[frameNo - kFirstFrame]; }
  bool complete(uint32_t frameNo);
  bool fullyPrepared(uint32_t frameNo);
  bool mayPrepare(uint32_t frameNo);
  bool maySend(uint32_t frameNo);
  bool mayEmplace(uint32_t frameNo);
  bool inflightReportAllowed();
  template <typename Pred>
  void pipelineWait(std::unique_lock<std::mutex>& lock, Pred pred);
  void reportDropsLocked(std::unique_lock<std::mutex>& lock);
  void emplaceLocked(std::unique_lock<std::mutex>& lock, uint32_t frameNo);
  void flushLocked(std::unique_lock<std::mutex>& lock);
  void markDoneLocked(uint32_t sensor, uint32_t frameNo);
  void progress();

  const Options mOptions;
  const Plan mPlan;
  std::shared_ptr<cc::FrameContextPool> mPool;
  std::unique_ptr<cc::CamDeliver> mDeliver;

  std::mutex mMutex;  // never held across a call into the deliverer or the pool
  std::condition_variable mCond;
  std::vector<FrameState> mFrames;
  std::deque<uint32_t> mDropRequests;  // frames whose drop a request thread asks to be reported
  uint32_t mInFlight = 0;              // emplaced and not complete
  uint32_t mSendGate = UINT32_MAX;     // sends of this frame and later are held (the flush)
  Summary mSummary;

  // Read by the watchdog without mMutex.
  struct SendWatch {
    std::atomic<int64_t> since{0};  // steady-clock ns when the current send began; 0: none
    std::atomic<uint32_t> frameNo{0};
  };
  std::vector<SendWatch> mSends;
  std::atomic<int64_t> mLastProgress{0};
  std::atomic<bool> mFinished{false};
  std::atomic<bool> mStalled{false};
};

}  // namespace example
