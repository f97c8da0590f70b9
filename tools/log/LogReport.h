#pragma once
// What camdeliver-log makes of a replayed run: findings (blocked sends, fatal assertions,
// warnings, ordering violations), what the log cannot show, and the outputs built from it
// (summary, frame table, trace, replay scenario).
#include <algorithm>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/JsonText.h"
#include "base/OrderedWorker.h"
#include "check/Checker.h"
#include "logread/LogReader.h"

struct z_stream_s;  // zlib's

namespace orvcam {
namespace pftrace {
class StreamWriter;
}
namespace log {

using base::JsonText;
using base::OrderedWorker;
using history::Nanos;
using logread::DurationHistogram;
using logread::inferTag;
using logread::LogLine;
using logread::LogReader;
using logread::Run;
using logread::SensorFrame;
using logread::stripColour;

struct Finding {
  // blocked, fatal, warning, order, sync, raw-switch, fd, delivery
  std::string kind;
  std::string text;  // one or more lines, without a trailing newline
};

struct AnalysisOptions {
  // A send still waiting at the capture's end is a stall once it has waited this long; -1:
  // derived from the log's own waits and job times.
  Nanos stallNs = -1;
  // Warnings that are not benign fail the run too.
  bool strict = false;
};

// The shortest wait that counts as a stall when the log does not say otherwise: a send that
// began waiting this close to the end of a capture was most likely only cut off.
constexpr Nanos kStallFloorNs = 500 * 1000000LL;
// How many times the log's p99 wait or job time a send must wait to count as a stall.
constexpr int kStallFactor = 20;

struct Analysis {
  // Violations, stalls and fatal assertions: any of them fails the run.
  std::vector<Finding> findings;
  // Warnings that are not benign: explained by a legal client call order, or to be looked
  // at. They fail the run only with `strict`.
  std::vector<Finding> warnings;
  bool strict = false;
  // Sends still waiting at the capture's end that had not waited long enough to be a stall.
  std::vector<std::string> inFlight;
  Nanos stallNs = 0;
  bool stallDerived = true;
  std::vector<std::string> notes;         // warnings that are benign, counted
  std::vector<std::string> notCheckable;  // rules the log lacks the data for
  check::CheckResult check;               // checker result, rules the log can show only
  bool debugMissing = false;              // nothing to rebuild: the debug lines are off
  bool failed() const { return !findings.empty() || (strict && !warnings.empty()); }
};

Analysis analyse(const Run& run, const AnalysisOptions& options = AnalysisOptions());
// The stall threshold the log's own figures give: kStallFactor times the larger of its p99
// enqueue wait and p99 job time, at least kStallFloorNs.
Nanos derivedStallNs(const Run& run);

// What a send still waiting waits for: indented lines, each after a newline.
std::string waitsFor(const Run& run, const SensorFrame& st, bool isConfig);
// A no-frame enqueue's thread wrote a line after the send's last one: it is no longer waiting.
bool noFrameSendWentOn(const Run& run, const SensorFrame& st);

void printSummary(std::ostream& out, const Run& run);
void printFrames(std::ostream& out, const Run& run);
void printAnalysis(std::ostream& out, const Analysis& analysis);

// Chrome JSON trace: a track per thread, named after the sensor it serves.
void writeTrace(std::ostream& out, const Run& run);

// Changes of the run's counters (frames in flight, sends waiting) gathered as parts arrive and
// given out in time order, with their running values, once no earlier change can come.
class CounterMarks {
 public:
  void add(Nanos at, int frames, int waiting) { marks_.push_back({at, {frames, waiting}}); }
  // The frames the part named have been added: releases what comes before the oldest frame
  // the run still holds and has not been told of.
  template <typename F>
  void release(const Run& run, const std::set<uint32_t>& partFrames, F f) {
    Nanos before = INT64_MAX;
    for (const auto& entry : run.frames) {
      if (!partFrames.count(entry.first) && !run.context.count(entry.first)) {
        before = std::min(before, entry.second.firstSeen);
      }
    }
    releaseBefore(before, f);
  }
  // f(at, frames delta, waiting delta, frames in flight, sends waiting)
  template <typename F>
  void releaseBefore(Nanos before, F f) {
    std::sort(marks_.begin(), marks_.end());
    size_t n = 0;
    for (; n < marks_.size() && marks_[n].first < before; ++n) {
      const auto& m = marks_[n];
      frames_ += m.second.first;
      waiting_ += m.second.second;
      f(m.first, m.second.first, m.second.second, frames_, waiting_);
    }
    marks_.erase(marks_.begin(), marks_.begin() + long(n));
  }

 private:
  std::vector<std::pair<Nanos, std::pair<int, int>>> marks_;
  int frames_ = 0, waiting_ = 0;
};

// How the trace is written: Chrome JSON, or Perfetto's protobuf format (chosen by the file's
// extension, pftrace::isPerfettoPath). A Perfetto trace puts its events on a clock of its own,
// nanoseconds from the capture's first stamp, and relates it in a clock snapshot to the
// capture's clock when that is known (`clockId` a Perfetto BuiltinClock, 0 when unknown).
struct TraceOptions {
  bool perfetto = false;
  bool gzip = false;  // Chrome JSON through gzip (a name ending in .gz)
  uint32_t clockId = 0;
  uint64_t firstStampNs = 0;  // the first stamp on that clock
};

// Finds the capture's clock for a Perfetto trace from its first stamped line: see() is given
// each line until found() (a cheap test after that).
class TraceClock {
 public:
  void see(std::string_view raw);
  bool found() const { return found_; }
  // The options for a trace file named `path`. A date without a year takes `year` (0: the
  // current year); stamps are the device's local time, `utcOffsetMinutes` from UTC.
  TraceOptions options(const std::string& path, int year, int utcOffsetMinutes) const;

 private:
  bool found_ = false;
  std::string line_;
  int64_t timeNs_ = 0;
};

// Where a session's time 0 (its first line) lies on the file's timeline, in nanoseconds from
// the file's first stamp, which TraceClock reads: the trace's clock snapshot moves by it. Found
// from the reader while the log is read, or after finish() from the run's capture end (0 when
// neither tells, with a capture end given by the user).
Nanos sessionStartNs(const LogReader& reader, const Run& run);

// The same trace written as a long log is read: add() takes the parts a LogReader's listener
// is given (before their frames leave memory), finish() the finished run.
//
// Threads: add() and finish() are called by the reader's thread. With a worker, add() only
// gathers the part's events (it reads the run, which the reader goes on changing) and the
// worker formats and writes them, in order; finish() drains the worker first. The gathering
// side (`marks_`) is the reader thread's alone, the writing side (`out_` and what follows it)
// the worker's until finish() has drained it; `spare_` passes lists back under its own lock.
class TraceWriter {
 public:
  TraceWriter(std::ostream& out, int pid, OrderedWorker* worker = nullptr,
              const TraceOptions& options = TraceOptions());
  ~TraceWriter();
  TraceWriter(const TraceWriter&) = delete;
  TraceWriter& operator=(const TraceWriter&) = delete;
  void add(const Run& run, const history::History& part);
  void finish(const Run& run);

  // Log lines of the session's process as Android log events, beside the frames in Perfetto's
  // log panel: only a Perfetto trace whose stamps are on the wall clock takes them (the events'
  // clock). Each line is given as it is read, with its time on the run's clock; they are kept
  // compactly and written a few thousand at a time. Reader thread.
  bool takesLogLines() const { return logLinesBaseNs_ != 0; }
  void addLogLine(Nanos at, int pid, int tid, char level, std::string_view tag,
                  std::string_view message);

  // One event, gathered; its text is made when it is written.
  struct Item {
    enum class Kind : uint8_t {
      Send,
      Wait,
      Job,
      FlowStart,
      FlowEnd,
      FrameBegin,
      FrameEnd,
      Event,
      Counter
    };
    Kind kind;
    uint8_t detail;  // Wait: a configure step; Job: history::JobKind; Event: history::EventKind;
                     // Counter: 1 frames in flight, 0 sends waiting
    int tid;
    uint32_t sensor, frame;
    Nanos ts, dur;
    int64_t value;  // Job: the FD; flows: the arrow's id; Event, Counter: the value
  };

 private:
  std::vector<Item> gather(const Run& run, const history::History& part);
  void write(const std::vector<Item>& items);
  void writeItem(const Item& item);
  // Append to name_.
  void appendNumber(int64_t v);
  void appendSensorFrame(uint32_t sensor, uint32_t frame);
  void appendEventName(const Item& it);
  // Starts an event of the common shape, or a metadata event, in text_; emit() writes it.
  JsonText& event(std::string_view name, const char* cat, const char* ph, Nanos ts, int tid);
  JsonText& meta(const char* name, int tid);
  void emit();
  void flush(bool end = false);  // `end`: the gzip stream's too
  // The Perfetto trace's side of writeItem() and finish().
  void writePerfetto(const Item& item);
  void finishPerfetto(const Run& run);
  // Log lines gathered by the reader's thread; their texts one after the other in `text`.
  struct LogLines {
    struct Line {
      Nanos at;
      int pid, tid;
      uint32_t tagSize, messageSize;
      char level;
    };
    std::vector<Line> lines;
    std::string text;
  };
  static constexpr size_t kLogLinesBatch = 4096;
  void handLogLines();  // to the worker, or written at once without one
  void writeLogLines(const LogLines& lines);
  struct GzipEnd {
    void operator()(z_stream_s* z) const;
  };

  OrderedWorker* worker_;
  // Lists of items written by the worker, for gather() to fill again. A leaf lock.
  std::mutex spareMutex_;
  std::vector<std::vector<Item>> spare_ ORVCAM_GUARDED_BY(spareMutex_);
  CounterMarks marks_;
  std::ostream& out_;
  int pid_;
  bool first_ = true;
  JsonText text_;
  std::string name_;    // an event's name, made in place
  std::string buffer_;  // written to out_ a few hundred kilobytes at a time
  std::unique_ptr<pftrace::StreamWriter> perfetto_;  // null for a JSON trace
  uint64_t unitNs_ = 1;                              // the Perfetto trace clock's tick
  std::unique_ptr<z_stream_s, GzipEnd> gzip_;        // a gzip'd JSON trace's stream
  std::string gzipOut_;
  // The wall-clock time (CLOCK_REALTIME) of the run's time 0; 0: log lines are not taken.
  uint64_t logLinesBaseNs_ = 0;
  LogLines logLines_;  // the reader thread's
};

// Gives the lines a LogReader reads to the traces of their sessions as log events: the
// deliverer's lines or, with `all`, every line of a process once it has a session. Called
// around each LogReader::addLine (reader thread); `writerFor(run)` gives the run's
// TraceWriter, or null.
class TraceLogFeed {
 public:
  explicit TraceLogFeed(bool all) : all_(all) {}
  void before(const LogReader& reader) {
    library_ = reader.libraryLines();
    skipped_ = reader.repeats().skipped() + reader.binaryLines();
  }
  template <typename F>
  void after(const LogReader& reader, std::string_view raw, F writerFor) {
    bool library = reader.libraryLines() > library_;
    if (!library && (!all_ || reader.repeats().skipped() + reader.binaryLines() != skipped_)) {
      return;
    }
    LogLine line;
    if (!parseLogLine(stripColour(raw, &colourFree_), &line) || line.pid < 0 || !line.hasTime) {
      return;
    }
    // The line's time on its session's clock: the newest stamp the session has seen.
    const Run* run = nullptr;
    Nanos at = 0;
    reader.forEachCurrentRun([&](const Run& r, Nanos newestAt) {
      if (r.pid == line.pid) run = &r, at = newestAt;
    });
    if (!run) return;
    TraceWriter* writer = writerFor(*run);
    if (!writer || !writer->takesLogLines()) return;
    writer->addLogLine(at, line.pid, line.tid >= 0 ? line.tid : line.pid, line.level,
                       line.tag.empty() ? inferTag(line.text) : line.tag, line.text);
  }

 private:
  bool all_;
  uint64_t library_ = 0, skipped_ = 0;
  std::string colourFree_;
};

// A scenario for camdeliver-sim that replays the run's frames, sensors, sync groups,
// configure frames, raw switches and events, with job durations fitted to the log.
void writeScenario(std::ostream& out, const Run& run);

// The same scenario written as a long log is read: add() takes the parts a LogReader's
// listener is given, finish() the finished run and writes the file. Its lists wait in files
// named after `prefix` (prefix.events.part, ...; removed at destruction), or in memory when
// `prefix` is empty.
class ScenarioWriter {
 public:
  explicit ScenarioWriter(const std::string& prefix);
  ~ScenarioWriter();
  ScenarioWriter(const ScenarioWriter&) = delete;
  ScenarioWriter& operator=(const ScenarioWriter&) = delete;
  void add(const Run& run, const history::History& part);
  bool finish(const Run& run, std::ostream& out);

 private:
  static std::optional<uint32_t> replayFrame(const history::EventRecord& e);
  enum List : size_t { kSyncGroups, kConfigure, kRawSwitches, kEvents, kLists };
  struct Durations {
    uint64_t n = 0;
    double sum = 0, sumSquares = 0;
  };
  std::string partPath(size_t list) const;
  void item(size_t list, const nlohmann::json& value);
  void group(const history::FramePlan& plan, const history::FramePlan* next);
  void closeGroup();
  std::string prefix_;
  std::unique_ptr<std::iostream> lists_[kLists];
  uint64_t counts_[kLists] = {};
  bool planned_ = false;
  uint32_t first_ = 0, last_ = 0;
  bool havePrevSeen_ = false;
  Nanos prevSeen_ = 0;
  DurationHistogram gaps_;
  CounterMarks inFlight_;
  int maxInFlight_ = 1;
  std::map<uint32_t, uint32_t> firstFrame_;
  std::set<uint32_t> joinsBySwitch_;
  std::map<uint32_t, Durations> durations_;
  std::set<uint32_t> flushedFrames_;
  std::optional<history::FramePlan> pending_;
  std::set<uint32_t> previousList_, current_;
  bool grouping_ = false;
  uint32_t from_ = 0, to_ = 0;
};

// How to get the lines this tool needs.
extern const char* const kHowToEnableDebug;
extern const char* const kHowToEnableVerbose;
// Why a session without preparation lines has nothing to rebuild, and what to capture instead:
// the debug level is off, or the capture was filtered by tag and left out the guard's.
std::string whyNothingToRebuild(const Run& run);

}  // namespace log
}  // namespace orvcam
