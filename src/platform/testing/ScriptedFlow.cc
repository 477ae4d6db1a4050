#include "platform/testing/ScriptedFlow.h"

namespace tarnwick {

ScriptedTCPFlow::ScriptedTCPFlow(std::shared_ptr<DispatchQueue> frameworkQueue,
                                 NEFlowMetaData metaData, std::optional<NWHostEndpoint> remote)
    : queue_(std::move(frameworkQueue)),
      metaData_(std::move(metaData)),
      remote_(std::move(remote)) {}

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
    if (!opened_ || readClosed_ || read_) {
      ++rejected_;
      work.push_back([c = std::move(completion)] { c(std::nullopt, flowNotReadableError()); });
    } else {
      read_ = std::move(completion);
      pumpLocked(work);
    }
  }
  post(work);
}

void ScriptedTCPFlow::write(Bytes data, WriteCompletion completion) {
  std::optional<NEError> error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!opened_ || writeClosed_) {
      ++rejected_;
      error = flowNotWritableError();
    } else {
      error = writeError_;
    }
    if (!error) written_.insert(written_.end(), data.begin(), data.end());
  }
  queue_->async([completion = std::move(completion), error] { completion(error); });
}

// A pending read is dropped without its completion, as the socket-backed flow drops it.
void ScriptedTCPFlow::closeReadWithError(std::optional<NEError>) {
  ReadCompletion dropped;
  std::lock_guard<std::mutex> lock(mutex_);
  readClosed_ = true;
  dropped = std::exchange(read_, nullptr);
}

void ScriptedTCPFlow::closeWriteWithError(std::optional<NEError> error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (writeClosed_) return;
  writeClosed_ = true;
  writeReset_ = error.has_value();
}

void ScriptedTCPFlow::setOpenError(std::optional<NEError> error) {
  std::lock_guard<std::mutex> lock(mutex_);
  openError_ = std::move(error);
}

void ScriptedTCPFlow::agentSends(Bytes data) { push({std::move(data), std::nullopt}); }

void ScriptedTCPFlow::agentEnds() { push({Bytes{}, std::nullopt}); }

void ScriptedTCPFlow::agentFails(NEError error) { push({std::nullopt, std::move(error)}); }

void ScriptedTCPFlow::push(Delivery delivery) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back(std::move(delivery));
    pumpLocked(work);
  }
  post(work);
}

void ScriptedTCPFlow::failWrites(std::optional<NEError> error) {
  std::lock_guard<std::mutex> lock(mutex_);
  writeError_ = std::move(error);
}

void ScriptedTCPFlow::pumpLocked(std::vector<Work>& out) {
  if (!read_) return;
  if (deliveries_.empty() && !ended_) return;
  Delivery d = ended_ ? Delivery{Bytes{}, std::nullopt} : std::move(deliveries_.front());
  if (!ended_) deliveries_.pop_front();
  ended_ = ended_ || (!d.error && (!d.data || d.data->empty()));
  out.push_back([c = std::exchange(read_, nullptr), d = std::move(d)]() mutable {
    c(std::move(d.data), std::move(d.error));
  });
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
bool ScriptedTCPFlow::writeReset() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return writeReset_;
}
std::size_t ScriptedTCPFlow::pendingReads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return read_ ? 1 : 0;
}
std::size_t ScriptedTCPFlow::rejected() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return rejected_;
}

}  // namespace tarnwick
