#pragma once
// Camera debug-print facility (liborvcam.debugwrapper on a device).
#include <cstdint>

#pragma GCC visibility push(default)
extern "C" {

typedef enum {
  CAM_DEBUG_LEVEL_DEBUG = 0,
  CAM_DEBUG_LEVEL_ERROR = 1,
  CAM_DEBUG_LEVEL_WARNING = 2,
  CAM_DEBUG_LEVEL_INFO = 3,
  CAM_DEBUG_LEVEL_VERBOSE = 4,
  CAM_DEBUG_LEVEL_COUNT = 5,
} cam_debug_level_t;

// One record per debug-print level, in level order.
typedef struct {
  int enable;          // non-zero: lines of this level are written
  const char* prefix;  // text put in front of every line of this level
} cam_log_info_t;

extern cam_log_info_t g_logInfoLv[CAM_DEBUG_LEVEL_COUNT];

// `fmt` is a format built at run time; the remaining arguments fill it.
void log_dbg_print(const char* tag, cam_debug_level_t level, const char* fmt, ...);

// The part of a source path that log lines show.
const char* get_filename_log_control(const char* path);

}  // extern "C"
#pragma GCC visibility pop
