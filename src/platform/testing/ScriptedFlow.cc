#include "platform/testing/ScriptedFlow.h"

namespace tarnwick {

ScriptedTCPFlow::ScriptedTCPFlow(std::shared_ptr<DispatchQueue> frameworkQueue,
                                 NEFlowMetaData metaData, std::optional<NWHostEndpoint> remote)
    : queue_(std::move(frameworkQueue)), metaData_(std::move(metaData)), remote_(std::move(remote)) {}

void ScriptedTCPFlow::open(std::optional<NWHostEndpoint>, OpenCompletion completion) {
  std::optional<NEError> error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    error = openError_;
    opened_ = !error;
  }
  queue_->async([completion = std::move(completion), error] { completion(error); });
}

void ScriptedTCPFlow::readData(ReadCompletion completion) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    reads_.push_back(std::move(completion));
    pumpLocked(work);
  }
  post(work);
}

void ScriptedTCPFlow::write(Bytes data, WriteCompletion completion) {
  std::optional<NEError> error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    error = writeError_;
    if (!error) written_.insert(written_.end(), data.begin(), data.end());
  }
  queue_->async([completion = std::move(completion), error] { completion(error); });
}

void ScriptedTCPFlow::closeReadWithError(std::optional<NEError>) {
  std::lock_guard<std::mutex> lock(mutex_);
  readClosed_ = true;
}

void ScriptedTCPFlow::closeWriteWithError(std::optional<NEError>) {
  std::lock_guard<std::mutex> lock(mutex_);
  writeClosed_ = true;
}

void ScriptedTCPFlow::setOpenError(std::optional<NEError> error) {
  std::lock_guard<std::mutex> lock(mutex_);
  openError_ = std::move(error);
}

void ScriptedTCPFlow::agentSends(Bytes data) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back({std::move(data), std::nullopt});
    pumpLocked(work);
  }
  post(work);
}

void ScriptedTCPFlow::agentEnds() {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back({Bytes{}, std::nullopt});
    pumpLocked(work);
  }
  post(work);
}

void ScriptedTCPFlow::agentFails(NEError error) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back({std::nullopt, std::move(error)});
    pumpLocked(work);
  }
  post(work);
}

void ScriptedTCPFlow::failWrites(std::optional<NEError> error) {
  std::lock_guard<std::mutex> lock(mutex_);
  writeError_ = std::move(error);
}

void ScriptedTCPFlow::pumpLocked(std::vector<Work>& out) {
  while (!reads_.empty() && !deliveries_.empty()) {
    out.push_back([c = std::move(reads_.front()), d = std::move(deliveries_.front())]() mutable {
      c(std::move(d.data), std::move(d.error));
    });
    reads_.pop_front();
    deliveries_.pop_front();
  }
}

void ScriptedTCPFlow::post(std::vector<Work>& work) {
  for (auto& w : work) queue_->async(std::move(w));
}

Bytes ScriptedTCPFlow::written() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return written_;
}
bool ScriptedTCPFlow::opened() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return opened_;
}
bool ScriptedTCPFlow::readClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return readClosed_;
}
bool ScriptedTCPFlow::writeClosed() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return writeClosed_;
}
std::size_t ScriptedTCPFlow::pendingReads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reads_.size();
}

}  // namespace tarnwick
