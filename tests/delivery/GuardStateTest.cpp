// The guard's per-sensor preparation order: prepare and drop hand out stamps, flush starts
// the sensor again at 0, and a sensor's previous frame follows those stamps. Single-threaded:
// the frame-sync check is asked directly, under the guard's lock as wait() asks it.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "CamDeliverGuard.h"
#include "DeliveryTestUtil.h"

namespace orvcam {
namespace test {
namespace {

class GuardState : public ::testing::Test {
 protected:
  void SetUp() override { guard.fcPool = pool; }
  uint64_t orderOf(uint32_t f, uint32_t s) {
    std::lock_guard<std::mutex> lock(fcs.at(f)->mutex);
    return fcs.at(f)->sensorStates.at(s).order;
  }
  bool mayGo(uint32_t s, uint32_t f) {
    std::lock_guard<std::mutex> lock(guard.mutex);
    return guard.isPreviousSyncFrameFinished(s, f);
  }
  std::string preparedLine(uint32_t s, uint32_t f, uint64_t order) {
    return "[prepare] [S:" + std::to_string(s) + " F:" + std::to_string(f) + "] prepared, order(" +
           std::to_string(order) + ")";
  }

  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  CamDeliverGuard guard;
  std::map<uint32_t, FcPtr> fcs;
  LoggerScope logs;
  host::LogCapture capture;
};

TEST_F(GuardState, DropTakesAStampLikeAPrepareAndKeepsAnEarlierOne) {
  for (uint32_t f : {1u, 2u, 3u}) fcs[f] = addFrame(*pool, f, {{0}, {1}}, {0, 1});
  guard.prepare(0, 1, fcs[1]);
  guard.prepare(0, 2, fcs[2]);
  guard.drop(0, 1);  // prepared already with stamp 0: keeps it, the counter moves on
  EXPECT_EQ(0u, orderOf(1, 0));
  EXPECT_EQ(3u, guard.orderMap.at(0));
  guard.prepare(0, 3, fcs[3]);
  EXPECT_TRUE(capture.has(preparedLine(0, 3, 3)));
  EXPECT_EQ(3u, orderOf(3, 0));
}

// The pipeline dropped sensor 1's frame 1 before the sensor prepared it: the drop's stamp
// makes frame 1 sensor 1's previous frame, so frame 2 waits for sensor 0 there.
TEST_F(GuardState, DroppedBeforePrepareStillHoldsTheSensorsNextFrameToItsSyncGroup) {
  for (uint32_t f : {1u, 2u}) fcs[f] = addFrame(*pool, f, {{0}, {1}}, {0, 1});
  guard.prepare(0, 1, fcs[1]);
  guard.drop(1, 1);
  guard.prepare(1, 2, fcs[2]);
  EXPECT_EQ(0u, orderOf(1, 1));
  EXPECT_EQ(1u, orderOf(2, 1));
  EXPECT_FALSE(mayGo(1, 2));
  guard.finished(0, 1, false);
  EXPECT_TRUE(mayGo(1, 2));
}

TEST_F(GuardState, FlushStartsTheSensorsOrderAgainAtZero) {
  for (uint32_t f : {4u, 5u, 6u}) {
    fcs[f] = addFrame(*pool, f, {{0}, {1}});
    guard.prepare(0, f, fcs[f]);
  }
  guard.prepare(1, 4, fcs[4]);
  guard.flush(0);
  EXPECT_EQ(0u, guard.orderMap.at(0));
  EXPECT_EQ(1u, guard.orderMap.at(1));  // other sensors keep counting
  EXPECT_EQ(3u, poolSize(*pool));       // sensor 1 still has to enqueue them
  fcs[7] = addFrame(*pool, 7, {{0}});
  guard.prepare(0, 7, fcs[7]);
  EXPECT_TRUE(capture.has(preparedLine(0, 7, 0)));
  EXPECT_EQ(0u, orderOf(7, 0));
}

}  // namespace
}  // namespace test
}  // namespace orvcam
