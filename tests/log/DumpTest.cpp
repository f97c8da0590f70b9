// CamDeliver::dump: what it says about a stalled stream agrees with what the guard then does,
// and it returns, saying what it could not read, while another thread holds the guard's lock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "../delivery/DeliveryTestUtil.h"

namespace orvcam {
namespace test {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::string dumpText(CamDeliver& d) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  d.dump(fds[1]);
  close(fds[1]);
  std::string text;
  char buf[4096];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) text.append(buf, size_t(n));
  close(fds[0]);
  return text;
}

TEST(DumpTest, WaitsForLinesAgreeWithTheGuardAndNothingIsLogged) {
  LoggerScope logger;
  auto pool = std::make_shared<FrameContextPool>();
  CamDeliver d(pool);
  FcPtr f1 = addFrame(*pool, 1, {{0}, {1}}, {0, 1});
  FcPtr f2 = addFrame(*pool, 2, {{0}, {1}}, {0, 1});
  d.prepare(0, 1, f1);
  d.prepare(1, 1, f1);
  d.prepare(0, 2, f2);
  d.prepare(1, 2, f2);
  EXPECT_EQ(d.sendJobForEnque(0, 1, std::make_shared<RecordingJob>()), 0);

  std::string text;
  {
    host::LogCapture capture;
    text = dumpText(d);
    EXPECT_TRUE(capture.lines().empty()) << "dump wrote a log line";
  }
  EXPECT_THAT(text, HasSubstr("prepared frames: 1 2"));
  EXPECT_THAT(text, HasSubstr("next order stamp: S:0=2 S:1=2"));
  EXPECT_THAT(text, HasSubstr("frame pool: 2 record(s)"));
  EXPECT_THAT(text, HasSubstr("F:1 sync {0,1} inMap {0,1}"));
  EXPECT_THAT(text, HasSubstr("key 1 (enqueue S:1) FD"));
  // Sensor 0's frame 2 must wait for sensor 1 in frame 1; sensor 1 may go with frame 1.
  size_t f2At = text.find("    F:2 ");
  ASSERT_NE(f2At, std::string::npos);
  std::string frame1 = text.substr(0, f2At), frame2 = text.substr(f2At);
  EXPECT_THAT(frame1, HasSubstr("waits for: nothing, may go"));
  EXPECT_THAT(frame2, HasSubstr("waits for: S:1 to enqueue F:1 (sync);"));
  // The dump changed no record: the guard still holds sensor 0 back until sensor 1 is done.
  std::atomic<bool> s0f2Ran{false};
  BlockingCall s0f2("S:0 F:2", [&] {
    d.sendJobForEnque(0, 2, std::make_shared<RecordingJob>(0, [&] { s0f2Ran = true; }));
  });
  bool ranBeforePartner = true;
  EXPECT_EQ(
      d.sendJobForEnque(
          1, 1, std::make_shared<RecordingJob>(0, [&] { ranBeforePartner = s0f2Ran.load(); })),
      0);
  EXPECT_FALSE(ranBeforePartner);
  ASSERT_TRUE(s0f2.returnedWithin(kReleaseBound));
  EXPECT_TRUE(s0f2Ran);
  EXPECT_EQ(d.sendJobForEnque(1, 2, std::make_shared<RecordingJob>()), 0);
  EXPECT_THAT(dumpText(d), HasSubstr("frame pool: 0 record(s)"));
}

TEST(DumpTest, ReturnsAndSaysWhatItCouldNotReadWhileTheGuardLockIsHeld) {
  LoggerScope logger;
  auto pool = std::make_shared<FrameContextPool>();
  CamDeliver d(pool);
  FcPtr f1 = addFrame(*pool, 1, {{0}});
  d.prepare(0, 1, f1);

  std::promise<void> locked, release;
  std::thread holder([&] {
    std::lock_guard<std::mutex> lock(d.mGuard.mutex);
    locked.set_value();
    release.get_future().wait();
  });
  locked.get_future().wait();
  auto dumped = std::async(std::launch::async, [&] { return dumpText(d); });
  bool returned = dumped.wait_for(kReleaseBound) == std::future_status::ready;
  release.set_value();
  holder.join();
  ASSERT_TRUE(returned) << "dump blocked on the guard's lock";
  std::string text = dumped.get();
  EXPECT_THAT(text, HasSubstr("next order stamp: not read (guard lock busy"));
  // The rest is still read.
  EXPECT_THAT(text, HasSubstr("prepared frames: 1"));
  EXPECT_THAT(text, HasSubstr("frame pool: 1 record(s)"));
  EXPECT_THAT(text, Not(HasSubstr("frame pool: not read")));
  EXPECT_EQ(d.sendJobForEnque(0, 1, std::make_shared<RecordingJob>()), 0);
}

}  // namespace
}  // namespace test
}  // namespace orvcam
