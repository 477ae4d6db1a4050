#pragma once
// The real splice of a relay's two sockets (StreamSplice), on one lane of the real runtime.
// Each socket is watched through the lane's reactor; when one is ready, the directions it can
// move are pumped (SplicePump) with the lane's pipes, and what happened is reported on the
// relay's queue: the bytes moved each way (added up while a report is on its way, so a busy
// splice posts one report per turn of the queue, not one per pipe load), each end of stream,
// the first error. The former owners' counters hear of every byte.
//
// An upstream socket that is still registered with the lane's reactor (a real connection's) is
// watched through that registration as it is, which saves removing it and adding it again.
//
// Everything but close() and the owner's abort runs on the lane thread; mutex_ guards all state
// and is never held while the relay's events run. Each pending wait holds the splice; close()
// ends them.

#include <asio.hpp>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "platform/DetachedSocket.h"
#include "platform/Mutex.h"
#include "platform/StreamSplicer.h"
#include "platform/posix/SplicePump.h"

namespace tarnwick {

class AsioStreamSplice : public StreamSplice,
                         public std::enable_shared_from_this<AsioStreamSplice> {
 public:
  // A socket registered with the lane's reactor, or one that is not.
  using UpstreamSocket = std::variant<asio::ip::tcp::socket, DetachedSocket>;

  // `upstream` absent: its socket could not be taken after the agent's was; the splice then
  // only reports that the upstream failed.
  static std::shared_ptr<AsioStreamSplice> start(asio::io_context& lane, DetachedSocket agent,
                                                 std::optional<UpstreamSocket> upstream,
                                                 std::shared_ptr<DispatchQueue> queue,
                                                 std::weak_ptr<SpliceObserver> observer);

  void close(Closing how) override;

 private:
  struct End {
    End(asio::io_context& lane, DetachedSocket socket);
    End(asio::io_context& lane, UpstreamSocket socket);
    void adopt(DetachedSocket detached);
    DetachedSocket socket;
    asio::generic::stream_protocol::socket stream;
    bool waitingRead = false;
    bool waitingWrite = false;
  };
  struct Direction {
    SpliceDirection id;
    SplicePump pump;
    End& from;
    End& to;
  };

  AsioStreamSplice(asio::io_context& lane, DetachedSocket agent, UpstreamSocket upstream,
                   std::shared_ptr<DispatchQueue> queue, std::weak_ptr<SpliceObserver> observer);

  // The lane thread.
  void onReady(End& end, bool writable, const asio::error_code& error);
  void pumpLocked(Direction& direction) TW_REQUIRES(mutex_);
  void waitLocked() TW_REQUIRES(mutex_);
  void waitOn(End& end, bool writable) TW_REQUIRES(mutex_);
  void failLocked(SpliceSide side, int error) TW_REQUIRES(mutex_);
  // The agent's former owner aborted it: the agent is reset and the relay told.
  void abortAgent();
  void closeEndLocked(End& end, bool reset) TW_REQUIRES(mutex_);

  // Reports to the relay's queue: what happened since the last report, in an order that keeps
  // each direction's bytes before its end and every byte before the error.
  void flushReports() TW_EXCLUDES(mutex_);
  void deliverReports() TW_EXCLUDES(mutex_);

  const std::shared_ptr<DispatchQueue> queue_;
  const std::weak_ptr<SpliceObserver> observer_;

  Mutex mutex_;
  End agent_ TW_GUARDED_BY(mutex_);
  End upstream_ TW_GUARDED_BY(mutex_);
  Direction toUpstream_ TW_GUARDED_BY(mutex_);
  Direction toAgent_ TW_GUARDED_BY(mutex_);
  // No more pumping: an error, or close().
  bool stopped_ TW_GUARDED_BY(mutex_) = false;
  bool closed_ TW_GUARDED_BY(mutex_) = false;
  std::size_t unreported_[2] TW_GUARDED_BY(mutex_) = {0, 0};
  bool endUnreported_[2] TW_GUARDED_BY(mutex_) = {false, false};
  std::optional<std::pair<SpliceSide, int>> failure_ TW_GUARDED_BY(mutex_);
  bool failureReported_ TW_GUARDED_BY(mutex_) = false;
  // Set while a report is posted: the report holds the splice through it, not through a
  // capture, so posting it allocates nothing.
  std::shared_ptr<AsioStreamSplice> reporting_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
