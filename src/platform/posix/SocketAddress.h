#pragma once
// IPv4 and IPv6 socket addresses: from literals, from name resolution, and back to text.

#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwick {

struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  int family() const { return storage.ss_family; }
};

// The address when host is an IPv4 or IPv6 literal (without brackets); no lookup.
std::optional<SocketAddress> literalAddress(std::string_view host, std::uint16_t port);

// The literal's address, or else every TCP address the resolver gives for the name, in its
// order; empty when the name does not resolve. May block for as long as the resolver takes.
std::vector<SocketAddress> resolveAddresses(const std::string& host, std::uint16_t port);

// "host:port", the host bracketed when it contains a colon ("[::1]:8443").
std::string formatHostPort(std::string_view host, std::uint16_t port);

// "127.0.0.1:8443" or "[::1]:8443".
std::string formatAddress(const SocketAddress& address);

// The port of an IPv4 or IPv6 address, in host order.
std::uint16_t portOf(const SocketAddress& address);

// The address a socket is bound to.
std::optional<SocketAddress> localAddress(int fd);

}  // namespace tarnwick
