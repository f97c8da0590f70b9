// Host logger: the unified logger's globals and print/flush, the debug-print facility and
// the fatal assertion of liblog. Every line ends up on stderr in logcat "threadtime" layout,
// or in the innermost active LogCapture.
#include <sys/syscall.h>
#include <unistd.h>

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
  std::mutex mutex;
  orvcam::host::LogCapture* capture = nullptr;  // innermost active capture
  bool captureEchoes = false;                   // whether it also wants stderr
};

LoggerState& state() {
  static LoggerState* s = new LoggerState;
  return *s;
}

// Decimal or 0x-prefixed hex; anything else (or nothing) gives `fallback`.
long envNumber(const char* name, long fallback) {
  const char* text = getenv(name);
  if (text == nullptr || *text == 0) return fallback;
  errno = 0;
  char* end = nullptr;
  long long value = strtoll(text, &end, 0);
  if (end == text || *end != 0 || errno == ERANGE) {
    fprintf(stderr, "orvcam: ignoring %s=\"%s\": not a number\n", name, text);
    return fallback;
  }
  return static_cast<long>(value);
}

// Applies the environment before main() and before the library can read the globals from
// its clients' static initialisers (this library is initialised before its users).
struct EnvSettings {
  EnvSettings() {
    state();
    NSCam::Utils::ULog::ULogger::sDetailsLevel =
        static_cast<int>(envNumber("ORVCAM_ULOG_LEVEL", kDefaultDetailsLevel));
    NSCam::Utils::ULog::ULogger::sNormalDetailsMask =
        static_cast<uint32_t>(envNumber("ORVCAM_ULOG_MASK", kDefaultMask));
    NSCam::Utils::ULog::ULogger::sMode =
        static_cast<int>(envNumber("ORVCAM_ULOG_MODE", kDefaultMode));
  }
} gEnvSettings;

pid_t currentTid() {
  thread_local pid_t tid = static_cast<pid_t>(syscall(SYS_gettid));
  return tid;
}

std::string timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm local{};
  localtime_r(&now.tv_sec, &local);
  char buf[32];
  size_t n = strftime(buf, sizeof(buf), "%m-%d %H:%M:%S", &local);
  snprintf(buf + n, sizeof(buf) - n, ".%03ld", now.tv_nsec / 1000000L);
  return buf;
}

// The text a line shows; trailing newlines are dropped (the layout adds its own).
std::string trimmedMessage(const std::string& message) {
  size_t end = message.size();
  while (end > 0 && (message[end - 1] == '\n' || message[end - 1] == '\r')) --end;
  return message.substr(0, end);
}

void writeAll(int fd, const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
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

// The single entry of every sink. The whole line is written with one write under the
// logger's lock so that lines of different threads never interleave.
void writeLine(char level, const char* tag, std::string message, orvcam::host::LogLine::Sink sink) {
  std::string text = orvcam::host::formatLogcatLine(level, tag ? tag : "", message) + "\n";
  bool isAssert = sink == orvcam::host::LogLine::Sink::Assert;
  LoggerState& s = state();
  std::lock_guard<std::mutex> lock(s.mutex);
  bool toStderr = isAssert || s.capture == nullptr;
  if (s.capture != nullptr) {
    toStderr = toStderr || s.captureEchoes;
    s.capture->add({level, tag ? tag : "", std::move(message), sink});
  }
  if (toStderr) writeAll(STDERR_FILENO, text);
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
  std::string message = text ? std::string(text, strnlen(text, length)) : std::string();
  writeLine(ulogLevelLetter(level), tag, std::move(message), orvcam::host::LogLine::Sink::ULogger);
}

void ULogger::flush(int /*flag*/) { fflush(stderr); }

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
  writeLine(debugLevelLetter(level), tag, buf, orvcam::host::LogLine::Sink::DebugPrint);
}

const char* get_filename_log_control(const char* path) {
  if (path == nullptr) return "";
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...) {
  std::string message;
  if (cond != nullptr) message = std::string("Assertion failed: ") + cond + " ";
  if (fmt != nullptr) {
    va_list ap;
    va_start(ap, fmt);
    va_list copy;
    va_copy(copy, ap);
    int n = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (n > 0) {
      std::string text(static_cast<size_t>(n) + 1, '\0');
      vsnprintf(&text[0], text.size(), fmt, ap);
      text.resize(static_cast<size_t>(n));
      message += text;
    }
    va_end(ap);
  }
  writeLine('F', tag, std::move(message), orvcam::host::LogLine::Sink::Assert);
  fflush(stderr);
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

std::string formatLogcatLine(char level, const std::string& tag, const std::string& message) {
  char head[96];
  snprintf(head, sizeof(head), "%s %5d %5d %c ", timestamp().c_str(), static_cast<int>(getpid()),
           static_cast<int>(currentTid()), level);
  std::string prefix = std::string(head) + tag + ": ";
  std::string body = trimmedMessage(message);
  std::string out;
  size_t start = 0;
  while (true) {
    size_t nl = body.find('\n', start);
    out += prefix;
    out.append(body, start, nl == std::string::npos ? std::string::npos : nl - start);
    if (nl == std::string::npos) break;
    out += '\n';
    start = nl + 1;
  }
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
  return mAdded.wait_for(lock, limit, [&] {
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
