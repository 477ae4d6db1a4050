// Starting and stopping the proxy: start options, the network rules handed to the host, and the
// liveness beacon.

#include <gtest/gtest.h>

#include <string>

#include "ProviderHarness.h"

namespace tarnwick {
namespace {

using namespace std::chrono_literals;

std::string settingsLine(const std::string& frontDoor, int signing, int pids) {
  return "TransparentProxyProvider: tunnel settings applied; front-door=" + frontDoor +
         " watchedSigningIDs=" + std::to_string(signing) + " watchedPIDs=" + std::to_string(pids);
}

struct PortCase {
  const char* name;
  Json value;
  // The port after a start with port 1111 followed by one with `value`.
  int expected;
};

class FrontDoorPortTest : public ::testing::TestWithParam<PortCase> {};

TEST_P(FrontDoorPortTest, TakesOnlyValuesThatAreUnsignedSixteenBit) {
  ProviderHarness h;
  h.start(Json{{"frontDoorPort", 1111}});
  h.start(Json{{"frontDoorPort", GetParam().value}});
  EXPECT_EQ(h.log->messages().back(),
            settingsLine("127.0.0.1:" + std::to_string(GetParam().expected), 0, 0));
}

INSTANTIATE_TEST_SUITE_P(
    Options, FrontDoorPortTest,
    ::testing::Values(PortCase{"Number", 8443, 8443}, PortCase{"Text", "8443", 8443},
                      PortCase{"Zero", 0, 0}, PortCase{"Max", 65535, 65535},
                      PortCase{"FractionTruncates", 8443.9, 8443}, PortCase{"True", true, 1},
                      PortCase{"TextWithBlank", "8443 ", 1111},
                      PortCase{"NegativeText", "-1", 1111}, PortCase{"TextTooLarge", "65536", 1111},
                      PortCase{"NotANumber", "abc", 1111}, PortCase{"NumberTooLarge", 70000, 1111},
                      PortCase{"Negative", -5, 1111}, PortCase{"Array", Json::array({1}), 1111},
                      PortCase{"Null", nullptr, 1111}),
    CaseName());

TEST(ProviderStartTest, LogsTheSocketThenAppliesHostAndWatchSet) {
  ProviderHarness h;
  const Json options{{"frontDoorPort", "8443"},
                     {"frontDoorHost", "::1"},
                     {"socketPath", "/run/tw/ne.sock"},
                     {"watchedSigningIDs", {"/usr/bin/a", "/usr/bin/b", ""}},
                     {"watchedPIDs", {12, "13", "x"}}};
  EXPECT_EQ(h.start(options), std::nullopt);
  EXPECT_EQ(h.log->messages(),
            (std::vector<std::string>{
                "TransparentProxyProvider.startProxy: socket=/run/tw/ne.sock real=true "
                "gotConfig=true",
                settingsLine("::1:8443", 2, 2)}));
  EXPECT_EQ(h.bridge->adopted(), (std::vector<std::pair<std::string, bool>>{
                                     {"/run/tw/ne.sock", true}}));
}

TEST(ProviderStartTest, EmptyHostKeepsTheDefaultAndAbsentOptionsChangeNothing) {
  ProviderHarness h;
  h.start(Json{{"frontDoorPort", 9000}, {"frontDoorHost", ""}, {"watchedPIDs", {7}}});
  EXPECT_EQ(h.log->messages().back(), settingsLine("127.0.0.1:9000", 0, 1));
  h.log->clear();
  h.start(std::nullopt);
  EXPECT_EQ(h.log->messages(),
            (std::vector<std::string>{
                "TransparentProxyProvider.startProxy: socket=" + h.bridge->adopted().back().first +
                    " real=false gotConfig=false",
                settingsLine("127.0.0.1:9000", 0, 1)}));
  h.start(Json::object());
  EXPECT_EQ(h.log->messages().back(), settingsLine("127.0.0.1:9000", 0, 0));
}

TEST(ProviderStartTest, HandsOverOneIncludedRuleAndSixExclusionsInOrder) {
  ProviderHarness h;
  h.start(std::nullopt);
  ASSERT_EQ(h.tunnelHost->applied.size(), 1u);
  const auto& settings = *h.tunnelHost->applied[0];
  EXPECT_EQ(settings.tunnelRemoteAddress, "127.0.0.1");
  const auto rule = [](std::optional<NWHostEndpoint> network, int prefix) {
    return NENetworkRule{std::move(network), prefix, std::nullopt, 0, NENetworkRuleProtocol::TCP,
                         NETrafficDirection::Outbound};
  };
  EXPECT_EQ(settings.includedNetworkRules, std::vector<NENetworkRule>{rule(std::nullopt, 0)});
  EXPECT_EQ(settings.excludedNetworkRules,
            (std::vector<NENetworkRule>{
                rule(NWHostEndpoint{"127.0.0.0", "0"}, 8), rule(NWHostEndpoint{"::1", "0"}, 128),
                rule(NWHostEndpoint{"169.254.0.0", "0"}, 16),
                rule(NWHostEndpoint{"10.0.0.0", "0"}, 8),
                rule(NWHostEndpoint{"172.16.0.0", "0"}, 12),
                rule(NWHostEndpoint{"192.168.0.0", "0"}, 16)}));
}

TEST(ProviderStartTest, SettingsFailureReachesTheHostUnchangedAndTheBeaconKeepsRunning) {
  ProviderHarness h;
  h.tunnelHost->failWith = NEError{17, "nftables unavailable"};
  const auto reported = h.start(Json{{"frontDoorPort", 9000}});
  ASSERT_TRUE(reported.has_value());
  EXPECT_EQ(reported->code, 17);
  EXPECT_EQ(h.log->messages().back(), "setTunnelNetworkSettings failed: nftables unavailable");
  h.env->advance(6s);
  EXPECT_EQ(h.bridge->trail(), (std::vector<std::string>{"proxyext.alive", "proxyext.alive"}));
}

TEST(ProviderBeaconTest, BeatsAtOnceThenEveryFiveSecondsUntilStopped) {
  ProviderHarness h;
  h.start(std::nullopt);
  h.env->advance(1s);  // t=1s: the first beat is due at once, within its 1 s leeway
  ASSERT_EQ(h.bridge->events().size(), 1u);
  const Json first = h.bridge->events()[0];
  EXPECT_EQ(first.size(), 2u);
  EXPECT_EQ(first["kind"], "proxyext.alive");
  // Nanoseconds of the wall clock, which the simulation starts at 2026-01-01T00:00:00Z.
  EXPECT_GE(first["ts"].get<std::int64_t>(), 1767225600'000000000);
  EXPECT_LE(first["ts"].get<std::int64_t>(), 1767225601'000000000);

  h.env->advance(3s);  // t=4s
  EXPECT_EQ(h.bridge->events().size(), 1u);
  h.env->advance(2s);  // t=6s: the second beat, within its 1 s leeway
  EXPECT_EQ(h.bridge->events().size(), 2u);
  h.env->advance(10s);  // t=16s
  EXPECT_EQ(h.bridge->events().size(), 4u);

  h.start(std::nullopt);  // a running beacon is never replaced: t=21s
  h.env->advance(5s);
  EXPECT_EQ(h.bridge->events().size(), 5u);

  bool stopped = false;
  h.provider->stopProxy(NEProviderStopReason::UserInitiated, [&] { stopped = true; });
  EXPECT_TRUE(stopped);
  EXPECT_EQ(h.log->messages().back(), "TransparentProxyProvider.stopProxy: reason=1");
  h.env->advance(60s);
  EXPECT_EQ(h.bridge->events().size(), 5u);

  h.start(std::nullopt);  // a fresh beacon beats at once again
  h.env->advance(1s);
  EXPECT_EQ(h.bridge->events().size(), 6u);
}

TEST(ProviderBeaconTest, StopWithoutABeaconStillCompletes) {
  ProviderHarness h;
  bool stopped = false;
  h.provider->stopProxy(NEProviderStopReason::None, [&] { stopped = true; });
  EXPECT_TRUE(stopped);
}

TEST(ProviderBeaconTest, ABeaconDueAfterTheProviderIsGoneDoesNothing) {
  ProviderHarness h;
  h.start(std::nullopt);
  h.env->advance(1s);
  h.provider.reset();
  h.env->advance(30s);
  EXPECT_EQ(h.bridge->events().size(), 1u);
}

}  // namespace
}  // namespace tarnwick
