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

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"
#include "ReqJob.h"

namespace orvcam {
namespace sim {

namespace cc = NSCam::camsys::camcoordinator;
using Clock = std::chrono::steady_clock;
using host::IPipeMgr;
using host::IRequestLicense;

namespace {

constexpr size_t kNoGate = SIZE_MAX;

// The sensor the client is calling for on this thread (setConfigured, a drop), so that a
// licence handed back meanwhile can be put down to it.
thread_local int32_t tContext = -1;

struct ContextScope {
  explicit ContextScope(uint32_t sensor) { tContext = int32_t(sensor); }
  ~ContextScope() { tContext = -1; }
};

std::string sf(uint32_t sensor, uint32_t frame) {
  return "S:" + std::to_string(sensor) + " F:" + std::to_string(frame);
}

// What a sensor thread is doing, for the stall report.
enum class Activity : uint32_t { Idle, Preparing, Configuring, Enqueuing, SetConfigured, Done };

const char* activityText(Activity a) {
  switch (a) {
    case Activity::Idle: return "waiting for its next frame (held by the client)";
    case Activity::Preparing: return "inside prepare()";
    case Activity::Configuring: return "inside sendJobForConfigure()";
    case Activity::Enqueuing: return "inside sendJobForEnque()";
    case Activity::SetConfigured: return "inside setConfigured()";
    case Activity::Done: return "finished";
  }
  return "?";
}

}  // namespace

struct Runner::Impl {
  struct FrameState {
    std::shared_ptr<const cc::FrameContext> fc;
    bool emplaced = false;
    bool flushed = false;
    std::set<uint32_t> prepared;
    std::set<uint32_t> done;
  };

  // Written only by its own sensor thread until the run ends.
  struct SensorLog {
    std::vector<PrepareRecord> prepares;
    std::vector<SetConfiguredRecord> setConfigured;
    std::deque<JobRecord> jobs;
    std::atomic<uint64_t> activity{uint64_t(Activity::Idle) << 32};
  };

  Impl(const Scenario& s, RunOptions o) : scenario(s), options(std::move(o)), plans(planFrames(s)) {
    frames.resize(plans.size());
    for (const auto& cam : scenario.sensors) logs[cam.id] = std::make_unique<SensorLog>();
    for (const auto& e : scenario.events) {
      if (e.kind == EventKind::Drop) {
        dropsPlanned.insert({e.sensor, e.frame});
      } else {
        eventsAt[e.frame - scenario.firstFrame].push_back(&e);
      }
    }
  }

  Nanos now() const {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count();
  }

  void touch() { activity.fetch_add(1, std::memory_order_relaxed); }

  static bool gated(const PlannedEvent& e) {
    return e.kind == EventKind::Flush || (e.kind == EventKind::InformInflight && e.value == 0);
  }

  bool hasGatedEvent(size_t idx) const {
    auto it = eventsAt.find(idx);
    if (it == eventsAt.end()) return false;
    return std::any_of(it->second.begin(), it->second.end(),
                       [](const PlannedEvent* e) { return gated(*e); });
  }

  bool complete(size_t idx) const {
    return frames[idx].flushed || frames[idx].done.size() == plans[idx].sensors.size();
  }

  // A frame's async track from emplace to retirement, and the count of frames in flight.
  // Caller holds `mutex`.
  void traceFrame(size_t idx, bool emplaced) {
    if (!options.trace) return;
    std::string name = "F:" + std::to_string(plans[idx].frame);
    if (emplaced) {
      host::traceAsyncBegin(name, plans[idx].frame);
    } else {
      host::traceAsyncEnd(name, plans[idx].frame);
    }
    host::traceCounter("frames in flight", int64_t(inFlight));
  }

  // Caller holds `mutex`.
  void markDone(uint32_t sensor, size_t idx) {
    frames[idx].done.insert(sensor);
    if (complete(idx)) {
      --inFlight;
      ++framesDone;
      traceFrame(idx, false);
    }
    touch();
    cond.notify_all();
  }

  // ---- jobs ------------------------------------------------------------------------------

  void observeLicence(JobRecord& rec, const IRequestLicense* licence) {
    rec.fd = licence ? licence->getFD() : -1;
    if (auto* hostLicence = dynamic_cast<const host::HostLicense*>(licence)) {
      rec.serial = hostLicence->serial();
    }
  }

  void jobBegins(JobRecord& rec) {
    rec.ran = true;
    rec.start = now();
    if (options.trace)
      host::traceBegin(std::string(jobKindName(rec.kind)) + " " + sf(rec.sensor, rec.frame));
  }

  void jobEnds(JobRecord& rec) {
    rec.end = now();
    if (options.trace)
      host::traceEnd(std::string(jobKindName(rec.kind)) + " " + sf(rec.sensor, rec.frame));
  }

  static void sleepFor(Nanos ns) {
    if (ns > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(ns));
  }

  // An enqueue request. The simulated pipeline is done with it when execute() returns, so it
  // hands the request's licence back to the pipe manager then.
  class EnqueueJob : public cc::ReqBaseJob {
   public:
    EnqueueJob(Impl& impl, JobRecord& rec, Nanos duration)
        : mImpl(impl), mRec(rec), mDuration(duration) {}
    int32_t assignLicense(std::unique_ptr<IRequestLicense> license) override {
      mImpl.observeLicence(mRec, license.get());
      return ReqBaseJob::assignLicense(std::move(license));
    }
    int32_t execute() override {
      mImpl.jobBegins(mRec);
      sleepFor(mDuration);
      if (mpLicense) IPipeMgr::getInstance()->releaseLicense(mpLicense, false, true);
      mpLicense.reset();
      mImpl.jobEnds(mRec);
      return 0;
    }

   private:
    Impl& mImpl;
    JobRecord& mRec;
    Nanos mDuration;
  };

  // A configure request: the library's configure job, timed and observed.
  class ConfigureJob : public cc::ReqCfgJob {
   public:
    ConfigureJob(Impl& impl, JobRecord& rec, Nanos duration,
                 std::shared_ptr<host::ConfigParam> config)
        : ReqCfgJob(IPipeMgr::getInstance(), std::move(config)),
          mImpl(impl),
          mRec(rec),
          mDuration(duration) {}
    int32_t assignLicense(std::unique_ptr<IRequestLicense> license) override {
      mImpl.observeLicence(mRec, license.get());
      return ReqCfgJob::assignLicense(std::move(license));
    }
    int32_t execute() override {
      mImpl.jobBegins(mRec);
      sleepFor(mDuration);
      int32_t rc = ReqCfgJob::execute();
      mImpl.jobEnds(mRec);
      return rc;
    }

   private:
    Impl& mImpl;
    JobRecord& mRec;
    Nanos mDuration;
  };

  // ---- sensor threads --------------------------------------------------------------------

  void setActivity(SensorLog& log, Activity a, uint32_t frame) {
    log.activity.store((uint64_t(a) << 32) | frame, std::memory_order_relaxed);
  }

  // Sends the frame's configure step and enqueue job. False when the frame is to be dropped:
  // the pipeline thread reports the drop and marks it done.
  bool sendFrame(uint32_t sensor, size_t idx, SensorLog& log, std::mt19937_64& rng,
                 const DurationModel& duration) {
    const FramePlan& p = plans[idx];
    if (p.needCfg.count(sensor)) {
      if (p.cfgByJob.count(sensor)) {
        JobRecord& rec = newJob(log, sensor, p.frame, JobKind::Configure);
        auto config = std::make_shared<host::ConfigParam>();
        config->sensorId = sensor;
        config->frameNo = p.frame;
        auto job = std::make_shared<ConfigureJob>(*this, rec, duration.sample(rng), config);
        setActivity(log, Activity::Configuring, p.frame);
        rec.sent = now();
        deliver->sendJobForConfigure(sensor, p.frame, job);
        if (!rec.ran) rec.end = now();
        ++jobsRun;
      } else {
        setActivity(log, Activity::SetConfigured, p.frame);
        log.setConfigured.push_back({sensor, p.frame, now()});
        ContextScope context(sensor);
        deliver->setConfigured(sensor, p.frame);
      }
      touch();
    }
    if (dropsPlanned.count({sensor, p.frame})) {
      std::lock_guard<std::mutex> lock(mutex);
      dropRequests.push_back({sensor, idx});
      cond.notify_all();
      return false;
    }
    JobRecord& rec = newJob(log, sensor, p.frame, JobKind::Enqueue);
    auto job = std::make_shared<EnqueueJob>(*this, rec, duration.sample(rng));
    setActivity(log, Activity::Enqueuing, p.frame);
    rec.sent = now();
    rec.result = deliver->sendJobForEnque(sensor, p.frame, job);
    if (!rec.ran) rec.end = now();
    ++jobsRun;
    return true;
  }

  JobRecord& newJob(SensorLog& log, uint32_t sensor, uint32_t frame, JobKind kind) {
    log.jobs.emplace_back();
    JobRecord& rec = log.jobs.back();
    rec.sensor = sensor;
    rec.frame = frame;
    rec.kind = kind;
    return rec;
  }

  // Prepares every frame of the sensor as soon as it is emplaced, and sends them in order: a
  // frame goes once every sensor of it has prepared it, unless the pipeline holds it.
  void sensorLoop(const SensorSetup& cam) {
    if (options.trace) host::traceThreadName("sensor " + std::to_string(cam.id));
    SensorLog& log = *logs[cam.id];
    std::mt19937_64 rng(options.seed * 0x9E3779B97F4A7C15ull + cam.id + 1);
    const DurationModel& duration = cam.hasOwnDuration ? cam.jobDuration : scenario.jobDuration;
    std::vector<size_t> mine;
    for (size_t i = 0; i < plans.size(); ++i) {
      if (plans[i].participates(cam.id)) mine.push_back(i);
    }
    size_t prepPos = 0, sendPos = 0;
    std::unique_lock<std::mutex> lock(mutex);
    while (sendPos < mine.size()) {
      while (prepPos < mine.size() && frames[mine[prepPos]].emplaced) {
        size_t idx = mine[prepPos];
        std::shared_ptr<const cc::FrameContext> fc = frames[idx].fc;
        lock.unlock();
        setActivity(log, Activity::Preparing, plans[idx].frame);
        log.prepares.push_back({cam.id, plans[idx].frame, now()});
        deliver->prepare(cam.id, plans[idx].frame, fc);
        lock.lock();
        frames[idx].prepared.insert(cam.id);
        ++prepPos;
        touch();
        cond.notify_all();
      }
      size_t idx = mine[sendPos];
      if (frames[idx].flushed) {  // the pipeline already counted it done
        ++sendPos;
        continue;
      }
      setActivity(log, Activity::Idle, plans[idx].frame);
      if (sendPos >= prepPos || idx >= gate ||
          frames[idx].prepared.size() < plans[idx].sensors.size()) {
        cond.wait(lock);
        continue;
      }
      lock.unlock();
      bool sent = sendFrame(cam.id, idx, log, rng, duration);
      lock.lock();
      if (sent) markDone(cam.id, idx);
      ++sendPos;
    }
    setActivity(log, Activity::Done, 0);
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

  // Caller holds `lock`; it is released around the deliverer's call.
  void notify(std::unique_lock<std::mutex>& lock, EventRecord& e) {
    if (options.trace) {
      host::traceInstant(std::string(eventKindName(e.kind)) + " " + sf(e.sensor, e.frame) +
                         " value:" + std::to_string(e.value));
    }
    lock.unlock();
    e.begin = now();
    if (e.kind == EventKind::QueueFlush) {
      deliver->flush(e.sensor);
    } else if (e.kind == EventKind::Drop) {
      ContextScope context(e.sensor);
      deliver->notifyEvent(cc::CamDeliver::EventType(e.kind), e.sensor, e.frame, e.value);
    } else {
      deliver->notifyEvent(cc::CamDeliver::EventType(e.kind), e.sensor, e.frame, e.value);
    }
    e.end = now();
    lock.lock();
    touch();
  }

  // Waits for `pred` and, when given, for `deadline`, reporting the drops that the sensor
  // threads ask for meanwhile.
  template <typename Pred>
  void waitUntil(std::unique_lock<std::mutex>& lock, Clock::time_point deadline, Pred pred) {
    for (;;) {
      while (!dropRequests.empty()) {
        auto request = dropRequests.front();
        dropRequests.pop_front();
        EventRecord& e = newEvent(EventKind::Drop, request.first, plans[request.second].frame, 0);
        notify(lock, e);
        markDone(request.first, request.second);
      }
      bool due = Clock::now() >= deadline;
      if (due && pred()) return;
      if (!due) {
        cond.wait_until(lock, deadline);
      } else {
        cond.wait(lock);
      }
    }
  }

  void emplaceFrame(std::unique_lock<std::mutex>& lock, size_t idx) {
    const FramePlan& p = plans[idx];
    auto it = eventsAt.find(idx);
    if (it != eventsAt.end()) {
      for (const PlannedEvent* ev : it->second) {
        if (gated(*ev)) continue;
        notify(lock, newEvent(ev->kind, ev->sensor, ev->frame, ev->value));
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
    pool->emplace(p.frame, fc);
    frames[idx].fc = fc;
    frames[idx].emplaced = true;
    ++inFlight;
    ++framesEmplaced;
    traceFrame(idx, true);
    touch();
    cond.notify_all();
  }

  // A flush or an in-flight report: hold every send from this frame on, let the earlier frames
  // finish, emplace the next frames and let every sensor prepare them, then report with no
  // thread inside the deliverer.
  void runHeldEvents(std::unique_lock<std::mutex>& lock, size_t idx) {
    const std::vector<const PlannedEvent*>& evs = eventsAt[idx];
    uint32_t frameNo = plans[idx].frame;
    if (options.trace) host::traceBegin("hold sends from F:" + std::to_string(frameNo));
    gate = idx;
    cond.notify_all();
    waitUntil(lock, Clock::time_point::min(), [&] {
      for (size_t i = 0; i < idx; ++i) {
        if (!complete(i)) return false;
      }
      return true;
    });
    std::set<uint32_t> reporting;
    for (const PlannedEvent* e : evs) {
      if (e->kind == EventKind::InformInflight && e->value == 0) reporting.insert(e->sensor);
    }
    size_t end = idx;
    while (end < plans.size() && inFlight < scenario.maxInFlight) {
      if (end > idx && hasGatedEvent(end)) break;
      // A configure licence must not meet a frame-descriptor change.
      bool configures = std::any_of(reporting.begin(), reporting.end(), [&](uint32_t s) {
        return !plans[end].needCfg.empty() && plans[end].syncList.count(s);
      });
      if (configures) break;
      emplaceFrame(lock, end++);
    }
    waitUntil(lock, Clock::time_point::min(), [&] {
      for (size_t i = idx; i < end; ++i) {
        if (frames[i].prepared.size() < plans[i].sensors.size()) return false;
      }
      return true;
    });
    for (const PlannedEvent* ev : evs) {
      if (!gated(*ev)) continue;
      std::vector<uint32_t> pending;
      for (size_t i = idx; i < end; ++i) {
        if (complete(i)) continue;
        if (ev->kind == EventKind::Flush || plans[i].syncList.count(ev->sensor)) {
          pending.push_back(plans[i].frame);
        }
      }
      if (ev->kind == EventKind::InformInflight) {
        EventRecord& e = newEvent(ev->kind, ev->sensor, frameNo, ev->value);
        e.frames = pending;
        notify(lock, e);
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
        notify(lock, e);
      }
      EventRecord& q = newEvent(EventKind::QueueFlush, ev->sensor, frameNo, 0);
      q.frames = pending;
      notify(lock, q);
      for (size_t i = idx; i < end; ++i) {
        if (complete(i)) continue;
        frames[i].flushed = true;
        --inFlight;
        ++framesDone;
        traceFrame(i, false);
      }
    }
    gate = kNoGate;
    cond.notify_all();
    if (options.trace) host::traceEnd("hold sends from F:" + std::to_string(frameNo));
  }

  void pipelineLoop() {
    if (options.trace) host::traceThreadName("pipeline");
    std::unique_lock<std::mutex> lock(mutex);
    auto interval = std::chrono::microseconds(scenario.frameIntervalUs);
    for (size_t idx = 0; idx < plans.size(); ++idx) {
      if (frames[idx].emplaced) continue;
      waitUntil(lock, t0 + interval * int64_t(idx),
                [&] { return inFlight < scenario.maxInFlight; });
      if (hasGatedEvent(idx)) {
        runHeldEvents(lock, idx);
      } else {
        emplaceFrame(lock, idx);
      }
    }
    waitUntil(lock, Clock::time_point::min(), [&] { return framesDone == plans.size(); });
    pipelineDone = true;
  }

  // ---- the run ---------------------------------------------------------------------------

  std::string stallReport() {
    std::string out =
        "the run made no progress for " + std::to_string(options.stallTimeout.count()) + " ms:\n";
    for (const auto& entry : logs) {
      uint64_t a = entry.second->activity.load();
      Activity kind = Activity(a >> 32);
      out += "  S:" + std::to_string(entry.first) + " " + activityText(kind);
      if (kind != Activity::Done) out += " at F:" + std::to_string(uint32_t(a));
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

  const Scenario& scenario;
  RunOptions options;
  std::vector<FramePlan> plans;
  Clock::time_point t0;
  std::shared_ptr<cc::FrameContextPool> pool;
  std::unique_ptr<cc::CamDeliver> deliver;

  std::mutex mutex;
  std::condition_variable cond;
  std::vector<FrameState> frames;
  size_t gate = kNoGate;  // sends of frame indices from here on are held
  size_t inFlight = 0;
  uint32_t framesEmplaced = 0;
  uint32_t framesDone = 0;
  bool pipelineDone = false;
  std::deque<std::pair<uint32_t, size_t>> dropRequests;

  std::set<std::pair<uint32_t, uint32_t>> dropsPlanned;         // (sensor, frame)
  std::map<size_t, std::vector<const PlannedEvent*>> eventsAt;  // all but drops
  std::map<uint32_t, std::unique_ptr<SensorLog>> logs;
  std::deque<EventRecord> events;  // pipeline thread only

  std::mutex licenceMutex;
  std::vector<LicenceRecord> licences;

  std::atomic<uint64_t> activity{0};
  std::atomic<uint64_t> jobsRun{0};
};

Runner::Runner(const Scenario& scenario, RunOptions options)
    : mImpl(std::make_unique<Impl>(scenario, std::move(options))) {}

Runner::~Runner() = default;

bool Runner::run(History* history, std::string* stallReport) {
  Impl& d = *mImpl;
  host::setPipeMgrInstance(nullptr);
  std::shared_ptr<host::HostPipeMgr> pipeMgr = host::hostPipeMgr();
  pipeMgr->reset();
  d.t0 = Clock::now();
  pipeMgr->setObserver([&d](host::LicenseEvent event, uint64_t serial, int32_t fd) {
    LicenceRecord r;
    r.kind = event == host::LicenseEvent::Acquired   ? LicenceEventKind::Acquired
             : event == host::LicenseEvent::Released ? LicenceEventKind::Released
                                                     : LicenceEventKind::Destroyed;
    r.serial = serial;
    r.fd = fd;
    r.at = d.now();
    r.context = tContext;
    std::lock_guard<std::mutex> lock(d.licenceMutex);
    d.licences.push_back(r);
  });
  d.pool = std::make_shared<cc::FrameContextPool>();
  d.deliver = std::make_unique<cc::CamDeliver>(d.pool);

  std::vector<std::thread> threads;
  std::atomic<size_t> running{0};
  auto start = [&](std::function<void()> fn) {
    ++running;
    threads.emplace_back([fn, &running] {
      fn();
      --running;
    });
  };
  start([&d] { d.pipelineLoop(); });
  for (const auto& cam : d.scenario.sensors) start([&d, &cam] { d.sensorLoop(cam); });

  uint64_t lastActivity = ~0ull;
  auto lastChange = Clock::now();
  auto lastReport = Clock::now();
  while (running.load() > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (d.options.onProgress && Clock::now() - lastReport >= std::chrono::milliseconds(100)) {
      lastReport = Clock::now();
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
    uint64_t a = d.activity.load();
    if (a != lastActivity) {
      lastActivity = a;
      lastChange = Clock::now();
    } else if (Clock::now() - lastChange > d.options.stallTimeout) {
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
    Impl::SensorLog& log = *entry.second;
    h.prepares.insert(h.prepares.end(), log.prepares.begin(), log.prepares.end());
    h.setConfigured.insert(h.setConfigured.end(), log.setConfigured.begin(),
                           log.setConfigured.end());
    h.jobs.insert(h.jobs.end(), log.jobs.begin(), log.jobs.end());
  }
  h.events.assign(d.events.begin(), d.events.end());
  h.licences = std::move(d.licences);
  d.pool.reset();
  return true;
}

}  // namespace sim
}  // namespace orvcam
