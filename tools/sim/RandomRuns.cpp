#include "sim/RandomRuns.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "check/Checker.h"
#include "client/RandomScenario.h"
#include "report/Report.h"
#include "sim/Runner.h"

namespace orvcam {
namespace sim {

using namespace client;
using namespace check;
using namespace history;
using namespace report;

namespace {

enum class Outcome { Pass, Violation, Stall, Crash };
constexpr int kChildViolation = 1;
constexpr int kChildStall = 3;

const char* outcomeName(Outcome o) {
  switch (o) {
    case Outcome::Pass: return "pass";
    case Outcome::Violation: return "violation";
    case Outcome::Stall: return "stall";
    case Outcome::Crash: return "crash";
  }
  return "?";
}

// In the child: runs, checks, and reports through the exit code; the report goes to stdout.
[[noreturn]] void childRun(const Scenario& scenario, int stallSeconds) {
  RunOptions options;
  options.seed = scenario.seed;
  options.stallTimeout = std::chrono::seconds(stallSeconds);
  Runner runner(scenario, options);
  History history;
  std::string stall;
  if (!runner.run(&history, &stall)) {
    std::cout << stall << "verdict: FAIL - the run stalled\n";
    std::cout.flush();
    std::_Exit(kChildStall);
  }
  CheckResult check = checkHistory(history);
  printReport(std::cout, history, check);
  // The simulator's own client never breaks the protocol: a client finding (in the report)
  // is a fault of the simulator, and fails the scenario like a violation.
  std::cout.flush();
  // A normal exit, so that a sanitizer that found something can still change the exit code.
  std::exit(check.clean() ? 0 : kChildViolation);
}

// Runs the scenario in a child process; its output (report, library log) goes to `outPath`.
Outcome runIsolated(const Scenario& scenario, int stallSeconds, const std::string& outPath,
                    std::string* detail) {
  std::cout.flush();
  std::cerr.flush();
  pid_t pid = fork();
  if (pid < 0) {
    *detail = std::string("fork failed: ") + std::strerror(errno);
    return Outcome::Crash;
  }
  if (pid == 0) {
    int fd = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      dup2(fd, STDOUT_FILENO);
      dup2(fd, STDERR_FILENO);
      close(fd);
    }
    childRun(scenario, stallSeconds);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    *detail = std::string("killed by signal ") + strsignal(WTERMSIG(status));
    return Outcome::Crash;
  }
  int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (code == 0) return Outcome::Pass;
  if (code == kChildStall) return Outcome::Stall;
  if (code == kChildViolation) return Outcome::Violation;
  *detail = "exited with code " + std::to_string(code);
  return Outcome::Crash;
}

std::string lastLines(const std::string& path, size_t n) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  std::string out;
  for (size_t i = lines.size() > n ? lines.size() - n : 0; i < lines.size(); ++i) {
    out += "    " + lines[i] + "\n";
  }
  return out;
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text << "\n";
}

void copyFile(const std::string& from, const std::string& to) {
  std::ifstream in(from, std::ios::binary);
  std::ofstream out(to, std::ios::binary);
  out << in.rdbuf();
}

// Shrinks a failing scenario: takes the first simpler variant that still fails (in any of a
// few runs, since failures can depend on timing) until none does or the budget is spent.
Scenario shrink(const Scenario& failing, int stallSeconds, const std::string& scratch,
                size_t* runs) {
  constexpr size_t kBudget = 200;
  constexpr int kTries = 3;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(3);
  Scenario best = failing;
  bool progress = true;
  while (progress && *runs < kBudget && std::chrono::steady_clock::now() < deadline) {
    progress = false;
    for (const Scenario& candidate : shrinkCandidates(best)) {
      bool fails = false;
      for (int t = 0; t < kTries && !fails && *runs < kBudget; ++t) {
        std::string detail;
        ++*runs;
        fails = runIsolated(candidate, stallSeconds, scratch, &detail) != Outcome::Pass;
      }
      if (fails) {
        best = candidate;
        progress = true;
        break;
      }
      if (*runs >= kBudget) break;
    }
  }
  return best;
}

}  // namespace

int runRandomScenarios(const RandomRunOptions& options) {
  RandomLimits limits;
  limits.maxSensors = options.maxSensors;
  if (!options.keepDir.empty()) mkdir(options.keepDir.c_str(), 0755);
  char scratchTemplate[] = "/tmp/camdeliver-sim-XXXXXX";
  int scratchFd = mkstemp(scratchTemplate);
  if (scratchFd < 0) {
    std::cerr << "camdeliver-sim: cannot create a scratch file in /tmp\n";
    return 2;
  }
  close(scratchFd);
  std::string scratch = scratchTemplate;

  uint64_t counts[4] = {0, 0, 0, 0};
  auto started = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < options.count; ++i) {
    Scenario scenario = randomScenario(options.seed, i, limits);
    std::string detail;
    Outcome outcome = runIsolated(scenario, options.stallSeconds, scratch, &detail);
    ++counts[int(outcome)];
    if (outcome == Outcome::Pass) continue;
    std::string label = "seed " + std::to_string(options.seed) + " scenario " + std::to_string(i);
    std::cout << label << ": " << outcomeName(outcome)
              << (detail.empty() ? "" : " (" + detail + ")") << "\n"
              << lastLines(scratch, 6);
    if (options.keepDir.empty()) continue;
    std::string base =
        options.keepDir + "/seed" + std::to_string(options.seed) + "-" + std::to_string(i);
    writeFile(base + ".json", scenarioToJson(scenario));
    copyFile(scratch, base + ".log");
    size_t runs = 0;
    Scenario smallest = shrink(scenario, options.stallSeconds, scratch, &runs);
    smallest.description = "shrunk from " + label + " (" + outcomeName(outcome) + ")";
    writeFile(base + ".min.json", scenarioToJson(smallest));
    std::cout << "  kept " << base << ".json, shrunk in " << runs << " runs to " << base
              << ".min.json (" << smallest.frames << " frames, " << smallest.sensors.size()
              << " sensors, " << smallest.events.size() << " events)\n";
  }
  unlink(scratch.c_str());
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::printf(
      "random: %llu scenarios from seed %llu in %.1f s: %llu pass, %llu violation, %llu "
      "stall, %llu crash\n",
      static_cast<unsigned long long>(options.count), static_cast<unsigned long long>(options.seed),
      seconds, static_cast<unsigned long long>(counts[0]),
      static_cast<unsigned long long>(counts[1]), static_cast<unsigned long long>(counts[2]),
      static_cast<unsigned long long>(counts[3]));
  return counts[0] == options.count ? 0 : 1;
}

}  // namespace sim
}  // namespace orvcam
