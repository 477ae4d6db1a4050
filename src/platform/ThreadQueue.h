#pragma once
// A serial queue with a thread of its own, for work that blocks (QueueKind::Blocking). Both
// back ends use it: blocking work cannot be simulated, so even the simulated runtime runs it on a
// real thread and lets it hand results back to simulated queues with async().

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/Dispatch.h"

namespace tarnwick {

class ThreadQueue : public DispatchQueue {
 public:
  ThreadQueue(std::string label, QualityOfService qos);
  // Runs what is already queued, then joins the thread. When the last owner lets go from work on
  // the queue itself, the thread is detached and finishes on its own: it keeps only the shared
  // state, never the queue object.
  ~ThreadQueue() override;

  const std::string& label() const override { return label_; }
  QualityOfService qos() const override { return qos_; }
  void async(Work work) override;
  // Not offered: a blocking queue takes immediate work only. Calling these aborts.
  void asyncAfter(Duration delay, Work work) override;
  std::shared_ptr<DispatchTimer> makeTimer() override;
  bool isCurrent() const override;

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Work> work;
    bool stopping = false;
  };
  static void run(const std::shared_ptr<State>& state);

  const std::string label_;
  const QualityOfService qos_;
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  std::thread thread_;
};

}  // namespace tarnwick
