#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <map>
#include <thread>
#include <tuple>

#include "identity/AncestryGate.h"
#include "identity/AuditToken.h"
#include "identity/IdentityGate.h"
#include "identity/WatchGate.h"
#include "platform/ProcessTable.h"

extern char** environ;

namespace tarnwick {
namespace {

using Sets = std::pair<WatchGate::SigningSet, WatchGate::PidSet>;

TEST(WatchGate, DecodesWatchSetMessages) {
  for (const auto& [message, sets] : std::vector<std::pair<std::string, std::optional<Sets>>>{
           {"", std::nullopt},
           {"watchedPIDs=1", std::nullopt},
           {"[1,2]", std::nullopt},
           {R"({"watchedSigningIDs":["com.example.agent"],"watchedPIDs":[4123,"4177"],"x":1})",
            Sets{{"com.example.agent"}, {4123, 4177}}},
           {"{}", Sets{}},
           // Empty texts are dropped, the rest kept exactly; one non-text element discards all.
           {R"({"watchedSigningIDs":["a",""," A "]})", Sets{{"a", " A "}, {}}},
           {R"({"watchedSigningIDs":["a",5],"watchedPIDs":7})", Sets{}},
           // A text holding a JSON array stands for the array; any other text for nothing.
           {R"({"watchedSigningIDs":"[\"a\"]","watchedPIDs":"[7,\"8\"]"})", Sets{{"a"}, {7, 8}}},
           {R"({"watchedSigningIDs":"a","watchedPIDs":"{\"a\":7}"})", Sets{}},
           // PID elements are skipped one by one; numbers truncate, Booleans count as 1 and 0.
           {R"({"watchedPIDs":[12,"13","x",14.9,null,"15 ",[16],{"p":17},"-4","+5","+-6","-",)"
            R"(true,false,"9223372036854775807","9223372036854775808"]})",
            Sets{{}, {12, 13, 14, -4, 5, 1, 0, INT64_MAX}}}}) {
    EXPECT_EQ(WatchGate::decode(bytesOf(message)), sets) << message;
  }
}

TEST(WatchGate, MatchesSigningIdentifiersExactlyAndPidsOtherThanZero) {
  WatchGate gate;
  gate.update({"com.example", ""}, {42, 0});
  for (const auto& [signingID, pid, watched] :
       std::vector<std::tuple<std::string, int, bool>>{{"com.example", 7, true},
                                                       {"x", 42, true},
                                                       {"x", 43, false},
                                                       {"", 0, false},
                                                       {"Com.Example", 7, false},
                                                       {"com.example.helper", 7, false}}) {
    EXPECT_EQ(gate.isWatched(signingID, pid), watched) << signingID << " " << pid;
  }
}

// A reader running while the set is replaced sees the old set or the new one, never half of
// each: here "a" and 7 are watched together or not at all, so ("a", 1) is always watched.
TEST(WatchGate, ConcurrentReadersNeverSeeHalfAnUpdate) {
  WatchGate gate;
  gate.update({"a"}, {7});
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) i % 2 ? gate.update({"a"}, {7}) : gate.update({"x"}, {1});
    done = true;
  });
  int torn = 0;
  while (!done) torn += !gate.isWatched("a", 1);
  writer.join();
  EXPECT_EQ(torn, 0);
}

// Each step is a flow under PID 500: its PID version, signing identifier and the verdict.
TEST(IdentityGate, BindsAPidToItsFirstProcessAgainstReuse) {
  using Steps = std::vector<std::tuple<std::int64_t, const char*, bool>>;
  for (const auto& [name, steps] : std::vector<std::pair<const char*, Steps>>{
           {"ReusedPidRefusedForGood", {{7, "a", true}, {8, "a", false}, {7, "a", true}}},
           {"ConflictingIdentifier", {{7, "a", true}, {7, "b", false}}},
           {"EmptyCurrentIdentifier", {{7, "a", true}, {7, "", true}}},
           {"EmptyRecordedIdentifier", {{7, "", true}, {7, "b", true}, {8, "", false}}},
           {"UnknownVersionBindsNothing", {{-1, "a", false}, {9, "b", true}, {-1, "b", false}}},
           {"VersionZeroIsAVersion", {{0, "a", true}, {0, "a", true}, {1, "a", false}}}}) {
    IdentityGate gate;
    for (const auto& [version, signingID, allowed] : steps) {
      EXPECT_EQ(gate.allowPIDMatch(500, version, signingID), allowed) << name << " " << version;
    }
  }
}

TEST(IdentityGate, PrunedAndForgottenPidsBindAfresh) {
  IdentityGate gate;
  for (std::int64_t pid : {500, 501, 502}) gate.allowPIDMatch(pid, 7, "a");
  gate.pruneTo({500, 501, 999});
  gate.forget(501);
  EXPECT_FALSE(gate.allowPIDMatch(500, 8, "a")) << "kept";
  EXPECT_TRUE(gate.allowPIDMatch(501, 8, "z")) << "forgotten";
  EXPECT_TRUE(gate.allowPIDMatch(502, 8, "z")) << "pruned";
}

// A synthetic process table.
struct FakeTable {
  std::map<std::int64_t, std::int64_t> parents;
  std::map<std::int64_t, std::string> signingIDs;

  AncestryGate gate(std::int64_t maxDepth = 24, std::int64_t cacheCap = 4096) {
    return AncestryGate(
        maxDepth, cacheCap,
        [this](std::int64_t pid) {
          return parents.contains(pid) ? std::optional(parents[pid]) : std::nullopt;
        },
        [this](std::int64_t pid) {
          return signingIDs.contains(pid) ? std::optional(signingIDs[pid]) : std::nullopt;
        });
  }
};

const std::map<std::int64_t, std::int64_t> kChain = {{900, 800}, {800, 700}, {700, 1}};

TEST(AncestryGate, WalksParentsForAWatchedSigningIdentifier) {
  WatchGate watch;
  watch.update({"agent", ""}, {800});
  for (const auto& [name, table, start, descendant] :
       std::vector<std::tuple<const char*, FakeTable, std::int64_t, bool>>{
           {"Grandchild", {kChain, {{700, "agent"}}}, 900, true},
           {"Child", {kChain, {{800, "agent"}}}, 900, true},
           {"StartNotExamined", {kChain, {{700, "agent"}}}, 700, false},
           {"PidWatchDoesNotCount", {kChain, {{800, "other"}}}, 900, false},
           {"EmptyIdentifierSkipped", {kChain, {{800, ""}, {700, "agent"}}}, 900, true},
           {"OwnParent", {{{900, 900}}, {{900, "agent"}}}, 900, false},
           {"ParentZero", {{{900, 0}}, {{0, "agent"}}}, 900, false},
           {"Init", {{{900, 1}}, {{1, "agent"}}}, 900, false},
           {"UnknownParent", {}, 900, false},
           {"Loop", {{{900, 800}, {800, 900}}, {}}, 900, false}}) {
    EXPECT_EQ(FakeTable(table).gate().isWatchedDescendant(start, 1, watch), descendant) << name;
  }
  // maxDepth ancestors are examined and no more.
  for (const auto& [length, maxDepth, descendant] :
       std::vector<std::tuple<int, int, bool>>{{24, 24, true}, {25, 24, false}, {1, 0, false}}) {
    FakeTable table;
    for (int i = 0; i < length; ++i) table.parents[5000 - i] = 4999 - i;
    table.signingIDs[5000 - length] = "agent";
    EXPECT_EQ(table.gate(maxDepth).isWatchedDescendant(5000, 1, watch), descendant) << length;
  }
}

TEST(AncestryGate, CachesPerPidVersionUntilDroppedOrFull) {
  FakeTable table{kChain, {{700, "agent"}}};
  AncestryGate gate = table.gate(24, 3);
  WatchGate watch;
  watch.update({"agent"}, {});
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, watch));
  table.parents[900] = 1;  // PID 900 now names another process, under init
  EXPECT_TRUE(gate.isWatchedDescendant(900, 5, watch)) << "the same process: cached";
  EXPECT_FALSE(gate.isWatchedDescendant(900, 6, watch)) << "a new version walks again";
  table.parents[900] = 800;
  EXPECT_FALSE(gate.isWatchedDescendant(900, 6, watch)) << "negative answers are cached too";
  gate.dropCache();  // as on every watch-set change
  EXPECT_TRUE(gate.isWatchedDescendant(900, 6, watch));
  for (std::int64_t pid : {1001, 1002, 1003}) gate.isWatchedDescendant(pid, 1, watch);
  table.parents[900] = 1;
  EXPECT_FALSE(gate.isWatchedDescendant(900, 6, watch)) << "a full cache is emptied whole";
}

TEST(AuditToken, DecodesPidAndVersionWordsSignExtended) {
  for (const auto& [pidWord, versionWord, pid, version] :
       std::vector<std::tuple<std::uint32_t, std::uint32_t, std::int64_t, std::int64_t>>{
           {4123, 99, 4123, 99},
           {0xFFFFFFFF, 0xFFFFFFFF, -1, -1},
           {0x80000000, 0x80000000, INT32_MIN, INT32_MIN}}) {
    const std::array<std::uint32_t, 8> words = {11, 12, 13, 14, 15, pidWord, 17, versionWord};
    Bytes token(kAuditTokenSize);
    std::memcpy(token.data(), words.data(), kAuditTokenSize);
    EXPECT_EQ(pidFromAuditTokenData(token), pid);
    EXPECT_EQ(pidVersionFromAuditTokenData(token), version);
  }
  // Only the low 31 bits of the start time are kept, so a version read back is never negative.
  for (const auto& [startTime, version] : std::vector<std::pair<std::uint64_t, std::int32_t>>{
           {5, 5}, {0x7FFFFFFF, 0x7FFFFFFF}, {0x80000001, 1}, {0x1234567890, 0x34567890}}) {
    EXPECT_EQ(pidVersionForStartTime(startTime), version);
  }
}

TEST(AuditToken, TokensNotThirtyTwoBytesLongGiveTheFailureValues) {
  Bytes own = auditTokenForPID(::getpid()).value_or(Bytes(kAuditTokenSize));
  const Bytes shorter(own.begin(), own.end() - 1);
  own.push_back(0);
  for (const std::optional<Bytes>& token : {std::optional<Bytes>(), std::optional(Bytes()),
                                            std::optional(shorter), std::optional(own)}) {
    EXPECT_EQ(pidFromAuditTokenData(token), 0);
    EXPECT_EQ(pidVersionFromAuditTokenData(token), -1);
    EXPECT_EQ(signingIDFromAuditTokenData(token), std::nullopt);
  }
}

std::string canonical(const char* path) { return std::filesystem::canonical(path).string(); }

// Runs `path` (a copy of sleep) as a child of this process. glibc's posix_spawn returns once the
// child runs the program, so /proc already describes it.
pid_t spawnSleeper(const std::string& path) {
  pid_t pid = 0;
  const char* argv[] = {path.c_str(), "30", nullptr};
  EXPECT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  return pid;
}

void reap(pid_t pid) {
  if (pid > 0 && ::kill(pid, SIGKILL) == 0) ::waitpid(pid, nullptr, 0);
}

// A child of this process is named by the process table and by its audit token until it is
// reaped; a token whose PID version is not the process's names nothing.
TEST(LiveProcess, IsNamedUntilReaped) {
  const pid_t pid = spawnSleeper("/bin/sleep");
  const auto token = auditTokenForPID(pid);
  EXPECT_EQ(pidFromAuditTokenData(token), pid);
  EXPECT_EQ(pidVersionFromAuditTokenData(token),
            pidVersionForStartTime(readProcessStat(pid).value_or(ProcessStat{}).startTime));
  EXPECT_EQ(signingIDFromAuditTokenData(token), canonical("/bin/sleep"));
  EXPECT_EQ(AncestryGate::realSigningID(pid), canonical("/bin/sleep"));
  EXPECT_EQ(AncestryGate::realParentPID(pid), ::getpid());
  WatchGate watch;
  watch.update({canonical("/proc/self/exe")}, {});
  EXPECT_TRUE(AncestryGate().isWatchedDescendant(pid, 1, watch));
  Bytes stale = token.value_or(Bytes(kAuditTokenSize));
  stale[28] ^= 1;  // the PID version word
  EXPECT_EQ(signingIDFromAuditTokenData(stale), std::nullopt);

  reap(pid);
  EXPECT_EQ(auditTokenForPID(pid), std::nullopt);
  EXPECT_EQ(signingIDFromAuditTokenData(token), std::nullopt);
  for (std::int64_t gone :
       {std::int64_t{pid}, std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 32}) {
    EXPECT_EQ(AncestryGate::realParentPID(gone), std::nullopt) << gone;
    EXPECT_EQ(AncestryGate::realSigningID(gone), std::nullopt) << gone;
  }
}

// An upgrade replaces a program's file, an uninstall deletes it: the kernel then shows the
// running program's path with " (deleted)" after it. The program is still the one started from
// that path, for the flow's own identity and for its descendants' ancestry alike; a file that
// really bears such a name keeps it.
TEST(LiveProcess, KeepsThePathItStartedFromWhenItsFileGoes) {
  enum class Then { Stays, Deleted, Replaced };
  const std::filesystem::path directory =
      std::filesystem::path(::testing::TempDir()) / ("exe-" + std::to_string(::getpid()));
  std::filesystem::create_directories(directory);
  const std::string base = std::filesystem::canonical(directory).string() + "/agent";
  const std::tuple<std::string, Then, std::string> cases[] = {
      {base, Then::Deleted, base},
      {base, Then::Replaced, base},
      {base + " (deleted)", Then::Stays, base + " (deleted)"},
      {base + " (deleted)", Then::Deleted, base + " (deleted)"}};
  for (const auto& [path, then, identity] : cases) {
    SCOPED_TRACE(path + " " + std::to_string(static_cast<int>(then)));
    std::filesystem::copy_file("/bin/sleep", path);
    const pid_t pid = spawnSleeper(path);
    if (then != Then::Stays) std::filesystem::remove(path);
    if (then == Then::Replaced) {
      std::filesystem::copy_file("/bin/true", path + ".new");
      std::filesystem::rename(path + ".new", path);
    }
    EXPECT_EQ(AncestryGate::realSigningID(pid), identity);
    EXPECT_EQ(signingIDFromAuditTokenData(auditTokenForPID(pid)), identity);
    reap(pid);
    std::filesystem::remove(path);
  }
  std::filesystem::remove_all(directory);
}

// The command name between parentheses may hold blanks and parentheses of its own.
TEST(ProcessStat, ReadsParentAndStartTimeAfterTheLastClosingParenthesis) {
  const std::string tail = " S 3 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 987654 1000 50";
  using Fields = std::optional<std::pair<std::int64_t, std::uint64_t>>;
  for (const auto& [line, fields] : std::vector<std::pair<std::string, Fields>>{
           {"9 (a (b) c)" + tail, std::pair(3, 987654)},
           {"9 ()))" + tail, std::pair(3, 987654)},
           {"9 (x) S 3 9 9 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0", std::nullopt},
           {"9 (x) S x" + tail.substr(4), std::nullopt}}) {
    const auto stat = parseProcessStat(line);
    EXPECT_EQ(stat ? Fields(std::pair(stat->parentPID, stat->startTime)) : std::nullopt, fields)
        << line;
  }
}

}  // namespace
}  // namespace tarnwick
