#pragma once
// Audit tokens: the 32 opaque bytes that name the process behind a flow. Eight native-endian
// 32-bit words: audit user, effective UID, effective GID, real UID, real GID, PID, audit session
// and PID version. On Linux the PID version is taken from the process's start time, which
// changes when the PID is reused.
//
// Every function is total and may run on any thread: a token that is absent or not exactly 32
// bytes long gives PID 0, PID version -1 and no signing identifier.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/Bytes.h"
#include "platform/ProcessTable.h"

namespace tarnwick {

inline constexpr std::size_t kAuditTokenSize = 32;

std::int64_t pidFromAuditTokenData(const std::optional<Bytes>& token);

std::int64_t pidVersionFromAuditTokenData(const std::optional<Bytes>& token);

// The canonical path of the token's process executable, while the token's PID still names the
// process it was made for; absent once that process has gone or its PID is reused.
std::optional<std::string> signingIDFromAuditTokenData(const std::optional<Bytes>& token);

// The token of a live process; absent when the process cannot be inspected.
std::optional<Bytes> auditTokenForPID(std::int64_t pid);
// The token of process `pid` as `snapshot` saw it.
Bytes auditTokenFor(std::int64_t pid, const ProcessSnapshot& snapshot);

// The PID version a token carries for a process started `startTime` clock ticks after boot. Only
// the low 31 bits are kept: a version read from a token is sign-extended, and a negative one
// means "unknown", which would refuse every process started after some 248 days of uptime.
std::int32_t pidVersionForStartTime(std::uint64_t startTime);

}  // namespace tarnwick
