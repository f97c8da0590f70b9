#pragma once
// Helpers shared by the test programs: logger set-up, exact-message death tests and bounded
// waits on threads that may block inside the library. Whether such a thread is blocked is
// learnt from a line it writes where it goes to sleep (LogCapture::waitFor), never by
// watching it for a while.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "HostPlatform.h"

namespace orvcam {
namespace test {

// Sets the unified logger for the scope and restores the previous settings afterwards.
// The default lets every line through (detail level 5, the library's mask) to the unified
// logger only, so each line is captured once.
class LoggerScope {
 public:
  explicit LoggerScope(int detailsLevel = 5, uint32_t mask = 0x401000, int mode = 2);
  ~LoggerScope();

 private:
  host::LoggerSettings mSaved;
};

// A regular expression that matches `text` literally.
std::string escapeRegex(const std::string& text);

// The regex for a fatal assertion's stderr line: the message, then " (func){#line:path}"
// where path ends in `file`.
std::string fatalRegex(const std::string& message, const std::string& func,
                       const std::string& file);

// Runs `fn` on its own thread. The test side never waits without a bound: returnedWithin()
// answers after at most the given time, and a call still blocked when the object dies (a
// deadlock) ends the test program with a message naming it instead of hanging.
class BlockingCall {
 public:
  BlockingCall(std::string name, std::function<void()> fn);
  ~BlockingCall();
  BlockingCall(const BlockingCall&) = delete;
  BlockingCall& operator=(const BlockingCall&) = delete;

  bool returnedWithin(std::chrono::milliseconds limit);
  bool returned() const;

 private:
  std::string mName;
  mutable std::mutex mMutex;
  std::condition_variable mCond;
  bool mDone = false;
  std::thread mThread;
};

// The bound a test waits for a release or a line it expects.
constexpr std::chrono::milliseconds kReleaseBound{5000};

}  // namespace test
}  // namespace orvcam

// A fatal assertion of the library: the process is aborted and stderr holds the message
// with its location suffix.
#define EXPECT_FATAL(statement, message, func, file)         \
  EXPECT_EXIT(statement, ::testing::KilledBySignal(SIGABRT), \
              ::orvcam::test::fatalRegex(message, func, file))
