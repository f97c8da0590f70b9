// camdeliver-example: a camera coordinator around liborvcam_camdeliver on the host platform.
// Exit code 0: every send returned what it should, the pool is empty and every licence went
// back; 1: a check failed or a send stalled; 2: a bad command line.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "HostPlatform.h"
#include "coordinator.h"

namespace {

const char kUsage[] =
    "usage: camdeliver-example [--frames N] [--sensors N] [--log-level LEVEL] [--stall-ms MS]\n"
    "  --frames N        frames to run, 30 or more (default 60)\n"
    "  --sensors N       sensors, 3 to 8 (default 3)\n"
    "  --log-level L     the library's lines on stderr, in logcat threadtime layout: off, error\n"
    "                    (default), warning, info, debug (what camdeliver-log reads), verbose\n"
    "                    (debug and the force-log property); ORVCAM_ULOG_LEVEL=5 works too\n"
    "  --stall-ms MS     a send waiting longer is a stall: the deliverer's state is dumped and\n"
    "                    the run fails (default 2000)\n";

bool parseNumber(const char* text, long low, long high, long* out) {
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (*text == '\0' || *end != '\0' || value < low || value > high) return false;
  *out = value;
  return true;
}

// The host logger's detail level for a level name. At 5 (debug) the library writes its
// prepares, sends, waits, licences, completions and events: what camdeliver-log needs. On a
// device the same lines come from the unified logger at detail level 5 with the module mask
// holding 0x401000.
bool parseLevel(const std::string& name, int* level) {
  static const struct {
    const char* name;
    int level;
  } kLevels[] = {{"off", 0},  {"error", 1}, {"warning", 2},
                 {"info", 4}, {"debug", 5}, {"verbose", 5}};
  for (const auto& l : kLevels) {
    if (name == l.name) {
      *level = l.level;
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  example::Options options;
  std::string level;
  for (int i = 1; i < argc; i += 2) {
    const char* arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    long number = 0;
    if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (std::strcmp(arg, "--frames") == 0 && value &&
               parseNumber(value, 30, 100000, &number)) {
      options.frames = uint32_t(number);
    } else if (std::strcmp(arg, "--sensors") == 0 && value && parseNumber(value, 3, 8, &number)) {
      options.sensors = uint32_t(number);
    } else if (std::strcmp(arg, "--stall-ms") == 0 && value &&
               parseNumber(value, 10, 600000, &number)) {
      options.stallLimit = std::chrono::milliseconds(number);
    } else if (std::strcmp(arg, "--log-level") == 0 && value) {
      level = value;
    } else {
      std::fprintf(stderr, "camdeliver-example: bad argument \"%s\"\n%s", arg, kUsage);
      return 2;
    }
  }

  // Logging is set up before the deliverer is built and before any thread starts: the library
  // reads these settings without a lock, and the deliverer reads the force-log property in its
  // constructor. Without --log-level, ORVCAM_ULOG_LEVEL (read by the host logger at start-up)
  // decides, else only errors are written.
  int detail = 1;
  if (!level.empty() && !parseLevel(level, &detail)) {
    std::fprintf(stderr, "camdeliver-example: --log-level: \"%s\" is not a level\n%s",
                 level.c_str(), kUsage);
    return 2;
  }
  if (!level.empty() || !std::getenv("ORVCAM_ULOG_LEVEL")) {
    orvcam::host::LoggerSettings settings = orvcam::host::loggerSettings();
    settings.detailsLevel = detail;
    orvcam::host::applyLoggerSettings(settings);
  }
  if (detail >= 5 && !std::getenv("ORVCAM_LOG_USEC")) {
    // A workstation runs a frame's calls within a millisecond: stamp the lines to the
    // microsecond so that camdeliver-log can measure waits. On a device: adb logcat -v usec.
    orvcam::host::setLogMicroseconds(true);
  }
  if (level == "verbose") {
    // On a device: adb shell setprop vendor.debug.camcoordinator.force.log 1
    orvcam::host::setProperty("vendor.debug.camcoordinator.force.log", "1");
  }

  const example::Plan plan = example::makePlan(options);
  example::Coordinator coordinator(options, plan);
  const example::Summary summary = coordinator.run();
  std::printf("%s\n", summary.line(options, plan).c_str());
  return summary.clean() ? 0 : 1;
}
