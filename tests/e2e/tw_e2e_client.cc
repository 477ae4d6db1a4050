// tw-e2e-client: the program the end-to-end tests watch or leave alone.
//
//   tw-e2e-client MODE HOST PORT BYTES LEVELS VIA
//
// Connects to HOST:PORT, sends BYTES of a known pattern and checks that exactly those bytes come
// back. MODE echo closes once they all came back; half-close ends its write side after sending
// and reads until the server closes; hold reads until the server closes without ending its side.
// With LEVELS above 0 it runs VIA as its child with one level less, so the deepest one connects.
// Prints "pid=PID" from the process that connects, "all back" once every byte came back and
// "ok BYTES" at the end, or a reason and exit status 1.
//
// The modes that try to slip past inspection, each connecting as echo does:
//   send-close  sends BYTES and closes without reading; send-exit the same, ending the process
//   exec        runs VIA (an unwatched program) at once over the connected socket, which echoes
//   child       hands the socket to a child that echoes, and ends at once
//   unix        passes the socket over a Unix socket to VIA, which echoes, and ends at once
//   reuse       PORT is a comma-separated list: one echo to each, all from one source port,
//               retrying for a while a connect() the kernel refuses with EADDRNOTAVAIL
//   device      binds to device tw0 and source 198.18.0.1, with mark 0x100 and TOS 0x80
//   await       connects once it gets SIGUSR1
//   udp         PORT is a list: one UDP socket to each, sending BYTES datagrams of 100 bytes;
//               prints "sent N" or why a send failed

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The descriptor a socket is handed over on to VIA.
constexpr int kHandedFd = 3;
constexpr std::uint16_t kReusedSourcePort = 40123;

unsigned char patternByte(std::size_t index) {
  return static_cast<unsigned char>((index * 2654435761u) >> 13);
}

[[noreturn]] void fail(const std::string& reason) {
  std::printf("error: %s\n", reason.c_str());
  std::exit(1);
}

std::vector<std::string> ports(const std::string& list) {
  std::vector<std::string> each;
  std::stringstream text(list);
  for (std::string port; std::getline(text, port, ',');) each.push_back(port);
  return each;
}

addrinfo* resolve(const char* host, const std::string& port, int type) {
  addrinfo hints{};
  hints.ai_socktype = type;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, port.c_str(), &hints, &found) != 0) fail("bad address");
  return found;
}

void setOption(int fd, int level, int name, const void* value, socklen_t size) {
  if (setsockopt(fd, level, name, value, size) != 0)
    fail("setsockopt " + std::to_string(name) + ": " + std::strerror(errno));
}

// A socket made as `mode` asks, before it connects.
int prepared(const std::string& mode, const addrinfo* to) {
  const int fd = socket(to->ai_family, to->ai_socktype, 0);
  if (fd < 0) fail(std::string("socket: ") + std::strerror(errno));
  const int on = 1;
  if (mode == "reuse") {
    setOption(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_port = htons(kReusedSourcePort);
    if (bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0)
      fail(std::string("bind: ") + std::strerror(errno));
  } else if (mode == "device") {
    const int mark = 0x100, tos = 0x80;
    setOption(fd, SOL_SOCKET, SO_BINDTODEVICE, "tw0", 4);
    setOption(fd, SOL_SOCKET, SO_MARK, &mark, sizeof mark);
    setOption(fd, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
    sockaddr_in source{};
    source.sin_family = AF_INET;
    inet_pton(AF_INET, "198.18.0.1", &source.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0)
      fail(std::string("bind: ") + std::strerror(errno));
  }
  return fd;
}

int connected(const std::string& mode, const char* host, const std::string& port) {
  addrinfo* found = resolve(host, port, SOCK_STREAM);
  for (int attempt = 1;; ++attempt) {
    const int fd = prepared(mode, found);
    if (connect(fd, found->ai_addr, found->ai_addrlen) == 0) {
      freeaddrinfo(found);
      return fd;
    }
    if (mode != "reuse" || errno != EADDRNOTAVAIL || attempt == 40)
      fail(std::string("connect: ") + std::strerror(errno));
    close(fd);
    usleep(100'000);
  }
}

void sendAll(int fd, std::size_t total) {
  std::vector<unsigned char> buffer(std::min<std::size_t>(total, 65536));
  for (std::size_t sent = 0; sent < total;) {
    const std::size_t size = std::min(buffer.size(), total - sent);
    for (std::size_t i = 0; i < size; ++i) buffer[i] = patternByte(sent + i);
    const ssize_t n = send(fd, buffer.data(), size, MSG_NOSIGNAL);
    if (n < 0) fail(std::string("send: ") + std::strerror(errno));
    sent += static_cast<std::size_t>(n);
  }
}

// Sends `total` bytes on `fd` and checks what comes back, as `mode` says.
void converse(int fd, const std::string& mode, std::size_t total) {
  std::vector<unsigned char> buffer(65536);
  std::size_t sent = 0;
  std::size_t received = 0;
  bool writing = true;
  while (mode != "echo" || received < total) {
    if (writing && sent == total) {
      writing = false;
      if (mode == "half-close") shutdown(fd, SHUT_WR);
    }
    pollfd poller{fd, static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
    if (poll(&poller, 1, -1) < 0) fail(std::string("poll: ") + std::strerror(errno));
    if (poller.revents & POLLOUT) {
      const std::size_t size = std::min(buffer.size(), total - sent);
      for (std::size_t i = 0; i < size; ++i) buffer[i] = patternByte(sent + i);
      const ssize_t n = send(fd, buffer.data(), size, MSG_NOSIGNAL);
      if (n < 0) fail(std::string("send: ") + std::strerror(errno));
      sent += static_cast<std::size_t>(n);
    }
    if (!(poller.revents & (POLLIN | POLLHUP | POLLERR))) continue;
    const ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
    if (n < 0) fail(std::string("recv: ") + std::strerror(errno));
    if (n == 0) break;
    for (std::size_t i = 0; i < static_cast<std::size_t>(n); ++i) {
      if (received + i >= total || buffer[i] != patternByte(received + i))
        fail("byte " + std::to_string(received + i) + " differs");
    }
    received += static_cast<std::size_t>(n);
    if (received == total) std::puts("all back");
    std::fflush(stdout);
  }
  if (received != total)
    fail("received " + std::to_string(received) + " of " + std::to_string(total));
  std::printf("ok %zu\n", received);
  std::fflush(stdout);
}

// Runs VIA as `mode` with `fd` as its descriptor 3.
[[noreturn]] void runVia(char** argv, int fd, const char* mode) {
  if (dup2(fd, kHandedFd) < 0) fail(std::string("dup2: ") + std::strerror(errno));
  execl(argv[6], argv[6], mode, argv[2], argv[3], argv[4], "0", argv[6], nullptr);
  fail(std::string("exec: ") + std::strerror(errno));
}

// One byte with room for one descriptor beside it, as SCM_RIGHTS carries it.
struct DescriptorMessage {
  DescriptorMessage() {
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
  }
  DescriptorMessage(const DescriptorMessage&) = delete;
  DescriptorMessage& operator=(const DescriptorMessage&) = delete;

  char byte = 0;
  iovec data{&byte, 1};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  msghdr message{};
};

void sendDescriptor(int over, int fd) {
  DescriptorMessage sending;
  cmsghdr* header = CMSG_FIRSTHDR(&sending.message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof(int));
  std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
  if (sendmsg(over, &sending.message, 0) != 1)
    fail(std::string("sendmsg: ") + std::strerror(errno));
}

int receiveDescriptor(int over) {
  DescriptorMessage receiving;
  if (recvmsg(over, &receiving.message, 0) != 1) {
    fail(std::string("recvmsg: ") + std::strerror(errno));
  }
  const cmsghdr* header = CMSG_FIRSTHDR(&receiving.message);
  if (!header || header->cmsg_type != SCM_RIGHTS) fail("no descriptor came");
  int fd = -1;
  std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
  return fd;
}

void sendDatagrams(const char* host, const std::string& list, std::size_t count) {
  std::size_t sent = 0;
  const std::vector<char> datagram(100, 'q');
  for (const std::string& port : ports(list)) {
    addrinfo* found = resolve(host, port, SOCK_DGRAM);
    const int fd = socket(found->ai_family, SOCK_DGRAM, 0);
    for (std::size_t i = 0; i < count; ++i, ++sent) {
      if (sendto(fd, datagram.data(), datagram.size(), 0, found->ai_addr, found->ai_addrlen) < 0)
        fail("send to port " + port + ": " + std::strerror(errno));
    }
    freeaddrinfo(found);
  }
  std::printf("sent %zu\n", sent);
}

}  // namespace

int main(int argc, char** argv) {
  alarm(30);  // never outlive a test that forgot this process
  if (argc != 7) fail("usage: MODE HOST PORT BYTES LEVELS VIA");
  if (const int levels = std::atoi(argv[5]); levels > 0) {
    const std::string below = std::to_string(levels - 1);
    if (fork() == 0) {
      execl(argv[6], argv[6], argv[1], argv[2], argv[3], argv[4], below.c_str(), argv[6], nullptr);
      _exit(127);
    }
    int status = 0;
    wait(&status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }
  const std::string mode = argv[1];
  const std::size_t total = std::strtoull(argv[4], nullptr, 10);
  if (mode == "echo-fd") return converse(kHandedFd, "echo", total), 0;
  if (mode == "echo-unix") return converse(receiveDescriptor(kHandedFd), "echo", total), 0;
  if (mode == "await") {
    sigset_t wake;
    sigemptyset(&wake);
    sigaddset(&wake, SIGUSR1);
    sigprocmask(SIG_BLOCK, &wake, nullptr);
    std::puts("waiting");
    std::fflush(stdout);
    int signal = 0;
    sigwait(&wake, &signal);
  }
  std::printf("pid=%d\n", getpid());
  std::fflush(stdout);
  if (mode == "udp") return sendDatagrams(argv[2], argv[3], total), 0;
  if (mode == "reuse") {
    for (const std::string& port : ports(argv[3])) {
      const int fd = connected(mode, argv[2], port);
      converse(fd, "echo", total);
      close(fd);
    }
    return 0;
  }
  const int fd = connected(mode, argv[2], argv[3]);
  if (mode == "send-close" || mode == "send-exit") {
    sendAll(fd, total);
    if (mode == "send-exit") _exit(0);
    close(fd);
    return 0;
  }
  if (mode == "exec") runVia(argv, fd, "echo-fd");
  if (mode == "child") {
    if (fork() == 0) return converse(fd, "echo", total), 0;
    _exit(0);
  }
  if (mode == "unix") {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) fail("socketpair");
    if (fork() == 0) runVia(argv, pair[1], "echo-unix");
    sendDescriptor(pair[0], fd);
    _exit(0);
  }
  converse(fd, mode == "device" || mode == "await" ? "echo" : mode, total);
  return 0;
}
