#pragma once
// Whether a failed front-door connection is dialled again or the flow fails open. Pure: the
// handshake carries the count of redials still allowed and passes it in. Only a failure while the
// connection is being set up earns a redial, because a daemon in the middle of a restart refuses
// or stalls exactly then; anything later goes straight to the direct leg.

#include <cstdint>

namespace tarnwick {

class RelayDialPolicy {
 public:
  enum class FailurePhase {
    // The connection reported waiting or failed before it was established.
    ConnectionSetup,
    // A failure after the connection was established.
    PostSetup,
  };

  class Decision {
   public:
    // Dial once more; `remaining` redials are still allowed after this one.
    static Decision redial(std::int64_t remaining) { return Decision(true, remaining); }
    // Give up on the front door for this flow.
    static Decision failOpen() { return Decision(false, 0); }

    bool isRedial() const { return redial_; }
    std::int64_t remaining() const { return remaining_; }
    bool operator==(const Decision&) const = default;

   private:
    Decision(bool redial, std::int64_t remaining) : redial_(redial), remaining_(remaining) {}
    bool redial_;
    std::int64_t remaining_;
  };

  RelayDialPolicy() = delete;

  // Safe from any thread; no side effects.
  static Decision decide(FailurePhase phase, std::int64_t attemptsLeft);
};

}  // namespace tarnwick
