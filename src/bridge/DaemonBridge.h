#pragma once
// The extension's one channel to the daemon: a Unix-domain stream socket carrying one JSON event
// per line out, and the daemon's lines (policy pushes) in.
//
// Process-wide (shared()); tests make their own with create(). Every public operation may be
// called from any thread, returns at once and never reports a failure: the work runs on the
// serial bridge queue, which owns every field but the outbox of send() (there is no other lock),
// and failures end in a log line on netLog and, for the connection, one retry 2 seconds later.
// The bridge queue is an off-lane queue: its blocking connect and writes (up to the send timeout
// each) never hold up a thread that carries flows. Events wait in an outbox that the queue
// empties in one turn, all its lines in one write; at most kMaxPendingEvents wait there, and more
// are dropped at once rather than making their producer wait or the outbox grow without end.
// The blocking read loop runs on a queue of its own and hands what it reads back to the bridge
// queue, pausing while InboundBacklog::kLimitBytes of it wait there. Every closure holds the
// bridge weakly and does nothing once it is gone.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bridge/DaemonChannel.h"
#include "bridge/EventOutbox.h"
#include "bridge/InboundBacklog.h"
#include "bridge/LineBuffer.h"
#include "platform/Bytes.h"
#include "platform/Dispatch.h"
#include "platform/Json.h"
#include "platform/NativeSocket.h"
#include "platform/OutputStream.h"

namespace tarnwick {

class DaemonBridge : public DaemonChannel, public std::enable_shared_from_this<DaemonBridge> {
 public:
  // Takes each pushed policy document; called on the bridge queue.
  using PolicySink = std::function<void(const Json& document)>;

  static constexpr Duration kReconnectDelay = std::chrono::seconds(2);
  // Bounds how long one write can hold the bridge queue when the daemon stops reading: a write
  // that moves nothing in that time ends the connection.
  static constexpr Duration kSendTimeout = std::chrono::milliseconds(250);
  static constexpr std::size_t kReadChunkBytes = 4096;
  // Events handed to send() and not yet taken by the bridge queue. Far more than a burst of
  // flows produces; a daemon that reads this slowly loses the excess, with a log line.
  static constexpr std::size_t kMaxPendingEvents = EventOutbox::kMaxEvents;

  // How long the process-wide bridge lets the first event of a batch wait for the events that
  // follow it: a relayed connection makes several within a millisecond or so, and each batch
  // costs the bridge queue one wake-up and the daemon one write.
  static constexpr Duration kBatchWindow = std::chrono::milliseconds(1);

  struct Options {
    Duration reconnectDelay = kReconnectDelay;
    // Zero: a batch goes out as soon as the bridge queue gets to it.
    Duration batchWindow = Duration::zero();
    Duration sendTimeout = kSendTimeout;
    // Absent: the process-wide enforcement policy.
    PolicySink policySink;
  };

  struct ResolvedSocket {
    std::string path;
    bool real = false;  // the path came from the start options
  };

  // The process-wide bridge on the real runtime, at the default path, created on first use.
  static std::shared_ptr<DaemonBridge> shared();
  // Opens nothing: only adoptPath(), connect() and reconnect() open the connection.
  static std::shared_ptr<DaemonBridge> create(std::shared_ptr<Runtime> runtime,
                                              std::string socketPath);
  static std::shared_ptr<DaemonBridge> create(std::shared_ptr<Runtime> runtime,
                                              std::string socketPath, Options options);
  // Closes the connection, which ends its read loop.
  ~DaemonBridge() override;

  // "socketPath" of the start options, else that of their "providerConfiguration", else the
  // home directory followed by "/.tarnwick/ne.sock". An empty text or another type is absent.
  static ResolvedSocket resolveSocket(const std::optional<Json>& fromConfig);
  static std::string resolveSocketPath(const std::optional<Json>& fromConfig);

  // Use `path`; a default path (real false) never replaces one from configuration.
  void adoptPath(std::string path, bool real) override;
  // Opens the connection to the current path unless one is open.
  void connect();
  // Drops the connection, switches to `to` and connects again, unconditionally.
  void reconnect(std::string to);
  // Writes the event as one line; dropped when there is no open connection.
  void send(Json event) override;
  // Counts a committed relay's sever when there is no open connection, for the next one.
  void recordCommittedSeverIfUnhealthy() override;
  // Writes what waits in the outbox now, without waiting out the batch window, then calls `done`
  // on the bridge queue. For a process about to end: its last events would otherwise be lost.
  void flush(Work done);

  // The most inbound bytes that waited at once on the current connection. The bridge queue's own
  // thread only (a simulated runtime's test thread).
  std::size_t inboundPeakBytesForTest() const;

 private:
  DaemonBridge(std::shared_ptr<Runtime> runtime, std::string socketPath, Options options);

  // Runs `work` on the bridge queue with the bridge, if it still exists then.
  void onQueue(std::function<void(DaemonBridge&)> work);

  bool streamOpenLocked() const;
  void closeStreamLocked();
  void switchPathLocked(std::string path);
  void adoptPathLocked(std::string path, bool real);
  void openLocked();
  void scheduleReconnect();
  // Writes every event waiting in the outbox, in the order they were sent.
  void drainOutboxLocked();
  void reportDroppedEventsLocked(std::int64_t dropped);
  void logFirstSendLocked(const Json& event, std::size_t bytes);
  // Writes all of `bytes`; false when the connection failed or took nothing for a send timeout.
  bool writeAllLocked(std::string_view bytes, std::int64_t& written);
  void flushSeversLocked();
  void recordSeverLocked();
  void startReadLoop(std::shared_ptr<NativeSocket> socket);
  static void ingest(const std::weak_ptr<DaemonBridge>& weak,
                     const std::shared_ptr<DispatchQueue>& queue,
                     const std::shared_ptr<InboundBacklog>& backlog, Bytes chunk);
  void ingestLocked(const Bytes& chunk);
  void handleInboundLine(std::string_view line);
  std::int64_t currentTimestampNs() const;

  const std::shared_ptr<Runtime> runtime_;
  Options options_;
  std::string socket_path_;
  std::unique_ptr<OutputStream> output_stream_;
  // The current connection's; closed with it, which ends a read loop waiting for room.
  std::shared_ptr<InboundBacklog> inbound_;
  const std::shared_ptr<DispatchQueue> queue_;
  const std::shared_ptr<DispatchQueue> read_queue_;
  LineBuffer read_buffer_;
  bool reconnect_in_flight_ = false;
  bool logged_first_send_ = false;
  bool has_config_path_ = false;
  std::int64_t sever_pending_ = 0;
  // The batch being written and its lines; kept so a turn of the queue allocates nothing.
  std::vector<Json> batch_;
  std::string batch_lines_;
  // Touched by send() on its callers' threads.
  EventOutbox outbox_;
};

}  // namespace tarnwick
