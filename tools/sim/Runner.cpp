#include "sim/Runner.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"
#include "ThreadAnnotations.h"
#include "base/AnnotatedLock.h"
#include "client/ClientModel.h"
#include "sim/Instrumentation.h"

namespace orvcam {
namespace sim {

using namespace client;
using namespace history;
using namespace base;

// The client: a pipeline thread that emplaces frames and reports events, and one request
// thread per sensor that prepares and sends. Its plan and state, and the protocol's rules over
// them, are in ClientModel.h (shared with the schedule explorer); the observers it uses
// (licence ledger, job probe, watchdog) are in Instrumentation.h.
//
// Threads and locks:
// - `mutex` guards the client's shared state: `client` and `framesEmplaced`. It is never held
//   while the deliverer or the pool is called (every library call is made with it released),
//   so it has no order against the library's locks; `cond` goes with it and every change is
//   announced with notify_all. `plan` is fixed before the threads start.
// - The ledger's mutex is a leaf taken inside the library's calls (Instrumentation.h).
// - The pool's own mutex is read by run() only after every client thread has finished.
// - `logs` and `sensorTids` entries are each written by one sensor thread; `events` by the
//   pipeline thread; all are read by run() after the threads have been joined.
// Helpers named ...Locked expect `mutex` held by the caller (ORVCAM_REQUIRES); functions that
// take it themselves exclude it, through an AnnotatedLock so that clang's analysis follows the
// lock across the condition-variable waits and the releases around library calls. The helpers
// that release it around a library call (notify, emplaceFrameLocked) unlock the mutex itself and
// relock it before they return (see AnnotatedLock.h).
struct Runner::Impl {
  Impl(const Scenario& s, RunOptions o)
      : scenario(s),
        options(std::move(o)),
        plan(scenario),
        watchdog(options.stallTimeout),
        client(plan) {
    for (const auto& cam : scenario.sensors) {
      logs[cam.id] = std::make_unique<SensorLog>();
      sensorTids[cam.id] = -1;
    }
  }

  Nanos now() const { return probe->now(); }
  void touch() { watchdog.touch(); }

  // The flow arrows of the waits the run's partners released, drawn once the run is over: from
  // the middle of the releasing job to the middle of the job it released, on the sensor
  // threads that ran them.
  void traceReleases(const History& h) {
    for (const Release& r : releasedWaits(h)) {
      const JobRecord& from = h.jobs[r.releaser];
      const JobRecord& to = h.jobs[r.released];
      int fromTid = sensorTids[from.sensor], toTid = sensorTids[to.sensor];
      if (fromTid < 0 || toTid < 0) continue;
      auto middle = [this](const JobRecord& j) {
        return t0 + std::chrono::nanoseconds(j.start + (j.end - j.start) / 2);
      };
      host::traceFlowBetween("releases", (uint64_t(to.frame) << 8) | (to.sensor & 0xFF), fromTid,
                             middle(from), toTid, middle(to));
    }
  }

  // A frame's async track from emplace to retirement, and the count of frames in flight.
  void traceFrameLocked(size_t idx, bool emplaced) ORVCAM_REQUIRES(mutex) {
    if (!options.trace) return;
    std::string name = "F:" + std::to_string(plan.plans[idx].frame);
    if (emplaced) {
      host::traceAsyncBegin(name, plan.plans[idx].frame);
    } else {
      host::traceAsyncEnd(name, plan.plans[idx].frame);
    }
    host::traceCounter("frames in flight", int64_t(client.inFlight));
  }

  void markDoneLocked(uint32_t sensor, size_t idx) ORVCAM_REQUIRES(mutex) {
    if (client.markDone(sensor, idx)) traceFrameLocked(idx, false);
    touch();
    cond.notify_all();
  }

  // ---- sensor threads --------------------------------------------------------------------

  // Asks the pipeline thread to report the sensor's drop of frame `idx`; with `wait`, returns
  // once it has been reported.
  void requestDrop(SensorLog& log, uint32_t sensor, size_t idx, bool wait) ORVCAM_EXCLUDES(mutex) {
    AnnotatedLock lock(mutex);
    client.dropRequests.push_back({sensor, idx});
    cond.notify_all();
    if (!wait) return;
    log.set(Activity::WaitingForDrop, plan.plans[idx].frame);
    cond.wait(lock.native(), [&]() ORVCAM_REQUIRES(mutex) {
      return client.frames[idx].dropReported.count(sensor) > 0;
    });
  }

  void configureStep(SensorLog& log, uint32_t sensor, const FramePlan& p, bool byJob,
                     std::mt19937_64& rng, const DurationModel& duration) {
    if (byJob) {
      JobRecord& rec = log.newJob(sensor, p.frame, JobKind::Configure);
      auto config = std::make_shared<host::ConfigParam>();
      config->sensorId = sensor;
      config->frameNo = p.frame;
      auto job = std::make_shared<ProbedConfigureJob>(*probe, rec, duration.sample(rng),
                                                      host::IPipeMgr::getInstance(), config);
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
    const FramePlan& p = plan.plans[idx];
    const EventTiming* drop = plan.dropFor(sensor, p.frame);
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
      client.frames[idx].racingSent.insert(sensor);
      cond.notify_all();
    }
    enqueue(log, sensor, p.frame, rng, duration);
    if (racing) {
      std::lock_guard<std::mutex> lock(mutex);
      client.frames[idx].racingReturned.insert(sensor);
      cond.notify_all();
    }
    return true;
  }

  // Prepares every frame of the sensor as soon as the client allows it, and sends them in
  // order once the client state lets it.
  void sensorLoop(const SensorSetup& cam) ORVCAM_EXCLUDES(mutex) {
    if (options.trace) {
      host::traceThreadName("sensor " + std::to_string(cam.id));
      sensorTids[cam.id] = host::traceThreadId();  // where its jobs run
    }
    SensorLog& log = *logs[cam.id];
    std::mt19937_64 rng(options.seed * 0x9E3779B97F4A7C15ull + cam.id + 1);
    const DurationModel& duration = cam.hasOwnDuration ? cam.jobDuration : scenario.jobDuration;
    std::vector<size_t> mine;
    for (size_t i = 0; i < plan.plans.size(); ++i) {
      if (plan.plans[i].participates(cam.id)) mine.push_back(i);
    }
    size_t prepPos = 0, sendPos = 0;
    AnnotatedLock lock(mutex);
    while (sendPos < mine.size()) {
      while (prepPos < mine.size() && client.frames[mine[prepPos]].emplaced) {
        size_t idx = mine[prepPos];
        ClientState::FrameState& f = client.frames[idx];
        bool first = !f.firstPrepareStarted;
        if (first) {
          if (idx != client.nextFirstPrepare || client.firstPrepareBusy) break;
          f.firstPrepareStarted = true;
          client.firstPrepareBusy = true;
        }
        std::shared_ptr<const cc::FrameContext> fc = f.fc;
        lock.unlock();
        log.set(Activity::Preparing, plan.plans[idx].frame);
        PrepareRecord rec{cam.id, plan.plans[idx].frame, now(), 0};
        deliver->prepare(cam.id, plan.plans[idx].frame, fc);
        rec.end = now();
        log.prepares.push_back(rec);
        lock.lock();
        f.prepared.insert(cam.id);
        if (first) client.firstPrepareReturned(idx);
        ++prepPos;
        touch();
        cond.notify_all();
      }
      size_t idx = mine[sendPos];
      if (client.frames[idx].flushed) {  // the pipeline already counted it done
        ++sendPos;
        continue;
      }
      log.set(Activity::Idle, plan.plans[idx].frame);
      if (!client.maySend(cam.id, idx)) {
        cond.wait(lock.native());
        continue;
      }
      lock.unlock();
      bool sent = sendFrame(cam.id, idx, log, rng, duration);
      if (plan.noFrameAfter.count({cam.id, plan.plans[idx].frame})) {
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
    EventRecord& e = newEvent(EventKind::Drop, sensor, plan.plans[idx].frame, 0);
    notify(e);
    client.frames[idx].dropReported.insert(sensor);
    markDoneLocked(sensor, idx);
    cond.notify_all();
  }

  // Reports the drops that are due: those the sensor threads ask for, racing drops whose send
  // has been issued, late drops whose frame has finished. True when it reported any.
  bool reportDueDropsLocked() ORVCAM_REQUIRES(mutex) {
    bool any = false;
    auto round = ClientState::DropRound::Requested;
    while (auto d = client.nextDueDrop(&round)) {
      if (d->late) {
        EventRecord& e = newEvent(EventKind::Drop, d->sensor, plan.plans[d->idx].frame, 0);
        notify(e);
      } else {
        reportDropLocked(d->sensor, d->idx);
      }
      any = true;
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

  // An in-flight report with value 0 while sends go on. Its preconditions: every frame it
  // will name has its licences queued (is first-prepared) and none of them is a configure
  // frame, whose configure licences must not meet a descriptor change.
  void reportWhileRunningLocked(AnnotatedLock& lock, const PlannedEvent& ev)
      ORVCAM_REQUIRES(mutex) {
    waitUntilLocked(lock, SimClock::time_point::min(), [&]() ORVCAM_REQUIRES(mutex) {
      for (size_t i : client.syncFrames(ev.sensor)) {
        if (!client.frames[i].firstPrepareDone || !plan.plans[i].needCfg.empty()) return false;
      }
      return true;
    });
    std::vector<size_t> named = client.syncFrames(ev.sensor);
    EventRecord& e = newEvent(ev.kind, ev.sensor, ev.frame, ev.value);
    for (size_t i : named) {
      e.frames.push_back(plan.plans[i].frame);
      client.frames[i].syncBroken = true;
    }
    notify(e);
  }

  void emplaceFrameLocked(AnnotatedLock& lock, size_t idx) ORVCAM_REQUIRES(mutex) {
    const FramePlan& p = plan.plans[idx];
    auto it = plan.eventsAt.find(idx);
    if (it != plan.eventsAt.end()) {
      for (const PlannedEvent* ev : it->second) {
        if (ClientPlan::gated(*ev)) continue;
        if (ev->when == EventTiming::WhileRunning) {
          reportWhileRunningLocked(lock, *ev);
        } else {
          notify(newEvent(ev->kind, ev->sensor, ev->frame, ev->value));
        }
      }
    }
    auto fc = makeFrameContext(p);
    mutex.unlock();
    pool->emplace(p.frame, fc);
    mutex.lock();
    client.frames[idx].fc = fc;
    client.frames[idx].emplaced = true;
    ++client.inFlight;
    ++framesEmplaced;
    traceFrameLocked(idx, true);
    touch();
    cond.notify_all();
  }

  // A flush or an in-flight report at a barrier: hold every send from this frame on, let the
  // earlier frames finish, emplace the next frames and let every sensor prepare them,
  // then report with no thread inside the deliverer.
  void runHeldEventsLocked(AnnotatedLock& lock, size_t idx) ORVCAM_REQUIRES(mutex) {
    const std::vector<const PlannedEvent*>& evs = plan.eventsAt.at(idx);
    uint32_t frameNo = plan.plans[idx].frame;
    if (options.trace) host::traceBegin("hold sends from F:" + std::to_string(frameNo));
    client.gate = idx;
    cond.notify_all();
    waitUntilLocked(lock, SimClock::time_point::min(),
                    [&]() ORVCAM_REQUIRES(mutex) { return client.completeBefore(idx); });
    size_t end = idx;
    while (client.mayEmplaceBehind(idx, end, scenario.maxInFlight)) emplaceFrameLocked(lock, end++);
    waitUntilLocked(lock, SimClock::time_point::min(),
                    [&]() ORVCAM_REQUIRES(mutex) { return client.preparedAll(idx, end); });
    for (const PlannedEvent* ev : evs) {
      if (!ClientPlan::gated(*ev)) continue;
      for (ClientState::HeldReport& report : client.heldReports(*ev, idx, end, scenario.sensors)) {
        EventRecord& e = newEvent(report.kind, report.sensor, frameNo, report.value);
        e.frames = std::move(report.frames);
        notify(e);
      }
      if (ev->kind != EventKind::Flush) continue;
      for (size_t i : client.flushHeld(idx, end)) traceFrameLocked(i, false);
    }
    client.gate = kNoGate;
    cond.notify_all();
    if (options.trace) host::traceEnd("hold sends from F:" + std::to_string(frameNo));
  }

  void pipelineLoop() ORVCAM_EXCLUDES(mutex) {
    if (options.trace) host::traceThreadName("pipeline");
    AnnotatedLock lock(mutex);
    auto interval = std::chrono::microseconds(scenario.frameIntervalUs);
    for (size_t idx = 0; idx < plan.plans.size(); ++idx) {
      if (client.frames[idx].emplaced) continue;
      waitUntilLocked(lock, t0 + interval * int64_t(idx), [&]() ORVCAM_REQUIRES(mutex) {
        return client.inFlight < scenario.maxInFlight && client.mayEmplace(idx);
      });
      if (plan.hasGatedEvent(idx)) {
        runHeldEventsLocked(lock, idx);
      } else {
        emplaceFrameLocked(lock, idx);
      }
    }
    waitUntilLocked(lock, SimClock::time_point::min(), [&]() ORVCAM_REQUIRES(mutex) {
      return client.framesDone == plan.plans.size() && client.lateDrops.empty();
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
    out += "  client.frames emplaced " + std::to_string(framesEmplaced) + ", done " +
           std::to_string(client.framesDone) + " of " + std::to_string(plan.plans.size()) + "\n";
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

  // Called by run() while the client threads go: the counts so far.
  RunProgress progress() ORVCAM_EXCLUDES(mutex) {
    RunProgress p;
    {
      std::lock_guard<std::mutex> lock(mutex);
      p.framesTotal = uint32_t(plan.plans.size());
      p.framesEmplaced = framesEmplaced;
      p.framesDone = client.framesDone;
    }
    p.jobsRun = jobsRun.load();
    return p;
  }

  // After the client threads ended: what the run recorded, with the pool's leftovers and the
  // pipe manager's account once the deliverer is gone.
  void collect(host::HostPipeMgr& pipeMgr, History* history) {
    History& h = *history;
    h = History();
    h.scenario = scenario.name;
    h.seed = options.seed;
    for (const auto& cam : scenario.sensors) h.sensors.push_back(cam.id);
    std::sort(h.sensors.begin(), h.sensors.end());
    h.plans = plan.plans;
    {
      std::lock_guard<std::mutex> lock(pool->mutex);
      for (const auto& entry : pool->pool) h.framesLeftInPool.push_back(entry.first);
    }
    h.teardownAt = now();
    deliver.reset();
    h.wallTime = now();
    pipeMgr.setObserver([](host::LicenseEvent, uint64_t, int32_t) {});
    host::LicenseAccount account = pipeMgr.account();
    h.account.acquired = account.acquired;
    h.account.released = account.released;
    h.account.destroyed = account.destroyed;
    h.account.emptyReleases = account.emptyReleases;
    for (auto& entry : logs) {
      SensorLog& log = *entry.second;
      h.prepares.insert(h.prepares.end(), log.prepares.begin(), log.prepares.end());
      h.setConfigured.insert(h.setConfigured.end(), log.setConfigured.begin(),
                             log.setConfigured.end());
      h.jobs.insert(h.jobs.end(), log.jobs.begin(), log.jobs.end());
    }
    h.events.assign(events.begin(), events.end());
    h.licences = ledger->take();
    pool.reset();
    if (options.trace) traceReleases(h);
  }

  // Set before the threads start, read-only afterwards.
  const Scenario scenario;  // a copy: stuck threads of a stalled run may outlive the caller's
  RunOptions options;
  const ClientPlan plan;
  SimClock::time_point t0;
  std::unique_ptr<JobProbe> probe;
  std::shared_ptr<LicenceLedger> ledger;
  std::shared_ptr<cc::FrameContextPool> pool;
  std::unique_ptr<cc::CamDeliver> deliver;
  std::map<uint32_t, std::unique_ptr<SensorLog>> logs;
  std::map<uint32_t, int> sensorTids;  // trace thread ids of the sensor threads, when tracing

  Watchdog watchdog;
  std::atomic<uint64_t> jobsRun{0};
  std::atomic<size_t> running{0};  // client threads not yet finished

  // Taken by the pipeline thread, the sensor threads and run()'s progress reports; never held
  // across a call into the deliverer or the pool (see above).
  std::mutex mutex;
  std::condition_variable cond;
  ClientState client ORVCAM_GUARDED_BY(mutex);
  uint32_t framesEmplaced ORVCAM_GUARDED_BY(mutex) = 0;

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
      d.options.onProgress(d.progress());
    }
    if (d.watchdog.stalled()) {
      *stallReport = d.stallReport();
      for (auto& t : threads) t.detach();
      return false;
    }
  }
  for (auto& t : threads) t.join();
  d.collect(*pipeMgr, history);
  return true;
}

std::vector<Release> releasedWaits(const History& h) {
  // Each sensor's frames in prepare order, the plans by frame, and each enqueue that ran.
  std::map<uint32_t, std::vector<const PrepareRecord*>> prepared;
  for (const PrepareRecord& p : h.prepares) prepared[p.sensor].push_back(&p);
  std::map<std::pair<uint32_t, uint32_t>, uint32_t> previous;  // (sensor, frame) -> frame
  for (auto& entry : prepared) {
    std::stable_sort(entry.second.begin(), entry.second.end(),
                     [](const PrepareRecord* a, const PrepareRecord* b) { return a->at < b->at; });
    for (size_t i = 1; i < entry.second.size(); ++i) {
      previous[{entry.first, entry.second[i]->frame}] = entry.second[i - 1]->frame;
    }
  }
  std::map<uint32_t, const FramePlan*> plans;
  for (const FramePlan& p : h.plans) plans[p.frame] = &p;
  std::map<std::pair<uint32_t, uint32_t>, size_t> enqueued;
  for (size_t i = 0; i < h.jobs.size(); ++i) {
    const JobRecord& j = h.jobs[i];
    if (j.kind == JobKind::Enqueue && j.ran) enqueued.emplace(std::make_pair(j.sensor, j.frame), i);
  }
  std::vector<Release> out;
  for (const auto& entry : enqueued) {
    const JobRecord& j = h.jobs[entry.second];
    if (j.startLost) continue;
    auto prev = previous.find(entry.first);
    if (prev == previous.end()) continue;
    auto plan = plans.find(prev->second);
    // Every sensor waits for the sync group of the frame it prepared before, in it or not.
    if (plan == plans.end()) continue;
    // The partner enqueued last; none may still have been running when this one started (a
    // broken sync, or a drop, let it go instead).
    const JobRecord* last = nullptr;
    size_t lastIndex = 0;
    bool allBefore = true;
    for (uint32_t partner : plan->second->syncList) {
      if (partner == j.sensor) continue;
      auto p = enqueued.find({partner, prev->second});
      if (p == enqueued.end() || h.jobs[p->second].end > j.start) {
        allBefore = false;
        break;
      }
      if (!last || h.jobs[p->second].end > last->end)
        last = &h.jobs[p->second], lastIndex = p->second;
    }
    if (allBefore && last && last->end > j.sent) out.push_back({lastIndex, entry.second});
  }
  return out;
}

}  // namespace sim
}  // namespace orvcam
