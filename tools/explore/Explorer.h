#pragma once
// Search strategies over the schedules of one client (Client.h) and the judgement of each
// schedule. Every schedule runs the real library from a fresh deliverer, in this process.
//
// A schedule is identified by the options picked at its choice points (the scheduling points
// with more than one option); a replay string is that list, and a schedule whose list ends
// early goes on with the thread that ran last, or the lowest-numbered one when it cannot.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "explore/Client.h"
#include "explore/Scheduler.h"

namespace orvcam {
namespace explore {

struct Verdict {
  bool failed = false;
  std::vector<std::string> findings;
  RunResult run;
  std::vector<uint32_t> choices;  // the option picked at each choice point
  uint32_t preemptions = 0;
  std::string replay() const;
};

struct Report {
  uint64_t schedules = 0;
  bool exhausted = false;
  double seconds = 0;
  uint64_t deepestSteps = 0;
  uint32_t deepestChoices = 0;
  bool hasFailure = false;
  Verdict failure;
  uint64_t states = 0;          // distinct states met at choice points (depth-first search)
  uint64_t statesPruned = 0;    // schedules cut short at a state met before
  bool stateTableFull = false;  // later states were not remembered
};

// Encodes/decodes the choice list; `spurious` is part of the string so that a replay runs
// under the same budget. False on a malformed string.
std::string encodeReplay(uint32_t spurious, const std::vector<uint32_t>& choices);
bool decodeReplay(const std::string& text, uint32_t* spurious, std::vector<uint32_t>* choices);

// A program the explorer runs: fresh state and thread bodies per schedule, and the judgement
// of a schedule that completed. After any other outcome the threads stay parked inside the
// target, which is then never touched or destroyed again.
class Target {
 public:
  virtual ~Target() = default;
  virtual std::vector<std::string> threadNames() const = 0;
  virtual std::vector<std::function<void()>> begin() = 0;
  virtual std::vector<std::string> judgeCompleted() = 0;
  // Findings of its own for a schedule that did not complete (a deadlock, a fatal assertion,
  // the step limit), added to the explorer's; the threads are still parked inside.
  virtual std::vector<std::string> judgeIncomplete() { return {}; }
};
using TargetFactory = std::function<std::unique_ptr<Target>()>;

// The scenario's client against the library, judged by the checker's rules and the licence
// account. With `memoryState` (and the instrumented library linked) states are told apart by
// the library's memory, else by the order of each lock's holders (Scheduler.h).
TargetFactory scenarioTarget(const client::Scenario& scenario, bool memoryState = true);

class Explorer {
 public:
  Explorer(TargetFactory factory, uint32_t spuriousBudget);
  ~Explorer();

  // Exhaustive depth-first search with at most `bound` preemptions (negative: unbounded),
  // stopping at the first failing schedule or after `limit` schedules (0: no limit).
  Report dfs(int bound, uint64_t limit);
  // `count` schedules: uniformly random choices, or (pctDepth > 0) PCT priorities with
  // pctDepth - 1 priority change points.
  Report random(uint64_t count, uint64_t seed, uint32_t pctDepth);
  // Runs the schedule the choices describe; with `record`, keeps every step.
  Verdict replay(const std::vector<uint32_t>& choices, bool record);
  // The failing schedule with the fewest preemptions found by searching bound 0, 1, ... up to
  // the given one's count, at most `limit` schedules per bound; the given one when none fails.
  Verdict shrink(const Verdict& failing, uint64_t limit);

  // Whether the depth-first search prunes states it has met before (on by default).
  void setCacheStates(bool on) { mCacheStates = on; }
  // A search stops, not exhausted, once it has run this long (0: no limit).
  void setTimeLimit(double seconds) { mTimeLimit = seconds; }
  // The steps a schedule may take before it is judged a livelock.
  void setStepLimit(uint64_t steps) { mStepLimit = steps; }
  // The most states the depth-first search remembers (its table's memory is about 12 bytes a
  // state); later ones are searched again whenever they are met.
  void setMaxStates(uint64_t states) { mMaxStates = states; }
  // Called with the search's counts so far about every `seconds` (long searches).
  void setProgress(double seconds, std::function<void(const Report&)> report) {
    mProgressEvery = seconds;
    mProgress = std::move(report);
  }

  uint32_t spuriousBudget() const { return mSpurious; }
  const std::vector<std::string>& threadNames() const { return mNames; }

 private:
  Verdict runSchedule(const Chooser& chooser, bool record, std::vector<uint32_t>* choices,
                      uint32_t* preemptions);
  // A search's run of one schedule: its choices, counted in `report` (schedules, depth).
  Verdict runCounted(const Chooser& chooser, std::vector<uint32_t>* choices, Report* report);
  void judge(Verdict* v);

  TargetFactory mFactory;
  uint32_t mSpurious;
  bool mCacheStates = true;
  double mTimeLimit = 0;
  uint64_t mStepLimit = RunOptions().stepLimit;
  uint64_t mMaxStates = 0;
  double mProgressEvery = 0;
  std::function<void(const Report&)> mProgress;
  std::unique_ptr<Target> mTarget;
  std::vector<std::string> mNames;
};

// The failing schedule, readable: one line per step (thread, operation, object, where).
// Threads are named as the run named them (the ones it started included), else by `names`.
std::string describeSchedule(const Verdict& v, const std::vector<std::string>& names);
// The steps as a Chrome trace (JSON), one track per thread.
std::string chromeTrace(const Verdict& v, const std::vector<std::string>& names);

}  // namespace explore
}  // namespace orvcam
