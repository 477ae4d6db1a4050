#pragma once
// Test helpers for connections: a record of callbacks as short texts, noting whether each ran on
// the queue the connection was started on, and a wait for conditions that real threads make true.

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/Network.h"

namespace tarnwick {

// Polls `done` until it holds or `limit` of real time has passed. For results that real sockets
// and pool threads produce within milliseconds; the limit only bounds a broken test.
inline bool eventually(const std::function<bool()>& done,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

inline std::string errnoText(const std::optional<NWError>& error) {
  return error ? " errno=" + std::to_string(error->code) : "";
}

// Texts: "preparing", "ready", "failed errno=111", "cancelled"; "sent A", "sent A errno=125";
// "received R 'abc'", "received R - end", "received R - errno=125".
class ConnectionEvents : public std::enable_shared_from_this<ConnectionEvents> {
 public:
  explicit ConnectionEvents(std::shared_ptr<DispatchQueue> queue) : queue_(std::move(queue)) {}

  NWConnection::StateHandler stateHandler() {
    return [self = shared_from_this()](const NWConnectionState& state) {
      self->add(stateText(state.kind) + errnoText(state.error));
    };
  }
  NWConnection::SendCompletion sent(std::string name) {
    return [self = shared_from_this(), name](std::optional<NWError> error) {
      self->add("sent " + name + errnoText(error));
    };
  }
  NWConnection::ReceiveCompletion received(std::string name) {
    return [self = shared_from_this(), name](std::optional<Bytes> content, bool isComplete,
                                             std::optional<NWError> error) {
      std::string text = "received " + name;
      text += content ? " '" + std::string(textOf(*content)) + "'" : " -";
      if (isComplete) text += " end";
      self->add(text + errnoText(error));
    };
  }

  void add(std::string event) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!queue_->isCurrent()) offQueue_.push_back(event);
    events_.push_back(std::move(event));
  }
  std::vector<std::string> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  std::size_t size() const { return events().size(); }
  bool contains(const std::string& event) const {
    const auto all = events();
    return std::find(all.begin(), all.end(), event) != all.end();
  }
  // Callbacks that did not run on the queue (should be none).
  std::vector<std::string> offQueue() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return offQueue_;
  }

  static std::string stateText(NWConnectionState::Kind kind) {
    using Kind = NWConnectionState::Kind;
    switch (kind) {
      case Kind::Setup:
        return "setup";
      case Kind::Preparing:
        return "preparing";
      case Kind::Ready:
        return "ready";
      case Kind::Waiting:
        return "waiting";
      case Kind::Failed:
        return "failed";
      case Kind::Cancelled:
        return "cancelled";
    }
    return "?";
  }

 private:
  const std::shared_ptr<DispatchQueue> queue_;
  mutable std::mutex mutex_;
  std::vector<std::string> events_;
  std::vector<std::string> offQueue_;
};

}  // namespace tarnwick
