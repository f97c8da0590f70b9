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

#include "Follow.h"
#include "LogReader.h"
#include "LogReport.h"
#include "PerfettoProto.h"
#include "Report.h"
#include "TextInput.h"

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
  std::unique_ptr<logread::TraceWriter> trace;
  std::unique_ptr<sim::HistoryJsonStream> history;
  std::unique_ptr<logread::ScenarioWriter> scenario;
  ~SessionOutputs() {
    trace.reset();
    if (traceFile.is_open()) traceFile.close();
    if (!tracePart.empty()) std::remove(tracePart.c_str());
  }
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "camdeliver-log: reads a logcat capture (threadtime, time or brief layout, or a "
      "bugreport), rebuilds the deliverer's frames per sensor, checks their order and explains "
      "blocked sends, fatal assertions and warnings."};
  std::string inputPath = "-";
  std::string tracePath, historyPath, scenarioPath;
  bool frames = false;
  int pid = -1;
  int session = -1;
  double stallMs = -1;
  bool strict = false;
  size_t window = logread::LogReader::kDefaultWindow;
  app.add_option("log", inputPath, "Log file (default or \"-\": standard input)");
  app.add_flag("--frames", frames, "Also print a table of every (frame, sensor)");
  app.add_option("--trace", tracePath,
                 "Write a trace rebuilt from the log: Perfetto's protobuf format for a name "
                 "ending in .pftrace, .perfetto-trace or .pb (its times tied to the capture's "
                 "clock), gzip'd Chrome JSON for .json.gz, else Chrome JSON");
  std::string traceLogs;
  app.add_flag("--trace-logs{deliverer}", traceLogs,
               "Put the deliverer's log lines into a .pftrace --trace as Android log events, "
               "shown beside the frames in Perfetto's log panel (needs stamps with a date); "
               "--trace-logs=all: every line of the process");
  int traceYear = 0, utcOffset = 0;
  app.add_option("--trace-year", traceYear,
                 "Year of the capture's stamps when its layout has none (default: this year)");
  app.add_option("--utc-offset", utcOffset,
                 "The device's offset from UTC in minutes, for a .pftrace's wall clock (the "
                 "stamps are its local time; default 0)");
  app.add_option("--history", historyPath,
                 "Write the rebuilt history (camdeliver-sim --check reads it)");
  app.add_option("--scenario", scenarioPath,
                 "Write a camdeliver-sim scenario that replays the log's frames");
  app.add_option("--pid", pid,
                 "Process whose run the --trace, --history and --scenario files describe "
                 "(default: the last one in the log)");
  app.add_option("--session", session,
                 "Session (1 for a process's first deliverer in the log, 2 for the one built "
                 "after it, ...) whose run --trace, --history and --scenario describe "
                 "(default: the last one of the process)")
      ->check(CLI::PositiveNumber);
  app.add_option("--stall-ms", stallMs,
                 "A send still waiting at the end of the capture is a stall once it has waited "
                 "this long (default: derived from the log, at least 500 ms)")
      ->check(CLI::NonNegativeNumber);
  std::string captureEndText;
  app.add_option("--capture-end", captureEndText,
                 "When the capture ended, if later than its last line (a process that hung "
                 "stops logging): a time stamp in the log's own layout, or +SECONDS after the "
                 "last line. Sends still waiting count their wait up to it.");
  app.add_flag("--strict", strict,
               "Warnings that are not benign fail the run too (exit 1), even those a legal "
               "client call order explains");
  app.add_option("--window", window,
                 "Frames a session holds before the oldest settled ones are checked, counted and "
                 "let go (0: keep every frame to the end); the result does not depend on it")
      ->capture_default_str();
  bool follow = false;
  app.add_flag("--follow", follow,
               "Read a live capture (adb logcat -v threadtime | camdeliver-log --follow -): a "
               "send waiting past the stall threshold and a fatal assertion are reported as "
               "soon as they show, with a status line on stderr every 5 s; the usual report "
               "follows at the end of the input (or the first Ctrl-C)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kExitBadInput;
  }

  if (!traceLogs.empty() && traceLogs != "deliverer" && traceLogs != "all") {
    std::cerr << "camdeliver-log: --trace-logs takes no value or \"all\", not \"" << traceLogs
              << "\"\n";
    return kExitBadInput;
  }
  if (!traceLogs.empty() && !pftrace::isPerfettoPath(tracePath)) {
    std::cerr << "camdeliver-log: --trace-logs needs a Perfetto trace: --trace FILE.pftrace\n";
    return kExitBadInput;
  }

  std::ifstream file;
  std::istream* in = &std::cin;
  std::string inputName = "standard input";
  int followFd = STDIN_FILENO;
  if (inputPath != "-") {
    std::error_code ec;
    if (std::filesystem::is_directory(inputPath, ec)) {
      std::cerr << "camdeliver-log: " << inputPath << ": a directory, not a log file\n";
      return kExitBadInput;
    }
    // A live input is read by descriptor, never blocking past a deadline.
    if (follow) {
      followFd = ::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC);
    } else {
      file.open(inputPath, std::ios::binary);
    }
    if (follow ? followFd < 0 : !file) {
      std::cerr << "camdeliver-log: " << inputPath << ": cannot open\n";
      return kExitBadInput;
    }
    in = &file;
    inputName = inputPath;
  }
  logread::LogReader reader;
  if (!captureEndText.empty()) {
    logread::CaptureEnd end;
    std::string error;
    if (!logread::parseCaptureEnd(captureEndText, &end, &error)) {
      std::cerr << "camdeliver-log: --capture-end " << error << "\n";
      return kExitBadInput;
    }
    reader.setCaptureEnd(end);
  }
  // The frame table still needs every frame; the files are written as frames settle.
  reader.setWindow(frames ? 0 : window);
  // Formats and writes the trace and history on a second thread while the reader goes on;
  // it outlives the writers, which drain it when they finish or go.
  std::unique_ptr<OrderedWorker> worker;
  if (!tracePath.empty() || !historyPath.empty()) worker = std::make_unique<OrderedWorker>();
  logread::TraceClock traceClock;  // the first stamp, for a Perfetto trace's clock
  std::map<std::pair<int, int>, std::unique_ptr<SessionOutputs>> outputs;
  auto outputsFor = [&](const logread::Run& run) -> SessionOutputs& {
    std::unique_ptr<SessionOutputs>& o = outputs[{run.pid, run.session}];
    if (o) return *o;
    o = std::make_unique<SessionOutputs>();
    std::string suffix = "." + std::to_string(run.pid) + "-" + std::to_string(run.session);
    if (!tracePath.empty()) {
      o->tracePart = tracePath + suffix + ".part";
      o->traceFile.open(o->tracePart, std::ios::binary);
      logread::TraceOptions options = traceClock.options(tracePath, traceYear, utcOffset);
      options.firstStampNs += uint64_t(logread::sessionStartNs(reader, run));  // its first line
      o->trace =
          std::make_unique<logread::TraceWriter>(o->traceFile, run.pid, worker.get(), options);
    }
    if (!historyPath.empty()) {
      o->history = std::make_unique<sim::HistoryJsonStream>(historyPath + suffix, worker.get());
    }
    if (!scenarioPath.empty()) {
      o->scenario = std::make_unique<logread::ScenarioWriter>(scenarioPath + suffix);
    }
    return *o;
  };
  if (!tracePath.empty() || !historyPath.empty() || !scenarioPath.empty()) {
    reader.setListener([&](const logread::Run& run, sim::History&& part) {
      SessionOutputs& o = outputsFor(run);
      if (o.trace) o.trace->add(run, part);
      if (o.scenario) o.scenario->add(run, part);
      if (o.history) o.history->add(std::move(part));  // last: it keeps the part
    });
  }
  std::string line;
  std::string firstLine;
  logread::TextInput input(*in);
  std::unique_ptr<logread::FollowInput> follower;
  if (follow) {
    logread::FollowOptions options;
    if (stallMs >= 0) options.stallNs = sim::Nanos(stallMs * 1e6);
    follower =
        std::make_unique<logread::FollowInput>(followFd, reader, options, std::cout, std::cerr);
    logread::endInputOnInterrupt();
  }
  // --trace-logs: each line read goes to its session's trace too.
  std::unique_ptr<logread::TraceLogFeed> logFeed;
  if (!traceLogs.empty()) logFeed = std::make_unique<logread::TraceLogFeed>(traceLogs == "all");
  std::error_code sizeError;
  uint64_t size = inputPath == "-" ? 0 : std::filesystem::file_size(inputPath, sizeError);
  logread::Progress progress(std::cerr, !follow && isatty(STDERR_FILENO), sizeError ? 0 : size);
  while (follower ? follower->next(&line) : input.next(&line)) {
    progress.line(line.size());
    size_t text = line.find_first_not_of(" \t\r");
    if (firstLine.empty() && text != std::string::npos) firstLine = line.substr(text);
    if (!traceClock.found()) traceClock.see(line);
    if (logFeed) logFeed->before(reader);
    reader.addLine(line);
    if (logFeed) {
      logFeed->after(reader, line,
                     [&](const logread::Run& run) { return outputsFor(run).trace.get(); });
    }
  }
  progress.done();
  if (follower && follower->error() != 0) {
    std::cerr << "camdeliver-log: " << inputName
              << ": cannot read: " << std::strerror(follower->error()) << "\n";
    return kExitBadInput;
  }
  if (follower && follower->interrupted()) {
    std::cerr << "camdeliver-log: interrupted; the report on the lines read so far follows\n";
  }
  // The input's silence before it ended counts as --capture-end +SECONDS would.
  if (follower && captureEndText.empty() && follower->captureEnd()) {
    reader.setCaptureEnd(*follower->captureEnd());
  }
  if (input.encoding() == logread::TextInput::Encoding::Utf16Le ||
      input.encoding() == logread::TextInput::Encoding::Utf16Be) {
    std::cout << "read as " << logread::TextInput::name(input.encoding())
              << " (as Windows PowerShell's > writes it)\n";
  }
  if (reader.totalLines() == 0) {
    std::cerr << "camdeliver-log: " << inputName << ": empty, no line to read\n";
    return kExitBadInput;
  }
  if (reader.binary() && reader.parsedLines() == 0) {
    std::cerr << "camdeliver-log: " << inputName << ": binary data (line "
              << reader.firstBinaryLine() << " holds control bytes), not a logcat text capture\n";
    return kExitBadInput;
  }
  if (reader.libraryLines() == 0) {
    std::cerr << "camdeliver-log: " << inputName << ": none of its " << reader.totalLines()
              << " lines is a line of the deliverer (tags OrvCam/CamDeliver, "
                 "OrvCam/CamDeliverGuard, OrvCam/FrameContextPool, OrvCam/LicenseQueue); ";
    if (reader.firstLayout() != logread::Layout::Unknown) {
      std::cerr << "its lines look like logcat's " << logread::layoutName(reader.firstLayout())
                << " layout of other tags\n";
    } else if (firstLine.find('{') == 0 || firstLine.find('[') == 0) {
      std::cerr << "its first line looks like JSON (a scenario or history? camdeliver-sim "
                   "reads those), not a logcat capture\n";
    } else {
      std::cerr << "its first line looks like no adb logcat -v layout: \""
                << firstLine.substr(0, 80) << "\"\n";
    }
    return kExitBadInput;
  }
  if (reader.sortedLineByLine()) {
    std::cerr << "camdeliver-log: " << inputName << ": sorted line by line: all "
              << reader.sameStampAscending()
              << " pairs of neighbouring lines with one time stamp are in text order, which a "
                 "capture never puts them in. The order of events within a time stamp, which "
                 "the checks rest on, is lost; read the capture as it came, or merge captures "
                 "with a stable sort on the time stamp only (sort -s -k1,2)\n";
    return kExitBadInput;
  }
  if (reader.binary()) {
    std::cout << reader.binaryLines() << " line(s) held control bytes and were skipped (the first "
              << "is line " << reader.firstBinaryLine() << "): not logcat text\n";
  }
  std::vector<logread::Run> runs = reader.finish();
  const logread::LogClock& clock = reader.clock();
  if (clock.outOfOrder() > 0) {
    std::cout << clock.outOfOrder()
              << " time stamp(s) were earlier than the line before (merged buffers); held at "
                 "the previous one\n";
  }
  if (reader.repeats().skipped() > 0) {
    std::cout << reader.repeats().skipped() << " line(s) in " << reader.repeats().stretches()
              << " stretch(es) repeated lines read before, stamps and all (captures joined with "
                 "an overlap): read once\n";
  }
  for (const logread::ClockStep& step : clock.steps()) {
    std::cout << "the clock jumped " << (step.stepNs < 0 ? "back " : "forward ")
              << double(step.stepNs < 0 ? -step.stepNs : step.stepNs) / 1e9 << " s at line "
              << step.line << ": the timeline goes on from the line before\n";
  }

  bool findings = false;
  bool nothingRebuilt = true;
  std::string whyNothing;
  const logread::Run* chosen = nullptr;
  for (const logread::Run& run : runs) {
    if ((pid < 0 || run.pid == pid) && (session < 0 || run.session == session)) chosen = &run;
    bool several = run.session > 1 || !run.boundary.empty() ||
                   std::any_of(runs.begin(), runs.end(), [&](const logread::Run& o) {
                     return o.pid == run.pid && o.session > 1;
                   });
    std::cout << "process " << run.pid;
    if (several) std::cout << " session " << run.session;
    std::cout << ": " << run.lines << " lines of the deliverer (" << logread::layoutName(run.layout)
              << " layout" << (run.verboseLines ? ", verbose lines present" : "") << ")\n";
    if (!run.boundary.empty()) {
      std::cout << "  a new deliverer: " << run.boundary << "\n";
    }
    if (run.ambiguousLines) {
      std::cout << "  " << run.ambiguousLines
                << " line(s) named frames the session before still held: ambiguous, counted "
                   "here\n";
    }
    if (run.lateLines) {
      std::cout << "  " << run.lateLines
                << " line(s) after the next session began named frames only this one held\n";
    }
    logread::AnalysisOptions options;
    options.strict = strict;
    if (stallMs >= 0) options.stallNs = sim::Nanos(stallMs * 1e6);
    logread::Analysis analysis = logread::analyse(run, options);
    if (analysis.debugMissing) {
      std::cout << "  nothing to rebuild: " << logread::whyNothingToRebuild(run) << "\n\n";
      whyNothing = logread::whyNothingToRebuild(run);
    } else {
      nothingRebuilt = false;
      std::cout << "\n";
      logread::printSummary(std::cout, run);
      std::cout << "\n";
      if (frames) {
        logread::printFrames(std::cout, run);
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
    logread::printAnalysis(std::cout, analysis);
    std::cout << "\n";
    findings = findings || analysis.failed();
  }
  if ((pid >= 0 || session >= 0) && !chosen) {
    std::cerr << "camdeliver-log: " << (session >= 0 ? "--session" : "--pid") << ": no "
              << (session >= 0 ? "session " + std::to_string(session) + " of " : "")
              << (pid >= 0 ? "process " + std::to_string(pid) : "any process") << " in the log\n";
    return kExitBadInput;
  }
  if (chosen) {
    SessionOutputs& o = outputsFor(*chosen);
    auto wrote = [](const std::string& option, const std::string& path, bool ok) {
      if (!ok) {
        std::cerr << "camdeliver-log: " << option << ": cannot write " << path << "\n";
        return false;
      }
      std::cout << "wrote " << path << " (" << option << ")\n";
      return true;
    };
    if (o.trace) {
      if (logFeed && !o.trace->takesLogLines()) {
        std::cerr << "camdeliver-log: --trace-logs: the capture's stamps have no date on the "
                     "wall clock, which log events are stamped on; none written\n";
      }
      o.trace->finish(*chosen);
      o.traceFile.close();
      bool ok = !o.traceFile.fail() && std::rename(o.tracePart.c_str(), tracePath.c_str()) == 0;
      if (!wrote("--trace", tracePath, ok)) return kExitBadInput;
    }
    if (o.history) {
      o.history->add(logread::unsettledPart(*chosen));
      if (!wrote("--history", historyPath, o.history->finish(chosen->history, historyPath))) {
        return kExitBadInput;
      }
    }
    if (o.scenario) {
      std::ofstream out(scenarioPath, std::ios::binary);
      bool ok = out && o.scenario->finish(*chosen, out);
      out.close();
      if (!wrote("--scenario", scenarioPath, ok && !out.fail())) return kExitBadInput;
    }
  }
  if (findings) return kExitFindings;
  if (nothingRebuilt) {
    std::cerr << "camdeliver-log: " << inputName << ": nothing could be checked: " << whyNothing
              << "\n";
    return kExitBadInput;
  }
  return 0;
}
