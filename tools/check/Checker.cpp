#include "check/Checker.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

namespace orvcam {
namespace check {

using namespace history;

std::string formatTime(Nanos at) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f ms", double(at) / 1e6);
  return buf;
}

namespace {

using SensorFrame = std::pair<uint32_t, uint32_t>;

std::string sf(uint32_t sensor, uint32_t frame) {
  return sensorName(sensor) + " F:" + std::to_string(frame);
}

std::string jobName(const JobRecord& j) {
  return sf(j.sensor, j.frame) + " " + jobKindName(j.kind);
}

std::string frameList(const std::vector<uint32_t>& frames) {
  std::string out;
  for (uint32_t f : frames) out += (out.empty() ? "" : " ") + std::to_string(f);
  return out;
}

class Checker {
 public:
  Checker(const History& h, bool absentApart) : h_(h), absentApart_(absentApart) {
    result_.skipped = h.unsupportedRules;
    index();
  }

  CheckResult run() {
    checkOrder();
    checkSync();
    checkRawSwitch();
    checkFd();
    if (!h_.unsupportedRules.count("licence")) checkLicences();
    checkDelivery();
    if (!h_.framesLeftInPool.empty()) {
      add("pool", h_.wallTime,
          "the frame pool still holds frame(s) " + frameList(h_.framesLeftInPool) + " at the end");
    }
    for (Violation& n : clientProtocolNotes(h_)) result_.notes.push_back(std::move(n));
    auto byTime = [](const Violation& a, const Violation& b) { return a.at < b.at; };
    std::stable_sort(result_.violations.begin(), result_.violations.end(), byTime);
    std::stable_sort(result_.notes.begin(), result_.notes.end(), byTime);
    std::stable_sort(result_.sameStamp.begin(), result_.sameStamp.end(), byTime);
    std::stable_sort(result_.absent.begin(), result_.absent.end(), byTime);
    return std::move(result_);
  }

 private:
  void add(const char* rule, Nanos at, std::string message) {
    auto unsupported = h_.unsupportedRules.find(rule);
    if (unsupported != h_.unsupportedRules.end()) {
      result_.skipped.insert(*unsupported);
      return;
    }
    result_.violations.push_back({rule, std::move(message), at});
  }

  // A breach of an ordering rule between two threads' events at `at` and `other`. When both
  // carry the same coarse stamp, only the file's line order puts them so: kept apart from the
  // violations, since a file merged or sorted by its stamps loses that order.
  void addOrdering(const char* rule, Nanos at, Nanos other, std::string message) {
    Nanos tick = h_.stampTick;
    if (tick > 0 && at / tick == other / tick) {
      result_.sameStamp.push_back({rule, std::move(message), at});
      return;
    }
    add(rule, at, std::move(message));
  }

  // A breach that rests only on a record being absent: the source may have lost it.
  void addAbsent(const char* rule, Nanos at, std::string message) {
    if (absentApart_ && !h_.unsupportedRules.count(rule)) {
      result_.absent.push_back({rule, std::move(message), at});
      return;
    }
    add(rule, at, std::move(message));
  }

  void note(Nanos at, std::string message, const char* broken) {
    result_.notes.push_back({"client", std::move(message), at, broken});
  }

  void index() {
    plans_.reserve(h_.plans.size());
    position_.reserve(h_.prepares.size());
    preparedAt_.reserve(h_.prepares.size());
    jobs_.reserve(h_.jobs.size());
    for (const auto& p : h_.plans) plans_[p.frame] = &p;
    for (const auto& p : h_.prepares) {
      std::vector<uint32_t>& seq = sequence_[p.sensor];
      position_.emplace(SensorFrame{p.sensor, p.frame}, seq.size());  // first prepare counts
      seq.push_back(p.frame);
      keepEarliest(preparedAt_, SensorFrame{p.sensor, p.frame}, p.end > 0 ? p.end : p.at);
    }
    for (const auto& j : h_.jobs) {
      std::vector<const JobRecord*>& jobs = jobs_[{j.sensor, j.frame}];
      if (jobs.empty()) jobs.reserve(2);  // a configure and an enqueue, mostly
      jobs.push_back(&j);
      if (j.ran && !h_.inContext(j.frame)) ++result_.jobsChecked;
      if (j.ran && j.startLost && !h_.inContext(j.frame)) ++result_.startsLost;
    }
    for (auto& entry : jobs_) {
      std::stable_sort(entry.second.begin(), entry.second.end(),
                       [](const JobRecord* a, const JobRecord* b) { return a->kind < b->kind; });
    }
    for (const auto& e : h_.events) {
      if (e.kind == EventKind::Drop) keepEarliest(dropped_, {e.sensor, e.frame}, e.begin);
      if (e.kind == EventKind::Flush) {
        for (uint32_t f : e.frames) keepEarliest(flushed_, {e.sensor, f}, e.begin);
      }
      if (e.kind == EventKind::InformInflight && e.value == 0) {
        for (uint32_t f : e.frames) {
          keepEarliest(broken_, f, e.begin);
          keepEarliest(brokenEnd_, f, e.end);
        }
      }
    }
  }

  template <typename Map>
  static void keepEarliest(Map& map, const typename Map::key_type& key, Nanos at) {
    auto it = map.find(key);
    if (it == map.end() || at < it->second) map[key] = at;
  }

  template <typename Map, typename Key>
  static std::optional<Nanos> lookup(const Map& map, const Key& key) {
    auto it = map.find(key);
    if (it == map.end()) return std::nullopt;
    return it->second;
  }

  const FramePlan* plan(uint32_t frame) const {
    auto it = plans_.find(frame);
    return it == plans_.end() ? nullptr : it->second;
  }

  // A job whose start is known: only those are compared by their start.
  static bool started(const JobRecord& j) { return j.ran && !j.startLost; }

  // The jobs of (sensor, frame) that ran, configure first: a view of the index, not a copy
  // (the rules ask for them several times per job of a long history).
  class RanJobs {
   public:
    class Iterator {
     public:
      Iterator(const JobRecord* const* at, const JobRecord* const* end) : at_(at), end_(end) {
        skip();
      }
      const JobRecord* operator*() const { return *at_; }
      Iterator& operator++() {
        ++at_;
        skip();
        return *this;
      }
      bool operator!=(const Iterator& o) const { return at_ != o.at_; }

     private:
      void skip() {
        while (at_ != end_ && !(*at_)->ran) ++at_;
      }
      const JobRecord* const* at_;
      const JobRecord* const* end_;
    };
    explicit RanJobs(const std::vector<const JobRecord*>* all) : all_(all) {}
    Iterator begin() const { return Iterator(first(), last()); }
    Iterator end() const { return Iterator(last(), last()); }

   private:
    const JobRecord* const* first() const { return all_ ? all_->data() : nullptr; }
    const JobRecord* const* last() const { return all_ ? all_->data() + all_->size() : nullptr; }
    const std::vector<const JobRecord*>* all_;
  };
  RanJobs ranJobs(uint32_t sensor, uint32_t frame) const {
    auto it = jobs_.find({sensor, frame});
    return RanJobs(it == jobs_.end() ? nullptr : &it->second);
  }

  // When the sensor counted as enqueued in the frame: its enqueue job ended, or the frame
  // was dropped or flushed for it.
  std::optional<Nanos> enqueuedAt(uint32_t sensor, uint32_t frame) const {
    std::optional<Nanos> at;
    auto take = [&at](std::optional<Nanos> t) {
      if (t && (!at || *t < *at)) at = t;
    };
    for (const JobRecord* j : ranJobs(sensor, frame)) {
      if (j->kind == JobKind::Enqueue) take(j->end);
    }
    take(lookup(dropped_, SensorFrame{sensor, frame}));
    take(lookup(flushed_, SensorFrame{sensor, frame}));
    return at;
  }

  // The frame the sensor prepared just before `frame`, if any.
  std::optional<uint32_t> previousFrame(uint32_t sensor, uint32_t frame) const {
    auto pos = position_.find({sensor, frame});
    if (pos == position_.end() || pos->second == 0) return std::nullopt;
    return sequence_.at(sensor)[pos->second - 1];
  }

  // `j` started before `last`, of a frame the sensor prepared earlier, had ended.
  void orderBreach(const JobRecord& j, const JobRecord& last) {
    if (j.sent < last.sent) {
      note(j.sent,
           jobName(j) + " was sent at " + formatTime(j.sent) + ", before " + jobName(last) +
               " (sent at " + formatTime(last.sent) + "), although S:" + std::to_string(j.sensor) +
               " prepared F:" + std::to_string(last.frame) + " first",
           clientrule::kSendOrder);
      return;
    }
    add("order", j.start,
        jobName(j) + " started at " + formatTime(j.start) + ", before " + jobName(last) +
            " (prepared earlier) ended at " + formatTime(last.end));
  }

  // Per sensor, jobs run in preparation order, configure before enqueue. The library holds
  // no send back for the sensor's own previous frame: its request thread's call order puts
  // them in order. A job sent before one the sensor prepared earlier is the client's doing; a
  // frame prepared twice counts at its first preparation (the second is the client's note).
  void checkOrder() {
    for (const auto& entry : sequence_) {
      uint32_t sensor = entry.first;
      const JobRecord* last = nullptr;
      std::unordered_set<uint32_t> seen;
      for (uint32_t frame : entry.second) {
        if (!seen.insert(frame).second) continue;
        for (const JobRecord* j : ranJobs(sensor, frame)) {
          if (last && started(*j) && j->start < last->end && !h_.inContext(frame)) {
            orderBreach(*j, *last);
          }
          if (!last || j->end > last->end) last = j;
        }
      }
    }
    std::unordered_set<SensorFrame, SensorFrameHash> named;
    for (const auto& j : h_.jobs) {
      SensorFrame key{j.sensor, j.frame};
      // A no-frame send has nothing to prepare.
      if (j.frame == kNoFrame || position_.count(key) || h_.inContext(j.frame)) continue;
      if (!named.insert(key).second) continue;
      addAbsent("order", jobs_.at(key).front()->sent,
                sf(j.sensor, j.frame) + " sent a job for a frame it never prepared");
    }
  }

  // Nobody goes before every sensor of the sync list of its previous frame has enqueued it,
  // unless an in-flight report broke that frame's sync first.
  void checkSync() {
    for (const auto& j : h_.jobs) {
      if (!started(j) || h_.inContext(j.frame)) continue;
      std::optional<uint32_t> prev = previousFrame(j.sensor, j.frame);
      if (!prev || !plan(*prev)) continue;
      std::optional<Nanos> broken = lookup(broken_, *prev);
      if (broken && *broken <= j.start) continue;
      for (uint32_t partner : plan(*prev)->syncList) {
        std::optional<Nanos> done = enqueuedAt(partner, *prev);
        if (!done) {
          addAbsent("sync", j.start,
                    jobName(j) + " ran although sync partner " + sf(partner, *prev) +
                        " (its previous synchronised frame) was never enqueued");
        } else if (*done > j.start) {
          addOrdering("sync", j.start, *done,
                      jobName(j) + " started at " + formatTime(j.start) + ", before sync partner " +
                          sf(partner, *prev) + " was enqueued at " + formatTime(*done));
        }
      }
    }
  }

  // On a raw-switch frame nobody goes before the off sensor's previous frame is enqueued.
  void checkRawSwitch() {
    for (const auto& p : h_.plans) {
      if (!p.isRawSwitch() || h_.inContext(p.frame)) continue;
      uint32_t off = uint32_t(p.offSensor);
      std::optional<uint32_t> prev = previousFrame(off, p.frame);
      if (!prev) continue;
      std::optional<Nanos> done = enqueuedAt(off, *prev);
      auto offIt = preparedAt_.find({off, p.frame});
      Nanos offPrepared = offIt == preparedAt_.end() ? INT64_MAX : offIt->second;
      for (uint32_t sensor : p.sensors) {
        for (const JobRecord* j : ranJobs(sensor, p.frame)) {
          if (!started(*j)) continue;
          bool held = !done || *done > j->start;
          if (held && sensor != off && offPrepared > j->sent) {
            note(j->sent,
                 jobName(*j) + " was sent on a raw-switch frame before the off sensor S:" +
                     std::to_string(off) +
                     " had prepared it, so the raw-switch rule could not hold it back",
                 clientrule::kRawSwitchBeforeOff);
            continue;
          }
          if (!done) {
            addAbsent("raw-switch", j->start,
                      jobName(*j) +
                          " ran on a raw-switch frame although the off sensor's previous frame " +
                          sf(off, *prev) + " was never enqueued");
          } else if (*done > j->start) {
            addOrdering("raw-switch", j->start, *done,
                        jobName(*j) + " started at " + formatTime(j->start) +
                            " on a raw-switch frame, before the off sensor's previous frame " +
                            sf(off, *prev) + " was enqueued at " + formatTime(*done));
          }
        }
      }
    }
  }

  // A sync group shares one FD on a frame without configuration, until an in-flight report
  // gives each licence an FD of its own; other sensors have FDs of their own; a configure
  // licence shares the FD of the same sensor's enqueue licence.
  void checkFd() {
    for (const auto& p : h_.plans) {
      if (h_.inContext(p.frame)) continue;
      std::map<uint32_t, const JobRecord*> enq;
      std::map<uint32_t, const JobRecord*> cfg;
      for (uint32_t sensor : p.sensors) {
        for (const JobRecord* j : ranJobs(sensor, p.frame)) {
          // A job whose licence line was lost has no FD to compare.
          if (started(*j)) (j->kind == JobKind::Enqueue ? enq : cfg)[sensor] = j;
        }
      }
      if (!p.needCfg.empty()) {
        for (const auto& c : cfg) {
          auto e = enq.find(c.first);
          if (e != enq.end() && e->second->fd != c.second->fd) {
            add("fd", e->second->start,
                sf(c.first, p.frame) + " configured under FD " + std::to_string(c.second->fd) +
                    " but enqueued under FD " + std::to_string(e->second->fd) +
                    "; the two licences of a configured sensor share one FD");
          }
        }
        continue;
      }
      bool broken = broken_.count(p.frame) > 0;
      // After the report, a licence still queued has a descriptor of its own; a job that began
      // after the report ended took its licence after it.
      Nanos reportEnd = broken ? brokenEnd_.at(p.frame) : 0;
      const JobRecord* first = nullptr;
      for (const auto& a : enq) {
        for (const auto& b : enq) {
          if (a.first >= b.first || a.second->fd != b.second->fd) continue;
          bool bothSync = p.syncList.count(a.first) && p.syncList.count(b.first);
          bool after = a.second->start > reportEnd || b.second->start > reportEnd;
          if (!bothSync || (broken && after)) {
            add("fd", b.second->start,
                sf(a.first, p.frame) + " and " + sf(b.first, p.frame) + " share FD " +
                    std::to_string(a.second->fd) +
                    (broken ? " after an in-flight report gave the frame new descriptors"
                            : " although they are not in one sync group"));
          }
        }
        if (p.syncList.count(a.first) && (!broken || a.second->end < broken_.at(p.frame))) {
          if (!first) {
            first = a.second;
          } else if (first->fd != a.second->fd) {
            add("fd", a.second->start,
                "sync group of F:" + std::to_string(p.frame) + " does not share one FD: S:" +
                    std::to_string(first->sensor) + " has FD " + std::to_string(first->fd) +
                    ", S:" + std::to_string(a.first) + " has FD " + std::to_string(a.second->fd));
          }
        }
      }
    }
  }

  struct Licence {
    bool acquired = false;
    int32_t fd = -1;
    Nanos acquiredAt = 0;
    std::vector<Nanos> released;
    std::vector<Nanos> destroyed;
    std::vector<const JobRecord*> usedBy;
  };

  // Every licence is used by at most one job and handed back exactly once, before the
  // deliverer's teardown; the pipe manager's own count agrees.
  void checkLicences() {
    std::map<uint64_t, Licence> licences;
    LicenceTotals seen;
    collectLicences(&licences, &seen);
    result_.licencesChecked = licences.size();
    for (const auto& entry : licences) checkLicence(entry.first, entry.second);
    checkAccount(seen);
  }

  // Each licence's life from the pipe manager's records, and the jobs that used it.
  void collectLicences(std::map<uint64_t, Licence>* out, LicenceTotals* totals) {
    std::map<uint64_t, Licence>& licences = *out;
    LicenceTotals& seen = *totals;
    for (const auto& r : h_.licences) {
      Licence& l = licences[r.serial];
      std::string name =
          "licence #" + std::to_string(r.serial) + " (FD " + std::to_string(r.fd) + ")";
      if (r.kind == LicenceEventKind::Acquired) {
        ++seen.acquired;
        if (l.acquired) add("licence", r.at, name + " was acquired twice");
        l.acquired = true;
        l.fd = r.fd;
        l.acquiredAt = r.at;
        continue;
      }
      if (!l.acquired) add("licence", r.at, name + " was handed back but never acquired");
      if (r.kind == LicenceEventKind::Released) {
        ++seen.released;
        l.released.push_back(r.at);
      } else {
        ++seen.destroyed;
        l.destroyed.push_back(r.at);
      }
    }
    for (const auto& j : h_.jobs) {
      if (!j.ran) continue;
      if (j.serial == 0) {
        add("licence", j.start, jobName(j) + " ran without a licence");
        continue;
      }
      auto it = licences.find(j.serial);
      if (it == licences.end() || !it->second.acquired) {
        add("licence", j.start,
            jobName(j) + " ran with licence #" + std::to_string(j.serial) +
                ", which the pipe manager never handed out");
        continue;
      }
      it->second.usedBy.push_back(&j);
    }
  }

  // One licence: one job, the FD it was given, handed back once, after its use.
  void checkLicence(uint64_t serial, const Licence& l) {
    std::string name = "licence #" + std::to_string(serial) + " (FD " + std::to_string(l.fd) + ")";
    size_t endings = l.released.size() + l.destroyed.size();
    if (l.usedBy.size() > 1) {
      add("licence", l.usedBy[1]->start,
          name + " was given to two jobs: " + jobName(*l.usedBy[0]) + " and " +
              jobName(*l.usedBy[1]));
    }
    for (const JobRecord* j : l.usedBy) {
      if (j->fd != l.fd) {
        add("licence", j->start, jobName(*j) + " saw FD " + std::to_string(j->fd) + " on " + name);
      }
      for (Nanos at : l.released) {
        if (at < j->start) {
          add("licence", j->start,
              name + " was handed back at " + formatTime(at) + ", before " + jobName(*j) +
                  " used it at " + formatTime(j->start));
        }
      }
    }
    std::string user = l.usedBy.empty() ? "never used" : "used by " + jobName(*l.usedBy[0]);
    if (endings == 0) {
      add("licence", h_.wallTime, name + " (" + user + ") was never handed back: leaked");
    } else if (endings > 1) {
      add("licence", h_.wallTime, name + " was handed back " + std::to_string(endings) + " times");
    }
    for (Nanos at : l.destroyed) {
      add("licence", at, name + " (" + user + ") was destroyed without being handed back");
    }
    for (Nanos at : l.released) {
      if (h_.teardownAt > 0 && at >= h_.teardownAt) {
        add("licence", at,
            name + " (" + user +
                ") was still queued when the run ended; only "
                "the deliverer's teardown handed it back");
      }
    }
  }

  // The pipe manager's own counts against what the run observed.
  void checkAccount(const LicenceTotals& seen) {
    auto compare = [&](const char* what, uint64_t counted, uint64_t observed) {
      if (counted != observed) {
        add("licence", h_.wallTime,
            "the pipe manager counts " + std::to_string(counted) + " " + what +
                " licences, the run observed " + std::to_string(observed));
      }
    };
    compare("acquired", h_.account.acquired, seen.acquired);
    compare("released", h_.account.released, seen.released);
    compare("destroyed", h_.account.destroyed, seen.destroyed);
    const LicenceTotals& a = h_.account;
    if (a.emptyReleases > 0) {
      add("licence", h_.wallTime,
          "the deliverer called the pipe manager's releaseLicense " +
              std::to_string(a.emptyReleases) +
              " time(s) with an empty licence pointer: a licence handed back twice, or one it "
              "never had");
    }
    if (a.released + a.destroyed != a.acquired) {
      add("licence", h_.wallTime,
          "the pipe manager's count does not balance after the deliverer was destroyed: " +
              std::to_string(a.acquired) + " acquired, " + std::to_string(a.released) +
              " released, " + std::to_string(a.destroyed) + " destroyed");
    }
  }

  // Every sensor of every frame is prepared, configured when it must be, and enqueued once,
  // unless its frame was dropped or flushed; nothing runs for a dropped or flushed frame.
  void checkDelivery() {
    std::unordered_set<SensorFrame, SensorFrameHash> setConfigured;
    for (const auto& r : h_.setConfigured) setConfigured.insert({r.sensor, r.frame});
    for (const auto& p : h_.plans) {
      if (h_.inContext(p.frame)) continue;
      for (uint32_t sensor : p.sensors) {
        // Named only for a finding: most (sensor, frame)s have none.
        auto who = [sensor, &p] { return sf(sensor, p.frame); };
        if (!position_.count({sensor, p.frame}))
          addAbsent("delivery", 0, who() + " was never prepared");
        constexpr Nanos kNever = INT64_MAX;
        auto flushIt = flushed_.find({sensor, p.frame});
        auto dropIt = dropped_.find({sensor, p.frame});
        Nanos flushed = flushIt == flushed_.end() ? kNever : flushIt->second;
        Nanos dropped = dropIt == dropped_.end() ? kNever : dropIt->second;
        size_t enqueues = 0, configures = 0;
        auto it = jobs_.find({sensor, p.frame});
        // A drop reported after the sensor's enqueue had run changes nothing.
        if (dropped != kNever && it != jobs_.end()) {
          for (const JobRecord* j : it->second) {
            if (j->kind == JobKind::Enqueue && j->ran && j->end < dropped) dropped = kNever;
          }
        }
        static const std::vector<const JobRecord*> kNone;
        for (const JobRecord* j : it == jobs_.end() ? kNone : it->second) {
          bool licenceGone = dropped < j->end || flushed < j->end;
          if (j->kind == JobKind::Enqueue && !j->ran && !licenceGone) {
            add("delivery", j->end,
                who() + " EnqJob was not run: the send returned " + std::to_string(j->result) +
                    " (no licence for it)");
          }
          if (!j->ran) continue;
          (j->kind == JobKind::Enqueue ? enqueues : configures)++;
          if (flushed != kNever && started(*j) && j->start >= flushed) {
            add("delivery", j->start, jobName(*j) + " ran after the frame was flushed");
          }
          if (dropped != kNever && j->kind == JobKind::Enqueue && !j->sentLate &&
              j->sent > dropEnd(sensor, p.frame)) {
            note(j->sent, jobName(*j) + " was sent after the frame's drop had been reported",
                 clientrule::kSendAfterDrop);
          }
        }
        if (flushed != kNever || dropped != kNever) continue;
        if (enqueues == 0) addAbsent("delivery", h_.wallTime, who() + " was never enqueued");
        if (enqueues > 1)
          add("delivery", h_.wallTime,
              who() + " was enqueued " + std::to_string(enqueues) + " times");
        size_t configured = configures + setConfigured.count({sensor, p.frame});
        if (p.needCfg.count(sensor) && configured != 1) {
          std::string message = who() + " needed configuring once but was configured " +
                                std::to_string(configured) + " times";
          if (configured == 0) {
            addAbsent("delivery", h_.wallTime, std::move(message));
          } else {
            add("delivery", h_.wallTime, std::move(message));
          }
        }
      }
    }
  }

  // Lookups only: never iterated, so their order cannot show in the results.
  template <typename V>
  using BySensorFrame = std::unordered_map<SensorFrame, V, SensorFrameHash>;
  const History& h_;
  const bool absentApart_;
  CheckResult result_;
  std::unordered_map<uint32_t, const FramePlan*> plans_;
  std::map<uint32_t, std::vector<uint32_t>> sequence_;  // per sensor, frames in prepare order
  BySensorFrame<size_t> position_;                      // where a frame is in its sequence
  BySensorFrame<std::vector<const JobRecord*>> jobs_;   // configure first
  BySensorFrame<Nanos> dropped_;
  BySensorFrame<Nanos> flushed_;
  std::unordered_map<uint32_t, Nanos> broken_;
  std::unordered_map<uint32_t, Nanos> brokenEnd_;
  BySensorFrame<Nanos> preparedAt_;  // first preparation returned

  Nanos dropEnd(uint32_t sensor, uint32_t frame) const {
    Nanos end = 0;
    for (const auto& e : h_.events) {
      if (e.kind == EventKind::Drop && e.sensor == sensor && e.frame == frame) {
        end = std::max(end, e.end);
      }
    }
    return end;
  }
};

}  // namespace

CheckResult checkHistory(const History& history, const CheckOptions& options) {
  return Checker(history, options.absentApart || history.linesLost > 0).run();
}

}  // namespace check
}  // namespace orvcam
