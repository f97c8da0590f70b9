// check(), replay() and fail() of Explore.h: the explorer's search and judgement with the
// integrator's body as its one program (a Target whose only thread runs the body).
#include <atomic>
#include <cstdio>
#include <ostream>

#include "explore/Explore.h"

#if defined(__SANITIZE_THREAD__)
#define ORVCAM_EXPLORE_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ORVCAM_EXPLORE_UNDER_TSAN 1
#endif
#endif

#if !defined(ORVCAM_EXPLORE_UNDER_TSAN)
#include <algorithm>
#include <memory>

#include "HostPlatform.h"
#include "check/Checker.h"
#include "explore/Explorer.h"
#include "explore/Scheduler.h"
#include "logread/LogReader.h"
#endif

namespace orvcam {
namespace explore {

#if defined(ORVCAM_EXPLORE_UNDER_TSAN)

// ThreadSanitizer's runtime intercepts the pthread functions the scheduler defines: no
// schedule can be run here, and none is passed.
namespace {
Result refused() {
  Result r;
  r.failed = true;
  r.findings.push_back(
      "not explored: this process runs under ThreadSanitizer, whose runtime takes the pthread "
      "functions the explorer's scheduler needs; run the explored tests in a build without it");
  return r;
}
}  // namespace

Result check(const Options&, const std::function<void()>&) { return refused(); }
Result replay(const std::string&, const std::function<void()>&, const Options&) {
  return refused();
}

void fail(const std::string& message) {
  std::fprintf(stderr, "explore::fail() outside an explored schedule: %s\n", message.c_str());
}

void name(const void*, const std::string&) {}

#else

namespace {

// fail() may come from any managed thread, and only one runs at a time; the lock is for a
// call from elsewhere, and is a spin lock because a std::mutex taken on a managed thread
// would be a scheduling point of the body's.
std::atomic_flag gFailLock = ATOMIC_FLAG_INIT;
std::vector<std::string>* gFails = nullptr;  // the current schedule's fail() messages

struct FailLock {
  FailLock() {
    while (gFailLock.test_and_set(std::memory_order_acquire)) {
    }
  }
  ~FailLock() { gFailLock.clear(std::memory_order_release); }
  FailLock(const FailLock&) = delete;
  FailLock& operator=(const FailLock&) = delete;
};

// The deliverer's guarantees and the client protocol, judged on what the library did in one
// schedule: its debug lines, read back as camdeliver-log reads a capture, and the checker's
// rules on the history they make. Client mistakes are reported as [client] findings.
std::vector<std::string> judgeLog(const std::vector<host::LogLine>& lines) {
  logread::LogReader reader;
  reader.setWindow(0);
  for (const host::LogLine& line : lines) {
    std::string text = host::formatLogcatLine(line.level, line.tag, line.message);
    std::string_view rest(text);
    while (!rest.empty()) {
      size_t nl = rest.find('\n');
      reader.addLine(rest.substr(0, nl));
      if (nl == std::string_view::npos) break;
      rest.remove_prefix(nl + 1);
    }
  }
  std::vector<std::string> findings;
  for (const logread::Run& run : reader.finish()) {
    check::CheckResult check = check::checkHistory(run.history, {/*absentApart=*/true});
    for (const auto& x : check.violations) findings.push_back("[" + x.rule + "] " + x.message);
    for (const auto& x : check.notes) {
      findings.push_back("[client] " + x.message + " (rule broken: don't " + x.broken + ")");
    }
  }
  return findings;
}

// The logger at debug level, stamped to the microsecond, while schedules run: the lines
// judgeLog reads. Restored afterwards.
class DebugLog {
 public:
  DebugLog() : mSettings(host::loggerSettings()), mMicro(host::logMicroseconds()) {
    host::LoggerSettings debug = mSettings;
    debug.detailsLevel = kDebugDetailsLevel;
    host::applyLoggerSettings(debug);
    host::setLogMicroseconds(true);
  }
  ~DebugLog() {
    host::applyLoggerSettings(mSettings);
    host::setLogMicroseconds(mMicro);
  }
  DebugLog(const DebugLog&) = delete;
  DebugLog& operator=(const DebugLog&) = delete;

 private:
  static constexpr int kDebugDetailsLevel = 5;
  host::LoggerSettings mSettings;
  bool mMicro;
};

class HarnessTarget : public Target {
 public:
  HarnessTarget(const std::function<void()>& body, bool readLog) : mBody(body), mReadLog(readLog) {}
  ~HarnessTarget() override {
    FailLock lock;
    if (gFails == &mFails) gFails = nullptr;
  }

  std::vector<std::string> threadNames() const override { return {"body"}; }

  std::vector<std::function<void()> > begin() override {
    // The body's own code is not instrumented: the state is the order of the steps on each
    // lock, condition and thread (Scheduler::setClientObject), which holds for a body whose
    // shared memory is all under its locks.
    Scheduler::forgetNames();
    Scheduler::setClientDigest(nullptr);
    Scheduler::setMemoryState(false);
    Scheduler::setClientObject(false);
    {
      FailLock lock;
      mFails.clear();
      gFails = &mFails;
    }
    // A world of its own per schedule: its pipe manager, and licence serials from 1.
    mPipeMgr = std::make_shared<host::HostPipeMgr>();
    host::setPipeMgrInstance(mPipeMgr);
    host::restartLicenceSerials();
    mCapture.reset();
    if (mReadLog) mCapture = std::make_unique<host::LogCapture>();
    return {[this] { runBody(); }};
  }

  std::vector<std::string> judgeCompleted() override {
    std::vector<std::string> findings = takeFails();
    host::LicenseAccount a = mPipeMgr->account();
    if (a.live() != 0 || a.emptyReleases != 0) {
      findings.push_back(
          "licence account: " + std::to_string(a.acquired) + " acquired, " +
          std::to_string(a.released) + " handed back, " + std::to_string(a.destroyed) +
          " destroyed without hand-back, " + std::to_string(a.emptyReleases) +
          " hand-back(s) of no licence" +
          (a.live() != 0 ? "; " + std::to_string(a.live()) + " never handed back" : std::string()));
    }
    host::setPipeMgrInstance(nullptr);
    mPipeMgr.reset();
    if (mCapture) {
      std::vector<host::LogLine> lines = mCapture->lines();
      mCapture.reset();
      for (auto& f : judgeLog(lines)) findings.push_back(std::move(f));
    }
    return findings;
  }

  std::vector<std::string> judgeIncomplete() override {
    mCapture.reset();  // the parked threads write no more lines
    return takeFails();
  }

 private:
  void runBody() {
    try {
      mBody();
    } catch (const std::exception& e) {
      fail(std::string("the body threw: ") + e.what());
    } catch (...) {
      fail("the body threw an exception");
    }
  }

  std::vector<std::string> takeFails() {
    FailLock lock;
    std::vector<std::string> out = std::move(mFails);
    mFails.clear();
    return out;
  }

  const std::function<void()>& mBody;
  bool mReadLog;
  std::unique_ptr<host::LogCapture> mCapture;
  std::vector<std::string> mFails;
  std::shared_ptr<host::HostPipeMgr> mPipeMgr;
};

TargetFactory harness(const std::function<void()>& body, bool readLog) {
  return [&body, readLog] { return std::unique_ptr<Target>(new HarnessTarget(body, readLog)); };
}

// Every schedule's findings are the harness's own; the scheduler's client object goes back
// on for the explorer's other targets afterwards.
struct HarnessScope {
  HarnessScope() = default;
  ~HarnessScope() {
    Scheduler::setClientObject(true);
    Scheduler::endSetups();
  }
  HarnessScope(const HarnessScope&) = delete;
  HarnessScope& operator=(const HarnessScope&) = delete;
};

bool refuseNested(Result* r) {
  if (!Scheduler::managed()) return false;
  r->failed = true;
  r->findings.push_back(
      "not explored: check() or replay() called from inside an explored "
      "schedule");
  return true;
}

// A recorded schedule's findings; a deadlock's with where each blocked thread waits, in the
// body's or the library's code.
std::vector<std::string> findingsOf(const Verdict& v) {
  std::vector<std::string> findings = v.findings;
  if (v.run.outcome == Outcome::Deadlock && !findings.empty()) {
    std::string& text = findings.front();
    text += "\n  where:";
    for (const auto& b : v.run.blocked)
      text += "\n    " + b.thread + " at " + describeCaller(b.caller);
  }
  return findings;
}

// The failing schedule, shrunk, then run again with its steps recorded.
void describeFailure(Explorer& ex, const Verdict& found, const Options& o, Result* r) {
  Verdict v = found;
  if (o.shrink && v.preemptions > 0) {
    v = ex.shrink(found, o.maxSchedules ? o.maxSchedules : 100000);
  }
  Verdict again = ex.replay(v.choices, true);
  r->failed = true;
  r->preemptions = v.preemptions;
  r->replay = v.replay();
  r->findings = again.failed ? findingsOf(again) : v.findings;
  if (!again.failed) {
    r->findings.push_back(
        "the schedule passed when replayed: the body depends on something the scheduler does "
        "not control (time, atomics, memory shared without a lock)");
  }
  r->interleaving = describeSchedule(again, ex.threadNames());
  if (o.trace) r->trace = chromeTrace(again, ex.threadNames());
}

}  // namespace

Result check(const Options& o, const std::function<void()>& body) {
  Result r;
  if (refuseNested(&r)) return r;
  HarnessScope scope;
  std::unique_ptr<DebugLog> debug;
  if (o.readLog) debug = std::make_unique<DebugLog>();
  Explorer ex(harness(body, o.readLog), o.spurious);
  ex.setCacheStates(o.stateCache);
  ex.setStepLimit(o.stepLimit);
  if (o.seconds > 0) ex.setTimeLimit(o.seconds);
  Report rep;
  if (o.pct > 0) {
    uint64_t count = o.maxSchedules ? std::min(o.pct, o.maxSchedules) : o.pct;
    // The bug depth PCT aims at: as many priority changes as the bound allows preemptions.
    uint32_t depth = o.preemptions >= 0 ? uint32_t(o.preemptions) + 1 : 3;
    rep = ex.random(count, o.seed, depth);
  } else {
    rep = ex.dfs(o.preemptions, o.maxSchedules);
  }
  r.schedules = rep.schedules;
  r.exhausted = rep.exhausted;
  r.seconds = rep.seconds;
  if (rep.hasFailure) describeFailure(ex, rep.failure, o, &r);
  return r;
}

Result replay(const std::string& schedule, const std::function<void()>& body, const Options& o) {
  Result r;
  if (refuseNested(&r)) return r;
  uint32_t spurious = 0;
  std::vector<uint32_t> choices;
  if (!decodeReplay(schedule, &spurious, &choices)) {
    r.failed = true;
    r.findings.push_back("not a replay string: \"" + schedule + "\"");
    return r;
  }
  HarnessScope scope;
  std::unique_ptr<DebugLog> debug;
  if (o.readLog) debug = std::make_unique<DebugLog>();
  Explorer ex(harness(body, o.readLog), spurious);
  ex.setStepLimit(o.stepLimit);
  Verdict v = ex.replay(choices, true);
  r.schedules = 1;
  r.failed = v.failed;
  r.findings = findingsOf(v);
  r.replay = schedule;
  r.preemptions = v.preemptions;
  r.interleaving = describeSchedule(v, ex.threadNames());
  if (o.trace) r.trace = chromeTrace(v, ex.threadNames());
  return r;
}

void name(const void* object, const std::string& label) {
  if (Scheduler::managed()) Scheduler::nameObject(object, label);
}

void fail(const std::string& message) {
  std::string who = Scheduler::currentThreadName();
  FailLock lock;
  if (!gFails) {
    std::fprintf(stderr, "explore::fail() outside an explored schedule: %s\n", message.c_str());
    return;
  }
  gFails->push_back("fail()" + (who.empty() ? std::string() : " on " + who) + ": " + message);
}

#endif

std::string describe(const Result& r) {
  std::string out = r.failed ? "failed" : "passed";
  out += ": " + std::to_string(r.schedules) + " schedule(s), " +
         (r.exhausted ? "exhausted" : "not exhausted");
  for (const auto& f : r.findings) out += "\n  finding: " + f;
  if (!r.replay.empty()) {
    out += "\n  replay: " + r.replay + " (" + std::to_string(r.preemptions) + " preemption(s))";
  }
  if (!r.interleaving.empty()) out += "\n  interleaving:\n" + r.interleaving;
  return out;
}

std::ostream& operator<<(std::ostream& out, const Result& result) {
  return out << describe(result);
}

}  // namespace explore
}  // namespace orvcam
