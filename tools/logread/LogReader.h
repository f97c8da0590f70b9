#pragma once
// Reading the deliverer's own log lines back: logcat text (threadtime, time, brief, and the
// threadtime lines of a bugreport, with or without year and uid columns) is parsed line by
// line, and the library's lines of every process are replayed into per (sensor, frame) state
// and a History that the ordering checker reads like a simulator run.
//
// Nothing here runs the library; it only knows the texts the library writes.
#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "CamDeliverConstants.h"
#include "check/Checker.h"
#include "history/History.h"
#include "logread/DurationHistogram.h"
#include "logread/MessageCatalogue.h"
#include "logread/RepeatedLines.h"

namespace orvcam {
namespace logread {

using history::History;
using history::Nanos;

// Studio: what Android Studio's Logcat window copies or exports, "pid-tid" after the time.
enum class Layout { Unknown, ThreadTime, Time, Brief, Process, Tag, Thread, Raw, Long, Studio };
const char* layoutName(Layout layout);

struct LogLine {
  Layout layout = Layout::Unknown;
  int pid = -1;
  int tid = -1;  // -1 when the layout has none
  bool hasTime = false;
  int64_t timeNs = 0;  // from the start of the year; ordering only
  int64_t tickNs = 0;  // the stamp's resolution: 1000000 for milliseconds
  char level = '?';    // V D I W E F; '?' when the layout has none (raw)
  std::string_view tag;
  std::string_view text;
};

// False when `raw` is not a log line in one of the layouts (a bugreport's section headers,
// a line cut before its message, other text). A trailing CR is ignored; colour escapes must
// have been taken out (stripColour).
bool parseLogLine(std::string_view raw, LogLine* out);
// The `long` layout's "[ time pid: tid L/tag ]" line; its message is on the lines after it.
bool parseLongHeader(std::string_view raw, LogLine* out);
// `raw` without the `color` modifier's ANSI escapes (copied into `buffer` when it has any).
std::string_view stripColour(std::string_view raw, std::string* buffer);
// The deliverer's tag that writes `message`, from the function it names; empty for other
// text. Layouts without tags (thread, raw) get theirs from it.
std::string_view inferTag(std::string_view message);

using history::kConfigKeyBase;
using history::kNoFrame;

// What the log shows of one sensor in one frame.
struct SensorFrame {
  uint32_t sensor = 0;
  uint32_t frame = 0;
  int tid = -1;
  bool prepared = false;
  bool prepareLost = false;  // a job line proved a prepare the log lacks
  int64_t order = -1;
  Nanos preparedAt = 0;
  // Configure: a configure job sent, or setConfigured reported.
  bool cfgSent = false, cfgStarted = false, cfgDone = false, setConfigured = false;
  Nanos cfgSentAt = 0, cfgStart = 0, cfgEnd = 0, setConfiguredAt = 0;
  int32_t cfgFd = -1;
  // The log lost the licence line that marks the job's start; a later line proved it ran.
  bool cfgStartLost = false, enqStartLost = false;
  // Enqueue. `enqSentSeen`: the send's own line (needs the force-log property); otherwise the
  // send is first seen by its wait lines or its licence. `enqWaitSeen`: a line shows it waited,
  // with or without the send's own line before it.
  bool enqSentSeen = false, enqWaitSeen = false, enqStarted = false, enqDone = false;
  bool enqNull = false;  // no licence: the job was not run
  Nanos enqSentAt = 0, enqFirstWait = 0, enqStart = 0, enqEnd = 0;
  int32_t enqFd = -1;
  int waitLines = 0;        // "wait previous syncframe enque ..." lines
  int enqLineTid = -1;      // the thread of the enqueue's own send and wait lines
  Nanos enqLastLineAt = 0;  // the latest of those lines
  // A raw-switch wait opened ("enqed +") and not closed yet, for the configure or the enqueue.
  int64_t offWaitOpen[2] = {-1, -1};  // [isConfig] -> off sensor, or -1
  Nanos offWaitSince[2] = {0, 0};
  int64_t previousFrame = -1;  // named by the pool's previous-frame lookup
  bool dropped = false, flushed = false;
  Nanos droppedAt = 0, flushedAt = 0;
  int32_t firstFd = -1;  // the FD its enqueue licence was given first
  std::vector<std::pair<int32_t, int32_t>> fdChanges;
  // A wait line of the enqueue: the send waited, whether or not its own line came first (at
  // verbose level it does). Without that line, the first wait line is when it was sent.
  void sawEnqueueWait(Nanos at) {
    if (!enqSentSeen && !enqWaitSeen) enqSentAt = at;
    if (!enqWaitSeen) enqFirstWait = at;
    enqWaitSeen = true;
  }
  bool done() const { return enqDone || dropped || flushed; }
  bool cfgBlocked() const { return cfgSent && !cfgStarted; }
  bool enqBlocked() const { return (enqSentSeen || enqWaitSeen) && !enqStarted && !enqNull; }
};

struct FrameInfo {
  uint32_t frame = 0;
  std::set<uint32_t> sensors;  // prepared or dropped it
  std::set<uint32_t> needCfg;  // configure job, setConfigured or a configure licence seen
  std::set<uint32_t> cfgByJob;
  int64_t offSensor = -1;
  bool syncBroken = false;
  bool retired = false;
  Nanos retiredAt = 0;
  std::string retiredBy;  // the line that erased its record: "the drop of S:1 F:5", ...
  Nanos firstSeen = 0;
};

struct FatalAssertion {
  std::string message;   // without the " (function){#line:path}" suffix
  std::string function;  // from the suffix, when the assertion line was kept
  std::string tag;
  int tid = -1;
  Nanos at = 0;
  std::vector<std::string> before;  // the thread's last library lines before it
};

struct WarningCount {
  std::string kind;  // the warning's text with its numbers left out
  uint64_t count = 0;
  std::string first;  // the first such line, as written
};

// The last thing the log shows a sensor doing.
struct LastSeen {
  Nanos at = 0;
  std::string text;
};

// A sensor's figures over the whole session, counted as lines come and as frames settle.
struct SensorTotals {
  uint64_t prepared = 0;    // prepare lines
  uint64_t configured = 0;  // configure jobs run and setConfigured reports
  uint64_t enqueued = 0;    // enqueue jobs run
  uint64_t dropped = 0;     // drop reports
  uint64_t flushed = 0;     // frames a flush took from it
  DurationHistogram waits;  // from a send to its job's start, every job that ran
  // The FDs its jobs were given. A device reuses a few descriptors; a log whose FDs only grow
  // stops collecting them at kMaxFds and the count reads "at least".
  static constexpr size_t kMaxFds = 4096;
  std::set<int32_t> fds;
  void addFd(int32_t fd) {
    if (fds.size() < kMaxFds) fds.insert(fd);
  }
  uint64_t sharedFrames = 0;  // frames whose enqueue FD it shared with another sensor
};

struct SensorFrameKeyHash {
  size_t operator()(const std::pair<uint32_t, uint32_t>& key) const {
    return std::hash<uint64_t>()(uint64_t(key.first) << 32 | key.second);
  }
};

// One session's lines, replayed: a deliverer built in a process, from its first line to the
// line that shows the next one built in the same process.
struct Run {
  int pid = -1;
  int session = 1;  // 1 for the process's first deliverer in the log
  // How the start of this session was told from the one before it (empty for the first).
  std::string boundary;
  // Lines after this session began that named a frame both it and the one before it hold:
  // given to this session, though they may have been the older deliverer's.
  uint64_t ambiguousLines = 0;
  // Lines after the next session began that were given back to this one: they named a frame
  // only this session held.
  uint64_t lateLines = 0;
  Layout layout = Layout::Unknown;
  bool hasTime = true;
  // The coarsest resolution of the session's time stamps (1 ms in threadtime); 0 without times.
  // Two lines of different threads within one tick are ordered by nothing but their place in
  // the file.
  Nanos stampTick = 0;
  bool hasTid = true;
  bool hasLevel = true;
  // Lines of the guard's tag, and lines at debug or verbose level of any of the deliverer's
  // tags: debug lines without the guard's tell a capture filtered by tag.
  uint64_t guardLines = 0, debugLevelLines = 0;
  uint64_t lines = 0;         // the library's lines of this process
  uint64_t debugLines = 0;    // prepare lines: the debug level was on
  uint64_t verboseLines = 0;  // lines only the force-log property writes
  uint64_t truncated = 0;     // lines cut at the logger's 1023 bytes
  uint64_t lostLines = 0;     // lines a later line proves were written, missing from the log
  std::string firstLost;      // the first of them: which line, of which job, before which
  // Per thread, the frames the in-flight report it is making listed, not broken yet.
  std::map<int, std::vector<uint32_t>> unbrokenSyncFrames;
  Nanos endAt = 0;
  // The capture's end on this run's clock: the last time stamp of any line in the file, of any
  // tag or process. A send waiting at that point has waited at least this long.
  Nanos captureEnd = 0;
  bool captureEndGiven = false;  // by the user (--capture-end), later than the last line
  // (sensor, frame). Hashed: every line looks its pair up, and a tree of a few thousand
  // entries costs a cache miss per level. What reports from it goes through statesInOrder().
  std::unordered_map<std::pair<uint32_t, uint32_t>, SensorFrame, SensorFrameKeyHash> states;
  std::map<uint32_t, FrameInfo> frames;
  std::map<uint32_t, std::vector<uint32_t>> sequence;  // per sensor, frames in prepare order
  uint32_t lowestFrame = UINT32_MAX;  // the lowest and highest frame prepared on any sensor
  uint32_t highestFrame = 0;
  std::map<uint32_t, LastSeen> lastSeen;                      // per sensor
  std::map<int, std::map<uint32_t, uint64_t>> threadSensors;  // tid -> sensor -> lines
  std::map<int, Nanos> threadLastAt;                          // tid -> time of its latest line
  std::vector<FatalAssertion> fatals;
  // A long capture does not stay in memory: once a session holds more frames than the reader's
  // window, the oldest frames that have settled (retired, no send waiting or running) are
  // checked, counted into the totals below and dropped. The frames later ones depend on (each
  // sensor's latest, and the last few for the preparation window) stay as context.
  std::set<uint32_t> sensorsSeen;
  std::map<uint32_t, SensorTotals> totals;  // per sensor; settled and, after finish(), all
  DurationHistogram stallWaits;             // enqueue waits whose send or wait line was seen
  DurationHistogram jobTimes;               // jobs that ran and finished
  check::CheckResult settledCheck;          // what the dropped frames were found to break
  uint64_t settledFrames = 0;
  // Every frame up to this number has settled; a later line that names one that left memory
  // changes nothing but its event and is counted here. -1: none has settled.
  int64_t settledUpTo = -1;
  uint64_t linesForSettled = 0;
  std::set<uint32_t> context;  // settled frames kept for the frames after them
  bool sawDropOrFlush = false;
  std::map<std::string, WarningCount> warnings;  // by kind
  bool torndown = false;                         // the deliverer's destructor handed licences back
  uint64_t unpreparedJobs = 0;  // jobs of frames prepared before the log begins, left out
  // Filled by finish(): the frames still in memory, with `context` as its context frames (the
  // whole session when none settled).
  history::History history;
};

// The sensor's record of `frame`, if the log shows one.
const SensorFrame* findState(const Run& r, uint32_t sensor, uint32_t frame);

// A run's states by sensor, then frame: the order in which reports list them.
std::vector<const SensorFrame*> statesInOrder(const Run& run);

// A step of the log's clock that the reader could not take as time passing: the line number
// and how far the stamp jumped (negative: backwards).
struct ClockStep {
  uint64_t line = 0;
  int64_t stepNs = 0;
};

// Places the log's time stamps on one timeline that never goes backwards. Merged buffers put
// a line slightly before the one above it: such a stamp is held at the previous one and
// counted. A stamp without a year that goes back most of a year is the new year. Any other
// jump back, or forward by more than an hour, is a clock change: it is recorded and the
// timeline goes on from the previous stamp.
class LogClock {
 public:
  static constexpr int64_t kSmallBackNs = 1000000000LL;        // 1 s
  static constexpr int64_t kLargeForwardNs = 3600000000000LL;  // 1 h
  static constexpr int64_t kYearNs = 366LL * 24 * 3600 * 1000000000LL;
  // `raw`: nanoseconds from the start of a (leap) year. Returns nanoseconds from the first
  // stamp.
  int64_t place(int64_t raw, uint64_t lineNo);
  int64_t last() const { return started_ ? last_ - first_ : 0; }
  // Where a stamp (nanoseconds from the start of a year, as place() takes them) falls on the
  // timeline, without moving it: a stamp given by the user rather than read from a line.
  int64_t timeOf(int64_t raw) const { return started_ ? raw + offset_ - first_ : 0; }
  uint64_t outOfOrder() const { return outOfOrder_; }
  const std::vector<ClockStep>& steps() const { return steps_; }

 private:
  bool started_ = false;
  int64_t first_ = 0, last_ = 0, offset_ = 0;
  uint64_t outOfOrder_ = 0;
  std::vector<ClockStep> steps_;
};

// When the capture ended, as the user knows it: a stamp in the log's own layout
// ("11-22 10:00:05.000", "2026-11-22 10:00:05.000123", "1764000000.5") or "+SECONDS" after its
// last line. A process that hung stops writing, so its last line is not when the capture ended.
struct CaptureEnd {
  bool relative = false;
  int64_t stampNs = 0;  // !relative: the stamp, as LogLine::timeNs
  int64_t afterNs = 0;  // relative: after the last line
};
// False with `error` naming what is wrong.
bool parseCaptureEnd(const std::string& text, CaptureEnd* out, std::string* error);

namespace detail {
// The (sensor, frame) a session's lines named last and where its records are: most lines
// name the same pair as the line before. Valid until the session's frames are settled.
struct StateCache {
  uint32_t sensor = 0, frame = 0;
  SensorFrame* state = nullptr;  // null: empty
  FrameInfo* info = nullptr;
};
}  // namespace detail

class LogReader {
 public:
  // A silence this long between two lines of one process, followed by a preparation at
  // order 0, starts a new session even when the sensor had not prepared in the old one.
  static constexpr int64_t kSessionSilenceNs = 5000000000LL;
  // Before a sensor new to the session starts its frames again at the session's first.
  static constexpr int64_t kNewSensorSilenceNs = 200000000LL;
  // Frames a session holds before its oldest settled ones are checked and dropped.
  static constexpr size_t kDefaultWindow = 512;
  // Settled frames kept as context: more than the deliverer's preparation window.
  static constexpr size_t kContextFrames = NSCam::camsys::camcoordinator::kPreparationWindow + 4;
  // A frame this many frame numbers behind the newest is settled even if it never retired,
  // when no send of it still waits: far more than the pool can hold in flight.
  static constexpr size_t kStaleFrames = 256;
  // 0 keeps every frame to the end (a frame table needs them all); at least 4 otherwise.
  void setWindow(size_t frames) { window_ = frames == 0 ? 0 : std::max<size_t>(frames, 4); }
  // Told, as a session's frames settle and before they leave memory, their plans and jobs and
  // the prepares, setConfigured reports and events that leave with them (each record once):
  // what writes a file about the run writes them as the log is read. What is left at the end
  // is unsettledPart(run). The part is the listener's to keep: it may move from it.
  using SettledListener = std::function<void(const Run& run, history::History&& part)>;
  void setListener(SettledListener listener) { listener_ = std::move(listener); }
  // Sends still waiting at the end count their wait up to this time (default: the last line).
  void setCaptureEnd(const CaptureEnd& end) { captureEnd_ = end; }
  // One raw line (without its newline).
  void addLine(std::string_view raw);
  // Replays what is left and builds each run's History. Runs by first line.
  std::vector<Run> finish();

  // Each process's current session as it stands while the log is read, for a watch that
  // reports before the end: f(run, newestAt), `newestAt` being the newest stamp of any line in
  // the file on the run's clock (what finish() makes its captureEnd). The run is valid until
  // the next addLine(); it has no history yet and its totals hold the settled frames only.
  template <typename F>
  void forEachCurrentRun(F f) const {
    for (const auto& entry : current_) {
      const Context& c = contexts_[entry.second];
      f(c.run, newestAt(c));
    }
  }

  uint64_t totalLines() const { return total_; }
  uint64_t parsedLines() const { return parsed_; }
  uint64_t libraryLines() const { return library_; }
  bool binary() const { return binary_; }
  uint64_t firstBinaryLine() const { return firstBinaryLine_; }
  // Lines skipped because they hold control bytes (a capture cut while it was written, a
  // binary file).
  uint64_t binaryLines() const { return binaryLines_; }
  const LogClock& clock() const { return clock_; }
  // The layout of the first line that was read as a log line (Unknown: none was).
  Layout firstLayout() const { return firstLayout_; }
  // Neighbouring lines with one time stamp, by how their texts compare. A capture puts such
  // lines in the order they were written, which their texts follow in neither direction; a
  // file sorted line by line (`sort merged.txt`) has them all in text order, and the order of
  // events within a stamp, that the checks rest on, is lost.
  uint64_t sameStampAscending() const { return sameStampAscending_; }
  // Lines that repeated a stretch read before (captures joined with an overlap), skipped.
  const RepeatedLines& repeats() const { return repeats_; }
  uint64_t sameStampDescending() const { return sameStampDescending_; }
  static constexpr uint64_t kSortedEvidence = 64;
  bool sortedLineByLine() const {
    return sameStampDescending_ == 0 && sameStampAscending_ >= kSortedEvidence;
  }

 private:
  // A thread's last lines, oldest first from `next - count`: what a fatal assertion shows
  // of what led to it.
  static constexpr size_t kRecentLines = 6;
  struct RecentLines {
    std::string lines[kRecentLines];
    size_t next = 0;
    size_t count = 0;
  };
  struct Context {
    Run run;
    int64_t baseNs = -1;
    int64_t lastMs = -1;
    Nanos lastAt = 0;
    uint64_t seq = 0;
    std::map<int, RecentLines> recent;  // tid -> its last lines
    std::map<int, size_t> lastEvent;    // tid -> index in history.events
    std::map<int, bool> eventOpen;      // tid -> lines still belong to it
    std::set<uint32_t> flushedSensors;  // flushed, not prepared since: their order restarts
    size_t nextSettleAt = 0;            // frames held when settling is tried next
    SensorFrame scratch;                // what a line about a frame that left memory writes to
    FrameInfo scratchFrame;
    detail::StateCache stateCache;  // emptied whenever frames leave memory
  };
  void handle(Context& c, const LogLine& line, int64_t fileAt);
  static Nanos lineTime(Context& c, const LogLine& line, int64_t fileAt);
  std::string newSessionReason(Context& c, const LogLine& line, int64_t fileAt, uint32_t sensor,
                               uint32_t frame);
  Context& lateLineOwner(Context& c, const LogLine& line, uint32_t sensor, uint32_t frame);
  static void noteFatal(Run& r, const RecentLines& recent, const LogLine& line, Nanos at);
  Nanos newestAt(const Context& c) const {
    return c.baseNs >= 0 ? std::max<Nanos>(c.run.endAt, clock_.last() - c.baseNs) : c.run.endAt;
  }
  // Checks, counts and drops the oldest settled frames once the session holds more than the
  // window.
  void maybeSettle(Context& c);
  void settle(Context& c, const std::vector<uint32_t>& batch);
  size_t window_ = kDefaultWindow;
  std::optional<CaptureEnd> captureEnd_;
  SettledListener listener_;
  LogClock clock_;
  // The session a line of a process belongs to, and why a new one begins with it.
  Context& sessionFor(const LogLine& line, int64_t fileAt);
  Context& startSession(const LogLine& line, int session, std::string boundary);
  std::deque<Context> contexts_;    // every session, by first line
  std::map<int, size_t> current_;   // pid -> the session its lines go to
  std::map<int, size_t> previous_;  // pid -> the session before it
  uint64_t total_ = 0, parsed_ = 0, library_ = 0;
  void processLine(std::string_view raw, LogLine& line, int64_t fileAt);
  bool binary_ = false;
  uint64_t firstBinaryLine_ = 0;
  uint64_t binaryLines_ = 0;
  Layout firstLayout_ = Layout::Unknown;
  std::string pendingHeader_;  // a long layout's header, waiting for its message line
  std::string currentHeader_;  // the header of the message line being read
  std::string colourFree_;     // the line with its colour escapes taken out
  std::string previousLine_;   // the last line read with a time stamp, and its stamp
  int64_t previousStamp_ = -1;
  uint64_t sameStampAscending_ = 0, sameStampDescending_ = 0;
  RepeatedLines repeats_;
  void compareWithPrevious(std::string_view raw, const LogLine& line);
};

// What finish() left in the run's history that no listener was told of: the history without
// the plans and jobs of its context frames.
history::History unsettledPart(const Run& run);

// Takes out of `violations` the delivery findings of frames still in flight when the log ends
// (not retired, some sensor not done): the capture stopped, the library did not fail.
void dropInFlightDeliveries(const Run& run, std::vector<check::Violation>* violations);

}  // namespace logread
}  // namespace orvcam
