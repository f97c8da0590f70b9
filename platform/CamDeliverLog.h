#pragma once
// Logging, tracing and fatal assertions of liborvcam_camdeliver.
//
// Every line is gated at the call site by plain integer tests on the unified logger's
// globals before any argument is evaluated or any text is formatted, so a disabled line
// costs a few loads and compares. An enabled line is written to the debug-print facility
// (sMode bit 0, when the level's record is enabled) and to the unified logger (sMode bits 1
// or 3), each through a zero-filled 1024-byte buffer on the stack.
//
// A source unit defines CD_LOG_TAG before including this header. Line formats begin with
// "[%s]", which receives the calling function's name; the macros pass it implicitly.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "cutils/Trace.h"
#include "debug/DebugPrint.h"
#include "log/Log.h"
#include "ulog/ULog.h"

namespace NSCam {
namespace camsys {
namespace camcoordinator {
namespace logging {

constexpr uint32_t kModuleId = 0x401031;
constexpr uint32_t kDebugMask = 0x401000;
constexpr size_t kLineSize = 1024;
constexpr size_t kTraceNameSize = 256;
constexpr int kModeDebugPrint = 0x1;
constexpr int kModeULogger = 0xA;  // bits 1 and 3
constexpr int kTraceBegin = 2;
constexpr int kTraceEnd = 6;

// Unified-logger levels.
constexpr int kULogError = 1;
constexpr int kULogWarning = 2;
constexpr int kULogDebug = 5;

using NSCam::Utils::ULog::ULogger;

inline bool debugEnabled() {
  return ULogger::sDetailsLevel >= kULogDebug &&
         (ULogger::sNormalDetailsMask & kDebugMask) == kDebugMask;
}
inline bool warningEnabled() { return ULogger::sDetailsLevel >= kULogWarning; }

// Never called: lets the compiler check a line's format against its arguments.
inline void checkFormat(const char*, ...) __attribute__((format(printf, 1, 2)));
inline void checkFormat(const char*, ...) {}

// Writes one line whose gates have already passed. `fmt` begins with "[%s]" for `func`.
template <typename... Args>
inline void emit(const char* tag, cam_debug_level_t dbgLevel, int ulogLevel, const char* file,
                 int line, const char* func, const char* fmt, Args... args) {
  char buf[kLineSize];
  if ((ULogger::sMode & kModeDebugPrint) && g_logInfoLv[dbgLevel].enable) {
    memset(buf, 0, sizeof(buf));
    (void)snprintf(buf, sizeof(buf), "%s[%s] %s:%d %s() %s", g_logInfoLv[dbgLevel].prefix, tag,
                   get_filename_log_control(file), line, func, fmt);
    log_dbg_print(tag, dbgLevel, buf, func, args...);
  }
  if (ULogger::sMode & kModeULogger) {
    memset(buf, 0, sizeof(buf));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    int n = snprintf(buf, sizeof(buf), fmt, func, args...);
#pragma GCC diagnostic pop
    if (n >= 0) {
      buf[kLineSize - 1] = 0;
      size_t len = static_cast<size_t>(n) < kLineSize ? static_cast<size_t>(n) : kLineSize - 1;
      ULogger::print(kModuleId, tag, ulogLevel, buf, len);
    }
  }
}

// Writes the message of a fatal assertion (without its location suffix) to the unified
// logger at error level and flushes it; the caller then aborts.
template <typename... Args>
inline void emitFatal(const char* tag, const char* fmt, Args... args) {
  if (!(ULogger::sMode & kModeULogger)) return;
  char buf[kLineSize];
  memset(buf, 0, sizeof(buf));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  int n = snprintf(buf, sizeof(buf), fmt, args...);
#pragma GCC diagnostic pop
  if (n >= 0) {
    buf[kLineSize - 1] = 0;
    size_t len = static_cast<size_t>(n) < kLineSize ? static_cast<size_t>(n) : kLineSize - 1;
    ULogger::print(kModuleId, tag, kULogError, buf, len);
  }
  ULogger::flush(1);
}

// A trace section for the lifetime of the object, when camera tracing is on at its start.
class TraceSection {
 public:
  TraceSection(const char* tag, const char* fmt, ...) __attribute__((format(printf, 3, 4)))
  : mTag(tag), mTraced((atrace_get_enabled_tags() & ATRACE_TAG_CAMERA) != 0) {
    if (!mTraced) return;
    memset(mName, 0, sizeof(mName));
    va_list ap;
    va_start(ap, fmt);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    if (vsnprintf(mName, sizeof(mName), fmt, ap) < 0) mName[0] = 0;
#pragma GCC diagnostic pop
    va_end(ap);
    ULogger::trace(kModuleId, mTag, mName, kTraceBegin);
  }
  ~TraceSection() {
    if (mTraced) ULogger::trace(kModuleId, mTag, mName, kTraceEnd);
  }
  TraceSection(const TraceSection&) = delete;
  TraceSection& operator=(const TraceSection&) = delete;

 private:
  const char* mTag;
  bool mTraced;
  char mName[kTraceNameSize];
};

}  // namespace logging
}  // namespace camcoordinator
}  // namespace camsys
}  // namespace NSCam

#define CD_LOG_AT_(dbgLevel, ulogLevel, fmt, ...)                                               \
  do {                                                                                          \
    if (false)                                                                                  \
      ::NSCam::camsys::camcoordinator::logging::checkFormat(fmt, __FUNCTION__, ##__VA_ARGS__);  \
    ::NSCam::camsys::camcoordinator::logging::emit(CD_LOG_TAG, dbgLevel, ulogLevel, __FILE__,   \
                                                   __LINE__, __FUNCTION__, fmt, ##__VA_ARGS__); \
  } while (0)

// Debug line: detail level 5 and the module's mask bits.
#define CD_LOGD(fmt, ...)                                                                          \
  do {                                                                                             \
    if (::NSCam::camsys::camcoordinator::logging::debugEnabled())                                  \
      CD_LOG_AT_(CAM_DEBUG_LEVEL_DEBUG, ::NSCam::camsys::camcoordinator::logging::kULogDebug, fmt, \
                 ##__VA_ARGS__);                                                                   \
  } while (0)

// Verbose debug line: `level` (a log level copy or the live static) of 1 or more is tested
// first, then the debug gates.
#define CD_LOGV(level, fmt, ...)                   \
  do {                                             \
    if ((level) >= 1) CD_LOGD(fmt, ##__VA_ARGS__); \
  } while (0)

#define CD_LOGW(fmt, ...)                                                                         \
  do {                                                                                            \
    if (::NSCam::camsys::camcoordinator::logging::warningEnabled())                               \
      CD_LOG_AT_(CAM_DEBUG_LEVEL_WARNING, ::NSCam::camsys::camcoordinator::logging::kULogWarning, \
                 fmt, ##__VA_ARGS__);                                                             \
  } while (0)

#define CD_LOGE(fmt, ...)                                                                      \
  CD_LOG_AT_(CAM_DEBUG_LEVEL_ERROR, ::NSCam::camsys::camcoordinator::logging::kULogError, fmt, \
             ##__VA_ARGS__)

// Fatal assertion: logs the message at error level, then ends the process through the
// platform's assertion with " (function){#line:path}" after the message. Locks held by the
// caller stay held.
#define CD_FATAL(fmt, ...)                                                                      \
  do {                                                                                          \
    ::NSCam::camsys::camcoordinator::logging::emitFatal(CD_LOG_TAG, fmt, ##__VA_ARGS__);        \
    __android_log_assert(nullptr, CD_LOG_TAG, fmt " (%s){#%d:%s}", ##__VA_ARGS__, __FUNCTION__, \
                         __LINE__, __FILE__);                                                   \
  } while (0)

#define CD_TRACE_CONCAT_(a, b) a##b
#define CD_TRACE_NAME_(line) CD_TRACE_CONCAT_(cdTraceSection_, line)
// Traces the rest of the enclosing scope as a section named by the format.
#define CD_TRACE_SCOPE(fmt, ...)                                                                   \
  ::NSCam::camsys::camcoordinator::logging::TraceSection CD_TRACE_NAME_(__LINE__)(CD_LOG_TAG, fmt, \
                                                                                  ##__VA_ARGS__)
