#pragma once
// A thread that runs the tasks handed to it one after another, in the order they came. The log
// reader hands it the formatting and writing of its outputs, so that a long capture's trace
// and history are written on a second core while the next lines are read.
//
// Threads: post() and drain() are called by one thread, the producer (the reader's); tasks
// run on the worker's own thread. post() blocks while `capacity` tasks wait, so that a slow
// disk holds the reader back instead of filling memory; drain() blocks until every task posted
// so far has run. The destructor drains and joins. A task must not post, drain or throw.
//
// Lock: `mutex_` guards the queue and the flags below it; it is a leaf (no other lock is taken
// while it is held, and tasks run without it).
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include "ThreadAnnotations.h"

namespace orvcam {
namespace base {

class OrderedWorker {
 public:
  explicit OrderedWorker(size_t capacity = 64);
  ~OrderedWorker();
  OrderedWorker(const OrderedWorker&) = delete;
  OrderedWorker& operator=(const OrderedWorker&) = delete;

  // Producer thread; blocks while the queue is full.
  void post(std::function<void()> task) ORVCAM_EXCLUDES(mutex_);
  // Producer thread; blocks until the queue is empty and no task runs.
  void drain() ORVCAM_EXCLUDES(mutex_);

 private:
  void loop() ORVCAM_EXCLUDES(mutex_);

  const size_t capacity_;
  std::mutex mutex_;
  std::condition_variable changed_;  // a task was posted or finished, or the worker must stop
  std::deque<std::function<void()>> tasks_ ORVCAM_GUARDED_BY(mutex_);
  bool running_ ORVCAM_GUARDED_BY(mutex_) = false;  // a task taken from the queue still runs
  bool stopping_ ORVCAM_GUARDED_BY(mutex_) = false;
  std::thread thread_;  // last: started once the fields above exist
};

}  // namespace base
}  // namespace orvcam
