// Client timings in which a flush and a sync break are the only wake-up a waiting send gets.
// The explorer's configurations flush at a quiet barrier and report in-flight while jobs run,
// so some other job's completion always wakes a waiter there too; here nothing else happens
// after the event, and a guard that forgot to notify leaves the waiter asleep for good, which
// the harness reports as a deadlock with a replay.
//
// Both sessions: sensors 0 and 1 in frame sync over frames 1 and 2, each record emplaced and
// prepared by both sensors before any event. Sensor 1 enqueues frames 1 and 2; its frame 2
// waits for frame 1's sync group, in which sensor 0 never enqueues frame 1 before the event:
//   - Flush: the pipeline flushes sensor 0 (its frames are discarded: it sends nothing), which
//     counts sensor 0 enqueued in frames 1 and 2.
//   - Sync break: sensor 0 reports nothing in flight (value 0); its sends are held until
//     sensor 1 is through frame 2 (a suspended stream that resumes afterwards), so only the
//     sync break can let sensor 1 go.
#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "CamDeliver.h"
#include "Explore.h"
#include "FrameContext.h"
#include "FrameContextPool.h"

namespace notification_test {
namespace {

namespace cc = NSCam::camsys::camcoordinator;
namespace ex = orvcam::explore;
using cc::CamDeliver;

struct EnqueueJob : cc::ReqBaseJob {
  int32_t execute() override {
    CamDeliver::IPipeMgr::getInstance()->releaseLicense(mpLicense, false, false);
    return 0;
  }
};

enum class Event { Flush, SyncBreak };

void PrintTo(Event event, std::ostream* out) {
  *out << (event == Event::Flush ? "flush" : "sync break");
}

// The client's own state between its three threads, under `mutex`.
struct Session {
  std::mutex mutex;
  std::condition_variable cond;
  int prepared = 0;             // sensors that prepared both frames
  bool sensor1Through = false;  // sensor 1's enqueue of frame 2 returned

  void mark(bool Session::*flag) {
    std::lock_guard<std::mutex> lock(mutex);
    this->*flag = true;
    cond.notify_all();
  }
};

void run(Event event) {
  auto pool = std::make_shared<cc::FrameContextPool>();
  for (uint32_t f = 1; f <= 2; ++f) {
    std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
    for (uint32_t s = 0; s < 2; ++s) states[s].needEnq = true;
    std::set<uint32_t> both{0, 1};
    pool->emplace(f, std::make_shared<const cc::FrameContext>(f, both, both, states, false));
  }
  auto deliver = std::make_unique<CamDeliver>(pool);
  ex::name(&deliver->mGuard.cond, "guard.cond");
  Session session;

  auto prepareBoth = [&](uint32_t sensor) {
    for (uint32_t f = 1; f <= 2; ++f) deliver->prepare(sensor, f, pool->tryGet(f));
    std::lock_guard<std::mutex> lock(session.mutex);
    ++session.prepared;
    session.cond.notify_all();
  };
  std::thread sensor0([&] {
    prepareBoth(0);
    if (event == Event::Flush) return;  // discarded by the flush: nothing to send
    std::unique_lock<std::mutex> lock(session.mutex);
    session.cond.wait(lock, [&] { return session.sensor1Through; });
    lock.unlock();
    for (uint32_t f = 1; f <= 2; ++f) {
      if (deliver->sendJobForEnque(0, f, std::make_shared<EnqueueJob>()) != 0) {
        ex::fail("sensor 0's enqueue of F:" + std::to_string(f) + " did not return 0");
      }
    }
  });
  std::thread sensor1([&] {
    prepareBoth(1);
    for (uint32_t f = 1; f <= 2; ++f) {
      if (deliver->sendJobForEnque(1, f, std::make_shared<EnqueueJob>()) != 0) {
        ex::fail("sensor 1's enqueue of F:" + std::to_string(f) + " did not return 0");
      }
    }
    session.mark(&Session::sensor1Through);
  });
  std::thread pipeline([&] {
    {
      std::unique_lock<std::mutex> lock(session.mutex);
      session.cond.wait(lock, [&] { return session.prepared == 2; });
    }
    if (event == Event::Flush) {
      deliver->notifyEvent(CamDeliver::Flush, 0, 0, 0);
    } else {
      deliver->notifyEvent(CamDeliver::InformInflight, 0, 0, 0);
    }
  });
  sensor0.join();
  sensor1.join();
  pipeline.join();
  for (uint32_t f = 1; f <= 2; ++f) {
    if (pool->exist(f)) ex::fail("F:" + std::to_string(f) + " is still in the pool");
  }
  // Sensor 0's flushed licences are still queued; the deliverer hands them back as it goes.
  deliver.reset();
}

// One preemption is enough for these sessions: the waiter needs only to reach its wait
// before the event, which many schedules without any preemption already do.
ex::Options searchOptions() {
  ex::Options o;
  o.preemptions = 1;
  o.spurious = 0;
  return o;
}

class ExploredWakeUp : public ::testing::TestWithParam<Event> {};

// With the guard as it is, every schedule at bound 1 is clean; a guard whose flush or sync
// break does not notify its progress condition fails some schedule here (the mutation check
// removes each notification in turn).
TEST_P(ExploredWakeUp, TheEventAloneReleasesTheWaitingSend) {
  ex::Result r = ex::check(searchOptions(), [] { run(GetParam()); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(r);
  EXPECT_TRUE(r.exhausted) << r;
  if (r.failed) {
    // What a missing notification looks like, so that the mutation check's log shows it: a
    // deadlock of sensor 1's send on the guard's condition, and a replay that fails again.
    ex::Result again = ex::replay(
        r.replay, [] { run(GetParam()); }, searchOptions());
    EXPECT_TRUE(again.failed) << again;
  }
}

INSTANTIATE_TEST_SUITE_P(Events, ExploredWakeUp, ::testing::Values(Event::Flush, Event::SyncBreak),
                         [](const ::testing::TestParamInfo<Event>& info) {
                           return info.param == Event::Flush ? "Flush" : "SyncBreak";
                         });

}  // namespace
}  // namespace notification_test
