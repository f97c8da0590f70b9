// Reading a capture's lines: layouts, sessions and each line's time; the handlers of the
// library's lines are in LineHandlers.cpp, settling in Settle.cpp.
#include "logread/LogReader.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "logread/LogText.h"

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

}  // namespace logread
}  // namespace orvcam
