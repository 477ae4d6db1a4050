#pragma once
// A connection whose life the test scripts: it decides the states, delivers received bytes and
// completes sends, and reads back what was sent. It keeps the same contract as the real
// connection (platform/Network.h): sends before ready are held and written in order once ready,
// a cancel before ready drops pending operations silently, a cancel after ready completes them
// with ECANCELED, and every callback runs on the queue given to start().

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/Network.h"

namespace tarnwick {

class ScriptedConnection : public NWConnection,
                           public std::enable_shared_from_this<ScriptedConnection> {
 public:
  explicit ScriptedConnection(NWEndpoint endpoint);

  // NWConnection.
  void setStateUpdateHandler(StateHandler handler) override;
  void start(std::shared_ptr<DispatchQueue> queue) override;
  void send(std::optional<Bytes> content, bool isComplete, SendCompletion completion) override;
  void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
               ReceiveCompletion completion) override;
  void cancel() override;
  void forceCancel() override;

  // The test's side. Each call posts the resulting callbacks to the start() queue.
  void moveTo(NWConnectionState state);
  void becomeReady() { moveTo(NWConnectionState::of(NWConnectionState::Kind::Ready)); }
  void fail(int errnoValue) { moveTo(NWConnectionState::failed(NWError::fromErrno(errnoValue))); }
  void wait(int errnoValue) { moveTo(NWConnectionState::waiting(NWError::fromErrno(errnoValue))); }
  // Completes the oldest pending receive, or holds the delivery until one is posted. Content
  // larger than the receive's maximum is split across receives.
  void deliver(std::optional<Bytes> content, bool isComplete = false,
               std::optional<NWError> error = std::nullopt);
  void deliverEnd() { deliver(std::nullopt, true); }
  // While true (the default), sends complete successfully as soon as the connection is ready.
  // When false, completeSend() completes them one at a time.
  void setAutoCompleteSends(bool autoComplete);
  void completeSend(std::optional<NWError> error = std::nullopt);

  const NWEndpoint& endpoint() const { return endpoint_; }
  // Everything written so far (sends completed successfully), in order.
  Bytes sent() const;
  bool writeShutDown() const;
  bool started() const;
  bool cancelled() const;
  // Cancelled by forceCancel(): the peer would have seen a reset.
  bool reset() const;
  NWConnectionState::Kind state() const;
  std::size_t pendingReceives() const;
  std::size_t pendingSends() const;

 private:
  struct PendingSend {
    std::optional<Bytes> content;
    bool isComplete;
    SendCompletion completion;
  };
  struct PendingReceive {
    std::size_t maximum;
    ReceiveCompletion completion;
  };
  struct Delivery {
    std::optional<Bytes> content;
    bool isComplete;
    std::optional<NWError> error;
  };

  Work stateDelivery(NWConnectionState state);
  void abandonPendingLocked(bool wasReady, const NWError& error, std::vector<Work>& out);
  void pumpLocked(std::vector<Work>& out);
  void flushSendsLocked(std::vector<Work>& out);
  void run(std::vector<Work>& work);

  const NWEndpoint endpoint_;
  mutable std::mutex mutex_;
  std::shared_ptr<DispatchQueue> queue_;
  StateHandler stateHandler_;
  NWConnectionState::Kind state_ = NWConnectionState::Kind::Setup;
  bool autoComplete_ = true;
  bool everReady_ = false;
  bool writeShutDown_ = false;
  bool reset_ = false;
  Bytes sent_;
  std::deque<PendingSend> sends_;
  std::deque<PendingReceive> receives_;
  std::deque<Delivery> deliveries_;
};

// Hands out scripted connections and keeps every one it made, in order.
class ScriptedConnectionFactory : public NWConnectionFactory {
 public:
  std::shared_ptr<NWConnection> makeConnection(const NWEndpoint& endpoint,
                                               const NWParameters& parameters) override;

  // Called with each new connection before it is returned (e.g. to script it).
  std::function<void(const std::shared_ptr<ScriptedConnection>&)> onMake;

  std::vector<std::shared_ptr<ScriptedConnection>> made() const;
  std::shared_ptr<ScriptedConnection> last() const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<ScriptedConnection>> made_;
};

}  // namespace tarnwick
