// camdeliver-log's reader and analysis on hand-written logs: the layouts it accepts, each kind
// of finding, and the history JSON round trip shared with the simulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "history/HistoryJson.h"
#include "log/LogReport.h"
#include "log/TextInput.h"
#include "logread/LogReader.h"
#include "logread/RepeatedLines.h"
#include "report/Report.h"

namespace orvcam {
namespace logread {

using namespace history;
using namespace check;
using namespace log;
using namespace report;
namespace {

using ::testing::HasSubstr;

// A threadtime line of process 100 at `ms` milliseconds past 10:00:00.
std::string tt(int ms, int tid, char level, const char* tag, const std::string& text) {
  char buf[1200];
  std::snprintf(buf, sizeof buf, "11-22 10:00:%02d.%03d   100   %d %c OrvCam/%s: %s", ms / 1000,
                ms % 1000, tid, level, tag, text.c_str());
  return buf;
}

class LogTest : public ::testing::Test {
 protected:
  void add(const std::string& line) { reader.addLine(line); }
  // Sensor `s` on thread 10 + s.
  void prepare(int ms, int s, int f, int order) {
    add(tt(ms, 10 + s, 'D', "CamDeliverGuard",
           "[prepare] [S:" + std::to_string(s) + " F:" + std::to_string(f) + "] prepared, order(" +
               std::to_string(order) + ")"));
  }
  void enqueue(int ms, int s, int f, int fd, bool last) {
    std::string sf = "[S:" + std::to_string(s) + " F:" + std::to_string(f) + "]";
    add(tt(ms, 10 + s, 'D', "CamDeliver",
           "[getLicense] " + sf + " FD(" + std::to_string(fd) + ")"));
    add(tt(ms + 1, 10 + s, 'D', "CamDeliverGuard",
           "[finished] " + sf + " EnqJob finished. " + (last ? "Is last, erase it." : "")));
  }
  logread::Run only() {
    std::vector<logread::Run> runs = reader.finish();
    EXPECT_EQ(runs.size(), 1u);
    return runs.empty() ? logread::Run() : runs.front();
  }
  static std::vector<std::string> kinds(const Analysis& a) {
    std::vector<std::string> out;
    for (const Finding& f : a.findings) out.push_back(f.kind);
    return out;
  }
  LogReader reader;
};

TEST(LogLineTest, ReadsEveryLayout) {
  LogLine l;
  ASSERT_TRUE(parseLogLine(
      "11-22 03:07:50.944  7792  7795 D OrvCam/CamDeliverGuard: [prepare] [S:0 F:1] x", &l));
  EXPECT_EQ(l.layout, Layout::ThreadTime);
  EXPECT_EQ(l.pid, 7792);
  EXPECT_EQ(l.tid, 7795);
  EXPECT_EQ(l.level, 'D');
  EXPECT_EQ(l.tag, "OrvCam/CamDeliverGuard");
  EXPECT_EQ(l.text, "[prepare] [S:0 F:1] x");
  // A bugreport's lines carry a year and a uid column.
  ASSERT_TRUE(parseLogLine(
      "2026-11-22 03:07:50.944123 cameraserver  7792  7795 W OrvCam/LicenseQueue: t", &l));
  EXPECT_EQ(l.pid, 7792);
  EXPECT_EQ(l.tid, 7795);
  EXPECT_EQ(l.level, 'W');
  LogLine earlier;
  ASSERT_TRUE(parseLogLine("11-22 03:07:50.943  1  2 D OrvCam/CamDeliver: a", &earlier));
  EXPECT_EQ(l.timeNs - earlier.timeNs, 1123000);
  ASSERT_TRUE(
      parseLogLine("11-22 03:07:50.944 E/OrvCam/CamDeliver( 7792): [S:0 F:1] pJob is null", &l));
  EXPECT_EQ(l.layout, Layout::Time);
  EXPECT_EQ(l.pid, 7792);
  EXPECT_EQ(l.tid, -1);
  EXPECT_EQ(l.text, "[S:0 F:1] pJob is null");
  ASSERT_TRUE(parseLogLine("D/OrvCam/CamDeliver(  42): [getLicense] [S:1 F:2] FD(3)", &l));
  EXPECT_EQ(l.layout, Layout::Brief);
  EXPECT_EQ(l.pid, 42);
  EXPECT_FALSE(l.hasTime);
  // The other layouts and modifiers: the tag, process, thread and time each keeps.
  struct Case {
    const char* line;
    Layout layout;
    int pid, tid;
    bool hasTime;
  };
  const Case cases[] = {
      {"D( 42) [getLicense] [S:1 F:2] FD(3)  (OrvCam/CamDeliver)", Layout::Process, 42, -1, false},
      {"D/OrvCam/CamDeliver: [getLicense] [S:1 F:2] FD(3)", Layout::Tag, -1, -1, false},
      {"D( 42:   43) [getLicense] [S:1 F:2] FD(3)", Layout::Thread, 42, 43, false},
      {"[getLicense] [S:1 F:2] FD(3)", Layout::Raw, -1, -1, false},
      {"1764000000.123456  42  43 D OrvCam/CamDeliver: [getLicense] [S:1 F:2] FD(3)",
       Layout::ThreadTime, 42, 43, true},
      {"  123.456 D/OrvCam/CamDeliver(cameraserver:   42): [getLicense] [S:1 F:2] FD(3)",
       Layout::Time, 42, -1, true},
      {"11-22 03:07:50.944 +0100 cameraserver:42  43 D OrvCam/CamDeliver: [getLicense] [S:1 F:2] "
       "FD(3)\r",
       Layout::ThreadTime, 42, 43, true},
      // Android Studio's Logcat window: since 2022 (columns, a package or none), and before.
      {"2026-11-22 03:07:50.944  42-43  OrvCam/CamDeliver  vendor.camera.provider  D  "
       "[getLicense] [S:1 F:2] FD(3)",
       Layout::Studio, 42, 43, true},
      {"2026-11-22 03:07:50.944  42-43  OrvCam/CamDeliver  D  [getLicense] [S:1 F:2] FD(3)",
       Layout::Studio, 42, 43, true},
      {"2026-11-22 03:07:50.944 42-43/vendor.camera.provider D/OrvCam/CamDeliver: [getLicense] "
       "[S:1 F:2] FD(3)",
       Layout::Studio, 42, 43, true},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(parseLogLine(c.line, &l)) << c.line;
    EXPECT_EQ(l.layout, c.layout) << c.line;
    EXPECT_EQ(l.pid, c.pid) << c.line;
    EXPECT_EQ(l.tid, c.tid) << c.line;
    EXPECT_EQ(l.hasTime, c.hasTime) << c.line;
    EXPECT_EQ(l.tag, "OrvCam/CamDeliver") << c.line;
    EXPECT_EQ(l.text, "[getLicense] [S:1 F:2] FD(3)") << c.line;
  }
  ASSERT_TRUE(parseLongHeader("[ 11-22 03:07:50.944  42:   43 W/OrvCam/LicenseQueue ]", &l));
  EXPECT_EQ(l.layout, Layout::Long);
  EXPECT_EQ(l.tid, 43);
  EXPECT_EQ(l.level, 'W');
  EXPECT_EQ(l.tag, "OrvCam/LicenseQueue");
  std::string buffer;
  EXPECT_EQ(stripColour("\x1b[38;5;75mD/T( 1): x\x1b[0m", &buffer), "D/T( 1): x");
  for (const char* junk : {"", "------ SYSTEM LOG (logcat -v threadtime -d *:v) ------",
                           "11-22 03:07:50.944", "--------- beginning of main"}) {
    EXPECT_FALSE(parseLogLine(junk, &l)) << junk;
  }
}

TEST_F(LogTest, SeparatesProcessesAndIgnoresOtherTags) {
  add("11-22 10:00:00.000   200   201 D OrvCam/CamDeliverGuard: [prepare] [S:3 F:9] prepared, "
      "order(0)");
  add("11-22 10:00:00.000   100   101 D CameraProvider: [prepare] [S:4 F:9] prepared, order(0)");
  prepare(1, 0, 1, 0);
  std::vector<logread::Run> runs = reader.finish();
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[0].pid, 200);
  EXPECT_EQ(runs[0].history.sensors, std::vector<uint32_t>{3});
  EXPECT_EQ(runs[1].history.sensors, std::vector<uint32_t>{0});
}

// Two synchronised sensors; sensor 1 never enqueues frame 1, so sensor 0's frame 2 waits.
TEST_F(LogTest, NamesTheBlockedSendAndItsMissingPartner) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  prepare(2, 0, 2, 1);
  prepare(3, 1, 2, 1);
  enqueue(10, 0, 1, 5, false);
  add(tt(20, 10, 'D', "FrameContextPool",
         "[getPreviousFC] [S:0 F:2] get previous frameNo(1) order(0) < currentOrder(1)"));
  add(tt(21, 10, 'D', "CamDeliverGuard",
         "[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ..."));
  add(tt(30, 12, 'D', "CamDeliver", "[notifyEvent] [S:1 F:1] type(Suspend), value(0)"));
  // Other tags go on for seconds: the capture did not simply end during the wait.
  add("11-22 10:00:03.021   300   301 I CameraService: still streaming");
  logread::Run run = only();
  Analysis a = analyse(run);
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"blocked"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("S:0 F:2 EnqJob still waiting"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("waited 3000.000 ms (since 21.000 ms)"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("previous frame F:1"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("missing partner S:1 F:1: prepared, no send"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("S:1 last at 30.000 ms: [notifyEvent]"));
}

TEST_F(LogTest, NamesTheOffSensorOfABlockedRawSwitch) {
  prepare(0, 2, 9, 0);
  prepare(1, 2, 10, 1);
  prepare(2, 1, 10, 0);
  add(tt(5, 11, 'D', "CamDeliverGuard", "[wait] [S:1 F:10][EnqJob] wait offSensor(2) enqed +"));
  add("11-22 10:00:00.009   100   300 I CameraService: other tag");
  AnalysisOptions stallAt3ms;
  stallAt3ms.stallNs = 3000000;
  Analysis a = analyse(only(), stallAt3ms);
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"blocked"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("waited 4.000 ms"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("off sensor of the raw switch: S:2"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("previous frame F:9 (prepared, no send)"));
}

// A coordinator that hung stops logging: the capture's end, given by the user, makes the wait
// that was the last line a stall; a stamp in the log's layout and "+SECONDS" say the same.
TEST_F(LogTest, TheCaptureEndGivenMakesAHungSendAStall) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  prepare(2, 0, 2, 1);
  enqueue(10, 0, 1, 5, false);
  add(tt(20, 10, 'D', "CamDeliverGuard",
         "[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ..."));
  for (const char* end : {"+3", "11-22 10:00:03.020", "2026-11-22 10:00:03.020000"}) {
    CaptureEnd given;
    std::string error;
    ASSERT_TRUE(parseCaptureEnd(end, &given, &error)) << end << ": " << error;
    LogReader again;
    again.setCaptureEnd(given);
    std::vector<std::string> lines = {
        tt(0, 10, 'D', "CamDeliverGuard", "[prepare] [S:0 F:1] prepared, order(0)"),
        tt(1, 11, 'D', "CamDeliverGuard", "[prepare] [S:1 F:1] prepared, order(0)"),
        tt(2, 10, 'D', "CamDeliverGuard", "[prepare] [S:0 F:2] prepared, order(1)"),
        tt(10, 10, 'D', "CamDeliver", "[getLicense] [S:0 F:1] FD(5)"),
        tt(11, 10, 'D', "CamDeliverGuard", "[finished] [S:0 F:1] EnqJob finished. "),
        tt(20, 10, 'D', "CamDeliverGuard",
           "[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ...")};
    for (const std::string& l : lines) again.addLine(l);
    std::vector<logread::Run> runs = again.finish();
    ASSERT_EQ(runs.size(), 1u);
    Analysis a = analyse(runs[0]);
    ASSERT_EQ(kinds(a), (std::vector<std::string>{"blocked"})) << end;
    EXPECT_THAT(a.findings[0].text,
                HasSubstr("S:0 F:2 EnqJob still waiting at the end of the capture "
                          "(--capture-end): waited 3000.000 ms (since 20.000 ms)"));
    EXPECT_THAT(a.findings[0].text, HasSubstr("missing partner S:1 F:1: prepared, no send"));
  }
  // Without it the wait is cut off by the capture, not a stall.
  Analysis a = analyse(only());
  EXPECT_TRUE(a.findings.empty());
  CaptureEnd given;
  std::string error;
  for (const char* bad : {"+", "+x", "+-1", "10:00", "tomorrow"}) {
    EXPECT_FALSE(parseCaptureEnd(bad, &given, &error)) << bad;
    EXPECT_THAT(error, HasSubstr(bad));
  }
}

// What the log shows of a frame that an aborting send could not find, and whose side the
// mistake is: a drop on the sending thread itself came first, so the send followed it.
TEST_F(LogTest, AFrameNotFoundNamesWhatRetiredItAndWhoseMistakeItWas) {
  prepare(0, 0, 5, 0);
  add(tt(1, 10, 'D', "CamDeliver", "[notifyEvent] [S:0 F:5] type(Drop), value(0)"));
  add(tt(2, 10, 'D', "CamDeliverGuard", "[drop] [S:0 F:5] drop"));
  add(tt(3, 10, 'D', "CamDeliverGuard", "[drop] [S:0 F:5] is last, erase"));
  add(tt(4, 10, 'E', "CamDeliverGuard", "[S:0 F:5] FC not found !"));
  add(tt(4, 10, 'F', "CamDeliverGuard", "[S:0 F:5] FC not found ! (wait){#12:g.cpp}"));
  Analysis a = analyse(only());
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"client", "fatal"}));
  EXPECT_THAT(a.findings[0].text,
              HasSubstr("S:0 F:5 was sent for after the sensor's own drop of the frame at "
                        "1.000 ms, reported earlier on the same thread"));
  EXPECT_THAT(a.findings[1].text,
              HasSubstr("F:5 had left the pool: retired by the drop of S:0 F:5 (line 4)"));

  // The same drop on the event thread: the send may have raced it, and the log cannot tell.
  LogReader other;
  other.addLine(tt(0, 10, 'D', "CamDeliverGuard", "[prepare] [S:0 F:5] prepared, order(0)"));
  other.addLine(tt(1, 20, 'D', "CamDeliver", "[notifyEvent] [S:0 F:5] type(Drop), value(0)"));
  other.addLine(tt(2, 20, 'D', "CamDeliverGuard", "[drop] [S:0 F:5] drop"));
  other.addLine(tt(3, 20, 'D', "CamDeliverGuard", "[drop] [S:0 F:5] is last, erase"));
  other.addLine(tt(4, 10, 'F', "CamDeliverGuard", "[S:0 F:5] FC not found ! (wait){#12:g.cpp}"));
  std::vector<logread::Run> runs = other.finish();
  ASSERT_EQ(runs.size(), 1u);
  a = analyse(runs[0]);
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"fatal"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("unknown whether the send was made after the drop"));
}

// A capture cut while a send waits ends a few milliseconds after the wait began: that send was
// in flight, not hung, however the rest of the log looks.
TEST_F(LogTest, SendWaitingWhenTheCaptureIsCutIsInFlight) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  prepare(2, 0, 2, 1);
  enqueue(10, 0, 1, 5, false);
  add(tt(20, 10, 'D', "CamDeliverGuard",
         "[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ..."));
  add("11-22 10:00:00.120   300   301 I CameraService: other process");
  Analysis a = analyse(only());
  EXPECT_TRUE(a.findings.empty());
  ASSERT_EQ(a.inFlight.size(), 1u);
  EXPECT_THAT(a.inFlight[0], HasSubstr("S:0 F:2 EnqJob had waited 100.000 ms (since 20.000 ms)"));
  EXPECT_EQ(a.stallNs, kStallFloorNs);
  EXPECT_FALSE(a.failed());
}

// Closing the back camera and opening the front one builds a new deliverer whose sensor the
// old one never had, with frame numbers from the start again: a session of its own, whether
// the old one ran long or was closed soon after a pause. A sensor whose request thread lags
// the others at the start of one session stays in it.
TEST_F(LogTest, ANewSensorStartingTheFramesAgainIsANewSession) {
  struct Case {
    int frames;   // frames sensors 0 and 1 ran before the other camera
    int pauseMs;  // between their last line and sensor 4's first
    size_t sessions;
  };
  for (Case c : {Case{30, 5, 2}, Case{5, 300, 2}, Case{5, 100, 1}}) {
    LogReader r;
    auto line = [&r](int ms, int s, int f, int order) {
      r.addLine(tt(ms, 10 + s, 'D', "CamDeliverGuard",
                   "[prepare] [S:" + std::to_string(s) + " F:" + std::to_string(f) +
                       "] prepared, order(" + std::to_string(order) + ")"));
    };
    int ms = 0;
    for (int f = 1; f <= c.frames; ++f, ms += 10) {
      line(ms, 0, f, f - 1);
      line(ms + 1, 1, f, f - 1);
    }
    ms += c.pauseMs;
    line(ms, 4, 1, 0);
    line(ms + 10, 4, 2, 1);
    std::vector<logread::Run> runs = r.finish();
    ASSERT_EQ(runs.size(), c.sessions) << c.frames << " frames, pause " << c.pauseMs;
    if (c.sessions == 2) {
      EXPECT_EQ(runs[1].history.sensors, std::vector<uint32_t>{4});
      EXPECT_THAT(runs[1].boundary, HasSubstr("S:4, new to the session, prepared F:1 at order 0 "
                                              "after its frames reached F:" +
                                              std::to_string(c.frames)));
    }
  }
  // Sensor 1's thread starts three frames late, right behind sensor 0.
  for (int f = 1; f <= 3; ++f) prepare(f, 0, f, f - 1);
  for (int f = 1; f <= 3; ++f) prepare(4 + f, 1, f, f - 1);
  EXPECT_EQ(only().history.sensors, (std::vector<uint32_t>{0, 1}));
}

// Merged buffers step back a little, a clock change steps back far, and a capture without
// years crosses the new year: the timeline keeps going forward and the jumps are reported.
// Captures saved by a Windows editor (a byte order mark) or by PowerShell's > (UTF-16 with a
// mark, CR LF line ends) read as the same lines as the capture itself.
TEST(TextInputTest, ReadsTheEncodingsCapturesArriveIn) {
  auto lines = [](const std::string& bytes, TextInput::Encoding* encoding = nullptr) {
    std::istringstream in(bytes);
    TextInput input(in);
    std::vector<std::string> out;
    std::string line;
    while (input.next(&line)) out.push_back(line);
    if (encoding) *encoding = input.encoding();
    return out;
  };
  auto utf16 = [](const std::u16string& text, bool little, bool mark) {
    std::string out = mark ? (little ? "\xFF\xFE" : "\xFE\xFF") : "";
    for (char16_t u : text) {
      char lo = char(u & 0xFF), hi = char(u >> 8);
      out += little ? std::string{lo, hi} : std::string{hi, lo};
    }
    return out;
  };
  const std::vector<std::string> two{"ab\r", "c \xF0\x9F\x93\xB7"};  // CR kept; U+1F4F7
  TextInput::Encoding e;
  EXPECT_EQ(lines("ab\r\nc \xF0\x9F\x93\xB7\n", &e), two);
  EXPECT_EQ(e, TextInput::Encoding::Utf8);
  EXPECT_EQ(lines("\xEF\xBB\xBF"
                  "ab\r\nc \xF0\x9F\x93\xB7",
                  &e),
            two);
  EXPECT_EQ(e, TextInput::Encoding::Utf8WithMark);
  const std::u16string text = u"ab\r\nc \U0001F4F7\n";
  for (bool little : {true, false}) {
    for (bool mark : {true, false}) {
      EXPECT_EQ(lines(utf16(text, little, mark), &e), two) << little << mark;
      EXPECT_EQ(e, little ? TextInput::Encoding::Utf16Le : TextInput::Encoding::Utf16Be);
    }
  }
  // A lone surrogate becomes U+FFFD; an odd last byte is dropped; short first lines survive
  // the look at the first three bytes.
  std::string lone = utf16(
                         u"a\xD800"
                         u"b\n",
                         true, true) +
                     "x";
  EXPECT_EQ(lines(lone), std::vector<std::string>{"a\xEF\xBF\xBD"
                                                  "b"});
  EXPECT_EQ(lines("a\nb\n"), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(lines("\n\nz"), (std::vector<std::string>{"", "", "z"}));
  EXPECT_TRUE(lines("").empty());
}

// Two captures joined with an overlap repeat a stretch, stamps and all: skipped once it is
// seen to step back onto lines already read, and only while it follows them. A line that
// steps back without repeating one (merged buffers), or a repeat that breaks off, is read.
TEST(RepeatedLinesTest, SkipsAStretchReadBeforeAndNothingElse) {
  RepeatedLines r;
  auto feed = [&r](const std::vector<std::pair<int64_t, std::string>>& lines) {
    std::string kept;
    for (const auto& l : lines) {
      if (!r.repeated(l.second, l.first)) kept += l.second;
    }
    return kept;
  };
  EXPECT_EQ(feed({{1, "a"}, {2, "b"}, {2, "c"}, {3, "d"}}), "abcd");
  EXPECT_EQ(feed({{2, "b"}, {2, "c"}, {3, "d"}, {4, "e"}}), "e");  // the join, then new lines
  EXPECT_EQ(r.skipped(), 3u);
  EXPECT_EQ(r.stretches(), 1u);
  EXPECT_EQ(feed({{3, "x"}, {5, "f"}}), "xf");  // back in time, but not a line read before
  // A repeat that breaks off: the rest is read.
  EXPECT_EQ(feed({{3, "x"}, {6, "h"}, {7, "i"}}), "hi");
  EXPECT_EQ(r.stretches(), 2u);
  // The same text with another stamp is another line.
  EXPECT_EQ(feed({{8, "h"}}), "h");
}

TEST(LogClockTest, KeepsTimeGoingForward) {
  LogClock clock;
  auto at = [](int month, int day, int h, int m, int s, int ms) {
    LogLine l;
    char buf[128];
    std::snprintf(buf, sizeof buf, "%02d-%02d %02d:%02d:%02d.%03d  1  2 D T: x", month, day, h, m,
                  s, ms);
    EXPECT_TRUE(parseLogLine(buf, &l)) << buf;
    return l.timeNs;
  };
  EXPECT_EQ(clock.place(at(12, 31, 23, 59, 59, 900), 1), 0);
  EXPECT_EQ(clock.place(at(12, 31, 23, 59, 59, 880), 2), 0);     // merged buffers: held
  EXPECT_EQ(clock.place(at(1, 1, 0, 0, 0, 100), 3), 200000000);  // the new year
  EXPECT_EQ(clock.place(at(1, 1, 0, 0, 0, 200), 4), 300000000);
  EXPECT_EQ(clock.place(at(12, 31, 22, 0, 0, 0), 5), 300000000);  // the clock set back
  EXPECT_EQ(clock.place(at(12, 31, 22, 0, 1, 0), 6), 1300000000);
  EXPECT_EQ(clock.place(at(12, 31, 23, 59, 0, 0), 7), 1300000000);  // and forward
  EXPECT_EQ(clock.outOfOrder(), 2u);
  ASSERT_EQ(clock.steps().size(), 2u);
  EXPECT_EQ(clock.steps()[0].line, 5u);
  EXPECT_LT(clock.steps()[0].stepNs, 0);
  EXPECT_EQ(clock.steps()[1].line, 7u);
  EXPECT_GT(clock.steps()[1].stepNs, 0);
}

TEST_F(LogTest, FatalAssertionNamesTheRuleAndTheCallsBeforeIt) {
  prepare(0, 0, 1, 0);
  add(tt(1, 10, 'D', "CamDeliver", "[sendJobForConfigure] [S:0 F:1]"));
  add(tt(2, 10, 'W', "CamDeliver", "[getLicense] [S:65280 F:1] FD(NULL)"));
  add(tt(2, 10, 'E', "CamDeliver", "[S:0 F:1] No license to config, please check flow !!"));
  add(tt(2, 10, 'F', "CamDeliver",
         "[S:0 F:1] No license to config, please check flow !! "
         "(sendJobForConfigure){#93:hw/camsys/cam_deliver/CamDeliver.cpp}"));
  Analysis a = analyse(only());
  EXPECT_THAT(kinds(a), ::testing::Contains("fatal"));
  const Finding* fatal = nullptr;
  for (const Finding& f : a.findings) {
    if (f.kind == "fatal") fatal = &f;
  }
  ASSERT_NE(fatal, nullptr);
  EXPECT_THAT(fatal->text, HasSubstr("in sendJobForConfigure"));
  EXPECT_THAT(fatal->text, HasSubstr("don't send a configure job without a queued configure"));
  EXPECT_THAT(fatal->text, HasSubstr("[sendJobForConfigure] [S:0 F:1]"));
  // One assertion, though written twice (error line and assertion line).
  std::vector<std::string> all = kinds(a);
  EXPECT_EQ(std::count(all.begin(), all.end(), "fatal"), 1);
}

TEST(FatalRuleTest, EveryNeverDoMessageHasItsRule) {
  const std::pair<const char*, const char*> rows[] = {
      {"FCPool size > 20 : 1 2 3 ", "emplace a 20th frame"},
      {"[S:1 F:4] pFc nullptr !", "prepare with an empty record"},
      {"[F:4] weird synclist count", "sync list of exactly one sensor"},
      {"[F:1] sensorId(4) in synclist but not in enqlist", "without needEnq"},
      {"[S:1 F:4] FC not found !", "send for a frame that is not in the pool"},
      {"[S:1 F:-1] FC not found !", "setConfigured for frame 0xFFFFFFFF"},
      {"[S:1 F:4] unexpected not enq count(0)", "already is enqueued"},
      {"[S:1 F:4] No license to config, please check flow !!", "configure job without"},
      {"[S:1 F:4] pJob is null", "empty enqueue job"},
      {"[S:1 F:4] FC already finished, please check it !", "report setConfigured on a record"},
      {"frameNo(4) not exist, check it has been poped or not", "no queued licence left"},
      {"[S:65281] configure frame(4) must not in change-FD flow, please check "
       "CamDeliver::prepareLicense() !",
       "still holds a configure licence"},
      {"mQueue size should be 0!", "not a client rule"},
  };
  for (const auto& row : rows) EXPECT_THAT(ruleForFatal(row.first), HasSubstr(row.second));
}

TEST_F(LogTest, CountsWarningsAndSaysWhichAreBenign) {
  prepare(0, 0, 1, 0);
  enqueue(1, 0, 1, 3, true);
  for (int i = 0; i < 3; ++i) {
    add(tt(5 + i, 12, 'W', "LicenseQueue",
           "[releaseLicense] [S:65280 F:" + std::to_string(i + 1) + "] license already null !"));
  }
  add(tt(9, 12, 'W', "CamDeliverGuard", "[drop] [S:0 F:77] FC not found"));
  add(tt(10, 12, 'W', "CamDeliverGuard", "[erase] [S:0 F:78] FC not exist, skip"));
  logread::Run run = only();
  Analysis a = analyse(run);
  ASSERT_EQ(a.notes.size(), 1u);
  EXPECT_THAT(a.notes[0], HasSubstr("3 x \"[releaseLicense] [S:N F:N] license already null !\""));
  EXPECT_THAT(a.notes[0], HasSubstr("benign"));
  EXPECT_TRUE(a.findings.empty());
  EXPECT_FALSE(a.failed());
  // A late drop explains "FC not found" only when the log shows a drop at all.
  ASSERT_EQ(a.warnings.size(), 2u);
  EXPECT_THAT(a.warnings[0].text, HasSubstr("a drop came for a frame that is not in the pool"));
  EXPECT_THAT(a.warnings[0].text, HasSubstr("the log shows no drop or flush"));
  EXPECT_THAT(a.warnings[1].text, HasSubstr("needs attention"));
  history::EventRecord drop;
  drop.kind = history::EventKind::Drop;
  run.history.events.push_back(drop);
  AnalysisOptions strict;
  strict.strict = true;
  a = analyse(run, strict);
  EXPECT_THAT(a.warnings[0].text, HasSubstr("explained by a legal client call order: a late drop"));
  EXPECT_TRUE(a.failed());
}

// Frame 1 is synchronised (one FD); sensor 0's frame 2 starts before sensor 1 enqueued frame 1.
TEST_F(LogTest, CheckerFindsASyncBreachInAnEditedLog) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  prepare(2, 0, 2, 1);
  prepare(3, 1, 2, 1);
  enqueue(10, 0, 1, 5, false);
  enqueue(20, 0, 2, 6, false);
  enqueue(30, 1, 1, 5, true);
  enqueue(40, 1, 2, 6, true);
  Analysis a = analyse(only());
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"sync"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("S:0 F:2 EnqJob started"));
  EXPECT_THAT(a.findings[0].text, HasSubstr("before sync partner S:1 F:1"));
}

// The same breach with both lines in one millisecond: only the file's line order puts the
// start first, which a merge or sort by time stamp does not keep. Named for attention, not
// failed (unless --strict); microsecond stamps that separate them make it a violation again.
TEST_F(LogTest, SyncBreachWithinOneStampIsNamedNotFailed) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  prepare(2, 0, 2, 1);
  prepare(3, 1, 2, 1);
  enqueue(10, 0, 1, 5, false);
  add(tt(20, 11, 'D', "CamDeliver", "[getLicense] [S:1 F:1] FD(5)"));
  add(tt(30, 10, 'D', "CamDeliver", "[getLicense] [S:0 F:2] FD(6)"));
  add(tt(30, 11, 'D', "CamDeliverGuard",
         "[finished] [S:1 F:1] EnqJob finished. Is last, erase it."));
  add(tt(31, 10, 'D', "CamDeliverGuard", "[finished] [S:0 F:2] EnqJob finished. "));
  enqueue(40, 1, 2, 6, true);
  logread::Run run = only();
  EXPECT_EQ(run.stampTick, 1000000);
  Analysis a = analyse(run);
  EXPECT_TRUE(a.findings.empty());
  EXPECT_FALSE(a.failed());
  ASSERT_EQ(a.warnings.size(), 1u);
  EXPECT_EQ(a.warnings[0].kind, "same-stamp");
  EXPECT_THAT(a.warnings[0].text,
              HasSubstr("[sync] S:0 F:2 EnqJob started at 30.000 ms, before sync partner S:1 F:1 "
                        "was enqueued at 30.000 ms"));
  AnalysisOptions strict;
  strict.strict = true;
  EXPECT_TRUE(analyse(run, strict).failed());

  // The history keeps the stamp's resolution, so that the simulator's check of it agrees.
  std::ostringstream json;
  history::writeHistoryJson(json, run.history);
  history::History back;
  std::istringstream in(json.str());
  std::string error;
  ASSERT_TRUE(history::readHistoryJson(in, &back, &error)) << error;
  EXPECT_EQ(back.stampTick, 1000000);
  check::CheckResult check = check::checkHistory(back);
  EXPECT_TRUE(check.clean());
  EXPECT_EQ(check.sameStamp.size(), 1u);

  LogReader usec;
  for (int s = 0; s < 2; ++s) {
    for (int f = 1; f <= 2; ++f) {
      usec.addLine("11-22 10:00:00.00000" + std::to_string(2 * f + s - 2) + "   100   " +
                   std::to_string(10 + s) +
                   " D OrvCam/CamDeliverGuard: [prepare] [S:" + std::to_string(s) +
                   " F:" + std::to_string(f) + "] prepared, order(" + std::to_string(f - 1) + ")");
    }
  }
  for (const char* line :
       {"11-22 10:00:00.010000   100   10 D OrvCam/CamDeliver: [getLicense] [S:0 F:1] FD(5)",
        "11-22 10:00:00.010100   100   10 D OrvCam/CamDeliverGuard: [finished] [S:0 F:1] EnqJob "
        "finished. ",
        "11-22 10:00:00.020000   100   11 D OrvCam/CamDeliver: [getLicense] [S:1 F:1] FD(5)",
        "11-22 10:00:00.030100   100   10 D OrvCam/CamDeliver: [getLicense] [S:0 F:2] FD(6)",
        "11-22 10:00:00.030200   100   11 D OrvCam/CamDeliverGuard: [finished] [S:1 F:1] EnqJob "
        "finished. Is last, erase it."}) {
    usec.addLine(line);
  }
  std::vector<logread::Run> runs = usec.finish();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].stampTick, 1000);
  a = analyse(runs[0]);
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"sync"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("S:0 F:2 EnqJob started at 30.100 ms"));
}

// Neighbouring lines with one stamp follow the order they were written in, which their texts
// do not: a file sorted line by line has lost it, and is known by having them all in text order.
TEST(LogSortedTest, AFileSortedLineByLineIsKnown) {
  std::vector<std::string> log;
  for (int f = 1; f <= 40; ++f) {
    for (int s = 0; s < 2; ++s) {
      log.push_back(tt(f, 10 + s, 'D', "CamDeliverGuard",
                       "[prepare] [S:" + std::to_string(s) + " F:" + std::to_string(f) +
                           "] prepared, order(" + std::to_string(f - 1) + ")"));
    }
    for (int s = 0; s < 2; ++s) {
      std::string sf = "[S:" + std::to_string(s) + " F:" + std::to_string(f) + "]";
      log.push_back(tt(f, 10 + s, 'D', "CamDeliver", "[getLicense] " + sf + " FD(5)"));
      log.push_back(
          tt(f, 10 + s, 'D', "CamDeliverGuard", "[finished] " + sf + " EnqJob finished. "));
    }
  }
  auto read = [](const std::vector<std::string>& lines, size_t count) {
    auto reader = std::make_unique<LogReader>();
    for (size_t i = 0; i < count; ++i) reader->addLine(lines[i]);
    return reader;
  };
  std::unique_ptr<LogReader> asWritten = read(log, log.size());
  EXPECT_FALSE(asWritten->sortedLineByLine());
  EXPECT_GE(asWritten->sameStampDescending(), 40u);

  std::vector<std::string> sorted = log;
  std::sort(sorted.begin(), sorted.end());
  std::unique_ptr<LogReader> all = read(sorted, sorted.size());
  EXPECT_TRUE(all->sortedLineByLine());
  EXPECT_EQ(all->sameStampAscending(), 200u);  // five pairs in each of 40 milliseconds
  // Too few pairs are no evidence: a short capture may happen to be in text order.
  EXPECT_FALSE(read(sorted, 60)->sortedLineByLine());
}

// logd drops lines when it is overloaded. A line that a later one proves was written (a
// licence before its job's completion, an in-flight report before the frames it lists or
// changes) is taken as written, and counted; a breach that rests only on a line being absent
// is named for attention in a log that lost lines, and counts in one that lost none.
TEST_F(LogTest, LinesTheLogLostAreInferredAndAbsencesNotCounted) {
  auto run = [](bool loseEnqueue, bool loseSecondEnqueue, bool keepReport = false) {
    LogReader r;
    auto add = [&r](int ms, int s, const char* tag, const std::string& text) {
      r.addLine(tt(ms, 10 + s, 'D', tag, text));
    };
    for (int f = 1; f <= 2; ++f) {
      for (int s = 0; s <= 1; ++s) {
        add(f * 2 + s, s, "CamDeliverGuard",
            "[prepare] [S:" + std::to_string(s) + " F:" + std::to_string(f) + "] prepared, order(" +
                std::to_string(f - 1) + ")");
      }
    }
    // S:0 reports nothing in flight: frame 2 gets FDs of its own and loses its sync. Unless
    // kept, only the FD changes are left of the report.
    if (keepReport) {
      add(7, 5, "CamDeliver", "[notifyEvent] [S:0 F:2] type(InformInflight), value(0)");
      add(7, 5, "CamDeliverGuard", "[getSyncFrames] [S:0] frame list: 2 ");
    }
    add(8, 5, "LicenseQueue", "[changeFramesFD] [S:0 F:2] change FD (6) -> (7)");
    add(8, 5, "LicenseQueue", "[changeFramesFD] [S:1 F:2] change FD (6) -> (8)");
    // Frame 1 in one sync group (FD 5); S:1's licence line may be lost.
    add(10, 0, "CamDeliver", "[getLicense] [S:0 F:1] FD(5)");
    add(11, 0, "CamDeliverGuard", "[finished] [S:0 F:1] EnqJob finished. ");
    if (!loseEnqueue) add(12, 1, "CamDeliver", "[getLicense] [S:1 F:1] FD(5)");
    add(13, 1, "CamDeliverGuard", "[finished] [S:1 F:1] EnqJob finished. Is last, erase it.");
    // Frame 2: S:1 goes before S:0 has enqueued frame 2, which the broken sync allows.
    add(20, 1, "CamDeliver", "[getLicense] [S:1 F:2] FD(8)");
    // With S:0's frame 2 lost, S:1's completion is the one that retires the frame.
    add(21, 1, "CamDeliverGuard",
        std::string("[finished] [S:1 F:2] EnqJob finished. ") +
            (loseSecondEnqueue ? "Is last, erase it." : ""));
    if (!loseSecondEnqueue) {
      add(30, 0, "CamDeliver", "[getLicense] [S:0 F:2] FD(7)");
      add(31, 0, "CamDeliverGuard", "[finished] [S:0 F:2] EnqJob finished. Is last, erase it.");
    }
    add(3000, 7, "CamDeliver", "[notifyEvent] [S:0 F:3] type(Suspend), value(0)");
    std::vector<logread::Run> runs = r.finish();
    return runs.empty() ? logread::Run() : runs.front();
  };
  logread::Run whole = run(false, false);
  EXPECT_EQ(whole.lostLines, 1u);  // only the report's own line
  EXPECT_EQ(whole.firstLost, "the in-flight report of S:0 before line 5");
  Analysis a = analyse(whole);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
  EXPECT_TRUE(a.warnings.empty());

  logread::Run lossy = run(true, false);
  EXPECT_EQ(lossy.lostLines, 2u);
  EXPECT_EQ(lossy.totals.at(1).enqueued, 2u);
  a = analyse(lossy);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
  EXPECT_EQ(a.check.startsLost, 1u);

  // S:0's frame 2 never enqueued: in a log that lost lines it may be one of them.
  a = analyse(run(true, true));
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
  ASSERT_EQ(a.warnings.size(), 1u);
  EXPECT_EQ(a.warnings[0].kind, "lost-lines");
  EXPECT_THAT(a.warnings[0].text, HasSubstr("[delivery] S:0 F:2 was never enqueued"));
  AnalysisOptions strict;
  strict.strict = true;
  EXPECT_TRUE(analyse(run(true, true), strict).failed());
  // The frame's record was erased although S:0 shows no enqueue, drop or flush of it: the pool
  // erases it only once every sensor is done, so that line too was lost.
  logread::Run erased = run(false, true, true);
  EXPECT_EQ(erased.lostLines, 1u);
  EXPECT_EQ(erased.firstLost, "the enqueue, drop or flush of S:0 F:2 before line 14");
  a = analyse(erased);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
  ASSERT_EQ(a.warnings.size(), 1u);
  EXPECT_EQ(a.warnings[0].kind, "lost-lines");
}

// A prepare line lost shows by the pool's lookup of the frame's previous one, which names the
// order it was given; a drop report lost, by the licence it hands back by key (and the guard's
// drop after it).
TEST_F(LogTest, LostPrepareAndDropReportAreTakenFromTheLinesAfterThem) {
  prepare(0, 0, 1, 0);
  prepare(2, 0, 3, 2);
  add(tt(3, 10, 'D', "FrameContextPool",
         "[getPreviousFC] [S:0 F:2] get previous frameNo(1) order(0) < currentOrder(1)"));
  enqueue(4, 0, 1, 5, true);
  enqueue(6, 0, 2, 6, true);
  add(tt(7, 12, 'D', "LicenseQueue", "[releaseLicense] [S:0 F:3] release license(7) from pipeMgr"));
  add(tt(8, 12, 'D', "CamDeliverGuard", "[drop] [S:0 F:3] drop"));
  add(tt(8, 12, 'D', "CamDeliverGuard", "[drop] [S:0 F:3] is last, erase"));
  logread::Run r = only();
  EXPECT_EQ(r.lostLines, 2u);
  EXPECT_EQ(r.firstLost, "the prepare of S:0 F:2 before line 3");
  EXPECT_EQ(r.totals.at(0).prepared, 3u);
  EXPECT_EQ(r.totals.at(0).dropped, 1u);
  ASSERT_EQ(r.history.prepares.size(), 3u);
  EXPECT_EQ(r.history.prepares[1].frame, 2u);  // in preparation order
  ASSERT_EQ(r.history.events.size(), 1u);
  EXPECT_LT(r.history.events[0].begin, 8000000);  // with its release, before the guard's line
  Analysis a = analyse(r);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
  EXPECT_TRUE(a.warnings.empty()) << a.warnings[0].text;
}

// Without the pool's lookup, the sensor's own job lines for the frame prove its prepare: after
// frames it prepared in this log, the line was lost; for its first frame, the log began later.
TEST_F(LogTest, AJobOfAFrameWithoutItsPrepareLineMeansTheLineWasLost) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  prepare(3, 1, 2, 1);  // S:0's prepare of frame 2 is lost
  enqueue(10, 0, 1, 5, false);
  enqueue(12, 1, 1, 5, true);
  enqueue(20, 0, 2, 6, false);
  enqueue(22, 1, 2, 6, true);
  enqueue(30, 2, 2, 7, false);  // S:2 first shows here: the log began after its prepare
  logread::Run r = only();
  EXPECT_EQ(r.lostLines, 1u);
  EXPECT_EQ(r.firstLost, "the prepare of S:0 F:2 before line 8");
  Analysis a = analyse(r);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
}

TEST_F(LogTest, CheckerFindsAnOrderBreachInAnEditedLog) {
  prepare(0, 0, 1, 0);
  prepare(1, 0, 2, 1);
  add(tt(10, 10, 'D', "CamDeliver", "[getLicense] [S:0 F:1] FD(5)"));
  enqueue(11, 0, 2, 6, true);
  add(tt(20, 10, 'D', "CamDeliverGuard",
         "[finished] [S:0 F:1] EnqJob finished. Is last, erase it."));
  Analysis a = analyse(only());
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"order"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("S:0 F:2 EnqJob started"));
}

// A long capture is checked a window of frames at a time, with the frames later ones depend
// on kept as context: whatever the window, the findings and figures are those of reading the
// whole log at once, and only about a window of frames stays in memory.
TEST(LogWindowTest, SettledFramesGiveTheSameResultAsTheWholeLog) {
  std::vector<std::string> log;
  int ms = 0;
  auto line = [&](int s, const char* tag, const std::string& text) {
    log.push_back(tt(ms++, 10 + s, 'D', tag, text));
  };
  auto sf = [](int s, int f) {
    return "[S:" + std::to_string(s) + " F:" + std::to_string(f) + "]";
  };
  constexpr int kFrames = 400;
  std::string heldBack;
  for (int f = 1; f <= kFrames; ++f) {
    for (int s = 0; s < 2; ++s) {
      line(s, "CamDeliverGuard",
           "[prepare] " + sf(s, f) + " prepared, order(" + std::to_string(f - 1) + ")");
    }
    line(0, "CamDeliver", "[getLicense] " + sf(0, f) + " FD(" + std::to_string(f) + ")");
    // Every 37th frame sensor 0 starts before sensor 1 has enqueued the frame before: a sync
    // breach whose previous frame may have settled in an earlier window.
    if (!heldBack.empty()) line(1, "CamDeliverGuard", heldBack);
    heldBack.clear();
    line(1, "CamDeliver", "[getLicense] " + sf(1, f) + " FD(" + std::to_string(f) + ")");
    line(0, "CamDeliverGuard", "[finished] " + sf(0, f) + " EnqJob finished. ");
    std::string last = "[finished] " + sf(1, f) + " EnqJob finished. Is last, erase it.";
    if ((f + 1) % 37 == 0) {
      heldBack = last;
    } else {
      line(1, "CamDeliverGuard", last);
    }
  }
  // A drop of a frame that settled long ago changes nothing but its warning.
  log.push_back(tt(ms++, 12, 'D', "CamDeliver", "[notifyEvent] [S:0 F:3] type(Drop) value(0)"));
  log.push_back(tt(ms++, 12, 'W', "CamDeliverGuard", "[drop] [S:0 F:3] FC already finished"));
  // A send still waiting at the end.
  log.push_back(tt(ms++, 10, 'D', "CamDeliverGuard",
                   "[prepare] " + sf(0, kFrames + 1) + " prepared, order(400)"));
  log.push_back(
      tt(ms++, 10, 'D', "CamDeliverGuard",
         "[operator()] " + sf(0, kFrames + 1) + "[EnqJob] wait previous syncframe enque ..."));

  auto read = [&](size_t window, logread::Run* run) {
    LogReader reader;
    reader.setWindow(window);
    for (const std::string& l : log) reader.addLine(l);
    std::vector<logread::Run> runs = reader.finish();
    EXPECT_EQ(runs.size(), 1u);
    *run = runs.front();
    AnalysisOptions options;
    options.stallNs = 0;  // the waiting send is a finding, so that its partner is named
    Analysis a = analyse(*run, options);
    std::ostringstream out;
    printSummary(out, *run);
    printAnalysis(out, a);
    return out.str();
  };
  logread::Run whole;
  std::string expected = read(0, &whole);
  EXPECT_EQ(whole.settledFrames, 0u);
  EXPECT_THAT(expected, HasSubstr("[sync] S:0 F:37 EnqJob started"));
  EXPECT_THAT(expected, HasSubstr("[sync] S:0 F:370 EnqJob started"));
  EXPECT_THAT(expected, HasSubstr("[blocked] blocked send: S:0 F:401 EnqJob"));
  EXPECT_THAT(expected, HasSubstr("S:0          401          0      400       1"));
  for (size_t window : {4u, 5u, 9u, 16u, 64u}) {
    SCOPED_TRACE("window " + std::to_string(window));
    logread::Run run;
    EXPECT_EQ(read(window, &run), expected);
    EXPECT_GT(run.settledFrames, size_t(kFrames) / 2);
    EXPECT_LE(run.frames.size(), window + LogReader::kContextFrames + 2);
    EXPECT_EQ(run.linesForSettled, 2u);  // the late drop's two lines
  }
}

// The capture starts while frame 7 is in flight: its jobs are left out, not called faults.
TEST_F(LogTest, LogBeginningMidStreamLeavesEarlierFramesOut) {
  enqueue(0, 0, 7, 3, false);
  enqueue(2, 1, 7, 3, true);
  prepare(4, 0, 8, 5);
  prepare(5, 1, 8, 5);
  enqueue(6, 0, 8, 4, false);
  enqueue(8, 1, 8, 4, true);
  logread::Run run = only();
  EXPECT_EQ(run.unpreparedJobs, 2u);
  EXPECT_EQ(run.history.jobs.size(), 2u);
  EXPECT_TRUE(analyse(run).findings.empty());
}

TEST_F(LogTest, OnlyWarningsMeansNothingCheckableAndSaysHowToEnableIt) {
  add(tt(0, 12, 'W', "LicenseQueue", "[releaseLicense] [S:65280 F:1] license already null !"));
  logread::Run warningsOnly = only();
  Analysis a = analyse(warningsOnly);
  EXPECT_TRUE(a.debugMissing);
  EXPECT_TRUE(a.findings.empty());
  EXPECT_THAT(a.notCheckable, testing::Contains(HasSubstr("ORVCAM_ULOG_LEVEL=5")));
  EXPECT_THAT(whyNothingToRebuild(warningsOnly), HasSubstr("none of the deliverer's debug lines"));

  // Debug lines of one tag only: the level is on, the capture was filtered by tag.
  LogReader oneTag;
  oneTag.addLine(tt(0, 10, 'D', "CamDeliver", "[getLicense] [S:0 F:1] FD(5)"));
  std::vector<logread::Run> runs = oneTag.finish();
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_TRUE(analyse(runs[0]).debugMissing);
  EXPECT_THAT(whyNothingToRebuild(runs[0]),
              HasSubstr("none of the tag OrvCam/CamDeliverGuard, which writes the "
                        "preparations, waits and completions: it looks filtered by tag"));
}

TEST_F(LogTest, ScenarioReplaysSyncGroupsConfigureAndEvents) {
  prepare(0, 0, 1, 0);
  prepare(1, 1, 1, 0);
  add(tt(2, 10, 'D', "CamDeliver", "[sendJobForConfigure] [S:0 F:1]"));
  add(tt(3, 10, 'D', "CamDeliver", "[getLicense] [S:65280 F:1] FD(1)"));
  add(tt(4, 10, 'D', "CamDeliverGuard", "[finished] [S:0 F:1] ConfigJob finished. "));
  add(tt(5, 11, 'W', "LicenseQueue", "[releaseLicense] [S:65281 F:1] license already null !"));
  enqueue(6, 0, 1, 1, false);
  enqueue(8, 1, 1, 2, true);
  prepare(10, 0, 2, 1);
  prepare(11, 1, 2, 1);
  enqueue(12, 0, 2, 3, false);
  enqueue(14, 1, 2, 3, true);
  add(tt(15, 12, 'D', "CamDeliver", "[notifyEvent] [S:1 F:2] type(Suspend), value(0)"));
  logread::Run run = only();
  std::ostringstream out;
  writeScenario(out, run);
  nlohmann::json s = nlohmann::json::parse(out.str());
  EXPECT_EQ(s["frames"], 2);
  EXPECT_EQ(s["syncGroups"][0]["sensors"], nlohmann::json({0, 1}));
  EXPECT_EQ(s["syncGroups"][0]["fromFrame"], 1);
  EXPECT_EQ(s["syncGroups"][0]["toFrame"], 2);
  EXPECT_EQ(s["configure"][0], nlohmann::json({{"frame", 1}, {"sensors", {0}}, {"via", "job"}}));
  EXPECT_EQ(s["configure"][1],
            nlohmann::json({{"frame", 1}, {"sensors", {1}}, {"via", "setConfigured"}}));
  EXPECT_EQ(s["events"][0]["type"], "Suspend");
}

TEST(HistoryJsonTest, ReadsBackWhatTheWriterWrote) {
  history::History h;
  h.scenario = "x";
  h.sensors = {0, 1};
  history::FramePlan p;
  p.frame = 1;
  p.sensors = {0, 1};
  p.syncList = {0, 1};
  h.plans.push_back(p);
  h.prepares = {{0, 1, 10}, {1, 1, 11}};
  history::JobRecord j;
  j.frame = 1;
  j.sent = 20;
  j.start = 30;
  j.end = 40;
  j.ran = true;
  j.serial = 7;
  j.fd = 3;
  h.jobs.push_back(j);  // sensor 1 never enqueues: a delivery violation
  h.licences.push_back({history::LicenceEventKind::Acquired, 7, 3, 5, -1});
  h.licences.push_back({history::LicenceEventKind::Released, 7, 3, 45, -1});
  h.events.push_back({history::EventKind::Suspend, 1, 1, 0, 50, 51, {}});
  h.account = {1, 1, 0};
  std::stringstream json;
  history::writeHistoryJson(json, h);
  history::History back;
  std::string error;
  ASSERT_TRUE(history::readHistoryJson(json, &back, &error)) << error;
  std::ostringstream again;
  history::writeHistoryJson(again, back);
  EXPECT_EQ(again.str(), json.str());
  check::CheckResult check = check::checkHistory(back);
  ASSERT_EQ(check.violations.size(), 1u);
  EXPECT_EQ(check.violations[0].rule, "delivery");

  // Written in parts as a long capture's history is, through files of its own, the text is
  // the same; a name with quotes and control bytes survives; the part files are removed.
  h.scenario = "log of \"camera\"\tprocess\n";
  std::stringstream whole;
  history::writeHistoryJson(whole, h);
  std::string dir = ::testing::TempDir();
  std::string path = dir + "history-stream.json";
  {
    history::HistoryJsonStream stream(dir + "history-stream");
    history::History first, second;
    first.plans = h.plans;
    first.prepares = {h.prepares[0]};
    second.prepares = {h.prepares[1]};
    second.jobs = h.jobs;
    second.licences = h.licences;
    second.events = h.events;
    stream.add(first);
    stream.add(second);
    ASSERT_TRUE(stream.finish(h, path));
  }
  std::ifstream streamed(path);
  std::stringstream text;
  text << streamed.rdbuf();
  EXPECT_EQ(text.str(), whole.str());
  EXPECT_FALSE(std::ifstream(dir + "history-stream.jobs.part").good());
  std::stringstream named(whole.str());
  ASSERT_TRUE(history::readHistoryJson(named, &back, &error)) << error;
  EXPECT_EQ(back.scenario, h.scenario);
  std::remove(path.c_str());

  std::stringstream bad(R"({"jobs": [{"sensor": 0, "frame": 1, "kind": "Job"}]})");
  EXPECT_FALSE(history::readHistoryJson(bad, &back, &error));
  EXPECT_THAT(error, HasSubstr("jobs[0].kind"));
  std::stringstream notJson("[1, 2");
  EXPECT_FALSE(history::readHistoryJson(notJson, &back, &error));
  EXPECT_THAT(error, HasSubstr("not valid JSON"));
}

}  // namespace
}  // namespace logread
}  // namespace orvcam
