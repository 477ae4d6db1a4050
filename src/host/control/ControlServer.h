#pragma once
// The control socket: a Unix stream socket (ControlSocket) taking one request per connection
// (ControlRequest). The client writes its request and ends its write side; a watch set goes to
// the provider (handleAppMessage) and its reply comes back as it is, a status query is answered
// with the host's status object; then the connection closes.
//
// No client can hold the socket: only root and the control group are served (ControlAccess,
// checked on every connection); a request must be whole within the read deadline and no larger
// than the size cap; and when the connections open reach their cap, the oldest one still
// sending makes room for the newest, so a silent client never stands in another's way.
//
// listen() and close(): the owner's thread. Connections: the loop thread. The provider and the
// status are asked on the framework queue, the deadlines kept on a queue of the runtime.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "host/HostLoop.h"
#include "host/control/ControlAccess.h"
#include "platform/Dispatch.h"
#include "platform/Json.h"
#include "platform/NetworkExtension.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::host {

class ControlServer : public IoHandler, public std::enable_shared_from_this<ControlServer> {
 public:
  struct Limits {
    Duration readDeadline = std::chrono::seconds(5);
    std::size_t maximumConnections = 32;
    // Far more than any watch set needs.
    std::size_t maximumRequestBytes = 1 << 20;
  };

  struct Parts {
    std::shared_ptr<HostLoop> loop;
    std::shared_ptr<DispatchQueue> framework;
    std::shared_ptr<Runtime> runtime;
    std::shared_ptr<NETransparentProxyProvider> provider;
    // The answer to a status query; called on the framework queue.
    std::function<Json()> status;
    ControlAccess access;
    Limits limits;
    // Delivers a watch-set message and hands back the reply; empty: the provider's
    // handleAppMessage. Called on the framework queue.
    std::function<void(Bytes, NETransparentProxyProvider::AppMessageCompletion)> watch;
  };

  static std::shared_ptr<ControlServer> create(Parts parts);
  ~ControlServer() override;

  // Makes the socket at `path` (ControlSocket's rules) and serves it. On failure returns false
  // with a one-line reason and leaves no file behind.
  bool listen(const std::string& path, std::string& error);
  // Stops serving and removes the socket file.
  void close();

  void onIoEvent(std::uint32_t tag, std::uint32_t events) override;

 private:
  class Connection;

  explicit ControlServer(Parts parts);
  void acceptAll();
  void admit(UniqueFd client);
  // Closes the oldest connection still sending its request; false when every one is answered.
  bool makeRoom();
  void answer(std::uint64_t id, Bytes request);
  void reply(std::uint64_t id, Bytes bytes);
  void drop(std::uint64_t id);

  const Parts parts_;
  const std::shared_ptr<DispatchQueue> deadlines_;
  UniqueFd listener_;
  std::string path_;
  std::uint64_t loop_id_ = 0;
  // Loop thread only, but for close() after the loop has stopped. Ordered by id, which grows,
  // so the first one still reading is the oldest.
  std::map<std::uint64_t, std::shared_ptr<Connection>> connections_;
};

}  // namespace tarnwick::host
