// trace_check FILE...: checks the structure of every trace file named; exit 0 when all pass.
#include <fstream>
#include <iostream>

#include "TraceCheck.h"

int main(int argc, char** argv) {
  int failed = 0;
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i]);
    nlohmann::json trace;
    try {
      trace = nlohmann::json::parse(in);
    } catch (const nlohmann::json::exception& e) {
      std::cerr << argv[i] << ": not valid JSON: " << e.what() << "\n";
      ++failed;
      continue;
    }
    std::vector<std::string> problems = orvcam::test::checkTraceStructure(trace, true);
    for (const std::string& p : problems) std::cerr << argv[i] << ": " << p << "\n";
    if (!problems.empty()) ++failed;
  }
  return failed == 0 ? 0 : 1;
}
