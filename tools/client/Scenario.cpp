#include "client/Scenario.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

namespace orvcam {
namespace client {

using namespace history;

using json = nlohmann::json;

namespace {

constexpr uint32_t kMaxFrames = 100000;
constexpr uint32_t kMaxSensorId = 255;
constexpr double kMaxDurationUs = 1e6;

struct Failure {
  std::string field;
  std::string message;
};

[[noreturn]] void fail(const std::string& field, const std::string& message) {
  throw Failure{field, message};
}

std::string join(const std::string& path, const std::string& key) {
  return path.empty() ? key : path + "." + key;
}

std::string at(const std::string& path, size_t index) {
  return path + "[" + std::to_string(index) + "]";
}

std::string typeName(const json& j) {
  if (j.is_number_integer()) return "an integer";
  if (j.is_number()) return "a number";
  return std::string("a") + (j.is_object() || j.is_array() ? "n " : " ") + j.type_name();
}

void requireObject(const json& j, const std::string& path) {
  if (!j.is_object())
    fail(path.empty() ? "(top level)" : path, "must be an object, not " + typeName(j));
}

void checkKeys(const json& j, const std::string& path, std::initializer_list<const char*> allowed) {
  for (auto it = j.begin(); it != j.end(); ++it) {
    bool known = false;
    for (const char* name : allowed) known = known || it.key() == name;
    if (!known) {
      std::string list;
      for (const char* name : allowed) list += std::string(list.empty() ? "" : ", ") + name;
      fail(join(path, it.key()), "unknown field (expected one of: " + list + ")");
    }
  }
}

const json* find(const json& j, const char* key) {
  auto it = j.find(key);
  return it == j.end() ? nullptr : &*it;
}

const json& require(const json& j, const std::string& path, const char* key) {
  const json* v = find(j, key);
  if (!v) fail(join(path, key), "missing (required)");
  return *v;
}

uint64_t asUint(const json& v, const std::string& field, uint64_t min, uint64_t max) {
  if (!v.is_number_integer()) fail(field, "must be an integer, not " + typeName(v));
  // Negative numbers are the signed kind; every other integer reads as unsigned.
  if (!v.is_number_unsigned() || v.get<uint64_t>() < min || v.get<uint64_t>() > max) {
    fail(field, "is " + v.dump() + ", must be between " + std::to_string(min) + " and " +
                    std::to_string(max));
  }
  return v.get<uint64_t>();
}

uint64_t getUint(const json& j, const std::string& path, const char* key, uint64_t min,
                 uint64_t max, uint64_t fallback) {
  const json* v = find(j, key);
  return v ? asUint(*v, join(path, key), min, max) : fallback;
}

double asDuration(const json& v, const std::string& field) {
  if (!v.is_number()) fail(field, "must be a number of microseconds, not " + typeName(v));
  double d = v.get<double>();
  if (!(d >= 0) || d > kMaxDurationUs)
    fail(field, "is " + v.dump() + ", must be between 0 and 1000000 (µs)");
  return d;
}

std::string asString(const json& v, const std::string& field) {
  if (!v.is_string()) fail(field, "must be a string, not " + typeName(v));
  return v.get<std::string>();
}

DurationModel parseDuration(const json& j, const std::string& path) {
  requireObject(j, path);
  DurationModel d;
  std::string kind = asString(require(j, path, "distribution"), join(path, "distribution"));
  if (kind == "fixed") {
    checkKeys(j, path, {"distribution", "us"});
    d.kind = DurationModel::Kind::Fixed;
    d.a = asDuration(require(j, path, "us"), join(path, "us"));
  } else if (kind == "uniform") {
    checkKeys(j, path, {"distribution", "minUs", "maxUs"});
    d.kind = DurationModel::Kind::Uniform;
    d.a = asDuration(require(j, path, "minUs"), join(path, "minUs"));
    d.b = asDuration(require(j, path, "maxUs"), join(path, "maxUs"));
    if (d.b < d.a) fail(join(path, "maxUs"), "is below minUs");
  } else if (kind == "normal") {
    checkKeys(j, path, {"distribution", "meanUs", "stddevUs"});
    d.kind = DurationModel::Kind::Normal;
    d.a = asDuration(require(j, path, "meanUs"), join(path, "meanUs"));
    d.b = asDuration(require(j, path, "stddevUs"), join(path, "stddevUs"));
  } else if (kind == "exponential") {
    checkKeys(j, path, {"distribution", "meanUs"});
    d.kind = DurationModel::Kind::Exponential;
    d.a = asDuration(require(j, path, "meanUs"), join(path, "meanUs"));
  } else {
    fail(join(path, "distribution"),
         "unknown distribution \"" + kind + "\" (expected fixed, uniform, normal or exponential)");
  }
  return d;
}

bool parseEventKind(const std::string& name, EventKind* kind) {
  static const std::pair<const char*, EventKind> kinds[] = {
      {"InformInflight", EventKind::InformInflight},
      {"ResumeDone", EventKind::ResumeDone},
      {"Suspend", EventKind::Suspend},
      {"Drop", EventKind::Drop},
      {"Flush", EventKind::Flush},
      {"LicenseRelease", EventKind::LicenseRelease},
      {"RawSwitch", EventKind::RawSwitch}};
  for (const auto& k : kinds) {
    if (name == k.first) {
      *kind = k.second;
      return true;
    }
  }
  return false;
}

class Parser {
 public:
  explicit Parser(Scenario* s) : s_(*s) {}

  void parse(const json& root) {
    requireObject(root, "");
    checkKeys(root, "",
              {"description", "frames", "firstFrame", "frameIntervalUs", "maxInFlight", "seed",
               "jobDuration", "sensors", "syncGroups", "configure", "rawSwitches", "events",
               "skips", "noFrameSends", "earlySends", "gaps"});
    if (const json* d = find(root, "description")) s_.description = asString(*d, "description");
    s_.frames = uint32_t(asUint(require(root, "", "frames"), "frames", 1, kMaxFrames));
    s_.firstFrame = uint32_t(getUint(root, "", "firstFrame", 0, 0xFFFFFFFEull - s_.frames, 1));
    s_.frameIntervalUs = uint32_t(getUint(root, "", "frameIntervalUs", 0, 1000000, 1000));
    s_.maxInFlight = uint32_t(getUint(root, "", "maxInFlight", 1, kMaxInFlight, 6));
    s_.seed = getUint(root, "", "seed", 0, UINT64_MAX, 1);
    if (const json* d = find(root, "jobDuration"))
      s_.jobDuration = parseDuration(*d, "jobDuration");
    parseSensors(require(root, "", "sensors"));
    parseList(root, "syncGroups", [this](const json& j, const std::string& p) { syncGroup(j, p); });
    parseList(root, "configure", [this](const json& j, const std::string& p) { configure(j, p); });
    parseList(root, "rawSwitches",
              [this](const json& j, const std::string& p) { rawSwitch(j, p); });
    parseList(root, "events", [this](const json& j, const std::string& p) { event(j, p); });
    parseList(root, "skips", [this](const json& j, const std::string& p) { skip(j, p); });
    parseList(root, "noFrameSends",
              [this](const json& j, const std::string& p) { noFrameSend(j, p); });
    if (const json* v = find(root, "gaps")) {
      if (!v->is_array()) fail("gaps", "must be an array of frame numbers");
      for (size_t i = 0; i < v->size(); ++i) {
        uint32_t f = frame((*v)[i], at("gaps", i));
        if (std::find(s_.gaps.begin(), s_.gaps.end(), f) != s_.gaps.end()) {
          fail(at("gaps", i), "frame " + std::to_string(f) + " is listed twice");
        }
        s_.gaps.push_back(f);
      }
      if (s_.gaps.size() >= s_.frames) fail("gaps", "leaves no frame");
    }
    if (const json* v = find(root, "earlySends")) {
      if (!v->is_boolean()) fail("earlySends", "must be true or false");
      s_.earlySends = v->get<bool>();
    }
    crossCheck();
  }

 private:
  template <typename Fn>
  void parseList(const json& root, const char* key, Fn fn) {
    const json* list = find(root, key);
    if (!list) return;
    if (!list->is_array()) fail(key, "must be an array, not " + typeName(*list));
    for (size_t i = 0; i < list->size(); ++i) {
      std::string path = at(key, i);
      requireObject((*list)[i], path);
      fn((*list)[i], path);
    }
  }

  uint32_t frame(const json& v, const std::string& field) {
    return uint32_t(asUint(v, field, s_.firstFrame, s_.lastFrame()));
  }

  uint32_t sensorRef(const json& v, const std::string& field) {
    uint32_t id = uint32_t(asUint(v, field, 0, kMaxSensorId));
    if (!s_.sensor(id)) fail(field, "sensor " + std::to_string(id) + " is not in \"sensors\"");
    return id;
  }

  std::vector<uint32_t> sensorList(const json& v, const std::string& field, size_t minSize) {
    if (!v.is_array()) fail(field, "must be an array of sensor ids, not " + typeName(v));
    std::vector<uint32_t> ids;
    for (size_t i = 0; i < v.size(); ++i) {
      uint32_t id = sensorRef(v[i], at(field, i));
      if (std::find(ids.begin(), ids.end(), id) != ids.end()) {
        fail(at(field, i), "sensor " + std::to_string(id) + " is listed twice");
      }
      ids.push_back(id);
    }
    if (ids.size() < minSize) {
      fail(field, "needs at least " + std::to_string(minSize) + " sensors");
    }
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  void parseSensors(const json& list) {
    if (!list.is_array()) fail("sensors", "must be an array, not " + typeName(list));
    if (list.empty()) fail("sensors", "needs at least one sensor");
    for (size_t i = 0; i < list.size(); ++i) {
      std::string path = at("sensors", i);
      const json& j = list[i];
      requireObject(j, path);
      checkKeys(j, path, {"id", "streaming", "jobDuration"});
      SensorSetup cam;
      cam.id = uint32_t(asUint(require(j, path, "id"), join(path, "id"), 0, kMaxSensorId));
      if (s_.sensor(cam.id)) {
        fail(join(path, "id"), "sensor " + std::to_string(cam.id) + " is listed twice");
      }
      if (const json* v = find(j, "streaming")) {
        if (!v->is_boolean()) fail(join(path, "streaming"), "must be true or false");
        cam.streaming = v->get<bool>();
      }
      if (const json* v = find(j, "jobDuration")) {
        cam.jobDuration = parseDuration(*v, join(path, "jobDuration"));
        cam.hasOwnDuration = true;
      }
      s_.sensors.push_back(cam);
    }
    bool anyStreaming = false;
    for (const auto& cam : s_.sensors) anyStreaming = anyStreaming || cam.streaming;
    if (!anyStreaming) {
      fail("sensors",
           "no sensor streams from the first frame (every sensor has \"streaming\": false)");
    }
  }

  void syncGroup(const json& j, const std::string& path) {
    checkKeys(j, path, {"sensors", "fromFrame", "toFrame"});
    SyncGroupSetup g;
    g.sensors = sensorList(require(j, path, "sensors"), join(path, "sensors"), 2);
    g.fromFrame =
        find(j, "fromFrame") ? frame(j["fromFrame"], join(path, "fromFrame")) : s_.firstFrame;
    g.toFrame = find(j, "toFrame") ? frame(j["toFrame"], join(path, "toFrame")) : s_.lastFrame();
    if (g.toFrame < g.fromFrame) fail(join(path, "toFrame"), "is before fromFrame");
    s_.syncGroups.push_back(g);
  }

  void configure(const json& j, const std::string& path) {
    checkKeys(j, path, {"frame", "frames", "sensors", "via"});
    std::vector<uint32_t> frames;
    const json* one = find(j, "frame");
    const json* many = find(j, "frames");
    if (!one == !many) fail(path, "needs exactly one of \"frame\" and \"frames\"");
    if (one) frames.push_back(frame(*one, join(path, "frame")));
    if (many) {
      std::string field = join(path, "frames");
      if (!many->is_array() || many->empty())
        fail(field, "must be a non-empty array of frame numbers");
      for (size_t i = 0; i < many->size(); ++i) frames.push_back(frame((*many)[i], at(field, i)));
    }
    std::vector<uint32_t> sensors;
    if (const json* v = find(j, "sensors")) sensors = sensorList(*v, join(path, "sensors"), 1);
    bool viaJob = true;
    if (const json* v = find(j, "via")) {
      std::string via = asString(*v, join(path, "via"));
      if (via != "job" && via != "setConfigured") {
        fail(join(path, "via"), "is \"" + via + "\", must be \"job\" or \"setConfigured\"");
      }
      viaJob = via == "job";
    }
    for (uint32_t f : frames) {
      s_.configure.push_back({f, sensors, viaJob});
      configurePaths_.push_back(path);
    }
  }

  void rawSwitch(const json& j, const std::string& path) {
    checkKeys(j, path, {"frame", "off", "on"});
    RawSwitchSetup r;
    r.frame = frame(require(j, path, "frame"), join(path, "frame"));
    r.off = sensorRef(require(j, path, "off"), join(path, "off"));
    r.on = sensorRef(require(j, path, "on"), join(path, "on"));
    if (r.on == r.off) fail(join(path, "on"), "is the sensor that switches off");
    for (const auto& other : s_.rawSwitches) {
      if (other.frame == r.frame)
        fail(join(path, "frame"), "frame " + std::to_string(r.frame) + " already has a raw switch");
    }
    s_.rawSwitches.push_back(r);
    rawPaths_.push_back(path);
  }

  void event(const json& j, const std::string& path) {
    checkKeys(j, path, {"frame", "type", "sensor", "value", "when"});
    PlannedEvent e;
    e.frame = frame(require(j, path, "frame"), join(path, "frame"));
    std::string type = asString(require(j, path, "type"), join(path, "type"));
    if (!parseEventKind(type, &e.kind)) {
      fail(join(path, "type"), "unknown event type \"" + type +
                                   "\" (expected InformInflight, ResumeDone, Suspend, Drop, "
                                   "Flush, LicenseRelease or RawSwitch)");
    }
    e.sensor = sensorRef(require(j, path, "sensor"), join(path, "sensor"));
    if (e.kind == EventKind::InformInflight) {
      e.value = uint32_t(asUint(require(j, path, "value"), join(path, "value"), 0, 0xFFFFFFFF));
    } else {
      e.value = uint32_t(getUint(j, path, "value", 0, 0xFFFFFFFF, 0));
    }
    if (const json* v = find(j, "when")) {
      std::string when = asString(*v, join(path, "when"));
      bool drop = e.kind == EventKind::Drop;
      bool inflight = e.kind == EventKind::InformInflight && e.value == 0;
      if (when == "usual") {
        e.when = EventTiming::Usual;
      } else if (drop && when == "beforeConfigure") {
        e.when = EventTiming::BeforeConfigure;
      } else if (drop && when == "racing") {
        e.when = EventTiming::Racing;
      } else if (drop && when == "late") {
        e.when = EventTiming::Late;
      } else if (inflight && when == "whileRunning") {
        e.when = EventTiming::WhileRunning;
      } else {
        fail(
            join(path, "when"),
            "is \"" + when +
                "\"; a Drop takes usual, beforeConfigure, racing or late, an "
                "InformInflight with value 0 takes usual or whileRunning, other events only usual");
      }
    }
    s_.events.push_back(e);
    eventPaths_.push_back(path);
  }

  // An object of a sensor and a frame number under `frameKey`: a skip, a no-frame send.
  std::pair<uint32_t, uint32_t> sensorAndFrame(const json& j, const std::string& path,
                                               const char* frameKey) {
    checkKeys(j, path, {"sensor", frameKey});
    return {sensorRef(require(j, path, "sensor"), join(path, "sensor")),
            frame(require(j, path, frameKey), join(path, frameKey))};
  }

  void skip(const json& j, const std::string& path) {
    auto [sensor, frameNo] = sensorAndFrame(j, path, "frame");
    s_.skips.push_back({sensor, frameNo});
    skipPaths_.push_back(path);
  }

  void noFrameSend(const json& j, const std::string& path) {
    auto [sensor, after] = sensorAndFrame(j, path, "after");
    s_.noFrameSends.push_back({sensor, after});
    noFramePaths_.push_back(path);
  }

  // Rules that need the frames planned: who streams when, who takes part in which frame.
  void crossCheck() {
    checkGaps();
    checkRawSwitchOrder();
    checkSkips();
    std::vector<FramePlan> plans = planFrames(s_);
    auto plan = [&](uint32_t f) -> const FramePlan& { return plans[planIndex(plans, f)]; };
    checkConfigure(plan);
    checkEvents(plan);
    for (size_t i = 0; i < s_.noFrameSends.size(); ++i) {
      const NoFrameSendSetup& n = s_.noFrameSends[i];
      if (!plan(n.after).participates(n.sensor)) {
        fail(noFramePaths_[i] + ".after", "sensor " + std::to_string(n.sensor) +
                                              " does not take part in frame " +
                                              std::to_string(n.after));
      }
    }
  }

  // No setting names a frame that is a gap.
  void checkGaps() {
    std::set<uint32_t> gaps(s_.gaps.begin(), s_.gaps.end());
    auto notGap = [&](uint32_t f, const std::string& field) {
      if (gaps.count(f)) fail(field, "frame " + std::to_string(f) + " is a gap");
    };
    for (size_t i = 0; i < s_.rawSwitches.size(); ++i)
      notGap(s_.rawSwitches[i].frame, rawPaths_[i] + ".frame");
    for (size_t i = 0; i < s_.configure.size(); ++i)
      notGap(s_.configure[i].frame, configurePaths_[i]);
    for (size_t i = 0; i < s_.events.size(); ++i)
      notGap(s_.events[i].frame, eventPaths_[i] + ".frame");
    for (size_t i = 0; i < s_.skips.size(); ++i)
      notGap(s_.skips[i].frame, skipPaths_[i] + ".frame");
    for (size_t i = 0; i < s_.noFrameSends.size(); ++i)
      notGap(s_.noFrameSends[i].after, noFramePaths_[i] + ".after");
  }

  // Each raw switch turns off a sensor that streams at its frame.
  void checkRawSwitchOrder() {
    std::vector<size_t> order(s_.rawSwitches.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [this](size_t a, size_t b) {
      return s_.rawSwitches[a].frame < s_.rawSwitches[b].frame;
    });
    std::set<uint32_t> active;
    for (const auto& cam : s_.sensors) {
      if (cam.streaming) active.insert(cam.id);
    }
    for (size_t i : order) {
      const RawSwitchSetup& r = s_.rawSwitches[i];
      if (!active.count(r.off)) {
        fail(rawPaths_[i] + ".off", "sensor " + std::to_string(r.off) +
                                        " is not streaming at frame " + std::to_string(r.frame));
      }
      active.erase(r.off);
      active.insert(r.on);
    }
  }

  void checkSkips() {
    std::set<std::pair<uint32_t, uint32_t>> skipped;
    for (size_t i = 0; i < s_.skips.size(); ++i) {
      const SkipSetup& k = s_.skips[i];
      for (const auto& r : s_.rawSwitches) {
        if (r.frame == k.frame && (r.off == k.sensor || r.on == k.sensor)) {
          fail(skipPaths_[i], "sensor " + std::to_string(k.sensor) + " switches at frame " +
                                  std::to_string(k.frame) + " and must take part in it");
        }
      }
      if (!skipped.insert({k.sensor, k.frame}).second) {
        fail(skipPaths_[i], "skipped twice");
      }
    }
    SkipCheck skipCheck{s_, skipPaths_};
    skipCheck.run();
  }

  template <typename PlanOf>
  void checkConfigure(const PlanOf& plan) {
    std::set<std::pair<uint32_t, uint32_t>> configured;
    for (size_t i = 0; i < s_.configure.size(); ++i) {
      const ConfigureSetup& c = s_.configure[i];
      for (uint32_t id : c.sensors) {
        if (!plan(c.frame).participates(id)) {
          fail(configurePaths_[i] + ".sensors", "sensor " + std::to_string(id) +
                                                    " does not stream at frame " +
                                                    std::to_string(c.frame));
        }
      }
      for (uint32_t id : c.sensors.empty() ? plan(c.frame).sensors : c.sensors) {
        if (!configured.insert({c.frame, id}).second) {
          fail(configurePaths_[i], "sensor " + std::to_string(id) +
                                       " is configured twice at frame " + std::to_string(c.frame));
        }
      }
    }
  }

  template <typename PlanOf>
  void checkEvents(const PlanOf& plan) {
    std::set<std::pair<uint32_t, uint32_t>> drops;
    for (size_t i = 0; i < s_.events.size(); ++i) {
      const PlannedEvent& e = s_.events[i];
      const FramePlan& p = plan(e.frame);
      if (e.kind == EventKind::Drop) {
        if (!p.participates(e.sensor)) {
          fail(eventPaths_[i] + ".sensor", "sensor " + std::to_string(e.sensor) +
                                               " does not stream at frame " +
                                               std::to_string(e.frame));
        }
        if (!drops.insert({e.frame, e.sensor}).second) {
          fail(eventPaths_[i], "frame " + std::to_string(e.frame) + " of sensor " +
                                   std::to_string(e.sensor) + " is dropped twice");
        }
      }
      if (e.when == EventTiming::Racing) checkRacingPartner(i, p);
      if (e.kind == EventKind::InformInflight && e.value == 0 && !p.needCfg.empty() &&
          p.syncList.count(e.sensor)) {
        fail(eventPaths_[i] + ".frame",
             "InformInflight with value 0 at frame " + std::to_string(e.frame) +
                 ", which configures sensors while sensor " + std::to_string(e.sensor) +
                 " is in its sync list; frame descriptors can only change on frames without "
                 "configuration");
      }
    }
  }

  // A racing drop needs another sensor in its frame that keeps the frame in the pool until
  // the drop is reported.
  void checkRacingPartner(size_t i, const FramePlan& p) {
    const PlannedEvent& e = s_.events[i];
    bool partner = false;
    for (uint32_t other : p.sensors) {
      bool droppedToo = false;
      for (const auto& d : s_.events) {
        droppedToo =
            droppedToo || (d.kind == EventKind::Drop && d.frame == e.frame && d.sensor == other);
      }
      partner = partner || (other != e.sensor && !droppedToo);
    }
    if (!partner) {
      fail(eventPaths_[i] + ".when",
           "a racing drop needs another sensor in frame " + std::to_string(e.frame) +
               " that keeps the frame in the pool until the drop is reported");
    }
  }

  // Every frame keeps at least one sensor, and every skipped sensor streams at its frame.
  struct SkipCheck {
    const Scenario& s;
    const std::vector<std::string>& paths;
    void run() {
      Scenario unskipped = s;
      unskipped.skips.clear();
      std::vector<FramePlan> plans = planFrames(unskipped);
      std::map<uint32_t, size_t> left;
      for (const auto& p : plans) left[p.frame] = p.sensors.size();
      for (size_t i = 0; i < s.skips.size(); ++i) {
        const SkipSetup& k = s.skips[i];
        if (!plans[planIndex(plans, k.frame)].participates(k.sensor)) {
          fail(paths[i] + ".sensor", "sensor " + std::to_string(k.sensor) +
                                         " does not stream at frame " + std::to_string(k.frame));
        }
        if (--left[k.frame] == 0) {
          fail(paths[i], "frame " + std::to_string(k.frame) + " would have no sensor left");
        }
      }
    }
  };

  Scenario& s_;
  std::vector<std::string> skipPaths_;
  std::vector<std::string> noFramePaths_;
  std::vector<std::string> configurePaths_;
  std::vector<std::string> rawPaths_;
  std::vector<std::string> eventPaths_;
};

std::string stem(const std::string& path) {
  size_t slash = path.find_last_of('/');
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  size_t dot = base.rfind('.');
  return dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
}

}  // namespace

Nanos DurationModel::sample(std::mt19937_64& rng) const {
  double us = a;
  switch (kind) {
    case Kind::Fixed: break;
    case Kind::Uniform: us = std::uniform_real_distribution<double>(a, b)(rng); break;
    case Kind::Normal: us = std::normal_distribution<double>(a, b)(rng); break;
    case Kind::Exponential:
      us = a > 0 ? std::exponential_distribution<double>(1.0 / a)(rng) : 0;
      break;
  }
  us = std::min(std::max(us, 0.0), kMaxDurationUs);
  return Nanos(us * 1000.0);
}

const SensorSetup* Scenario::sensor(uint32_t id) const {
  for (const auto& s : sensors) {
    if (s.id == id) return &s;
  }
  return nullptr;
}

std::string ScenarioError::text() const {
  std::string out = file;
  if (!field.empty()) out += ": field \"" + field + "\"";
  return out + ": " + message;
}

bool parseScenario(const std::string& text, const std::string& source, Scenario* out,
                   ScenarioError* error) {
  Scenario scenario;
  scenario.source = source;
  scenario.name = source.empty() || source[0] == '<' ? "default" : stem(source);
  json root;
  try {
    root = json::parse(text);
  } catch (const json::parse_error& e) {
    std::string what = e.what();
    size_t cut = what.find("] ");
    *error = {source, "",
              "not valid JSON: " + (cut == std::string::npos ? what : what.substr(cut + 2))};
    return false;
  }
  try {
    Parser(&scenario).parse(root);
  } catch (const Failure& f) {
    *error = {source, f.field, f.message};
    return false;
  }
  *out = std::move(scenario);
  return true;
}

bool loadScenarioFile(const std::string& path, Scenario* out, ScenarioError* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = {path, "", "cannot open the file"};
    return false;
  }
  std::stringstream buffer;
  buffer << in.rdbuf();
  return parseScenario(buffer.str(), path, out, error);
}

bool loadDefaultScenario(Scenario* out, ScenarioError* error) {
  return parseScenario(defaultScenarioText(), "<built-in default>", out, error);
}

size_t planIndex(const std::vector<FramePlan>& plans, uint32_t frame) {
  auto it = std::lower_bound(plans.begin(), plans.end(), frame,
                             [](const FramePlan& p, uint32_t f) { return p.frame < f; });
  return it != plans.end() && it->frame == frame ? size_t(it - plans.begin()) : SIZE_MAX;
}

std::vector<FramePlan> planFrames(const Scenario& s) {
  std::map<uint32_t, const RawSwitchSetup*> switches;
  for (const auto& r : s.rawSwitches) switches[r.frame] = &r;
  std::set<uint32_t> active;
  for (const auto& cam : s.sensors) {
    if (cam.streaming) active.insert(cam.id);
  }

  std::vector<FramePlan> plans;
  plans.reserve(s.frames);
  for (uint32_t f = s.firstFrame; f <= s.lastFrame(); ++f) {
    FramePlan p;
    p.frame = f;
    std::set<uint32_t> taking = active;
    auto sw = switches.find(f);
    if (sw != switches.end()) {
      p.offSensor = sw->second->off;
      p.onSensor = sw->second->on;
      taking.insert(sw->second->on);
      active.erase(sw->second->off);
      active.insert(sw->second->on);
    }
    for (const auto& k : s.skips) {
      if (k.frame == f) taking.erase(k.sensor);
    }
    if (std::find(s.gaps.begin(), s.gaps.end(), f) != s.gaps.end()) continue;
    p.sensors.assign(taking.begin(), taking.end());
    for (const auto& g : s.syncGroups) {
      if (f < g.fromFrame || f > g.toFrame) continue;
      std::vector<uint32_t> members;
      for (uint32_t id : g.sensors) {
        if (taking.count(id)) members.push_back(id);
      }
      if (members.size() >= 2) p.syncList.insert(members.begin(), members.end());
    }
    for (const auto& c : s.configure) {
      if (c.frame != f) continue;
      for (uint32_t id : c.sensors.empty() ? p.sensors : c.sensors) {
        if (!taking.count(id)) continue;
        p.needCfg.insert(id);
        if (c.viaJob) p.cfgByJob.insert(id);
      }
    }
    plans.push_back(std::move(p));
  }
  return plans;
}

namespace {

json durationJson(const DurationModel& d) {
  switch (d.kind) {
    case DurationModel::Kind::Fixed: return {{"distribution", "fixed"}, {"us", d.a}};
    case DurationModel::Kind::Uniform:
      return {{"distribution", "uniform"}, {"minUs", d.a}, {"maxUs", d.b}};
    case DurationModel::Kind::Normal:
      return {{"distribution", "normal"}, {"meanUs", d.a}, {"stddevUs", d.b}};
    case DurationModel::Kind::Exponential:
      return {{"distribution", "exponential"}, {"meanUs", d.a}};
  }
  return {};
}

const char* timingName(EventTiming t) {
  switch (t) {
    case EventTiming::Usual: return "usual";
    case EventTiming::BeforeConfigure: return "beforeConfigure";
    case EventTiming::Racing: return "racing";
    case EventTiming::Late: return "late";
    case EventTiming::WhileRunning: return "whileRunning";
  }
  return "usual";
}

}  // namespace

std::string scenarioToJson(const Scenario& s) {
  json j = json::object();
  if (!s.description.empty()) j["description"] = s.description;
  j["frames"] = s.frames;
  j["firstFrame"] = s.firstFrame;
  j["frameIntervalUs"] = s.frameIntervalUs;
  j["maxInFlight"] = s.maxInFlight;
  j["seed"] = s.seed;
  j["jobDuration"] = durationJson(s.jobDuration);
  j["sensors"] = json::array();
  for (const auto& cam : s.sensors) {
    json c = {{"id", cam.id}, {"streaming", cam.streaming}};
    if (cam.hasOwnDuration) c["jobDuration"] = durationJson(cam.jobDuration);
    j["sensors"].push_back(c);
  }
  for (const auto& g : s.syncGroups) {
    j["syncGroups"].push_back(
        {{"sensors", g.sensors}, {"fromFrame", g.fromFrame}, {"toFrame", g.toFrame}});
  }
  for (const auto& c : s.configure) {
    json e = {{"frame", c.frame}, {"via", c.viaJob ? "job" : "setConfigured"}};
    if (!c.sensors.empty()) e["sensors"] = c.sensors;
    j["configure"].push_back(e);
  }
  for (const auto& r : s.rawSwitches) {
    j["rawSwitches"].push_back({{"frame", r.frame}, {"off", r.off}, {"on", r.on}});
  }
  for (const auto& e : s.events) {
    json ev = {{"frame", e.frame},
               {"type", eventKindName(e.kind)},
               {"sensor", e.sensor},
               {"value", e.value}};
    if (e.when != EventTiming::Usual) ev["when"] = timingName(e.when);
    j["events"].push_back(ev);
  }
  for (const auto& k : s.skips) j["skips"].push_back({{"sensor", k.sensor}, {"frame", k.frame}});
  for (const auto& n : s.noFrameSends) {
    j["noFrameSends"].push_back({{"sensor", n.sensor}, {"after", n.after}});
  }
  if (s.earlySends) j["earlySends"] = true;
  if (!s.gaps.empty()) j["gaps"] = s.gaps;
  return j.dump(1);
}

}  // namespace client
}  // namespace orvcam
