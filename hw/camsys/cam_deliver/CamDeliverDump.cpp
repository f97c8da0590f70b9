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

}  // namespace

void CamDeliver::dump(int fd) {
  const Clock::time_point deadline = Clock::now() + kDumpDeadline;
  std::string out = "CamDeliver state (log level " + std::to_string(mLogLevel) + ")\n";

  // Prepared-frame list.
  if (tryLockUntil(mPrepareMutex, deadline)) {
    std::deque<uint32_t> frames = mPreparedFrames;
    mPrepareMutex.unlock();
    out += "  prepared frames:";
    for (uint32_t f : frames) out += " " + std::to_string(f);
    out += "\n";
  } else {
    out += "  prepared frames: not read (prepare lock busy)\n";
  }

  // Queued licences.
  if (tryLockUntil(mLicenseQueue.mutex, deadline)) {
    std::vector<std::string> lines;
    for (const auto& frame : mLicenseQueue.mQueue) {
      std::string line = "    F:" + std::to_string(frame.first) + ":";
      for (const auto& entry : frame.second) {
        line += " key " + std::to_string(entry.first) +
                (entry.first >= kConfigKeyBase ? " (configure S:" : " (enqueue S:") +
                std::to_string(entry.first & ~kConfigKeyBase) + ") FD " +
                (entry.second ? std::to_string(entry.second->getFD()) : "null") + ";";
      }
      lines.push_back(line);
    }
    mLicenseQueue.mutex.unlock();
    out += "  queued licences: " + std::to_string(lines.size()) + " frame(s)\n";
    for (const std::string& l : lines) out += l + "\n";
  } else {
    out += "  queued licences: not read (licence queue lock busy)\n";
  }

  // Order stamps and records: the guard's lock first, then the pool's and each record's, in
  // the library's lock order. The pool is read even when the guard's lock stays busy.
  bool guardLocked = tryLockUntil(mGuard.mutex, deadline);
  std::map<uint32_t, uint64_t> orders;
  if (guardLocked) {
    orders.insert(mGuard.orderMap.begin(), mGuard.orderMap.end());
  }
  std::map<uint32_t, RecordCopy> records;
  bool poolRead = false;
  std::shared_ptr<FrameContextPool> pool = mGuard.fcPool;
  if (pool && tryLockUntil(pool->mutex, deadline)) {
    poolRead = true;
    for (const auto& entry : pool->pool) {
      RecordCopy& copy = records[entry.first];
      copy.frameNo = entry.first;
      const FrameContext* fc = entry.second.get();
      if (fc == nullptr || !tryLockUntil(fc->mutex, deadline)) continue;
      copy.read = true;
      copy.syncList = fc->syncList;
      copy.inMapList = fc->inMapList;
      copy.syncBroken = fc->syncBroken;
      copy.states.insert(fc->sensorStates.begin(), fc->sensorStates.end());
      fc->mutex.unlock();
    }
    pool->mutex.unlock();
  }
  if (guardLocked) mGuard.mutex.unlock();

  if (guardLocked) {
    out += "  next order stamp:";
    for (const auto& o : orders) {
      out += " S:" + std::to_string(o.first) + "=" + std::to_string(o.second);
    }
    out += "\n";
  } else {
    out += "  next order stamp: not read (guard lock busy: a thread is inside the guard)\n";
  }
  if (!poolRead) {
    out += "  frame pool: not read (" + std::string(pool ? "pool lock busy" : "no pool") + ")\n";
  } else {
    out += "  frame pool: " + std::to_string(records.size()) + " record(s)\n";
    for (const auto& entry : records) {
      const RecordCopy& r = entry.second;
      if (!r.read) {
        out += "    F:" + std::to_string(r.frameNo) + ": not read (record lock busy)\n";
        continue;
      }
      out += "    F:" + std::to_string(r.frameNo) + " sync " + list(r.syncList) + " inMap " +
             list(r.inMapList) + (r.syncBroken ? " sync broken" : "") + "\n";
      int64_t offSensor = -1;
      bool hasOn = false;
      for (const auto& st : r.states) {
        if (st.second.streamingState == 1) offSensor = st.first;
        if (st.second.streamingState == 0) hasOn = true;
      }
      if (!hasOn) offSensor = -1;
      for (const auto& st : r.states) {
        const FrameContext::SensorState& s = st.second;
        out += "      S:" + std::to_string(st.first) + " needCfg " + std::to_string(s.needCfg) +
               " needEnq " + std::to_string(s.needEnq) + " prepared " +
               std::to_string(s.isPrepared) + " order " + std::to_string(s.order) + " configured " +
               std::to_string(s.isConfigured) + " enqueued " + std::to_string(s.isEnqued) + "\n";
        if (!s.isPrepared || !s.needEnq || s.isEnqued) continue;
        // What the guard requires before this sensor's job may go.
        std::string waits;
        if (offSensor >= 0) {
          const RecordCopy* prev = previous(records, uint32_t(offSensor), r);
          if (prev && !enqueuedIn(*prev, uint32_t(offSensor))) {
            waits += " off sensor S:" + std::to_string(offSensor) +
                     " to enqueue F:" + std::to_string(prev->frameNo) + " (raw switch);";
          }
        }
        const RecordCopy* prev = previous(records, st.first, r);
        if (prev && !prev->syncBroken) {
          for (uint32_t partner : prev->syncList) {
            if (!enqueuedIn(*prev, partner)) {
              waits += " S:" + std::to_string(partner) +
                       " to enqueue F:" + std::to_string(prev->frameNo) + " (sync);";
            }
          }
        }
        out +=
            "        waits for:" + (waits.empty() ? std::string(" nothing, may go") : waits) + "\n";
      }
    }
  }
  const char* p = out.data();
  size_t left = out.size();
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= size_t(n);
  }
}

}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam
