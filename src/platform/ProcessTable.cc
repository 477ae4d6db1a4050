#include "platform/ProcessTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>

#include "platform/Text.h"

namespace tarnwick {
namespace {

constexpr std::uint32_t kUnsetID = std::numeric_limits<std::uint32_t>::max();
constexpr std::string_view kBlanks = " \t\n";

bool isPlausiblePID(std::int64_t pid) {
  return pid > 0 && pid <= std::numeric_limits<std::int32_t>::max();
}

std::string procPath(std::int64_t pid, std::string_view entry) {
  return "/proc/" + std::to_string(pid) + "/" + std::string(entry);
}

// The whole of a small /proc file; absent when it cannot be read or exceeds `limit` bytes.
std::optional<std::string> readSmallFile(const std::string& path, std::size_t limit = 8192) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string contents;
  std::array<char, 1024> chunk;
  bool failed = false;
  while (true) {
    const ssize_t n = ::read(fd, chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      failed = n < 0;
      break;
    }
    contents.append(chunk.data(), static_cast<std::size_t>(n));
    if (contents.size() > limit) {
      failed = true;
      break;
    }
  }
  ::close(fd);
  if (failed) return std::nullopt;
  return contents;
}

// The blank-separated word `index` (0-based) of `text`; empty when there are fewer words.
std::string_view wordAt(std::string_view text, int index) {
  std::size_t pos = 0;
  for (int i = 0;; ++i) {
    pos = text.find_first_not_of(kBlanks, pos);
    if (pos == std::string_view::npos) return {};
    const std::size_t end = std::min(text.find_first_of(kBlanks, pos), text.size());
    if (i == index) return text.substr(pos, end - pos);
    pos = end;
  }
}

// The line of /proc/PID/status that starts with `key`, without the key.
std::string_view statusLine(std::string_view status, std::string_view key) {
  for (std::size_t pos = 0; pos < status.size();) {
    std::size_t end = status.find('\n', pos);
    if (end == std::string_view::npos) end = status.size();
    const std::string_view line = status.substr(pos, end - pos);
    if (line.starts_with(key)) return line.substr(key.size());
    pos = end + 1;
  }
  return {};
}

// A decimal ID file such as loginuid or sessionid; the unset value when it is missing.
std::uint32_t readIDFile(std::int64_t pid, std::string_view entry) {
  const auto text = readSmallFile(procPath(pid, entry));
  if (!text) return kUnsetID;
  return parseDecimal<std::uint32_t>(wordAt(*text, 0)).value_or(kUnsetID);
}

}  // namespace

std::optional<ProcessStat> parseProcessStat(std::string_view line) {
  const std::size_t close = line.rfind(')');
  if (close == std::string_view::npos || line.find('(') > close) return std::nullopt;
  // After the command name: field 3 (state) is word 0, so field k is word k - 3.
  const std::string_view rest = line.substr(close + 1);
  const auto parent = parseDecimal<std::int64_t>(wordAt(rest, 4 - 3));
  const auto start = parseDecimal<std::uint64_t>(wordAt(rest, 22 - 3));
  if (!parent || !start) return std::nullopt;
  return ProcessStat{*parent, *start};
}

std::optional<ProcessStat> readProcessStat(std::int64_t pid) {
  if (!isPlausiblePID(pid)) return std::nullopt;
  const auto line = readSmallFile(procPath(pid, "stat"));
  if (!line) return std::nullopt;
  return parseProcessStat(*line);
}

std::optional<std::string> readExecutablePath(std::int64_t pid) {
  if (!isPlausiblePID(pid)) return std::nullopt;
  std::array<char, 4096> path;
  const ssize_t n = ::readlink(procPath(pid, "exe").c_str(), path.data(), path.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= path.size()) return std::nullopt;
  return toValidUTF8({path.data(), static_cast<std::size_t>(n)});
}

std::optional<ProcessCredentials> readProcessCredentials(std::int64_t pid) {
  if (!isPlausiblePID(pid)) return std::nullopt;
  const auto status = readSmallFile(procPath(pid, "status"));
  if (!status) return std::nullopt;
  // "Uid:" and "Gid:" list the real, effective, saved and filesystem IDs in that order.
  const std::string_view uids = statusLine(*status, "Uid:");
  const std::string_view gids = statusLine(*status, "Gid:");
  const auto realUID = parseDecimal<std::uint32_t>(wordAt(uids, 0));
  const auto effectiveUID = parseDecimal<std::uint32_t>(wordAt(uids, 1));
  const auto realGID = parseDecimal<std::uint32_t>(wordAt(gids, 0));
  const auto effectiveGID = parseDecimal<std::uint32_t>(wordAt(gids, 1));
  if (!realUID || !effectiveUID || !realGID || !effectiveGID) return std::nullopt;
  return ProcessCredentials{
      readIDFile(pid, "loginuid"), *effectiveUID, *effectiveGID, *realUID, *realGID,
      readIDFile(pid, "sessionid")};
}

}  // namespace tarnwick
