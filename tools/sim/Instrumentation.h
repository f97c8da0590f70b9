#pragma once
// The runner's observers, kept apart from its client model (Runner.cpp):
//   LicenceLedger  records every licence the host pipe manager hands out or back, and the
//                  sensor the client was calling for at that moment;
//   JobProbe       the simulated jobs: they time themselves and note the licence and FD the
//                  deliverer gave them, into the sending sensor's own log;
//   Watchdog       notices a run in which nothing moves any more.
// None of them calls back into the client model or the deliverer.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HostPlatform.h"
#include "ReqJob.h"
#include "ThreadAnnotations.h"
#include "history/History.h"

namespace orvcam {
namespace sim {

using history::History;
using history::JobKind;
using history::jobKindName;
using history::JobRecord;
using history::LicenceEventKind;
using history::LicenceRecord;
using history::Nanos;
using history::PrepareRecord;
using history::SetConfiguredRecord;

using SimClock = std::chrono::steady_clock;

inline std::string sensorFrameName(uint32_t sensor, uint32_t frame) {
  return "S:" + std::to_string(sensor) + " F:" + std::to_string(int32_t(frame));
}

// ---- licence attribution -------------------------------------------------------------------

class LicenceLedger {
 public:
  // Marks the calling thread as calling the deliverer on behalf of `sensor` (setConfigured,
  // a drop) for the scope's lifetime, so that a licence handed back meanwhile is put down to it.
  struct Scope {
    explicit Scope(uint32_t sensor) { context() = int32_t(sensor); }
    ~Scope() { context() = -1; }
  };

  explicit LicenceLedger(SimClock::time_point t0) : mT0(t0) {}

  // Called by the pipe manager on whichever thread acquires or hands back a licence, often
  // under the deliverer's and the licence queue's locks. Takes only mMutex, briefly.
  void record(host::LicenseEvent event, uint64_t serial, int32_t fd) ORVCAM_EXCLUDES(mMutex) {
    LicenceRecord r;
    r.kind = event == host::LicenseEvent::Acquired   ? LicenceEventKind::Acquired
             : event == host::LicenseEvent::Released ? LicenceEventKind::Released
                                                     : LicenceEventKind::Destroyed;
    r.serial = serial;
    r.fd = fd;
    r.at = std::chrono::duration_cast<std::chrono::nanoseconds>(SimClock::now() - mT0).count();
    r.context = context();
    std::lock_guard<std::mutex> lock(mMutex);
    mRecords.push_back(r);
  }

  // After every client thread has finished and the observer has been removed.
  std::vector<LicenceRecord> take() ORVCAM_EXCLUDES(mMutex) {
    std::lock_guard<std::mutex> lock(mMutex);
    return std::move(mRecords);
  }

 private:
  static int32_t& context() {
    thread_local int32_t sensor = -1;
    return sensor;
  }

  SimClock::time_point mT0;
  // Guards mRecords. A leaf: it is taken under the library's locks (the pipe manager is
  // called with them held) and nothing is locked or called while it is held.
  std::mutex mMutex;
  std::vector<LicenceRecord> mRecords ORVCAM_GUARDED_BY(mMutex);
};

// ---- job instrumentation -------------------------------------------------------------------

// What a sensor thread is doing, for the stall report.
enum class Activity : uint32_t {
  Idle,
  Preparing,
  Configuring,
  Enqueuing,
  SetConfigured,
  Done,
  WaitingForDrop
};

inline const char* activityText(Activity a) {
  switch (a) {
    case Activity::Idle: return "waiting for its next frame (held by the client)";
    case Activity::Preparing: return "inside prepare()";
    case Activity::Configuring: return "inside sendJobForConfigure()";
    case Activity::Enqueuing: return "inside sendJobForEnque()";
    case Activity::SetConfigured: return "inside setConfigured()";
    case Activity::Done: return "finished";
    case Activity::WaitingForDrop: return "waiting for the pipeline to report its drop";
  }
  return "?";
}

// One sensor's records. Written only by its own sensor thread (the jobs run on it too) until
// the run ends; `activity` is also read by the watchdog's stall report.
struct SensorLog {
  std::vector<PrepareRecord> prepares;
  std::vector<SetConfiguredRecord> setConfigured;
  std::deque<JobRecord> jobs;  // a deque: records stay put while jobs refer to them
  std::atomic<uint64_t> activity{uint64_t(Activity::Idle) << 32};

  void set(Activity a, uint32_t frame) {
    activity.store((uint64_t(a) << 32) | frame, std::memory_order_relaxed);
  }
  JobRecord& newJob(uint32_t sensor, uint32_t frame, JobKind kind) {
    jobs.emplace_back();
    JobRecord& rec = jobs.back();
    rec.sensor = sensor;
    rec.frame = frame;
    rec.kind = kind;
    return rec;
  }
};

// Times jobs and notes what they were given. Stateless apart from its settings; called from
// the sensor threads that run the jobs.
class JobProbe {
 public:
  JobProbe(SimClock::time_point t0, bool trace) : mT0(t0), mTrace(trace) {}

  Nanos now() const {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(SimClock::now() - mT0).count();
  }

  void observeLicence(JobRecord& rec, const host::IRequestLicense* licence) const {
    rec.fd = licence ? licence->getFD() : -1;
    if (auto* hostLicence = dynamic_cast<const host::HostLicense*>(licence)) {
      rec.serial = hostLicence->serial();
    }
  }

  void begins(JobRecord& rec) const {
    rec.ran = true;
    rec.start = now();
    if (mTrace) host::traceBegin(name(rec));
  }

  void ends(JobRecord& rec) const {
    rec.end = now();
    if (mTrace) host::traceEnd(name(rec));
  }

  static void sleepFor(Nanos ns) {
    if (ns > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(ns));
  }

 private:
  static std::string name(const JobRecord& rec) {
    return std::string(jobKindName(rec.kind)) + " " + sensorFrameName(rec.sensor, rec.frame);
  }

  SimClock::time_point mT0;
  bool mTrace;
};

namespace cc = NSCam::camsys::camcoordinator;

// A library job, timed and observed: the licence it is given is seen by the probe, and its
// execute() runs the job's own work between the probe's begin and end, after sleeping for the
// job's simulated duration.
template <typename Job>
class Probed : public Job {
 public:
  template <typename... JobArgs>
  Probed(const JobProbe& probe, JobRecord& rec, Nanos duration, JobArgs&&... jobArgs)
      : Job(std::forward<JobArgs>(jobArgs)...), mProbe(probe), mRec(rec), mDuration(duration) {}
  int32_t assignLicense(std::unique_ptr<host::IRequestLicense> license) override {
    mProbe.observeLicence(mRec, license.get());
    return Job::assignLicense(std::move(license));
  }
  int32_t execute() override {
    mProbe.begins(mRec);
    JobProbe::sleepFor(mDuration);
    int32_t rc = work();
    mProbe.ends(mRec);
    return rc;
  }

 private:
  int32_t work();
  const JobProbe& mProbe;
  JobRecord& mRec;
  Nanos mDuration;
};

// An enqueue request. The simulated pipeline is done with it when execute() returns, so it
// hands the request's licence back to the pipe manager then.
using ProbedEnqueueJob = Probed<cc::ReqBaseJob>;
template <>
inline int32_t Probed<cc::ReqBaseJob>::work() {
  if (mpLicense) host::IPipeMgr::getInstance()->releaseLicense(mpLicense, false, true);
  mpLicense.reset();
  return 0;
}

// A configure request: the library's configure job.
using ProbedConfigureJob = Probed<cc::ReqCfgJob>;
template <>
inline int32_t Probed<cc::ReqCfgJob>::work() {
  return ReqCfgJob::execute();
}

// ---- watchdog ------------------------------------------------------------------------------

// Every thread of the run calls touch() when it gets somewhere; the runner's own thread
// polls stalled(). Lock-free.
class Watchdog {
 public:
  explicit Watchdog(std::chrono::milliseconds timeout) : mTimeout(timeout) {}
  void touch() { mProgress.fetch_add(1, std::memory_order_relaxed); }
  // True once nothing has touched the watchdog for the timeout. Polling thread only.
  bool stalled() {
    uint64_t p = mProgress.load(std::memory_order_relaxed);
    auto now = SimClock::now();
    if (p != mSeen) {
      mSeen = p;
      mLastChange = now;
      return false;
    }
    return now - mLastChange > mTimeout;
  }
  std::chrono::milliseconds timeout() const { return mTimeout; }

 private:
  std::chrono::milliseconds mTimeout;
  std::atomic<uint64_t> mProgress{0};
  uint64_t mSeen = ~0ull;                              // polling thread only
  SimClock::time_point mLastChange = SimClock::now();  // polling thread only
};

}  // namespace sim
}  // namespace orvcam
