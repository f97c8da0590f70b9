#pragma once
// Toy programs whose memory the scheduler follows: TrackedToy.cpp is compiled with the
// memory-access instrumentation the explorer's copy of the library has (not under
// AddressSanitizer, where Scheduler::memoryInstrumented() stays false for it).
#include <mutex>

namespace orvcam {
namespace explore {
namespace toy {

// Threads that each take one lock three times. Under it a thread either adds to a slot of its own
// (steps that commute: any order of holders leaves the same memory) and writes its number into
// a shared log, or (racy) reads a shared total under one hold and writes it plus one under
// the next: a lost update.
struct Tally {
  static constexpr int kThreads = 3;
  std::mutex mutex;
  int slots[kThreads] = {};
  int total = 0;
  int log[2 * kThreads] = {};
  int logged = 0;
};

void tallyOwnSlot(Tally& t, int thread);
void tallyRacy(Tally& t, int thread);

}  // namespace toy
}  // namespace explore
}  // namespace orvcam
