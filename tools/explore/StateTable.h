#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvcam {
namespace explore {

// The states a depth-first search has met, with the fewest preemptions each was met with:
// open addressing over 64-bit fingerprints (9 bytes a slot, at most three quarters full),
// since a bound-2 search meets millions. It stops taking new states at `maxSlots` slots (the
// default, 2^25, is about 300 MB; a power of two); states already in it still answer. One
// thread (the search's).
class StateTable {
 public:
  static constexpr size_t kDefaultMaxSlots = size_t(1) << 25;
  explicit StateTable(size_t maxSlots = kDefaultMaxSlots) : mMaxSlots(maxSlots) {}
  // Whether `key` was met with at most `used` preemptions; records it (or the lower count)
  // otherwise.
  bool metBefore(uint64_t key, uint32_t used) {
    if (key == 0) key = 1;  // 0 marks an empty slot
    uint8_t u = uint8_t(std::min<uint32_t>(used, 255));
    if (mKeys.empty()) resize(std::min(size_t(1) << 16, mMaxSlots));
    size_t mask = mKeys.size() - 1;
    for (size_t i = key & mask;; i = (i + 1) & mask) {
      if (mKeys[i] == key) {
        if (mUsed[i] <= u) return true;
        mUsed[i] = u;
        return false;
      }
      if (mKeys[i] == 0) {
        if ((mCount + 1) * 4 > mKeys.size() * 3) {
          if (mKeys.size() >= mMaxSlots) {
            mFull = true;
            return false;
          }
          resize(mKeys.size() * 2);
          return metBefore(key, used);
        }
        mKeys[i] = key;
        mUsed[i] = u;
        ++mCount;
        return false;
      }
    }
  }
  // The fewest slots (a power of two) that hold `states` states.
  static size_t slotsFor(uint64_t states) {
    size_t slots = 64;
    while (states * 4 > slots * 3) slots *= 2;
    return slots;
  }
  size_t size() const { return mCount; }
  size_t slots() const { return mKeys.size(); }
  // Whether a state was left out for want of room.
  bool full() const { return mFull; }

 private:
  void resize(size_t slots) {
    std::vector<uint64_t> keys(slots, 0);
    std::vector<uint8_t> used(slots, 0);
    for (size_t j = 0; j < mKeys.size(); ++j) {
      if (!mKeys[j]) continue;
      size_t i = mKeys[j] & (slots - 1);
      while (keys[i]) i = (i + 1) & (slots - 1);
      keys[i] = mKeys[j];
      used[i] = mUsed[j];
    }
    mKeys.swap(keys);
    mUsed.swap(used);
  }
  size_t mMaxSlots;
  std::vector<uint64_t> mKeys;
  std::vector<uint8_t> mUsed;
  size_t mCount = 0;
  bool mFull = false;
};

}  // namespace explore
}  // namespace orvcam
