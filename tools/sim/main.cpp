// camdeliver-sim: runs a scenario through the deliverer on this machine, checks the order it
// delivered in and prints a summary. Exit code 0: clean; 1: violations (or a stalled run);
// 2: bad command line or scenario.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "HostPlatform.h"
#include "check/Checker.h"
#include "client/Scenario.h"
#include "history/HistoryJson.h"
#include "report/Report.h"
#include "sim/RandomRuns.h"
#include "sim/Runner.h"

namespace {

using namespace orvcam;

constexpr int kExitViolations = 1;
constexpr int kExitUsage = 2;
constexpr uint64_t kCameraTraceTag = 0x400;
const char* const kForceLogProperty = "vendor.debug.camcoordinator.force.log";
// The logger's detail level from which the deliverer writes its debug lines.
constexpr int kDebugDetailsLevel = 5;

// The host logger's detail level for a --log-level value.
bool parseLogLevel(const std::string& text, int* level, bool* verbose) {
  static const std::pair<const char*, int> names[] = {{"off", 0},
                                                      {"error", 1},
                                                      {"warning", 2},
                                                      {"info", 4},
                                                      {"debug", kDebugDetailsLevel},
                                                      {"verbose", kDebugDetailsLevel}};
  *verbose = text == "verbose";
  for (const auto& n : names) {
    if (text == n.first) {
      *level = n.second;
      return true;
    }
  }
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  if (text.empty() || *end != '\0' || value < 0 || value > 7) return false;
  *level = int(value);
  return true;
}

// The command line.
struct Options {
  std::string scenarioPath;
  std::string logLevel;
  std::vector<std::string> props;
  std::string tracePath;
  std::string historyPath;
  std::string checkPath;
  uint64_t seed = 0;
  bool seedGiven = false;
  int stallSeconds = 10;
  uint64_t randomCount = 0;
  bool random = false;
  uint32_t maxSensors = 6;
  std::string keepDir;
};

// Fills `o` from the command line; -1 to go on, else the exit code.
int parseOptions(int argc, char** argv, Options* o) {
  CLI::App app{
      "camdeliver-sim: plays a camera coordinator around liborvcam_camdeliver, checks the order "
      "in which it delivers jobs and prints a summary. Without a scenario file it runs the "
      "built-in default scenario (scenarios/default.json)."};
  auto* randomOption = app.add_option(
      "--random", o->randomCount,
      "Run N generated scenarios (each in a child process), check each and print counts by "
      "outcome; --seed picks the batch");
  app.add_option("--max-sensors", o->maxSensors,
                 "With --random: at most K sensors (1-6, default 6)")
      ->check(CLI::Range(1, 6));
  app.add_option("--keep", o->keepDir,
                 "With --random: write every failing scenario, its output and its shrunk form "
                 "to DIR");
  app.add_option("scenario", o->scenarioPath,
                 "Scenario JSON file (default: the built-in scenario)");
  app.add_option("--log-level", o->logLevel,
                 "Host logger level: off, error, warning, info, debug, verbose (debug plus the "
                 "library's force-log property) or 0-7 (default: error)");
  app.add_option("--prop", o->props,
                 "Set a system property before the run, as key=value (repeatable)");
  app.add_option("--trace", o->tracePath,
                 "Write a trace to open in Perfetto UI: Perfetto's protobuf format for a name "
                 "ending in .pftrace, .perfetto-trace or .pb, gzip'd Chrome JSON for .json.gz, "
                 "else Chrome JSON");
  app.add_option("--history", o->historyPath, "Write everything the run recorded as JSON");
  app.add_option("--check", o->checkPath,
                 "Run nothing: check a history saved with --history (or by camdeliver-log) "
                 "and print its summary");
  auto* seedOption =
      app.add_option("--seed", o->seed, "Seed of the job durations (default: the scenario's)");
  app.add_option("--stall-timeout", o->stallSeconds,
                 "Seconds without progress before the run is "
                 "declared stuck (default 10)")
      ->check(CLI::Range(1, 3600));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kExitUsage;
  }
  o->random = bool(*randomOption);
  o->seedGiven = bool(*seedOption);
  return -1;
}

int runRandom(const Options& o) {
  if (!o.scenarioPath.empty()) {
    std::cerr << "camdeliver-sim: --random generates its scenarios; do not give a file\n";
    return kExitUsage;
  }
  if (o.logLevel.empty() && !std::getenv("ORVCAM_ULOG_LEVEL")) {
    host::LoggerSettings settings = host::loggerSettings();
    settings.detailsLevel = 1;
    host::applyLoggerSettings(settings);
  }
  sim::RandomRunOptions random;
  random.count = o.randomCount;
  random.seed = o.seedGiven ? o.seed : 1;
  random.maxSensors = o.maxSensors;
  random.keepDir = o.keepDir;
  random.stallSeconds = o.stallSeconds;
  return sim::runRandomScenarios(random);
}

int checkSaved(const Options& o) {
  history::History saved;
  std::string readError;
  if (!history::readHistoryFile(o.checkPath, &saved, &readError)) {
    std::cerr << "camdeliver-sim: --check: " << readError << "\n";
    return kExitUsage;
  }
  check::CheckResult savedCheck = check::checkHistory(saved);
  report::printReport(std::cout, saved, savedCheck);
  return savedCheck.clean() ? 0 : kExitViolations;
}

// The logger, the properties and the trace file, before any thread starts; -1 to go on,
// else the exit code.
int setUpPlatform(const Options& o) {
  int level = 1;
  bool verbose = false;
  if (!o.logLevel.empty() && !parseLogLevel(o.logLevel, &level, &verbose)) {
    std::cerr << "camdeliver-sim: --log-level: \"" << o.logLevel << "\" is not a level\n";
    return kExitUsage;
  }
  if (!o.logLevel.empty() || !std::getenv("ORVCAM_ULOG_LEVEL")) {
    host::LoggerSettings settings = host::loggerSettings();
    settings.detailsLevel = level;
    host::applyLoggerSettings(settings);
  }
  // A simulated frame's calls fit in a millisecond: debug logs are stamped to the
  // microsecond so that camdeliver-log can measure their waits (ORVCAM_LOG_USEC=0 keeps
  // milliseconds).
  if (level >= kDebugDetailsLevel && !std::getenv("ORVCAM_LOG_USEC")) {
    host::setLogMicroseconds(true);
  }
  if (verbose) host::setProperty(kForceLogProperty, "1");
  for (const std::string& prop : o.props) {
    size_t eq = prop.find('=');
    if (eq == std::string::npos || eq == 0) {
      std::cerr << "camdeliver-sim: --prop: \"" << prop << "\" is not key=value\n";
      return kExitUsage;
    }
    host::setProperty(prop.substr(0, eq), prop.substr(eq + 1));
  }
  if (!o.tracePath.empty()) {
    std::string traceError;
    if (!host::openTraceFile(o.tracePath, &traceError)) {
      std::cerr << "camdeliver-sim: --trace: " << traceError << "\n";
      return kExitUsage;
    }
    host::setTraceTags(kCameraTraceTag);
    host::traceThreadName("main");
  }
  return -1;
}

// One scenario run on real threads, checked and reported.
int runScenario(const Options& o) {
  // Everything is checked before any thread starts.
  client::Scenario scenario;
  client::ScenarioError error;
  bool loaded = o.scenarioPath.empty()
                    ? client::loadDefaultScenario(&scenario, &error)
                    : client::loadScenarioFile(o.scenarioPath, &scenario, &error);
  if (!loaded) {
    std::cerr << "camdeliver-sim: invalid scenario: " << error.text() << "\n";
    return kExitUsage;
  }
  if (o.seedGiven) scenario.seed = o.seed;
  if (int rc = setUpPlatform(o); rc >= 0) return rc;

  sim::RunOptions options;
  options.seed = scenario.seed;
  options.trace = !o.tracePath.empty();
  options.stallTimeout = std::chrono::seconds(o.stallSeconds);
  bool progressLine = isatty(STDERR_FILENO);
  if (progressLine) {
    options.onProgress = [](const sim::RunProgress& p) {
      std::fprintf(stderr, "\r\033[Kframes %u/%u emplaced, %u done, %llu jobs", p.framesEmplaced,
                   p.framesTotal, p.framesDone, static_cast<unsigned long long>(p.jobsRun));
      std::fflush(stderr);
    };
  }
  history::History history;
  std::string stall;
  sim::Runner runner(scenario, options);
  bool finished = runner.run(&history, &stall);
  if (progressLine) std::fprintf(stderr, "\r\033[K");
  if (!o.tracePath.empty()) host::closeTraceFile();
  if (!finished) {
    std::cout << "camdeliver-sim: " << stall << "verdict: FAIL - the run stalled\n";
    std::cout.flush();
    std::_Exit(kExitViolations);
  }
  check::CheckResult check = check::checkHistory(history);
  history.scenario += " (" + scenario.source + ")";
  report::printReport(std::cout, history, check);
  if (!o.tracePath.empty()) std::cout << "trace written to " << o.tracePath << "\n";
  if (!o.historyPath.empty()) {
    std::ofstream out(o.historyPath);
    history::writeHistoryJson(out, history);
    if (!out) {
      std::cerr << "camdeliver-sim: --history: cannot write " << o.historyPath << "\n";
      return kExitUsage;
    }
  }
  return check.clean() ? 0 : kExitViolations;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (int rc = parseOptions(argc, argv, &options); rc >= 0) return rc;
  if (options.random) return runRandom(options);
  if (!options.checkPath.empty()) return checkSaved(options);
  return runScenario(options);
}
