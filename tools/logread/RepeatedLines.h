#pragma once
// Captures joined with an overlap: `adb logcat -d` run twice without `-c` between, the two
// files put one after the other, repeat a stretch of lines. At the join the time stamps step
// back, and the lines after it are the lines already read, in the same order and with the same
// stamps. Read twice they would be frames prepared and enqueued twice; this finds them so that
// they are read once.
//
// It remembers a hash and the stamp of each of the last kRemembered lines (16 bytes a line). A
// line that steps back in time and equals one of those with a stamp at or after its own begins
// a repeat; the lines after it are skipped for as long as they follow the remembered ones.
// An overlap longer than kRemembered lines is found only in its last part.
#include <cstdint>
#include <string_view>
#include <vector>

namespace orvcam {
namespace logread {

class RepeatedLines {
 public:
  static constexpr size_t kRemembered = size_t(1) << 18;

  // True when the line, with its raw stamp, repeats one read before and is to be skipped.
  bool repeated(std::string_view raw, int64_t stamp);

  uint64_t skipped() const { return skipped_; }
  uint64_t stretches() const { return stretches_; }

 private:
  struct Seen {
    uint64_t hash;
    int64_t stamp;
  };
  void remember(uint64_t hash, int64_t stamp);
  std::vector<Seen> ring_;
  size_t next_ = 0;  // where the next line goes
  int64_t lastStamp_ = INT64_MIN;
  size_t expect_ = 0;     // during a repeat: the remembered line the next one should equal
  size_t remaining_ = 0;  // and how many remembered lines are left to repeat (0: no repeat)
  uint64_t skipped_ = 0, stretches_ = 0;
};

}  // namespace logread
}  // namespace orvcam
