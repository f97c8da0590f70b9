#pragma once
// System tracing (libcutils on a device).
#include <cstdint>

#define ATRACE_TAG_CAMERA (1ULL << 10)

#pragma GCC visibility push(default)
extern "C" uint64_t atrace_get_enabled_tags(void);
#pragma GCC visibility pop
