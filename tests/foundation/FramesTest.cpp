// FrameContext records and the FrameContextPool's lookups and ordering queries.
#include <gmock/gmock.h>

#include "FrameContextPool.h"
#include "TestSupport.h"

namespace {

using NSCam::camsys::camcoordinator::FrameContext;
using NSCam::camsys::camcoordinator::FrameContextPool;
using ::orvcam::host::LogCapture;
using ::testing::ElementsAre;
using Set = std::set<uint32_t>;
using States = std::unordered_map<uint32_t, FrameContext::SensorState>;

FrameContext::SensorState state(bool needEnq, bool needCfg = false, int32_t streaming = -1) {
  FrameContext::SensorState s;
  s.needEnq = needEnq;
  s.needCfg = needCfg;
  s.streamingState = streaming;
  return s;
}

std::shared_ptr<FrameContext> record(uint32_t frameNo, States states, Set sync = {}, Set inMap = {},
                                     bool rawSwitch = false) {
  return std::make_shared<FrameContext>(frameNo, sync, inMap, states, rawSwitch);
}

TEST(FrameContext, ProgressOfPresentSensorsOnlyExceptThatPreparedInserts) {
  auto fc = record(5, {{0, state(true, true, 0)},
                       {1, state(true, false, 1)},
                       {2, state(false)},
                       {3, state(false)}});
  EXPECT_EQ(fc->getNeedCfgList(), Set{0});
  EXPECT_EQ(fc->getNeedEnqList(), (Set{0, 1}));
  EXPECT_TRUE(fc->getIsRawSwitch());  // from the states, though the flag is false
  EXPECT_FALSE(record(1, {{0, state(true, false, 0)}}, {}, {}, true)->getIsRawSwitch());
  fc->enqued(1);
  fc->enqued(2);  // not needed: not counted
  fc->enqued(9);
  fc->configured(8);
  EXPECT_EQ(fc->getNotEnqCount(), 1);
  EXPECT_EQ(fc->getAllList(), (Set{0, 1, 2, 3}));  // enqued/configured never insert
  fc->prepared(0, 7);
  fc->prepared(0, 3);  // the first order stays
  fc->prepared(4, 5);  // inserted unprepared, carrying the order
  EXPECT_TRUE(fc->getIsPrepared(0));
  EXPECT_FALSE(fc->getIsPrepared(4));
  EXPECT_EQ(fc->getAllList(), (Set{0, 1, 2, 3, 4}));
  std::lock_guard<std::mutex> lock(fc->mutex);
  EXPECT_EQ(fc->sensorStates.at(0).order, 7u);
  EXPECT_EQ(fc->sensorStates.at(4).order, 5u);
}

class FrameContextPoolTest : public ::testing::Test {
 protected:
  // A record where `sensor` needs enqueueing, prepared with `order` when given.
  std::shared_ptr<FrameContext> add(uint32_t frameNo, uint32_t sensor, int64_t order = -1) {
    auto fc = record(frameNo, {{sensor, state(true)}});
    if (order >= 0) fc->prepared(sensor, static_cast<uint64_t>(order));
    pool.emplace(frameNo, fc);
    return fc;
  }
  std::vector<std::string> lines(char level) {
    return capture.messages("OrvCam/FrameContextPool", level);
  }
  orvcam::test::LoggerScope logger;
  LogCapture capture;
  FrameContextPool pool;
};

TEST_F(FrameContextPoolTest, EmplaceKeepsTheFirstRecordAndLookupsNeverInsert) {
  auto first = add(10, 0);
  pool.emplace(10, record(10, {}));
  EXPECT_EQ(pool.tryGet(10), first);
  EXPECT_EQ(pool.tryGet(11), nullptr);
  EXPECT_EQ(pool.getPreviousFC(0, 11), nullptr);
  pool.erase(11);
  EXPECT_THAT(lines('W'), ElementsAre("[erase] [F:11] FC not exist, skip"));
  EXPECT_EQ(pool.pool.size(), 1u);
  pool.erase(10);
  EXPECT_FALSE(pool.exist(10));
  EXPECT_EQ(lines('W').size(), 1u);
}

TEST_F(FrameContextPoolTest, PreviousFrameIsTheHighestFramePreparedWithALowerOrder) {
  add(12, 1, 0);  // prepared first despite its higher number
  add(10, 1, 1);
  add(11, 1, 2);
  add(13, 1, 1);               // same order as frame 10: never its predecessor
  add(14, 2)->prepared(1, 0);  // sensor 1 inserted unprepared with order 0: skipped
  EXPECT_EQ(pool.getPreviousFC(1, 10), pool.tryGet(12));
  EXPECT_THAT(lines('D'), ElementsAre("[getPreviousFC] [S:1 F:10] get previous frameNo(12) "
                                      "order(0) < currentOrder(1)"));
  EXPECT_EQ(pool.getPreviousFC(1, 11), pool.tryGet(13));
  EXPECT_EQ(pool.getPreviousFC(1, 12), nullptr);  // the first preparation has order 0
  EXPECT_EQ(pool.getPreviousFC(1, 14), nullptr);
  // A frame without the sensor: its order reads as 0, inserting a default entry.
  EXPECT_EQ(pool.getPreviousFC(1, add(15, 2, 0)->frameNo), nullptr);
  EXPECT_EQ(pool.tryGet(15)->getAllList(), (Set{1, 2}));
  // Orders compare unsigned.
  add(16, 3, 5);
  add(17, 3, int64_t{1} << 62);
  pool.emplace(18, record(18, {{3, state(true)}}));
  pool.tryGet(18)->prepared(3, uint64_t{1} << 63);
  EXPECT_EQ(pool.getPreviousFC(3, 18), pool.tryGet(17));
}

TEST_F(FrameContextPoolTest, LatestEnqueuedFrameWhenThereIsNoCurrentFrame) {
  add(10, 1, 0)->enqued(1);
  add(11, 1, 1)->enqued(1);
  add(12, 1, 2);
  pool.emplace(13, nullptr);
  EXPECT_EQ(pool.getPreviousFC(2, FrameContextPool::kNoFrame), nullptr);
  EXPECT_EQ(pool.getPreviousFC(1, FrameContextPool::kNoFrame), pool.tryGet(11));
  EXPECT_THAT(lines(0), ElementsAre("[getPreviousFC] get latest frameNo(11)"));
}

TEST_F(FrameContextPoolTest, FrameSetQueries) {
  auto f10 = record(10, {{1, state(true)}, {2, state(true)}}, {1, 2}, {1});
  auto f11 = record(11, {{1, state(true)}, {2, state(false)}}, {1, 2}, {2});
  auto f12 = record(12, {{1, state(true)}}, {1});
  auto f13 = record(13, {{1, state(true)}, {2, state(true)}}, {2}, {1, 2});
  for (const auto& fc : {f10, f11, f12, f13}) pool.emplace(fc->frameNo, fc);
  f10->enqued(1);
  f12->enqued(1);
  f11->enqued(2);  // not needed there: never counts
  f12->syncBroken = true;
  f10->prepared(1, 0);
  f11->prepared(2, 0);
  f13->prepared(2, 1);
  EXPECT_EQ(pool.getEnquedFrames(1), (Set{10, 12}));
  EXPECT_EQ(pool.getEnquedFrames(2), Set{});
  EXPECT_EQ(pool.getSyncFrames(1), (Set{10, 11}));
  EXPECT_EQ(pool.getSyncFrames(2), (Set{10, 13}));
  EXPECT_EQ(pool.getEnquedSyncFrames(1), Set{10});
  EXPECT_EQ(pool.getPreparedFramesInMap(1), Set{10});
  EXPECT_EQ(pool.getPreparedFramesInMap(2), (Set{11, 13}));
  EXPECT_FALSE(pool.isEmpty(2));
  EXPECT_TRUE(pool.isEmpty(3));
  EXPECT_THAT(lines('W'), ElementsAre("[isEmpty] not empty, S:2 F:10 still there ..."));
  pool.clear();
  EXPECT_TRUE(pool.isEmpty(2));
}

TEST(FrameContextPoolDeathTest, TwentiethRecordAborts) {
  FrameContextPool pool;
  std::string list;
  for (uint32_t f = 19; f >= 1; --f) pool.emplace(f * 3, record(f * 3, {}));
  for (uint32_t f = 1; f <= 19; ++f) list += std::to_string(f * 3) + " ";
  pool.emplace(30, record(30, {}));  // already there: the pool does not grow
  EXPECT_EQ(pool.pool.size(), 19u);
  EXPECT_FATAL(pool.emplace(1, record(1, {})), "FCPool size > 20 : 1 " + list, "emplace",
               "FrameContextPool.cpp");
}

}  // namespace
