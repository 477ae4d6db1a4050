#include "platform/ThreadQueue.h"

#include <cstdio>
#include <cstdlib>

namespace tarnwick {

ThreadQueue::ThreadQueue(std::string label, QualityOfService qos)
    : label_(std::move(label)), qos_(qos), thread_([this] { run(); }) {}

ThreadQueue::~ThreadQueue() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else if (thread_.joinable()) {
    thread_.join();
  }
}

void ThreadQueue::async(Work work) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    work_.push_back(std::move(work));
  }
  wake_.notify_one();
}

void ThreadQueue::asyncAfter(Duration, Work) {
  std::fprintf(stderr, "ThreadQueue %s: asyncAfter is not offered on a blocking queue\n",
               label_.c_str());
  std::abort();
}

std::shared_ptr<DispatchTimer> ThreadQueue::makeTimer() {
  std::fprintf(stderr, "ThreadQueue %s: timers are not offered on a blocking queue\n",
               label_.c_str());
  std::abort();
}

bool ThreadQueue::isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

void ThreadQueue::run() {
  for (;;) {
    Work next;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || !work_.empty(); });
      if (work_.empty()) return;
      next = std::move(work_.front());
      work_.pop_front();
    }
    next();
  }
}

}  // namespace tarnwick
