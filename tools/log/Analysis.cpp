// What camdeliver-log makes of a session: its findings (stalls, fatal assertions, warnings,
// breaches) with their explanations, and the text report.
#include "log/LogReport.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "logread/WaitRule.h"
#include "report/Report.h"

namespace orvcam {
namespace log {

using namespace logread;
using namespace history;
using namespace base;

const char* const kHowToEnableDebug =
    "the unified logger's detail level at 5 or more with the module mask holding 0x401000 "
    "(host: ORVCAM_ULOG_LEVEL=5, or camdeliver-sim --log-level debug)";
const char* const kHowToEnableVerbose =
    "the property vendor.debug.camcoordinator.force.log at 1 or more before the deliverer is "
    "built (adb shell setprop vendor.debug.camcoordinator.force.log 1, or camdeliver-sim "
    "--log-level verbose)";

namespace {

std::string sf(uint32_t s, uint32_t f) {
  return history::sensorName(s) + " F:" + std::to_string(f);
}

std::string ms(Nanos ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f ms", double(ns) / 1e6);
  return buf;
}

std::string stateText(const SensorFrame* st) {
  if (!st || !st->prepared) return "not prepared";
  if (st->enqDone) return "enqueued";
  if (st->dropped) return "dropped";
  if (st->flushed) return "flushed";
  if (st->enqNull) return "not run (no licence)";
  if (st->enqBlocked()) return "blocked";
  if (st->cfgBlocked()) return "configure blocked";
  if (st->enqStarted) return "running";
  return "prepared, no send";
}

std::string lastSeen(const Run& r, uint32_t s) {
  auto it = r.lastSeen.find(s);
  if (it == r.lastSeen.end()) return "S:" + std::to_string(s) + " has no line in the log";
  return "S:" + std::to_string(s) + " last at " + ms(it->second.at) + ": " + it->second.text;
}

}  // namespace

// A no-frame enqueue reports no completion and takes no licence from the queue, so no line says
// that it left its wait; its thread writing anything after the send's last line does, since a
// request thread blocked in a send writes nothing else.
bool noFrameSendWentOn(const Run& r, const SensorFrame& st) {
  if (st.frame != kNoFrame || st.enqLineTid < 0) return false;
  auto it = r.threadLastAt.find(st.enqLineTid);
  return it != r.threadLastAt.end() && it->second > st.enqLastLineAt;
}

// What a send still waiting at the capture's end waits for.
std::string waitsFor(const Run& r, const SensorFrame& st, bool isConfig) {
  SendWait w = sendWait(r, st, isConfig);
  std::string text;
  if (w.offSensor) {
    uint32_t offSensor = *w.offSensor;
    text += "\n    waits for the off sensor of the raw switch: S:" + std::to_string(offSensor) +
            (w.frame ? " to enqueue its previous frame F:" + std::to_string(*w.frame) + " (" +
                           stateText(findState(r, offSensor, *w.frame)) + ")"
                     : " to enqueue its previous frame");
    text += "\n    " + lastSeen(r, offSensor);
    return text;
  }
  if (!w.frame)
    return text + "\n    waits for the sync group of its previous frame (not in the log)";
  uint32_t prev = *w.frame;
  text += "\n    waits for its previous frame F:" + std::to_string(prev) +
          " (by preparation order) to be enqueued by its sync partners";
  bool any = false;
  for (uint32_t partner : w.sensors) {
    const SensorFrame* p = findState(r, partner, prev);
    if (p && p->done()) continue;
    any = true;
    text += "\n    missing partner " + sf(partner, prev) + ": " + stateText(p);
    text += "\n    " + lastSeen(r, partner);
  }
  if (!any) {
    text += "\n    every sensor the log shows in F:" + std::to_string(prev) +
            " is done; a partner whose prepare line is missing has not enqueued it";
  }
  return text;
}

namespace {

// A send still waiting at the capture's end: a stall once it has waited `stallNs` (measured
// from the start of its wait to the last line of the file), else cut off by the capture.
void waitingAtEnd(const Run& r, const SensorFrame& st, bool isConfig, Analysis* a) {
  const char* label = isConfig ? "ConfigJob" : "EnqJob";
  Nanos since = isConfig ? st.cfgSentAt : st.enqSentAt;
  Nanos waited = std::max<Nanos>(0, r.captureEnd - since);
  std::string who = sf(st.sensor, st.frame) + " " + label;
  if (!r.hasTime || waited < a->stallNs) {
    a->inFlight.push_back(who + (r.hasTime
                                     ? " had waited " + ms(waited) + " (since " + ms(since) + ")"
                                     : std::string(" (the layout has no times)")));
    return;
  }
  a->findings.push_back({"blocked", "blocked send: " + who + " still waiting at the end of the " +
                                        (r.captureEndGiven ? "capture (--capture-end)" : "log") +
                                        ": waited " + ms(waited) + " (since " + ms(since) + ")" +
                                        waitsFor(r, st, isConfig)});
}

// "[S:1 F:2] ..." -> the key (a sensor, or a configure key) and the frame.
bool keyAndFrame(const std::string& message, uint32_t* key, uint32_t* frame) {
  unsigned k = 0, f = 0;
  if (std::sscanf(message.c_str(), "[S:%u F:%u]", &k, &f) != 2) return false;
  *key = k;
  *frame = f;
  return true;
}

// The sensor a thread serves: the one most of its lines name.
std::string threadsSensor(const Run& r, int tid) {
  auto it = r.threadSensors.find(tid);
  if (it == r.threadSensors.end() || it->second.empty()) {
    return "the sensor on thread " + std::to_string(tid);
  }
  auto most = std::max_element(it->second.begin(), it->second.end(),
                               [](const auto& x, const auto& y) { return x.second < y.second; });
  return "S:" + std::to_string(most->first);
}

// A licence still queued when a prepare fetches the frame's licences again: the frame had
// left the deliverer's window of the 20 frames first prepared most recently, so a sensor
// prepared it late. Counted from the frames the log still holds (every frame in flight and
// the settled ones kept as context, more than the window).
std::optional<std::string> laggingPrepare(const Run& r, const FatalAssertion& f) {
  uint32_t key = 0, frame = 0;
  if (f.message.find("license should not exist") == std::string::npos ||
      !keyAndFrame(f.message, &key, &frame)) {
    return std::nullopt;
  }
  std::map<uint32_t, std::pair<Nanos, uint32_t>> firstPrepared;  // frame -> (when, by whom)
  for (const SensorFrame* state : statesInOrder(r)) {
    const SensorFrame& st = *state;
    if (!st.prepared || st.preparedAt > f.at) continue;
    auto it = firstPrepared.find(st.frame);
    if (it == firstPrepared.end() || st.preparedAt < it->second.first) {
      firstPrepared[st.frame] = {st.preparedAt, st.sensor};
    }
  }
  auto own = firstPrepared.find(frame);
  if (own == firstPrepared.end()) return std::nullopt;
  size_t since = 0;
  for (const auto& entry : firstPrepared) {
    if (entry.first != frame && entry.second.first > own->second.first) ++since;
  }
  if (since < NSCam::camsys::camcoordinator::kPreparationWindow) return std::nullopt;
  return threadsSensor(r, f.tid) + " prepared F:" + std::to_string(frame) + " after " +
         std::to_string(since) + " other frames had been first prepared since its first " +
         "preparation (by " + sf(own->second.second, frame) + " at " + ms(own->second.first) +
         "); the deliverer keeps the last " +
         std::to_string(NSCam::camsys::camcoordinator::kPreparationWindow) +
         ", so it fetched the frame's licences again and ended the process at " + ms(f.at);
}

// "FC not found" on a send: what the log shows of the frame leaving the pool. A send after its
// own frame's drop is the client's mistake when the send's own line (verbose) came after the
// drop; without that line a send racing the drop cannot be told from one made after it.
std::string frameNotFound(const Run& r, const FatalAssertion& f, Analysis* a) {
  uint32_t sensor = 0, frame = 0;
  if (!keyAndFrame(f.message, &sensor, &frame)) return "";
  auto fi = r.frames.find(frame);
  if (fi == r.frames.end()) {
    return "\n    the log shows nothing of F:" + std::to_string(frame) +
           ": never emplaced, or retired before the capture began";
  }
  std::string text;
  if (fi->second.retired && fi->second.retiredAt <= f.at) {
    text = "\n    F:" + std::to_string(frame) + " had left the pool: retired by " +
           fi->second.retiredBy + " at " + ms(fi->second.retiredAt);
  } else {
    text = "\n    the log shows no line that retired F:" + std::to_string(frame);
  }
  const SensorFrame* st = findState(r, sensor, frame);
  if (!st || !st->dropped || st->droppedAt > f.at) return text;
  std::string who = sf(sensor, frame);
  // A thread makes one call at a time: a drop among its own lines before the send returned.
  std::string dropLine = "[drop] [" + sf(sensor, frame) + "] drop";
  bool dropOnThisThread = std::any_of(f.before.begin(), f.before.end(), [&](const std::string& l) {
    return l.find(dropLine) != std::string::npos;
  });
  if (dropOnThisThread || (st->enqSentSeen && st->enqSentAt > st->droppedAt)) {
    a->findings.push_back(
        {"client", who + " was sent for after the sensor's own drop of the frame at " +
                       ms(st->droppedAt) +
                       (dropOnThisThread ? ", reported earlier on the same thread"
                                         : ", by the send's own line at " + ms(st->enqSentAt)) +
                       "\n    rule broken: don't " + check::clientrule::kSendAfterDrop});
    return text;
  }
  return text + "\n    " + who + " was dropped at " + ms(st->droppedAt) +
         " before this send looked the frame up; unknown whether the send was made after the "
         "drop returned (don't " +
         check::clientrule::kSendAfterDrop +
         ") or raced it: the send's own line, which tells, needs " + kHowToEnableVerbose;
}

}  // namespace

Nanos derivedStallNs(const Run& r) {
  return std::max(kStallFloorNs, kStallFactor * std::max(r.stallWaits.percentile(0.99),
                                                         r.jobTimes.percentile(0.99)));
}

// The first three breaches of a warning's list, one per indented line.
std::string firstBreaches(const std::vector<check::Violation>& breaches) {
  std::string text;
  for (size_t i = 0; i < breaches.size(); ++i) {
    if (i == 3) return text + "\n    ... and " + std::to_string(breaches.size() - 3) + " more";
    text += "\n    [" + breaches[i].rule + "] " + breaches[i].message;
  }
  return text;
}

// Sync and raw-switch breaches that rest only on the order of two lines with one time stamp.
// logd keeps the lines in the order their stamps were taken, and the deliverer writes the line
// that lets a waiting sensor go before it wakes it, so in a capture as it came off the device
// the order holds; a file merged or sorted by its stamps has lost it. Named, not failed.
Finding sameStampWarning(const Run& r, const check::CheckResult& check) {
  std::string text = std::to_string(check.sameStamp.size()) +
                     " sync or raw-switch breach(es) that rest only on the order of two lines of "
                     "different threads with the same time stamp (stamped to " +
                     ms(r.stampTick) +
                     ")\n    needs attention: in a capture as it came off the "
                     "device the line order holds and these are violations; in a file merged "
                     "or sorted by its time stamps it does not (adb logcat -v usec separates "
                     "them)";
  return {"same-stamp", text + firstBreaches(check.sameStamp)};
}

// Breaches that rest only on a line being absent, in a log that is known to have lost lines.
Finding lostLinesWarning(const Run& r, const check::CheckResult& check) {
  std::string text = std::to_string(check.absent.size()) +
                     " breach(es) that rest only on a line being absent, in a log that lost " +
                     std::to_string(r.lostLines) +
                     " line(s) that later lines prove were written (the first: " + r.firstLost +
                     ")\n    needs attention: each may be a line logd dropped; a capture that "
                     "keeps every line (a larger buffer, adb logcat -G 16M, fewer other logs) "
                     "settles them";
  return {"lost-lines", text + firstBreaches(check.absent)};
}

std::string whyNothingToRebuild(const Run& r) {
  if (r.guardLines == 0 && r.debugLevelLines > 0) {
    return "the log has debug lines of the deliverer but none of the tag OrvCam/CamDeliverGuard, "
           "which writes the preparations, waits and completions: it looks filtered by tag. "
           "Capture every tag, or name all four: adb logcat -v threadtime -s OrvCam/CamDeliver "
           "OrvCam/CamDeliverGuard OrvCam/FrameContextPool OrvCam/LicenseQueue";
  }
  return "the log has none of the deliverer's debug lines (only its warnings, errors or "
         "constructor line); they need " +
         std::string(kHowToEnableDebug);
}

namespace {

// Each fatal assertion, with the rule it stands for and what led to it.
void addFatals(const Run& r, Analysis* out) {
  Analysis& a = *out;
  for (const FatalAssertion& f : r.fatals) {
    std::string rule = ruleForFatal(f.message);
    std::string context;
    if (std::optional<std::string> lagging = laggingPrepare(r, f)) {
      rule = std::string("rule broken: don't ") + check::clientrule::kLaggingPrepare;
      a.findings.push_back(
          {"client", *lagging + "\n    rule broken: don't " + check::clientrule::kLaggingPrepare});
    }
    if (f.message.find("FC not found !") != std::string::npos) context = frameNotFound(r, f, &a);
    std::string text = "fatal assertion \"" + f.message + "\"" +
                       (f.function.empty() ? "" : " in " + f.function) + " at " + ms(f.at) +
                       " (thread " + std::to_string(f.tid) + ")\n    " + rule + context;
    if (!f.before.empty()) {
      text += "\n    the thread's calls before it:";
      for (const std::string& line : f.before) text += "\n      " + line;
    }
    a.findings.push_back({"fatal", text});
  }
}

// Each kind of warning: benign, explained by a legal client call order, or to look at.
void addWarnings(const Run& r, Analysis* out) {
  Analysis& a = *out;
  bool hasDropOrFlush = r.sawDropOrFlush;
  for (const history::EventRecord& e : r.history.events) {
    hasDropOrFlush = hasDropOrFlush || e.kind == history::EventKind::Drop ||
                     e.kind == history::EventKind::Flush ||
                     e.kind == history::EventKind::QueueFlush;
  }
  for (const auto& entry : r.warnings) {
    const WarningCount& w = entry.second;
    WarningExplanation e = explainWarning(w.kind);
    std::string line = std::to_string(w.count) + " x \"" + w.kind + "\": " + e.why;
    if (e.cls == WarningClass::ClientOrder && e.needsDropOrFlush && !a.debugMissing &&
        !hasDropOrFlush) {
      e.cls = WarningClass::Attention;
      line += "; the log shows no drop or flush that would explain it";
    }
    if (e.cls == WarningClass::Benign) {
      a.notes.push_back(line + "; benign");
    } else if (e.cls == WarningClass::ClientOrder) {
      a.warnings.push_back({"warning", line + "\n    explained by a legal client call order: " +
                                           e.clientOrder + "\n    first: " + w.first});
    } else {
      a.warnings.push_back({"warning", line + "\n    needs attention\n    first: " + w.first});
    }
  }
}

// The checker's findings: the settled parts' (checked during the read) and the rest's.
void addChecks(const Run& r, Analysis* out) {
  Analysis& a = *out;
  // Frames that settled during the read were checked then; the rest are checked now.
  check::CheckResult last = check::checkHistory(r.history, {/*absentApart=*/true});
  dropInFlightDeliveries(r, &last.violations);
  dropInFlightDeliveries(r, &last.absent);
  a.check = r.settledCheck;
  a.check.violations.insert(a.check.violations.end(), last.violations.begin(),
                            last.violations.end());
  a.check.notes.insert(a.check.notes.end(), last.notes.begin(), last.notes.end());
  a.check.sameStamp.insert(a.check.sameStamp.end(), last.sameStamp.begin(), last.sameStamp.end());
  a.check.absent.insert(a.check.absent.end(), last.absent.begin(), last.absent.end());
  // A log that lost no line shows every record: a breach resting on an absent one counts.
  if (r.lostLines == 0) {
    a.check.violations.insert(a.check.violations.end(), a.check.absent.begin(),
                              a.check.absent.end());
    a.check.absent.clear();
  }
  a.check.skipped.insert(last.skipped.begin(), last.skipped.end());
  a.check.jobsChecked += last.jobsChecked;
  a.check.startsLost += last.startsLost;
  auto byTime = [](const check::Violation& x, const check::Violation& y) { return x.at < y.at; };
  std::stable_sort(a.check.violations.begin(), a.check.violations.end(), byTime);
  std::stable_sort(a.check.notes.begin(), a.check.notes.end(), byTime);
  std::vector<check::Violation> found = a.check.violations;
  found.insert(found.end(), a.check.notes.begin(), a.check.notes.end());
  std::stable_sort(found.begin(), found.end(), byTime);
  for (const check::Violation& v : found) {
    a.findings.push_back(
        {v.rule,
         v.message + (v.broken.empty() ? std::string() : "\n    rule broken: don't " + v.broken)});
  }
  if (!a.check.sameStamp.empty()) a.warnings.push_back(sameStampWarning(r, a.check));
  if (!a.check.absent.empty()) a.warnings.push_back(lostLinesWarning(r, a.check));
}

// What this capture cannot show, and why.
void addNotCheckable(const Run& r, Analysis* out) {
  Analysis& a = *out;
  a.notCheckable.push_back(
      "licence: which licence each job took and what went back to the pipe manager are not "
      "logged at any level (the queue's push and pop lines need " +
      std::string(kHowToEnableVerbose) +
      " on a deliverer built after another one; acquisitions are the pipe manager's own)");
  if (a.debugMissing) {
    a.notCheckable.push_back("order, sync, raw-switch, fd, delivery and blocked sends: " +
                             whyNothingToRebuild(r));
  } else if (r.verboseLines == 0) {
    a.notCheckable.push_back(
        "wait times of enqueue sends: counted from the first wait line instead of the call, "
        "since the send's own line \"[sendJobForEnque] [S:N F:N]\" needs " +
        std::string(kHowToEnableVerbose));
  }
  if (!r.hasTime) {
    a.notCheckable.push_back(
        "times and stalls: the layout has no time stamps; waits and durations are by line "
        "order only and a send still waiting at the end cannot be told from one cut off by "
        "the capture (capture with adb logcat -v threadtime)");
  }
  if (!r.hasLevel) {
    a.notCheckable.push_back(
        "levels: the raw layout has no level, tag, process or time; warnings and fatal "
        "assertions are known by their words only (capture with adb logcat -v threadtime)");
  }
  if (!r.hasTid) {
    a.notCheckable.push_back(
        "threads: the layout has no thread ids (capture with adb logcat -v threadtime)");
  }
}

}  // namespace

Analysis analyse(const Run& r, const AnalysisOptions& options) {
  Analysis a;
  a.debugMissing = r.debugLines == 0;
  a.strict = options.strict;
  a.stallDerived = options.stallNs < 0;
  a.stallNs = a.stallDerived ? derivedStallNs(r) : options.stallNs;
  // Sends still waiting when the capture ends.
  for (const SensorFrame* state : statesInOrder(r)) {
    const SensorFrame& st = *state;
    if (st.cfgBlocked()) waitingAtEnd(r, st, true, &a);
    if (st.enqBlocked() && !noFrameSendWentOn(r, st)) waitingAtEnd(r, st, false, &a);
  }
  addFatals(r, &a);
  addWarnings(r, &a);
  if (!a.debugMissing) addChecks(r, &a);
  addNotCheckable(r, &a);
  return a;
}

void printSummary(std::ostream& out, const Run& r) {
  char line[256];
  std::snprintf(line, sizeof line, "%-7s %8s %10s %8s %7s %7s  %9s %9s %9s  %8s %9s\n", "sensor",
                "prepared", "configured", "enqueued", "dropped", "flushed", "wait p50", "wait p99",
                "wait max", "lic FDs", "FD shared");
  out << line;
  std::snprintf(line, sizeof line, "%-7s %8s %10s %8s %7s %7s  %9s %9s %9s  %8s %9s\n", "", "", "",
                "", "", "", "ms", "ms", "ms", "", "frames");
  out << line;
  auto row = [&](const std::string& label, const SensorTotals& t, uint64_t fds, bool capped) {
    auto time = [&](Nanos v) {
      if (!t.waits.count()) return std::string("-");
      char b[32];
      std::snprintf(b, sizeof b, "%.3f", double(v) / 1e6);
      return std::string(b);
    };
    std::snprintf(
        line, sizeof line, "%-7s %8llu %10llu %8llu %7llu %7llu  %9s %9s %9s  %8s %9llu\n",
        label.c_str(), static_cast<unsigned long long>(t.prepared),
        static_cast<unsigned long long>(t.configured), static_cast<unsigned long long>(t.enqueued),
        static_cast<unsigned long long>(t.dropped), static_cast<unsigned long long>(t.flushed),
        time(t.waits.percentile(0.50)).c_str(), time(t.waits.percentile(0.99)).c_str(),
        time(t.waits.max()).c_str(), (std::to_string(fds) + (capped ? "+" : "")).c_str(),
        static_cast<unsigned long long>(t.sharedFrames));
    out << line;
  };
  SensorTotals total;
  uint64_t totalFds = 0;
  bool capped = false;
  std::set<uint32_t> sensors = r.sensorsSeen;
  for (const auto& t : r.totals) sensors.insert(t.first);
  for (uint32_t s : sensors) {
    auto it = r.totals.find(s);
    SensorTotals t = it == r.totals.end() ? SensorTotals() : it->second;
    bool full = t.fds.size() >= SensorTotals::kMaxFds;
    row("S:" + std::to_string(s), t, t.fds.size(), full);
    capped = capped || full;
    total.prepared += t.prepared;
    total.configured += t.configured;
    total.enqueued += t.enqueued;
    total.dropped += t.dropped;
    total.flushed += t.flushed;
    total.waits.merge(t.waits);
    total.sharedFrames += t.sharedFrames;
    totalFds += t.fds.size();
  }
  row("total", total, totalFds, capped);
}

void printFrames(std::ostream& out, const Run& r) {
  char line[256];
  std::snprintf(line, sizeof line, "%-10s %-6s %6s %-14s %10s %10s %-12s %-9s %s\n", "frame",
                "sensor", "order", "configure", "wait ms", "job ms", "fd", "sync", "state");
  out << line;
  for (const auto& entry : r.frames) {
    const FrameInfo& fi = entry.second;
    std::string sync;
    for (const auto& p : r.history.plans) {
      if (p.frame != fi.frame) continue;
      for (uint32_t s : p.syncList) sync += (sync.empty() ? "" : ",") + std::to_string(s);
    }
    if (sync.empty()) sync = "-";
    if (fi.syncBroken) sync += " broken";
    for (uint32_t s : fi.sensors) {
      const SensorFrame* st = findState(r, s, fi.frame);
      if (!st) continue;
      std::string cfg = st->cfgSent ? (st->cfgDone ? "job" : "job pending")
                                    : (st->setConfigured ? "setConfigured" : "-");
      char wait[32] = "-", job[32] = "-";
      if (st->enqStarted) {
        std::snprintf(wait, sizeof wait, "%.3f", double(st->enqStart - st->enqSentAt) / 1e6);
        if (st->enqDone)
          std::snprintf(job, sizeof job, "%.3f", double(st->enqEnd - st->enqStart) / 1e6);
      }
      std::string fd = st->firstFd >= 0 ? std::to_string(st->firstFd) : "-";
      for (const auto& ch : st->fdChanges) {
        if (ch.first == st->firstFd) fd += "->" + std::to_string(ch.second);
      }
      std::string state = stateText(st);
      if (fi.offSensor == int64_t(s)) state += ", raw switch off";
      std::snprintf(line, sizeof line, "F:%-8u S:%-4u %6lld %-14s %10s %10s %-12s %-9s %s\n",
                    fi.frame, s, static_cast<long long>(st->order), cfg.c_str(), wait, job,
                    fd.c_str(), sync.c_str(), state.c_str());
      out << line;
    }
  }
}

void printAnalysis(std::ostream& out, const Analysis& a) {
  if (!a.notes.empty()) {
    out << "benign warnings:\n";
    for (const std::string& n : a.notes) out << "  " << n << "\n";
  }
  if (!a.inFlight.empty()) {
    out << "in flight when the capture ended (waited less than the stall threshold of "
        << ms(a.stallNs) << (a.stallDerived ? ", derived from the log; --stall-ms sets it" : "")
        << "):\n";
    for (const std::string& n : a.inFlight) out << "  " << n << "\n";
  }
  if (!a.warnings.empty()) {
    out << a.warnings.size() << " warning kind(s)"
        << (a.strict ? ", failing the run (--strict)" : ", not failing the run without --strict")
        << ":\n";
    for (const Finding& f : a.warnings) out << "  [" << f.kind << "] " << f.text << "\n";
  }
  out << "not checkable from this log:\n";
  for (const std::string& n : a.notCheckable) out << "  " << n << "\n";
  if (a.findings.empty()) {
    out << "no findings\n";
    return;
  }
  out << a.findings.size() << " finding(s):\n";
  for (const Finding& f : a.findings) out << "  [" << f.kind << "] " << f.text << "\n";
}

}  // namespace log
}  // namespace orvcam
