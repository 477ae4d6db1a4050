#pragma once
// The real runtime: one asio::io_context run by a small pool of threads. Serial queues are
// strands on that context (StrandQueue); a blocking queue gets a thread of its own (ThreadQueue),
// so a blocked read never holds a pool thread. Real connections (AsioConnection) run their socket
// operations on the same context.
//
// realRuntime() makes the process's one instance on first use and never destroys it: queues,
// timers and connections may be reached from any thread until the process exits, so there is no
// moment at which stopping the pool would be safe.

#include <asio.hpp>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Dispatch.h"

namespace tarnwick {

class AsioRuntime : public Runtime {
 public:
  // Pool threads of the process-wide runtime. The system's work items are short callbacks; two
  // threads keep one slow callback from stalling every other queue without oversubscribing
  // small machines.
  static constexpr int kPoolThreads = 2;

  explicit AsioRuntime(int poolThreads);

  std::shared_ptr<DispatchQueue> makeQueue(std::string label, QualityOfService qos,
                                           QueueKind kind = QueueKind::Serial) override;
  MonotonicTime monotonicNow() const override;
  WallTime wallNow() const override;

  asio::io_context& context() { return context_; }

 private:
  asio::io_context context_;
  // Keeps run() from returning while no work is pending.
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  std::vector<std::thread> pool_;
};

// The process-wide runtime behind realRuntime() and realConnectionFactory().
std::shared_ptr<AsioRuntime> processAsioRuntime();

}  // namespace tarnwick
