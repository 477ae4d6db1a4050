// tw-e2e-client: the program the end-to-end tests watch or leave alone. It connects to a server on
// the world host, sends a known byte pattern and checks that exactly the same bytes come back.
//
//   tw-e2e-client [--descend N --via PATH] [--wait-stdin] MODE HOST PORT BYTES
//
// MODE echo: send and read back concurrently, close once everything came back.
// MODE half-close: send everything, end the write side, read the reply until the server closes.
// MODE hold: like echo, then print "ready" and stay connected until the server closes.
// MODE abort: send everything, read up to 64 KiB of the answer, then reset the connection.
// --descend N: run PATH as a child (which runs PATH as its child, N levels deep); the deepest one
// connects. --wait-stdin: read one line from standard input before connecting.
// Prints "pid=PID" from the process that connects, then "ok BYTES", or a reason and exit 1.

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
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

int connectTo(const char* host, const char* port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host, port, &hints, &found) != 0) fail("bad address");
  const int fd = socket(found->ai_family, SOCK_STREAM, 0);
  if (fd < 0 || connect(fd, found->ai_addr, found->ai_addrlen) != 0)
    fail(std::string("connect: ") + std::strerror(errno));
  freeaddrinfo(found);
  return fd;
}

// Sends `total` pattern bytes (ending the write side after them when `halfClose`) while reading
// whatever comes back; returns when `total` bytes came back, or at end of stream.
std::size_t exchange(int fd, std::size_t total, bool halfClose) {
  std::size_t sent = 0;
  std::size_t received = 0;
  std::vector<unsigned char> out(65536);
  std::vector<unsigned char> in(65536);
  bool writeOpen = true;
  for (;;) {
    if (writeOpen && sent == total) {
      if (halfClose) shutdown(fd, SHUT_WR);
      writeOpen = false;
    }
    if (!halfClose && received == total) return received;
    pollfd poller{fd, static_cast<short>(POLLIN | (writeOpen ? POLLOUT : 0)), 0};
    if (poll(&poller, 1, -1) < 0) fail("poll");
    if (poller.revents & POLLOUT) {
      const std::size_t size = std::min(out.size(), total - sent);
      for (std::size_t i = 0; i < size; ++i) out[i] = patternByte(sent + i);
      const ssize_t n = send(fd, out.data(), size, MSG_NOSIGNAL);
      if (n < 0) fail(std::string("send: ") + std::strerror(errno));
      sent += static_cast<std::size_t>(n);
    }
    if (poller.revents & (POLLIN | POLLHUP | POLLERR)) {
      const ssize_t n = recv(fd, in.data(), in.size(), 0);
      if (n < 0) fail(std::string("recv: ") + std::strerror(errno));
      if (n == 0) return received;
      for (ssize_t i = 0; i < n; ++i) {
        if (received + i >= total || in[i] != patternByte(received + i))
          fail("byte " + std::to_string(received + i) + " differs");
      }
      received += static_cast<std::size_t>(n);
    }
  }
}

// Closes with a reset while the server is still sending, so whoever carries the connection goes
// on writing into a socket that is gone.
int abortAfterSending(int fd, std::size_t total) {
  std::vector<unsigned char> out(65536);
  for (std::size_t sent = 0; sent < total;) {
    const std::size_t size = std::min(out.size(), total - sent);
    const ssize_t n = send(fd, out.data(), size, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
  }
  std::size_t received = 0;
  while (received < out.size()) {
    const ssize_t n = recv(fd, out.data(), out.size() - received, 0);
    if (n <= 0) break;
    received += static_cast<std::size_t>(n);
  }
  const linger reset{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  close(fd);
  std::printf("ok aborted\n");
  return 0;
}

int descend(int levels, const std::string& via, std::vector<std::string> rest) {
  const pid_t child = fork();
  if (child == 0) {
    std::vector<std::string> args = {via, "--descend", std::to_string(levels - 1), "--via", via};
    args.insert(args.end(), rest.begin(), rest.end());
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    execv(via.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char** argv) {
  alarm(30);  // never outlive a test that forgot this process
  std::vector<std::string> args(argv + 1, argv + argc);
  int levels = 0;
  std::string via;
  bool waitStdin = false;
  while (!args.empty() && args[0].rfind("--", 0) == 0) {
    if (args[0] == "--descend" && args.size() > 1) {
      levels = std::atoi(args[1].c_str());
      args.erase(args.begin(), args.begin() + 2);
    } else if (args[0] == "--via" && args.size() > 1) {
      via = args[1];
      args.erase(args.begin(), args.begin() + 2);
    } else if (args[0] == "--wait-stdin") {
      waitStdin = true;
      args.erase(args.begin());
    } else {
      fail("unknown option " + args[0]);
    }
  }
  if (args.size() != 4) fail("usage: [options] MODE HOST PORT BYTES");
  if (levels > 0) {
    if (waitStdin) args.insert(args.begin(), "--wait-stdin");
    return descend(levels, via, args);
  }
  std::printf("pid=%d\n", getpid());
  std::fflush(stdout);
  if (waitStdin) {
    std::string line;
    std::getline(std::cin, line);
  }
  const std::string& mode = args[0];
  const std::size_t total = std::strtoull(args[3].c_str(), nullptr, 10);
  const int fd = connectTo(args[1].c_str(), args[2].c_str());
  if (mode == "abort") return abortAfterSending(fd, total);
  const std::size_t received = exchange(fd, total, mode == "half-close");
  if (received != total) fail("received " + std::to_string(received) + " of " + args[3]);
  if (mode == "hold") {
    std::printf("ready\n");
    std::fflush(stdout);
    char byte;
    while (recv(fd, &byte, 1, 0) > 0) {
    }
    std::printf("closed\n");
  }
  close(fd);
  std::printf("ok %zu\n", received);
  return 0;
}
