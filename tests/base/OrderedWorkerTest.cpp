// The worker that writes camdeliver-log's outputs beside the reader: tasks run in the order
// they came, on its own thread; a full queue holds the producer back; drain and destruction
// wait for every task.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "base/OrderedWorker.h"

namespace {

using namespace std::chrono_literals;
constexpr auto kDeadlock = 10s;  // a wait this long means the worker is stuck

TEST(OrderedWorkerTest, RunsTasksInOrderOnItsOwnThreadAndDrains) {
  std::vector<int> ran;  // written by the worker only, read after drain()
  std::thread::id where;
  {
    orvcam::base::OrderedWorker worker(4);
    for (int i = 0; i < 200; ++i) {
      worker.post([&ran, &where, i] {
        ran.push_back(i);
        where = std::this_thread::get_id();
      });
    }
    worker.drain();
    ASSERT_EQ(ran.size(), 200u);
    for (int i = 0; i < 200; ++i) ASSERT_EQ(ran[size_t(i)], i);
    EXPECT_NE(where, std::this_thread::get_id());
    for (int i = 200; i < 210; ++i) worker.post([&ran, i] { ran.push_back(i); });
  }  // the destructor runs what is left
  ASSERT_EQ(ran.size(), 210u);
  EXPECT_EQ(ran.back(), 209);
}

TEST(OrderedWorkerTest, AFullQueueHoldsTheProducerBackUntilATaskEnds) {
  orvcam::base::OrderedWorker worker(1);
  std::promise<void> started, gate;
  std::shared_future<void> open = gate.get_future().share();
  std::mutex mutex;
  std::vector<const char*> order;
  auto note = [&](const char* what) {
    std::lock_guard<std::mutex> lock(mutex);
    order.push_back(what);
  };
  worker.post([&] {
    started.set_value();
    open.wait();
    note("first task ended");
  });
  ASSERT_EQ(started.get_future().wait_for(kDeadlock), std::future_status::ready);
  worker.post([] {});  // the queue's one place
  std::future<void> posted = std::async(std::launch::async, [&] {
    worker.post([] {});
    note("third post returned");
  });
  // The third post has no place while the first task runs; it may not return yet.
  EXPECT_EQ(posted.wait_for(200ms), std::future_status::timeout);
  gate.set_value();
  ASSERT_EQ(posted.wait_for(kDeadlock), std::future_status::ready) << "the producer stays blocked";
  worker.drain();
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_EQ(order.size(), 2u);
  EXPECT_STREQ(order[0], "first task ended");
}

TEST(OrderedWorkerTest, DrainWaitsForTheTaskStillRunning) {
  orvcam::base::OrderedWorker worker;
  std::promise<void> started, gate;
  std::shared_future<void> open = gate.get_future().share();
  bool ended = false;
  worker.post([&] {
    started.set_value();
    open.wait();
    ended = true;
  });
  ASSERT_EQ(started.get_future().wait_for(kDeadlock), std::future_status::ready);
  // The queue is empty now, but its last task runs: a drain returns only once it has ended.
  std::future<void> drained = std::async(std::launch::async, [&] { worker.drain(); });
  EXPECT_EQ(drained.wait_for(200ms), std::future_status::timeout);
  gate.set_value();
  ASSERT_EQ(drained.wait_for(kDeadlock), std::future_status::ready) << "drain never returned";
  EXPECT_TRUE(ended);
}

}  // namespace
