#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace orvcam {
namespace sim {

namespace {

Nanos percentile(const std::vector<Nanos>& sorted, double p) {
  if (sorted.empty()) return 0;
  size_t rank = size_t(p * double(sorted.size()) + 0.999999);
  rank = std::min(std::max<size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

std::string ms(Nanos ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", double(ns) / 1e6);
  return buf;
}

}  // namespace

std::vector<SensorSummary> summarize(const History& h) {
  std::map<uint32_t, SensorSummary> rows;
  std::map<uint32_t, std::vector<Nanos>> waits;
  for (uint32_t s : h.sensors) rows[s].label = "S:" + std::to_string(s);
  for (const auto& p : h.prepares) ++rows[p.sensor].prepared;
  for (const auto& r : h.setConfigured) ++rows[r.sensor].configured;
  for (const auto& j : h.jobs) {
    SensorSummary& row = rows[j.sensor];
    if (j.ran) {
      ++(j.kind == JobKind::Configure ? row.configured : row.enqueued);
      waits[j.sensor].push_back(j.start - j.sent);
    }
  }
  std::map<uint32_t, const FramePlan*> plans;
  for (const auto& p : h.plans) plans[p.frame] = &p;
  std::set<std::pair<uint32_t, uint32_t>> flushed;
  for (const auto& e : h.events) {
    if (e.kind == EventKind::Drop) ++rows[e.sensor].dropped;
    if (e.kind != EventKind::Flush) continue;
    for (uint32_t f : e.frames) {
      auto plan = plans.find(f);
      if (plan != plans.end() && plan->second->participates(e.sensor) &&
          flushed.insert({e.sensor, f}).second) {
        ++rows[e.sensor].flushed;
      }
    }
  }
  for (auto& entry : rows) {
    std::vector<Nanos>& w = waits[entry.first];
    std::sort(w.begin(), w.end());
    entry.second.waits = w.size();
    entry.second.waitP50 = percentile(w, 0.50);
    entry.second.waitP99 = percentile(w, 0.99);
    entry.second.waitMax = w.empty() ? 0 : w.back();
  }

  // Licence ownership, as described in the header.
  std::map<uint64_t, int64_t> owner;
  for (const auto& j : h.jobs) {
    if (j.ran && j.serial != 0 && !owner.count(j.serial)) owner[j.serial] = j.sensor;
  }
  for (const auto& r : h.licences) {
    if (r.kind != LicenceEventKind::Acquired && r.context >= 0 && !owner.count(r.serial)) {
      owner[r.serial] = r.context;
    }
  }
  SensorSummary shared;
  shared.label = "shared";
  std::map<uint64_t, std::pair<bool, bool>> fate;  // serial -> (released, destroyed)
  for (const auto& r : h.licences) {
    if (r.kind == LicenceEventKind::Released) fate[r.serial].first = true;
    if (r.kind == LicenceEventKind::Destroyed) fate[r.serial].second = true;
  }
  for (const auto& r : h.licences) {
    if (r.kind != LicenceEventKind::Acquired) continue;
    auto o = owner.find(r.serial);
    SensorSummary& row = o == owner.end() ? shared : rows[uint32_t(o->second)];
    ++row.licAcquired;
    const auto& f = fate[r.serial];
    if (f.first) ++row.licReleased;
    if (!f.first || f.second) ++row.licLeaked;
  }

  std::vector<SensorSummary> out;
  SensorSummary total;
  total.label = "total";
  std::vector<Nanos> all;
  for (auto& entry : rows) {
    if (entry.second.label.empty()) entry.second.label = "S:" + std::to_string(entry.first);
    out.push_back(entry.second);
    all.insert(all.end(), waits[entry.first].begin(), waits[entry.first].end());
  }
  out.push_back(shared);
  for (const auto& row : out) {
    total.prepared += row.prepared;
    total.configured += row.configured;
    total.enqueued += row.enqueued;
    total.dropped += row.dropped;
    total.flushed += row.flushed;
    total.licAcquired += row.licAcquired;
    total.licReleased += row.licReleased;
    total.licLeaked += row.licLeaked;
  }
  std::sort(all.begin(), all.end());
  total.waits = all.size();
  total.waitP50 = percentile(all, 0.50);
  total.waitP99 = percentile(all, 0.99);
  total.waitMax = all.empty() ? 0 : all.back();
  out.push_back(total);
  return out;
}

std::string verdictLine(const CheckResult& check) {
  std::string counts = std::to_string(check.jobsChecked) + " jobs and " +
                       std::to_string(check.licencesChecked) + " licences checked";
  std::string skipped;
  for (const auto& s : check.skipped) skipped += (skipped.empty() ? "" : ", ") + s.first;
  if (!skipped.empty()) counts += " (not checked: " + skipped + ")";
  if (check.clean()) {
    return "verdict: PASS - " + counts +
           (skipped.empty() ? ", no ordering or licence violation" : ", no violation");
  }
  std::map<std::string, size_t> byRule;
  for (const auto& v : check.violations) ++byRule[v.rule];
  std::string rules;
  for (const auto& r : byRule) {
    rules += (rules.empty() ? "" : ", ") + r.first + " " + std::to_string(r.second);
  }
  return "verdict: FAIL - " + std::to_string(check.violations.size()) + " violation(s) (" + rules +
         "); " + counts;
}

void printReport(std::ostream& out, const History& h, const CheckResult& check,
                 size_t maxViolations) {
  char line[256];
  std::snprintf(line, sizeof line, "scenario %s, %zu frames, %zu sensors, seed %llu, %.3f s\n\n",
                h.scenario.c_str(), h.plans.size(), h.sensors.size(),
                static_cast<unsigned long long>(h.seed), double(h.wallTime) / 1e9);
  out << line;
  std::snprintf(line, sizeof line, "%-7s %8s %10s %8s %7s %7s  %9s %9s %9s  %8s %8s %6s\n",
                "sensor", "prepared", "configured", "enqueued", "dropped", "flushed", "wait p50",
                "wait p99", "wait max", "lic acq", "lic rel", "leaked");
  out << line;
  std::snprintf(line, sizeof line, "%-7s %8s %10s %8s %7s %7s  %9s %9s %9s  %8s %8s %6s\n", "", "",
                "", "", "", "", "ms", "ms", "ms", "", "", "");
  out << line;
  for (const SensorSummary& r : summarize(h)) {
    bool sensorRow = r.label != "shared";
    auto n = [&](uint64_t v) { return sensorRow ? std::to_string(v) : std::string("-"); };
    auto t = [&](Nanos v) { return r.waits ? ms(v) : std::string("-"); };
    std::snprintf(line, sizeof line, "%-7s %8s %10s %8s %7s %7s  %9s %9s %9s  %8llu %8llu %6llu\n",
                  r.label.c_str(), n(r.prepared).c_str(), n(r.configured).c_str(),
                  n(r.enqueued).c_str(), n(r.dropped).c_str(), n(r.flushed).c_str(),
                  t(r.waitP50).c_str(), t(r.waitP99).c_str(), t(r.waitMax).c_str(),
                  static_cast<unsigned long long>(r.licAcquired),
                  static_cast<unsigned long long>(r.licReleased),
                  static_cast<unsigned long long>(r.licLeaked));
    out << line;
  }
  out << "\n";
  if (!check.clean()) {
    out << "violations:\n";
    size_t shown = 0;
    for (const auto& v : check.violations) {
      if (shown++ == maxViolations) {
        out << "  ... and " << check.violations.size() - maxViolations << " more\n";
        break;
      }
      out << "  [" << v.rule << "] " << v.message << "\n";
    }
    out << "\n";
  }
  for (const auto& skipped : check.skipped) {
    out << "not checked: " << skipped.first << " (" << skipped.second << ")\n";
  }
  out << verdictLine(check) << "\n";
}

void writeHistoryJson(std::ostream& out, const History& h) {
  using json = nlohmann::json;
  json root;
  root["scenario"] = h.scenario;
  root["seed"] = h.seed;
  root["sensors"] = h.sensors;
  root["wallTimeNs"] = h.wallTime;
  root["teardownAtNs"] = h.teardownAt;
  root["framesLeftInPool"] = h.framesLeftInPool;
  if (!h.unsupportedRules.empty()) root["unsupportedRules"] = h.unsupportedRules;
  root["account"] = {{"acquired", h.account.acquired},
                     {"released", h.account.released},
                     {"destroyed", h.account.destroyed},
                     {"emptyReleases", h.account.emptyReleases}};
  // The scalars first, then each list written item by item, so that a long run's history
  // never sits in memory as one JSON document.
  std::string head = root.dump();
  head.pop_back();  // the closing brace
  out << head;
  std::string open;  // the list being written
  auto emit = [&](const char* key, const json& item) {
    if (open != key) {
      out << (open.empty() ? "" : "]") << ",\n\"" << key << "\":[\n";
      open = key;
    } else {
      out << ",\n";
    }
    out << item.dump();
  };
  for (const auto& p : h.plans) {
    emit("frames", {{"frame", p.frame},
                    {"sensors", p.sensors},
                    {"needCfg", p.needCfg},
                    {"cfgByJob", p.cfgByJob},
                    {"syncList", p.syncList},
                    {"offSensor", p.offSensor},
                    {"onSensor", p.onSensor}});
  }
  for (const auto& p : h.prepares) {
    emit("prepares", {{"sensor", p.sensor}, {"frame", p.frame}, {"at", p.at}});
  }
  for (const auto& r : h.setConfigured) {
    emit("setConfigured", {{"sensor", r.sensor}, {"frame", r.frame}, {"at", r.at}});
  }
  for (const auto& j : h.jobs) {
    emit("jobs", {{"sensor", j.sensor},
                  {"frame", j.frame},
                  {"kind", jobKindName(j.kind)},
                  {"sent", j.sent},
                  {"start", j.start},
                  {"end", j.end},
                  {"ran", j.ran},
                  {"result", j.result},
                  {"serial", j.serial},
                  {"fd", j.fd}});
  }
  for (const auto& e : h.events) {
    emit("events", {{"type", eventKindName(e.kind)},
                    {"sensor", e.sensor},
                    {"frame", e.frame},
                    {"value", e.value},
                    {"begin", e.begin},
                    {"end", e.end},
                    {"frames", e.frames}});
  }
  static const char* const kinds[] = {"Acquired", "Released", "Destroyed"};
  for (const auto& l : h.licences) {
    emit("licences", {{"event", kinds[int(l.kind)]},
                      {"serial", l.serial},
                      {"fd", l.fd},
                      {"at", l.at},
                      {"context", l.context}});
  }
  out << (open.empty() ? "" : "]") << "}\n";
}

}  // namespace sim
}  // namespace orvcam
