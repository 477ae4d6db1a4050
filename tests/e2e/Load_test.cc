// Under load the interceptor carries every watched byte exactly, relays every connection of a
// burst through the front door once, does not slow down without its daemon, and gives back the
// descriptors and memory it took.

#include <algorithm>
#include <csignal>
#include <iostream>
#include <thread>

#include "LoadTest.h"

namespace tarnwick::e2e {
namespace {

// Enough time for `bytes` through two hops on a busy two-core machine; only a hang runs it out.
double deadlineFor(std::uint64_t bytes) { return 60.0 + static_cast<double>(bytes) / (4 << 20); }

void expectRelayedOnly(const Json& status, std::uint64_t relayed) {
  EXPECT_EQ(status["relayed"], relayed) << status.dump();
  EXPECT_EQ(status["failedOpen"], Json::object()) << status.dump();
  EXPECT_EQ(status["circuit"], "closed") << status.dump();
}

// A thousand transfers at once on a small machine keep the front door itself so busy that it
// may answer a few handshakes after the budget: those fail open, exactly and once, and count
// nothing against it. Nothing else may fail open.
void expectRelayedOrAnsweredLate(const Json& status, std::uint64_t relayed) {
  EXPECT_EQ(status["relayed"], relayed) << status.dump();
  for (const auto& [reason, count] : status["failedOpen"].items()) {
    EXPECT_EQ(reason, "handshake-timeout") << status.dump();
    std::cout << count << " handshakes answered late\n";
  }
  EXPECT_EQ(status["circuit"], "closed") << status.dump();
}

TEST_F(LoadTest, ConcurrentTransfersArriveByteExactBothWays) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  const std::uint64_t count = size_.transfers;
  const std::string sizes = "0-" + std::to_string(size_.transferBytes);
  const auto run = runLoad({.count = count,
                            .up = sizes,
                            .down = sizes,
                            .deadlineSeconds = deadlineFor(count * size_.transferBytes)});
  EXPECT_EQ(run.outcomes, all(count)) << run.output;
  expectVisits(1, count);
  expectRelayedOrAnsweredLate(settledStatus(), count);
}

// Every connect of the burst goes through the front door, and no destination gets a request
// twice (as it would from a handshake given up while the front door still delivered it).
TEST_F(LoadTest, BurstOfConnectsReachesEachDestinationOnceThroughTheFrontDoor) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  const std::uint64_t count = size_.burst;
  const auto run = runLoad({.count = count, .up = "1-2000", .down = "1-2000"});
  EXPECT_EQ(run.outcomes, all(count)) << run.output;
  expectVisits(1, count);
  expectRelayedOnly(settledStatus(), count);
  EXPECT_EQ(frontDoorLines(count).size(), count);
}

struct DaemonAbsence {
  const char* name;
  int signal;
};

void PrintTo(const DaemonAbsence& absence, std::ostream* out) { *out << absence.name; }

class DaemonAbsenceTest : public LoadTest, public ::testing::WithParamInterface<DaemonAbsence> {};

// The events of a burst meet a daemon that is gone or does not read; the flows must not wait on
// them. Timing is compared within the run, never against a fixed figure.
TEST_P(DaemonAbsenceTest, FlowsAreNotSlowed) {
  ASSERT_NO_FATAL_FAILURE(startRelaying());
  const std::uint64_t count = size_.burst;
  const LoadRun round{.count = count, .up = "0-16384", .down = "0-16384"};
  const auto with = runLoad(round);
  ASSERT_EQ(with.outcomes, all(count)) << with.output;

  daemon_->signal(GetParam().signal);
  auto later = round;
  later.firstId += count;
  const auto without = runLoad(later);
  EXPECT_EQ(without.outcomes, all(count)) << without.output;
  EXPECT_LT(without.seconds, 3 * with.seconds + 1.0)
      << "with the daemon " << with.seconds << " s, without it " << without.seconds << " s";
  expectVisits(1, 2 * count);
  expectRelayedOnly(settledStatus(), 2 * count);
}

const DaemonAbsence kAbsences[] = {{"Killed", SIGKILL}, {"NotReading", SIGSTOP}};

INSTANTIATE_TEST_SUITE_P(Daemon, DaemonAbsenceTest, ::testing::ValuesIn(kAbsences),
                         [](const auto& param) { return param.param.name; });

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
    const auto run = finishLoad(*load, 60);
    ASSERT_EQ(run.outcomes, all(size_.transfers)) << run.output;
    ASSERT_TRUE(settledStatus().is_object());
  };
  // The first round brings lanes, caches and the allocator to their working size.
  ASSERT_NO_FATAL_FAILURE(round());
  const auto baseline = interceptorDescriptors();
  const std::size_t baselineKiB = interceptorResidentKiB();
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
    after = interceptorDescriptors();
    return std::all_of(after.begin(), after.end(),
                       [&](const auto& kind) { return kind.second <= bounds.at(kind.first); });
  });
  EXPECT_TRUE(back) << "descriptors before " << Json(baseline).dump() << ", after "
                    << Json(after).dump();
  const std::size_t afterKiB = interceptorResidentKiB();
  std::cout << "descriptors before " << Json(baseline).dump() << ", after " << Json(after).dump()
            << "; resident KiB before " << baselineKiB << ", after " << afterKiB << "\n";
  if (kSanitized) return;
  EXPECT_LE(afterKiB, baselineKiB + std::max<std::size_t>(baselineKiB / 4, 16 * 1024))
      << "resident KiB before " << baselineKiB << ", after " << afterKiB;
}

}  // namespace
}  // namespace tarnwick::e2e
