#include "platform/testing/ScriptedSplicer.h"

#include <utility>

namespace tarnwick {

void ScriptedSplice::close(Closing how) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!closing_) closing_ = how;
}

void ScriptedSplice::moved(SpliceDirection direction, std::size_t bytes) {
  report([events = events_, direction, bytes] { events.moved(direction, bytes); });
}

void ScriptedSplice::ended(SpliceDirection direction) {
  report([events = events_, direction] { events.ended(direction); });
}

void ScriptedSplice::failed(SpliceSide side, int errnoValue) {
  report([events = events_, side, errnoValue] {
    events.failed(side, NWError::fromErrno(errnoValue));
  });
}

std::optional<StreamSplice::Closing> ScriptedSplice::closing() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closing_;
}

void ScriptedSplice::report(Work event) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_) return;
  }
  queue_->async(std::move(event));
}

StreamSplicer::Started ScriptedSplicer::splice(NEAppProxyTCPFlow&, NWConnection&,
                                               std::shared_ptr<DispatchQueue> queue,
                                               SpliceEvents events) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++requests_;
  if (refusals_ > 0) {
    --refusals_;
    return {nullptr, refusal_};
  }
  splices_.push_back(std::make_shared<ScriptedSplice>(std::move(queue), std::move(events)));
  return {splices_.back(), Refusal::Never};
}

void ScriptedSplicer::refuse(Refusal refusal, std::size_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  refusal_ = refusal;
  refusals_ = count;
}

std::size_t ScriptedSplicer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

std::shared_ptr<ScriptedSplice> ScriptedSplicer::last() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return splices_.empty() ? nullptr : splices_.back();
}

}  // namespace tarnwick
