// The explorer on programs whose faults are known: toy programs built on std::mutex and
// std::condition_variable, and the real library driven by scenario clients.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>

#include "CamDeliver.h"
#include "FrameContext.h"
#include "FrameContextPool.h"
#include "HostPlatform.h"
#include "TrackedToy.h"
#include "check/Checker.h"
#include "client/Scenario.h"
#include "explore/Client.h"
#include "explore/Explorer.h"
#include "explore/StateTable.h"

namespace orvcam {
namespace explore {
namespace {

namespace cc = NSCam::camsys::camcoordinator;

// Two threads withdraw from a balance of one. The racy version checks and withdraws under two
// separate holds of the lock, so one preemption between them overdraws the balance.
class Withdraw : public Target {
 public:
  explicit Withdraw(bool atomic) : mAtomic(atomic) {}
  std::vector<std::string> threadNames() const override { return {"a", "b"}; }
  std::vector<std::function<void()>> begin() override {
    mBalance = 1;
    auto body = [this] {
      if (mAtomic) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mBalance > 0) --mBalance;
        return;
      }
      bool ok;
      {
        std::lock_guard<std::mutex> lock(mMutex);
        ok = mBalance > 0;
      }
      if (ok) {
        std::lock_guard<std::mutex> lock(mMutex);
        --mBalance;
      }
    };
    return {body, body};
  }
  std::vector<std::string> judgeCompleted() override {
    if (mBalance < 0) return {"overdrawn: " + std::to_string(mBalance)};
    return {};
  }

 private:
  bool mAtomic;
  std::mutex mMutex;
  int mBalance = 1;
};

// A consumer waits for a flag a producer sets. Faults: the consumer tests the flag once
// instead of in a loop (a spurious wake-up lets it through), or the producer notifies before
// it sets the flag and outside the lock (the wake-up is lost: deadlock).
class Handoff : public Target {
 public:
  enum class Fault { None, WaitWithoutLoop, NotifyBeforeSet };
  explicit Handoff(Fault fault) : mFault(fault) {}
  std::vector<std::string> threadNames() const override { return {"consumer", "producer"}; }
  std::vector<std::function<void()>> begin() override {
    mReady = false;
    mSeen = false;
    auto consumer = [this] {
      std::unique_lock<std::mutex> lock(mMutex);
      if (mFault == Fault::WaitWithoutLoop) {
        if (!mReady) mCond.wait(lock);
      } else {
        mCond.wait(lock, [this] { return mReady; });
      }
      mSeen = mReady;
    };
    auto producer = [this] {
      if (mFault == Fault::NotifyBeforeSet) {
        mCond.notify_one();
        std::lock_guard<std::mutex> lock(mMutex);
        mReady = true;
        return;
      }
      std::lock_guard<std::mutex> lock(mMutex);
      mReady = true;
      mCond.notify_one();
    };
    return {consumer, producer};
  }
  std::vector<std::string> judgeCompleted() override {
    if (!mSeen) return {"the consumer went on without the flag"};
    return {};
  }

 private:
  Fault mFault;
  std::mutex mMutex;
  std::condition_variable mCond;
  bool mReady = false;
  bool mSeen = false;
};

template <typename T, typename... Args>
TargetFactory make(Args... args) {
  return [=] { return std::unique_ptr<Target>(new T(args...)); };
}

TEST(ExploreToy, RacyCheckThenActFailsAndCorrectPasses) {
  Explorer racy(make<Withdraw>(false), 0);
  Report bad = racy.dfs(2, 0);
  ASSERT_TRUE(bad.hasFailure);
  EXPECT_EQ(bad.failure.findings, std::vector<std::string>{"overdrawn: -1"});
  EXPECT_EQ(bad.failure.preemptions, 1u);
  // Without any preemption every thread runs to its end: the race cannot show.
  EXPECT_FALSE(racy.dfs(0, 0).hasFailure);

  Explorer correct(make<Withdraw>(true), 0);
  Report good = correct.dfs(-1, 0);
  EXPECT_FALSE(good.hasFailure);
  EXPECT_TRUE(good.exhausted);
  EXPECT_GT(good.schedules, 1u);
}

TEST(ExploreToy, ConditionFaultsAreFoundAndTheCorrectHandoffPasses) {
  // A wait that tests its predicate once is only caught through an injected spurious wake-up.
  EXPECT_FALSE(Explorer(make<Handoff>(Handoff::Fault::WaitWithoutLoop), 0).dfs(-1, 0).hasFailure);
  Report once = Explorer(make<Handoff>(Handoff::Fault::WaitWithoutLoop), 1).dfs(-1, 0);
  ASSERT_TRUE(once.hasFailure);
  EXPECT_EQ(once.failure.findings[0], "the consumer went on without the flag");

  Report lost = Explorer(make<Handoff>(Handoff::Fault::NotifyBeforeSet), 1).dfs(-1, 0);
  ASSERT_TRUE(lost.hasFailure);
  EXPECT_EQ(lost.failure.run.outcome, Outcome::Deadlock);
  ASSERT_EQ(lost.failure.run.blocked.size(), 1u);
  EXPECT_EQ(lost.failure.run.blocked[0].thread, "consumer");

  Report good = Explorer(make<Handoff>(Handoff::Fault::None), 2).dfs(-1, 0);
  EXPECT_FALSE(good.hasFailure);
  EXPECT_TRUE(good.exhausted);
}

// Two threads take two named mutexes in opposite orders.
class LockOrder : public Target {
 public:
  std::vector<std::string> threadNames() const override { return {"ab", "ba"}; }
  std::vector<std::function<void()>> begin() override {
    Scheduler::nameObject(&mA, "a");
    Scheduler::nameObject(&mB, "b");
    auto take = [](std::mutex& first, std::mutex& second) {
      std::lock_guard<std::mutex> one(first);
      std::lock_guard<std::mutex> two(second);
    };
    return {[this, take] { take(mA, mB); }, [this, take] { take(mB, mA); }};
  }
  std::vector<std::string> judgeCompleted() override { return {}; }

 private:
  std::mutex mA, mB;
};

TEST(ExploreToy, LockOrderInversionIsADeadlockNamingHolders) {
  Report r = Explorer(make<LockOrder>(), 0).dfs(1, 0);
  ASSERT_TRUE(r.hasFailure);
  ASSERT_EQ(r.failure.run.outcome, Outcome::Deadlock);
  ASSERT_EQ(r.failure.run.blocked.size(), 2u);
  EXPECT_EQ(r.failure.run.blocked[0].waitsFor, "mutex b held by ba");
  EXPECT_EQ(r.failure.run.blocked[1].waitsFor, "mutex a held by ab");
}

// A writer updates two fields under std::shared_mutex; readers check they agree. The fault
// takes the writer's lock shared, so a reader can see the update half done.
class SharedPair : public Target {
 public:
  explicit SharedPair(bool writerShared) : mWriterShared(writerShared) {}
  std::vector<std::string> threadNames() const override { return {"writer", "reader"}; }
  std::vector<std::function<void()>> begin() override {
    mX = mY = 0;
    mTorn = false;
    auto writer = [this] {
      if (mWriterShared) {
        std::shared_lock<std::shared_mutex> lock(mLock);
        write();
      } else {
        std::unique_lock<std::shared_mutex> lock(mLock);
        write();
      }
    };
    auto reader = [this] {
      std::shared_lock<std::shared_mutex> lock(mLock);
      if (mX != mY) mTorn = true;
    };
    return {writer, reader};
  }
  std::vector<std::string> judgeCompleted() override {
    if (mTorn) return {"torn read"};
    return {};
  }

 private:
  // A notification between the two stores is a scheduling point inside the critical section.
  void write() {
    mX = 1;
    mCond.notify_all();
    mY = 1;
  }
  bool mWriterShared;
  std::shared_mutex mLock;
  std::condition_variable mCond;
  int mX = 0, mY = 0;
  bool mTorn = false;
};

TEST(ExploreToy, SharedMutexExcludesReadersOnlyFromAnExclusiveHolder) {
  EXPECT_TRUE(Explorer(make<SharedPair>(true), 0).dfs(1, 0).hasFailure);
  Report good = Explorer(make<SharedPair>(false), 0).dfs(-1, 0);
  EXPECT_FALSE(good.hasFailure);
  EXPECT_TRUE(good.exhausted);
}

// A toy whose threads write letters to a log under a common mutex; the log a completed schedule
// leaves is its outcome, and every outcome goes into `outcomes`.
class LetterLog : public Target {
 public:
  explicit LetterLog(std::set<std::string>* outcomes) : mOutcomes(outcomes) {}
  std::vector<std::string> judgeCompleted() override {
    mOutcomes->insert(mLog);
    return {};
  }

 protected:
  void write(char letter) {
    std::lock_guard<std::mutex> lock(mLogMutex);
    mLog += letter;
  }
  std::string mLog;

 private:
  std::set<std::string>* mOutcomes;
  std::mutex mLogMutex;
};

// Threads each take a mutex of their own and then append their name to a shared log under a
// common one, twice. Steps on the own mutexes commute with everything the other threads do,
// so many schedules reach the same state; the log's final order is what the interleaving
// decides. The bodies say they are not client code, so only the mutexes count.
class Appenders : public LetterLog {
 public:
  Appenders(size_t threads, std::set<std::string>* outcomes)
      : LetterLog(outcomes), mThreads(threads) {}
  std::vector<std::string> threadNames() const override {
    std::vector<std::string> names;
    for (size_t i = 0; i < mThreads; ++i) names.push_back(std::string(1, char('a' + i)));
    return names;
  }
  std::vector<std::function<void()>> begin() override {
    mLog.clear();
    std::vector<std::function<void()>> bodies;
    for (size_t i = 0; i < mThreads; ++i) {
      bodies.push_back([this, i] {
        Scheduler::clientLeave();
        for (int k = 0; k < 2; ++k) {
          {
            std::lock_guard<std::mutex> lock(mOwn[i]);
            ++mCount[i];
          }
          write(char('a' + i));
        }
      });
    }
    return bodies;
  }

 private:
  size_t mThreads;
  std::mutex mOwn[3];
  int mCount[3] = {};
};

// Pruning a state met before loses nothing: every final log of the full search is reached.
// (A fingerprint of the threads' step counts alone loses 6 of the 90 logs at bound 3.)
TEST(ExploreToy, TheStateCacheReachesEveryOutcomeWithFewerSchedules) {
  struct Case {
    size_t threads;
    int bound;
  };
  for (Case c : {Case{3, 2}, Case{3, 3}, Case{2, -1}}) {
    std::set<std::string> all, cached;
    Explorer plain(make<Appenders>(c.threads, &all), 0);
    plain.setCacheStates(false);
    Report full = plain.dfs(c.bound, 0);
    Report pruned = Explorer(make<Appenders>(c.threads, &cached), 0).dfs(c.bound, 0);
    ASSERT_TRUE(full.exhausted && pruned.exhausted);
    EXPECT_EQ(cached, all) << c.threads << " threads, bound " << c.bound;
    EXPECT_LT(pruned.schedules, full.schedules) << c.threads << " threads, bound " << c.bound;
    EXPECT_GT(pruned.statesPruned, 0u);
    if (c.bound == 3) {
      EXPECT_EQ(all.size(), 90u);  // every order of a, a, b, b, c, c
    }
  }
}

// Client code that gives its state to the fingerprint by value (with `byValue`) or is one
// object every client step touches. Each thread tallies twice in client code (steps that
// commute: the tallies end the same in any order), then races for a board (the first to look
// takes it), then writes its letter under a lock, upper case if it took the board.
class Board : public LetterLog {
 public:
  Board(bool byValue, std::set<std::string>* outcomes) : LetterLog(outcomes), mByValue(byValue) {}
  ~Board() override { Scheduler::setClientDigest(nullptr); }
  std::vector<std::string> threadNames() const override { return {"a", "b", "c"}; }
  std::vector<std::function<void()>> begin() override {
    mLog.clear();
    mBoard = -1;
    for (int& t : mTally) t = 0;
    Scheduler::setClientDigest(nullptr);
    if (mByValue) {
      Scheduler::setClientDigest([this] {
        return uint64_t(mBoard + 1) << 12 | uint64_t(mTally[0]) << 8 | uint64_t(mTally[1]) << 4 |
               uint64_t(mTally[2]);
      });
    }
    std::vector<std::function<void()>> bodies;
    for (int i = 0; i < 3; ++i) {
      bodies.push_back([this, i] {
        for (int k = 0; k < 2; ++k) {
          ++mTally[i];
          Scheduler::clientLeave();
          { std::lock_guard<std::mutex> own(mOwn[i]); }
          Scheduler::clientEnter();
        }
        bool took = mBoard < 0;
        if (took) mBoard = i;
        if (mByValue) Scheduler::clientCall(took);
        Scheduler::clientLeave();
        write(char((took ? 'A' : 'a') + i));
      });
    }
    return bodies;
  }

 private:
  bool mByValue;
  std::mutex mOwn[3];
  int mTally[3] = {};
  int mBoard = -1;
};

// With the client's state by value, client steps that commute meet again in one state, so
// fewer schedules reach every outcome of the full search; by the order of its steps they never
// do. (Every outcome: each order of the three letters, each with its winner in upper case.)
TEST(ExploreToy, AClientDigestByValueKeepsEveryOutcomeAndMergesCommutingSteps) {
  for (int bound : {2, 3}) {
    SCOPED_TRACE("bound " + std::to_string(bound));
    std::set<std::string> all, chained, valued;
    auto search = [bound](bool byValue, std::set<std::string>* out, bool cache) {
      Explorer e(make<Board>(byValue, out), 0);
      e.setCacheStates(cache);
      Report r = e.dfs(bound, 0);
      EXPECT_TRUE(r.exhausted);
      return r;
    };
    Report full = search(false, &all, false);
    Report byOrder = search(false, &chained, true);
    Report byValue = search(true, &valued, true);
    EXPECT_EQ(all.size(), 18u);
    EXPECT_EQ(chained, all);
    EXPECT_EQ(valued, all);
    EXPECT_LT(byValue.schedules, byOrder.schedules);
  }
}

// The toy tallies of TrackedToy.h, their state by the memory they read and wrote (with
// `memory`) or by the order of the lock's holders. Each completed schedule leaves its outcome:
// the order the threads logged in, and the total.
class Tallies : public Target {
 public:
  Tallies(bool racy, bool memory, std::set<std::string>* outcomes)
      : mRacy(racy), mMemory(memory), mOutcomes(outcomes) {}
  ~Tallies() override {
    Scheduler::setClientDigest(nullptr);
    Scheduler::setMemoryState(false);
  }
  std::vector<std::string> threadNames() const override { return {"a", "b", "c"}; }
  std::vector<std::function<void()>> begin() override {
    mTally = std::make_unique<toy::Tally>();
    Scheduler::setClientDigest([] { return uint64_t(0); });
    Scheduler::setMemoryState(mMemory);
    std::vector<std::function<void()>> bodies;
    for (int i = 0; i < toy::Tally::kThreads; ++i) {
      bodies.push_back([this, i] {
        if (mRacy) {
          toy::tallyRacy(*mTally, i);
        } else {
          toy::tallyOwnSlot(*mTally, i);
        }
      });
    }
    return bodies;
  }
  std::vector<std::string> judgeCompleted() override {
    std::string outcome;
    for (int k = 0; k < mTally->logged; ++k) outcome += char('a' + mTally->log[k]);
    mOutcomes->insert(outcome + " " + std::to_string(mTally->total));
    if (mRacy && mTally->total != toy::Tally::kThreads) {
      return {"lost update: total " + std::to_string(mTally->total)};
    }
    return {};
  }

 private:
  bool mRacy;
  bool mMemory;
  std::set<std::string>* mOutcomes;
  std::unique_ptr<toy::Tally> mTally;
};

// Taking the memory as the state merges runs in which the lock's holders came in another
// order but left the same memory, which the lock's order never does; it still reaches every
// outcome of the full search, and still finds the lost update.
TEST(ExploreToy, TheMemoryStateMergesCommutingHoldersAndKeepsEveryOutcome) {
  if (!Scheduler::memoryInstrumented()) GTEST_SKIP() << "no instrumented code in this build";
  auto search = [](int bound, bool memory, std::set<std::string>* out, bool cache) {
    Explorer e(make<Tallies>(false, memory, out), 0);
    e.setCacheStates(cache);
    Report r = e.dfs(bound, 0);
    EXPECT_TRUE(r.exhausted);
    EXPECT_FALSE(r.hasFailure);
    return r;
  };
  std::set<std::string> all;
  for (int bound : {2, 3, -1}) {
    SCOPED_TRACE("bound " + std::to_string(bound));
    std::set<std::string> byOrder, byMemory;
    // Without a bound the full search runs 34,650 schedules: the bound-3 one already has
    // every outcome.
    if (bound > 0) search(bound, false, &all, false);
    Report lockOrder = search(bound, false, &byOrder, true);
    Report memory = search(bound, true, &byMemory, true);
    EXPECT_EQ(all.size(), 6u);  // who logged first, second, third
    EXPECT_EQ(byOrder, all);
    EXPECT_EQ(byMemory, all);
    EXPECT_LT(memory.schedules, lockOrder.schedules);
  }

  std::set<std::string> outcomes;
  Explorer memory(make<Tallies>(true, true, &outcomes), 0);
  Report first = memory.dfs(-1, 0);
  ASSERT_TRUE(first.hasFailure);
  EXPECT_EQ(first.failure.findings, std::vector<std::string>{"lost update: total 2"});
  EXPECT_TRUE(memory.replay(first.failure.choices, false).failed);
}

// The claim toy of TrackedToy.h: the outcome is the winner.
class Claims : public Target {
 public:
  Claims(bool onStack, std::set<int>* winners) : mOnStack(onStack), mWinners(winners) {}
  ~Claims() override {
    Scheduler::setClientDigest(nullptr);
    Scheduler::setMemoryState(false);
  }
  std::vector<std::string> threadNames() const override { return {"a", "b", "judge", "thief"}; }
  std::vector<std::function<void()>> begin() override {
    mClaim = std::make_unique<toy::Claim>();
    Scheduler::setClientDigest([] { return uint64_t(0); });
    Scheduler::setMemoryState(true);
    return {[this] { toy::claim(*mClaim, 0, mOnStack); },
            [this] { toy::claim(*mClaim, 1, mOnStack); },
            [this] {
              waitForBoth();
              toy::judge(*mClaim);
            },
            [this] {
              waitForBoth();
              toy::steal(*mClaim);
            }};
  }
  std::vector<std::string> judgeCompleted() override {
    mWinners->insert(mClaim->winner);
    return {};
  }

 private:
  void waitForBoth() {
    Scheduler::waitUntil([this] { return mClaim->wrote[0] && mClaim->wrote[1]; }, "both claims");
  }
  bool mOnStack;
  std::set<int>* mWinners;
  std::unique_ptr<toy::Claim> mClaim;
};

// Memory that differs only in which thread's block (or stack) a pointer points to is
// different memory. Were the two claims' states one, the search would branch only from the
// one met first: with the default order that is the second thread's win, and the theft
// would never be seen.
TEST(ExploreToy, TheMemoryStateTellsPointersToEachThreadsTokenApart) {
  if (!Scheduler::memoryInstrumented()) GTEST_SKIP() << "no instrumented code in this build";
  for (bool onStack : {false, true}) {
    SCOPED_TRACE(onStack ? "tokens on the stacks" : "tokens on the heap");
    for (int bound : {2, -1}) {
      std::set<int> winners;
      Report r = Explorer(make<Claims>(onStack, &winners), 0).dfs(bound, 0);
      EXPECT_TRUE(r.exhausted);
      EXPECT_GT(r.statesPruned, 0u);
      EXPECT_EQ(winners, (std::set<int>{0, 1, 2})) << "bound " << bound;
    }
  }
}

// A search whose table fills up searches the states it could not keep again: more schedules,
// the same outcomes, still to the end. Its progress reports count up to the final report.
TEST(ExploreToy, ASearchWithAFullStateTableKeepsEveryOutcomeAndReportsProgress) {
  std::set<std::string> roomy, cramped;
  Explorer wide(make<Board>(true, &roomy), 0);
  Report all = wide.dfs(3, 0);
  Explorer narrow(make<Board>(true, &cramped), 0);
  narrow.setMaxStates(100);  // 256 slots: 192 states
  std::vector<Report> progress;
  narrow.setProgress(0, [&](const Report& r) { progress.push_back(r); });
  Report full = narrow.dfs(3, 0);
  ASSERT_TRUE(all.exhausted);
  ASSERT_TRUE(full.exhausted);
  EXPECT_FALSE(all.stateTableFull);
  EXPECT_TRUE(full.stateTableFull);
  EXPECT_EQ(full.states, 192u);
  EXPECT_GT(all.states, full.states);
  EXPECT_GT(full.schedules, all.schedules);
  EXPECT_EQ(cramped, roomy);
  EXPECT_EQ(roomy.size(), 18u);
  ASSERT_FALSE(progress.empty());
  for (size_t i = 1; i < progress.size(); ++i) {
    EXPECT_GT(progress[i].schedules, progress[i - 1].schedules);
    EXPECT_GE(progress[i].states, progress[i - 1].states);
  }
  EXPECT_LE(progress.back().schedules, full.schedules);
  EXPECT_EQ(StateTable::slotsFor(192), 256u);
  EXPECT_EQ(StateTable::slotsFor(193), 512u);
  EXPECT_EQ(StateTable::slotsFor(25000000), size_t(1) << 25);
}

// The clock is read every 64 schedules: a limit already passed stops the search there.
TEST(ExploreToy, ASearchPastItsTimeLimitStopsNotExhausted) {
  std::set<std::string> outcomes;
  Explorer e(make<Board>(false, &outcomes), 0);
  e.setCacheStates(false);
  e.setTimeLimit(1e-9);
  Report r = e.dfs(-1, 0);
  EXPECT_FALSE(r.exhausted);
  EXPECT_FALSE(r.hasFailure);
  EXPECT_EQ(r.schedules, 64u);
  EXPECT_GT(r.seconds, 0);
}

TEST(ExploreStateTable, RemembersTheFewestPreemptionsAndKeepsStatesAcrossGrowth) {
  StateTable t;
  EXPECT_FALSE(t.metBefore(42, 2));
  EXPECT_TRUE(t.metBefore(42, 2));
  EXPECT_TRUE(t.metBefore(42, 3));
  EXPECT_FALSE(t.metBefore(42, 1));  // fewer preemptions: more of the bound left, search again
  EXPECT_TRUE(t.metBefore(42, 1));
  EXPECT_FALSE(t.metBefore(0, 0));  // the empty-slot marker is a state like any other
  EXPECT_TRUE(t.metBefore(0, 0));

  // Spread keys and a cluster that shares its low bits (one long probe run), across growth.
  std::vector<uint64_t> keys;
  for (uint64_t i = 1; i <= 100000; ++i) keys.push_back(i * 0x9e3779b97f4a7c15ull);
  for (uint64_t i = 1; i <= 1000; ++i) keys.push_back(i << 32);
  for (uint64_t k : keys) EXPECT_FALSE(t.metBefore(k, 0)) << k;
  EXPECT_GT(t.slots(), size_t(1) << 17);
  size_t remembered = 0;
  for (uint64_t k : keys) remembered += t.metBefore(k, 0);
  EXPECT_EQ(remembered, keys.size());
  EXPECT_EQ(t.size(), keys.size() + 2);
  EXPECT_FALSE(t.full());
}

TEST(ExploreStateTable, AFullTableForgetsNewStatesButStillAnswersForOldOnes) {
  StateTable t(1024);
  for (uint64_t i = 1; i <= 768; ++i) ASSERT_FALSE(t.metBefore(i * 7919, 0));
  EXPECT_FALSE(t.full());
  EXPECT_FALSE(t.metBefore(1, 0));
  EXPECT_TRUE(t.full());
  EXPECT_FALSE(t.metBefore(1, 0));  // not remembered: searched again
  EXPECT_EQ(t.slots(), 1024u);
  for (uint64_t i = 1; i <= 768; ++i) EXPECT_TRUE(t.metBefore(i * 7919, 0)) << i;
}

TEST(ExploreToy, RandomAndPctSchedulesFindTheRaceWithAFixedSeed) {
  Explorer racy(make<Withdraw>(false), 0);
  EXPECT_TRUE(racy.random(200, 1, 0).hasFailure);
  EXPECT_TRUE(racy.random(200, 1, 2).hasFailure);
  Explorer correct(make<Withdraw>(true), 0);
  EXPECT_FALSE(correct.random(200, 1, 2).hasFailure);
}

TEST(ExploreReplay, StringsRoundTripAndMalformedOnesAreRefused) {
  std::vector<uint32_t> choices{0, 0, 0, 0, 0, 1, 2, 2, 35, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  std::string text = encodeReplay(2, choices);
  EXPECT_EQ(text, "s2:0*5.122z1*11.");
  uint32_t spurious = 0;
  std::vector<uint32_t> back;
  ASSERT_TRUE(decodeReplay(text, &spurious, &back));
  EXPECT_EQ(spurious, 2u);
  EXPECT_EQ(back, choices);
  for (const char* bad : {"", "0101", "s:01", "sx:0", "s1:0*", "s1:0*.", "s1:0*3", "s1:A"}) {
    EXPECT_FALSE(decodeReplay(bad, &spurious, &back)) << bad;
  }
}

TEST(ExploreReplay, AFailingScheduleReplaysExactlyEveryTime) {
  Explorer racy(make<Withdraw>(false), 0);
  Report bad = racy.dfs(2, 0);
  ASSERT_TRUE(bad.hasFailure);
  for (int i = 0; i < 3; ++i) {
    Verdict again = racy.replay(bad.failure.choices, true);
    EXPECT_EQ(again.findings, bad.failure.findings);
    EXPECT_EQ(again.choices, bad.failure.choices);
    EXPECT_FALSE(again.run.steps.empty());
  }
}

client::Scenario scenario(const std::string& json) {
  client::Scenario s;
  client::ScenarioError error;
  EXPECT_TRUE(client::parseScenario(json, "<test>", &s, &error)) << error.text();
  return s;
}

const char* const kTwoSensorSync = R"({
  "frames": 3, "sensors": [ { "id": 0 }, { "id": 1 } ],
  "syncGroups": [ { "sensors": [0, 1] } ], "configure": [ { "frame": 1 } ] })";

TEST(ExploreLibrary, TwoSensorSyncIsCleanAtBoundOneAndReplaysItsSchedules) {
  Explorer ex(scenarioTarget(scenario(kTwoSensorSync)), 1);
  Report r = ex.dfs(1, 0);
  EXPECT_FALSE(r.hasFailure) << (r.hasFailure ? r.failure.findings[0] : "");
  EXPECT_TRUE(r.exhausted);
  EXPECT_GT(r.schedules, 100u);

  // A time limit already spent stops the same search at its first check, not exhausted.
  Explorer timed(scenarioTarget(scenario(kTwoSensorSync)), 1);
  timed.setTimeLimit(1e-9);
  Report cut = timed.dfs(1, 0);
  EXPECT_FALSE(cut.exhausted);
  EXPECT_FALSE(cut.hasFailure);
  EXPECT_EQ(cut.schedules, 64u);
}

// The benchmark's baseline: the same client on real threads, without the scheduler, keeps the
// protocol and passes the checker, run after run.
TEST(ExploreLibrary, ThePlainRunOfTheClientIsCleanToo) {
  client::Scenario s = scenario(kTwoSensorSync);
  ClientRun client(s);
  for (int i = 0; i < 20; ++i) {
    history::History h = client.runPlain();
    check::CheckResult check = check::checkHistory(h);
    EXPECT_TRUE(check.clean()) << check.violations[0].message;
    EXPECT_EQ(h.jobs.size(), 8u);  // two configure jobs, six enqueues
    EXPECT_EQ(h.account.live(), 0u);
  }
}

// A send racing a drop of the same sensor's frame breaks the client protocol: when the drop
// retires the record first, the send's guard wait aborts. Only some orders do that; the
// abort is caught in-process, reported with its message and replayed.
class SendAfterDrop : public Target {
 public:
  std::vector<std::string> threadNames() const override { return {"sender", "dropper"}; }
  std::vector<std::function<void()>> begin() override {
    host::hostPipeMgr()->reset();
    mPool = std::make_shared<cc::FrameContextPool>();
    mDeliver = std::make_unique<cc::CamDeliver>(mPool);
    std::unordered_map<uint32_t, cc::FrameContext::SensorState> states;
    states[0].needEnq = true;
    auto fc = std::make_shared<const cc::FrameContext>(1, std::set<uint32_t>{},
                                                       std::set<uint32_t>{0}, states, false);
    mPool->emplace(1, fc);
    mDeliver->prepare(0, 1, fc);
    return {[this] { mDeliver->sendJobForEnque(0, 1, std::make_shared<cc::ReqBaseJob>()); },
            [this] { mDeliver->notifyEvent(cc::CamDeliver::Drop, 0, 1, 0); }};
  }
  std::vector<std::string> judgeCompleted() override {
    mDeliver.reset();
    return {};
  }

 private:
  std::shared_ptr<cc::FrameContextPool> mPool;
  std::unique_ptr<cc::CamDeliver> mDeliver;
};

TEST(ExploreLibrary, AFatalAssertionOfTheLibraryIsCaughtAndReplayed) {
  Explorer ex(make<SendAfterDrop>(), 0);
  Report r = ex.dfs(0, 0);
  ASSERT_TRUE(r.hasFailure);
  EXPECT_EQ(r.failure.run.outcome, Outcome::Fatal);
  EXPECT_EQ(r.failure.run.fatalThread, "sender");
  EXPECT_EQ(r.failure.run.fatalMessage.rfind("[S:0 F:1] FC not found !", 0), 0u)
      << r.failure.run.fatalMessage;
  Verdict again = ex.replay(r.failure.choices, false);
  EXPECT_EQ(again.run.outcome, Outcome::Fatal);
  EXPECT_EQ(again.run.fatalMessage, r.failure.run.fatalMessage);
}

}  // namespace
}  // namespace explore
}  // namespace orvcam
