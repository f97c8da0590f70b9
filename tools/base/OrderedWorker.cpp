#include "base/OrderedWorker.h"

#include <utility>

#include "base/AnnotatedLock.h"

namespace orvcam {
namespace base {

OrderedWorker::OrderedWorker(size_t capacity)
    : capacity_(capacity == 0 ? 1 : capacity), thread_([this] { loop(); }) {}

OrderedWorker::~OrderedWorker() {
  drain();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void OrderedWorker::post(std::function<void()> task) {
  base::AnnotatedLock lock(mutex_);
  while (tasks_.size() >= capacity_) changed_.wait(lock.native());
  tasks_.push_back(std::move(task));
  lock.unlock();
  changed_.notify_all();
}

void OrderedWorker::drain() {
  base::AnnotatedLock lock(mutex_);
  while (!tasks_.empty() || running_) changed_.wait(lock.native());
}

void OrderedWorker::loop() {
  base::AnnotatedLock lock(mutex_);
  for (;;) {
    while (tasks_.empty() && !stopping_) changed_.wait(lock.native());
    if (tasks_.empty()) return;  // stopping, and nothing left
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    running_ = true;
    lock.unlock();
    changed_.notify_all();  // room in the queue
    task();
    lock.lock();
    running_ = false;
    changed_.notify_all();  // a drain may be waiting for this task
  }
}

}  // namespace base
}  // namespace orvcam
