#include "platform/testing/ScriptedConnection.h"

#include <cerrno>

namespace tarnwick {

using Kind = NWConnectionState::Kind;

ScriptedConnection::ScriptedConnection(NWEndpoint endpoint) : endpoint_(std::move(endpoint)) {}

void ScriptedConnection::setStateUpdateHandler(StateHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::swap(stateHandler_, handler);
}

// Started and preparing in one hold of the lock: a state a test sets from another thread right
// after start() must not be overwritten by the preparing state.
void ScriptedConnection::start(std::shared_ptr<DispatchQueue> queue) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_) return;
    queue_ = std::move(queue);
    if (state_ == Kind::Setup) {
      state_ = Kind::Preparing;
      work.push_back(stateDelivery(NWConnectionState::of(Kind::Preparing)));
    }
  }
  run(work);
}

void ScriptedConnection::send(std::optional<Bytes> content, bool isComplete,
                              SendCompletion completion) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == Kind::Cancelled || state_ == Kind::Failed) {
      // A connection that never became ready drops the send: its bytes never leave.
      if (completion && everReady_) {
        work.push_back([completion] { completion(NWError::fromErrno(ECANCELED)); });
      }
    } else {
      sends_.push_back({std::move(content), isComplete, std::move(completion)});
      flushSendsLocked(work);
    }
  }
  run(work);
}

void ScriptedConnection::receive(std::size_t, std::size_t maximumLength,
                                 ReceiveCompletion completion) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == Kind::Cancelled || state_ == Kind::Failed) {
      work.push_back(
          [completion] { completion(std::nullopt, false, NWError::fromErrno(ECANCELED)); });
    } else {
      receives_.push_back({maximumLength, std::move(completion)});
      pumpLocked(work);
    }
  }
  run(work);
}

void ScriptedConnection::cancel() {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == Kind::Cancelled) return;
    const bool wasReady = state_ == Kind::Ready;
    state_ = Kind::Cancelled;
    abandonPendingLocked(wasReady, NWError::fromErrno(ECANCELED), work);
    work.push_back(stateDelivery(NWConnectionState::of(Kind::Cancelled)));
  }
  run(work);
}

void ScriptedConnection::forceCancel() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == Kind::Cancelled) return;
    reset_ = true;
  }
  cancel();
}

void ScriptedConnection::moveTo(NWConnectionState state) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == Kind::Cancelled) return;
    const bool wasReady = state_ == Kind::Ready;
    state_ = state.kind;
    if (state.kind == Kind::Ready) everReady_ = true;
    if (state.kind == Kind::Failed) abandonPendingLocked(wasReady, *state.error, work);
    work.push_back(stateDelivery(state));
    if (state.kind == Kind::Ready) {
      flushSendsLocked(work);
      pumpLocked(work);
    }
  }
  run(work);
}

void ScriptedConnection::deliver(std::optional<Bytes> content, bool isComplete,
                                 std::optional<NWError> error) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_ == Kind::Cancelled) return;
    deliveries_.push_back({std::move(content), isComplete, std::move(error)});
    pumpLocked(work);
  }
  run(work);
}

void ScriptedConnection::setAutoCompleteSends(bool autoComplete) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    autoComplete_ = autoComplete;
    flushSendsLocked(work);
  }
  run(work);
}

void ScriptedConnection::completeSend(std::optional<NWError> error) {
  std::vector<Work> work;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sends_.empty()) return;
    PendingSend s = std::move(sends_.front());
    sends_.pop_front();
    if (!error) {
      if (s.content) sent_.insert(sent_.end(), s.content->begin(), s.content->end());
      if (s.isComplete && (!s.content || s.content->empty())) writeShutDown_ = true;
    }
    if (s.completion) work.push_back([c = std::move(s.completion), error] { c(error); });
  }
  run(work);
}

// Calls the state handler installed at delivery time, so a handler removed meanwhile is not run.
Work ScriptedConnection::stateDelivery(NWConnectionState state) {
  return [self = shared_from_this(), state = std::move(state)] {
    StateHandler handler;
    {
      std::lock_guard<std::mutex> guard(self->mutex_);
      handler = self->stateHandler_;
    }
    if (handler) handler(state);
  };
}

// Before ready, pending operations are dropped without their completions (their bytes never
// left); after ready they complete with `error`.
void ScriptedConnection::abandonPendingLocked(bool wasReady, const NWError& error,
                                              std::vector<Work>& out) {
  if (wasReady) {
    for (auto& s : sends_) {
      if (s.completion) out.push_back([c = std::move(s.completion), error] { c(error); });
    }
    for (auto& r : receives_) {
      out.push_back([c = std::move(r.completion), error] { c(std::nullopt, false, error); });
    }
  }
  sends_.clear();
  receives_.clear();
  deliveries_.clear();
}

// Completes held sends when the connection is ready and sends complete on their own.
void ScriptedConnection::flushSendsLocked(std::vector<Work>& out) {
  if (state_ != Kind::Ready || !autoComplete_) return;
  while (!sends_.empty()) {
    PendingSend s = std::move(sends_.front());
    sends_.pop_front();
    if (s.content) sent_.insert(sent_.end(), s.content->begin(), s.content->end());
    if (s.isComplete && (!s.content || s.content->empty())) writeShutDown_ = true;
    if (s.completion) out.push_back([c = std::move(s.completion)] { c(std::nullopt); });
  }
}

// Matches held deliveries with posted receives, once the connection is ready.
void ScriptedConnection::pumpLocked(std::vector<Work>& out) {
  if (state_ != Kind::Ready) return;
  while (!receives_.empty() && !deliveries_.empty()) {
    PendingReceive r = std::move(receives_.front());
    receives_.pop_front();
    Delivery& d = deliveries_.front();
    if (d.content && d.content->size() > r.maximum) {
      Bytes head(d.content->begin(), d.content->begin() + static_cast<long>(r.maximum));
      d.content->erase(d.content->begin(), d.content->begin() + static_cast<long>(r.maximum));
      out.push_back([c = std::move(r.completion), head = std::move(head)]() mutable {
        c(std::move(head), false, std::nullopt);
      });
      continue;
    }
    Delivery whole = std::move(d);
    deliveries_.pop_front();
    out.push_back([c = std::move(r.completion), whole = std::move(whole)]() mutable {
      c(std::move(whole.content), whole.isComplete, std::move(whole.error));
    });
  }
}

void ScriptedConnection::run(std::vector<Work>& work) {
  std::shared_ptr<DispatchQueue> queue;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    queue = queue_;
  }
  if (!queue) return;  // not started: nothing can have been posted yet
  for (auto& w : work) queue->async(std::move(w));
}

Bytes ScriptedConnection::sent() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sent_;
}
bool ScriptedConnection::writeShutDown() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return writeShutDown_;
}
bool ScriptedConnection::started() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return queue_ != nullptr;
}
bool ScriptedConnection::cancelled() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_ == Kind::Cancelled;
}
bool ScriptedConnection::reset() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return reset_;
}
Kind ScriptedConnection::state() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}
std::size_t ScriptedConnection::pendingReceives() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return receives_.size();
}
std::size_t ScriptedConnection::pendingSends() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sends_.size();
}

std::shared_ptr<NWConnection> ScriptedConnectionFactory::makeConnection(const NWEndpoint& endpoint,
                                                                        const NWParameters&) {
  auto connection = std::make_shared<ScriptedConnection>(endpoint);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    made_.push_back(connection);
  }
  if (onMake) onMake(connection);
  return connection;
}

std::vector<std::shared_ptr<ScriptedConnection>> ScriptedConnectionFactory::made() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return made_;
}

std::shared_ptr<ScriptedConnection> ScriptedConnectionFactory::last() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return made_.empty() ? nullptr : made_.back();
}

}  // namespace tarnwick
