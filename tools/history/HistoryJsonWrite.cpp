// A history written as JSON: whole, or part by part as it is made.
#include "history/HistoryJson.h"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "base/JsonText.h"

namespace orvcam {
namespace history {

using namespace base;

namespace {

using json = nlohmann::json;

// The history's lists, in the order they are written, with each item's JSON.
constexpr const char* kListKeys[] = {"frames", "prepares", "setConfigured",
                                     "jobs",   "events",   "licences"};

// Each item written by hand (JsonText): a long capture's history has millions of them.
const std::string& itemJson(JsonText& t, const FramePlan& p) {
  return t.begin()
      .num("frame", p.frame)
      .list("sensors", p.sensors)
      .list("needCfg", p.needCfg)
      .list("cfgByJob", p.cfgByJob)
      .list("syncList", p.syncList)
      .num("offSensor", p.offSensor)
      .num("onSensor", p.onSensor)
      .end();
}
const std::string& itemJson(JsonText& t, const PrepareRecord& p) {
  return t.begin().num("sensor", p.sensor).num("frame", p.frame).num("at", p.at).end();
}
const std::string& itemJson(JsonText& t, const SetConfiguredRecord& r) {
  return t.begin().num("sensor", r.sensor).num("frame", r.frame).num("at", r.at).end();
}
const std::string& itemJson(JsonText& t, const JobRecord& j) {
  t.begin()
      .num("sensor", j.sensor)
      .num("frame", j.frame)
      .str("kind", jobKindName(j.kind))
      .num("sent", j.sent)
      .num("start", j.start)
      .num("end", j.end)
      .boolean("ran", j.ran)
      .num("result", j.result)
      .num("serial", int64_t(j.serial))
      .num("fd", j.fd);
  if (j.startLost) t.boolean("startLost", true);
  if (j.sentLate) t.boolean("sentLate", true);
  return t.end();
}
const std::string& itemJson(JsonText& t, const EventRecord& e) {
  return t.begin()
      .str("type", eventKindName(e.kind))
      .num("sensor", e.sensor)
      .num("frame", e.frame)
      .num("value", e.value)
      .num("begin", e.begin)
      .num("end", e.end)
      .list("frames", e.frames)
      .end();
}
const std::string& itemJson(JsonText& t, const LicenceRecord& l) {
  static const char* const kinds[] = {"Acquired", "Released", "Destroyed"};
  return t.begin()
      .str("event", kinds[int(l.kind)])
      .num("serial", int64_t(l.serial))
      .num("fd", l.fd)
      .num("at", l.at)
      .num("context", l.context)
      .end();
}

// Calls `f(listIndex, itemText)` for every item of every list of `h`, in order.
template <typename F>
void eachItem(const History& h, F f) {
  JsonText t;
  for (const auto& p : h.plans) f(0, itemJson(t, p));
  for (const auto& p : h.prepares) f(1, itemJson(t, p));
  for (const auto& r : h.setConfigured) f(2, itemJson(t, r));
  for (const auto& j : h.jobs) f(3, itemJson(t, j));
  for (const auto& e : h.events) f(4, itemJson(t, e));
  for (const auto& l : h.licences) f(5, itemJson(t, l));
}

// The scalars of the history, as a JSON object without its closing brace.
std::string historyHead(const History& h) {
  json root;
  root["scenario"] = h.scenario;
  root["seed"] = h.seed;
  root["sensors"] = h.sensors;
  root["wallTimeNs"] = h.wallTime;
  root["teardownAtNs"] = h.teardownAt;
  if (h.stampTick > 0) root["stampTickNs"] = h.stampTick;
  if (h.linesLost > 0) root["linesLost"] = h.linesLost;
  root["framesLeftInPool"] = h.framesLeftInPool;
  if (!h.unsupportedRules.empty()) root["unsupportedRules"] = h.unsupportedRules;
  root["account"] = {{"acquired", h.account.acquired},
                     {"released", h.account.released},
                     {"destroyed", h.account.destroyed},
                     {"emptyReleases", h.account.emptyReleases}};
  std::string head = root.dump();
  head.pop_back();
  return head;
}

}  // namespace

void writeHistoryJson(std::ostream& out, const History& h) {
  // The scalars first, then each list written item by item, so that a long run's history
  // never sits in memory as one JSON document.
  out << historyHead(h);
  int open = -1;  // the list being written
  eachItem(h, [&](int list, const std::string& item) {
    if (open != list) {
      out << (open < 0 ? "" : "]") << ",\n\"" << kListKeys[list] << "\":[\n";
      open = list;
    } else {
      out << ",\n";
    }
    out << item;
  });
  out << (open < 0 ? "" : "]") << "}\n";
}

HistoryJsonStream::HistoryJsonStream(std::string prefix, OrderedWorker* worker)
    : prefix_(std::move(prefix)), worker_(worker) {}

HistoryJsonStream::~HistoryJsonStream() {
  if (worker_) worker_->drain();
  for (size_t i = 0; i < kLists; ++i) {
    if (counts_[i] > 0 || files_[i].is_open()) std::remove(partPath(i).c_str());
  }
}

std::string HistoryJsonStream::partPath(size_t list) const {
  return prefix_ + "." + kListKeys[list] + ".part";
}

void HistoryJsonStream::add(History part) {
  if (!worker_) {
    write(part);
    return;
  }
  worker_->post([this, part = std::move(part)] { write(part); });
}

void HistoryJsonStream::write(const History& part) {
  eachItem(part, [&](int list, const std::string& item) {
    std::ofstream& file = files_[size_t(list)];
    if (!file.is_open()) file.open(partPath(size_t(list)), std::ios::binary);
    file << (counts_[size_t(list)]++ ? ",\n" : "") << item;
    ok_ = ok_ && file.good();
  });
}

bool HistoryJsonStream::finish(const History& scalars, const std::string& path) {
  if (worker_) worker_->drain();
  std::ofstream out(path, std::ios::binary);
  out << historyHead(scalars);
  for (size_t i = 0; i < kLists; ++i) {
    if (counts_[i] == 0) continue;
    files_[i].close();
    out << ",\n\"" << kListKeys[i] << "\":[\n";
    std::ifstream in(partPath(i), std::ios::binary);
    out << in.rdbuf();
    out << "]";
    ok_ = ok_ && !in.bad();
  }
  out << "}\n";
  return ok_ && out.good();
}

}  // namespace history
}  // namespace orvcam
