#pragma once
// A Unix-domain stream socket descriptor, shared by the parties that use one connection: the
// write stream that owns it (OutputStream) and a blocking read loop. The descriptor is closed
// when the last holder lets go, so its number cannot be handed to a new socket while a read loop
// still reads it; shutdown() is what ends the connection for both holders at once.
//
// Every call may come from any thread. Failures come back as errno values or a count of 0 or
// less, never as exceptions or signals.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "platform/Clock.h"

namespace tarnwick {

class NativeSocket {
 public:
  struct Created {
    std::shared_ptr<NativeSocket> socket;  // absent on failure
    int error = 0;                         // errno of the failed socket() call
  };

  // socket(AF_UNIX, SOCK_STREAM, 0), close-on-exec.
  static Created unixStream();

  explicit NativeSocket(int fd) : fd_(fd) {}
  ~NativeSocket();
  NativeSocket(const NativeSocket&) = delete;
  NativeSocket& operator=(const NativeSocket&) = delete;

  // Connects to the path as the platform's address structure holds it: the UTF-8 bytes and a
  // terminating zero, cut without an error (and without the zero) at the size of sun_path; the
  // address length is the size of the whole structure. 0 or errno.
  int connectUnix(std::string_view path);
  // SO_SNDTIMEO: a send that cannot finish within `timeout` comes back short or failed.
  void setSendTimeout(Duration timeout);
  // One send of at most `length` bytes; never raises SIGPIPE. Bytes sent, or -1 (errno set).
  std::int64_t send(const std::uint8_t* bytes, std::size_t length);
  // One blocking read of at most `length` bytes: the count, 0 at the end of the stream, or -1.
  std::int64_t receive(std::uint8_t* bytes, std::size_t length);
  // Ends the connection both ways; wakes a receive() blocked in another thread.
  void shutdown();

  int fd() const { return fd_; }

 private:
  const int fd_;
};

}  // namespace tarnwick
