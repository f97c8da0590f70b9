#pragma once
// Numbers that name one fact of the deliverer's protocol, shared by its classes and by the
// tools that read its logs and histories. Plain constants: nothing here needs the library.
// In the words of ThreadContext.h, every one is for any thread.
#include <cstddef>
#include <cstdint>

namespace NSCam {
namespace camsys {
namespace camcoordinator {

// The frame number that stands for "no frame" (a send or report not tied to a frame).
// Thread: any thread.
constexpr uint32_t kNoFrameNumber = 0xFFFFFFFF;
// A configure licence is queued under sensorId | kConfigureKeyBase; an enqueue licence under
// the sensor id itself. Thread: any thread.
constexpr uint32_t kConfigureKeyBase = 0xFF00;
// How many frames are kept: the prepared licences' window, and the frame pool's size at which
// emplacing is a fatal error (it holds at most one fewer). Thread: any thread.
constexpr size_t kPreparationWindow = 20;

// The numbers of the pipeline events that CamDeliver::notifyEvent takes: its EventType and the
// tools' records of events are both defined from these. Thread: any thread.
namespace event {
constexpr uint32_t kInformInflight = 0;  // Thread: any thread.
constexpr uint32_t kResumeDone = 1;      // Thread: any thread.
constexpr uint32_t kSuspend = 2;         // Thread: any thread.
constexpr uint32_t kDrop = 3;            // Thread: any thread.
constexpr uint32_t kFlush = 4;           // Thread: any thread.
constexpr uint32_t kLicenseRelease = 5;  // Thread: any thread.
constexpr uint32_t kRawSwitch = 6;       // Thread: any thread.
}  // namespace event

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
