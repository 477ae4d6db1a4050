// Network rules to nftables text.

#include "host/NftRuleset.h"

#include <gtest/gtest.h>

namespace tarnwick::host {
namespace {

NENetworkRule tcpRule(std::optional<NWHostEndpoint> remote, int prefix,
                      NENetworkRuleProtocol protocol = NENetworkRuleProtocol::TCP,
                      NETrafficDirection direction = NETrafficDirection::Outbound) {
  NENetworkRule rule;
  rule.remoteNetwork = std::move(remote);
  rule.remotePrefix = prefix;
  rule.protocol = protocol;
  rule.direction = direction;
  return rule;
}

// The provider's own rules: every outbound TCP flow except loopback, link-local and private.
NETransparentProxyNetworkSettings providerSettings() {
  NETransparentProxyNetworkSettings settings;
  settings.tunnelRemoteAddress = "127.0.0.1";
  settings.includedNetworkRules = {tcpRule(std::nullopt, 0)};
  for (const auto& [host, prefix] : {std::pair{"127.0.0.0", 8},
                                     {"::1", 128},
                                     {"169.254.0.0", 16},
                                     {"10.0.0.0", 8},
                                     {"172.16.0.0", 12},
                                     {"192.168.0.0", 16}}) {
    settings.excludedNetworkRules.push_back(tcpRule(NWHostEndpoint{host, "0"}, prefix));
  }
  return settings;
}

const NftRuleTarget kTarget{"tarnwick_proxyext", 0x7477, 15001};

TEST(NftRulesetTest, ProviderRulesBecomeOneOwnedTable) {
  const auto result = nftScriptFor(providerSettings(), kTarget);
  ASSERT_TRUE(result.script) << result.error;
  EXPECT_EQ(*result.script,
            "table inet tarnwick_proxyext {\n"
            "  flags owner;\n"
            "  chain output {\n"
            "    type nat hook output priority -100; policy accept;\n"
            "    meta mark 0x00007477 return\n"
            "    meta l4proto tcp ip daddr 127.0.0.0/8 return\n"
            "    meta l4proto tcp ip6 daddr ::1/128 return\n"
            "    meta l4proto tcp ip daddr 169.254.0.0/16 return\n"
            "    meta l4proto tcp ip daddr 10.0.0.0/8 return\n"
            "    meta l4proto tcp ip daddr 172.16.0.0/12 return\n"
            "    meta l4proto tcp ip daddr 192.168.0.0/16 return\n"
            "    meta l4proto tcp redirect to :15001\n"
            "  }\n"
            "}\n");
  EXPECT_EQ(nftDeleteScript("tarnwick_proxyext"), "delete table inet tarnwick_proxyext\n");
}

// Rules the listener cannot serve (UDP) or that never meet an output chain (inbound) are left
// out; ports, local networks and "any protocol" keep their meaning.
TEST(NftRulesetTest, TranslatesEachKindOfRule) {
  NETransparentProxyNetworkSettings settings;
  NENetworkRule local = tcpRule(NWHostEndpoint{"2001:db8::", "443"}, 32);
  local.localNetwork = NWHostEndpoint{"2001:db8:1::", "0"};
  local.localPrefix = 48;
  settings.includedNetworkRules = {
      local,
      tcpRule(NWHostEndpoint{"198.19.0.0", ""}, 16, NENetworkRuleProtocol::Any),
      tcpRule(std::nullopt, 0, NENetworkRuleProtocol::UDP),
      tcpRule(std::nullopt, 0, NENetworkRuleProtocol::TCP, NETrafficDirection::Inbound),
  };
  const auto result = nftScriptFor(settings, {"t", 1, 2});
  ASSERT_TRUE(result.script) << result.error;
  EXPECT_NE(result.script->find("    meta mark 0x00000001 return\n"
                                "    meta l4proto tcp ip6 daddr 2001:db8::/32 tcp dport 443 "
                                "ip6 saddr 2001:db8:1::/48 redirect to :2\n"
                                "    meta l4proto tcp ip daddr 198.19.0.0/16 redirect to :2\n"
                                "  }\n"),
            std::string::npos)
      << *result.script;
}

struct BadRule {
  const char* name;
  NWHostEndpoint network;
  int prefix;
};

class NftRulesetRejectionTest : public ::testing::TestWithParam<BadRule> {};

TEST_P(NftRulesetRejectionTest, RefusesRulesItCannotExpress) {
  NETransparentProxyNetworkSettings settings = providerSettings();
  settings.excludedNetworkRules.push_back(tcpRule(GetParam().network, GetParam().prefix));
  const auto result = nftScriptFor(settings, kTarget);
  EXPECT_FALSE(result.script);
  EXPECT_NE(result.error.find("excluded rule"), std::string::npos) << result.error;
}

INSTANTIATE_TEST_SUITE_P(Rules, NftRulesetRejectionTest,
                         ::testing::Values(BadRule{"HostName", {"example.com", "0"}, 8},
                                           BadRule{"PrefixTooLongForIPv4", {"10.0.0.0", "0"}, 33},
                                           BadRule{"NegativePrefix", {"::", "0"}, -1},
                                           BadRule{"ServiceNamePort", {"10.0.0.0", "https"}, 8},
                                           BadRule{"PortOutOfRange", {"10.0.0.0", "65536"}, 8},
                                           BadRule{
                                               "InjectedText", {"10.0.0.0/8 accept; #", "0"}, 8}),
                         [](const auto& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace tarnwick::host
