#pragma once
// The real outbound TCP connection (NWConnection) on the real runtime's io_context.
//
// Connecting: start() moves to preparing. An IPv4 or IPv6 literal (with or without brackets) is
// dialled as it is; any other host is resolved asynchronously and its addresses are tried in
// order. Each socket is opened with TCP_NODELAY and, when the parameters carry one, the socket
// mark; a mark the process may not set (EPERM without CAP_NET_ADMIN) fails the connection with
// that error rather than letting unmarked traffic be redirected back into the host. The first
// address that connects makes the connection ready; when none does, or the connect timeout runs
// out, it fails with the last error (ETIMEDOUT for the timeout, EHOSTUNREACH with the resolver's
// text when the name does not resolve). It never reports waiting.
//
// Data: sends queue until ready and are written one after another; a send completes when all of
// its bytes are written; an absent or empty send with isComplete shuts down the write side. A
// receive reads what the socket already has, up to its maximum, until its minimum is met; on a
// socket the last read emptied it waits for readability without a buffer, so an idle
// connection holds no receive memory. After ready, an
// I/O error completes the operation it hit (a receive also gets the bytes read before it) and the
// state stays ready: only cancel() ends the connection.
//
// Handing over: once ready and idle (no send, no completion on its way), the socket can be
// taken for a splicer; a receive still waiting for bytes is dropped, and the connection is then
// cancelled without closing the socket, which is no longer its own.
//
// Threads: every method from any thread. mutex_ guards all state and the Asio objects; it is
// never held while user code runs. Callbacks are appended to outbox_ under the lock and run in
// that order by one drain task at a time on the start() queue, so a send completion can never
// overtake the ready state it follows. Each pending socket, timer or resolver operation holds the
// connection strongly; cancel() closes them all, and delivering the cancelled state drops the
// state handler, so nothing keeps a cancelled connection alive.

#include <asio.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Mutex.h"
#include "platform/Network.h"

namespace tarnwick {

class AsioConnection : public NWConnection, public std::enable_shared_from_this<AsioConnection> {
 public:
  AsioConnection(asio::io_context& context, NWEndpoint endpoint, NWParameters parameters,
                 Duration connectTimeout);

  void setStateUpdateHandler(StateHandler handler) override;
  void start(std::shared_ptr<DispatchQueue> queue) override;
  void send(std::optional<Bytes> content, bool isComplete, SendCompletion completion) override;
  void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
               ReceiveCompletion completion) override;
  void cancel() override;
  void forceCancel() override;
  Detachable detachable() override;
  std::optional<DetachedSocket> detachSocket() override;
  // As detachSocket(), but the socket keeps its place in the lane's reactor, so a splice on the
  // same lane watches it without registering it again. Its pending waits end as cancelled.
  std::optional<asio::ip::tcp::socket> takeSocket();

 private:
  using Kind = NWConnectionState::Kind;
  using tcp = asio::ip::tcp;

  // A read takes at most this much at a time into the reading thread's scratch space.
  static constexpr std::size_t kScratchBytes = 64 * 1024;

  struct PendingSend {
    std::optional<Bytes> content;  // absent for a send without bytes
    bool isComplete;
    SendCompletion completion;
  };
  struct PendingReceive {
    std::size_t minimum;  // at least 1
    std::size_t maximum;  // at least minimum
    ReceiveCompletion completion;
  };

  static NWError errorOf(const asio::error_code& error);

  // Connecting (AsioConnection.cc).
  void beginConnectLocked() TW_REQUIRES(mutex_);
  void onResolved(const asio::error_code& error, const tcp::resolver::results_type& results);
  void connectNextLocked() TW_REQUIRES(mutex_);
  std::optional<NWError> openSocketLocked(const tcp& protocol) TW_REQUIRES(mutex_);
  void onConnected(const asio::error_code& error);
  void onConnectTimeout(const asio::error_code& error);
  void becomeReadyLocked() TW_REQUIRES(mutex_);
  void failLocked(NWError error) TW_REQUIRES(mutex_);
  void cancelWith(bool abortive) TW_EXCLUDES(mutex_);
  void stopSocketLocked() TW_REQUIRES(mutex_);

  // Sending and receiving (AsioConnectionData.cc).
  void writeNextLocked() TW_REQUIRES(mutex_);
  bool writeAvailableLocked() TW_REQUIRES(mutex_);
  void onWritable(const asio::error_code& error);
  void completeSendLocked(std::optional<NWError> error) TW_REQUIRES(mutex_);
  void readNextLocked() TW_REQUIRES(mutex_);
  void onReadable(const asio::error_code& error);
  bool readAvailableLocked() TW_REQUIRES(mutex_);
  void completeReceiveLocked(bool isComplete, std::optional<NWError> error) TW_REQUIRES(mutex_);
  void abandonPendingLocked(bool wasReady) TW_REQUIRES(mutex_);

  Detachable detachableLocked() TW_REQUIRES(mutex_);

  // Delivery to the start() queue. A send's or a receive's completion is owed to its caller
  // from the moment it is posted until it runs.
  void postLocked(Work work, bool owed = false) TW_REQUIRES(mutex_);
  void postStateLocked(NWConnectionState state) TW_REQUIRES(mutex_);
  void flushOutbox() TW_EXCLUDES(mutex_);
  void drainOutbox() TW_EXCLUDES(mutex_);

  const NWEndpoint endpoint_;
  const NWParameters parameters_;
  const Duration connectTimeout_;

  Mutex mutex_;
  std::shared_ptr<DispatchQueue> queue_ TW_GUARDED_BY(mutex_);
  StateHandler stateHandler_ TW_GUARDED_BY(mutex_);
  Kind state_ TW_GUARDED_BY(mutex_) = Kind::Setup;
  bool everReady_ TW_GUARDED_BY(mutex_) = false;

  tcp::resolver resolver_ TW_GUARDED_BY(mutex_);
  tcp::socket socket_ TW_GUARDED_BY(mutex_);
  asio::steady_timer connectTimer_ TW_GUARDED_BY(mutex_);
  std::vector<tcp::endpoint> candidates_ TW_GUARDED_BY(mutex_);
  std::size_t nextCandidate_ TW_GUARDED_BY(mutex_) = 0;
  std::optional<NWError> lastConnectError_ TW_GUARDED_BY(mutex_);

  // Rarely more than one of each; vectors cost an idle connection nothing, where deques keep a
  // block each.
  std::vector<PendingSend> sends_ TW_GUARDED_BY(mutex_);
  bool writing_ TW_GUARDED_BY(mutex_) = false;
  std::size_t written_ TW_GUARDED_BY(mutex_) = 0;  // of sends_.front()

  std::vector<PendingReceive> receives_ TW_GUARDED_BY(mutex_);
  bool awaitingReadable_ TW_GUARDED_BY(mutex_) = false;
  Bytes inbound_ TW_GUARDED_BY(mutex_);  // read for receives_.front(); empty while idle
  bool readEnded_ TW_GUARDED_BY(mutex_) = false;
  // Whether the socket may hold more than the last read took.
  bool mayHaveMore_ TW_GUARDED_BY(mutex_) = false;
  std::optional<NWError> readError_ TW_GUARDED_BY(mutex_);

  struct Outgoing {
    Work work;
    bool owed;
  };
  std::vector<Outgoing> outbox_ TW_GUARDED_BY(mutex_);
  bool drainPosted_ TW_GUARDED_BY(mutex_) = false;
  // Completions owed: posted, not run yet.
  std::size_t owed_ TW_GUARDED_BY(mutex_) = 0;
};

}  // namespace tarnwick
