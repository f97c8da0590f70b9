#include "client/RandomScenario.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

namespace orvcam {
namespace client {

using namespace history;

using json = nlohmann::json;

namespace {

// Parses `j`; while the parser names a top-level list element as the culprit, removes that
// element and tries again. Empty when the scenario cannot be repaired that way.
bool repairAndParse(json j, const std::string& name, Scenario* out) {
  for (int attempt = 0; attempt < 200; ++attempt) {
    ScenarioError error;
    if (parseScenario(j.dump(), name, out, &error)) return true;
    const std::string& field = error.field;
    size_t open = field.find('[');
    size_t close = field.find(']');
    if (open == std::string::npos || close == std::string::npos || open == 0) return false;
    std::string list = field.substr(0, open);
    if (list == "sensors" || !j.contains(list)) return false;
    size_t index = std::stoul(field.substr(open + 1, close - open - 1));
    if (index >= j[list].size()) return false;
    j[list].erase(index);
    if (j[list].empty()) j.erase(list);
  }
  return false;
}

class Generator {
 public:
  Generator(uint64_t seed, uint64_t index, const RandomLimits& limits)
      : rng_(seed * 0x9E3779B97F4A7C15ull ^ (index + 1) * 0xC2B2AE3D27D4EB4Full),
        limits_(limits),
        seed_(seed),
        index_(index) {}

  Scenario make() {
    Scenario s;
    s.description =
        "random scenario " + std::to_string(index_) + " of seed " + std::to_string(seed_);
    s.frames = chance(0.15) ? uniform(40, 120) : uniform(1, 40);
    s.firstFrame = chance(0.2) ? uniform(0, 100000) : 1;
    static const uint32_t intervals[] = {0, 0, 20, 100, 300, 1000};
    s.frameIntervalUs = pick(intervals);
    s.maxInFlight = chance(0.3) ? uniform(1, 4) : uniform(1, kMaxInFlight);
    s.seed = rng_();
    s.jobDuration = duration();
    uint32_t n = uniform(1, std::max<uint32_t>(1, std::min<uint32_t>(6, limits_.maxSensors)));
    std::vector<uint32_t> idList = addSensors(s, n);
    rawSwitches(s);
    addSyncGroups(s, idList);
    addSkips(s, idList);
    std::vector<FramePlan> plans = planFrames(s);
    addConfigure(s, plans);
    events(s, plans);
    addNoFrameSends(s, plans);
    s.earlySends = chance(0.5);
    addGaps(s);
    return finish(s);
  }

 private:
  // The sensors, with their ids in a random order (the first always streams).
  std::vector<uint32_t> addSensors(Scenario& s, uint32_t n) {
    std::set<uint32_t> ids;
    while (ids.size() < n) ids.insert(chance(0.5) ? uniform(0, 7) : uniform(0, 255));
    std::vector<uint32_t> idList(ids.begin(), ids.end());
    std::shuffle(idList.begin(), idList.end(), rng_);
    for (size_t i = 0; i < idList.size(); ++i) {
      SensorSetup cam;
      cam.id = idList[i];
      cam.streaming = i == 0 || chance(0.6);
      if (chance(0.2)) {
        cam.hasOwnDuration = true;
        cam.jobDuration = duration();
      }
      s.sensors.push_back(cam);
    }
    return idList;
  }

  void addSyncGroups(Scenario& s, const std::vector<uint32_t>& idList) {
    uint32_t n = uint32_t(idList.size());
    for (uint32_t g = uniform(0, 3); g > 0 && n >= 2; --g) {
      SyncGroupSetup group;
      std::vector<uint32_t> members = idList;
      std::shuffle(members.begin(), members.end(), rng_);
      members.resize(uniform(2, n));
      std::sort(members.begin(), members.end());
      group.sensors = members;
      group.fromFrame = frame(s);
      group.toFrame = std::max(group.fromFrame, frame(s));
      if (chance(0.4)) {
        group.fromFrame = s.firstFrame;
        group.toFrame = s.lastFrame();
      }
      s.syncGroups.push_back(group);
    }
  }

  void addSkips(Scenario& s, const std::vector<uint32_t>& idList) {
    uint32_t n = uint32_t(idList.size());
    for (uint32_t k = chance(0.5) ? uniform(1, 3) : 0; k > 0; --k) {
      SkipSetup skip;
      skip.sensor = idList[uniform(0, n - 1)];
      skip.frame = frame(s);
      s.skips.push_back(skip);
    }
  }

  void addConfigure(Scenario& s, const std::vector<FramePlan>& plans) {
    for (uint32_t k = chance(0.6) ? uniform(1, 4) : 0; k > 0; --k) {
      ConfigureSetup c;
      c.frame = chance(0.2) ? s.firstFrame : frame(s);
      const FramePlan& p = plans[planIndex(plans, c.frame)];
      if (p.sensors.empty()) continue;
      if (chance(0.5)) c.sensors = {p.sensors[uniform(0, p.sensors.size() - 1)]};
      c.viaJob = chance(0.6);
      s.configure.push_back(c);
    }
  }

  void addNoFrameSends(Scenario& s, const std::vector<FramePlan>& plans) {
    for (uint32_t k = chance(0.3) ? uniform(1, 3) : 0; k > 0; --k) {
      const FramePlan& p = plans[planIndex(plans, frame(s))];
      if (p.sensors.empty()) continue;
      s.noFrameSends.push_back({p.sensors[uniform(0, p.sensors.size() - 1)], p.frame});
    }
  }

  void addGaps(Scenario& s) {
    // Gaps come last: the parser refuses what refers to them and the repair below removes it.
    for (uint32_t k = chance(0.2) && s.frames > 2 ? uniform(1, 3) : 0; k > 0; --k) {
      uint32_t f = s.firstFrame + uniform(1, s.frames - 2);
      if (std::find(s.gaps.begin(), s.gaps.end(), f) == s.gaps.end()) s.gaps.push_back(f);
    }
  }

  // The scenario as the parser takes it, repaired where a random choice broke a rule.
  Scenario finish(Scenario& s) {
    Scenario parsed;
    std::string name = "random-" + std::to_string(seed_) + "-" + std::to_string(index_);
    if (repairAndParse(json::parse(scenarioToJson(s)), name, &parsed)) return parsed;
    // Fall back to the bare scenario without lists (always valid).
    s.syncGroups.clear();
    s.configure.clear();
    s.rawSwitches.clear();
    s.events.clear();
    s.skips.clear();
    s.noFrameSends.clear();
    s.gaps.clear();
    for (auto& cam : s.sensors) cam.streaming = true;
    ScenarioError error;
    parseScenario(scenarioToJson(s), name, &parsed, &error);
    return parsed;
  }

  uint32_t uniform(uint64_t lo, uint64_t hi) {
    return uint32_t(std::uniform_int_distribution<uint64_t>(lo, hi)(rng_));
  }
  bool chance(double p) { return std::bernoulli_distribution(p)(rng_); }
  template <typename T, size_t N>
  T pick(const T (&items)[N]) {
    return items[uniform(0, N - 1)];
  }
  uint32_t frame(const Scenario& s) { return s.firstFrame + uniform(0, s.frames - 1); }

  DurationModel duration() {
    DurationModel d;
    switch (uniform(0, 5)) {
      case 0:
        d.kind = DurationModel::Kind::Fixed;
        d.a = 0;
        break;
      case 1:
        d.kind = DurationModel::Kind::Fixed;
        d.a = uniform(1, 300);
        break;
      case 2:
        d.kind = DurationModel::Kind::Uniform;
        d.a = uniform(0, 100);
        d.b = d.a + uniform(0, 400);
        break;
      case 3:
        d.kind = DurationModel::Kind::Normal;
        d.a = uniform(0, 300);
        d.b = uniform(0, 200);
        break;
      default:  // heavy tail
        d.kind = DurationModel::Kind::Exponential;
        d.a = uniform(0, 250);
        break;
    }
    return d;
  }

  void rawSwitches(Scenario& s) {
    std::set<uint32_t> active, idle;
    for (const auto& cam : s.sensors) (cam.streaming ? active : idle).insert(cam.id);
    if (idle.empty() && s.sensors.size() < 2) return;
    uint32_t f = s.firstFrame;
    while (f <= s.lastFrame()) {
      // Sometimes several switches close together.
      f += chance(0.3) ? uniform(0, 2) : uniform(1, std::max<uint32_t>(2, s.frames / 2));
      if (f > s.lastFrame() || idle.empty() || active.empty()) break;
      if (chance(0.3) && f != s.firstFrame) continue;
      std::vector<uint32_t> a(active.begin(), active.end()), b(idle.begin(), idle.end());
      RawSwitchSetup r;
      r.frame = f;
      r.off = a[uniform(0, a.size() - 1)];
      r.on = b[uniform(0, b.size() - 1)];
      active.erase(r.off);
      idle.insert(r.off);
      idle.erase(r.on);
      active.insert(r.on);
      s.rawSwitches.push_back(r);
      ++f;
    }
  }

  void events(Scenario& s, const std::vector<FramePlan>& plans) {
    uint32_t count = chance(0.2) ? 0 : uniform(1, 8);
    for (uint32_t k = 0; k < count; ++k) {
      PlannedEvent e;
      uint32_t f = chance(0.1) ? s.firstFrame : chance(0.1) ? s.lastFrame() : frame(s);
      const FramePlan& p = plans[planIndex(plans, f)];
      if (p.sensors.empty()) continue;
      e.frame = f;
      e.sensor = p.sensors[uniform(0, p.sensors.size() - 1)];
      switch (uniform(0, 9)) {
        case 0:
        case 1:
        case 2: {
          e.kind = EventKind::Drop;
          static const EventTiming timings[] = {EventTiming::Usual, EventTiming::BeforeConfigure,
                                                EventTiming::Racing, EventTiming::Late};
          e.when = pick(timings);
          break;
        }
        case 3: e.kind = EventKind::Flush; break;
        case 4:
        case 5:
          e.kind = EventKind::InformInflight;
          e.value = chance(0.2) ? uniform(1, 5) : 0;
          if (e.value == 0 && chance(0.6)) e.when = EventTiming::WhileRunning;
          break;
        default: {
          static const EventKind logged[] = {EventKind::ResumeDone, EventKind::Suspend,
                                             EventKind::LicenseRelease, EventKind::RawSwitch};
          e.kind = pick(logged);
          e.value = uniform(0, 3);
          break;
        }
      }
      s.events.push_back(e);
    }
  }

  std::mt19937_64 rng_;
  RandomLimits limits_;
  uint64_t seed_;
  uint64_t index_;
};

template <typename T>
void eachWithout(const Scenario& s, std::vector<T> Scenario::*list, std::vector<Scenario>* out) {
  for (size_t i = 0; i < (s.*list).size(); ++i) {
    Scenario c = s;
    (c.*list).erase((c.*list).begin() + long(i));
    out->push_back(c);
  }
}

}  // namespace

Scenario randomScenario(uint64_t seed, uint64_t index, const RandomLimits& limits) {
  return Generator(seed, index, limits).make();
}

std::vector<Scenario> shrinkCandidates(const Scenario& s) {
  std::vector<Scenario> raw;
  for (uint32_t frames : {s.frames / 2, s.frames - 1}) {
    if (frames >= 1 && frames < s.frames) {
      Scenario c = s;
      c.frames = frames;
      raw.push_back(c);
    }
  }
  if (s.firstFrame != 1) {
    Scenario c = s;
    c.firstFrame = 1;
    raw.push_back(c);
  }
  for (size_t i = 0; i < s.sensors.size() && s.sensors.size() > 1; ++i) {
    Scenario c = s;
    c.sensors.erase(c.sensors.begin() + long(i));
    raw.push_back(c);
  }
  eachWithout(s, &Scenario::events, &raw);
  eachWithout(s, &Scenario::syncGroups, &raw);
  eachWithout(s, &Scenario::rawSwitches, &raw);
  eachWithout(s, &Scenario::configure, &raw);
  eachWithout(s, &Scenario::skips, &raw);
  eachWithout(s, &Scenario::noFrameSends, &raw);
  eachWithout(s, &Scenario::gaps, &raw);
  if (s.earlySends) {
    Scenario c = s;
    c.earlySends = false;
    raw.push_back(c);
  }
  bool ownDurations = false;
  for (const auto& cam : s.sensors) ownDurations = ownDurations || cam.hasOwnDuration;
  if (ownDurations || s.jobDuration.kind != DurationModel::Kind::Fixed) {
    Scenario c = s;
    for (auto& cam : c.sensors) cam.hasOwnDuration = false;
    c.jobDuration.kind = DurationModel::Kind::Fixed;
    c.jobDuration.a = 0;
    raw.push_back(c);
  }
  if (s.frameIntervalUs != 0) {
    Scenario c = s;
    c.frameIntervalUs = 0;
    raw.push_back(c);
  }
  std::vector<Scenario> out;
  for (const Scenario& c : raw) {
    Scenario parsed;
    if (repairAndParse(json::parse(scenarioToJson(c)), s.name, &parsed)) {
      parsed.source = s.source;
      out.push_back(parsed);
    }
  }
  return out;
}

}  // namespace client
}  // namespace orvcam
