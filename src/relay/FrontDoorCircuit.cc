#include "relay/FrontDoorCircuit.h"

#include <algorithm>

namespace tarnwick {

using Kind = FrontDoorCircuitState::Kind;

FrontDoorCircuit::FrontDoorCircuit(std::int64_t failureThreshold, Seconds failureWindow,
                                   Seconds openCooldown)
    : failureThreshold_(failureThreshold),
      failureWindow_(failureWindow),
      openCooldown_(openCooldown) {}

bool FrontDoorCircuit::allowRelay(WallTime now) {
  switch (state_.kind()) {
    case Kind::Closed:
      return true;
    case Kind::HalfOpen:
      return false;
    case Kind::Open:
      // Measured on the wall clock as it reads now: a clock set back only lengthens the wait.
      if (Seconds(now - state_.since()) < openCooldown_) return false;
      state_ = FrontDoorCircuitState::halfOpen();
      return true;
  }
  return false;
}

void FrontDoorCircuit::recordFailure(WallTime now) {
  switch (state_.kind()) {
    case Kind::Closed:
      pruneFailures(now - std::chrono::duration_cast<WallTime::duration>(failureWindow_));
      failures_.push_back(now);
      if (static_cast<std::int64_t>(failures_.size()) >= failureThreshold_) openAt(now);
      return;
    case Kind::HalfOpen:
      openAt(now);
      return;
    case Kind::Open:
      // Relays admitted before the circuit opened neither extend nor restart the cool-down.
      return;
  }
}

void FrontDoorCircuit::recordSuccess(WallTime) {
  switch (state_.kind()) {
    case Kind::Closed:
      failures_.clear();
      return;
    case Kind::HalfOpen:
      state_ = FrontDoorCircuitState::closed();
      failures_.clear();
      return;
    case Kind::Open:
      return;
  }
}

void FrontDoorCircuit::pruneFailures(WallTime before) {
  std::erase_if(failures_, [before](WallTime failure) { return failure < before; });
}

void FrontDoorCircuit::openAt(WallTime now) {
  state_ = FrontDoorCircuitState::open(now);
  failures_.clear();
}

}  // namespace tarnwick
