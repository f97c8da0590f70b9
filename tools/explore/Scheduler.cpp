#include "explore/SchedulerModel.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <link.h>
#include <linux/futex.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>
#include <unordered_map>

namespace orvcam {
namespace explore {

const char* opKindName(OpKind kind) {
  switch (kind) {
    case OpKind::Start: return "start";
    case OpKind::Lock: return "lock";
    case OpKind::TryLock: return "try-lock";
    case OpKind::RdLock: return "shared lock";
    case OpKind::WrLock: return "exclusive lock";
    case OpKind::Wait: return "wait";
    case OpKind::Signal: return "notify one";
    case OpKind::Broadcast: return "notify all";
    case OpKind::ClientWait: return "client wait";
    case OpKind::End: return "end";
    case OpKind::Create: return "create thread";
    case OpKind::Join: return "join";
  }
  return "?";
}

// ---- the real functions and the unmanaged libraries' address ranges ------------------------

void* realSymbol(const char* name) {
  void* p = dlsym(RTLD_NEXT, name);
  if (!p) {
    static const char msg[] = "camdeliver-explore: a pthread function is missing\n";
    (void)!write(2, msg, sizeof msg - 1);
    std::abort();
  }
  return p;
}

namespace sched {

// Calls from these libraries are not scheduling points: the host platform (see Scheduler.h)
// and libc++abi, whose guard of a function-local static takes a pthread mutex only on a
// static's first use, which would make the first schedule's choices differ from the next
// ones'. Their loaded segments are kept in constant-initialised atomics, not a guarded
// static, for the same reason: a managed thread asks from inside the interposed
// pthread_mutex_lock. Two threads that both find them unknown compute the same ranges.
constexpr const char* kUnmanagedLibraries[] = {"liborvcam_platform_host", "libc++abi"};
constexpr size_t kUnmanagedCount = sizeof kUnmanagedLibraries / sizeof kUnmanagedLibraries[0];
std::atomic<uintptr_t> gUnmanagedLo[kUnmanagedCount] = {};
std::atomic<uintptr_t> gUnmanagedHi[kUnmanagedCount] = {};
std::atomic<bool> gUnmanagedKnown{false};

void findUnmanagedRanges() {
  struct Range {
    uintptr_t lo = UINTPTR_MAX;
    uintptr_t hi = 0;
  } ranges[kUnmanagedCount];
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        auto* out = static_cast<Range*>(data);
        for (size_t i = 0; i < kUnmanagedCount; ++i) {
          if (!info->dlpi_name || !std::strstr(info->dlpi_name, kUnmanagedLibraries[i])) continue;
          for (int j = 0; j < info->dlpi_phnum; ++j) {
            if (info->dlpi_phdr[j].p_type != PT_LOAD) continue;
            uintptr_t lo = info->dlpi_addr + info->dlpi_phdr[j].p_vaddr;
            uintptr_t hi = lo + info->dlpi_phdr[j].p_memsz;
            if (lo < out[i].lo) out[i].lo = lo;
            if (hi > out[i].hi) out[i].hi = hi;
          }
        }
        return 0;
      },
      ranges);
  for (size_t i = 0; i < kUnmanagedCount; ++i) {
    if (ranges[i].hi == 0) ranges[i].lo = 0;  // not loaded: an empty range
    gUnmanagedLo[i].store(ranges[i].lo, std::memory_order_relaxed);
    gUnmanagedHi[i].store(ranges[i].hi, std::memory_order_relaxed);
  }
  gUnmanagedKnown.store(true, std::memory_order_release);
}

bool fromUnmanagedLibrary(void* caller) {
  if (!gUnmanagedKnown.load(std::memory_order_acquire)) findUnmanagedRanges();
  auto a = reinterpret_cast<uintptr_t>(caller);
  for (size_t i = 0; i < kUnmanagedCount; ++i) {
    if (a >= gUnmanagedLo[i].load(std::memory_order_relaxed) &&
        a < gUnmanagedHi[i].load(std::memory_order_relaxed)) {
      return true;
    }
  }
  return false;
}

// ---- futex batons ----------------------------------------------------------------------------

void futexWait(std::atomic<uint32_t>* word, uint32_t expected) {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT_PRIVATE, expected, nullptr,
          nullptr, 0);
}
void futexWake(std::atomic<uint32_t>* word) {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr,
          nullptr, 0);
}

// Sleeps until the word becomes non-zero, then clears it.
void takeBaton(std::atomic<uint32_t>* word) {
  while (word->load(std::memory_order_acquire) == 0) futexWait(word, 0);
  word->store(0, std::memory_order_relaxed);
}
void giveBaton(std::atomic<uint32_t>* word) {
  word->store(1, std::memory_order_release);
  futexWake(word);
}

[[noreturn]] void parkForever() {
  std::atomic<uint32_t> never{0};
  for (;;) futexWait(&never, 0);
}

Run* gRun = nullptr;
thread_local Thread* tlsThread = nullptr;
std::unordered_map<const void*, std::string> gNames;
std::unordered_map<const void*, uint64_t> gIds;  // from the names
std::function<uint64_t()> gClientDigest;
bool gMemoryState = false;
bool gClientObject = true;

// splitmix64's finaliser: a cheap, well-mixed 64-bit hash.
uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// A managed thread as the object of its creation, its end and a join of it.
uint64_t threadObject(uint16_t id) { return ~uint64_t(0x7417) - (uint64_t(id) << 16); }
uint64_t objectId(const void* object) {
  auto it = gIds.find(object);
  return it != gIds.end() ? it->second : reinterpret_cast<uintptr_t>(object);
}

void touch(Run& run, const Thread& t, uint64_t id, Access kind) {
  // With the memory state no order of steps is state: what a critical section or a host call
  // did is in the memory it wrote (the host platform is instrumented too) and in the reads
  // of whoever comes next.
  if (run.memory) return;
  uint64_t& chain = run.chains[id];
  uint64_t before = chain ? mix(id ^ chain) : 0;
  chain = mix(chain ^ mix((uint64_t(t.id) << 40) ^ (uint64_t(kind) << 32) ^ t.steps));
  run.fingerprint += mix(id ^ chain) - before;
}

// A new step of `t` begins.
void beginStep(Run& run, Thread& t) {
  ++t.callSteps;
  if (!run.memory) run.fingerprint -= mix(0x5eed0000ull + (uint64_t(t.id) << 32) + t.steps);
  ++t.steps;
  if (!run.memory) run.fingerprint += mix(0x5eed0000ull + (uint64_t(t.id) << 32) + t.steps);
  if (t.inClient) {
    t.clientStep = t.steps;
    if (gClientDigest) {
      run.clientDirty = true;
    } else if (gClientObject) {
      touch(run, t, kClientObject, Access::Client);
    }
  }
}

void touchClient(Run& run, Thread& t) {
  if (t.clientStep == t.steps) return;
  t.clientStep = t.steps;
  if (gClientDigest) {
    run.clientDirty = true;
  } else if (gClientObject) {
    touch(run, t, kClientObject, Access::Client);
  }
}

// With the memory state: the thread learnt `value` (a try-lock's answer, a wait's result, an
// atomic's value); its future may depend on it.
void observe(Thread& t, uint64_t value) {
  if (gRun && gRun->memory) t.observed = mix(t.observed ^ mix(value ^ 0x0b5e77edull));
}

// The state at a choice point: the fingerprint, the spurious wake-ups left and, with a client
// digest, the client's state and where each thread stands (its pending operation).
uint64_t stateOf(Run& run) {
  uint64_t state = run.fingerprint + mix(0x59u + run.spuriousLeft);
  if (!gClientDigest) return state;
  if (run.clientDirty) {
    run.clientValue = mix(gClientDigest() ^ 0xc1e47ull);
    run.clientDirty = false;
  }
  state += run.clientValue;
  for (const auto& t : run.threads) {
    // An object without a name is known by its address, or with the memory state by its
    // block, wherever the allocator put it.
    uint64_t object = !t->object                             ? 0
                      : gIds.count(t->object) || !run.memory ? objectId(t->object)
                                                             : canonical(uintptr_t(t->object));
    uint64_t term = (uint64_t(t->id) << 48) ^ (uint64_t(t->op) << 40) ^ (uint64_t(t->state) << 36) ^
                    mix(object);
    if (t->op == OpKind::Join) term ^= mix(0x701ull + uint64_t(t->joinTarget));
    if (run.memory) {
      // Where the thread stands is no longer in the locks' chains: what it read and how many
      // steps it took in its current call, whether it is back from a wait, and its place
      // among a condition's waiters (a notify-one wakes the first).
      uint64_t place = 0;
      if (t->state == State::InCond) {
        const auto& waiters = run.conds[t->object];
        place = uint64_t(std::find(waiters.begin(), waiters.end(), t->id) - waiters.begin()) + 1;
      }
      term ^= mix(t->observed ^ mix((uint64_t(t->callSteps) << 32) ^ (uint64_t(t->reacquire) << 1) ^
                                    uint64_t(t->woke) ^ (place << 2)));
    }
    state += mix(term);
  }
  return state + run.live;
}

int ownerOf(Run& run, const void* m) {
  auto it = run.owners.find(m);
  return it == run.owners.end() ? -1 : it->second;
}

bool enabled(Run& run, const Thread& t) {
  if (t.state != State::Pending) return false;
  switch (t.op) {
    case OpKind::Lock: return ownerOf(run, t.object) < 0;
    case OpKind::RdLock: return run.rws[t.object].writer < 0;
    case OpKind::WrLock: {
      const Rw& rw = run.rws[t.object];
      return rw.writer < 0 && rw.readers == 0;
    }
    case OpKind::ClientWait: return (*t.ready)();
    case OpKind::Join: return run.threads[size_t(t.joinTarget)]->state == State::Ended;
    default: return true;
  }
}

std::string threadName(Run& run, int id) {
  return id < 0 ? std::string("nobody") : run.threads[size_t(id)]->name;
}

std::string waitsFor(Run& run, const Thread& t) {
  if (t.state == State::InCond) {
    return "a notification of " + Scheduler::objectName(t.object) + " (with " +
           Scheduler::objectName(t.mutex) + ")";
  }
  switch (t.op) {
    case OpKind::Lock:
      return "mutex " + Scheduler::objectName(t.object) + " held by " +
             threadName(run, ownerOf(run, t.object));
    case OpKind::RdLock:
    case OpKind::WrLock: {
      const Rw& rw = run.rws[t.object];
      std::string s = std::string(t.op == OpKind::RdLock ? "shared" : "exclusive") + " lock " +
                      Scheduler::objectName(t.object);
      if (rw.writer >= 0) s += " held exclusively by " + threadName(run, rw.writer);
      if (rw.readers > 0) s += " held shared by " + std::to_string(rw.readers) + " thread(s)";
      return s;
    }
    case OpKind::ClientWait: return std::string("the client: ") + t.what;
    case OpKind::Join: return "the end of " + threadName(run, t.joinTarget) + " (join)";
    default: return opKindName(t.op);
  }
}

void finish(Run& run, Outcome outcome) {
  run.result.outcome = outcome;
  if (outcome == Outcome::Deadlock) {
    for (auto& t : run.threads) {
      if (t->state == State::Ended) continue;
      run.result.blocked.push_back({t->name, waitsFor(run, *t), t->caller});
    }
  } else if (outcome == Outcome::StepLimit) {
    // Who was still going when the limit struck: a thread that could run names its next
    // operation, a blocked one what it waits for.
    for (auto& t : run.threads) {
      if (t->state == State::Ended) continue;
      std::string what;
      if (enabled(run, *t)) {
        what = std::string("runs; next: ") + opKindName(t->op);
        if (t->object) what += " " + Scheduler::objectName(t->object);
      } else {
        what = "waits for " + waitsFor(run, *t);
      }
      run.result.blocked.push_back({t->name, what, t->caller});
    }
  }
  for (auto& t : run.threads) run.result.threadNames.push_back(t->name);
  giveBaton(&run.done);
}

// Applies the chosen option. Returns true when the chosen thread now runs; false when the step
// left it blocked in a condition wait (a choice is made again).
bool apply(Run& run, const Choice& c) {
  Thread& t = *run.threads[c.thread];
  ++run.result.stepCount;
  beginStep(run, t);
  if (c.spurious || t.state == State::InCond || t.op == OpKind::Wait) {
    // A wait, or a wake-up from one: the condition and its mutex.
    touch(run, t, objectId(t.object), Access::Op);
    touch(run, t, objectId(t.mutex), Access::Op);
  } else if (t.op == OpKind::ClientWait) {
    touchClient(run, t);
  } else if (t.op == OpKind::Join) {
    touch(run, t, threadObject(uint16_t(t.joinTarget)), Access::Op);
  } else if (t.object) {
    touch(run, t, objectId(t.object), Access::Op);
  }
  if (run.options.recordSteps) {
    run.result.steps.push_back({t.id, t.state == State::InCond ? OpKind::Wait : t.op, c.spurious,
                                t.object, t.caller, t.op == OpKind::Join ? t.joinTarget : -1});
  }
  if (c.spurious) {
    auto& waiters = run.conds[t.object];
    for (auto it = waiters.begin(); it != waiters.end(); ++it) {
      if (*it == t.id) {
        waiters.erase(it);
        break;
      }
    }
    --run.spuriousLeft;
    run.owners[t.mutex] = t.id;
    t.state = State::Pending;
    t.op = OpKind::Lock;
    t.object = t.mutex;
    t.reacquire = false;
    t.woke = true;
    return true;
  }
  switch (t.op) {
    case OpKind::Lock: run.owners[t.object] = t.id; break;
    case OpKind::TryLock:
      if (t.rwTry) break;
      if (ownerOf(run, t.object) < 0) {
        run.owners[t.object] = t.id;
        t.result = 0;
      } else {
        t.result = EBUSY;
      }
      observe(t, uint64_t(t.result));
      break;
    case OpKind::RdLock: ++run.rws[t.object].readers; break;
    case OpKind::WrLock: run.rws[t.object].writer = t.id; break;
    case OpKind::Wait:
      run.owners.erase(t.mutex);
      run.conds[t.object].push_back(t.id);
      t.state = State::InCond;
      return false;
    case OpKind::Signal:
    case OpKind::Broadcast: {
      auto it = run.conds.find(t.object);
      if (it == run.conds.end()) break;
      auto& waiters = it->second;
      size_t n = t.op == OpKind::Signal ? std::min<size_t>(1, waiters.size()) : waiters.size();
      for (size_t i = 0; i < n; ++i) {
        Thread& w = *run.threads[waiters[i]];
        w.state = State::Pending;
        w.op = OpKind::Lock;
        w.object = w.mutex;
        w.reacquire = true;
      }
      waiters.erase(waiters.begin(), waiters.begin() + long(n));
      break;
    }
    default: break;
  }
  return true;
}

// Picks the next thread and applies its step. Returns the thread to run, or -1 when the run is
// over (result set, controller told).
int pick(Run& run) {
  for (;;) {
    if (run.result.stepCount >= run.options.stepLimit) {
      finish(run, Outcome::StepLimit);
      return -1;
    }
    auto& opts = run.options_;
    opts.clear();
    bool anyLive = false;
    bool currentEnabled = false;
    for (auto& t : run.threads) {
      if (t->state != State::Ended) anyLive = true;
      if (enabled(run, *t)) {
        opts.push_back({t->id, false});
        if (t->id == run.current) currentEnabled = true;
      }
    }
    if (run.spuriousLeft > 0) {
      for (auto& t : run.threads) {
        if (t->state == State::InCond && ownerOf(run, t->mutex) < 0) opts.push_back({t->id, true});
      }
    }
    if (opts.empty()) {
      finish(run, anyLive ? Outcome::Deadlock : Outcome::Completed);
      return -1;
    }
    size_t index = 0;
    if (opts.size() > 1) {
      ++run.result.choicePoints;
      index =
          (*run.chooser)({&opts, run.current, currentEnabled, run.result.stepCount, stateOf(run)});
      if (index >= opts.size()) index = 0;
    }
    Choice c = opts[index];
    run.current = c.thread;
    if (apply(run, c)) return c.thread;
  }
}

// The calling managed thread reached a scheduling point with its pending operation set.
void yieldPoint(Thread& self) {
  Run& run = *gRun;
  run.current = self.id;
  int next = pick(run);
  if (next == self.id) return;
  if (next >= 0) giveBaton(&run.threads[size_t(next)]->baton);
  takeBaton(&self.baton);
}

void point(Thread& self, OpKind op, const void* object, void* caller) {
  settleWrites(self);
  Internal internal;
  self.op = op;
  self.object = object;
  self.caller = gRun->options.recordSteps ? recordStack(caller) : caller;
  yieldPoint(self);
}

// LeakSanitizer's switch for the calling thread, where the program runs under it.
extern "C" void __lsan_disable() __attribute__((weak));

void threadMain(Thread* t) {
  // A schedule that does not complete leaves its threads parked for ever, holding what they
  // made: by design, not a leak to report. Leaks are looked for in the runs outside the
  // explorer.
  if (&__lsan_disable != nullptr) __lsan_disable();
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    void* lo = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attr, &lo, &size) == 0) {
      t->stackLo = reinterpret_cast<uintptr_t>(lo);
      t->stackHi = t->stackLo + size;
    }
    pthread_attr_destroy(&attr);
  }
  tlsThread = t;
  takeBaton(&t->baton);
  if (t->start) {
    t->retval = t->start(t->arg);
  } else {
    t->body();
  }
  Run& run = *gRun;
  settleWrites(*t);
  Internal internal;
  t->state = State::Ended;
  t->op = OpKind::End;
  if (t->spawned) {
    // A join of this thread follows its end.
    touch(run, *t, threadObject(t->id), Access::Op);
  }
  if (run.options.recordSteps)
    run.result.steps.push_back({t->id, OpKind::End, false, nullptr, nullptr});
  tlsThread = nullptr;
  run.current = t->id;
  int next = pick(run);
  if (next >= 0) giveBaton(&run.threads[size_t(next)]->baton);
}

void* spawnedMain(void* thread) {
  threadMain(static_cast<Thread*>(thread));
  return nullptr;
}

Thread* managedThread(pthread_t os) {
  if (!gRun) return nullptr;
  for (auto& t : gRun->threads) {
    if (t->spawned && pthread_equal(t->os, os)) return t.get();
  }
  return nullptr;
}

using CreateFn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
using JoinFn = int (*)(pthread_t, void**);
CreateFn realCreate() {
  static std::atomic<void*> real{nullptr};
  if (!real.load(std::memory_order_acquire)) real.store(realSymbol("pthread_create"));
  return reinterpret_cast<CreateFn>(real.load(std::memory_order_acquire));
}
JoinFn realJoin() {
  static std::atomic<void*> real{nullptr};
  if (!real.load(std::memory_order_acquire)) real.store(realSymbol("pthread_join"));
  return reinterpret_cast<JoinFn>(real.load(std::memory_order_acquire));
}

// pthread_create on a managed thread: a scheduling point, then a managed thread of the run,
// runnable from now on. Its OS thread is made joinable whatever `attr` says (the run joins it
// at its end); a detached attribute only marks it.
int spawn(Thread& parent, pthread_t* out, const pthread_attr_t* attr, void* (*start)(void*),
          void* arg, void* caller) {
  point(parent, OpKind::Create, nullptr, caller);
  Internal internal;
  Run& run = *gRun;
  auto made = std::make_unique<Thread>();
  Thread* child = made.get();
  child->id = uint16_t(run.threads.size());
  child->name = "thread " + std::to_string(child->id);
  child->start = start;
  child->arg = arg;
  child->spawned = true;
  int detach = PTHREAD_CREATE_JOINABLE;
  if (attr) pthread_attr_getdetachstate(attr, &detach);
  child->detached = detach == PTHREAD_CREATE_DETACHED;
  auto* a = const_cast<pthread_attr_t*>(attr);
  if (child->detached) pthread_attr_setdetachstate(a, PTHREAD_CREATE_JOINABLE);
  int rc = realCreate()(&child->os, attr, spawnedMain, child);
  if (child->detached) pthread_attr_setdetachstate(a, PTHREAD_CREATE_DETACHED);
  if (rc != 0) return rc;
  run.threads.push_back(std::move(made));
  touch(run, parent, threadObject(child->id), Access::Op);
  if (run.options.recordSteps && !run.result.steps.empty())
    run.result.steps.back().other = child->id;
  *out = child->os;
  return 0;
}

// pthread_join of a managed thread on a managed thread: blocks (a scheduling point) until the
// thread has ended, then reaps its OS thread, which has nothing left to do.
int joinManaged(Thread& self, Thread& target, void** result, void* caller) {
  if (target.joined || target.detached) return EINVAL;
  if (&target == &self) return EDEADLK;
  self.joinTarget = target.id;
  point(self, OpKind::Join, nullptr, caller);
  self.joinTarget = -1;
  Internal internal;
  target.joined = true;
  realJoin()(target.os, nullptr);
  if (result) *result = target.retval;
  observe(self, uint64_t(target.id));
  return 0;
}

}  // namespace sched

RunResult Scheduler::run(const std::vector<std::function<void()>>& bodies,
                         const std::vector<std::string>& names, const Chooser& chooser,
                         const RunOptions& options) {
  Internal internal;
  auto* run = new Run;
  run->chooser = &chooser;
  run->options = options;
  run->spuriousLeft = options.spuriousBudget;
  run->memory = gMemoryState && gClientDigest && gInstrumented.load(std::memory_order_relaxed);
  if (run->memory) resetCells();
  for (size_t i = 0; i < bodies.size(); ++i) {
    auto t = std::make_unique<Thread>();
    t->id = uint16_t(i);
    t->name = i < names.size() ? names[i] : "thread " + std::to_string(i);
    t->body = bodies[i];
    run->threads.push_back(std::move(t));
  }
  gRun = run;
  std::vector<std::thread> threads;
  for (auto& t : run->threads) threads.emplace_back(threadMain, t.get());
  int first = pick(*run);
  if (first >= 0) giveBaton(&run->threads[size_t(first)]->baton);
  takeBaton(&run->done);
  RunResult result = std::move(run->result);
  if (result.outcome == Outcome::Completed) {
    for (auto& t : threads) t.join();
    for (auto& t : run->threads) {
      if (t->spawned && !t->joined) realJoin()(t->os, nullptr);
    }
    gRun = nullptr;
    delete run;
  } else {
    // The threads stay parked where they are, holding on to the run.
    for (auto& t : threads) t.detach();
    gRun = nullptr;
  }
  return result;
}

void Scheduler::waitUntil(const std::function<bool()>& ready, const char* what) {
  Thread* t = tlsThread;
  if (!t) return;
  t->ready = &ready;
  t->what = what;
  point(*t, OpKind::ClientWait, nullptr, __builtin_return_address(0));
  t->ready = nullptr;
}

bool Scheduler::managed() { return tlsThread != nullptr; }

std::string Scheduler::currentThreadName() {
  Thread* t = tlsThread;
  return t ? t->name : std::string();
}

void Scheduler::setClientObject(bool on) { gClientObject = on; }

void Scheduler::clientEnter() {
  if (Thread* t = tlsThread) {
    settleWrites(*t);
    Internal internal;
    t->inClient = true;
    touchClient(*gRun, *t);
  }
}

void Scheduler::clientReturn() {
  clientEnter();
  if (Thread* t = tlsThread) {
    Internal internal;
    // What the call read and where it went is over: its result is in the client's state.
    t->observed = 0;
    t->callSteps = 0;
    t->callBlocks.clear();
    t->destroying.clear();
  }
}

void Scheduler::clientLeave() {
  if (Thread* t = tlsThread) {
    settleWrites(*t);
    Internal internal;
    touchClient(*gRun, *t);
    t->inClient = false;
  }
}

void Scheduler::setClientDigest(std::function<uint64_t()> digest) {
  gClientDigest = std::move(digest);
}

void Scheduler::setMemoryState(bool on) { gMemoryState = on; }

void Scheduler::clientCall(uint64_t call) {
  Thread* t = tlsThread;
  if (!t || !gClientDigest) return;
  Internal internal;
  settleWrites(*t);
  // A call begins with nothing of the library's in the thread's hands: what its client code
  // learnt from host calls since the last one is in the client's state.
  t->observed = 0;
  t->callSteps = 0;
  t->callBlocks.clear();
  t->destroying.clear();
  Run& run = *gRun;
  run.fingerprint -= mix(0xca11ull ^ (uint64_t(t->id) << 56) ^ t->calls);
  t->calls = mix(t->calls ^ call);
  run.fingerprint += mix(0xca11ull ^ (uint64_t(t->id) << 56) ^ t->calls);
}

void Scheduler::nameObject(const void* object, std::string name) {
  gIds[object] = std::hash<std::string>()(name) | (uint64_t(1) << 63);
  gNames[object] = std::move(name);
}

void Scheduler::forgetNames() {
  gNames.clear();
  gIds.clear();
}

std::string Scheduler::objectName(const void* object) {
  auto it = gNames.find(object);
  if (it != gNames.end()) return it->second;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%p", object);
  return buf;
}

void Scheduler::fatal(const std::string& message) {
  Thread* t = tlsThread;
  if (!t || !gRun) {
    std::fprintf(stderr, "%s\n", message.c_str());
    std::abort();
  }
  Run& run = *gRun;
  t->state = State::Parked;
  run.result.fatalMessage = message;
  run.result.fatalThread = t->name;
  finish(run, Outcome::Fatal);
  parkForever();
}

}  // namespace explore
}  // namespace orvcam
