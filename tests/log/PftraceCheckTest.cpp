// The protobuf trace checker on small traces made with the writers' encoder: a sound trace
// passes, and each fault is caught. And the clock a capture's trace is tied to.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "PerfettoProto.h"
#include "PftraceCheck.h"
#include "logread/LogReader.h"
#include "pftrace/PerfettoWriter.h"

namespace orvcam {
namespace {

using pftrace::Sequence;
using test::checkPftraceStructure;

constexpr uint64_t kProcess = 1, kThread = 2, kFrames = 3, kCount = 4;

// A process with a thread track, an async track and a counter track on one sequence.
struct Trace {
  Sequence seq{7, pftrace::kClockCapture};
  std::string bytes;
  Trace() {
    const Sequence::ClockReading clocks[] = {{pftrace::kClockCapture, 0, 1000},
                                             {pftrace::kClockRealtime, 1764000000000000000, 1}};
    seq.clockSnapshot(&bytes, clocks, 2, pftrace::kClockRealtime);
    seq.processTrack(&bytes, kProcess, 10, "proc");
    seq.threadTrack(&bytes, kThread, kProcess, 10, 11, "sensor 0");
    seq.track(&bytes, kFrames, kProcess, "frames");
    seq.track(&bytes, kCount, kProcess, "frames in flight", true);
  }
  void slice(uint64_t track, uint64_t from, uint64_t to, const char* name) {
    seq.event(&bytes, pftrace::kSliceBegin, from, track, "job", name, true);
    seq.end(&bytes, to, track);
  }
  void flow(uint64_t ts, uint64_t id, bool terminating) {
    Sequence::Flow flow{id, terminating};
    seq.event(&bytes, pftrace::kInstant, ts, kThread, "flow", "releases", true, &flow);
  }
};

std::string problems(const std::string& bytes, bool complete = true) {
  std::string text;
  for (const std::string& p : checkPftraceStructure(bytes, complete)) text += p + "\n";
  return text;
}

// One packet of hand-chosen fields, on sequence 7 unless `sequence` says otherwise.
std::string packet(uint64_t flags, const std::string& event, uint32_t sequence = 7) {
  std::string body;
  pftrace::Encoder p(&body);
  p.number(pftrace::field::kSequenceId, sequence);
  if (flags) p.number(pftrace::field::kSequenceFlags, int64_t(flags));
  p.number(pftrace::field::kTimestamp, 5);
  if (!event.empty()) p.bytes(pftrace::field::kTrackEvent, event);
  std::string out;
  pftrace::Encoder(&out).bytes(pftrace::field::kTracePacket, body);
  return out;
}

std::string instantEvent(uint64_t track, uint64_t nameIid) {
  std::string event;
  pftrace::Encoder e(&event);
  e.number(pftrace::field::kType, pftrace::kInstant);
  e.number(pftrace::field::kTrackUuid, int64_t(track));
  e.number(pftrace::field::kNameIid, int64_t(nameIid));
  return event;
}

TEST(PftraceCheck, SoundTracePasses) {
  Trace t;
  t.slice(kThread, 100, 300, "EnqJob");
  t.slice(kThread, 150, 200, "inner");
  t.flow(120, 42, false);
  t.seq.event(&t.bytes, pftrace::kSliceBegin, 90, kFrames, "frame", "F:1", false);
  t.seq.end(&t.bytes, 400, kFrames);
  t.seq.counter(&t.bytes, 90, kCount, 1);
  t.slice(kThread, 500, 600, "EnqJob");
  t.flow(510, 42, true);
  EXPECT_EQ(problems(t.bytes), "");
  // An empty trace has nothing wrong in it; trace_check refuses it for being empty.
  EXPECT_EQ(problems(""), "");
}

TEST(PftraceCheck, BrokenEncoding) {
  Trace t;
  t.slice(kThread, 1, 2, "x");
  EXPECT_NE(problems(t.bytes.substr(0, t.bytes.size() - 1)).find("runs past the end"),
            std::string::npos);
  EXPECT_NE(problems("\x0a\x05\x08").find("runs past the end"), std::string::npos);
  // Field 2 at the top: not a packet.
  EXPECT_NE(problems(std::string("\x12\x00", 2)).find("only TracePacket"), std::string::npos);
}

TEST(PftraceCheck, SlicesBalancedPerTrack) {
  Trace t;
  t.seq.end(&t.bytes, 50, kThread);
  EXPECT_NE(problems(t.bytes).find("ends a slice on track 2 with none open"), std::string::npos);
  Trace open;
  open.seq.event(&open.bytes, pftrace::kSliceBegin, 10, kFrames, "frame", "F:1", false);
  EXPECT_NE(problems(open.bytes).find("never ends"), std::string::npos);
  EXPECT_EQ(problems(open.bytes, false), "");  // a trace cut by an abort may leave it open
  // An end on another track does not close it.
  open.seq.end(&open.bytes, 20, kThread);
  EXPECT_NE(problems(open.bytes).find("track 3 never ends"), std::string::npos);
  EXPECT_NE(problems(open.bytes).find("track 2 with none open"), std::string::npos);
}

TEST(PftraceCheck, EventsOnDeclaredTracksOfTheirKind) {
  Trace t;
  t.slice(99, 1, 2, "x");
  EXPECT_NE(problems(t.bytes).find("track 99, which no descriptor before it declares"),
            std::string::npos);
  Trace counter;
  counter.seq.counter(&counter.bytes, 5, kThread, 3);
  EXPECT_NE(problems(counter.bytes).find("not a counter track"), std::string::npos);
  Trace onCounter;
  onCounter.slice(kCount, 1, 2, "x");
  EXPECT_NE(problems(onCounter.bytes).find("a slice or instant on counter track"),
            std::string::npos);
  Trace orphan;
  orphan.seq.track(&orphan.bytes, 77, 55, "lost");
  EXPECT_NE(problems(orphan.bytes).find("parent 55, which is never declared"), std::string::npos);
}

TEST(PftraceCheck, InternedIdsResolvedAndFlagged) {
  Trace t;
  t.slice(kThread, 1, 2, "x");  // interns iid 1 for names, 1 for categories
  EXPECT_EQ(problems(t.bytes), "");
  std::string unknown = t.bytes + packet(pftrace::kNeedsIncrementalState, instantEvent(kThread, 9));
  EXPECT_NE(problems(unknown).find("name iid 9 is not interned"), std::string::npos);
  std::string unflagged = t.bytes + packet(0, instantEvent(kThread, 1));
  EXPECT_NE(problems(unflagged).find("interned ids without a sequence flag"), std::string::npos);
  // Cleared again, the names interned before are gone.
  std::string cleared =
      t.bytes + packet(pftrace::kIncrementalStateCleared, instantEvent(kThread, 1));
  EXPECT_NE(problems(cleared).find("name iid 1 is not interned"), std::string::npos);
  // Interned on one sequence, used on another.
  std::string other = t.bytes + packet(pftrace::kIncrementalStateCleared, "", 8) +
                      packet(pftrace::kNeedsIncrementalState, instantEvent(kThread, 1), 8);
  EXPECT_NE(problems(other).find("name iid 1 is not interned"), std::string::npos);
}

TEST(PftraceCheck, SequenceFlagsAndClocks) {
  // A sequence whose first packet (the one that clears the state) was lost.
  Trace t;
  std::string lost = t.bytes;
  Sequence seq(9);
  std::string first;
  seq.processTrack(&first, 500, 1, "p");
  seq.event(&lost, pftrace::kInstant, 1, kThread, "c", "n", true);
  EXPECT_NE(problems(lost).find("needs the incremental state of sequence 9 before any packet "
                                "cleared it"),
            std::string::npos);
  // Events on the sequence's own clock with no snapshot naming it.
  Sequence unclocked(3, pftrace::kClockCapture);
  std::string bytes;
  unclocked.processTrack(&bytes, kProcess, 1, "p");
  unclocked.event(&bytes, pftrace::kInstant, 1, kProcess, "c", "n", true);
  EXPECT_NE(problems(bytes).find("which no clock snapshot of its sequence names"),
            std::string::npos);
}

TEST(PftraceCheck, FlowsPaired) {
  Trace twice;
  twice.flow(1, 5, false);
  twice.flow(2, 5, false);
  twice.flow(3, 5, true);
  EXPECT_NE(problems(twice.bytes).find("flow 5 begun again"), std::string::npos);
  Trace orphan;
  orphan.flow(3, 6, true);
  EXPECT_NE(problems(orphan.bytes).find("flow 6 terminated before it began"), std::string::npos);
  Trace open;
  open.flow(3, 7, false);
  EXPECT_NE(problems(open.bytes).find("flow 7 never terminated"), std::string::npos);
  Trace backwards;
  backwards.flow(9, 8, false);
  backwards.flow(3, 8, true);
  EXPECT_NE(problems(backwards.bytes).find("flow 8 terminated at an earlier time"),
            std::string::npos);
}

// Log lines as Android log events: on the wall clock a snapshot names, at or after its reading,
// with logcat's priorities; counted.
TEST(PftraceCheck, AndroidLogEventsOnTheWallClock) {
  constexpr uint64_t kWall = 1764000000000000000;
  auto logPacket = [](Sequence& seq, std::string* out, uint64_t at, pftrace::LogPriority prio) {
    std::string events;
    Sequence::logEvent(&events, at, 10, 11, prio, "OrvCam/CamDeliver", "[prepare] [S:0 F:1]");
    Sequence::logEvent(&events, at + 5, 10, 11, pftrace::logPriority('E'), "Other", "text");
    seq.androidLog(out, events);
  };
  Trace t;
  logPacket(t.seq, &t.bytes, kWall + 100, pftrace::kPrioDebug);
  test::PftraceCounts counts;
  EXPECT_TRUE(checkPftraceStructure(t.bytes, true, &counts).empty()) << problems(t.bytes);
  EXPECT_EQ(counts.logEvents, 2u);

  Trace early;
  logPacket(early.seq, &early.bytes, kWall - 1000, pftrace::kPrioDebug);
  EXPECT_NE(problems(early.bytes).find("before the wall-clock reading"), std::string::npos);
  Trace loud;
  logPacket(loud.seq, &loud.bytes, kWall, pftrace::LogPriority(9));
  EXPECT_NE(problems(loud.bytes).find("priority 9"), std::string::npos);
  // No snapshot names CLOCK_REALTIME: the importer cannot place the events.
  Sequence seq{7};
  std::string bytes;
  logPacket(seq, &bytes, kWall, pftrace::kPrioInfo);
  EXPECT_NE(problems(bytes).find("names CLOCK_REALTIME"), std::string::npos);
}

TEST(PftraceCheck, InterningTableStaysBounded) {
  Sequence seq(1);
  std::string bytes;
  seq.processTrack(&bytes, kProcess, 1, "p");
  for (size_t i = 0; i < Sequence::kMaxInterned * 2 + 10; ++i) {
    seq.event(&bytes, pftrace::kInstant, i, kProcess, "c", "name " + std::to_string(i), true);
    ASSERT_LE(seq.internedCount(), Sequence::kMaxInterned);
  }
  EXPECT_EQ(problems(bytes), "");
}

}  // namespace
}  // namespace orvcam

namespace orvcam {
namespace {

// The capture's clock from its first stamped line, as the log reader parses it.
std::optional<pftrace::CaptureClock> clockOf(const std::string& line, int year, int offset = 0) {
  logread::LogLine parsed;
  EXPECT_TRUE(logread::parseLogLine(line, &parsed)) << line;
  return pftrace::captureClockOf(line, parsed.timeNs, year, offset);
}

TEST(PftraceClock, CaptureStampsOnTheWallClock) {
  const std::string tail = " 30866 30869 D OrvCam/CamDeliverGuard: [prepare] [S:1 F:1] x";
  auto clock = clockOf("11-26 05:55:27.213445" + tail, 2026);
  ASSERT_TRUE(clock);
  EXPECT_EQ(clock->clockId, pftrace::kClockRealtime);
  EXPECT_EQ(clock->firstNs, 1795672527213445000ULL);
  // The reader counts days as in a leap year; 1 March of a common year is still 1 March.
  clock = clockOf("2027-03-01 00:00:00.000" + tail, 0);
  ASSERT_TRUE(clock);
  EXPECT_EQ(clock->firstNs, 1803859200000000000ULL);
  // Local time two hours ahead of UTC.
  clock = clockOf("2027-03-01 02:00:00.000" + tail, 0, 120);
  ASSERT_TRUE(clock);
  EXPECT_EQ(clock->firstNs, 1803859200000000000ULL);
  // Seconds since the epoch are the wall clock already; seconds since boot are the monotonic
  // clock.
  clock = clockOf("1803859200.500" + tail, 0);
  ASSERT_TRUE(clock);
  EXPECT_EQ(clock->clockId, pftrace::kClockRealtime);
  EXPECT_EQ(clock->firstNs, 1803859200500000000ULL);
  clock = clockOf("  1234.500" + tail, 0);
  ASSERT_TRUE(clock);
  EXPECT_EQ(clock->clockId, pftrace::kClockMonotonic);
  EXPECT_EQ(clock->firstNs, 1234500000000ULL);
}

}  // namespace
}  // namespace orvcam
