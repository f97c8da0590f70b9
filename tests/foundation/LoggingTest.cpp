// The logging layer seen from a source unit of its own: gates, sinks, line layout,
// truncation, fatal assertions and trace sections.
#define CD_LOG_TAG "OrvCam/LogTest"
#include "CamDeliverLog.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <fstream>

#include "TestSupport.h"

namespace {

using ::orvcam::host::LogCapture;
using ::orvcam::host::LogLine;
using ::orvcam::test::LoggerScope;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr char kTag[] = "OrvCam/LogTest";

// Returns the line of its log call.
int debugLine(int v) {
  const int line = __LINE__ + 1;
  CD_LOGD("[%s] value %d", v);
  return line;
}
void verboseLine(int level, int v) { CD_LOGV(level, "[%s] verbose %d", v); }
void warningLine(int v) { CD_LOGW("[%s] warn %d", v); }
void errorLine(int v) { CD_LOGE("[%s] error %d", v); }
void longLine(const std::string& text) { CD_LOGW("[%s] %s", text.c_str()); }
[[noreturn]] void fatalLine(int v) { CD_FATAL("broken %d", v); }

// What the given settings let through of one line of each level.
std::vector<std::string> emitEachLevel(int detailsLevel, uint32_t mask) {
  LoggerScope s(detailsLevel, mask);
  LogCapture capture;
  debugLine(1);
  verboseLine(1, 2);
  verboseLine(0, 5);
  warningLine(3);
  errorLine(4);
  return capture.messages(kTag);
}

TEST(LogGates, EachLevelNeedsItsDetailLevelAndDebugNeedsTheWholeMask) {
  const std::string d = "[debugLine] value 1", v = "[verboseLine] verbose 2";
  const std::string w = "[warningLine] warn 3", e = "[errorLine] error 4";
  EXPECT_THAT(emitEachLevel(5, 0x401000), ElementsAre(d, v, w, e));
  EXPECT_THAT(emitEachLevel(7, 0xFFFFFFFF), ElementsAre(d, v, w, e));
  EXPECT_THAT(emitEachLevel(4, 0x401000), ElementsAre(w, e));
  EXPECT_THAT(emitEachLevel(2, 0xFFFFFFFF), ElementsAre(w, e));
  EXPECT_THAT(emitEachLevel(5, 0x400000), ElementsAre(w, e));
  EXPECT_THAT(emitEachLevel(1, 0x401000), ElementsAre(e));
  EXPECT_THAT(emitEachLevel(0, 0), ElementsAre(e));
}

TEST(LogGates, ArgumentsOfADisabledLineAreNotEvaluated) {
  int calls = 0;
  auto arg = [&calls] { return ++calls; };
  LoggerScope closed(4, 0x401000, 3);
  CD_LOGD("[%s] %d", arg());
  LoggerScope open(5, 0x401000, 3);
  CD_LOGV(0, "[%s] %d", arg());
  EXPECT_EQ(calls, 0);
  LogCapture capture;
  CD_LOGD("[%s] %d", arg());  // two sinks, one evaluation
  EXPECT_EQ(calls, 1);
}

TEST(LogSinks, ModeBitsChooseTheSinks) {
  using Sink = LogLine::Sink;
  auto sinksFor = [](int mode) {
    LoggerScope s(5, 0x401000, mode);
    LogCapture capture;
    warningLine(9);
    std::vector<Sink> sinks;
    for (const auto& line : capture.lines()) sinks.push_back(line.sink);
    return sinks;
  };
  EXPECT_THAT(sinksFor(0), IsEmpty());
  EXPECT_THAT(sinksFor(1), ElementsAre(Sink::DebugPrint));
  EXPECT_THAT(sinksFor(2), ElementsAre(Sink::ULogger));
  EXPECT_THAT(sinksFor(8), ElementsAre(Sink::ULogger));
  EXPECT_THAT(sinksFor(3), ElementsAre(Sink::DebugPrint, Sink::ULogger));
}

TEST(LogSinks, DebugPrintLineCarriesPrefixTagFileLineAndFunction) {
  LoggerScope s(5, 0x401000, 1);
  LogCapture capture;
  const int line = debugLine(42);
  EXPECT_THAT(capture.messages(kTag),
              ElementsAre(std::string(g_logInfoLv[CAM_DEBUG_LEVEL_DEBUG].prefix) + "[" + kTag +
                          "] " + get_filename_log_control(__FILE__) + ":" + std::to_string(line) +
                          " debugLine() [debugLine] value 42"));
  // A disabled debug-print record silences that level on this sink.
  orvcam::host::setDebugPrintEnabled(CAM_DEBUG_LEVEL_DEBUG, false);
  debugLine(1);
  orvcam::host::setDebugPrintEnabled(CAM_DEBUG_LEVEL_DEBUG, true);
  EXPECT_EQ(capture.lines().size(), 1u);
}

TEST(LogSinks, LongLineIsCutTo1023Bytes) {
  LoggerScope s(5, 0x401000, 3);  // both sinks: neither may overrun its buffer
  const std::string head = "[longLine] ";
  const std::string fits(1023 - head.size(), 'a');
  LogCapture capture;
  longLine(fits);
  longLine(fits + "c");
  longLine(std::string(2000, 'b'));
  std::vector<std::string> unified;
  for (const auto& l : capture.lines())
    if (l.sink == LogLine::Sink::ULogger) unified.push_back(l.message);
  EXPECT_EQ(capture.lines().size(), 6u);
  EXPECT_THAT(unified,
              ElementsAre(head + fits, head + fits, head + std::string(1023 - head.size(), 'b')));
}

TEST(LogFatalDeathTest, AssertionLogsItsMessageThenAbortsWithTheLocationSuffix) {
  LoggerScope s(5, 0x401000, 2);
  EXPECT_EXIT(fatalLine(42), ::testing::KilledBySignal(SIGABRT),
              std::string(kTag) + ": broken 42\n(.|\n)*" +
                  orvcam::test::fatalRegex("broken 42", "fatalLine", "LoggingTest.cpp"));
  LoggerScope closed(0, 0, 0);
  EXPECT_FATAL(fatalLine(7), "broken 7", "fatalLine", "LoggingTest.cpp");
}

TEST(TraceSection, BeginAndEndAreWrittenOnlyWhenTheCameraTagIsOnAtEntry) {
  const std::string path = "/tmp/cdtrace-" + std::to_string(getpid()) + ".json";
  std::string error;
  ASSERT_TRUE(orvcam::host::openTraceFile(path, &error)) << error;
  orvcam::host::setTraceTags(~ATRACE_TAG_CAMERA);
  { CD_TRACE_SCOPE("S:%d F:%d", 1, 2); }
  orvcam::host::setTraceTags(ATRACE_TAG_CAMERA);
  {
    CD_TRACE_SCOPE("S:%d F:%d", 3, 4);
    orvcam::host::setTraceTags(0);  // the answer at entry holds for the whole section
  }
  orvcam::host::closeTraceFile();
  std::ifstream in(path);
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  unlink(path.c_str());
  EXPECT_EQ(text.find("S:1 F:2"), std::string::npos);
  const size_t begin = text.find("\"S:3 F:4\"");
  EXPECT_NE(text.find("\"S:3 F:4\"", begin + 1), std::string::npos) << text;
}

}  // namespace
