#include "bridge/DaemonBridge.h"

#include <array>
#include <cassert>

#include "bridge/EventLine.h"
#include "bridge/InboundLine.h"
#include "platform/HomeDirectory.h"
#include "platform/Log.h"
#include "policy/EnforcementPolicy.h"

namespace tarnwick {

namespace {

constexpr const char* kQueueLabel = "dev.fernquill.tarnwick.netext.bridge";
constexpr const char* kReadQueueLabel = "dev.fernquill.tarnwick.netext.bridge.read";

// A non-empty text under "socketPath", if the value is an object holding one.
std::optional<std::string> socketPathIn(const Json& options) {
  const Json* path = jsonMember(options, "socketPath");
  if (!path || !path->is_string() || path->get_ref<const std::string&>().empty()) {
    return std::nullopt;
  }
  return path->get<std::string>();
}

}  // namespace

std::shared_ptr<DaemonBridge> DaemonBridge::shared() {
  // Never destroyed: flows and timers may still reach it while the process exits.
  static const auto* const instance = [] {
    Options options;
    options.batchWindow = kBatchWindow;
    return new std::shared_ptr<DaemonBridge>(
        create(realRuntime(), resolveSocketPath(std::nullopt), std::move(options)));
  }();
  return *instance;
}

std::shared_ptr<DaemonBridge> DaemonBridge::create(std::shared_ptr<Runtime> runtime,
                                                   std::string socketPath) {
  return create(std::move(runtime), std::move(socketPath), Options{});
}

std::shared_ptr<DaemonBridge> DaemonBridge::create(std::shared_ptr<Runtime> runtime,
                                                   std::string socketPath, Options options) {
  return std::shared_ptr<DaemonBridge>(
      new DaemonBridge(std::move(runtime), std::move(socketPath), std::move(options)));
}

DaemonBridge::DaemonBridge(std::shared_ptr<Runtime> runtime, std::string socketPath,
                           Options options)
    : runtime_(std::move(runtime)),
      options_(std::move(options)),
      socket_path_(std::move(socketPath)),
      queue_(runtime_->makeQueue(kQueueLabel, QualityOfService::Default, QueueKind::OffLane)),
      read_queue_(
          runtime_->makeQueue(kReadQueueLabel, QualityOfService::Default, QueueKind::Blocking)) {
  if (!options_.policySink) {
    options_.policySink = [](const Json& document) {
      EnforcementPolicy::shared().update(document);
    };
  }
}

DaemonBridge::~DaemonBridge() {
  // The read loop's queue is joined when it is destroyed below; ending the connection first is
  // what lets a read blocked on it, or a wait for room, return. No work of the bridge queue can
  // reach the bridge any more, so its fields are the destructor's.
  closeStreamLocked();
}

DaemonBridge::ResolvedSocket DaemonBridge::resolveSocket(const std::optional<Json>& fromConfig) {
  if (fromConfig) {
    if (auto path = socketPathIn(*fromConfig)) return {std::move(*path), true};
    if (const Json* inner = jsonMember(*fromConfig, "providerConfiguration")) {
      if (auto path = socketPathIn(*inner)) return {std::move(*path), true};
    }
  }
  return {homeDirectory() + "/.tarnwick/ne.sock", false};
}

std::string DaemonBridge::resolveSocketPath(const std::optional<Json>& fromConfig) {
  return resolveSocket(fromConfig).path;
}

void DaemonBridge::onQueue(std::function<void(DaemonBridge&)> work) {
  queue_->async([weak = weak_from_this(), work = std::move(work)] {
    if (auto self = weak.lock()) work(*self);
  });
}

void DaemonBridge::adoptPath(std::string path, bool real) {
  onQueue([path = std::move(path), real](DaemonBridge& self) mutable {
    self.adoptPathLocked(std::move(path), real);
  });
}

void DaemonBridge::connect() {
  onQueue([](DaemonBridge& self) { self.openLocked(); });
}

void DaemonBridge::reconnect(std::string to) {
  onQueue([to = std::move(to)](DaemonBridge& self) mutable {
    netLog().info("bridge: reconnect to %{public}s", to);
    self.switchPathLocked(std::move(to));
    self.openLocked();
  });
}

void DaemonBridge::send(Json event) {
  // The hottest path: only the first event of a batch wakes the bridge queue.
  if (outbox_.push(std::move(event)) != EventOutbox::Admission::QueuedFirst) return;
  Work drain = [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->drainOutboxLocked();
  };
  if (options_.batchWindow > Duration::zero()) {
    queue_->asyncAfter(options_.batchWindow, std::move(drain));
  } else {
    queue_->async(std::move(drain));
  }
}

void DaemonBridge::flush(Work done) {
  onQueue([done = std::move(done)](DaemonBridge& self) {
    self.drainOutboxLocked();
    done();
  });
}

void DaemonBridge::reportDroppedEventsLocked(std::int64_t dropped) {
  if (dropped == 0) return;
  netLog().error("bridge: dropped %ld events — %ld were already waiting to be written", dropped,
                 static_cast<std::int64_t>(kMaxPendingEvents));
}

std::size_t DaemonBridge::inboundPeakBytesForTest() const {
  return inbound_ ? inbound_->peakBytes() : 0;
}

void DaemonBridge::recordCommittedSeverIfUnhealthy() {
  onQueue([](DaemonBridge& self) { self.recordSeverLocked(); });
}

bool DaemonBridge::streamOpenLocked() const {
  return output_stream_ && output_stream_->streamStatus() == StreamStatus::Open;
}

void DaemonBridge::closeStreamLocked() {
  if (output_stream_) output_stream_->close();
  output_stream_.reset();
  if (inbound_) inbound_->close();
  inbound_.reset();
}

void DaemonBridge::switchPathLocked(std::string path) {
  socket_path_ = std::move(path);
  closeStreamLocked();
}

void DaemonBridge::adoptPathLocked(std::string path, bool real) {
  assert(queue_->isCurrent());
  if (!real && has_config_path_) return;
  if (real) has_config_path_ = true;
  if (path == socket_path_ && streamOpenLocked()) return;
  netLog().info("bridge: adopt %{public}s (real=%{bool}d)", path, real);
  switchPathLocked(std::move(path));
  openLocked();
}

void DaemonBridge::openLocked() {
  assert(queue_->isCurrent());
  if (streamOpenLocked()) return;
  closeStreamLocked();
  NativeSocket::Created created = NativeSocket::unixStream();
  if (!created.socket) {
    netLog().error("bridge: socket() failed errno=%d", created.error);
    scheduleReconnect();
    return;
  }
  // Set before the connect as well as for the writes: on this platform a connect to a listener
  // whose backlog is full waits for room, and the timeout bounds that wait too.
  created.socket->setSendTimeout(options_.sendTimeout);
  if (const int error = created.socket->connectUnix(socket_path_); error != 0) {
    netLog().error(
        "bridge: connect(%{public}s) failed errno=%d — is the daemon's ne.sock bound + readable "
        "by this (root) sysext?",
        socket_path_, error);
    scheduleReconnect();
    return;
  }
  output_stream_ = std::make_unique<OutputStream>(created.socket);
  output_stream_->open();
  netLog().info("bridge: connected to %{public}s", socket_path_);
  startReadLoop(std::move(created.socket));
  flushSeversLocked();
}

void DaemonBridge::scheduleReconnect() {
  assert(queue_->isCurrent());
  if (reconnect_in_flight_) return;
  reconnect_in_flight_ = true;
  queue_->asyncAfter(options_.reconnectDelay, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->reconnect_in_flight_ = false;
      self->openLocked();
    }
  });
}

void DaemonBridge::drainOutboxLocked() {
  assert(queue_->isCurrent());
  batch_.clear();
  reportDroppedEventsLocked(outbox_.take(batch_));
  if (batch_.empty()) return;
  if (!streamOpenLocked()) {
    for (std::size_t i = 0; i < batch_.size(); ++i) {
      netLog().error("bridge: send dropped — stream not open (scheduling reconnect to %{public}s)",
                     socket_path_);
    }
    scheduleReconnect();
    return;
  }
  batch_lines_.clear();
  // The first event that has a line, for the first delivery's log line.
  std::optional<std::size_t> firstBytes;
  std::size_t firstIndex = 0;
  for (std::size_t i = 0; i < batch_.size(); ++i) {
    const std::optional<std::string> line = EventLine::frame(batch_[i]);
    if (!line) continue;
    if (!firstBytes) {
      firstBytes = line->size();
      firstIndex = i;
    }
    batch_lines_ += *line;
  }
  if (!firstBytes) return;
  std::int64_t n = 0;
  if (!writeAllLocked(batch_lines_, n)) {
    netLog().error(
        "bridge: write failed (n=%ld) to %{public}s — peer likely gone (daemon restart); "
        "reconnecting",
        n, socket_path_);
    closeStreamLocked();
    scheduleReconnect();
    return;
  }
  if (!logged_first_send_) logFirstSendLocked(batch_[firstIndex], *firstBytes);
}

void DaemonBridge::logFirstSendLocked(const Json& event, std::size_t bytes) {
  logged_first_send_ = true;
  const Json* kind = jsonMember(event, "kind");
  const std::string kindText =
      kind && kind->is_string() ? kind->get<std::string>() : std::string("?");
  netLog().info("bridge: FIRST event delivered (%ld bytes, kind=%{public}s) → daemon",
                static_cast<std::int64_t>(bytes), kindText);
}

bool DaemonBridge::writeAllLocked(std::string_view bytes, std::int64_t& written) {
  while (!bytes.empty()) {
    written =
        output_stream_->write(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    if (written <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

void DaemonBridge::recordSeverLocked() {
  assert(queue_->isCurrent());
  if (streamOpenLocked()) return;
  ++sever_pending_;
  netLog().error(
      "bridge: committed relay sever during daemon-down (pending=%ld) — will flush "
      "proxy.env.dead on reconnect",
      sever_pending_);
  scheduleReconnect();
}

void DaemonBridge::flushSeversLocked() {
  assert(queue_->isCurrent());
  if (sever_pending_ <= 0 || !streamOpenLocked()) return;
  const Json event = {
      {"kind", "proxy.env.dead"}, {"count", sever_pending_}, {"ts", currentTimestampNs()}};
  const std::optional<std::string> line = EventLine::frame(event);
  std::int64_t n = 0;
  // A failed write keeps the count; the next send meets the failure and reconnects.
  if (!line || !writeAllLocked(*line, n)) return;
  netLog().info("bridge: flushed proxy.env.dead count=%ld → daemon", sever_pending_);
  sever_pending_ = 0;
}

void DaemonBridge::startReadLoop(std::shared_ptr<NativeSocket> socket) {
  inbound_ = std::make_shared<InboundBacklog>();
  // The loop never holds the bridge itself, so the bridge is never destroyed on the read queue.
  read_queue_->async(
      [weak = weak_from_this(), queue = queue_, backlog = inbound_, socket = std::move(socket)] {
        std::array<std::uint8_t, kReadChunkBytes> chunk{};
        while (backlog->waitForRoom()) {
          const std::int64_t n = socket->receive(chunk.data(), chunk.size());
          if (n <= 0) return;
          if (weak.expired()) continue;
          ingest(weak, queue, backlog, Bytes(chunk.begin(), chunk.begin() + n));
        }
      });
}

void DaemonBridge::ingest(const std::weak_ptr<DaemonBridge>& weak,
                          const std::shared_ptr<DispatchQueue>& queue,
                          const std::shared_ptr<InboundBacklog>& backlog, Bytes chunk) {
  backlog->add(chunk.size());
  queue->async([weak, backlog, chunk = std::move(chunk)] {
    if (auto self = weak.lock()) self->ingestLocked(chunk);
    backlog->release(chunk.size());
  });
}

void DaemonBridge::ingestLocked(const Bytes& chunk) {
  assert(queue_->isCurrent());
  read_buffer_.append(chunk, [this](std::string_view line) { handleInboundLine(line); });
}

void DaemonBridge::handleInboundLine(std::string_view line) {
  std::optional<Json> document = InboundLine::policyPush(line);
  if (!document) return;
  options_.policySink(*document);
  netLog().info("bridge: applied enforcement policy push");
}

std::int64_t DaemonBridge::currentTimestampNs() const {
  const double seconds = Seconds(runtime_->wallNow().time_since_epoch()).count();
  return static_cast<std::int64_t>(seconds * 1'000'000'000.0);
}

}  // namespace tarnwick
