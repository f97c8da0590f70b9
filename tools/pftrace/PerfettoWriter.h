#pragma once
// Perfetto's protobuf trace for the tools: the host's encoder (PerfettoProto.h) streamed to a
// file a few hundred kilobytes at a time, and the clock that ties a log's time stamps to the
// wall clock of the capture.
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "PerfettoProto.h"

namespace orvcam {
namespace pftrace {

// What a capture's time stamps are readings of, found from its first stamped line: the trace
// puts its events on a clock of its own (nanoseconds from the first stamp) and relates it,
// in a clock snapshot, to this one.
struct CaptureClock {
  uint32_t clockId = kClockRealtime;  // kClockRealtime, or kClockMonotonic (logcat -v monotonic)
  uint64_t firstNs = 0;               // the first stamp on that clock
};

// Reads the capture's clock from its first stamped line: `raw` is the line, `timeNs` its stamp
// as the log reader gives it (nanoseconds from the start of a leap year, or seconds as
// written). A date without a year takes `year` (the capture's, or the current year when 0).
// Stamps are local times of the device: `utcOffsetMinutes` is the device's offset from UTC.
// Empty when the line has no date the wall clock can be told from.
std::optional<CaptureClock> captureClockOf(std::string_view raw, int64_t timeNs, int year,
                                           int utcOffsetMinutes);

// One packet sequence of a trace file: the packets it makes wait in a buffer that is written
// out when it grows past kFlushAt (flush() writes the rest). Threads: one at a time.
class StreamWriter {
 public:
  static constexpr size_t kFlushAt = size_t(1) << 18;
  StreamWriter(std::ostream& out, uint32_t sequenceId, uint32_t clockId)
      : out_(out), sequence_(sequenceId, clockId) {}
  Sequence& sequence() { return sequence_; }
  std::string* buffer() { return &buffer_; }
  // After each packet: writes the buffer out once it is large.
  void written() {
    if (buffer_.size() >= kFlushAt) flush();
  }
  void flush() {
    out_.write(buffer_.data(), std::streamsize(buffer_.size()));
    buffer_.clear();
  }
  // A thread's track, declared (without its name) the first time it is used. Its uuid counts
  // the threads in the order they came: a short varint in every event.
  uint64_t threadTrack(uint64_t process, int pid, int tid) {
    auto found = threads_.emplace(tid, trackUuid(TrackKind::Thread, threads_.size()));
    if (found.second) {
      sequence_.threadTrack(&buffer_, found.first->second, process, pid, tid, "");
      written();
    }
    return found.first->second;
  }
  // Declares a thread's track again, named.
  void nameThread(uint64_t process, int pid, int tid, std::string_view name) {
    sequence_.threadTrack(&buffer_, threadTrack(process, pid, tid), process, pid, tid, name);
    written();
  }

 private:
  std::ostream& out_;
  Sequence sequence_;
  std::string buffer_;
  std::map<int, uint64_t> threads_;  // tid -> track: a capture has tens of threads
};

}  // namespace pftrace
}  // namespace orvcam
