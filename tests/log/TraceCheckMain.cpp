// trace_check [--counts] FILE...: checks the structure of every trace file named; exit 0 when
// all pass. A name ending in .pftrace, .perfetto-trace or .pb is read as Perfetto's protobuf
// format, any other as Chrome JSON, gunzipped first when it ends in .gz. --counts prints, per
// file, the flows it begins and the Android log events it holds.
#include <zlib.h>

#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "PftraceCheck.h"
#include "TraceCheck.h"

namespace {

bool endsWith(const std::string& path, const std::string& end) {
  return path.size() >= end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0;
}

bool perfettoName(const std::string& path) {
  return endsWith(path, ".pftrace") || endsWith(path, ".perfetto-trace") || endsWith(path, ".pb");
}

// The whole file; gunzipped when its name ends in .gz (a gzip stream that does not end
// properly is a problem).
bool readFile(const std::string& path, std::string* bytes, std::string* problem) {
  if (!endsWith(path, ".gz")) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return *problem = "cannot open", false;
    bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
  }
  gzFile in = gzopen(path.c_str(), "rb");
  if (!in) return *problem = "cannot open", false;
  char chunk[1 << 16];
  int n = 0;
  while ((n = gzread(in, chunk, sizeof(chunk))) > 0) bytes->append(chunk, size_t(n));
  int error = Z_OK;
  const char* message = gzerror(in, &error);
  bool ok = n == 0 && error == Z_OK;
  if (!ok) *problem = std::string("not a whole gzip stream: ") + message;
  gzclose(in);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  int failed = 0;
  bool printCounts = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--counts") == 0) {
      printCounts = true;
      continue;
    }
    std::string bytes, problem;
    std::vector<std::string> problems;
    orvcam::test::PftraceCounts counts;
    if (!readFile(argv[i], &bytes, &problem)) {
      problems.push_back(problem);
    } else if (perfettoName(argv[i])) {
      if (bytes.empty()) problems.push_back("empty: a trace holds at least one packet");
      for (const std::string& p : orvcam::test::checkPftraceStructure(bytes, true, &counts)) {
        problems.push_back(p);
      }
    } else {
      nlohmann::json trace;
      try {
        trace = nlohmann::json::parse(bytes);
        problems = orvcam::test::checkTraceStructure(trace, true);
        const nlohmann::json& events = trace.is_object() ? trace["traceEvents"] : trace;
        for (const auto& e : events) counts.flows += e.value("ph", "") == "s";
      } catch (const nlohmann::json::exception& e) {
        problems.push_back(std::string("not valid JSON: ") + e.what());
      }
    }
    for (const std::string& p : problems) std::cerr << argv[i] << ": " << p << "\n";
    if (printCounts) {
      std::cout << argv[i] << ": " << counts.flows << " flows, " << counts.logEvents
                << " log events\n";
    }
    if (!problems.empty()) ++failed;
  }
  return failed == 0 ? 0 : 1;
}
