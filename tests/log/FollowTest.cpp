// camdeliver-log --follow: the watch's findings on a reader fed line by line (stalls by the
// log's stamps and by silence, once each, and when they went on; fatal assertions; the derived
// threshold), the flow arrows of a verbose capture, and the tool itself on a pipe that stops
// talking without closing.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>

#include "log/Follow.h"
#include "log/LogReport.h"
#include "logread/LogReader.h"

namespace orvcam {
namespace logread {

using namespace history;
using namespace log;
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

constexpr Nanos kMs = 1000000;

// A threadtime line of process 100 at `ms` milliseconds past 10:00:00; sensor S on thread 10+S.
std::string tt(int ms, int tid, char level, const std::string& tag, const std::string& text) {
  char buf[512];
  std::snprintf(buf, sizeof buf, "11-22 10:00:%02d.%03d   100   %d %c %s: %s\n", ms / 1000,
                ms % 1000, tid, level, tag.c_str(), text.c_str());
  return buf;
}
std::string sf(int s, int f) { return "[S:" + std::to_string(s) + " F:" + std::to_string(f) + "]"; }
std::string prepare(int ms, int s, int f, int order) {
  return tt(ms, 10 + s, 'D', "OrvCam/CamDeliverGuard",
            "[prepare] " + sf(s, f) + " prepared, order(" + std::to_string(order) + ")");
}
std::string licence(int ms, int s, int f, int fd) {
  return tt(ms, 10 + s, 'D', "OrvCam/CamDeliver",
            "[getLicense] " + sf(s, f) + " FD(" + std::to_string(fd) + ")");
}
std::string finished(int ms, int s, int f) {
  return tt(ms, 10 + s, 'D', "OrvCam/CamDeliverGuard",
            "[finished] " + sf(s, f) + " EnqJob finished. ");
}
std::string waitLine(int ms, int s, int f) {
  return tt(ms, 10 + s, 'D', "OrvCam/CamDeliverGuard",
            "[operator()] " + sf(s, f) + "[EnqJob] wait previous syncframe enque ...");
}
// Two sensors prepare F:1 to F:3; S:0 enqueues F:1, S:1's F:1 starts and does not finish, and
// S:0's F:2 waits for it from 10 ms.
std::string stalledCapture() {
  std::string text;
  for (int f = 1; f <= 3; ++f) {
    text += prepare(1, 0, f, f - 1);
    text += prepare(1, 1, f, f - 1);
  }
  text += licence(2, 0, 1, 1) + finished(3, 0, 1) + licence(4, 1, 1, 2) + waitLine(10, 0, 2);
  return text;
}
const char* const kFatalError = "[S:0 F:1] No license to config, please check flow !!";
std::string fatalLines(int ms) {
  return tt(ms, 10, 'E', "OrvCam/CamDeliver", kFatalError) +
         tt(ms, 10, 'F', "OrvCam/CamDeliver",
            std::string(kFatalError) +
                " (sendJobForConfigure){#93:hw/camsys/cam_deliver/CamDeliver.cpp}");
}

class WatchTest : public ::testing::Test {
 protected:
  void add(const std::string& lines) {
    std::istringstream in(lines);
    for (std::string line; std::getline(in, line);) reader.addLine(line);
  }
  std::string stalls(Watch& watch, Nanos quiet) {
    std::ostringstream out;
    watch.stalls(reader, quiet, out);
    return out.str();
  }
  std::string fatals(Watch& watch, Nanos wall, bool end = false) {
    std::ostringstream out;
    watch.fatals(reader, wall, end, out);
    return out.str();
  }
  LogReader reader;
};

TEST_F(WatchTest, StallIsReportedOnceBySilenceOrByTheLogsStampsAndWhenItGoesOn) {
  Watch watch(300 * kMs);
  add(stalledCapture());
  // The wait line is the newest stamp: only the input's silence makes it a stall.
  EXPECT_EQ(stalls(watch, 0), "");
  EXPECT_EQ(stalls(watch, 299 * kMs), "");
  std::string report = stalls(watch, 300 * kMs);
  EXPECT_THAT(report, HasSubstr("[blocked] process 100: blocked send: S:0 F:2 EnqJob has waited "
                                "300.000 ms (since 9.000 ms), past the stall threshold of "
                                "300.000 ms; the log has been silent for 300.000 ms"));
  EXPECT_THAT(report, HasSubstr("missing partner S:1 F:1: running"));
  EXPECT_EQ(stalls(watch, 900 * kMs), "");  // once
  EXPECT_EQ(watch.stallsReported(), 1u);

  // Another process goes on logging: the log's own stamps show S:0 F:3's wait past the
  // threshold while the input is not silent at all.
  add(waitLine(20, 0, 3) + "11-22 10:00:01.020   200   201 I ActivityManager: still alive\n");
  report = stalls(watch, 0);
  EXPECT_THAT(report, HasSubstr("S:0 F:3 EnqJob has waited 1000.000 ms"));
  EXPECT_THAT(report, Not(HasSubstr("silent")));
  EXPECT_THAT(report, Not(HasSubstr("S:0 F:2 EnqJob")));

  // S:1 finishes F:1 and S:0's F:2 starts: it went on; F:3 still waits.
  add(finished(1030, 1, 1) + licence(1031, 0, 2, 3));
  report = stalls(watch, 0);
  EXPECT_THAT(report, HasSubstr("[went on] process 100: S:0 F:2 EnqJob, reported blocked: its job "
                                "started after 1021.000 ms"));
  EXPECT_THAT(report, Not(HasSubstr("F:3")));
  EXPECT_EQ(watch.status(reader),
            std::to_string(reader.totalLines()) + " lines, 3 frames, 1 send(s) waiting");
}

TEST_F(WatchTest, DerivedThresholdFollowsTheWaitsSeenSoFar) {
  Watch watch(-1);
  add(stalledCapture());
  Nanos threshold = 0;
  reader.forEachCurrentRun([&](const logread::Run& run, Nanos) { threshold = watch.stallNs(run); });
  EXPECT_EQ(threshold, kStallFloorNs);
  EXPECT_EQ(stalls(watch, 499 * kMs), "");
  EXPECT_THAT(stalls(watch, 500 * kMs), HasSubstr("(derived from the log so far)"));
  // A 100 ms wait that ended: twenty times it, from frames still held as from settled ones.
  add(waitLine(20, 1, 2) + finished(30, 1, 1) + licence(120, 1, 2, 4));
  reader.forEachCurrentRun([&](const logread::Run& run, Nanos) { threshold = watch.stallNs(run); });
  EXPECT_NEAR(double(threshold), 20 * 100e6, 20 * 100e6 / 32);
}

TEST_F(WatchTest, FatalAssertionIsReportedWithItsFunctionOnceItsLineComes) {
  Watch watch(-1);
  add(stalledCapture() + fatalLines(50));
  std::string report = fatals(watch, 0);
  EXPECT_THAT(report, HasSubstr(std::string("[fatal] process 100: fatal assertion \"") +
                                kFatalError + "\" in sendJobForConfigure at 49.000 ms"));
  EXPECT_THAT(report, HasSubstr("rule broken: don't"));
  EXPECT_EQ(fatals(watch, 0), "");
  EXPECT_EQ(watch.fatalsReported(), 1u);
}

TEST_F(WatchTest, FatalErrorLineAloneWaitsBrieflyForTheAssertionLine) {
  Watch watch(-1);
  add(stalledCapture() + tt(50, 10, 'E', "OrvCam/CamDeliver", kFatalError));
  EXPECT_EQ(fatals(watch, 1000), "");
  EXPECT_EQ(fatals(watch, 1000 + Watch::kFatalWaitNs - 1), "");
  EXPECT_THAT(fatals(watch, 1000 + Watch::kFatalWaitNs),
              HasSubstr(std::string("fatal assertion \"") + kFatalError + "\" at 49.000 ms"));
  Watch atEnd(-1);
  EXPECT_THAT(fatals(atEnd, 0, true), HasSubstr("[fatal]"));
}

// At verbose level the send's own line comes before its wait lines; the enqueue still counts
// as waited, and the trace draws the arrow from the partner's job that released it.
TEST_F(WatchTest, VerboseSendLineKeepsTheWaitAndItsFlowArrow) {
  add(stalledCapture());
  add(tt(11, 10, 'D', "OrvCam/CamDeliver", "[sendJobForEnque] " + sf(0, 3)) + waitLine(12, 0, 3));
  add(finished(30, 1, 1) + licence(31, 0, 2, 3) + finished(32, 0, 2));
  add(licence(33, 1, 2, 4) + finished(34, 1, 2) + licence(35, 0, 3, 5) + finished(36, 0, 3));
  std::vector<logread::Run> runs = reader.finish();
  ASSERT_EQ(runs.size(), 1u);
  const SensorFrame& st = runs[0].states.at({0, 3});
  EXPECT_TRUE(st.enqSentSeen && st.enqWaitSeen);
  EXPECT_EQ(st.enqSentAt, 10 * kMs);  // the send's line, not its first wait
  std::ostringstream trace;
  writeTrace(trace, runs[0]);
  size_t arrows = 0;
  for (size_t at = 0; (at = trace.str().find("\"ph\":\"s\"", at)) != std::string::npos; ++at) {
    ++arrows;
  }
  EXPECT_EQ(arrows, 2u) << "S:0 F:2 (debug) and S:0 F:3 (verbose) each waited";
}

// camdeliver-log --follow - as a child process on two pipes; every wait is bounded.
class FollowPipe {
 public:
  explicit FollowPipe(const char* stallMs) {
    int in[2], out[2];
    if (pipe(in) != 0 || pipe(out) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      for (int fd : {in[0], in[1], out[0], out[1]}) close(fd);
      execl(CAMDELIVER_LOG, CAMDELIVER_LOG, "--follow", "-", "--stall-ms", stallMs, nullptr);
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    write_ = in[1];
    read_ = out[0];
  }
  ~FollowPipe() {
    closeInput();
    if (pid_ > 0 && !reaped_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (read_ >= 0) close(read_);
  }
  bool started() const { return pid_ > 0 && write_ >= 0; }
  bool send(const std::string& text) {
    return write(write_, text.data(), text.size()) == ssize_t(text.size());
  }
  void closeInput() {
    if (write_ >= 0) close(write_);
    write_ = -1;
  }
  // Reads the child's output until it holds `text` (true) or `deadline` passes, or the output
  // ends (false).
  template <typename Clock>
  bool readUntil(const std::string& text, typename Clock::time_point deadline) {
    while (output_.find(text) == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return false;
      pollfd p{read_, POLLIN, 0};
      if (poll(&p, 1, int(left.count())) <= 0) continue;
      char chunk[4096];
      ssize_t got = read(read_, chunk, sizeof chunk);
      if (got <= 0) return false;
      output_.append(chunk, size_t(got));
    }
    return true;
  }
  // The exit status once the child has ended by `deadline`; -1 if it has not.
  template <typename Clock>
  int exitCode(typename Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        reaped_ = true;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      poll(nullptr, 0, 10);
    }
    return -1;
  }
  const std::string& output() const { return output_; }
  void interrupt() { kill(pid_, SIGINT); }

 private:
  pid_t pid_ = -1;
  int write_ = -1, read_ = -1;
  bool reaped_ = false;
  std::string output_;
};

// The capture that ends in a wait, written to a child that follows it; true once the stall was
// reported no earlier than due and no later than a second after.
void expectStallOnSilence(FollowPipe& child) {
  using Clock = std::chrono::steady_clock;
  ASSERT_TRUE(child.started());
  ASSERT_TRUE(child.send(stalledCapture()));
  // The pipe stays open and silent: the stall is due 300 ms after the wait line arrived.
  auto sent = Clock::now();
  ASSERT_TRUE(child.readUntil<Clock>("[blocked]", sent + std::chrono::milliseconds(1300)))
      << "no stall report within the threshold plus a second; output so far:\n"
      << child.output();
  EXPECT_GE(Clock::now() - sent, std::chrono::milliseconds(300)) << "reported before it was due";
  EXPECT_THAT(child.output(), HasSubstr("blocked send: S:0 F:2 EnqJob has waited"));
}

// A child following the capture that ends in a wait, once it has reported the stall (the test
// body does not run if it has not). A closed pipe is an error to report, not a signal.
class FollowPipeTest : public ::testing::Test {
 protected:
  using Clock = std::chrono::steady_clock;
  static void SetUpTestSuite() { signal(SIGPIPE, SIG_IGN); }
  void SetUp() override { expectStallOnSilence(child); }
  // The report after the input ends: verdict FAIL and exit 1 within 5 s.
  void expectFailingReport() {
    auto deadline = Clock::now() + std::chrono::seconds(5);
    EXPECT_TRUE(child.readUntil<Clock>("verdict: FAIL", deadline)) << child.output();
    EXPECT_EQ(child.exitCode<Clock>(deadline), 1) << child.output();
  }

  FollowPipe child{"300"};
};

TEST_F(FollowPipeTest, StallOfASilentPipeAndAFatalLineAreReportedBeforeItCloses) {
  // The process's next line comes 1.5 s later by its stamp: its fatal assertion.
  ASSERT_TRUE(child.send(fatalLines(1500)));
  ASSERT_TRUE(child.readUntil<Clock>("[fatal]", Clock::now() + std::chrono::seconds(1)))
      << "the fatal assertion was not reported as it arrived; output so far:\n"
      << child.output();

  child.closeInput();
  expectFailingReport();
  EXPECT_THAT(child.output(), HasSubstr("S:0 F:2 EnqJob still waiting at the end of the log: "
                                        "waited 1490.000 ms"));
}

// A capture stopped by hand while the process hangs: the report that follows Ctrl-C counts the
// silence, as the watch did.
TEST_F(FollowPipeTest, InterruptEndsTheInputAndTheReportCountsTheSilence) {
  child.interrupt();
  expectFailingReport();
  EXPECT_THAT(child.output(), HasSubstr("S:0 F:2 EnqJob still waiting at the end of the capture"));
}

}  // namespace
}  // namespace logread
}  // namespace orvcam
