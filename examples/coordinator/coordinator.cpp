#include "coordinator.h"

#include <unistd.h>

#include <cstdio>
#include <random>
#include <thread>
#include <unordered_map>

#include "HostPlatform.h"

namespace example {

namespace {

using Clock = std::chrono::steady_clock;
using cc::CamDeliver;

// How many frames the pipeline keeps in flight. A real ISP pipeline has a handful of requests
// queued; whatever the depth, it must stay below the pool's limit: the pool aborts when it
// would hold its 20th record.
constexpr uint32_t kPipelineDepth = 8;
static_assert(kPipelineDepth < cc::FrameContextPool::kMaxRecords,
              "the pool holds at most kMaxRecords - 1 records");
// The deliverer remembers the 20 frames it prepared first most recently; a frame must be
// prepared by all of its sensors before 20 later frames have been.
constexpr uint32_t kWindow = CamDeliver::kPreparedFramesKept;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// An enqueue job. On a device it hands the request to the pipeline together with its licence,
// and the pipeline hands the licence back to the pipe manager once the request is through.
// Here the pipeline's work is a short sleep and the job hands the licence back itself. A job
// that drops its licence instead (ReqBaseJob's destructor destroys it) leaks it: the pipe
// manager never gets it back.
class EnqueueJob : public cc::ReqBaseJob {
 public:
  explicit EnqueueJob(std::chrono::microseconds work) : mWork(work) {}
  int32_t execute() override {
    if (mWork.count() > 0) std::this_thread::sleep_for(mWork);
    CamDeliver::IPipeMgr::getInstance()->releaseLicense(mpLicense, false, false);
    return 0;  // what sendJobForEnque() returns to the request thread
  }

 private:
  std::chrono::microseconds mWork;
};

}  // namespace

bool FramePlan::has(uint32_t s) const {
  for (uint32_t id : sensors) {
    if (id == s) return true;
  }
  return false;
}

namespace {

// Frame by frame, the script of `plan`'s events (its frame numbers set) for o.frames frames.
// Sensor 0 streams throughout; sensor 1 until the raw switch, in frame sync with sensor 0;
// sensor 2 from the raw switch on, on its own; sensors 3 and up throughout, on their own.
void addFrames(Plan& plan, const Options& o) {
  const uint32_t first = kFirstFrame;
  for (uint32_t f = first; f < first + o.frames; ++f) {
    FramePlan p;
    p.frameNo = f;
    p.sensors.push_back(0);
    if (f <= plan.rawSwitchFrame) p.sensors.push_back(1);
    if (f >= plan.rawSwitchFrame) p.sensors.push_back(2);
    for (uint32_t s = 3; s < o.sensors; ++s) p.sensors.push_back(s);
    // The pair is synchronised up to and including the raw-switch frame, where sensor 1 still
    // takes part (as the sensor going off).
    if (f <= plan.rawSwitchFrame) p.syncList = {0, 1};
    if (f == first && plan.configureAtStart) {
      // Session start: every streaming sensor is configured. Sensor 1 shows the other way:
      // its mode is already right (say the previous session left it so), so it only reports
      // setConfigured(), which hands the unused configure licence back.
      for (uint32_t s : p.sensors) (s == 1 ? p.configureBySet : p.configureByJob).insert(s);
    }
    if (f == plan.dropFrame) {
      // Sensor 1 would be reconfigured here (a new sensor mode), but the pipeline drops its
      // request before the request thread gets to configure it.
      p.configureByJob.insert(1);
      p.droppedSensor = 1;
    }
    if (f >= plan.flushFrame && f < plan.flushFrame + plan.flushCount) p.flushed = true;
    if (f == plan.rawSwitchFrame) {
      p.offSensor = 1;
      p.onSensor = 2;
      p.configureByJob.insert(2);  // the sensor coming on is configured with its first frame
    }
    plan.frames.push_back(std::move(p));
  }
}

}  // namespace

// The session's script: the events are spread over the run so that each happens with frames
// in flight.
Plan makePlan(const Options& o) {
  Plan plan;
  plan.dropFrame = kFirstFrame + o.frames / 6;
  plan.flushFrame = kFirstFrame + o.frames / 3;
  plan.inflightFrame = kFirstFrame + o.frames / 2;
  plan.rawSwitchFrame = kFirstFrame + o.frames * 2 / 3;
  addFrames(plan, o);
  return plan;
}

Options smallOptions() {
  Options o;
  o.frames = 2;
  o.sensors = 2;
  o.frameInterval = std::chrono::microseconds(0);
  o.jobsTakeTime = false;
  o.watchdog = false;
  return o;
}

// No raw switch (sensor 1 streams throughout, in sync with sensor 0), no configuration, and
// one event: sensor 1's request for frame 2 dropped; frame 2 flushed; or sensor 1 reported
// with nothing in flight before frame 2's record.
Plan makeSmallPlan(Event event) {
  Plan plan;
  plan.rawSwitchFrame = UINT32_MAX;
  plan.flushCount = 0;
  plan.configureAtStart = false;
  if (event == Event::Drop) plan.dropFrame = 2;
  if (event == Event::Flush) {
    plan.flushFrame = 2;
    plan.flushCount = 1;
  }
  if (event == Event::Inflight) plan.inflightFrame = 2;
  addFrames(plan, smallOptions());
  return plan;
}

Coordinator::Coordinator(Options options, Plan plan)
    : mOptions(options),
      mPlan(std::move(plan)),
      mFrames(mPlan.frames.size()),
      mSends(options.sensors) {}

void Coordinator::progress() { mLastProgress = nowNs(); }

// ---- the client's rules, on its own view of the frames (mMutex held) -----------------------

bool Coordinator::complete(uint32_t f) {
  return state(f).flushed || state(f).done.size() == plan(f).sensors.size();
}

bool Coordinator::fullyPrepared(uint32_t f) {
  return state(f).flushed || state(f).prepared.size() == plan(f).sensors.size();
}

// Record before prepare: the record must be in the pool. And frames are prepared for the
// first time in frame order: a sensor that is ahead (sensor 2 joining at the raw switch, for
// one) waits until some sensor has prepared the frame before. That keeps the deliverer's list
// of recently prepared frames in frame order, which the emplace rule below relies on.
bool Coordinator::mayPrepare(uint32_t f) {
  return state(f).emplaced && (f == kFirstFrame || !state(f - 1).prepared.empty());
}

// A sensor sends (configure, then enqueue) only once every sensor of the frame has prepared
// it. The deliverer allows earlier sends, but this is the simple rule that is always right:
// on a raw-switch frame the sensor going off must have prepared it before anybody sends for
// it, because the deliverer finds that sensor's previous frame through this preparation.
// While the flush is pending, sends of the frames it will discard are held.
bool Coordinator::maySend(uint32_t f) { return f < mSendGate && fullyPrepared(f); }

// Two limits on the pipeline. The pool aborts on its 20th record, so the pipeline's depth
// stays below it. And a frame is emplaced only once the frame 20 places before it has been
// prepared by all of its sensors: otherwise a lagging sensor could find its frame gone from
// the deliverer's window, which makes the deliverer fetch the frame's licences again (abort).
bool Coordinator::mayEmplace(uint32_t f) {
  if (mInFlight >= kPipelineDepth) return false;
  return f < kFirstFrame + kWindow || fullyPrepared(f - kWindow);
}

// An in-flight report with value 0 changes the frame descriptors of the licences still queued
// for the sensor's synchronised frames. Every such frame in flight must have its licences
// queued (prepared) and none may be a configure frame (a configure licence must not change
// FD). Drops are reported on this same thread, so none can run at the same time.
bool Coordinator::inflightReportAllowed() {
  for (const FramePlan& p : mPlan.frames) {
    const FrameState& st = state(p.frameNo);
    if (!st.emplaced || complete(p.frameNo) || !p.syncList.count(mPlan.inflightSensor)) continue;
    if (!fullyPrepared(p.frameNo)) return false;
    if (!p.configureByJob.empty() || !p.configureBySet.empty()) return false;
  }
  return true;
}

void Coordinator::markDoneLocked(uint32_t sensor, uint32_t f) {
  bool wasComplete = complete(f);
  state(f).done.insert(sensor);
  if (!wasComplete && complete(f)) --mInFlight;
  mCond.notify_all();
}

// ---- request threads -----------------------------------------------------------------------

// One per sensor, as in a HAL: it prepares its frames as their records arrive, in its own
// frame order (that call order is what the deliverer calls the sensor's previous frame), and
// sends them one after the other. A send blocks inside the deliverer until the frame may go,
// so while it waits this thread prepares nothing; the client never makes a send wait for a
// preparation that only this thread could do.
void Coordinator::sensorLoop(uint32_t sensor) {
  std::vector<uint32_t> mine;
  for (const FramePlan& p : mPlan.frames) {
    if (p.has(sensor)) mine.push_back(p.frameNo);
  }
  size_t toPrepare = 0;
  size_t toSend = 0;
  std::unique_lock<std::mutex> lock(mMutex);
  while (toSend < mine.size()) {
    while (toPrepare < mine.size() && mayPrepare(mine[toPrepare])) {
      uint32_t f = mine[toPrepare];
      std::shared_ptr<const cc::FrameContext> fc = state(f).fc;
      lock.unlock();
      mDeliver->prepare(sensor, f, fc);  // once per (sensor, frame); the first one takes the
      progress();                        // licences of every sensor of the frame
      lock.lock();
      state(f).prepared.insert(sensor);
      ++toPrepare;
      mCond.notify_all();
    }
    uint32_t f = mine[toSend];
    if (state(f).flushed) {  // discarded: nothing is sent for it
      ++toSend;
      continue;
    }
    if (!maySend(f)) {
      mCond.wait(lock);
      continue;
    }
    lock.unlock();
    sendFrame(sensor, plan(f));
    lock.lock();
    ++toSend;
  }
}

void Coordinator::sendFrame(uint32_t sensor, const FramePlan& p) {
  const uint32_t f = p.frameNo;
  SendWatch& watch = mSends[sensor];
  if (p.droppedSensor == int64_t(sensor)) {
    // The pipeline rejects this request; its event thread reports the drop and this thread
    // waits for that. Afterwards the sensor sends nothing for the frame: the drop counted it
    // as enqueued and the record may already have left the pool (a send would abort with
    // "FC not found"). The drop hands back only the enqueue licence; the configure licence
    // goes back with setConfigured(), never with a configure job, for the same reason.
    {
      std::unique_lock<std::mutex> lock(mMutex);
      mDropRequests.push_back(f);
      mCond.notify_all();
      mCond.wait(lock, [&] { return state(f).dropReported; });
    }
    if (p.needsConfigure(sensor)) {
      mDeliver->setConfigured(sensor, f);
      progress();
      std::lock_guard<std::mutex> lock(mMutex);
      ++mSummary.setConfigured;
    }
    return;
  }

  // Configure. The configure job configures the pipe manager under its licence and hands the
  // licence back itself (ReqCfgJob::execute); setConfigured() says the sensor needs nothing
  // and hands the unused licence back.
  if (p.configureByJob.count(sensor)) {
    auto param = std::make_shared<cc::ReqCfgJob::ConfigParam>();
    param->sensorId = sensor;
    param->frameNo = f;
    auto job = std::make_shared<cc::ReqCfgJob>(CamDeliver::IPipeMgr::getInstance(), param);
    watch.frameNo = f;
    watch.since = nowNs();
    mDeliver->sendJobForConfigure(sensor, f, job);
    watch.since = 0;
    progress();
    std::lock_guard<std::mutex> lock(mMutex);
    ++mSummary.configureJobs;
  } else if (p.configureBySet.count(sensor)) {
    mDeliver->setConfigured(sensor, f);
    progress();
    std::lock_guard<std::mutex> lock(mMutex);
    ++mSummary.setConfigured;
  }

  // Enqueue. Blocks until the frame may go (frame sync with the partners' previous frame, the
  // raw-switch rule), runs the job under its licence and returns the job's result, or -1 when
  // the licence was gone (flushed or dropped) and the job did not run.
  thread_local std::minstd_rand rng(sensor + 1);
  auto work = std::chrono::microseconds(mOptions.jobsTakeTime ? 300 + rng() % 1200 : 0);
  watch.frameNo = f;
  watch.since = nowNs();
  int32_t result = mDeliver->sendJobForEnque(sensor, f, std::make_shared<EnqueueJob>(work));
  watch.since = 0;
  progress();
  std::lock_guard<std::mutex> lock(mMutex);
  ++mSummary.enqueues;
  if (result != 0) {
    ++mSummary.enqueueFailures;
    std::fprintf(stdout, "camdeliver-example: S:%u F:%u: the enqueue returned %d, not 0\n", sensor,
                 f, result);
  }
  markDoneLocked(sensor, f);
}

// ---- pipeline thread -----------------------------------------------------------------------

// The pipeline's event thread reports the drops the request threads ran into. Called with
// mMutex held; releases it around each report.
void Coordinator::reportDropsLocked(std::unique_lock<std::mutex>& lock) {
  while (!mDropRequests.empty()) {
    const uint32_t f = mDropRequests.front();
    mDropRequests.pop_front();
    const uint32_t sensor = uint32_t(plan(f).droppedSensor);
    lock.unlock();
    mDeliver->notifyEvent(CamDeliver::Drop, sensor, f, 0);
    progress();
    lock.lock();
    state(f).dropReported = true;
    ++mSummary.drops;
    markDoneLocked(sensor, f);
  }
}

// Waits until `ready`, reporting drops meanwhile. The short timeout lets the frame clock tick.
template <typename Pred>
void Coordinator::pipelineWait(std::unique_lock<std::mutex>& lock, Pred ready) {
  for (;;) {
    reportDropsLocked(lock);
    if (ready()) return;
    mCond.wait_for(lock, std::chrono::milliseconds(1));
  }
}

// Record: the frame's record goes into the pool before any sensor prepares it.
void Coordinator::emplaceLocked(std::unique_lock<std::mutex>& lock, uint32_t f) {
  const FramePlan& p = plan(f);
  std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
  for (uint32_t s : p.sensors) {
    cc::FrameContext::SensorState st;
    st.sensorCode = s;
    st.needEnq = true;  // every sensor of the frame enqueues (or is dropped)
    st.needCfg = p.needsConfigure(s);
    // On the raw-switch frame the sensor going off has 1 and the one coming on 0; the
    // deliverer then lets nobody go before the off sensor's previous frame is enqueued.
    st.streamingState = int64_t(s) == p.offSensor ? 1 : int64_t(s) == p.onSensor ? 0 : -1;
    states[s] = st;
  }
  // The in-map list is every sensor of the frame: a flush of a sensor visits its frames.
  std::set<uint32_t> inMap(p.sensors.begin(), p.sensors.end());
  auto fc = std::make_shared<const cc::FrameContext>(f, p.syncList, inMap, std::move(states),
                                                     p.offSensor >= 0);
  lock.unlock();
  mPool->emplace(f, fc);
  progress();
  lock.lock();
  state(f).fc = fc;
  state(f).emplaced = true;
  ++mInFlight;
  mCond.notify_all();
}

// The flush (the framework's flush(): discard the requests not yet handed to the pipeline).
// The deliverer's flush is a barrier for the whole stream, so it is done at a quiet point:
//   1. hold every send of the frames to be discarded (mSendGate) and let every earlier frame
//      finish, so that no send is pending or running;
//   2. emplace the frames to be discarded and let every sensor prepare them;
//   3. notifyEvent(Flush, s, 0, 0) for every sensor of those frames: each frame counts as
//      configured and enqueued for s, and s's preparation order starts again at 0 (nothing
//      prepared earlier stays in the pool, so old and new order stamps never meet);
//   4. CamDeliver::flush(s) once: it hands back every queued licence of every sensor, whatever
//      sensor it is given; it gets the sensor the flush request was for (mPlan.flushSensor);
//   5. the request threads skip the discarded frames and go on with the next frame.
void Coordinator::flushLocked(std::unique_lock<std::mutex>& lock) {
  const uint32_t first = mPlan.flushFrame;
  const uint32_t end = first + mPlan.flushCount;
  mSendGate = first;
  pipelineWait(lock, [&] {
    for (uint32_t f = kFirstFrame; f < first; ++f) {
      if (!complete(f)) return false;
    }
    return true;
  });
  for (uint32_t f = first; f < end; ++f) {
    pipelineWait(lock, [&] { return mayEmplace(f); });
    emplaceLocked(lock, f);
  }
  pipelineWait(lock, [&] {
    for (uint32_t f = first; f < end; ++f) {
      if (!fullyPrepared(f)) return false;
    }
    return true;
  });
  std::set<uint32_t> others;
  for (uint32_t f = first; f < end; ++f)
    others.insert(plan(f).sensors.begin(), plan(f).sensors.end());
  others.erase(mPlan.flushSensor);
  std::vector<uint32_t> sensors{mPlan.flushSensor};  // the named sensor first
  sensors.insert(sensors.end(), others.begin(), others.end());
  lock.unlock();
  for (uint32_t s : sensors) mDeliver->notifyEvent(CamDeliver::Flush, s, 0, 0);
  mDeliver->flush(mPlan.flushSensor);
  progress();
  lock.lock();
  for (uint32_t f = first; f < end; ++f) {
    state(f).flushed = true;
    --mInFlight;
    ++mSummary.framesFlushed;
  }
  mSendGate = UINT32_MAX;
  mCond.notify_all();
}

// The frame clock: one record per tick, within the limits above, and the pipeline's events.
void Coordinator::pipelineLoop() {
  std::unique_lock<std::mutex> lock(mMutex);
  const Clock::time_point start = Clock::now();
  for (const FramePlan& p : mPlan.frames) {
    const uint32_t f = p.frameNo;
    if (state(f).emplaced) continue;  // emplaced by the flush
    const Clock::time_point tick = start + mOptions.frameInterval * (f - kFirstFrame);
    pipelineWait(lock, [&] { return Clock::now() >= tick && mayEmplace(f); });
    if (f == mPlan.flushFrame) {
      flushLocked(lock);
      continue;
    }
    if (f == mPlan.inflightFrame) {
      // The pipeline says sensor 1 has nothing in flight (say its stream was suspended and
      // resumed): its synchronised frames stop waiting for it. Reported before this frame's
      // record, once the frames in flight allow it (see inflightReportAllowed()).
      pipelineWait(lock, [&] { return inflightReportAllowed(); });
      for (const FramePlan& q : mPlan.frames) {
        if (state(q.frameNo).emplaced && !complete(q.frameNo) &&
            q.syncList.count(mPlan.inflightSensor)) {
          ++mSummary.inflightNamed;
        }
      }
      lock.unlock();
      mDeliver->notifyEvent(CamDeliver::InformInflight, mPlan.inflightSensor, 0, 0);
      progress();
      lock.lock();
    }
    emplaceLocked(lock, f);
  }
  pipelineWait(lock, [&] {
    for (const FramePlan& q : mPlan.frames) {
      if (!complete(q.frameNo)) return false;
    }
    return true;
  });
}

// ---- watchdog ------------------------------------------------------------------------------

// A send that waits longer than the limit is a stall: the deliverer's state goes to stderr
// (dump() never blocks on the deliverer's locks, so it works on a hung process), and the run
// fails. If nothing moves for three times the limit, the process ends here: a stuck request
// thread would otherwise hang it (and CI) for good.
void Coordinator::watchdogLoop() {
  const int64_t limit = std::chrono::nanoseconds(mOptions.stallLimit).count();
  while (!mFinished) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const int64_t now = nowNs();
    for (size_t s = 0; s < mSends.size(); ++s) {
      int64_t since = mSends[s].since;
      if (since == 0 || now - since <= limit || mStalled) continue;
      mStalled = true;
      std::fprintf(stderr, "camdeliver-example: S:%zu F:%u has waited %lld ms in a send\n", s,
                   mSends[s].frameNo.load(), static_cast<long long>((now - since) / 1000000));
      mDeliver->dump(STDERR_FILENO);
    }
    if (now - mLastProgress > 3 * limit) {
      std::fprintf(stderr, "camdeliver-example: no progress for %lld ms, giving up\n",
                   static_cast<long long>((now - mLastProgress) / 1000000));
      if (!mStalled) mDeliver->dump(STDERR_FILENO);
      std::fflush(nullptr);
      std::_Exit(1);
    }
  }
}

// ---- the run -------------------------------------------------------------------------------

Summary Coordinator::run() {
  // One pool, shared by the client (which emplaces) and the deliverer (which reads and
  // retires records). The deliverer reads the force-log property when it is built, so the
  // logging settings are made before this.
  mPool = std::make_shared<cc::FrameContextPool>();
  mDeliver = std::make_unique<CamDeliver>(mPool);
  progress();

  std::vector<std::thread> threads;
  threads.emplace_back([this] { pipelineLoop(); });
  for (uint32_t s = 0; s < mOptions.sensors; ++s)
    threads.emplace_back([this, s] { sensorLoop(s); });
  std::thread watchdog;
  if (mOptions.watchdog) watchdog = std::thread([this] { watchdogLoop(); });
  for (std::thread& t : threads) t.join();
  mFinished = true;
  if (watchdog.joinable()) watchdog.join();

  // Every frame is done: the pool must be empty and every licence handed back (none is still
  // queued in the deliverer, none was destroyed instead of handed back).
  Summary summary;
  {
    std::lock_guard<std::mutex> lock(mMutex);
    summary = mSummary;
  }
  for (const FramePlan& p : mPlan.frames) {
    if (mPool->exist(p.frameNo)) ++summary.framesLeftInPool;
  }
  const orvcam::host::LicenseAccount account = orvcam::host::hostPipeMgr()->account();
  summary.licencesAcquired = account.acquired;
  summary.licencesReleased = account.released;
  summary.licencesDestroyed = account.destroyed;
  summary.emptyReleases = account.emptyReleases;
  summary.balanced = account.balanced();
  summary.stalled = mStalled;
  for (const FramePlan& p : mPlan.frames) {
    if (!p.flushed) summary.expectedEnqueues += p.sensors.size() - (p.droppedSensor >= 0 ? 1 : 0);
  }
  mDeliver.reset();  // no thread is inside it any more
  return summary;
}

bool Summary::clean() const {
  return enqueues == expectedEnqueues && enqueueFailures == 0 && framesLeftInPool == 0 &&
         balanced && licencesDestroyed == 0 && emptyReleases == 0 && !stalled;
}

std::string Summary::line(const Options& o, const Plan& plan) const {
  const std::string rawSwitch = plan.rawSwitchFrame == UINT32_MAX
                                    ? std::string("no raw switch")
                                    : "raw switch at F:" + std::to_string(plan.rawSwitchFrame);
  char text[512];
  std::snprintf(
      text, sizeof text,
      "camdeliver-example: %s: %u frames, %u sensors: %llu enqueues (%llu expected, %llu failed), "
      "%llu configure jobs, %llu setConfigured, %llu drop, %llu frames flushed, in-flight "
      "report named %llu frame(s), %s; %zu record(s) left in the pool; licences "
      "%llu acquired, %llu handed back, %llu destroyed%s",
      clean() ? "clean" : "FAILED", o.frames, o.sensors, static_cast<unsigned long long>(enqueues),
      static_cast<unsigned long long>(expectedEnqueues),
      static_cast<unsigned long long>(enqueueFailures),
      static_cast<unsigned long long>(configureJobs),
      static_cast<unsigned long long>(setConfigured), static_cast<unsigned long long>(drops),
      static_cast<unsigned long long>(framesFlushed),
      static_cast<unsigned long long>(inflightNamed), rawSwitch.c_str(), framesLeftInPool,
      static_cast<unsigned long long>(licencesAcquired),
      static_cast<unsigned long long>(licencesReleased),
      static_cast<unsigned long long>(licencesDestroyed), stalled ? "; a send stalled" : "");
  return text;
}

}  // namespace example
