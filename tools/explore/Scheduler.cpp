#include "Scheduler.h"

#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <link.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
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

namespace {

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
  // For the fingerprint: steps taken, whether the thread is in client code, and the last
  // step that touched the client's state.
  uint32_t steps = 0;
  bool inClient = true;
  uint32_t clientStep = UINT32_MAX;
  uint32_t hostStep = UINT32_MAX;
  uint64_t calls = 0;  // with a client digest: the thread's own calls into the library
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
};

Run* gRun = nullptr;
thread_local Thread* tlsThread = nullptr;
std::unordered_map<const void*, std::string> gNames;
std::unordered_map<const void*, uint64_t> gIds;  // from the names
std::function<uint64_t()> gClientDigest;

// splitmix64's finaliser: a cheap, well-mixed 64-bit hash.
uint64_t mix(uint64_t x) {
  x += 0x9e3779b97f4a7c15ull;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
  return x ^ (x >> 31);
}

// Ids of the two objects that have no address of their own (top bits set: no object lives
// there), and of an object by its name, or its address when it has none.
constexpr uint64_t kClientObject = ~uint64_t(0);
constexpr uint64_t kHostObject = ~uint64_t(1);
uint64_t objectId(const void* object) {
  auto it = gIds.find(object);
  return it != gIds.end() ? it->second : reinterpret_cast<uintptr_t>(object);
}

enum class Access : uint8_t { Op, Unlock, Client, Host };

void touch(Run& run, const Thread& t, uint64_t id, Access kind) {
  uint64_t& chain = run.chains[id];
  uint64_t before = chain ? mix(id ^ chain) : 0;
  chain = mix(chain ^ mix((uint64_t(t.id) << 40) ^ (uint64_t(kind) << 32) ^ t.steps));
  run.fingerprint += mix(id ^ chain) - before;
}

// A new step of `t` begins.
void beginStep(Run& run, Thread& t) {
  run.fingerprint -= mix(0x5eed0000ull + (uint64_t(t.id) << 32) + t.steps);
  ++t.steps;
  run.fingerprint += mix(0x5eed0000ull + (uint64_t(t.id) << 32) + t.steps);
  if (t.inClient) {
    t.clientStep = t.steps;
    if (gClientDigest) {
      run.clientDirty = true;
    } else {
      touch(run, t, kClientObject, Access::Client);
    }
  }
}

void touchClient(Run& run, Thread& t) {
  if (t.clientStep == t.steps) return;
  t.clientStep = t.steps;
  if (gClientDigest) {
    run.clientDirty = true;
  } else {
    touch(run, t, kClientObject, Access::Client);
  }
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
    uint64_t object = t->object ? objectId(t->object) : 0;
    state += mix((uint64_t(t->id) << 48) ^ (uint64_t(t->op) << 40) ^ (uint64_t(t->state) << 36) ^
                 mix(object));
  }
  return state;
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
  }
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
  } else if (t.object) {
    touch(run, t, objectId(t.object), Access::Op);
  }
  if (run.options.recordSteps) {
    run.result.steps.push_back(
        {t.id, t.state == State::InCond ? OpKind::Wait : t.op, c.spurious, t.object, t.caller});
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

const void* selfBase() {
  static const void* base = [] {
    Dl_info info;
    return dladdr(reinterpret_cast<void*>(&selfBase), &info) ? info.dli_fbase : nullptr;
  }();
  return base;
}

// For the readable interleaving: the first frame of the calling stack that is neither the
// scheduler nor libstdc++/libc, i.e. the library's or the client's own code. Only when steps
// are recorded (a failing schedule's replay): it costs a stack walk.
void* interestingCaller(void* fallback) {
  void* frames[12];
  int n = backtrace(frames, 12);
  for (int i = 1; i < n; ++i) {
    Dl_info info;
    if (!dladdr(frames[i], &info)) continue;
    if (info.dli_fname &&
        (std::strstr(info.dli_fname, "libstdc++") || std::strstr(info.dli_fname, "libc.so"))) {
      continue;
    }
    // Unnamed frames of this program are the scheduler's own (its anonymous namespace).
    if (!info.dli_sname && info.dli_fbase == selfBase()) continue;
    if (info.dli_sname && (std::strncmp(info.dli_sname, "pthread_", 8) == 0 ||
                           std::strstr(info.dli_sname, "_ZN6orvcam7explore12_GLOBAL__N_1") ||
                           std::strstr(info.dli_sname, "_ZN6orvcam7explore9Scheduler"))) {
      continue;
    }
    return static_cast<char*>(frames[i]) - 1;
  }
  return fallback;
}

// When steps are recorded, a step's caller is a token for its call stack (outermost frames
// from the first interesting one), since one call site (a lock wrapper in a debug build) serves
// many callers. Tokens have the top bit set: no code lives there.
std::unordered_map<void*, std::vector<void*>> gStacks;

void* recordStack(void* fallback) {
  void* frames[16];
  int n = backtrace(frames, 16);
  void* first = interestingCaller(fallback);
  std::vector<void*> outer;
  bool seen = false;
  for (int i = 1; i < n; ++i) {
    void* a = static_cast<char*>(frames[i]) - 1;
    if (a == first) seen = true;
    if (seen) outer.push_back(a);
  }
  if (outer.empty()) outer.push_back(first);
  void* token = reinterpret_cast<void*>((uintptr_t(1) << 63) | (gStacks.size() + 1));
  gStacks[token] = std::move(outer);
  return token;
}

void point(Thread& self, OpKind op, const void* object, void* caller) {
  self.op = op;
  self.object = object;
  self.caller = gRun->options.recordSteps ? recordStack(caller) : caller;
  yieldPoint(self);
}

void threadMain(Thread* t) {
  tlsThread = t;
  takeBaton(&t->baton);
  t->body();
  Run& run = *gRun;
  t->state = State::Ended;
  t->op = OpKind::End;
  if (run.options.recordSteps)
    run.result.steps.push_back({t->id, OpKind::End, false, nullptr, nullptr});
  tlsThread = nullptr;
  run.current = t->id;
  int next = pick(run);
  if (next >= 0) giveBaton(&run.threads[size_t(next)]->baton);
}

}  // namespace

RunResult Scheduler::run(const std::vector<std::function<void()>>& bodies,
                         const std::vector<std::string>& names, const Chooser& chooser,
                         const RunOptions& options) {
  auto* run = new Run;
  run->chooser = &chooser;
  run->options = options;
  run->spuriousLeft = options.spuriousBudget;
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

void Scheduler::clientEnter() {
  if (Thread* t = tlsThread) {
    t->inClient = true;
    touchClient(*gRun, *t);
  }
}

void Scheduler::clientLeave() {
  if (Thread* t = tlsThread) {
    touchClient(*gRun, *t);
    t->inClient = false;
  }
}

void Scheduler::setClientDigest(std::function<uint64_t()> digest) {
  gClientDigest = std::move(digest);
}

void Scheduler::clientCall(uint64_t call) {
  Thread* t = tlsThread;
  if (!t || !gClientDigest) return;
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

std::string describeCaller(void* caller) {
  auto it = gStacks.find(caller);
  if (it == gStacks.end()) return describeAddress(caller);
  for (void* a : it->second) {
    std::string d = describeAddress(a);
    if (d.rfind("std::", 0) == 0 || d.rfind("void std::", 0) == 0 || d.rfind("__gthread", 0) == 0 ||
        d.rfind("orvcam::explore::Scheduler", 0) == 0 ||
        d.rfind("orvcam::explore::ClientRun::Impl::waitUntil", 0) == 0) {
      continue;
    }
    return d;
  }
  return describeAddress(caller);
}

// Source locations come from addr2line, run once per address: only a failing schedule's
// output asks for them.
std::string describeAddress(void* address) {
  if (!address) return "";
  static std::unordered_map<void*, std::string> cache;
  auto hit = cache.find(address);
  if (hit != cache.end()) return hit->second;
  Dl_info info;
  std::string out = "?";
  if (dladdr(address, &info) && info.dli_fname) {
    const char* slash = std::strrchr(info.dli_fname, '/');
    std::string object = slash ? slash + 1 : info.dli_fname;
    uintptr_t offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(info.dli_fbase);
    char cmd[4200];
    // With -i, addr2line lists the inlined frames innermost first: the last pair is the
    // function the code was inlined into (the library's, not the lock's wrapper).
    std::snprintf(cmd, sizeof cmd, "addr2line -f -C -i -e '%s' 0x%lx 2>/dev/null", info.dli_fname,
                  static_cast<unsigned long>(offset));
    std::string function, location;
    if (FILE* p = popen(cmd, "r")) {
      char line[4096];
      while (std::fgets(line, sizeof line, p)) {
        function = line;
        if (!std::fgets(line, sizeof line, p)) break;
        location = line;
      }
      pclose(p);
    }
    auto trim = [](std::string& s) {
      while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    };
    trim(function);
    trim(location);
    size_t paren = function.find('(');
    if (paren != std::string::npos) function.erase(paren);
    size_t disc = location.find(" (");
    if (disc != std::string::npos) location.erase(disc);
    size_t lastSlash = location.rfind('/');
    if (lastSlash != std::string::npos) location.erase(0, lastSlash + 1);
    if (!function.empty() && function != "??") {
      out = function + " " + (location.empty() || location[0] == '?' ? object : location);
    } else {
      out = object;
    }
  }
  cache[address] = out;
  return out;
}

}  // namespace explore
}  // namespace orvcam

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
    if (t->hostStep != t->steps && ex::gRun) {
      t->hostStep = t->steps;
      ex::touch(*ex::gRun, *t, ex::kHostObject, ex::Access::Host);
    }
    return nullptr;
  }
  return t;
}

int condWait(ex::Thread& t, pthread_cond_t* c, pthread_mutex_t* m, void* caller, bool timed) {
  t.mutex = m;
  t.woke = false;
  ex::point(t, OpKind::Wait, c, caller);
  t.mutex = nullptr;
  return timed && t.woke ? ETIMEDOUT : 0;
}

}  // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* m) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    ex::point(*t, OpKind::Lock, m, ra);
    return 0;
  }
  REAL(pthread_mutex_lock)(m);
}

int pthread_mutex_trylock(pthread_mutex_t* m) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    ex::point(*t, OpKind::TryLock, m, ra);
    return t->result;
  }
  REAL(pthread_mutex_trylock)(m);
}

// An unlock is told apart by the mutex, not by the caller: libc++'s out-of-line
// std::mutex::unlock, and libc++abi's guard release, may end in a tail call, so the return
// address seen here can be their caller's. A mutex the scheduler holds for some thread is the
// scheduler's; any other was locked for real (from an unmanaged library) and is unlocked so.
int pthread_mutex_unlock(pthread_mutex_t* m) {
  if (ex::Thread* t = ex::tlsThread) {
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
  if (ex::Thread* t = managedCaller(ra)) ex::point(*t, OpKind::Signal, c, ra);
  REAL(pthread_cond_signal)(c);
}

int pthread_cond_broadcast(pthread_cond_t* c) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) ex::point(*t, OpKind::Broadcast, c, ra);
  REAL(pthread_cond_broadcast)(c);
}

int pthread_rwlock_rdlock(pthread_rwlock_t* l) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    ex::point(*t, OpKind::RdLock, l, ra);
    return 0;
  }
  REAL(pthread_rwlock_rdlock)(l);
}

int pthread_rwlock_wrlock(pthread_rwlock_t* l) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    ex::point(*t, OpKind::WrLock, l, ra);
    return 0;
  }
  REAL(pthread_rwlock_wrlock)(l);
}

int pthread_rwlock_tryrdlock(pthread_rwlock_t* l) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    t->rwTry = true;
    ex::point(*t, OpKind::TryLock, l, ra);
    t->rwTry = false;
    ex::Rw& rw = ex::gRun->rws[l];
    if (rw.writer >= 0) return EBUSY;
    ++rw.readers;
    return 0;
  }
  REAL(pthread_rwlock_tryrdlock)(l);
}

int pthread_rwlock_trywrlock(pthread_rwlock_t* l) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
    t->rwTry = true;
    ex::point(*t, OpKind::TryLock, l, ra);
    t->rwTry = false;
    ex::Rw& rw = ex::gRun->rws[l];
    if (rw.writer >= 0 || rw.readers > 0) return EBUSY;
    rw.writer = t->id;
    return 0;
  }
  REAL(pthread_rwlock_trywrlock)(l);
}

int pthread_rwlock_unlock(pthread_rwlock_t* l) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) {
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
