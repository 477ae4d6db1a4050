#include "host/control/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace tarnwick::host {
namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

std::string failure(const std::string& path, const std::string& what) {
  return "control socket " + path + ": " + what + ": " + std::strerror(errno);
}

// Whether a process may still accept connections on the socket at `path`. Only a refusal proves
// that nobody does; a full backlog or any other failure might be a busy interceptor.
bool someoneListens(const std::string& path) {
  const UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_un address = addressOf(path);
  return !probe ||
         ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno != ECONNREFUSED;
}

// What is at the path now.
enum class Occupant { Nothing, NoDirectory, StaleSocket, LiveSocket, OtherFile, Unreadable };

Occupant occupantOf(const std::string& path) {
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) != 0) {
    if (errno == ENOTDIR) return Occupant::NoDirectory;
    if (errno != ENOENT) return Occupant::Unreadable;
    const auto slash = path.rfind('/');
    const std::string directory = slash == 0 ? "/" : path.substr(0, slash);
    const bool inDirectory =
        slash == std::string::npos ||
        (::stat(directory.c_str(), &existing) == 0 && S_ISDIR(existing.st_mode));
    return inDirectory ? Occupant::Nothing : Occupant::NoDirectory;
  }
  if (!S_ISSOCK(existing.st_mode)) return Occupant::OtherFile;
  return someoneListens(path) ? Occupant::LiveSocket : Occupant::StaleSocket;
}

bool bindPrivately(int fd, const std::string& path, std::string& error) {
  const sockaddr_un address = addressOf(path);
  const mode_t previous = ::umask(0177);
  const int bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int bindErrno = errno;
  ::umask(previous);
  if (bound == 0) return true;
  errno = bindErrno;
  error = failure(path, "cannot bind");
  return false;
}

}  // namespace

bool fitsUnixSocketAddress(const std::string& path) {
  return !path.empty() && path.size() < sizeof(sockaddr_un::sun_path);
}

bool controlSocketPathUsable(const std::string& path, std::string& error) {
  if (!fitsUnixSocketAddress(path)) {
    error = "control socket path \"" + path + "\" is empty or longer than " +
            std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes";
    return false;
  }
  switch (occupantOf(path)) {
    case Occupant::Nothing:
    case Occupant::StaleSocket:
      return true;
    case Occupant::NoDirectory:
      error = "control socket " + path + ": its directory does not exist";
      return false;
    case Occupant::LiveSocket:
      error = "control socket " + path +
              " is in use by a running interceptor; stop that one "
              "first, or give this one another --control-socket";
      return false;
    case Occupant::OtherFile:
      error = "control socket " + path +
              " exists and is not a socket; remove it, or choose "
              "another path with --control-socket";
      return false;
    case Occupant::Unreadable:
      error = failure(path, "cannot look at what is there");
      return false;
  }
  return false;
}

UniqueFd bindControlSocket(const std::string& path, std::optional<gid_t> group,
                           std::string& error) {
  if (!controlSocketPathUsable(path, error)) return UniqueFd();
  // Left by an interceptor that died: nobody answers there.
  if (occupantOf(path) == Occupant::StaleSocket) ::unlink(path.c_str());
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!listener) {
    error = failure(path, "cannot make a socket");
    return listener;
  }
  if (!bindPrivately(listener.get(), path, error)) return UniqueFd();
  const bool shared = !group || (::chown(path.c_str(), static_cast<uid_t>(-1), *group) == 0 &&
                                 ::chmod(path.c_str(), 0660) == 0);
  if (!shared || ::listen(listener.get(), SOMAXCONN) != 0) {
    error = failure(path, shared ? "cannot listen" : "cannot give it to the group");
    ::unlink(path.c_str());
    return UniqueFd();
  }
  return listener;
}

}  // namespace tarnwick::host
