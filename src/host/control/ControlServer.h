#pragma once
// The control socket: a Unix stream socket, root-only (mode 0600), taking one message per
// connection. The client writes the message and shuts its write side; the provider's reply to
// it (handleAppMessage) is written back and the connection closed.
//
// listen() and close(): the owner's thread. Connections: the loop thread; the provider is called
// on the framework queue given at construction.

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

#include "host/HostLoop.h"
#include "platform/Dispatch.h"
#include "platform/NetworkExtension.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class ControlServer : public IoHandler, public std::enable_shared_from_this<ControlServer> {
 public:
  // A message larger than this is not a watch set; its connection is closed unanswered.
  static constexpr std::size_t kMaximumMessageBytes = 4 << 20;

  static std::shared_ptr<ControlServer> create(
      std::shared_ptr<HostLoop> loop, std::shared_ptr<DispatchQueue> framework,
      std::shared_ptr<NETransparentProxyProvider> provider);
  ~ControlServer() override;

  // Binds `path` (a stale socket there is replaced, any other file makes it fail), mode 0600.
  // On failure returns false with a one-line reason and leaves no file behind.
  bool listen(const std::string& path, std::string& error);
  // Stops listening and removes the socket file.
  void close();

  void onIoEvent(std::uint32_t tag, std::uint32_t events) override;

 private:
  class Connection;

  ControlServer(std::shared_ptr<HostLoop> loop, std::shared_ptr<DispatchQueue> framework,
                std::shared_ptr<NETransparentProxyProvider> provider);
  void acceptAll();
  void answer(std::uint64_t id, Bytes message);
  void drop(std::uint64_t id);

  const std::shared_ptr<HostLoop> loop_;
  const std::shared_ptr<DispatchQueue> framework_;
  const std::shared_ptr<NETransparentProxyProvider> provider_;
  UniqueFd listener_;
  std::string path_;
  std::uint64_t loop_id_ = 0;
  // Loop thread only, but for close() after the loop has stopped.
  std::unordered_map<std::uint64_t, std::shared_ptr<Connection>> connections_;
};

// The client side: sends `message` over the control socket at `path`, ends its write side and
// reads the reply to the end. Absent with a one-line reason on failure. Blocks.
std::optional<Bytes> sendControlMessage(const std::string& path, const Bytes& message,
                                        std::string& error);

}  // namespace tarnwick::host
