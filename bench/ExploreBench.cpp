// camdeliver-explore-bench: what one explored schedule of the 2-sensor sync configuration
// (scenarios/explore/sync-2x3-configure.json) costs, against one plain run of the same client
// on real threads without the scheduler, both measured in the same process and iteration.
//
// Counters: schedules_per_s (the depth-first search at preemption bound 1, one spurious
// wake-up), plain_runs_per_s, and schedule_over_plain_run, the time of one schedule divided
// by the time of one plain run.
//
// camdeliver-harness-bench (this file with ORVCAM_HARNESS_BENCH): the same for an
// integrator's test under the harness (Explore.h), which links the library as it is and not
// the explorer's instrumented copy, so it is a program of its own. BM_HarnessSchedules runs
// check() at bound 2 without spurious wake-ups, as the test does, on the clean coordinator of
// tests/explore/CoordinatorUnderTest.h (argument 0: its drop path, 1: its flush path), and
// plain runs of the same body on real threads, with the same counters.
#include <benchmark/benchmark.h>

#include <chrono>

#if defined(ORVCAM_HARNESS_BENCH)
#include "CoordinatorUnderTest.h"
#include "Explore.h"
#else
#include "client/Scenario.h"
#include "explore/Client.h"
#include "explore/Explorer.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;
using namespace orvcam;

double since(Clock::time_point t0) {
  return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Both sides of one benchmark, timed in the same iterations: the explored schedules and the
// plain runs of the same body, and the counters made of them.
struct Rates {
  double exploreSeconds = 0;
  double plainSeconds = 0;
  uint64_t schedules = 0;
  uint64_t plainRuns = 0;

  template <typename Run>
  void timePlain(int runs, Run run) {
    auto t0 = Clock::now();
    for (int i = 0; i < runs; ++i) run();
    plainSeconds += since(t0);
    plainRuns += uint64_t(runs);
  }
  void report(benchmark::State& state) const {
    state.counters["schedules_per_s"] = double(schedules) / exploreSeconds;
    state.counters["plain_runs_per_s"] = double(plainRuns) / plainSeconds;
    state.counters["schedule_over_plain_run"] =
        (exploreSeconds / double(schedules)) / (plainSeconds / double(plainRuns));
  }
};

#if defined(ORVCAM_HARNESS_BENCH)

void BM_HarnessSchedules(benchmark::State& state) {
  using coordinator_under_test::Bug;
  using coordinator_under_test::Path;
  const Path path = state.range(0) == 0 ? Path::Drop : Path::Flush;
  auto body = [path] { coordinator_under_test::runSession(path, Bug::None); };
  explore::Options options;  // the search of the test: bound 2, no spurious wake-ups
  options.preemptions = 2;
  options.spurious = 0;
  const int kPlainRuns = 500;
  Rates rates;
  for (auto _ : state) {
    auto t0 = Clock::now();
    explore::Result r = explore::check(options, body);
    rates.exploreSeconds += since(t0);
    rates.schedules += r.schedules;
    if (r.failed || !r.exhausted) {
      state.SkipWithError("the clean coordinator failed or was not exhausted");
      return;
    }
    rates.timePlain(kPlainRuns, body);
  }
  rates.report(state);
}
BENCHMARK(BM_HarnessSchedules)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

#else

void BM_ExploreTwoSensorSync(benchmark::State& state) {
  client::Scenario scenario;
  client::ScenarioError error;
  if (!client::loadScenarioFile(ORVCAM_SCENARIO_DIR "/explore/sync-2x3-configure.json", &scenario,
                                &error)) {
    state.SkipWithError(error.text().c_str());
    return;
  }
  explore::Explorer explorer(explore::scenarioTarget(scenario), 1);
  explore::ClientRun plain(scenario);
  const uint64_t kSchedules = static_cast<uint64_t>(state.range(0));
  const int kPlainRuns = 50;
  Rates rates;
  for (auto _ : state) {
    auto t0 = Clock::now();
    explore::Report report = explorer.dfs(1, kSchedules);
    rates.exploreSeconds += since(t0);
    rates.schedules += report.schedules;
    if (report.hasFailure) {
      state.SkipWithError("a schedule failed");
      return;
    }
    rates.timePlain(kPlainRuns, [&] { benchmark::DoNotOptimize(plain.runPlain()); });
  }
  rates.report(state);
}
BENCHMARK(BM_ExploreTwoSensorSync)->Arg(2000)->Unit(benchmark::kMillisecond);

#endif

}  // namespace
