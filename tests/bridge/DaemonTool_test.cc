#include <gtest/gtest.h>

#include "CommandLine.h"
#include "EventFormat.h"

namespace tarnwick::daemon {
namespace {

// The option reader it shares with the other companion names each fault; an empty value is one.
TEST(DaemonToolTest, CommandLineTakesBothOptionFormsAndRefusesAnEmptyValue) {
  const std::vector<std::string_view> args = {"--socket", "/s", "--json", "--push=p.json"};
  const auto parsed = parseCommandLine(args);
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed));
  const DaemonConfig& config = std::get<CommandLine>(parsed).config;
  EXPECT_TRUE(config.socketPath == "/s" && config.json && config.pushFile == "p.json");
  const auto result = parseCommandLine(std::vector<std::string_view>{"--socket", ""});
  const auto* fault = std::get_if<UsageError>(&result);
  EXPECT_EQ(fault ? fault->message : "parsed", "option '--socket' needs a value");
}

TEST(DaemonToolTest, ReadableLinesShowKindThenSortedKeysQuotingAmbiguousTexts) {
  for (const auto& [line, shown] : std::vector<std::pair<std::string, std::string>>{
           {R"({"ts":5,"kind":"proxyext.alive"})", "proxyext.alive ts=5"},
           {R"({"kind":"relay.failopen","reason":"no-ack","signing_id":"a b","dest_host":""})",
            R"(relay.failopen dest_host="" reason=no-ack signing_id="a b")"},
           {R"({"count":3})", "? count=3"},
           {"[1]", "unparsed: [1]"},
           {"{bad", "unparsed: {bad"}}) {
    EXPECT_EQ(readableEvent(line), shown);
  }
}

TEST(DaemonToolTest, PushLineSetsTheKindAndCountsAreByKind) {
  std::string error;
  EXPECT_EQ(policyPushLine(R"({"version":1,"kind":"other"})", error),
            "{\"kind\":\"policy.push\",\"version\":1}\n");
  EXPECT_EQ(policyPushLine("[1]", error), std::nullopt);
  EXPECT_EQ(error, "the policy file must hold one JSON object");
  KindCounts counts;
  for (const char* kind : {"relay.open", "proxyext.alive", "relay.open"}) counts.add(kind);
  EXPECT_EQ(counts.readableSummary(), "events 3\n  proxyext.alive 1\n  relay.open 2");
  EXPECT_EQ(counts.jsonSummary(), R"({"counts":{"proxyext.alive":1,"relay.open":2},"total":3})");
}

}  // namespace
}  // namespace tarnwick::daemon
