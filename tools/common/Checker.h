#pragma once
// The ordering checker. It reads a recorded run (History.h) and nothing else, and lists every
// place where the observed order, frame descriptors or licence handling break the rules a
// client relies on.
#include <map>
#include <string>
#include <vector>

#include "History.h"

namespace orvcam {
namespace sim {

struct Violation {
  // One of: order, sync, raw-switch, fd, licence, pool, delivery.
  std::string rule;
  std::string message;
  Nanos at = 0;  // when it happened, for sorting
};

struct CheckResult {
  std::vector<Violation> violations;  // by time
  // Places where the client's own call order broke a precondition of the library, so that the
  // guarantee concerned did not apply (rule "client"); not violations of the library.
  std::vector<Violation> notes;
  // Breaches of the sync and raw-switch rules whose two events carry the same time stamp of a
  // source that stamps more coarsely than it orders (History::stampTick): only the line order
  // of a log puts them so. Not violations: a log merged or sorted by its stamps keeps no order
  // within a stamp.
  std::vector<Violation> sameStamp;
  // Breaches that rest only on a record being absent (never enqueued, never prepared, not
  // configured), from a source that lost records (History::linesLost) or when asked to keep
  // them apart: the record may be one of those lost. Not violations.
  std::vector<Violation> absent;
  // Rules not checked because the history's source cannot support them, with the reason.
  std::map<std::string, std::string> skipped;
  size_t jobsChecked = 0;
  // Jobs whose start the source lost (JobRecord::startLost): counted as run, not checked for
  // order, sync or raw switch.
  size_t startsLost = 0;
  size_t licencesChecked = 0;
  bool clean() const { return violations.empty(); }
};

struct CheckOptions {
  // Keeps breaches that rest on an absent record apart even when the history lost nothing
  // (a reader that checks part of a log before it knows whether the rest lost lines).
  bool absentApart = false;
};

CheckResult checkHistory(const History& history, const CheckOptions& options = {});

// The client's side of the protocol (ClientProtocol.cpp): notes where a recorded call order
// broke a precondition the library relies on.
std::vector<Violation> clientProtocolNotes(const History& history);

// "12.345 ms"
std::string formatTime(Nanos at);

}  // namespace sim
}  // namespace orvcam
