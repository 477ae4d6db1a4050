#pragma once
// How the front door treats every connection: relaying, or one of the faults that clients of a
// front door must survive.

#include <optional>
#include <string_view>

namespace tarnwick::frontdoor {

enum class FrontDoorMode {
  Normal,          // dial the destination, acknowledge, relay
  Refuse,          // hold the port without listening: connects are refused
  Silent,          // accept and read, never answer, never close
  Reject,          // answer 407 and close
  AckThenClose,    // answer 200 and close
  AckThenSilence,  // answer 200, then read and discard, never send
  SlowAck,         // wait the configured delay, then behave as Normal
  Garbage,         // answer a head that is not HTTP, then close
};

// The command-line names: "normal", "refuse", "silent", "reject", "ack-then-close",
// "ack-then-silence", "slow-ack", "garbage".
std::string_view modeName(FrontDoorMode mode);
std::optional<FrontDoorMode> modeFromName(std::string_view name);

}  // namespace tarnwick::frontdoor
