// Naming the process behind a connection from its exact 4-tuple.

#include "host/FlowIdentifier.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "HostTesting.h"
#include "identity/AuditToken.h"
#include "platform/testing/LoopbackServer.h"

namespace tarnwick::host {
namespace {

class FlowIdentifierTest : public ::testing::TestWithParam<std::string> {};

TEST_P(FlowIdentifierTest, DiagFindsTheClientSocketByItsExactTuple) {
  LoopbackServer server(GetParam());
  const auto serverAddress = loopbackAddress(GetParam(), server.port());
  TestClient client(serverAddress);
  ASSERT_TRUE(client.connected());
  struct stat status {};
  ASSERT_EQ(::fstat(client.fd(), &status), 0);
  const auto clientAddress = localAddress(client.fd());
  ASSERT_TRUE(clientAddress);

  SocketDiag diag;
  EXPECT_EQ(diag.inodeOf(*clientAddress, serverAddress), status.st_ino);
  // The server's side of the same connection is another socket with its own inode.
  EXPECT_NE(diag.inodeOf(serverAddress, *clientAddress), status.st_ino);
  EXPECT_EQ(diag.inodeOf(*clientAddress, loopbackAddress(GetParam(), 1)), std::nullopt);
}

TEST_P(FlowIdentifierTest, NamesThisProcessWithItsTokenAndExecutable) {
  LoopbackServer server(GetParam());
  const auto serverAddress = loopbackAddress(GetParam(), server.port());
  TestClient client(serverAddress);
  ASSERT_TRUE(client.connected());

  FlowIdentifier identifier;
  const NEFlowMetaData metaData = identifier.identify(*localAddress(client.fd()), serverAddress);
  EXPECT_EQ(pidFromAuditTokenData(metaData.sourceAppAuditToken), ::getpid());
  EXPECT_EQ(metaData.sourceAppSigningIdentifier,
            std::filesystem::canonical("/proc/self/exe").string());
}

TEST_P(FlowIdentifierTest, UnknownConnectionHasNoProcess) {
  FlowIdentifier identifier;
  const NEFlowMetaData metaData =
      identifier.identify(loopbackAddress(GetParam(), 1), loopbackAddress(GetParam(), 2));
  EXPECT_EQ(metaData.sourceAppAuditToken, std::nullopt);
  EXPECT_EQ(metaData.sourceAppSigningIdentifier, "");
}

INSTANTIATE_TEST_SUITE_P(Families, FlowIdentifierTest, ::testing::Values("127.0.0.1", "::1"),
                         [](const auto& param) { return param.param == "::1" ? "V6" : "V4"; });

}  // namespace
}  // namespace tarnwick::host
