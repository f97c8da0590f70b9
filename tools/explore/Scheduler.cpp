#include "explore/Scheduler.h"

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

Run* gRun = nullptr;
thread_local Thread* tlsThread = nullptr;
std::unordered_map<const void*, std::string> gNames;
std::unordered_map<const void*, uint64_t> gIds;  // from the names
std::function<uint64_t()> gClientDigest;
bool gMemoryState = false;
bool gClientObject = true;
// Set by the instrumented library's module constructor (__tsan_init): its memory accesses
// reach the hooks at the end of this file.
std::atomic<bool> gInstrumented{false};

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
// A managed thread as the object of its creation, its end and a join of it.
uint64_t threadObject(uint16_t id) { return ~uint64_t(0x7417) - (uint64_t(id) << 16); }
uint64_t objectId(const void* object) {
  auto it = gIds.find(object);
  return it != gIds.end() ? it->second : reinterpret_cast<uintptr_t>(object);
}

enum class Access : uint8_t { Op, Unlock, Client, Host };

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

// ---- the library's memory ----------------------------------------------------------------------

// Heap blocks the memory state knows, by start address. A block's id does not depend on where
// the allocator put it: who allocated it, in which call (by the thread's calls so far), and
// how many blocks of its size the thread had allocated in that call before; blocks made while
// a schedule is set up, by how many of their size came before. A pointer into a block is seen as
// its id and offset, so that equal states reached by different allocation orders look alike.
struct Block {
  uintptr_t end;
  uint64_t id;
};
std::map<uintptr_t, Block> gBlocks;
// Set while the scheduler allocates for its own records: those blocks are not the program's.
thread_local int tlsInternal = 0;
struct Internal {
  Internal() { ++tlsInternal; }
  ~Internal() { --tlsInternal; }
};
uintptr_t gBlocksLo = UINTPTR_MAX;
uintptr_t gBlocksHi = 0;
std::atomic<bool> gTrackBlocks{false};
pthread_t gSetupThread;
std::vector<std::pair<size_t, uint32_t>> gSetupSizes;  // blocks made in the setup, by size

// The number of blocks of size `n` counted so far, this one included.
uint32_t countBlock(std::vector<std::pair<size_t, uint32_t>>& counts, size_t n) {
  for (auto& c : counts) {
    if (c.first == n) return ++c.second;
  }
  counts.push_back({n, 1});
  return 1;
}

// The block found last: reads go through one node's fields after another.
const std::pair<const uintptr_t, Block>* gLastBlock = nullptr;

// The block `a` points into, or just past (a vector's or a string's end): the allocator's
// chunk headers keep a block from starting where another ends.
const std::pair<const uintptr_t, Block>* blockAt(uintptr_t a) {
  if (a < gBlocksLo || a > gBlocksHi) return nullptr;
  if (gLastBlock && a >= gLastBlock->first && a <= gLastBlock->second.end) return gLastBlock;
  auto it = gBlocks.upper_bound(a);
  if (it == gBlocks.begin()) return nullptr;
  --it;
  if (a > it->second.end) return nullptr;
  gLastBlock = &*it;
  return gLastBlock;
}

// A value as another run would have it: a pointer into a known block is the block's id and
// offset, one into a managed thread's stack the thread and the depth; anything else is
// itself.
uint64_t canonical(uint64_t v) {
  if (const auto* b = blockAt(v)) return mix(b->second.id ^ 0xb10cull) + (v - b->first);
  if (gRun) {
    for (const auto& t : gRun->threads) {
      if (v >= t->stackLo && v < t->stackHi) return mix(0x57acull ^ t->id) + (t->stackHi - v);
    }
  }
  return v;
}

// For each 8-byte granule the instrumented code wrote in this run: which of its bytes it wrote
// and the granule's term in the live sum (its place and the value of those bytes). Open
// addressing over granule numbers; only the thread the scheduler runs touches it.
struct Cell {
  uint64_t granule;  // + 1; 0 is an empty slot
  uint64_t term;     // 0: freed, or never written
  uint8_t mask;
};
class Cells {
 public:
  Cell* find(uint64_t granule) {
    if (mSlots.empty()) return nullptr;
    size_t mask = mSlots.size() - 1;
    for (size_t i = mix(granule) & mask;; i = (i + 1) & mask) {
      if (mSlots[i].granule == granule + 1) return &mSlots[i];
      if (mSlots[i].granule == 0) return nullptr;
    }
  }
  Cell& at(uint64_t granule) {
    if ((mCount + 1) * 4 > mSlots.size() * 3) grow();
    size_t mask = mSlots.size() - 1;
    for (size_t i = mix(granule) & mask;; i = (i + 1) & mask) {
      if (mSlots[i].granule == granule + 1) return mSlots[i];
      if (mSlots[i].granule == 0) {
        mSlots[i] = {granule + 1, 0, 0};
        mUsed.push_back(uint32_t(i));
        ++mCount;
        return mSlots[i];
      }
    }
  }
  void reset() {
    for (uint32_t i : mUsed) mSlots[i].granule = 0;
    mUsed.clear();
    mCount = 0;
  }

 private:
  void grow() {
    std::vector<Cell> old = std::move(mSlots);
    mSlots.assign(old.empty() ? size_t(1) << 14 : old.size() * 2, Cell{0, 0, 0});
    mUsed.clear();
    mCount = 0;
    for (const Cell& c : old) {
      if (c.granule) {
        Cell& n = at(c.granule - 1);
        n.term = c.term;
        n.mask = c.mask;
      }
    }
  }
  std::vector<Cell> mSlots;
  std::vector<uint32_t> mUsed;
  size_t mCount = 0;
};

Cells gCells;

void resetCells() { gCells.reset(); }

// The managed thread whose memory accesses count now, with the memory state on. Only the
// library's and the host platform's code is instrumented, whoever calls it; the scheduler's
// own records (the standard library's out-of-line code it calls) are not the program's.
inline Thread* tracker() {
  Thread* t = tlsThread;
  return t && gRun && gRun->memory && !tlsInternal ? t : nullptr;
}

// The calling thread's own stack: no other thread reads it, and what it holds follows from
// what the thread read.
inline bool onOwnStack(const Thread& t, uintptr_t a) { return a >= t.stackLo && a < t.stackHi; }

uint64_t loadBytes(uintptr_t a, size_t n) {
  uint64_t v = 0;
  std::memcpy(&v, reinterpret_cast<const void*>(a), n);
  return v;
}

void settleWrites(Thread& t);

// A read: the thread learns the bytes' values (pointers into known blocks by id).
void readRange(const void* p, size_t n) {
  Thread* t = tracker();
  if (!t || n == 0) return;
  settleWrites(*t);
  uintptr_t a = reinterpret_cast<uintptr_t>(p);
  if (onOwnStack(*t, a)) return;
  for (uintptr_t end = a + n; a < end;) {
    size_t k = std::min<size_t>(8 - (a & 7), end - a);
    uint64_t v = loadBytes(a, k);
    t->observed = mix(t->observed ^ (k == 8 ? canonical(v) : v ^ (uint64_t(k) << 60)));
    a += k;
  }
}

// Writes are seen before they happen; the granules' new values are taken at the thread's next
// access or scheduling point (settleWrites).
void writeRange(const void* p, size_t n) {
  Thread* t = tracker();
  if (!t || n == 0) return;
  uintptr_t a = reinterpret_cast<uintptr_t>(p);
  if (onOwnStack(*t, a)) return;
  settleWrites(*t);
  Internal internal;
  t->pendingWrites.push_back({a, n});
}

void settleWrites(Thread& t) {
  if (t.pendingWrites.empty() || !gRun) return;
  Internal internal;
  Run& run = *gRun;
  for (const auto& w : t.pendingWrites) {
    for (uint64_t g = w.first >> 3, last = (w.first + w.second - 1) >> 3; g <= last; ++g) {
      uintptr_t lo = std::max<uintptr_t>(g << 3, w.first);
      uintptr_t hi = std::min<uintptr_t>((g + 1) << 3, w.first + w.second);
      Cell& c = gCells.at(g);
      c.mask |= uint8_t(((1u << (hi - lo)) - 1) << (lo & 7));
      uint64_t value = loadBytes(g << 3, 8);
      uint64_t bytes = 0;
      for (int b = 0; b < 8; ++b) {
        if (c.mask & (1u << b)) bytes |= value & (uint64_t(0xff) << (8 * b));
      }
      uint64_t place = canonical(g << 3);
      uint64_t term = mix(place ^ mix((c.mask == 0xff ? canonical(value) : bytes) ^ c.mask));
      run.live += term - c.term;
      c.term = term;
    }
  }
  t.pendingWrites.clear();
}

// Freed memory holds no state: whatever is allocated there next starts unwritten, whichever
// thread freed it and wherever the allocator puts the next object.
void forgetRange(uintptr_t a, size_t n) {
  Thread* t = tlsThread;
  if (!t || !gRun || !gRun->memory || n == 0) return;
  settleWrites(*t);
  Run& run = *gRun;
  // The block of a reference count the thread took to zero: the object is gone, and the
  // thread is where it would be had another reference been the last.
  while (!t->destroying.empty() && t->destroying.back().counter >= a &&
         t->destroying.back().counter < a + n) {
    t->observed = t->destroying.back().observed;
    t->callSteps = t->destroying.back().callSteps;
    t->destroying.pop_back();
  }
  for (uint64_t g = a >> 3, last = (a + n - 1) >> 3; g <= last; ++g) {
    if (Cell* c = gCells.find(g)) {
      run.live -= c->term;
      c->term = 0;
      c->mask = 0;
    }
  }
}

// A block from operator new: known by an id (Block above) while a search runs.
[[maybe_unused]] void noteBlock(void* p, size_t n) {
  if (!gTrackBlocks.load(std::memory_order_relaxed) || tlsInternal) return;
  Internal internal;
  uint64_t id;
  if (Thread* t = tlsThread) {
    if (!gRun) return;
    uint32_t count = countBlock(t->callBlocks, n);
    id = mix((uint64_t(t->id + 1) << 48) ^ (uint64_t(t->inClient) << 47) ^ n) ^
         mix(t->calls ^ mix(count));
  } else if (pthread_equal(pthread_self(), gSetupThread)) {
    id = mix(0x5e7ull ^ (uint64_t(countBlock(gSetupSizes, n)) << 40) ^ n);
  } else {
    return;
  }
  // Bytes nobody has written yet (padding copied along with a struct, say) read the same in
  // every run, not whatever the allocator's last user left.
  std::memset(p, 0, n);
  auto a = reinterpret_cast<uintptr_t>(p);
  // Blocks the table still has where this one lies were freed where no free is followed (a
  // thread's thread-local objects, as it exits): they are gone.
  auto it = gBlocks.lower_bound(a);
  if (it != gBlocks.begin() && std::prev(it)->second.end > a) --it;
  while (it != gBlocks.end() && it->first < a + n) {
    if (&*it == gLastBlock) gLastBlock = nullptr;
    it = gBlocks.erase(it);
  }
  gBlocks[a] = {a + n, id};
  gBlocksLo = std::min(gBlocksLo, a);
  gBlocksHi = std::max(gBlocksHi, a + n);
}

[[maybe_unused]] void dropBlock(void* p, size_t usable) {
  if (!gTrackBlocks.load(std::memory_order_relaxed) || tlsInternal) return;
  Internal internal;
  if (!tlsThread && !pthread_equal(pthread_self(), gSetupThread)) return;
  auto a = reinterpret_cast<uintptr_t>(p);
  forgetRange(a, usable);
  if (gLastBlock && gLastBlock->first == a) gLastBlock = nullptr;
  gBlocks.erase(a);
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
  // The frames from the one the interposed function returns to (`fallback`) on are the
  // caller's: there an unnamed frame of this program is a test body's local code.
  int from = n;
  for (int i = 1; i < n; ++i) {
    if (frames[i] == fallback) {
      from = i;
      break;
    }
  }
  for (int i = 1; i < n; ++i) {
    Dl_info info;
    if (!dladdr(frames[i], &info)) continue;
    if (info.dli_fname &&
        (std::strstr(info.dli_fname, "libstdc++") || std::strstr(info.dli_fname, "libc.so"))) {
      continue;
    }
    // Unnamed frames of this program before the caller's are the scheduler's own (its
    // anonymous namespace).
    if (!info.dli_sname && info.dli_fbase == selfBase() && i < from) continue;
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

}  // namespace

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
  if (Thread* t = tlsThread) {
    settleWrites(*t);
    Internal internal;
    t->inClient = true;
    touchClient(*gRun, *t);
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

void Scheduler::beginSetup() {
  Internal internal;
  bool on = gInstrumented.load(std::memory_order_relaxed);
  gTrackBlocks.store(on, std::memory_order_relaxed);
  gLastBlock = nullptr;
  gBlocks.clear();
  gBlocksLo = UINTPTR_MAX;
  gBlocksHi = 0;
  gSetupSizes.clear();
  gSetupThread = pthread_self();
}

void Scheduler::endSetups() { gTrackBlocks.store(false, std::memory_order_relaxed); }

bool Scheduler::memoryInstrumented() { return gInstrumented.load(std::memory_order_relaxed); }

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
    // Code inlined into the standard library's (a lambda a std::thread runs, say) is named by
    // the outermost frame that is not in a system header.
    // (addr2line pairs the inlined frames' names with their lines loosely: only the line is
    // given then.)
    std::string function, location, ownLocation;
    if (FILE* p = popen(cmd, "r")) {
      char line[4096];
      while (std::fgets(line, sizeof line, p)) {
        function = line;
        if (!std::fgets(line, sizeof line, p)) break;
        location = line;
        if (location.rfind("/usr/", 0) != 0 && location[0] != '?') {
          ownLocation = location;
        }
      }
      pclose(p);
    }
    bool own = location.rfind("/usr/", 0) == 0 && !ownLocation.empty();
    if (own) location = ownLocation;
    auto trim = [](std::string& s) {
      while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    };
    trim(function);
    trim(location);
    // "ns::(anonymous namespace)::f(args)" is "ns::f".
    for (size_t at; (at = function.find("(anonymous namespace)::")) != std::string::npos;) {
      function.erase(at, sizeof "(anonymous namespace)::" - 1);
    }
    size_t paren = function.find('(');
    if (paren != std::string::npos) function.erase(paren);
    size_t disc = location.find(" (");
    if (disc != std::string::npos) location.erase(disc);
    size_t lastSlash = location.rfind('/');
    if (lastSlash != std::string::npos) location.erase(0, lastSlash + 1);
    if (own) {
      out = location;
    } else if (!function.empty() && function != "??") {
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
    ex::Internal internal;
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
  int result = timed && t.woke ? ETIMEDOUT : 0;
  ex::observe(t, uint64_t(result));
  return result;
}

}  // namespace

extern "C" {

// Referenced by the explore package's link options (-u): a program that links its archive
// takes this file in, with the pthread functions below, though it names none of its own.
void orvcamExploreScheduler() {}

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
  if (ex::Thread* t = managedCaller(ra)) ex::point(*t, OpKind::Signal, c, ra);
  REAL(pthread_cond_signal)(c);
}

int pthread_cond_broadcast(pthread_cond_t* c) {
  void* ra = __builtin_return_address(0);
  if (ex::Thread* t = managedCaller(ra)) ex::point(*t, OpKind::Broadcast, c, ra);
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
    ex::Internal internal;
    ex::Rw& rw = ex::gRun->rws[l];
    bool busy = rw.writer >= 0;
    ex::observe(*t, busy);
    if (busy) return EBUSY;
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
    ex::Internal internal;
    ex::Rw& rw = ex::gRun->rws[l];
    bool busy = rw.writer >= 0 || rw.readers > 0;
    ex::observe(*t, busy);
    if (busy) return EBUSY;
    rw.writer = t->id;
    return 0;
  }
  REAL(pthread_rwlock_trywrlock)(l);
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

// ---- the instrumented library's memory accesses ----------------------------------------------
//
// The explorer links a copy of the library compiled with -fsanitize=thread and no
// ThreadSanitizer runtime: the compiler's calls before each load and store, and in place of
// each atomic operation, land here. A plain load or store is a read or write of its granules;
// atomics are done for real (unmanaged threads call them too) and tracked as below.

namespace {

// An atomic add is a reference count's (shared_ptr's, the only atomics the library's code
// has). The count is not state: it is how many references the threads and the library's
// records hold. An increment teaches the thread nothing, nor does a decrement that leaves
// other references. The one that takes the last away (to 0 in libstdc++, whose counts are
// the references; to -1 in libc++, whose counts are the references less one) makes the
// thread destroy the object: which thread that is depends only on the order of the last
// releases, and once the count's block is freed the thread goes on as if another had been
// the last. So its reads and steps from the decrement to that free are dropped again then
// (forgetRange); in between it is told apart as usual.
#if defined(_LIBCPP_VERSION)
constexpr int kNoReferencesLeft = -1;
#else
constexpr int kNoReferencesLeft = 0;
#endif
template <typename T>
T atomicAdd(volatile T* a, T v) {
  T old = __atomic_fetch_add(a, v, __ATOMIC_SEQ_CST);
  using S = typename std::make_signed<T>::type;
  if (S(v) < 0 && S(T(old + v)) <= S(kNoReferencesLeft)) {
    if (ex::Thread* t = ex::tracker()) {
      ex::Internal internal;
      t->destroying.push_back({reinterpret_cast<uintptr_t>(a), t->observed, t->callSteps});
      ex::observe(*t, uint64_t(S(T(old + v))));
    }
  }
  return old;
}

// Any other atomic access is a read of the value it returns and, when it stores, a write.
template <typename T>
T atomicSeen(const volatile T* a, T value, bool stored) {
  if (ex::Thread* t = ex::tracker()) {
    ex::observe(*t, uint64_t(value));
    if (stored) ex::writeRange(const_cast<const T*>(a), sizeof(T));
  }
  return value;
}

}  // namespace

extern "C" {

void __tsan_init() { ex::gInstrumented.store(true, std::memory_order_relaxed); }
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}

#define ORVCAM_TSAN_ACCESS(n)                                              \
  void __tsan_read##n(void* p) { ex::readRange(p, n); }                    \
  void __tsan_write##n(void* p) { ex::writeRange(p, n); }                  \
  void __tsan_unaligned_read##n(void* p) { ex::readRange(p, n); }          \
  void __tsan_unaligned_write##n(void* p) { ex::writeRange(p, n); }        \
  void __tsan_volatile_read##n(void* p) { ex::readRange(p, n); }           \
  void __tsan_volatile_write##n(void* p) { ex::writeRange(p, n); }         \
  void __tsan_unaligned_volatile_read##n(void* p) { ex::readRange(p, n); } \
  void __tsan_unaligned_volatile_write##n(void* p) { ex::writeRange(p, n); }
ORVCAM_TSAN_ACCESS(1)
ORVCAM_TSAN_ACCESS(2)
ORVCAM_TSAN_ACCESS(4)
ORVCAM_TSAN_ACCESS(8)
ORVCAM_TSAN_ACCESS(16)
#undef ORVCAM_TSAN_ACCESS

void __tsan_read_range(void* p, unsigned long n) { ex::readRange(p, n); }
void __tsan_write_range(void* p, unsigned long n) { ex::writeRange(p, n); }
void __tsan_vptr_read(void** p) { ex::readRange(p, sizeof *p); }
void __tsan_vptr_update(void** p, void*) { ex::writeRange(p, sizeof *p); }

void* __tsan_memcpy(void* dst, const void* src, unsigned long n) {
  ex::readRange(src, n);
  ex::writeRange(dst, n);
  return std::memcpy(dst, src, n);
}
void* __tsan_memmove(void* dst, const void* src, unsigned long n) {
  ex::readRange(src, n);
  ex::writeRange(dst, n);
  return std::memmove(dst, src, n);
}
void* __tsan_memset(void* dst, int c, unsigned long n) {
  ex::writeRange(dst, n);
  return std::memset(dst, c, n);
}

#define ORVCAM_TSAN_ATOMIC(bits, T)                                                                \
  T __tsan_atomic##bits##_load(const volatile T* a, int) {                                         \
    return atomicSeen(a, __atomic_load_n(a, __ATOMIC_SEQ_CST), false);                             \
  }                                                                                                \
  void __tsan_atomic##bits##_store(volatile T* a, T v, int) {                                      \
    __atomic_store_n(a, v, __ATOMIC_SEQ_CST);                                                      \
    ex::writeRange(const_cast<const T*>(a), sizeof(T));                                            \
  }                                                                                                \
  T __tsan_atomic##bits##_fetch_add(volatile T* a, T v, int) { return atomicAdd(a, v); }           \
  T __tsan_atomic##bits##_fetch_sub(volatile T* a, T v, int) { return atomicAdd(a, T(T(0) - v)); } \
  T __tsan_atomic##bits##_exchange(volatile T* a, T v, int) {                                      \
    return atomicSeen(a, __atomic_exchange_n(a, v, __ATOMIC_SEQ_CST), true);                       \
  }                                                                                                \
  T __tsan_atomic##bits##_fetch_and(volatile T* a, T v, int) {                                     \
    return atomicSeen(a, __atomic_fetch_and(a, v, __ATOMIC_SEQ_CST), true);                        \
  }                                                                                                \
  T __tsan_atomic##bits##_fetch_or(volatile T* a, T v, int) {                                      \
    return atomicSeen(a, __atomic_fetch_or(a, v, __ATOMIC_SEQ_CST), true);                         \
  }                                                                                                \
  T __tsan_atomic##bits##_fetch_xor(volatile T* a, T v, int) {                                     \
    return atomicSeen(a, __atomic_fetch_xor(a, v, __ATOMIC_SEQ_CST), true);                        \
  }                                                                                                \
  T __tsan_atomic##bits##_fetch_nand(volatile T* a, T v, int) {                                    \
    return atomicSeen(a, __atomic_fetch_nand(a, v, __ATOMIC_SEQ_CST), true);                       \
  }                                                                                                \
  int __tsan_atomic##bits##_compare_exchange_strong(volatile T* a, T* c, T v, int, int) {          \
    bool ok = __atomic_compare_exchange_n(a, c, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);     \
    atomicSeen(a, ok ? v : *c, ok);                                                                \
    return ok;                                                                                     \
  }                                                                                                \
  int __tsan_atomic##bits##_compare_exchange_weak(volatile T* a, T* c, T v, int mo, int fmo) {     \
    return __tsan_atomic##bits##_compare_exchange_strong(a, c, v, mo, fmo);                        \
  }                                                                                                \
  T __tsan_atomic##bits##_compare_exchange_val(volatile T* a, T c, T v, int mo, int fmo) {         \
    __tsan_atomic##bits##_compare_exchange_strong(a, &c, v, mo, fmo);                              \
    return c;                                                                                      \
  }
ORVCAM_TSAN_ATOMIC(8, uint8_t)
ORVCAM_TSAN_ATOMIC(16, uint16_t)
ORVCAM_TSAN_ATOMIC(32, uint32_t)
ORVCAM_TSAN_ATOMIC(64, uint64_t)
#undef ORVCAM_TSAN_ATOMIC

void __tsan_atomic_thread_fence(int) { __atomic_thread_fence(__ATOMIC_SEQ_CST); }
void __tsan_atomic_signal_fence(int) { __atomic_signal_fence(__ATOMIC_SEQ_CST); }

}  // extern "C"

// libstdc++ rebalances its red-black trees out of line, in libstdc++.so, which is not
// instrumented: after an insert or erase every node's links and colour (and the header's) are
// taken as written. The same for the hash tables' rehash policy, whose state only its
// out-of-line functions read and write. The trees the library keeps hold a few frames.
#if defined(__GLIBCXX__)
namespace {
template <typename F>
F realFunction(std::atomic<void*>& slot, const char* name) {
  if (!slot.load(std::memory_order_acquire)) slot.store(ex::realSymbol(name));
  return reinterpret_cast<F>(slot.load(std::memory_order_acquire));
}
struct TreeNode {
  int colour;
  TreeNode* parent;
  TreeNode* left;
  TreeNode* right;
};
void wroteNode(const TreeNode* n) {
  ex::writeRange(&n->colour, sizeof n->colour);
  ex::writeRange(&n->parent, 3 * sizeof(void*));
}
void wroteTree(const TreeNode* header) {
  if (!ex::tracker()) return;
  wroteNode(header);
  // Depth first, right children pushed before left ones are taken: the stack holds at most
  // one node per level, and a red-black tree of any size in memory has fewer than 128.
  const TreeNode* todo[128];
  size_t n = 0;
  if (header->parent) todo[n++] = header->parent;
  while (n > 0) {
    const TreeNode* node = todo[--n];
    wroteNode(node);
    if (node->right && n < 128) todo[n++] = node->right;
    if (node->left && n < 128) todo[n++] = node->left;
  }
}
}  // namespace

extern "C" void orvcamRbInsert(bool left, void* x, void* p, void* header) noexcept
    __asm__("_ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_");
extern "C" void orvcamRbInsert(bool left, void* x, void* p, void* header) noexcept {
  static std::atomic<void*> real{nullptr};
  realFunction<void (*)(bool, void*, void*, void*)>(
      real, "_ZSt29_Rb_tree_insert_and_rebalancebPSt18_Rb_tree_node_baseS0_RS_")(left, x, p,
                                                                                 header);
  wroteTree(static_cast<const TreeNode*>(header));
}

extern "C" void* orvcamRbErase(void* z, void* header) noexcept
    __asm__("_ZSt28_Rb_tree_rebalance_for_erasePSt18_Rb_tree_node_baseRS_");
extern "C" void* orvcamRbErase(void* z, void* header) noexcept {
  static std::atomic<void*> real{nullptr};
  void* out = realFunction<void* (*)(void*, void*)>(
      real, "_ZSt28_Rb_tree_rebalance_for_erasePSt18_Rb_tree_node_baseRS_")(z, header);
  wroteTree(static_cast<const TreeNode*>(header));
  return out;
}

struct OrvcamRehashResult {
  bool first;
  size_t second;
};
struct RehashPolicy {
  float maxLoad;
  size_t nextResize;
};
extern "C" OrvcamRehashResult orvcamNeedRehash(
    const void* policy, size_t buckets, size_t elements,
    size_t inserted) __asm__("_ZNKSt8__detail20_Prime_rehash_policy14_M_need_rehashEmmm");
extern "C" OrvcamRehashResult orvcamNeedRehash(const void* policy, size_t buckets, size_t elements,
                                               size_t inserted) {
  static std::atomic<void*> real{nullptr};
  const auto* rp = static_cast<const RehashPolicy*>(policy);
  ex::readRange(&rp->maxLoad, sizeof rp->maxLoad);
  ex::readRange(&rp->nextResize, sizeof rp->nextResize);
  OrvcamRehashResult r = realFunction<OrvcamRehashResult (*)(const void*, size_t, size_t, size_t)>(
      real, "_ZNKSt8__detail20_Prime_rehash_policy14_M_need_rehashEmmm")(policy, buckets, elements,
                                                                         inserted);
  ex::writeRange(&rp->nextResize, sizeof rp->nextResize);
  return r;
}
#endif

// Operator delete tells the memory state that a block is free (forgetRange above). Under
// AddressSanitizer the library is not instrumented, and its allocator stays in place.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORVCAM_EXPLORE_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define ORVCAM_EXPLORE_ASAN 1
#endif
#if !defined(ORVCAM_EXPLORE_ASAN)
namespace {
__attribute__((noinline)) void* newBlock(size_t n) noexcept {
  void* p = std::malloc(n ? n : 1);
  if (p) ex::noteBlock(p, n);
  return p;
}
__attribute__((noinline)) void releaseBlock(void* p) noexcept {
  if (p) ex::dropBlock(p, malloc_usable_size(p));
  std::free(p);
}
}  // namespace
void* operator new(size_t n) {
  if (void* p = newBlock(n)) return p;
  throw std::bad_alloc();
}
void* operator new[](size_t n) {
  if (void* p = newBlock(n)) return p;
  throw std::bad_alloc();
}
void* operator new(size_t n, const std::nothrow_t&) noexcept { return newBlock(n); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return newBlock(n); }
void operator delete(void* p) noexcept { releaseBlock(p); }
void operator delete[](void* p) noexcept { releaseBlock(p); }
void operator delete(void* p, size_t) noexcept { releaseBlock(p); }
void operator delete[](void* p, size_t) noexcept { releaseBlock(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { releaseBlock(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { releaseBlock(p); }
#endif
