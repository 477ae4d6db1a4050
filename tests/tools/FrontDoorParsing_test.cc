#include <gtest/gtest.h>

#include "CommandLine.h"
#include "ConnectRequest.h"

namespace tarnwick::frontdoor {
namespace {

TEST(FrontDoorParsingTest, ConnectRequestGivesTheDestinationAndFirstIdentityHeadersOrNothing) {
  EXPECT_EQ(parseConnectRequest("CONNECT [2001:db8::1]:443 HTTP/1.1\r\nX-Brask-Pid: 4242\r\n"
                                "x-brask-signing-id:\t My App \r\nX-Brask-Pid: 2\r\nHost: b:2"),
            (ConnectRequest{{"2001:db8::1", 443}, "4242", "My App", ""}));
  EXPECT_EQ(parseConnectRequest("CONNECT a:1 HTTP/1.0"), (ConnectRequest{{"a", 1}, "", "", ""}));
  for (const char* head :
       {"", "GET / HTTP/1.1", "connect a:1 HTTP/1.1", "CONNECT a:1", "CONNECT a:1 HTTP/2",
        "CONNECT  a:1 HTTP/1.1", "CONNECT a HTTP/1.1", "CONNECT a:0 HTTP/1.1",
        "CONNECT a:1 HTTP/1.1\r\nno colon", "CONNECT a:1 HTTP/1.1\r\nX-A: b\r\n c",
        "CONNECT a:1 HTTP/1.1\r\n: b", "CONNECT a:1 HTTP/1.1\nX-Brask-Pid: 1"}) {
    EXPECT_EQ(parseConnectRequest(head), std::nullopt) << head;
  }
}

TEST(FrontDoorParsingTest, HostPortIsBracketedForIpv6AndRefusedWhenMalformed) {
  for (const HostPort& hostPort : {HostPort{"127.0.0.1", 8443}, HostPort{"::1", 443},
                                   HostPort{"example.com", 1}, HostPort{"localhost", 65535}}) {
    EXPECT_EQ(splitHostPort(formatHostPort(hostPort.host, hostPort.port)), hostPort);
  }
  EXPECT_EQ(splitHostPort("127.0.0.1:0", PortZero::Accepted), (HostPort{"127.0.0.1", 0}));
  for (const char* text :
       {"127.0.0.1:0", "", "127.0.0.1", "127.0.0.1:", ":443", "::1:443", "[::1]443", "[::1:443",
        "[]:443", "host:65536", "host:+1", "host:-1", "ho st:1", "ho\rst:1"}) {
    EXPECT_EQ(splitHostPort(text), std::nullopt) << text;
  }
}

TEST(FrontDoorParsingTest, CommandLineTakesBothOptionFormsAndRefusesBadValues) {
  const auto parsed = parseCommandLine(std::vector<std::string_view>{
      "--listen", "[::1]:0", "--mode=ack-then-silence", "--delay", "0.25", "--mark=0x7477", "-h"});
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed));
  const auto& [config, help] = std::get<CommandLine>(parsed);
  EXPECT_TRUE(config.listen == (HostPort{"::1", 0}) &&
              config.mode == FrontDoorMode::AckThenSilence && config.ackDelaySeconds == 0.25 &&
              config.upstreamMark == 0x7477u && help);
  for (const auto& args : std::vector<std::vector<std::string_view>>{{"--port", "1"},
                                                                     {"--mode"},
                                                                     {"--mode", "flaky"},
                                                                     {"--listen", "127.0.0.1"},
                                                                     {"--delay", "-1"},
                                                                     {"--delay", "soon"},
                                                                     {"--delay", "nan"},
                                                                     {"--delay", "1e9"},
                                                                     {"--mark", "0x"},
                                                                     {"--mark", "4294967296"}}) {
    EXPECT_TRUE(std::holds_alternative<UsageError>(parseCommandLine(args))) << args[0];
  }
}

}  // namespace
}  // namespace tarnwick::frontdoor
