// camdeliver-log's reader on long captures of two synchronised sensors (prepares, waits,
// licences, completions, a setConfigured warning now and then), read, replayed and checked as
// camdeliver-log does, against parsing the same lines alone: a million lines held in memory,
// and ten million made as they are read, with the reader's peak memory. Items are lines.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "history/HistoryJson.h"
#include "log/LogReport.h"
#include "log/TextInput.h"
#include "logread/LogReader.h"
#include "report/Report.h"

#include <unistd.h>

namespace {

// About `lines` lines of a clean two-sensor run, ten lines per frame, handed to `sink` one
// by one.
template <typename Sink>
void generateLog(size_t lines, Sink&& sink) {
  char buf[256];
  long ms = 0;
  size_t written = 0;
  auto add = [&](int tid, char level, const char* tag, const std::string& text) {
    long t = ms++;
    std::snprintf(buf, sizeof buf, "11-22 %02ld:%02ld:%02ld.%03ld  4000  %d %c OrvCam/%s: %s",
                  (t / 3600000) % 24, (t / 60000) % 60, (t / 1000) % 60, t % 1000, tid, level, tag,
                  text.c_str());
    sink(std::string_view(buf));
    ++written;
  };
  for (uint32_t f = 1; written < lines; ++f) {
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
}

std::vector<std::string> makeLog(size_t lines) {
  std::vector<std::string> out;
  out.reserve(lines + 16);
  generateLog(lines, [&](std::string_view line) { out.emplace_back(line); });
  return out;
}

// A line of /proc/self/status ("VmHWM", "VmRSS") in MB.
double statusMb(const char* key) {
  double kb = 0;
  if (FILE* status = std::fopen("/proc/self/status", "r")) {
    char line[256];
    size_t n = std::strlen(key);
    while (std::fgets(line, sizeof line, status)) {
      if (std::strncmp(line, key, n) == 0 && line[n] == ':') {
        kb = std::atof(line + n + 1);
        break;
      }
    }
    std::fclose(status);
  }
  return kb / 1024;
}

// Starts a new peak-memory measurement (Linux: /proc/self/clear_refs).
void resetPeakRss() {
  if (FILE* reset = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", reset);
    std::fclose(reset);
  }
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
    orvcam::log::Analysis a = orvcam::log::analyse(runs.front());
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

// One pass over a made capture as camdeliver-log reads it by default; with `dir`, its trace,
// history and scenario are written there as camdeliver-log writes them (a second thread
// formats and writes the trace and history). Returns the pass's seconds; `peakMb` is how far
// the process's resident memory rose above what it held before; `error` is set on a failure.
double readPass(const std::function<void(const std::function<void(std::string_view)>&)>& source,
                const std::filesystem::path* dir, double* peakMb, std::string* error) {
  using namespace orvcam;
  resetPeakRss();
  double before = statusMb("VmRSS");
  auto start = std::chrono::steady_clock::now();
  {
    logread::LogReader reader;
    std::unique_ptr<base::OrderedWorker> worker;
    std::ofstream traceFile;
    std::unique_ptr<log::TraceWriter> trace;
    std::unique_ptr<history::HistoryJsonStream> history;
    std::unique_ptr<log::ScenarioWriter> scenario;
    if (dir) {
      worker = std::make_unique<base::OrderedWorker>();
      traceFile.open(*dir / "trace.json", std::ios::binary);
      trace = std::make_unique<log::TraceWriter>(traceFile, 4000, worker.get());
      history =
          std::make_unique<history::HistoryJsonStream>((*dir / "history").string(), worker.get());
      scenario = std::make_unique<log::ScenarioWriter>((*dir / "scenario").string());
      reader.setListener([&](const logread::Run& run, history::History&& part) {
        trace->add(run, part);
        scenario->add(run, part);
        history->add(std::move(part));  // last: it keeps the part
      });
    }
    source([&](std::string_view raw) { reader.addLine(raw); });
    std::vector<logread::Run> runs = reader.finish();
    log::Analysis a = log::analyse(runs.front());
    if (dir) {
      trace->finish(runs.front());
      traceFile.close();
      history->add(logread::unsettledPart(runs.front()));
      bool ok = history->finish(runs.front().history, (*dir / "history.json").string());
      std::ofstream scenarioFile(*dir / "scenario.json", std::ios::binary);
      ok = ok && scenario->finish(runs.front(), scenarioFile) && traceFile;
      if (!ok) *error = "an output could not be written";
    }
    if (!a.findings.empty()) *error = a.findings.front().text;
    if (runs.front().settledFrames == 0) *error = "no frame settled";
  }
  double seconds = secondsSince(start);
  *peakMb = std::max(*peakMb, statusMb("VmHWM") - before);
  return seconds;
}

// A two-hour capture's length, made line by line as it is read (the text itself is never
// held), read and checked as camdeliver-log does, first by default and then with --trace,
// --history and --scenario (into a temporary directory, removed after). The passes' times
// leave out the time a pass that only makes the lines takes: `read_seconds` without outputs,
// `outputs_read_seconds` with them (target: 15 s), and `outputs_vs_none`, their ratio, which
// the machine's load moves less than either. `peak_mb` and `outputs_peak_mb` are how far the
// resident memory rose (target: 200 MB); `vs_parse_only` compares the default pass with
// parsing the same lines alone, made the same way.
void BM_LongCapture(benchmark::State& state) {
  using namespace orvcam;
  size_t lines = size_t(state.range(0));
  namespace fs = std::filesystem;
  fs::path dir = fs::temp_directory_path() / ("camdeliver-log-bench-" + std::to_string(getpid()));
  double makeSeconds = 0, parseSeconds = 0, readSeconds = 0, outputsSeconds = 0;
  double peakMb = 0, outputsPeakMb = 0, outputMb = 0;
  for (auto _ : state) {
    // Making the lines alone: what the other passes spend before any reading.
    auto start = std::chrono::steady_clock::now();
    size_t made = 0;
    generateLog(lines, [&](std::string_view raw) { made += raw.size(); });
    benchmark::DoNotOptimize(made);
    makeSeconds += secondsSince(start);

    start = std::chrono::steady_clock::now();
    size_t parsed = 0;
    logread::LogLine line;
    generateLog(lines, [&](std::string_view raw) { parsed += logread::parseLogLine(raw, &line); });
    benchmark::DoNotOptimize(parsed);
    parseSeconds += secondsSince(start);

    std::string error;
    auto generated = [lines](const std::function<void(std::string_view)>& sink) {
      generateLog(lines, sink);
    };
    readSeconds += readPass(generated, nullptr, &peakMb, &error);
    fs::create_directories(dir);
    outputsSeconds += readPass(generated, &dir, &outputsPeakMb, &error);
    if (!error.empty()) state.SkipWithError(error.c_str());
    outputMb = 0;
    for (const auto& f : fs::directory_iterator(dir)) outputMb += double(f.file_size()) / 1e6;
    fs::remove_all(dir);
  }
  double iterations = double(state.iterations());
  double n = iterations * double(lines);
  state.counters["read_seconds"] = (readSeconds - makeSeconds) / iterations;
  state.counters["outputs_read_seconds"] = (outputsSeconds - makeSeconds) / iterations;
  state.counters["outputs_vs_none"] = (outputsSeconds - makeSeconds) / (readSeconds - makeSeconds);
  state.counters["peak_mb"] = peakMb;
  state.counters["outputs_peak_mb"] = outputsPeakMb;
  state.counters["output_mb"] = outputMb;
  state.counters["vs_parse_only"] = readSeconds / parseSeconds;
  state.SetItemsProcessed(int64_t(n));
}
BENCHMARK(BM_LongCapture)->Arg(10000000)->Unit(benchmark::kMillisecond)->Iterations(1);

// `grep -c OrvCam FILE`'s seconds, run as a program; -1 when it failed or counted otherwise.
double grepSeconds(const std::string& file, size_t lines) {
  auto start = std::chrono::steady_clock::now();
  // Its count goes to a pipe: grep stops at the first match when its output is /dev/null.
  FILE* out = popen(("grep -c OrvCam '" + file + "'").c_str(), "r");
  if (!out) return -1;
  char buf[64] = {};
  bool read = std::fgets(buf, sizeof buf, out) != nullptr;
  int rc = pclose(out);
  double seconds = secondsSince(start);
  return read && rc == 0 && std::strtoull(buf, nullptr, 10) == lines ? seconds : -1;
}

// A capture file read as camdeliver-log reads one (its text input, the reader, the analysis;
// then also with its trace, history and scenario), against `grep -c` of the same file, each
// run back to back on a file the page cache holds, so that their ratios hold on a loaded
// machine: `vs_grep` without outputs, `outputs_vs_grep` with them (target: 10 or less).
void BM_CaptureFileVsGrep(benchmark::State& state) {
  using namespace orvcam;
  namespace fs = std::filesystem;
  size_t lines = size_t(state.range(0));
  std::string tag = std::to_string(getpid());
  fs::path file = fs::temp_directory_path() / ("camdeliver-log-bench-" + tag + ".log");
  fs::path dir = fs::temp_directory_path() / ("camdeliver-log-bench-out-" + tag);
  size_t written = 0;  // the generator ends a frame it began
  {
    std::ofstream out(file, std::ios::binary);
    generateLog(lines, [&](std::string_view raw) {
      out << raw << '\n';
      ++written;
    });
  }
  auto fromFile = [&file](const std::function<void(std::string_view)>& sink) {
    std::ifstream in(file, std::ios::binary);
    log::TextInput input(in);
    std::string line;
    while (input.next(&line)) sink(line);
  };
  double grep = 0, read = 0, outputs = 0, peakMb = 0;
  std::string error;
  grepSeconds(file.string(), written);  // the file into the page cache
  for (auto _ : state) {
    double g = grepSeconds(file.string(), written);
    if (g < 0) {
      state.SkipWithError("grep -c failed or miscounted");
      break;
    }
    grep += g;
    read += readPass(fromFile, nullptr, &peakMb, &error);
    fs::create_directories(dir);
    outputs += readPass(fromFile, &dir, &peakMb, &error);
    fs::remove_all(dir);
    if (!error.empty()) state.SkipWithError(error.c_str());
  }
  fs::remove(file);
  double iterations = double(std::max<int64_t>(1, int64_t(state.iterations())));
  state.counters["grep_seconds"] = grep / iterations;
  state.counters["read_seconds"] = read / iterations;
  state.counters["vs_grep"] = grep > 0 ? read / grep : 0;
  state.counters["outputs_vs_grep"] = grep > 0 ? outputs / grep : 0;
  state.SetItemsProcessed(int64_t(iterations * double(written)));
}
BENCHMARK(BM_CaptureFileVsGrep)->Arg(2000000)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
