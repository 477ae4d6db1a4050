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

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

unsigned char patternByte(std::size_t index) {
  return static_cast<unsigned char>((index * 2654435761u) >> 13);
}

[[noreturn]] void fail(const std::string& reason) {
  std::printf("error: %s\n", reason.c_str());
  std::exit(1);
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
  std::printf("pid=%d\n", getpid());
  std::fflush(stdout);
  const std::string mode = argv[1];
  const std::size_t total = std::strtoull(argv[4], nullptr, 10);
  addrinfo* found = nullptr;
  if (getaddrinfo(argv[2], argv[3], nullptr, &found) != 0) fail("bad address");
  const int fd = socket(found->ai_family, SOCK_STREAM, 0);
  if (fd < 0 || connect(fd, found->ai_addr, found->ai_addrlen) != 0)
    fail(std::string("connect: ") + std::strerror(errno));
  freeaddrinfo(found);

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
  if (received != total) fail("received " + std::to_string(received) + " of " + argv[4]);
  std::printf("ok %zu\n", received);
  return 0;
}
