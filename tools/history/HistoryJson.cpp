#include "history/HistoryJson.h"

#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace orvcam {
namespace history {

namespace {

using json = nlohmann::json;

// Thrown with the JSON path of the offending field; caught in readHistoryJson.
struct FieldError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string at(const std::string& path, const char* key) { return path + "." + key; }
std::string at(const std::string& path, size_t index) {
  return path + "[" + std::to_string(index) + "]";
}

const json& member(const json& object, const std::string& path, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) throw FieldError("field \"" + at(path, key) + "\": missing");
  return *it;
}

template <typename T>
T number(const json& object, const std::string& path, const char* key, T fallback,
         bool required = true) {
  auto it = object.find(key);
  if (it == object.end()) {
    if (required) throw FieldError("field \"" + at(path, key) + "\": missing");
    return fallback;
  }
  if (!it->is_number_integer()) {
    throw FieldError("field \"" + at(path, key) + "\": not an integer");
  }
  return it->get<T>();
}

template <typename T>
std::vector<T> numbers(const json& object, const std::string& path, const char* key) {
  auto it = object.find(key);
  std::vector<T> out;
  if (it == object.end() || it->is_null()) return out;
  if (!it->is_array()) throw FieldError("field \"" + at(path, key) + "\": not an array");
  for (size_t i = 0; i < it->size(); ++i) {
    if (!(*it)[i].is_number_integer()) {
      throw FieldError("field \"" + at(at(path, key), i) + "\": not an integer");
    }
    out.push_back((*it)[i].get<T>());
  }
  return out;
}

template <typename T>
std::set<T> numberSet(const json& object, const std::string& path, const char* key) {
  std::vector<T> v = numbers<T>(object, path, key);
  return std::set<T>(v.begin(), v.end());
}

// Each array member of the root, or nothing when the key is absent (the writer leaves empty
// lists out).
template <typename F>
void eachOf(const json& root, const char* key, F f) {
  auto it = root.find(key);
  if (it == root.end() || it->is_null()) return;
  std::string path = at(std::string(), key).substr(1);
  if (!it->is_array()) throw FieldError("field \"" + path + "\": not an array");
  for (size_t i = 0; i < it->size(); ++i) {
    if (!(*it)[i].is_object()) throw FieldError("field \"" + at(path, i) + "\": not an object");
    f((*it)[i], at(path, i));
  }
}

JobKind jobKind(const json& o, const std::string& path) {
  std::string name = member(o, path, "kind").is_string() ? o["kind"].get<std::string>() : "";
  if (name == jobKindName(JobKind::Configure)) return JobKind::Configure;
  if (name == jobKindName(JobKind::Enqueue)) return JobKind::Enqueue;
  throw FieldError("field \"" + at(path, "kind") + "\": not ConfigJob or EnqJob");
}

EventKind eventKind(const json& o, const std::string& path) {
  std::string name = member(o, path, "type").is_string() ? o["type"].get<std::string>() : "";
  for (EventKind k :
       {EventKind::InformInflight, EventKind::ResumeDone, EventKind::Suspend, EventKind::Drop,
        EventKind::Flush, EventKind::LicenseRelease, EventKind::RawSwitch, EventKind::QueueFlush}) {
    if (name == eventKindName(k)) return k;
  }
  throw FieldError("field \"" + at(path, "type") + "\": unknown event type \"" + name + "\"");
}

LicenceEventKind licenceKind(const json& o, const std::string& path) {
  std::string name = member(o, path, "event").is_string() ? o["event"].get<std::string>() : "";
  if (name == "Acquired") return LicenceEventKind::Acquired;
  if (name == "Released") return LicenceEventKind::Released;
  if (name == "Destroyed") return LicenceEventKind::Destroyed;
  throw FieldError("field \"" + at(path, "event") + "\": not Acquired, Released or Destroyed");
}

// An optional true or false.
void readFlag(const json& o, const std::string& p, const char* name, bool* field) {
  if (!o.contains(name)) return;
  const json& value = o[name];
  if (!value.is_boolean()) throw FieldError("field \"" + at(p, name) + "\": not true or false");
  *field = value.get<bool>();
}

// The top level's own fields: the run's name, seed, sensors, times and licence account.
void readRunFields(const json& root, History* h) {
  if (root.contains("scenario") && root["scenario"].is_string()) {
    h->scenario = root["scenario"].get<std::string>();
  }
  h->seed = number<uint64_t>(root, "", "seed", 0, false);
  h->sensors = numbers<uint32_t>(root, "", "sensors");
  h->wallTime = number<Nanos>(root, "", "wallTimeNs", 0, false);
  h->teardownAt = number<Nanos>(root, "", "teardownAtNs", 0, false);
  h->stampTick = number<Nanos>(root, "", "stampTickNs", 0, false);
  h->linesLost = number<uint64_t>(root, "", "linesLost", 0, false);
  h->framesLeftInPool = numbers<uint32_t>(root, "", "framesLeftInPool");
  if (root.contains("unsupportedRules")) {
    const json& u = root["unsupportedRules"];
    if (!u.is_object()) throw FieldError("field \"unsupportedRules\": not an object");
    for (const auto& item : u.items()) {
      if (!item.value().is_string()) {
        throw FieldError("field \"unsupportedRules." + item.key() + "\": not a string");
      }
      h->unsupportedRules[item.key()] = item.value().get<std::string>();
    }
  }
  if (root.contains("account")) {
    const json& a = root["account"];
    if (!a.is_object()) throw FieldError("field \"account\": not an object");
    h->account.acquired = number<uint64_t>(a, "account", "acquired", 0);
    h->account.released = number<uint64_t>(a, "account", "released", 0);
    h->account.destroyed = number<uint64_t>(a, "account", "destroyed", 0);
    h->account.emptyReleases = number<uint64_t>(a, "account", "emptyReleases", 0);
  }
}

FramePlan readPlan(const json& o, const std::string& p) {
  FramePlan plan;
  plan.frame = number<uint32_t>(o, p, "frame", 0);
  plan.sensors = numbers<uint32_t>(o, p, "sensors");
  plan.needCfg = numberSet<uint32_t>(o, p, "needCfg");
  plan.cfgByJob = numberSet<uint32_t>(o, p, "cfgByJob");
  plan.syncList = numberSet<uint32_t>(o, p, "syncList");
  plan.offSensor = number<int64_t>(o, p, "offSensor", -1, false);
  plan.onSensor = number<int64_t>(o, p, "onSensor", -1, false);
  return plan;
}

JobRecord readJob(const json& o, const std::string& p) {
  JobRecord j;
  j.sensor = number<uint32_t>(o, p, "sensor", 0);
  j.frame = number<uint32_t>(o, p, "frame", 0);
  j.kind = jobKind(o, p);
  j.sent = number<Nanos>(o, p, "sent", 0);
  j.start = number<Nanos>(o, p, "start", 0);
  j.end = number<Nanos>(o, p, "end", 0);
  const json& ran = member(o, p, "ran");
  if (!ran.is_boolean()) throw FieldError("field \"" + at(p, "ran") + "\": not true or false");
  j.ran = ran.get<bool>();
  j.result = number<int32_t>(o, p, "result", 0, false);
  j.serial = number<uint64_t>(o, p, "serial", 0, false);
  j.fd = number<int32_t>(o, p, "fd", -1, false);
  readFlag(o, p, "startLost", &j.startLost);
  readFlag(o, p, "sentLate", &j.sentLate);
  return j;
}

EventRecord readEvent(const json& o, const std::string& p) {
  EventRecord e;
  e.kind = eventKind(o, p);
  e.sensor = number<uint32_t>(o, p, "sensor", 0);
  e.frame = number<uint32_t>(o, p, "frame", 0);
  e.value = number<uint32_t>(o, p, "value", 0, false);
  e.begin = number<Nanos>(o, p, "begin", 0);
  e.end = number<Nanos>(o, p, "end", e.begin, false);
  e.frames = numbers<uint32_t>(o, p, "frames");
  return e;
}

LicenceRecord readLicence(const json& o, const std::string& p) {
  LicenceRecord l;
  l.kind = licenceKind(o, p);
  l.serial = number<uint64_t>(o, p, "serial", 0);
  l.fd = number<int32_t>(o, p, "fd", -1, false);
  l.at = number<Nanos>(o, p, "at", 0);
  l.context = number<int32_t>(o, p, "context", -1, false);
  return l;
}

void fromJson(const json& root, History* h) {
  if (!root.is_object()) throw FieldError("the top level is not an object");
  readRunFields(root, h);
  eachOf(root, "frames",
         [&](const json& o, const std::string& p) { h->plans.push_back(readPlan(o, p)); });
  eachOf(root, "prepares", [&](const json& o, const std::string& p) {
    h->prepares.push_back({number<uint32_t>(o, p, "sensor", 0), number<uint32_t>(o, p, "frame", 0),
                           number<Nanos>(o, p, "at", 0)});
  });
  eachOf(root, "setConfigured", [&](const json& o, const std::string& p) {
    h->setConfigured.push_back({number<uint32_t>(o, p, "sensor", 0),
                                number<uint32_t>(o, p, "frame", 0), number<Nanos>(o, p, "at", 0)});
  });
  eachOf(root, "jobs",
         [&](const json& o, const std::string& p) { h->jobs.push_back(readJob(o, p)); });
  eachOf(root, "events",
         [&](const json& o, const std::string& p) { h->events.push_back(readEvent(o, p)); });
  eachOf(root, "licences",
         [&](const json& o, const std::string& p) { h->licences.push_back(readLicence(o, p)); });
}

}  // namespace

bool readHistoryJson(std::istream& in, History* history, std::string* error) {
  json root;
  try {
    root = json::parse(in);
  } catch (const json::exception& e) {
    *error = std::string("not valid JSON (") + e.what() + ")";
    return false;
  }
  *history = History();
  try {
    fromJson(root, history);
  } catch (const FieldError& e) {
    *error = e.what();
    return false;
  } catch (const json::exception& e) {
    *error = std::string("unexpected value: ") + e.what();
    return false;
  }
  return true;
}

bool readHistoryFile(const std::string& path, History* history, std::string* error) {
  std::ifstream in(path);
  if (!in) {
    *error = path + ": cannot open";
    return false;
  }
  if (!readHistoryJson(in, history, error)) {
    *error = path + ": " + *error;
    return false;
  }
  return true;
}

}  // namespace history
}  // namespace orvcam
