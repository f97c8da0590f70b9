#include "Runner.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <unordered_map>

#include "AnnotatedLock.h"
#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"
#include "Instrumentation.h"
#include "ThreadAnnotations.h"

namespace orvcam {
namespace sim {

namespace {

constexpr size_t kNoGate = SIZE_MAX;
// The deliverer fetches a frame's licences when the frame's number is not among the 20 it
// first prepared most recently. The client keeps every frame's preparations inside that
// window: first preparations go in frame order, and a frame is emplaced only once the frame
// this many places before it has been prepared by all of its sensors.
constexpr size_t kPreparedWindow = cc::CamDeliver::kPreparedFramesKept;

// The history numbers events as the deliverer does, so that a recorded kind is handed on as is.
static_assert(uint32_t(EventKind::InformInflight) == cc::CamDeliver::InformInflight &&
                  uint32_t(EventKind::ResumeDone) == cc::CamDeliver::ResumeDone &&
                  uint32_t(EventKind::Suspend) == cc::CamDeliver::Suspend &&
                  uint32_t(EventKind::Drop) == cc::CamDeliver::Drop &&
                  uint32_t(EventKind::Flush) == cc::CamDeliver::Flush &&
                  uint32_t(EventKind::LicenseRelease) == cc::CamDeliver::LicenseRelease &&
                  uint32_t(EventKind::RawSwitch) == cc::CamDeliver::RawSwitch,
              "EventKind and CamDeliver::EventType disagree");

}  // namespace

// The client model: a pipeline thread that emplaces frames and reports events, and one request
// thread per sensor that prepares and sends. The observers it uses (licence ledger, job probe,
// watchdog) are in Instrumentation.h.
//
// Threads and locks:
// - `mutex` guards the client's shared state: `frames`, `gate`, `inFlight`, `framesEmplaced`,
//   `framesDone`, `nextFirstPrepare`, `firstPrepareBusy`, `dropRequests`, `racingDrops`,
//   `lateDrops`. It is never held while the deliverer or the pool is called (every library
//   call is made with it released), so it has no order against the library's locks; `cond`
//   goes with it and every change is announced with notify_all.
// - The ledger's mutex is a leaf taken inside the library's calls (Instrumentation.h).
// - The pool's own mutex is read by run() only after every client thread has finished.
// - `logs` entries are each written by one sensor thread; `events` by the pipeline thread;
//   both are read by run() after the threads have been joined.
// Helpers named ...Locked expect `mutex` held by the caller (ORVCAM_REQUIRES); functions that
// take it themselves exclude it, through an AnnotatedLock so that clang's analysis follows the
// lock across the condition-variable waits and the releases around library calls. The helpers
// that release it around a library call (notify, emplaceFrameLocked) unlock the mutex itself and
// relock it before they return (see AnnotatedLock.h).
struct Runner::Impl {
  struct FrameState {
    std::shared_ptr<const cc::FrameContext> fc;
    bool emplaced = false;
    bool flushed = false;
    bool firstPrepareStarted = false;   // a sensor has been chosen to prepare it first
    bool firstPrepareDone = false;      // and that call has returned
    bool syncBroken = false;            // named by an in-flight report with value 0
    std::set<uint32_t> racing;          // sensors with a racing drop in this frame
    std::set<uint32_t> racingSent;      // of those: issued the enqueue send
    std::set<uint32_t> racingReturned;  // of those: the send returned
    std::set<uint32_t> prepared;        // prepare() returned
    std::set<uint32_t> done;            // enqueued, dropped or flushed, as the client sees it
    std::set<uint32_t> dropReported;
  };

  Impl(const Scenario& s, RunOptions o)
      : scenario(s),
        options(std::move(o)),
        plans(planFrames(scenario)),
        watchdog(options.stallTimeout) {
    frames.resize(plans.size());
    for (const auto& cam : scenario.sensors) logs[cam.id] = std::make_unique<SensorLog>();
    for (const auto& e : scenario.events) {
      size_t idx = planIndex(plans, e.frame);
      if (e.kind == EventKind::Drop) {
        dropsPlanned[{e.sensor, e.frame}] = e.when;
        if (e.when == EventTiming::Racing) {
          racingDrops.push_back({e.sensor, idx});
          frames[idx].racing.insert(e.sensor);
        }
        if (e.when == EventTiming::Late) lateDrops.push_back({e.sensor, idx});
      } else {
        eventsAt[idx].push_back(&e);
      }
    }
    for (const auto& n : scenario.noFrameSends) noFrameAfter.insert({n.sensor, n.after});
  }

  Nanos now() const { return probe->now(); }
  void touch() { watchdog.touch(); }

  static bool gated(const PlannedEvent& e) {
    return (e.kind == EventKind::Flush || (e.kind == EventKind::InformInflight && e.value == 0)) &&
           e.when == EventTiming::Usual;
  }

  bool hasGatedEvent(size_t idx) const {
    auto it = eventsAt.find(idx);
    if (it == eventsAt.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [](const PlannedEvent* e) { return gated(*e); });
  }

  bool hasWhileRunningEvent(size_t idx) const {
    auto it = eventsAt.find(idx);
    if (it == eventsAt.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [](const PlannedEvent* e) { return e->when == EventTiming::WhileRunning; });
  }

  bool completeLocked(size_t idx) const ORVCAM_REQUIRES(mutex) {
    return frames[idx].flushed || frames[idx].done.size() == plans[idx].sensors.size();
  }

  // A frame's async track from emplace to retirement, and the count of frames in flight.
  void traceFrameLocked(size_t idx, bool emplaced) ORVCAM_REQUIRES(mutex) {
    if (!options.trace) return;
    std::string name = "F:" + std::to_string(plans[idx].frame);
    if (emplaced) {
      host::traceAsyncBegin(name, plans[idx].frame);
    } else {
      host::traceAsyncEnd(name, plans[idx].frame);
    }
    host::traceCounter("frames in flight", int64_t(inFlight));
  }

  bool fullyPreparedLocked(size_t idx) const ORVCAM_REQUIRES(mutex) {
    return frames[idx].flushed || frames[idx].prepared.size() == plans[idx].sensors.size();
  }

  // A frame may be emplaced once the frame kPreparedWindow places before it is prepared by all
  // of its sensors; with first preparations in frame order, no frame can then drop out of the
  // deliverer's window of recently prepared frames while a sensor still has to prepare it.
  bool mayEmplaceLocked(size_t idx) const ORVCAM_REQUIRES(mutex) {
    return idx < kPreparedWindow || fullyPreparedLocked(idx - kPreparedWindow);
  }

  void markDoneLocked(uint32_t sensor, size_t idx) ORVCAM_REQUIRES(mutex) {
    if (!frames[idx].done.insert(sensor).second || frames[idx].flushed) return;
    if (completeLocked(idx)) {
      --inFlight;
      ++framesDone;
      traceFrameLocked(idx, false);
    }
    touch();
    cond.notify_all();
  }

  const EventTiming* dropFor(uint32_t sensor, uint32_t frame) const {
    auto it = dropsPlanned.find({sensor, frame});
    return it == dropsPlanned.end() ? nullptr : &it->second;
  }

  // ---- sensor threads --------------------------------------------------------------------

  // Whether the sensor may send frame `idx` now: it prepared it itself; the pipeline does not
  // hold the frame; the other sensors prepared it (with early sends: on a raw-switch frame,
  // the off sensor did); a racing drop of another sensor of the frame has been reported.
  bool maySendLocked(uint32_t sensor, size_t idx) const ORVCAM_REQUIRES(mutex) {
    if (idx >= gate) return false;
    const FramePlan& p = plans[idx];
    const FrameState& f = frames[idx];
    if (!f.prepared.count(sensor)) return false;
    if (!scenario.earlySends) {
      if (f.prepared.size() < p.sensors.size()) return false;
    } else if (p.isRawSwitch() && uint32_t(p.offSensor) != sensor &&
               !f.prepared.count(uint32_t(p.offSensor))) {
      return false;
    }
    // A sensor without a racing drop of its own keeps the frame in the pool until every racing
    // sensor's send has returned and its drop has been reported: the racing send must find the
    // frame when it enters the deliverer, whatever the drop did meanwhile.
    if (!f.racing.count(sensor)) {
      for (uint32_t r : f.racing) {
        if (!f.racingReturned.count(r) || !f.dropReported.count(r)) return false;
      }
    }
    return true;
  }

  // Asks the pipeline thread to report the sensor's drop of frame `idx`; with `wait`, returns
  // once it has been reported.
  void requestDrop(SensorLog& log, uint32_t sensor, size_t idx, bool wait) ORVCAM_EXCLUDES(mutex) {
    AnnotatedLock lock(mutex);
    dropRequests.push_back({sensor, idx});
    cond.notify_all();
    if (!wait) return;
    log.set(Activity::WaitingForDrop, plans[idx].frame);
    cond.wait(lock.native(),
              [&]() ORVCAM_REQUIRES(mutex) { return frames[idx].dropReported.count(sensor) > 0; });
  }

  void configureStep(SensorLog& log, uint32_t sensor, const FramePlan& p, bool byJob,
                     std::mt19937_64& rng, const DurationModel& duration) {
    if (byJob) {
      JobRecord& rec = log.newJob(sensor, p.frame, JobKind::Configure);
      auto config = std::make_shared<host::ConfigParam>();
      config->sensorId = sensor;
      config->frameNo = p.frame;
      auto job = std::make_shared<ProbedConfigureJob>(*probe, rec, duration.sample(rng), config);
      log.set(Activity::Configuring, p.frame);
      rec.sent = now();
      deliver->sendJobForConfigure(sensor, p.frame, job);
      if (!rec.ran) rec.end = now();
      ++jobsRun;
    } else {
      log.set(Activity::SetConfigured, p.frame);
      log.setConfigured.push_back({sensor, p.frame, now()});
      LicenceLedger::Scope scope(sensor);
      deliver->setConfigured(sensor, p.frame);
    }
    touch();
  }

  int32_t enqueue(SensorLog& log, uint32_t sensor, uint32_t frame, std::mt19937_64& rng,
                  const DurationModel& duration) {
    JobRecord& rec = log.newJob(sensor, frame, JobKind::Enqueue);
    auto job = std::make_shared<ProbedEnqueueJob>(*probe, rec, duration.sample(rng));
    log.set(Activity::Enqueuing, frame);
    rec.sent = now();
    rec.result = deliver->sendJobForEnque(sensor, frame, job);
    if (!rec.ran) rec.end = now();
    ++jobsRun;
    touch();
    return rec.result;
  }

  // Sends the frame's configure step and enqueue job, or has it dropped. True when the sensor
  // itself is done with the frame; false when the pipeline thread marks it done with the drop.
  bool sendFrame(uint32_t sensor, size_t idx, SensorLog& log, std::mt19937_64& rng,
                 const DurationModel& duration) ORVCAM_EXCLUDES(mutex) {
    const FramePlan& p = plans[idx];
    const EventTiming* drop = dropFor(sensor, p.frame);
    bool needCfg = p.needCfg.count(sensor) > 0;
    if (drop && *drop == EventTiming::BeforeConfigure) {
      requestDrop(log, sensor, idx, true);
      // The frame may have left the pool with the drop: the unused configure licence goes back
      // by setConfigured, which tolerates that, never by a configure job.
      if (needCfg) configureStep(log, sensor, p, false, rng, duration);
      return false;
    }
    if (needCfg) configureStep(log, sensor, p, p.cfgByJob.count(sensor) > 0, rng, duration);
    if (drop && *drop == EventTiming::Usual) {
      requestDrop(log, sensor, idx, false);
      return false;
    }
    bool racing = drop && *drop == EventTiming::Racing;
    if (racing) {
      std::lock_guard<std::mutex> lock(mutex);
      frames[idx].racingSent.insert(sensor);
      cond.notify_all();
    }
    enqueue(log, sensor, p.frame, rng, duration);
    if (racing) {
      std::lock_guard<std::mutex> lock(mutex);
      frames[idx].racingReturned.insert(sensor);
      cond.notify_all();
    }
    return true;
  }

  // Prepares every frame of the sensor as soon as the client allows it, and sends them in
  // order once maySendLocked() lets it.
  void sensorLoop(const SensorSetup& cam) ORVCAM_EXCLUDES(mutex) {
    if (options.trace) host::traceThreadName("sensor " + std::to_string(cam.id));
    SensorLog& log = *logs[cam.id];
    std::mt19937_64 rng(options.seed * 0x9E3779B97F4A7C15ull + cam.id + 1);
    const DurationModel& duration = cam.hasOwnDuration ? cam.jobDuration : scenario.jobDuration;
    std::vector<size_t> mine;
    for (size_t i = 0; i < plans.size(); ++i) {
      if (plans[i].participates(cam.id)) mine.push_back(i);
    }
    size_t prepPos = 0, sendPos = 0;
    AnnotatedLock lock(mutex);
    while (sendPos < mine.size()) {
      while (prepPos < mine.size() && frames[mine[prepPos]].emplaced) {
        size_t idx = mine[prepPos];
        FrameState& f = frames[idx];
        bool first = !f.firstPrepareStarted;
        if (first) {
          if (idx != nextFirstPrepare || firstPrepareBusy) break;
          f.firstPrepareStarted = true;
          firstPrepareBusy = true;
        }
        std::shared_ptr<const cc::FrameContext> fc = f.fc;
        lock.unlock();
        log.set(Activity::Preparing, plans[idx].frame);
        PrepareRecord rec{cam.id, plans[idx].frame, now(), 0};
        deliver->prepare(cam.id, plans[idx].frame, fc);
        rec.end = now();
        log.prepares.push_back(rec);
        lock.lock();
        f.prepared.insert(cam.id);
        if (first) {
          f.firstPrepareDone = true;
          firstPrepareBusy = false;
          while (nextFirstPrepare < frames.size() && frames[nextFirstPrepare].firstPrepareDone) {
            ++nextFirstPrepare;
          }
        }
        ++prepPos;
        touch();
        cond.notify_all();
      }
      size_t idx = mine[sendPos];
      if (frames[idx].flushed) {  // the pipeline already counted it done
        ++sendPos;
        continue;
      }
      log.set(Activity::Idle, plans[idx].frame);
      if (!maySendLocked(cam.id, idx)) {
        cond.wait(lock.native());
        continue;
      }
      lock.unlock();
      bool sent = sendFrame(cam.id, idx, log, rng, duration);
      if (noFrameAfter.count({cam.id, plans[idx].frame})) {
        enqueue(log, cam.id, kNoFrame, rng, duration);
      }
      lock.lock();
      if (sent) markDoneLocked(cam.id, idx);
      ++sendPos;
    }
    log.set(Activity::Done, 0);
  }

  // ---- pipeline thread -------------------------------------------------------------------

  EventRecord& newEvent(EventKind kind, uint32_t sensor, uint32_t frame, uint32_t value) {
    events.emplace_back();
    EventRecord& e = events.back();
    e.kind = kind;
    e.sensor = sensor;
    e.frame = frame;
    e.value = value;
    return e;
  }

  // Releases `mutex` around the deliverer's call.
  void notify(EventRecord& e) ORVCAM_REQUIRES(mutex) {
    if (options.trace) {
      host::traceInstant(std::string(eventKindName(e.kind)) + " " +
                         sensorFrameName(e.sensor, e.frame) + " value:" + std::to_string(e.value));
    }
    mutex.unlock();
    e.begin = now();
    if (e.kind == EventKind::QueueFlush) {
      deliver->flush(e.sensor);
    } else if (e.kind == EventKind::Drop) {
      LicenceLedger::Scope scope(e.sensor);
      deliver->notifyEvent(cc::CamDeliver::EventType(e.kind), e.sensor, e.frame, e.value);
    } else {
      deliver->notifyEvent(cc::CamDeliver::EventType(e.kind), e.sensor, e.frame, e.value);
    }
    e.end = now();
    mutex.lock();
    touch();
  }

  void reportDropLocked(uint32_t sensor, size_t idx) ORVCAM_REQUIRES(mutex) {
    EventRecord& e = newEvent(EventKind::Drop, sensor, plans[idx].frame, 0);
    notify(e);
    frames[idx].dropReported.insert(sensor);
    markDoneLocked(sensor, idx);
    cond.notify_all();
  }

  // Reports the drops that are due: those the sensor threads ask for, racing drops whose send
  // has been issued, late drops whose frame has finished. True when it reported any.
  bool reportDueDropsLocked() ORVCAM_REQUIRES(mutex) {
    bool any = false;
    while (!dropRequests.empty()) {
      auto request = dropRequests.front();
      dropRequests.pop_front();
      reportDropLocked(request.first, request.second);
      any = true;
    }
    for (auto it = racingDrops.begin(); it != racingDrops.end();) {
      FrameState& f = frames[it->second];
      if (f.flushed) {
        it = racingDrops.erase(it);
      } else if (f.racingSent.count(it->first) && !f.dropReported.count(it->first)) {
        auto request = *it;
        it = racingDrops.erase(it);
        reportDropLocked(request.first, request.second);
        any = true;
        it = racingDrops.begin();
      } else {
        ++it;
      }
    }
    for (auto it = lateDrops.begin(); it != lateDrops.end();) {
      if (completeLocked(it->second)) {
        auto request = *it;
        it = lateDrops.erase(it);
        EventRecord& e = newEvent(EventKind::Drop, request.first, plans[request.second].frame, 0);
        notify(e);
        any = true;
        it = lateDrops.begin();
      } else {
        ++it;
      }
    }
    return any;
  }

  // Waits for `pred` and, when given, for `deadline`, reporting the due drops meanwhile.
  template <typename Pred>
  void waitUntilLocked(AnnotatedLock& lock, SimClock::time_point deadline, Pred pred)
      ORVCAM_REQUIRES(mutex) {
    for (;;) {
      if (reportDueDropsLocked()) continue;
      bool due = SimClock::now() >= deadline;
      if (due && pred()) return;
      if (!due) {
        cond.wait_until(lock.native(), deadline);
      } else {
        cond.wait(lock.native());
      }
    }
  }

  // The frames the deliverer may name for an in-flight report of `sensor`: those in flight
  // that hold the sensor in their sync list and are not yet broken.
  std::vector<size_t> syncFramesLocked(uint32_t sensor) const ORVCAM_REQUIRES(mutex) {
    std::vector<size_t> out;
    for (size_t i = 0; i < frames.size(); ++i) {
      if (frames[i].emplaced && !completeLocked(i) && !frames[i].syncBroken &&
          plans[i].syncList.count(sensor)) {
        out.push_back(i);
      }
    }
    return out;
  }

  // An in-flight report with value 0 while sends go on. Its preconditions: every frame it
  // will name has its licences queued (is first-prepared) and none of them is a configure
  // frame, whose configure licences must not meet a descriptor change.
  void reportWhileRunningLocked(AnnotatedLock& lock, const PlannedEvent& ev)
      ORVCAM_REQUIRES(mutex) {
    waitUntilLocked(lock, SimClock::time_point::min(), [&]() ORVCAM_REQUIRES(mutex) {
      for (size_t i : syncFramesLocked(ev.sensor)) {
        if (!frames[i].firstPrepareDone || !plans[i].needCfg.empty()) return false;
      }
      return true;
    });
    std::vector<size_t> named = syncFramesLocked(ev.sensor);
    EventRecord& e = newEvent(ev.kind, ev.sensor, ev.frame, ev.value);
    for (size_t i : named) {
      e.frames.push_back(plans[i].frame);
      frames[i].syncBroken = true;
    }
    notify(e);
  }

  void emplaceFrameLocked(AnnotatedLock& lock, size_t idx) ORVCAM_REQUIRES(mutex) {
    const FramePlan& p = plans[idx];
    auto it = eventsAt.find(idx);
    if (it != eventsAt.end()) {
      for (const PlannedEvent* ev : it->second) {
        if (gated(*ev)) continue;
        if (ev->when == EventTiming::WhileRunning) {
          reportWhileRunningLocked(lock, *ev);
        } else {
          notify(newEvent(ev->kind, ev->sensor, ev->frame, ev->value));
        }
      }
    }
    std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
    for (uint32_t s : p.sensors) {
      cc::FrameContext::SensorState st;
      st.sensorCode = s;
      st.needEnq = true;
      st.needCfg = p.needCfg.count(s) > 0;
      st.streamingState = int64_t(s) == p.offSensor ? 1 : int64_t(s) == p.onSensor ? 0 : -1;
      states[s] = st;
    }
    std::set<uint32_t> all(p.sensors.begin(), p.sensors.end());
    auto fc = std::make_shared<const cc::FrameContext>(p.frame, p.syncList, all, std::move(states),
                                                       p.isRawSwitch());
    mutex.unlock();
    pool->emplace(p.frame, fc);
    mutex.lock();
    frames[idx].fc = fc;
    frames[idx].emplaced = true;
    ++inFlight;
    ++framesEmplaced;
    traceFrameLocked(idx, true);
    touch();
    cond.notify_all();
  }

  // A flush or an in-flight report at a barrier: hold every send from this frame on, let the
  // earlier frames finish, emplace the next frames and let every sensor prepare them, then
  // report with no thread inside the deliverer.
  void runHeldEventsLocked(AnnotatedLock& lock, size_t idx) ORVCAM_REQUIRES(mutex) {
    const std::vector<const PlannedEvent*>& evs = eventsAt[idx];
    uint32_t frameNo = plans[idx].frame;
    if (options.trace) host::traceBegin("hold sends from F:" + std::to_string(frameNo));
    gate = idx;
    cond.notify_all();
    waitUntilLocked(lock, SimClock::time_point::min(), [&]() ORVCAM_REQUIRES(mutex) {
      for (size_t i = 0; i < idx; ++i) {
        if (!completeLocked(i)) return false;
      }
      return true;
    });
    std::set<uint32_t> reporting;
    for (const PlannedEvent* e : evs) {
      if (gated(*e) && e->kind == EventKind::InformInflight) reporting.insert(e->sensor);
    }
    size_t end = idx;
    while (end < plans.size() && inFlight < scenario.maxInFlight && mayEmplaceLocked(end)) {
      // An in-flight report while sends go on may wait for frames this barrier holds.
      if (end > idx && (hasGatedEvent(end) || hasWhileRunningEvent(end))) break;
      // A configure licence must not meet a frame-descriptor change.
      bool configures = std::any_of(reporting.begin(), reporting.end(), [&](uint32_t s) {
        return !plans[end].needCfg.empty() && plans[end].syncList.count(s);
      });
      if (configures) break;
      emplaceFrameLocked(lock, end++);
    }
    waitUntilLocked(lock, SimClock::time_point::min(), [&]() ORVCAM_REQUIRES(mutex) {
      for (size_t i = idx; i < end; ++i) {
        if (frames[i].prepared.size() < plans[i].sensors.size()) return false;
      }
      return true;
    });
    for (const PlannedEvent* ev : evs) {
      if (!gated(*ev)) continue;
      std::vector<uint32_t> pending;
      for (size_t i = idx; i < end; ++i) {
        if (completeLocked(i)) continue;
        if (ev->kind == EventKind::Flush || plans[i].syncList.count(ev->sensor)) {
          pending.push_back(plans[i].frame);
        }
      }
      if (ev->kind == EventKind::InformInflight) {
        EventRecord& e = newEvent(ev->kind, ev->sensor, frameNo, ev->value);
        e.frames = pending;
        for (size_t i = idx; i < end; ++i) {
          if (plans[i].syncList.count(ev->sensor)) frames[i].syncBroken = true;
        }
        notify(e);
        continue;
      }
      // The deliverer's flush() hands back every sensor's queued licences, so every sensor's
      // frames are flushed in the guard too, the named sensor first.
      std::vector<uint32_t> order{ev->sensor};
      for (const auto& s : scenario.sensors) {
        if (s.id != ev->sensor) order.push_back(s.id);
      }
      for (uint32_t s : order) {
        EventRecord& e = newEvent(EventKind::Flush, s, frameNo, ev->value);
        e.frames = pending;
        notify(e);
      }
      EventRecord& q = newEvent(EventKind::QueueFlush, ev->sensor, frameNo, 0);
      q.frames = pending;
      notify(q);
      for (size_t i = idx; i < end; ++i) {
        if (completeLocked(i)) continue;
        frames[i].flushed = true;
        --inFlight;
        ++framesDone;
        traceFrameLocked(i, false);
      }
    }
    gate = kNoGate;
    cond.notify_all();
    if (options.trace) host::traceEnd("hold sends from F:" + std::to_string(frameNo));
  }

  void pipelineLoop() ORVCAM_EXCLUDES(mutex) {
    if (options.trace) host::traceThreadName("pipeline");
    AnnotatedLock lock(mutex);
    auto interval = std::chrono::microseconds(scenario.frameIntervalUs);
    for (size_t idx = 0; idx < plans.size(); ++idx) {
      if (frames[idx].emplaced) continue;
      waitUntilLocked(lock, t0 + interval * int64_t(idx), [&]() ORVCAM_REQUIRES(mutex) {
        return inFlight < scenario.maxInFlight && mayEmplaceLocked(idx);
      });
      if (hasGatedEvent(idx)) {
        runHeldEventsLocked(lock, idx);
      } else {
        emplaceFrameLocked(lock, idx);
      }
    }
    waitUntilLocked(lock, SimClock::time_point::min(), [&]() ORVCAM_REQUIRES(mutex) {
      return framesDone == plans.size() && lateDrops.empty();
    });
  }

  // ---- the run ---------------------------------------------------------------------------

  std::string stallReport() ORVCAM_EXCLUDES(mutex) {
    std::string out =
        "the run made no progress for " + std::to_string(watchdog.timeout().count()) + " ms:\n";
    for (const auto& entry : logs) {
      uint64_t a = entry.second->activity.load();
      Activity kind = Activity(a >> 32);
      out += "  S:" + std::to_string(entry.first) + " " + activityText(kind);
      if (kind != Activity::Done) out += " at F:" + std::to_string(int32_t(uint32_t(a)));
      out += "\n";
    }
    std::lock_guard<std::mutex> lock(mutex);
    out += "  frames emplaced " + std::to_string(framesEmplaced) + ", done " +
           std::to_string(framesDone) + " of " + std::to_string(plans.size()) + "\n";
    // The deliverer's own view; dump() never blocks on its locks.
    if (FILE* f = std::tmpfile()) {
      deliver->dump(fileno(f));
      std::rewind(f);
      char buf[4096];
      for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) out.append(buf, n);
      std::fclose(f);
    }
    return out;
  }

  // Set before the threads start, read-only afterwards.
  const Scenario scenario;  // a copy: stuck threads of a stalled run may outlive the caller's
  RunOptions options;
  std::vector<FramePlan> plans;
  SimClock::time_point t0;
  std::unique_ptr<JobProbe> probe;
  std::shared_ptr<LicenceLedger> ledger;
  std::shared_ptr<cc::FrameContextPool> pool;
  std::unique_ptr<cc::CamDeliver> deliver;
  std::map<std::pair<uint32_t, uint32_t>, EventTiming> dropsPlanned;  // (sensor, frame)
  std::map<size_t, std::vector<const PlannedEvent*>> eventsAt;        // all but drops
  std::set<std::pair<uint32_t, uint32_t>> noFrameAfter;               // (sensor, frame)
  std::map<uint32_t, std::unique_ptr<SensorLog>> logs;

  Watchdog watchdog;
  std::atomic<uint64_t> jobsRun{0};
  std::atomic<size_t> running{0};  // client threads not yet finished

  // Taken by the pipeline thread, the sensor threads and run()'s progress reports; never held
  // across a call into the deliverer or the pool (see above).
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<FrameState> frames ORVCAM_GUARDED_BY(mutex);
  size_t gate ORVCAM_GUARDED_BY(mutex) = kNoGate;  // sends of frame indices from here on are held
  size_t inFlight ORVCAM_GUARDED_BY(mutex) = 0;
  uint32_t framesEmplaced ORVCAM_GUARDED_BY(mutex) = 0;
  uint32_t framesDone ORVCAM_GUARDED_BY(mutex) = 0;
  size_t nextFirstPrepare ORVCAM_GUARDED_BY(mutex) = 0;  // whose first preparation comes next
  bool firstPrepareBusy ORVCAM_GUARDED_BY(mutex) = false;
  std::deque<std::pair<uint32_t, size_t>> dropRequests ORVCAM_GUARDED_BY(mutex);  // sensor, index
  std::vector<std::pair<uint32_t, size_t>> racingDrops ORVCAM_GUARDED_BY(mutex);  // unreported
  std::vector<std::pair<uint32_t, size_t>> lateDrops ORVCAM_GUARDED_BY(mutex);    // unreported

  std::deque<EventRecord> events;  // pipeline thread only
};

Runner::Runner(const Scenario& scenario, RunOptions options)
    : mImpl(std::make_shared<Impl>(scenario, std::move(options))) {}

Runner::~Runner() = default;

bool Runner::awaitThreads(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mImpl->mutex);
  return mImpl->cond.wait_for(lock, timeout, [this] { return mImpl->running.load() == 0; });
}

bool Runner::run(History* history, std::string* stallReport) {
  std::shared_ptr<Impl> impl = mImpl;
  Impl& d = *impl;
  host::setPipeMgrInstance(nullptr);
  std::shared_ptr<host::HostPipeMgr> pipeMgr = host::hostPipeMgr();
  pipeMgr->reset();
  d.t0 = SimClock::now();
  d.probe = std::make_unique<JobProbe>(d.t0, d.options.trace);
  d.ledger = std::make_shared<LicenceLedger>(d.t0);
  // The observer owns the ledger: after a stall, stuck threads may still hand licences back.
  pipeMgr->setObserver([ledger = d.ledger](host::LicenseEvent event, uint64_t serial, int32_t fd) {
    ledger->record(event, serial, fd);
  });
  d.pool = std::make_shared<cc::FrameContextPool>();
  d.deliver = std::make_unique<cc::CamDeliver>(d.pool);

  // Each thread owns a reference to the run's state, so a thread left stuck by a stall never
  // refers to this stack frame or to a destroyed Runner.
  std::vector<std::thread> threads;
  auto start = [&](std::function<void(Impl&)> fn) {
    ++d.running;
    threads.emplace_back([fn, impl] {
      fn(*impl);
      impl->touch();
      std::lock_guard<std::mutex> lock(impl->mutex);
      --impl->running;
      impl->cond.notify_all();
    });
  };
  start([](Impl& i) { i.pipelineLoop(); });
  for (const auto& cam : d.scenario.sensors) {
    start([&cam](Impl& i) { i.sensorLoop(cam); });
  }

  auto lastReport = SimClock::now();
  while (d.running.load() > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (d.options.onProgress && SimClock::now() - lastReport >= std::chrono::milliseconds(100)) {
      lastReport = SimClock::now();
      RunProgress p;
      {
        std::lock_guard<std::mutex> lock(d.mutex);
        p.framesTotal = uint32_t(d.plans.size());
        p.framesEmplaced = d.framesEmplaced;
        p.framesDone = d.framesDone;
      }
      p.jobsRun = d.jobsRun.load();
      d.options.onProgress(p);
    }
    if (d.watchdog.stalled()) {
      *stallReport = d.stallReport();
      for (auto& t : threads) t.detach();
      return false;
    }
  }
  for (auto& t : threads) t.join();

  History& h = *history;
  h = History();
  h.scenario = d.scenario.name;
  h.seed = d.options.seed;
  for (const auto& cam : d.scenario.sensors) h.sensors.push_back(cam.id);
  std::sort(h.sensors.begin(), h.sensors.end());
  h.plans = d.plans;
  {
    std::lock_guard<std::mutex> lock(d.pool->mutex);
    for (const auto& entry : d.pool->pool) h.framesLeftInPool.push_back(entry.first);
  }
  h.teardownAt = d.now();
  d.deliver.reset();
  h.wallTime = d.now();
  pipeMgr->setObserver([](host::LicenseEvent, uint64_t, int32_t) {});
  LicenceTotals totals;
  host::LicenseAccount account = pipeMgr->account();
  totals.acquired = account.acquired;
  totals.released = account.released;
  totals.destroyed = account.destroyed;
  h.account = totals;

  for (auto& entry : d.logs) {
    SensorLog& log = *entry.second;
    h.prepares.insert(h.prepares.end(), log.prepares.begin(), log.prepares.end());
    h.setConfigured.insert(h.setConfigured.end(), log.setConfigured.begin(),
                           log.setConfigured.end());
    h.jobs.insert(h.jobs.end(), log.jobs.begin(), log.jobs.end());
  }
  h.events.assign(d.events.begin(), d.events.end());
  h.licences = d.ledger->take();
  d.pool.reset();
  return true;
}

}  // namespace sim
}  // namespace orvcam
