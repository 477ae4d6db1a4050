#include "host/owner/SocketDiag.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace tarnwick::host {
namespace {

struct Request {
  nlmsghdr header;
  inet_diag_req_v2 body;
};

// Copies the address and port into a sock_diag socket id side (network byte order already).
void fill(const SocketAddress& address, __be16& port, __be32 (&out)[4]) {
  if (address.family() == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address.storage);
    port = v4.sin_port;
    std::memcpy(out, &v4.sin_addr, sizeof v4.sin_addr);
  } else {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address.storage);
    port = v6.sin6_port;
    std::memcpy(out, &v6.sin6_addr, sizeof v6.sin6_addr);
  }
}

Request requestFor(const SocketAddress& source, const SocketAddress& destination,
                   std::uint32_t sequence) {
  Request request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_seq = sequence;
  request.body.sdiag_family = static_cast<__u8>(source.family());
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0u;
  fill(source, request.body.id.idiag_sport, request.body.id.idiag_src);
  fill(destination, request.body.id.idiag_dport, request.body.id.idiag_dst);
  request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  return request;
}

// The inode from the answer to request `sequence`; absent on an error answer.
std::optional<std::uint64_t> inodeFromReply(const char* data, std::size_t length,
                                            std::uint32_t sequence) {
  for (auto* header = reinterpret_cast<const nlmsghdr*>(data); NLMSG_OK(header, length);
       header = NLMSG_NEXT(header, length)) {
    if (header->nlmsg_seq != sequence) continue;
    if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) return std::nullopt;
    if (header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return std::nullopt;
    const auto* message = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
    return message->idiag_inode;
  }
  return std::nullopt;
}

}  // namespace

SocketDiag::SocketDiag() { ensureSocket(); }

bool SocketDiag::ensureSocket() {
  if (netlink_) return true;
  netlink_.reset(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (!netlink_) return false;
  // The kernel answers at once; the limit only keeps a lost answer from stalling the worker.
  const timeval limit{1, 0};
  ::setsockopt(netlink_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return true;
}

std::optional<std::uint64_t> SocketDiag::inodeOf(const SocketAddress& source,
                                                 const SocketAddress& destination) {
  if (source.family() != destination.family()) return std::nullopt;
  if (source.family() != AF_INET && source.family() != AF_INET6) return std::nullopt;
  if (!ensureSocket()) return std::nullopt;
  const std::uint32_t sequence = ++sequence_;
  const Request request = requestFor(source, destination, sequence);
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (::sendto(netlink_.get(), &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&kernel),
               sizeof kernel) != static_cast<ssize_t>(sizeof request)) {
    netlink_.reset();
    return std::nullopt;
  }
  alignas(nlmsghdr) char reply[8192];
  for (;;) {
    const ssize_t got = ::recv(netlink_.get(), reply, sizeof reply, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      netlink_.reset();
      return std::nullopt;
    }
    const auto* header = reinterpret_cast<const nlmsghdr*>(reply);
    // A late answer to an earlier request (one that timed out on our side) is skipped.
    if (header->nlmsg_seq != sequence) continue;
    return inodeFromReply(reply, static_cast<std::size_t>(got), sequence);
  }
}

}  // namespace tarnwick::host
