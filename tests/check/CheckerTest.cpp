// The ordering checker on hand-recorded histories: a good one passes, and each kind of wrong
// order, FD, licence or delivery is caught under its own rule and nothing else.
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>

#include "check/Checker.h"

namespace orvcam {
namespace check {

using namespace history;
namespace {

// Records a run by hand. Each job gets a fresh licence acquired just before it and handed back
// when it ends, as the simulator's jobs do.
class Recording {
 public:
  explicit Recording(std::vector<uint32_t> sensors) { h.sensors = std::move(sensors); }

  FramePlan& frame(uint32_t f, std::vector<uint32_t> sensors, std::set<uint32_t> sync = {}) {
    FramePlan p;
    p.frame = f;
    p.sensors = std::move(sensors);
    p.syncList = std::move(sync);
    h.plans.push_back(p);
    for (uint32_t s : h.plans.back().sensors) h.prepares.push_back({s, f, 0});
    return h.plans.back();
  }

  JobRecord& job(uint32_t s, uint32_t f, JobKind kind, int32_t fd, Nanos start, Nanos end) {
    uint64_t serial = nextSerial++;
    h.licences.push_back({LicenceEventKind::Acquired, serial, fd, start - 1, -1});
    h.licences.push_back({LicenceEventKind::Released, serial, fd, end, -1});
    JobRecord j;
    j.sensor = s, j.frame = f, j.kind = kind, j.fd = fd, j.serial = serial;
    j.sent = start - 1, j.start = start, j.end = end, j.ran = true;
    h.jobs.push_back(j);
    return h.jobs.back();
  }
  JobRecord& enq(uint32_t s, uint32_t f, int32_t fd, Nanos start, Nanos end) {
    return job(s, f, JobKind::Enqueue, fd, start, end);
  }

  void event(EventKind kind, uint32_t s, uint32_t f, Nanos at, std::vector<uint32_t> frames = {}) {
    EventRecord e;
    e.kind = kind, e.sensor = s, e.frame = f, e.begin = at, e.end = at + 1;
    e.frames = std::move(frames);
    h.events.push_back(e);
  }

  // Fills in the pipe manager's count from the licence events.
  History done() {
    History out = h;
    out.account = {};
    for (const auto& l : out.licences) {
      ++(l.kind == LicenceEventKind::Acquired   ? out.account.acquired
         : l.kind == LicenceEventKind::Released ? out.account.released
                                                : out.account.destroyed);
    }
    out.teardownAt = out.wallTime = 1000;
    return out;
  }

  History h;
  uint64_t nextSerial = 1;
};

// Two synchronised sensors through a configure frame, a drop, an in-flight break, a
// raw switch and a flush, all in order.
History goodHistory() {
  Recording r({0, 1});
  FramePlan& f1 = r.frame(1, {0, 1}, {0, 1});
  f1.needCfg = f1.cfgByJob = {0, 1};
  r.job(0, 1, JobKind::Configure, 1, 2, 5);
  r.job(1, 1, JobKind::Configure, 2, 3, 6);
  r.enq(0, 1, 1, 6, 9);
  r.enq(1, 1, 2, 7, 10);
  r.frame(2, {0, 1}, {0, 1});
  r.enq(0, 2, 10, 20, 30);
  r.enq(1, 2, 10, 22, 28);
  r.frame(3, {0, 1}, {0, 1});
  r.event(EventKind::Drop, 1, 3, 35);
  r.enq(0, 3, 11, 40, 45);
  r.frame(4, {0, 1}, {0, 1});
  r.enq(0, 4, 12, 50, 55);
  r.enq(1, 4, 12, 50, 52);
  r.frame(5, {0, 1}, {0, 1});
  r.event(EventKind::InformInflight, 1, 5, 58, {5});
  r.enq(0, 5, 13, 60, 70);
  r.enq(1, 5, 14, 60, 62);
  r.frame(6, {1});
  r.enq(1, 6, 15, 63, 78);  // before S:0 finished F:5, whose sync was broken
  FramePlan& f7 = r.frame(7, {0, 1});
  f7.offSensor = 1, f7.onSensor = 0;
  r.enq(1, 7, 16, 80, 85);
  r.enq(0, 7, 17, 80, 86);  // after the off sensor's F:6
  r.frame(8, {0, 1}, {0, 1});
  r.event(EventKind::Flush, 0, 8, 90, {8});
  r.event(EventKind::Flush, 1, 8, 91, {8});
  return r.done();
}

JobRecord& findJob(History& h, uint32_t s, uint32_t f, JobKind kind = JobKind::Enqueue) {
  for (auto& j : h.jobs) {
    if (j.sensor == s && j.frame == f && j.kind == kind) return j;
  }
  throw std::logic_error("no such job");
}

// Moves a job and its licence's acquire and release with it.
void retime(History& h, JobRecord& j, Nanos start, Nanos end) {
  j.sent = start - 1, j.start = start, j.end = end;
  for (auto& l : h.licences) {
    if (l.serial == j.serial) l.at = l.kind == LicenceEventKind::Acquired ? start - 1 : end;
  }
}

void eraseJob(History& h, uint32_t s, uint32_t f) {
  JobRecord& j = findJob(h, s, f);
  h.jobs.erase(h.jobs.begin() + (&j - h.jobs.data()));
}

std::map<std::string, int> rules(const History& h) {
  std::map<std::string, int> count;
  for (const auto& v : checkHistory(h).violations) ++count[v.rule];
  return count;
}

using Rules = std::map<std::string, int>;

TEST(SimChecker, GoodHistoryPasses) {
  CheckResult result = checkHistory(goodHistory());
  for (const auto& v : result.violations) ADD_FAILURE() << v.rule << ": " << v.message;
  EXPECT_EQ(result.jobsChecked, 14u);
  EXPECT_EQ(result.licencesChecked, 14u);
}

// Jobs that overlap although the sensor sent them in its order of preparation break the
// library's guarantee; jobs the sensor itself sent in another order are the client's doing
// (the library holds no send back for the sensor's own previous frame), and so is a second
// preparation of a frame, which must not be taken for a frame that follows itself.
TEST(SimChecker, TellsJobsOutOfPreparationOrderFromSendsOutOfIt) {
  History h = goodHistory();
  retime(h, findJob(h, 0, 5), 60, 81);  // still on F:5 when its next frame, F:7, starts
  EXPECT_EQ(rules(h), (Rules{{"order", 1}}));
  h = goodHistory();
  retime(h, findJob(h, 1, 1, JobKind::Configure), 8, 9);  // configure sent after its enqueue
  CheckResult result = checkHistory(h);
  EXPECT_TRUE(result.violations.empty());
  ASSERT_EQ(result.notes.size(), 1u);
  EXPECT_EQ(result.notes[0].message,
            "S:1 F:1 EnqJob was sent at 0.000 ms, before S:1 F:1 ConfigJob (sent at 0.000 ms), "
            "although S:1 prepared F:1 first");
  EXPECT_EQ(result.notes[0].broken, clientrule::kSendOrder);
  h = goodHistory();
  h.prepares.push_back({0, 1, 95, 96});  // S:0 prepares F:1 again after its last frame
  result = checkHistory(h);
  EXPECT_TRUE(result.violations.empty());
  ASSERT_EQ(result.notes.size(), 1u);
  EXPECT_EQ(result.notes[0].broken, clientrule::kDoublePrepare);
}

TEST(SimChecker, CatchesSyncPartnerOvertaken) {
  History h = goodHistory();
  findJob(h, 1, 2).end = 41;  // S:0 enqueues F:3 at 40, before S:1 finished F:2
  EXPECT_EQ(rules(h), (Rules{{"sync", 1}}));
  h = goodHistory();
  h.events[0].begin = 51;  // the drop of S:1 F:3 came after both went on with F:4
  EXPECT_EQ(rules(h), (Rules{{"sync", 2}}));
}

TEST(SimChecker, SyncBreakExcusesOnlyTheFramesItNamed) {
  History h = goodHistory();
  h.events[1].frames = {};  // the report broke nothing: S:1 F:6 went too early, and F:5's
                            // sync group should have kept one FD
  EXPECT_EQ(rules(h), (Rules{{"fd", 1}, {"sync", 1}}));
  h = goodHistory();
  h.events[1].begin = 64;  // the break came after S:1 had already gone
  EXPECT_EQ(rules(h), (Rules{{"sync", 1}}));
}

TEST(SimChecker, CatchesRawSwitchBeforeOffSensorEnqueued) {
  History h = goodHistory();
  findJob(h, 0, 7).start = 75;
  EXPECT_EQ(rules(h), (Rules{{"raw-switch", 1}}));
  h = goodHistory();
  eraseJob(h, 1, 6);  // S:1 F:6 never enqueued
  EXPECT_EQ(rules(h), (Rules{{"delivery", 1}, {"raw-switch", 2}}));
}

TEST(SimChecker, CatchesFrameDescriptorsThatDoNotFit) {
  History h = goodHistory();
  findJob(h, 1, 2).fd = 99;  // a sync group split over two FDs
  EXPECT_EQ(rules(h), (Rules{{"fd", 1}, {"licence", 1}}));
  for (auto& l : h.licences) l.fd = l.serial == findJob(h, 1, 2).serial ? 99 : l.fd;
  EXPECT_EQ(rules(h), (Rules{{"fd", 1}}));

  h = goodHistory();
  findJob(h, 1, 5).fd = 13;  // still shared after the in-flight report changed it
  for (auto& l : h.licences) l.fd = l.serial == findJob(h, 1, 5).serial ? 13 : l.fd;
  EXPECT_EQ(rules(h), (Rules{{"fd", 1}}));

  h = goodHistory();
  findJob(h, 0, 1, JobKind::Configure).fd = 3;  // configure and enqueue licence apart
  for (auto& l : h.licences)
    l.fd = l.serial == findJob(h, 0, 1, JobKind::Configure).serial ? 3 : l.fd;
  EXPECT_EQ(rules(h), (Rules{{"fd", 1}}));
}

TEST(SimChecker, CatchesLicencesNotUsedOrHandedBackExactlyOnce) {
  History h = goodHistory();
  h.licences.push_back(h.licences[1]);  // handed back twice
  h.account.released++;
  EXPECT_EQ(rules(h), (Rules{{"licence", 2}}));  // and the count no longer balances

  h = goodHistory();
  h.account.emptyReleases = 2;  // handed back again after the pipe manager took it
  EXPECT_EQ(rules(h), (Rules{{"licence", 1}}));

  h = goodHistory();
  h.licences.push_back({LicenceEventKind::Acquired, 50, 40, 12, -1});  // never handed back
  h.account.acquired++;
  EXPECT_EQ(rules(h), (Rules{{"licence", 2}}));  // the leak, and the count still live

  h = goodHistory();
  findJob(h, 1, 4).serial = findJob(h, 0, 4).serial;  // one licence, two jobs
  EXPECT_EQ(rules(h), (Rules{{"licence", 1}}));

  h = goodHistory();
  h.licences[1].at = 1;  // handed back before its job ran
  EXPECT_EQ(rules(h), (Rules{{"licence", 1}}));

  h = goodHistory();
  h.licences.push_back({LicenceEventKind::Acquired, 60, 41, 12, -1});
  h.licences.push_back({LicenceEventKind::Released, 60, 41, 1000, -1});  // by the teardown
  h.account.acquired++, h.account.released++;
  EXPECT_EQ(rules(h), (Rules{{"licence", 1}}));

  h = goodHistory();
  h.licences[1].kind = LicenceEventKind::Destroyed;
  h.account.released--, h.account.destroyed++;
  EXPECT_EQ(rules(h), (Rules{{"licence", 1}}));

  h = goodHistory();
  h.account.acquired++;  // the pipe manager saw a licence the run did not
  EXPECT_EQ(rules(h), (Rules{{"licence", 2}}));
}

TEST(SimChecker, CatchesFramesNotDeliveredOrLeftInThePool) {
  History h = goodHistory();
  h.framesLeftInPool = {8};
  EXPECT_EQ(rules(h), (Rules{{"pool", 1}}));

  h = goodHistory();
  findJob(h, 0, 7).ran = false;  // the deliverer had no licence left for it
  findJob(h, 0, 7).result = -1;
  EXPECT_EQ(rules(h), (Rules{{"delivery", 2}}));  // not run, hence never enqueued

  h = goodHistory();
  Recording extra({0, 1});
  extra.h = h;
  extra.nextSerial = 100;
  extra.enq(1, 3, 11, 38, 39);  // an enqueue sent after its frame's drop: the client's fault
  extra.enq(0, 8, 51, 95, 96);  // and one run after a flush: the library's
  CheckResult result = checkHistory(extra.done());
  ASSERT_EQ(result.violations.size(), 1u);
  EXPECT_EQ(result.violations[0].message, "S:0 F:8 EnqJob ran after the frame was flushed");
  ASSERT_EQ(result.notes.size(), 1u);
  EXPECT_EQ(result.notes[0].message,
            "S:1 F:3 EnqJob was sent after the frame's drop had been reported");

  h = goodHistory();
  h.plans[0].needCfg.insert(2);
  h.plans[0].sensors.push_back(2);  // a sensor that never prepared, configured or enqueued
  EXPECT_EQ(rules(h), (Rules{{"delivery", 3}}));

  // From a source that lost records, breaches that rest only on one being absent are kept
  // apart; one that rests on records present (a job after the flush) still counts.
  h = extra.done();
  eraseJob(h, 0, 7);
  h.linesLost = 2;
  result = checkHistory(h);
  ASSERT_EQ(result.absent.size(), 1u);
  EXPECT_EQ(result.absent[0].message, "S:0 F:7 was never enqueued");
  ASSERT_EQ(result.violations.size(), 1u);
  EXPECT_EQ(result.violations[0].message, "S:0 F:8 EnqJob ran after the frame was flushed");
  h.linesLost = 0;
  EXPECT_EQ(checkHistory(h).violations.size(), 2u);
  EXPECT_EQ(checkHistory(h, {/*absentApart=*/true}).absent.size(), 1u);
}

// A raw-switch send made before the off sensor prepared the frame voids the raw-switch rule:
// the early start is the client's doing, a note and not a violation.
TEST(SimChecker, RawSwitchSendBeforeOffSensorPreparedIsAClientNote) {
  History h = goodHistory();
  retime(h, findJob(h, 0, 7), 75, 86);  // before the off sensor's F:6 was enqueued at 78
  EXPECT_EQ(rules(h), (Rules{{"raw-switch", 1}}));
  for (auto& p : h.prepares) {
    if (p.sensor == 1 && p.frame == 7) p.at = 70, p.end = 76;  // prepared after S:0's send
  }
  CheckResult result = checkHistory(h);
  EXPECT_TRUE(result.violations.empty());
  ASSERT_EQ(result.notes.size(), 1u);
  EXPECT_EQ(result.notes[0].rule, "client");
  EXPECT_EQ(result.notes[0].message,
            "S:0 F:7 EnqJob was sent on a raw-switch frame before the off sensor S:1 had "
            "prepared it, so the raw-switch rule could not hold it back");
}

// Drops that race the sensor's own enqueue (which then returns -1) or come after the frame
// finished are legal; neither is a violation.
TEST(SimChecker, RacingAndLateDropsAreNotViolations) {
  History h = goodHistory();
  findJob(h, 0, 4).ran = false;
  findJob(h, 0, 4).result = -1;
  h.events.insert(h.events.begin() + 1, EventRecord{EventKind::Drop, 0, 4, 0, 51, 52, {}});
  h.events.push_back(EventRecord{EventKind::Drop, 0, 2, 0, 92, 93, {}});  // F:2 long finished
  CheckResult result = checkHistory(h);
  for (const auto& v : result.violations) ADD_FAILURE() << v.rule << ": " << v.message;
  EXPECT_TRUE(result.notes.empty());
  findJob(h, 0, 4).ran = true;  // without a drop before it ended, a -1 is the library's fault
  h.events.erase(h.events.begin() + 1);
  findJob(h, 0, 4).ran = false;  // and its partners wait for nothing
  EXPECT_EQ(rules(h), (Rules{{"delivery", 2}, {"sync", 2}}));
}

// The client prepared a frame after 20 other frames had been first prepared since its first
// preparation: the deliverer would fetch its licences again.
TEST(SimChecker, NotesAPreparationOutsideTheRecentWindow) {
  History h;
  h.prepares.push_back({0, 1, 1, 2});
  for (uint32_t f = 2; f <= 20; ++f) h.prepares.push_back({1, f, f * 10, f * 10 + 1});
  h.prepares.push_back({1, 1, 300, 301});  // 19 others: still inside
  EXPECT_TRUE(clientProtocolNotes(h).empty());
  h.prepares.back() = {1, 21, 300, 301};
  h.prepares.push_back({1, 1, 400, 401});  // 20 others: outside
  h.prepares.push_back({0, 1, 500, 501});  // and prepared twice by S:0
  std::vector<Violation> notes = clientProtocolNotes(h);
  ASSERT_EQ(notes.size(), 2u);
  EXPECT_EQ(notes[0].message,
            "S:1 F:1 was prepared after 20 other frames had been first prepared since the "
            "frame's own first preparation; the deliverer keeps the last 20, fetches the "
            "frame's licences again and ends the process");
  EXPECT_EQ(notes[0].broken, clientrule::kLaggingPrepare);
  EXPECT_EQ(notes[1].message, "S:0 F:1 was prepared twice");
  EXPECT_EQ(notes[1].broken, clientrule::kDoublePrepare);
}

}  // namespace
}  // namespace check
}  // namespace orvcam
