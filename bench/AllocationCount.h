#pragma once
// The benchmark program replaces the global operator new so that a benchmark can count the
// heap allocations its own thread makes, whoever makes them: the deliverer, the host
// platform or the client code the benchmark plays.
#include <cstdint>

namespace orvcam {
namespace bench {

// Allocations through operator new made by the calling thread since it started.
uint64_t threadAllocations();

}  // namespace bench
}  // namespace orvcam
