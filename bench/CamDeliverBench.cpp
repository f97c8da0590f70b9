// Costs on the hot paths: a log line with its gates closed and open, the previous-frame
// lookup on a pool near its size limit, and a licence's trip through the queue.
// Short by default; pass --benchmark_min_time=<seconds> for steadier numbers.
#define CD_LOG_TAG "OrvCam/Bench"
#include "CamDeliverLog.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <unistd.h>
#include <chrono>

#include "FrameContextPool.h"
#include "HostPlatform.h"
#include "LicenseQueue.h"

namespace {

using NSCam::camsys::camcoordinator::FrameContext;
using NSCam::camsys::camcoordinator::FrameContextPool;
using NSCam::camsys::camcoordinator::LicenseQueue;

constexpr double kMinTime = 0.05;

// Sets the logger for one benchmark and restores it afterwards.
struct LoggerSetting {
  explicit LoggerSetting(int level, int mode) : saved(orvcam::host::loggerSettings()) {
    orvcam::host::applyLoggerSettings({level, 0x401000, mode});
  }
  ~LoggerSetting() { orvcam::host::applyLoggerSettings(saved); }
  orvcam::host::LoggerSettings saved;
};

void BM_DebugLineDisabled(benchmark::State& state) {
  LoggerSetting logger(2, 2);
  uint32_t frameNo = 0;
  for (auto _ : state) {
    CD_LOGD("[%s] [S:%d F:%d] fd(%d)", 1, frameNo, 42);
    benchmark::DoNotOptimize(++frameNo);
  }
}
BENCHMARK(BM_DebugLineDisabled)->MinTime(kMinTime);

// An enabled line to the unified logger, collected in memory rather than printed.
void BM_DebugLineEnabled(benchmark::State& state) {
  LoggerSetting logger(5, 2);
  orvcam::host::LogCapture capture;
  uint32_t frameNo = 0;
  for (auto _ : state) {
    CD_LOGD("[%s] [S:%d F:%d] fd(%d)", 1, frameNo, 42);
    if ((++frameNo & 1023) == 0) capture.clear();
  }
}
BENCHMARK(BM_DebugLineEnabled)->MinTime(kMinTime);

// An enabled line written in logcat layout to stderr, here pointed at /dev/null for the run:
// the logger's whole write path (stamp, layout, one write under its lock).
void BM_DebugLineToStderr(benchmark::State& state) {
  LoggerSetting logger(5, 2);
  fflush(stderr);
  int saved = dup(STDERR_FILENO);
  int devNull = open("/dev/null", O_WRONLY);
  if (saved < 0 || devNull < 0 || dup2(devNull, STDERR_FILENO) < 0) {
    state.SkipWithError("cannot point stderr at /dev/null");
    return;
  }
  uint32_t frameNo = 0;
  auto start = std::chrono::steady_clock::now();
  for (auto _ : state) {
    CD_LOGD("[%s] [S:%d F:%d] fd(%d)", 1, frameNo, 42);
    benchmark::DoNotOptimize(++frameNo);
  }
  double lineNs =
      std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() /
      static_cast<double>(state.iterations());
  // The floor: one bare write(2) of a line of the same length to the same file.
  const char line[] =
      "11-22 03:11:01.985  9402  9402 D OrvCam/Bench: [Bench] [S:1 F:123456] fd(42)\n";
  constexpr int kWrites = 20000;
  start = std::chrono::steady_clock::now();
  for (int i = 0; i < kWrites; ++i)
    benchmark::DoNotOptimize(write(STDERR_FILENO, line, sizeof(line) - 1));
  double writeNs =
      std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count() /
      kWrites;
  dup2(saved, STDERR_FILENO);
  close(saved);
  close(devNull);
  state.counters["line_ns"] = lineNs;
  state.counters["write_ns"] = writeNs;
  state.counters["beyond_write_ns"] = lineNs - writeNs;
}
BENCHMARK(BM_DebugLineToStderr)->MinTime(kMinTime);

// 15 frames of one sensor, prepared in frame order; the lookup walks down from the top.
void BM_GetPreviousFC(benchmark::State& state) {
  FrameContextPool pool;
  for (uint32_t f = 0; f < 15; ++f) {
    FrameContext::SensorState s;
    s.needEnq = true;
    auto fc = std::make_shared<FrameContext>(
        f, std::set<uint32_t>{0}, std::set<uint32_t>{},
        std::unordered_map<uint32_t, FrameContext::SensorState>{{0, s}}, false);
    fc->prepared(0, f);
    pool.emplace(f, fc);
  }
  const uint32_t frameNo = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(pool.getPreviousFC(0, frameNo));
}
BENCHMARK(BM_GetPreviousFC)->Arg(14)->Arg(1)->Arg(FrameContextPool::kNoFrame)->MinTime(kMinTime);

void BM_LicenseQueuePushPop(benchmark::State& state) {
  LoggerSetting logger(2, 2);
  LicenseQueue queue;
  auto licence = orvcam::host::hostPipeMgr()->acquireLicense();
  uint32_t frameNo = 0;
  for (auto _ : state) {
    queue.pushLicense(0, frameNo, std::move(licence));
    licence = queue.popLicenseLocked(0, frameNo++);
  }
  queue.releaseLicense(std::move(licence));
}
BENCHMARK(BM_LicenseQueuePushPop)->MinTime(kMinTime);

}  // namespace
