// The trace rebuilt from a log, Chrome JSON or Perfetto protobuf, written as the log is read.
#include "log/LogReport.h"

#include <zlib.h>
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>

#include "base/JsonText.h"
#include "logread/WaitRule.h"
#include "pftrace/PerfettoWriter.h"

namespace orvcam {
namespace log {

using namespace logread;
using namespace history;
using namespace base;

namespace {

// A thread serves the sensor most of its lines name; one that names several is the
// pipeline's event thread.
std::map<int, std::string> threadNames(const Run& r) {
  std::map<int, std::string> names;
  for (const auto& t : r.threadSensors) {
    uint64_t total = 0, best = 0;
    uint32_t sensor = 0;
    for (const auto& s : t.second) {
      total += s.second;
      if (s.second > best) best = s.second, sensor = s.first;
    }
    names[t.first] = best * 10 >= total * 9 ? "sensor " + std::to_string(sensor) : "pipeline";
  }
  return names;
}

// Frame lifetimes, counters and the client's events go on a track of their own, so that the
// trace of a long capture written as it is read does not depend on which thread the log
// showed first.
constexpr int kEventTrack = 0;

// The Perfetto trace's tracks: the process's, a thread's per thread (StreamWriter), one per
// frame's life (all named "frames", which a viewer shows as one), one for the client's events
// and one per counter.
uint64_t processTrack(int pid) {
  return pftrace::trackUuid(pftrace::TrackKind::Process, uint64_t(uint32_t(pid)));
}
const uint64_t kEventsTrack = pftrace::trackUuid(pftrace::TrackKind::Custom, 1);
uint64_t counterTrack(bool frames) {
  return pftrace::trackUuid(pftrace::TrackKind::Counter, frames ? 1 : 0);
}
constexpr uint32_t kSequenceId = 1;
constexpr uint64_t kMicros = 1000;

}  // namespace

void TraceWriter::GzipEnd::operator()(z_stream_s* z) const {
  deflateEnd(z);
  delete z;
}

TraceWriter::TraceWriter(std::ostream& out, int pid, OrderedWorker* worker,
                         const TraceOptions& options)
    : worker_(worker), out_(out), pid_(pid) {
  if (options.perfetto) {
    bool clocked = options.clockId != 0;
    // Log events are stamped on CLOCK_REALTIME: taken when the capture's stamps are.
    if (options.clockId == pftrace::kClockRealtime) logLinesBaseNs_ = options.firstStampNs;
    perfetto_ = std::make_unique<pftrace::StreamWriter>(
        out, kSequenceId, clocked ? pftrace::kClockCapture : pftrace::kClockBoottime);
    pftrace::Sequence& seq = perfetto_->sequence();
    std::string* buf = perfetto_->buffer();
    if (clocked) {
      // The trace's clock starts at the capture's first stamp and ticks in microseconds, the
      // finest a logcat layout gives but for nsec (a byte less in every timestamp).
      const pftrace::Sequence::ClockReading clocks[] = {{pftrace::kClockCapture, 0, kMicros},
                                                        {options.clockId, options.firstStampNs, 1}};
      seq.clockSnapshot(buf, clocks, 2, options.clockId);
      unitNs_ = kMicros;
    }
    seq.processTrack(buf, processTrack(pid), pid, "camdeliver-log: process " + std::to_string(pid));
    seq.track(buf, kEventsTrack, processTrack(pid), "events");
    seq.track(buf, counterTrack(true), processTrack(pid), "frames in flight", true);
    seq.track(buf, counterTrack(false), processTrack(pid), "sends waiting", true);
    return;
  }
  if (options.gzip) {
    // One gzip stream (windowBits + 16: gzip's header and trailer), as Perfetto UI opens it.
    auto* z = new z_stream{};
    if (deflateInit2(z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) ==
        Z_OK) {
      gzip_.reset(z);
      gzipOut_.resize(size_t(1) << 16);
    } else {
      delete z;  // written uncompressed rather than not at all
    }
  }
  buffer_ += "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
  meta("process_name", 0)
      .open("args")
      .str("name", "camdeliver-log: process " + std::to_string(pid_))
      .close();
  emit();
}

TraceWriter::~TraceWriter() {
  if (worker_) worker_->drain();  // its tasks write through this object
}

JsonText& TraceWriter::event(std::string_view name, const char* cat, const char* ph, Nanos ts,
                             int tid) {
  return text_.begin()
      .str("name", name)
      .str("cat", cat)
      .str("ph", ph)
      .micros("ts", ts)
      .num("pid", pid_)
      .num("tid", tid);
}

JsonText& TraceWriter::meta(const char* name, int tid) {
  return text_.begin().str("name", name).str("ph", "M").num("pid", pid_).num("tid", tid);
}

void TraceWriter::emit() {
  buffer_ += first_ ? "\n" : ",\n";
  buffer_ += text_.end();
  first_ = false;
  if (buffer_.size() >= (size_t(1) << 18)) flush();
}

void TraceWriter::flush(bool end) {
  if (!gzip_) {
    out_.write(buffer_.data(), std::streamsize(buffer_.size()));
    buffer_.clear();
    return;
  }
  z_stream& z = *gzip_;
  z.next_in = reinterpret_cast<Bytef*>(buffer_.data());
  z.avail_in = uInt(buffer_.size());
  for (;;) {
    z.next_out = reinterpret_cast<Bytef*>(gzipOut_.data());
    z.avail_out = uInt(gzipOut_.size());
    int rc = deflate(&z, end ? Z_FINISH : Z_NO_FLUSH);
    out_.write(gzipOut_.data(), std::streamsize(gzipOut_.size() - z.avail_out));
    if (rc == Z_STREAM_END || rc == Z_STREAM_ERROR) break;
    if (z.avail_out != 0 && (!end || rc == Z_BUF_ERROR)) break;  // all taken in
  }
  buffer_.clear();
}

void TraceWriter::add(const Run& r, const history::History& part) {
  std::vector<Item> items = gather(r, part);
  if (!worker_) {
    write(items);
    return;
  }
  worker_->post([this, items = std::move(items)]() mutable {
    write(items);
    items.clear();
    std::lock_guard<std::mutex> lock(spareMutex_);
    spare_.push_back(std::move(items));
  });
}

namespace {

// The partner's enqueue whose end released `st`'s waiting enqueue: the last of the previous
// frame's partners to finish before it started. None when the enqueue did not wait.
const SensorFrame* releaserOf(const Run& r, const SensorFrame& st) {
  if (!st.enqStarted || !(st.enqWaitSeen && st.waitLines > 0)) return nullptr;
  SendWait w = sendWait(r, st, false);
  if (!w.frame) return nullptr;
  const SensorFrame* releaser = nullptr;
  for (uint32_t partner : w.sensors) {
    const SensorFrame* p = findState(r, partner, *w.frame);
    if (!p || partner == st.sensor || !p->enqDone || p->enqEnd > st.enqStart) continue;
    if (!releaser || p->enqEnd > releaser->enqEnd) releaser = p;
  }
  return releaser;
}

}  // namespace

std::vector<TraceWriter::Item> TraceWriter::gather(const Run& r, const history::History& part) {
  using K = Item::Kind;
  std::set<uint32_t> frames;  // the part's frames
  for (const auto& p : part.plans) frames.insert(p.frame);
  // A list the worker has written and handed back keeps its memory: a part's list is a few
  // hundred kilobytes, which the allocator would otherwise map and unmap every time.
  std::vector<Item> items;
  {
    std::lock_guard<std::mutex> lock(spareMutex_);
    if (!spare_.empty()) {
      items = std::move(spare_.back());
      spare_.pop_back();
    }
  }
  for (const auto& j : part.jobs) {
    frames.insert(j.frame);
    const SensorFrame* st = findState(r, j.sensor, j.frame);
    int tid = st && st->tid >= 0 ? st->tid : int(j.sensor) + 1;
    Nanos end = std::max(j.end, j.sent);
    items.push_back({K::Send, 0, tid, j.sensor, j.frame, j.sent, end - j.sent, 0});
    if (j.ran && j.start > j.sent) {
      uint8_t configure = j.kind == history::JobKind::Configure;
      items.push_back({K::Wait, configure, tid, j.sensor, j.frame, j.sent, j.start - j.sent, 0});
    }
    if (j.ran) {
      items.push_back({K::Job, uint8_t(j.kind), tid, j.sensor, j.frame, j.start,
                       std::max(j.end, j.start) - j.start, j.fd});
    }
  }
  for (uint32_t f : frames) {
    auto fi = r.frames.find(f);
    if (fi == r.frames.end()) continue;
    // Counters: frames in flight (first prepare to retirement) and enqueue sends waiting.
    if (!fi->second.sensors.empty()) {
      marks_.add(fi->second.firstSeen, 1, 0);
      if (fi->second.retired) marks_.add(fi->second.retiredAt, -1, 0);
    }
    for (uint32_t s : r.sensorsSeen) {
      const SensorFrame* st = findState(r, s, f);
      if (!st) continue;
      if ((st->enqSentSeen || st->enqWaitSeen) && st->enqStart > st->enqSentAt) {
        marks_.add(st->enqSentAt, 0, 1);
        if (st->enqStarted) marks_.add(st->enqStart, 0, -1);
      }
      // Flow arrows: from the partner's enqueue job whose end released a waiting enqueue to
      // that enqueue.
      const SensorFrame* releaser = releaserOf(r, *st);
      if (!releaser || releaser->tid < 0 || st->tid < 0) continue;
      // One arrow per waiting enqueue: its id is made from its sensor and frame.
      int64_t id = (int64_t(st->frame) << 8) | (st->sensor & 0xFF);
      items.push_back({K::FlowStart, 0, releaser->tid, 0, 0, releaser->enqStart, 0, id});
      items.push_back({K::FlowEnd, 0, st->tid, 0, 0, st->enqStart, 0, id});
    }
    // Each frame's life, from its first prepare to the line that retired it.
    const FrameInfo& info = fi->second;
    if (info.sensors.empty()) continue;
    Nanos begin = info.firstSeen;
    Nanos end = info.retired ? info.retiredAt : r.endAt;
    items.push_back({K::FrameBegin, 0, kEventTrack, 0, info.frame, begin, 0, 0});
    items.push_back({K::FrameEnd, 0, kEventTrack, 0, info.frame, std::max(end, begin), 0, 0});
  }
  for (const auto& e : part.events) {
    items.push_back(
        {K::Event, uint8_t(e.kind), kEventTrack, e.sensor, e.frame, e.begin, 0, e.value});
  }
  marks_.release(r, frames, [&](Nanos at, int framesDelta, int, int inFlight, int waiting) {
    items.push_back({K::Counter, uint8_t(framesDelta != 0), kEventTrack, 0, 0, at, 0,
                     framesDelta ? inFlight : waiting});
  });
  return items;
}

void TraceWriter::appendNumber(int64_t v) {
  char digits[24];
  name_.append(digits, std::to_chars(digits, digits + sizeof digits, v).ptr);
}

// "S:1 F:2", a configure key as "S:1 cfg F:2".
void TraceWriter::appendSensorFrame(uint32_t sensor, uint32_t frame) {
  name_ += "S:";
  appendNumber(sensor >= history::kConfigKeyBase ? sensor - history::kConfigKeyBase : sensor);
  if (sensor >= history::kConfigKeyBase) name_ += " cfg";
  name_ += " F:";
  appendNumber(frame);
}

// "Drop S:1 F:12 value:0", or "flush()" for the deliverer's flush.
void TraceWriter::appendEventName(const Item& it) {
  if (history::EventKind(it.detail) == history::EventKind::QueueFlush) {
    name_ += "flush()";
    return;
  }
  name_ += history::eventKindName(history::EventKind(it.detail));
  name_ += ' ';
  appendSensorFrame(it.sensor, it.frame);
  name_ += " value:";
  appendNumber(it.value);
}

void TraceWriter::write(const std::vector<Item>& items) {
  for (const Item& item : items) writeItem(item);
}

void TraceWriter::writeItem(const Item& it) {
  using K = Item::Kind;
  if (perfetto_) {
    writePerfetto(it);
    return;
  }
  auto number = [this](int64_t v) { appendNumber(v); };
  auto sensorFrame = [&] { appendSensorFrame(it.sensor, it.frame); };
  name_.clear();
  switch (it.kind) {
    case K::Send:
      sensorFrame();
      event(name_, "send", "X", it.ts, it.tid).micros("dur", it.dur);
      break;
    case K::Wait:
      sensorFrame();
      name_ += it.detail ? " isConfig:1" : " isConfig:0";
      event(name_, "wait", "X", it.ts, it.tid).micros("dur", it.dur);
      break;
    case K::Job:
      name_ += history::jobKindName(history::JobKind(it.detail));
      name_ += ' ';
      sensorFrame();
      event(name_, "job", "X", it.ts, it.tid)
          .micros("dur", it.dur)
          .open("args")
          .num("fd", it.value)
          .close();
      break;
    case K::FlowStart: event("releases", "flow", "s", it.ts, it.tid).num("id", it.value); break;
    case K::FlowEnd:
      event("releases", "flow", "f", it.ts, it.tid).str("bp", "e").num("id", it.value);
      break;
    case K::FrameBegin:
    case K::FrameEnd:
      name_ += "F:";
      number(it.frame);
      event(name_, "frame", it.kind == K::FrameBegin ? "b" : "e", it.ts, it.tid)
          .num("id", it.frame);
      break;
    case K::Event:
      appendEventName(it);
      event(name_, "event", "i", it.ts, it.tid).str("s", "t");
      break;
    case K::Counter:
      event(it.detail ? "frames in flight" : "sends waiting", "counter", "C", it.ts, it.tid)
          .open("args")
          .num("value", it.value)
          .close();
      break;
  }
  emit();
}

void TraceWriter::finish(const Run& r) {
  if (!logLines_.lines.empty()) handLogLines();
  if (worker_) worker_->drain();
  write(gather(r, unsettledPart(r)));
  marks_.releaseBefore(INT64_MAX, [&](Nanos at, int framesDelta, int, int inFlight, int waiting) {
    writeItem({Item::Kind::Counter, uint8_t(framesDelta != 0), kEventTrack, 0, 0, at, 0,
               framesDelta ? inFlight : waiting});
  });
  if (perfetto_) {
    finishPerfetto(r);
    return;
  }
  meta("thread_name", kEventTrack).open("args").str("name", "frames, counters and events").close();
  emit();
  for (const auto& n : threadNames(r)) {
    meta("thread_name", n.first).open("args").str("name", n.second).close();
    emit();
    meta("thread_sort_index", n.first)
        .open("args")
        .num("sort_index", n.second == "pipeline" ? -1 : n.first)
        .close();
    emit();
  }
  buffer_ += "]}\n";
  flush(true);
}

void TraceClock::see(std::string_view raw) {
  if (found_) return;
  LogLine line;
  if ((!parseLogLine(raw, &line) && !parseLongHeader(raw, &line)) || !line.hasTime) return;
  found_ = true;
  line_ = std::string(raw.substr(0, 64));
  timeNs_ = line.timeNs;
}

TraceOptions TraceClock::options(const std::string& path, int year, int utcOffsetMinutes) const {
  TraceOptions options;
  options.perfetto = pftrace::isPerfettoPath(path);
  options.gzip = !options.perfetto && pftrace::isGzipPath(path);
  if (!found_) return options;
  std::optional<pftrace::CaptureClock> clock =
      pftrace::captureClockOf(line_, timeNs_, year, utcOffsetMinutes);
  if (clock) {
    options.clockId = clock->clockId;
    options.firstStampNs = clock->firstNs;
  }
  return options;
}

Nanos sessionStartNs(const LogReader& reader, const Run& run) {
  // The newest stamp on the run's clock is the file's newest stamp less the session's start.
  Nanos start = -1;
  reader.forEachCurrentRun([&](const Run& r, Nanos newestAt) {
    if (&r == &run) start = reader.clock().last() - newestAt;
  });
  if (start < 0 && !run.captureEndGiven && run.captureEnd > 0) {
    start = reader.clock().last() - run.captureEnd;
  }
  return std::max<Nanos>(start, 0);
}

// The name of an item's slice or instant, made in name_ (as the JSON trace names it).
void TraceWriter::writePerfetto(const Item& it) {
  using K = Item::Kind;
  pftrace::Sequence& seq = perfetto_->sequence();
  std::string* buf = perfetto_->buffer();
  auto number = [this](int64_t v) { appendNumber(v); };
  auto sensorFrame = [&] { appendSensorFrame(it.sensor, it.frame); };
  auto ts = [this](Nanos t) { return uint64_t(std::max<Nanos>(t, 0)) / unitNs_; };
  auto slice = [&](const char* category, bool intern) {
    uint64_t track = perfetto_->threadTrack(processTrack(pid_), pid_, it.tid);
    seq.event(buf, pftrace::kSliceBegin, ts(it.ts), track, category, name_, intern);
    seq.end(buf, ts(it.ts + it.dur), track);
  };
  name_.clear();
  switch (it.kind) {
    case K::Send:
      sensorFrame();
      slice("send", false);
      break;
    // A wait and a job lie inside their send, whose name gives the sensor and frame: their
    // own names repeat, and are interned.
    case K::Wait:
      name_ += it.detail ? "wait isConfig:1" : "wait isConfig:0";
      slice("wait", true);
      break;
    case K::Job:
      name_ += history::jobKindName(history::JobKind(it.detail));
      name_ += " fd:";
      number(it.value);
      slice("job", true);
      break;
    case K::FlowStart:
    case K::FlowEnd: {
      // An instant inside the job on each side carries the arrow.
      pftrace::Sequence::Flow flow{uint64_t(it.value), it.kind == K::FlowEnd};
      uint64_t track = perfetto_->threadTrack(processTrack(pid_), pid_, it.tid);
      seq.event(buf, pftrace::kInstant, ts(it.ts), track, "flow", "releases", true, &flow);
      break;
    }
    case K::FrameBegin: {
      uint64_t track = pftrace::trackUuid(pftrace::TrackKind::Async, it.frame);
      seq.track(buf, track, processTrack(pid_), "frames");
      name_ += "F:";
      number(it.frame);
      seq.event(buf, pftrace::kSliceBegin, ts(it.ts), track, "frame", name_, false);
      break;
    }
    case K::FrameEnd:
      seq.end(buf, ts(it.ts), pftrace::trackUuid(pftrace::TrackKind::Async, it.frame));
      break;
    case K::Event:
      appendEventName(it);
      seq.event(buf, pftrace::kInstant, ts(it.ts), kEventsTrack, "event", name_, false);
      break;
    case K::Counter: seq.counter(buf, ts(it.ts), counterTrack(it.detail != 0), it.value); break;
  }
  perfetto_->written();
}

void TraceWriter::addLogLine(Nanos at, int pid, int tid, char level, std::string_view tag,
                             std::string_view message) {
  if (!takesLogLines()) return;
  logLines_.lines.push_back({at, pid, tid, uint32_t(tag.size()), uint32_t(message.size()), level});
  logLines_.text.append(tag).append(message);
  if (logLines_.lines.size() >= kLogLinesBatch) handLogLines();
}

void TraceWriter::handLogLines() {
  if (!worker_) {
    writeLogLines(logLines_);
  } else {
    worker_->post([this, lines = std::move(logLines_)] { writeLogLines(lines); });
  }
  logLines_ = LogLines();
}

// Packets of a few dozen kilobytes: a viewer reads each whole.
void TraceWriter::writeLogLines(const LogLines& batch) {
  constexpr size_t kPacketBytes = size_t(1) << 15;
  pftrace::Sequence& seq = perfetto_->sequence();
  std::string events;
  size_t offset = 0;
  for (const LogLines::Line& l : batch.lines) {
    std::string_view tag(batch.text.data() + offset, l.tagSize);
    std::string_view message(batch.text.data() + offset + l.tagSize, l.messageSize);
    offset += l.tagSize + l.messageSize;
    pftrace::Sequence::logEvent(&events, logLinesBaseNs_ + uint64_t(std::max<Nanos>(l.at, 0)),
                                l.pid, l.tid, pftrace::logPriority(l.level), tag, message);
    if (events.size() >= kPacketBytes) {
      seq.androidLog(perfetto_->buffer(), events);
      perfetto_->written();
      events.clear();
    }
  }
  if (!events.empty()) {
    seq.androidLog(perfetto_->buffer(), events);
    perfetto_->written();
  }
}

void TraceWriter::finishPerfetto(const Run& r) {
  // Threads are named once the whole capture shows which sensor each serves.
  for (const auto& n : threadNames(r))
    perfetto_->nameThread(processTrack(pid_), pid_, n.first, n.second);
  perfetto_->flush();
}

void writeTrace(std::ostream& out, const Run& r) {
  TraceWriter writer(out, r.pid);
  writer.finish(r);
}

}  // namespace log
}  // namespace orvcam
