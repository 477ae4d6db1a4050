// The values kernel-side selection exchanges with the kernel, and the watched files it keeps
// current; no privileges needed.

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "host/selection/IpPrefix.h"
#include "host/selection/ListenerAddresses.h"
#include "host/selection/SelectedProcess.h"
#include "host/selection/SelectionRecords.h"
#include "host/selection/WatchedExecutables.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::host {
namespace {

namespace fs = std::filesystem;

struct PrefixCase {
  std::string name;
  std::string address;
  int length;
  bool valid;
};

class IpPrefixTest : public ::testing::TestWithParam<PrefixCase> {};

TEST_P(IpPrefixTest, TakesOnlyAnIpLiteralWithALengthItsFamilyHas) {
  EXPECT_EQ(IpPrefix::parse(GetParam().address, GetParam().length).has_value(), GetParam().valid);
}

INSTANTIATE_TEST_SUITE_P(Prefixes, IpPrefixTest,
                         ::testing::Values(PrefixCase{"Ipv4", "10.0.0.0", 8, true},
                                           PrefixCase{"Ipv4Host", "192.168.1.1", 32, true},
                                           PrefixCase{"Ipv4TooLong", "10.0.0.0", 33, false},
                                           PrefixCase{"Negative", "10.0.0.0", -1, false},
                                           PrefixCase{"Ipv6", "fe80::", 10, true},
                                           PrefixCase{"Ipv6Full", "::1", 128, true},
                                           PrefixCase{"Ipv6TooLong", "::1", 129, false},
                                           PrefixCase{"HostName", "example.com", 8, false},
                                           PrefixCase{"Bracketed", "[::1]", 128, false}),
                         CaseName());

TEST(ExcludedPrefixesTest, KeepsPlainNetworksAndNamesTheRest) {
  NETransparentProxyNetworkSettings settings;
  const auto rule = [](std::string host, std::string port, int prefix) {
    NENetworkRule made;
    made.remoteNetwork = NWHostEndpoint{std::move(host), std::move(port)};
    made.remotePrefix = prefix;
    return made;
  };
  settings.excludedNetworkRules = {rule("10.0.0.0", "0", 8), rule("fd00::", "", 8),
                                   rule("192.168.0.0", "443", 16)};
  NENetworkRule inbound = rule("172.16.0.0", "0", 12);
  inbound.direction = NETrafficDirection::Inbound;
  settings.excludedNetworkRules.push_back(inbound);
  std::string error;
  const auto prefixes = excludedPrefixesOf(settings, error);
  ASSERT_EQ(prefixes.size(), 2u);
  EXPECT_EQ(prefixes[0].family, AF_INET);
  EXPECT_EQ(prefixes[0].length, 8);
  EXPECT_EQ(prefixes[1].family, AF_INET6);
  EXPECT_NE(error.find("192.168.0.0"), std::string::npos);
}

// The listener sees a v4-mapped client as IPv4; the kernel files its record the same way. Both
// ends make the key: one client port may have several connections to other listener-side
// addresses.
TEST(ConnectionKeyTest, IsBothEndsWithV4MappedAsIpv4) {
  const auto listener = *literalAddress("127.9.8.7", 9000);
  const auto mapped = connectionKeyFor(*literalAddress("::ffff:127.0.0.1", 40000), listener);
  const auto plain = connectionKeyFor(*literalAddress("127.0.0.1", 40000),
                                      *literalAddress("::ffff:127.9.8.7", 9000));
  ASSERT_TRUE(mapped && plain);
  EXPECT_EQ(std::memcmp(&*mapped, &*plain, sizeof(tw_connection_key)), 0);
  const auto elsewhere =
      connectionKeyFor(*literalAddress("127.0.0.1", 40000), *literalAddress("127.9.8.6", 9000));
  EXPECT_NE(std::memcmp(&*mapped, &*elsewhere, sizeof(tw_connection_key)), 0);
  const auto v6 = connectionKeyFor(*literalAddress("::1", 40000), *literalAddress("::1", 9001));
  EXPECT_EQ(v6->client.family, AF_INET6);
  EXPECT_EQ(formatAddress(socketAddressFrom(mapped->client)), "127.0.0.1:40000");
  EXPECT_EQ(formatAddress(socketAddressFrom(mapped->listener)), "127.9.8.7:9000");
  EXPECT_EQ(formatAddress(socketAddressFrom(v6->listener)), "[::1]:9001");
  EXPECT_FALSE(connectionKeyFor(SocketAddress{}, listener));
  EXPECT_FALSE(connectionKeyFor(listener, SocketAddress{}));
}

// Listener-side IPv4 addresses stay inside 127/8 and off its network, 127.0.0.1 and broadcast
// addresses, whatever the hash; nearby destinations get addresses far apart, and a second try
// always moves to another address.
TEST(ListenerAddressesTest, StayOnUsableLoopbackAddresses) {
  for (const std::uint32_t hash :
       {0u, 1u, TW_LOOPBACK_HOSTS - 1, TW_LOOPBACK_HOSTS, TW_LOOPBACK_HOSTS + 1, 0xffffffffu}) {
    for (std::uint32_t attempt = 0; attempt < TW_LOOPBACK_ATTEMPTS; ++attempt) {
      const std::uint32_t host = tw_loopback_host(hash, attempt);
      EXPECT_EQ(host >> 24, 127u);
      EXPECT_GT(host, 0x7f000001u);
      EXPECT_LT(host, 0x7fffffffu);
      if (attempt > 0) {
        EXPECT_NE(host, tw_loopback_host(hash, attempt - 1));
      }
    }
  }
  std::set<std::uint32_t> hosts;
  std::set<std::uint32_t> portIndexes;
  const std::uint8_t address[16] = {198, 18, 5, 5};
  for (std::uint16_t port = 1; port <= 1000; ++port) {
    const std::uint32_t hash = tw_destination_hash(address, htons(port));
    hosts.insert(tw_loopback_host(hash, 0));
    portIndexes.insert(tw_ipv6_port_index(hash, 0, TW_IPV6_PORTS));
    EXPECT_LT(tw_ipv6_port_index(hash, TW_IPV6_PORTS - 1, TW_IPV6_PORTS), TW_IPV6_PORTS);
  }
  EXPECT_EQ(hosts.size(), 1000u);
  EXPECT_EQ(portIndexes.size(), TW_IPV6_PORTS);
}

TEST(ExecutableKeyTest, EncodesTheDeviceAsTheKernelDoes) {
  const FileIdentity file{makedev(259, 3), 42};
  EXPECT_EQ(executableKeyFor(file), (ExecutableKey{259u << 20 | 3u, 42}));
}

class WatchedExecutablesTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(directory_); }
  void TearDown() override { fs::remove_all(directory_); }
  void write(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

  const std::string directory_ = ::testing::TempDir() + "/tw-watched-" + std::to_string(::getpid());
  const std::string agent_ = directory_ + "/agent";
};

TEST_F(WatchedExecutablesTest, FollowsAFileRenamedOverAWatchedPath) {
  write(agent_, "old");
  WatchedExecutables watched;
  watched.add({agent_});
  const auto before = executableKeyOf(agent_);
  ASSERT_TRUE(before);
  EXPECT_EQ(watched.pathFor(*before), agent_);
  write(agent_ + ".new", "new");
  fs::rename(agent_ + ".new", agent_);
  EXPECT_TRUE(watched.drain());
  const auto after = executableKeyOf(agent_);
  EXPECT_EQ(watched.keys(), ExecutableKeySet{*after});
  EXPECT_FALSE(watched.pathFor(*before));
  EXPECT_FALSE(watched.drain());
}

TEST_F(WatchedExecutablesTest, APathThatAppearsLaterIsMatchedAndRetainForgetsTheRest) {
  WatchedExecutables watched;
  watched.add({agent_, directory_ + "/other"});
  EXPECT_TRUE(watched.keys().empty());
  write(agent_, "now");
  EXPECT_TRUE(watched.drain());
  EXPECT_EQ(watched.keys().size(), 1u);
  watched.retain({directory_ + "/other"});
  EXPECT_TRUE(watched.keys().empty());
  EXPECT_FALSE(watched.pathFor(*executableKeyOf(agent_)));
}

}  // namespace
}  // namespace tarnwick::host
