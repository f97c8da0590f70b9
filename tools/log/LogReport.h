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

struct Analysis {
  std::vector<Finding> findings;
  std::vector<std::string> notes;         // warnings that are benign, counted
  std::vector<std::string> notCheckable;  // rules the log lacks the data for
  sim::CheckResult check;                 // checker result, rules the log can show only
  bool debugMissing = false;              // nothing to rebuild: the debug lines are off
};

Analysis analyse(const Run& run);

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
