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

}  // namespace toy
}  // namespace explore
}  // namespace orvcam
