#pragma once
// Durations counted in buckets no wider than 1/64 of the values they hold: percentiles of any
// number of durations in a few kilobytes, each within 0.8 % of the exact one (durations under
// 128 ns are exact). The log reader keeps its wait and job-time figures in these so that an
// hours-long capture costs no more memory than a short one.
#include <algorithm>
#include <cstdint>
#include <vector>

namespace orvcam {
namespace logread {

class DurationHistogram {
 public:
  void add(int64_t ns) {
    if (ns < 0) ns = 0;
    size_t i = index(uint64_t(ns));
    if (i >= counts_.size()) counts_.resize(i + 1, 0);
    ++counts_[i];
    ++count_;
    max_ = std::max(max_, ns);
  }

  void merge(const DurationHistogram& other) {
    if (other.counts_.size() > counts_.size()) counts_.resize(other.counts_.size(), 0);
    for (size_t i = 0; i < other.counts_.size(); ++i) counts_[i] += other.counts_[i];
    count_ += other.count_;
    max_ = std::max(max_, other.max_);
  }

  uint64_t count() const { return count_; }
  int64_t max() const { return max_; }

  // The value of rank ceil(p * count), as the middle of its bucket (never above the maximum);
  // 0 when empty.
  int64_t percentile(double p) const {
    if (count_ == 0) return 0;
    uint64_t rank = uint64_t(p * double(count_) + 0.999999);
    rank = std::min(std::max<uint64_t>(rank, 1), count_);
    uint64_t seen = 0;
    for (size_t i = 0; i < counts_.size(); ++i) {
      seen += counts_[i];
      if (seen >= rank) return std::min(middle(i), max_);
    }
    return max_;
  }

 private:
  static constexpr unsigned kExactBelowBits = 7;  // values under 128 have a bucket each
  static constexpr unsigned kSubBits = 6;         // 64 buckets per power of two above that

  static unsigned bitLength(uint64_t v) {
    unsigned n = 0;
    while (v) ++n, v >>= 1;
    return n;
  }
  static size_t index(uint64_t v) {
    if (v < (1u << kExactBelowBits)) return size_t(v);
    unsigned octave = bitLength(v) - 1;  // v is in [2^octave, 2^(octave+1))
    unsigned shift = octave - kSubBits;
    size_t sub = size_t(v >> shift) - (size_t(1) << kSubBits);
    return (size_t(1) << kExactBelowBits) + size_t(octave - kExactBelowBits) * (1u << kSubBits) +
           sub;
  }
  static int64_t middle(size_t i) {
    if (i < (1u << kExactBelowBits)) return int64_t(i);
    size_t above = i - (size_t(1) << kExactBelowBits);
    unsigned octave = unsigned(above >> kSubBits) + kExactBelowBits;
    unsigned shift = octave - kSubBits;
    uint64_t low = (uint64_t((above & ((1u << kSubBits) - 1)) + (1u << kSubBits))) << shift;
    return int64_t(low + (uint64_t(1) << shift) / 2);
  }

  std::vector<uint64_t> counts_;
  uint64_t count_ = 0;
  int64_t max_ = 0;
};

}  // namespace logread
}  // namespace orvcam
