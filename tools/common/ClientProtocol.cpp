// The client's side of the protocol, read from a recorded call order: places where the client
// broke a precondition that the library relies on. These are notes about the client, not
// violations by the library, so that a real coordinator's recorded calls can be judged too.
#include <algorithm>
#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "Checker.h"

namespace orvcam {
namespace sim {

namespace {

// The deliverer fetches a frame's licences on a preparation of a frame number that is not
// among the 20 it first prepared most recently.
constexpr size_t kPreparedWindow = NSCam::camsys::camcoordinator::kPreparationWindow;

std::string sf(uint32_t sensor, uint32_t frame) {
  return "S:" + std::to_string(sensor) + " F:" + std::to_string(frame);
}

}  // namespace

std::vector<Violation> clientProtocolNotes(const History& h) {
  std::vector<Violation> notes;
  std::vector<const PrepareRecord*> calls;
  for (const auto& p : h.prepares) calls.push_back(&p);
  std::stable_sort(calls.begin(), calls.end(),
                   [](const PrepareRecord* a, const PrepareRecord* b) { return a->at < b->at; });

  // Replays the deliverer's window of recently first-prepared frame numbers.
  std::deque<uint32_t> window;
  std::unordered_set<uint32_t> everFirst;
  std::unordered_set<std::pair<uint32_t, uint32_t>, SensorFrameHash> seen;
  for (const PrepareRecord* p : calls) {
    if (!seen.insert({p->sensor, p->frame}).second && !h.inContext(p->frame)) {
      notes.push_back({"client", sf(p->sensor, p->frame) + " was prepared twice", p->at});
    }
    if (std::find(window.begin(), window.end(), p->frame) != window.end()) continue;
    if (everFirst.count(p->frame) && !h.inContext(p->frame)) {
      notes.push_back(
          {"client",
           sf(p->sensor, p->frame) + " was prepared after " + std::to_string(kPreparedWindow) +
               " other frames had been first prepared since the frame's own first preparation; "
               "the deliverer fetches its licences again and ends the process",
           p->at});
    }
    everFirst.insert(p->frame);
    window.push_back(p->frame);
    if (window.size() > kPreparedWindow) window.pop_front();
  }

  // Every send of a real frame comes after the sensor prepared it.
  std::unordered_map<std::pair<uint32_t, uint32_t>, Nanos, SensorFrameHash> preparedAt;
  for (const auto& p : h.prepares) preparedAt.emplace(std::make_pair(p.sensor, p.frame), p.at);
  for (const auto& j : h.jobs) {
    if (j.frame == kNoFrame || h.inContext(j.frame)) continue;
    auto it = preparedAt.find({j.sensor, j.frame});
    if (it != preparedAt.end() && it->second > j.sent) {
      notes.push_back({"client",
                       sf(j.sensor, j.frame) + " " + jobKindName(j.kind) +
                           " was sent before the sensor prepared the frame",
                       j.sent});
    }
  }
  return notes;
}

}  // namespace sim
}  // namespace orvcam
