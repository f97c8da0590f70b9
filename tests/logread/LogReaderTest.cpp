// camdeliver-log's reader on hand-written logs: the layouts it accepts, sessions, lost and
// repeated lines, clock steps, the encodings captures arrive in, and reading a long capture a
// window of frames at a time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sstream>

#include "LogTestUtil.h"
#include "log/LogReport.h"
#include "log/TextInput.h"
#include "logread/LogReader.h"
#include "logread/RepeatedLines.h"

namespace orvcam {
namespace logread {

using namespace log;
namespace {

using ::testing::HasSubstr;

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
    HandLog r;
    int ms = 0;
    for (int f = 1; f <= c.frames; ++f, ms += 10) r.prepareBoth(ms, f, f - 1);
    ms += c.pauseMs;
    r.prepare(ms, 4, 1, 0);
    r.prepare(ms + 10, 4, 2, 1);
    std::vector<logread::Run> runs = r.reader.finish();
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

// Merged buffers step back a little, a clock change steps back far, and a capture without
// years crosses the new year: the timeline keeps going forward and the jumps are reported.
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

// Neighbouring lines with one stamp follow the order they were written in, which their texts
// do not: a file sorted line by line has lost it, and is known by having them all in text order.
TEST(LogSortedTest, AFileSortedLineByLineIsKnown) {
  std::vector<std::string> log;
  for (int f = 1; f <= 40; ++f) {
    for (int s = 0; s < 2; ++s) log.push_back(prepareLine(f, s, f, f - 1));
    for (int s = 0; s < 2; ++s) {
      log.push_back(licenceLine(f, s, f, 5));
      log.push_back(finishedLine(f, s, f, false));
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
    HandLog log;
    auto add = [&log](int ms, int s, const char* tag, const std::string& text) {
      log.add(tt(ms, 10 + s, 'D', tag, text));
    };
    for (int f = 1; f <= 2; ++f) {
      for (int s = 0; s <= 1; ++s) log.prepare(f * 2 + s, s, f, f - 1);
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
    return log.only();
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
  EXPECT_TRUE(analyse(run(true, true), strictOptions()).failed());
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

// The pool's lookup can come after the frame's send was seen (a sync wait line of a send made
// before its licence): the lost prepare is placed no later than that send, or the client would
// be blamed for sending before preparing.
TEST_F(LogTest, ALostPrepareIsNoLaterThanASendAlreadySeen) {
  prepareBoth(0, 1, 0);
  prepare(3, 1, 2, 1);  // S:0's prepare of frame 2 is lost
  enqueue(4, 0, 1, 5, false);
  add(tt(6, 10, 'D', "CamDeliverGuard",
         "[operator()] " + sf(0, 2) + "[EnqJob] wait previous syncframe enque ..."));
  enqueue(7, 1, 1, 5, true);
  add(tt(9, 10, 'D', "FrameContextPool",
         "[getPreviousFC] [S:0 F:2] get previous frameNo(1) order(0) < currentOrder(1)"));
  enqueue(9, 0, 2, 6, false);
  enqueue(11, 1, 2, 6, true);
  logread::Run r = only();
  EXPECT_EQ(r.lostLines, 1u);
  EXPECT_EQ(r.firstLost, "the prepare of S:0 F:2 before line 9");
  auto p =
      std::find_if(r.history.prepares.begin(), r.history.prepares.end(),
                   [](const history::PrepareRecord& x) { return x.sensor == 0 && x.frame == 2; });
  ASSERT_NE(p, r.history.prepares.end());
  EXPECT_LE(p->at, 6000000);
  Analysis a = analyse(r);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
}

// Without the pool's lookup, the sensor's own job lines for the frame prove its prepare: after
// frames it prepared in this log, the line was lost; for its first frame, the log began later.
TEST_F(LogTest, AJobOfAFrameWithoutItsPrepareLineMeansTheLineWasLost) {
  prepareBoth(0, 1, 0);
  prepare(3, 1, 2, 1);  // S:0's prepare of frame 2 is lost
  enqueueBoth(10, 1, 5);
  enqueueBoth(20, 2, 6);
  enqueue(30, 2, 2, 7, false);  // S:2 first shows here: the log began after its prepare
  logread::Run r = only();
  EXPECT_EQ(r.lostLines, 1u);
  EXPECT_EQ(r.firstLost, "the prepare of S:0 F:2 before line 8");
  Analysis a = analyse(r);
  EXPECT_TRUE(a.findings.empty()) << a.findings[0].text;
}

// A long capture is checked a window of frames at a time, with the frames later ones depend
// on kept as context: whatever the window, the findings and figures are those of reading the
// whole log at once, and only about a window of frames stays in memory.
TEST(LogWindowTest, SettledFramesGiveTheSameResultAsTheWholeLog) {
  std::vector<std::string> log;
  int ms = 0;
  constexpr int kFrames = 400;
  int heldBack = 0;  // a frame whose last completion is written a frame late
  for (int f = 1; f <= kFrames; ++f) {
    for (int s = 0; s < 2; ++s) log.push_back(prepareLine(ms++, s, f, f - 1));
    log.push_back(licenceLine(ms++, 0, f, f));
    // Every 37th frame sensor 0 starts before sensor 1 has enqueued the frame before: a sync
    // breach whose previous frame may have settled in an earlier window.
    if (heldBack != 0) log.push_back(finishedLine(ms++, 1, heldBack, true));
    heldBack = 0;
    log.push_back(licenceLine(ms++, 1, f, f));
    log.push_back(finishedLine(ms++, 0, f, false));
    if ((f + 1) % 37 == 0) {
      heldBack = f;
    } else {
      log.push_back(finishedLine(ms++, 1, f, true));
    }
  }
  // A drop of a frame that settled long ago changes nothing but its warning.
  log.push_back(tt(ms++, 12, 'D', "CamDeliver", "[notifyEvent] [S:0 F:3] type(Drop) value(0)"));
  log.push_back(tt(ms++, 12, 'W', "CamDeliverGuard", "[drop] [S:0 F:3] FC already finished"));
  // A send still waiting at the end.
  log.push_back(prepareLine(ms++, 0, kFrames + 1, 400));
  log.push_back(
      tt(ms++, 10, 'D', "CamDeliverGuard",
         "[operator()] " + sf(0, kFrames + 1) + "[EnqJob] wait previous syncframe enque ..."));

  auto read = [&](size_t window, logread::Run* run) {
    LogReader reader;
    reader.setWindow(window);
    for (const std::string& l : log) reader.addLine(l);
    *run = onlyRun(reader);
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
  enqueueBoth(0, 7, 3);
  prepareBoth(4, 8, 5);
  enqueueBoth(6, 8, 4);
  logread::Run run = only();
  EXPECT_EQ(run.unpreparedJobs, 2u);
  EXPECT_EQ(run.history.jobs.size(), 2u);
  EXPECT_TRUE(analyse(run).findings.empty());
}

}  // namespace
}  // namespace logread
}  // namespace orvcam
