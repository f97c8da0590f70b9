#include "TrackedToy.h"

namespace orvcam {
namespace explore {
namespace toy {

void tallyOwnSlot(Tally& t, int thread) {
  for (int k = 0; k < 3; ++k) {
    std::lock_guard<std::mutex> lock(t.mutex);
    ++t.slots[thread];
    if (k == 2) t.log[t.logged++] = thread;
  }
}

void tallyRacy(Tally& t, int thread) {
  int seen;
  {
    std::lock_guard<std::mutex> lock(t.mutex);
    seen = t.total;
  }
  std::lock_guard<std::mutex> lock(t.mutex);
  t.total = seen + 1;
  t.log[t.logged++] = thread;
}

void claim(Claim& c, int thread, bool onStack) {
  volatile long local = 0;
  std::unique_ptr<long> heap(new long(0));
  const void* mine = onStack ? const_cast<const long*>(&local) : heap.get();
  std::lock_guard<std::mutex> lock(c.mutex);
  c.tokens[thread] = mine;
  c.held[thread] = std::move(heap);
  c.owner = mine;
  c.wrote[thread] = true;
}

void steal(Claim& c) {
  std::lock_guard<std::mutex> lock(c.mutex);
  if (c.owner == c.tokens[0]) c.owner = nullptr;
}

void judge(Claim& c) {
  std::lock_guard<std::mutex> lock(c.mutex);
  c.winner = c.owner == c.tokens[0] ? 0 : c.owner == c.tokens[1] ? 1 : 2;
}

}  // namespace toy
}  // namespace explore
}  // namespace orvcam
