#include <errno.h>
#include <pthread.h>

#include "explore/SchedulerModel.h"

// ---- the interposed pthread functions ---------------------------------------------------------

using orvcam::explore::OpKind;
namespace ex = orvcam::explore;

namespace {

// A managed thread's call from managed code; a managed thread's call from a host library is
// a touch of the host object (the call goes to glibc).
ex::Thread* managedCaller(void* caller) {
  ex::Thread* t = ex::tlsThread;
  if (!t) return nullptr;
  if (ex::fromUnmanagedLibrary(caller)) {
    ex::Internal internal;
    if (t->hostStep != t->steps && ex::gRun) {
      t->hostStep = t->steps;
      ex::touch(*ex::gRun, *t, ex::kHostObject, ex::Access::Host);
    }
    return nullptr;
  }
  return t;
}

// The managed calling thread after its step `op` on `object`; null when the call is not
// managed. Inlined, so that the interposed function stays the step's innermost frame.
__attribute__((always_inline)) inline ex::Thread* managedPoint(void* caller, OpKind op,
                                                               const void* object) {
  ex::Thread* t = managedCaller(caller);
  if (t) ex::point(*t, op, object, caller);
  return t;
}

// A try-lock of an rwlock: a scheduling point, then the answer (busy, or the lock taken).
__attribute__((always_inline)) inline int rwTryLock(ex::Thread& t, pthread_rwlock_t* l,
                                                    void* caller, bool write) {
  t.rwTry = true;
  ex::point(t, OpKind::TryLock, l, caller);
  t.rwTry = false;
  ex::Internal internal;
  ex::Rw& rw = ex::gRun->rws[l];
  bool busy = rw.writer >= 0 || (write && rw.readers > 0);
  ex::observe(t, busy);
  if (busy) return EBUSY;
  if (write) {
    rw.writer = t.id;
  } else {
    ++rw.readers;
  }
  return 0;
}

int condWait(ex::Thread& t, pthread_cond_t* c, pthread_mutex_t* m, void* caller, bool timed) {
  t.mutex = m;
  t.woke = false;
  ex::point(t, OpKind::Wait, c, caller);
  t.mutex = nullptr;
  int result = timed && t.woke ? ETIMEDOUT : 0;
  ex::observe(t, uint64_t(result));
  return result;
}

}  // namespace

extern "C" {

// Referenced by the explore package's link options (-u): a program that links its archive
// takes this file in, with the pthread functions below, though it names none of its own.
void orvcamExploreScheduler() {}

// A blocking lock of a managed thread is a scheduling point: the scheduler decides when the
// thread holds the lock. A try-lock of an rwlock is one too, answered from the scheduler's
// own account of the lock.
#define ORVCAM_INTERPOSE_LOCK(name, type, op)         \
  int name(type* lock) {                              \
    void* ra = __builtin_return_address(0);           \
    if (managedPoint(ra, OpKind::op, lock)) return 0; \
    REAL(name)(lock);                                 \
  }
#define ORVCAM_INTERPOSE_RW_TRYLOCK(name, write)                                  \
  int name(pthread_rwlock_t* lock) {                                              \
    void* ra = __builtin_return_address(0);                                       \
    if (ex::Thread* t = managedCaller(ra)) return rwTryLock(*t, lock, ra, write); \
    REAL(name)(lock);                                                             \
  }
ORVCAM_INTERPOSE_LOCK(pthread_mutex_lock, pthread_mutex_t, Lock)
ORVCAM_INTERPOSE_LOCK(pthread_rwlock_rdlock, pthread_rwlock_t, RdLock)
ORVCAM_INTERPOSE_LOCK(pthread_rwlock_wrlock, pthread_rwlock_t, WrLock)
ORVCAM_INTERPOSE_RW_TRYLOCK(pthread_rwlock_tryrdlock, false)
ORVCAM_INTERPOSE_RW_TRYLOCK(pthread_rwlock_trywrlock, true)
#undef ORVCAM_INTERPOSE_LOCK
#undef ORVCAM_INTERPOSE_RW_TRYLOCK

int pthread_mutex_trylock(pthread_mutex_t* m) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedPoint(ra, OpKind::TryLock, m)) return t->result;
  REAL(pthread_mutex_trylock)(m);
}

// An unlock is told apart by the mutex, not by the caller: libc++'s out-of-line
// std::mutex::unlock, and libc++abi's guard release, may end in a tail call, so the return
// address seen here can be their caller's. A mutex the scheduler holds for some thread is the
// scheduler's; any other was locked for real (from an unmanaged library) and is unlocked so.
int pthread_mutex_unlock(pthread_mutex_t* m) {
  if (ex::Thread* t = ex::tlsThread) {
    ex::Internal internal;
    auto it = ex::gRun->owners.find(m);
    if (it != ex::gRun->owners.end()) {
      if (it->second == t->id) {
        ex::gRun->owners.erase(it);
        ex::touch(*ex::gRun, *t, ex::objectId(m), ex::Access::Unlock);
      }
      return 0;
    }
  }
  REAL(pthread_mutex_unlock)(m);
}

int pthread_cond_wait(pthread_cond_t* c, pthread_mutex_t* m) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) return condWait(*t, c, m, ra, false);
  REAL(pthread_cond_wait)(c, m);
}

int pthread_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, const struct timespec* at) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) return condWait(*t, c, m, ra, true);
  REAL(pthread_cond_timedwait)(c, m, at);
}

int pthread_cond_clockwait(pthread_cond_t* c, pthread_mutex_t* m, clockid_t clock,
                           const struct timespec* at) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) return condWait(*t, c, m, ra, true);
  REAL(pthread_cond_clockwait)(c, m, clock, at);
}

int pthread_cond_signal(pthread_cond_t* c) {
  void* ra = __builtin_return_address(0);
  managedPoint(ra, OpKind::Signal, c);
  REAL(pthread_cond_signal)(c);
}

int pthread_cond_broadcast(pthread_cond_t* c) {
  void* ra = __builtin_return_address(0);
  managedPoint(ra, OpKind::Broadcast, c);
  REAL(pthread_cond_broadcast)(c);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*),
                   void* arg) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) return ex::spawn(*t, thread, attr, start, arg, ra);
  REAL(pthread_create)(thread, attr, start, arg);
}

int pthread_join(pthread_t thread, void** result) {
  if (ex::Thread* t = ex::tlsThread) {
    ex::Thread* target = ex::managedThread(thread);
    if (target) return ex::joinManaged(*t, *target, result, __builtin_return_address(0));
  }
  REAL(pthread_join)(thread, result);
}

// A managed thread is only marked: the run joins its OS thread when it completes.
int pthread_detach(pthread_t thread) {
  if (ex::tlsThread) {
    if (ex::Thread* target = ex::managedThread(thread)) {
      if (target->detached || target->joined) return EINVAL;
      target->detached = true;
      return 0;
    }
  }
  REAL(pthread_detach)(thread);
}

// Names a managed thread for the findings and the interleaving, and the OS thread as usual.
int pthread_setname_np(pthread_t thread, const char* name) {
  if (ex::Thread* t = ex::tlsThread) {
    ex::Internal internal;
    ex::Thread* target = pthread_equal(thread, pthread_self()) ? t : ex::managedThread(thread);
    if (target) target->name = name;
  }
  REAL(pthread_setname_np)(thread, name);
}

int pthread_rwlock_unlock(pthread_rwlock_t* l) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    ex::Internal internal;
    ex::Rw& rw = ex::gRun->rws[l];
    if (rw.writer == t->id) {
      rw.writer = -1;
    } else if (rw.readers > 0) {
      --rw.readers;
    }
    ex::touch(*ex::gRun, *t, ex::objectId(l), ex::Access::Unlock);
    return 0;
  }
  REAL(pthread_rwlock_unlock)(l);
}

}  // extern "C"
