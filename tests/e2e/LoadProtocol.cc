#include "LoadProtocol.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace tarnwick::e2e {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

constexpr std::array<std::pair<Script, std::string_view>, 7> kScriptNames{{
    {Script::Exchange, "exchange"},
    {Script::ServerEndsFirst, "server-ends-first"},
    {Script::ClientEndsFirst, "client-ends-first"},
    {Script::ClientResets, "client-resets"},
    {Script::ServerResets, "server-resets"},
    {Script::Held, "held"},
    {Script::HeldAfterAnswering, "held-after-answering"},
}};

// Eight pattern bytes at a time; every word depends on the stream and on its place in it.
std::uint64_t patternWord(std::uint64_t stream, std::uint64_t word) {
  std::uint64_t x = (word + 1) * 0x9e3779b97f4a7c15ULL + stream * 0xd6e8feb86659fd93ULL;
  x ^= x >> 32;
  x *= 0xd6e8feb86659fd93ULL;
  return x ^ (x >> 29);
}

bool retryable(int error) { return error == EAGAIN || error == EWOULDBLOCK || error == EINTR; }

}  // namespace

std::optional<Script> scriptFromName(std::string_view name) {
  for (const auto& [script, text] : kScriptNames) {
    if (text == name) return script;
  }
  return std::nullopt;
}

void fillPattern(std::uint64_t stream, std::uint64_t offset, std::span<unsigned char> out) {
  for (std::size_t i = 0; i < out.size();) {
    const std::uint64_t at = offset + i;
    const std::uint64_t word = patternWord(stream, at / 8);
    const std::size_t skip = at % 8;
    const std::size_t take = std::min<std::size_t>(8 - skip, out.size() - i);
    for (std::size_t k = 0; k < take; ++k)
      out[i + k] = static_cast<unsigned char>(word >> ((skip + k) * 8));
    i += take;
  }
}

std::optional<std::size_t> firstMismatch(std::uint64_t stream, std::uint64_t offset,
                                         std::span<const unsigned char> bytes) {
  std::vector<unsigned char> expected(bytes.size());
  fillPattern(stream, offset, expected);
  const auto [mine, theirs] = std::mismatch(bytes.begin(), bytes.end(), expected.begin());
  if (mine == bytes.end()) return std::nullopt;
  return static_cast<std::size_t>(mine - bytes.begin());
}

std::string PumpResult::outcome(const PumpPlan& plan) const {
  if (mismatchAt) return "differs";
  if (timedOut) return "timeout";
  if (error == ECONNRESET || error == EPIPE) return "reset";
  if (error) return std::string("error: ") + std::strerror(error);
  return complete(plan) ? "exact" : "short";
}

std::string PumpResult::describe(const PumpPlan& plan) const {
  std::string text = "sent " + std::to_string(sent) + " of " + std::to_string(plan.send) +
                     ", received " + std::to_string(received) + " of " +
                     std::to_string(plan.receive);
  if (mismatchAt) text += ", wrong byte at " + std::to_string(*mismatchAt);
  return text + (ended ? ", ended" : "");
}

std::int64_t monotonicMs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

PumpResult pump(int fd, const PumpPlan& plan, std::int64_t deadlineMs) {
  PumpResult result;
  std::vector<unsigned char> out(kChunk);
  std::vector<unsigned char> in(kChunk);
  bool sending = plan.send > 0;
  bool receiving = plan.receive > 0 || plan.readToEnd;
  if (!sending && plan.endAfterSending) ::shutdown(fd, SHUT_WR);
  while (sending || receiving) {
    const std::int64_t left = deadlineMs - monotonicMs();
    if (left <= 0) {
      result.timedOut = true;
      break;
    }
    pollfd poller{fd, static_cast<short>((sending ? POLLOUT : 0) | (receiving ? POLLIN : 0)), 0};
    if (::poll(&poller, 1, static_cast<int>(std::min<std::int64_t>(left, 1000))) <= 0) continue;
    if (sending && (poller.revents & (POLLOUT | POLLERR | POLLHUP))) {
      const std::size_t size = std::min<std::uint64_t>(kChunk, plan.send - result.sent);
      fillPattern(plan.sendStream, plan.sendFrom + result.sent, std::span(out).first(size));
      const ssize_t n = ::send(fd, out.data(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n < 0 && !retryable(errno)) {
        result.error = errno;
        break;
      }
      result.sent += n > 0 ? static_cast<std::uint64_t>(n) : 0;
      if (result.sent == plan.send) {
        sending = false;
        if (plan.endAfterSending) ::shutdown(fd, SHUT_WR);
      }
    }
    if (!receiving || !(poller.revents & (POLLIN | POLLERR | POLLHUP))) continue;
    // What follows the planned bytes belongs to the next step, unless the plan reads to the end.
    const std::uint64_t room = plan.receive - result.received;
    const std::size_t want = plan.readToEnd ? in.size() : std::min<std::uint64_t>(in.size(), room);
    const ssize_t n = ::recv(fd, in.data(), want, MSG_DONTWAIT);
    if (n < 0) {
      if (retryable(errno)) continue;
      result.error = errno;
      break;
    }
    if (n == 0) {
      result.ended = true;
      receiving = false;
      continue;
    }
    const auto chunk = std::span<const unsigned char>(in).first(static_cast<std::size_t>(n));
    const auto wrong = firstMismatch(plan.receiveStream, plan.receiveFrom + result.received,
                                     chunk.first(std::min<std::uint64_t>(room, chunk.size())));
    if (wrong || chunk.size() > room) {
      result.mismatchAt = plan.receiveFrom + result.received + wrong.value_or(room);
      break;
    }
    result.received += chunk.size();
    if (!plan.readToEnd && result.received == plan.receive) receiving = false;
  }
  return result;
}

bool sendAllBytes(int fd, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  for (ssize_t n = 0; size > 0; bytes += n, size -= static_cast<std::size_t>(n)) {
    if ((n = ::send(fd, bytes, size, MSG_NOSIGNAL)) <= 0) return false;
  }
  return true;
}

bool receiveWithin(int fd, void* data, std::size_t size, std::int64_t deadlineMs) {
  pollfd poller{fd, POLLIN, 0};
  const auto left = static_cast<int>(std::max<std::int64_t>(0, deadlineMs - monotonicMs()));
  return ::poll(&poller, 1, left) > 0 &&
         ::recv(fd, data, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

void resetOnClose(int fd) {
  const linger hard{1, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
}

void raiseDescriptorLimit() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace tarnwick::e2e
