// A sensor thread blocked in the guard leaves exactly when the change it waits for happens.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

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
  // Sensor 0's wait for frame 2, asleep until sensor 1 has enqueued frame 1.
  Sleeper frame2Waiter(const BlockingCall& call) {
    return {capture, guard, call, syncWaitLine(0, 2), ""};
  }

  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  CamDeliverGuard guard;
  std::map<uint32_t, FcPtr> fcs;
  LoggerScope logs;
  host::LogCapture capture;
};

// The waiter on sensor 0's frame 2 checks again on notifications that change nothing it
// depends on and sleeps on, and leaves on `release`.
void GuardWait::expectReleasedOnlyBy(const std::function<void()>& release) {
  syncPairWithPartnerBehind();
  BlockingCall waiter("wait S:0 F:2", [this] { guard.wait(0, 2, false); });
  const Sleeper sleeper = frame2Waiter(waiter);
  ASSERT_TRUE(sleeper.checkedAndAsleep());
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] { guard.finished(1, 1, true); }));
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] { guard.breakFrameSync(1, {}); }));
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] {
    guard.prepare(1, 3, addFrame(*pool, 3, {{0}, {1}}, {0, 1}));  // a later frame of the partner
  }));
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
  ASSERT_TRUE(frame2Waiter(waiter).checkedAndAsleep());
  // Frame 1 becomes complete behind the guard's back: only a notifier lets the waiter see it.
  fcs[1]->enqued(1);
  guard.setConfigured(1, 2);
  guard.breakFrameSync(1, {});  // wakes everybody and changes nothing
  EXPECT_TRUE(waiter.returnedWithin(kReleaseBound));
  // Each check looks frame 2's previous frame up. The waiter checked twice: on arrival and
  // after the wake-up, not in between after setConfigured.
  const std::string check = previousFrameLine(0, 2, 1, 0, 1);
  const std::string wakeUp = "[breakFrameSync] [S:1] break all frameSync, notify_all!";
  std::vector<std::string> seen;
  for (const std::string& m : capture.messages()) {
    if (m == check || m == wakeUp) seen.push_back(m);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{check, wakeUp, check}));
}

TEST_F(GuardWait, RawSwitchWaitsForTheOffSensorsPreviousEnqueue) {
  fcs[1] = addFrame(*pool, 1, {{2}, {3}});
  fcs[2] = addFrame(*pool, 2, {{0, true, false, 0}, {2, true, false, 1}});
  guard.prepare(2, 1, fcs[1]);
  guard.prepare(3, 1, fcs[1]);
  guard.prepare(2, 2, fcs[2]);
  guard.prepare(0, 2, fcs[2]);

  BlockingCall waiter("configure wait S:0 F:2", [this] { guard.wait(0, 2, true); });
  // Each check of the raw-switch rule looks the off sensor's previous frame up.
  const Sleeper sleeper{capture, guard, waiter, previousFrameLine(2, 2, 1, 0, 1),
                        offSensorLine(0, 2, 2, true, '-')};
  ASSERT_TRUE(sleeper.checkedAndAsleep());
  // A sensor that is not switching off; sync has no say in the raw-switch rule.
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] { guard.finished(3, 1, false); }));
  EXPECT_TRUE(sleeper.staysAsleepThrough([this] { guard.breakFrameSync(0, {1}); }));
  guard.finished(2, 1, false);
  EXPECT_TRUE(waiter.returnedWithin(kReleaseBound));

  EXPECT_EQ(1u, capture.count(offSensorLine(0, 2, 2, true, '+')));
  EXPECT_EQ(1u, capture.count(offSensorLine(0, 2, 2, true, '-')));
}

// Each way a record leaves the pool wakes a drain by itself: the last enqueue, a drop and a
// flush of the last sensor still to enqueue. Nothing else notifies the erase condition.
TEST_F(GuardWait, EachWayARecordLeavesWakesTheDrain) {
  const std::map<std::string, std::function<void()>> releases = {
      {"finished", [this] { guard.finished(0, 12, false); }},
      {"drop", [this] { guard.drop(0, 12); }},
      {"flush", [this] { guard.flush(0); }}};
  for (const auto& release : releases) {
    SCOPED_TRACE(release.first);
    fcs[12] = addFrame(*pool, 12, {{0}, {1}});
    guard.prepare(0, 12, fcs[12]);
    guard.prepare(1, 12, fcs[12]);
    guard.finished(1, 12, false);
    capture.clear();
    BlockingCall drain("waitUntilEnquedEmpty S:1", [this] { guard.waitUntilEnquedEmpty(1); });
    ASSERT_TRUE(
        capture.waitFor("[waitUntilEnquedEmpty] wait until sensorId(1) enqued empty +, wait: 12 "));
    release.second();
    EXPECT_TRUE(drain.returnedWithin(kReleaseBound));
    EXPECT_FALSE(pool->exist(12));
  }
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
  ASSERT_TRUE(capture.waitFor(
      "[waitUntilEnquedEmpty] wait until sensorId(1) enqued empty +, wait: 12 13 "));
  guard.finished(1, 14, false);  // enqueued after the call: not waited for
  guard.finished(0, 12, false);
  guard.drop(0, 13);
  EXPECT_TRUE(drain.returnedWithin(kReleaseBound));
  EXPECT_EQ(0, result);
  EXPECT_TRUE(pool->exist(14));
  // The drain looks again on each erase but writes nothing then: its end line must come after
  // the erase of frame 13, the last frame it waited for.
  const std::vector<std::string> order = {
      "[finished] [S:0 F:12] EnqJob finished. Is last, erase it.",
      "[drop] [S:0 F:13] is last, erase",
      "[waitUntilEnquedEmpty] wait until sensorId(1) enqued empty -"};
  std::vector<std::string> seen;
  for (const std::string& m : capture.messages()) {
    if (std::find(order.begin(), order.end(), m) != order.end()) seen.push_back(m);
  }
  EXPECT_EQ(seen, order);
}

}  // namespace
}  // namespace test
}  // namespace orvcam
