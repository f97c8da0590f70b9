// Host tracing: the enabled-tags mask of libcutils, ULogger::trace and a Chrome JSON trace
// file (an array of trace events, one per line) that Perfetto UI and chrome://tracing open.
// The file is finished at exit, by the host's fatal assertion before it aborts, and, as far as
// a signal handler safely can, by any other abort.
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "HostPlatform.h"
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
  // The descriptor the abort handler writes the tail to, or -1. Exchanged for -1 by whoever
  // writes the tail, so that it is written once.
  std::atomic<int> tailFd{-1};
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

void flushLocked(TraceState& s) ORVCAM_REQUIRES(s.mutex) {
  // Once the abort handler has ended the file, nothing more goes into it.
  if (s.tailFd.load() == s.fd) writeAll(s.fd, s.pending.data(), s.pending.size());
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

// Writes one event object; `extra` is appended inside it (already JSON, starting with ',').
void writeEvent(const char* name, const char* category, char phase, const std::string& extra) {
  TraceState& s = state();
  if (!s.open.load(std::memory_order_relaxed)) return;
  std::string nameJson = jsonString(name);
  std::string catJson = jsonString(category);
  int tid = currentTid();
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
                 nowMicros(), s.pid, tid);
  s.pending += fields;
  s.pending += extra;
  s.pending += '}';
  s.firstEvent = false;
  if (s.pending.size() >= kFlushAt) flushLocked(s);
}

void closeLocked(TraceState& s) ORVCAM_REQUIRES(s.mutex) {
  if (s.fd < 0) return;
  flushLocked(s);
  int fd = s.tailFd.exchange(-1);
  if (fd >= 0) writeAll(fd, kTail, sizeof(kTail) - 1);
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
  if (fd >= 0) writeAll(fd, kTail, sizeof(kTail) - 1);
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
  s.pending = "[\n{\"name\":\"process_name\",\"ph\":\"M\",\"pid\":" + std::to_string(s.pid) +
              ",\"tid\":" + std::to_string(s.pid) +
              ",\"args\":{\"name\":" + jsonString(processName().c_str()) + "}}";
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

void traceBegin(const std::string& name) { writeEvent(name.c_str(), kHostCategory, 'B', ""); }

void traceEnd(const std::string& name) { writeEvent(name.c_str(), kHostCategory, 'E', ""); }

void traceInstant(const std::string& name) {
  writeEvent(name.c_str(), kHostCategory, 'i', ",\"s\":\"t\"");
}

void traceThreadName(const std::string& name) {
  writeEvent("thread_name", "__metadata", 'M',
             ",\"args\":{\"name\":" + jsonString(name.c_str()) + "}");
  writeEvent("thread_sort_index", "__metadata", 'M',
             ",\"args\":{\"sort_index\":" + std::to_string(sortIndexFor(name)) + "}");
}

void traceAsyncBegin(const std::string& name, uint64_t id) {
  writeEvent(name.c_str(), kHostCategory, 'b', ",\"id\":" + std::to_string(id));
}

void traceAsyncEnd(const std::string& name, uint64_t id) {
  writeEvent(name.c_str(), kHostCategory, 'e', ",\"id\":" + std::to_string(id));
}

void traceCounter(const std::string& name, int64_t value) {
  writeEvent(name.c_str(), kHostCategory, 'C',
             ",\"args\":{\"value\":" + std::to_string(value) + "}");
}

void traceFlowStart(const std::string& name, uint64_t id) {
  writeEvent(name.c_str(), kHostCategory, 's', ",\"id\":" + std::to_string(id));
}

void traceFlowEnd(const std::string& name, uint64_t id) {
  writeEvent(name.c_str(), kHostCategory, 'f', ",\"id\":" + std::to_string(id) + ",\"bp\":\"e\"");
}

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
    orvcam::host::writeEvent(name, tag, 'B', "");
  else if (kind == orvcam::host::kTraceEnd)
    orvcam::host::writeEvent(name, tag, 'E', "");
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
