// End-to-end costs of the deliverer, each measured next to its own baselines in the same
// run, so that the ratios hold on a busy machine:
//
// - BM_OneSensorFrame: one sensor on one thread, a whole frame (record built, emplaced,
//   prepared, sent, erased) with a pool of 1 or 18 records, against an uncontended mutex
//   lock/unlock pair; also its heap allocations, the client's and the calls', against the
//   cost of one small allocation.
// - BM_Sensors: N sensor threads with zero-time enqueue jobs, synchronised in one group or
//   independent, against (a) a bare lockstep (one mutex and condition variable, woken only
//   when a frame completes) and (b) the same lockstep waking every waiter on every prepare
//   and every completion under the lock: the wake-ups the deliverer's rules make, with
//   constant-time predicates.
// - BM_ResidentMemory: resident set size after 10^4 and 10^6 frames.
//
// Every benchmark checks its own run (every send returned 0, the pool is empty, the host
// pipe manager's licence account balances) and aborts with a message when a check fails.
#include <sys/resource.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "AllocationCount.h"
#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"

namespace {

using NSCam::camsys::camcoordinator::CamDeliver;
using NSCam::camsys::camcoordinator::FrameContext;
using NSCam::camsys::camcoordinator::FrameContextPool;
using NSCam::camsys::camcoordinator::ReqBaseJob;
using FcPtr = std::shared_ptr<const FrameContext>;
using Clock = std::chrono::steady_clock;

// A failed self-check ends the run: a benchmark of a broken flow has no meaning.
void check(bool ok, const std::string& bench, const std::string& what) {
  if (ok) return;
  fprintf(stderr, "camdeliver-bench: %s: self-check failed: %s\n", bench.c_str(), what.c_str());
  fflush(stderr);
  std::abort();
}

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Nanoseconds of one uncontended lock/unlock pair of a std::mutex: the best of a few short
// rounds.
double mutexPairNs() {
  std::mutex m;
  constexpr int kPairs = 1 << 18;
  double best = 1e9;
  for (int round = 0; round < 3; ++round) {
    Clock::time_point start = Clock::now();
    for (int i = 0; i < kPairs; ++i) {
      m.lock();
      benchmark::ClobberMemory();
      m.unlock();
    }
    best = std::min(best, secondsSince(start) * 1e9 / kPairs);
  }
  return best;
}

// Nanoseconds of one heap allocation of a small block and its release, measured the same way.
double allocPairNs() {
  constexpr int kPairs = 1 << 18;
  double best = 1e9;
  for (int round = 0; round < 3; ++round) {
    Clock::time_point start = Clock::now();
    for (int i = 0; i < kPairs; ++i) {
      void* p = ::operator new(48);
      benchmark::DoNotOptimize(p);
      ::operator delete(p);
    }
    best = std::min(best, secondsSince(start) * 1e9 / kPairs);
  }
  return best;
}

uint64_t liveLicences() { return orvcam::host::hostPipeMgr()->account().live(); }

// A frame's record as a coordinator builds it: every sensor enqueues, `cfg` ones are also
// configured, `sync` ones are kept in frame sync.
FcPtr makeRecord(uint32_t frameNo, uint32_t sensors, bool sync, bool cfg) {
  std::unordered_map<uint32_t, FrameContext::SensorState> states;
  std::set<uint32_t> all;
  for (uint32_t s = 0; s < sensors; ++s) {
    FrameContext::SensorState& st = states[s];
    st.needEnq = true;
    st.needCfg = cfg;
    all.insert(s);
  }
  std::set<uint32_t> syncList = sync ? all : std::set<uint32_t>{};
  return std::make_shared<const FrameContext>(frameNo, std::move(syncList), std::move(all),
                                              std::move(states), false);
}

// Errors only for the length of a benchmark: the setConfigured path writes a warning on every
// call by design, and the cost measured here is the delivery's, not the log's.
struct QuietLogger {
  QuietLogger() : saved(orvcam::host::loggerSettings()) {
    orvcam::host::applyLoggerSettings({1, saved.mask, saved.mode});
  }
  ~QuietLogger() { orvcam::host::applyLoggerSettings(saved); }
  orvcam::host::LoggerSettings saved;
};

bool poolEmpty(FrameContextPool& pool) {
  std::lock_guard<std::mutex> lock(pool.mutex);
  return pool.pool.empty();
}

// ---- One sensor, one thread -----------------------------------------------------------------

enum Step { kEnqueue = 0, kConfigureJob = 1, kSetConfigured = 2 };
const char* const kStepNames[] = {"enqueue", "configure job", "setConfigured"};

// Frames move through a window of `depth` records: each frame emplaces and prepares the
// newest frame and sends the oldest one, whose record the guard then erases.
class OneSensorFlow {
 public:
  OneSensorFlow(std::shared_ptr<FrameContextPool> pool, Step step)
      : mPool(std::move(pool)), mDeliver(mPool), mStep(step) {}

  // The client's part: the newest frame's record.
  FcPtr record() const { return makeRecord(mNext, 1, false, mStep != kEnqueue); }

  void admit(FcPtr fc) {
    mPool->emplace(mNext, fc);
    mDeliver.prepare(0, mNext, std::move(fc));
    ++mNext;
  }

  void send() {
    if (mStep == kConfigureJob) mDeliver.sendJobForConfigure(0, mSent, mCfgJob);
    if (mStep == kSetConfigured) mDeliver.setConfigured(0, mSent);
    if (mDeliver.sendJobForEnque(0, mSent, mJob) != 0) ++mFailedSends;
    ++mSent;
  }

  // One timed frame. Kept out of line so that a profiler can collect exactly these:
  // valgrind --tool=callgrind --toggle-collect='*OneSensorFlow::frame*'.
  [[gnu::noinline]] void frame() {
    admit(record());
    send();
  }

  void fill(uint32_t depth) {
    while (mNext + 1 < depth) admit(record());
  }
  void drain() {
    while (mSent < mNext) send();
  }
  uint64_t failedSends() const { return mFailedSends; }

 private:
  const std::shared_ptr<FrameContextPool> mPool;
  CamDeliver mDeliver;
  const Step mStep;
  const std::shared_ptr<ReqBaseJob> mJob = std::make_shared<ReqBaseJob>();
  const std::shared_ptr<ReqBaseJob> mCfgJob = std::make_shared<ReqBaseJob>();
  uint32_t mNext = 0;
  uint32_t mSent = 0;
  uint64_t mFailedSends = 0;
};

void BM_OneSensorFrame(benchmark::State& state) {
  const Step step = static_cast<Step>(state.range(0));
  const uint32_t depth = static_cast<uint32_t>(state.range(1));
  const std::string name = std::string("BM_OneSensorFrame ") + kStepNames[step];
  QuietLogger quiet;
  const uint64_t liveBefore = liveLicences();
  auto pool = std::make_shared<FrameContextPool>();
  double frameNs = 0;
  double pairNs = 0;
  double allocs = 0;
  double allocNs = 0;
  double recordAllocsPerFrame = 0;
  double callAllocsPerFrame = 0;
  {
    OneSensorFlow flow(pool, step);
    flow.fill(depth);
    pairNs = mutexPairNs();
    const uint64_t allocsBefore = orvcam::bench::threadAllocations();
    Clock::time_point start = Clock::now();
    for (auto _ : state) flow.frame();
    frameNs = secondsSince(start) * 1e9 / static_cast<double>(state.iterations());
    allocs = static_cast<double>(orvcam::bench::threadAllocations() - allocsBefore) /
             static_cast<double>(state.iterations());
    pairNs = std::min(pairNs, mutexPairNs());
    allocNs = allocPairNs();
    // Untimed: whose allocations they are, the client's record or the deliverer's calls
    // (which include the host pipe manager's).
    constexpr int kSplitFrames = 256;
    uint64_t recordAllocs = 0;
    uint64_t callAllocs = 0;
    for (int i = 0; i < kSplitFrames; ++i) {
      const uint64_t a0 = orvcam::bench::threadAllocations();
      FcPtr fc = flow.record();
      const uint64_t a1 = orvcam::bench::threadAllocations();
      flow.admit(std::move(fc));
      flow.send();
      recordAllocs += a1 - a0;
      callAllocs += orvcam::bench::threadAllocations() - a1;
    }
    recordAllocsPerFrame = static_cast<double>(recordAllocs) / kSplitFrames;
    callAllocsPerFrame = static_cast<double>(callAllocs) / kSplitFrames;
    flow.drain();
    check(flow.failedSends() == 0, name,
          std::to_string(flow.failedSends()) + " sends did not return 0");
    check(poolEmpty(*pool), name, "records left in the pool");
  }
  check(liveLicences() == liveBefore, name, "licence account does not balance");
  state.counters["frame_ns"] = frameNs;
  state.counters["mutex_pair_ns"] = pairNs;
  state.counters["x_mutex_pair"] = frameNs / pairNs;
  state.counters["allocs"] = allocs;
  state.counters["allocs_record"] = recordAllocsPerFrame;
  state.counters["allocs_calls"] = callAllocsPerFrame;
  state.counters["alloc_pair_ns"] = allocNs;
}
BENCHMARK(BM_OneSensorFrame)
    ->ArgNames({"step", "depth"})
    ->ArgsProduct({{kEnqueue, kConfigureJob, kSetConfigured}, {1, 18}})
    ->MinTime(0.2);

// ---- N sensor threads -------------------------------------------------------------------------

constexpr uint32_t kFrames = 20000;
constexpr uint32_t kWindow = 16;  // frames in flight at most, so the pool never exceeds 19
constexpr uint32_t kRing = 32;

// The coordinator side shared by the deliverer's run and both baselines: frame f may start
// once frame f - kWindow is done by every sensor; the first sensor to reach a frame emplaces
// its record (when there are records). The records are built before the run, so that their
// construction, which the baselines do not have, stays out of the measurement.
class Window {
 public:
  Window(uint32_t sensors, FrameContextPool* pool, const std::vector<FcPtr>* records)
      : mSensors(sensors), mPool(pool), mRecords(records) {}

  FcPtr admit(uint32_t frameNo) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (frameNo >= mCompleted + kWindow) {
      ++mWaiters;
      mCond.wait(lock, [&] { return frameNo < mCompleted + kWindow; });
      --mWaiters;
    }
    if (mPool == nullptr) return nullptr;
    for (; mEmplaced <= frameNo; ++mEmplaced) mPool->emplace(mEmplaced, (*mRecords)[mEmplaced]);
    return (*mRecords)[frameNo];
  }

  void done(uint32_t frameNo) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (++mDone[frameNo % kRing] < mSensors) return;
    // Every sensor finishes its frames in order, so frames complete in order.
    mDone[frameNo % kRing] = 0;
    mCompleted = frameNo + 1;
    if (mWaiters > 0) mCond.notify_all();
  }

 private:
  const uint32_t mSensors;
  FrameContextPool* const mPool;
  const std::vector<FcPtr>* const mRecords;
  // Guards everything below.
  std::mutex mMutex;
  std::condition_variable mCond;
  uint32_t mCompleted = 0;
  uint32_t mEmplaced = 0;
  uint32_t mWaiters = 0;
  uint32_t mDone[kRing] = {};
};

// The two lockstep baselines. A sensor may run frame f once the group has run frame f - 1
// (synchronised) or once it ran its own frame f - 1 (independent: always true on its own
// thread). `wakeAll` wakes every waiter on each prepare and each completion, as the
// deliverer's rules do; otherwise only a completed group frame wakes anybody.
class Lockstep {
 public:
  Lockstep(uint32_t sensors, bool sync, bool wakeAll)
      : mSensors(sensors), mSync(sync), mWakeAll(wakeAll), mDoneBy(sensors, 0) {}

  void prepare(uint32_t sensor, uint32_t frameNo) {
    if (!mWakeAll) return;
    std::lock_guard<std::mutex> lock(mMutex);
    mPrepared = frameNo + sensor;  // something changes under the lock
    mCond.notify_all();
  }

  void wait(uint32_t sensor, uint32_t frameNo) {
    std::unique_lock<std::mutex> lock(mMutex);
    mCond.wait(lock, [&] { return mSync ? mGroupDone >= frameNo : mDoneBy[sensor] >= frameNo; });
  }

  void finished(uint32_t sensor, uint32_t frameNo) {
    std::lock_guard<std::mutex> lock(mMutex);
    mDoneBy[sensor] = frameNo + 1;
    bool groupDone = ++mCount[frameNo % kRing] == mSensors;
    if (groupDone) {
      mCount[frameNo % kRing] = 0;
      mGroupDone = frameNo + 1;
    }
    if (mWakeAll || (mSync && groupDone)) mCond.notify_all();
  }

 private:
  const uint32_t mSensors;
  const bool mSync;
  const bool mWakeAll;
  // Guards everything below.
  std::mutex mMutex;
  std::condition_variable mCond;
  std::vector<uint32_t> mDoneBy;
  uint32_t mCount[kRing] = {};
  uint32_t mGroupDone = 0;
  uint32_t mPrepared = 0;
};

struct RunStats {
  double fps = 0;
  double cpuUsPerFrame = 0;
  double vcswPerFrame = 0;
};

// Runs `body(sensor)` on one thread per sensor and measures wall time, process CPU time and
// voluntary context switches over the whole run.
RunStats runThreads(uint32_t sensors, uint32_t frames, const std::function<void(uint32_t)>& body) {
  rusage before{};
  rusage after{};
  getrusage(RUSAGE_SELF, &before);
  Clock::time_point start = Clock::now();
  std::vector<std::thread> threads;
  for (uint32_t s = 0; s < sensors; ++s) threads.emplace_back(body, s);
  for (std::thread& t : threads) t.join();
  double wall = secondsSince(start);
  getrusage(RUSAGE_SELF, &after);
  auto cpu = [](const rusage& r) {
    return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
           static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
  };
  RunStats stats;
  stats.fps = frames / wall;
  stats.cpuUsPerFrame = (cpu(after) - cpu(before)) * 1e6 / frames;
  stats.vcswPerFrame = static_cast<double>(after.ru_nvcsw - before.ru_nvcsw) / frames;
  return stats;
}

RunStats runDeliverer(uint32_t sensors, bool sync, const std::string& name) {
  const uint64_t liveBefore = liveLicences();
  auto pool = std::make_shared<FrameContextPool>();
  std::atomic<uint64_t> failedSends{0};
  RunStats stats;
  std::vector<FcPtr> records;
  records.reserve(kFrames);
  for (uint32_t f = 0; f < kFrames; ++f) records.push_back(makeRecord(f, sensors, sync, false));
  {
    CamDeliver deliver(pool);
    Window window(sensors, pool.get(), &records);
    stats = runThreads(sensors, kFrames, [&](uint32_t sensor) {
      std::shared_ptr<ReqBaseJob> job = std::make_shared<ReqBaseJob>();
      for (uint32_t f = 0; f < kFrames; ++f) {
        FcPtr fc = window.admit(f);
        deliver.prepare(sensor, f, std::move(fc));
        if (deliver.sendJobForEnque(sensor, f, job) != 0) ++failedSends;
        window.done(f);
      }
    });
    check(failedSends == 0, name, std::to_string(failedSends.load()) + " sends did not return 0");
    check(poolEmpty(*pool), name, "records left in the pool");
  }
  check(liveLicences() == liveBefore, name, "licence account does not balance");
  return stats;
}

RunStats runLockstep(uint32_t sensors, bool sync, bool wakeAll) {
  Lockstep lockstep(sensors, sync, wakeAll);
  Window window(sensors, nullptr, nullptr);
  return runThreads(sensors, kFrames, [&](uint32_t sensor) {
    for (uint32_t f = 0; f < kFrames; ++f) {
      window.admit(f);
      lockstep.prepare(sensor, f);
      lockstep.wait(sensor, f);
      benchmark::ClobberMemory();  // the zero-time job
      lockstep.finished(sensor, f);
      window.done(f);
    }
  });
}

// One iteration runs the deliverer and both baselines, kFrames frames each.
void BM_Sensors(benchmark::State& state) {
  const uint32_t sensors = static_cast<uint32_t>(state.range(0));
  const bool sync = state.range(1) != 0;
  const std::string name = "BM_Sensors N=" + std::to_string(sensors) + (sync ? " sync" : "");
  QuietLogger quiet;
  RunStats lib, bare, floor;
  for (auto _ : state) {
    floor = runLockstep(sensors, sync, true);
    lib = runDeliverer(sensors, sync, name);
    bare = runLockstep(sensors, sync, false);
    state.SetIterationTime(kFrames / lib.fps);
  }
  state.counters["fps"] = lib.fps;
  state.counters["cpu_us"] = lib.cpuUsPerFrame;
  state.counters["vcsw"] = lib.vcswPerFrame;
  state.counters["fps_a"] = bare.fps;
  state.counters["cpu_us_a"] = bare.cpuUsPerFrame;
  state.counters["vcsw_a"] = bare.vcswPerFrame;
  state.counters["fps_b"] = floor.fps;
  state.counters["cpu_us_b"] = floor.cpuUsPerFrame;
  state.counters["vcsw_b"] = floor.vcswPerFrame;
  state.counters["x_a"] = lib.fps / bare.fps;
  state.counters["x_b"] = lib.fps / floor.fps;
}
BENCHMARK(BM_Sensors)
    ->ArgNames({"N", "sync"})
    ->ArgsProduct({{2, 4, 6}, {1, 0}})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// ---- Resident memory ----------------------------------------------------------------------------

double residentKiB() {
  FILE* f = fopen("/proc/self/statm", "r");
  if (f == nullptr) return -1;
  long size = 0;
  long resident = 0;
  int n = fscanf(f, "%ld %ld", &size, &resident);
  fclose(f);
  if (n != 2) return -1;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
}

// Two synchronised sensors driven from one thread, four frames in flight, every other
// frame configured with setConfigured. Resident memory after range(0) frames must be what
// it was after 10^4.
void BM_ResidentMemory(benchmark::State& state) {
  const uint32_t frames = static_cast<uint32_t>(state.range(0));
  const std::string name = "BM_ResidentMemory";
  QuietLogger quiet;
  constexpr uint32_t kDepth = 4;
  constexpr uint32_t kEarly = 10000;
  double early = 0;
  double late = 0;
  for (auto _ : state) {
    const uint64_t liveBefore = liveLicences();
    auto pool = std::make_shared<FrameContextPool>();
    uint64_t failedSends = 0;
    {
      CamDeliver deliver(pool);
      std::shared_ptr<ReqBaseJob> job = std::make_shared<ReqBaseJob>();
      uint32_t next = 0;
      for (uint32_t sent = 0; sent < frames; ++sent) {
        for (; next < frames && next < sent + kDepth; ++next) {
          bool cfg = next % 2 == 1;
          FcPtr fc = makeRecord(next, 2, !cfg, cfg);
          pool->emplace(next, fc);
          deliver.prepare(0, next, fc);
          deliver.prepare(1, next, std::move(fc));
        }
        for (uint32_t s = 0; s < 2; ++s) {
          if (sent % 2 == 1) deliver.setConfigured(s, sent);
          if (deliver.sendJobForEnque(s, sent, job) != 0) ++failedSends;
        }
        if (sent + 1 == kEarly) early = residentKiB();
      }
      late = residentKiB();
      check(failedSends == 0, name, std::to_string(failedSends) + " sends did not return 0");
      check(poolEmpty(*pool), name, "records left in the pool");
    }
    check(liveLicences() == liveBefore, name, "licence account does not balance");
  }
  check(early > 0 && late > 0, name, "cannot read /proc/self/statm");
  // Allocator noise stays well below this; a per-frame leak of even a few bytes does not.
  check(late - early < 512, name,
        "resident memory grew by " + std::to_string(late - early) + " KiB");
  state.counters["rss_kib_1e4"] = early;
  state.counters["rss_kib_end"] = late;
  state.counters["growth_kib"] = late - early;
}
BENCHMARK(BM_ResidentMemory)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
