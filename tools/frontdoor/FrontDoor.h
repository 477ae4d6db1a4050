#pragma once
// The front door: a local CONNECT proxy that relays each client to the destination it names and
// logs one line per connection, or plays the fault its mode names. One thread runs everything
// through one epoll set, so a thousand idle connections cost a thousand small objects and their
// sockets, and no thread each.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "CompanionMain.h"
#include "FdToken.h"
#include "FrontDoorConfig.h"
#include "FrontDoorConnection.h"
#include "Resolver.h"
#include "platform/posix/EventLoop.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::frontdoor {

class FrontDoor : public companion::ForegroundServer {
 public:
  // Receives each log line, without its newline, on the thread that runs run().
  using LineSink = std::function<void(std::string_view line)>;

  // Binds the listening address (resolving a host name if need be). In refuse mode the port is
  // bound and held but never listened on, so connects to it are refused. Gives no front door and
  // sets error when the address cannot be bound.
  static std::unique_ptr<FrontDoor> create(const FrontDoorConfig& config, LineSink sink,
                                           std::string& error);
  ~FrontDoor() override;
  FrontDoor(const FrontDoor&) = delete;
  FrontDoor& operator=(const FrontDoor&) = delete;

  // "127.0.0.1:40123" or "[::1]:40123": the address actually bound.
  const std::string& boundAddress() const { return bound_address_; }

  // Serves on the calling thread until stop(); then ends every connection, logging each with
  // result "shutdown". Call at most once.
  void run() override;
  // Any thread, and async-signal-safe: makes run() return soon. Before run() it makes run()
  // return at once.
  void stop() override;

 private:
  FrontDoor(const FrontDoorConfig& config, LineSink sink);
  bool open(std::string& error);

  void dispatch(const epoll_event& event);
  void acceptClients();
  void pauseAccepting(int error);
  void deliverLookups();
  void retireIfFinished(std::uint64_t id);
  void stopAll();

  const FrontDoorConfig config_;
  LineSink sink_;
  EventLoop loop_;
  Resolver resolver_;
  UniqueFd listener_;
  UniqueFd stop_event_;
  std::string bound_address_;
  std::vector<std::uint8_t> scratch_;
  ConnectionContext context_;
  std::unordered_map<std::uint64_t, std::unique_ptr<FrontDoorConnection>> connections_;
  std::uint64_t next_id_ = 1;
  bool accepting_paused_ = false;
  bool stopping_ = false;
};

}  // namespace tarnwick::frontdoor
