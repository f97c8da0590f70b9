#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <new>

#include "explore/SchedulerModel.h"

namespace orvcam {
namespace explore {
namespace sched {

// Set by the instrumented library's module constructor (__tsan_init): its memory accesses
// reach the hooks below.
std::atomic<bool> gInstrumented{false};
thread_local int tlsInternal = 0;

// ---- the library's memory ----------------------------------------------------------------------

// Heap blocks the memory state knows, by start address. A block's id does not depend on where
// the allocator put it: who allocated it, in which call (by the thread's calls so far), and
// how many blocks of its size the thread had allocated in that call before; blocks made while
// a schedule is set up, by how many of their size came before. A pointer into a block is seen as
// its id and offset, so that equal states reached by different allocation orders look alike.
std::map<uintptr_t, Block> gBlocks;
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

}  // namespace sched

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

}  // namespace explore
}  // namespace orvcam

namespace ex = orvcam::explore;

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
