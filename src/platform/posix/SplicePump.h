#pragma once
// One direction of two spliced stream sockets: bytes go from the source socket through a pipe
// into the destination socket and never enter user space. The source's end of stream is passed
// on as a shutdown of the destination's write side once every byte before it is out. An error on
// either socket stops the direction and says which socket it came from.
//
// A direction holds a pipe from the pool only while bytes are in it. The sockets are the
// caller's and must be non-blocking. One thread at a time.

#include <cstddef>
#include <optional>

#include "platform/posix/PipePool.h"

namespace tarnwick {

class SplicePump {
 public:
  struct Step {
    std::size_t moved = 0;  // bytes written to the destination by this pump()
    int error = 0;          // errno of a failed splice; the direction is then stopped
    bool atSource = false;  // ... on the source socket (else on the destination)
  };

  // Moves what can move now. `passEnd` false leaves the destination's write side open at the
  // end of the stream (its owner is about to close the socket anyway).
  Step pump(int from, int to, PipePool& pipes, bool passEnd = true);

  // What the loop should wait for before pumping again: the source readable while the pipe is
  // empty, the destination writable while bytes wait in it.
  bool wantsRead() const { return !ended_ && buffered_ == 0; }
  bool wantsWrite() const { return buffered_ > 0; }
  // The source has ended its stream and every byte before the end is out.
  bool done() const { return done_; }

 private:
  // Fills the pipe from the source. False when the socket has nothing more for now.
  bool fill(int from, Step& step);
  // Empties the pipe into the destination. False when the destination has no room.
  bool drain(int to, Step& step);
  void finish(int to, PipePool& pipes, bool passEnd);

  std::optional<Pipe> pipe_;
  std::size_t buffered_ = 0;  // bytes in the pipe
  bool ended_ = false;        // the source has ended its stream
  bool done_ = false;         // ... and the end was passed on
};

}  // namespace tarnwick
