#pragma once
// What camdeliver-log makes of a replayed run: findings (blocked sends, fatal assertions,
// warnings, ordering violations), what the log cannot show, and the outputs built from it
// (summary, frame table, trace, replay scenario).
#include <ostream>
#include <string>
#include <vector>

#include "Checker.h"
#include "LogReader.h"

namespace orvcam {
namespace logread {

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
  sim::CheckResult check;                 // checker result, rules the log can show only
  bool debugMissing = false;              // nothing to rebuild: the debug lines are off
  bool failed() const { return !findings.empty() || (strict && !warnings.empty()); }
};

Analysis analyse(const Run& run, const AnalysisOptions& options = AnalysisOptions());
// The stall threshold the log's own figures give: kStallFactor times the larger of its p99
// enqueue wait and p99 job time, at least kStallFloorNs.
Nanos derivedStallNs(const Run& run);

void printSummary(std::ostream& out, const Run& run);
void printFrames(std::ostream& out, const Run& run);
void printAnalysis(std::ostream& out, const Analysis& analysis);

// Chrome JSON trace: a track per thread, named after the sensor it serves.
void writeTrace(std::ostream& out, const Run& run);
// A scenario for camdeliver-sim that replays the run's frames, sensors, sync groups,
// configure frames, raw switches and events, with job durations fitted to the log.
void writeScenario(std::ostream& out, const Run& run);

// How to get the lines this tool needs.
extern const char* const kHowToEnableDebug;
extern const char* const kHowToEnableVerbose;

}  // namespace logread
}  // namespace orvcam
