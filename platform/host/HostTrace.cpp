// Host tracing: the enabled-tags mask of libcutils, ULogger::trace and a Chrome JSON trace
// file (an array of trace events, one per line) that Perfetto UI and chrome://tracing open.
// The file is finished at exit and also when the process aborts.
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
  const char* text = getenv("ORVCAM_TRACE_TAGS");
  if (text == nullptr || *text == 0) return 0;
  char* end = nullptr;
  errno = 0;
  unsigned long long value = strtoull(text, &end, 0);
  if (end == text || *end != 0 || errno == ERANGE) {
    fprintf(stderr, "orvcam: ignoring ORVCAM_TRACE_TAGS=\"%s\": not a number\n", text);
    return 0;
  }
  return value;
}

// Leaked: threads and static destructors may still trace while the process exits.
struct TraceState {
  std::atomic<uint64_t> tags{envTags()};
  std::mutex mutex;
  FILE* file = nullptr;
  std::atomic<bool> open{false};  // lets a closed trace skip the lock and the formatting
  bool firstEvent = true;
  int pid = 0;
  bool atExitRegistered = false;
  bool abortHandlerInstalled = false;
  struct sigaction previousAbort {};
};

TraceState& state() {
  static TraceState* s = new TraceState;
  return *s;
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
          snprintf(esc, sizeof(esc), "\\u%04x", c);
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
  if (s.file == nullptr) return;
  fprintf(s.file, "%s{\"name\":%s,\"cat\":%s,\"ph\":\"%c\",\"ts\":%lld,\"pid\":%d,\"tid\":%d%s}",
          s.firstEvent ? "" : ",\n", nameJson.c_str(), catJson.c_str(), phase, nowMicros(), s.pid,
          tid, extra.c_str());
  s.firstEvent = false;
}

void closeLocked(TraceState& s) {
  if (s.file == nullptr) return;
  fputs("\n]\n", s.file);
  fclose(s.file);
  s.file = nullptr;
  s.open.store(false, std::memory_order_relaxed);
}

void closeAtExit() { closeTraceFile(); }

// A fatal assertion ends the process with abort(), which skips the exit handlers: the trace
// is finished here instead, so that it stays valid JSON and keeps its buffered events. The
// lock is only tried (a thread may have been stopped inside writeEvent); when it stays busy
// the file is left as it is. Then the previous handler, if any, runs; returning lets abort()
// go on with the default action.
void onAbort(int sig, siginfo_t* info, void* context) {
  TraceState& s = state();
  bool locked = false;
  for (int i = 0; i < 100000 && !locked; ++i) locked = s.mutex.try_lock();
  if (locked) {
    closeLocked(s);
    s.mutex.unlock();
  }
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
  if (name.compare(0, 7, "sensor ") == 0) return 10 + atoi(name.c_str() + 7);
  return 100000;
}

struct StartUpTraceFile {
  StartUpTraceFile() {
    const char* path = getenv("ORVCAM_TRACE_FILE");
    if (path == nullptr || *path == 0) return;
    std::string error;
    if (!openTraceFile(path, &error))
      fprintf(stderr, "%s\n",
              formatLogcatLine('E', "OrvCam/HostPlatform", "ORVCAM_TRACE_FILE: " + error).c_str());
  }
} gStartUpTraceFile;

}  // namespace

void setTraceTags(uint64_t tags) { state().tags.store(tags, std::memory_order_relaxed); }

bool openTraceFile(const std::string& path, std::string* error) {
  TraceState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  closeLocked(s);
  FILE* file = fopen(path.c_str(), "w");
  if (file == nullptr) {
    if (error) *error = path + ": " + strerror(errno);
    return false;
  }
  setvbuf(file, nullptr, _IOFBF, 1 << 16);
  fputs("[\n", file);
  s.file = file;
  s.open.store(true, std::memory_order_relaxed);
  s.firstEvent = true;
  s.pid = static_cast<int>(getpid());
  fprintf(file,
          "{\"name\":\"process_name\",\"ph\":\"M\",\"pid\":%d,\"tid\":%d,"
          "\"args\":{\"name\":%s}}",
          s.pid, s.pid, jsonString(processName().c_str()).c_str());
  s.firstEvent = false;
  if (!s.atExitRegistered) {
    s.atExitRegistered = true;
    std::atexit(closeAtExit);
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

bool traceFileOpen() {
  TraceState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.file != nullptr;
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
