// camdeliver-explore: runs a scenario's client against the library under a controlled
// scheduler and explores its schedules. Exit code 0: no schedule failed; 1: a failing
// schedule (printed with its replay string); 2: bad command line or scenario.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "HostPlatform.h"
#include "client/Scenario.h"
#include "explore/Explorer.h"

namespace {

using namespace orvcam;

constexpr int kExitFinding = 1;
constexpr int kExitUsage = 2;
bool gLockOrderState = false;

void printSummary(const explore::Report& r, const std::string& what, bool search) {
  std::printf("%s: %llu schedules, %s, %.2f s, %.0f schedules/s, deepest %llu steps / %u choices\n",
              what.c_str(), static_cast<unsigned long long>(r.schedules),
              r.hasFailure  ? "stopped at a failing schedule"
              : !search     ? "no failure"
              : r.exhausted ? "exhausted"
                            : "not exhausted",
              r.seconds, r.seconds > 0 ? double(r.schedules) / r.seconds : 0.0,
              static_cast<unsigned long long>(r.deepestSteps), r.deepestChoices);
  if (search && r.states) {
    std::printf("states (by %s): %llu distinct%s, %llu schedules cut short at a state met before\n",
                explore::Scheduler::memoryInstrumented() && !gLockOrderState
                    ? "the library's memory"
                    : "the locks' orders",
                static_cast<unsigned long long>(r.states),
                r.stateTableFull ? " (table full: later ones not remembered)" : "",
                static_cast<unsigned long long>(r.statesPruned));
  }
}

int reportFailure(explore::Explorer& ex, explore::Verdict v, bool shrink,
                  const std::string& tracePath) {
  if (shrink && v.preemptions > 0) {
    explore::Verdict smaller = ex.shrink(v, 20000);
    if (smaller.preemptions < v.preemptions) {
      std::printf("shrunk from %u to %u preemptions\n", v.preemptions, smaller.preemptions);
      v = smaller;
    }
  }
  explore::Verdict detail = ex.replay(v.choices, true);
  std::printf("FAILING SCHEDULE (%u preemptions)\n", v.preemptions);
  for (const auto& f : detail.findings) std::printf("  %s\n", f.c_str());
  for (const auto& b : detail.run.blocked) {
    std::printf("  %s is blocked at %s\n", b.thread.c_str(),
                explore::describeCaller(b.caller).c_str());
  }
  std::printf("replay: %s\n", v.replay().c_str());
  std::printf("interleaving:\n%s", explore::describeSchedule(detail, ex.threadNames()).c_str());
  if (detail.findings != v.findings) {
    std::printf("warning: the replay judged differently from the original run\n");
  }
  if (!tracePath.empty()) {
    std::ofstream out(tracePath);
    out << explore::chromeTrace(detail, ex.threadNames());
    if (!out) {
      std::fprintf(stderr, "camdeliver-explore: cannot write the trace to %s\n", tracePath.c_str());
    }
  }
  return kExitFinding;
}

// The command line.
struct Options {
  std::string scenarioPath;
  int preemptions = 2;
  bool unbounded = false;
  uint64_t randomCount = 0;
  uint64_t seed = 1;
  uint32_t pct = 0;
  uint32_t spurious = 1;
  uint64_t limit = 0;
  double seconds = 0;
  std::string replay;
  std::string tracePath;
  bool noShrink = false;
  bool noStateCache = false;
  uint64_t maxStates = 0;
  double progress = 0;
};

// Fills `o` from the command line; -1 to go on, else the exit code.
int parseOptions(int argc, char** argv, Options* o) {
  CLI::App app{"Explores the schedules of a scenario's client against the deliverer"};
  app.add_option("scenario", o->scenarioPath, "Scenario JSON file")->required();
  app.add_option("--preemptions", o->preemptions, "Depth-first search with at most K preemptions")
      ->check(CLI::Range(0, 1000));
  app.add_flag("--unbounded", o->unbounded, "Depth-first search without a preemption bound");
  app.add_option("--random", o->randomCount, "N random schedules instead of the search");
  app.add_option("--seed", o->seed, "Seed of --random (default 1)");
  app.add_option("--pct", o->pct, "With --random: PCT priorities of depth D")
      ->check(CLI::Range(1, 50));
  app.add_option("--spurious", o->spurious, "Spurious wake-ups injected per schedule (default 1)")
      ->check(CLI::Range(0, 100));
  app.add_option("--limit", o->limit, "Stop the search after N schedules");
  app.add_option("--seconds", o->seconds, "Stop the search after S seconds (not exhausted)")
      ->check(CLI::PositiveNumber);
  app.add_flag("--lock-order-state", gLockOrderState,
               "Tell states apart by the order of each lock's holders, not by the library's "
               "memory");
  app.add_option("--max-states", o->maxStates,
                 "The most states the search remembers (default 25 million, about 300 MB)")
      ->check(CLI::Range(uint64_t(1000), uint64_t(1) << 36));
  app.add_option("--progress", o->progress, "Print the search's counts every S seconds (stderr)")
      ->check(CLI::PositiveNumber);
  app.add_option("--replay", o->replay, "Run the schedule of a replay string");
  app.add_option("--trace", o->tracePath, "Write a failing schedule as a Chrome JSON trace");
  app.add_flag("--no-shrink", o->noShrink, "Report a failing schedule as found");
  app.add_flag("--no-state-cache", o->noStateCache,
               "Run every schedule of the search, also from states met before");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kExitUsage;
  }
  return -1;
}

// The one schedule of a replay string.
int runReplay(const Options& o, const client::Scenario& scenario) {
  uint32_t budget = 0;
  std::vector<uint32_t> choices;
  if (!explore::decodeReplay(o.replay, &budget, &choices)) {
    std::fprintf(stderr, "camdeliver-explore: --replay: malformed replay string \"%s\"\n",
                 o.replay.c_str());
    return kExitUsage;
  }
  explore::Explorer ex(explore::scenarioTarget(scenario), budget);
  explore::Verdict v = ex.replay(choices, false);
  if (!v.failed) {
    std::printf("replay: the schedule passes\n");
    return 0;
  }
  return reportFailure(ex, v, false, o.tracePath);
}

// The bounded search, or random or PCT schedules.
int runSearch(const Options& o, const client::Scenario& scenario) {
  explore::Explorer ex(explore::scenarioTarget(scenario, !gLockOrderState), o.spurious);
  ex.setCacheStates(!o.noStateCache);
  ex.setTimeLimit(o.seconds);
  ex.setMaxStates(o.maxStates);
  if (o.progress > 0) {
    ex.setProgress(o.progress, [](const explore::Report& r) {
      std::fprintf(stderr, "... %llu schedules, %llu states%s, %.0f s\n",
                   static_cast<unsigned long long>(r.schedules),
                   static_cast<unsigned long long>(r.states),
                   r.stateTableFull ? " (table full)" : "", r.seconds);
    });
  }
  explore::Report report;
  std::string what;
  if (o.randomCount > 0) {
    report = ex.random(o.randomCount, o.seed, o.pct);
    what = o.pct ? "PCT depth " + std::to_string(o.pct) + ", seed " + std::to_string(o.seed)
                 : "random, seed " + std::to_string(o.seed);
  } else {
    int bound = o.unbounded ? -1 : o.preemptions;
    report = ex.dfs(bound, o.limit);
    what = o.unbounded ? "unbounded search" : "search, preemption bound " + std::to_string(bound);
  }
  what = scenario.name + " " + what + ", spurious " + std::to_string(o.spurious);
  printSummary(report, what, o.randomCount == 0);
  if (report.hasFailure) return reportFailure(ex, report.failure, !o.noShrink, o.tracePath);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (int rc = parseOptions(argc, argv, &options); rc >= 0) return rc;
  client::Scenario scenario;
  client::ScenarioError error;
  if (!client::loadScenarioFile(options.scenarioPath, &scenario, &error)) {
    std::fprintf(stderr, "camdeliver-explore: %s\n", error.text().c_str());
    return kExitUsage;
  }
  std::string unsupported = explore::unsupportedFeature(scenario);
  if (!unsupported.empty()) {
    std::fprintf(stderr, "camdeliver-explore: %s: %s cannot be explored\n",
                 options.scenarioPath.c_str(), unsupported.c_str());
    return kExitUsage;
  }
  // Errors and warnings, no debug lines: each run collects the library's warnings (which
  // drops found nothing) without writing them, and debug lines would cost every schedule.
  host::LoggerSettings quiet = host::loggerSettings();
  quiet.detailsLevel = 2;
  host::applyLoggerSettings(quiet);
  return options.replay.empty() ? runSearch(options, scenario) : runReplay(options, scenario);
}
