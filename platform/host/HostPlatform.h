#pragma once
// Host (Linux workstation) implementation of the platform that liborvcam_camdeliver calls:
// logger, debug print, properties, tracing, assertion and a simulated pipe manager. This
// header is the host's own control surface for tests, tools and the simulator; the library
// never includes it.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ThreadAnnotations.h"
#include "pipemgr/IPipeMgr.h"

namespace orvcam {
namespace host {

// ---- Logger -------------------------------------------------------------------------------
//
// Lines go to stderr in logcat "threadtime" layout:
//   "MM-DD HH:MM:SS.mmm  PID  TID L TAG: message"
// (with microseconds instead of milliseconds after setLogMicroseconds(true)).
// Settings are read once at start-up from ORVCAM_ULOG_LEVEL (detail level, default 2: errors
// and warnings), ORVCAM_ULOG_MASK (default 0x401000) and ORVCAM_ULOG_MODE (default 2: the
// unified logger only). Each accepts decimal or 0x-prefixed hex.
//
// Threads. Any thread may write lines at any time. Each line is stamped, laid out and written
// whole, with a single write, under one lock: lines of different threads never interleave and
// appear in the order of their time stamps. The settings below
// (applyLoggerSettings, setDebugPrintEnabled) are plain globals that the library reads
// without a lock on every line: change them only while no other thread logs. A LogCapture
// may begin and end while other threads log.

struct LoggerSettings {
  int detailsLevel;
  uint32_t mask;
  int mode;
};
LoggerSettings loggerSettings();
void applyLoggerSettings(const LoggerSettings& settings);

// Time stamps to the microsecond, "MM-DD HH:MM:SS.uuuuuu" as `adb logcat -v threadtime,usec`
// writes them, instead of the millisecond: a workstation runs a frame's calls within one
// millisecond. Initially ORVCAM_LOG_USEC (0 or 1, default 0). Any thread, any time; lines
// being written keep the layout they started with.
void setLogMicroseconds(bool micro);
bool logMicroseconds();

// One written line. `level` is the level letter: 'E', 'W', 'I', 'D', 'V' or 'F'.
struct LogLine {
  char level;
  std::string tag;
  std::string message;
  // Which sink wrote it: the unified logger or the debug-print facility.
  enum class Sink { ULogger, DebugPrint, Assert } sink;
};

// Collects every line written while it lives (all threads), in write order. While a capture
// is active, lines are not echoed to stderr unless `echo` is true. Captures nest; the
// innermost one collects. Fatal assertion lines always go to stderr as well.
class LogCapture {
 public:
  explicit LogCapture(bool echo = false);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const;
  // Messages only, optionally of one tag and/or level letter (0 = any).
  std::vector<std::string> messages(const std::string& tag = "", char level = 0) const;
  // Whether some message equals `message` exactly.
  bool has(const std::string& message) const;
  // How many messages equal `message` exactly.
  size_t count(const std::string& message) const;
  // Waits until at least `n` messages equal `message` exactly, for at most `limit`; true when
  // they are there. This is how a test learns that another thread has reached the point that
  // writes the line: the guard, for example, writes its wait lines under its lock right before
  // the thread sleeps, so once a test has seen one, every guard call it makes afterwards finds
  // that thread asleep.
  // Unchecked: it waits through std::unique_lock, which the thread-safety analysis cannot follow.
  bool waitFor(const std::string& message, size_t n = 1,
               std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const
      ORVCAM_NO_THREAD_SAFETY_ANALYSIS;
  void clear();

  // Internal: called by the logger.
  void add(LogLine line);

 private:
  // Guards mLines. Taken after the logger's lock (the logger adds lines under its own lock),
  // never before it; nothing else is locked while it is held.
  mutable std::mutex mMutex;
  mutable std::condition_variable mAdded;  // notified by add(), under mMutex's protection
  std::vector<LogLine> mLines ORVCAM_GUARDED_BY(mMutex);
  bool mEcho;
  LogCapture* mOuter;  // guarded by the logger's lock, which is not visible from here
};

// Formats a line exactly as the logger writes it to stderr (for tools that print their own),
// without the final newline. A message of several lines gives several prefixed lines.
std::string formatLogcatLine(char level, const std::string& tag, const std::string& message);

// ---- Debug-print facility -----------------------------------------------------------------
//
// g_logInfoLv has one record per cam_debug_level_t: enabled for debug, error and warning,
// with prefixes "D/", "E/", "W/", "I/", "V/". Its lines go to the same output as the logger,
// with the level letter of their debug-print level.
void setDebugPrintEnabled(int level, bool enabled);

// ---- Properties ---------------------------------------------------------------------------
//
// An in-process store, seeded at start-up from the file named by ORVCAM_PROPERTY_FILE
// (Android's "key=value" lines; '#' starts a comment; blank lines ignored).
void setProperty(const std::string& key, const std::string& value);
void clearProperty(const std::string& key);
void clearProperties();
// Loads a property file into the store. False, with a message naming the file and line, on
// an unreadable file or a malformed line.
bool loadPropertyFile(const std::string& path, std::string* error);
// Empty when unset.
std::string getProperty(const std::string& key);

// ---- Tracing ------------------------------------------------------------------------------
//
// atrace_get_enabled_tags() answers the mask set here, initially ORVCAM_TRACE_TAGS (default
// 0). When a trace file is open (ORVCAM_TRACE_FILE at start-up, or openTraceFile), every
// ULogger::trace begin/end and the calls below become trace events, one track per thread, in
// the format the file's name asks for:
// - a name ending in .pftrace, .perfetto-trace or .pb: Perfetto's protobuf format, with
//   CLOCK_BOOTTIME nanosecond timestamps and a clock snapshot tying them to CLOCK_MONOTONIC and
//   CLOCK_REALTIME (so that it merges with a system trace of the same machine), names and
//   categories interned, a track per thread, per async name and id, and per counter. The file
//   is whole packets only: it needs no ending, an abort leaves the packets flushed before it.
// - any other name: Chrome JSON ("B", "E", "i", and thread-name metadata) with microsecond
//   timestamps, made valid JSON by closeTraceFile(), at exit, and by a fatal assertion before
//   it aborts; gzip'd as one stream for a name ending in .gz (run.json.gz). Any other abort also
//   leaves valid JSON, with the events already flushed to the file. The file starts with the
//   process's name; named threads are sorted "pipeline" first, then "main", then "sensor N" by N,
//   then the rest.
// Either way events reach the file whole, every 64 KiB, and the ones written up to a close or
// a fatal assertion are kept.
void setTraceTags(uint64_t tags);
bool openTraceFile(const std::string& path, std::string* error);
void closeTraceFile();
// The same for a process about to abort (the host's fatal assertion calls it): gives up after
// a short wait when the trace's lock stays busy, and the abort handler then ends the file
// after its last whole event.
void finishTraceBeforeAbort();
bool traceFileOpen();
void traceBegin(const std::string& name);
void traceEnd(const std::string& name);
void traceInstant(const std::string& name);
void traceThreadName(const std::string& name);
// An async track ("b"/"e" with an id), for example a frame from emplace to retirement; begin
// and end may come from different threads. In a Perfetto trace its track is named after the
// name's text before its first digit ("F:12" -> "F"), which a viewer shows as one track.
void traceAsyncBegin(const std::string& name, uint64_t id);
void traceAsyncEnd(const std::string& name, uint64_t id);
// A counter track ("C") holding `value` from now on.
void traceCounter(const std::string& name, int64_t value);
// A flow arrow ("s" then "f" with one id), from inside the current section of the calling
// thread to the section open on the thread that ends it.
void traceFlowStart(const std::string& name, uint64_t id);
void traceFlowEnd(const std::string& name, uint64_t id);
// A whole flow arrow drawn afterwards: from the section open on thread `fromTid` at `from` to
// the one open on `toTid` at `to` (thread ids as traceThreadId() gives them).
void traceFlowBetween(const std::string& name, uint64_t id, int fromTid,
                      std::chrono::steady_clock::time_point from, int toTid,
                      std::chrono::steady_clock::time_point to);
// The calling thread's id in the trace.
int traceThreadId();

// ---- Pipe manager -------------------------------------------------------------------------

using NSCam::camsys::pipemgr::isp7::ConfigParam;
using NSCam::camsys::pipemgr::isp7::IPipeMgr;
using NSCam::camsys::pipemgr::isp7::IRequestLicense;

namespace detail {
// Book-keeping of one HostPipeMgr, shared with its licences so that a licence outliving its
// manager can still be accounted for safely.
struct PipeMgrState;
}  // namespace detail

// A licence of the host pipe manager: carries its FD and a serial number unique in the
// process.
class HostLicense : public IRequestLicense {
 public:
  int32_t getFD() const override { return mFd; }
  uint64_t serial() const { return mSerial; }
  ~HostLicense() override;  // NOLINT(bugprone-exception-escape): see its definition

 private:
  friend class HostPipeMgr;
  HostLicense(std::shared_ptr<detail::PipeMgrState> state, uint64_t generation, int32_t fd,
              uint64_t serial)
      : mState(std::move(state)), mGeneration(generation), mFd(fd), mSerial(serial) {}
  std::shared_ptr<detail::PipeMgrState> mState;
  uint64_t mGeneration;  // the manager's reset count when the licence was handed out
  int32_t mFd;
  uint64_t mSerial;
  bool mReleased = false;
};

struct LicenseAccount {
  uint64_t acquired = 0;
  uint64_t released = 0;   // handed back through releaseLicense
  uint64_t destroyed = 0;  // destroyed without having been released
  // releaseLicense calls given an empty pointer: the deliverer never makes one (it skips a null
  // licence with a warning), so each is a licence it handed back twice or never had.
  uint64_t emptyReleases = 0;
  uint64_t live() const { return acquired - released - destroyed; }
  bool balanced() const { return live() == 0; }
};

struct ConfigureCall {
  ConfigParam config;  // copy of what was passed (zeroes for a null pointer)
  int32_t fd;          // the licence's FD, -1 for a null licence
  uint64_t serial;     // the licence's serial, 0 for a null or foreign licence
};

// What happened to a licence, for observers.
enum class LicenseEvent { Acquired, Released, Destroyed };

// Simulated pipe manager. FDs come from a counter starting at 1; a licence for an FD carries
// that FD. releaseLicense takes the licence out of the caller's pointer.
//
// Threads. acquireLicense, acquireLicenseForFD, releaseLicense, configure, account and
// configureCalls may be called from any thread at once, also while the caller holds locks of
// its own (the library calls them under its licence lock and its licence queue's lock); none
// of them calls back into the library. The manager's own lock is a leaf: it is held only to
// update the counters, and no licence is ever destroyed and no observer called while it is
// held. So a licence may die anywhere: inside an observer, inside another manager's
// releaseLicense, or after its manager is gone (it is then counted nowhere).
// setObserver and reset must be called while no other thread uses the manager.
class HostPipeMgr : public IPipeMgr {
 public:
  HostPipeMgr();
  ~HostPipeMgr() override;

  std::unique_ptr<IRequestLicense> acquireLicense() override;
  std::unique_ptr<IRequestLicense> acquireLicenseForFD(int32_t fd) override;
  // A licence of another manager (or of no host manager) is taken out of `license` and
  // destroyed: its own manager counts it destroyed without release; this one counts nothing.
  void releaseLicense(std::unique_ptr<IRequestLicense>& license, bool flag1, bool flag2) override;
  std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>> configure(
      const std::shared_ptr<ConfigParam>& config,
      std::unique_ptr<IRequestLicense>& license) override;

  LicenseAccount account() const;
  std::vector<ConfigureCall> configureCalls() const;
  // Called for every acquire, release and destruction without release, with the licence's
  // serial and FD, on the thread that did it, under no lock of the manager. That thread may
  // hold the library's locks (an acquire inside prepare, a release inside an FD change or a
  // flush): an observer must not call into the library nor wait for a thread that may be
  // inside it. It may use the manager, and acquire, release or destroy licences. Set before
  // use, while no other thread uses the manager.
  void setObserver(std::function<void(LicenseEvent, uint64_t serial, int32_t fd)> observer);
  // Back to a fresh state: counters, FD counter and recorded calls. Licences alive at the
  // reset are forgotten: their release or destruction afterwards is neither counted nor
  // observed. Call while no other thread uses the manager.
  void reset();

 private:
  std::shared_ptr<detail::PipeMgrState> mState;
};

// The process's host pipe manager, which IPipeMgr::getInstance() answers unless replaced.
std::shared_ptr<HostPipeMgr> hostPipeMgr();
// Serials start again at 1, as in a fresh process: for a harness that runs one world after
// another in one process and compares them. Earlier licences' serials may repeat.
void restartLicenceSerials();
// Makes IPipeMgr::getInstance() answer `instance` (for example a GoogleMock mock); nullptr
// restores the host pipe manager. Affects objects created afterwards.
void setPipeMgrInstance(std::shared_ptr<IPipeMgr> instance);

}  // namespace host
}  // namespace orvcam
