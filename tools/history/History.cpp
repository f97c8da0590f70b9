#include "history/History.h"

#include <algorithm>

namespace orvcam {
namespace history {

const char* jobKindName(JobKind kind) {
  return kind == JobKind::Configure ? "ConfigJob" : "EnqJob";
}

const char* eventKindName(EventKind kind) {
  switch (kind) {
    case EventKind::InformInflight: return "InformInflight";
    case EventKind::ResumeDone: return "ResumeDone";
    case EventKind::Suspend: return "Suspend";
    case EventKind::Drop: return "Drop";
    case EventKind::Flush: return "Flush";
    case EventKind::LicenseRelease: return "LicenseRelease";
    case EventKind::RawSwitch: return "RawSwitch";
    case EventKind::QueueFlush: return "flush()";
  }
  return "UNKNOWN";
}

bool FramePlan::participates(uint32_t sensor) const {
  return std::binary_search(sensors.begin(), sensors.end(), sensor);
}

}  // namespace history
}  // namespace orvcam
