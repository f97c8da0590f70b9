#include "client/ClientModel.h"

#include <algorithm>

#include "CamDeliverConstants.h"

namespace orvcam {
namespace client {

using namespace history;

ClientPlan::ClientPlan(const Scenario& scenario)
    : earlySends(scenario.earlySends), plans(planFrames(scenario)) {
  for (const auto& e : scenario.events) {
    if (e.kind == EventKind::Drop) {
      dropsPlanned[{e.sensor, e.frame}] = e.when;
      drops.push_back(&e);
    } else {
      eventsAt[planIndex(plans, e.frame)].push_back(&e);
    }
  }
  for (const auto& n : scenario.noFrameSends) noFrameAfter.insert({n.sensor, n.after});
}

bool ClientPlan::gated(const PlannedEvent& e) {
  return (e.kind == EventKind::Flush || (e.kind == EventKind::InformInflight && e.value == 0)) &&
         e.when == EventTiming::Usual;
}

bool ClientPlan::hasGatedEvent(size_t idx) const {
  auto it = eventsAt.find(idx);
  return it != eventsAt.end() && std::any_of(it->second.begin(), it->second.end(),
                                             [](const PlannedEvent* e) { return gated(*e); });
}

bool ClientPlan::hasWhileRunningEvent(size_t idx) const {
  auto it = eventsAt.find(idx);
  return it != eventsAt.end() &&
         std::any_of(it->second.begin(), it->second.end(),
                     [](const PlannedEvent* e) { return e->when == EventTiming::WhileRunning; });
}

const EventTiming* ClientPlan::dropFor(uint32_t sensor, uint32_t frame) const {
  auto it = dropsPlanned.find({sensor, frame});
  return it == dropsPlanned.end() ? nullptr : &it->second;
}

ClientState::ClientState(const ClientPlan& p) : plan(&p), frames(p.plans.size()) {
  for (const PlannedEvent* e : p.drops) {
    size_t idx = planIndex(p.plans, e->frame);
    if (e->when == EventTiming::Racing) {
      racingDrops.push_back({e->sensor, idx});
      frames[idx].racing.insert(e->sensor);
    }
    if (e->when == EventTiming::Late) lateDrops.push_back({e->sensor, idx});
  }
}

bool ClientState::complete(size_t idx) const {
  return frames[idx].flushed || frames[idx].done.size() == plan->plans[idx].sensors.size();
}

bool ClientState::fullyPrepared(size_t idx) const {
  return frames[idx].flushed || frames[idx].prepared.size() == plan->plans[idx].sensors.size();
}

bool ClientState::mayEmplace(size_t idx) const {
  constexpr size_t kWindow = NSCam::camsys::camcoordinator::kPreparationWindow;
  return idx < kWindow || fullyPrepared(idx - kWindow);
}

bool ClientState::maySend(uint32_t sensor, size_t idx) const {
  if (idx >= gate) return false;
  const FramePlan& p = plan->plans[idx];
  const FrameState& f = frames[idx];
  if (!f.prepared.count(sensor)) return false;
  if (!plan->earlySends) {
    if (f.prepared.size() < p.sensors.size()) return false;
  } else if (p.isRawSwitch() && uint32_t(p.offSensor) != sensor &&
             !f.prepared.count(uint32_t(p.offSensor))) {
    return false;
  }
  // A sensor without a racing drop of its own keeps the frame in the pool until every racing
  // sensor's send has returned and its drop has been reported: the racing send must find the
  // frame when it enters the deliverer, whatever the drop did meanwhile.
  if (!f.racing.count(sensor)) {
    for (uint32_t r : f.racing) {
      if (!f.racingReturned.count(r) || !f.dropReported.count(r)) return false;
    }
  }
  return true;
}

bool ClientState::markDone(uint32_t sensor, size_t idx) {
  if (!frames[idx].done.insert(sensor).second || frames[idx].flushed) return false;
  if (!complete(idx)) return false;
  --inFlight;
  ++framesDone;
  return true;
}

std::vector<size_t> ClientState::syncFrames(uint32_t sensor) const {
  std::vector<size_t> out;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (frames[i].emplaced && !complete(i) && !frames[i].syncBroken &&
        plan->plans[i].syncList.count(sensor)) {
      out.push_back(i);
    }
  }
  return out;
}

bool ClientState::dropsDue() const {
  if (!dropRequests.empty()) return true;
  for (const auto& r : racingDrops) {
    const FrameState& f = frames[r.second];
    if (f.flushed || (f.racingSent.count(r.first) && !f.dropReported.count(r.first))) return true;
  }
  for (const auto& l : lateDrops) {
    if (complete(l.second)) return true;
  }
  return false;
}

void ClientState::firstPrepareReturned(size_t idx) {
  frames[idx].firstPrepareDone = true;
  firstPrepareBusy = false;
  while (nextFirstPrepare < frames.size() && frames[nextFirstPrepare].firstPrepareDone) {
    ++nextFirstPrepare;
  }
}

bool ClientState::completeBefore(size_t idx) const {
  for (size_t i = 0; i < idx; ++i) {
    if (!complete(i)) return false;
  }
  return true;
}

bool ClientState::mayEmplaceBehind(size_t idx, size_t end, uint32_t maxInFlight) const {
  const ClientPlan& p = *plan;
  if (end >= p.plans.size() || inFlight >= maxInFlight || !mayEmplace(end)) return false;
  if (end > idx && (p.hasGatedEvent(end) || p.hasWhileRunningEvent(end))) return false;
  if (p.plans[end].needCfg.empty()) return true;
  for (const PlannedEvent* e : p.eventsAt.at(idx)) {
    bool reports = ClientPlan::gated(*e) && e->kind == EventKind::InformInflight;
    if (reports && p.plans[end].syncList.count(e->sensor)) return false;
  }
  return true;
}

bool ClientState::preparedAll(size_t idx, size_t end) const {
  for (size_t i = idx; i < end; ++i) {
    if (frames[i].prepared.size() < plan->plans[i].sensors.size()) return false;
  }
  return true;
}

std::vector<ClientState::HeldReport> ClientState::heldReports(
    const PlannedEvent& ev, size_t idx, size_t end, const std::vector<SensorSetup>& sensors) {
  std::vector<uint32_t> pending;
  for (size_t i = idx; i < end; ++i) {
    if (complete(i)) continue;
    if (ev.kind == EventKind::Flush || plan->plans[i].syncList.count(ev.sensor)) {
      pending.push_back(plan->plans[i].frame);
    }
  }
  if (ev.kind == EventKind::InformInflight) {
    for (size_t i = idx; i < end; ++i) {
      if (plan->plans[i].syncList.count(ev.sensor)) frames[i].syncBroken = true;
    }
    return {{ev.kind, ev.sensor, ev.value, pending}};
  }
  std::vector<HeldReport> reports{{EventKind::Flush, ev.sensor, ev.value, pending}};
  for (const auto& s : sensors) {
    if (s.id != ev.sensor) reports.push_back({EventKind::Flush, s.id, ev.value, pending});
  }
  reports.push_back({EventKind::QueueFlush, ev.sensor, 0, pending});
  return reports;
}

std::vector<size_t> ClientState::flushHeld(size_t idx, size_t end) {
  std::vector<size_t> flushed;
  for (size_t i = idx; i < end; ++i) {
    if (complete(i)) continue;
    frames[i].flushed = true;
    --inFlight;
    ++framesDone;
    flushed.push_back(i);
  }
  return flushed;
}

std::optional<std::pair<uint32_t, size_t>> ClientState::takeRequestedDrop() {
  if (dropRequests.empty()) return std::nullopt;
  auto request = dropRequests.front();
  dropRequests.pop_front();
  return request;
}

std::optional<std::pair<uint32_t, size_t>> ClientState::takeRacingDrop() {
  for (auto it = racingDrops.begin(); it != racingDrops.end();) {
    const FrameState& f = frames[it->second];
    if (f.flushed) {
      it = racingDrops.erase(it);
    } else if (f.racingSent.count(it->first) && !f.dropReported.count(it->first)) {
      auto request = *it;
      racingDrops.erase(it);
      return request;
    } else {
      ++it;
    }
  }
  return std::nullopt;
}

std::optional<std::pair<uint32_t, size_t>> ClientState::takeLateDrop() {
  for (auto it = lateDrops.begin(); it != lateDrops.end(); ++it) {
    if (complete(it->second)) {
      auto request = *it;
      lateDrops.erase(it);
      return request;
    }
  }
  return std::nullopt;
}

std::optional<ClientState::DueDrop> ClientState::nextDueDrop(DropRound* round) {
  if (*round == DropRound::Requested) {
    if (auto d = takeRequestedDrop()) return DueDrop{d->first, d->second, false};
    *round = DropRound::Racing;
  }
  if (*round == DropRound::Racing) {
    if (auto d = takeRacingDrop()) return DueDrop{d->first, d->second, false};
    *round = DropRound::Late;
  }
  if (auto d = takeLateDrop()) return DueDrop{d->first, d->second, true};
  return std::nullopt;
}

}  // namespace client
}  // namespace orvcam
