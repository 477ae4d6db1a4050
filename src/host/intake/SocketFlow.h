#pragma once
// An app-proxy TCP flow over an accepted client socket: the provider reads what the client sent
// and writes what it should receive. Every completion is posted to the flow's framework queue,
// never run inside the provider's call.
//
// An idle flow holds no buffer: a read waits for readiness on the host loop and only then reads
// into the loop's scratch space, copying out exactly what arrived. A read reads at once when the
// last one filled the scratch space, since more is then likely waiting. Writes go straight to the
// socket; what does not fit waits for writability.
//
// The bytes read from and written to the client are added to the host's counters, when given.
//
// Handing over: an open, idle flow (no write going out, no completion on its way) gives its
// socket to a splicer, which counts its bytes on the host's counters from then on.
//
// Methods: any thread. onIoEvent: the loop thread. mutex_ guards the socket and the pending
// operations; completions are posted after it is released.

#include <memory>
#include <optional>
#include <vector>

#include "host/HostLoop.h"
#include "host/status/HostCounters.h"
#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/NetworkExtension.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class SocketFlow : public NEAppProxyTCPFlow,
                   public IoHandler,
                   public std::enable_shared_from_this<SocketFlow> {
 public:
  static std::shared_ptr<SocketFlow> create(std::shared_ptr<HostLoop> loop, UniqueFd socket,
                                            NWHostEndpoint remote, NEFlowMetaData metaData,
                                            std::shared_ptr<DispatchQueue> framework,
                                            std::shared_ptr<HostCounters> counters = nullptr);
  ~SocketFlow() override;

  // NEAppProxyTCPFlow.
  void open(std::optional<NWHostEndpoint> localEndpoint, OpenCompletion completion) override;
  NEFlowMetaData metaData() const override { return meta_data_; }
  void readData(ReadCompletion completion) override;
  void write(Bytes data, WriteCompletion completion) override;
  void closeReadWithError(std::optional<NEError> error) override;
  void closeWriteWithError(std::optional<NEError> error) override;
  std::optional<NWHostEndpoint> remoteEndpoint() const override { return remote_; }
  Detachable detachable() override;
  std::optional<DetachedSocket> detachSocket() override;

  // The socket back, for a flow the provider did not take; absent once the flow was opened.
  std::optional<UniqueFd> takeSocket();
  // Ends the flow at once, as a stopping host does: the client's connection is reset, and the
  // pending read and writes fail, so whatever carries the flow lets go of it. A socket handed
  // over to a splicer is reset by the splicer, which tells the relay.
  void abort();

  void onIoEvent(std::uint32_t tag, std::uint32_t events) override;

 private:
  struct PendingWrite {
    Bytes data;
    std::size_t sent = 0;
    WriteCompletion completion;
  };

  SocketFlow(std::shared_ptr<HostLoop> loop, UniqueFd socket, NWHostEndpoint remote,
             NEFlowMetaData metaData, std::shared_ptr<DispatchQueue> framework,
             std::shared_ptr<HostCounters> counters);

  // Each returns the completions to post once the lock is released.
  void tryReadLockHeld(std::vector<Work>& out) TW_REQUIRES(mutex_);
  void tryWriteLockHeld(std::vector<Work>& out) TW_REQUIRES(mutex_);
  void failWritesLockHeld(const NEError& error, std::vector<Work>& out) TW_REQUIRES(mutex_);
  void shutWriteLockHeld() TW_REQUIRES(mutex_);
  void finishCloseLockHeld() TW_REQUIRES(mutex_);
  void rearmLockHeld() TW_REQUIRES(mutex_);
  Detachable detachableLocked() TW_REQUIRES(mutex_);
  // A read's or a write's completion, owed to its caller until it runs.
  Work owedLockHeld(Work completion) TW_REQUIRES(mutex_);
  void post(std::vector<Work>& work);

  const std::shared_ptr<HostLoop> loop_;
  const NWHostEndpoint remote_;
  const NEFlowMetaData meta_data_;
  const std::shared_ptr<DispatchQueue> framework_;
  const std::shared_ptr<HostCounters> counters_;  // may be empty
  Mutex mutex_;
  UniqueFd socket_ TW_GUARDED_BY(mutex_);
  std::uint64_t loop_id_ TW_GUARDED_BY(mutex_) = 0;  // 0 until opened
  bool opened_ TW_GUARDED_BY(mutex_) = false;
  bool read_closed_ TW_GUARDED_BY(mutex_) = false;
  bool write_closed_ TW_GUARDED_BY(mutex_) = false;
  bool write_shut_ TW_GUARDED_BY(mutex_) = false;
  ReadCompletion pending_read_ TW_GUARDED_BY(mutex_);
  // Whether the socket may hold more than the last read took; a new flow's client has usually
  // sent something already.
  bool may_have_more_ TW_GUARDED_BY(mutex_) = true;
  // Rarely more than one; a vector costs an idle flow nothing, where a deque keeps a block.
  std::vector<PendingWrite> pending_writes_ TW_GUARDED_BY(mutex_);
  std::size_t owed_ TW_GUARDED_BY(mutex_) = 0;
  // Set once the socket is handed over: how an abort reaches whoever carries it.
  std::shared_ptr<AbortLatch> handed_over_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick::host
