#pragma once
// Hand-written logs for the tests of camdeliver-log's reader and of its analysis: the
// deliverer's lines as a threadtime capture of process 100, sensor S on thread 10 + S.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "log/LogReport.h"
#include "logread/LogReader.h"

namespace orvcam {
namespace logread {

// A threadtime line of process 100 at `ms` milliseconds past 10:00:00.
inline std::string tt(int ms, int tid, char level, const char* tag, const std::string& text) {
  char buf[1200];
  std::snprintf(buf, sizeof buf, "11-22 10:00:%02d.%03d   100   %d %c OrvCam/%s: %s", ms / 1000,
                ms % 1000, tid, level, tag, text.c_str());
  return buf;
}

// "[S:s F:f]", as the deliverer names a sensor's frame.
inline std::string sf(int s, int f) {
  return "[S:" + std::to_string(s) + " F:" + std::to_string(f) + "]";
}

inline std::string prepareLine(int ms, int s, int f, int order) {
  return tt(ms, 10 + s, 'D', "CamDeliverGuard",
            "[prepare] " + sf(s, f) + " prepared, order(" + std::to_string(order) + ")");
}

// The licence an enqueue of S:s F:f takes, with the frame's FD.
inline std::string licenceLine(int ms, int s, int f, int fd) {
  return tt(ms, 10 + s, 'D', "CamDeliver",
            "[getLicense] " + sf(s, f) + " FD(" + std::to_string(fd) + ")");
}

// The enqueue's completion; `last`: the last sensor of the frame, which erases its record.
inline std::string finishedLine(int ms, int s, int f, bool last) {
  return tt(ms, 10 + s, 'D', "CamDeliverGuard",
            "[finished] " + sf(s, f) + " EnqJob finished. " + (last ? "Is last, erase it." : ""));
}

// The one run a reader's log holds (a failure, and an empty run, if it holds another number).
inline Run onlyRun(LogReader& reader) {
  std::vector<Run> runs = reader.finish();
  EXPECT_EQ(runs.size(), 1u);
  return runs.empty() ? Run() : runs.front();
}

// A log written line by line into its reader.
struct HandLog {
  void add(const std::string& line) { reader.addLine(line); }
  void prepare(int ms, int s, int f, int order) { add(prepareLine(ms, s, f, order)); }
  // An enqueue of S:s F:f with licence FD `fd` at `ms`, finished a millisecond later.
  void enqueue(int ms, int s, int f, int fd, bool last) {
    add(licenceLine(ms, s, f, fd));
    add(finishedLine(ms + 1, s, f, last));
  }
  // Frame f of sensors 0 and 1 in sync: prepared at `ms` and a millisecond later, or enqueued
  // with one FD at `ms` and two milliseconds later (sensor 1 the last).
  void prepareBoth(int ms, int f, int order) {
    prepare(ms, 0, f, order);
    prepare(ms + 1, 1, f, order);
  }
  void enqueueBoth(int ms, int f, int fd) {
    enqueue(ms, 0, f, fd, false);
    enqueue(ms + 2, 1, f, fd, true);
  }
  Run only() { return onlyRun(reader); }

  LogReader reader;
};

class LogTest : public ::testing::Test, public HandLog {};

inline std::vector<std::string> kinds(const log::Analysis& a) {
  std::vector<std::string> out;
  for (const log::Finding& f : a.findings) out.push_back(f.kind);
  return out;
}

// --strict: warnings that are not benign fail the run too.
inline log::AnalysisOptions strictOptions() {
  log::AnalysisOptions strict;
  strict.strict = true;
  return strict;
}

}  // namespace logread
}  // namespace orvcam
