#include "platform/ThreadQueue.h"

#include <cstdio>
#include <cstdlib>

namespace tarnwick {

ThreadQueue::ThreadQueue(std::string label, QualityOfService qos)
    : label_(std::move(label)), qos_(qos), thread_([state = state_] { run(state); }) {}

ThreadQueue::~ThreadQueue() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stopping = true;
  }
  state_->wake.notify_all();
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();
  } else if (thread_.joinable()) {
    thread_.join();
  }
}

void ThreadQueue::async(Work work) {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->work.push_back(std::move(work));
  }
  state_->wake.notify_one();
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

void ThreadQueue::run(const std::shared_ptr<State>& state) {
  for (;;) {
    Work next;
    {
      std::unique_lock<std::mutex> lock(state->mutex);
      state->wake.wait(lock, [&] { return state->stopping || !state->work.empty(); });
      if (state->work.empty()) return;
      next = std::move(state->work.front());
      state->work.pop_front();
    }
    next();
  }
}

}  // namespace tarnwick
