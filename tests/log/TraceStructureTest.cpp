// The trace structure check catches what would mislead a viewer, and a trace whose process
// ended through a fatal assertion is still valid JSON with its last events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "CamDeliverGuard.h"
#include "TestSupport.h"
#include "TraceCheck.h"

namespace orvcam {
namespace test {
namespace {

using json = nlohmann::json;
using ::testing::HasSubstr;

json ev(const char* ph, const char* name, int tid, double ts) {
  return {{"ph", ph}, {"name", name}, {"pid", 1}, {"tid", tid}, {"ts", ts}};
}

TEST(TraceStructureTest, FindsWhatAViewerWouldMisread) {
  json good = json::array(
      {{{"ph", "M"}, {"name", "process_name"}, {"pid", 1}, {"tid", 1}, {"args", {{"name", "p"}}}},
       ev("B", "outer", 1, 1),
       ev("B", "inner", 1, 2),
       ev("E", "inner", 1, 3),
       ev("E", "outer", 1, 4)});
  EXPECT_TRUE(checkTraceStructure(good, true).empty());

  struct Case {
    json events;
    const char* problem;
  };
  json async = ev("e", "F:1", 1, 5);
  async["id"] = 1;
  json flowEnd = ev("f", "wake", 1, 5);
  flowEnd["id"] = 9;
  json counter = ev("C", "frames", 1, 5);
  counter["args"] = {{"value", "many"}};
  json meta = {{"ph", "M"},
               {"name", "thread_sort_index"},
               {"pid", 1},
               {"tid", 1},
               {"args", {{"sort_index", "first"}}}};
  const Case cases[] = {
      {json::array({ev("B", "a", 1, 1), ev("E", "b", 1, 2)}), "by another name"},
      {json::array({ev("E", "a", 1, 1)}), "none open"},
      {json::array({ev("B", "a", 1, 2), ev("E", "a", 1, 1)}), "ends before its section began"},
      {json::array({ev("B", "a", 1, 1), ev("E", "a", 2, 2)}), "none open"},
      {json::array({async}), "not open"},
      {json::array({flowEnd}), "never started"},
      {json::array({counter}), "not a number"},
      {json::array({meta}), "integer \"args.sort_index\""},
      {json::array({ev("X", "job", 1, 1)}), "non-negative \"dur\""},
      {json::array({ev("B", "a", 1, 1)}), "never ends"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> problems = checkTraceStructure(c.events, true);
    ASSERT_FALSE(problems.empty()) << c.events.dump();
    EXPECT_THAT(problems[0], HasSubstr(c.problem)) << c.events.dump();
  }
}

// Child: opens a trace, writes a few events and ends through the guard's fatal assertion.
void traceThenAbort(const std::string& path) {
  std::string error;
  if (!host::openTraceFile(path, &error)) _exit(3);
  host::traceThreadName("main");
  host::traceBegin("before abort");
  host::traceCounter("frames in flight", 1);
  host::traceInstant("last event");
  NSCam::camsys::camcoordinator::CamDeliverGuard guard;
  guard.prepare(0, 1, nullptr);
}

TEST(TraceStructureTest, AbortedProcessLeavesValidJsonWithItsLastEvents) {
  std::string path = testing::TempDir() + "aborted-trace" + std::to_string(getpid()) + ".json";
  EXPECT_EXIT(traceThenAbort(path), ::testing::KilledBySignal(SIGABRT), "pFc nullptr");
  std::ifstream in(path);
  json trace;
  ASSERT_NO_THROW(trace = json::parse(in)) << "the trace of the aborted process is not JSON";
  EXPECT_TRUE(checkTraceStructure(trace, false).empty());
  ASSERT_TRUE(trace.is_array());
  EXPECT_EQ(trace.front()["name"], "process_name");
  EXPECT_EQ(trace.back()["name"], "last event");
  std::remove(path.c_str());
}

// A gzip'd trace, read back whole: the stream must end properly.
json gunzipJson(const std::string& path) {
  gzFile in = gzopen(path.c_str(), "rb");
  if (!in) return nullptr;
  std::string text;
  char chunk[1 << 14];
  int n = 0;
  while ((n = gzread(in, chunk, sizeof(chunk))) > 0) text.append(chunk, size_t(n));
  int error = Z_OK;
  gzerror(in, &error);
  gzclose(in);
  if (n < 0 || error != Z_OK) return nullptr;
  return json::parse(text, nullptr, false);
}

// Child: a gzip'd trace with an arrow drawn afterwards between two threads' sections, then a
// fatal assertion (which ends the stream under the trace's lock) or a bare abort() (the signal
// handler ends it, with what reached the stream: enough events to have been flushed to it).
void gzipTraceThenAbort(const std::string& path, bool bare) {
  std::string error;
  if (!host::openTraceFile(path, &error)) _exit(3);
  auto t0 = std::chrono::steady_clock::now();
  int main = host::traceThreadId(), other = 0;
  std::thread([&] {
    other = host::traceThreadId();
    host::traceBegin("partner job");
    host::traceEnd("partner job");
  }).join();
  host::traceBegin("waiting job");
  host::traceFlowBetween("releases", 7, other, t0, main, std::chrono::steady_clock::now());
  for (int i = 0; i < (bare ? 3000 : 3); ++i) host::traceInstant("event " + std::to_string(i));
  if (bare) std::abort();
  NSCam::camsys::camcoordinator::CamDeliverGuard guard;
  guard.prepare(0, 1, nullptr);
}

TEST(TraceStructureTest, GzipTraceOfAnAbortedProcessIsWholeWithItsFlow) {
  for (bool bare : {false, true}) {
    std::string path = testing::TempDir() + "aborted-trace" + std::to_string(getpid()) +
                       (bare ? "-bare" : "") + ".json.gz";
    EXPECT_EXIT(gzipTraceThenAbort(path, bare), ::testing::KilledBySignal(SIGABRT), "");
    json trace = gunzipJson(path);
    ASSERT_TRUE(trace.is_array()) << path << ": not a whole gzip stream of JSON";
    EXPECT_TRUE(checkTraceStructure(trace, false).empty()) << path;
    size_t flowEvents = 0;
    for (const json& e : trace) flowEvents += e["ph"] == "s" || e["ph"] == "f";
    EXPECT_EQ(flowEvents, 2u) << path;
    if (!bare) {
      EXPECT_EQ(trace.back()["name"], "event 2");
    }
    std::remove(path.c_str());
  }
}

}  // namespace
}  // namespace test
}  // namespace orvcam
