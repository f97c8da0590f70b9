#include "Client.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"

namespace orvcam {
namespace explore {

namespace cc = NSCam::camsys::camcoordinator;
using sim::EventKind;
using sim::EventTiming;
using sim::FramePlan;
using sim::JobKind;
using sim::JobRecord;
using sim::Nanos;

std::string unsupportedFeature(const sim::Scenario& scenario) {
  if (!scenario.gaps.empty()) return "gaps";
  return "";
}

namespace {
constexpr size_t kNoGate = SIZE_MAX;
constexpr size_t kPreparedWindow = cc::CamDeliver::kPreparedFramesKept;
}  // namespace

// The simulator's client model (tools/sim/Runner.cpp) with the time taken out: every wait of
// the client is a scheduler wait on a predicate over this state, which only the running
// thread touches. Times in the history are a logical clock that ticks at every record.
struct ClientRun::Impl {
  struct FrameState {
    std::shared_ptr<const cc::FrameContext> fc;
    bool emplaced = false;
    bool flushed = false;
    bool firstPrepareStarted = false;
    bool firstPrepareDone = false;
    bool syncBroken = false;
    std::set<uint32_t> racing, racingSent, racingReturned, prepared, done, dropReported;
  };

  // An enqueue job: notes its licence and hands it back when it has run.
  class EnqueueJob : public cc::ReqBaseJob {
   public:
    EnqueueJob(Impl& impl, size_t rec) : mImpl(impl), mRec(rec) {}
    int32_t assignLicense(std::unique_ptr<host::IRequestLicense> license) override {
      Inside in(mImpl);
      mImpl.observeLicence(mImpl.jobs[mRec], license.get());
      return ReqBaseJob::assignLicense(std::move(license));
    }
    int32_t execute() override {
      Inside in(mImpl);
      JobRecord& rec = mImpl.jobs[mRec];
      rec.ran = true;
      rec.start = mImpl.tick();
      {
        Outside out(mImpl);  // the observer takes the lock itself
        if (mpLicense) host::IPipeMgr::getInstance()->releaseLicense(mpLicense, false, true);
        mpLicense.reset();
      }
      mImpl.jobs[mRec].end = mImpl.tick();
      return 0;
    }

   private:
    Impl& mImpl;
    size_t mRec;
  };

  class ConfigureJob : public cc::ReqCfgJob {
   public:
    ConfigureJob(Impl& impl, size_t rec, std::shared_ptr<host::ConfigParam> config)
        : ReqCfgJob(host::IPipeMgr::getInstance(), std::move(config)), mImpl(impl), mRec(rec) {}
    int32_t assignLicense(std::unique_ptr<host::IRequestLicense> license) override {
      Inside in(mImpl);
      mImpl.observeLicence(mImpl.jobs[mRec], license.get());
      return ReqCfgJob::assignLicense(std::move(license));
    }
    int32_t execute() override {
      {
        Inside in(mImpl);
        mImpl.jobs[mRec].ran = true;
        mImpl.jobs[mRec].start = mImpl.tick();
      }
      int32_t rc = ReqCfgJob::execute();
      Inside in(mImpl);
      mImpl.jobs[mRec].end = mImpl.tick();
      return rc;
    }

   private:
    Impl& mImpl;
    size_t mRec;
  };

  explicit Impl(const sim::Scenario& s) : scenario(s), plans(sim::planFrames(scenario)) {}

  // Without the scheduler (a plain run, the benchmark's baseline) the client's state is
  // guarded by `plainMutex`: a client thread holds it except inside the library's calls and
  // while it waits; the library's calls back into the client (jobs, the licence observer)
  // take it for their own duration. Under the scheduler these are no-ops.
  struct Outside {
    explicit Outside(Impl& impl) : d(impl) {
      if (!d.plain) return;
      d.plainCond.notify_all();
      d.plainMutex.unlock();
    }
    ~Outside() {
      if (d.plain) d.plainMutex.lock();
    }
    Impl& d;
  };
  struct Inside {
    explicit Inside(Impl& impl) : d(impl) {
      if (d.plain) d.plainMutex.lock();
    }
    ~Inside() {
      if (!d.plain) return;
      d.plainCond.notify_all();
      d.plainMutex.unlock();
    }
    Impl& d;
  };
  void waitUntil(const std::function<bool()>& ready, const char* what) {
    if (!plain) {
      Scheduler::waitUntil(ready, what);
      return;
    }
    plainCond.notify_all();
    std::unique_lock<std::mutex> lock(plainMutex, std::adopt_lock);
    plainCond.wait(lock, ready);
    lock.release();
  }

  // The logical clock: one microsecond per record, so that the checker's times read as steps.
  Nanos tick() { return clock += 1000; }

  void observeLicence(JobRecord& rec, const host::IRequestLicense* licence) {
    rec.fd = licence ? licence->getFD() : -1;
    if (auto* h = dynamic_cast<const host::HostLicense*>(licence)) rec.serial = h->serial();
  }

  void reset() {
    clock = 0;
    frames.assign(plans.size(), FrameState());
    dropsPlanned.clear();
    eventsAt.clear();
    racingDrops.clear();
    lateDrops.clear();
    dropRequests.clear();
    noFrameAfter.clear();
    gate = kNoGate;
    inFlight = 0;
    framesDone = 0;
    nextFirstPrepare = 0;
    firstPrepareBusy = false;
    context = -1;
    jobs.clear();
    prepares.clear();
    setConfigured.clear();
    events.clear();
    licences.clear();
    for (const auto& e : scenario.events) {
      size_t idx = sim::planIndex(plans, e.frame);
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

  static bool gated(const sim::PlannedEvent& e) {
    return (e.kind == EventKind::Flush || (e.kind == EventKind::InformInflight && e.value == 0)) &&
           e.when == EventTiming::Usual;
  }
  bool hasEventWhere(size_t idx, bool (*pred)(const sim::PlannedEvent&)) const {
    auto it = eventsAt.find(idx);
    return it != eventsAt.end() &&
           std::any_of(it->second.begin(), it->second.end(),
                       [pred](const sim::PlannedEvent* e) { return pred(*e); });
  }
  static bool whileRunning(const sim::PlannedEvent& e) {
    return e.when == EventTiming::WhileRunning;
  }
  bool complete(size_t idx) const {
    return frames[idx].flushed || frames[idx].done.size() == plans[idx].sensors.size();
  }
  bool fullyPrepared(size_t idx) const {
    return frames[idx].flushed || frames[idx].prepared.size() == plans[idx].sensors.size();
  }
  bool mayEmplace(size_t idx) const {
    return idx < kPreparedWindow || fullyPrepared(idx - kPreparedWindow);
  }
  void markDone(uint32_t sensor, size_t idx) {
    if (!frames[idx].done.insert(sensor).second || frames[idx].flushed) return;
    if (complete(idx)) {
      --inFlight;
      ++framesDone;
    }
  }
  const EventTiming* dropFor(uint32_t sensor, uint32_t frame) const {
    auto it = dropsPlanned.find({sensor, frame});
    return it == dropsPlanned.end() ? nullptr : &it->second;
  }

  // ---- sensor threads ----

  bool maySend(uint32_t sensor, size_t idx) const {
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
    if (!f.racing.count(sensor)) {
      for (uint32_t r : f.racing) {
        if (!f.racingReturned.count(r) || !f.dropReported.count(r)) return false;
      }
    }
    return true;
  }

  void requestDrop(uint32_t sensor, size_t idx, bool wait) {
    dropRequests.push_back({sensor, idx});
    if (!wait) return;
    waitUntil([&] { return frames[idx].dropReported.count(sensor) > 0; },
              "its drop to be reported");
  }

  void configureStep(uint32_t sensor, const FramePlan& p, bool byJob) {
    if (byJob) {
      size_t rec = newJob(sensor, p.frame, JobKind::Configure);
      auto config = std::make_shared<host::ConfigParam>();
      config->sensorId = sensor;
      config->frameNo = p.frame;
      auto job = std::make_shared<ConfigureJob>(*this, rec, config);
      jobs[rec].sent = tick();
      {
        Outside out(*this);
        deliver->sendJobForConfigure(sensor, p.frame, job);
      }
      if (!jobs[rec].ran) jobs[rec].end = tick();
    } else {
      setConfigured.push_back({sensor, p.frame, tick()});
      context = int32_t(sensor);
      {
        Outside out(*this);
        deliver->setConfigured(sensor, p.frame);
      }
      context = -1;
    }
  }

  size_t newJob(uint32_t sensor, uint32_t frame, JobKind kind) {
    jobs.emplace_back();
    jobs.back().sensor = sensor;
    jobs.back().frame = frame;
    jobs.back().kind = kind;
    return jobs.size() - 1;
  }

  void enqueue(uint32_t sensor, uint32_t frame) {
    size_t rec = newJob(sensor, frame, JobKind::Enqueue);
    auto job = std::make_shared<EnqueueJob>(*this, rec);
    jobs[rec].sent = tick();
    int32_t result;
    {
      Outside out(*this);
      result = deliver->sendJobForEnque(sensor, frame, job);
    }
    jobs[rec].result = result;
    if (!jobs[rec].ran) jobs[rec].end = tick();
  }

  bool sendFrame(uint32_t sensor, size_t idx) {
    const FramePlan& p = plans[idx];
    const EventTiming* drop = dropFor(sensor, p.frame);
    bool needCfg = p.needCfg.count(sensor) > 0;
    if (drop && *drop == EventTiming::BeforeConfigure) {
      requestDrop(sensor, idx, true);
      if (needCfg) configureStep(sensor, p, false);
      return false;
    }
    if (needCfg) configureStep(sensor, p, p.cfgByJob.count(sensor) > 0);
    if (drop && *drop == EventTiming::Usual) {
      requestDrop(sensor, idx, false);
      return false;
    }
    bool racing = drop && *drop == EventTiming::Racing;
    if (racing) frames[idx].racingSent.insert(sensor);
    enqueue(sensor, p.frame);
    if (racing) frames[idx].racingReturned.insert(sensor);
    return true;
  }

  void sensorLoop(uint32_t sensor) {
    std::vector<size_t> mine;
    for (size_t i = 0; i < plans.size(); ++i) {
      if (plans[i].participates(sensor)) mine.push_back(i);
    }
    size_t prepPos = 0, sendPos = 0;
    auto mayPrepare = [&] {
      if (prepPos >= mine.size() || !frames[mine[prepPos]].emplaced) return false;
      const FrameState& f = frames[mine[prepPos]];
      return f.firstPrepareStarted || (mine[prepPos] == nextFirstPrepare && !firstPrepareBusy);
    };
    while (sendPos < mine.size()) {
      while (mayPrepare()) {
        size_t idx = mine[prepPos];
        FrameState& f = frames[idx];
        bool first = !f.firstPrepareStarted;
        if (first) {
          f.firstPrepareStarted = true;
          firstPrepareBusy = true;
        }
        sim::PrepareRecord rec{sensor, plans[idx].frame, tick(), 0};
        {
          Outside out(*this);
          deliver->prepare(sensor, plans[idx].frame, f.fc);
        }
        rec.end = tick();
        prepares.push_back(rec);
        f.prepared.insert(sensor);
        if (first) {
          f.firstPrepareDone = true;
          firstPrepareBusy = false;
          while (nextFirstPrepare < frames.size() && frames[nextFirstPrepare].firstPrepareDone) {
            ++nextFirstPrepare;
          }
        }
        ++prepPos;
      }
      size_t idx = mine[sendPos];
      if (frames[idx].flushed) {
        ++sendPos;
        continue;
      }
      if (!maySend(sensor, idx)) {
        waitUntil([&] { return mayPrepare() || frames[idx].flushed || maySend(sensor, idx); },
                  "its next frame to be preparable or sendable");
        continue;
      }
      bool sent = sendFrame(sensor, idx);
      if (noFrameAfter.count({sensor, plans[idx].frame})) enqueue(sensor, sim::kNoFrame);
      if (sent) markDone(sensor, idx);
      ++sendPos;
    }
  }

  // ---- pipeline thread ----

  sim::EventRecord& newEvent(EventKind kind, uint32_t sensor, uint32_t frame, uint32_t value) {
    events.emplace_back();
    sim::EventRecord& e = events.back();
    e.kind = kind;
    e.sensor = sensor;
    e.frame = frame;
    e.value = value;
    return e;
  }

  void notify(sim::EventRecord& e) {
    e.begin = tick();
    if (e.kind == EventKind::QueueFlush) {
      Outside out(*this);
      deliver->flush(e.sensor);
    } else {
      if (e.kind == EventKind::Drop) context = int32_t(e.sensor);
      {
        Outside out(*this);
        deliver->notifyEvent(cc::CamDeliver::EventType(e.kind), e.sensor, e.frame, e.value);
      }
      context = -1;
    }
    e.end = tick();
  }

  void reportDrop(uint32_t sensor, size_t idx) {
    sim::EventRecord& e = newEvent(EventKind::Drop, sensor, plans[idx].frame, 0);
    notify(e);
    frames[idx].dropReported.insert(sensor);
    markDone(sensor, idx);
  }

  bool dropsDue() const {
    if (!dropRequests.empty()) return true;
    for (const auto& r : racingDrops) {
      const FrameState& f = frames[r.second];
      if (f.flushed || (f.racingSent.count(r.first) && !f.dropReported.count(r.first))) {
        return true;
      }
    }
    for (const auto& l : lateDrops) {
      if (complete(l.second)) return true;
    }
    return false;
  }

  bool reportDueDrops() {
    bool any = false;
    while (!dropRequests.empty()) {
      auto request = dropRequests.front();
      dropRequests.pop_front();
      reportDrop(request.first, request.second);
      any = true;
    }
    for (auto it = racingDrops.begin(); it != racingDrops.end();) {
      FrameState& f = frames[it->second];
      if (f.flushed) {
        it = racingDrops.erase(it);
      } else if (f.racingSent.count(it->first) && !f.dropReported.count(it->first)) {
        auto request = *it;
        racingDrops.erase(it);
        reportDrop(request.first, request.second);
        any = true;
        it = racingDrops.begin();
      } else {
        ++it;
      }
    }
    for (auto it = lateDrops.begin(); it != lateDrops.end();) {
      if (complete(it->second)) {
        auto request = *it;
        lateDrops.erase(it);
        notify(newEvent(EventKind::Drop, request.first, plans[request.second].frame, 0));
        any = true;
        it = lateDrops.begin();
      } else {
        ++it;
      }
    }
    return any;
  }

  template <typename Pred>
  void waitFor(Pred pred, const char* what) {
    for (;;) {
      if (reportDueDrops()) continue;
      if (pred()) return;
      std::function<bool()> ready = [&] { return pred() || dropsDue(); };
      waitUntil(ready, what);
    }
  }

  std::vector<size_t> syncFrames(uint32_t sensor) const {
    std::vector<size_t> out;
    for (size_t i = 0; i < frames.size(); ++i) {
      if (frames[i].emplaced && !complete(i) && !frames[i].syncBroken &&
          plans[i].syncList.count(sensor)) {
        out.push_back(i);
      }
    }
    return out;
  }

  void reportWhileRunning(const sim::PlannedEvent& ev) {
    waitFor(
        [&] {
          for (size_t i : syncFrames(ev.sensor)) {
            if (!frames[i].firstPrepareDone || !plans[i].needCfg.empty()) return false;
          }
          return true;
        },
        "the named frames to be prepared");
    std::vector<size_t> named = syncFrames(ev.sensor);
    sim::EventRecord& e = newEvent(ev.kind, ev.sensor, ev.frame, ev.value);
    for (size_t i : named) {
      e.frames.push_back(plans[i].frame);
      frames[i].syncBroken = true;
    }
    notify(e);
  }

  void emplaceFrame(size_t idx) {
    const FramePlan& p = plans[idx];
    auto it = eventsAt.find(idx);
    if (it != eventsAt.end()) {
      for (const sim::PlannedEvent* ev : it->second) {
        if (gated(*ev)) continue;
        if (ev->when == EventTiming::WhileRunning) {
          reportWhileRunning(*ev);
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
    Scheduler::nameObject(&fc->mutex, "record F:" + std::to_string(p.frame) + ".mutex");
    {
      Outside out(*this);
      pool->emplace(p.frame, fc);
    }
    frames[idx].fc = fc;
    frames[idx].emplaced = true;
    ++inFlight;
  }

  void runHeldEvents(size_t idx) {
    const std::vector<const sim::PlannedEvent*>& evs = eventsAt[idx];
    uint32_t frameNo = plans[idx].frame;
    gate = idx;
    waitFor(
        [&] {
          for (size_t i = 0; i < idx; ++i) {
            if (!complete(i)) return false;
          }
          return true;
        },
        "the frames before the barrier to finish");
    std::set<uint32_t> reporting;
    for (const sim::PlannedEvent* e : evs) {
      if (gated(*e) && e->kind == EventKind::InformInflight) reporting.insert(e->sensor);
    }
    size_t end = idx;
    while (end < plans.size() && inFlight < scenario.maxInFlight && mayEmplace(end)) {
      if (end > idx && (hasEventWhere(end, gated) || hasEventWhere(end, whileRunning))) break;
      bool configures = std::any_of(reporting.begin(), reporting.end(), [&](uint32_t s) {
        return !plans[end].needCfg.empty() && plans[end].syncList.count(s);
      });
      if (configures) break;
      emplaceFrame(end++);
    }
    waitFor(
        [&] {
          for (size_t i = idx; i < end; ++i) {
            if (frames[i].prepared.size() < plans[i].sensors.size()) return false;
          }
          return true;
        },
        "the held frames to be prepared");
    for (const sim::PlannedEvent* ev : evs) {
      if (!gated(*ev)) continue;
      std::vector<uint32_t> pending;
      for (size_t i = idx; i < end; ++i) {
        if (complete(i)) continue;
        if (ev->kind == EventKind::Flush || plans[i].syncList.count(ev->sensor)) {
          pending.push_back(plans[i].frame);
        }
      }
      if (ev->kind == EventKind::InformInflight) {
        sim::EventRecord& e = newEvent(ev->kind, ev->sensor, frameNo, ev->value);
        e.frames = pending;
        for (size_t i = idx; i < end; ++i) {
          if (plans[i].syncList.count(ev->sensor)) frames[i].syncBroken = true;
        }
        notify(e);
        continue;
      }
      std::vector<uint32_t> order{ev->sensor};
      for (const auto& s : scenario.sensors) {
        if (s.id != ev->sensor) order.push_back(s.id);
      }
      for (uint32_t s : order) {
        sim::EventRecord& e = newEvent(EventKind::Flush, s, frameNo, ev->value);
        e.frames = pending;
        notify(e);
      }
      sim::EventRecord& q = newEvent(EventKind::QueueFlush, ev->sensor, frameNo, 0);
      q.frames = pending;
      notify(q);
      for (size_t i = idx; i < end; ++i) {
        if (complete(i)) continue;
        frames[i].flushed = true;
        --inFlight;
        ++framesDone;
      }
    }
    gate = kNoGate;
  }

  void pipelineLoop() {
    for (size_t idx = 0; idx < plans.size(); ++idx) {
      if (frames[idx].emplaced) continue;
      waitFor([&] { return inFlight < scenario.maxInFlight && mayEmplace(idx); },
              "room for the next frame");
      if (hasEventWhere(idx, gated)) {
        runHeldEvents(idx);
      } else {
        emplaceFrame(idx);
      }
    }
    waitFor([&] { return framesDone == plans.size() && lateDrops.empty(); },
            "every frame to finish");
  }

  const sim::Scenario scenario;
  std::vector<FramePlan> plans;
  bool plain = false;
  // Guards the client's state below in plain runs only (Outside and Inside above say when it
  // is held); under the scheduler it is never taken, since one thread runs at a time. A
  // contract that depends on `plain` is beyond clang's attributes, so the fields carry no
  // ORVCAM_GUARDED_BY. It is released around every call into the library and taken inside
  // the library's callbacks (jobs, the licence observer), so it comes after the library's locks.
  std::mutex plainMutex;
  std::condition_variable plainCond;
  std::shared_ptr<host::HostPipeMgr> pipeMgr;
  std::shared_ptr<cc::FrameContextPool> pool;
  std::unique_ptr<cc::CamDeliver> deliver;

  // Touched only by the thread the scheduler runs.
  Nanos clock = 0;
  int32_t context = -1;  // the sensor a licence handed back now is put down to
  std::vector<FrameState> frames;
  std::map<std::pair<uint32_t, uint32_t>, EventTiming> dropsPlanned;
  std::map<size_t, std::vector<const sim::PlannedEvent*>> eventsAt;
  std::set<std::pair<uint32_t, uint32_t>> noFrameAfter;
  size_t gate = kNoGate;
  size_t inFlight = 0;
  uint32_t framesDone = 0;
  size_t nextFirstPrepare = 0;
  bool firstPrepareBusy = false;
  std::deque<std::pair<uint32_t, size_t>> dropRequests;
  std::vector<std::pair<uint32_t, size_t>> racingDrops;
  std::vector<std::pair<uint32_t, size_t>> lateDrops;
  std::deque<JobRecord> jobs;
  std::vector<sim::PrepareRecord> prepares;
  std::vector<sim::SetConfiguredRecord> setConfigured;
  std::deque<sim::EventRecord> events;
  std::vector<sim::LicenceRecord> licences;
};

ClientRun::ClientRun(const sim::Scenario& scenario) : mImpl(std::make_unique<Impl>(scenario)) {}

ClientRun::~ClientRun() = default;

std::vector<std::string> ClientRun::threadNames() const {
  std::vector<std::string> names{"pipeline"};
  for (const auto& s : mImpl->scenario.sensors) names.push_back("sensor " + std::to_string(s.id));
  return names;
}

std::vector<std::function<void()>> ClientRun::begin() {
  Impl& d = *mImpl;
  d.reset();
  host::setPipeMgrInstance(nullptr);
  d.pipeMgr = host::hostPipeMgr();
  d.pipeMgr->reset();
  d.pipeMgr->setObserver([&d](host::LicenseEvent event, uint64_t serial, int32_t fd) {
    Impl::Inside in(d);
    sim::LicenceRecord r;
    r.kind = event == host::LicenseEvent::Acquired   ? sim::LicenceEventKind::Acquired
             : event == host::LicenseEvent::Released ? sim::LicenceEventKind::Released
                                                     : sim::LicenceEventKind::Destroyed;
    r.serial = serial;
    r.fd = fd;
    r.at = d.tick();
    r.context = d.context;
    d.licences.push_back(r);
  });
  d.pool = std::make_shared<cc::FrameContextPool>();
  d.deliver = std::make_unique<cc::CamDeliver>(d.pool);
  cc::CamDeliver& cd = *d.deliver;
  Scheduler::nameObject(&cd.mPrepareMutex, "deliverer.mPrepareMutex");
  Scheduler::nameObject(&cd.mLicenseMutex, "deliverer.mLicenseMutex");
  Scheduler::nameObject(&cd.mJobLock, "deliverer.mJobLock");
  Scheduler::nameObject(&cd.mGuard.mutex, "guard.mutex");
  Scheduler::nameObject(&cd.mGuard.cond, "guard.cond");
  Scheduler::nameObject(&cd.mGuard.eraseCond, "guard.eraseCond");
  Scheduler::nameObject(&cd.mLicenseQueue.mutex, "licenceQueue.mutex");
  Scheduler::nameObject(&d.pool->mutex, "pool.mutex");
  std::vector<std::function<void()>> bodies{[&d] { d.pipelineLoop(); }};
  for (const auto& s : d.scenario.sensors) {
    uint32_t id = s.id;
    bodies.push_back([&d, id] { d.sensorLoop(id); });
  }
  return bodies;
}

sim::History ClientRun::runPlain() {
  Impl& d = *mImpl;
  std::vector<std::function<void()>> bodies = begin();
  d.plain = true;
  std::vector<std::thread> threads;
  for (auto& body : bodies) {
    threads.emplace_back([&d, &body] {
      d.plainMutex.lock();
      body();
      d.plainCond.notify_all();
      d.plainMutex.unlock();
    });
  }
  for (auto& t : threads) t.join();
  sim::History h = end();
  d.plain = false;
  return h;
}

sim::History ClientRun::end() {
  Impl& d = *mImpl;
  sim::History h;
  h.scenario = d.scenario.name;
  for (const auto& cam : d.scenario.sensors) h.sensors.push_back(cam.id);
  std::sort(h.sensors.begin(), h.sensors.end());
  h.plans = d.plans;
  {
    std::lock_guard<std::mutex> lock(d.pool->mutex);
    for (const auto& entry : d.pool->pool) h.framesLeftInPool.push_back(entry.first);
  }
  h.teardownAt = d.tick();
  d.deliver.reset();
  h.wallTime = d.tick();
  d.pipeMgr->setObserver([](host::LicenseEvent, uint64_t, int32_t) {});
  host::LicenseAccount account = d.pipeMgr->account();
  h.account.acquired = account.acquired;
  h.account.released = account.released;
  h.account.destroyed = account.destroyed;
  h.prepares = d.prepares;
  h.setConfigured = d.setConfigured;
  h.jobs.assign(d.jobs.begin(), d.jobs.end());
  h.events.assign(d.events.begin(), d.events.end());
  h.licences = std::move(d.licences);
  d.pool.reset();
  d.pipeMgr.reset();
  return h;
}

}  // namespace explore
}  // namespace orvcam
