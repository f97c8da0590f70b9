#pragma once
// Exploring your own coordinator: runs a test body under the explorer's scheduler once per
// schedule and judges every schedule, so that an integrator's coordinator (its threads, its
// own locks and conditions, the deliverer it drives) is checked in every interleaving within
// a preemption bound instead of whichever the OS happens to pick.
//
//   TEST(MyCoordinator, SendsInOrder) {
//     orvcam::explore::Result r = orvcam::explore::check({}, [] {
//       MyCoordinator c;               // built afresh in every schedule
//       std::thread a([&] { c.runSensor(0); });
//       std::thread b([&] { c.runSensor(1); });
//       a.join();
//       b.join();
//       if (!c.allDelivered()) orvcam::explore::fail("a frame was not delivered");
//     });
//     EXPECT_FALSE(r.failed) << r;     // prints the findings, the replay and the steps
//   }
//
// `body` runs on a managed thread. Every std::thread (pthread_create) it or its threads start
// is managed too, and every operation of std::mutex, std::condition_variable and
// std::shared_mutex in the body, its threads and the library is a scheduling point, at which
// the explorer decides who runs next; exactly one managed thread runs at a time. Atomics and
// plain shared memory are not scheduling points: run ThreadSanitizer on the same code too.
//
// Each schedule gets a fresh host pipe manager and licence serials from 1. A schedule fails
// on: a fail() call, a deadlock (every live thread blocked, each one's wait named), a fatal
// assertion of the library, a schedule that does not end within the step limit (a livelock),
// the pipe manager's licence account at its end (every licence handed back once), and what
// the deliverer did in it, read from its debug log lines as camdeliver-log reads a capture:
// the library's ordering rules, and the client protocol ("[client]" findings).
//
// The program that calls check() links the explorer's scheduler and exports its symbols, so
// that the library's pthread calls bind to it: linking orvcam::explore does both. It cannot
// run in a ThreadSanitizer process, whose runtime models the same functions: there check()
// returns a failed Result saying so.
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

namespace orvcam {
namespace explore {

struct Options {
  int preemptions = 2;        // bound of the search; -1: every schedule
  uint64_t maxSchedules = 0;  // 0: no limit
  double seconds = 0;         // 0: no limit
  uint32_t spurious = 1;      // spurious wake-ups allowed per schedule
  uint64_t pct = 0;           // > 0: that many PCT schedules instead of the bounded search
  uint64_t seed = 1;
  // Added here:
  // Whether the search skips states it has met before (see "Exploring your own
  // coordinator" in docs/explorer.md for the state it uses and what it cannot see).
  bool stateCache = true;
  // Steps (scheduling points) a schedule may take before it is judged a livelock.
  uint64_t stepLimit = 200000;
  // Whether a failing schedule is shrunk to the fewest preemptions that still fail.
  bool shrink = true;
  // Whether Result::trace gets the failing schedule as a Chrome trace (JSON).
  bool trace = false;
  // Whether each schedule's debug log lines of the library are read back and judged by the
  // deliverer's rules and the client protocol (findings "[rule] ..." and "[client] ...").
  // The logger runs at debug level meanwhile, which costs each schedule its lines.
  bool readLog = true;
};

struct Result {
  bool failed = false;
  bool exhausted = false;  // every schedule within the bound was run
  uint64_t schedules = 0;
  std::vector<std::string> findings;  // of the failing schedule
  std::string replay;                 // the failing schedule, for replay()
  std::string interleaving;           // its steps, readable
  // Added here:
  uint32_t preemptions = 0;  // of the failing schedule
  double seconds = 0;        // the search's wall-clock time
  std::string trace;         // with Options::trace: the failing schedule as a Chrome trace
};

// Explores the schedules of `body` (PCT schedules with options.pct > 0, else every schedule
// with at most options.preemptions preemptions) until one fails or the search ends. Call it
// from an ordinary thread (a test's), not from inside an explored schedule.
Result check(const Options& options, const std::function<void()>& body);

// Runs the one schedule a Result's replay string names, with its steps. Of `options` it uses
// stepLimit, readLog and trace (the spurious budget is in the string); give the ones the
// search ran with.
Result replay(const std::string& schedule, const std::function<void()>& body,
              const Options& options = Options());

// From the body or any thread it started: the schedule fails with this message (the run goes
// on to its end). Outside check() and replay() it only prints the message.
void fail(const std::string& message);

// From the body: names one of its objects (a mutex, a condition) in this schedule's findings
// and interleaving, instead of its address. Names last for the schedule; name the objects
// each time the body makes them. Named objects are also told apart by name, not address, in
// the states the search compares, so name each one once.
void name(const void* object, const std::string& label);

// Findings, replay string and interleaving of a failed Result; the counts of a passed one.
std::string describe(const Result& result);
// For GoogleTest's messages (EXPECT_FALSE(r.failed) << r) and its printer of values.
std::ostream& operator<<(std::ostream& out, const Result& result);

}  // namespace explore
}  // namespace orvcam

// Fails the test with the schedule's findings, replay and interleaving when `result` failed.
// Needs <gtest/gtest.h> included first.
#define ORVCAM_EXPECT_EXPLORED_CLEAN(result) \
  EXPECT_FALSE((result).failed) << ::orvcam::explore::describe(result)
