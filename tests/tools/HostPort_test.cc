#include "HostPort.h"

#include <gtest/gtest.h>

#include "FrontDoorHarness.h"

namespace tarnwick::frontdoor {
namespace {

struct SplitCase {
  std::string name;
  std::string text;
  std::optional<HostPort> expected;
  PortZero zero = PortZero::Rejected;
};

class SplitHostPortTest : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitHostPortTest, SplitsOrRefuses) {
  EXPECT_EQ(splitHostPort(GetParam().text, GetParam().zero), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, SplitHostPortTest,
    ::testing::Values(SplitCase{"Ipv4", "127.0.0.1:8443", HostPort{"127.0.0.1", 8443}},
                      SplitCase{"BracketedIpv6", "[::1]:443", HostPort{"::1", 443}},
                      SplitCase{"Name", "example.com:1", HostPort{"example.com", 1}},
                      SplitCase{"HighestPort", "localhost:65535", HostPort{"localhost", 65535}},
                      SplitCase{"ZeroWhenAccepted", "127.0.0.1:0", HostPort{"127.0.0.1", 0},
                                PortZero::Accepted},
                      SplitCase{"ZeroWhenRejected", "127.0.0.1:0", std::nullopt},
                      SplitCase{"Empty", "", std::nullopt},
                      SplitCase{"NoPort", "127.0.0.1", std::nullopt},
                      SplitCase{"EmptyPort", "127.0.0.1:", std::nullopt},
                      SplitCase{"EmptyHost", ":443", std::nullopt},
                      SplitCase{"BareIpv6", "::1:443", std::nullopt},
                      SplitCase{"NoColonAfterBracket", "[::1]443", std::nullopt},
                      SplitCase{"UnclosedBracket", "[::1:443", std::nullopt},
                      SplitCase{"EmptyBrackets", "[]:443", std::nullopt},
                      SplitCase{"PortTooLarge", "host:65536", std::nullopt},
                      SplitCase{"SignedPort", "host:+1", std::nullopt},
                      SplitCase{"NegativePort", "host:-1", std::nullopt},
                      SplitCase{"BlankInHost", "ho st:1", std::nullopt},
                      SplitCase{"ControlInHost", "ho\rst:1", std::nullopt}),
    CaseName{});

TEST(FormatHostPortTest, BracketsExactlyTheHostsThatNeedIt) {
  for (const HostPort& hostPort : {HostPort{"::1", 8443}, HostPort{"10.0.0.5", 1},
                                   HostPort{"fe80::1", 65535}, HostPort{"example.com", 443}}) {
    EXPECT_EQ(splitHostPort(formatHostPort(hostPort.host, hostPort.port)), hostPort);
  }
  EXPECT_EQ(formatHostPort("::1", 80), "[::1]:80");
}

}  // namespace
}  // namespace tarnwick::frontdoor
