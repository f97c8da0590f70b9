#pragma once
// What one simulator run recorded: the frames the client built, the calls it made, what each
// job observed, the events it reported and every licence the pipe manager handed out. The
// checker and the report read only this; nothing here refers to the library's internals.
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "CamDeliverConstants.h"

namespace orvcam {
namespace history {

// Nanoseconds since the run started (steady clock).
using Nanos = int64_t;

enum class JobKind { Configure, Enqueue };
const char* jobKindName(JobKind kind);

// The events a client reports, with the deliverer's numbering; QueueFlush stands for the
// client's call of the deliverer's flush(), which hands back every queued licence.
enum class EventKind : uint32_t {
  InformInflight = NSCam::camsys::camcoordinator::event::kInformInflight,
  ResumeDone = NSCam::camsys::camcoordinator::event::kResumeDone,
  Suspend = NSCam::camsys::camcoordinator::event::kSuspend,
  Drop = NSCam::camsys::camcoordinator::event::kDrop,
  Flush = NSCam::camsys::camcoordinator::event::kFlush,
  LicenseRelease = NSCam::camsys::camcoordinator::event::kLicenseRelease,
  RawSwitch = NSCam::camsys::camcoordinator::event::kRawSwitch,
  QueueFlush = 100,
};
const char* eventKindName(EventKind kind);

// The request the client built for one frame.
struct FramePlan {
  uint32_t frame = 0;
  std::vector<uint32_t> sensors;  // taking part and needing enqueue, ascending
  std::set<uint32_t> needCfg;     // to be configured in this frame
  std::set<uint32_t> cfgByJob;    // of needCfg: by a configure job (the rest: setConfigured)
  std::set<uint32_t> syncList;    // empty or at least two sensors
  int64_t offSensor = -1;         // raw switch: the sensor switching off, or -1
  int64_t onSensor = -1;          // raw switch: the sensor switching on, or -1

  bool participates(uint32_t sensor) const;
  bool isRawSwitch() const { return offSensor >= 0; }
};

// Hash of a (sensor, frame) key, for the checkers' lookups on long histories.
struct SensorFrameHash {
  size_t operator()(const std::pair<uint32_t, uint32_t>& key) const {
    return std::hash<uint64_t>()((uint64_t(key.first) << 32) | key.second);
  }
};

// The frame number that stands for "no frame", and the base of a configure licence's key: the
// library's own numbers, named once for the tools.
constexpr uint32_t kNoFrame = NSCam::camsys::camcoordinator::kNoFrameNumber;
constexpr uint32_t kConfigKeyBase = NSCam::camsys::camcoordinator::kConfigureKeyBase;

// How the tools name a sensor, or a licence key: "S:1", and a configure key (the configure
// base plus the sensor) as "S:1 cfg". The library's own lines print keys as numbers.
inline std::string sensorName(uint32_t key) {
  return key >= kConfigKeyBase ? "S:" + std::to_string(key - kConfigKeyBase) + " cfg"
                               : "S:" + std::to_string(key);
}

struct PrepareRecord {
  uint32_t sensor = 0;
  uint32_t frame = 0;
  Nanos at = 0;   // just before the call
  Nanos end = 0;  // just after it returned (0: not known)
};

struct SetConfiguredRecord {
  uint32_t sensor = 0;
  uint32_t frame = 0;
  Nanos at = 0;
};

struct JobRecord {
  uint32_t sensor = 0;
  uint32_t frame = 0;
  JobKind kind = JobKind::Enqueue;
  Nanos sent = 0;   // the send call was made
  Nanos start = 0;  // execute() began (0 when not run)
  Nanos end = 0;    // execute() finished, or the send returned when the job did not run
  bool ran = false;
  int32_t result = 0;   // what the send returned (enqueue jobs)
  uint64_t serial = 0;  // the licence the job was given; 0 for none
  int32_t fd = -1;
  // The source lost the line that marks the start (a log missing a line that a later line
  // proves was written): `start` is `end` and the FD is unknown, and no rule compares the
  // start with anything.
  bool startLost = false;
  // `sent` is when the source first saw the send (a log without the send's own line: its first
  // wait or licence line), not the call: the call came at or before it. No rule takes such a
  // send for one made after something else.
  bool sentLate = false;
};

enum class LicenceEventKind { Acquired, Released, Destroyed };

struct LicenceRecord {
  LicenceEventKind kind = LicenceEventKind::Acquired;
  uint64_t serial = 0;
  int32_t fd = -1;
  Nanos at = 0;
  // The sensor on whose behalf the client was calling when this happened (setConfigured,
  // a drop), or -1.
  int32_t context = -1;
};

struct EventRecord {
  EventKind kind = EventKind::ResumeDone;
  uint32_t sensor = 0;
  uint32_t frame = 0;
  uint32_t value = 0;
  Nanos begin = 0;  // just before the call
  Nanos end = 0;    // just after it returned
  // Flush: the frames flushed. InformInflight with value 0: the frames in flight that hold
  // the sensor in their sync list (their sync is broken and their FDs change).
  std::vector<uint32_t> frames;
};

struct LicenceTotals {
  uint64_t acquired = 0;
  uint64_t released = 0;
  uint64_t destroyed = 0;
  uint64_t emptyReleases = 0;  // the pipe manager was handed an empty licence pointer
  uint64_t live() const { return acquired - released - destroyed; }
};

struct History {
  std::string scenario;
  uint64_t seed = 0;
  std::vector<uint32_t> sensors;
  std::vector<FramePlan> plans;         // ascending frame number
  std::vector<PrepareRecord> prepares;  // per sensor in call order
  std::vector<SetConfiguredRecord> setConfigured;
  std::vector<JobRecord> jobs;
  std::vector<EventRecord> events;
  std::vector<LicenceRecord> licences;
  // The pipe manager's own count, read after the deliverer was destroyed.
  LicenceTotals account;
  // When the deliverer's teardown began; licences handed back after it were still queued.
  Nanos teardownAt = 0;
  // Frame numbers the pool still held when every thread had finished.
  std::vector<uint32_t> framesLeftInPool;
  Nanos wallTime = 0;
  // The resolution of the source's time stamps when they are coarser than its order of events
  // (a log's millisecond stamps: lines within one are ordered only by their place in the file);
  // 0 when every time is exact. Times are counted from a stamp, so that two events share one
  // exactly when their times share the quotient by it.
  Nanos stampTick = 0;
  // Records the source is known to have lost (a log missing lines that later lines prove were
  // written); 0 for a complete source. With any, a breach that rests only on a record being
  // absent is not counted as a violation.
  uint64_t linesLost = 0;
  // Rules the source of this history cannot support, with the reason (a history rebuilt from
  // a log has no licence identities); the checker skips exactly these and says so.
  std::map<std::string, std::string> unsupportedRules;
  // Frames whose records are here only because later frames depend on them (a sensor's
  // previous frame, its sync group, the off sensor of a raw switch); their own rules were
  // checked with an earlier part of a long history, so the checker does not judge them again.
  std::set<uint32_t> contextFrames;
  bool inContext(uint32_t frame) const { return contextFrames.count(frame) > 0; }
};

}  // namespace history
}  // namespace orvcam
