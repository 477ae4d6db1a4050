// What the host leaves alone: the provider's exclusions with the private IPv4 ranges as the
// operator sets them, and IPv6 link-local always.

#include "host/HostNetworkRules.h"

#include <gtest/gtest.h>

#include "platform/testing/CaseName.h"
#include "provider/TransparentProxyProvider.h"

namespace tarnwick::host {
namespace {

std::vector<std::string> excludedNetworks(const NETransparentProxyNetworkSettings& settings) {
  std::vector<std::string> networks;
  for (const auto& rule : settings.excludedNetworkRules) {
    networks.push_back(rule.remoteNetwork->hostname + "/" + std::to_string(rule.remotePrefix));
  }
  return networks;
}

struct Case {
  const char* name;
  const char* setting;
  std::vector<std::string> excluded;  // empty when the setting does not parse
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.setting; }

class HostNetworkRulesTest : public ::testing::TestWithParam<Case> {};

TEST_P(HostNetworkRulesTest, PrivateRangesComeFromTheSettingAndLinkLocalStaysOut) {
  const auto networks = parseIPv4Networks(GetParam().setting);
  ASSERT_EQ(networks.has_value(), !GetParam().excluded.empty());
  if (!networks) return;
  const auto provider = TransparentProxyProvider::makeNetworkSettings();
  const auto rules = hostNetworkRules(*provider, *networks);
  EXPECT_EQ(excludedNetworks(rules), GetParam().excluded);
  EXPECT_EQ(rules.includedNetworkRules, provider->includedNetworkRules);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, HostNetworkRulesTest,
    ::testing::Values(
        Case{"Default",
             "10.0.0.0/8,172.16.0.0/12,192.168.0.0/16",
             {"127.0.0.0/8", "::1/128", "169.254.0.0/16", "10.0.0.0/8", "172.16.0.0/12",
              "192.168.0.0/16", "fe80::/10"}},
        Case{"None", "none", {"127.0.0.0/8", "::1/128", "169.254.0.0/16", "fe80::/10"}},
        Case{"NarrowerAndOther",
             "10.1.0.0/16,100.64.0.0/10",
             {"127.0.0.0/8", "::1/128", "169.254.0.0/16", "10.1.0.0/16", "100.64.0.0/10",
              "fe80::/10"}},
        Case{"HostBitsSet", "10.0.0.1/8", {}}, Case{"NoPrefix", "10.0.0.0", {}},
        Case{"PrefixTooLong", "10.0.0.0/33", {}}, Case{"IPv6", "fd00::/8", {}},
        Case{"EmptyItem", "10.0.0.0/8,", {}}, Case{"Empty", "", {}}),
    CaseName());

}  // namespace
}  // namespace tarnwick::host
