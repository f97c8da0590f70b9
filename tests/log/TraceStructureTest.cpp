// The trace structure check catches what would mislead a viewer, and a trace whose process
// ended through a fatal assertion is still valid JSON with its last events.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

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

}  // namespace
}  // namespace test
}  // namespace orvcam
