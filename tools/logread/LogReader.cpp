#include "logread/LogReader.h"

#include "logread/LibraryLines.h"  // the library's lines read here, each with the key it is known by
#include "logread/LogText.h"
#include "logread/MessageCatalogue.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace orvcam {
namespace logread {

using namespace history;

using namespace text;

namespace {

constexpr size_t kLoggerLineLimit = 1023;

// The library's tags.
bool isLibraryTag(std::string_view tag) {
  return tag == "OrvCam/CamDeliver" || tag == "OrvCam/CamDeliverGuard" ||
         tag == "OrvCam/FrameContextPool" || tag == "OrvCam/LicenseQueue";
}

// "[S:%d F:%d]" at `pos`; frame -1 stands for "no frame".
bool readSensorFrame(std::string_view s, size_t* pos, uint32_t* sensor, uint32_t* frame) {
  size_t p = *pos;
  int64_t sv = 0, fv = 0;
  if (s.substr(p, 3) != "[S:") return false;
  p += 3;
  if (!readNumber(s, &p, &sv) || s.substr(p, 3) != " F:") return false;
  p += 3;
  bool neg = p < s.size() && s[p] == '-';
  if (neg) ++p;
  if (!readNumber(s, &p, &fv) || !expect(s, &p, ']')) return false;
  *sensor = uint32_t(sv);
  *frame = neg ? uint32_t(-fv) : uint32_t(fv);
  *pos = p;
  return true;
}

// The number inside "(...)" right after `key`, e.g. key "order(" in "prepared, order(3)".
bool numberAfter(std::string_view s, std::string_view key, int64_t* value) {
  size_t at = s.find(key);
  if (at == std::string_view::npos) return false;
  size_t p = at + key.size();
  bool neg = p < s.size() && s[p] == '-';
  if (neg) ++p;
  if (!readNumber(s, &p, value)) return false;
  if (neg) *value = -*value;
  return true;
}

}  // namespace

int64_t LogClock::place(int64_t raw, uint64_t lineNo) {
  int64_t t = raw + offset_;
  if (!started_) {
    started_ = true;
    first_ = last_ = t;
    return 0;
  }
  if (last_ - t > kYearNs / 2) {  // the year turned
    offset_ += kYearNs;
    t += kYearNs;
  } else if (t - last_ > kYearNs / 2 && offset_ >= kYearNs) {  // set back over the new year
    offset_ -= kYearNs;
    t -= kYearNs;
  }
  if (t < last_) {
    ++outOfOrder_;
    if (last_ - t > kSmallBackNs) {
      steps_.push_back({lineNo, t - last_});
      offset_ += last_ - t;
    }
    t = last_;
  } else if (t - last_ > kLargeForwardNs) {
    steps_.push_back({lineNo, t - last_});
    offset_ -= t - last_;
    t = last_;
  }
  last_ = t;
  return t - first_;
}

bool parseCaptureEnd(const std::string& text, CaptureEnd* out, std::string* error) {
  if (!text.empty() && text[0] == '+') {
    char* end = nullptr;
    double seconds = std::strtod(text.c_str() + 1, &end);
    if (text.size() == 1 || *end != '\0' || !(seconds >= 0) || seconds > 1e6) {
      *error = "\"" + text + "\": +SECONDS wants a number of seconds, such as +3 or +0.5";
      return false;
    }
    out->relative = true;
    out->afterNs = int64_t(seconds * 1e9);
    return true;
  }
  // A stamp is read the way a line of the same layout is: with a process, thread, level and
  // tag after it.
  LogLine line;
  std::string probe = text + "  1  1 I t: x";
  if (!parseLogLine(probe, &line) || !line.hasTime) {
    *error = "\"" + text +
             "\" is not a time stamp of a log layout (MM-DD HH:MM:SS.mmm, with a year in front, "
             "microseconds, or seconds since the epoch) nor +SECONDS";
    return false;
  }
  out->relative = false;
  out->stampNs = line.timeNs;
  return true;
}

std::string_view stripColour(std::string_view raw, std::string* buffer) {
  if (raw.find('\x1b') == std::string_view::npos) return raw;
  buffer->clear();
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] == '\x1b' && i + 1 < raw.size() && raw[i + 1] == '[') {
      size_t end = i + 2;
      while (end < raw.size() && (isDigit(raw[end]) || raw[end] == ';')) ++end;
      if (end < raw.size() && raw[end] == 'm') {
        i = end;
        continue;
      }
    }
    buffer->push_back(raw[i]);
  }
  return *buffer;
}

namespace {

// Whether `text` holds a byte below 0x20 other than a tab or a carriage return. Every byte of
// the file passes here, so eight are looked at at once: a word is taken byte by byte only
// when it has some byte below 0x20 (a tab, mostly).
bool hasControlBytes(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighs = 0x8080808080808080ULL;
  auto control = [](unsigned char u) { return u < 0x20 && u != '\t' && u != '\r'; };
  size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    // Nonzero exactly when some byte is below 0x20 (the classic "has a byte less than n").
    if (((word - kOnes * 0x20) & ~word & kHighs) == 0) continue;
    for (size_t k = i; k < i + 8; ++k) {
      if (control(static_cast<unsigned char>(text[k]))) return true;
    }
  }
  for (; i < text.size(); ++i) {
    if (control(static_cast<unsigned char>(text[i]))) return true;
  }
  return false;
}

}  // namespace

void LogReader::addLine(std::string_view raw) {
  ++total_;
  raw = stripColour(raw, &colourFree_);
  // Text logs hold no NUL and few control bytes; anything else is not a log.
  if (hasControlBytes(raw)) {
    if (!binary_) firstBinaryLine_ = total_;
    binary_ = true;
    ++binaryLines_;
    return;
  }
  LogLine line;
  if (!pendingHeader_.empty()) {
    // The long layout: the message follows its header line, then a blank line.
    std::string_view message = raw;
    while (!message.empty() && message.back() == '\r') message.remove_suffix(1);
    currentHeader_.swap(pendingHeader_);
    pendingHeader_.clear();
    if (message.empty() || !parseLongHeader(currentHeader_, &line)) return;
    line.text = message;
  } else if (parseLongHeader(raw, &line)) {
    pendingHeader_.assign(raw);
    ++parsed_;
    if (firstLayout_ == Layout::Unknown) firstLayout_ = line.layout;
    if (line.hasTime) clock_.place(line.timeNs, total_);
    return;
  } else if (!parseLogLine(raw, &line)) {
    return;
  } else {
    ++parsed_;
    if (firstLayout_ == Layout::Unknown) firstLayout_ = line.layout;
  }
  if (line.hasTime && line.layout != Layout::Long && repeats_.repeated(raw, line.timeNs)) return;
  compareWithPrevious(raw, line);
  if (line.level == '?') {
    // Raw lines have no level: fatal and warning texts are known by their words.
    line.level = isFatalText(line.text) ? 'E' : isWarningText(line.text) ? 'W' : 'D';
  }
  if (line.layout == Layout::Long) {
    processLine(raw, line, line.hasTime ? clock_.last() : -1);
    return;
  }
  processLine(raw, line, line.hasTime ? clock_.place(line.timeNs, total_) : -1);
}

void LogReader::compareWithPrevious(std::string_view raw, const LogLine& line) {
  if (!line.hasTime || line.layout == Layout::Long) return;
  if (line.timeNs == previousStamp_) {
    int order = raw.compare(previousLine_);
    if (order > 0) ++sameStampAscending_;
    if (order < 0) ++sameStampDescending_;
  }
  previousStamp_ = line.timeNs;
  previousLine_.assign(raw);
}

void LogReader::processLine(std::string_view raw, LogLine& line, int64_t fileAt) {
  if (!isLibraryTag(line.tag)) return;
  ++library_;
  Context& c = sessionFor(line, fileAt);
  if (line.level == '?' || line.layout == Layout::Raw) c.run.hasLevel = false;
  if (line.tag == "OrvCam/CamDeliverGuard") ++c.run.guardLines;
  if (line.level == 'D' || line.level == 'V') ++c.run.debugLevelLines;
  if (raw.size() >= kLoggerLineLimit) ++c.run.truncated;
  handle(c, line, fileAt);
  maybeSettle(c);
}

LogReader::Context& LogReader::startSession(const LogLine& line, int session,
                                            std::string boundary) {
  auto cur = current_.find(line.pid);
  if (cur != current_.end()) previous_[line.pid] = cur->second;
  contexts_.emplace_back();
  Context& c = contexts_.back();
  c.run.pid = line.pid;
  c.run.session = session;
  c.run.boundary = std::move(boundary);
  c.run.layout = line.layout;
  c.run.hasTime = line.hasTime;
  c.run.hasTid = line.tid >= 0;
  current_[line.pid] = contexts_.size() - 1;
  return c;
}

LogReader::Context& LogReader::sessionFor(const LogLine& line, int64_t fileAt) {
  auto cur = current_.find(line.pid);
  if (cur == current_.end()) return startSession(line, 1, "");
  Context& c = contexts_[cur->second];
  std::string_view text = line.text;
  auto where = [this] { return " (line " + std::to_string(total_) + ")"; };
  // The constructor's own line (written with the force-log property) opens every deliverer.
  if (line.tag == "OrvCam/CamDeliver" && startsWith(text, "[CamDeliver]") && c.run.lines > 0) {
    return startSession(line, c.run.session + 1, "the deliverer's constructor line" + where());
  }
  uint32_t sensor = 0, frame = 0;
  size_t close = text.find("] ");
  size_t pos = close == std::string_view::npos ? 0 : close + 2;
  bool hasSF = !text.empty() && text[0] == '[' && close != std::string_view::npos &&
               readSensorFrame(text, &pos, &sensor, &frame);
  if (!hasSF) return c;
  if (line.tag == "OrvCam/CamDeliver" && startsWith(text, "[notifyEvent]") &&
      contains(text, "type(Flush)")) {
    c.flushedSensors.insert(sensor);
  }
  std::string why = newSessionReason(c, line, fileAt, sensor, frame);
  if (!why.empty()) return startSession(line, c.run.session + 1, why + where());
  return lateLineOwner(c, line, sensor, frame);
}

// Preparation orders count up from 0 per sensor for the deliverer's life, and start again
// after a flush of the sensor with frame numbers that go on: an order 0 without a flush before
// it, or with frame numbers that start again, is a new deliverer. Why this line begins one, or
// "".
std::string LogReader::newSessionReason(Context& c, const LogLine& line, int64_t fileAt,
                                        uint32_t sensor, uint32_t frame) {
  std::string_view text = line.text;
  int64_t order = -1;
  if (line.tag != "OrvCam/CamDeliverGuard" || !startsWith(text, "[prepare]") ||
      !numberAfter(text, "prepared, order(", &order) || order != 0) {
    return "";
  }
  auto seq = c.run.sequence.find(sensor);
  bool flushed = c.flushedSensors.erase(sensor) > 0;
  int64_t silence = fileAt >= 0 && c.baseNs >= 0 ? fileAt - c.baseNs - c.lastAt : -1;
  // A sensor the session has not seen may join it (a raw switch turns it on), and its
  // request thread may lag the others' at the start, but while they run and by fewer frames
  // than the pool holds. One that starts at or below the session's first frame after the
  // session has moved on further than that, or after the session fell silent, belongs to a
  // new deliverer: a camera closed and another one opened.
  bool newSensor = seq == c.run.sequence.end() || seq->second.empty();
  uint32_t lowest = c.run.lowestFrame, highest = c.run.highestFrame;
  if (newSensor && frame <= lowest && highest > lowest &&
      (highest - lowest > NSCam::camsys::camcoordinator::kPreparationWindow ||
       silence > kNewSensorSilenceNs)) {
    std::string why = silence > kNewSensorSilenceNs
                          ? " and a silence of " + std::to_string(silence / 1000000) + " ms"
                          : "";
    return "S:" + std::to_string(sensor) +
           ", new to the session, prepared F:" + std::to_string(frame) +
           " at order 0 after its frames reached F:" + std::to_string(highest) + why;
  }
  if (seq != c.run.sequence.end() && !seq->second.empty()) {
    uint32_t last = seq->second.back();
    if (!flushed) {
      return "S:" + std::to_string(sensor) +
             "'s preparation order started again at 0 without a flush";
    }
    if (frame <= last) {
      return "S:" + std::to_string(sensor) +
             "'s frame numbers started again (F:" + std::to_string(frame) +
             " after F:" + std::to_string(last) + ")";
    }
  }
  if (silence > kSessionSilenceNs && !c.run.sequence.empty()) {
    return "a silence of " + std::to_string(silence / 1000000) +
           " ms, then S:" + std::to_string(sensor) + " prepared at order 0";
  }
  return "";
}

// After a boundary, a line naming a frame only the older deliverer holds is its own.
LogReader::Context& LogReader::lateLineOwner(Context& c, const LogLine& line, uint32_t sensor,
                                             uint32_t frame) {
  std::string_view text = line.text;
  auto prev = previous_.find(line.pid);
  if (prev == previous_.end()) return c;
  Context& old = contexts_[prev->second];
  uint32_t s = sensor >= kConfigKeyBase ? sensor - kConfigKeyBase : sensor;
  auto mine = c.run.states.find({s, frame});
  auto theirs = old.run.states.find({s, frame});
  // Only a frame the older deliverer still has in flight can take a line back.
  bool oldOpen = theirs != old.run.states.end() && theirs->second.prepared &&
                 !theirs->second.done() &&
                 !(old.run.frames.count(frame) && old.run.frames.at(frame).retired);
  if (mine == c.run.states.end() || !mine->second.prepared) {
    if (oldOpen && !startsWith(text, "[prepare]")) {
      ++old.run.lateLines;
      return old;
    }
  } else if (oldOpen) {
    ++c.run.ambiguousLines;
  }
  return c;
}

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

// Time: from the first line of the run; lines within one clock tick keep their order.
Nanos LogReader::lineTime(Context& c, const LogLine& line, int64_t fileAt) {
  Run& r = c.run;
  Nanos at;
  if (fileAt >= 0) {
    r.stampTick = std::max<Nanos>(r.stampTick, line.tickNs);
    if (c.baseNs < 0) c.baseNs = fileAt;
    at = fileAt - c.baseNs;
  } else {
    at = Nanos(c.seq) * 1000;
  }
  if (c.seq > 0 && at <= c.lastAt) at = c.lastAt + 1;
  c.lastAt = at;
  ++c.seq;
  r.endAt = at;
  if (line.tid >= 0) r.threadLastAt[line.tid] = at;
  return at;
}

// A fatal assertion's error line, or its assertion line, which adds the function.
void LogReader::noteFatal(Run& r, const RecentLines& recent, const LogLine& line, Nanos at) {
  std::string_view text = line.text;
  std::string message(text);
  std::string function;
  size_t suffix = message.rfind(" (");
  if (suffix != std::string::npos && message.find("){#", suffix) != std::string::npos) {
    size_t close = message.find("){#", suffix);
    function = message.substr(suffix + 2, close - suffix - 2);
    message = message.substr(0, suffix);
  }
  if (!r.fatals.empty() && r.fatals.back().tid == line.tid && r.fatals.back().message == message) {
    if (!function.empty()) r.fatals.back().function = function;
  } else if (line.level != 'E' || isFatalText(text)) {
    FatalAssertion f;
    f.message = message;
    f.function = function;
    f.tag = std::string(line.tag);
    f.tid = line.tid;
    f.at = at;
    for (size_t i = 0; i < recent.count; ++i) {
      f.before.push_back(
          recent.lines[(recent.next + kRecentLines - recent.count + i) % kRecentLines]);
    }
    r.fatals.push_back(std::move(f));
  }
}

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

namespace {

const SensorFrame* findState(const Run& r, uint32_t sensor, uint32_t frame) {
  auto it = r.states.find({sensor, frame});
  return it == r.states.end() ? nullptr : &it->second;
}

// The plan of a frame some sensor prepared or dropped. Sync lists come from the frame
// descriptors the enqueue licences were first given: sensors sharing one FD on a frame
// without configuration were one sync group.
void appendPlan(const Run& r, const FrameInfo& fi, std::vector<history::FramePlan>* plans) {
  history::FramePlan plan;
  plan.frame = fi.frame;
  plan.sensors.assign(fi.sensors.begin(), fi.sensors.end());
  for (uint32_t s : fi.needCfg) {
    if (fi.sensors.count(s)) plan.needCfg.insert(s);
  }
  for (uint32_t s : fi.cfgByJob) {
    if (fi.sensors.count(s)) plan.cfgByJob.insert(s);
  }
  if (plan.needCfg.empty()) {
    std::vector<std::pair<int32_t, uint32_t>> byFd;  // (FD, sensor), few per frame
    for (uint32_t s : fi.sensors) {
      const SensorFrame* st = findState(r, s, fi.frame);
      if (st && st->firstFd >= 0) byFd.emplace_back(st->firstFd, s);
    }
    std::sort(byFd.begin(), byFd.end());
    for (size_t i = 0; i < byFd.size(); ++i) {
      bool shared = (i > 0 && byFd[i - 1].first == byFd[i].first) ||
                    (i + 1 < byFd.size() && byFd[i + 1].first == byFd[i].first);
      if (shared) plan.syncList.insert(byFd[i].second);
    }
  }
  if (fi.offSensor >= 0) {
    plan.offSensor = fi.offSensor;
    // The sensor coming on: one of the frame's others that was not in the frame before.
    const history::FramePlan* before = plans->empty() ? nullptr : &plans->back();
    for (uint32_t s : fi.sensors) {
      if (int64_t(s) == fi.offSensor) continue;
      bool was = before && std::find(before->sensors.begin(), before->sensors.end(), s) !=
                               before->sensors.end();
      if (plan.onSensor < 0 || !was) plan.onSensor = s;
      if (!was) break;
    }
  }
  plans->push_back(std::move(plan));
}

// The jobs of a sensor's frame. A log that begins mid-stream shows jobs of frames prepared
// before its first line; without their prepare they cannot be put in order, so they are left
// out (and counted by accumulate()).
void appendJobs(const Run& r, const SensorFrame& st, std::vector<history::JobRecord>* jobs) {
  if (!st.prepared) return;
  if (st.cfgSent) {
    history::JobRecord j;
    j.sensor = st.sensor;
    j.frame = st.frame;
    j.kind = history::JobKind::Configure;
    j.sent = st.cfgSentAt;
    j.start = st.cfgStarted ? st.cfgStart : 0;
    j.end = st.cfgDone ? st.cfgEnd : (st.cfgStarted ? st.cfgStart : r.endAt);
    j.ran = st.cfgStarted;
    j.fd = st.cfgFd;
    j.startLost = st.cfgStartLost;
    jobs->push_back(j);
  }
  if (st.enqStarted || st.enqNull) {
    history::JobRecord j;
    j.sensor = st.sensor;
    j.frame = st.frame;
    j.kind = history::JobKind::Enqueue;
    j.sent = st.enqSentAt;
    j.ran = st.enqStarted;
    j.start = st.enqStarted ? st.enqStart : 0;
    j.end = st.enqDone ? st.enqEnd : (st.enqStarted ? st.enqStart : st.enqEnd);
    j.result = st.enqNull ? -1 : 0;
    j.fd = st.enqFd;
    j.startLost = st.enqStartLost;
    j.sentLate = !st.enqSentSeen;
    jobs->push_back(j);
  }
}

// Adds a frame's figures to the session's totals; once per frame, when it settles or at the
// end.
void accumulate(Run& r, const FrameInfo& fi) {
  std::vector<std::pair<int32_t, uint32_t>> byFd;  // (enqueue FD, sensor)
  for (uint32_t s : r.sensorsSeen) {
    const SensorFrame* st = findState(r, s, fi.frame);
    if (!st) continue;
    SensorTotals& t = r.totals[s];
    if (st->prepared) {
      // A job whose start line was lost counts; its wait and run time are not known.
      if (st->cfgSent && st->cfgStarted) {
        ++t.configured;
        if (!st->cfgStartLost) t.waits.add(st->cfgStart - st->cfgSentAt);
      }
      if (st->enqStarted) {
        ++t.enqueued;
        if (!st->enqStartLost) t.waits.add(st->enqStart - st->enqSentAt);
      }
    } else if (st->cfgSent || st->enqStarted || st->enqNull) {
      ++r.unpreparedJobs;
    }
    if (st->flushed && fi.sensors.count(s)) ++t.flushed;
    if (st->enqFd >= 0) {
      t.addFd(st->enqFd);
      byFd.emplace_back(st->enqFd, s);
    }
    if (st->cfgFd >= 0) t.addFd(st->cfgFd);
    if (!st->enqStartLost) {
      if (st->enqStarted && (st->enqSentSeen || st->enqWaitSeen)) {
        r.stallWaits.add(st->enqStart - st->enqSentAt);
      }
      if (st->enqDone && st->enqStarted) r.jobTimes.add(st->enqEnd - st->enqStart);
    }
    if (st->cfgDone && st->cfgStarted && !st->cfgStartLost) {
      r.jobTimes.add(st->cfgEnd - st->cfgStart);
    }
  }
  std::sort(byFd.begin(), byFd.end());
  for (size_t i = 0; i < byFd.size(); ++i) {
    bool shared = (i > 0 && byFd[i - 1].first == byFd[i].first) ||
                  (i + 1 < byFd.size() && byFd[i + 1].first == byFd[i].first);
    if (shared) ++r.totals[byFd[i].second].sharedFrames;
  }
}

// The history of `frames` (ascending, all in memory), with `context` among them marked as
// context: plans, jobs, and the prepares and setConfigured reports of those frames; every
// event still held.
history::History historyOf(const Run& r, const std::vector<uint32_t>& frames,
                           const std::set<uint32_t>& context) {
  const history::History& held = r.history;
  history::History h;
  h.sensors.assign(r.sensorsSeen.begin(), r.sensorsSeen.end());
  h.contextFrames = context;
  auto among = [&](uint32_t f) { return std::binary_search(frames.begin(), frames.end(), f); };
  h.plans.reserve(frames.size());
  for (uint32_t f : frames) {
    const FrameInfo& fi = r.frames.at(f);
    if (!fi.sensors.empty()) appendPlan(r, fi, &h.plans);
  }
  for (uint32_t f : frames) {
    for (uint32_t s : r.sensorsSeen) {
      if (const SensorFrame* st = findState(r, s, f)) appendJobs(r, *st, &h.jobs);
    }
  }
  std::stable_sort(
      h.jobs.begin(), h.jobs.end(),
      [](const history::JobRecord& a, const history::JobRecord& b) { return a.sent < b.sent; });
  for (const history::PrepareRecord& p : held.prepares) {
    if (among(p.frame)) h.prepares.push_back(p);
  }
  for (const history::SetConfiguredRecord& p : held.setConfigured) {
    if (among(p.frame)) h.setConfigured.push_back(p);
  }
  h.events = held.events;
  h.wallTime = r.endAt;
  h.stampTick = r.stampTick;
  h.linesLost = r.lostLines;
  h.unsupportedRules["licence"] =
      "rebuilt from a log: the log has no licence identities, only the FDs jobs were given";
  h.unsupportedRules["pool"] =
      "rebuilt from a log: the log does not show what the frame pool held at the end";
  return h;
}

// A frame that can leave memory: retired (or long overtaken by every sensor), with no send
// waiting and no job running.
bool settled(const Run& r, const FrameInfo& fi, bool stale) {
  if (!fi.retired && !stale && !fi.sensors.empty()) return false;
  for (uint32_t s : r.sensorsSeen) {
    const SensorFrame* st = findState(r, s, fi.frame);
    if (!st) continue;
    if (st->cfgBlocked() || st->enqBlocked()) return false;
    bool cfgRunning = st->cfgStarted && !st->cfgDone;
    bool enqRunning = st->enqStarted && !st->enqDone && !st->dropped && !st->flushed;
    if (!stale && (cfgRunning || enqRunning)) return false;
  }
  return true;
}

}  // namespace

void dropInFlightDeliveries(const Run& r, std::vector<check::Violation>* violations) {
  auto inFlight = [&r](const check::Violation& v) {
    if (v.rule != "delivery") return false;
    unsigned s = 0, f = 0;
    if (std::sscanf(v.message.c_str(), "S:%u F:%u", &s, &f) != 2) return false;
    auto fi = r.frames.find(f);
    if (fi == r.frames.end() || fi->second.retired) return false;
    for (uint32_t x : fi->second.sensors) {
      const SensorFrame* p = findState(r, x, f);
      if (!p || !p->done()) return true;
    }
    return false;
  };
  violations->erase(std::remove_if(violations->begin(), violations->end(), inFlight),
                    violations->end());
}

void LogReader::maybeSettle(Context& c) {
  Run& r = c.run;
  if (window_ == 0 || r.frames.size() - r.context.size() <= window_ ||
      r.frames.size() < c.nextSettleAt) {
    return;
  }
  auto end = r.frames.lower_bound(kNoFrame);
  if (end == r.frames.begin()) return;
  uint32_t newest = std::prev(end)->first;
  size_t live = r.frames.size() - r.context.size();
  size_t want = live - window_ / 4;
  // Oldest first; a frame still open stops the scan unless every sensor has long gone past
  // it (a lost line, a stalled sensor), in which case it stays and the scan goes on.
  std::vector<uint32_t> batch;
  for (auto it = r.frames.begin(); it != end && batch.size() < want; ++it) {
    if (r.context.count(it->first)) continue;
    bool stale = newest - it->first > std::max<size_t>(4 * window_, kStaleFrames);
    if (settled(r, it->second, stale)) {
      batch.push_back(it->first);
    } else if (!stale) {
      break;
    }
  }
  if (!batch.empty()) settle(c, batch);
  c.nextSettleAt = r.frames.size() + std::max<size_t>(1, window_ / 8);
}

namespace {

// Checks a settled part (with its context) and adds what it breaks to the run's settled check.
void checkSettled(Run& r, const history::History& chunk) {
  // Whether a breach resting on an absent line counts is decided at the end, once it is
  // known whether the log lost lines.
  check::CheckResult res = check::checkHistory(chunk, {/*absentApart=*/true});
  dropInFlightDeliveries(r, &res.violations);
  dropInFlightDeliveries(r, &res.absent);
  check::CheckResult& all = r.settledCheck;
  for (check::Violation& v : res.violations) all.violations.push_back(std::move(v));
  for (check::Violation& v : res.notes) all.notes.push_back(std::move(v));
  for (check::Violation& v : res.sameStamp) all.sameStamp.push_back(std::move(v));
  for (check::Violation& v : res.absent) all.absent.push_back(std::move(v));
  all.skipped.insert(res.skipped.begin(), res.skipped.end());
  all.jobsChecked += res.jobsChecked;
  all.startsLost += res.startsLost;
}

// Of the settled frames `done` (ascending), those kept in memory as context: the newest, and
// each sensor's latest prepared one.
std::set<uint32_t> contextAfter(const Run& r, const std::vector<uint32_t>& done, size_t newest) {
  std::set<uint32_t> keep(done.end() - long(std::min(done.size(), newest)), done.end());
  for (uint32_t s : r.sensorsSeen) {
    for (auto it = done.rbegin(); it != done.rend(); ++it) {
      const SensorFrame* st = findState(r, s, *it);
      if (st && st->prepared) {
        keep.insert(*it);
        break;
      }
    }
  }
  return keep;
}

// Moves the events that name only frames leaving memory to `gone`. An event stays while a
// frame it names is held or a thread's later lines may add to it (`lastEvent`, whose indexes
// follow the events that stay).
template <typename GoneFrame>
void splitEvents(history::History& h, std::map<int, size_t>& lastEvent, GoneFrame goneFrame,
                 std::vector<history::EventRecord>* gone) {
  std::set<size_t> open;
  for (const auto& e : lastEvent) open.insert(e.second);
  std::vector<history::EventRecord> events;
  std::map<size_t, size_t> moved;
  for (size_t i = 0; i < h.events.size(); ++i) {
    history::EventRecord& e = h.events[i];
    bool held =
        open.count(i) || (e.frame != kNoFrame && !goneFrame(e.frame)) ||
        std::any_of(e.frames.begin(), e.frames.end(), [&](uint32_t f) { return !goneFrame(f); });
    if (!held) {
      gone->push_back(std::move(e));
      continue;
    }
    moved[i] = events.size();
    events.push_back(std::move(e));
  }
  h.events = std::move(events);
  for (auto& e : lastEvent) e.second = moved.at(e.second);
}

}  // namespace

void LogReader::settle(Context& c, const std::vector<uint32_t>& batch) {
  Run& r = c.run;
  // Checked with every frame in memory up to the batch's last: the context, and frames kept
  // open below it.
  std::vector<uint32_t> frames;
  std::set<uint32_t> context;
  for (auto it = r.frames.begin(); it != r.frames.end() && it->first <= batch.back(); ++it) {
    frames.push_back(it->first);
    if (!std::binary_search(batch.begin(), batch.end(), it->first)) context.insert(it->first);
  }
  history::History chunk = historyOf(r, frames, context);
  if (r.debugLines > 0) checkSettled(r, chunk);
  for (uint32_t f : batch) accumulate(r, r.frames.at(f));
  r.settledFrames += batch.size();
  r.settledUpTo = std::max<int64_t>(r.settledUpTo, batch.back());

  std::vector<uint32_t> done(r.context.begin(), r.context.end());
  done.insert(done.end(), batch.begin(), batch.end());
  std::sort(done.begin(), done.end());
  std::set<uint32_t> keep = contextAfter(r, done, kContextFrames);
  std::set<uint32_t> leaving;
  for (uint32_t f : done) {
    if (!keep.count(f)) leaving.insert(f);
  }

  // What refers only to frames that leave memory goes with them: given to the listener with
  // the settled frames' plans and jobs, while their states can still be looked up.
  auto goneFrame = [&](uint32_t f) {
    return f != kNoFrame && (leaving.count(f) || !r.frames.count(f));
  };
  history::History part;
  part.plans.reserve(batch.size());
  part.jobs.reserve(chunk.jobs.size());
  for (history::FramePlan& p : chunk.plans) {
    if (!context.count(p.frame)) part.plans.push_back(std::move(p));
  }
  for (history::JobRecord& j : chunk.jobs) {
    if (!context.count(j.frame)) part.jobs.push_back(j);
  }
  history::History& h = r.history;
  auto split = [&](auto& held, auto& gone) {
    auto kept = std::stable_partition(held.begin(), held.end(),
                                      [&](const auto& p) { return !goneFrame(p.frame); });
    gone.assign(kept, held.end());
    held.erase(kept, held.end());
  };
  split(h.prepares, part.prepares);
  split(h.setConfigured, part.setConfigured);
  splitEvents(h, c.lastEvent, goneFrame, &part.events);
  if (listener_) listener_(r, std::move(part));

  for (uint32_t f : leaving) {
    c.stateCache = {};
    for (uint32_t s : r.sensorsSeen) r.states.erase({s, f});
    r.frames.erase(f);
  }
  r.context = std::move(keep);
  for (auto& seq : r.sequence) {
    auto& v = seq.second;
    v.erase(std::remove_if(v.begin(), v.end(), goneFrame), v.end());
  }
}

history::History unsettledPart(const Run& r) {
  history::History part = r.history;
  auto inContext = [&r](uint32_t f) { return r.context.count(f) > 0; };
  part.plans.erase(std::remove_if(part.plans.begin(), part.plans.end(),
                                  [&](const history::FramePlan& p) { return inContext(p.frame); }),
                   part.plans.end());
  part.jobs.erase(std::remove_if(part.jobs.begin(), part.jobs.end(),
                                 [&](const history::JobRecord& j) { return inContext(j.frame); }),
                  part.jobs.end());
  part.contextFrames.clear();
  return part;
}

std::vector<Run> LogReader::finish() {
  std::vector<Run> out;
  std::map<int, int> sessions;  // pid -> sessions in the log
  for (const Context& c : contexts_)
    sessions[c.run.pid] = std::max(sessions[c.run.pid], c.run.session);
  for (Context& c : contexts_) {
    Run& r = c.run;
    int pid = r.pid;
    std::vector<uint32_t> frames;
    for (const auto& entry : r.frames) {
      frames.push_back(entry.first);
      if (!r.context.count(entry.first)) accumulate(r, entry.second);
    }
    r.history = historyOf(r, frames, r.context);
    history::History& h = r.history;
    h.scenario = "log of process " + std::to_string(pid) +
                 (sessions[pid] > 1 ? ", session " + std::to_string(r.session) : std::string());
    r.captureEnd = newestAt(c);
    if (captureEnd_ && c.baseNs >= 0) {
      Nanos given = captureEnd_->relative ? r.captureEnd + captureEnd_->afterNs
                                          : clock_.timeOf(captureEnd_->stampNs) - c.baseNs;
      r.captureEndGiven = given > r.captureEnd;
      r.captureEnd = std::max(r.captureEnd, given);
    }
    out.push_back(std::move(r));
  }
  contexts_.clear();
  current_.clear();
  previous_.clear();
  return out;
}

std::vector<const SensorFrame*> statesInOrder(const Run& run) {
  std::vector<const SensorFrame*> out;
  out.reserve(run.states.size());
  for (const auto& entry : run.states) out.push_back(&entry.second);
  std::sort(out.begin(), out.end(), [](const SensorFrame* a, const SensorFrame* b) {
    return std::make_pair(a->sensor, a->frame) < std::make_pair(b->sensor, b->frame);
  });
  return out;
}

}  // namespace logread
}  // namespace orvcam
