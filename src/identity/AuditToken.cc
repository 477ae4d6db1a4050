#include "identity/AuditToken.h"

#include <array>
#include <cstring>

#include "platform/ProcessTable.h"

namespace tarnwick {
namespace {

// The token's layout; read only through the accessors below.
struct AuditTokenWords {
  std::array<std::uint32_t, 8> val{};
};
static_assert(sizeof(AuditTokenWords) == kAuditTokenSize);

constexpr std::size_t kPidWord = 5;
constexpr std::size_t kPidVersionWord = 7;

std::optional<AuditTokenWords> wordsOf(const std::optional<Bytes>& token) {
  if (!token || token->size() != kAuditTokenSize) return std::nullopt;
  AuditTokenWords words;
  std::memcpy(words.val.data(), token->data(), kAuditTokenSize);
  return words;
}

std::int64_t signedWord(const AuditTokenWords& words, std::size_t index) {
  return static_cast<std::int32_t>(words.val[index]);
}

// True while `pid` still names the process started at the time `pidVersion` encodes.
bool isSameProcess(std::int64_t pid, std::int64_t pidVersion) {
  const auto stat = readProcessStat(pid);
  return stat && pidVersionForStartTime(stat->startTime) == pidVersion;
}

}  // namespace

std::int64_t pidFromAuditTokenData(const std::optional<Bytes>& token) {
  const auto words = wordsOf(token);
  return words ? signedWord(*words, kPidWord) : 0;
}

std::int64_t pidVersionFromAuditTokenData(const std::optional<Bytes>& token) {
  const auto words = wordsOf(token);
  return words ? signedWord(*words, kPidVersionWord) : -1;
}

std::optional<std::string> signingIDFromAuditTokenData(const std::optional<Bytes>& token) {
  const auto words = wordsOf(token);
  if (!words) return std::nullopt;
  const std::int64_t pid = signedWord(*words, kPidWord);
  const std::int64_t pidVersion = signedWord(*words, kPidVersionWord);
  if (!isSameProcess(pid, pidVersion)) return std::nullopt;
  auto path = readExecutablePath(pid);
  // Checked again: the process may have exited, and its PID been reused, while the path was read.
  if (!path || path->empty() || !isSameProcess(pid, pidVersion)) return std::nullopt;
  return path;
}

std::optional<Bytes> auditTokenForPID(std::int64_t pid) {
  const auto snapshot = readProcessSnapshot(pid);
  if (!snapshot) return std::nullopt;
  return auditTokenFor(pid, *snapshot);
}

Bytes auditTokenFor(std::int64_t pid, const ProcessSnapshot& snapshot) {
  const ProcessCredentials& credentials = snapshot.credentials;
  AuditTokenWords words;
  words.val = {credentials.auditUser,
               credentials.effectiveUID,
               credentials.effectiveGID,
               credentials.realUID,
               credentials.realGID,
               static_cast<std::uint32_t>(pid),
               credentials.session,
               static_cast<std::uint32_t>(pidVersionForStartTime(snapshot.stat.startTime))};
  Bytes token(kAuditTokenSize);
  std::memcpy(token.data(), words.val.data(), kAuditTokenSize);
  return token;
}

std::int32_t pidVersionForStartTime(std::uint64_t startTime) {
  return static_cast<std::int32_t>(startTime & 0x7FFFFFFFu);
}

}  // namespace tarnwick
