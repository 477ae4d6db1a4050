#pragma once
// TCP servers on the world host, run on threads of the test itself. One listening socket on every
// address of the world namespace (IPv4 and IPv6); each connection is served on a thread of its own.

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tarnwick::e2e {

enum class ServerKind {
  Echo,           // sends every byte back as it arrives; ends its side once the client has
  ReplyAfterEof,  // reads until the client ends its side, then sends it all back and closes
  Flood,          // sends without pause until the connection fails
  ResetEarly,     // reads 64 KiB, then resets the connection while the client is still sending
};

class WorldServer {
 public:
  static std::unique_ptr<WorldServer> start(const std::string& netns, ServerKind kind,
                                            std::string& error);
  ~WorldServer();
  WorldServer(const WorldServer&) = delete;
  WorldServer& operator=(const WorldServer&) = delete;

  std::uint16_t port() const { return port_; }
  int connectionsAccepted() const;
  // Cuts every open connection both ways, as a destination that goes away would.
  void severAll();

 private:
  WorldServer(int listenFd, int wakeRead, int wakeWrite, std::uint16_t port, ServerKind kind);
  void acceptLoop();
  void serve(int fd);

  const int listen_fd_;
  const int wake_read_;
  const int wake_write_;
  const std::uint16_t port_;
  const ServerKind kind_;
  mutable std::mutex mutex_;
  std::set<int> open_;
  std::vector<std::thread> workers_;
  int accepted_ = 0;
  std::thread acceptor_;
};

}  // namespace tarnwick::e2e
