#include "report/Report.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

namespace orvcam {
namespace report {

using namespace check;
using namespace history;

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

namespace {

// Sets each row's wait figures (p50, p99, max) from its sorted waits.
void setWaits(SensorSummary* row, std::vector<Nanos>* waits) {
  std::sort(waits->begin(), waits->end());
  row->waits = waits->size();
  row->waitP50 = percentile(*waits, 0.50);
  row->waitP99 = percentile(*waits, 0.99);
  row->waitMax = waits->empty() ? 0 : waits->back();
}

// Licence ownership, as described in the header: each acquired licence counted for the
// sensor whose job took it (or that handed it back), else as shared.
void countLicences(const History& h, std::map<uint32_t, SensorSummary>* rows,
                   SensorSummary* shared) {
  std::map<uint64_t, int64_t> owner;
  for (const auto& j : h.jobs) {
    if (j.ran && j.serial != 0 && !owner.count(j.serial)) owner[j.serial] = j.sensor;
  }
  for (const auto& r : h.licences) {
    if (r.kind != LicenceEventKind::Acquired && r.context >= 0 && !owner.count(r.serial)) {
      owner[r.serial] = r.context;
    }
  }
  std::map<uint64_t, std::pair<bool, bool>> fate;  // serial -> (released, destroyed)
  for (const auto& r : h.licences) {
    if (r.kind == LicenceEventKind::Released) fate[r.serial].first = true;
    if (r.kind == LicenceEventKind::Destroyed) fate[r.serial].second = true;
  }
  for (const auto& r : h.licences) {
    if (r.kind != LicenceEventKind::Acquired) continue;
    auto o = owner.find(r.serial);
    SensorSummary& row = o == owner.end() ? *shared : (*rows)[uint32_t(o->second)];
    ++row.licAcquired;
    const auto& f = fate[r.serial];
    if (f.first) ++row.licReleased;
    if (!f.first || f.second) ++row.licLeaked;
  }
}

}  // namespace

std::vector<SensorSummary> summarize(const History& h) {
  std::map<uint32_t, SensorSummary> rows;
  std::map<uint32_t, std::vector<Nanos>> waits;
  for (uint32_t s : h.sensors) rows[s].label = sensorName(s);
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
  for (auto& entry : rows) setWaits(&entry.second, &waits[entry.first]);

  SensorSummary shared;
  shared.label = "shared";
  countLicences(h, &rows, &shared);

  std::vector<SensorSummary> out;
  SensorSummary total;
  total.label = "total";
  std::vector<Nanos> all;
  for (auto& entry : rows) {
    if (entry.second.label.empty()) entry.second.label = sensorName(entry.first);
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
  setWaits(&total, &all);
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
  for (const auto& v : check.notes) ++byRule[v.rule];
  std::string rules;
  for (const auto& r : byRule) {
    rules += (rules.empty() ? "" : ", ") + r.first + " " + std::to_string(r.second);
  }
  return "verdict: FAIL - " + std::to_string(check.violations.size() + check.notes.size()) +
         " violation(s) (" + rules + "); " + counts;
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
  // A heading, then the first `maxViolations` breaches of a list.
  auto list = [&out, maxViolations](const std::string& heading,
                                    const std::vector<Violation>& breaches) {
    if (breaches.empty()) return;
    out << heading << "\n";
    size_t shown = 0;
    for (const auto& v : breaches) {
      if (shown++ == maxViolations) {
        out << "  ... and " << breaches.size() - maxViolations << " more\n";
        break;
      }
      out << "  [" << v.rule << "] " << v.message << "\n";
      if (!v.broken.empty()) out << "    rule broken: don't " << v.broken << "\n";
    }
    out << "\n";
  };
  list("violations:", check.violations);
  list("the client broke the protocol:", check.notes);
  list("not counted (" + std::to_string(check.sameStamp.size()) +
           "): ordered only by line within one time stamp of the source",
       check.sameStamp);
  list("not counted (" + std::to_string(check.absent.size()) +
           "): rest only on a record being absent, and the source lost records",
       check.absent);
  for (const auto& skipped : check.skipped) {
    out << "not checked: " << skipped.first << " (" << skipped.second << ")\n";
  }
  if (check.startsLost) {
    out << "not checked: order, sync, raw switch and FD of " << check.startsLost
        << " job(s) whose start the source lost\n";
  }
  out << verdictLine(check) << "\n";
}

}  // namespace report
}  // namespace orvcam
