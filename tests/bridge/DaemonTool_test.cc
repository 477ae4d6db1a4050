#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include "CommandLine.h"
#include "DaemonServer.h"
#include "EventFormat.h"
#include "platform/posix/UniqueFd.h"

namespace tarnwick::daemon {
namespace {

TEST(DaemonToolTest, CommandLineTakesBothOptionFormsAndNamesEachFault) {
  const std::vector<std::string_view> args = {"--socket", "/s", "--json", "--push=p.json"};
  const auto parsed = parseCommandLine(args);
  ASSERT_TRUE(std::holds_alternative<CommandLine>(parsed));
  const DaemonConfig& config = std::get<CommandLine>(parsed).config;
  EXPECT_TRUE(config.socketPath == "/s" && config.json && config.pushFile == "p.json");
  for (const auto& [faultArgs, message] :
       std::vector<std::pair<std::vector<std::string_view>, std::string>>{
           {{"--socket"}, "option '--socket' needs a value"},
           {{"--push="}, "option '--push' needs a value"},
           {{"--socket", ""}, "option '--socket' needs a value"},
           {{"--listen", "x"}, "unknown option '--listen'"}}) {
    const auto result = parseCommandLine(faultArgs);
    const auto* fault = std::get_if<UsageError>(&result);
    EXPECT_EQ(fault ? fault->message : "parsed", message);
  }
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

// A connection that ends in the middle of a line takes the partial line with it: the next
// connection's first line arrives whole and alone.
TEST(DaemonToolTest, EachConnectionCutsItsOwnLines) {
  char pattern[] = "/tmp/twd-XXXXXX";
  ASSERT_NE(::mkdtemp(pattern), nullptr);
  const std::string path = std::string(pattern) + "/ne.sock";
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> lines;  // events, and "disconnected" as each connection ends
  const auto note = [&](std::string_view line) {
    std::lock_guard<std::mutex> lock(mutex);
    lines.emplace_back(line);
    changed.notify_all();
  };
  std::string error;
  auto server = DaemonServer::create(path, std::nullopt,
                                     {note,
                                      [&](std::string_view status) {
                                        if (status == "disconnected") note(status);
                                      }},
                                     error);
  ASSERT_TRUE(server) << error;
  std::thread serving([&] { server->run(); });
  for (const std::string bytes : {R"({"kind":"cut)", "{\"kind\":\"whole\"}\n"}) {
    const UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(5), [&] { return lines.size() >= 3; });
    EXPECT_EQ(lines,
              (std::vector<std::string>{"disconnected", R"({"kind":"whole"})", "disconnected"}));
  }
  server->stop();
  serving.join();
  server.reset();
  std::filesystem::remove_all(pattern);
}

}  // namespace
}  // namespace tarnwick::daemon
