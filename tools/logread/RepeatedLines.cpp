#include "logread/RepeatedLines.h"

#include <functional>

namespace orvcam {
namespace logread {

void RepeatedLines::remember(uint64_t hash, int64_t stamp) {
  if (ring_.size() < kRemembered) {
    ring_.push_back({hash, stamp});
  } else {
    ring_[next_] = {hash, stamp};
  }
  next_ = (next_ + 1) % kRemembered;
  lastStamp_ = stamp;
}

bool RepeatedLines::repeated(std::string_view raw, int64_t stamp) {
  uint64_t hash = std::hash<std::string_view>()(raw);
  if (remaining_ > 0) {
    if (ring_[expect_].hash == hash && ring_[expect_].stamp == stamp) {
      expect_ = (expect_ + 1) % ring_.size();
      --remaining_;
      ++skipped_;
      return true;
    }
    remaining_ = 0;  // the repeat ended early: this line is new
  }
  if (stamp < lastStamp_) {
    // Back in time: the earliest remembered line equal to this one, among those stamped at or
    // after it (the newest lines, at the end of the ring).
    size_t n = ring_.size(), found = n;
    for (size_t back = 1; back <= n; ++back) {
      size_t i = (next_ + n - back) % n;
      if (ring_[i].stamp < stamp) break;
      if (ring_[i].hash == hash && ring_[i].stamp == stamp) found = i;
    }
    if (found != n) {
      expect_ = (found + 1) % n;
      remaining_ = (next_ + n - expect_) % n;
      ++stretches_;
      ++skipped_;
      return true;
    }
  }
  remember(hash, stamp);
  return false;
}

}  // namespace logread
}  // namespace orvcam
