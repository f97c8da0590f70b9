// log_corpus: turns a threadtime capture (the simulator's log) into the other shapes a field
// log arrives in, so that tests can read them all back and compare with the simulator.
//   log_corpus layout NAME[,MODIFIER...] IN OUT   another adb logcat -v layout
//   log_corpus sessions N IN OUT [newtids]        the run N times in one process, 10 s apart
//   log_corpus backwards IN OUT                   every 7th line stamped 3 ms early
//   log_corpus midnight IN OUT                    the run moved to cross a new year
//   log_corpus bugreport IN OUT                   inside a bugreport's text, as its system log
//                                                 section (uid, printable) among other sections
//   log_corpus overlap IN OUT                     its first two thirds, then the rest from
//                                                 about a third on, where the stamps step
//                                                 back: two captures joined with an overlap
//   log_corpus lossy SEED IN OUT                  about one line in 50 left out, as logd drops
//                                                 lines when it is overloaded
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "logread/LogReader.h"

namespace {

using orvcam::logread::LogLine;
using orvcam::logread::parseLogLine;

struct Line {
  int64_t ns = 0;  // from the start of a leap year
  int pid = 0, tid = 0;
  char level = 'D';
  std::string tag, text;
};

constexpr int64_t kSecond = 1000000000LL;

std::string clock(int64_t ns, int digits, bool year) {
  static const int kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  int64_t sec = ns / kSecond, frac = ns % kSecond;
  int64_t day = sec / 86400, rest = sec % 86400;
  int64_t yearNo = 2026 + day / 366;
  day %= 366;
  int month = 0;
  while (day >= kDays[month]) day -= kDays[month++];
  for (int i = digits; i < 9; ++i) frac /= 10;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%s%02d-%02lld %02lld:%02lld:%02lld.%0*lld",
                year ? (std::to_string(yearNo) + "-").c_str() : "", month + 1,
                static_cast<long long>(day + 1), static_cast<long long>(rest / 3600),
                static_cast<long long>(rest / 60 % 60), static_cast<long long>(rest % 60), digits,
                static_cast<long long>(frac));
  return buf;
}

std::string format(const Line& l, const std::string& layout, const std::set<std::string>& mods) {
  int digits = mods.count("nsec") ? 9 : mods.count("usec") ? 6 : 3;
  std::string time;
  if (mods.count("epoch") || mods.count("monotonic")) {
    int64_t base = mods.count("epoch") ? 1764000000LL * kSecond : 0;
    int64_t ns = base + l.ns;
    int64_t frac = ns % kSecond;
    for (int i = digits; i < 9; ++i) frac /= 10;
    char buf[64];
    std::snprintf(buf, sizeof buf, "%5lld.%0*lld", static_cast<long long>(ns / kSecond), digits,
                  static_cast<long long>(frac));
    time = buf;
  } else {
    time = clock(l.ns, digits, mods.count("year") > 0);
  }
  if (mods.count("zone")) time += " +0000";
  char pid[64];
  std::snprintf(pid, sizeof pid, mods.count("uid") ? "cameraserver:%5d" : "%5d", l.pid);
  char buf[2048];
  if (layout == "threadtime") {
    std::snprintf(
        buf, sizeof buf, "%s %s %5d %c %s: %s", time.c_str(),
        mods.count("uid") ? (std::string("cameraserver ") + std::to_string(l.pid)).c_str() : pid,
        l.tid, l.level, l.tag.c_str(), l.text.c_str());
  } else if (layout == "time") {
    std::snprintf(buf, sizeof buf, "%s %c/%s(%s): %s", time.c_str(), l.level, l.tag.c_str(), pid,
                  l.text.c_str());
  } else if (layout == "brief") {
    std::snprintf(buf, sizeof buf, "%c/%s(%s): %s", l.level, l.tag.c_str(), pid, l.text.c_str());
  } else if (layout == "process") {
    std::snprintf(buf, sizeof buf, "%c(%s) %s  (%s)", l.level, pid, l.text.c_str(), l.tag.c_str());
  } else if (layout == "tag") {
    std::snprintf(buf, sizeof buf, "%c/%s: %s", l.level, l.tag.c_str(), l.text.c_str());
  } else if (layout == "thread") {
    std::snprintf(buf, sizeof buf, "%c(%s:%5d) %s", l.level, pid, l.tid, l.text.c_str());
  } else if (layout == "raw") {
    std::snprintf(buf, sizeof buf, "%s", l.text.c_str());
  } else if (layout == "studio") {  // Android Studio's Logcat window, since 2022
    std::snprintf(buf, sizeof buf, "%s %5d-%-5d %-24s %-36s %c  %s",
                  clock(l.ns, digits, true).c_str(), l.pid, l.tid, l.tag.c_str(),
                  "android.hardware.camera.provider", l.level, l.text.c_str());
  } else if (layout == "studio-old") {
    std::snprintf(buf, sizeof buf, "%s %d-%d/android.hardware.camera.provider %c/%s: %s",
                  clock(l.ns, digits, true).c_str(), l.pid, l.tid, l.level, l.tag.c_str(),
                  l.text.c_str());
  } else if (layout == "long") {
    std::snprintf(buf, sizeof buf, "[ %s %s:%5d %c/%s ]\n%s\n", time.c_str(), pid, l.tid, l.level,
                  l.tag.c_str(), l.text.c_str());
  } else {
    std::cerr << "log_corpus: unknown layout " << layout << "\n";
    std::exit(2);
  }
  std::string out = buf;
  if (mods.count("color")) {
    const char* colour = l.level == 'W' ? "\x1b[38;5;231;48;5;166m" : "\x1b[38;5;75m";
    out = colour + out + "\x1b[0m";
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::cerr
        << "usage: log_corpus layout|sessions|backwards|midnight|bugreport|overlap|lossy ... IN "
           "OUT\n";
    return 2;
  }
  std::string mode = argv[1];
  int argIn = mode == "layout" || mode == "sessions" || mode == "lossy" ? 3 : 2;
  std::ifstream in(argv[argIn], std::ios::binary);
  std::ofstream out(argv[argIn + 1], std::ios::binary);
  if (!in || !out) {
    std::cerr << "log_corpus: cannot open " << argv[argIn] << " or " << argv[argIn + 1] << "\n";
    return 2;
  }
  std::vector<Line> lines;
  std::string raw;
  while (std::getline(in, raw)) {
    LogLine l;
    if (!parseLogLine(raw, &l) || !l.hasTime || l.tid < 0) continue;
    lines.push_back({l.timeNs, l.pid, l.tid, l.level, std::string(l.tag), std::string(l.text)});
  }
  if (mode == "layout") {
    std::stringstream layoutArg(argv[2]);
    std::string layout, mod;
    std::getline(layoutArg, layout, ',');
    std::set<std::string> mods;
    while (std::getline(layoutArg, mod, ',')) mods.insert(mod);
    const char* end = mods.count("crlf") ? "\r\n" : "\n";
    for (const Line& l : lines) out << format(l, layout, mods) << end;
  } else if (mode == "sessions") {
    int n = std::atoi(argv[2]);
    bool newTids = argc > 5 && std::string(argv[5]) == "newtids";
    int64_t span = lines.empty() ? 0 : lines.back().ns - lines.front().ns;
    for (int i = 0; i < n; ++i) {
      for (Line l : lines) {
        l.ns += i * (span + 10 * kSecond);
        l.pid = lines.front().pid;
        if (newTids) l.tid += 1000 * i;
        out << format(l, "threadtime", {}) << "\n";
      }
    }
  } else if (mode == "overlap") {
    // The repeat begins where the stamps step back: at the last line of the first third
    // stamped before the join (none in a log that fits in one stamp: then no overlap).
    size_t end = 2 * (lines.size() / 3), start = end;
    for (size_t i = 0; end > 0 && i <= lines.size() / 3; ++i) {
      if (lines[i].ns < lines[end - 1].ns) start = i;
    }
    for (size_t i = 0; i < end; ++i) out << format(lines[i], "threadtime", {}) << "\n";
    for (size_t i = start; i < lines.size(); ++i) {
      out << format(lines[i], "threadtime", {}) << "\n";
    }
  } else if (mode == "lossy") {
    uint64_t state = std::strtoull(argv[2], nullptr, 10) * 2654435761u + 1;
    for (const Line& l : lines) {
      state = state * 6364136223846793005ULL + 1442695040888963407ULL;
      if ((state >> 33) % 50 != 0) out << format(l, "threadtime", {}) << "\n";
    }
  } else if (mode == "backwards") {
    for (size_t i = 0; i < lines.size(); ++i) {
      Line l = lines[i];
      if (i % 7 == 6) l.ns -= 3000000;
      out << format(l, "threadtime", {}) << "\n";
    }
  } else if (mode == "midnight") {
    int64_t start = lines.empty() ? 0 : lines.front().ns;
    int64_t yearEnd = 366LL * 86400 * kSecond;
    for (Line l : lines) {
      l.ns = (l.ns - start + yearEnd - 50000000) % yearEnd;
      out << format(l, "threadtime", {}) << "\n";
    }
  } else if (mode == "bugreport") {
    // What dumpstate writes around the main buffer: a header, other sections before and after,
    // buffer markers, other processes' lines and an event log whose lines are not the
    // deliverer's, then dumpsys text that is not logcat at all.
    out << "========================================================\n"
        << "== dumpstate: 2026-11-24 03:07:51\n"
        << "========================================================\n\n"
        << "Build: UP1A.231005.007\nUptime: up 0 weeks, 0 days, 2 hours, 3 minutes\n\n"
        << "------ KERNEL LOG (dmesg) ------\n"
        << "<6>[ 1234.567890] binder: 7792:7795 transaction failed 29189/-22\n"
        << "------ 0.020s was the duration of 'KERNEL LOG (dmesg)' ------\n"
        << "------ SYSTEM LOG (logcat -v threadtime -v printable -v uid -d *:v) ------\n"
        << "--------- beginning of main\n";
    std::set<std::string> mods{"uid", "printable"};
    for (size_t i = 0; i < lines.size(); ++i) {
      out << format(lines[i], "threadtime", mods) << "\n";
      if (i % 5 == 2) {
        Line other = lines[i];
        other.pid = 1234;
        other.tid = 1250;
        other.tag = "CameraService";
        other.text = "onTorchStatusChanged: S:0 F:" + std::to_string(i) + " prepare";
        out << format(other, "threadtime", mods) << "\n";
      }
      if (i == lines.size() / 2) out << "--------- beginning of system\n";
    }
    out << "------ 0.512s was the duration of 'SYSTEM LOG' ------\n"
        << "------ EVENT LOG (logcat -b events -v threadtime -v printable -v uid -d *:v) ------\n";
    for (size_t i = 0; i < lines.size(); i += 9) {
      Line event = lines[i];
      event.tag = "am_proc_start";
      event.level = 'I';
      event.text = "[0,7792,1047,camera,service,{OrvCam/CamDeliver}]";
      out << format(event, "threadtime", mods) << "\n";
    }
    out << "------ 0.050s was the duration of 'EVENT LOG' ------\n"
        << "------ DUMPSYS (dumpsys media.camera) ------\n"
        << "  OrvCam/CamDeliver: [S:0 F:3] state dump follows\n"
        << "    F:3 sync {0,1} inMap {0,1}\n";
  } else {
    std::cerr << "log_corpus: unknown mode " << mode << "\n";
    return 2;
  }
  return 0;
}
