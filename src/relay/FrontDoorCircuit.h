#pragma once
// The front-door circuit breaker: remembers recent front-door failures across flows so that a
// front door that is up but wedged does not make every watched flow pay the full handshake budget
// or a failover before failing open. Three failures within a minute open it; after a minute's
// cool-down one flow is let through as a probe, whose outcome closes or reopens it.
//
// A plain value with no lock and no clock: the caller passes the wall-clock time into every
// operation and serialises access (the provider holds it under its circuit lock).

#include <cstdint>
#include <vector>

#include "platform/Clock.h"

namespace tarnwick {

class FrontDoorCircuitState {
 public:
  enum class Kind {
    // Every relay is allowed; failures are being counted.
    Closed,
    // Relays are refused until the cool-down after `since()` has passed.
    Open,
    // One probe relay has been let through; all others wait for its outcome.
    HalfOpen,
  };

  static FrontDoorCircuitState closed() { return FrontDoorCircuitState(Kind::Closed, {}); }
  static FrontDoorCircuitState open(WallTime since) {
    return FrontDoorCircuitState(Kind::Open, since);
  }
  static FrontDoorCircuitState halfOpen() { return FrontDoorCircuitState(Kind::HalfOpen, {}); }

  Kind kind() const { return kind_; }
  // When the circuit opened; meaningful for Open only.
  WallTime since() const { return since_; }
  bool operator==(const FrontDoorCircuitState&) const = default;

 private:
  FrontDoorCircuitState(Kind kind, WallTime since) : kind_(kind), since_(since) {}
  Kind kind_;
  WallTime since_;
};

class FrontDoorCircuit {
 public:
  static constexpr std::int64_t kDefaultFailureThreshold = 3;
  static constexpr Seconds kDefaultFailureWindow{60.0};
  static constexpr Seconds kDefaultOpenCooldown{60.0};

  explicit FrontDoorCircuit(std::int64_t failureThreshold = kDefaultFailureThreshold,
                            Seconds failureWindow = kDefaultFailureWindow,
                            Seconds openCooldown = kDefaultOpenCooldown);

  // May this flow try the front door? The caller that flips an open circuit to half-open is the
  // probe.
  bool allowRelay(WallTime now);
  void recordFailure(WallTime now);
  void recordSuccess(WallTime now);

  const FrontDoorCircuitState& state() const { return state_; }

 private:
  // Drops failures strictly earlier than `before`; one exactly at the cut-off still counts.
  void pruneFailures(WallTime before);
  void openAt(WallTime now);

  std::int64_t failureThreshold_;
  Seconds failureWindow_;
  Seconds openCooldown_;
  FrontDoorCircuitState state_ = FrontDoorCircuitState::closed();
  // Times of recent failures while closed; empty in any other state.
  std::vector<WallTime> failures_;
};

}  // namespace tarnwick
