#pragma once
// Reading the front door's acknowledgement of the CONNECT preamble: bytes up to the first
// "\r\n\r\n" form the head, which is good when it is valid UTF-8 and mentions "200" anywhere.
// The status line is not parsed for that: the front door is ours, and a plain substring test is
// what it promises to satisfy. A head that is not good still says something: a well-formed status
// line (a 407, a 502) proves the front door alive, whereas garbage does not.
//
// Bytes after the terminator are the destination's first bytes (servers that speak first: SMTP,
// SSH, databases), which the front door may send in the same segment as its head: they are kept
// for the agent, never dropped.

#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "platform/Bytes.h"
#include "platform/Network.h"

namespace tarnwick {

// "HTTP/<digit>.<digit> <three digits>" followed by a space, CR or nothing: the start of a reply
// from something that speaks HTTP.
bool startsWithStatusLine(std::string_view text);

class AckScanner {
 public:
  enum class Verdict {
    NeedMore,
    Good,
    // A head with a well-formed status line that is not good: the front door declined.
    Rejected,
    // A head that is not HTTP, or more than kMaxHeadBytes without a terminator.
    Garbage,
  };

  // Most bytes held while the terminator has not been seen.
  static constexpr std::size_t kMaxHeadBytes = 8192;

  // Takes the next chunk; once it answers anything but NeedMore it is done.
  Verdict append(const Bytes& chunk);
  // The bytes that followed the terminator, once judged.
  Bytes takeLeftover() { return std::exchange(leftover_, Bytes()); }

 private:
  Bytes buffer_;
  Bytes leftover_;
};

// How the acknowledgement read ended.
struct AckOutcome {
  enum class Kind {
    Good,
    Rejected,
    Garbage,
    // The stream ended or failed before the terminator.
    Cut,
  };
  Kind kind = Kind::Cut;
  // For Good: the destination's first bytes, that came after the terminator.
  Bytes leftover;
  // The receive that completed the head also ended the stream, or failed.
  bool isComplete = false;
  std::optional<NWError> error;
};

// Posts receives of 1 to 1024 bytes on `connection` until the acknowledgement is judged.
// `completion` runs exactly once, on the connection's queue. The pending receive holds the
// connection.
void readAck(std::shared_ptr<NWConnection> connection,
             std::function<void(AckOutcome outcome)> completion);

}  // namespace tarnwick
