#include "identity/AncestryGate.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "IdentityTesting.h"

namespace tarnwick {
namespace {

// A synthetic process table that counts the lookups made against it.
struct ProcessTableFake {
  std::map<std::int64_t, std::int64_t> parents;
  std::map<std::int64_t, std::string> signingIDs;
  int lookups = 0;

  AncestryGate gate(std::int64_t maxDepth = 24, std::int64_t cacheCap = 4096) {
    return AncestryGate(
        maxDepth, cacheCap,
        [this](std::int64_t pid) -> std::optional<std::int64_t> {
          ++lookups;
          auto it = parents.find(pid);
          return it == parents.end() ? std::nullopt : std::optional(it->second);
        },
        [this](std::int64_t pid) -> std::optional<std::string> {
          auto it = signingIDs.find(pid);
          return it == signingIDs.end() ? std::nullopt : std::optional(it->second);
        });
  }

  // A chain start -> start-1 -> ... of `length` ancestors, the last one watched.
  void chain(std::int64_t start, int length) {
    for (int i = 0; i < length; ++i) parents[start - i] = start - i - 1;
    parents[start - length] = 1;
    signingIDs[start - length] = "agent";
  }
};

std::unique_ptr<WatchGate> watching(WatchGate::SigningSet signing, WatchGate::PidSet pids = {}) {
  auto gate = std::make_unique<WatchGate>();
  gate->update(std::move(signing), std::move(pids));
  return gate;
}

struct WalkCase {
  const char* name;
  std::map<std::int64_t, std::int64_t> parents;
  std::map<std::int64_t, std::string> signingIDs;
  std::int64_t start;
  bool descendant;
};

class AncestryWalkTest : public ::testing::TestWithParam<WalkCase> {};

TEST_P(AncestryWalkTest, Walks) {
  const auto& c = GetParam();
  ProcessTableFake table{c.parents, c.signingIDs};
  const auto watch = watching({"agent", ""}, {800});
  EXPECT_EQ(table.gate().isWatchedDescendant(c.start, 1, *watch), c.descendant);
}

const std::map<std::int64_t, std::int64_t> kChain = {{900, 800}, {800, 700}, {700, 1}};

INSTANTIATE_TEST_SUITE_P(
    Chains, AncestryWalkTest,
    ::testing::Values(
        WalkCase{"WatchedGrandparent", kChain, {{700, "agent"}}, 900, true},
        WalkCase{"StartProcessNotExamined", kChain, {{700, "agent"}}, 700, false},
        WalkCase{"PidWatchedAncestorDoesNotCount", kChain, {{800, "other"}}, 900, false},
        WalkCase{"EmptyIdentifierSkipped", kChain, {{800, ""}, {700, "agent"}}, 900, true},
        WalkCase{"OwnParentEndsWalk", {{900, 900}}, {{900, "agent"}}, 900, false},
        WalkCase{"ParentZeroEndsWalk", {{900, 0}}, {{0, "agent"}}, 900, false},
        WalkCase{"InitEndsWalk", {{900, 1}}, {{1, "agent"}}, 900, false},
        WalkCase{"UnknownParentEndsWalk", {}, {}, 900, false},
        WalkCase{"CycleEndsAtDepth", {{900, 800}, {800, 900}}, {}, 900, false}),
    CaseName());

struct DepthCase {
  const char* name;
  int chainLength;
  std::int64_t maxDepth;
  bool descendant;
};

class AncestryDepthTest : public ::testing::TestWithParam<DepthCase> {};

TEST_P(AncestryDepthTest, ExaminesAtMostMaxDepthAncestors) {
  const auto& c = GetParam();
  ProcessTableFake table;
  table.chain(5000, c.chainLength);
  EXPECT_EQ(table.gate(c.maxDepth).isWatchedDescendant(5000, 1, *watching({"agent"})),
            c.descendant);
}

INSTANTIATE_TEST_SUITE_P(Depths, AncestryDepthTest,
                         ::testing::Values(DepthCase{"TwentyFourthAncestor", 24, 24, true},
                                           DepthCase{"TwentyFifthAncestor", 25, 24, false},
                                           DepthCase{"TwentyFifthWithDepth25", 25, 25, true},
                                           DepthCase{"DepthZeroExaminesNone", 1, 0, false}),
                         CaseName());

TEST(AncestryCache, AnswersAgainWithoutLookups) {
  ProcessTableFake table{kChain, {{700, "agent"}}};
  auto gate = table.gate();
  const auto watch = watching({"agent"});
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, *watch));
  const int afterFirst = table.lookups;
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, *watch));
  EXPECT_EQ(table.lookups, afterFirst);
}

TEST(AncestryCache, NewVersionWalksAgainAndReplacesTheEntry) {
  ProcessTableFake table{kChain, {{700, "agent"}}};
  auto gate = table.gate();
  const auto watch = watching({"agent"});
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, *watch));
  table.parents[900] = 1;  // PID 900 now names another process, under init
  EXPECT_FALSE(gate.isWatchedDescendant(900, 6, *watch));
  const int lookups = table.lookups;
  EXPECT_FALSE(gate.isWatchedDescendant(900, 6, *watch));
  EXPECT_EQ(table.lookups, lookups) << "the negative answer is cached too";
}

TEST(AncestryCache, EmptiesWholeAtCapacity) {
  ProcessTableFake table;
  auto gate = table.gate(24, 3);
  const auto watch = watching({"agent"});
  for (std::int64_t pid : {1001, 1002, 1003, 1004}) gate.isWatchedDescendant(pid, 1, *watch);
  const int lookups = table.lookups;
  gate.isWatchedDescendant(1004, 1, *watch);
  EXPECT_EQ(table.lookups, lookups) << "1004 stays cached";
  gate.isWatchedDescendant(1001, 1, *watch);
  EXPECT_EQ(table.lookups, lookups + 1) << "1001 was flushed";
}

TEST(AncestryCache, DropCacheMakesTheNextQueryWalk) {
  ProcessTableFake table{kChain, {{700, "agent"}}};
  auto gate = table.gate();
  auto watch = watching({"agent"});
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, *watch));
  watch->update({}, {});
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, *watch)) << "answered from the cache";
  gate.dropCache();
  EXPECT_FALSE(gate.isWatchedDescendant(900, 5, *watch));
}

std::string canonical(const std::string& path) { return std::filesystem::canonical(path).string(); }

TEST(LiveProcessTable, ParentOfThisProcess) {
  EXPECT_EQ(AncestryGate::realParentPID(::getpid()), ::getppid());
}

TEST(LiveProcessTable, ChildChainAndExecutable) {
  SpawnedProcess child("/bin/sleep");
  ASSERT_GT(child.pid(), 0);
  EXPECT_EQ(AncestryGate::realParentPID(child.pid()), ::getpid());
  EXPECT_EQ(AncestryGate::realSigningID(child.pid()), canonical("/bin/sleep"));
  EXPECT_EQ(AncestryGate::realSigningID(::getpid()), canonical("/proc/self/exe"));
}

// The command name shows in /proc/PID/stat between parentheses; one holding blanks and
// parentheses of its own must not shift the fields after it.
TEST(LiveProcessTable, CommandNameWithBlanksAndParentheses) {
  TemporaryDirectory directory;
  const auto program = directory.path() / "a (b) c";
  std::filesystem::copy_file("/bin/sleep", program);
  SpawnedProcess child(program.string());
  ASSERT_GT(child.pid(), 0);
  EXPECT_EQ(AncestryGate::realParentPID(child.pid()), ::getpid());
  EXPECT_EQ(AncestryGate::realSigningID(child.pid()), canonical(program.string()));
}

TEST(LiveProcessTable, GoneProcessGivesNothing) {
  SpawnedProcess child("/bin/true", {});
  ASSERT_GT(child.pid(), 0);
  child.reap();
  EXPECT_EQ(AncestryGate::realParentPID(child.pid()), std::nullopt);
  EXPECT_EQ(AncestryGate::realSigningID(child.pid()), std::nullopt);
}

TEST(LiveProcessTable, ImplausiblePidsGiveNothing) {
  for (std::int64_t pid : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 32}) {
    EXPECT_EQ(AncestryGate::realParentPID(pid), std::nullopt) << pid;
    EXPECT_EQ(AncestryGate::realSigningID(pid), std::nullopt) << pid;
  }
}

// A real chain: a shell started by this test starts sleep; with this test's executable watched,
// the sleep descends from it.
TEST(LiveProcessTable, RealDescendantOfWatchedProcess) {
  SpawnedProcess shell("/bin/sh", {"-c", "/bin/sleep 30; exit 0"});
  ASSERT_GT(shell.pid(), 0);
  std::optional<std::int64_t> grandchild;
  for (int attempt = 0; attempt < 500 && !grandchild; ++attempt) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string name = entry.path().filename().string();
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      if (AncestryGate::realParentPID(std::stoll(name)) == shell.pid())
        grandchild = std::stoll(name);
    }
    if (!grandchild) ::usleep(2000);
  }
  ASSERT_TRUE(grandchild.has_value());
  AncestryGate gate;
  EXPECT_TRUE(gate.isWatchedDescendant(*grandchild, 1, *watching({canonical("/proc/self/exe")})));
  EXPECT_FALSE(gate.isWatchedDescendant(*grandchild, 2, *watching({"/nowhere"})));
  ::kill(static_cast<pid_t>(*grandchild), SIGKILL);
}

}  // namespace
}  // namespace tarnwick
