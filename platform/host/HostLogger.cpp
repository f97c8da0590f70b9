// Host logger: the unified logger's globals and print/flush, the debug-print facility and
// the fatal assertion of liblog. Every line ends up on stderr in logcat "threadtime" layout,
// or in the innermost active LogCapture.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "HostPlatform.h"
#include "debug/DebugPrint.h"
#include "log/Log.h"
#include "ulog/ULog.h"

namespace {

constexpr int kDefaultDetailsLevel = 2;
constexpr uint32_t kDefaultMask = 0x401000;
constexpr int kDefaultMode = 2;

// Everything the sinks share. Deliberately leaked: the library may log from static
// destructors of its clients, after this translation unit's own statics would be gone.
struct LoggerState {
  // The logger's lock. Guards the two fields below and every active capture's link to the
  // capture it hides (LogCapture::mOuter). Each line is written under it, and handed to the
  // capture under it, so it is taken before a LogCapture's own lock, never after it. Nothing
  // of the library is called while it is held.
  std::mutex mutex;
  orvcam::host::LogCapture* capture ORVCAM_GUARDED_BY(mutex) = nullptr;  // innermost active
  bool captureEchoes ORVCAM_GUARDED_BY(mutex) = false;  // whether it also wants stderr
};

LoggerState& state() {
  static LoggerState* s = new LoggerState;
  return *s;
}

// Stamps to the microsecond (logcat's usec modifier) instead of the millisecond. Read on
// every line by any thread, set at start-up from ORVCAM_LOG_USEC or by setLogMicroseconds().
std::atomic<bool> gMicroseconds{false};

// Decimal or 0x-prefixed hex; anything else (or nothing) gives `fallback`.
long envNumber(const char* name, long fallback) {
  // Read by the start-up settings only, before any thread can call setenv().
  const char* text = getenv(name);  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr || *text == 0) return fallback;
  errno = 0;
  char* end = nullptr;
  long long value = strtoll(text, &end, 0);
  if (end == text || *end != 0 || errno == ERANGE) {
    (void)fprintf(stderr, "orvcam: ignoring %s=\"%s\": not a number\n", name, text);
    return fallback;
  }
  return static_cast<long>(value);
}

// Applies the environment before main() and before the library can read the globals from
// its clients' static initialisers (this library is initialised before its users).
void onForkChild();

struct EnvSettings {
  EnvSettings() {
    state();
    pthread_atfork(nullptr, nullptr, onForkChild);
    NSCam::Utils::ULog::ULogger::sDetailsLevel =
        static_cast<int>(envNumber("ORVCAM_ULOG_LEVEL", kDefaultDetailsLevel));
    NSCam::Utils::ULog::ULogger::sNormalDetailsMask =
        static_cast<uint32_t>(envNumber("ORVCAM_ULOG_MASK", kDefaultMask));
    NSCam::Utils::ULog::ULogger::sMode =
        static_cast<int>(envNumber("ORVCAM_ULOG_MODE", kDefaultMode));
    gMicroseconds.store(envNumber("ORVCAM_LOG_USEC", 0) != 0, std::memory_order_relaxed);
  }
} gEnvSettings;  // NOLINT(cert-err58-cpp): a failure this early ends the process either way

// The process id and each thread's id are read once; a forked child reads them again (the
// generation tells a thread that its cached id belongs to the parent).
std::atomic<uint32_t> gForkGeneration{0};
std::atomic<pid_t> gPid{0};

void onForkChild() {
  gPid.store(static_cast<pid_t>(syscall(SYS_getpid)), std::memory_order_relaxed);
  gForkGeneration.fetch_add(1, std::memory_order_relaxed);
}

pid_t currentPid() {
  pid_t pid = gPid.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    gPid.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

pid_t currentTid() {
  thread_local pid_t tid = 0;
  thread_local uint32_t generation = 0;
  uint32_t now = gForkGeneration.load(std::memory_order_relaxed);
  if (tid == 0 || generation != now) {
    tid = static_cast<pid_t>(syscall(SYS_gettid));
    generation = now;
  }
  return tid;
}

// "MM-DD HH:MM:SS" of one second, computed again only when the second changes. The logger's
// own cache is guarded by LoggerState::mutex; formatLogcatLine uses a fresh one per call.
struct SecondStamp {
  time_t second = -1;
  char text[24] = {};
  size_t length = 0;
};

SecondStamp& writerStamp() {
  static SecondStamp* stamp = new SecondStamp;  // leaked like the logger state
  return *stamp;
}

// Writes "MM-DD HH:MM:SS.mmm" (or ".uuuuuu") into `out` (at least 32 bytes) and returns its
// length.
size_t formatTimestamp(const timespec& now, SecondStamp& cache, char* out) {
  if (cache.second != now.tv_sec) {
    tm local{};
    localtime_r(&now.tv_sec, &local);
    cache.length = strftime(cache.text, sizeof(cache.text), "%m-%d %H:%M:%S", &local);
    cache.second = now.tv_sec;
  }
  memcpy(out, cache.text, cache.length);
  const bool micro = gMicroseconds.load(std::memory_order_relaxed);
  long fraction = micro ? now.tv_nsec / 1000L : now.tv_nsec / 1000000L;
  char* p = out + cache.length;
  *p++ = '.';
  for (long unit = micro ? 100000L : 100L; unit > 0; unit /= 10) {
    *p++ = static_cast<char>('0' + fraction / unit % 10);
  }
  return static_cast<size_t>(p - out);
}

// Appends `value` right-aligned in a field of at least `width` characters, as "%5d" does.
char* appendNumber(char* p, long value, int width) {
  char digits[24];
  int n = 0;
  bool negative = value < 0;
  unsigned long v = negative ? 0UL - static_cast<unsigned long>(value) : value;
  do {
    digits[n++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  if (negative) digits[n++] = '-';
  for (int pad = width - n; pad > 0; --pad) *p++ = ' ';
  while (n > 0) *p++ = digits[--n];
  return p;
}

// Formats the logcat "threadtime" text of one message (every line of it prefixed, trailing
// newlines dropped) into `out`, with a final newline when `newline` is set. Returns the
// length the text needs; when that exceeds `capacity` nothing past `capacity` is written and
// the caller formats again into a buffer of that size.
size_t formatLogcat(char* out, size_t capacity, const char* stamp, size_t stampLength, char level,
                    const char* tag, const char* message, size_t length, bool newline) {
  char head[96];
  char* h = head;
  memcpy(h, stamp, stampLength);
  h += stampLength;
  *h++ = ' ';
  h = appendNumber(h, currentPid(), 5);
  *h++ = ' ';
  h = appendNumber(h, currentTid(), 5);
  *h++ = ' ';
  *h++ = level;
  *h++ = ' ';
  const size_t headLength = static_cast<size_t>(h - head);
  const size_t tagLength = strlen(tag);
  while (length > 0 && (message[length - 1] == '\n' || message[length - 1] == '\r')) --length;

  size_t used = 0;
  auto put = [&](const char* text, size_t n) {
    if (used < capacity) memcpy(out + used, text, std::min(n, capacity - used));
    used += n;
  };
  size_t start = 0;
  while (true) {
    const void* found = memchr(message + start, '\n', length - start);
    size_t end = found ? static_cast<size_t>(static_cast<const char*>(found) - message) : length;
    put(head, headLength);
    put(tag, tagLength);
    put(": ", 2);
    put(message + start, end - start);
    if (found == nullptr) break;
    put("\n", 1);
    start = end + 1;
  }
  if (newline) put("\n", 1);
  return used;
}

void writeAll(int fd, const char* p, size_t left) {
  while (left > 0) {
    ssize_t n = ::write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
}

void writeStderr(char level, const char* tag, const char* message, size_t length) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  char stamp[32];
  size_t stampLength = formatTimestamp(now, writerStamp(), stamp);
  char buf[2048];
  size_t n = formatLogcat(buf, sizeof(buf), stamp, stampLength, level, tag, message, length, true);
  if (n <= sizeof(buf)) {
    writeAll(STDERR_FILENO, buf, n);
    return;
  }
  std::string big(n, '\0');
  formatLogcat(&big[0], n, stamp, stampLength, level, tag, message, length, true);
  writeAll(STDERR_FILENO, big.data(), n);
}

// The single entry of every sink. The line is stamped, formatted and written with one write
// under the logger's lock, so lines of different threads never interleave and appear in the
// order of their timestamps. A line that fits the stack buffer allocates nothing.
void writeLine(char level, const char* tag, const char* message, size_t length,
               orvcam::host::LogLine::Sink sink) {
  if (tag == nullptr) tag = "";
  bool isAssert = sink == orvcam::host::LogLine::Sink::Assert;
  LoggerState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  bool toStderr = isAssert || s.capture == nullptr || s.captureEchoes;
  // Written before the capture hears of it: a thread that waits on the capture for this line
  // (and may end the process once it is there) finds it on stderr too.
  if (toStderr) writeStderr(level, tag, message, length);
  if (s.capture != nullptr) s.capture->add({level, tag, std::string(message, length), sink});
}

char ulogLevelLetter(int level) {
  if (level <= 0) return 'F';
  switch (level) {
    case 1: return 'E';
    case 2: return 'W';
    case 3: return 'I';
    case 4:
    case 5: return 'D';
    default: return 'V';
  }
}

char debugLevelLetter(int level) {
  static const char kLetters[] = {'D', 'E', 'W', 'I', 'V'};
  return level >= 0 && level < CAM_DEBUG_LEVEL_COUNT ? kLetters[level] : 'V';
}

}  // namespace

// ---- Unified logger -----------------------------------------------------------------------

namespace NSCam {
namespace Utils {
namespace ULog {

// Constant-initialised so that the defaults hold even before gEnvSettings runs.
int ULogger::sDetailsLevel = kDefaultDetailsLevel;
uint32_t ULogger::sNormalDetailsMask = kDefaultMask;
int ULogger::sMode = kDefaultMode;

void ULogger::print(uint32_t /*moduleId*/, const char* tag, int level, const char* text,
                    size_t length) {
  size_t n = text ? strnlen(text, length) : 0;
  writeLine(ulogLevelLetter(level), tag, text ? text : "", n, orvcam::host::LogLine::Sink::ULogger);
}

void ULogger::flush(int /*flag*/) { (void)fflush(stderr); }

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam

// ---- Debug print and assertion ------------------------------------------------------------

extern "C" {

cam_log_info_t g_logInfoLv[CAM_DEBUG_LEVEL_COUNT] = {
    {1, "D/"}, {1, "E/"}, {1, "W/"}, {1, "I/"}, {0, "V/"},
};

void log_dbg_print(const char* tag, cam_debug_level_t level, const char* fmt, ...) {
  char buf[1024];
  buf[0] = 0;
  va_list ap;
  va_start(ap, fmt);
  int n = fmt ? vsnprintf(buf, sizeof(buf), fmt, ap) : 0;
  va_end(ap);
  if (n < 0) return;
  writeLine(debugLevelLetter(level), tag, buf, strnlen(buf, sizeof(buf)),
            orvcam::host::LogLine::Sink::DebugPrint);
}

const char* get_filename_log_control(const char* path) {
  if (path == nullptr) return "";
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
  // As liblog does it: a given format is the whole message; otherwise the condition is
  // named, and with neither the assertion is "Unspecified".
  std::string message;
  if (fmt == nullptr) {
    message = cond != nullptr ? std::string("Assertion failed: ") + cond
                              : std::string("Unspecified assertion failed");
  } else {
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n > 0) {
      std::string text(static_cast<size_t>(n) + 1, '\0');
      (void)vsnprintf(&text[0], text.size(), fmt, ap);  // measured above
      text.resize(static_cast<size_t>(n));
      message += text;
    }
    va_end(ap);
  }
  writeLine('F', tag, message.data(), message.size(), orvcam::host::LogLine::Sink::Assert);
  (void)fflush(stderr);
  // abort() skips the exit handlers, and its signal handler may do only what is
  // async-signal-safe: the trace is finished here, where locks and stdio are still allowed.
  orvcam::host::finishTraceBeforeAbort();
  abort();
}

}  // extern "C"

// ---- Host control -------------------------------------------------------------------------

namespace orvcam {
namespace host {

LoggerSettings loggerSettings() {
  using NSCam::Utils::ULog::ULogger;
  return {ULogger::sDetailsLevel, ULogger::sNormalDetailsMask, ULogger::sMode};
}

void applyLoggerSettings(const LoggerSettings& settings) {
  using NSCam::Utils::ULog::ULogger;
  ULogger::sDetailsLevel = settings.detailsLevel;
  ULogger::sNormalDetailsMask = settings.mask;
  ULogger::sMode = settings.mode;
}

void setLogMicroseconds(bool micro) { gMicroseconds.store(micro, std::memory_order_relaxed); }

bool logMicroseconds() { return gMicroseconds.load(std::memory_order_relaxed); }

std::string formatLogcatLine(char level, const std::string& tag, const std::string& message) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  SecondStamp cache;
  char stamp[32];
  size_t stampLength = formatTimestamp(now, cache, stamp);
  size_t n = formatLogcat(nullptr, 0, stamp, stampLength, level, tag.c_str(), message.data(),
                          message.size(), false);
  std::string out(n, '\0');
  formatLogcat(&out[0], n, stamp, stampLength, level, tag.c_str(), message.data(), message.size(),
               false);
  return out;
}

void setDebugPrintEnabled(int level, bool enabled) {
  if (level < 0 || level >= CAM_DEBUG_LEVEL_COUNT) return;
  g_logInfoLv[level].enable = enabled ? 1 : 0;
}

LogCapture::LogCapture(bool echo) : mEcho(echo), mOuter(nullptr) {
  LoggerState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  mOuter = s.capture;
  s.capture = this;
  s.captureEchoes = mEcho;
}

LogCapture::~LogCapture() {
  LoggerState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  // Normally the innermost capture ends first; tolerate any order by unlinking in place.
  if (s.capture == this) {
    s.capture = mOuter;
    s.captureEchoes = mOuter != nullptr && mOuter->mEcho;
    return;
  }
  for (LogCapture* c = s.capture; c != nullptr; c = c->mOuter) {
    if (c->mOuter == this) {
      c->mOuter = mOuter;
      return;
    }
  }
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mMutex);
  return mLines;
}

std::vector<std::string> LogCapture::messages(const std::string& tag, char level) const {
  std::lock_guard<std::mutex> lock(mMutex);
  std::vector<std::string> out;
  for (const LogLine& line : mLines) {
    if (!tag.empty() && line.tag != tag) continue;
    if (level != 0 && line.level != level) continue;
    out.push_back(line.message);
  }
  return out;
}

bool LogCapture::has(const std::string& message) const { return count(message) > 0; }

size_t LogCapture::count(const std::string& message) const {
  std::lock_guard<std::mutex> lock(mMutex);
  size_t n = 0;
  for (const LogLine& line : mLines) n += line.message == message ? 1 : 0;
  return n;
}

bool LogCapture::waitFor(const std::string& message, size_t n,
                         std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(mMutex);
  // Unchecked: the predicate runs inside the condition variable's wait, under `lock`.
  return mAdded.wait_for(lock, limit, [&]() ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
    size_t seen = 0;
    for (const LogLine& line : mLines) seen += line.message == message ? 1 : 0;
    return seen >= n;
  });
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mMutex);
  mLines.clear();
}

void LogCapture::add(LogLine line) {
  std::lock_guard<std::mutex> lock(mMutex);
  mLines.push_back(std::move(line));
  mAdded.notify_all();
}

}  // namespace host
}  // namespace orvcam
