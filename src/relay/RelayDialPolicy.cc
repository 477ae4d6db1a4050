#include "relay/RelayDialPolicy.h"

namespace tarnwick {

RelayDialPolicy::Decision RelayDialPolicy::decide(FailurePhase phase, std::int64_t attemptsLeft) {
  if (phase != FailurePhase::ConnectionSetup) return Decision::failOpen();
  if (attemptsLeft < 1) return Decision::failOpen();
  return Decision::redial(attemptsLeft - 1);
}

}  // namespace tarnwick
