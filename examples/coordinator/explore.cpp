// The example coordinator explored: its drop, flush and in-flight paths, each on a small
// session (two synchronised sensors, two frames; makeSmallPlan()), run under the explorer in
// every schedule with at most N preemptions. Each schedule must end with every frame through,
// nothing left in the pool and every licence handed back (Summary::clean()), and with no
// finding of the explorer's own (deadlock, fatal assertion, the deliverer's rules and the
// client protocol read from its log).
//
//   camdeliver-example-explore [--preemptions N] [--seconds S] [--path drop|flush|inflight]...
//   (default: bound 1, every path; exit 0 when each path was exhausted clean)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "Explore.h"
#include "coordinator.h"

namespace ex = orvcam::explore;

namespace {

const char* eventName(example::Event event) {
  switch (event) {
    case example::Event::Drop: return "drop";
    case example::Event::Flush: return "flush";
    case example::Event::Inflight: return "in-flight report";
  }
  return "?";
}

// One path's search; true when it was exhausted with no finding.
bool explorePath(example::Event event, int preemptions, double seconds) {
  ex::Options options;
  options.preemptions = preemptions;
  options.seconds = seconds;
  // The coordinator's waits and the library's all test their predicates in a loop, and the
  // library's own explored configurations cover its spurious wake-ups; without them the
  // search here is a tenth of the size.
  options.spurious = 0;
  const example::Options session = example::smallOptions();
  const example::Plan plan = example::makeSmallPlan(event);
  ex::Result r = ex::check(options, [&] {
    example::Coordinator coordinator(session, plan);
    const example::Summary summary = coordinator.run();
    if (!summary.clean()) ex::fail(summary.line(session, plan));
  });
  std::printf("camdeliver-example-explore: %s path: %llu schedules at bound %d, %s, %.1f s\n",
              eventName(event), static_cast<unsigned long long>(r.schedules), preemptions,
              r.failed      ? "FAILED"
              : r.exhausted ? "exhausted, clean"
                            : "NOT exhausted",
              r.seconds);
  std::fflush(stdout);
  if (r.failed) std::cout << r << std::endl;
  return !r.failed && r.exhausted;
}

int usage(const char* program) {
  std::fprintf(stderr,
               "usage: %s [--preemptions N] [--seconds S] [--path drop|flush|inflight]...\n",
               program);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  int preemptions = 1;
  double seconds = 0;
  std::vector<example::Event> paths;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    const std::string value = argv[i + 1];
    if (option == "--preemptions") {
      preemptions = std::atoi(value.c_str());
    } else if (option == "--seconds") {
      seconds = std::atof(value.c_str());
    } else if (option == "--path" && value == "drop") {
      paths.push_back(example::Event::Drop);
    } else if (option == "--path" && value == "flush") {
      paths.push_back(example::Event::Flush);
    } else if (option == "--path" && value == "inflight") {
      paths.push_back(example::Event::Inflight);
    } else {
      return usage(argv[0]);
    }
  }
  if (argc % 2 == 0) return usage(argv[0]);
  if (paths.empty())
    paths = {example::Event::Drop, example::Event::Flush, example::Event::Inflight};
  bool clean = true;
  for (example::Event event : paths) clean = explorePath(event, preemptions, seconds) && clean;
  return clean ? 0 : 1;
}
