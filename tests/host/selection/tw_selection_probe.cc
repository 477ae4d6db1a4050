// tw-selection-probe: the program the kernel-selection tests watch, or leave alone. Its
// arguments are a small script of actions; each process reports on stdout, one line per event,
// starting with its PID.
//
//   tcp HOW HOST PORT THEN   connect as HOW (connect, fastopen, fastopen-connect, uring,
//                            device:NAME, v6only), report "peer=ADDRESS" as getpeername()
//                            shows it, send "hi", then hold the connection until stdin ends
//                            (THEN=hold) or exit at once (THEN=exit)
//   reuse KIND SOURCE HOST PORTS THEN
//                            connect from source port SOURCE (0: any) to HOST at each of the
//                            comma-separated PORTS in turn, from a socket of KIND (ipv4, dual:
//                            IPv6 but not IPv6-only, ipv6only), report "connected=PORT" and send
//                            "hi"; THEN=close ends each connection first (a half-close, the
//                            server's end, then close, so it lingers in TIME_WAIT), THEN=hold
//                            keeps them all until stdin ends
//   udp HOST PORT COUNT      send COUNT datagrams from one socket; report "sent=N error=ERRNO"
//   fork CHILD... -- PARENT...  fork: the child runs CHILD, the parent reports "child=PID" and
//                            runs PARENT (or waits for the child when PARENT is empty)
//   line ACTION...           wait for one line on stdin, then run ACTION
//   exec PATH ACTION...      run PATH with ACTION as its arguments
//   pause                    report "paused", then wait to be killed
//   select                   listen on 127.0.0.1 and ::1, load kernel-side selection for those
//                            listeners, report "selecting" (or "unavailable REASON"), then wait
//                            to be killed

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/selection/KernelSelection.h"

#if TARNWICK_HAVE_LIBURING
#include <liburing.h>
#endif

namespace {

using Args = std::vector<std::string>;

void report(const std::string& line) {
  std::printf("%d %s\n", getpid(), line.c_str());
  std::fflush(stdout);
}

[[noreturn]] void fail(const std::string& reason) {
  report("error " + reason + ": " + std::strerror(errno));
  std::exit(1);
}

using Address = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

Address resolve(const std::string& host, const std::string& port, int type) {
  addrinfo hints{};
  hints.ai_socktype = type;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) fail("bad address " + host);
  return Address(found, &freeaddrinfo);
}

std::string peerOf(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return "none";
  char host[INET6_ADDRSTRLEN] = "";
  char port[8] = "";
  getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, port, sizeof port,
              NI_NUMERICHOST | NI_NUMERICSERV);
  return std::string(address.ss_family == AF_INET6 ? "[" : "") + host +
         (address.ss_family == AF_INET6 ? "]:" : ":") + port;
}

int uringConnect(int fd, const addrinfo* to) {
#if TARNWICK_HAVE_LIBURING
  io_uring ring;
  if (io_uring_queue_init(2, &ring, 0) != 0) return -1;
  io_uring_sqe* entry = io_uring_get_sqe(&ring);
  io_uring_prep_connect(entry, fd, to->ai_addr, to->ai_addrlen);
  io_uring_submit(&ring);
  io_uring_cqe* done = nullptr;
  int result = io_uring_wait_cqe(&ring, &done);
  if (result == 0) result = done->res;
  io_uring_queue_exit(&ring);
  errno = result < 0 ? -result : 0;
  return result < 0 ? -1 : 0;
#else
  (void)fd;
  (void)to;
  errno = ENOSYS;
  return -1;
#endif
}

// Connects `fd` as `how` says, sending "hi" with the connection where the way allows.
bool connectAs(const std::string& how, int fd, const addrinfo* to, bool& sent) {
  const int on = 1;
  if (how == "fastopen") {
    sent = sendto(fd, "hi", 2, MSG_FASTOPEN, to->ai_addr, to->ai_addrlen) == 2;
    return sent;
  }
  if (how == "fastopen-connect") {
    setsockopt(fd, IPPROTO_TCP, TCP_FASTOPEN_CONNECT, &on, sizeof on);
  } else if (how == "uring") {
    return uringConnect(fd, to) == 0;
  } else if (how == "v6only") {
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  } else if (how.starts_with("device:")) {
    const std::string device = how.substr(7);
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), device.size()) != 0) {
      fail("bind to device");
    }
  }
  return connect(fd, to->ai_addr, to->ai_addrlen) == 0;
}

void tcp(const Args& args) {
  if (args.size() != 5) fail("usage: tcp HOW HOST PORT THEN");
  bool sent = false;
  int fd = -1;
  {
    const Address to = resolve(args[2], args[3], SOCK_STREAM);
    fd = socket(to->ai_family, SOCK_STREAM, 0);
    if (fd < 0 || !connectAs(args[1], fd, to.get(), sent)) fail("connect");
  }
  report("peer=" + peerOf(fd));
  if (!sent && send(fd, "hi", 2, MSG_NOSIGNAL) != 2) fail("send");
  if (args[4] == "exit") std::exit(0);
  char buffer[64];
  while (read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
  }
}

std::vector<std::string> listOf(const std::string& text) {
  std::vector<std::string> items;
  for (std::size_t start = 0; start <= text.size();) {
    const std::size_t comma = std::min(text.find(',', start), text.size());
    items.push_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  return items;
}

// A TCP socket of `kind`, bound to port `source` with address reuse, as a program that keeps its
// source port does.
int boundSocket(const std::string& kind, int source) {
  const int on = 1, off = 0;
  const bool ipv4 = kind == "ipv4";
  const int fd = socket(ipv4 ? AF_INET : AF_INET6, SOCK_STREAM, 0);
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!ipv4) {
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, kind == "ipv6only" ? &on : &off, sizeof on);
  }
  sockaddr_storage address{};
  socklen_t length = sizeof(sockaddr_in);
  if (ipv4) {
    auto* ip = reinterpret_cast<sockaddr_in*>(&address);
    ip->sin_family = AF_INET;
    ip->sin_port = htons(static_cast<std::uint16_t>(source));
  } else {
    auto* ip = reinterpret_cast<sockaddr_in6*>(&address);
    ip->sin6_family = AF_INET6;
    ip->sin6_port = htons(static_cast<std::uint16_t>(source));
    length = sizeof(sockaddr_in6);
  }
  if (source != 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) fail("bind");
  return fd;
}

void reuse(const Args& args) {
  if (args.size() != 6) fail("usage: reuse KIND SOURCE HOST PORTS THEN");
  const bool hold = args[5] == "hold";
  for (const std::string& port : listOf(args[4])) {
    const int fd = boundSocket(args[1], std::atoi(args[2].c_str()));
    const Address to = resolve(args[3], port, SOCK_STREAM);
    if (connect(fd, to->ai_addr, to->ai_addrlen) != 0) fail("connect to port " + port);
    report("connected=" + port);
    if (send(fd, "hi", 2, MSG_NOSIGNAL) != 2) fail("send");
    if (hold) continue;
    shutdown(fd, SHUT_WR);
    char buffer[64];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    close(fd);
  }
  char buffer[64];
  while (hold && read(STDIN_FILENO, buffer, sizeof buffer) > 0) {
  }
}

void udp(const Args& args) {
  if (args.size() != 4) fail("usage: udp HOST PORT COUNT");
  const Address to = resolve(args[1], args[2], SOCK_DGRAM);
  const int fd = socket(to->ai_family, SOCK_DGRAM, 0);
  int sent = 0, error = 0;
  for (int i = std::atoi(args[3].c_str()); i > 0; --i) {
    if (sendto(fd, "datagram", 8, 0, to->ai_addr, to->ai_addrlen) == 8) {
      ++sent;
    } else {
      error = errno;
    }
  }
  report("sent=" + std::to_string(sent) + " error=" + std::to_string(error));
}

void run(const Args& args);

void forkThen(const Args& args) {
  Args child, parent;
  bool inParent = false;
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--" && !inParent) {
      inParent = true;
    } else {
      (inParent ? parent : child).push_back(args[i]);
    }
  }
  const pid_t pid = fork();
  if (pid == 0) {
    run(child);
    std::exit(0);
  }
  report("child=" + std::to_string(pid));
  if (!parent.empty()) return run(parent);
  int status = 0;
  waitpid(pid, &status, 0);
}

void waitForLine(const Args& args) {
  for (char c = 0; c != '\n';) {
    if (read(STDIN_FILENO, &c, 1) != 1) fail("stdin ended");
  }
  run(Args(args.begin() + 1, args.end()));
}

void execute(const Args& args) {
  std::vector<char*> argv;
  for (std::size_t i = 1; i < args.size(); ++i) argv.push_back(const_cast<char*>(args[i].c_str()));
  argv.push_back(nullptr);
  execv(argv[0], argv.data());
  fail("exec " + args[1]);
}

// A socket listening on `host` at `port` (0: any); its port goes to `port`.
int listening(const char* host, std::uint16_t& port) {
  const Address at = resolve(host, std::to_string(port), SOCK_STREAM);
  const int fd = socket(at->ai_family, SOCK_STREAM, 0);
  const int on = 1;
  if (at->ai_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  if (bind(fd, at->ai_addr, at->ai_addrlen) != 0 || listen(fd, 16) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
    fail(std::string("listen on ") + host);
  }
  port = ntohs(reinterpret_cast<sockaddr_in*>(&bound)->sin_port);
  return fd;
}

void select(const Args&) {
  tarnwick::host::KernelSelection::Config config;
  config.listener4 = listening("127.0.0.1", config.listenerPort);
  config.listener6 = listening("::1", config.listenerPort);
  std::string whyNot;
  const auto selection = tarnwick::host::KernelSelection::load(config, whyNot);
  report(selection ? "selecting" : "unavailable " + whyNot);
  pause();
}

void run(const Args& args) {
  if (args.empty()) return;
  const std::string& action = args[0];
  if (action == "tcp") return tcp(args);
  if (action == "reuse") return reuse(args);
  if (action == "udp") return udp(args);
  if (action == "fork") return forkThen(args);
  if (action == "line") return waitForLine(args);
  if (action == "exec") return execute(args);
  if (action == "select") return select(args);
  if (action == "pause") {
    report("paused");
    pause();
    return;
  }
  fail("unknown action " + action);
}

}  // namespace

int main(int argc, char** argv) {
  alarm(30);  // never outlive a test that forgot this process
  run(Args(argv + 1, argv + argc));
  return 0;
}
