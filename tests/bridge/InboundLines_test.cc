#include <numeric>
#include <random>

#include "BridgeHarness.h"
#include "bridge/InboundLine.h"
#include "bridge/LineBuffer.h"
#include "policy/EnforcementPolicy.h"

namespace tarnwick::testing {
namespace {

std::vector<std::string> cut(LineBuffer& buffer, std::string_view chunk) {
  std::vector<std::string> lines;
  buffer.append(std::span(reinterpret_cast<const std::uint8_t*>(chunk.data()), chunk.size()),
                [&](std::string_view line) { lines.emplace_back(line); });
  return lines;
}

TEST(LineBufferTest, EveryChunkingOfAStreamYieldsTheSameLines) {
  const std::string stream = "first\nsecond\r\n\n{\"kind\":\"policy.push\"}\nunfinished";
  const std::vector<std::string> expected = {"first", "second\r", "", R"({"kind":"policy.push"})"};
  std::mt19937 rng(7);
  for (int round = 0; round < 200; ++round) {
    LineBuffer buffer;
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < stream.size();) {
      const std::size_t size = std::min<std::size_t>(1 + rng() % 9, stream.size() - at);
      for (auto& line : cut(buffer, std::string_view(stream).substr(at, size))) {
        lines.push_back(std::move(line));
      }
      at += size;
    }
    ASSERT_EQ(lines, expected) << "round " << round;
    EXPECT_EQ(buffer.bufferedBytes(), std::string_view("unfinished").size());
  }
}

TEST(LineBufferTest, IncompleteLineBeyondTheCeilingIsDropped) {
  LineBuffer buffer;
  EXPECT_TRUE(cut(buffer, std::string(LineBuffer::kMaxBufferedBytes, 'x')).empty());
  EXPECT_EQ(buffer.bufferedBytes(), LineBuffer::kMaxBufferedBytes) << "at the ceiling: kept";
  EXPECT_TRUE(cut(buffer, "y").empty());
  EXPECT_EQ(buffer.bufferedBytes(), 0u) << "one byte over: dropped";
  // The rest of the dropped line arrives as a line of its own; the next one is whole.
  EXPECT_EQ(cut(buffer, "tail\nnext\n"), (std::vector<std::string>{"tail", "next"}));
}

TEST(LineBufferTest, CompleteLinesInALargeChunkAreNotCountedAgainstTheCeiling) {
  LineBuffer buffer;
  std::string chunk;
  for (int i = 0; i < 40000; ++i) chunk += "line-" + std::to_string(i) + "\n";
  ASSERT_GT(chunk.size(), LineBuffer::kMaxBufferedBytes);
  EXPECT_EQ(cut(buffer, chunk + "partial").size(), 40000u);
  EXPECT_EQ(buffer.bufferedBytes(), 7u);
}

struct InboundCase {
  const char* name;
  const char* line;
  bool isPush;
};

class InboundLineTest : public ::testing::TestWithParam<InboundCase> {};

TEST_P(InboundLineTest, OnlyPolicyPushObjectsAreActedUpon) {
  const auto document = InboundLine::policyPush(GetParam().line);
  ASSERT_EQ(document.has_value(), GetParam().isPush);
  if (document) {
    EXPECT_EQ(*document, Json::parse(GetParam().line)) << "the whole object";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, InboundLineTest,
    ::testing::Values(
        InboundCase{"KindOnly", R"({"kind":"policy.push"})", true},
        InboundCase{"CarriageReturnIsWhiteSpace", "{\"kind\":\"policy.push\"}\r", true},
        InboundCase{"Empty", "", false},
        InboundCase{"OtherKind", R"({"kind":"policy.pull"})", false},
        InboundCase{"KindNotText", R"({"kind":1})", false},
        InboundCase{"Array", R"([{"kind":"policy.push"}])", false},
        InboundCase{"BareNumber", "42", false},
        InboundCase{"InvalidJson", R"({"kind":"policy.push")", false},
        InboundCase{"TrailingBytes", R"({"kind":"policy.push"} x)", false},
        InboundCase{"InvalidUtf8", "{\"kind\":\"policy.push\",\"a\":\"\xff\"}", false}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

struct BridgeInboundCase {
  const char* name;
  std::vector<std::string> writes;  // each written separately, with the bridge run between
  int pushes;
};

class BridgeInboundTest : public BridgeTest,
                          public ::testing::WithParamInterface<BridgeInboundCase> {};

const std::string kPush = R"({"kind":"policy.push","version":1})";

TEST_P(BridgeInboundTest, HandlesEachCompleteLineOnceAndIgnoresTheRestSilently) {
  TestDaemon& daemon = connectToDaemon();
  logs_->clear();
  for (const std::string& bytes : GetParam().writes) {
    daemon.write(bytes);
    env_->runUntil([] { return false; }, 20ms);
  }
  daemon.write(R"({"kind":"policy.push","end":true})"
               "\n");
  ASSERT_TRUE(env_->runUntil([&] { return policy_.count() == GetParam().pushes + 1u; }));
  const auto documents = policy_.documents();
  for (int i = 0; i < GetParam().pushes; ++i) EXPECT_EQ(documents[i], Json::parse(kPush));
  EXPECT_EQ(documents.back()["end"], true);
  const std::vector<std::string> applied(GetParam().pushes + 1,
                                         "bridge: applied enforcement policy push");
  EXPECT_EQ(logs_->messages(), applied);
  EXPECT_TRUE(daemon.received().empty()) << "nothing is written back";
}

INSTANTIATE_TEST_SUITE_P(
    Daemon, BridgeInboundTest,
    ::testing::Values(
        BridgeInboundCase{"TwoLinesInOneWrite", {kPush + "\n" + kPush + "\n"}, 2},
        BridgeInboundCase{"LineOverSeveralWrites",
                          {kPush.substr(0, 5), kPush.substr(5, 10), kPush.substr(15) + "\n"},
                          1},
        BridgeInboundCase{"EmptyLines", {"\n\n\r\n"}, 0},
        BridgeInboundCase{"NotObjectsOrUnknownKinds",
                          {"[1,2]\n42\nnot json\n{\"kind\":\"relay.open\"}\n{\"kind\":null}\n"},
                          0},
        BridgeInboundCase{"OverlongLineIsDroppedAndTheNextIsWhole",
                          {std::string(300000, 'x'), "x\n" + kPush + "\n"},
                          1}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

using BridgeInboundLifetimeTest = BridgeTest;

TEST_F(BridgeInboundLifetimeTest, DaemonClosingEndsTheReadLoopSilently) {
  connectToDaemon();
  logs_->clear();
  daemon_->write(kPush.substr(0, 10));
  daemon_->closeConnection();
  env_->runUntil([] { return false; }, 50ms);
  EXPECT_TRUE(logs_->messages().empty());
  send(alive(1));
  EXPECT_EQ(logged(writeFailedLine()), 1u);
}

TEST_F(BridgeInboundLifetimeTest, DestroyingTheBridgeEndsABlockedReadLoop) {
  TestDaemon& daemon = connectToDaemon();
  bridge_.reset();  // joins the read queue: returns only if the blocked read ends
  EXPECT_TRUE(daemon.waitForEnd());
  daemon.write(kPush + "\n");
  env_->runUntilIdle();
  EXPECT_EQ(policy_.count(), 0u);
}

using PolicyPushTest = BridgeTest;

TEST_F(PolicyPushTest, PushReplacesWhatTheSharedPolicyDecides) {
  using Verdict = EnforcementPolicy::Verdict;
  EnforcementPolicy& policy = EnforcementPolicy::shared();
  policy.update(Json::object());
  bridge_ = DaemonBridge::create(env_, path_);  // default options: the shared policy
  connectToDaemon();
  const auto decide = [&] { return policy.decide(7, "/usr/bin/curl", "api.blocked.example"); };
  const auto applied = [&] { return logged("bridge: applied enforcement policy push"); };
  EXPECT_EQ(decide(), Verdict::Allow);

  daemon_->write(R"({"kind":"policy.push","version":1,"agents":{"/usr/bin/curl":)"
                 R"({"mode":"enforce","restrict":"deny","deny":["*.blocked.example"]}}})"
                 "\n");
  ASSERT_TRUE(env_->runUntil([&] { return applied() == 1; }));
  EXPECT_EQ(decide(), Verdict::Drop);

  // Logged whatever the policy made of it: a version it refuses leaves the policy as it was.
  daemon_->write(R"({"kind":"policy.push","version":2})"
                 "\n");
  ASSERT_TRUE(env_->runUntil([&] { return applied() == 2; }));
  EXPECT_EQ(decide(), Verdict::Drop);

  daemon_->write(R"({"kind":"policy.push"})"
                 "\n");
  ASSERT_TRUE(env_->runUntil([&] { return applied() == 3; }));
  EXPECT_EQ(decide(), Verdict::Allow) << "a document without sections empties the policy";
}

}  // namespace
}  // namespace tarnwick::testing
