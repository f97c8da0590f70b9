#pragma once
// What a sensor's send waits for, read from a log: the tools' one statement of the guard's
// rule, used by the report's explanations of waiting sends and by the trace's arrows from the
// enqueue that released a wait. (The checker judges a history with a copy of its own, kept
// independent on purpose: it is what the library is checked against.)
#include <cstdint>
#include <optional>
#include <vector>

#include "logread/LogReader.h"

namespace orvcam {
namespace logread {

// The frame the sensor prepared just before `st`'s frame, as the guard looks it up.
std::optional<uint32_t> previousFrame(const Run& r, const SensorFrame& st);

// Who must enqueue which frame before `st`'s send (its configure job when `isConfig`) goes.
struct SendWait {
  // On a raw-switch frame whose wait for the off sensor is still open: that sensor, which must
  // enqueue its own previous frame first.
  std::optional<uint32_t> offSensor;
  // The frame to be enqueued: the off sensor's previous frame, or the sensor's own previous
  // frame; empty when the log does not show it.
  std::optional<uint32_t> frame;
  // Who must enqueue `frame`: the off sensor, or the sensors the log shows in the frame (its
  // sync group). A sync break of the frame is not taken into account: the log cannot tell
  // whether it came before the send was released or after.
  std::vector<uint32_t> sensors;
};
SendWait sendWait(const Run& r, const SensorFrame& st, bool isConfig);

}  // namespace logread
}  // namespace orvcam
