#include "explore/Client.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"
#include "ThreadAnnotations.h"
#include "check/Checker.h"
#include "client/ClientModel.h"
#include "explore/Explorer.h"

namespace orvcam {
namespace explore {

namespace cc = NSCam::camsys::camcoordinator;
using client::EventTiming;
using history::EventKind;
using history::FramePlan;
using history::JobKind;
using history::JobRecord;
using history::Nanos;

std::string unsupportedFeature(const client::Scenario& scenario) {
  if (!scenario.gaps.empty()) return "gaps";
  return "";
}

// The simulator's client (tools/sim/Runner.cpp, with the plan, state and rules of
// tools/client/ClientModel.h) with the time taken out: every wait of the client is a scheduler
// wait on a predicate over this state, which only the running thread touches. Times in the history
// are a logical clock that ticks at every record.
struct ClientRun::Impl {
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
        Outside out(mImpl, Call::Release, mImpl.jobs[mRec].sensor, mImpl.jobs[mRec].frame);
        // the observer takes the lock itself
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

  explicit Impl(const client::Scenario& s) : scenario(s), plan(scenario), client(plan) {}

  // Without the scheduler (a plain run, the benchmark's baseline) the client's state is
  // guarded by `plainMutex`: a client thread holds it except inside the library's calls and
  // while it waits; the library's calls back into the client (jobs, the licence observer)
  // take it for their own duration. Under the scheduler these are no-ops.
  // Under the scheduler they tell it where client code runs, for its state fingerprint.
  enum class Call : uint8_t {
    Prepare = 1,
    SendConfigure,
    SetConfigured,
    SendEnqueue,
    Event,
    Flush,
    Emplace,
    Release
  };
  // Client code ends (a call into the library, or the end of a callback): under the
  // scheduler it is told; in a plain run the state's lock is let go. Whether the lock is held
  // depends on `plain`, which the analysis cannot follow (see plainMutex).
  void leaveClientCode() ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
    if (!plain) {
      Scheduler::clientLeave();
      return;
    }
    plainCond.notify_all();
    plainMutex.unlock();
  }
  // Client code runs again: after a call (`returning`), or in a callback.
  void enterClientCode(bool returning) ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
    if (!plain) {
      if (returning) {
        Scheduler::clientReturn();
      } else {
        Scheduler::clientEnter();
      }
      return;
    }
    plainMutex.lock();
  }
  struct Outside {
    Outside(Impl& impl, Call call, uint32_t sensor, uint32_t frame, uint64_t more = 0) : d(impl) {
      if (!d.plain) {
        Scheduler::clientCall((uint64_t(call) << 56) ^ (uint64_t(sensor) << 32) ^ frame ^
                              (more * 0x9e3779b97f4a7c15ull));
      }
      d.leaveClientCode();
    }
    ~Outside() { d.enterClientCode(true); }
    Impl& d;
  };
  struct Inside {
    explicit Inside(Impl& impl) : d(impl) { d.enterClientCode(false); }
    ~Inside() { d.leaveClientCode(); }
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
    client = client::ClientState(plan);
    context = -1;
    jobs.clear();
    prepares.clear();
    setConfigured.clear();
    events.clear();
    licences.clear();
    emplacedAt.assign(plan.plans.size(), 0);
    endFindings.clear();
    positions.clear();
    for (const auto& cam : scenario.sensors) positions[cam.id] = {};
  }

  // What the client's threads decide by, for the scheduler's state fingerprint: the client's
  // state, each sensor's place in its frames, and the sensor a release is put down to. Not the
  // records kept for the checker.
  uint64_t digest() const {
    uint64_t h = 0x5eedull;
    auto add = [&h](uint64_t v) { h = (h ^ v) * 0x100000001b3ull + (h >> 29); };
    auto addSet = [&add](const std::set<uint32_t>& s) {
      add(s.size());
      for (uint32_t v : s) add(v);
    };
    for (const auto& f : client.frames) {
      add(uint64_t(f.emplaced) | uint64_t(f.flushed) << 1 | uint64_t(f.firstPrepareStarted) << 2 |
          uint64_t(f.firstPrepareDone) << 3 | uint64_t(f.syncBroken) << 4);
      for (const auto* s :
           {&f.racing, &f.racingSent, &f.racingReturned, &f.prepared, &f.done, &f.dropReported}) {
        addSet(*s);
      }
    }
    add(client.gate);
    add(client.inFlight);
    add(client.framesDone);
    add(client.nextFirstPrepare);
    add(client.firstPrepareBusy);
    for (const auto* list : {&client.racingDrops, &client.lateDrops}) {
      add(list->size());
      for (const auto& r : *list) add(uint64_t(r.first) << 32 | r.second);
    }
    add(client.dropRequests.size());
    for (const auto& r : client.dropRequests) add(uint64_t(r.first) << 32 | r.second);
    for (const auto& p : positions)
      add(uint64_t(p.first) << 48 ^ p.second.prepare << 24 ^ p.second.send);
    add(uint64_t(uint32_t(context)));
    return h;
  }

  // ---- sensor threads ----

  void requestDrop(uint32_t sensor, size_t idx, bool wait) {
    client.dropRequests.push_back({sensor, idx});
    if (!wait) return;
    waitUntil([&] { return client.frames[idx].dropReported.count(sensor) > 0; },
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
        Outside out(*this, Call::SendConfigure, sensor, p.frame);
        deliver->sendJobForConfigure(sensor, p.frame, job);
      }
      if (!jobs[rec].ran) jobs[rec].end = tick();
    } else {
      setConfigured.push_back({sensor, p.frame, tick()});
      context = int32_t(sensor);
      {
        Outside out(*this, Call::SetConfigured, sensor, p.frame);
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
      Outside out(*this, Call::SendEnqueue, sensor, frame);
      result = deliver->sendJobForEnque(sensor, frame, job);
    }
    jobs[rec].result = result;
    if (!jobs[rec].ran) jobs[rec].end = tick();
  }

  bool sendFrame(uint32_t sensor, size_t idx) {
    const FramePlan& p = plan.plans[idx];
    const EventTiming* drop = plan.dropFor(sensor, p.frame);
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
    if (racing) client.frames[idx].racingSent.insert(sensor);
    enqueue(sensor, p.frame);
    if (racing) client.frames[idx].racingReturned.insert(sensor);
    return true;
  }

  void sensorLoop(uint32_t sensor) {
    std::vector<size_t> mine;
    for (size_t i = 0; i < plan.plans.size(); ++i) {
      if (plan.plans[i].participates(sensor)) mine.push_back(i);
    }
    size_t& prepPos = positions.at(sensor).prepare;
    size_t& sendPos = positions.at(sensor).send;
    auto mayPrepare = [&] {
      if (prepPos >= mine.size() || !client.frames[mine[prepPos]].emplaced) return false;
      const client::ClientState::FrameState& f = client.frames[mine[prepPos]];
      return f.firstPrepareStarted ||
             (mine[prepPos] == client.nextFirstPrepare && !client.firstPrepareBusy);
    };
    while (sendPos < mine.size()) {
      while (mayPrepare()) {
        size_t idx = mine[prepPos];
        client::ClientState::FrameState& f = client.frames[idx];
        bool first = !f.firstPrepareStarted;
        if (first) {
          f.firstPrepareStarted = true;
          client.firstPrepareBusy = true;
        }
        history::PrepareRecord rec{sensor, plan.plans[idx].frame, tick(), 0};
        {
          Outside out(*this, Call::Prepare, sensor, plan.plans[idx].frame);
          deliver->prepare(sensor, plan.plans[idx].frame, f.fc);
        }
        rec.end = tick();
        prepares.push_back(rec);
        f.prepared.insert(sensor);
        if (first) client.firstPrepareReturned(idx);
        ++prepPos;
      }
      size_t idx = mine[sendPos];
      if (client.frames[idx].flushed) {
        ++sendPos;
        continue;
      }
      if (!client.maySend(sensor, idx)) {
        waitUntil(
            [&] {
              return mayPrepare() || client.frames[idx].flushed || client.maySend(sensor, idx);
            },
            "its next frame to be preparable or sendable");
        continue;
      }
      bool sent = sendFrame(sensor, idx);
      if (plan.noFrameAfter.count({sensor, plan.plans[idx].frame}))
        enqueue(sensor, history::kNoFrame);
      if (sent) client.markDone(sensor, idx);
      ++sendPos;
    }
  }

  // ---- pipeline thread ----

  history::EventRecord& newEvent(EventKind kind, uint32_t sensor, uint32_t frame, uint32_t value) {
    events.emplace_back();
    history::EventRecord& e = events.back();
    e.kind = kind;
    e.sensor = sensor;
    e.frame = frame;
    e.value = value;
    return e;
  }

  void notify(history::EventRecord& e) {
    e.begin = tick();
    if (e.kind == EventKind::QueueFlush) {
      Outside out(*this, Call::Flush, e.sensor, e.frame);
      deliver->flush(e.sensor);
    } else {
      if (e.kind == EventKind::Drop) context = int32_t(e.sensor);
      {
        Outside out(*this, Call::Event, e.sensor, e.frame, (uint64_t(e.kind) << 32) | e.value);
        deliver->notifyEvent(cc::CamDeliver::EventType(e.kind), e.sensor, e.frame, e.value);
      }
      context = -1;
    }
    e.end = tick();
  }

  void reportDrop(uint32_t sensor, size_t idx) {
    history::EventRecord& e = newEvent(EventKind::Drop, sensor, plan.plans[idx].frame, 0);
    notify(e);
    client.frames[idx].dropReported.insert(sensor);
    client.markDone(sensor, idx);
  }

  bool reportDueDrops() {
    bool any = false;
    auto round = client::ClientState::DropRound::Requested;
    while (auto d = client.nextDueDrop(&round)) {
      if (d->late) {
        notify(newEvent(EventKind::Drop, d->sensor, plan.plans[d->idx].frame, 0));
      } else {
        reportDrop(d->sensor, d->idx);
      }
      any = true;
    }
    return any;
  }

  template <typename Pred>
  void waitFor(Pred pred, const char* what) {
    for (;;) {
      if (reportDueDrops()) continue;
      if (pred()) return;
      std::function<bool()> ready = [&] { return pred() || client.dropsDue(); };
      waitUntil(ready, what);
    }
  }

  void reportWhileRunning(const client::PlannedEvent& ev) {
    waitFor(
        [&] {
          for (size_t i : client.syncFrames(ev.sensor)) {
            if (!client.frames[i].firstPrepareDone || !plan.plans[i].needCfg.empty()) return false;
          }
          return true;
        },
        "the named frames to be prepared");
    std::vector<size_t> named = client.syncFrames(ev.sensor);
    history::EventRecord& e = newEvent(ev.kind, ev.sensor, ev.frame, ev.value);
    for (size_t i : named) {
      e.frames.push_back(plan.plans[i].frame);
      client.frames[i].syncBroken = true;
    }
    notify(e);
  }

  void emplaceFrame(size_t idx) {
    const FramePlan& p = plan.plans[idx];
    auto it = plan.eventsAt.find(idx);
    if (it != plan.eventsAt.end()) {
      for (const client::PlannedEvent* ev : it->second) {
        if (client::ClientPlan::gated(*ev)) continue;
        if (ev->when == EventTiming::WhileRunning) {
          reportWhileRunning(*ev);
        } else {
          notify(newEvent(ev->kind, ev->sensor, ev->frame, ev->value));
        }
      }
    }
    auto fc = client::makeFrameContext(p);
    Scheduler::nameObject(&fc->mutex, "record F:" + std::to_string(p.frame) + ".mutex");
    {
      Outside out(*this, Call::Emplace, 0, p.frame);
      pool->emplace(p.frame, fc);
    }
    client.frames[idx].fc = fc;
    client.frames[idx].emplaced = true;
    emplacedAt[idx] = tick();
    ++client.inFlight;
  }

  void runHeldEvents(size_t idx) {
    const std::vector<const client::PlannedEvent*>& evs = plan.eventsAt.at(idx);
    uint32_t frameNo = plan.plans[idx].frame;
    client.gate = idx;
    waitFor([&] { return client.completeBefore(idx); }, "the frames before the barrier to finish");
    size_t end = idx;
    while (client.mayEmplaceBehind(idx, end, scenario.maxInFlight)) emplaceFrame(end++);
    waitFor([&] { return client.preparedAll(idx, end); }, "the held frames to be prepared");
    for (const client::PlannedEvent* ev : evs) {
      if (!client::ClientPlan::gated(*ev)) continue;
      for (auto& report : client.heldReports(*ev, idx, end, scenario.sensors)) {
        history::EventRecord& e = newEvent(report.kind, report.sensor, frameNo, report.value);
        e.frames = std::move(report.frames);
        notify(e);
      }
      if (ev->kind == EventKind::Flush) client.flushHeld(idx, end);
    }
    client.gate = client::kNoGate;
  }

  void pipelineLoop() {
    for (size_t idx = 0; idx < plan.plans.size(); ++idx) {
      if (client.frames[idx].emplaced) continue;
      waitFor([&] { return client.inFlight < scenario.maxInFlight && client.mayEmplace(idx); },
              "room for the next frame");
      if (plan.hasGatedEvent(idx)) {
        runHeldEvents(idx);
      } else {
        emplaceFrame(idx);
      }
    }
    waitFor([&] { return client.framesDone == plan.plans.size() && client.lateDrops.empty(); },
            "every frame to finish");
  }

  const client::Scenario scenario;
  const client::ClientPlan plan;
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
  client::ClientState client;
  std::deque<JobRecord> jobs;
  std::vector<history::PrepareRecord> prepares;
  std::vector<history::SetConfiguredRecord> setConfigured;
  std::deque<history::EventRecord> events;
  std::vector<history::LicenceRecord> licences;
  std::vector<Nanos> emplacedAt;  // per plan index; 0 until emplaced
  struct Position {
    size_t prepare = 0;  // index into the sensor's frames of its next prepare
    size_t send = 0;     // and of its next send
  };
  std::map<uint32_t, Position> positions;  // per sensor; entries made by reset() only

  // The library's warnings of one run (its drops that found nothing to drop), not echoed.
  std::unique_ptr<host::LogCapture> capture;
  std::vector<std::string> endFindings;

  // ---- the deliverer's state at the end of a run, against the client's own account ----
  // Unmanaged thread, after every client thread has ended and before the deliverer goes.

  // A sensor's next order stamp: one per prepare and per drop that found its frame in flight
  // since the sensor's last flush, which starts it again at 0. Drops and flushes that keep
  // the counter where it was leave nothing else a later frame could tell apart, so this is
  // where such a fault shows.
  void judgeOrderStamps() {
    std::map<uint32_t, uint64_t> next;
    {
      std::lock_guard<std::mutex> lock(deliver->mGuard.mutex);
      next.insert(deliver->mGuard.orderMap.begin(), deliver->mGuard.orderMap.end());
    }
    std::set<std::pair<uint32_t, uint32_t>> idleDrops;  // (sensor, frame) that found nothing
    for (const host::LogLine& line : capture->lines()) {
      uint32_t s = 0, f = 0;
      char rest[32] = {};
      if (line.level == 'W' &&
          std::sscanf(line.message.c_str(), "[drop] [S:%u F:%u] %31[^\n]", &s, &f, rest) == 3 &&
          (std::string(rest) == "FC not found" || std::string(rest) == "already finished")) {
        idleDrops.insert({s, f});
      }
    }
    for (const auto& cam : scenario.sensors) {
      Nanos since = 0;
      for (const auto& e : events) {
        if (e.kind == EventKind::Flush && e.sensor == cam.id) since = std::max(since, e.end);
      }
      uint64_t prepared = 0, dropped = 0;
      for (const auto& p : prepares) prepared += p.sensor == cam.id && p.at > since;
      for (const auto& e : events) {
        dropped += e.kind == EventKind::Drop && e.sensor == cam.id && e.begin > since &&
                   !idleDrops.count({e.sensor, e.frame});
      }
      uint64_t have = next.count(cam.id) ? next[cam.id] : 0;
      if (have != prepared + dropped) {
        endFindings.push_back(
            "order stamps: sensor " + std::to_string(cam.id) + "'s next order stamp is " +
            std::to_string(have) + ", expected " + std::to_string(prepared + dropped) + " (" +
            std::to_string(prepared) + " prepare(s) and " + std::to_string(dropped) +
            " drop(s) of a frame in flight" + (since ? " since its last flush)" : ")"));
      }
    }
  }

  // Whether frame `idx` may have left the pool by `t`: each of its sensors had run its
  // enqueue job, been dropped or been flushed by then.
  bool mayHaveRetired(size_t idx, Nanos t) const {
    const FramePlan& p = plan.plans[idx];
    for (uint32_t s : p.sensors) {
      bool done = false;
      for (const auto& j : jobs) {
        done |= j.kind == JobKind::Enqueue && j.sensor == s && j.frame == p.frame && j.ran &&
                j.start < t;
      }
      for (const auto& e : events) {
        done |=
            e.begin < t && e.sensor == s &&
            ((e.kind == EventKind::Drop && e.frame == p.frame) ||
             (e.kind == EventKind::Flush && std::count(e.frames.begin(), e.frames.end(), p.frame)));
      }
      if (!done) return false;
    }
    return true;
  }

  // An in-flight report with value 0 breaks the frame sync of every frame in the pool that
  // holds the sensor in its sync list; a frame emplaced before the report and still in the
  // pool after it must have been among them.
  void judgeSyncBreaks() {
    for (const auto& e : events) {
      if (e.kind != EventKind::InformInflight || e.value != 0) continue;
      for (size_t i = 0; i < plan.plans.size(); ++i) {
        const FramePlan& p = plan.plans[i];
        if (!emplacedAt[i] || emplacedAt[i] > e.begin || !p.syncList.count(e.sensor) ||
            !std::count(p.sensors.begin(), p.sensors.end(), e.sensor) || mayHaveRetired(i, e.end))
          continue;
        const cc::FrameContext& fc = *client.frames[i].fc;
        std::lock_guard<std::mutex> lock(fc.mutex);
        if (!fc.syncBroken) {
          endFindings.push_back("sync break: frame " + std::to_string(p.frame) + " held sensor " +
                                std::to_string(e.sensor) +
                                " in frame sync and was in flight throughout its in-flight "
                                "report (value 0), but its sync is not broken");
        }
      }
    }
  }
};

ClientRun::ClientRun(const client::Scenario& scenario, bool memoryState)
    : mImpl(std::make_unique<Impl>(scenario)), mMemoryState(memoryState) {}

ClientRun::~ClientRun() {
  Scheduler::setClientDigest(nullptr);
  Scheduler::setMemoryState(false);
}

std::vector<std::string> ClientRun::threadNames() const {
  std::vector<std::string> names{"pipeline"};
  for (const auto& s : mImpl->scenario.sensors) names.push_back("sensor " + std::to_string(s.id));
  return names;
}

std::vector<std::function<void()>> ClientRun::begin() {
  Impl& d = *mImpl;
  d.reset();
  Scheduler::forgetNames();
  Scheduler::setClientDigest([&d] { return d.digest(); });
  Scheduler::setMemoryState(mMemoryState);
  // Each schedule is a world of its own: a pipe manager of its own and serials from 1, so
  // that equal states of two schedules hold equal values.
  d.pipeMgr = std::make_shared<host::HostPipeMgr>();
  host::setPipeMgrInstance(d.pipeMgr);
  host::restartLicenceSerials();
  d.pipeMgr->setObserver([&d](host::LicenseEvent event, uint64_t serial, int32_t fd) {
    Impl::Inside in(d);
    history::LicenceRecord r;
    r.kind = event == host::LicenseEvent::Acquired   ? history::LicenceEventKind::Acquired
             : event == host::LicenseEvent::Released ? history::LicenceEventKind::Released
                                                     : history::LicenceEventKind::Destroyed;
    r.serial = serial;
    r.fd = fd;
    r.at = d.tick();
    r.context = d.context;
    d.licences.push_back(r);
  });
  d.capture = std::make_unique<host::LogCapture>();
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

history::History ClientRun::runPlain() {
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
  history::History h = end();
  d.plain = false;
  return h;
}

const std::vector<std::string>& ClientRun::endFindings() const { return mImpl->endFindings; }

history::History ClientRun::end() {
  Impl& d = *mImpl;
  history::History h;
  h.scenario = d.scenario.name;
  for (const auto& cam : d.scenario.sensors) h.sensors.push_back(cam.id);
  std::sort(h.sensors.begin(), h.sensors.end());
  h.plans = d.plan.plans;
  {
    std::lock_guard<std::mutex> lock(d.pool->mutex);
    for (const auto& entry : d.pool->pool) h.framesLeftInPool.push_back(entry.first);
  }
  d.judgeOrderStamps();
  d.judgeSyncBreaks();
  h.teardownAt = d.tick();
  d.deliver.reset();
  d.capture.reset();
  h.wallTime = d.tick();
  d.pipeMgr->setObserver([](host::LicenseEvent, uint64_t, int32_t) {});
  host::LicenseAccount account = d.pipeMgr->account();
  h.account.acquired = account.acquired;
  h.account.released = account.released;
  h.account.destroyed = account.destroyed;
  h.account.emptyReleases = account.emptyReleases;
  h.prepares = d.prepares;
  h.setConfigured = d.setConfigured;
  h.jobs.assign(d.jobs.begin(), d.jobs.end());
  h.events.assign(d.events.begin(), d.events.end());
  h.licences = std::move(d.licences);
  d.pool.reset();
  host::setPipeMgrInstance(nullptr);
  d.pipeMgr.reset();
  return h;
}

// The scenario's client as the explorer's target (Explorer.h).
namespace {

class ScenarioTarget : public Target {
 public:
  ScenarioTarget(const client::Scenario& scenario, bool memoryState)
      : mClient(scenario, memoryState) {}
  std::vector<std::string> threadNames() const override { return mClient.threadNames(); }
  std::vector<std::function<void()>> begin() override { return mClient.begin(); }
  std::vector<std::string> judgeCompleted() override {
    std::vector<std::string> findings;
    history::History h = mClient.end();
    check::CheckResult check = check::checkHistory(h);
    // The classes of the log reader and the simulator: the library's rules, then the
    // client's, each with the rule it broke.
    for (const auto& x : check.violations) findings.push_back("[" + x.rule + "] " + x.message);
    for (const auto& x : check.notes) {
      findings.push_back("[client] " + x.message + " (rule broken: don't " + x.broken + ")");
    }
    for (const auto& x : mClient.endFindings()) findings.push_back("state: " + x);
    if (h.account.live() != 0) {
      findings.push_back("licence account: " + std::to_string(h.account.acquired) + " acquired, " +
                         std::to_string(h.account.released) + " handed back, " +
                         std::to_string(h.account.destroyed) + " destroyed");
    }
    return findings;
  }

 private:
  ClientRun mClient;
};

}  // namespace

TargetFactory scenarioTarget(const client::Scenario& scenario, bool memoryState) {
  auto shared = std::make_shared<client::Scenario>(scenario);
  return [shared, memoryState] {
    return std::unique_ptr<Target>(new ScenarioTarget(*shared, memoryState));
  };
}

}  // namespace explore
}  // namespace orvcam
