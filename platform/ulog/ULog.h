#pragma once
// Unified logger of the camera stack. On a device it lives in liborvcam_ulog; on a
// workstation the host platform library provides it.
#include <cstddef>
#include <cstdint>

#pragma GCC visibility push(default)
namespace NSCam {
namespace Utils {
namespace ULog {

class ULogger {
 public:
  // Detail level: lines whose level needs more than this are not written.
  static int sDetailsLevel;
  // Modules whose debug lines are wanted; a debug line needs every bit of its module mask.
  static uint32_t sNormalDetailsMask;
  // Sinks: bit 0 debug-print facility, bits 1 and 3 the unified logger itself.
  static int sMode;

  // Writes one finished line of `length` bytes (no trailing zero needed).
  static void print(uint32_t moduleId, const char* tag, int level, const char* text, size_t length);
  // Begins (kind 2) or ends (kind 6) a named trace section on the calling thread.
  static void trace(uint32_t moduleId, const char* tag, const char* name, int kind);
  // Pushes buffered lines out; called before the process is aborted.
  static void flush(int flag);
};

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam
#pragma GCC visibility pop
