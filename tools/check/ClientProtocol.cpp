// The client's side of the protocol, read from a recorded call order: places where the client
// broke a precondition that the library relies on. These are notes about the client, not
// violations by the library, so that a real coordinator's recorded calls can be judged too.
#include <algorithm>
#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "check/Checker.h"

namespace orvcam {
namespace check {

using namespace history;

namespace clientrule {
const char* const kLaggingPrepare =
    "prepare a frame after 20 other frames have been first prepared since the frame's own first "
    "preparation (a lagging sensor, a sensor joining by a raw switch while another runs ahead)";
const char* const kDoublePrepare = "prepare a frame twice for one sensor";
const char* const kSendOrder =
    "send a sensor's frames in another order than the sensor prepared them (its prepares are "
    "its frame order)";
const char* const kSendBeforePrepare = "send for a frame before the sensor has prepared it";
const char* const kRawSwitchBeforeOff =
    "send for a raw-switch frame before the off sensor has prepared it";
const char* const kSendAfterDrop =
    "send a configure job, or an enqueue, after a drop of that sensor's frame";
}  // namespace clientrule

namespace {

// The deliverer fetches a frame's licences on a preparation of a frame number that is not
// among the 20 it first prepared most recently.
constexpr size_t kPreparedWindow = NSCam::camsys::camcoordinator::kPreparationWindow;

std::string sf(uint32_t sensor, uint32_t frame) {
  return sensorName(sensor) + " F:" + std::to_string(frame);
}

}  // namespace

std::vector<Violation> clientProtocolNotes(const History& h) {
  std::vector<Violation> notes;
  std::vector<const PrepareRecord*> calls;
  for (const auto& p : h.prepares) calls.push_back(&p);
  std::stable_sort(calls.begin(), calls.end(),
                   [](const PrepareRecord* a, const PrepareRecord* b) { return a->at < b->at; });

  // Replays the deliverer's window of recently first-prepared frame numbers; `firsts` counts
  // the preparations that fetched a frame's licences, `fetchedAt` each frame's last such one.
  std::deque<uint32_t> window;
  std::unordered_map<uint32_t, uint64_t> fetchedAt;
  uint64_t firsts = 0;
  std::unordered_set<std::pair<uint32_t, uint32_t>, SensorFrameHash> seen;
  for (const PrepareRecord* p : calls) {
    if (!seen.insert({p->sensor, p->frame}).second && !h.inContext(p->frame)) {
      notes.push_back({"client", sf(p->sensor, p->frame) + " was prepared twice", p->at,
                       clientrule::kDoublePrepare});
    }
    if (std::find(window.begin(), window.end(), p->frame) != window.end()) continue;
    auto fetched = fetchedAt.find(p->frame);
    if (fetched != fetchedAt.end() && !h.inContext(p->frame)) {
      notes.push_back({"client",
                       sf(p->sensor, p->frame) + " was prepared after " +
                           std::to_string(firsts - fetched->second) +
                           " other frames had been first prepared since the frame's own first "
                           "preparation; the deliverer keeps the last " +
                           std::to_string(kPreparedWindow) +
                           ", fetches the frame's licences again and ends the process",
                       p->at, clientrule::kLaggingPrepare});
    }
    fetchedAt[p->frame] = ++firsts;
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
                       j.sent, clientrule::kSendBeforePrepare});
    }
  }
  return notes;
}

}  // namespace check
}  // namespace orvcam
