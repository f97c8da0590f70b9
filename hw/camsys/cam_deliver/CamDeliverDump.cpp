// CamDeliver::dump: a snapshot of the deliverer for a dumpsys of a possibly hung camera
// process. Every lock is only tried, against one deadline for the whole dump, and is held
// just long enough to copy what it guards; the text is built and written with no lock held.
// Nothing is logged and no record is touched beyond reading it (the pool's previous-frame
// lookup is not used: it inserts into records and logs).
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDumpDeadline = std::chrono::milliseconds(10);

// Tries `m` until it is taken or `deadline` passes.
template <typename Mutex>
bool tryLockUntil(Mutex& m, Clock::time_point deadline) ORVCAM_TRY_ACQUIRE(true, m) {
  for (;;) {
    if (m.try_lock()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(50));
  }
}

struct RecordCopy {
  uint32_t frameNo = 0;
  bool read = false;
  std::set<uint32_t> syncList;
  std::set<uint32_t> inMapList;
  bool syncBroken = false;
  std::map<uint32_t, FrameContext::SensorState> states;
};

std::string list(const std::set<uint32_t>& ids) {
  std::string out = "{";
  for (uint32_t id : ids) out += (out.size() > 1 ? "," : "") + std::to_string(id);
  return out + "}";
}

// The record the sensor prepared before `frameNo`: the highest frame number whose stamp for
// the sensor is lower than the one in `frameNo`, as the guard looks it up.
const RecordCopy* previous(const std::map<uint32_t, RecordCopy>& records, uint32_t sensor,
                           const RecordCopy& current) {
  auto self = current.states.find(sensor);
  if (self == current.states.end()) return nullptr;
  for (auto it = records.rbegin(); it != records.rend(); ++it) {
    if (!it->second.read) continue;
    auto st = it->second.states.find(sensor);
    if (st == it->second.states.end() || !st->second.isPrepared) continue;
    if (st->second.order < self->second.order) return &it->second;
  }
  return nullptr;
}

bool enqueuedIn(const RecordCopy& r, uint32_t sensor) {
  auto st = r.states.find(sensor);
  return st != r.states.end() && st->second.isEnqued;
}

// The guard's stamps and the pool's records, copied under tried locks.
struct GuardCopy {
  bool guardRead = false;
  std::map<uint32_t, uint64_t> orders;
  bool hasPool = false;
  bool poolRead = false;
  std::map<uint32_t, RecordCopy> records;
};

// The dump's reads take each lock with a deadline and may leave a field unread, which the
// thread-safety analysis cannot follow; each unlocks what it took before it returns.
void appendPreparedFrames(CamDeliver& d, Clock::time_point deadline,
                          std::string* out) ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
  if (!tryLockUntil(d.mPrepareMutex, deadline)) {
    *out += "  prepared frames: not read (prepare lock busy)\n";
    return;
  }
  std::deque<uint32_t> frames = d.mPreparedFrames;
  d.mPrepareMutex.unlock();
  *out += "  prepared frames:";
  for (uint32_t f : frames) *out += " " + std::to_string(f);
  *out += "\n";
}

void appendQueuedLicences(CamDeliver& d, Clock::time_point deadline,
                          std::string* out) ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
  if (!tryLockUntil(d.mLicenseQueue.mutex, deadline)) {
    *out += "  queued licences: not read (licence queue lock busy)\n";
    return;
  }
  std::vector<std::string> lines;
  for (const auto& frame : d.mLicenseQueue.mQueue) {
    std::string line = "    F:" + std::to_string(frame.first) + ":";
    for (const auto& entry : frame.second) {
      line += " key " + std::to_string(entry.first) +
              (entry.first >= CamDeliver::kConfigKeyBase ? " (configure S:" : " (enqueue S:") +
              std::to_string(entry.first & ~CamDeliver::kConfigKeyBase) + ") FD " +
              (entry.second ? std::to_string(entry.second->getFD()) : "null") + ";";
    }
    lines.push_back(line);
  }
  d.mLicenseQueue.mutex.unlock();
  *out += "  queued licences: " + std::to_string(lines.size()) + " frame(s)\n";
  for (const std::string& l : lines) *out += l + "\n";
}

// The guard's lock first, then the pool's and each record's, in the library's lock order. The
// pool is read even when the guard's lock stays busy.
GuardCopy copyGuard(CamDeliverGuard& guard,
                    Clock::time_point deadline) ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
  GuardCopy copy;
  copy.guardRead = tryLockUntil(guard.mutex, deadline);
  if (copy.guardRead) copy.orders.insert(guard.orderMap.begin(), guard.orderMap.end());
  std::shared_ptr<FrameContextPool> pool = guard.fcPool;
  copy.hasPool = pool != nullptr;
  if (pool && tryLockUntil(pool->mutex, deadline)) {
    copy.poolRead = true;
    for (const auto& entry : pool->pool) {
      RecordCopy& record = copy.records[entry.first];
      record.frameNo = entry.first;
      const FrameContext* fc = entry.second.get();
      if (fc == nullptr || !tryLockUntil(fc->mutex, deadline)) continue;
      record.read = true;
      record.syncList = fc->syncList;
      record.inMapList = fc->inMapList;
      record.syncBroken = fc->syncBroken;
      record.states.insert(fc->sensorStates.begin(), fc->sensorStates.end());
      fc->mutex.unlock();
    }
    pool->mutex.unlock();
  }
  if (copy.guardRead) guard.mutex.unlock();
  return copy;
}

// What the guard requires before sensor `sensor`'s job for record `r` may go.
std::string waitsFor(const std::map<uint32_t, RecordCopy>& records, const RecordCopy& r,
                     uint32_t sensor) {
  int64_t offSensor = -1;
  bool hasOn = false;
  for (const auto& st : r.states) {
    if (st.second.streamingState == 1) offSensor = st.first;
    if (st.second.streamingState == 0) hasOn = true;
  }
  std::string waits;
  if (hasOn && offSensor >= 0) {
    const RecordCopy* prev = previous(records, uint32_t(offSensor), r);
    if (prev && !enqueuedIn(*prev, uint32_t(offSensor))) {
      waits += " off sensor S:" + std::to_string(offSensor) +
               " to enqueue F:" + std::to_string(prev->frameNo) + " (raw switch);";
    }
  }
  const RecordCopy* prev = previous(records, sensor, r);
  if (prev && !prev->syncBroken) {
    for (uint32_t partner : prev->syncList) {
      if (!enqueuedIn(*prev, partner)) {
        waits += " S:" + std::to_string(partner) +
                 " to enqueue F:" + std::to_string(prev->frameNo) + " (sync);";
      }
    }
  }
  return waits.empty() ? std::string(" nothing, may go") : waits;
}

void appendRecords(const GuardCopy& copy, std::string* out) {
  if (!copy.poolRead) {
    *out += "  frame pool: not read (" + std::string(copy.hasPool ? "pool lock busy" : "no pool") +
            ")\n";
    return;
  }
  *out += "  frame pool: " + std::to_string(copy.records.size()) + " record(s)\n";
  for (const auto& entry : copy.records) {
    const RecordCopy& r = entry.second;
    if (!r.read) {
      *out += "    F:" + std::to_string(r.frameNo) + ": not read (record lock busy)\n";
      continue;
    }
    *out += "    F:" + std::to_string(r.frameNo) + " sync " + list(r.syncList) + " inMap " +
            list(r.inMapList) + (r.syncBroken ? " sync broken" : "") + "\n";
    for (const auto& st : r.states) {
      const FrameContext::SensorState& s = st.second;
      *out += "      S:" + std::to_string(st.first) + " needCfg " + std::to_string(s.needCfg) +
              " needEnq " + std::to_string(s.needEnq) + " prepared " +
              std::to_string(s.isPrepared) + " order " + std::to_string(s.order) + " configured " +
              std::to_string(s.isConfigured) + " enqueued " + std::to_string(s.isEnqued) + "\n";
      if (!s.isPrepared || !s.needEnq || s.isEnqued) continue;
      *out += "        waits for:" + waitsFor(copy.records, r, st.first) + "\n";
    }
  }
}

void writeAll(int fd, const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= size_t(n);
  }
}

}  // namespace

void CamDeliver::dump(int fd) {
  const Clock::time_point deadline = Clock::now() + kDumpDeadline;
  std::string out = "CamDeliver state (log level " + std::to_string(mLogLevel) + ")\n";
  appendPreparedFrames(*this, deadline, &out);
  appendQueuedLicences(*this, deadline, &out);
  const GuardCopy copy = copyGuard(mGuard, deadline);
  if (copy.guardRead) {
    out += "  next order stamp:";
    for (const auto& o : copy.orders) {
      out += " S:" + std::to_string(o.first) + "=" + std::to_string(o.second);
    }
    out += "\n";
  } else {
    out += "  next order stamp: not read (guard lock busy: a thread is inside the guard)\n";
  }
  appendRecords(copy, &out);
  writeAll(fd, out);
}

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
