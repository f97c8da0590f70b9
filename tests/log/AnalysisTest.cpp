// What camdeliver-log makes of a hand-written log: its findings (blocked sends and their
// missing partners, frames not found, fatal assertions, breaches in edited logs), the warnings
// and notes, and the scenario and history written from it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "LogTestUtil.h"
#include "history/HistoryJson.h"
#include "log/LogReport.h"
#include "logread/LogReader.h"
#include "logread/MessageCatalogue.h"

namespace orvcam {
namespace log {

using namespace logread;
namespace {

using ::testing::HasSubstr;

const char kSyncWait[] = "[operator()] [S:0 F:2][EnqJob] wait previous syncframe enque ...";

// Sensors 0 and 1 prepare frames 1 and 2 in sync; sensor 0 has sent frame 1 (FD 5).
void sensor0SentFrame1OfTwo(HandLog& log) {
  log.prepareBoth(0, 1, 0);
  log.prepareBoth(2, 2, 1);
  log.enqueue(10, 0, 1, 5, false);
}

// Sensors 0 and 1 synchronised; sensor 1 prepares frame 1 and never sends it, so sensor 0's
// send of frame 2, after its own frame 1, waits from 20 ms on.
void sensor0WaitsForSensor1(HandLog& log) {
  log.prepareBoth(0, 1, 0);
  log.prepare(2, 0, 2, 1);
  log.enqueue(10, 0, 1, 5, false);
  log.add(tt(20, 10, 'D', "CamDeliverGuard", kSyncWait));
}

// Two synchronised sensors; sensor 1 never enqueues frame 1, so sensor 0's frame 2 waits.
TEST_F(LogTest, NamesTheBlockedSendAndItsMissingPartner) {
  sensor0SentFrame1OfTwo(*this);
  add(tt(20, 10, 'D', "FrameContextPool",
         "[getPreviousFC] [S:0 F:2] get previous frameNo(1) order(0) < currentOrder(1)"));
  add(tt(21, 10, 'D', "CamDeliverGuard", kSyncWait));
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
  for (const char* end : {"+3", "11-22 10:00:03.020", "2026-11-22 10:00:03.020000"}) {
    CaptureEnd given;
    std::string error;
    ASSERT_TRUE(parseCaptureEnd(end, &given, &error)) << end << ": " << error;
    HandLog again;
    again.reader.setCaptureEnd(given);
    sensor0WaitsForSensor1(again);
    Analysis a = analyse(again.only());
    ASSERT_EQ(kinds(a), (std::vector<std::string>{"blocked"})) << end;
    EXPECT_THAT(a.findings[0].text,
                HasSubstr("S:0 F:2 EnqJob still waiting at the end of the capture "
                          "(--capture-end): waited 3000.000 ms (since 20.000 ms)"));
    EXPECT_THAT(a.findings[0].text, HasSubstr("missing partner S:1 F:1: prepared, no send"));
  }
  // Without it the wait is cut off by the capture, not a stall.
  sensor0WaitsForSensor1(*this);
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
  // S:0 F:5 dropped, reported on thread `dropTid`; then the send of it on S:0's thread aborts
  // (with the error line before the assertion's, if `errorLine`).
  auto sendAfterDrop = [](HandLog& log, int dropTid, bool errorLine) {
    log.prepare(0, 0, 5, 0);
    log.add(tt(1, dropTid, 'D', "CamDeliver", "[notifyEvent] [S:0 F:5] type(Drop), value(0)"));
    log.add(tt(2, dropTid, 'D', "CamDeliverGuard", "[drop] [S:0 F:5] drop"));
    log.add(tt(3, dropTid, 'D', "CamDeliverGuard", "[drop] [S:0 F:5] is last, erase"));
    if (errorLine) log.add(tt(4, 10, 'E', "CamDeliverGuard", "[S:0 F:5] FC not found !"));
    log.add(tt(4, 10, 'F', "CamDeliverGuard", "[S:0 F:5] FC not found ! (wait){#12:g.cpp}"));
  };
  sendAfterDrop(*this, 10, true);
  Analysis a = analyse(only());
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"client", "fatal"}));
  EXPECT_THAT(a.findings[0].text,
              HasSubstr("S:0 F:5 was sent for after the sensor's own drop of the frame at "
                        "1.000 ms, reported earlier on the same thread"));
  EXPECT_THAT(a.findings[1].text,
              HasSubstr("F:5 had left the pool: retired by the drop of S:0 F:5 (line 4)"));

  // The same drop on the event thread: the send may have raced it, and the log cannot tell.
  HandLog other;
  sendAfterDrop(other, 20, false);
  a = analyse(other.only());
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"fatal"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("unknown whether the send was made after the drop"));
}

// A capture cut while a send waits ends a few milliseconds after the wait began: that send was
// in flight, not hung, however the rest of the log looks.
TEST_F(LogTest, SendWaitingWhenTheCaptureIsCutIsInFlight) {
  sensor0WaitsForSensor1(*this);
  add("11-22 10:00:00.120   300   301 I CameraService: other process");
  Analysis a = analyse(only());
  EXPECT_TRUE(a.findings.empty());
  ASSERT_EQ(a.inFlight.size(), 1u);
  EXPECT_THAT(a.inFlight[0], HasSubstr("S:0 F:2 EnqJob had waited 100.000 ms (since 20.000 ms)"));
  EXPECT_EQ(a.stallNs, kStallFloorNs);
  EXPECT_FALSE(a.failed());
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
  a = analyse(run, strictOptions());
  EXPECT_THAT(a.warnings[0].text, HasSubstr("explained by a legal client call order: a late drop"));
  EXPECT_TRUE(a.failed());
}

// Frame 1 is synchronised (one FD); sensor 0's frame 2 starts before sensor 1 enqueued frame 1.
TEST_F(LogTest, CheckerFindsASyncBreachInAnEditedLog) {
  sensor0SentFrame1OfTwo(*this);
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
  sensor0SentFrame1OfTwo(*this);
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
  EXPECT_TRUE(analyse(run, strictOptions()).failed());

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

  HandLog usec;
  for (int s = 0; s < 2; ++s) {
    for (int f = 1; f <= 2; ++f) {
      usec.add("11-22 10:00:00.00000" + std::to_string(2 * f + s - 2) + "   100   " +
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
    usec.add(line);
  }
  logread::Run fine = usec.only();
  EXPECT_EQ(fine.stampTick, 1000);
  a = analyse(fine);
  ASSERT_EQ(kinds(a), (std::vector<std::string>{"sync"}));
  EXPECT_THAT(a.findings[0].text, HasSubstr("S:0 F:2 EnqJob started at 30.100 ms"));
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

TEST_F(LogTest, OnlyWarningsMeansNothingCheckableAndSaysHowToEnableIt) {
  add(tt(0, 12, 'W', "LicenseQueue", "[releaseLicense] [S:65280 F:1] license already null !"));
  logread::Run warningsOnly = only();
  Analysis a = analyse(warningsOnly);
  EXPECT_TRUE(a.debugMissing);
  EXPECT_TRUE(a.findings.empty());
  EXPECT_THAT(a.notCheckable, testing::Contains(HasSubstr("ORVCAM_ULOG_LEVEL=5")));
  EXPECT_THAT(whyNothingToRebuild(warningsOnly), HasSubstr("none of the deliverer's debug lines"));

  // Debug lines of one tag only: the level is on, the capture was filtered by tag.
  HandLog oneTag;
  oneTag.add(licenceLine(0, 0, 1, 5));
  logread::Run oneTagRun = oneTag.only();
  EXPECT_TRUE(analyse(oneTagRun).debugMissing);
  EXPECT_THAT(whyNothingToRebuild(oneTagRun),
              HasSubstr("none of the tag OrvCam/CamDeliverGuard, which writes the "
                        "preparations, waits and completions: it looks filtered by tag"));
}

TEST_F(LogTest, ScenarioReplaysSyncGroupsConfigureAndEvents) {
  prepareBoth(0, 1, 0);
  add(tt(2, 10, 'D', "CamDeliver", "[sendJobForConfigure] [S:0 F:1]"));
  add(tt(3, 10, 'D', "CamDeliver", "[getLicense] [S:65280 F:1] FD(1)"));
  add(tt(4, 10, 'D', "CamDeliverGuard", "[finished] [S:0 F:1] ConfigJob finished. "));
  add(tt(5, 11, 'W', "LicenseQueue", "[releaseLicense] [S:65281 F:1] license already null !"));
  enqueue(6, 0, 1, 1, false);
  enqueue(8, 1, 1, 2, true);
  prepareBoth(10, 2, 1);
  enqueueBoth(12, 2, 3);
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
}  // namespace log
}  // namespace orvcam
