// LicenseQueue: push, pop, release, FD change, clear and teardown.
#include <gmock/gmock.h>

#include "CamDeliver.h"
#include "LicenseQueue.h"
#include "TestSupport.h"

namespace {

using NSCam::camsys::camcoordinator::CamDeliver;
using NSCam::camsys::camcoordinator::LicenseQueue;
using NSCam::camsys::pipemgr::isp7::IRequestLicense;
using ::orvcam::host::hostPipeMgr;
// A configure licence's key for sensor 0; the library's lines print it as 65280.
constexpr uint32_t kCfg = CamDeliver::kConfigKeyBase;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Licence = std::unique_ptr<IRequestLicense>;

constexpr char kTag[] = "OrvCam/LicenseQueue";

class MockPipeMgr : public NSCam::camsys::pipemgr::isp7::IPipeMgr {
 public:
  using ConfigResult = std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>>;
  using Config = std::shared_ptr<NSCam::camsys::pipemgr::isp7::ConfigParam>;
  MOCK_METHOD(Licence, acquireLicense, (), (override));
  MOCK_METHOD(Licence, acquireLicenseForFD, (int32_t), (override));
  MOCK_METHOD(void, releaseLicense, (Licence&, bool, bool), (override));
  MOCK_METHOD(ConfigResult, configure, (const Config&, Licence&), (override));
};

struct FakeLicense : IRequestLicense {
  FakeLicense(int32_t fd, int* destroyed) : fd(fd), destroyed(destroyed) {}
  ~FakeLicense() override { ++*destroyed; }
  int32_t getFD() const override { return fd; }
  int32_t fd;
  int* destroyed;
};

class LicenseQueueTest : public ::testing::Test {
 protected:
  void SetUp() override { hostPipeMgr()->reset(); }
  void TearDown() override { orvcam::host::setPipeMgrInstance(nullptr); }
  // A queue built while the library's log level is `logLevel`.
  std::unique_ptr<LicenseQueue> makeQueue(int32_t logLevel = 0) {
    const int32_t saved = CamDeliver::mLogLevel;
    CamDeliver::mLogLevel = logLevel;
    auto q = std::make_unique<LicenseQueue>();
    CamDeliver::mLogLevel = saved;
    return q;
  }
  std::shared_ptr<testing::StrictMock<MockPipeMgr>> useMock() {
    auto mock = std::make_shared<testing::StrictMock<MockPipeMgr>>();
    orvcam::host::setPipeMgrInstance(mock);
    return mock;
  }
  Licence fake(int32_t fd) { return std::make_unique<FakeLicense>(fd, &destroyed); }
  Licence host() { return hostPipeMgr()->acquireLicense(); }
  std::vector<std::string> lines(char level = 0) { return capture->messages(kTag, level); }

  orvcam::test::LoggerScope logger;
  // Reset before a death test: the child must write its lines to stderr.
  std::unique_ptr<orvcam::host::LogCapture> capture = std::make_unique<orvcam::host::LogCapture>();
  int destroyed = 0;
};

TEST_F(LicenseQueueTest, PushAndPopWithTheirDebugLines) {
  auto q = makeQueue(1);
  Licence l = host();
  IRequestLicense* raw = l.get();
  char address[32];
  snprintf(address, sizeof(address), "%p", static_cast<void*>(raw));
  q->pushLicense(0, 10, std::move(l));
  q->pushLicense(kCfg, 10, host());
  EXPECT_EQ(q->popLicenseLocked(0, 10).get(), raw);
  EXPECT_TRUE(q->isLicenseExist(kCfg, 10));
  EXPECT_NE(q->popLicenseLocked(kCfg, 10), nullptr);
  EXPECT_THAT(q->mQueue, IsEmpty());
  EXPECT_THAT(lines('D'),
              ElementsAre("[pushLicense] [S:0 F:10] fd(1)", "[pushLicense] [S:65280 F:10] fd(2)",
                          std::string("[popLicense] [S:0 F:10] license(") + address + ") fd(1)", _,
                          "[popLicense] [S:65280 F:10] erase."));
  // Misses warn and change nothing, not even an empty frame entry.
  q->pushLicense(0, 10, host());
  capture->clear();
  EXPECT_EQ(q->popLicenseLocked(1, 10), nullptr);
  EXPECT_EQ(q->popLicenseLocked(0, 11), nullptr);
  EXPECT_FALSE(q->isLicenseExist(0, 12));
  EXPECT_THAT(lines(), ElementsAre("[popLicense] Cam 1 NOT have F:10 in licenseQueue",
                                   "[popLicense] Cam 0 NOT have F:11 in licenseQueue"));
  EXPECT_EQ(q->mQueue.size(), 1u);
  q->clear();
}

TEST_F(LicenseQueueTest, ReleaseByKeyAlwaysWarnsAndHandsBackWhatItFinds) {
  auto q = makeQueue(0);  // push and pop lines off; the release line is not gated by it
  q->pushLicense(3, 10, host());
  q->releaseLicense(3, 10);
  EXPECT_THAT(lines(), ElementsAre("[releaseLicense] [S:3 F:10] license already null !",
                                   "[releaseLicense] [S:3 F:10] release license(1) from pipeMgr"));
  EXPECT_EQ(lines('W').size(), 1u);
  EXPECT_EQ(hostPipeMgr()->account().released, 1u);
  capture->clear();
  q->releaseLicense(3, 10);
  q->releaseLicense(Licence());
  EXPECT_THAT(lines(), ElementsAre("[popLicense] Cam 3 NOT have F:10 in licenseQueue",
                                   "[releaseLicense] [S:3 F:10] license already null !",
                                   "[releaseLicense] Cam 3 NOT have F:10 in licenseQueue",
                                   "[releaseLicense] license is null, skip"));
  EXPECT_EQ(lines('W').size(), 4u);
  EXPECT_EQ(hostPipeMgr()->account().released, 1u);
}

// A manager that leaves a released licence in the caller's pointer gets it once, and the
// queue destroys what it was left with.
TEST_F(LicenseQueueTest, ReleaseByKeyHandsTheLicenceBackOnce) {
  auto mock = useMock();
  auto q = makeQueue();
  q->pushLicense(3, 10, fake(7));
  const IRequestLicense* raw = q->mQueue.at(10).at(3).get();
  EXPECT_CALL(*mock, releaseLicense(testing::Truly([raw](Licence& l) { return l.get() == raw; }),
                                    false, true));
  q->releaseLicense(3, 10);
  testing::Mock::VerifyAndClearExpectations(mock.get());
  EXPECT_EQ(destroyed, 1);
  EXPECT_THAT(q->mQueue, IsEmpty());
}

// Licences are fake(100 + 10 * (frame - 10) + key); the mock leaves released ones to the queue.
TEST_F(LicenseQueueTest, ChangeFramesFDReleasesEachLicenceBeforeAcquiringItsReplacement) {
  auto mock = useMock();
  auto q = makeQueue();
  EXPECT_EQ(q->changeFramesFD({}), 0);
  q->clear();  // nothing queued: no call, no line
  EXPECT_THAT(capture->lines(), IsEmpty());
  for (uint32_t key : {0, 1}) q->pushLicense(key, 10, fake(100 + key));
  q->pushLicense(0, 11, fake(110));
  q->pushLicense(0, 12, fake(120));  // not named: untouched
  std::vector<int32_t> released;
  {
    testing::InSequence seq;
    for (int32_t i = 0; i < 3; ++i) {
      EXPECT_CALL(*mock, releaseLicense(_, false, true))
          .WillOnce([&released](Licence& l, bool, bool) { released.push_back(l->getFD()); });
      EXPECT_CALL(*mock, acquireLicense()).WillOnce([this, i] { return fake(200 + i); });
    }
  }
  EXPECT_EQ(q->changeFramesFD({11, 10}), 0);
  testing::Mock::VerifyAndClearExpectations(mock.get());
  ASSERT_EQ(released.size(), 3u);
  EXPECT_EQ(released[2], 110);
  EXPECT_EQ(destroyed, 3);
  std::vector<std::string> expected;
  for (int32_t i = 0; i < 3; ++i) {
    const int32_t old = released[i], frameNo = 10 + (old - 100) / 10, key = old % 10;
    expected.push_back("[changeFramesFD] [S:" + std::to_string(key) +
                       " F:" + std::to_string(frameNo) + "] change FD (" + std::to_string(old) +
                       ") -> (" + std::to_string(200 + i) + ")");
    EXPECT_EQ(q->mQueue.at(frameNo).at(key)->getFD(), 200 + i);
  }
  EXPECT_EQ(lines(), expected);
  EXPECT_EQ(q->mQueue.at(12).at(0)->getFD(), 120);
  // clear hands every licence back, frame by frame.
  EXPECT_CALL(*mock, releaseLicense(_, false, true)).Times(4);
  capture->clear();
  q->clear();
  EXPECT_THAT(q->mQueue, IsEmpty());
  EXPECT_EQ(destroyed, 7);
  ASSERT_EQ(lines('D').size(), 4u);
  EXPECT_EQ(lines('D')[3], "[clear] [S:0 F:12] release");
  EXPECT_EQ(capture->count("[clear] [S:1 F:10] release"), 1u);
}

using LicenseQueueDeathTest = LicenseQueueTest;

TEST_F(LicenseQueueDeathTest, FlowErrorsAbort) {
  capture.reset();
  auto q = makeQueue();
  q->pushLicense(0, 10, host());
  q->pushLicense(kCfg | 2, 10, host());
  q->pushLicense(0xFFFF, 11, host());
  const std::string file = "LicenseQueue.cpp";
  EXPECT_FATAL(q->pushLicense(0, 10, host()),
               "[S:0 F:10] license should not exist !!, please check the flow !!", "pushLicense",
               file);
  EXPECT_FATAL(q->pushLicense(3, 12, nullptr), "[S:3 F:12] pLicense is null", "pushLicense", file);
  const std::string cfg =
      " must not in change-FD flow, please check CamDeliver::prepareLicense() !";
  EXPECT_FATAL(q->changeFramesFD({10}), "[S:65282] configure frame(10)" + cfg, "changeFramesFD",
               file);
  EXPECT_FATAL(q->changeFramesFD({11}), "[S:65535] configure frame(11)" + cfg, "changeFramesFD",
               file);
  q->clear();
  q->pushLicense(0, 10, host());
  EXPECT_FATAL(q->changeFramesFD({10, 12}), "frameNo(12) not exist, check it has been poped or not",
               "changeFramesFD", file);
  q->mQueue[12];
  EXPECT_FATAL(q->changeFramesFD({12}), "frameNo(12) doesn't contain any FD, should not happen",
               "changeFramesFD", file);
  q->mQueue[12][4] = nullptr;
  EXPECT_FATAL(q->popLicenseLocked(4, 12), "[S:4 F:12] pLicense is null", "popLicense", file);
  q->mQueue.erase(12);
  q->clear();
}

TEST_F(LicenseQueueDeathTest, DestroyingANonEmptyQueueDumpsItThenAborts) {
  auto q = makeQueue();
  q->pushLicense(0, 10, host());
  q->pushLicense(kCfg, 10, host());
  q->pushLicense(1, 11, host());
  std::string keys;  // frame 10's keys in its table's own order
  for (const auto& entry : q->mQueue.at(10)) keys += std::to_string(entry.first) + " ";
  EXPECT_TRUE(keys == "0 65280 " || keys == "65280 0 ");
  capture.reset();
  EXPECT_EXIT(q.reset(), testing::KilledBySignal(SIGABRT),
              orvcam::test::escapeRegex(std::string(kTag) +
                                        ": [~LicenseQueue] (F:S) : (10:" + keys + ") (11:1 ) \n") +
                  "(.|\n)*" +
                  orvcam::test::fatalRegex("mQueue size should be 0!", "~LicenseQueue",
                                           "LicenseQueue.cpp"));
  q->clear();
}

}  // namespace
