#pragma once
// The real runtime: a few lanes (IoLane), each one thread running its own asio::io_context.
// Serial queues are strands on a lane's context (StrandQueue); off-lane queues are strands on one
// more such thread that carries no flow; a blocking queue gets a thread of its own (ThreadQueue),
// so a blocked read never holds a lane. Real connections (AsioConnection) run their socket
// operations on the lane they were made on.
//
// A lane's context is built for one thread, so posting work from the lane to itself takes no
// lock and wakes nobody: a flow whose queues and sockets share a lane moves its bytes on that
// thread alone.
//
// realRuntime() makes the process's one instance on first use and never destroys it: queues,
// timers and connections may be reached from any thread until the process exits, so there is no
// moment at which stopping the lanes would be safe.

#include <asio.hpp>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "platform/Dispatch.h"
#include "platform/IoLane.h"

namespace tarnwick {

class AsioLane : public IoLane {
 public:
  // A data lane carries flows: work made from its thread stays on it (pickLane()). The off-lane
  // thread is built the same way but is never picked.
  enum class Role { Data, OffLane };

  AsioLane(std::size_t index, Role role);
  AsioLane(const AsioLane&) = delete;
  AsioLane& operator=(const AsioLane&) = delete;

  void post(Work work) override;
  bool isCurrent() const override;
  std::unique_ptr<ReadableWatch> watchReadable(int fd) override;

  asio::io_context& context() { return context_; }
  static AsioLane* current();

 private:
  const std::size_t index_;
  asio::io_context context_{1};
  // Keeps run() from returning while no work is pending.
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_;
  std::thread thread_;
};

class AsioRuntime : public Runtime {
 public:
  // One lane per core, within bounds: the system's work items are short callbacks, and a flow
  // never needs more than one thread.
  static std::size_t defaultLaneCount();

  explicit AsioRuntime(std::size_t lanes);

  std::shared_ptr<DispatchQueue> makeQueue(std::string label, QualityOfService qos,
                                           QueueKind kind = QueueKind::Serial) override;
  MonotonicTime monotonicNow() const override;
  WallTime wallNow() const override;

  std::size_t laneCount() const { return lanes_.size(); }
  AsioLane& lane(std::size_t index) { return *lanes_[index % lanes_.size()]; }
  // The calling thread's lane, or the next one in turn.
  AsioLane& pickLane();

 private:
  std::vector<std::unique_ptr<AsioLane>> lanes_;
  const std::unique_ptr<AsioLane> offLane_;
  std::atomic<std::size_t> nextLane_{0};
};

// The process-wide runtime behind realRuntime(), realConnectionFactory() and the IoLane
// functions.
std::shared_ptr<AsioRuntime> processAsioRuntime();

}  // namespace tarnwick
