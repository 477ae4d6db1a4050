#include "platform/ProcessTable.h"

#include <fcntl.h>
#include <sys/stat.h>
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
// What the kernel appends to the executable's name once the file is no longer at its path.
constexpr std::string_view kDeletedMark = " (deleted)";

bool isPlausiblePID(std::int64_t pid) {
  return pid > 0 && pid <= std::numeric_limits<std::int32_t>::max();
}

std::string procPath(std::int64_t pid) { return "/proc/" + std::to_string(pid); }

// A process's /proc directory; invalid when the process cannot be inspected.
UniqueFd openProcessDirectory(std::int64_t pid) {
  if (!isPlausiblePID(pid)) return UniqueFd();
  return UniqueFd(::open(procPath(pid).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// The whole of a small /proc file in `directory`; absent when it cannot be read or exceeds
// `limit` bytes. The kernel renders such a file whole, so a read that does not fill the chunk
// has reached its end.
std::optional<std::string> readSmallFile(const UniqueFd& directory, const char* name,
                                         std::size_t limit = 8192) {
  if (!directory) return std::nullopt;
  const UniqueFd fd(::openat(directory.get(), name, O_RDONLY | O_CLOEXEC));
  if (!fd) return std::nullopt;
  std::string contents;
  std::array<char, 4096> chunk;
  while (true) {
    const ssize_t n = ::read(fd.get(), chunk.data(), chunk.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    contents.append(chunk.data(), static_cast<std::size_t>(n));
    if (contents.size() > limit) return std::nullopt;
    if (static_cast<std::size_t>(n) < chunk.size()) return contents;
  }
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
std::uint32_t readIDFile(const UniqueFd& directory, const char* name) {
  const auto text = readSmallFile(directory, name);
  if (!text) return kUnsetID;
  return parseDecimal<std::uint32_t>(wordAt(*text, 0)).value_or(kUnsetID);
}

std::optional<ProcessStat> readStatIn(const UniqueFd& directory) {
  const auto line = readSmallFile(directory, "stat");
  if (!line) return std::nullopt;
  return parseProcessStat(*line);
}

std::optional<std::string> readExecutableIn(const UniqueFd& directory) {
  if (!directory) return std::nullopt;
  std::array<char, 4096> link;
  const ssize_t n = ::readlinkat(directory.get(), "exe", link.data(), link.size());
  if (n <= 0 || static_cast<std::size_t>(n) >= link.size()) return std::nullopt;
  std::string path(link.data(), static_cast<std::size_t>(n));
  // A program whose file was deleted, or replaced by an upgrade, is still the program started
  // from that path; the kernel only marks the name. A file really named so still has a link.
  // (Only the running file is looked at: a path a program chose is never looked up.)
  struct stat executable {};
  if (path.ends_with(kDeletedMark) && ::fstatat(directory.get(), "exe", &executable, 0) == 0 &&
      executable.st_nlink == 0) {
    path.resize(path.size() - kDeletedMark.size());
  }
  return toValidUTF8(path);
}

std::optional<ProcessCredentials> readCredentialsIn(const UniqueFd& directory) {
  const auto status = readSmallFile(directory, "status");
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
      readIDFile(directory, "loginuid"), *effectiveUID, *effectiveGID, *realUID, *realGID,
      readIDFile(directory, "sessionid")};
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
  return readStatIn(openProcessDirectory(pid));
}

std::optional<std::string> readExecutablePath(std::int64_t pid) {
  return readExecutableIn(openProcessDirectory(pid));
}

std::optional<ProcessCredentials> readProcessCredentials(std::int64_t pid) {
  return readCredentialsIn(openProcessDirectory(pid));
}

ProcessDirectory ProcessDirectory::open(std::int64_t pid) {
  return ProcessDirectory(openProcessDirectory(pid));
}

std::optional<ProcessSnapshot> ProcessDirectory::snapshot() const {
  auto stat = readStatIn(fd_);
  auto credentials = readCredentialsIn(fd_);
  if (!stat || !credentials) return std::nullopt;
  return ProcessSnapshot{*stat, *credentials, readExecutableIn(fd_)};
}

std::optional<ProcessStat> ProcessDirectory::stat() const { return readStatIn(fd_); }

std::optional<std::string> ProcessDirectory::executable() const { return readExecutableIn(fd_); }

std::optional<FileIdentity> ProcessDirectory::executableFile() const {
  struct stat file {};
  if (!fd_ || ::fstatat(fd_.get(), "exe", &file, 0) != 0) return std::nullopt;
  return FileIdentity{file.st_dev, file.st_ino};
}

std::optional<ProcessSnapshot> readProcessSnapshot(std::int64_t pid) {
  return ProcessDirectory::open(pid).snapshot();
}

}  // namespace tarnwick
