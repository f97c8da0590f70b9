// The camdeliver-sim scenario that replays a log's frames, sync groups and events.
#include "log/LogReport.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

namespace orvcam {
namespace log {

using namespace logread;
using namespace history;
using namespace base;

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
