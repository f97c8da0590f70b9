// What camdeliver-log's trace adds to a capture's timeline: the session's log lines as Android
// log events (the deliverer's, or every line of its process), on the wall clock of the
// session's own first line; a gzip'd JSON trace that is the JSON trace. And the flow arrows the
// simulator draws from its records.
#include <gtest/gtest.h>
#include <zlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "PerfettoProto.h"
#include "PftraceCheck.h"
#include "log/LogReport.h"
#include "logread/LogReader.h"
#include "sim/Runner.h"

namespace orvcam {
namespace {

using log::TraceWriter;
using logread::LogReader;
using logread::Run;

// A second of another process's lines first, then a session of process 42 with a line of
// another tag in it, and a line of process 7 during it.
const std::vector<std::string> kCapture = {
    "11-22 03:07:49.000  7  7 I Other: before any session",
    "11-22 03:07:50.000 42 43 I Camera: opening, before the deliverer's first line",
    "11-22 03:07:50.944 42 43 D OrvCam/CamDeliverGuard: [prepare] [S:0 F:1] prepared, order(0)",
    "11-22 03:07:50.945 42 44 D OrvCam/CamDeliverGuard: [prepare] [S:1 F:1] prepared, order(0)",
    "11-22 03:07:50.946 42 43 W Camera: a line of the process, not of the deliverer",
    "11-22 03:07:50.946  7  7 I Other: another process",
    "11-22 03:07:50.950 42 43 D OrvCam/CamDeliver: [sendJobForConfigure] [S:0 F:1]",
};
constexpr uint64_t kWallAtFirstStamp = 1763780869000000000;  // 2025-11-22 03:07:49 UTC

// Reads the capture, giving its lines to one trace of process 42 (made at its session's
// first line, as camdeliver-log makes it): the trace's bytes.
std::string traceWithLines(bool all, test::PftraceCounts* counts) {
  LogReader reader;
  log::TraceLogFeed feed(all);
  std::ostringstream out;
  std::unique_ptr<TraceWriter> writer;
  log::TraceOptions options;
  options.perfetto = true;
  options.clockId = pftrace::kClockRealtime;
  for (const std::string& line : kCapture) {
    feed.before(reader);
    reader.addLine(line);
    feed.after(reader, line, [&](const Run& run) {
      if (!writer) {
        options.firstStampNs = kWallAtFirstStamp + uint64_t(log::sessionStartNs(reader, run));
        writer = std::make_unique<TraceWriter>(out, run.pid, nullptr, options);
      }
      return writer.get();
    });
  }
  std::vector<Run> runs = reader.finish();
  EXPECT_TRUE(writer && writer->takesLogLines());
  if (!writer) return "";
  writer->finish(runs.at(0));
  std::string bytes = out.str();
  std::vector<std::string> problems = test::checkPftraceStructure(bytes, true, counts);
  EXPECT_TRUE(problems.empty()) << problems.front();
  return bytes;
}

TEST(TraceLogs, DelivererLinesOrEveryLineOfTheProcessOnTheSessionsWallClock) {
  test::PftraceCounts deliverer, all;
  std::string bytes = traceWithLines(false, &deliverer);
  traceWithLines(true, &all);
  EXPECT_EQ(deliverer.logEvents, 3u);
  // The process's other line during the session; not the one before it, not process 7's.
  EXPECT_EQ(all.logEvents, 4u);
  // The snapshot reads the session's first line (0.944 s after the file's first stamp), and the
  // first event is that line, at that very time.
  std::string sessionStart = std::to_string(kWallAtFirstStamp + 1944000000ULL);
  std::string encoded;
  pftrace::Encoder(&encoded).varint(kWallAtFirstStamp + 1944000000ULL);
  size_t first = bytes.find(encoded);
  ASSERT_NE(first, std::string::npos) << "no reading of " << sessionStart;
  EXPECT_NE(bytes.find(encoded, first + 1), std::string::npos)
      << "no log event at " << sessionStart;
}

TEST(TraceLogs, OnlyAProtobufTraceOnTheWallClockTakesThem) {
  std::ostringstream out;
  log::TraceOptions monotonic;
  monotonic.perfetto = true;
  monotonic.clockId = pftrace::kClockMonotonic;
  EXPECT_FALSE(TraceWriter(out, 1, nullptr, monotonic).takesLogLines());
  log::TraceOptions json;
  json.clockId = pftrace::kClockRealtime;
  EXPECT_FALSE(TraceWriter(out, 1, nullptr, json).takesLogLines());
}

TEST(TraceLogs, GzipJsonTraceIsTheJsonTrace) {
  LogReader reader;
  for (const std::string& line : kCapture) reader.addLine(line);
  logread::Run run = reader.finish().at(0);
  std::ostringstream plain, zipped;
  log::writeTrace(plain, run);
  log::TraceOptions gzip;
  gzip.gzip = true;
  {
    TraceWriter writer(zipped, run.pid, nullptr, gzip);
    writer.finish(run);
  }
  std::string z = zipped.str();
  ASSERT_GT(z.size(), 2u);
  EXPECT_EQ(uint8_t(z[0]), 0x1f);  // gzip's magic
  std::string text(plain.str().size() + 16, '\0');
  z_stream s{};
  ASSERT_EQ(inflateInit2(&s, 15 + 16), Z_OK);
  s.next_in = reinterpret_cast<Bytef*>(z.data());
  s.avail_in = uInt(z.size());
  s.next_out = reinterpret_cast<Bytef*>(text.data());
  s.avail_out = uInt(text.size());
  EXPECT_EQ(inflate(&s, Z_FINISH), Z_STREAM_END) << "the stream does not end";
  text.resize(s.total_out);
  inflateEnd(&s);
  EXPECT_EQ(text, plain.str());
}

// The simulator's arrows: from the partner of the previous frame's sync group enqueued last,
// when it ended during the wait, to the waiting enqueue, whichever sensor it is.
TEST(SimFlows, FromThePartnerThatReleasedTheWait) {
  history::History h;
  history::FramePlan f1, f2;
  f1.frame = 1;
  f1.sensors = {0, 1, 2};
  f1.syncList = {0, 1};
  f2.frame = 2;
  f2.sensors = {0, 1, 2};
  h.plans = {f1, f2};
  for (uint32_t s : {0u, 1u, 2u}) h.prepares.push_back({s, 1, 10 + s, 0});
  for (uint32_t s : {0u, 1u, 2u}) h.prepares.push_back({s, 2, 20 + s, 0});
  auto enqueue = [&](uint32_t s, uint32_t f, history::Nanos sent, history::Nanos start,
                     history::Nanos end) {
    history::JobRecord j;
    j.sensor = s;
    j.frame = f;
    j.sent = sent, j.start = start, j.end = end, j.ran = true;
    h.jobs.push_back(j);
    return h.jobs.size() - 1;
  };
  size_t s0f1 = enqueue(0, 1, 100, 100, 200);
  size_t s1f1 = enqueue(1, 1, 100, 150, 300);
  enqueue(2, 1, 100, 100, 120);
  size_t s0f2 = enqueue(0, 2, 250, 310, 400);  // waited for S:1, which ended at 300
  size_t s2f2 = enqueue(2, 2, 130, 305, 350);  // not in the group, waits for it all the same
  enqueue(1, 2, 350, 350, 450);                // S:0 had ended before it was sent: no wait
  std::vector<sim::Release> r = sim::releasedWaits(h);
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0].releaser, s1f1);
  EXPECT_EQ(r[0].released, s0f2);
  EXPECT_EQ(r[1].releaser, s1f1);
  EXPECT_EQ(r[1].released, s2f2);
  // A partner still running when the waiting job started (a broken sync) released nothing.
  h.jobs[s1f1].end = 308;
  r = sim::releasedWaits(h);
  ASSERT_EQ(r.size(), 1u);
  EXPECT_EQ(r[0].released, s0f2);
  (void)s0f1;
}

}  // namespace
}  // namespace orvcam
