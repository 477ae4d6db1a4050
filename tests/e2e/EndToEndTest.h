#pragma once
// The fixture of every end-to-end test: a fresh pair of namespaces, the daemon's event socket,
// an echo server and a reply-after-end server on the world host, and helpers to start the front
// door, the interceptor and the test client in the agent namespace. Skips when not root.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "EventSink.h"
#include "NetworkLab.h"
#include "WorldServer.h"

namespace tarnwick::e2e {

struct ClientRun {
  int status = -1;
  pid_t pid = 0;  // the process that connected, as it printed itself
  std::string output;
};

struct ClientSpec {
  std::string mode = "echo";  // echo | half-close | hold
  std::string host = NetworkLab::kWorldIPv4;
  std::uint16_t port = 0;  // 0: the echo server
  std::size_t bytes = 4096;
  bool watchedCopy = true;  // run the watched client (false: its unwatched twin)
  int descend = 0;          // levels of unwatched children between it and the connecting one
};

using FrontDoorLine = std::map<std::string, std::string>;

// Relaying needs the provider that takes watched flows over; an interceptor built with the
// pass-through stand-in hands every flow back and refuses watch sets.
#define TW_REQUIRE_RELAYING()                                                            \
  if (!relaying())                                                                       \
  GTEST_SKIP() << "this interceptor hands every flow back (it refuses watch sets); the " \
                  "relaying provider is not built in"

class EndToEndTest : public ::testing::Test {
 protected:
  static constexpr std::uint16_t kFrontDoorPort = 8443;
  static constexpr const char* kTable = "tw_e2e";

  void SetUp() override;
  void TearDown() override;

  // The client the tests watch by signing identifier, and a byte-identical copy at another path
  // that nobody watches.
  static std::string watchedClient();
  std::string unwatchedClient() const { return twin_; }
  static std::string proxyext();

  void startFrontDoor(const std::string& mode = "normal");
  void stopFrontDoor();
  // Starts `tarnwick-proxyext run` with these start options added to the front-door and daemon
  // keys, and waits until its rules are in place.
  void startInterceptor(const nlohmann::json& options);
  bool tableExists() const;
  // Whether the running interceptor takes watch sets: it is sent the one it started with.
  bool relaying();

  std::unique_ptr<ChildProcess> spawnClient(const ClientSpec& wanted, bool waitStdin = false);
  ClientRun finishClient(ChildProcess& client);
  ClientRun runClient(const ClientSpec& wanted);
  CommandResult watch(const std::vector<std::string>& args);

  // The front door's per-connection lines, as key=value maps, once `count` of them are there.
  std::vector<FrontDoorLine> frontDoorLines(std::size_t count = 0);

  std::string file(const std::string& name) const { return lab_->directory() + "/" + name; }

  std::unique_ptr<NetworkLab> lab_;
  std::unique_ptr<EventSink> sink_;
  std::unique_ptr<WorldServer> echo_;
  std::unique_ptr<WorldServer> late_;
  std::unique_ptr<WorldServer> flood_;
  std::unique_ptr<WorldServer> reset_;
  std::unique_ptr<ChildProcess> frontDoor_;
  std::unique_ptr<ChildProcess> interceptor_;
  nlohmann::json watchOptions_;
  std::string twin_;
  int spawned_ = 0;
};

}  // namespace tarnwick::e2e
