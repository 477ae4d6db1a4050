#include <gtest/gtest.h>

#include "CommandLine.h"
#include "RequestHead.h"

namespace tarnwick::frontdoor {
namespace {

TEST(FrontDoorParsingTest, RequestHeadGivesTheDestinationAndFirstIdentityHeadersOrNothing) {
  EXPECT_EQ(parseRequestHead("CONNECT [2001:db8::1]:443 HTTP/1.1\r\nX-Brask-Pid: 4242\r\n"
                             "x-brask-signing-id:\t My App \r\nX-Brask-Pid: 2\r\nHost: b:2"),
            (RequestHead{HostPort{"2001:db8::1", 443}, "4242", "My App", ""}));
  EXPECT_EQ(parseRequestHead("CONNECT a:1 HTTP/1.0"), (RequestHead{HostPort{"a", 1}, "", "", ""}));
  // Requests other than CONNECT, as probes and stray HTTP clients send them: no destination.
  for (const char* head : {"OPTIONS * HTTP/1.1", "GET / HTTP/1.1\r\nHost: x",
                           "GET http://a/ HTTP/1.0", "connect a:1 HTTP/1.1", "HEAD a:0 HTTP/1.1"}) {
    EXPECT_EQ(parseRequestHead(head), RequestHead{}) << head;
  }
  for (const char* head :
       {"", "OPTIONS *", "OPTIONS  * HTTP/1.1", "OPT\x01ONS * HTTP/1.1", "GET /\x7f HTTP/1.1",
        "CONNECT a:1", "CONNECT a:1 HTTP/2", "CONNECT  a:1 HTTP/1.1", "CONNECT a HTTP/1.1",
        "CONNECT a:0 HTTP/1.1", "CONNECT a:1 HTTP/1.1\r\nno colon",
        "CONNECT a:1 HTTP/1.1\r\nX-A: b\r\n c", "CONNECT a:1 HTTP/1.1\r\n: b",
        "CONNECT a:1 HTTP/1.1\r\nX A: b", "CONNECT a:1 HTTP/1.1\nX-Brask-Pid: 1"}) {
    EXPECT_EQ(parseRequestHead(head), std::nullopt) << head;
  }
}

TEST(FrontDoorParsingTest, HostPortIsBracketedForIpv6AndRefusedWhenMalformed) {
  for (const HostPort& hostPort : {HostPort{"127.0.0.1", 8443}, HostPort{"::1", 443},
                                   HostPort{"example.com", 1}, HostPort{"localhost", 65535}}) {
    EXPECT_EQ(splitHostPort(formatHostPort(hostPort.host, hostPort.port)), hostPort);
  }
  for (const char* text :
       {"127.0.0.1:0", "", "127.0.0.1", "127.0.0.1:", ":443", "::1:443", "[::1]443", "[::1:443",
        "[]:443", "host:65536", "host:+1", "host:-1", "ho st:1", "ho\rst:1"}) {
    EXPECT_EQ(splitHostPort(text), std::nullopt) << text;
  }
}

TEST(FrontDoorParsingTest, CommandLineTakesBothOptionFormsAndNamesTheFlagOfEachFault) {
  const auto parsed = parseCommandLine(std::vector<std::string_view>{
      "--listen", "[::1]:1", "--mode=ack-then-silence", "--delay", "0.25", "--mark=0x7477", "-h"});
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed));
  const auto& [config, help] = std::get<CommandLine>(parsed);
  EXPECT_TRUE(config.listen == (HostPort{"::1", 1}) &&
              config.mode == FrontDoorMode::AckThenSilence && config.ackDelaySeconds == 0.25 &&
              config.upstreamMark == 0x7477u && help);
  const std::string port = "--listen wants HOST:PORT or [IPV6]:PORT with a port from 1 to 65535";
  for (const auto& [args, message] :
       std::vector<std::pair<std::vector<std::string_view>, std::string>>{
           {{"--port", "1"}, "unknown option '--port'"},
           {{"--mode"}, "option '--mode' needs a value"},
           {{"--listen="}, "option '--listen' needs a value"},
           {{"--mode", "flaky"}, "--mode wants one of the modes below, got 'flaky'"},
           {{"--listen", "127.0.0.1"}, port + ", got '127.0.0.1'"},
           {{"--listen", "127.0.0.1:0"}, port + ", got '127.0.0.1:0'"},
           {{"--listen", "[::1]:65536"}, port + ", got '[::1]:65536'"},
           {{"--listen", "127.0.0.1:80x"}, port + ", got '127.0.0.1:80x'"},
           {{"--delay", "-1"}, "--delay wants seconds from 0 to 86400, got '-1'"},
           {{"--delay", "soon"}, "--delay wants seconds from 0 to 86400, got 'soon'"},
           {{"--delay", "nan"}, "--delay wants seconds from 0 to 86400, got 'nan'"},
           {{"--delay", "1e9"}, "--delay wants seconds from 0 to 86400, got '1e9'"},
           {{"--mark", "0x"}, "--mark wants a 32-bit number, got '0x'"},
           {{"--mark", "4294967296"}, "--mark wants a 32-bit number, got '4294967296'"}}) {
    const auto result = parseCommandLine(args);
    const auto* fault = std::get_if<UsageError>(&result);
    EXPECT_EQ(fault ? fault->message : "parsed", message);
  }
}

}  // namespace
}  // namespace tarnwick::frontdoor
