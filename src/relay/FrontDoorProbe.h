#pragma once
// What a front-door failure tells the circuit breaker. The breaker is about the front door, not
// about destinations: a refused dial to the front door, a reset before its acknowledgement or an
// acknowledgement that is not HTTP are its own failures; a reply with a well-formed status line
// proves it alive, whatever the status. A handshake that runs out of time, or an acknowledged
// connection that ends before its first response byte, may be the destination's doing (the front
// door waits on its own dial; many servers accept and close at once): such a failure is only a
// suspicion, settled by a liveness probe the front door can answer at once.
//
// The probe is a fresh short dial to the front door with a request any HTTP proxy answers without
// dialling anywhere. A well-formed status line within the budget means healthy (one success on
// the circuit); a refusal, reset, end, garbage or silence means unhealthy (one failure). At most
// one probe is in flight for the whole engine: suspicions that come while one runs are settled by
// its answer, so a burst of failing flows costs one probe and counts once. A healthy answer also
// settles suspicions for one probe budget after it, so flows failing one after another against
// a live front door cost at most a probe a budget.
//
// Owned by the relay engine; its pending operations hold it weakly. Methods: any thread. The
// probe's connection runs on a queue of its own. mutex_ is never held while calling out.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/Clock.h"
#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/Network.h"
#include "relay/RelayContext.h"

namespace tarnwick {

enum class FrontDoorVerdict {
  // The front door itself failed: one circuit failure.
  Failed,
  // The front door answered: one circuit success.
  Alive,
  // The failure may be the destination's: a probe decides.
  Suspect,
};

class FrontDoorProbe : public std::enable_shared_from_this<FrontDoorProbe> {
 public:
  static constexpr const char* kQueueLabel = "dev.fernquill.tarnwick.proxyex.relay.probe";
  // Most bytes read while looking for the status line.
  static constexpr std::size_t kMaxReplyBytes = 1024;

  static std::shared_ptr<FrontDoorProbe> create(std::shared_ptr<Runtime> runtime,
                                                std::shared_ptr<NWConnectionFactory> connections,
                                                std::weak_ptr<RelayContext> context,
                                                Seconds budget);

  // A probe still in flight is abandoned.
  ~FrontDoorProbe();

  void setFrontDoor(std::string host, std::uint16_t port);
  // Tells the circuit breaker what `verdict` says; nothing once the provider is gone.
  void judge(FrontDoorVerdict verdict);

 private:
  FrontDoorProbe(std::shared_ptr<Runtime> runtime, std::shared_ptr<NWConnectionFactory> connections,
                 std::weak_ptr<RelayContext> context, Seconds budget);

  // Starts a probe unless one is in flight.
  void probe();
  void readReply(std::shared_ptr<NWConnection> connection, std::uint64_t generation,
                 std::shared_ptr<Bytes> reply);
  // Settles probe `generation` once; later answers of the same probe do nothing.
  void settle(std::uint64_t generation, bool healthy, const std::string& why);
  void record(bool healthy);

  const std::shared_ptr<Runtime> runtime_;
  const std::shared_ptr<NWConnectionFactory> connections_;
  const std::weak_ptr<RelayContext> context_;
  const Seconds budget_;
  const std::shared_ptr<DispatchQueue> queue_;

  Mutex mutex_;
  std::string host_ TW_GUARDED_BY(mutex_) = "127.0.0.1";
  std::uint16_t port_ TW_GUARDED_BY(mutex_) = 0;
  // Whether a probe is in flight, and its connection once made.
  bool probing_ TW_GUARDED_BY(mutex_) = false;
  std::shared_ptr<NWConnection> attempt_ TW_GUARDED_BY(mutex_);
  std::uint64_t generation_ TW_GUARDED_BY(mutex_) = 0;
  // When a probe last found the front door healthy.
  std::optional<MonotonicTime> healthyAt_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
