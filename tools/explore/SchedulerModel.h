#pragma once
// The scheduler's model, shared by its parts: the managed threads and the run (Scheduler.cpp,
// the run loop), the library's memory (Memory.cpp, with the instrumented code's hooks), the
// callers of a step (Callers.cpp) and the interposed pthread functions (Interpose.cpp). Only
// those files include it; everything here is the scheduler's own.
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "explore/Scheduler.h"

// The pointer is a constant-initialised atomic, not a guarded static: libc++abi's guard for a
// function-local static takes a pthread mutex, which would call back into the interposed
// pthread_mutex_lock before its real function is known. It is kept as void* because GCC drops
// the functions' attributes from a pointer type used as a class template's argument.
#define REAL(name)                                                               \
  static std::atomic<void*> real{nullptr};                                       \
  if (!real.load(std::memory_order_acquire)) {                                   \
    real.store(::orvcam::explore::realSymbol(#name), std::memory_order_release); \
  }                                                                              \
  return reinterpret_cast<decltype(&::name)>(real.load(std::memory_order_acquire))

namespace orvcam {
namespace explore {

// dlsym(RTLD_NEXT) of a pthread function; aborts when it is missing.
void* realSymbol(const char* name);

namespace sched {

// Ids of the two objects that have no address of their own (top bits set: no object lives
// there), and of an object by its name, or its address when it has none.
constexpr uint64_t kClientObject = ~uint64_t(0);
constexpr uint64_t kHostObject = ~uint64_t(1);

// How a step touched an object: its operation, an unlock, client code, a host library.
enum class Access : uint8_t { Op, Unlock, Client, Host };

// ---- the model -------------------------------------------------------------------------------

enum class State { Pending, InCond, Ended, Parked };

struct Thread {
  uint16_t id = 0;
  std::string name;
  std::atomic<uint32_t> baton{0};
  State state = State::Pending;
  OpKind op = OpKind::Start;
  const void* object = nullptr;
  const void* mutex = nullptr;  // a wait's mutex
  bool reacquire = false;       // pending Lock after a wait
  bool woke = false;            // the wait ended spuriously
  bool rwTry = false;           // a try-lock of an rwlock (decided by the caller)
  int result = 0;               // a try-lock's answer
  const std::function<bool()>* ready = nullptr;
  const char* what = "";
  void* caller = nullptr;
  std::function<void()> body;
  // A thread a managed thread started: its start routine and argument, its OS thread, its
  // result, whether a join or detach has claimed it; and the thread a pending join waits for.
  void* (*start)(void*) = nullptr;
  void* arg = nullptr;
  void* retval = nullptr;
  pthread_t os{};
  bool spawned = false;
  bool joined = false;
  bool detached = false;
  int joinTarget = -1;
  // For the fingerprint: steps taken, whether the thread is in client code, and the last
  // step that touched the client's state.
  uint32_t steps = 0;
  bool inClient = true;
  uint32_t clientStep = UINT32_MAX;
  uint32_t hostStep = UINT32_MAX;
  uint64_t calls = 0;  // with a client digest: the thread's own calls into the library
  // With the memory state ("The library's memory" in Scheduler.h), all since the thread's
  // current call into the library began: what it read (a chain of the values it saw), its
  // steps, the blocks it allocated (counted by size), and the writes whose values are not
  // taken yet. Its stack is its own, and not tracked.
  uint64_t observed = 0;
  uint32_t callSteps = 0;
  std::vector<std::pair<size_t, uint32_t>> callBlocks;  // blocks allocated, by size
  std::vector<std::pair<uintptr_t, size_t>> pendingWrites;
  uintptr_t stackLo = 0;
  uintptr_t stackHi = 0;
  // Reference counts this thread took to zero whose blocks it has not freed yet: it is
  // destroying their objects (see atomicAdd), and what it had read and done before.
  struct Destroying {
    uintptr_t counter;
    uint64_t observed;
    uint32_t callSteps;
  };
  std::vector<Destroying> destroying;
};

struct Rw {
  int writer = -1;
  int readers = 0;
};

struct Run {
  std::vector<std::unique_ptr<Thread>> threads;
  std::unordered_map<const void*, int> owners;  // mutex -> owner thread
  std::unordered_map<const void*, Rw> rws;
  std::unordered_map<const void*, std::vector<uint16_t>> conds;  // waiters in wait order
  const Chooser* chooser = nullptr;
  RunOptions options;
  RunResult result;
  int current = -1;
  uint32_t spuriousLeft = 0;
  std::vector<Choice> options_;
  std::atomic<uint32_t> done{0};
  // The fingerprint: each object's access chain and the sum described in Scheduler.h.
  std::unordered_map<uint64_t, uint64_t> chains;
  uint64_t fingerprint = 0;
  // With a client digest (Scheduler::setClientDigest), its value, and whether client code has
  // run since it was taken.
  uint64_t clientValue = 0;
  bool clientDirty = true;
  // Whether the state is the library's memory instead of its locks' access chains, and with
  // it the sum over the granules the instrumented code wrote (Cells below).
  bool memory = false;
  uint64_t live = 0;
};

extern Run* gRun;
extern thread_local Thread* tlsThread;
extern std::unordered_map<const void*, std::string> gNames;
extern std::unordered_map<const void*, uint64_t> gIds;  // from the names
extern std::function<uint64_t()> gClientDigest;
extern bool gMemoryState;
extern bool gClientObject;

struct Block {
  uintptr_t end;
  uint64_t id;
};

// Set while the scheduler allocates for its own records: those blocks are not the program's.
extern thread_local int tlsInternal;
struct Internal {
  Internal() { ++tlsInternal; }
  ~Internal() { --tlsInternal; }
};

bool fromUnmanagedLibrary(void* caller);
uint64_t mix(uint64_t x);
uint64_t objectId(const void* object);
void touch(Run& run, const Thread& t, uint64_t id, Access kind);
void observe(Thread& t, uint64_t value);
void point(Thread& self, OpKind op, const void* object, void* caller);
Thread* managedThread(pthread_t os);
int spawn(Thread& parent, pthread_t* out, const pthread_attr_t* attr, void* (*start)(void*),
          void* arg, void* caller);
int joinManaged(Thread& self, Thread& target, void** result, void* caller);
uint64_t canonical(uint64_t v);
void resetCells();
// Set by the instrumented library's module constructor (Memory.cpp).
extern std::atomic<bool> gInstrumented;
void settleWrites(Thread& t);
void* recordStack(void* fallback);

// The managed thread whose memory accesses count now, with the memory state on. Only the
// library's and the host platform's code is instrumented, whoever calls it; the scheduler's
// own records (the standard library's out-of-line code it calls) are not the program's.
inline Thread* tracker() {
  Thread* t = tlsThread;
  return t && gRun && gRun->memory && !tlsInternal ? t : nullptr;
}

}  // namespace sched
using namespace sched;
}  // namespace explore
}  // namespace orvcam
