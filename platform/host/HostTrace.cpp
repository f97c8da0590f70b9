// Host tracing: the enabled-tags mask of libcutils, ULogger::trace and a trace file: Chrome
// JSON (an array of trace events, one per line) that Perfetto UI and chrome://tracing open,
// gzip'd for a name ending in .gz, or Perfetto's protobuf format for a name ending in .pftrace,
// .perfetto-trace or .pb (PerfettoProto.h). The file is finished at exit, by the host's fatal
// assertion before it aborts, and, as far as a signal handler safely can, by any other abort;
// a protobuf trace needs no ending, every whole packet written stands.
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <thread>

#include "HostPlatform.h"
#include "PerfettoProto.h"
#include "cutils/Trace.h"
#include "ulog/ULog.h"

namespace orvcam {
namespace host {
namespace {

constexpr int kTraceBegin = 2;
constexpr int kTraceEnd = 6;
constexpr const char* kHostCategory = "orvcam";

uint64_t envTags() {
  // Read by the start-up settings only, before any thread can call setenv().
  const char* text = getenv("ORVCAM_TRACE_TAGS");  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr || *text == 0) return 0;
  char* end = nullptr;
  errno = 0;
  unsigned long long value = strtoull(text, &end, 0);
  if (end == text || *end != 0 || errno == ERANGE) {
    (void)fprintf(stderr, "orvcam: ignoring ORVCAM_TRACE_TAGS=\"%s\": not a number\n", text);
    return 0;
  }
  return value;
}

constexpr size_t kFlushAt = 1 << 16;
// What ends the JSON array; written as it stands from the abort handler.
constexpr char kTail[] = "\n]\n";

// Leaked: threads and static destructors may still trace while the process exits.
struct TraceState {
  std::atomic<uint64_t> tags{envTags()};
  // Guards the fields below it that are marked so. Taken by traced library code, also while
  // the guard's lock is held (a traced wait), so it is a leaf: nothing that takes another lock
  // or calls back into the library runs under it; formatting happens before it is taken.
  std::mutex mutex;
  int fd ORVCAM_GUARDED_BY(mutex) = -1;
  // Whole events not yet written. The file only ever receives whole events, so the tail
  // written after its last byte always makes valid JSON.
  std::string pending ORVCAM_GUARDED_BY(mutex);
  std::atomic<bool> open{false};  // lets a closed trace skip the lock and the formatting
  // (a Perfetto trace's packets are made under the lock: the sequence's interned names are
  // shared by every thread)
  // The descriptor the abort handler writes the tail to, or -1. Exchanged for -1 by whoever
  // writes the tail, so that it is written once.
  std::atomic<int> tailFd{-1};
  // Set while a Perfetto trace is open (then the file has no tail); read by the handler.
  std::atomic<bool> perfetto{false};
  // A gzip'd JSON trace: the events go through `gz` (a gzip stream, set up at open) on their way
  // to the file. Whoever deflates holds `gzBusy`: a writer under the lock, or the abort handler,
  // which cannot take the lock and ends the stream only when it gets `gzBusy` (deflate works in
  // the stream's own memory, `gzOut`, and allocates nothing); it never gives it back.
  std::atomic<bool> gzip{false};
  std::atomic<bool> gzBusy{false};
  z_stream gz{};
  char gzOut[1 << 14] = {};
  // The Perfetto trace's packet sequence, and the tracks it has declared: threads and counters
  // (tens of them), the async tracks are declared at each begin.
  std::unique_ptr<pftrace::Sequence> sequence ORVCAM_GUARDED_BY(mutex);
  std::set<int> threads ORVCAM_GUARDED_BY(mutex);
  std::set<std::string> counters ORVCAM_GUARDED_BY(mutex);
  bool firstEvent ORVCAM_GUARDED_BY(mutex) = true;
  int pid ORVCAM_GUARDED_BY(mutex) = 0;
  bool atExitRegistered ORVCAM_GUARDED_BY(mutex) = false;
  bool abortHandlerInstalled ORVCAM_GUARDED_BY(mutex) = false;
  // Written once, before the handler is installed; read by the handler.
  struct sigaction previousAbort {};
};

TraceState& state() {
  static TraceState* s = new TraceState;
  return *s;
}

// write() until all is written or it fails; async-signal-safe.
void writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// Deflates `size` bytes into the file; `finish` ends the gzip stream. The caller holds
// s.gzBusy. Async-signal-safe: no lock, no allocation.
void gzWrite(TraceState& s, int fd, const char* data, size_t size, bool finish) {
  z_stream& z = s.gz;
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
  z.avail_in = static_cast<uInt>(size);
  for (;;) {
    z.next_out = reinterpret_cast<Bytef*>(s.gzOut);
    z.avail_out = sizeof(s.gzOut);
    int rc = deflate(&z, finish ? Z_FINISH : Z_NO_FLUSH);
    writeAll(fd, s.gzOut, sizeof(s.gzOut) - z.avail_out);
    if (rc == Z_STREAM_END || rc == Z_STREAM_ERROR) return;
    if (z.avail_out != 0 && (!finish || rc == Z_BUF_ERROR)) return;  // all taken in
  }
}

void gzAcquire(TraceState& s) {
  while (s.gzBusy.exchange(true, std::memory_order_acquire)) std::this_thread::yield();
}

void writeOut(TraceState& s, int fd, const char* data, size_t size) {
  if (!s.gzip.load()) {
    writeAll(fd, data, size);
    return;
  }
  gzAcquire(s);
  gzWrite(s, fd, data, size, false);
  s.gzBusy.store(false, std::memory_order_release);
}

void flushLocked(TraceState& s) ORVCAM_REQUIRES(s.mutex) {
  // Once the abort handler has ended the file, nothing more goes into it.
  if (s.tailFd.load() == s.fd) writeOut(s, s.fd, s.pending.data(), s.pending.size());
  s.pending.clear();
}

int currentTid() {
  thread_local int tid = static_cast<int>(syscall(SYS_gettid));
  return tid;
}

long long nowMicros() {
  using namespace std::chrono;
  return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string jsonString(const char* text) {
  std::string out = "\"";
  for (const char* p = text ? text : ""; *p; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char esc[8];
          (void)snprintf(esc, sizeof(esc), "\\u%04x", c);  // 6 characters
          out += esc;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

// Where and when an event happened, when not on the calling thread now.
struct Stamp {
  int tid;
  std::chrono::steady_clock::time_point time;
};

long long microsOf(std::chrono::steady_clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::microseconds>(t.time_since_epoch()).count();
}

// Writes one event object; `extra` is appended inside it (already JSON, starting with ',').
void writeEvent(const char* name, const char* category, char phase, const std::string& extra,
                const Stamp* at = nullptr) {
  TraceState& s = state();
  if (!s.open.load(std::memory_order_relaxed)) return;
  std::string nameJson = jsonString(name);
  std::string catJson = jsonString(category);
  int tid = at ? at->tid : currentTid();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (s.fd < 0) return;
  char head[128];
  (void)snprintf(head, sizeof(head), "%s{\"name\":", s.firstEvent ? "" : ",\n");
  s.pending += head;
  s.pending += nameJson;
  s.pending += ",\"cat\":";
  s.pending += catJson;
  char fields[128];
  (void)snprintf(fields, sizeof(fields), ",\"ph\":\"%c\",\"ts\":%lld,\"pid\":%d,\"tid\":%d", phase,
                 at ? microsOf(at->time) : nowMicros(), s.pid, tid);
  s.pending += fields;
  s.pending += extra;
  s.pending += '}';
  s.firstEvent = false;
  if (s.pending.size() >= kFlushAt) flushLocked(s);
}

// What a trace records, in either format.
enum class Kind { Begin, End, Instant, AsyncBegin, AsyncEnd, Counter, FlowStart, FlowEnd };

uint64_t bootTimeNs(clockid_t clock = CLOCK_BOOTTIME) {
  timespec t{};
  clock_gettime(clock, &t);
  return static_cast<uint64_t>(t.tv_sec) * 1000000000ULL + static_cast<uint64_t>(t.tv_nsec);
}

// A steady-clock time on CLOCK_BOOTTIME, the Perfetto trace's clock.
uint64_t bootTimeOf(std::chrono::steady_clock::time_point t) {
  using namespace std::chrono;
  int64_t ago = duration_cast<nanoseconds>(steady_clock::now() - t).count();
  return bootTimeNs() - static_cast<uint64_t>(ago);
}

uint64_t processTrack(int pid) {
  return pftrace::trackUuid(pftrace::TrackKind::Process, static_cast<uint32_t>(pid));
}

uint64_t hashName(const std::string& text) {
  uint64_t h = 1469598103934665603ULL;  // FNV-1a
  for (char c : text) h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
  return h;
}

// An async track's name: the event's name up to its first digit ("F:12" -> "F"), so that a
// viewer shows the tracks of one kind of event as one.
std::string asyncTrackName(const std::string& name) {
  std::string prefix = name.substr(0, name.find_first_of("0123456789"));
  while (!prefix.empty() && (prefix.back() == ':' || prefix.back() == ' ')) prefix.pop_back();
  return prefix.empty() ? name : prefix;
}

// A name with a number in it is made for one event: written as it is, not interned.
bool worthInterning(const char* name) {
  for (const char* p = name; *p; ++p) {
    if (*p >= '0' && *p <= '9') return false;
  }
  return true;
}

uint64_t threadTrackLocked(TraceState& s, int tid, const std::string& name = std::string())
    ORVCAM_REQUIRES(s.mutex) {
  uint64_t uuid = pftrace::trackUuid(pftrace::TrackKind::Thread, static_cast<uint32_t>(tid));
  if (s.threads.insert(tid).second || !name.empty()) {
    s.sequence->threadTrack(&s.pending, uuid, processTrack(s.pid), s.pid, tid, name);
  }
  return uuid;
}

// One event of the Perfetto trace, made under the lock.
void recordPerfettoLocked(TraceState& s, Kind kind, const char* name, const char* category,
                          int64_t arg, const Stamp* at = nullptr) ORVCAM_REQUIRES(s.mutex) {
  pftrace::Sequence& seq = *s.sequence;
  uint64_t now = at ? bootTimeOf(at->time) : bootTimeNs();
  uint64_t thread = threadTrackLocked(s, at ? at->tid : currentTid());
  bool intern = worthInterning(name);
  switch (kind) {
    case Kind::Begin:
      seq.event(&s.pending, pftrace::kSliceBegin, now, thread, category, name, intern);
      break;
    case Kind::End: seq.end(&s.pending, now, thread); break;
    case Kind::Instant:
      seq.event(&s.pending, pftrace::kInstant, now, thread, category, name, intern);
      break;
    case Kind::AsyncBegin:
    case Kind::AsyncEnd: {
      uint64_t track = pftrace::trackUuid(pftrace::TrackKind::Async,
                                          (hashName(name) ^ static_cast<uint64_t>(arg)) >> 8);
      if (kind == Kind::AsyncEnd) {
        seq.end(&s.pending, now, track);
        break;
      }
      seq.track(&s.pending, track, processTrack(s.pid), asyncTrackName(name));
      seq.event(&s.pending, pftrace::kSliceBegin, now, track, category, name, intern);
      break;
    }
    case Kind::Counter: {
      uint64_t track = pftrace::trackUuid(pftrace::TrackKind::Counter, hashName(name) >> 8);
      if (s.counters.insert(name).second) {
        seq.track(&s.pending, track, processTrack(s.pid), name, true);
      }
      seq.counter(&s.pending, now, track, arg);
      break;
    }
    case Kind::FlowStart:
    case Kind::FlowEnd: {
      // An instant inside the section open on the thread carries the arrow.
      pftrace::Sequence::Flow flow{static_cast<uint64_t>(arg), kind == Kind::FlowEnd};
      seq.event(&s.pending, pftrace::kInstant, now, thread, category, name, intern, &flow);
      break;
    }
  }
  if (s.pending.size() >= kFlushAt) flushLocked(s);
}

void record(Kind kind, const char* name, const char* category, int64_t arg,
            const Stamp* at = nullptr) {
  TraceState& s = state();
  if (!s.open.load(std::memory_order_relaxed)) return;
  if (s.perfetto.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.fd >= 0 && s.sequence) recordPerfettoLocked(s, kind, name, category, arg, at);
    return;
  }
  std::string value = std::to_string(arg);
  switch (kind) {
    case Kind::Begin: writeEvent(name, category, 'B', ""); break;
    case Kind::End: writeEvent(name, category, 'E', ""); break;
    case Kind::Instant: writeEvent(name, category, 'i', ",\"s\":\"t\""); break;
    case Kind::AsyncBegin: writeEvent(name, category, 'b', ",\"id\":" + value); break;
    case Kind::AsyncEnd: writeEvent(name, category, 'e', ",\"id\":" + value); break;
    case Kind::Counter:
      writeEvent(name, category, 'C', ",\"args\":{\"value\":" + value + "}");
      break;
    case Kind::FlowStart: writeEvent(name, category, 's', ",\"id\":" + value, at); break;
    case Kind::FlowEnd:
      writeEvent(name, category, 'f', ",\"id\":" + value + ",\"bp\":\"e\"", at);
      break;
  }
}

void closeLocked(TraceState& s) ORVCAM_REQUIRES(s.mutex) {
  if (s.fd < 0) return;
  flushLocked(s);
  int fd = s.tailFd.exchange(-1);
  if (fd >= 0 && !s.perfetto.load()) {
    if (s.gzip.load()) {
      gzAcquire(s);
      gzWrite(s, fd, kTail, sizeof(kTail) - 1, true);
    } else {
      writeAll(fd, kTail, sizeof(kTail) - 1);
    }
  }
  // After the abort handler ended the file the stream stays as it is (the process is going).
  if (s.gzip.exchange(false) && fd >= 0) {
    deflateEnd(&s.gz);
    s.gz = z_stream{};
    s.gzBusy.store(false, std::memory_order_release);
  }
  s.sequence.reset();
  s.threads.clear();
  s.counters.clear();
  close(s.fd);
  s.fd = -1;
  s.open.store(false, std::memory_order_relaxed);
}

void closeAtExit() { closeTraceFile(); }

// abort() skips the exit handlers. The host's fatal assertion finishes the trace itself before
// it aborts; any other abort (std::terminate, a raw abort()) comes here, in a signal handler,
// where only async-signal-safe calls may run: no lock, no allocation, no stdio. The file holds
// whole events only, so the pre-formatted tail written after them keeps it valid JSON; the
// events still pending in memory are lost. Then the previous handler, if any, runs; returning
// lets abort() go on with the default action.
void onAbort(int sig, siginfo_t* info, void* context) {
  TraceState& s = state();
  const int savedErrno = errno;
  int fd = s.tailFd.exchange(-1);
  if (fd >= 0 && !s.perfetto.load()) {
    if (!s.gzip.load()) {
      writeAll(fd, kTail, sizeof(kTail) - 1);
    } else if (!s.gzBusy.exchange(true, std::memory_order_acquire)) {
      // No thread is deflating (one that was, interrupted here, leaves the stream unended).
      gzWrite(s, fd, kTail, sizeof(kTail) - 1, true);
    }
  }
  errno = savedErrno;
  const struct sigaction& prev = s.previousAbort;
  if (prev.sa_flags & SA_SIGINFO) {
    if (prev.sa_sigaction != nullptr) prev.sa_sigaction(sig, info, context);
  } else if (prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN &&
             prev.sa_handler != nullptr) {
    prev.sa_handler(sig);
  }
}

std::string processName() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  std::getline(comm, name);
  return name.empty() ? "process " + std::to_string(getpid()) : name;
}

// Track order in a viewer: the pipeline first, then main, then the sensors by number.
int sortIndexFor(const std::string& name) {
  if (name == "pipeline") return 0;
  if (name == "main") return 1;
  if (name.compare(0, 7, "sensor ") == 0)
    return 10 + static_cast<int>(strtol(name.c_str() + 7, nullptr, 10));
  return 100000;
}

struct StartUpTraceFile {
  StartUpTraceFile() {
    const char* path = getenv("ORVCAM_TRACE_FILE");  // NOLINT(concurrency-mt-unsafe): start-up
    if (path == nullptr || *path == 0) return;
    std::string error;
    if (!openTraceFile(path, &error))
      (void)fprintf(
          stderr, "%s\n",
          formatLogcatLine('E', "OrvCam/HostPlatform", "ORVCAM_TRACE_FILE: " + error).c_str());
  }
} gStartUpTraceFile;  // NOLINT(cert-err58-cpp): a failure this early ends the process either way

}  // namespace

void setTraceTags(uint64_t tags) { state().tags.store(tags, std::memory_order_relaxed); }

bool openTraceFile(const std::string& path, std::string* error) {
  TraceState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  closeLocked(s);
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (error) *error = path + ": " + std::generic_category().message(errno);
    return false;
  }
  s.fd = fd;
  s.tailFd.store(fd);
  s.pid = static_cast<int>(getpid());
  s.perfetto.store(pftrace::isPerfettoPath(path));
  if (pftrace::isGzipPath(path)) {
    // gzip's own header and trailer (windowBits + 16): one stream, which Perfetto opens.
    s.gz = z_stream{};
    if (deflateInit2(&s.gz, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
      if (error) *error = path + ": cannot set up gzip compression";
      close(fd);
      s.fd = -1;
      s.tailFd.store(-1);
      return false;
    }
    s.gzBusy.store(false);
    s.gzip.store(true);
  }
  if (s.perfetto.load()) {
    // Events on CLOCK_BOOTTIME, as a device's system trace has them; the snapshot ties it to
    // the wall clock and the monotonic clock of the same moment.
    s.sequence = std::make_unique<pftrace::Sequence>(1);
    s.pending.clear();
    const pftrace::Sequence::ClockReading clocks[] = {
        {pftrace::kClockBoottime, bootTimeNs(), 1},
        {pftrace::kClockMonotonic, bootTimeNs(CLOCK_MONOTONIC), 1},
        {pftrace::kClockRealtime, bootTimeNs(CLOCK_REALTIME), 1}};
    s.sequence->clockSnapshot(&s.pending, clocks, 3);
    s.sequence->processTrack(&s.pending, processTrack(s.pid), s.pid, processName());
  } else {
    s.pending = "[\n{\"name\":\"process_name\",\"ph\":\"M\",\"pid\":" + std::to_string(s.pid) +
                ",\"tid\":" + std::to_string(s.pid) +
                ",\"args\":{\"name\":" + jsonString(processName().c_str()) + "}}";
  }
  flushLocked(s);
  s.firstEvent = false;
  s.open.store(true, std::memory_order_relaxed);
  if (!s.atExitRegistered) {
    s.atExitRegistered = true;
    // Without it the trace only lacks its closing bytes, which the reader tolerates.
    (void)std::atexit(closeAtExit);
  }
  if (!s.abortHandlerInstalled) {
    s.abortHandlerInstalled = true;
    struct sigaction action {};
    action.sa_sigaction = onAbort;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGABRT, &action, &s.previousAbort);
  }
  return true;
}

void closeTraceFile() {
  TraceState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  closeLocked(s);
}

// Unchecked: the lock is only tried, which the analysis cannot follow through the loop.
void finishTraceBeforeAbort() ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
  TraceState& s = state();
  if (!s.open.load(std::memory_order_relaxed)) return;
  // A forked child (a death test) may have been forked while another thread held the lock,
  // and that thread does not exist in the child: wait a little, never for good.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  while (!s.mutex.try_lock()) {
    if (std::chrono::steady_clock::now() >= deadline) return;  // the abort handler ends it
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  closeLocked(s);
  s.mutex.unlock();
}

bool traceFileOpen() {
  TraceState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.fd >= 0;
}

void traceBegin(const std::string& name) { record(Kind::Begin, name.c_str(), kHostCategory, 0); }

void traceEnd(const std::string& name) { record(Kind::End, name.c_str(), kHostCategory, 0); }

void traceInstant(const std::string& name) {
  record(Kind::Instant, name.c_str(), kHostCategory, 0);
}

void traceThreadName(const std::string& name) {
  TraceState& s = state();
  if (s.perfetto.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.fd >= 0 && s.sequence) threadTrackLocked(s, currentTid(), name);
    return;
  }
  writeEvent("thread_name", "__metadata", 'M',
             ",\"args\":{\"name\":" + jsonString(name.c_str()) + "}");
  writeEvent("thread_sort_index", "__metadata", 'M',
             ",\"args\":{\"sort_index\":" + std::to_string(sortIndexFor(name)) + "}");
}

void traceAsyncBegin(const std::string& name, uint64_t id) {
  record(Kind::AsyncBegin, name.c_str(), kHostCategory, static_cast<int64_t>(id));
}

void traceAsyncEnd(const std::string& name, uint64_t id) {
  record(Kind::AsyncEnd, name.c_str(), kHostCategory, static_cast<int64_t>(id));
}

void traceCounter(const std::string& name, int64_t value) {
  record(Kind::Counter, name.c_str(), kHostCategory, value);
}

void traceFlowStart(const std::string& name, uint64_t id) {
  record(Kind::FlowStart, name.c_str(), kHostCategory, static_cast<int64_t>(id));
}

void traceFlowEnd(const std::string& name, uint64_t id) {
  record(Kind::FlowEnd, name.c_str(), kHostCategory, static_cast<int64_t>(id));
}

void traceFlowBetween(const std::string& name, uint64_t id, int fromTid,
                      std::chrono::steady_clock::time_point from, int toTid,
                      std::chrono::steady_clock::time_point to) {
  const Stamp start{fromTid, from}, end{toTid, to};
  record(Kind::FlowStart, name.c_str(), kHostCategory, static_cast<int64_t>(id), &start);
  record(Kind::FlowEnd, name.c_str(), kHostCategory, static_cast<int64_t>(id), &end);
}

int traceThreadId() { return currentTid(); }

}  // namespace host
}  // namespace orvcam

extern "C" uint64_t atrace_get_enabled_tags(void) {
  return orvcam::host::state().tags.load(std::memory_order_relaxed);
}

namespace NSCam {
namespace Utils {
namespace ULog {

void ULogger::trace(uint32_t /*moduleId*/, const char* tag, const char* name, int kind) {
  if (kind == orvcam::host::kTraceBegin)
    orvcam::host::record(orvcam::host::Kind::Begin, name, tag, 0);
  else if (kind == orvcam::host::kTraceEnd)
    orvcam::host::record(orvcam::host::Kind::End, name, tag, 0);
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
