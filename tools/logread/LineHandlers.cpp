// One handler per line of the library: the line's tag and function pick it (handle), and it
// adds what the line says to the session's records of (sensor, frame).
#include "logread/LogReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "logread/LibraryLines.h"  // the library's lines read here, each with the key it is known by
#include "logread/LogText.h"
#include "logread/MessageCatalogue.h"

namespace orvcam {
namespace logread {

using namespace history;
using namespace text;

namespace {

// One library line of a session, with what its tag's handler reads and writes: the session's
// run, the parsed "[function] [S:s F:f] tail", the line's time on the run's clock, and the
// per-thread bookkeeping of the event the thread reported last.
struct LineScope {
  Run& r;
  history::History& h;               // r.history
  std::map<int, size_t>& lastEvent;  // tid -> index in history.events
  std::map<int, bool>& eventOpen;    // tid -> lines still belong to it
  SensorFrame& scratch;
  FrameInfo& scratchFrame;
  detail::StateCache& cache;
  const LogLine& line;
  Nanos at = 0;
  std::string_view text, func, rest, tail;
  uint32_t sensor = 0, frame = 0;
  bool hasSF = false;
  uint64_t lineNo = 0;  // in the file

  // The pool erases a frame's record once every sensor it needs is done with it (enqueued,
  // dropped or flushed): one that prepared the frame and shows none of those lost its line.
  void retire(std::string by) {
    FrameInfo& fi = frameInfo(frame);
    fi.retired = true;
    fi.retiredAt = at;
    fi.retiredBy = std::move(by) + " (line " + std::to_string(lineNo) + ")";
    retiring = true;
  }
  void checkRetired() {
    if (gone(frame)) return;
    for (uint32_t s : frameInfo(frame).sensors) {
      auto st = r.states.find({s, frame});
      if (st != r.states.end() && st->second.prepared && !st->second.done()) {
        lostLine("the enqueue, drop or flush of S:" + std::to_string(s) +
                 " F:" + std::to_string(frame));
      }
    }
  }
  bool retiring = false;
  std::string sfText() const { return history::sensorName(sensor) + " F:" + std::to_string(frame); }

  // A line that proves an earlier one of the same job was written, though the log lacks it
  // (logd drops lines under load; a user cut some out): marks it as seen at this line's time
  // and counts it. Before the frame's prepare line, the log began after it: nothing is lost.
  void lostBefore(SensorFrame& st, const char* what, bool* seen, Nanos* seenAt) {
    *seen = true;
    *seenAt = at;
    if (st.prepared) {
      lostLine(what + std::string(" of S:") + std::to_string(st.sensor) +
               " F:" + std::to_string(st.frame));
    }
  }
  // A job line of a frame that the sensor has no prepare line for, after frames it prepared
  // in this log: the prepare line was lost (before its first, the log began after it).
  void jobWithoutPrepare(SensorFrame& st) {
    if (st.prepared || st.prepareLost || gone(st.frame)) return;
    auto seq = r.sequence.find(st.sensor);
    if (seq == r.sequence.end() || seq->second.empty() ||
        st.frame <= *std::min_element(seq->second.begin(), seq->second.end())) {
      return;
    }
    st.prepareLost = true;
    lostLine("the prepare of S:" + std::to_string(st.sensor) + " F:" + std::to_string(st.frame));
  }
  void lostLine(const std::string& what) {
    if (r.lostLines++ == 0) r.firstLost = what + " before line " + std::to_string(lineNo);
  }

  // A frame that settled and left memory: what its late lines would write goes to scratch.
  bool gone(uint32_t f) const {
    return int64_t(f) <= r.settledUpTo && f != kNoFrame && !r.frames.count(f);
  }
  FrameInfo& frameInfo(uint32_t f) {
    if (!gone(f)) {
      FrameInfo& fi = r.frames[f];
      fi.frame = f;
      return fi;
    }
    scratchFrame = FrameInfo();
    return scratchFrame;
  }
  SensorFrame& state(uint32_t s, uint32_t f) {
    if (cache.state && cache.sensor == s && cache.frame == f) {
      if (cache.info->firstSeen == 0 && cache.info->sensors.empty()) cache.info->firstSeen = at;
      return *cache.state;
    }
    if (gone(f)) {
      scratch = SensorFrame();
      return scratch;
    }
    SensorFrame& st = r.states[{s, f}];
    r.sensorsSeen.insert(s);
    st.sensor = s;
    st.frame = f;
    FrameInfo& fi = r.frames[f];
    if (fi.firstSeen == 0 && fi.sensors.empty()) fi.firstSeen = at;
    fi.frame = f;
    cache = {s, f, &st, &fi};
    return st;
  }
  void noteSensor(uint32_t s) {
    if (s >= kConfigKeyBase) s -= kConfigKeyBase;
    LastSeen& seen = r.lastSeen[s];
    seen.at = at;
    seen.text.assign(text);
    if (line.tid >= 0) ++r.threadSensors[line.tid][s];
  }
  // Without thread ids every thread's lines look like one thread's: an event's own lines (sync
  // breaks, FD changes) cannot be told from the others by thread, so events stay open until
  // the next one.
  void closeEvent() {
    if (line.tid >= 0) eventOpen[line.tid] = false;
  }
  history::EventRecord* openEvent() {
    auto e = lastEvent.find(line.tid);
    if (e == lastEvent.end() || !eventOpen[line.tid]) return nullptr;
    h.events[e->second].end = at;
    return &h.events[e->second];
  }
  // A client event reported at this line's time: what it does to the frames the log shows.
  history::EventRecord& addEvent(history::EventKind kind, uint32_t s, uint32_t f, uint32_t value) {
    history::EventRecord e;
    e.kind = kind;
    e.sensor = s;
    e.frame = f;
    e.value = value;
    e.begin = e.end = at;
    if (e.kind == history::EventKind::Flush) {
      // Every frame still in flight that the sensor prepared counts as flushed for it.
      // The pool holds at most 19 frames, so the scan back stops after a run of frames
      // that are all done.
      constexpr int kDoneRunEnd = 64;
      auto seq = r.sequence.find(s);
      if (seq != r.sequence.end()) {
        int doneRun = 0;
        for (auto it = seq->second.rbegin(); it != seq->second.rend() && doneRun < kDoneRunEnd;
             ++it) {
          auto st = r.states.find({s, *it});
          auto fi = r.frames.find(*it);
          if (st == r.states.end() || st->second.done() || fi == r.frames.end() ||
              fi->second.retired) {
            ++doneRun;
            continue;
          }
          doneRun = 0;
          st->second.flushed = true;
          st->second.flushedAt = at;
          e.frames.push_back(*it);
        }
      }
      std::sort(e.frames.begin(), e.frames.end());
      e.frames.erase(std::unique(e.frames.begin(), e.frames.end()), e.frames.end());
    }
    if (e.kind == history::EventKind::Drop) {
      SensorFrame& st = state(s, f);
      st.dropped = true;
      st.droppedAt = at;
      frameInfo(f).sensors.insert(s);
      ++r.totals[s].dropped;
    }
    r.sawDropOrFlush = r.sawDropOrFlush || e.kind == history::EventKind::Drop ||
                       e.kind == history::EventKind::Flush;
    h.events.push_back(std::move(e));
    lastEvent[line.tid] = h.events.size() - 1;
    eventOpen[line.tid] = true;
    return h.events.back();
  }
  // A drop or flush report that a later line of it proves, for a frame that shows none: the
  // report's own line was lost, and it is made up here (before the frame's prepare, the log
  // began after it: nothing is made up).
  history::EventRecord* lostReport(history::EventKind kind, uint32_t s, uint32_t f) {
    if (gone(f)) return nullptr;
    SensorFrame& st = state(s, f);
    bool drop = kind == history::EventKind::Drop;
    if (!st.prepared || (drop ? st.dropped : st.flushed)) return nullptr;
    lostLine(std::string("the ") + (drop ? "drop" : "flush") + " report of S:" + std::to_string(s) +
             " F:" + std::to_string(f));
    return &addEvent(kind, s, f, 0);
  }
  // Only an in-flight report of value 0 lists frames for their sync break, changes their FDs
  // and breaks their sync: when the thread has none open, the report's own line was lost, and
  // it is made up at this line's time.
  // Without thread ids, lines of other threads in between may have closed the report: its
  // frames go to the latest report of the log instead.
  history::EventRecord* inflightReport(uint32_t s, uint32_t f) {
    history::EventRecord* e = openEvent();
    if (e && e->kind == history::EventKind::InformInflight && e->value == 0) return e;
    if (line.tid < 0) {
      for (auto it = h.events.rbegin(); it != h.events.rend(); ++it) {
        if (it->kind == history::EventKind::InformInflight && it->value == 0) return &*it;
      }
      return nullptr;
    }
    lostLine("the in-flight report of S:" + std::to_string(s));
    return &addEvent(history::EventKind::InformInflight, s, f, 0);
  }
  // Any of those lines proves the frame's sync broken.
  void breakSync(uint32_t s, uint32_t f) {
    frameInfo(f).syncBroken = true;
    history::EventRecord* e = inflightReport(s, f);
    if (e && std::find(e->frames.begin(), e->frames.end(), f) == e->frames.end()) {
      e->frames.push_back(f);
    }
  }
  static void firstFd(SensorFrame& st, int32_t fd) {
    if (st.firstFd < 0) st.firstFd = fd;
  }

  // One handler per tag.
  void onDeliver();  // OrvCam/CamDeliver: sends, licences taken, the client's events
  void onGuard();    // OrvCam/CamDeliverGuard: preparations, waits, completions, sync breaks,
                     // drops and flushes
  void onSyncBreak();
  void onFrameList();
  void onPrepared();
  void onOffSensorWait();
  void onSyncWait();
  void onFinished();
  void onDropOrFlush();
  void onPool();   // OrvCam/FrameContextPool: the previous frame the guard looked up
  void onQueue();  // OrvCam/LicenseQueue: licences queued and handed back, FD changes,
                   // setConfigured, clears
};

void LineScope::onDeliver() {
  if (func == "CamDeliver") {
    ++r.verboseLines;
    return;
  }
  if (!hasSF) return;
  noteSensor(sensor);
  if (func == "sendJobForConfigure") {
    closeEvent();
    SensorFrame& st = state(sensor, frame);
    st.tid = line.tid;
    st.cfgSent = true;
    st.cfgSentAt = at;
    frameInfo(frame).needCfg.insert(sensor);
    frameInfo(frame).cfgByJob.insert(sensor);
  } else if (func == "sendJobForEnque") {
    closeEvent();
    SensorFrame& st = state(sensor, frame);
    st.tid = line.tid;
    if (contains(tail, "null license")) {
      st.enqNull = true;
      st.enqEnd = at;
      if (!st.enqSentSeen && !st.enqWaitSeen) st.enqSentAt = at;
    } else {
      ++r.verboseLines;
      st.enqSentSeen = true;
      st.enqSentAt = at;
      st.enqLineTid = line.tid;
      st.enqLastLineAt = at;
    }
  } else if (func == "getLicense") {
    closeEvent();
    bool config = sensor >= kConfigKeyBase;
    uint32_t s = config ? sensor - kConfigKeyBase : sensor;
    SensorFrame& st = state(s, frame);
    st.tid = line.tid;
    jobWithoutPrepare(st);
    int64_t fd = -1;
    bool present = numberAfter(tail, "FD(", &fd);
    if (config) {
      if (!st.cfgSent) lostBefore(st, "the configure send", &st.cfgSent, &st.cfgSentAt);
      st.cfgStarted = true;
      st.cfgStart = at;
      st.cfgFd = present ? int32_t(fd) : -1;
      frameInfo(frame).needCfg.insert(s);
      frameInfo(frame).cfgByJob.insert(s);
    } else if (present) {
      st.enqStarted = true;
      st.enqStart = at;
      st.enqFd = int32_t(fd);
      firstFd(st, int32_t(fd));
      if (!st.enqSentSeen && !st.enqWaitSeen) st.enqSentAt = at;
    }
  } else if (func == "notifyEvent") {
    size_t open = tail.find("type(");
    size_t end = open == std::string_view::npos ? open : tail.find(')', open);
    if (end == std::string_view::npos) return;
    std::string_view name = tail.substr(open + 5, end - open - 5);
    int64_t value = 0;
    numberAfter(tail, "value(", &value);
    history::EventRecord e;
    e.kind = history::EventKind::ResumeDone;
    bool known = false;
    for (history::EventKind k :
         {history::EventKind::InformInflight, history::EventKind::ResumeDone,
          history::EventKind::Suspend, history::EventKind::Drop, history::EventKind::Flush,
          history::EventKind::LicenseRelease, history::EventKind::RawSwitch}) {
      if (name == history::eventKindName(k)) {
        e.kind = k;
        known = true;
      }
    }
    if (!known) return;
    addEvent(e.kind, sensor, frame, uint32_t(value));
  }
}

void LineScope::onGuard() {
  if (func == "breakFrameSync") return onSyncBreak();
  if (func == "getSyncFrames" || func == "getEnquedSyncFrames" || func == "waitUntilEnquedEmpty") {
    return onFrameList();
  }
  if (!hasSF) return;
  noteSensor(sensor);
  if (func == "prepare" && contains(tail, "prepared, order(")) {
    onPrepared();
  } else if (func == "wait") {
    onOffSensorWait();
  } else if (func == "waitOffSensorPreviousFrameEnqued") {
    // The off sensor's id is the one printed.
    frameInfo(frame).offSensor = sensor;
  } else if (func == "operator()") {
    onSyncWait();
  } else if (func == "isPreviousSyncFrameFinished") {
    ++r.verboseLines;
  } else if (func == "finished") {
    onFinished();
  } else if (func == "drop" || func == "flush") {
    onDropOrFlush();
  }
}

// An in-flight report lists the frames whose sync it breaks ("frame list: ..."), then writes
// a line per frame as it breaks it, then "break all frameSync". The list alone breaks them
// (its lines come within the same report), so that a line the log lost changes nothing; the
// frames without their own line by "break all" are counted as lost lines.
void LineScope::onSyncBreak() {
  std::vector<uint32_t>& unbroken = r.unbrokenSyncFrames[line.tid];
  if (hasSF) {
    auto listed = std::find(unbroken.begin(), unbroken.end(), frame);
    if (listed == unbroken.end()) {
      breakSync(sensor, frame);
    } else {
      unbroken.erase(listed);
      openEvent();
    }
  } else {
    for (uint32_t f : unbroken) lostLine("the sync break of F:" + std::to_string(f));
    unbroken.clear();
    openEvent();
  }
}

// The frames a query found; an in-flight report's list of the frames whose sync it breaks.
void LineScope::onFrameList() {
  if (func == "waitUntilEnquedEmpty" || startsWith(rest, "[S:")) openEvent();
  size_t list = rest.find("frame list: ");
  size_t pos = 3;
  int64_t s = 0;
  if (func == "getSyncFrames" && list != std::string_view::npos && readNumber(rest, &pos, &s)) {
    std::vector<uint32_t>& unbroken = r.unbrokenSyncFrames[line.tid];
    unbroken.clear();
    pos = list + 12;
    int64_t f = 0;
    while (readNumber(rest, &pos, &f)) {
      unbroken.push_back(uint32_t(f));
      breakSync(uint32_t(s), uint32_t(f));
      skipSpaces(rest, &pos);
    }
  }
}

void LineScope::onPrepared() {
  closeEvent();
  ++r.debugLines;
  SensorFrame& st = state(sensor, frame);
  int64_t order = -1;
  numberAfter(tail, "order(", &order);
  st.tid = line.tid;
  if (!st.prepared) {
    st.prepared = true;
    st.order = order;
    st.preparedAt = at;
    r.sequence[sensor].push_back(frame);
  }
  r.lowestFrame = std::min(r.lowestFrame, frame);
  r.highestFrame = std::max(r.highestFrame, frame);
  frameInfo(frame).sensors.insert(sensor);
  h.prepares.push_back({sensor, frame, at});
  ++r.totals[sensor].prepared;
}

// A raw-switch wait: "+" when it begins, "-" when it ends.
void LineScope::onOffSensorWait() {
  bool isConfig = contains(tail, "[ConfigJob]");
  SensorFrame& st = state(sensor, frame);
  int64_t off = -1;
  numberAfter(tail, "offSensor(", &off);
  frameInfo(frame).offSensor = off;
  if (contains(tail, "enqed +")) {
    st.offWaitOpen[isConfig] = off;
    st.offWaitSince[isConfig] = at;
    if (!isConfig) st.sawEnqueueWait(at);
  } else {
    st.offWaitOpen[isConfig] = -1;
  }
}

// A sync wait that sleeps, or (verbose) finds its group enqueued.
void LineScope::onSyncWait() {
  bool isConfig = contains(tail, "[ConfigJob]");
  SensorFrame& st = state(sensor, frame);
  if (contains(tail, "wait previous syncframe enque ...")) {
    ++st.waitLines;
    if (!isConfig) {
      st.enqLineTid = line.tid;
      st.enqLastLineAt = at;
    }
    if (!isConfig) st.sawEnqueueWait(at);
  } else {
    ++r.verboseLines;
  }
}

void LineScope::onFinished() {
  if (contains(tail, "FC not found")) return;
  SensorFrame& st = state(sensor, frame);
  jobWithoutPrepare(st);
  if (contains(tail, "ConfigJob finished.")) {
    if (!st.cfgSent) lostBefore(st, "the configure send", &st.cfgSent, &st.cfgSentAt);
    if (!st.cfgStarted) {
      lostBefore(st, "the configure licence", &st.cfgStarted, &st.cfgStart);
      st.cfgStartLost = true;
      frameInfo(frame).needCfg.insert(sensor);
      frameInfo(frame).cfgByJob.insert(sensor);
    }
    st.cfgDone = true;
    st.cfgEnd = at;
  } else if (contains(tail, "EnqJob finished.")) {
    if (!st.enqStarted) {
      lostBefore(st, "the enqueue licence", &st.enqStarted, &st.enqStart);
      st.enqStartLost = true;
      if (!st.enqSentSeen && !st.enqWaitSeen) st.enqSentAt = at;
    }
    st.enqDone = true;
    st.enqEnd = at;
    if (contains(tail, "Is last, erase it.")) retire("the last enqueue, " + sfText() + " EnqJob");
  }
}

void LineScope::onDropOrFlush() {
  if (contains(tail, "is last, erase")) retire("the " + std::string(func) + " of " + sfText());
  history::EventRecord* e = openEvent();
  // The guard's drop or flush follows the report's own line.
  if (history::EventRecord* made = lostReport(
          func == "drop" ? history::EventKind::Drop : history::EventKind::Flush, sensor, frame)) {
    e = made;
  }
  // Without thread ids the drop's own last line ends it: a release after it is another
  // thread's (a setConfigured).
  if (line.tid < 0 && func == "drop" && e && e->kind == history::EventKind::Drop &&
      contains(tail, "drop")) {
    eventOpen[line.tid] = false;
  }
}

void LineScope::onPool() {
  if (func != "getPreviousFC" || !hasSF) return;
  SensorFrame& st = state(sensor, frame);
  int64_t prev = -1, order = -1;
  if (numberAfter(tail, "previous frameNo(", &prev)) st.previousFrame = prev;
  // The pool knows the frame's order stamp only once the sensor prepared it: a frame of a
  // sensor already preparing in this log, after its first, lost its prepare line.
  auto seq = r.sequence.find(sensor);
  if (st.prepared || gone(frame) || seq == r.sequence.end() || seq->second.empty() ||
      frame <= *std::min_element(seq->second.begin(), seq->second.end()) ||
      !numberAfter(tail, "currentOrder(", &order)) {
    return;
  }
  lostLine("the prepare of S:" + std::to_string(sensor) + " F:" + std::to_string(frame));
  st.prepared = true;
  st.order = order;
  // In preparation order: before the sensor's frames after it, at the time the first of them
  // was prepared (it was prepared by then).
  std::vector<uint32_t>& frames = seq->second;
  frames.insert(std::upper_bound(frames.begin(), frames.end(), frame), frame);
  auto next = h.prepares.end();
  for (auto it = h.prepares.end(); it != h.prepares.begin();) {
    --it;
    if (it->sensor != sensor) continue;
    if (it->frame < frame) break;
    next = it;
  }
  st.preparedAt = next == h.prepares.end() ? at : next->at;
  // A send of the frame already seen came after the prepare: the lost line was no later.
  if (st.cfgSent) st.preparedAt = std::min(st.preparedAt, st.cfgSentAt);
  if (st.enqSentSeen || st.enqWaitSeen) st.preparedAt = std::min(st.preparedAt, st.enqSentAt);
  h.prepares.insert(next, {sensor, frame, st.preparedAt});
  frameInfo(frame).sensors.insert(sensor);
  ++r.totals[sensor].prepared;
}

void LineScope::onQueue() {
  if (!hasSF) return;
  bool config = sensor >= kConfigKeyBase;
  uint32_t s = config ? sensor - kConfigKeyBase : sensor;
  noteSensor(sensor);
  if (config) frameInfo(frame).needCfg.insert(s);
  if (func == "pushLicense") {
    ++r.verboseLines;
    int64_t fd = -1;
    if (!config && numberAfter(tail, "fd(", &fd)) firstFd(state(s, frame), int32_t(fd));
  } else if (func == "popLicense") {
    ++r.verboseLines;
  } else if (func == "changeFramesFD") {
    int64_t from = -1, to = -1;
    numberAfter(tail, "change FD (", &from);
    numberAfter(tail, "-> (", &to);
    SensorFrame& st = state(s, frame);
    if (!config) firstFd(st, int32_t(from));
    st.fdChanges.push_back({int32_t(from), int32_t(to)});
    breakSync(s, frame);
  } else if (func == "releaseLicense") {
    // setConfigured hands the configure licence back by key: "license already null !", then
    // the release from the pipe manager. Either line, outside a drop, reports it.
    bool null = contains(tail, "license already null !");
    bool fromPipe = !null && contains(tail, "from pipeMgr");
    if (!null && !fromPipe) return;
    history::EventRecord* e = openEvent();
    bool inDrop = e && e->kind == history::EventKind::Drop && e->sensor == s && e->frame == frame;
    if (config) {
      SensorFrame& st = state(s, frame);
      if (!inDrop && !st.setConfigured) {
        closeEvent();
        if (null) {
          st.setConfigured = true;
          st.setConfiguredAt = at;
        } else {
          lostBefore(st, "the setConfigured release", &st.setConfigured, &st.setConfiguredAt);
        }
        st.tid = line.tid;
        h.setConfigured.push_back({s, frame, at});
        ++r.totals[s].configured;
      }
    } else {
      // Only a drop report hands an enqueue licence back by key.
      if (!inDrop) lostReport(history::EventKind::Drop, s, frame);
      int64_t fd = -1;
      if (fromPipe && numberAfter(tail, "release license(", &fd)) {
        firstFd(state(s, frame), int32_t(fd));
      }
    }
  } else if (func == "clear") {
    history::EventRecord* e = openEvent();
    if (e && (e->kind == history::EventKind::Flush || e->kind == history::EventKind::QueueFlush)) {
      if (e->kind == history::EventKind::Flush) {
        history::EventRecord q;
        q.kind = history::EventKind::QueueFlush;
        q.sensor = e->sensor;
        q.frame = e->frame;
        q.begin = q.end = at;
        q.frames = e->frames;
        h.events.push_back(std::move(q));
        lastEvent[line.tid] = h.events.size() - 1;
        e = &h.events.back();
      }
      if (std::find(e->frames.begin(), e->frames.end(), frame) == e->frames.end()) {
        e->frames.push_back(frame);
      }
    } else {
      r.torndown = true;
    }
  }
}

}  // namespace

void LogReader::handle(Context& c, const LogLine& line, int64_t fileAt) {
  Run& r = c.run;
  ++r.lines;
  const Nanos at = lineTime(c, line, fileAt);

  std::string_view text = line.text;
  RecentLines& recent = c.recent[line.tid];
  auto remember = [&] {
    // Reuses the slot's buffer: no allocation per line once the ring has filled.
    std::string& slot = recent.lines[recent.next];
    slot.assign(line.tag).append(": ").append(text);
    recent.next = (recent.next + 1) % kRecentLines;
    if (recent.count < kRecentLines) ++recent.count;
  };

  // Fatal assertions: the error line, then the assertion line with its suffix.
  if (line.level == 'F' || line.level == 'A' || (line.level == 'E' && isFatalText(text))) {
    noteFatal(r, recent, line, at);
    return;
  }
  if (line.level == 'W') {
    std::string kind = shape(text);
    WarningCount& w = r.warnings[kind];
    if (w.count++ == 0) {
      w.kind = kind;
      w.first = std::string(text);
    }
  }

  // "[function] rest"
  if (text.empty() || text[0] != '[') {
    remember();
    return;
  }
  size_t close = text.find(']');
  if (close == std::string_view::npos) return;
  std::string_view func = text.substr(1, close - 1);
  size_t pos = close + 1;
  if (pos < text.size() && text[pos] == ' ') ++pos;
  std::string_view rest = text.substr(pos);
  uint32_t sensor = 0, frame = 0;
  size_t after = pos;
  bool hasSF = readSensorFrame(text, &after, &sensor, &frame);
  std::string_view tail = hasSF ? text.substr(after) : std::string_view();

  LineScope l{r,     r.history, c.lastEvent, c.eventOpen, c.scratch, c.scratchFrame, c.stateCache,
              line,  at,        text,        func,        rest,      tail,           sensor,
              frame, hasSF};
  l.lineNo = total_;
  if (hasSF && l.gone(frame)) ++r.linesForSettled;
  remember();
  static const struct {
    std::string_view tag;
    void (LineScope::*handle)();
  } kHandlers[] = {{"OrvCam/CamDeliver", &LineScope::onDeliver},
                   {"OrvCam/CamDeliverGuard", &LineScope::onGuard},
                   {"OrvCam/FrameContextPool", &LineScope::onPool},
                   {"OrvCam/LicenseQueue", &LineScope::onQueue}};
  for (const auto& handler : kHandlers) {
    if (line.tag != handler.tag) continue;
    (l.*handler.handle)();
    if (l.retiring) l.checkRetired();
    return;
  }
}

}  // namespace logread
}  // namespace orvcam
