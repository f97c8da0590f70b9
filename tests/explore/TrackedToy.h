#pragma once
// Toy programs whose memory the scheduler follows: TrackedToy.cpp is compiled with the
// memory-access instrumentation the explorer's copy of the library has (not under
// AddressSanitizer, where Scheduler::memoryInstrumented() stays false for it).
#include <memory>
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

// Two threads each set one owner to a token of their own, the last one wins: tokens equal in
// size and content, told apart only by where they live (a heap block each, kept by the
// claim, or a local of each thread's stack). Once both have (the caller waits), a thief takes
// the owner away if it is the first thread's token, and a judge names the winner (2: stolen).
// Which of the last two goes first matters only when the first thread's token won.
struct Claim {
  std::mutex mutex;
  const void* tokens[2] = {};
  std::unique_ptr<long> held[2];
  const void* owner = nullptr;
  bool wrote[2] = {};
  int winner = -1;
};

void claim(Claim& c, int thread, bool onStack);
void steal(Claim& c);
void judge(Claim& c);

}  // namespace toy
}  // namespace explore
}  // namespace orvcam
