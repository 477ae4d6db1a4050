#include "relay/FailOpenReason.h"

namespace tarnwick {

std::string_view failOpenReasonText(FailOpenReason reason) {
  switch (reason) {
    case FailOpenReason::CircuitOpen:
      return "circuit-open";
    case FailOpenReason::InvalidFrontPort:
      return "invalid-front-port";
    case FailOpenReason::HandshakeTimeout:
      return "handshake-timeout";
    case FailOpenReason::PreambleSendFailed:
      return "preamble-send-failed";
    case FailOpenReason::NoAck:
      return "no-ack";
    case FailOpenReason::RelayWaiting:
      return "relay-waiting";
    case FailOpenReason::RelayFailed:
      return "relay-failed";
    case FailOpenReason::RelayWriteFailed:
      return "relay-write-failed";
    case FailOpenReason::PassthroughDial:
      return "passthrough_dial";
    case FailOpenReason::AckThenSilence:
      return "ack-then-silence";
    case FailOpenReason::PassthroughDialSpliced:
      return "passthrough_dial_spliced";
  }
  return "unknown";
}

}  // namespace tarnwick
