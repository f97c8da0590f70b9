#include "log/LogReport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include <zlib.h>

#include "base/JsonText.h"
#include "pftrace/PerfettoWriter.h"
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

const SensorFrame* findState(const Run& r, uint32_t s, uint32_t f) {
  auto it = r.states.find({s, f});
  return it == r.states.end() ? nullptr : &it->second;
}

// The frame the sensor prepared just before `frame`, as the guard looks it up.
std::optional<uint32_t> previousFrame(const Run& r, const SensorFrame& st) {
  if (st.previousFrame >= 0) return uint32_t(st.previousFrame);
  auto seq = r.sequence.find(st.sensor);
  if (seq == r.sequence.end()) return std::nullopt;
  auto pos = std::find(seq->second.begin(), seq->second.end(), st.frame);
  if (pos == seq->second.end() || pos == seq->second.begin()) return std::nullopt;
  return *(pos - 1);
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
  std::string text;
  int64_t off = st.offWaitOpen[isConfig ? 1 : 0];
  if (off >= 0) {
    uint32_t offSensor = uint32_t(off);
    const SensorFrame* fake = findState(r, offSensor, st.frame);
    std::optional<uint32_t> prev;
    if (fake) prev = previousFrame(r, *fake);
    text += "\n    waits for the off sensor of the raw switch: S:" + std::to_string(offSensor) +
            (prev ? " to enqueue its previous frame F:" + std::to_string(*prev) + " (" +
                        stateText(findState(r, offSensor, *prev)) + ")"
                  : " to enqueue its previous frame");
    text += "\n    " + lastSeen(r, offSensor);
    return text;
  }
  std::optional<uint32_t> prev = previousFrame(r, st);
  if (!prev) return text + "\n    waits for the sync group of its previous frame (not in the log)";
  text += "\n    waits for its previous frame F:" + std::to_string(*prev) +
          " (by preparation order) to be enqueued by its sync partners";
  auto fi = r.frames.find(*prev);
  bool any = false;
  if (fi != r.frames.end()) {
    for (uint32_t partner : fi->second.sensors) {
      const SensorFrame* p = findState(r, partner, *prev);
      if (p && p->done()) continue;
      any = true;
      text += "\n    missing partner " + sf(partner, *prev) + ": " + stateText(p);
      text += "\n    " + lastSeen(r, partner);
    }
  }
  if (!any) {
    text += "\n    every sensor the log shows in F:" + std::to_string(*prev) +
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

namespace {

// A thread serves the sensor most of its lines name; one that names several is the
// pipeline's event thread.
std::map<int, std::string> threadNames(const Run& r) {
  std::map<int, std::string> names;
  for (const auto& t : r.threadSensors) {
    uint64_t total = 0, best = 0;
    uint32_t sensor = 0;
    for (const auto& s : t.second) {
      total += s.second;
      if (s.second > best) best = s.second, sensor = s.first;
    }
    names[t.first] = best * 10 >= total * 9 ? "sensor " + std::to_string(sensor) : "pipeline";
  }
  return names;
}

// Frame lifetimes, counters and the client's events go on a track of their own, so that the
// trace of a long capture written as it is read does not depend on which thread the log
// showed first.
constexpr int kEventTrack = 0;

// The Perfetto trace's tracks: the process's, a thread's per thread (StreamWriter), one per
// frame's life (all named "frames", which a viewer shows as one), one for the client's events
// and one per counter.
uint64_t processTrack(int pid) {
  return pftrace::trackUuid(pftrace::TrackKind::Process, uint64_t(uint32_t(pid)));
}
const uint64_t kEventsTrack = pftrace::trackUuid(pftrace::TrackKind::Custom, 1);
uint64_t counterTrack(bool frames) {
  return pftrace::trackUuid(pftrace::TrackKind::Counter, frames ? 1 : 0);
}
constexpr uint32_t kSequenceId = 1;
constexpr uint64_t kMicros = 1000;

}  // namespace

void TraceWriter::GzipEnd::operator()(z_stream_s* z) const {
  deflateEnd(z);
  delete z;
}

TraceWriter::TraceWriter(std::ostream& out, int pid, OrderedWorker* worker,
                         const TraceOptions& options)
    : worker_(worker), out_(out), pid_(pid) {
  if (options.perfetto) {
    bool clocked = options.clockId != 0;
    // Log events are stamped on CLOCK_REALTIME: taken when the capture's stamps are.
    if (options.clockId == pftrace::kClockRealtime) logLinesBaseNs_ = options.firstStampNs;
    perfetto_ = std::make_unique<pftrace::StreamWriter>(
        out, kSequenceId, clocked ? pftrace::kClockCapture : pftrace::kClockBoottime);
    pftrace::Sequence& seq = perfetto_->sequence();
    std::string* buf = perfetto_->buffer();
    if (clocked) {
      // The trace's clock starts at the capture's first stamp and ticks in microseconds, the
      // finest a logcat layout gives but for nsec (a byte less in every timestamp).
      const pftrace::Sequence::ClockReading clocks[] = {{pftrace::kClockCapture, 0, kMicros},
                                                        {options.clockId, options.firstStampNs, 1}};
      seq.clockSnapshot(buf, clocks, 2, options.clockId);
      unitNs_ = kMicros;
    }
    seq.processTrack(buf, processTrack(pid), pid, "camdeliver-log: process " + std::to_string(pid));
    seq.track(buf, kEventsTrack, processTrack(pid), "events");
    seq.track(buf, counterTrack(true), processTrack(pid), "frames in flight", true);
    seq.track(buf, counterTrack(false), processTrack(pid), "sends waiting", true);
    return;
  }
  if (options.gzip) {
    // One gzip stream (windowBits + 16: gzip's header and trailer), as Perfetto UI opens it.
    auto* z = new z_stream{};
    if (deflateInit2(z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) ==
        Z_OK) {
      gzip_.reset(z);
      gzipOut_.resize(size_t(1) << 16);
    } else {
      delete z;  // written uncompressed rather than not at all
    }
  }
  buffer_ += "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[";
  meta("process_name", 0)
      .open("args")
      .str("name", "camdeliver-log: process " + std::to_string(pid_))
      .close();
  emit();
}

TraceWriter::~TraceWriter() {
  if (worker_) worker_->drain();  // its tasks write through this object
}

JsonText& TraceWriter::event(std::string_view name, const char* cat, const char* ph, Nanos ts,
                             int tid) {
  return text_.begin()
      .str("name", name)
      .str("cat", cat)
      .str("ph", ph)
      .micros("ts", ts)
      .num("pid", pid_)
      .num("tid", tid);
}

JsonText& TraceWriter::meta(const char* name, int tid) {
  return text_.begin().str("name", name).str("ph", "M").num("pid", pid_).num("tid", tid);
}

void TraceWriter::emit() {
  buffer_ += first_ ? "\n" : ",\n";
  buffer_ += text_.end();
  first_ = false;
  if (buffer_.size() >= (size_t(1) << 18)) flush();
}

void TraceWriter::flush(bool end) {
  if (!gzip_) {
    out_.write(buffer_.data(), std::streamsize(buffer_.size()));
    buffer_.clear();
    return;
  }
  z_stream& z = *gzip_;
  z.next_in = reinterpret_cast<Bytef*>(buffer_.data());
  z.avail_in = uInt(buffer_.size());
  for (;;) {
    z.next_out = reinterpret_cast<Bytef*>(gzipOut_.data());
    z.avail_out = uInt(gzipOut_.size());
    int rc = deflate(&z, end ? Z_FINISH : Z_NO_FLUSH);
    out_.write(gzipOut_.data(), std::streamsize(gzipOut_.size() - z.avail_out));
    if (rc == Z_STREAM_END || rc == Z_STREAM_ERROR) break;
    if (z.avail_out != 0 && (!end || rc == Z_BUF_ERROR)) break;  // all taken in
  }
  buffer_.clear();
}

void TraceWriter::add(const Run& r, const history::History& part) {
  std::vector<Item> items = gather(r, part);
  if (!worker_) {
    write(items);
    return;
  }
  worker_->post([this, items = std::move(items)]() mutable {
    write(items);
    items.clear();
    std::lock_guard<std::mutex> lock(spareMutex_);
    spare_.push_back(std::move(items));
  });
}

namespace {

// The partner's enqueue whose end released `st`'s waiting enqueue: the last of the previous
// frame's partners to finish before it started. None when the enqueue did not wait.
const SensorFrame* releaserOf(const Run& r, const SensorFrame& st) {
  if (!st.enqStarted || !(st.enqWaitSeen && st.waitLines > 0)) return nullptr;
  std::optional<uint32_t> prev = previousFrame(r, st);
  if (!prev) return nullptr;
  auto prevInfo = r.frames.find(*prev);
  if (prevInfo == r.frames.end()) return nullptr;
  const SensorFrame* releaser = nullptr;
  for (uint32_t partner : prevInfo->second.sensors) {
    const SensorFrame* p = findState(r, partner, *prev);
    if (!p || partner == st.sensor || !p->enqDone || p->enqEnd > st.enqStart) continue;
    if (!releaser || p->enqEnd > releaser->enqEnd) releaser = p;
  }
  return releaser;
}

}  // namespace

std::vector<TraceWriter::Item> TraceWriter::gather(const Run& r, const history::History& part) {
  using K = Item::Kind;
  std::set<uint32_t> frames;  // the part's frames
  for (const auto& p : part.plans) frames.insert(p.frame);
  // A list the worker has written and handed back keeps its memory: a part's list is a few
  // hundred kilobytes, which the allocator would otherwise map and unmap every time.
  std::vector<Item> items;
  {
    std::lock_guard<std::mutex> lock(spareMutex_);
    if (!spare_.empty()) {
      items = std::move(spare_.back());
      spare_.pop_back();
    }
  }
  for (const auto& j : part.jobs) {
    frames.insert(j.frame);
    const SensorFrame* st = findState(r, j.sensor, j.frame);
    int tid = st && st->tid >= 0 ? st->tid : int(j.sensor) + 1;
    Nanos end = std::max(j.end, j.sent);
    items.push_back({K::Send, 0, tid, j.sensor, j.frame, j.sent, end - j.sent, 0});
    if (j.ran && j.start > j.sent) {
      uint8_t configure = j.kind == history::JobKind::Configure;
      items.push_back({K::Wait, configure, tid, j.sensor, j.frame, j.sent, j.start - j.sent, 0});
    }
    if (j.ran) {
      items.push_back({K::Job, uint8_t(j.kind), tid, j.sensor, j.frame, j.start,
                       std::max(j.end, j.start) - j.start, j.fd});
    }
  }
  for (uint32_t f : frames) {
    auto fi = r.frames.find(f);
    if (fi == r.frames.end()) continue;
    // Counters: frames in flight (first prepare to retirement) and enqueue sends waiting.
    if (!fi->second.sensors.empty()) {
      marks_.add(fi->second.firstSeen, 1, 0);
      if (fi->second.retired) marks_.add(fi->second.retiredAt, -1, 0);
    }
    for (uint32_t s : r.sensorsSeen) {
      const SensorFrame* st = findState(r, s, f);
      if (!st) continue;
      if ((st->enqSentSeen || st->enqWaitSeen) && st->enqStart > st->enqSentAt) {
        marks_.add(st->enqSentAt, 0, 1);
        if (st->enqStarted) marks_.add(st->enqStart, 0, -1);
      }
      // Flow arrows: from the partner's enqueue job whose end released a waiting enqueue to
      // that enqueue.
      const SensorFrame* releaser = releaserOf(r, *st);
      if (!releaser || releaser->tid < 0 || st->tid < 0) continue;
      // One arrow per waiting enqueue: its id is made from its sensor and frame.
      int64_t id = (int64_t(st->frame) << 8) | (st->sensor & 0xFF);
      items.push_back({K::FlowStart, 0, releaser->tid, 0, 0, releaser->enqStart, 0, id});
      items.push_back({K::FlowEnd, 0, st->tid, 0, 0, st->enqStart, 0, id});
    }
    // Each frame's life, from its first prepare to the line that retired it.
    const FrameInfo& info = fi->second;
    if (info.sensors.empty()) continue;
    Nanos begin = info.firstSeen;
    Nanos end = info.retired ? info.retiredAt : r.endAt;
    items.push_back({K::FrameBegin, 0, kEventTrack, 0, info.frame, begin, 0, 0});
    items.push_back({K::FrameEnd, 0, kEventTrack, 0, info.frame, std::max(end, begin), 0, 0});
  }
  for (const auto& e : part.events) {
    items.push_back(
        {K::Event, uint8_t(e.kind), kEventTrack, e.sensor, e.frame, e.begin, 0, e.value});
  }
  marks_.release(r, frames, [&](Nanos at, int framesDelta, int, int inFlight, int waiting) {
    items.push_back({K::Counter, uint8_t(framesDelta != 0), kEventTrack, 0, 0, at, 0,
                     framesDelta ? inFlight : waiting});
  });
  return items;
}

void TraceWriter::appendNumber(int64_t v) {
  char digits[24];
  name_.append(digits, std::to_chars(digits, digits + sizeof digits, v).ptr);
}

// "S:1 F:2", a configure key as "S:1 cfg F:2".
void TraceWriter::appendSensorFrame(uint32_t sensor, uint32_t frame) {
  name_ += "S:";
  appendNumber(sensor >= history::kConfigKeyBase ? sensor - history::kConfigKeyBase : sensor);
  if (sensor >= history::kConfigKeyBase) name_ += " cfg";
  name_ += " F:";
  appendNumber(frame);
}

// "Drop S:1 F:12 value:0", or "flush()" for the deliverer's flush.
void TraceWriter::appendEventName(const Item& it) {
  if (history::EventKind(it.detail) == history::EventKind::QueueFlush) {
    name_ += "flush()";
    return;
  }
  name_ += history::eventKindName(history::EventKind(it.detail));
  name_ += ' ';
  appendSensorFrame(it.sensor, it.frame);
  name_ += " value:";
  appendNumber(it.value);
}

void TraceWriter::write(const std::vector<Item>& items) {
  for (const Item& item : items) writeItem(item);
}

void TraceWriter::writeItem(const Item& it) {
  using K = Item::Kind;
  if (perfetto_) {
    writePerfetto(it);
    return;
  }
  auto number = [this](int64_t v) { appendNumber(v); };
  auto sensorFrame = [&] { appendSensorFrame(it.sensor, it.frame); };
  name_.clear();
  switch (it.kind) {
    case K::Send:
      sensorFrame();
      event(name_, "send", "X", it.ts, it.tid).micros("dur", it.dur);
      break;
    case K::Wait:
      sensorFrame();
      name_ += it.detail ? " isConfig:1" : " isConfig:0";
      event(name_, "wait", "X", it.ts, it.tid).micros("dur", it.dur);
      break;
    case K::Job:
      name_ += history::jobKindName(history::JobKind(it.detail));
      name_ += ' ';
      sensorFrame();
      event(name_, "job", "X", it.ts, it.tid)
          .micros("dur", it.dur)
          .open("args")
          .num("fd", it.value)
          .close();
      break;
    case K::FlowStart: event("releases", "flow", "s", it.ts, it.tid).num("id", it.value); break;
    case K::FlowEnd:
      event("releases", "flow", "f", it.ts, it.tid).str("bp", "e").num("id", it.value);
      break;
    case K::FrameBegin:
    case K::FrameEnd:
      name_ += "F:";
      number(it.frame);
      event(name_, "frame", it.kind == K::FrameBegin ? "b" : "e", it.ts, it.tid)
          .num("id", it.frame);
      break;
    case K::Event:
      appendEventName(it);
      event(name_, "event", "i", it.ts, it.tid).str("s", "t");
      break;
    case K::Counter:
      event(it.detail ? "frames in flight" : "sends waiting", "counter", "C", it.ts, it.tid)
          .open("args")
          .num("value", it.value)
          .close();
      break;
  }
  emit();
}

void TraceWriter::finish(const Run& r) {
  if (!logLines_.lines.empty()) handLogLines();
  if (worker_) worker_->drain();
  write(gather(r, unsettledPart(r)));
  marks_.releaseBefore(INT64_MAX, [&](Nanos at, int framesDelta, int, int inFlight, int waiting) {
    writeItem({Item::Kind::Counter, uint8_t(framesDelta != 0), kEventTrack, 0, 0, at, 0,
               framesDelta ? inFlight : waiting});
  });
  if (perfetto_) {
    finishPerfetto(r);
    return;
  }
  meta("thread_name", kEventTrack).open("args").str("name", "frames, counters and events").close();
  emit();
  for (const auto& n : threadNames(r)) {
    meta("thread_name", n.first).open("args").str("name", n.second).close();
    emit();
    meta("thread_sort_index", n.first)
        .open("args")
        .num("sort_index", n.second == "pipeline" ? -1 : n.first)
        .close();
    emit();
  }
  buffer_ += "]}\n";
  flush(true);
}

void TraceClock::see(std::string_view raw) {
  if (found_) return;
  LogLine line;
  if ((!parseLogLine(raw, &line) && !parseLongHeader(raw, &line)) || !line.hasTime) return;
  found_ = true;
  line_ = std::string(raw.substr(0, 64));
  timeNs_ = line.timeNs;
}

TraceOptions TraceClock::options(const std::string& path, int year, int utcOffsetMinutes) const {
  TraceOptions options;
  options.perfetto = pftrace::isPerfettoPath(path);
  options.gzip = !options.perfetto && pftrace::isGzipPath(path);
  if (!found_) return options;
  std::optional<pftrace::CaptureClock> clock =
      pftrace::captureClockOf(line_, timeNs_, year, utcOffsetMinutes);
  if (clock) {
    options.clockId = clock->clockId;
    options.firstStampNs = clock->firstNs;
  }
  return options;
}

Nanos sessionStartNs(const LogReader& reader, const Run& run) {
  // The newest stamp on the run's clock is the file's newest stamp less the session's start.
  Nanos start = -1;
  reader.forEachCurrentRun([&](const Run& r, Nanos newestAt) {
    if (&r == &run) start = reader.clock().last() - newestAt;
  });
  if (start < 0 && !run.captureEndGiven && run.captureEnd > 0) {
    start = reader.clock().last() - run.captureEnd;
  }
  return std::max<Nanos>(start, 0);
}

// The name of an item's slice or instant, made in name_ (as the JSON trace names it).
void TraceWriter::writePerfetto(const Item& it) {
  using K = Item::Kind;
  pftrace::Sequence& seq = perfetto_->sequence();
  std::string* buf = perfetto_->buffer();
  auto number = [this](int64_t v) { appendNumber(v); };
  auto sensorFrame = [&] { appendSensorFrame(it.sensor, it.frame); };
  auto ts = [this](Nanos t) { return uint64_t(std::max<Nanos>(t, 0)) / unitNs_; };
  auto slice = [&](const char* category, bool intern) {
    uint64_t track = perfetto_->threadTrack(processTrack(pid_), pid_, it.tid);
    seq.event(buf, pftrace::kSliceBegin, ts(it.ts), track, category, name_, intern);
    seq.end(buf, ts(it.ts + it.dur), track);
  };
  name_.clear();
  switch (it.kind) {
    case K::Send:
      sensorFrame();
      slice("send", false);
      break;
    // A wait and a job lie inside their send, whose name gives the sensor and frame: their
    // own names repeat, and are interned.
    case K::Wait:
      name_ += it.detail ? "wait isConfig:1" : "wait isConfig:0";
      slice("wait", true);
      break;
    case K::Job:
      name_ += history::jobKindName(history::JobKind(it.detail));
      name_ += " fd:";
      number(it.value);
      slice("job", true);
      break;
    case K::FlowStart:
    case K::FlowEnd: {
      // An instant inside the job on each side carries the arrow.
      pftrace::Sequence::Flow flow{uint64_t(it.value), it.kind == K::FlowEnd};
      uint64_t track = perfetto_->threadTrack(processTrack(pid_), pid_, it.tid);
      seq.event(buf, pftrace::kInstant, ts(it.ts), track, "flow", "releases", true, &flow);
      break;
    }
    case K::FrameBegin: {
      uint64_t track = pftrace::trackUuid(pftrace::TrackKind::Async, it.frame);
      seq.track(buf, track, processTrack(pid_), "frames");
      name_ += "F:";
      number(it.frame);
      seq.event(buf, pftrace::kSliceBegin, ts(it.ts), track, "frame", name_, false);
      break;
    }
    case K::FrameEnd:
      seq.end(buf, ts(it.ts), pftrace::trackUuid(pftrace::TrackKind::Async, it.frame));
      break;
    case K::Event:
      appendEventName(it);
      seq.event(buf, pftrace::kInstant, ts(it.ts), kEventsTrack, "event", name_, false);
      break;
    case K::Counter: seq.counter(buf, ts(it.ts), counterTrack(it.detail != 0), it.value); break;
  }
  perfetto_->written();
}

void TraceWriter::addLogLine(Nanos at, int pid, int tid, char level, std::string_view tag,
                             std::string_view message) {
  if (!takesLogLines()) return;
  logLines_.lines.push_back({at, pid, tid, uint32_t(tag.size()), uint32_t(message.size()), level});
  logLines_.text.append(tag).append(message);
  if (logLines_.lines.size() >= kLogLinesBatch) handLogLines();
}

void TraceWriter::handLogLines() {
  if (!worker_) {
    writeLogLines(logLines_);
  } else {
    worker_->post([this, lines = std::move(logLines_)] { writeLogLines(lines); });
  }
  logLines_ = LogLines();
}

// Packets of a few dozen kilobytes: a viewer reads each whole.
void TraceWriter::writeLogLines(const LogLines& batch) {
  constexpr size_t kPacketBytes = size_t(1) << 15;
  pftrace::Sequence& seq = perfetto_->sequence();
  std::string events;
  size_t offset = 0;
  for (const LogLines::Line& l : batch.lines) {
    std::string_view tag(batch.text.data() + offset, l.tagSize);
    std::string_view message(batch.text.data() + offset + l.tagSize, l.messageSize);
    offset += l.tagSize + l.messageSize;
    pftrace::Sequence::logEvent(&events, logLinesBaseNs_ + uint64_t(std::max<Nanos>(l.at, 0)),
                                l.pid, l.tid, pftrace::logPriority(l.level), tag, message);
    if (events.size() >= kPacketBytes) {
      seq.androidLog(perfetto_->buffer(), events);
      perfetto_->written();
      events.clear();
    }
  }
  if (!events.empty()) {
    seq.androidLog(perfetto_->buffer(), events);
    perfetto_->written();
  }
}

void TraceWriter::finishPerfetto(const Run& r) {
  // Threads are named once the whole capture shows which sensor each serves.
  for (const auto& n : threadNames(r))
    perfetto_->nameThread(processTrack(pid_), pid_, n.first, n.second);
  perfetto_->flush();
}

void writeTrace(std::ostream& out, const Run& r) {
  TraceWriter writer(out, r.pid);
  writer.finish(r);
}

ScenarioWriter::ScenarioWriter(const std::string& prefix) : prefix_(prefix) {
  for (size_t i = 0; i < kLists; ++i) {
    if (prefix_.empty()) {
      lists_[i] = std::make_unique<std::stringstream>();
    } else {
      auto file = std::make_unique<std::fstream>(
          partPath(i), std::ios::in | std::ios::out | std::ios::trunc | std::ios::binary);
      lists_[i] = std::move(file);
    }
  }
}

ScenarioWriter::~ScenarioWriter() {
  if (prefix_.empty()) return;
  for (size_t i = 0; i < kLists; ++i) {
    lists_[i].reset();
    std::remove(partPath(i).c_str());
  }
}

std::string ScenarioWriter::partPath(size_t list) const {
  static const char* const kNames[kLists] = {"syncGroups", "configure", "rawSwitches", "events"};
  return prefix_ + "." + kNames[list] + ".part";
}

void ScenarioWriter::item(size_t list, const nlohmann::json& value) {
  *lists_[list] << (counts_[list]++ ? ",\n" : "") << value.dump();
}

// The frame at which a replay reports an event. A client reports a flush or an in-flight
// report with any frame number (the protocol's form is 0); what places it in the stream is
// the frames it took or named: the replay reports it at a barrier before the first of them
// (or at its own frame number, when that comes no later). One reported with frame 0 that took
// nothing changed nothing and is not replayed.
std::optional<uint32_t> ScenarioWriter::replayFrame(const history::EventRecord& e) {
  bool barrier = e.kind == history::EventKind::Flush || e.kind == history::EventKind::QueueFlush ||
                 (e.kind == history::EventKind::InformInflight && e.value == 0);
  if (!barrier) return e.frame;
  if (e.frames.empty()) return e.frame != 0 ? std::optional<uint32_t>(e.frame) : std::nullopt;
  uint32_t first = *std::min_element(e.frames.begin(), e.frames.end());
  return e.frame != 0 && e.frame <= first ? e.frame : first;
}

void ScenarioWriter::add(const Run& r, const history::History& part) {
  using json = nlohmann::json;
  for (const history::FramePlan& p : part.plans) {
    if (!planned_) first_ = p.frame;
    first_ = std::min(first_, p.frame);
    last_ = planned_ ? std::max(last_, p.frame) : p.frame;
    planned_ = true;
    // Frame interval: the gaps between first prepares of consecutive frames.
    auto fi = r.frames.find(p.frame);
    if (fi != r.frames.end()) {
      if (havePrevSeen_) gaps_.add(fi->second.firstSeen - prevSeen_);
      prevSeen_ = fi->second.firstSeen;
      havePrevSeen_ = true;
      inFlight_.add(fi->second.firstSeen, 1, 0);
      if (fi->second.retired) inFlight_.add(fi->second.retiredAt, -1, 0);
    }
    // A sensor that first appears as the "on" side of a raw switch does not stream at first.
    for (uint32_t s : p.sensors) firstFrame_.emplace(s, p.frame);
    if (p.isRawSwitch() && p.onSensor >= 0 && firstFrame_[uint32_t(p.onSensor)] == p.frame &&
        p.frame != first_) {
      joinsBySwitch_.insert(uint32_t(p.onSensor));
    }
    std::set<uint32_t> bySet;
    for (uint32_t s : p.needCfg) {
      if (!p.cfgByJob.count(s)) bySet.insert(s);
    }
    if (!p.cfgByJob.empty()) {
      item(kConfigure, {{"frame", p.frame}, {"sensors", p.cfgByJob}, {"via", "job"}});
    }
    if (!bySet.empty()) {
      item(kConfigure, {{"frame", p.frame}, {"sensors", bySet}, {"via", "setConfigured"}});
    }
    if (p.isRawSwitch() && p.onSensor >= 0) {
      item(kRawSwitches, {{"frame", p.frame}, {"off", p.offSensor}, {"on", p.onSensor}});
    }
    // Sync groups, one plan behind: a configure frame shows no shared FD and takes the group
    // of a neighbouring frame when all of that group takes part.
    if (pending_) group(*pending_, &p);
    pending_ = p;
  }
  std::set<uint32_t> frames;
  for (const history::FramePlan& p : part.plans) frames.insert(p.frame);
  auto highest = [this](Nanos, int, int, int inFlight, int) {
    maxInFlight_ = std::max(maxInFlight_, inFlight);
  };
  inFlight_.release(r, frames, highest);
  for (const history::JobRecord& j : part.jobs) {
    if (!j.ran || j.end < j.start) continue;
    Durations& d = durations_[j.sensor];
    double x = double(j.end - j.start) / 1000.0;
    ++d.n;
    d.sum += x;
    d.sumSquares += x * x;
  }
  // By frame, in the order they came within one frame.
  std::vector<std::pair<uint32_t, const history::EventRecord*>> events;
  for (const history::EventRecord& e : part.events) {
    std::optional<uint32_t> at = replayFrame(e);
    if (at) events.emplace_back(*at, &e);
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  for (const auto& [frame, event] : events) {
    const history::EventRecord& e = *event;
    if (e.kind == history::EventKind::QueueFlush) continue;
    // The sensors' flushes of one frame were one flush of the stream.
    if (e.kind == history::EventKind::Flush && !flushedFrames_.insert(frame).second) continue;
    json ev = {{"frame", frame}, {"type", history::eventKindName(e.kind)}, {"sensor", e.sensor}};
    if (e.kind == history::EventKind::InformInflight || e.value != 0) ev["value"] = e.value;
    item(kEvents, ev);
  }
}

void ScenarioWriter::group(const history::FramePlan& p, const history::FramePlan* next) {
  auto allIn = [&p](const std::set<uint32_t>& group) {
    return std::all_of(group.begin(), group.end(), [&](uint32_t s) {
      return std::find(p.sensors.begin(), p.sensors.end(), s) != p.sensors.end();
    });
  };
  std::set<uint32_t> list = p.syncList;
  if (list.empty() && !p.needCfg.empty()) {
    if (!previousList_.empty() && allIn(previousList_)) {
      list = previousList_;
    } else if (next && !next->syncList.empty() && allIn(next->syncList)) {
      list = next->syncList;
    }
  }
  previousList_ = list;
  if (grouping_ && list == current_ && p.frame == to_ + 1) {
    to_ = p.frame;
    return;
  }
  closeGroup();
  current_ = list;
  from_ = to_ = p.frame;
  grouping_ = true;
}

void ScenarioWriter::closeGroup() {
  if (grouping_ && current_.size() >= 2) {
    item(kSyncGroups, {{"sensors", current_}, {"fromFrame", from_}, {"toFrame", to_}});
  }
}

bool ScenarioWriter::finish(const Run& r, std::ostream& out) {
  using json = nlohmann::json;
  add(r, unsettledPart(r));
  if (pending_) group(*pending_, nullptr);
  pending_.reset();
  closeGroup();
  grouping_ = false;
  if (!planned_) {
    out << "{}\n";
    return bool(out);
  }
  json root;
  root["description"] = "Replays the frames of process " + std::to_string(r.pid) +
                        " as camdeliver-log rebuilt them from its log.";
  root["firstFrame"] = first_;
  root["frames"] = last_ - first_ + 1;
  int64_t interval = gaps_.count() ? gaps_.percentile(0.5) / 1000 : 1000;
  root["frameIntervalUs"] = std::min<int64_t>(std::max<int64_t>(interval, 100), 1000000);
  // Frames in flight at once: prepared, not yet retired.
  inFlight_.releaseBefore(INT64_MAX, [this](Nanos, int, int, int inFlight, int) {
    maxInFlight_ = std::max(maxInFlight_, inFlight);
  });
  root["maxInFlight"] =
      std::min(maxInFlight_, int(NSCam::camsys::camcoordinator::kPreparationWindow) - 1);
  // Job durations per sensor, fitted as a normal distribution.
  std::set<uint32_t> sensors = r.sensorsSeen;
  for (uint32_t s : sensors) {
    json cam = {{"id", s}};
    if (joinsBySwitch_.count(s)) cam["streaming"] = false;
    auto d = durations_.find(s);
    if (d != durations_.end() && d->second.n > 0) {
      double n = double(d->second.n);
      double mean = d->second.sum / n;
      double sd = std::sqrt(std::max(0.0, d->second.sumSquares / n - mean * mean));
      cam["jobDuration"] = {{"distribution", "normal"},
                            {"meanUs", std::min(std::round(mean), 1e6)},
                            {"stddevUs", std::min(std::round(sd), 1e6)}};
    }
    root["sensors"].push_back(cam);
  }
  std::string head = root.dump(2);
  head.resize(head.rfind('}'));
  while (!head.empty() && (head.back() == '\n' || head.back() == ' ')) head.pop_back();
  out << head;
  // A list whose file could not be written fails the whole scenario.
  bool written = std::none_of(std::begin(lists_), std::end(lists_),
                              [](const std::unique_ptr<std::iostream>& l) { return l->fail(); });
  static const char* const kKeys[kLists] = {"syncGroups", "configure", "rawSwitches", "events"};
  for (size_t i = 0; i < kLists; ++i) {
    if (counts_[i] == 0) continue;
    out << ",\n  \"" << kKeys[i] << "\": [\n";
    std::iostream& list = *lists_[i];
    list.flush();
    list.seekg(0);
    std::string line;
    bool firstItem = true;
    while (std::getline(list, line)) {
      if (!line.empty() && line.back() == ',') line.pop_back();
      // Events of frames outside the replayed range are left out.
      if (i == kEvents) {
        uint32_t f = json::parse(line)["frame"].get<uint32_t>();
        if (f < first_ || f > last_) continue;
      }
      out << (firstItem ? "    " : ",\n    ") << line;
      firstItem = false;
    }
    out << "\n  ]";
  }
  out << "\n}\n";
  return written && bool(out);
}

void writeScenario(std::ostream& out, const Run& r) {
  ScenarioWriter writer("");
  writer.finish(r, out);
}

}  // namespace log
}  // namespace orvcam
