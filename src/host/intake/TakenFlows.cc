#include "host/intake/TakenFlows.h"

#include <algorithm>

namespace tarnwick::host {

void TakenFlows::add(const std::shared_ptr<SocketFlow>& flow) {
  MutexLock lock(mutex_);
  flows_.push_back(flow);
  if (flows_.size() >= prune_at_) pruneLockHeld();
}

std::size_t TakenFlows::liveCount() const {
  MutexLock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(flows_.begin(), flows_.end(),
                                                [](const auto& flow) { return !flow.expired(); }));
}

std::size_t TakenFlows::abortAll() {
  std::vector<std::shared_ptr<SocketFlow>> live;
  {
    MutexLock lock(mutex_);
    for (const auto& flow : flows_) {
      if (auto held = flow.lock()) live.push_back(std::move(held));
    }
  }
  for (const auto& flow : live) flow->abort();
  return live.size();
}

void TakenFlows::pruneLockHeld() {
  std::erase_if(flows_, [](const auto& flow) { return flow.expired(); });
  prune_at_ = std::max<std::size_t>(64, flows_.size() * 2);
}

}  // namespace tarnwick::host
