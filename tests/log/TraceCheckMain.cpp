// trace_check FILE...: checks the structure of every trace file named; exit 0 when all pass.
// A name ending in .pftrace, .perfetto-trace or .pb is read as Perfetto's protobuf format,
// any other as Chrome JSON.
#include <fstream>
#include <iostream>
#include <iterator>

#include "PftraceCheck.h"
#include "TraceCheck.h"

namespace {

bool perfettoName(const std::string& path) {
  for (const char* end : {".pftrace", ".perfetto-trace", ".pb"}) {
    std::string e = end;
    if (path.size() >= e.size() && path.compare(path.size() - e.size(), e.size(), e) == 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  int failed = 0;
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    std::vector<std::string> problems;
    if (!in) {
      problems.push_back("cannot open");
    } else if (perfettoName(argv[i])) {
      std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      if (bytes.empty()) problems.push_back("empty: a trace holds at least one packet");
      for (const std::string& p : orvcam::test::checkPftraceStructure(bytes, true)) {
        problems.push_back(p);
      }
    } else {
      nlohmann::json trace;
      try {
        trace = nlohmann::json::parse(in);
        problems = orvcam::test::checkTraceStructure(trace, true);
      } catch (const nlohmann::json::exception& e) {
        problems.push_back(std::string("not valid JSON: ") + e.what());
      }
    }
    for (const std::string& p : problems) std::cerr << argv[i] << ": " << p << "\n";
    if (!problems.empty()) ++failed;
  }
  return failed == 0 ? 0 : 1;
}
