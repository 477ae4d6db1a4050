#pragma once
// Reading the front door's acknowledgement of the CONNECT preamble: bytes up to the first
// "\r\n\r\n" form the head, which is good when it is valid UTF-8 and mentions "200" anywhere.
// The status line is not parsed: the front door is ours, and a plain substring test is what it
// promises to satisfy.

#include <functional>
#include <memory>
#include <optional>

#include "platform/Bytes.h"
#include "platform/Network.h"

namespace tarnwick {

class AckScanner {
 public:
  enum class Verdict { NeedMore, Good, Bad };

  // Most bytes held while the terminator has not been seen.
  static constexpr std::size_t kMaxHeadBytes = 8192;

  // Takes the next chunk. Bytes after the terminator are dropped, neither judged nor kept.
  Verdict append(const Bytes& chunk);

 private:
  Bytes buffer_;
};

// Posts receives of 1 to 1024 bytes on `connection` until the acknowledgement is judged.
// `completion` runs exactly once, on the connection's queue, with true for a good
// acknowledgement; the end of the stream or an error before the terminator is a bad one.
// The pending receive holds the connection.
void readAck(std::shared_ptr<NWConnection> connection, std::function<void(bool good)> completion);

}  // namespace tarnwick
