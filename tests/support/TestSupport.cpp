#include "TestSupport.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace orvcam {
namespace test {

LoggerScope::LoggerScope(int detailsLevel, uint32_t mask, int mode)
    : mSaved(host::loggerSettings()) {
  host::applyLoggerSettings({detailsLevel, mask, mode});
}

LoggerScope::~LoggerScope() { host::applyLoggerSettings(mSaved); }

std::string escapeRegex(const std::string& text) {
  static const std::string kSpecial = "\\^$.|?*+()[]{}";
  std::string out;
  for (char c : text) {
    if (kSpecial.find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string fatalRegex(const std::string& message, const std::string& func,
                       const std::string& file) {
  return escapeRegex(message + " (" + func + "){#") + "[0-9]+:[^}]*" + escapeRegex(file + "}");
}

BlockingCall::BlockingCall(std::string name, std::function<void()> fn) : mName(std::move(name)) {
  mThread = std::thread([this, fn = std::move(fn)] {
    fn();
    std::lock_guard<std::mutex> lock(mMutex);
    mDone = true;
    mCond.notify_all();
  });
}

BlockingCall::~BlockingCall() {
  if (!returnedWithin(kReleaseBound)) {
    fprintf(stderr, "DEADLOCK: '%s' is still blocked %lld ms after the test let go of it\n",
            mName.c_str(), static_cast<long long>(kReleaseBound.count()));
    fflush(stderr);
    std::_Exit(3);
  }
  mThread.join();
}

bool BlockingCall::returnedWithin(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mMutex);
  return mCond.wait_for(lock, limit, [this] { return mDone; });
}

bool BlockingCall::returned() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mDone;
}

}  // namespace test
}  // namespace orvcam
