// Whole frames through the deliverer and the host pipe manager. Every flow ends with an empty
// pool and a balanced licence account.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "DeliveryTestUtil.h"

namespace orvcam {
namespace test {
namespace {

struct Sent {
  int32_t result = 0;
  int32_t fd = -1;  // of the licence the job got; -1 when it got none
  bool executed = false;
};

class DeliverFlow : public ::testing::Test {
 protected:
  void SetUp() override {
    pipeMgr->reset();
    deliver = std::make_unique<CamDeliver>(pool);
  }
  FcPtr prepareAll(uint32_t f, const std::vector<Part>& parts, std::set<uint32_t> sync = {}) {
    FcPtr fc = addFrame(*pool, f, parts, std::move(sync));
    for (const Part& p : parts) deliver->prepare(p.sensor, f, fc);
    return fc;
  }
  // An enqueue send on its own thread; the job, and the licence it holds, die with the call.
  std::unique_ptr<BlockingCall> sendAsync(uint32_t s, uint32_t f, Sent& out, int32_t result = 0) {
    return std::make_unique<BlockingCall>(
        "sendJobForEnque S:" + std::to_string(s) + " F:" + std::to_string(f), [=, &out] {
          auto job = std::make_shared<RecordingJob>(result);
          out.result = deliver->sendJobForEnque(s, f, job);
          out.fd = job->fd;
          out.executed = job->executed;
        });
  }
  Sent send(uint32_t s, uint32_t f) {
    Sent out;
    EXPECT_TRUE(sendAsync(s, f, out)->returnedWithin(kReleaseBound)) << "S:" << s << " F:" << f;
    return out;
  }
  void configure(uint32_t s, uint32_t f) {
    auto job = std::make_shared<cc::ReqCfgJob>(
        pipeMgr, std::make_shared<host::ConfigParam>(host::ConfigParam{s, f}));
    BlockingCall call("sendJobForConfigure", [=] { deliver->sendJobForConfigure(s, f, job); });
    EXPECT_TRUE(call.returnedWithin(kReleaseBound)) << "S:" << s << " F:" << f;
  }
  // A send asleep in the guard, told by the guard's own lines.
  Sleeper asleep(const BlockingCall& call, std::string checkLine, std::string passLine = "") {
    return {capture, deliver->mGuard, call, std::move(checkLine), std::move(passLine)};
  }
  void wakeEverybody() { deliver->mGuard.breakFrameSync(9, {}); }  // and change nothing
  int32_t queuedFd(uint32_t key, uint32_t f) {
    return deliver->mLicenseQueue.mQueue.at(f).at(key)->getFD();
  }
  void expectDrained() {
    EXPECT_EQ(0u, poolSize(*pool));
    EXPECT_TRUE(deliver->mLicenseQueue.mQueue.empty());
    deliver.reset();
    const host::LicenseAccount a = pipeMgr->account();
    EXPECT_TRUE(a.balanced()) << a.acquired << " acquired, " << a.released << " released, "
                              << a.destroyed << " destroyed";
  }

  std::shared_ptr<host::HostPipeMgr> pipeMgr = host::hostPipeMgr();
  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  std::unique_ptr<CamDeliver> deliver;
  LoggerScope logs;
  host::LogCapture capture;
};

TEST_F(DeliverFlow, ThreeSensorsWithAndWithoutSync) {
  prepareAll(1, {{0}, {1}, {2}});
  prepareAll(2, {{0}, {1}, {2}}, {0, 1});
  prepareAll(3, {{0}, {1}, {2}}, {0, 1, 2});
  EXPECT_NE(queuedFd(0, 1), queuedFd(1, 1));
  EXPECT_EQ(queuedFd(0, 2), queuedFd(1, 2));
  EXPECT_NE(queuedFd(0, 2), queuedFd(2, 2));

  // Frame 1 has no sync, so sensor 2 goes on to frame 2 without the others.
  EXPECT_EQ(0, send(2, 1).result);
  EXPECT_EQ(0, send(2, 2).result);
  for (uint32_t f : {1u, 2u}) EXPECT_EQ(0, send(0, f).result + send(1, f).result);
  Sent a = send(2, 3), b = send(0, 3), c = send(1, 3);
  EXPECT_EQ(a.fd, b.fd);
  EXPECT_EQ(a.fd, c.fd);
  expectDrained();
}

TEST_F(DeliverFlow, ConfigureFrameByJobAndBySetConfigured) {
  FcPtr fc = prepareAll(1, {{0, true, true}, {1, true, true}}, {0, 1});
  const int32_t fd0 = queuedFd(0, 1), fd1 = queuedFd(1, 1);
  EXPECT_EQ(fd0, queuedFd(0xFF00, 1));
  EXPECT_EQ(fd1, queuedFd(0xFF01, 1));
  EXPECT_NE(fd0, fd1);  // a configure frame gives no group FD

  configure(0, 1);
  deliver->setConfigured(1, 1);
  const auto calls = pipeMgr->configureCalls();
  ASSERT_EQ(1u, calls.size());
  EXPECT_EQ(0u, calls[0].config.sensorId);
  EXPECT_EQ(1u, calls[0].config.frameNo);
  EXPECT_EQ(fd0, calls[0].fd);
  EXPECT_TRUE(isConfigured(fc, 0) && isConfigured(fc, 1));
  // The unused configure licence goes back, with the warning written all the same.
  EXPECT_TRUE(capture.has("[releaseLicense] [S:65281 F:1] license already null !"));
  EXPECT_TRUE(capture.has("[releaseLicense] [S:65281 F:1] release license(" + std::to_string(fd1) +
                          ") from pipeMgr"));

  EXPECT_EQ(fd0, send(0, 1).fd);
  EXPECT_EQ(fd1, send(1, 1).fd);
  expectDrained();
}

TEST_F(DeliverFlow, RawSwitchFrameWaitsForTheOffSensor) {
  prepareAll(1, {{2}});
  prepareAll(2, {{0, true, false, 0}, {2, true, false, 1}});
  Sent on;
  auto waiting = sendAsync(0, 2, on);
  // Each check of the raw-switch rule looks the off sensor's previous frame up.
  const Sleeper sleeper =
      asleep(*waiting, previousFrameLine(2, 2, 1, 0, 1), offSensorLine(0, 2, 2, false, '-'));
  ASSERT_TRUE(sleeper.checkedAndAsleep());
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] { wakeEverybody(); }));
  EXPECT_EQ(0, send(2, 1).result);
  ASSERT_TRUE(waiting->returnedWithin(kReleaseBound));
  EXPECT_EQ(0, on.result);
  EXPECT_EQ(0, send(2, 2).result);
  expectDrained();
}

TEST_F(DeliverFlow, DropReturnsTheLicenceAndCountsTheSensorAsEnqueued) {
  for (uint32_t f : {1u, 2u}) prepareAll(f, {{0}, {1}}, {0, 1});
  const uint64_t released = pipeMgr->account().released;
  deliver->notifyEvent(CamDeliver::Drop, 1, 1, 0);
  EXPECT_EQ(released + 1, pipeMgr->account().released);

  // The sensor's own send for the dropped frame finds no licence.
  Sent late = send(1, 1);
  EXPECT_EQ(-1, late.result);
  EXPECT_FALSE(late.executed);
  EXPECT_EQ(-1, late.fd);
  EXPECT_TRUE(capture.has("[sendJobForEnque] [S:1 F:1] null license, maybe flushed, skip execute"));

  Sent next;
  auto waiting = sendAsync(1, 2, next);
  ASSERT_TRUE(asleep(*waiting, syncWaitLine(1, 2)).checkedAndAsleep());  // frame 1 lacks sensor 0
  EXPECT_EQ(0, send(0, 1).result);
  ASSERT_TRUE(waiting->returnedWithin(kReleaseBound));
  EXPECT_EQ(0, next.result + send(0, 2).result);
  expectDrained();
}

TEST_F(DeliverFlow, FlushOfOneSensorClearsEverySensorsLicences) {
  for (uint32_t f : {1u, 2u}) prepareAll(f, {{0}, {1}}, {0, 1});
  EXPECT_EQ(0, send(0, 1).result);
  Sent late;
  auto waiting = sendAsync(0, 2, late);
  const Sleeper sleeper = asleep(*waiting, syncWaitLine(0, 2));
  ASSERT_TRUE(sleeper.checkedAndAsleep());

  // Clearing the licences does not let anybody go.
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] {
    deliver->flush(1);
    wakeEverybody();
  }));
  EXPECT_TRUE(deliver->mLicenseQueue.mQueue.empty());
  deliver->notifyEvent(CamDeliver::Flush, 1, 0, 0);
  ASSERT_TRUE(waiting->returnedWithin(kReleaseBound));
  EXPECT_EQ(-1, late.result);
  EXPECT_FALSE(late.executed);
  EXPECT_TRUE(capture.has("[sendJobForEnque] [S:0 F:2] null license, maybe flushed, skip execute"));

  EXPECT_TRUE(pool->exist(2));  // sensor 0 never finished frame 2, until its own flush
  deliver->notifyEvent(CamDeliver::Flush, 0, 0, 0);
  expectDrained();
}

TEST_F(DeliverFlow, NothingInFlightMovesSyncFramesToOwnFdsAndBreaksTheirSync) {
  for (uint32_t f : {1u, 2u, 3u}) prepareAll(f, {{0}, {1}}, {0, 1});
  EXPECT_EQ(0, send(0, 1).result);
  const int32_t sharedFd = queuedFd(0, 3);
  EXPECT_EQ(sharedFd, queuedFd(1, 3));

  Sent ahead;
  auto waiting = sendAsync(0, 2, ahead);
  const Sleeper sleeper = asleep(*waiting, syncWaitLine(0, 2));
  ASSERT_TRUE(sleeper.checkedAndAsleep());
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] {
    deliver->notifyEvent(CamDeliver::InformInflight, 1, 0, 1);  // still in flight: nothing
    wakeEverybody();
  }));
  deliver->notifyEvent(CamDeliver::InformInflight, 1, 0, 0);
  ASSERT_TRUE(waiting->returnedWithin(kReleaseBound));
  EXPECT_EQ(0, ahead.result);

  EXPECT_NE(ahead.fd, queuedFd(1, 2));
  EXPECT_NE(queuedFd(0, 3), queuedFd(1, 3));
  EXPECT_NE(sharedFd, queuedFd(0, 3));
  EXPECT_NE(sharedFd, queuedFd(1, 3));
  const std::vector<std::pair<uint32_t, uint32_t>> rest = {{1, 1}, {1, 2}, {0, 3}, {1, 3}};
  for (const auto& sf : rest) EXPECT_EQ(0, send(sf.first, sf.second).result);
  expectDrained();
}

TEST_F(DeliverFlow, NoFrameNumberTakesAFreshLicenceOutsideTheQueue) {
  prepareAll(1, {{0}, {1}}, {0, 1});
  EXPECT_EQ(0, send(0, 1).result);

  // An enqueue with no frame still waits for the sync group of the sensor's latest frame,
  // runs on a licence of its own and leaves no trace in the guard.
  const uint64_t acquired = pipeMgr->account().acquired;
  Sent loose;
  auto waiting = sendAsync(0, kNoFrame, loose, 7);
  ASSERT_TRUE(asleep(*waiting, syncWaitLine(0, kNoFrame)).checkedAndAsleep());
  EXPECT_EQ(0, send(1, 1).result);
  ASSERT_TRUE(waiting->returnedWithin(kReleaseBound));
  EXPECT_EQ(7, loose.result);
  EXPECT_EQ(acquired + 1, pipeMgr->account().acquired);

  // A configure with no frame also takes a fresh licence, and reports to the record the
  // client keeps under that number.
  FcPtr noFrame = addFrame(*pool, kNoFrame, {{0, true, true}});
  configure(0, kNoFrame);
  EXPECT_EQ(1u, pipeMgr->configureCalls().size());
  EXPECT_TRUE(isConfigured(noFrame, 0));
  pool->erase(kNoFrame);
  expectDrained();
}

// Three sensor threads, 60 frames: all three in sync, then sensors 0 and 1 only, then no
// sync; sensor 0 is configured every fifth frame. No sensor's enqueue of frame N+1 may start
// before every sensor of frame N's sync group has enqueued frame N.
TEST_F(DeliverFlow, SensorThreadsNeverEnqueueAheadOfThePreviousSyncGroup) {
  constexpr uint32_t kSensors = 3, kFrames = 60;
  auto syncOf = [](uint32_t f) {
    return f % 3 == 0   ? std::set<uint32_t>{0, 1, 2}
           : f % 3 == 1 ? std::set<uint32_t>{0, 1}
                        : std::set<uint32_t>{};
  };
  std::vector<FcPtr> frames;
  for (uint32_t f = 0; f < kFrames; ++f) {
    frames.push_back(makeFrame(f, {{0, true, f % 5 == 4}, {1}, {2}}, syncOf(f)));
  }
  std::mutex mutex;
  uint64_t next = 0;
  std::map<std::pair<uint32_t, uint32_t>, uint64_t> started;  // (sensor, frame) -> sequence
  auto sensorThread = [&](uint32_t s) {
    for (uint32_t f = 0; f < kFrames; ++f) {
      pool->emplace(f, frames[f]);  // whichever sensor comes first puts the record in
      deliver->prepare(s, f, frames[f]);
      if (s == 0 && f % 5 == 4) {
        deliver->sendJobForConfigure(
            s, f, std::make_shared<cc::ReqCfgJob>(pipeMgr, std::make_shared<host::ConfigParam>()));
      }
      auto job = std::make_shared<RecordingJob>(0, [&, s, f] {
        std::lock_guard<std::mutex> lock(mutex);
        started[{s, f}] = next++;
      });
      deliver->sendJobForEnque(s, f, job);  // a job that does not run is missed below
      // Now and then a sensor is slower to come back: only the timing changes, nothing is
      // decided by it.
      if ((s + f) % 4 == 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  };
  {
    std::vector<std::unique_ptr<BlockingCall>> threads;
    for (uint32_t s = 0; s < kSensors; ++s) {
      threads.push_back(std::make_unique<BlockingCall>("sensor " + std::to_string(s),
                                                       [&, s] { sensorThread(s); }));
    }
    for (auto& t : threads) ASSERT_TRUE(t->returnedWithin(kReleaseBound * 4));
  }

  ASSERT_EQ(kSensors * kFrames, started.size());
  for (uint32_t f = 0; f + 1 < kFrames; ++f) {
    for (uint32_t s = 0; s < kSensors; ++s) {
      for (uint32_t partner : syncOf(f)) {
        EXPECT_LT(started[std::make_pair(partner, f)], started[std::make_pair(s, f + 1)])
            << "S:" << s << " F:" << f + 1 << " went before S:" << partner << " F:" << f;
      }
    }
  }
  EXPECT_EQ(kFrames / 5, pipeMgr->configureCalls().size());
  expectDrained();
}

}  // namespace
}  // namespace test
}  // namespace orvcam
