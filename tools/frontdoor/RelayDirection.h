#pragma once
// One direction of a relayed connection: bytes read from one socket are written straight to the
// other. Only what the receiving socket does not take at once is kept, and while anything is
// kept the direction reads no more: a slow reader throttles its sender instead of growing a
// buffer, and an idle direction holds no memory at all. The end of the sender's stream is passed
// on as a half-close once everything before it is written.
// Used from the event loop's thread only.

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace tarnwick::frontdoor {

class RelayDirection {
 public:
  // Which socket a failure was on: the one read from, or the one written to.
  enum class Progress { Ok, ReadFailed, WriteFailed };

  bool wantsRead() const { return !ended_ && pending_.empty(); }
  bool wantsWrite() const { return !pending_.empty(); }
  // The sender's end has been passed on: nothing more will move this way.
  bool finished() const { return shut_down_; }
  std::uint64_t bytesForwarded() const { return forwarded_; }

  using FirstBytesObserver = std::function<void(std::span<const std::uint8_t>)>;
  // Shown the first payload forwarded this way, once: how the client's TLS hello is seen.
  void observeFirstBytes(FirstBytesObserver observer) { first_bytes_ = std::move(observer); }

  // One read from `from`, forwarded to `to`. scratch holds the read only for this call.
  Progress pump(int from, int to, std::span<std::uint8_t> scratch);
  // Payload that arrived another way (such as bytes sent right behind a request head).
  Progress forward(int to, std::span<const std::uint8_t> bytes);
  // Bytes of the front door's own (an acknowledgement): written, not counted.
  Progress inject(int to, std::span<const std::uint8_t> bytes);
  // Writes what is kept, once `to` is writable again.
  Progress flush(int to);

 private:
  Progress write(int to, std::span<const std::uint8_t> bytes);
  void passOnEnd(int to);

  FirstBytesObserver first_bytes_;
  std::vector<std::uint8_t> pending_;
  std::size_t pending_offset_ = 0;
  std::uint64_t forwarded_ = 0;
  bool ended_ = false;
  bool shut_down_ = false;
};

}  // namespace tarnwick::frontdoor
