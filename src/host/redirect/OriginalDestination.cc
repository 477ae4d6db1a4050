#include "host/redirect/OriginalDestination.h"

#include <arpa/inet.h>
#include <linux/netfilter_ipv4.h>
#include <linux/netfilter_ipv6/ip6_tables.h>
#include <netinet/in.h>

#include <cstring>

namespace tarnwick::host {
namespace {

template <typename SockAddr>
const SockAddr& as(const SocketAddress& address) {
  return *reinterpret_cast<const SockAddr*>(&address.storage);
}

std::optional<SocketAddress> destinationOption(int fd, int level, int option) {
  SocketAddress address;
  address.length = sizeof address.storage;
  if (::getsockopt(fd, level, option, &address.storage, &address.length) != 0) return std::nullopt;
  return address;
}

}  // namespace

std::optional<SocketAddress> originalDestination(int fd, int family) {
  if (family == AF_INET6) return destinationOption(fd, SOL_IPV6, IP6T_SO_ORIGINAL_DST);
  return destinationOption(fd, SOL_IP, SO_ORIGINAL_DST);
}

std::optional<OriginalTuple> redirectedTuple(int fd, const SocketAddress& local,
                                             const SocketAddress& peer) {
  thread_local ConntrackTuples conntrack;
  if (auto tuple = conntrack.originalOf(local, peer)) return tuple;
  const auto destination = originalDestination(fd, local.family());
  if (!destination) return std::nullopt;
  return OriginalTuple{peer, *destination};
}

NWHostEndpoint hostEndpointOf(const SocketAddress& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.family() == AF_INET) {
    const auto& v4 = as<sockaddr_in>(address);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    return {text, std::to_string(ntohs(v4.sin_port))};
  }
  const auto& v6 = as<sockaddr_in6>(address);
  if (IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr)) {
    inet_ntop(AF_INET, &v6.sin6_addr.s6_addr[12], text, sizeof text);
  } else {
    inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
  }
  return {text, std::to_string(ntohs(v6.sin6_port))};
}

bool sameSocketAddress(const SocketAddress& a, const SocketAddress& b) {
  if (a.family() != b.family()) return false;
  if (a.family() == AF_INET) {
    const auto &x = as<sockaddr_in>(a), &y = as<sockaddr_in>(b);
    return x.sin_port == y.sin_port && x.sin_addr.s_addr == y.sin_addr.s_addr;
  }
  if (a.family() != AF_INET6) return false;
  const auto &x = as<sockaddr_in6>(a), &y = as<sockaddr_in6>(b);
  return x.sin6_port == y.sin6_port &&
         std::memcmp(&x.sin6_addr, &y.sin6_addr, sizeof x.sin6_addr) == 0;
}

}  // namespace tarnwick::host
