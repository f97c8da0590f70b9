// Client mistakes that end the process, each with its exact message.
#include <gtest/gtest.h>

#include <csignal>

#include "DeliveryTestUtil.h"

namespace orvcam {
namespace test {
namespace {

constexpr const char* kGuardFile = "CamDeliverGuard.cpp";
constexpr const char* kDeliverFile = "CamDeliver.cpp";

class BadInput : public ::testing::Test {
 protected:
  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  CamDeliver deliver{pool};
};

TEST_F(BadInput, MissingRecordsAreFatal) {
  EXPECT_FATAL(deliver.mGuard.prepare(0, 7, nullptr), "[S:0 F:7] pFc nullptr !", "prepare",
               kGuardFile);
  EXPECT_FATAL(deliver.sendJobForEnque(0, 9, std::make_shared<RecordingJob>()),
               "[S:0 F:9] FC not found !", "wait", kGuardFile);
  EXPECT_FATAL(deliver.mGuard.breakFrameSync(1, {8}), "[S:1 F:8] pFc nullptr !", "breakFrameSync",
               kGuardFile);
  // "No frame" reports need a record kept under 0xFFFFFFFF.
  EXPECT_FATAL(deliver.setConfigured(2, kNoFrame), "[S:2 F:-1] FC not found !", "setConfigured",
               kGuardFile);
  EXPECT_FATAL(deliver.mGuard.finished(2, kNoFrame, false), "[S:2 F:-1] FC not found !", "finished",
               kGuardFile);
}

TEST_F(BadInput, FinishedFrameCannotBeReportedOrWaitedForAgain) {
  // Nobody has to enqueue this frame: it counts as finished from the start.
  FcPtr fc = addFrame(*pool, 4, {{0, false, true}});
  deliver.prepare(0, 4, fc);
  EXPECT_FATAL(deliver.mGuard.finished(0, 4, true),
               "[S:0 F:4] FC already finished, please check it !", "finished", kGuardFile);
  EXPECT_FATAL(deliver.setConfigured(0, 4), "[S:0 F:4] FC already finished, please check it !",
               "setConfigured", kGuardFile);
  EXPECT_FATAL(deliver.sendJobForConfigure(0, 4, std::make_shared<RecordingJob>()),
               "[S:0 F:4] unexpected not enq count(0)", "wait", kGuardFile);
}

TEST_F(BadInput, SendsNeedTheirLicenceAndJob) {
  FcPtr fc = addFrame(*pool, 3, {{0}});
  deliver.prepare(0, 3, fc);
  EXPECT_FATAL(deliver.sendJobForConfigure(0, 3, std::make_shared<RecordingJob>()),
               "[S:0 F:3] No license to config, please check flow !!", "sendJobForConfigure",
               kDeliverFile);
  EXPECT_FATAL(deliver.sendJobForEnque(0, 3, nullptr), "[S:0 F:3] pJob is null", "sendJobForEnque",
               kDeliverFile);
}

TEST_F(BadInput, SyncListMustBeAGroupOfEnqueuedSensors) {
  FcPtr lone = addFrame(*pool, 5, {{0}, {1}}, {1});
  EXPECT_FATAL(deliver.prepare(0, 5, lone), "[F:5] weird synclist count", "prepareLicense",
               kDeliverFile);
  // The sensor is printed after "F:" and the frame inside the parentheses.
  FcPtr missing = addFrame(*pool, 7, {{0}, {2, false}}, {0, 2});
  EXPECT_FATAL(deliver.prepare(0, 7, missing), "[F:2] sensorId(7) in synclist but not in enqlist",
               "prepareLicense", kDeliverFile);
}

}  // namespace
}  // namespace test
}  // namespace orvcam
