// The harness an integrator explores a coordinator with (Explore.h): bodies that start and
// join threads of their own, leave them running, call fail() from them, and drive the
// library with a coordinator lock of their own.
#include <gtest/gtest.h>
#include <pthread.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "CamDeliver.h"
#include "Explore.h"
#include "FrameContext.h"
#include "FrameContextPool.h"

// Outside namespace orvcam::explore: the interleaving tells the explorer's own frames from
// the body's by that namespace.
namespace harness_test {
namespace {

namespace cc = NSCam::camsys::camcoordinator;
using orvcam::explore::check;
using orvcam::explore::fail;
using orvcam::explore::name;
using orvcam::explore::Options;
using orvcam::explore::replay;
using orvcam::explore::Result;

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

// One withdrawal from a balance guarded by `m`. The racy one checks and withdraws under two
// holds of the lock, so a preemption between them overdraws the balance.
void withdraw(std::mutex& m, int& balance, bool racy) {
  bool ok;
  {
    std::lock_guard<std::mutex> lock(m);
    ok = balance > 0;
    if (ok && !racy) --balance;
  }
  if (ok && racy) {
    std::lock_guard<std::mutex> lock(m);
    --balance;
  }
}

// Two started threads withdraw from a balance of one; each thread then checks the balance
// itself and fails the schedule.
void withdrawals(bool racy) {
  std::mutex m;
  int balance = 1;
  auto teller = [&](const char* who) {
    pthread_setname_np(pthread_self(), who);
    withdraw(m, balance, racy);
    std::lock_guard<std::mutex> lock(m);
    if (balance < 0) fail("overdrawn: " + std::to_string(balance));
  };
  std::thread a(teller, "teller-a");
  std::thread b(teller, "teller-b");
  a.join();
  b.join();
}

TEST(Harness, FailFromAStartedThreadIsFoundShrunkAndReplayed) {
  Result r = check({}, [] { withdrawals(true); });
  ASSERT_TRUE(r.failed);
  EXPECT_FALSE(r.exhausted);
  ASSERT_FALSE(r.findings.empty());
  EXPECT_TRUE(startsWith(r.findings[0], "fail() on teller-")) << r;
  EXPECT_NE(r.findings[0].find("overdrawn: -1"), std::string::npos) << r;
  EXPECT_EQ(r.preemptions, 1u) << r;  // shrunk: one preemption between check and withdraw
  // The interleaving names the started threads and their creation and joins.
  EXPECT_NE(r.interleaving.find("create thread teller-a"), std::string::npos) << r;
  EXPECT_NE(r.interleaving.find("join teller-b"), std::string::npos) << r;
  EXPECT_NE(r.interleaving.find("HarnessTest.cpp"), std::string::npos) << r;

  Result again = replay(r.replay, [] { withdrawals(true); });
  EXPECT_TRUE(again.failed);
  EXPECT_EQ(again.findings, r.findings);
  EXPECT_EQ(again.interleaving, r.interleaving);

  // What GoogleTest prints of a failed result.
  std::ostringstream printed;
  printed << r;
  EXPECT_NE(printed.str().find("replay: " + r.replay), std::string::npos);
  EXPECT_NE(printed.str().find("finding: fail() on teller-"), std::string::npos);

  Result clean = check({}, [] { withdrawals(false); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(clean);
  EXPECT_TRUE(clean.exhausted);

  Result bad = replay("not a schedule", [] {});
  EXPECT_TRUE(bad.failed);
}

TEST(Harness, ThreadsLeftRunningRunToTheirEndAndOneLeftBlockedIsADeadlock) {
  // Detached and never-joined threads go on after the body has returned; the schedule ends
  // with them, so their fail() calls are seen in every schedule.
  Options once;
  once.preemptions = 0;
  Result r = check(once, [] {
    auto m = std::make_shared<std::mutex>();
    std::thread([m] {
      for (int i = 0; i < 3; ++i) std::lock_guard<std::mutex> lock(*m);
      fail("detached thread reached its end");
    }).detach();
    pthread_t raw;
    pthread_create(
        &raw, nullptr,
        [](void*) -> void* {
          fail("unjoined thread reached its end");
          return nullptr;
        },
        nullptr);
  });
  ASSERT_TRUE(r.failed);
  EXPECT_EQ(r.findings,
            (std::vector<std::string>{"fail() on thread 1: detached thread reached its end",
                                      "fail() on thread 2: unjoined thread reached its end"}))
      << r;

  // A thread left waiting for a notification nobody sends: a deadlock that names its wait.
  Result stuck = check({}, [] {
    auto m = std::make_shared<std::mutex>();
    auto cv = std::make_shared<std::condition_variable>();
    name(cv.get(), "lonely.cond");
    name(m.get(), "lonely.mutex");
    std::thread([m, cv] {
      std::unique_lock<std::mutex> lock(*m);
      cv->wait(lock, [] { return false; });
    }).detach();
  });
  ASSERT_TRUE(stuck.failed);
  ASSERT_FALSE(stuck.findings.empty());
  EXPECT_TRUE(startsWith(stuck.findings[0],
                         "deadlock: every live thread is blocked\n    thread 1 waits for a "
                         "notification of lonely.cond (with lonely.mutex)"))
      << stuck;

  // A thread that never ends: the step limit names it and its next step.
  Options limited;
  limited.stepLimit = 500;
  Result spin = check(limited, [] {
    std::mutex m;
    bool stop = false;
    std::thread t([&] {
      for (;;) {
        std::lock_guard<std::mutex> lock(m);
        if (stop) break;
      }
    });
    t.join();
  });
  ASSERT_TRUE(spin.failed);
  ASSERT_FALSE(spin.findings.empty());
  EXPECT_NE(spin.findings[0].find("did not end within 500 steps"), std::string::npos) << spin;
  EXPECT_NE(spin.findings[0].find("thread 1 runs; next: lock"), std::string::npos) << spin;
  EXPECT_NE(spin.findings[0].find("body waits for the end of thread 1"), std::string::npos) << spin;
}

// The pool record of `frame`: each of `sensors` is to enqueue it, those of `sync` in frame sync.
std::shared_ptr<const cc::FrameContext> frameRecord(uint32_t frame, std::set<uint32_t> sync,
                                                    const std::set<uint32_t>& sensors) {
  std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
  for (uint32_t s : sensors) states[s].needEnq = true;
  return std::make_shared<const cc::FrameContext>(frame, std::move(sync), sensors, states, false);
}

// Two sensors in frame sync over frames 1 and 2, each on a request thread the body starts,
// with a coordinator mutex of the body's own. Sensor 0's send of frame 2 waits in the guard
// until sensor 1 has enqueued frame 1. With `lockAcrossSend`, sensor 0 holds the coordinator
// mutex across that send, and sensor 1 takes it before its own send: a deadlock in the
// schedules where sensor 0 gets there first. `detach`: the body returns at once and the last
// request thread to end tears the deliverer down.
struct World {
  std::shared_ptr<cc::FrameContextPool> pool = std::make_shared<cc::FrameContextPool>();
  std::unique_ptr<cc::CamDeliver> deliver = std::make_unique<cc::CamDeliver>(pool);
  std::mutex coordinator;
  int enqueued = 0;
  World() {
    for (uint32_t f = 1; f <= 2; ++f) pool->emplace(f, frameRecord(f, {0, 1}, {0, 1}));
  }
};

void requests(World& w, uint32_t sensor, bool lockAcrossSend) {
  pthread_setname_np(pthread_self(), sensor == 0 ? "sensor 0" : "sensor 1");
  for (uint32_t f = 1; f <= 2; ++f) {
    w.deliver->prepare(sensor, f, w.pool->tryGet(f));
    if (lockAcrossSend && sensor == 0 && f == 2) {
      std::lock_guard<std::mutex> lock(w.coordinator);
      if (w.deliver->sendJobForEnque(sensor, f, std::make_shared<cc::ReqBaseJob>()) == 0) {
        ++w.enqueued;
      }
      continue;
    }
    if (lockAcrossSend && sensor == 1 && f == 1) {
      std::lock_guard<std::mutex> lock(w.coordinator);  // a note of the coordinator's own
    }
    int32_t result = w.deliver->sendJobForEnque(sensor, f, std::make_shared<cc::ReqBaseJob>());
    std::lock_guard<std::mutex> lock(w.coordinator);
    if (result == 0) ++w.enqueued;
  }
}

void twoSensors(bool lockAcrossSend) {
  World w;
  name(&w.coordinator, "coordinator.mutex");
  std::thread s0(requests, std::ref(w), 0, lockAcrossSend);
  std::thread s1(requests, std::ref(w), 1, lockAcrossSend);
  s0.join();
  s1.join();
  if (w.enqueued != 4) fail(std::to_string(w.enqueued) + " of 4 enqueues ran");
}

TEST(Harness, ACoordinatorLockHeldAcrossABlockingSendIsADeadlockNamingBothWaits) {
  auto body = [] { twoSensors(true); };
  Result r = check({}, body);
  ASSERT_TRUE(r.failed);
  ASSERT_FALSE(r.findings.empty());
  const std::string& d = r.findings[0];
  EXPECT_TRUE(startsWith(d, "deadlock: every live thread is blocked")) << r;
  EXPECT_NE(d.find("sensor 0 waits for a notification of"), std::string::npos) << r;
  EXPECT_NE(d.find("sensor 1 waits for mutex coordinator.mutex held by sensor 0"),
            std::string::npos)
      << r;
  EXPECT_NE(d.find("body waits for the end of sensor 0 (join)"), std::string::npos) << r;
  // Where: sensor 0 in the library's guard, sensor 1 in the body.
  size_t where = d.find("\n    sensor 1 at ");
  ASSERT_NE(where, std::string::npos) << r;
  EXPECT_NE(d.find("HarnessTest.cpp:", where), std::string::npos) << r;
  Result again = replay(r.replay, body);
  ASSERT_TRUE(again.failed);
  EXPECT_TRUE(startsWith(again.findings[0], "deadlock: every live thread is blocked")) << again;
  EXPECT_NE(again.findings[0].find("\n    sensor 1 at "), std::string::npos) << again;
}

// AddressSanitizer makes a schedule many times slower (this search took 86 s there at bound
// 2): under it the search goes one preemption less deep.
#if defined(__SANITIZE_ADDRESS__)
#define ORVCAM_HARNESS_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORVCAM_HARNESS_TEST_ASAN 1
#endif
#endif
#ifdef ORVCAM_HARNESS_TEST_ASAN
constexpr int kDeepBound = 1;
#else
constexpr int kDeepBound = 2;
#endif

TEST(Harness, ACleanTwoSensorBodyIsExhaustedAtBoundTwoEvenWithThreadsLeftRunning) {
  Options deep;
  deep.preemptions = kDeepBound;
  Result joined = check(deep, [] { twoSensors(false); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(joined);
  EXPECT_TRUE(joined.exhausted);

  // The body returns at once; the request threads share the world and the last one tears
  // the deliverer down, handing its licences back before the account is read.
  Options bound1;
  bound1.preemptions = 1;
  Result left = check(bound1, [] {
    auto w = std::make_shared<World>();
    for (uint32_t s = 0; s < 2; ++s) {
      std::thread([w, s] {
        requests(*w, s, false);
        std::lock_guard<std::mutex> lock(w->coordinator);
        if (w->enqueued == 4) w->deliver.reset();  // the last one
      }).detach();
    }
  });
  ORVCAM_EXPECT_EXPLORED_CLEAN(left);
  EXPECT_TRUE(left.exhausted);
  EXPECT_GT(left.schedules, 1u);
}

TEST(Harness, EachScheduleHasAFreshLicenceAccountAndALicenceKeptIsAFinding) {
  Options o;
  o.preemptions = 1;
  // Licences the body keeps past its schedule: never handed back, never destroyed while the
  // schedule is judged; freed once the search is over.
  std::vector<std::unique_ptr<NSCam::camsys::pipemgr::isp7::IRequestLicense>> kept;
  Result r = check(o, [&kept] {
    std::mutex m;
    std::thread t([&] { std::lock_guard<std::mutex> lock(m); });
    { std::lock_guard<std::mutex> lock(m); }
    t.join();
    kept.push_back(NSCam::camsys::pipemgr::isp7::IPipeMgr::getInstance()->acquireLicense());
  });
  kept.clear();
  ASSERT_TRUE(r.failed);
  EXPECT_EQ(
      r.findings,
      std::vector<std::string>{"licence account: 1 acquired, 0 handed back, 0 destroyed without "
                               "hand-back, 0 hand-back(s) of no licence; 1 never handed back"})
      << r;
}

// What the deliverer did is judged from its own log lines, without the body recording
// anything: a sensor that prepares one frame twice breaks the client protocol.
TEST(Harness, TheLibrarysLogIsJudgedAndAClientMistakeIsAClientFinding) {
  auto body = [](bool twice) {
    auto pool = std::make_shared<cc::FrameContextPool>();
    cc::CamDeliver deliver(pool);
    auto fc = frameRecord(1, {}, {0});
    pool->emplace(1, fc);
    std::thread sensor([&] {
      deliver.prepare(0, 1, fc);
      if (twice) deliver.prepare(0, 1, fc);
      deliver.sendJobForEnque(0, 1, std::make_shared<cc::ReqBaseJob>());
    });
    sensor.join();
  };
  Result bad = check({}, [&] { body(true); });
  ASSERT_TRUE(bad.failed);
  ASSERT_FALSE(bad.findings.empty());
  EXPECT_TRUE(startsWith(bad.findings[0], "[client] ")) << bad;
  Result good = check({}, [&] { body(false); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(good);
  Options quiet;
  quiet.readLog = false;
  Result unread = check(quiet, [&] { body(true); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(unread);
}

// Three threads: a teller pair racing on a balance, and two workers whose steps on locks of
// their own commute with everything else. The state cache merges the workers' orders; it
// must not lose the race.
void tellersAndWorkers(bool racy) {
  std::mutex m, own1, own2;
  int balance = 1;
  int work1 = 0, work2 = 0;
  auto teller = [&] { withdraw(m, balance, racy); };
  auto worker = [](std::mutex& own, int& work) {
    for (int i = 0; i < 2; ++i) {
      std::lock_guard<std::mutex> lock(own);
      ++work;
    }
  };
  std::thread a(teller), b(teller);
  std::thread c(worker, std::ref(own1), std::ref(work1));
  std::thread d(worker, std::ref(own2), std::ref(work2));
  a.join();
  b.join();
  c.join();
  d.join();
  if (balance < 0) fail("overdrawn");
}

TEST(Harness, TheLockOrderStateCacheKeepsTheFailingScheduleAndPrunesCommutingSteps) {
  Options cached, uncached;
  uncached.stateCache = false;
  cached.shrink = uncached.shrink = false;
  cached.preemptions = uncached.preemptions = 1;  // the race needs one
  for (const Options* o : {&cached, &uncached}) {
    Result r = check(*o, [] { tellersAndWorkers(true); });
    ASSERT_TRUE(r.failed) << (o->stateCache ? "cached" : "uncached");
    EXPECT_EQ(r.findings, std::vector<std::string>{"fail() on body: overdrawn"}) << r;
  }
  Result withCache = check(cached, [] { tellersAndWorkers(false); });
  Result without = check(uncached, [] { tellersAndWorkers(false); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(withCache);
  ORVCAM_EXPECT_EXPLORED_CLEAN(without);
  EXPECT_TRUE(withCache.exhausted);
  EXPECT_TRUE(without.exhausted);
  EXPECT_LT(withCache.schedules * 2, without.schedules)
      << withCache.schedules << " schedules with the cache, " << without.schedules << " without";
}

TEST(Harness, PctAndLimitsReportWhatTheyRan) {
  Options pct;
  pct.pct = 200;
  pct.seed = 7;
  Result r = check(pct, [] { withdrawals(true); });
  EXPECT_TRUE(r.failed) << r;  // a one-preemption race: PCT at depth 3 finds it in 200
  EXPECT_FALSE(r.exhausted);
  EXPECT_TRUE(replay(r.replay, [] { withdrawals(true); }).failed);

  Options limited;
  limited.maxSchedules = 3;
  Result few = check(limited, [] { tellersAndWorkers(false); });
  EXPECT_FALSE(few.failed) << few;
  EXPECT_FALSE(few.exhausted);
  EXPECT_EQ(few.schedules, 3u);
}

}  // namespace
}  // namespace harness_test
