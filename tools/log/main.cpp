// camdeliver-log: reads a device's or the simulator's log, rebuilds what the deliverer did
// per sensor and frame, checks it with the simulator's ordering checker and explains what it
// finds. Exit code 0: no findings; 1: findings; 2: bad command line or input.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

#include "PerfettoProto.h"
#include "history/HistoryJson.h"
#include "log/Follow.h"
#include "log/LogReport.h"
#include "log/TextInput.h"
#include "logread/LogReader.h"
#include "report/Report.h"

namespace {

using namespace orvcam;

constexpr int kExitFindings = 1;
constexpr int kExitBadInput = 2;

// What is written about one session as its frames settle, in files beside the outputs named
// after its process and session; the chosen session's become the outputs at the end, the
// others are removed.
struct SessionOutputs {
  std::string tracePart;
  std::ofstream traceFile;
  std::unique_ptr<log::TraceWriter> trace;
  std::unique_ptr<history::HistoryJsonStream> history;
  std::unique_ptr<log::ScenarioWriter> scenario;
  ~SessionOutputs() {
    trace.reset();
    if (traceFile.is_open()) traceFile.close();
    if (!tracePart.empty()) std::remove(tracePart.c_str());
  }
};

// The command line.
struct Options {
  std::string inputPath = "-";
  std::string tracePath, historyPath, scenarioPath;
  std::string traceLogs;       // "", "deliverer" or "all"
  std::string captureEndText;  // --capture-end as given
  bool frames = false;
  bool strict = false;
  bool follow = false;
  int pid = -1;
  int session = -1;
  int traceYear = 0;
  int utcOffset = 0;
  double stallMs = -1;
  size_t window = logread::LogReader::kDefaultWindow;
};

// The options, each bound to its field of `o`.
void addOptions(CLI::App& app, Options* o) {
  app.add_option("log", o->inputPath, "Log file (default or \"-\": standard input)");
  app.add_flag("--frames", o->frames, "Also print a table of every (frame, sensor)");
  app.add_option("--trace", o->tracePath,
                 "Write a trace rebuilt from the log: Perfetto's protobuf format for a name "
                 "ending in .pftrace, .perfetto-trace or .pb (its times tied to the capture's "
                 "clock), gzip'd Chrome JSON for .json.gz, else Chrome JSON");
  app.add_flag("--trace-logs{deliverer}", o->traceLogs,
               "Put the deliverer's log lines into a .pftrace --trace as Android log events, "
               "shown beside the frames in Perfetto's log panel (needs stamps with a date); "
               "--trace-logs=all: every line of the process");
  app.add_option("--trace-year", o->traceYear,
                 "Year of the capture's stamps when its layout has none (default: this year)");
  app.add_option("--utc-offset", o->utcOffset,
                 "The device's offset from UTC in minutes, for a .pftrace's wall clock (the "
                 "stamps are its local time; default 0)");
  app.add_option("--history", o->historyPath,
                 "Write the rebuilt history (camdeliver-sim --check reads it)");
  app.add_option("--scenario", o->scenarioPath,
                 "Write a camdeliver-sim scenario that replays the log's frames");
  app.add_option("--pid", o->pid,
                 "Process whose run the --trace, --history and --scenario files describe "
                 "(default: the last one in the log)");
  app.add_option("--session", o->session,
                 "Session (1 for a process's first deliverer in the log, 2 for the one built "
                 "after it, ...) whose run --trace, --history and --scenario describe "
                 "(default: the last one of the process)")
      ->check(CLI::PositiveNumber);
  app.add_option("--stall-ms", o->stallMs,
                 "A send still waiting at the end of the capture is a stall once it has waited "
                 "this long (default: derived from the log, at least 500 ms)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--capture-end", o->captureEndText,
                 "When the capture ended, if later than its last line (a process that hung "
                 "stops logging): a time stamp in the log's own layout, or +SECONDS after the "
                 "last line. Sends still waiting count their wait up to it.");
  app.add_flag("--strict", o->strict,
               "Warnings that are not benign fail the run too (exit 1), even those a legal "
               "client call order explains");
  app.add_option("--window", o->window,
                 "Frames a session holds before the oldest settled ones are checked, counted and "
                 "let go (0: keep every frame to the end); the result does not depend on it")
      ->capture_default_str();
  app.add_flag("--follow", o->follow,
               "Read a live capture (adb logcat -v threadtime | camdeliver-log --follow -): a "
               "send waiting past the stall threshold and a fatal assertion are reported as "
               "soon as they show, with a status line on stderr every 5 s; the usual report "
               "follows at the end of the input (or the first Ctrl-C)");
}

// Fills `o` from the command line; -1 to go on, else the exit code.
int parseOptions(int argc, char** argv, Options* o) {
  CLI::App app{
      "camdeliver-log: reads a logcat capture (threadtime, time or brief layout, or a "
      "bugreport), rebuilds the deliverer's frames per sensor, checks their order and explains "
      "blocked sends, fatal assertions and warnings."};
  addOptions(app, o);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kExitBadInput;
  }
  if (!o->traceLogs.empty() && o->traceLogs != "deliverer" && o->traceLogs != "all") {
    std::cerr << "camdeliver-log: --trace-logs takes no value or \"all\", not \"" << o->traceLogs
              << "\"\n";
    return kExitBadInput;
  }
  if (!o->traceLogs.empty() && !pftrace::isPerfettoPath(o->tracePath)) {
    std::cerr << "camdeliver-log: --trace-logs needs a Perfetto trace: --trace FILE.pftrace\n";
    return kExitBadInput;
  }
  return -1;
}

// One reading of a capture: the input, the reader and the files written as frames settle.
class Command {
 public:
  explicit Command(const Options& o) : o_(o) {}
  int run();

 private:
  int openInput();
  void setUpOutputs();
  SessionOutputs& outputsFor(const logread::Run& run);
  int readLines();
  int checkInput() const;
  void printInputNotes() const;
  bool reportRun(const logread::Run& run, const std::vector<logread::Run>& runs);
  int writeOutputs(const logread::Run& chosen);

  const Options& o_;
  std::ifstream file_;
  std::istream* in_ = &std::cin;
  std::string inputName_ = "standard input";
  int followFd_ = STDIN_FILENO;
  logread::LogReader reader_;
  // Formats and writes the trace and history on a second thread while the reader goes on;
  // it outlives the writers, which drain it when they finish or go.
  std::unique_ptr<base::OrderedWorker> worker_;
  log::TraceClock traceClock_;  // the first stamp, for a Perfetto trace's clock
  std::map<std::pair<int, int>, std::unique_ptr<SessionOutputs>> outputs_;
  std::unique_ptr<log::TraceLogFeed> logFeed_;  // --trace-logs: lines into the trace
  std::unique_ptr<log::FollowInput> follower_;
  log::TextInput::Encoding encoding_ = log::TextInput::Encoding::Utf8;
  std::string firstLine_;
  // What the report found: any finding, and whether some run could be rebuilt at all.
  bool findings_ = false;
  bool nothingRebuilt_ = true;
  std::string whyNothing_;
};

int Command::run() {
  if (int rc = openInput(); rc >= 0) return rc;
  if (!o_.captureEndText.empty()) {
    logread::CaptureEnd end;
    std::string error;
    if (!logread::parseCaptureEnd(o_.captureEndText, &end, &error)) {
      std::cerr << "camdeliver-log: --capture-end " << error << "\n";
      return kExitBadInput;
    }
    reader_.setCaptureEnd(end);
  }
  // The frame table still needs every frame; the files are written as frames settle.
  reader_.setWindow(o_.frames ? 0 : o_.window);
  setUpOutputs();
  if (int rc = readLines(); rc >= 0) return rc;
  if (int rc = checkInput(); rc >= 0) return rc;
  if (reader_.binary()) {
    std::cout << reader_.binaryLines() << " line(s) held control bytes and were skipped (the "
              << "first is line " << reader_.firstBinaryLine() << "): not logcat text\n";
  }
  std::vector<logread::Run> runs = reader_.finish();
  printInputNotes();
  const logread::Run* chosen = nullptr;
  for (const logread::Run& run : runs) {
    if ((o_.pid < 0 || run.pid == o_.pid) && (o_.session < 0 || run.session == o_.session)) {
      chosen = &run;
    }
    findings_ = reportRun(run, runs) || findings_;
  }
  if ((o_.pid >= 0 || o_.session >= 0) && !chosen) {
    std::cerr << "camdeliver-log: " << (o_.session >= 0 ? "--session" : "--pid") << ": no "
              << (o_.session >= 0 ? "session " + std::to_string(o_.session) + " of " : "")
              << (o_.pid >= 0 ? "process " + std::to_string(o_.pid) : "any process")
              << " in the log\n";
    return kExitBadInput;
  }
  if (chosen) {
    if (int rc = writeOutputs(*chosen); rc >= 0) return rc;
  }
  if (findings_) return kExitFindings;
  if (nothingRebuilt_) {
    std::cerr << "camdeliver-log: " << inputName_ << ": nothing could be checked: " << whyNothing_
              << "\n";
    return kExitBadInput;
  }
  return 0;
}

// -1 when the input is open, else the exit code.
int Command::openInput() {
  if (o_.inputPath == "-") return -1;
  std::error_code ec;
  if (std::filesystem::is_directory(o_.inputPath, ec)) {
    std::cerr << "camdeliver-log: " << o_.inputPath << ": a directory, not a log file\n";
    return kExitBadInput;
  }
  // A live input is read by descriptor, never blocking past a deadline.
  if (o_.follow) {
    followFd_ = ::open(o_.inputPath.c_str(), O_RDONLY | O_CLOEXEC);
  } else {
    file_.open(o_.inputPath, std::ios::binary);
  }
  if (o_.follow ? followFd_ < 0 : !file_) {
    std::cerr << "camdeliver-log: " << o_.inputPath << ": cannot open\n";
    return kExitBadInput;
  }
  in_ = &file_;
  inputName_ = o_.inputPath;
  return -1;
}

void Command::setUpOutputs() {
  if (!o_.tracePath.empty() || !o_.historyPath.empty()) {
    worker_ = std::make_unique<base::OrderedWorker>();
  }
  if (!o_.tracePath.empty() || !o_.historyPath.empty() || !o_.scenarioPath.empty()) {
    reader_.setListener([this](const logread::Run& run, history::History&& part) {
      SessionOutputs& o = outputsFor(run);
      if (o.trace) o.trace->add(run, part);
      if (o.scenario) o.scenario->add(run, part);
      if (o.history) o.history->add(std::move(part));  // last: it keeps the part
    });
  }
  if (!o_.traceLogs.empty()) {
    logFeed_ = std::make_unique<log::TraceLogFeed>(o_.traceLogs == "all");
  }
}

SessionOutputs& Command::outputsFor(const logread::Run& run) {
  std::unique_ptr<SessionOutputs>& o = outputs_[{run.pid, run.session}];
  if (o) return *o;
  o = std::make_unique<SessionOutputs>();
  std::string suffix = "." + std::to_string(run.pid) + "-" + std::to_string(run.session);
  if (!o_.tracePath.empty()) {
    o->tracePart = o_.tracePath + suffix + ".part";
    o->traceFile.open(o->tracePart, std::ios::binary);
    log::TraceOptions options = traceClock_.options(o_.tracePath, o_.traceYear, o_.utcOffset);
    options.firstStampNs += uint64_t(log::sessionStartNs(reader_, run));  // its first line
    o->trace = std::make_unique<log::TraceWriter>(o->traceFile, run.pid, worker_.get(), options);
  }
  if (!o_.historyPath.empty()) {
    o->history =
        std::make_unique<history::HistoryJsonStream>(o_.historyPath + suffix, worker_.get());
  }
  if (!o_.scenarioPath.empty()) {
    o->scenario = std::make_unique<log::ScenarioWriter>(o_.scenarioPath + suffix);
  }
  return *o;
}

// Reads every line (or follows the live input to its end); -1 to go on, else the exit code.
int Command::readLines() {
  log::TextInput input(*in_);
  if (o_.follow) {
    log::FollowOptions options;
    if (o_.stallMs >= 0) options.stallNs = history::Nanos(o_.stallMs * 1e6);
    follower_ =
        std::make_unique<log::FollowInput>(followFd_, reader_, options, std::cout, std::cerr);
    log::endInputOnInterrupt();
  }
  std::error_code sizeError;
  uint64_t size = o_.inputPath == "-" ? 0 : std::filesystem::file_size(o_.inputPath, sizeError);
  log::Progress progress(std::cerr, !o_.follow && isatty(STDERR_FILENO), sizeError ? 0 : size);
  std::string line;
  while (follower_ ? follower_->next(&line) : input.next(&line)) {
    progress.line(line.size());
    size_t text = line.find_first_not_of(" \t\r");
    if (firstLine_.empty() && text != std::string::npos) firstLine_ = line.substr(text);
    if (!traceClock_.found()) traceClock_.see(line);
    if (logFeed_) logFeed_->before(reader_);
    reader_.addLine(line);
    if (logFeed_) {
      logFeed_->after(reader_, line,
                      [this](const logread::Run& run) { return outputsFor(run).trace.get(); });
    }
  }
  progress.done();
  encoding_ = input.encoding();
  if (follower_ && follower_->error() != 0) {
    std::cerr << "camdeliver-log: " << inputName_
              << ": cannot read: " << std::strerror(follower_->error()) << "\n";
    return kExitBadInput;
  }
  if (follower_ && follower_->interrupted()) {
    std::cerr << "camdeliver-log: interrupted; the report on the lines read so far follows\n";
  }
  // The input's silence before it ended counts as --capture-end +SECONDS would.
  if (follower_ && o_.captureEndText.empty() && follower_->captureEnd()) {
    reader_.setCaptureEnd(*follower_->captureEnd());
  }
  if (encoding_ == log::TextInput::Encoding::Utf16Le ||
      encoding_ == log::TextInput::Encoding::Utf16Be) {
    std::cout << "read as " << log::TextInput::name(encoding_)
              << " (as Windows PowerShell's > writes it)\n";
  }
  return -1;
}

// Input that is not a capture of the deliverer, or that lost what the checks rest on: the
// exit code, else -1.
int Command::checkInput() const {
  if (reader_.totalLines() == 0) {
    std::cerr << "camdeliver-log: " << inputName_ << ": empty, no line to read\n";
    return kExitBadInput;
  }
  if (reader_.binary() && reader_.parsedLines() == 0) {
    std::cerr << "camdeliver-log: " << inputName_ << ": binary data (line "
              << reader_.firstBinaryLine() << " holds control bytes), not a logcat text capture\n";
    return kExitBadInput;
  }
  if (reader_.libraryLines() == 0) {
    std::cerr << "camdeliver-log: " << inputName_ << ": none of its " << reader_.totalLines()
              << " lines is a line of the deliverer (tags OrvCam/CamDeliver, "
                 "OrvCam/CamDeliverGuard, OrvCam/FrameContextPool, OrvCam/LicenseQueue); ";
    if (reader_.firstLayout() != logread::Layout::Unknown) {
      std::cerr << "its lines look like logcat's " << logread::layoutName(reader_.firstLayout())
                << " layout of other tags\n";
    } else if (firstLine_.find('{') == 0 || firstLine_.find('[') == 0) {
      std::cerr << "its first line looks like JSON (a scenario or history? camdeliver-sim "
                   "reads those), not a logcat capture\n";
    } else {
      std::cerr << "its first line looks like no adb logcat -v layout: \""
                << firstLine_.substr(0, 80) << "\"\n";
    }
    return kExitBadInput;
  }
  if (reader_.sortedLineByLine()) {
    std::cerr << "camdeliver-log: " << inputName_ << ": sorted line by line: all "
              << reader_.sameStampAscending()
              << " pairs of neighbouring lines with one time stamp are in text order, which a "
                 "capture never puts them in. The order of events within a time stamp, which "
                 "the checks rest on, is lost; read the capture as it came, or merge captures "
                 "with a stable sort on the time stamp only (sort -s -k1,2)\n";
    return kExitBadInput;
  }
  return -1;
}

// What the reading did to the capture's time line and lines.
void Command::printInputNotes() const {
  const logread::LogClock& clock = reader_.clock();
  if (clock.outOfOrder() > 0) {
    std::cout << clock.outOfOrder()
              << " time stamp(s) were earlier than the line before (merged buffers); held at "
                 "the previous one\n";
  }
  if (reader_.repeats().skipped() > 0) {
    std::cout << reader_.repeats().skipped() << " line(s) in " << reader_.repeats().stretches()
              << " stretch(es) repeated lines read before, stamps and all (captures joined with "
                 "an overlap): read once\n";
  }
  for (const logread::ClockStep& step : clock.steps()) {
    std::cout << "the clock jumped " << (step.stepNs < 0 ? "back " : "forward ")
              << double(step.stepNs < 0 ? -step.stepNs : step.stepNs) / 1e9 << " s at line "
              << step.line << ": the timeline goes on from the line before\n";
  }
}

// One session's report; true when it has findings.
bool Command::reportRun(const logread::Run& run, const std::vector<logread::Run>& runs) {
  bool several = run.session > 1 || !run.boundary.empty() ||
                 std::any_of(runs.begin(), runs.end(), [&](const logread::Run& other) {
                   return other.pid == run.pid && other.session > 1;
                 });
  std::cout << "process " << run.pid;
  if (several) std::cout << " session " << run.session;
  std::cout << ": " << run.lines << " lines of the deliverer (" << logread::layoutName(run.layout)
            << " layout" << (run.verboseLines ? ", verbose lines present" : "") << ")\n";
  if (!run.boundary.empty()) std::cout << "  a new deliverer: " << run.boundary << "\n";
  if (run.ambiguousLines) {
    std::cout << "  " << run.ambiguousLines
              << " line(s) named frames the session before still held: ambiguous, counted "
                 "here\n";
  }
  if (run.lateLines) {
    std::cout << "  " << run.lateLines
              << " line(s) after the next session began named frames only this one held\n";
  }
  log::AnalysisOptions options;
  options.strict = o_.strict;
  if (o_.stallMs >= 0) options.stallNs = history::Nanos(o_.stallMs * 1e6);
  log::Analysis analysis = log::analyse(run, options);
  if (analysis.debugMissing) {
    whyNothing_ = log::whyNothingToRebuild(run);
    std::cout << "  nothing to rebuild: " << whyNothing_ << "\n\n";
  } else {
    nothingRebuilt_ = false;
    std::cout << "\n";
    log::printSummary(std::cout, run);
    std::cout << "\n";
    if (o_.frames) {
      log::printFrames(std::cout, run);
      std::cout << "\n";
    }
    std::cout << "verdict: " << (analysis.failed() ? "FAIL" : "PASS") << " - "
              << analysis.check.jobsChecked << " jobs checked for order, sync, raw switch, FD "
              << "and delivery\n";
  }
  if (run.unpreparedJobs && !analysis.debugMissing) {
    std::cout << run.unpreparedJobs
              << " job(s) of frames prepared before the log begins were left out\n";
  }
  if (run.lostLines) {
    std::cout << run.lostLines
              << " line(s) are missing that later lines prove were written (the first: "
              << run.firstLost
              << "); logd drops lines when it is overloaded. Their jobs count as run; what "
                 "rests on their start (order, sync, raw switch, FD, wait) is not checked\n";
  }
  if (run.truncated) {
    std::cout << run.truncated
              << " line(s) were cut at the logger's 1023 bytes; their lists are partial\n";
  }
  log::printAnalysis(std::cout, analysis);
  std::cout << "\n";
  return analysis.failed();
}

// The chosen session's files become the outputs; -1, or the exit code when one fails.
int Command::writeOutputs(const logread::Run& chosen) {
  SessionOutputs& o = outputsFor(chosen);
  auto wrote = [](const std::string& option, const std::string& path, bool ok) {
    if (!ok) {
      std::cerr << "camdeliver-log: " << option << ": cannot write " << path << "\n";
      return false;
    }
    std::cout << "wrote " << path << " (" << option << ")\n";
    return true;
  };
  if (o.trace) {
    if (logFeed_ && !o.trace->takesLogLines()) {
      std::cerr << "camdeliver-log: --trace-logs: the capture's stamps have no date on the "
                   "wall clock, which log events are stamped on; none written\n";
    }
    o.trace->finish(chosen);
    o.traceFile.close();
    bool ok = !o.traceFile.fail() && std::rename(o.tracePart.c_str(), o_.tracePath.c_str()) == 0;
    if (!wrote("--trace", o_.tracePath, ok)) return kExitBadInput;
  }
  if (o.history) {
    o.history->add(logread::unsettledPart(chosen));
    if (!wrote("--history", o_.historyPath, o.history->finish(chosen.history, o_.historyPath))) {
      return kExitBadInput;
    }
  }
  if (o.scenario) {
    std::ofstream out(o_.scenarioPath, std::ios::binary);
    bool ok = out && o.scenario->finish(chosen, out);
    out.close();
    if (!wrote("--scenario", o_.scenarioPath, ok && !out.fail())) return kExitBadInput;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (int rc = parseOptions(argc, argv, &options); rc >= 0) return rc;
  return Command(options).run();
}
