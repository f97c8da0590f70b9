#pragma once
// A lock holder for waits on a condition variable that clang's thread-safety analysis can
// follow. libc++ annotates std::mutex and std::lock_guard but not std::unique_lock, which
// std::condition_variable needs; a function that took its lock through std::unique_lock had to
// be left unchecked. Held through a MutexLocker, the mutex counts as held from the constructor
// to the destructor, across wait() (which gives it up while it sleeps and holds it again when
// it returns, so every statement around it runs with it held) and between unlock() and lock().
// A guarded field touched after unlock() fails the clang build.
//
// Waits are written as loops around wait(), with the condition a member function that
// requires the mutex: the analysis checks the condition like any other locked code, which a
// predicate lambda handed to std::condition_variable::wait would escape.
#include <condition_variable>
#include <mutex>

#include "ThreadAnnotations.h"

namespace orvcam {

class ORVCAM_SCOPED_CAPABILITY MutexLocker {
 public:
  // Thread: any thread. Blocks: on `m`, until it is free.
  explicit MutexLocker(std::mutex& m) ORVCAM_ACQUIRE(m) : mLock(m) {}
  // Thread: any thread, the one that built it. Blocks: no. Unlocks the mutex if it is held.
  ~MutexLocker() ORVCAM_RELEASE() {}
  MutexLocker(const MutexLocker&) = delete;
  MutexLocker& operator=(const MutexLocker&) = delete;

  // Thread: any thread, the one that built it. Blocks: on the mutex, until it is free.
  void lock() ORVCAM_ACQUIRE() { mLock.lock(); }
  // Thread: any thread, the one that built it. Blocks: no.
  void unlock() ORVCAM_RELEASE() { mLock.unlock(); }
  // Sleeps on `cond` with the mutex given up, and returns with it held again: after a notify
  // or spuriously, so the caller tests its condition again.
  // Thread: any thread, the one that built it, holding the mutex. Blocks: on `cond`, until
  // notified.
  void wait(std::condition_variable& cond) { cond.wait(mLock); }
  // Internal: for std::condition_variable's timed waits, which return with the lock held.
  // Thread: any thread, the one that built it.
  std::unique_lock<std::mutex>& native() { return mLock; }

 private:
  std::unique_lock<std::mutex> mLock;
};

}  // namespace orvcam
