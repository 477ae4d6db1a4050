#include "platform/testing/ScriptedSplicer.h"

#include <utility>

namespace tarnwick {

void ScriptedSplice::close(Closing how) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!closing_) closing_ = how;
}

void ScriptedSplice::moved(SpliceDirection direction, std::size_t bytes) {
  report([direction, bytes](SpliceObserver& o) { o.spliceMoved(direction, bytes); });
}

void ScriptedSplice::ended(SpliceDirection direction) {
  report([direction](SpliceObserver& o) { o.spliceEnded(direction); });
}

void ScriptedSplice::failed(SpliceSide side, int errnoValue) {
  report([side, errnoValue](SpliceObserver& o) {
    o.spliceFailed(side, NWError::fromErrno(errnoValue));
  });
}

std::optional<StreamSplice::Closing> ScriptedSplice::closing() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return closing_;
}

void ScriptedSplice::report(std::function<void(SpliceObserver&)> event) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closing_) return;
  }
  queue_->async([observer = observer_, event = std::move(event)] {
    if (auto o = observer.lock()) event(*o);
  });
}

StreamSplicer::Started ScriptedSplicer::splice(NEAppProxyTCPFlow&, NWConnection&,
                                               std::shared_ptr<DispatchQueue> queue,
                                               std::weak_ptr<SpliceObserver> observer) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++requests_;
  if (refusals_ > 0) {
    --refusals_;
    return {nullptr, refusal_};
  }
  splices_.push_back(std::make_shared<ScriptedSplice>(std::move(queue), std::move(observer)));
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
