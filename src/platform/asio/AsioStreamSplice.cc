#include "platform/asio/AsioStreamSplice.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "platform/asio/AsioConnection.h"
#include "platform/asio/AsioRuntime.h"

namespace tarnwick {
namespace {

// Pumping runs on the lane thread only, so each lane keeps its pipes to itself.
PipePool& lanePipes() {
  thread_local PipePool pipes;
  return pipes;
}

std::size_t indexOf(SpliceDirection direction) {
  return direction == SpliceDirection::AgentToUpstream ? 0 : 1;
}

}  // namespace

AsioStreamSplice::End::End(asio::io_context& lane, DetachedSocket detached)
    : socket(DetachedSocket(UniqueFd())), stream(lane) {
  adopt(std::move(detached));
}

AsioStreamSplice::End::End(asio::io_context& lane, UpstreamSocket upstream)
    : socket(DetachedSocket(UniqueFd())), stream(lane) {
  if (auto* registered = std::get_if<asio::ip::tcp::socket>(&upstream)) {
    stream = asio::generic::stream_protocol::socket(std::move(*registered));
  } else {
    adopt(std::move(std::get<DetachedSocket>(upstream)));
  }
}

// The stream owns the socket from now on; `socket` keeps the owner's counters and latch. The
// protocol is never asked for: the splice only waits on the socket and closes it.
void AsioStreamSplice::End::adopt(DetachedSocket detached) {
  socket = std::move(detached);
  if (!socket.socket()) return;
  asio::error_code ignored;
  stream.assign(asio::generic::stream_protocol(AF_UNSPEC, 0), socket.socket().get(), ignored);
  if (!ignored) socket.socket().release();
}

std::shared_ptr<AsioStreamSplice> AsioStreamSplice::start(asio::io_context& lane,
                                                          DetachedSocket agent,
                                                          std::optional<UpstreamSocket> upstream,
                                                          std::shared_ptr<DispatchQueue> queue,
                                                          std::weak_ptr<SpliceObserver> observer) {
  const bool upstreamTaken = upstream.has_value();
  const std::shared_ptr<AbortLatch> latch = agent.abortLatch();
  std::shared_ptr<AsioStreamSplice> splice(new AsioStreamSplice(
      lane, std::move(agent),
      upstreamTaken ? std::move(*upstream) : UpstreamSocket(DetachedSocket(UniqueFd())),
      std::move(queue), std::move(observer)));
  if (latch) {
    latch->arm([weak = splice->weak_from_this()] {
      if (auto self = weak.lock()) self->abortAgent();
    });
  }
  // Both sockets may already hold bytes: the first pump runs on the lane, as all pumps do.
  asio::post(lane, [splice, upstreamTaken] {
    {
      MutexLock lock(splice->mutex_);
      if (!upstreamTaken || !splice->upstream_.stream.is_open()) {
        splice->failLocked(SpliceSide::Upstream, EBUSY);
      } else if (!splice->stopped_) {
        splice->pumpLocked(splice->toUpstream_);
        splice->pumpLocked(splice->toAgent_);
        splice->waitLocked();
      }
    }
    splice->flushReports();
  });
  return splice;
}

AsioStreamSplice::AsioStreamSplice(asio::io_context& lane, DetachedSocket agent,
                                   UpstreamSocket upstream, std::shared_ptr<DispatchQueue> queue,
                                   std::weak_ptr<SpliceObserver> observer)
    : queue_(std::move(queue)),
      observer_(std::move(observer)),
      agent_(lane, std::move(agent)),
      upstream_(lane, std::move(upstream)),
      toUpstream_{SpliceDirection::AgentToUpstream, {}, agent_, upstream_},
      toAgent_{SpliceDirection::UpstreamToAgent, {}, upstream_, agent_} {}

void AsioStreamSplice::close(Closing how) {
  {
    MutexLock lock(mutex_);
    if (closed_) return;
    closed_ = true;
    stopped_ = true;
    closeEndLocked(agent_, how == Closing::ResetAgent);
    closeEndLocked(upstream_, how == Closing::ResetUpstream);
  }
}

// Only the directions this readiness can move are pumped.
void AsioStreamSplice::onReady(End& end, bool writable, const asio::error_code& error) {
  {
    MutexLock lock(mutex_);
    (writable ? end.waitingWrite : end.waitingRead) = false;
    if (stopped_ || error == asio::error::operation_aborted) return;
    for (Direction* direction : {&toUpstream_, &toAgent_}) {
      if (&(writable ? direction->to : direction->from) == &end) pumpLocked(*direction);
    }
    waitLocked();
  }
  flushReports();
}

void AsioStreamSplice::pumpLocked(Direction& direction) {
  if (stopped_ || direction.pump.done()) return;
  const SplicePump::Step step = direction.pump.pump(
      direction.from.stream.native_handle(), direction.to.stream.native_handle(), lanePipes());
  if (step.moved > 0) {
    direction.to.socket.count(/*read=*/false, step.moved);
    direction.from.socket.count(/*read=*/true, step.moved);
    unreported_[indexOf(direction.id)] += step.moved;
  }
  if (step.error != 0) {
    const End& failedEnd = step.atSource ? direction.from : direction.to;
    return failLocked(&failedEnd == &agent_ ? SpliceSide::Agent : SpliceSide::Upstream, step.error);
  }
  if (direction.pump.done()) endUnreported_[indexOf(direction.id)] = true;
}

void AsioStreamSplice::waitLocked() {
  if (stopped_) return;
  for (Direction* direction : {&toUpstream_, &toAgent_}) {
    if (direction->pump.wantsRead()) waitOn(direction->from, /*writable=*/false);
    if (direction->pump.wantsWrite()) waitOn(direction->to, /*writable=*/true);
  }
}

void AsioStreamSplice::waitOn(End& end, bool writable) {
  bool& waiting = writable ? end.waitingWrite : end.waitingRead;
  if (waiting) return;
  waiting = true;
  end.stream.async_wait(writable ? asio::socket_base::wait_write : asio::socket_base::wait_read,
                        [self = shared_from_this(), &end, writable](const asio::error_code& error) {
                          self->onReady(end, writable, error);
                        });
}

void AsioStreamSplice::failLocked(SpliceSide side, int error) {
  stopped_ = true;
  if (!failure_) failure_ = std::make_pair(side, error);
}

// The agent learns of it at once; the upstream is the relay's to close.
void AsioStreamSplice::abortAgent() {
  {
    MutexLock lock(mutex_);
    closeEndLocked(agent_, /*reset=*/true);
    if (stopped_) return;
    failLocked(SpliceSide::Agent, ECONNABORTED);
  }
  flushReports();
}

// An abortive close lingers for no time, so closing the socket sends a reset.
void AsioStreamSplice::closeEndLocked(End& end, bool reset) {
  if (!end.stream.is_open()) return;
  if (reset) {
    const linger abort{1, 0};
    ::setsockopt(end.stream.native_handle(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
  }
  asio::error_code ignored;
  end.stream.close(ignored);
}

void AsioStreamSplice::flushReports() {
  std::shared_ptr<DispatchQueue> queue;
  {
    MutexLock lock(mutex_);
    const bool pending = unreported_[0] > 0 || unreported_[1] > 0 || endUnreported_[0] ||
                         endUnreported_[1] || (failure_ && !failureReported_);
    if (reporting_ || !pending || closed_) return;
    reporting_ = shared_from_this();
  }
  queue_->async([this] { deliverReports(); });
}

void AsioStreamSplice::deliverReports() {
  std::shared_ptr<AsioStreamSplice> self;
  std::size_t moved[2];
  bool ended[2];
  std::optional<std::pair<SpliceSide, int>> failure;
  {
    MutexLock lock(mutex_);
    self = std::exchange(reporting_, nullptr);
    if (closed_) return;
    for (std::size_t i : {0u, 1u}) {
      moved[i] = std::exchange(unreported_[i], 0);
      ended[i] = std::exchange(endUnreported_[i], false);
    }
    if (failure_ && !failureReported_) failure = failure_;
    failureReported_ = failure_.has_value();
  }
  const auto observer = observer_.lock();
  if (!observer) return;
  const SpliceDirection ids[2] = {SpliceDirection::AgentToUpstream,
                                  SpliceDirection::UpstreamToAgent};
  for (std::size_t i : {0u, 1u}) {
    if (moved[i] > 0) observer->spliceMoved(ids[i], moved[i]);
  }
  for (std::size_t i : {0u, 1u}) {
    if (ended[i]) observer->spliceEnded(ids[i]);
  }
  if (failure) observer->spliceFailed(failure->first, NWError::fromErrno(failure->second));
}

namespace {

class AsioStreamSplicer : public StreamSplicer {
 public:
  explicit AsioStreamSplicer(std::shared_ptr<AsioRuntime> runtime) : runtime_(std::move(runtime)) {}

  // The upstream is asked first and taken last: taking the agent's socket is the step that may
  // still find a read's bytes on their way, and nothing is taken then.
  Started splice(NEAppProxyTCPFlow& agent, NWConnection& upstream,
                 std::shared_ptr<DispatchQueue> queue,
                 std::weak_ptr<SpliceObserver> observer) override {
    const Detachable agentState = agent.detachable();
    const Detachable upstreamState = upstream.detachable();
    if (agentState == Detachable::Never || upstreamState == Detachable::Never) {
      return {nullptr, Refusal::Never};
    }
    if (agentState == Detachable::NotNow || upstreamState == Detachable::NotNow) {
      return {nullptr, Refusal::NotNow};
    }
    auto agentSocket = agent.detachSocket();
    if (!agentSocket) return {nullptr, Refusal::NotNow};
    asio::io_context* lane = &runtime_->pickLane().context();
    std::optional<AsioStreamSplice::UpstreamSocket> upstreamSocket;
    if (auto* connection = dynamic_cast<AsioConnection*>(&upstream)) {
      // The splice runs on the connection's lane, whose reactor already watches its socket.
      if (auto registered = connection->takeSocket()) {
        lane = &static_cast<asio::io_context&>(
            asio::query(registered->get_executor(), asio::execution::context));
        upstreamSocket.emplace(std::move(*registered));
      }
    } else if (auto detached = upstream.detachSocket()) {
      upstreamSocket.emplace(std::move(*detached));
    }
    return {AsioStreamSplice::start(*lane, std::move(*agentSocket), std::move(upstreamSocket),
                                    std::move(queue), std::move(observer)),
            Refusal::Never};
  }

 private:
  const std::shared_ptr<AsioRuntime> runtime_;
};

}  // namespace

std::shared_ptr<StreamSplicer> realStreamSplicer() {
  static const auto splicer = std::make_shared<AsioStreamSplicer>(processAsioRuntime());
  return splicer;
}

}  // namespace tarnwick
