#pragma once
// Fatal assertion of the system log (liblog on a device). Never returns.

#pragma GCC visibility push(default)
extern "C" void __android_log_assert(const char* cond, const char* tag, const char* fmt, ...)
    __attribute__((noreturn, format(printf, 3, 4)));
#pragma GCC visibility pop
