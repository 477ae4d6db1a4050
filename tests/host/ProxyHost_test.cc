// The host around a provider, without privileges: no table is made, the destination of each
// accepted connection is supplied by the test, and the control socket lives in a temporary
// directory.

#include "host/ProxyHost.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FakeProvider.h"
#include "HostTesting.h"
#include "host/OriginalDestination.h"
#include "platform/posix/Sockets.h"
#include "platform/testing/LoopbackServer.h"

namespace tarnwick::host {
namespace {

class ProxyHostTest : public ::testing::Test {
 protected:
  ProxyHost::Options options() {
    ProxyHost::Options options;
    options.installRules = false;
    options.settings.listenPort = 0;
    options.settings.controlSocketPath = controlPath_;
    options.destinationOf = [this](int) -> std::optional<SocketAddress> { return destination_; };
    options.identify = [](const SocketAddress& client, const SocketAddress& destination) {
      NEFlowMetaData metaData;
      metaData.sourceAppSigningIdentifier = "/usr/bin/agent";
      // The client's own address, as identification must look it up.
      metaData.sourceAppAuditToken =
          bytesOf(hostEndpointOf(client).hostname + "->" + hostEndpointOf(destination).port);
      return metaData;
    };
    return options;
  }

  void start() {
    host_ = ProxyHost::create(provider_, options());
    ASSERT_EQ(host_->start(Json{{"frontDoorPort", 8443}}), std::nullopt);
  }

  std::unique_ptr<TestClient> connect(const std::string& address = "127.0.0.1") {
    return std::make_unique<TestClient>(loopbackAddress(address, host_->listenPort()));
  }

  void TearDown() override {
    if (host_) host_->stop();
  }

  const std::string controlPath_ =
      ::testing::TempDir() + "control-" + std::to_string(::getpid()) + ".sock";
  std::shared_ptr<FakeProvider> provider_ = std::make_shared<FakeProvider>();
  LoopbackServer server_{"127.0.0.1"};
  std::optional<SocketAddress> destination_ = loopbackAddress("127.0.0.1", server_.port());
  std::shared_ptr<ProxyHost> host_;
};

TEST_F(ProxyHostTest, StartsTheProviderAndRecordsItsRules) {
  start();
  EXPECT_EQ(provider_->startOptions(), (Json{{"frontDoorPort", 8443}}));
  const auto settings = host_->appliedSettings();
  ASSERT_TRUE(settings);
  EXPECT_EQ(settings->includedNetworkRules.size(), 1u);
  struct stat status {};
  ASSERT_EQ(::stat(controlPath_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  host_->stop();
  EXPECT_TRUE(provider_->stopped());
  EXPECT_NE(::access(controlPath_.c_str(), F_OK), 0);
}

TEST_F(ProxyHostTest, OffersEachConnectionWithItsDestinationAndProcess) {
  start();
  auto client = connect("::1");
  ASSERT_TRUE(client->connected());
  const auto offers = provider_->offers(1);
  ASSERT_EQ(offers.size(), 1u);
  EXPECT_EQ(offers[0].remote, (NWHostEndpoint{"127.0.0.1", std::to_string(server_.port())}));
  EXPECT_EQ(offers[0].metaData.sourceAppSigningIdentifier, "/usr/bin/agent");
  EXPECT_EQ(offers[0].metaData.sourceAppAuditToken,
            bytesOf("::1->" + std::to_string(server_.port())));
}

TEST_F(ProxyHostTest, CarriesWhatTheProviderHandsBack) {
  start();
  auto client = connect();
  client->send("ping");
  client->shutdownWrite();
  LoopbackServer::Peer* peer = server_.peer(0);
  ASSERT_NE(peer, nullptr);
  EXPECT_EQ(peer->readToEnd(), "ping");
  peer->write("pong");
  peer->shutdownWrite();
  EXPECT_EQ(client->readToEnd(), "pong");
}

TEST_F(ProxyHostTest, LeavesTakenFlowsToTheProvider) {
  provider_->take = [](const FakeProvider::Offer&) { return true; };
  start();
  auto client = connect();
  const std::string request = patterned(1 << 20);
  std::thread sender([&] {
    client->send(request);
    client->shutdownWrite();
  });
  const std::string echoed = client->readToEnd();
  sender.join();
  EXPECT_TRUE(echoed == request) << echoed.size();
  EXPECT_EQ(server_.acceptedCount(), 0u);
}

TEST_F(ProxyHostTest, ClosesConnectionsThatWereNotRedirected) {
  destination_.reset();
  start();
  auto client = connect();
  EXPECT_EQ(client->readToEnd(), "");
  EXPECT_EQ(provider_->offers(0).size(), 0u);
}

TEST_F(ProxyHostTest, ControlSocketDeliversOneMessagePerConnection) {
  provider_->appReply = bytesOf("{\"ok\":false}");
  start();
  std::string error;
  const Bytes message = bytesOf(R"({"watchedSigningIDs":["/usr/bin/curl"],"watchedPIDs":[7]})");
  EXPECT_EQ(sendControlMessage(controlPath_, message, error), bytesOf("{\"ok\":false}")) << error;
  EXPECT_EQ(sendControlMessage(controlPath_, {}, error), bytesOf("{\"ok\":false}")) << error;
  EXPECT_EQ(provider_->messages(), (std::vector<Bytes>{message, Bytes{}}));
}

TEST_F(ProxyHostTest, ControlClientSaysWhenNoHostListens) {
  std::string error;
  EXPECT_FALSE(sendControlMessage(controlPath_, bytesOf("{}"), error));
  EXPECT_NE(error.find(controlPath_), std::string::npos);
}

TEST_F(ProxyHostTest, ABusyPortFailsTheStartAndLeavesNothing) {
  std::string error;
  UniqueFd busy = bindTcpSocket(loopbackAddress("127.0.0.1", 0), error);
  ASSERT_EQ(::listen(busy.get(), 1), 0);
  auto busyOptions = options();
  busyOptions.settings.listenPort = portOf(*localAddress(busy.get()));
  host_ = ProxyHost::create(provider_, busyOptions);
  const auto failure = host_->start(std::nullopt);
  ASSERT_TRUE(failure);
  EXPECT_NE(failure->find("127.0.0.1:" + std::to_string(busyOptions.settings.listenPort)),
            std::string::npos)
      << *failure;
  EXPECT_FALSE(provider_->startOptions());  // never started
  EXPECT_NE(::access(controlPath_.c_str(), F_OK), 0);
}

TEST_F(ProxyHostTest, AFailedProviderStartIsReportedAndUndone) {
  provider_->startError = NEError{EPERM, "tunnel refused"};
  host_ = ProxyHost::create(provider_, options());
  const auto failure = host_->start(std::nullopt);
  ASSERT_TRUE(failure);
  EXPECT_NE(failure->find("tunnel refused"), std::string::npos) << *failure;
  EXPECT_NE(::access(controlPath_.c_str(), F_OK), 0);
  EXPECT_TRUE(provider_->stopped());
}

}  // namespace
}  // namespace tarnwick::host
