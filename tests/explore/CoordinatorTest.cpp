// The coordinator of CoordinatorUnderTest.h explored at preemption bound 2: its drop and flush
// paths exhausted clean, and each seeded fault found with the kind of finding it must give,
// and a replay that fails again the same way.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "CoordinatorUnderTest.h"
#include "Explore.h"

namespace coordinator_test {
namespace {

using coordinator_under_test::Bug;
using coordinator_under_test::Path;
using coordinator_under_test::runSession;
namespace ex = orvcam::explore;

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

bool contains(const std::string& s, const std::string& part) {
  return s.find(part) != std::string::npos;
}

// The findings with the addresses of unnamed objects (the library's) left out: they differ
// between runs of the same schedule.
std::vector<std::string> withoutAddresses(std::vector<std::string> findings) {
  static const std::regex address("0x[0-9a-f]+");
  for (std::string& f : findings) f = std::regex_replace(f, address, "0x?");
  return findings;
}

// The search of these tests: bound 2 and no spurious wake-ups. Every wait of the coordinator
// checks its condition in a loop, so a spurious wake-up only costs it another check; allowing
// one per schedule makes the search about three times as long. Under AddressSanitizer, whose
// checks make every schedule several times slower, the clean sessions are searched at bound 1.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

ex::Options searchOptions() {
  ex::Options o;
  o.preemptions = 2;
  o.spurious = 0;
  return o;
}

// Explores the faulty session at bound 2, expects a finding that `matches`, and replays it.
template <typename Matches>
ex::Result foundAndReplayed(Path path, Bug bug, Matches matches) {
  auto body = [path, bug] { runSession(path, bug); };
  ex::Result r = ex::check(searchOptions(), body);
  EXPECT_TRUE(r.failed) << r;
  EXPECT_FALSE(r.findings.empty()) << r;
  if (!r.failed || r.findings.empty()) return r;
  EXPECT_TRUE(matches(r.findings[0])) << r;
  EXPECT_LE(r.preemptions, 2u) << r;
  ex::Result again = ex::replay(r.replay, body, searchOptions());
  EXPECT_TRUE(again.failed) << again;
  EXPECT_EQ(withoutAddresses(again.findings), withoutAddresses(r.findings)) << again;
  return r;
}

void exhaustedClean(Path path) {
  ex::Options o = searchOptions();
  if (kSanitized) o.preemptions = 1;
  ex::Result r = ex::check(o, [path] { runSession(path, Bug::None); });
  ORVCAM_EXPECT_EXPLORED_CLEAN(r);
  EXPECT_TRUE(r.exhausted) << r;
  EXPECT_GT(r.schedules, 1000u) << r;
}

TEST(ExploredCoordinator, TheDropPathIsExhaustedCleanAtBoundTwo) { exhaustedClean(Path::Drop); }

TEST(ExploredCoordinator, TheFlushPathIsExhaustedCleanAtBoundTwo) { exhaustedClean(Path::Flush); }

TEST(ExploredCoordinator, ALockHeldAcrossABlockingSendIsADeadlock) {
  foundAndReplayed(Path::Drop, Bug::LockAcrossSend, [](const std::string& f) {
    return startsWith(f, "deadlock: every live thread is blocked") &&
           contains(f, "sensor 1 waits for mutex coordinator.mutex held by sensor 0") &&
           contains(f, "sensor 0 waits for a notification of");
  });
}

TEST(ExploredCoordinator, ADropFlagCheckedBeforeTheClaimLetsTheDroppedFrameBeSent) {
  foundAndReplayed(Path::Drop, Bug::DropFlagReadEarly, [](const std::string& f) {
    return (startsWith(f, "fatal assertion on sensor 1: ") && contains(f, "FC not found")) ||
           startsWith(f, "[client] ") ||
           startsWith(f, "fail() on sensor 1: S:1 F:2: the enqueue returned -1");
  });
}

TEST(ExploredCoordinator, AFlushWithoutItsBarrierBreaksAPendingOrLaterSend) {
  foundAndReplayed(Path::Flush, Bug::FlushWithoutBarrier, [](const std::string& f) {
    return (startsWith(f, "fatal assertion on sensor ") && contains(f, "FC not found")) ||
           startsWith(f, "[client] ") ||
           (startsWith(f, "fail() on sensor ") && contains(f, "the enqueue returned -1"));
  });
}

TEST(ExploredCoordinator, ALostNotificationLeavesTheRequestThreadsWaiting) {
  foundAndReplayed(Path::Flush, Bug::LostNotification, [](const std::string& f) {
    return startsWith(f, "deadlock: every live thread is blocked") &&
           contains(f, "waits for a notification of coordinator.cond (with coordinator.mutex)");
  });
}

}  // namespace
}  // namespace coordinator_test
