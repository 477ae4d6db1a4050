// Naming destinations, and the original destination of a connection that was not redirected.

#include "host/OriginalDestination.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstring>

#include "HostTesting.h"
#include "platform/posix/Sockets.h"

namespace tarnwick::host {
namespace {

SocketAddress v4Mapped(const char* v4, std::uint16_t port) {
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  v6.sin6_port = htons(port);
  v6.sin6_addr.s6_addr[10] = v6.sin6_addr.s6_addr[11] = 0xff;
  inet_pton(AF_INET, v4, &v6.sin6_addr.s6_addr[12]);
  SocketAddress address;
  std::memcpy(&address.storage, &v6, sizeof v6);
  address.length = sizeof v6;
  return address;
}

TEST(OriginalDestinationTest, NamesAddressesAsTheFlowsRemoteEndpoint) {
  EXPECT_EQ(hostEndpointOf(loopbackAddress("198.18.0.7", 443)),
            (NWHostEndpoint{"198.18.0.7", "443"}));
  EXPECT_EQ(hostEndpointOf(loopbackAddress("2001:db8::1", 8443)),
            (NWHostEndpoint{"2001:db8::1", "8443"}));
  EXPECT_EQ(hostEndpointOf(v4Mapped("198.18.0.9", 80)), (NWHostEndpoint{"198.18.0.9", "80"}));
  EXPECT_EQ(hostEndpointOf(loopbackAddress("::", 65535)), (NWHostEndpoint{"::", "65535"}));
}

TEST(OriginalDestinationTest, ComparesAddressAndPort) {
  const auto a = loopbackAddress("127.0.0.1", 15001);
  EXPECT_TRUE(sameSocketAddress(a, loopbackAddress("127.0.0.1", 15001)));
  EXPECT_FALSE(sameSocketAddress(a, loopbackAddress("127.0.0.1", 15002)));
  EXPECT_FALSE(sameSocketAddress(a, loopbackAddress("127.0.0.2", 15001)));
  EXPECT_FALSE(sameSocketAddress(a, loopbackAddress("::1", 15001)));
  EXPECT_TRUE(sameSocketAddress(loopbackAddress("::1", 1), loopbackAddress("::1", 1)));
  EXPECT_FALSE(sameSocketAddress(loopbackAddress("::1", 1), loopbackAddress("::2", 1)));
}

class OriginalDestinationFamilyTest : public ::testing::TestWithParam<std::string> {};

// A connection that was not redirected has no other destination than where it landed (the
// kernel reports none, or the listener's own address when it tracks connections), so the
// intake treats it as aimed at the listener itself.
TEST_P(OriginalDestinationFamilyTest, WithoutARedirectNamesNoOtherPlace) {
  std::string error;
  UniqueFd listener = bindTcpSocket(loopbackAddress(GetParam(), 0), error);
  ASSERT_TRUE(listener) << error;
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  TestClient client(*localAddress(listener.get()));
  ASSERT_TRUE(client.connected());
  UniqueFd accepted(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  ASSERT_TRUE(accepted);
  const auto destination = originalDestination(accepted.get());
  if (destination) {
    EXPECT_TRUE(sameSocketAddress(*destination, *localAddress(accepted.get())));
  }
}

INSTANTIATE_TEST_SUITE_P(Families, OriginalDestinationFamilyTest,
                         ::testing::Values("127.0.0.1", "::1"),
                         [](const auto& param) { return param.param == "::1" ? "V6" : "V4"; });

}  // namespace
}  // namespace tarnwick::host
