// What a waiting send waits for, read from a log (WaitRule.h).
#include "logread/WaitRule.h"

#include <algorithm>

namespace orvcam {
namespace logread {

std::optional<uint32_t> previousFrame(const Run& r, const SensorFrame& st) {
  if (st.previousFrame >= 0) return uint32_t(st.previousFrame);
  auto seq = r.sequence.find(st.sensor);
  if (seq == r.sequence.end()) return std::nullopt;
  auto pos = std::find(seq->second.begin(), seq->second.end(), st.frame);
  if (pos == seq->second.end() || pos == seq->second.begin()) return std::nullopt;
  return *(pos - 1);
}

SendWait sendWait(const Run& r, const SensorFrame& st, bool isConfig) {
  SendWait w;
  int64_t off = st.offWaitOpen[isConfig ? 1 : 0];
  if (off >= 0) {
    // The off sensor's own record of this frame says which frame it prepared before.
    w.offSensor = uint32_t(off);
    if (const SensorFrame* fake = findState(r, *w.offSensor, st.frame)) {
      w.frame = previousFrame(r, *fake);
    }
    w.sensors.push_back(*w.offSensor);
    return w;
  }
  w.frame = previousFrame(r, st);
  if (!w.frame) return w;
  auto fi = r.frames.find(*w.frame);
  if (fi != r.frames.end()) {
    w.sensors.assign(fi->second.sensors.begin(), fi->second.sensors.end());
  }
  return w;
}

}  // namespace logread
}  // namespace orvcam
