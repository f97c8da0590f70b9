// Which licences a frame gets from the pipe manager, under which keys and FDs they are
// queued, and which go straight back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DeliveryTestUtil.h"

namespace orvcam {
namespace test {
namespace {

using ::testing::_;
using ::testing::InSequence;
using ::testing::InvokeWithoutArgs;
using ::testing::StrictMock;
using ::testing::Truly;
using IRequestLicense = CamDeliver::IRequestLicense;
using LicenseRef = std::unique_ptr<IRequestLicense>&;

class FakeLicense : public IRequestLicense {
 public:
  FakeLicense(int32_t fd, int* live) : mFd(fd), mLive(live) { ++*mLive; }
  ~FakeLicense() override { --*mLive; }
  int32_t getFD() const override { return mFd; }

 private:
  int32_t mFd;
  int* mLive;
};

class MockPipeMgr : public CamDeliver::IPipeMgr {
 public:
  MOCK_METHOD(std::unique_ptr<IRequestLicense>, acquireLicense, (), (override));
  MOCK_METHOD(std::unique_ptr<IRequestLicense>, acquireLicenseForFD, (int32_t), (override));
  MOCK_METHOD(void, releaseLicense, (LicenseRef, bool, bool), (override));
  MOCK_METHOD((std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>>), configure,
              (const std::shared_ptr<host::ConfigParam>&, LicenseRef), (override));
};

class LicensePlan : public ::testing::Test {
 protected:
  // The queue reads the log level when it is built, before the deliverer reads its
  // property: a level set beforehand turns the queue's push lines on for this deliverer.
  void SetUp() override {
    host::setPipeMgrInstance(mock);
    CamDeliver::mLogLevel = 1;
    deliver = std::make_unique<CamDeliver>(pool);
  }
  // Whatever is still queued goes back when the deliverer goes, and nothing leaks.
  void TearDown() override {
    ::testing::Mock::VerifyAndClearExpectations(mock.get());
    size_t queued = 0;
    for (const auto& frame : deliver->mLicenseQueue.mQueue) queued += frame.second.size();
    EXPECT_CALL(*mock, releaseLicense(_, false, true)).Times(static_cast<int>(queued));
    deliver.reset();
    EXPECT_EQ(0, live);
    host::setPipeMgrInstance(nullptr);
  }
  // Hands out licence number `issued.size()` with the given FD.
  auto issue(int32_t fd) {
    return InvokeWithoutArgs([this, fd] {
      auto license = std::make_unique<FakeLicense>(fd, &live);
      issued.push_back(license.get());
      return std::unique_ptr<IRequestLicense>(std::move(license));
    });
  }
  auto isIssued(size_t index) {
    return Truly(
        [this, index](LicenseRef l) { return index < issued.size() && l.get() == issued[index]; });
  }
  std::vector<std::string> pushes() const {
    std::vector<std::string> out;
    for (const std::string& m : capture.messages("OrvCam/LicenseQueue")) {
      if (m.rfind("[pushLicense]", 0) == 0) out.push_back(m);
    }
    return out;
  }

  int live = 0;
  std::vector<const IRequestLicense*> issued;
  std::shared_ptr<StrictMock<MockPipeMgr>> mock = std::make_shared<StrictMock<MockPipeMgr>>();
  std::shared_ptr<FrameContextPool> pool = std::make_shared<FrameContextPool>();
  LoggerScope logs;
  host::LogCapture capture;
  std::unique_ptr<CamDeliver> deliver;
};

TEST_F(LicensePlan, ConfigureLicenceSharesItsEnqueueLicencesFdAndNothingGoesBack) {
  {
    InSequence order;
    EXPECT_CALL(*mock, acquireLicense()).WillOnce(issue(10));
    EXPECT_CALL(*mock, acquireLicenseForFD(10)).WillOnce(issue(10));
    EXPECT_CALL(*mock, acquireLicense()).WillOnce(issue(11));
    EXPECT_CALL(*mock, acquireLicenseForFD(11)).WillOnce(issue(11));
    EXPECT_CALL(*mock, acquireLicense()).WillOnce(issue(12));
  }
  EXPECT_EQ(0, CamDeliver::mLogLevel);  // the property is unset
  FcPtr fc = addFrame(*pool, 5, {{1, true, true}, {2, true, true}, {3}}, {1, 2});
  deliver->prepare(1, 5, fc);
  deliver->prepare(2, 5, fc);  // licences come once, with the frame's first sensor
  EXPECT_EQ(pushes(), (std::vector<std::string>{
                          "[pushLicense] [S:65281 F:5] fd(10)", "[pushLicense] [S:1 F:5] fd(10)",
                          "[pushLicense] [S:65282 F:5] fd(11)", "[pushLicense] [S:2 F:5] fd(11)",
                          "[pushLicense] [S:3 F:5] fd(12)"}));
  EXPECT_TRUE(capture.has("[prepare] [F:5] coming before, skip prepare license"));
}

TEST_F(LicensePlan, SyncGroupSharesOneFdAndEveryLeaderGoesBackAtOnce) {
  {
    InSequence order;
    EXPECT_CALL(*mock, acquireLicense()).WillOnce(issue(20));
    EXPECT_CALL(*mock, acquireLicenseForFD(20)).Times(2).WillRepeatedly(issue(20));
    EXPECT_CALL(*mock, releaseLicense(isIssued(0), false, true));
    EXPECT_CALL(*mock, acquireLicense()).WillOnce(issue(21));
    EXPECT_CALL(*mock, acquireLicenseForFD(21)).WillOnce(issue(21));
    EXPECT_CALL(*mock, releaseLicense(isIssued(3), false, true));
    EXPECT_CALL(*mock, acquireLicense()).WillOnce(issue(22));
    EXPECT_CALL(*mock, acquireLicenseForFD(22)).WillOnce(issue(22));
    EXPECT_CALL(*mock, releaseLicense(isIssued(5), false, true));
  }
  FcPtr fc = addFrame(*pool, 6, {{0}, {1}, {2}, {3}}, {0, 1});
  deliver->prepare(3, 6, fc);
  EXPECT_EQ(pushes(), (std::vector<std::string>{
                          "[pushLicense] [S:0 F:6] fd(20)", "[pushLicense] [S:1 F:6] fd(20)",
                          "[pushLicense] [S:2 F:6] fd(21)", "[pushLicense] [S:3 F:6] fd(22)"}));
  // The leaders the manager left in the caller's hands were destroyed there.
  EXPECT_EQ(4, live);
}

}  // namespace
}  // namespace test
}  // namespace orvcam
