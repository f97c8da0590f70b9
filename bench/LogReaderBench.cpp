// camdeliver-log's reader on a long capture: a million threadtime lines of two synchronised
// sensors (prepares, waits, licences, completions, a setConfigured warning now and then) read,
// replayed and checked, as camdeliver-log does, against parsing the same lines alone. Items
// are lines.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "LogReader.h"
#include "LogReport.h"

namespace {

// About `lines` lines of a clean two-sensor run, ten lines per frame.
std::vector<std::string> makeLog(size_t lines) {
  std::vector<std::string> out;
  out.reserve(lines + 16);
  char buf[256];
  long ms = 0;
  auto add = [&](int tid, char level, const char* tag, const std::string& text) {
    long t = ms++;
    std::snprintf(buf, sizeof buf, "11-22 %02ld:%02ld:%02ld.%03ld  4000  %d %c OrvCam/%s: %s",
                  (t / 3600000) % 24, (t / 60000) % 60, (t / 1000) % 60, t % 1000, tid, level, tag,
                  text.c_str());
    out.emplace_back(buf);
  };
  for (uint32_t f = 1; out.size() < lines; ++f) {
    std::string fs = std::to_string(f);
    std::string order = std::to_string(f - 1);
    for (int s = 0; s < 2; ++s) {
      std::string sf = "[S:" + std::to_string(s) + " F:" + fs + "]";
      if (s == 1)
        add(11, 'D', "CamDeliver", "[prepare] [F:" + fs + "] coming before, skip prepare license");
      add(10 + s, 'D', "CamDeliverGuard", "[prepare] " + sf + " prepared, order(" + order + ")");
    }
    add(10, 'D', "CamDeliverGuard",
        "[operator()] [S:0 F:" + fs + "][EnqJob] wait previous syncframe enque ...");
    for (int s = 0; s < 2; ++s) {
      std::string sf = "[S:" + std::to_string(s) + " F:" + fs + "]";
      add(10 + s, 'D', "CamDeliver", "[getLicense] " + sf + " FD(" + fs + ")");
    }
    add(10, 'D', "CamDeliverGuard", "[finished] [S:0 F:" + fs + "] EnqJob finished. ");
    add(11, 'D', "CamDeliverGuard",
        "[finished] [S:1 F:" + fs + "] EnqJob finished. Is last, erase it.");
    if (f % 50 == 0) {
      add(12, 'W', "LicenseQueue",
          "[releaseLicense] [S:65280 F:" + fs + "] license already null !");
    }
  }
  return out;
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One iteration parses every line with the layout parser alone (the baseline: what any reader
// of the text must do), then reads, replays and checks the same lines as camdeliver-log does.
// `vs_parse_only` is the second's time over the first's, measured back to back.
void BM_ReadAndCheckLog(benchmark::State& state) {
  static const std::vector<std::string> log = makeLog(size_t(state.range(0)));
  double parseSeconds = 0, readSeconds = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    size_t parsed = 0;
    orvcam::logread::LogLine line;
    for (const std::string& raw : log) parsed += orvcam::logread::parseLogLine(raw, &line);
    benchmark::DoNotOptimize(parsed);
    parseSeconds += secondsSince(start);
    if (parsed != log.size()) state.SkipWithError("the layout parser refused a line");

    start = std::chrono::steady_clock::now();
    orvcam::logread::LogReader reader;
    for (const std::string& raw : log) reader.addLine(raw);
    std::vector<orvcam::logread::Run> runs = reader.finish();
    orvcam::logread::Analysis a = orvcam::logread::analyse(runs.front());
    readSeconds += secondsSince(start);
    benchmark::DoNotOptimize(a.findings.size());
    if (!a.findings.empty()) state.SkipWithError(a.findings.front().text.c_str());
  }
  double lines = double(state.iterations()) * double(log.size());
  state.counters["ns_per_line"] = readSeconds * 1e9 / lines;
  state.counters["parse_ns_per_line"] = parseSeconds * 1e9 / lines;
  state.counters["vs_parse_only"] = readSeconds / parseSeconds;
  state.SetItemsProcessed(int64_t(lines));
}
BENCHMARK(BM_ReadAndCheckLog)->Arg(1000000)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace
