// Under load the interceptor carries every watched conversation exactly through the front door:
// concurrent transfers both ways, a burst of connects, destinations that speak first or close
// at once, half-closes and resets either way. Afterwards it holds no more descriptors or memory
// than before.

#include <algorithm>
#include <iostream>
#include <thread>

#include "LoadTest.h"

namespace tarnwick::e2e {
namespace {

// A range of sizes: "transfer" stands for 0 up to the run's largest transfer.
struct LoadCase {
  const char* name;
  std::uint64_t SoakSize::*count;
  const char* script;
  const char* up;
  const char* down;  // at least one byte where the client requests: a destination that ends
                     // without a word looks just like a front door dropping the tunnel
  const char* outcome = "exact";  // what every client sees
  LoadServer::Opening opening{};
  const char* worldSaw = "";  // how the world saw each client's stream end, when it is checked
};

void PrintTo(const LoadCase& loadCase, std::ostream* out) { *out << loadCase.name; }

class LoadCaseTest : public LoadTest, public ::testing::WithParamInterface<LoadCase> {};

// Every connection of a case runs at once and is relayed through the front door once; its
// request reaches the world once and whole. At a thousand transfers on a small machine the front
// door itself may answer a few handshakes after the budget: those fail open, exactly and once,
// and count nothing against it; nothing else may fail open.
TEST_P(LoadCaseTest, IsCarriedExactlyThroughTheFrontDoor) {
  const LoadCase& run = GetParam();
  world_ = std::make_unique<LoadServer>(lab_.world, run.opening);
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  const std::uint64_t count = size_.*run.count;
  const auto sizes = [&](std::string range) {
    return range == "transfer" ? "0-" + std::to_string(size_.transferBytes) : range;
  };
  const auto result = runLoad({.script = run.script,
                               .count = count,
                               .up = sizes(run.up),
                               .down = sizes(run.down),
                               .banner = run.opening.greeting,
                               .deadlineSeconds = 60.0 + count * size_.transferBytes / 4e6});
  EXPECT_EQ(result.outcomes, all(count, run.outcome)) << result.output;
  if (run.opening.closeAfterGreeting) {
    EXPECT_EQ(world_->accepted(), static_cast<int>(count)) << "each dialled once";
  } else {
    expectVisits(1, count, 1, run.worldSaw);
  }
  const auto status = settledStatus();
  EXPECT_EQ(status["relayed"], count) << status.dump();
  for (const auto& [reason, late] : status["failedOpen"].items()) {
    EXPECT_TRUE(reason == "handshake-timeout" && count >= 1000) << status.dump();
    std::cout << late << " handshakes answered late\n";
  }
  EXPECT_EQ(status["circuit"], "closed") << status.dump();
  // One line per flow, beside those of the liveness probes a late handshake calls for.
  const auto lines = frontDoorLines(count);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [&](auto line) {
                            return line["dest"].ends_with(":" + std::to_string(world_->port()));
                          }),
            count);
}

constexpr std::uint64_t kBanner = 64 * 1024;

const LoadCase kLoadCases[] = {
    {"ConcurrentTransfersBothWays", &SoakSize::transfers, "exchange", "transfer", "transfer"},
    {"BurstOfConnects", &SoakSize::burst, "exchange", "1-2000", "1-2000"},
    // The destination's first bytes share a read with the front door's acknowledgement.
    {"ServerFirstBanner",
     &SoakSize::conversations,
     "exchange",
     "1-4096",
     "1-4096",
     "exact",
     {.greeting = kBanner}},
    {"GreetsAndCloses",
     &SoakSize::conversations,
     "greeting",
     "0",
     "0",
     "exact",
     {.greeting = 1000, .closeAfterGreeting = true}},
    {"ClientEndsFirst", &SoakSize::conversations, "client-ends-first", "0-300000", "1-300000"},
    {"DestinationEndsFirstWhileTheClientSends", &SoakSize::conversations, "server-ends-first",
     "200000-400000", "1-2000"},
    {"ClientResets",
     &SoakSize::conversations,
     "client-resets",
     "1-4096",
     "1-4096",
     "exact",
     {},
     "reset"},
    {"DestinationResets", &SoakSize::conversations, "server-resets", "1-4096", "1-4096", "reset"},
};

INSTANTIATE_TEST_SUITE_P(Cases, LoadCaseTest, ::testing::ValuesIn(kLoadCases),
                         [](const auto& param) { return param.param.name; });

// The interceptor's descriptors by kind: "socket", "pipe", "proc" (a directory of a process)
// and "other"; and its resident memory.
std::map<std::string, std::size_t> descriptorsOf(pid_t pid) {
  std::map<std::string, std::size_t> kinds;
  std::error_code error;
  const auto fds = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(fds, error)) {
    const std::string target = std::filesystem::read_symlink(entry.path(), error).string();
    if (error) continue;  // closed meanwhile
    for (const char* kind : {"socket", "pipe", "/proc/", ""}) {
      if (!target.starts_with(kind)) continue;
      ++kinds[*kind == '/' ? "proc" : *kind ? kind : "other"];
      break;
    }
  }
  return kinds;
}
std::size_t residentKiBOf(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::size_t value = 0;
  for (std::string key; status >> key && key != "VmRSS:";) {
  }
  status >> value;
  return value;
}

// Sanitizers keep freed memory in quarantine: only a plain build says what was given back.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
constexpr bool kSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kSanitized = false;
#endif

// After a round of transfers and of short-lived watched programs, the interceptor holds no more
// sockets than before, no more pipes and process directories than its bounded caches keep, and
// no more memory than a little slack.
TEST_F(LoadTest, DescriptorsAndMemoryReturnToTheirBaseline) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  std::uint64_t nextId = 1;
  const auto round = [&] {
    auto load = spawnLoad(
        {.count = size_.transfers, .firstId = nextId, .up = "0-65536", .down = "0-65536"});
    nextId += size_.transfers;
    constexpr std::uint64_t kAtOnce = 20;
    for (std::uint64_t started = 0; started < size_.shortClients; started += kAtOnce) {
      std::vector<std::unique_ptr<Process>> clients;
      for (std::uint64_t i = started; i < std::min(size_.shortClients, started + kAtOnce); ++i)
        clients.push_back(spawn({.bytes = 1000}));
      for (auto& client : clients) ASSERT_EQ(finish(*client).status, 0) << client->output();
    }
    const auto run = finishLoad(*load);
    ASSERT_EQ(run.outcomes, all(size_.transfers)) << run.output;
    ASSERT_TRUE(settledStatus().contains("relays"));
  };
  // The first round brings lanes, caches and the allocator to their working size.
  ASSERT_NO_FATAL_FAILURE(round());
  const auto baseline = descriptorsOf(interceptor_->pid());
  const std::size_t baselineKiB = residentKiBOf(interceptor_->pid());
  ASSERT_NO_FATAL_FAILURE(round());

  const std::size_t lanes = std::clamp(std::thread::hardware_concurrency(), 1U, 8U);
  // Per lane: the directories of the last few processes (8), idle pipes of hand-backs (64).
  const auto had = [&](const char* kind) { return baseline.count(kind) ? baseline.at(kind) : 0; };
  const std::map<std::string, std::size_t> bounds = {{"socket", had("socket") + 2},
                                                     {"pipe", 2 * 64 * lanes},
                                                     {"proc", 8 * lanes},
                                                     {"other", had("other") + 2}};
  std::map<std::string, std::size_t> after;
  const bool back = eventually([&] {
    after = descriptorsOf(interceptor_->pid());
    return std::all_of(after.begin(), after.end(),
                       [&](const auto& kind) { return kind.second <= bounds.at(kind.first); });
  });
  const std::size_t afterKiB = residentKiBOf(interceptor_->pid());
  std::cout << "descriptors before " << Json(baseline).dump() << ", after " << Json(after).dump()
            << "; resident KiB before " << baselineKiB << ", after " << afterKiB << "\n";
  EXPECT_TRUE(back);
  if (kSanitized) return;
  EXPECT_LE(afterKiB, baselineKiB + std::max(baselineKiB / 4, std::size_t{16384}));
}

}  // namespace
}  // namespace tarnwick::e2e
