// Whole frames through the deliverer and the host pipe manager. Every flow ends with an empty
// pool and a balanced licence account.
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <future>
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
  std::unique_ptr<BlockingCall> sendAsync(uint32_t s, uint32_t f, Sent& out, int32_t result = 0,
                                          std::function<void()> onExecute = {}) {
    return std::make_unique<BlockingCall>(
        "sendJobForEnque S:" + std::to_string(s) + " F:" + std::to_string(f), [=, &out] {
          auto job = std::make_shared<RecordingJob>(result, onExecute);
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
  EXPECT_EQ(fd0, queuedFd(CamDeliver::kConfigKeyBase, 1));
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

// ---- Events that meet a send half-way -----------------------------------------------------

// An in-flight report with value 0 that comes while an enqueue holds its licence and has not
// reported completion waits for it: otherwise the report would find the frame still in the
// pool with none of its licences queued. Afterwards only licences still queued move.
TEST_F(DeliverFlow, NothingInFlightWaitsForAnEnqueueBetweenLicenceAndCompletion) {
  for (uint32_t f : {1u, 2u}) prepareAll(f, {{0}, {1}}, {0, 1});
  const int32_t frame1Fd = queuedFd(1, 1), frame2Fd = queuedFd(0, 2);
  EXPECT_EQ(0, send(0, 1).result);
  Gate gate;
  Sent last;
  auto sender = sendAsync(1, 1, last, 0, [&gate] { gate.hold(); });
  ASSERT_TRUE(gate.entered());
  BlockingCall report("InformInflight S:0",
                      [this] { deliver->notifyEvent(CamDeliver::InformInflight, 0, 0, 0); });
  // Written on entry, before the report takes the job lock.
  ASSERT_TRUE(capture.waitFor("[notifyEvent] [S:0 F:0] type(InformInflight), value(0)"));
  gate.open();
  ASSERT_TRUE(sender->returnedWithin(kReleaseBound));
  ASSERT_TRUE(report.returnedWithin(kReleaseBound));

  EXPECT_EQ(frame1Fd, last.fd);
  const std::string done = "[finished] [S:1 F:1] EnqJob finished. Is last, erase it.";
  const std::string frames = "[getSyncFrames] [S:0] frame list: 2 ";
  std::vector<std::string> seen;
  for (const std::string& m : capture.messages()) {
    if (m == done || m == frames) seen.push_back(m);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{done, frames}));
  EXPECT_TRUE(deliver->mGuard.getSyncFrames(1).empty());  // frame 2 is out of sync
  EXPECT_NE(frame2Fd, queuedFd(0, 2));
  EXPECT_NE(frame2Fd, queuedFd(1, 2));
  EXPECT_NE(queuedFd(0, 2), queuedFd(1, 2));
  EXPECT_EQ(0, send(0, 2).result + send(1, 2).result);
  expectDrained();
}

// The pipeline drops a sensor's request while that sensor's send for the frame, the frame's
// last enqueue, is under way. Whatever the moment, nothing aborts: the drop or the completion
// finds the frame gone and says so.
TEST_F(DeliverFlow, DropRacingTheLastEnqueueOfAFrame) {
  // Asleep in the guard: sensor 1's frame 2 waits for sensor 0 in frame 1. The drop retires
  // frame 2; the send wakes, finds no licence and returns -1 without running its job.
  prepareAll(1, {{0}, {1}}, {0, 1});
  prepareAll(2, {{1}});
  EXPECT_EQ(0, send(1, 1).result);
  Sent asleepSend;
  auto waiting = sendAsync(1, 2, asleepSend);
  ASSERT_TRUE(asleep(*waiting, syncWaitLine(1, 2)).checkedAndAsleep());
  deliver->notifyEvent(CamDeliver::Drop, 1, 2, 0);
  ASSERT_TRUE(waiting->returnedWithin(kReleaseBound));
  EXPECT_EQ(-1, asleepSend.result);
  EXPECT_FALSE(asleepSend.executed);
  EXPECT_TRUE(capture.has("[drop] [S:1 F:2] is last, erase"));
  EXPECT_EQ(0, send(0, 1).result);

  // Running its job: the licence is already taken, the drop retires the frame, and the
  // completion that follows finds it gone.
  prepareAll(3, {{0}, {1}});
  EXPECT_EQ(0, send(0, 3).result);
  Gate gate;
  Sent running;
  auto sender = sendAsync(1, 3, running, 5, [&gate] { gate.hold(); });
  ASSERT_TRUE(gate.entered());
  deliver->notifyEvent(CamDeliver::Drop, 1, 3, 0);
  EXPECT_TRUE(capture.has("[releaseLicense] Cam 1 NOT have F:3 in licenseQueue"));
  EXPECT_TRUE(capture.has("[drop] [S:1 F:3] is last, erase"));
  gate.open();
  ASSERT_TRUE(sender->returnedWithin(kReleaseBound));
  EXPECT_EQ(5, running.result);
  EXPECT_TRUE(capture.has("[finished] [S:1 F:3] FC not found ! maybe flushed"));

  // Done: the drop finds nothing.
  prepareAll(4, {{0}, {1}});
  EXPECT_EQ(0, send(0, 4).result + send(1, 4).result);
  deliver->notifyEvent(CamDeliver::Drop, 1, 4, 0);
  EXPECT_TRUE(capture.has("[drop] [S:1 F:4] FC not found"));
  expectDrained();
}

// ---- Preparation memory, configure licences, events that only log ---------------------------

TEST_F(DeliverFlow, TwentyFirstPreparedFrameEvictsTheOldestFromThePreparedList) {
  for (uint32_t f = 1; f <= 21; ++f) {
    prepareAll(f, {{0}});
    EXPECT_EQ(0, send(0, f).result) << "F:" << f;
  }
  EXPECT_EQ(deliver->mPreparedFrames,
            (std::deque<uint32_t>{2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                                  12, 13, 14, 15, 16, 17, 18, 19, 20, 21}));
  // Frame 1 is new again: a second record under that number gets licences of its own.
  const uint64_t acquired = pipeMgr->account().acquired;
  prepareAll(1, {{0}});
  EXPECT_EQ(acquired + 2, pipeMgr->account().acquired);  // a leader and the queued licence
  EXPECT_FALSE(capture.has("[prepare] [F:1] coming before, skip prepare license"));
  Sent again = send(0, 1);
  EXPECT_TRUE(again.executed);
  // Frame 21 is still remembered: a new record under it gets no licence.
  prepareAll(21, {{0}});
  EXPECT_TRUE(capture.has("[prepare] [F:21] coming before, skip prepare license"));
  EXPECT_EQ(-1, send(0, 21).result);
  deliver->notifyEvent(CamDeliver::Drop, 0, 21, 0);
  expectDrained();
}

TEST_F(DeliverFlow, DropOnAConfigureFrameLeavesTheConfigureLicenceQueued) {
  prepareAll(1, {{0, true, true}, {1}});
  deliver->notifyEvent(CamDeliver::Drop, 0, 1, 0);
  EXPECT_FALSE(deliver->mLicenseQueue.isLicenseExist(0, 1));
  EXPECT_TRUE(deliver->mLicenseQueue.isLicenseExist(CamDeliver::kConfigKeyBase, 1));
  EXPECT_EQ(0, send(1, 1).result);
  EXPECT_EQ(0u, poolSize(*pool));  // the drop counted sensor 0 as enqueued
  EXPECT_TRUE(deliver->mLicenseQueue.isLicenseExist(CamDeliver::kConfigKeyBase, 1));
  // The client hands it back with setConfigured; the guard no longer knows the frame.
  const uint64_t released = pipeMgr->account().released;
  deliver->setConfigured(0, 1);
  EXPECT_EQ(released + 1, pipeMgr->account().released);
  EXPECT_TRUE(capture.has("[setConfigured] [S:0 F:1] FC not found ! maybe flushed"));
  expectDrained();
}

TEST_F(DeliverFlow, EventsThatOnlyLogChangeNothing) {
  FcPtr fc = prepareAll(1, {{0}, {1}}, {0, 1});
  const int32_t fd0 = queuedFd(0, 1), fd1 = queuedFd(1, 1);
  const host::LicenseAccount before = pipeMgr->account();
  const std::map<uint32_t, uint64_t> orders(deliver->mGuard.orderMap.begin(),
                                            deliver->mGuard.orderMap.end());
  const std::pair<CamDeliver::EventType, std::string> events[] = {
      {CamDeliver::ResumeDone, "ResumeDone"},
      {CamDeliver::Suspend, "Suspend"},
      {CamDeliver::LicenseRelease, "LicenseRelease"},
      {CamDeliver::RawSwitch, "RawSwitch"},
      {static_cast<CamDeliver::EventType>(7), "UNKNOWN"},
      {static_cast<CamDeliver::EventType>(UINT32_MAX), "UNKNOWN"}};
  for (const auto& event : events) {
    capture.clear();
    deliver->notifyEvent(event.first, 0, 1, 0);
    EXPECT_EQ(capture.messages(), (std::vector<std::string>{"[notifyEvent] [S:0 F:1] type(" +
                                                            event.second + "), value(0)"}));
  }
  const host::LicenseAccount after = pipeMgr->account();
  EXPECT_EQ(std::make_tuple(before.acquired, before.released, before.destroyed),
            std::make_tuple(after.acquired, after.released, after.destroyed));
  EXPECT_EQ(std::make_pair(fd0, fd1), std::make_pair(queuedFd(0, 1), queuedFd(1, 1)));
  EXPECT_EQ(orders, (std::map<uint32_t, uint64_t>(deliver->mGuard.orderMap.begin(),
                                                  deliver->mGuard.orderMap.end())));
  EXPECT_FALSE(fc->getIsEnqued(0) || fc->getIsEnqued(1));
  EXPECT_EQ(0, send(0, 1).result + send(1, 1).result);
  expectDrained();
}

// The pipe manager's observer runs on the library's thread while the library holds its own
// locks: the deliverer's licence lock while a frame is prepared, the licence queue's lock
// while it is cleared. Another thread finds them taken.
TEST_F(DeliverFlow, LicenceObserverRunsWhileTheLibraryHoldsItsLocks) {
  std::mutex* watched = nullptr;
  std::vector<bool> takenSeen;
  pipeMgr->setObserver([&](host::LicenseEvent, uint64_t, int32_t) {
    if (watched == nullptr) return;
    std::mutex& m = *watched;
    takenSeen.push_back(std::async(std::launch::async, [&m] {
                          if (!m.try_lock()) return true;
                          m.unlock();
                          return false;
                        }).get());
  });
  watched = &deliver->mLicenseMutex;
  prepareAll(1, {{0}, {1}}, {0, 1});  // the group's leader, two licences, the leader back
  watched = &deliver->mLicenseQueue.mutex;
  deliver->flush(0);  // two licences back
  watched = nullptr;
  pipeMgr->setObserver(nullptr);
  EXPECT_EQ(takenSeen, std::vector<bool>(6, true));
  deliver->notifyEvent(CamDeliver::Flush, 0, 0, 0);
  deliver->notifyEvent(CamDeliver::Flush, 1, 0, 0);
  expectDrained();
}

}  // namespace
}  // namespace test
}  // namespace orvcam
