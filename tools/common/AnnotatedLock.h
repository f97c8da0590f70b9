#pragma once
// A std::unique_lock that clang's thread-safety analysis can follow. libc++ annotates
// std::mutex and std::lock_guard but not std::unique_lock, which condition-variable waits need:
// a function that takes its lock through this holder has the lock counted as held from the
// constructor to the destructor and across unlock()/lock(), so that a guarded field read after
// unlock() fails the clang build.
//
// A helper that is handed the holder by reference states its need with ORVCAM_REQUIRES(mutex);
// the analysis cannot tie the reference to that mutex, so such a helper releases the lock
// around a call by unlocking and relocking the mutex itself. The holder stays consistent as
// long as the helper relocks before it returns.
#include <mutex>

#include "ThreadAnnotations.h"

namespace orvcam {
namespace sim {

class ORVCAM_SCOPED_CAPABILITY AnnotatedLock {
 public:
  explicit AnnotatedLock(std::mutex& m) ORVCAM_ACQUIRE(m) : mLock(m) {}
  ~AnnotatedLock() ORVCAM_RELEASE() {}
  AnnotatedLock(const AnnotatedLock&) = delete;
  AnnotatedLock& operator=(const AnnotatedLock&) = delete;

  void lock() ORVCAM_ACQUIRE() { mLock.lock(); }
  void unlock() ORVCAM_RELEASE() { mLock.unlock(); }
  // For std::condition_variable's waits, which return with the lock held again.
  std::unique_lock<std::mutex>& native() { return mLock; }

 private:
  std::unique_lock<std::mutex> mLock;
};

}  // namespace sim
}  // namespace orvcam
