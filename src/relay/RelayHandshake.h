#pragma once
// One flow's way into the front door: dial it (once more after a setup failure, since the daemon
// may be mid-restart), send the CONNECT preamble, read the acknowledgement, all within one budget
// that covers both attempts. The outcome is settled exactly once through a RelayGate: a hand-off
// to a RelaySession, or a fail-open (what the failure says about the front door goes to the
// circuit breaker, then the direct leg takes the flow).
//
// Owned by its pending operations: the budget timer holds it for the whole budget, and each
// preamble send and acknowledgement read while it is outstanding. Connection state handlers hold
// it weakly. Once settled it lets go of the flow and the front-door connection, so a relay that
// ends early is not kept alive by the timer that waits out the rest of the budget. start() runs on
// the caller's thread; every callback on the relay queue.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/Dispatch.h"
#include "platform/Mutex.h"
#include "platform/Network.h"
#include "platform/NetworkExtension.h"
#include "relay/AckReader.h"
#include "relay/FailOpenReason.h"
#include "relay/FrontDoorProbe.h"
#include "relay/RelayEvent.h"
#include "relay/RelayGate.h"
#include "relay/RelayServices.h"

namespace tarnwick {

class RelayHandshake : public std::enable_shared_from_this<RelayHandshake> {
 public:
  // Arms the budget on `queue` and makes the first dial; returns at once.
  static void start(std::shared_ptr<const RelayServices> services, NWEndpoint frontDoor,
                    std::shared_ptr<DispatchQueue> queue, std::shared_ptr<NEAppProxyTCPFlow> flow,
                    RelayEventFields fields, std::string trace);

 private:
  RelayHandshake(std::shared_ptr<const RelayServices> services, NWEndpoint frontDoor,
                 std::shared_ptr<DispatchQueue> queue, std::shared_ptr<NEAppProxyTCPFlow> flow,
                 RelayEventFields fields, std::string trace);

  void armBudget();
  void dialOnce(std::int64_t attemptsLeft);
  void onSetupFailure(const std::shared_ptr<NWConnection>& attempt, std::int64_t attemptsLeft,
                      const char* word, const std::string& detail);
  void onPreambleSent(const std::shared_ptr<NWConnection>& attempt,
                      const std::optional<NWError>& error);
  void onAck(const std::shared_ptr<NWConnection>& attempt, AckOutcome outcome);
  // The one fail-open action shared by every failure path; `verdict` is what the failure says
  // about the front door.
  void failOpen(FailOpenReason reason, FrontDoorVerdict verdict);

  struct Held {
    std::shared_ptr<NEAppProxyTCPFlow> flow;
    std::shared_ptr<NWConnection> connection;
  };
  // What the settled handshake hands on; called once, by whoever claimed the gate.
  Held letGo();

  const std::shared_ptr<const RelayServices> services_;
  const NWEndpoint frontDoor_;
  const std::shared_ptr<DispatchQueue> queue_;
  const RelayEventFields fields_;
  const std::string trace_;

  RelayGate gate_;
  Mutex mutex_;
  std::shared_ptr<NEAppProxyTCPFlow> flow_ TW_GUARDED_BY(mutex_);
  // The front-door connection of the latest attempt.
  std::shared_ptr<NWConnection> current_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
