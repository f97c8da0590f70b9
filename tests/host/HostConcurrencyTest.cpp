// The host platform under several threads: pipe manager, trace file and stderr lines.
#define CD_LOG_TAG "OrvCam/HostTest"
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "CamDeliverLog.h"
#include "TestSupport.h"

using namespace orvcam::host;
using NSCam::Utils::ULog::ULogger;

namespace {
template <typename Fn>
void runThreads(int count, Fn fn) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) threads.emplace_back(fn, i);
  for (std::thread& t : threads) t.join();
}
}  // namespace

TEST(HostPipeMgrConcurrency, ParallelTrafficKeepsSerialsUniqueAndAccountBalanced) {
  constexpr int kThreads = 8, kRounds = 400;
  HostPipeMgr mgr;
  std::vector<std::set<uint64_t>> serials(kThreads);
  runThreads(kThreads, [&](int t) {
    for (int r = 0; r < kRounds; ++r) {
      auto leader = mgr.acquireLicense();
      auto follower = mgr.acquireLicenseForFD(leader->getFD());
      ASSERT_EQ(follower->getFD(), leader->getFD());
      serials[t].insert(static_cast<HostLicense&>(*leader).serial());
      serials[t].insert(static_cast<HostLicense&>(*follower).serial());
      mgr.releaseLicense(leader, false, true);
      if (r % 2) mgr.releaseLicense(follower, false, true);  // else destroyed unreleased
    }
  });
  for (int t = 1; t < kThreads; ++t) serials[0].insert(serials[t].begin(), serials[t].end());
  constexpr uint64_t kPairs = uint64_t{kThreads} * kRounds;
  EXPECT_EQ(serials[0].size(), 2 * kPairs);
  LicenseAccount acc = mgr.account();
  EXPECT_EQ(std::make_tuple(acc.acquired, acc.released, acc.destroyed),
            std::make_tuple(2 * kPairs, kPairs + kPairs / 2, kPairs / 2));
}

TEST(HostTraceConcurrency, TraceFileIsJsonWithMatchedSectionsPerThread) {
  constexpr int kThreads = 4, kSections = 50;
  std::string path = testing::TempDir() + "trace" + std::to_string(getpid()) + ".json";
  std::string error;
  ASSERT_TRUE(openTraceFile(path, &error)) << error;
  setTraceTags(ATRACE_TAG_CAMERA);
  runThreads(kThreads, [&](int t) {
    traceThreadName("worker \"" + std::to_string(t) + "\"");
    for (int f = 0; f < kSections; ++f) {
      CD_TRACE_SCOPE("S:%d F:%d", t, f);
      traceInstant("tick\\\n");
    }
  });
  ULogger::trace(0x401031, "OrvCam/T", "odd\t\x01", 2);
  ULogger::trace(0x401031, "OrvCam/T", "odd\t\x01", 6);
  setTraceTags(0);
  closeTraceFile();
  std::ifstream in(path);
  nlohmann::json events = nlohmann::json::parse(in);  // throws on invalid JSON

  ASSERT_TRUE(events.is_array());
  std::map<int, std::vector<std::string>> open;  // section stack per tid
  std::map<std::string, int> phases;
  for (const auto& e : events) {
    const std::string ph = e.at("ph");
    const int tid = e.at("tid");
    EXPECT_EQ(e.at("pid").get<int>(), getpid());
    ++phases[ph];
    if (ph == "B") {
      EXPECT_TRUE(e.at("ts").is_number_integer());
      open[tid].push_back(e.at("name"));
    } else if (ph == "E") {
      ASSERT_FALSE(open[tid].empty());
      EXPECT_EQ(open[tid].back(), e.at("name").get<std::string>());
      open[tid].pop_back();
    } else if (ph == "i") {
      EXPECT_EQ(std::make_tuple(e.at("s"), e.at("name")), std::make_tuple("t", "tick\\\n"));
    }
  }
  for (const auto& entry : open) EXPECT_TRUE(entry.second.empty()) << "tid " << entry.first;
  EXPECT_EQ(phases, (std::map<std::string, int>{{"B", kThreads * kSections + 1},
                                                {"E", kThreads * kSections + 1},
                                                {"i", kThreads * kSections},
                                                {"M", 1 + 2 * kThreads}}));
  EXPECT_EQ(events.back().at("name"), "odd\t\x01");
  // The process's name first; each thread's name with its sort index.
  EXPECT_EQ(events[0].at("name"), "process_name");
  EXPECT_EQ(events[1].at("args").at("name").get<std::string>().rfind("worker \"", 0), 0u);
  // One sort index per named thread (a finished thread's id may be reused by a later one).
  int sortIndexes = 0;
  for (const auto& e : events) sortIndexes += e.at("name") == "thread_sort_index";
  EXPECT_EQ(sortIndexes, kThreads);
}

// An abort that is not a fatal assertion (std::terminate, a raw abort()) leaves only the
// SIGABRT handler to end the file, while threads are still tracing: what reached the file is
// whole events, flushed more than once, and the handler's tail makes it JSON again.
TEST(HostTraceConcurrency, RawAbortWhileThreadsTraceLeavesJsonOfWholeEvents) {
  std::string path = testing::TempDir() + "raw-abort-trace" + std::to_string(getpid()) + ".json";
  auto traceThenAbort = [&] {
    std::string error;
    if (!openTraceFile(path, &error)) _exit(3);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
      threads.emplace_back([&] {
        while (!stop.load()) traceInstant("busy");
      });
    }
    // Enough for several 64 KiB flushes.
    for (int i = 0; i < 20000; ++i) traceInstant("main");
    abort();
  };
  EXPECT_EXIT(traceThenAbort(), ::testing::KilledBySignal(SIGABRT), "");
  std::ifstream in(path);
  nlohmann::json events;
  ASSERT_NO_THROW(events = nlohmann::json::parse(in)) << "not JSON after a raw abort";
  ASSERT_TRUE(events.is_array());
  EXPECT_EQ(events.front().at("name"), "process_name");
  EXPECT_GT(events.size(), 1000u);
  for (const auto& e : events) EXPECT_TRUE(e.contains("ph") && e.contains("pid")) << e.dump();
  std::remove(path.c_str());
}

TEST(HostLoggerConcurrency, LinesOfManyThreadsAreWholeAndInTimeOrder) {
  constexpr int kThreads = 6, kLines = 100;
  const std::string payload(900, 'x');
  testing::internal::CaptureStderr();
  runThreads(kThreads, [&](int t) {
    for (int n = 0; n < kLines; ++n) {
      std::string text = "t" + std::to_string(t) + " " + payload;
      ULogger::print(0x401031, "OrvCam/T", 2, text.c_str(), text.size());
    }
  });
  std::istringstream out(testing::internal::GetCapturedStderr());
  const std::string head = " W OrvCam/T: t";
  int count = 0;
  std::string previousStamp;
  for (std::string text; std::getline(out, text); ++count) {
    size_t at = text.find(head);  // one header, then exactly one whole message
    ASSERT_TRUE(at != std::string::npos && text.size() == at + head.size() + 2 + payload.size() &&
                text.compare(at + head.size() + 2, std::string::npos, payload) == 0)
        << text.substr(0, 80);
    // "MM-DD HH:MM:SS.mmm": stamped under the lock that orders the writes, so never earlier
    // than the line before (the run does not cross midnight of a new year).
    const std::string stamp = text.substr(0, 18);
    EXPECT_LE(previousStamp, stamp) << "line " << count << " is stamped before the one above it";
    previousStamp = stamp;
  }
  EXPECT_EQ(count, kThreads * kLines);
}
