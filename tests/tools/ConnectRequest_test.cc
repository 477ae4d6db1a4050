#include "ConnectRequest.h"

#include <gtest/gtest.h>

#include "FrontDoorHarness.h"

namespace tarnwick::frontdoor {
namespace {

struct HeadCase {
  std::string name;
  std::string head;  // without its terminator
  std::optional<ConnectRequest> expected;
};

ConnectRequest to(std::string host, std::uint16_t port, std::string pid = "",
                  std::string signing = "", std::string trace = "") {
  return {HostPort{std::move(host), port}, std::move(pid), std::move(signing), std::move(trace)};
}

class ConnectRequestTest : public ::testing::TestWithParam<HeadCase> {};

TEST_P(ConnectRequestTest, ParsesOrRefuses) {
  EXPECT_EQ(parseConnectRequest(GetParam().head), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Heads, ConnectRequestTest,
    ::testing::Values(
        HeadCase{"RequestLineAlone", "CONNECT 10.0.0.5:8080 HTTP/1.1", to("10.0.0.5", 8080)},
        HeadCase{"IdentityHeaders",
                 "CONNECT [2001:db8::1]:443 HTTP/1.1\r\nX-Brask-Pid: 4242\r\n"
                 "X-Brask-Signing-Id: agent-cli\r\nX-Brask-Trace: 9f3c",
                 to("2001:db8::1", 443, "4242", "agent-cli", "9f3c")},
        HeadCase{"NamesIgnoreCaseValuesAreTrimmed",
                 "CONNECT a:1 HTTP/1.1\r\nx-brask-trace:\t 9f3c \r\nX-BRASK-SIGNING-ID:My App",
                 to("a", 1, "", "My App", "9f3c")},
        HeadCase{"FirstRepeatCounts", "CONNECT a:1 HTTP/1.1\r\nX-Brask-Pid: 1\r\nX-Brask-Pid: 2",
                 to("a", 1, "1")},
        HeadCase{"OtherHeadersIgnored", "CONNECT a:1 HTTP/1.1\r\nHost: b:2\r\nX-Other: c",
                 to("a", 1)},
        HeadCase{"Http10", "CONNECT a:1 HTTP/1.0", to("a", 1)}, HeadCase{"Empty", "", std::nullopt},
        HeadCase{"OtherMethod", "GET / HTTP/1.1", std::nullopt},
        HeadCase{"LowercaseMethod", "connect a:1 HTTP/1.1", std::nullopt},
        HeadCase{"NoVersion", "CONNECT a:1", std::nullopt},
        HeadCase{"UnknownVersion", "CONNECT a:1 HTTP/2", std::nullopt},
        HeadCase{"DoubleBlank", "CONNECT  a:1 HTTP/1.1", std::nullopt},
        HeadCase{"NoPort", "CONNECT a HTTP/1.1", std::nullopt},
        HeadCase{"PortZero", "CONNECT a:0 HTTP/1.1", std::nullopt},
        HeadCase{"HeaderWithoutColon", "CONNECT a:1 HTTP/1.1\r\nno colon", std::nullopt},
        HeadCase{"FoldedHeader", "CONNECT a:1 HTTP/1.1\r\nX-A: b\r\n c", std::nullopt},
        HeadCase{"EmptyHeaderName", "CONNECT a:1 HTTP/1.1\r\n: b", std::nullopt},
        HeadCase{"BareLineFeed", "CONNECT a:1 HTTP/1.1\nX-Brask-Pid: 1", std::nullopt}),
    CaseName{});

}  // namespace
}  // namespace tarnwick::frontdoor
