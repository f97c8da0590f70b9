#pragma once
// The ordering checker. It reads a recorded run (History.h) and nothing else, and lists every
// place where the observed order, frame descriptors or licence handling break the rules a
// client relies on.
#include <map>
#include <string>
#include <vector>

#include "history/History.h"

namespace orvcam {
namespace check {

using history::History;
using history::Nanos;

struct Violation {
  // One of: order, sync, raw-switch, fd, licence, pool, delivery (what the library
  // guarantees), or client (the client's call order broke a rule of the protocol).
  std::string rule;
  std::string message;
  Nanos at = 0;  // when it happened, for sorting
  // client: the rule of the protocol it breaks, as what not to do (one of clientrule).
  std::string broken;

  Violation() = default;
  Violation(std::string rule_, std::string message_, Nanos at_, std::string broken_ = {})
      : rule(std::move(rule_)), message(std::move(message_)), at(at_), broken(std::move(broken_)) {}
};

// The rules of the client protocol whose breach a recorded call order shows, each as what a
// client must not do. One text per rule: the checker's notes, the log reader's explanations of
// fatal assertions and the reports all name a rule by these.
namespace clientrule {
extern const char* const kLaggingPrepare;
extern const char* const kDoublePrepare;
extern const char* const kSendOrder;
extern const char* const kSendBeforePrepare;
extern const char* const kRawSwitchBeforeOff;
extern const char* const kSendAfterDrop;
}  // namespace clientrule

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
  // Nothing broken, by the library or by the client.
  bool clean() const { return violations.empty() && notes.empty(); }
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

}  // namespace check
}  // namespace orvcam
