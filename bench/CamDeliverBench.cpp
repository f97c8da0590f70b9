// Costs on the hot paths: a log line with its gates closed and open, the previous-frame
// lookup on a pool near its size limit, and a licence's trip through the queue.
// Short by default; pass --benchmark_min_time=<seconds> for steadier numbers.
#define CD_LOG_TAG "OrvCam/Bench"
#include "CamDeliverLog.h"

#include <benchmark/benchmark.h>

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
