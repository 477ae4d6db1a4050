#include "host/redirect/ConntrackTuples.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <sys/time.h>

#include <cstring>
#include <vector>

namespace tarnwick::host {
namespace {

struct DestroyConntrack {
  void operator()(nf_conntrack* ct) const { nfct_destroy(ct); }
};

template <typename SockAddr>
const SockAddr& as(const SocketAddress& address) {
  return *reinterpret_cast<const SockAddr*>(&address.storage);
}

// The reply direction of the connection, from the listener back to the client. The conntrack
// library builds lookups by the original direction only, so this request is put together here.
void putReplyTuple(nlmsghdr* message, const SocketAddress& local, const SocketAddress& peer) {
  nlattr* tuple = mnl_attr_nest_start(message, CTA_TUPLE_REPLY);
  nlattr* ip = mnl_attr_nest_start(message, CTA_TUPLE_IP);
  if (local.family() == AF_INET) {
    mnl_attr_put_u32(message, CTA_IP_V4_SRC, as<sockaddr_in>(local).sin_addr.s_addr);
    mnl_attr_put_u32(message, CTA_IP_V4_DST, as<sockaddr_in>(peer).sin_addr.s_addr);
  } else {
    mnl_attr_put(message, CTA_IP_V6_SRC, sizeof(in6_addr), &as<sockaddr_in6>(local).sin6_addr);
    mnl_attr_put(message, CTA_IP_V6_DST, sizeof(in6_addr), &as<sockaddr_in6>(peer).sin6_addr);
  }
  mnl_attr_nest_end(message, ip);
  nlattr* proto = mnl_attr_nest_start(message, CTA_TUPLE_PROTO);
  mnl_attr_put_u8(message, CTA_PROTO_NUM, IPPROTO_TCP);
  mnl_attr_put_u16(message, CTA_PROTO_SRC_PORT, htons(portOf(local)));
  mnl_attr_put_u16(message, CTA_PROTO_DST_PORT, htons(portOf(peer)));
  mnl_attr_nest_end(message, proto);
  mnl_attr_nest_end(message, tuple);
}

SocketAddress originalEnd(const nf_conntrack* ct, bool source) {
  SocketAddress address;
  const auto port = nfct_get_attr_u16(ct, source ? ATTR_ORIG_PORT_SRC : ATTR_ORIG_PORT_DST);
  if (nfct_get_attr_u8(ct, ATTR_ORIG_L3PROTO) == AF_INET) {
    auto& v4 = *reinterpret_cast<sockaddr_in*>(&address.storage);
    v4.sin_family = AF_INET;
    v4.sin_port = port;
    v4.sin_addr.s_addr = nfct_get_attr_u32(ct, source ? ATTR_ORIG_IPV4_SRC : ATTR_ORIG_IPV4_DST);
    address.length = sizeof v4;
    return address;
  }
  auto& v6 = *reinterpret_cast<sockaddr_in6*>(&address.storage);
  v6.sin6_family = AF_INET6;
  v6.sin6_port = port;
  std::memcpy(&v6.sin6_addr, nfct_get_attr(ct, source ? ATTR_ORIG_IPV6_SRC : ATTR_ORIG_IPV6_DST),
              sizeof v6.sin6_addr);
  address.length = sizeof v6;
  return address;
}

int takeAnswer(const nlmsghdr* message, void* data) {
  std::unique_ptr<nf_conntrack, DestroyConntrack> ct(nfct_new());
  if (!ct || nfct_nlmsg_parse(message, ct.get()) < 0) return MNL_CB_ERROR;
  *static_cast<std::optional<OriginalTuple>*>(data) =
      OriginalTuple{originalEnd(ct.get(), true), originalEnd(ct.get(), false)};
  return MNL_CB_OK;
}

}  // namespace

ConntrackTuples::~ConntrackTuples() {
  if (socket_) mnl_socket_close(socket_);
}

bool ConntrackTuples::ensureSocket() {
  if (socket_) return true;
  socket_ = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC);
  if (!socket_) return false;
  if (mnl_socket_bind(socket_, 0, MNL_SOCKET_AUTOPID) < 0) {
    mnl_socket_close(socket_);
    socket_ = nullptr;
    return false;
  }
  port_id_ = mnl_socket_get_portid(socket_);
  // The kernel answers at once; the limit only keeps a lost answer from stalling the lane.
  const timeval limit{1, 0};
  ::setsockopt(mnl_socket_get_fd(socket_), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  return true;
}

std::optional<OriginalTuple> ConntrackTuples::originalOf(const SocketAddress& local,
                                                         const SocketAddress& peer) {
  if (local.family() != peer.family()) return std::nullopt;
  if (local.family() != AF_INET && local.family() != AF_INET6) return std::nullopt;
  if (!ensureSocket()) return std::nullopt;
  std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
  nlmsghdr* request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = (NFNL_SUBSYS_CTNETLINK << 8) | IPCTNL_MSG_CT_GET;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  request->nlmsg_seq = ++sequence_;
  auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(request, sizeof(nfgenmsg)));
  header->nfgen_family = static_cast<std::uint8_t>(local.family());
  header->version = NFNETLINK_V0;
  putReplyTuple(request, local, peer);
  if (mnl_socket_sendto(socket_, request, request->nlmsg_len) < 0) return std::nullopt;
  std::optional<OriginalTuple> answer;
  for (;;) {
    const ssize_t got = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
    if (got <= 0) return std::nullopt;
    const int status = mnl_cb_run(buffer.data(), static_cast<std::size_t>(got), sequence_, port_id_,
                                  takeAnswer, &answer);
    // A late answer to an earlier request (one that timed out here) has another sequence.
    if (status < 0 && errno == EPROTO) continue;
    return status < 0 ? std::nullopt : answer;
  }
}

}  // namespace tarnwick::host
