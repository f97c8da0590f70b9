#include <dlfcn.h>
#include <execinfo.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <vector>

#include "explore/SchedulerModel.h"

namespace orvcam {
namespace explore {
namespace sched {

const void* selfBase() {
  static const void* base = [] {
    Dl_info info;
    return dladdr(reinterpret_cast<void*>(&selfBase), &info) ? info.dli_fbase : nullptr;
  }();
  return base;
}

// For the readable interleaving: the first frame of the calling stack that is neither the
// scheduler nor libstdc++/libc, i.e. the library's or the client's own code. Only when steps
// are recorded (a failing schedule's replay): it costs a stack walk.
void* interestingCaller(void* fallback) {
  void* frames[12];
  int n = backtrace(frames, 12);
  // The frames from the one the interposed function returns to (`fallback`) on are the
  // caller's: there an unnamed frame of this program is a test body's local code.
  int from = n;
  for (int i = 1; i < n; ++i) {
    if (frames[i] == fallback) {
      from = i;
      break;
    }
  }
  for (int i = 1; i < n; ++i) {
    Dl_info info;
    if (!dladdr(frames[i], &info)) continue;
    if (info.dli_fname &&
        (std::strstr(info.dli_fname, "libstdc++") || std::strstr(info.dli_fname, "libc.so"))) {
      continue;
    }
    // Unnamed frames of this program before the caller's are the scheduler's own (its
    // anonymous namespaces); so are the frames of its model (namespace sched).
    if (!info.dli_sname && info.dli_fbase == selfBase() && i < from) continue;
    if (info.dli_sname && (std::strncmp(info.dli_sname, "pthread_", 8) == 0 ||
                           std::strstr(info.dli_sname, "_ZN6orvcam7explore12_GLOBAL__N_1") ||
                           std::strstr(info.dli_sname, "_ZN6orvcam7explore5sched") ||
                           std::strstr(info.dli_sname, "_ZN6orvcam7explore9Scheduler"))) {
      continue;
    }
    return static_cast<char*>(frames[i]) - 1;
  }
  return fallback;
}

// When steps are recorded, a step's caller is a token for its call stack (outermost frames
// from the first interesting one), since one call site (a lock wrapper in a debug build) serves
// many callers. Tokens have the top bit set: no code lives there.
std::unordered_map<void*, std::vector<void*>> gStacks;

void* recordStack(void* fallback) {
  void* frames[16];
  int n = backtrace(frames, 16);
  void* first = interestingCaller(fallback);
  std::vector<void*> outer;
  bool seen = false;
  for (int i = 1; i < n; ++i) {
    void* a = static_cast<char*>(frames[i]) - 1;
    if (a == first) seen = true;
    if (seen) outer.push_back(a);
  }
  if (outer.empty()) outer.push_back(first);
  void* token = reinterpret_cast<void*>((uintptr_t(1) << 63) | (gStacks.size() + 1));
  gStacks[token] = std::move(outer);
  return token;
}

}  // namespace sched

std::string describeCaller(void* caller) {
  auto it = gStacks.find(caller);
  if (it == gStacks.end()) return describeAddress(caller);
  for (void* a : it->second) {
    std::string d = describeAddress(a);
    if (d.rfind("std::", 0) == 0 || d.rfind("void std::", 0) == 0 || d.rfind("__gthread", 0) == 0 ||
        d.rfind("orvcam::explore::Scheduler", 0) == 0 ||
        d.rfind("orvcam::explore::ClientRun::Impl::waitUntil", 0) == 0) {
      continue;
    }
    return d;
  }
  return describeAddress(caller);
}

// Source locations come from addr2line, run once per address: only a failing schedule's
// output asks for them.
std::string describeAddress(void* address) {
  if (!address) return "";
  static std::unordered_map<void*, std::string> cache;
  auto hit = cache.find(address);
  if (hit != cache.end()) return hit->second;
  Dl_info info;
  std::string out = "?";
  if (dladdr(address, &info) && info.dli_fname) {
    const char* slash = std::strrchr(info.dli_fname, '/');
    std::string object = slash ? slash + 1 : info.dli_fname;
    uintptr_t offset =
        reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(info.dli_fbase);
    char cmd[4200];
    // With -i, addr2line lists the inlined frames innermost first: the last pair is the
    // function the code was inlined into (the library's, not the lock's wrapper).
    std::snprintf(cmd, sizeof cmd, "addr2line -f -C -i -e '%s' 0x%lx 2>/dev/null", info.dli_fname,
                  static_cast<unsigned long>(offset));
    // Code inlined into the standard library's (a lambda a std::thread runs, say) is named by
    // the outermost frame that is not in a system header.
    // (addr2line pairs the inlined frames' names with their lines loosely: only the line is
    // given then.)
    std::string function, location, ownLocation;
    if (FILE* p = popen(cmd, "r")) {
      char line[4096];
      while (std::fgets(line, sizeof line, p)) {
        function = line;
        if (!std::fgets(line, sizeof line, p)) break;
        location = line;
        if (location.rfind("/usr/", 0) != 0 && location[0] != '?') {
          ownLocation = location;
        }
      }
      pclose(p);
    }
    bool own = location.rfind("/usr/", 0) == 0 && !ownLocation.empty();
    if (own) location = ownLocation;
    auto trim = [](std::string& s) {
      while (!s.empty() && (s.back() == '\n' || s.back() == '\r')) s.pop_back();
    };
    trim(function);
    trim(location);
    // "ns::(anonymous namespace)::f(args)" is "ns::f".
    for (size_t at; (at = function.find("(anonymous namespace)::")) != std::string::npos;) {
      function.erase(at, sizeof "(anonymous namespace)::" - 1);
    }
    size_t paren = function.find('(');
    if (paren != std::string::npos) function.erase(paren);
    size_t disc = location.find(" (");
    if (disc != std::string::npos) location.erase(disc);
    size_t lastSlash = location.rfind('/');
    if (lastSlash != std::string::npos) location.erase(0, lastSlash + 1);
    if (own) {
      out = location;
    } else if (!function.empty() && function != "??") {
      out = function + " " + (location.empty() || location[0] == '?' ? object : location);
    } else {
      out = object;
    }
  }
  cache[address] = out;
  return out;
}

}  // namespace explore
}  // namespace orvcam
