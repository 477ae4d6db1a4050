// tw-macro-load: the load generator and server of the macro benchmark. The same program drives
// every path (direct, intercepted, explicit front door, redsocks), so the paths differ only in
// what carries the bytes.
//
//   tw-macro-load serve PORT
//   tw-macro-load throughput HOST PORT up|down STREAMS SECONDS [--via PROXYHOST:PORT]
//   tw-macro-load latency HOST PORT COUNT [--via PROXYHOST:PORT]
//   tw-macro-load hold HOST PORT COUNT [--via PROXYHOST:PORT]
//
// A connection opens with one command byte: 'U' the client sends until it closes, 'D' the server
// sends until the client closes, 'R' the server answers 64 bytes and waits for the close.
// The server serves each connection on a thread of its own, taken from the threads whose
// connection has closed, and starts a new one only when none is free: a thread made for the
// connection is placed on a core by the fork balancer, which on a busy two-core machine often
// puts it behind a CPU-bound process for a whole scheduler tick (4 ms at HZ=250) before it runs
// at all, and every path's latency would carry that wait.
// --via first asks a CONNECT proxy for HOST:PORT, as a proxy-aware client would.
// throughput prints "gbps=X bytes=N"; latency prints "p50_us=X p99_us=Y conns_per_s=Z";
// hold prints "ready" once COUNT answered connections are open, and closes them at end of input.

#include <netdb.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kChunk = 128 * 1024;
constexpr std::size_t kAnswer = 64;

[[noreturn]] void fail(const std::string& what) {
  std::fprintf(stderr, "tw-macro-load: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(1);
}

bool sendAll(int fd, const void* data, std::size_t size) {
  const char* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = send(fd, bytes, size, MSG_NOSIGNAL);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

bool recvAll(int fd, void* data, std::size_t size) {
  char* bytes = static_cast<char*>(data);
  while (size > 0) {
    const ssize_t n = recv(fd, bytes, size, 0);
    if (n <= 0) return false;
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

struct Target {
  std::string host;
  std::string port;
  std::string viaHost;  // empty: connect directly
  std::string viaPort;
};

int dial(const std::string& host, const std::string& port) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) fail("address " + host);
  const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (fd < 0 || connect(fd, found->ai_addr, found->ai_addrlen) != 0) fail("connect " + host);
  freeaddrinfo(found);
  return fd;
}

// Connects, through the proxy when there is one, and sends the command byte.
int openStream(const Target& target, char command) {
  int fd;
  if (target.viaHost.empty()) {
    fd = dial(target.host, target.port);
  } else {
    fd = dial(target.viaHost, target.viaPort);
    const std::string authority = target.host.find(':') != std::string::npos
                                      ? "[" + target.host + "]:" + target.port
                                      : target.host + ":" + target.port;
    const std::string request =
        "CONNECT " + authority + " HTTP/1.1\r\nHost: " + authority + "\r\n\r\n";
    if (!sendAll(fd, request.data(), request.size())) fail("CONNECT");
    std::string head;
    char byte;
    while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
      if (recv(fd, &byte, 1, 0) != 1) fail("CONNECT answer");
      head.push_back(byte);
    }
    if (head.find(" 200") == std::string::npos) fail("CONNECT refused: " + head);
  }
  if (!sendAll(fd, &command, 1)) fail("command");
  return fd;
}

void serveOne(int fd) {
  char command = 0;
  std::vector<char> chunk(kChunk, 'x');
  if (recv(fd, &command, 1, 0) == 1) {
    if (command == 'D') {
      while (sendAll(fd, chunk.data(), chunk.size())) {
      }
    } else if (command == 'R' && sendAll(fd, chunk.data(), kAnswer)) {
      while (recv(fd, chunk.data(), chunk.size(), 0) > 0) {
      }
    } else {
      while (recv(fd, chunk.data(), chunk.size(), 0) > 0) {
      }
    }
  }
  close(fd);
}

// Threads that wait for a connection to serve; one is woken for each accepted connection, and a
// new one joins only when all are busy.
class ServerThreads {
 public:
  void serve(int client) {
    std::unique_lock lock(mutex_);
    waiting_.push_back(client);
    if (idle_ < waiting_.size()) std::thread(&ServerThreads::work, this).detach();
    lock.unlock();
    ready_.notify_one();
  }

 private:
  [[noreturn]] void work() {
    std::unique_lock lock(mutex_);
    for (;;) {
      ++idle_;
      ready_.wait(lock, [this] { return !waiting_.empty(); });
      --idle_;
      const int client = waiting_.front();
      waiting_.pop_front();
      lock.unlock();
      serveOne(client);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<int> waiting_;  // accepted, not yet taken by a thread
  std::size_t idle_ = 0;     // threads waiting for a connection
};

int serve(const std::string& port) {
  const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  const int off = 0;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(static_cast<std::uint16_t>(std::atoi(port.c_str())));
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 4096) != 0)
    fail("listen");
  std::printf("listening\n");
  std::fflush(stdout);
  // Lives as long as the process: the server runs until it is killed.
  auto* const threads = new ServerThreads;
  for (;;) {
    const int client = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (client >= 0) threads->serve(client);
  }
}

int throughput(const Target& target, bool up, int streams, double seconds) {
  std::atomic<std::uint64_t> moved{0};
  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int i = 0; i < streams; ++i) {
    workers.emplace_back([&] {
      const int fd = openStream(target, up ? 'U' : 'D');
      std::vector<char> chunk(kChunk, 'y');
      while (!stop.load(std::memory_order_relaxed)) {
        const ssize_t n = up ? send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL)
                             : recv(fd, chunk.data(), chunk.size(), 0);
        if (n <= 0) break;
        moved.fetch_add(static_cast<std::uint64_t>(n), std::memory_order_relaxed);
      }
      close(fd);
    });
  }
  const auto started = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop = true;
  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  const std::uint64_t bytes = moved.load();
  for (auto& worker : workers) worker.join();
  std::printf("gbps=%.3f bytes=%llu\n", bytes * 8 / elapsed / 1e9,
              static_cast<unsigned long long>(bytes));
  return 0;
}

int latency(const Target& target, int count) {
  std::vector<double> micros;
  char answer[kAnswer];
  const auto began = Clock::now();
  for (int i = 0; i < count; ++i) {
    const auto started = Clock::now();
    const int fd = openStream(target, 'R');
    if (!recvAll(fd, answer, sizeof answer)) fail("answer");
    micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - started).count());
    close(fd);
  }
  const double total = std::chrono::duration<double>(Clock::now() - began).count();
  std::sort(micros.begin(), micros.end());
  const auto at = [&](double q) { return micros[static_cast<std::size_t>(q * (count - 1))]; };
  std::printf("p50_us=%.1f p99_us=%.1f conns_per_s=%.0f\n", at(0.50), at(0.99), count / total);
  return 0;
}

int hold(const Target& target, int count) {
  std::vector<int> held;
  char answer[kAnswer];
  for (int i = 0; i < count; ++i) {
    const int fd = openStream(target, 'R');
    if (!recvAll(fd, answer, sizeof answer)) fail("answer");
    held.push_back(fd);
  }
  std::printf("ready\n");
  std::fflush(stdout);
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  for (int fd : held) close(fd);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  Target target;
  if (args.size() >= 2 && args[args.size() - 2] == "--via") {
    const std::string via = args.back();
    const auto colon = via.rfind(':');
    target.viaHost = via.substr(0, colon);
    target.viaPort = via.substr(colon + 1);
    args.resize(args.size() - 2);
  }
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (args.size() == 2 && args[0] == "serve") return serve(args[1]);
  if (args.size() < 4) {
    std::fprintf(stderr, "usage: see the top of macro_load.cc\n");
    return 2;
  }
  target.host = args[1];
  target.port = args[2];
  if (args[0] == "throughput" && args.size() == 6)
    return throughput(target, args[3] == "up", std::atoi(args[4].c_str()),
                      std::atof(args[5].c_str()));
  if (args[0] == "latency") return latency(target, std::atoi(args[3].c_str()));
  if (args[0] == "hold") return hold(target, std::atoi(args[3].c_str()));
  std::fprintf(stderr, "tw-macro-load: unknown command %s\n", args[0].c_str());
  return 2;
}
