// The platform's fatal assertion, as this program sees it. The library's fatal assertions end
// in __android_log_assert (platform/log/Log.h), which the host platform implements by writing
// the line and aborting. This program defines the function itself, and the dynamic linker
// binds the library's calls to it: on a thread the scheduler runs, the message becomes the
// schedule's finding and the thread is parked, so that exploring goes on in this process
// instead of one process per schedule. Elsewhere the host's own function runs as usual.
#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "explore/Scheduler.h"

extern "C" [[noreturn]] void __android_log_assert(const char* cond, const char* tag,
                                                  const char* fmt, ...) {
  std::string message;
  if (fmt) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    int n = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    message.resize(n > 0 ? size_t(n) : 0);
    if (n > 0) std::vsnprintf(&message[0], size_t(n) + 1, fmt, args);
    va_end(args);
  } else {
    message = cond ? std::string("Assertion failed: ") + cond : "Unspecified assertion failed";
  }
  if (orvcam::explore::Scheduler::managed()) orvcam::explore::Scheduler::fatal(message);
  using Assert = void (*)(const char*, const char*, const char*, ...);
  auto real = reinterpret_cast<Assert>(dlsym(RTLD_NEXT, "__android_log_assert"));
  if (real) real(nullptr, tag, "%s", message.c_str());
  std::abort();
}

// Referenced by the explore package's link options (-u), so that a program linking its
// archive takes this file's definition in even though nothing else names it.
extern "C" void orvcamExploreFatalHook() {}
