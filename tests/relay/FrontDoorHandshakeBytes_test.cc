// The bytes of the front-door handshake: the CONNECT preamble and the acknowledgement.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "RelayHarness.h"
#include "relay/AckReader.h"
#include "relay/FrontDoorPreamble.h"

namespace tarnwick {
namespace {

struct PreambleCase {
  const char* name;
  FlowTarget target;
  std::int64_t pid;
  std::string signingID;
  std::string trace;
  std::string expected;
};

class PreambleTest : public ::testing::TestWithParam<PreambleCase> {};

TEST_P(PreambleTest, IsExactlyTheseBytes) {
  const auto& c = GetParam();
  EXPECT_EQ(textOf(makePreamble(c.target, c.pid, c.signingID, c.trace)), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Preambles, PreambleTest,
    ::testing::Values(
        PreambleCase{"BareIPv6IsBracketedAndHeadersFollowInOrder",
                     {"2001:db8::1", "443"},
                     4242,
                     "agent-cli",
                     "9f3c",
                     "CONNECT [2001:db8::1]:443 HTTP/1.1\r\nX-Brask-Pid: 4242\r\n"
                     "X-Brask-Signing-Id: agent-cli\r\nX-Brask-Trace: 9f3c\r\n\r\n"},
        PreambleCase{"PidZeroAndEmptyTextsLeaveOnlyTheRequestLine",
                     {"10.0.0.5", "8080"},
                     0,
                     "",
                     "",
                     "CONNECT 10.0.0.5:8080 HTTP/1.1\r\n\r\n"},
        PreambleCase{"LinkLocalIPv6IsBracketed",
                     {"fe80::1", "443"},
                     0,
                     "",
                     "",
                     "CONNECT [fe80::1]:443 HTTP/1.1\r\n\r\n"},
        PreambleCase{"AlreadyBracketedIPv6IsNotBracketedTwice",
                     {"[fe80::1]", "443"},
                     0,
                     "",
                     "",
                     "CONNECT [fe80::1]:443 HTTP/1.1\r\n\r\n"},
        PreambleCase{"NameAndNonNumericPortPassUnchanged",
                     {"example.com", "https"},
                     0,
                     "",
                     "",
                     "CONNECT example.com:https HTTP/1.1\r\n\r\n"},
        PreambleCase{"NegativePidKeepsItsSign",
                     {"example.com", "443"},
                     -17,
                     "",
                     "",
                     "CONNECT example.com:443 HTTP/1.1\r\nX-Brask-Pid: -17\r\n\r\n"},
        PreambleCase{
            "LowestPid",
            {"example.com", "443"},
            INT64_MIN,
            "",
            "",
            "CONNECT example.com:443 HTTP/1.1\r\nX-Brask-Pid: -9223372036854775808\r\n\r\n"},
        PreambleCase{
            "SigningIdentifierWithoutPid",
            {"example.com", "443"},
            0,
            "/usr/bin/curl",
            "",
            "CONNECT example.com:443 HTTP/1.1\r\nX-Brask-Signing-Id: /usr/bin/curl\r\n\r\n"},
        PreambleCase{"TraceAlone",
                     {"example.com", "443"},
                     0,
                     "",
                     "0123456789abcdef",
                     "CONNECT example.com:443 HTTP/1.1\r\nX-Brask-Trace: 0123456789abcdef\r\n\r\n"},
        PreambleCase{"ValuesGoOutUnescaped",
                     {"a b", "1 2"},
                     7,
                     "x\ty",
                     "t\"r",
                     "CONNECT a b:1 2 HTTP/1.1\r\nX-Brask-Pid: 7\r\nX-Brask-Signing-Id: x\ty\r\n"
                     "X-Brask-Trace: t\"r\r\n\r\n"}),
    CaseName());

// How the acknowledgement is cut into receives.
enum class Cut { Whole, ByteByByte, TerminatorStraddles };

std::vector<Bytes> cut(const std::string& text, Cut how) {
  const Bytes all = bytesOf(text);
  switch (how) {
    case Cut::Whole:
      return {all};
    case Cut::ByteByByte: {
      std::vector<Bytes> out;
      for (auto b : all) out.push_back(Bytes{b});
      return out;
    }
    case Cut::TerminatorStraddles: {
      const auto at = text.find("\r\n\r\n");
      const std::size_t split = at == std::string::npos ? text.size() / 2 : at + 2;
      return {Bytes(all.begin(), all.begin() + static_cast<long>(split)),
              Bytes(all.begin() + static_cast<long>(split), all.end())};
    }
  }
  return {};
}

struct AckCase {
  const char* name;
  std::string reply;
  AckScanner::Verdict expected;
};

class AckScannerTest : public ::testing::TestWithParam<std::tuple<AckCase, Cut>> {};

TEST_P(AckScannerTest, JudgesTheHeadWhateverTheChunking) {
  const auto& [c, how] = GetParam();
  AckScanner scanner;
  auto verdict = AckScanner::Verdict::NeedMore;
  for (const auto& chunk : cut(c.reply, how)) {
    verdict = scanner.append(chunk);
    if (verdict != AckScanner::Verdict::NeedMore) break;  // no further receive is posted
  }
  EXPECT_EQ(verdict, c.expected);
}

// With "200" in front, a head of 8189 bytes: its terminator completes at 8193 bytes held.
const std::string kPadding8186(8186, 'x');

struct AckCaseName {
  std::string operator()(const ::testing::TestParamInfo<std::tuple<AckCase, Cut>>& info) const {
    static const char* const kCuts[] = {"Whole", "ByteByByte", "TerminatorStraddles"};
    return std::string(std::get<0>(info.param).name) + "_" +
           kCuts[static_cast<int>(std::get<1>(info.param))];
  }
};

INSTANTIATE_TEST_SUITE_P(
    Replies, AckScannerTest,
    ::testing::Combine(
        ::testing::Values(
            AckCase{"ConnectionEstablished", "HTTP/1.1 200 Connection established\r\n\r\n",
                    AckScanner::Verdict::Good},
            AckCase{"ProxyAuthenticationRequired",
                    "HTTP/1.1 407 Proxy Authentication Required\r\n\r\n", AckScanner::Verdict::Bad},
            AckCase{"TwoHundredAnywhereInTheHead", "HTTP/1.1 502 Bad\r\nX-Code: 200\r\n\r\n",
                    AckScanner::Verdict::Good},
            AckCase{"TwoHundredOnlyAfterTheTerminatorIsNotJudged", "HTTP/1.1 503 No\r\n\r\n200 200",
                    AckScanner::Verdict::Bad},
            AckCase{"HeadThatIsNotUTF8", "HTTP/1.1 200 \xff\xfe\r\n\r\n", AckScanner::Verdict::Bad},
            AckCase{"EmptyHead", "\r\n\r\n", AckScanner::Verdict::Bad},
            AckCase{"NoTerminatorYet", "HTTP/1.1 200 OK\r\n", AckScanner::Verdict::NeedMore},
            AckCase{"LongHeadStillJudgedWhenItsTerminatorComes", "200" + kPadding8186 + "\r\n\r\n",
                    AckScanner::Verdict::Good}),
        ::testing::Values(Cut::Whole, Cut::ByteByByte, Cut::TerminatorStraddles)),
    AckCaseName());

TEST(AckScannerLimitTest, EightThousandOneHundredNinetyTwoBytesWaitForMore) {
  AckScanner scanner;
  for (int i = 0; i < 8; ++i)
    EXPECT_EQ(scanner.append(Bytes(1024, 'a')), AckScanner::Verdict::NeedMore);
}

TEST(AckScannerLimitTest, OneByteMoreWithoutTheTerminatorIsBad) {
  AckScanner scanner;
  for (int i = 0; i < 8; ++i) scanner.append(Bytes(1024, 'a'));
  EXPECT_EQ(scanner.append(Bytes{'a'}), AckScanner::Verdict::Bad);
}

// readAck on a scripted connection: how deliveries, ends and errors decide it. Every delivery
// is scripted before the first receive runs; the verdict must come exactly once and no receive
// may be left behind.
struct Delivery {
  std::optional<Bytes> content;
  bool isComplete = false;
  bool error = false;
};

struct ReadAckCase {
  const char* name;
  std::vector<Delivery> deliveries;
  bool good;
};

class ReadAckTest : public ::testing::TestWithParam<ReadAckCase> {};

TEST_P(ReadAckTest, JudgesOnce) {
  auto env = SimulatedRuntime::create();
  auto conn = std::make_shared<ScriptedConnection>(
      NWEndpoint::hostPort("127.0.0.1", *NWEndpointPort::make(9000)));
  conn->start(env->makeQueue("q", QualityOfService::Default));
  conn->becomeReady();
  std::vector<bool> results;
  readAck(conn, [&](bool good) { results.push_back(good); });
  for (const auto& d : GetParam().deliveries) {
    conn->deliver(d.content, d.isComplete,
                  d.error ? std::optional(NWError::fromErrno(ECONNRESET)) : std::nullopt);
  }
  env->runUntilIdle();
  EXPECT_EQ(results, std::vector<bool>{GetParam().good});
  EXPECT_EQ(conn->pendingReceives(), 0u);
}

const Bytes kOk = bytesOf("HTTP/1.1 200 OK\r\n\r\n");

INSTANTIATE_TEST_SUITE_P(
    Deliveries, ReadAckTest,
    ::testing::Values(
        ReadAckCase{"ReplyLargerThanOneReceive",
                    {{bytesOf("HTTP/1.1 200 OK\r\nX-Pad: " + std::string(3000, 'p') + "\r\n\r\n")}},
                    true},
        ReadAckCase{"EndOfStreamBeforeTheTerminator",
                    {{bytesOf("HTTP/1.1 200 OK\r\n")}, {std::nullopt, true}},
                    false},
        ReadAckCase{"ErrorBeforeTheTerminator", {{std::nullopt, false, true}}, false},
        ReadAckCase{"TerminatorWinsOverTheEndFlagOfItsChunk", {{kOk, true, true}}, true},
        ReadAckCase{"EmptyDeliveryLeadsToAnotherReceive", {{Bytes{}}, {kOk}}, true},
        ReadAckCase{"TooLongHeadIsJudgedWithoutReadingFurther",
                    {{Bytes(8193, 'a')}, {bytesOf("\r\n\r\n")}},
                    false}),
    CaseName());

}  // namespace
}  // namespace tarnwick
