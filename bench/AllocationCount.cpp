#include "AllocationCount.h"

#include <cstdlib>
#include <new>

namespace {

// Per thread, so that counting costs no shared cache line in the multi-threaded benchmarks.
thread_local uint64_t tAllocations = 0;

void* allocate(std::size_t size) {
  ++tAllocations;
  if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
  throw std::bad_alloc();
}

}  // namespace

// The standard library's array and nothrow forms of operator new call this one.
void* operator new(std::size_t size) { return allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace orvcam {
namespace bench {

uint64_t threadAllocations() { return tAllocations; }

}  // namespace bench
}  // namespace orvcam
