#pragma once
// The structure a Perfetto protobuf trace must have for its importer to show it as meant,
// checked without a viewer and without Perfetto's library: the wire format decoded from the
// public field numbers, then per sequence the flags and interned names, per track its
// declaration and its slices balanced, flows begun and ended once, clocks known.
#include <string>
#include <string_view>
#include <vector>

namespace orvcam {
namespace test {

// What a trace holds, counted while it is checked.
struct PftraceCounts {
  size_t packets = 0;
  size_t flows = 0;      // flows begun
  size_t logEvents = 0;  // Android log events
};

// Every problem found, as "packet N: what is wrong". `complete` also asks that every slice
// that began has ended and every flow that began has been terminated; a trace cut by an abort
// may leave some open. Android log events need a snapshot naming CLOCK_REALTIME (their clock)
// before them, times not before its reading, and a priority of logcat's V to F.
std::vector<std::string> checkPftraceStructure(std::string_view trace, bool complete,
                                               PftraceCounts* counts = nullptr);

}  // namespace test
}  // namespace orvcam
