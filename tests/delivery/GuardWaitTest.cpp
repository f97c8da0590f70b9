// A sensor thread blocked in the guard leaves exactly when the change it waits for happens.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

#include "CamDeliverGuard.h"
#include "DeliveryTestUtil.h"

namespace orvcam {
namespace test {
namespace {

class GuardWait : public ::testing::Test {
 protected:
  void SetUp() override { guard.fcPool = pool; }

  // Sensors 0 and 1 in sync in frames 1 and 2, both prepared for both frames; sensor 0 has
  // enqueued frame 1, sensor 1 has not, so sensor 0's frame 2 must wait.
  void syncPairWithPartnerBehind() {
    for (uint32_t f : {1u, 2u}) fcs[f] = addFrame(*pool, f, {{0}, {1}}, {0, 1});
    for (uint32_t f : {1u, 2u}) {
      guard.prepare(0, f, fcs[f]);
      guard.prepare(1, f, fcs[f]);
    }
    guard.finished(0, 1, false);
  }
  void expectReleasedOnlyBy(const std::function<void()>& release);
  // Bounded wait for a line a blocking call writes under the guard's lock before it sleeps.
  bool logged(const std::string& line) {
    for (int i = 0; i < 1000 && !capture.has(line); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return capture.has(line);
  }

  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  CamDeliverGuard guard;
  std::map<uint32_t, FcPtr> fcs;
  LoggerScope logs;
  host::LogCapture capture;
};

// The waiter on sensor 0's frame 2 sleeps through notifications that change nothing it
// depends on, and leaves on `release`.
void GuardWait::expectReleasedOnlyBy(const std::function<void()>& release) {
  syncPairWithPartnerBehind();
  BlockingCall waiter("wait S:0 F:2", [this] { guard.wait(0, 2, false); });
  EXPECT_TRUE(waiter.stillBlockedAfter(kHoldTime));
  guard.finished(1, 1, true);
  guard.breakFrameSync(1, {});
  EXPECT_TRUE(waiter.stillBlockedAfter(kHoldTime));
  release();
  EXPECT_TRUE(waiter.returnedWithin(kReleaseBound));
}

TEST_F(GuardWait, PartnerEnqueueReleasesWaiter) {
  expectReleasedOnlyBy([this] { guard.finished(1, 1, false); });
  EXPECT_FALSE(pool->exist(1));
}

TEST_F(GuardWait, PartnerDropReleasesWaiter) {
  expectReleasedOnlyBy([this] { guard.drop(1, 1); });
  EXPECT_FALSE(pool->exist(1));
}

TEST_F(GuardWait, PartnerFlushReleasesWaiter) {
  expectReleasedOnlyBy([this] { guard.flush(1); });
  EXPECT_FALSE(pool->exist(1));
  EXPECT_TRUE(fcs[2]->getIsEnqued(1));
}

TEST_F(GuardWait, SyncBreakReleasesWaiter) {
  expectReleasedOnlyBy([this] { guard.breakFrameSync(1, {1}); });
  EXPECT_TRUE(pool->exist(1));
}

TEST_F(GuardWait, SetConfiguredWakesNobody) {
  syncPairWithPartnerBehind();
  BlockingCall waiter("wait S:0 F:2", [this] { guard.wait(0, 2, false); });
  // After a failed check the waiter only looks again when notified.
  ASSERT_TRUE(logged("[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ..."));
  // Frame 1 becomes complete behind the guard's back: only a notifier lets the waiter see it.
  fcs[1]->enqued(1);
  guard.setConfigured(1, 2);
  EXPECT_TRUE(waiter.stillBlockedAfter(kHoldTime));
  guard.breakFrameSync(1, {});
  EXPECT_TRUE(waiter.returnedWithin(kReleaseBound));
}

TEST_F(GuardWait, RawSwitchWaitsForTheOffSensorsPreviousEnqueue) {
  fcs[1] = addFrame(*pool, 1, {{2}, {3}});
  fcs[2] = addFrame(*pool, 2, {{0, true, false, 0}, {2, true, false, 1}});
  guard.prepare(2, 1, fcs[1]);
  guard.prepare(3, 1, fcs[1]);
  guard.prepare(2, 2, fcs[2]);
  guard.prepare(0, 2, fcs[2]);

  BlockingCall waiter("configure wait S:0 F:2", [this] { guard.wait(0, 2, true); });
  EXPECT_TRUE(waiter.stillBlockedAfter(kHoldTime));
  guard.finished(3, 1, false);   // a sensor that is not switching off
  guard.breakFrameSync(0, {1});  // sync has no say in the raw-switch rule
  EXPECT_TRUE(waiter.stillBlockedAfter(kHoldTime));
  guard.finished(2, 1, false);
  EXPECT_TRUE(waiter.returnedWithin(kReleaseBound));

  EXPECT_EQ(1u, capture.count("[wait] [S:0 F:2][ConfigJob] wait offSensor(2) enqed +"));
  EXPECT_EQ(1u, capture.count("[wait] [S:0 F:2][ConfigJob] wait offSensor(2) enqed -"));
}

TEST_F(GuardWait, DrainReturnsOnceTheFramesEnqueuedAtTheCallHaveLeft) {
  for (uint32_t f : {12u, 13u, 14u}) {
    fcs[f] = addFrame(*pool, f, {{0}, {1}});
    guard.prepare(0, f, fcs[f]);
    guard.prepare(1, f, fcs[f]);
  }
  guard.finished(1, 12, false);
  guard.finished(1, 13, false);

  int32_t result = -1;
  BlockingCall drain("waitUntilEnquedEmpty S:1", [&] { result = guard.waitUntilEnquedEmpty(1); });
  ASSERT_TRUE(logged("[waitUntilEnquedEmpty] wait until sensorId(1) enqued empty +, wait: 12 13 "));
  guard.finished(1, 14, false);  // enqueued after the call: not waited for
  guard.finished(0, 12, false);
  EXPECT_TRUE(drain.stillBlockedAfter(kHoldTime));
  guard.drop(0, 13);
  EXPECT_TRUE(drain.returnedWithin(kReleaseBound));
  EXPECT_EQ(0, result);
  EXPECT_TRUE(pool->exist(14));
  EXPECT_TRUE(capture.has("[waitUntilEnquedEmpty] wait until sensorId(1) enqued empty -"));
}

}  // namespace
}  // namespace test
}  // namespace orvcam
