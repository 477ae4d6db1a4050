#pragma once
// How the two legs of a relayed flow (the agent's flow and the upstream connection) are closed
// when it ends. A stream cut short on one side (a reset, an error, a write that failed) ends with
// a reset on the other side, never with an end of stream that the program would take for a
// complete transfer.

#include <string>

#include "platform/Network.h"
#include "platform/NetworkExtension.h"
#include "platform/StreamSplicer.h"
#include "relay/FlowTarget.h"

namespace tarnwick {

struct RelayEnding {
  enum class Kind {
    // Both directions ended, or the relay gave up on its own: the upstream is cancelled and the
    // flow closed in both directions.
    Clean,
    // The agent's side was cut short: the upstream is reset.
    AgentCut,
    // The upstream side was cut short: the agent's connection is reset.
    UpstreamCut,
  };
  Kind kind = Kind::Clean;
  std::string detail;  // what cut the stream short

  static RelayEnding clean() { return {}; }
  static RelayEnding agentCut(std::string detail) { return {Kind::AgentCut, std::move(detail)}; }
  static RelayEnding upstreamCut(std::string detail) {
    return {Kind::UpstreamCut, std::move(detail)};
  }
};

// The error a flow is closed with to reset the agent's connection.
NEError relayResetError();

// Closes both legs as `ending` says; a cut is logged as carried.
void closeLegs(const RelayEnding& ending, NEAppProxyTCPFlow& flow, NWConnection& upstream,
               const FlowTarget& target);
// The same for legs whose sockets a splice carries: the splice closes them.
void closeSplicedLegs(const RelayEnding& ending, NEAppProxyTCPFlow& flow, StreamSplice& splice,
                      const FlowTarget& target);

}  // namespace tarnwick
