#include "platform/posix/SocketAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstring>

namespace tarnwick {
namespace {

template <typename SockAddr>
SocketAddress wrap(const SockAddr& address) {
  SocketAddress wrapped;
  std::memcpy(&wrapped.storage, &address, sizeof address);
  wrapped.length = sizeof address;
  return wrapped;
}

}  // namespace

std::string formatHostPort(std::string_view host, std::uint16_t port) {
  std::string text;
  if (host.find(':') != std::string_view::npos) {
    text.append("[").append(host).append("]");
  } else {
    text.append(host);
  }
  return text.append(":").append(std::to_string(port));
}

std::optional<SocketAddress> literalAddress(std::string_view host, std::uint16_t port) {
  const std::string text(host);
  sockaddr_in v4{};
  if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    return wrap(v4);
  }
  sockaddr_in6 v6{};
  if (inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    return wrap(v6);
  }
  return std::nullopt;
}

std::vector<SocketAddress> resolveAddresses(const std::string& host, std::uint16_t port) {
  if (auto literal = literalAddress(host, port)) return {*literal};
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  std::vector<SocketAddress> addresses;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    return addresses;
  }
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    SocketAddress address;
    std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
    address.length = entry->ai_addrlen;
    addresses.push_back(address);
  }
  freeaddrinfo(found);
  return addresses;
}

std::string formatAddress(const SocketAddress& address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address.family() == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address.storage);
    inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
    return formatHostPort(text, ntohs(v4.sin_port));
  }
  const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address.storage);
  inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
  return formatHostPort(text, ntohs(v6.sin6_port));
}

std::uint16_t portOf(const SocketAddress& address) {
  if (address.family() == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in&>(address.storage).sin_port);
  }
  return ntohs(reinterpret_cast<const sockaddr_in6&>(address.storage).sin6_port);
}

std::optional<SocketAddress> localAddress(int fd) {
  SocketAddress address;
  address.length = sizeof address.storage;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&address.storage), &address.length) != 0) {
    return std::nullopt;
  }
  return address;
}

}  // namespace tarnwick
