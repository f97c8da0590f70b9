// Settling: the frames no later line can change leave the window as a part of the history,
// checked against the frames around them, and the report's records are kept in order.
#include "logread/LogReader.h"

#include <algorithm>
#include <iterator>

namespace orvcam {
namespace logread {

using namespace history;

namespace {

// The plan of a frame some sensor prepared or dropped. Sync lists come from the frame
// descriptors the enqueue licences were first given: sensors sharing one FD on a frame
// without configuration were one sync group.
void appendPlan(const Run& r, const FrameInfo& fi, std::vector<history::FramePlan>* plans) {
  history::FramePlan plan;
  plan.frame = fi.frame;
  plan.sensors.assign(fi.sensors.begin(), fi.sensors.end());
  for (uint32_t s : fi.needCfg) {
    if (fi.sensors.count(s)) plan.needCfg.insert(s);
  }
  for (uint32_t s : fi.cfgByJob) {
    if (fi.sensors.count(s)) plan.cfgByJob.insert(s);
  }
  if (plan.needCfg.empty()) {
    std::vector<std::pair<int32_t, uint32_t>> byFd;  // (FD, sensor), few per frame
    for (uint32_t s : fi.sensors) {
      const SensorFrame* st = findState(r, s, fi.frame);
      if (st && st->firstFd >= 0) byFd.emplace_back(st->firstFd, s);
    }
    std::sort(byFd.begin(), byFd.end());
    for (size_t i = 0; i < byFd.size(); ++i) {
      bool shared = (i > 0 && byFd[i - 1].first == byFd[i].first) ||
                    (i + 1 < byFd.size() && byFd[i + 1].first == byFd[i].first);
      if (shared) plan.syncList.insert(byFd[i].second);
    }
  }
  if (fi.offSensor >= 0) {
    plan.offSensor = fi.offSensor;
    // The sensor coming on: one of the frame's others that was not in the frame before.
    const history::FramePlan* before = plans->empty() ? nullptr : &plans->back();
    for (uint32_t s : fi.sensors) {
      if (int64_t(s) == fi.offSensor) continue;
      bool was = before && std::find(before->sensors.begin(), before->sensors.end(), s) !=
                               before->sensors.end();
      if (plan.onSensor < 0 || !was) plan.onSensor = s;
      if (!was) break;
    }
  }
  plans->push_back(std::move(plan));
}

// The jobs of a sensor's frame. A log that begins mid-stream shows jobs of frames prepared
// before its first line; without their prepare they cannot be put in order, so they are left
// out (and counted by accumulate()).
void appendJobs(const Run& r, const SensorFrame& st, std::vector<history::JobRecord>* jobs) {
  if (!st.prepared) return;
  if (st.cfgSent) {
    history::JobRecord j;
    j.sensor = st.sensor;
    j.frame = st.frame;
    j.kind = history::JobKind::Configure;
    j.sent = st.cfgSentAt;
    j.start = st.cfgStarted ? st.cfgStart : 0;
    j.end = st.cfgDone ? st.cfgEnd : (st.cfgStarted ? st.cfgStart : r.endAt);
    j.ran = st.cfgStarted;
    j.fd = st.cfgFd;
    j.startLost = st.cfgStartLost;
    jobs->push_back(j);
  }
  if (st.enqStarted || st.enqNull) {
    history::JobRecord j;
    j.sensor = st.sensor;
    j.frame = st.frame;
    j.kind = history::JobKind::Enqueue;
    j.sent = st.enqSentAt;
    j.ran = st.enqStarted;
    j.start = st.enqStarted ? st.enqStart : 0;
    j.end = st.enqDone ? st.enqEnd : (st.enqStarted ? st.enqStart : st.enqEnd);
    j.result = st.enqNull ? -1 : 0;
    j.fd = st.enqFd;
    j.startLost = st.enqStartLost;
    j.sentLate = !st.enqSentSeen;
    jobs->push_back(j);
  }
}

// Adds a frame's figures to the session's totals; once per frame, when it settles or at the
// end.
void accumulate(Run& r, const FrameInfo& fi) {
  std::vector<std::pair<int32_t, uint32_t>> byFd;  // (enqueue FD, sensor)
  for (uint32_t s : r.sensorsSeen) {
    const SensorFrame* st = findState(r, s, fi.frame);
    if (!st) continue;
    SensorTotals& t = r.totals[s];
    if (st->prepared) {
      // A job whose start line was lost counts; its wait and run time are not known.
      if (st->cfgSent && st->cfgStarted) {
        ++t.configured;
        if (!st->cfgStartLost) t.waits.add(st->cfgStart - st->cfgSentAt);
      }
      if (st->enqStarted) {
        ++t.enqueued;
        if (!st->enqStartLost) t.waits.add(st->enqStart - st->enqSentAt);
      }
    } else if (st->cfgSent || st->enqStarted || st->enqNull) {
      ++r.unpreparedJobs;
    }
    if (st->flushed && fi.sensors.count(s)) ++t.flushed;
    if (st->enqFd >= 0) {
      t.addFd(st->enqFd);
      byFd.emplace_back(st->enqFd, s);
    }
    if (st->cfgFd >= 0) t.addFd(st->cfgFd);
    if (!st->enqStartLost) {
      if (st->enqStarted && (st->enqSentSeen || st->enqWaitSeen)) {
        r.stallWaits.add(st->enqStart - st->enqSentAt);
      }
      if (st->enqDone && st->enqStarted) r.jobTimes.add(st->enqEnd - st->enqStart);
    }
    if (st->cfgDone && st->cfgStarted && !st->cfgStartLost) {
      r.jobTimes.add(st->cfgEnd - st->cfgStart);
    }
  }
  std::sort(byFd.begin(), byFd.end());
  for (size_t i = 0; i < byFd.size(); ++i) {
    bool shared = (i > 0 && byFd[i - 1].first == byFd[i].first) ||
                  (i + 1 < byFd.size() && byFd[i + 1].first == byFd[i].first);
    if (shared) ++r.totals[byFd[i].second].sharedFrames;
  }
}

// The history of `frames` (ascending, all in memory), with `context` among them marked as
// context: plans, jobs, and the prepares and setConfigured reports of those frames; every
// event still held.
history::History historyOf(const Run& r, const std::vector<uint32_t>& frames,
                           const std::set<uint32_t>& context) {
  const history::History& held = r.history;
  history::History h;
  h.sensors.assign(r.sensorsSeen.begin(), r.sensorsSeen.end());
  h.contextFrames = context;
  auto among = [&](uint32_t f) { return std::binary_search(frames.begin(), frames.end(), f); };
  h.plans.reserve(frames.size());
  for (uint32_t f : frames) {
    const FrameInfo& fi = r.frames.at(f);
    if (!fi.sensors.empty()) appendPlan(r, fi, &h.plans);
  }
  for (uint32_t f : frames) {
    for (uint32_t s : r.sensorsSeen) {
      if (const SensorFrame* st = findState(r, s, f)) appendJobs(r, *st, &h.jobs);
    }
  }
  std::stable_sort(
      h.jobs.begin(), h.jobs.end(),
      [](const history::JobRecord& a, const history::JobRecord& b) { return a.sent < b.sent; });
  for (const history::PrepareRecord& p : held.prepares) {
    if (among(p.frame)) h.prepares.push_back(p);
  }
  for (const history::SetConfiguredRecord& p : held.setConfigured) {
    if (among(p.frame)) h.setConfigured.push_back(p);
  }
  h.events = held.events;
  h.wallTime = r.endAt;
  h.stampTick = r.stampTick;
  h.linesLost = r.lostLines;
  h.unsupportedRules["licence"] =
      "rebuilt from a log: the log has no licence identities, only the FDs jobs were given";
  h.unsupportedRules["pool"] =
      "rebuilt from a log: the log does not show what the frame pool held at the end";
  return h;
}

// A frame that can leave memory: retired (or long overtaken by every sensor), with no send
// waiting and no job running.
bool settled(const Run& r, const FrameInfo& fi, bool stale) {
  if (!fi.retired && !stale && !fi.sensors.empty()) return false;
  for (uint32_t s : r.sensorsSeen) {
    const SensorFrame* st = findState(r, s, fi.frame);
    if (!st) continue;
    if (st->cfgBlocked() || st->enqBlocked()) return false;
    bool cfgRunning = st->cfgStarted && !st->cfgDone;
    bool enqRunning = st->enqStarted && !st->enqDone && !st->dropped && !st->flushed;
    if (!stale && (cfgRunning || enqRunning)) return false;
  }
  return true;
}

}  // namespace

void dropInFlightDeliveries(const Run& r, std::vector<check::Violation>* violations) {
  auto inFlight = [&r](const check::Violation& v) {
    if (v.rule != "delivery") return false;
    unsigned s = 0, f = 0;
    if (std::sscanf(v.message.c_str(), "S:%u F:%u", &s, &f) != 2) return false;
    auto fi = r.frames.find(f);
    if (fi == r.frames.end() || fi->second.retired) return false;
    for (uint32_t x : fi->second.sensors) {
      const SensorFrame* p = findState(r, x, f);
      if (!p || !p->done()) return true;
    }
    return false;
  };
  violations->erase(std::remove_if(violations->begin(), violations->end(), inFlight),
                    violations->end());
}

void LogReader::maybeSettle(Context& c) {
  Run& r = c.run;
  if (window_ == 0 || r.frames.size() - r.context.size() <= window_ ||
      r.frames.size() < c.nextSettleAt) {
    return;
  }
  auto end = r.frames.lower_bound(kNoFrame);
  if (end == r.frames.begin()) return;
  uint32_t newest = std::prev(end)->first;
  size_t live = r.frames.size() - r.context.size();
  size_t want = live - window_ / 4;
  // Oldest first; a frame still open stops the scan unless every sensor has long gone past
  // it (a lost line, a stalled sensor), in which case it stays and the scan goes on.
  std::vector<uint32_t> batch;
  for (auto it = r.frames.begin(); it != end && batch.size() < want; ++it) {
    if (r.context.count(it->first)) continue;
    bool stale = newest - it->first > std::max<size_t>(4 * window_, kStaleFrames);
    if (settled(r, it->second, stale)) {
      batch.push_back(it->first);
    } else if (!stale) {
      break;
    }
  }
  if (!batch.empty()) settle(c, batch);
  c.nextSettleAt = r.frames.size() + std::max<size_t>(1, window_ / 8);
}

namespace {

// Checks a settled part (with its context) and adds what it breaks to the run's settled check.
void checkSettled(Run& r, const history::History& chunk) {
  // Whether a breach resting on an absent line counts is decided at the end, once it is
  // known whether the log lost lines.
  check::CheckResult res = check::checkHistory(chunk, {/*absentApart=*/true});
  dropInFlightDeliveries(r, &res.violations);
  dropInFlightDeliveries(r, &res.absent);
  check::CheckResult& all = r.settledCheck;
  for (check::Violation& v : res.violations) all.violations.push_back(std::move(v));
  for (check::Violation& v : res.notes) all.notes.push_back(std::move(v));
  for (check::Violation& v : res.sameStamp) all.sameStamp.push_back(std::move(v));
  for (check::Violation& v : res.absent) all.absent.push_back(std::move(v));
  all.skipped.insert(res.skipped.begin(), res.skipped.end());
  all.jobsChecked += res.jobsChecked;
  all.startsLost += res.startsLost;
}

// Of the settled frames `done` (ascending), those kept in memory as context: the newest, and
// each sensor's latest prepared one.
std::set<uint32_t> contextAfter(const Run& r, const std::vector<uint32_t>& done, size_t newest) {
  std::set<uint32_t> keep(done.end() - long(std::min(done.size(), newest)), done.end());
  for (uint32_t s : r.sensorsSeen) {
    for (auto it = done.rbegin(); it != done.rend(); ++it) {
      const SensorFrame* st = findState(r, s, *it);
      if (st && st->prepared) {
        keep.insert(*it);
        break;
      }
    }
  }
  return keep;
}

// Moves the events that name only frames leaving memory to `gone`. An event stays while a
// frame it names is held or a thread's later lines may add to it (`lastEvent`, whose indexes
// follow the events that stay).
template <typename GoneFrame>
void splitEvents(history::History& h, std::map<int, size_t>& lastEvent, GoneFrame goneFrame,
                 std::vector<history::EventRecord>* gone) {
  std::set<size_t> open;
  for (const auto& e : lastEvent) open.insert(e.second);
  std::vector<history::EventRecord> events;
  std::map<size_t, size_t> moved;
  for (size_t i = 0; i < h.events.size(); ++i) {
    history::EventRecord& e = h.events[i];
    bool held =
        open.count(i) || (e.frame != kNoFrame && !goneFrame(e.frame)) ||
        std::any_of(e.frames.begin(), e.frames.end(), [&](uint32_t f) { return !goneFrame(f); });
    if (!held) {
      gone->push_back(std::move(e));
      continue;
    }
    moved[i] = events.size();
    events.push_back(std::move(e));
  }
  h.events = std::move(events);
  for (auto& e : lastEvent) e.second = moved.at(e.second);
}

}  // namespace

void LogReader::settle(Context& c, const std::vector<uint32_t>& batch) {
  Run& r = c.run;
  // Checked with every frame in memory up to the batch's last: the context, and frames kept
  // open below it.
  std::vector<uint32_t> frames;
  std::set<uint32_t> context;
  for (auto it = r.frames.begin(); it != r.frames.end() && it->first <= batch.back(); ++it) {
    frames.push_back(it->first);
    if (!std::binary_search(batch.begin(), batch.end(), it->first)) context.insert(it->first);
  }
  history::History chunk = historyOf(r, frames, context);
  if (r.debugLines > 0) checkSettled(r, chunk);
  for (uint32_t f : batch) accumulate(r, r.frames.at(f));
  r.settledFrames += batch.size();
  r.settledUpTo = std::max<int64_t>(r.settledUpTo, batch.back());

  std::vector<uint32_t> done(r.context.begin(), r.context.end());
  done.insert(done.end(), batch.begin(), batch.end());
  std::sort(done.begin(), done.end());
  std::set<uint32_t> keep = contextAfter(r, done, kContextFrames);
  std::set<uint32_t> leaving;
  for (uint32_t f : done) {
    if (!keep.count(f)) leaving.insert(f);
  }

  // What refers only to frames that leave memory goes with them: given to the listener with
  // the settled frames' plans and jobs, while their states can still be looked up.
  auto goneFrame = [&](uint32_t f) {
    return f != kNoFrame && (leaving.count(f) || !r.frames.count(f));
  };
  history::History part;
  part.plans.reserve(batch.size());
  part.jobs.reserve(chunk.jobs.size());
  for (history::FramePlan& p : chunk.plans) {
    if (!context.count(p.frame)) part.plans.push_back(std::move(p));
  }
  for (history::JobRecord& j : chunk.jobs) {
    if (!context.count(j.frame)) part.jobs.push_back(j);
  }
  history::History& h = r.history;
  auto split = [&](auto& held, auto& gone) {
    auto kept = std::stable_partition(held.begin(), held.end(),
                                      [&](const auto& p) { return !goneFrame(p.frame); });
    gone.assign(kept, held.end());
    held.erase(kept, held.end());
  };
  split(h.prepares, part.prepares);
  split(h.setConfigured, part.setConfigured);
  splitEvents(h, c.lastEvent, goneFrame, &part.events);
  if (listener_) listener_(r, std::move(part));

  for (uint32_t f : leaving) {
    c.stateCache = {};
    for (uint32_t s : r.sensorsSeen) r.states.erase({s, f});
    r.frames.erase(f);
  }
  r.context = std::move(keep);
  for (auto& seq : r.sequence) {
    auto& v = seq.second;
    v.erase(std::remove_if(v.begin(), v.end(), goneFrame), v.end());
  }
}

history::History unsettledPart(const Run& r) {
  history::History part = r.history;
  auto inContext = [&r](uint32_t f) { return r.context.count(f) > 0; };
  part.plans.erase(std::remove_if(part.plans.begin(), part.plans.end(),
                                  [&](const history::FramePlan& p) { return inContext(p.frame); }),
                   part.plans.end());
  part.jobs.erase(std::remove_if(part.jobs.begin(), part.jobs.end(),
                                 [&](const history::JobRecord& j) { return inContext(j.frame); }),
                  part.jobs.end());
  part.contextFrames.clear();
  return part;
}

std::vector<Run> LogReader::finish() {
  std::vector<Run> out;
  std::map<int, int> sessions;  // pid -> sessions in the log
  for (const Context& c : contexts_)
    sessions[c.run.pid] = std::max(sessions[c.run.pid], c.run.session);
  for (Context& c : contexts_) {
    Run& r = c.run;
    int pid = r.pid;
    std::vector<uint32_t> frames;
    for (const auto& entry : r.frames) {
      frames.push_back(entry.first);
      if (!r.context.count(entry.first)) accumulate(r, entry.second);
    }
    r.history = historyOf(r, frames, r.context);
    history::History& h = r.history;
    h.scenario = "log of process " + std::to_string(pid) +
                 (sessions[pid] > 1 ? ", session " + std::to_string(r.session) : std::string());
    r.captureEnd = newestAt(c);
    if (captureEnd_ && c.baseNs >= 0) {
      Nanos given = captureEnd_->relative ? r.captureEnd + captureEnd_->afterNs
                                          : clock_.timeOf(captureEnd_->stampNs) - c.baseNs;
      r.captureEndGiven = given > r.captureEnd;
      r.captureEnd = std::max(r.captureEnd, given);
    }
    out.push_back(std::move(r));
  }
  contexts_.clear();
  current_.clear();
  previous_.clear();
  return out;
}

const SensorFrame* findState(const Run& r, uint32_t sensor, uint32_t frame) {
  auto it = r.states.find({sensor, frame});
  return it == r.states.end() ? nullptr : &it->second;
}

std::vector<const SensorFrame*> statesInOrder(const Run& run) {
  std::vector<const SensorFrame*> out;
  out.reserve(run.states.size());
  for (const auto& entry : run.states) out.push_back(&entry.second);
  std::sort(out.begin(), out.end(), [](const SensorFrame* a, const SensorFrame* b) {
    return std::make_pair(a->sensor, a->frame) < std::make_pair(b->sensor, b->frame);
  });
  return out;
}

}  // namespace logread
}  // namespace orvcam
