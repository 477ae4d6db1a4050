#pragma once
// Why a watched flow went to its destination directly, uninspected: the "reason" of every
// "relay.failopen" event, which is how the daemon learns what went wrong with the front door.

#include <string_view>

namespace tarnwick {

enum class FailOpenReason {
  CircuitOpen,             // the circuit breaker refused the front door
  InvalidFrontPort,        // the configured front-door port was refused
  HandshakeTimeout,        // the handshake budget ran out
  PreambleSendFailed,      // the CONNECT preamble could not be sent
  NoAck,                   // no good acknowledgement
  RelayWaiting,            // the front-door connection stuck waiting, no redial left
  RelayFailed,             // the front-door connection failed, no redial left
  RelayWriteFailed,        // a session could not send agent bytes before any response
  PassthroughDial,         // the front door closed a session before any response
  AckThenSilence,          // the front door acknowledged and then said nothing
  PassthroughDialSpliced,  // a session's direct connection has taken over
};

// The event text of each reason, byte for byte.
std::string_view failOpenReasonText(FailOpenReason reason);

}  // namespace tarnwick
