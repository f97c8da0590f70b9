#pragma once
// The tools' name for the library's annotated lock holder (MutexLocker.h): a std::unique_lock
// that clang's thread-safety analysis can follow.
//
// A helper that is handed the holder by reference states its need with ORVCAM_REQUIRES(mutex);
// the analysis cannot tie the reference to that mutex, so such a helper releases the lock
// around a call by unlocking and relocking the mutex itself. The holder stays consistent as
// long as the helper relocks before it returns.
#include "MutexLocker.h"

namespace orvcam {
namespace base {

using AnnotatedLock = orvcam::MutexLocker;

}  // namespace base
}  // namespace orvcam
