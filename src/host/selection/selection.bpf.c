// SPDX-License-Identifier: (GPL-2.0-only OR BSD-2-Clause)
/* Kernel-side selection: the kernel keeps the set of candidate processes and sends only their TCP
 * connections to the interceptor's listener, recording for each its original destination and the
 * process that made it. Candidates' UDP sockets are reported once each.
 *
 * Every socket hook runs for the whole machine, so each first checks that the socket lives in
 * the network namespace of the instance that loaded this copy of the program. The tracepoints
 * keep this instance's candidate map. All maps belong to one instance. */

#include <linux/bpf.h>
#include <linux/in.h>
#include <linux/socket.h>
#include <bpf/bpf_core_read.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>
#include <bpf/bpf_tracing.h>

#include "host/selection/CandidateRules.h"
#include "host/selection/ListenerAddresses.h"
#include "host/selection/SelectionRecords.h"

#define AF_INET 2
#define AF_INET6 10
#define SOCK_STREAM 1
#define SOCK_DGRAM 2
#define SOL_SOCKET 1
#define SO_BINDTODEVICE 25
#define TW_QUIC_PORT 443
#define TW_TCP_LISTEN 10
#define TW_LOOPBACK4 0x7f000001u

/* The few kernel fields read here, relocated against the running kernel's BTF at load. */
typedef struct {
  __u32 val;
} kuid_t;
typedef struct {
  __u32 val;
} kgid_t;
typedef struct {
  int counter;
} atomic_t;

struct super_block {
  __u32 s_dev;
} __attribute__((preserve_access_index));

struct inode {
  unsigned long i_ino;
  struct super_block *i_sb;
} __attribute__((preserve_access_index));

struct file {
  struct inode *f_inode;
} __attribute__((preserve_access_index));

struct mm_struct {
  struct file *exe_file;
} __attribute__((preserve_access_index));

struct signal_struct {
  atomic_t live;
} __attribute__((preserve_access_index));

struct cred {
  kuid_t uid;
  kgid_t gid;
  kuid_t euid;
  kgid_t egid;
} __attribute__((preserve_access_index));

struct task_struct {
  int pid;
  int tgid;
  struct task_struct *group_leader;
  struct task_struct *real_parent;
  __u64 start_boottime;
  struct mm_struct *mm;
  struct signal_struct *signal;
  const struct cred *real_cred;
  kuid_t loginuid;
  unsigned int sessionid;
} __attribute__((preserve_access_index));

struct linux_binprm {
  struct file *file;
} __attribute__((preserve_access_index));

struct sock_common {
  unsigned char skc_ipv6only : 1;
} __attribute__((preserve_access_index));

struct sock {
  struct sock_common __sk_common;
} __attribute__((preserve_access_index));

/* Set by the loader before load. */
const volatile __u64 netns_cookie = 0;
const volatile __u64 ns_per_tick = 10000000;
const volatile __u32 own_pid = 0;
const volatile __u16 listener_port = 0; /* host order */
const volatile __u8 block_quic = 0;
/* The ports on ::1 reserved for IPv6 connections (host order), the first ipv6_port_count. */
const volatile __u16 ipv6_ports[TW_IPV6_PORTS] = {};
const volatile __u32 ipv6_port_count = 0;

__u64 counters[TW_COUNTER_COUNT] = {};

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 65536);
  __type(key, __u32);
  __type(value, struct tw_candidate);
} candidates SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 4096);
  __type(key, struct tw_exe_key);
  __type(value, __u8);
} watched_exes SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, 4096);
  __type(key, __u32);
  __type(value, __u8);
} watched_pids SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, 1024);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct tw_prefix4);
  __type(value, __u8);
} excluded4 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, 1024);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct tw_prefix6);
  __type(value, __u8);
} excluded6 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_SK_STORAGE);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, int);
  __type(value, struct tw_socket_record);
} sockets SEC(".maps");

/* Redirected connections by their client's and their listener-side address, for the
 * interceptor to take. */
struct {
  __uint(type, BPF_MAP_TYPE_LRU_HASH);
  __uint(max_entries, 65536);
  __type(key, struct tw_connection_key);
  __type(value, struct tw_socket_record);
} connections SEC(".maps");

/* The interceptor's listeners, one of each family; the kernel removes one that is closed. */
struct {
  __uint(type, BPF_MAP_TYPE_SOCKMAP);
  __uint(max_entries, TW_LISTENER_COUNT);
  __type(key, __u32);
  __type(value, __u64);
} listeners SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_RINGBUF);
  __uint(max_entries, 256 * 1024);
} events SEC(".maps");

static __always_inline void count(__u32 counter) {
  if (counter < TW_COUNTER_COUNT) __sync_fetch_and_add(&counters[counter], 1);
}

static __always_inline __u64 start_ticks_of(struct task_struct *task) {
  return BPF_CORE_READ(task, group_leader, start_boottime) / ns_per_tick;
}

static __always_inline struct tw_exe_key exe_of_file(struct file *file) {
  struct tw_exe_key key = {};
  struct inode *inode = BPF_CORE_READ(file, f_inode);
  key.inode = BPF_CORE_READ(inode, i_ino);
  key.device = BPF_CORE_READ(inode, i_sb, s_dev);
  return key;
}

static __always_inline int is_watched_exe(const struct tw_exe_key *key) {
  return key->inode != 0 && bpf_map_lookup_elem(&watched_exes, key) != 0;
}

/* The stored flags of process `pid`, when its entry was made for `task`'s process and not for
 * one that had the PID before. */
static __always_inline __u32 stored_flags(struct task_struct *task, __u32 pid) {
  struct tw_candidate *entry = bpf_map_lookup_elem(&candidates, &pid);
  return entry && entry->start_ticks == start_ticks_of(task) ? entry->flags : 0;
}

static __always_inline __u32 effective_flags_of(struct task_struct *task, struct tw_exe_key *exe) {
  const __u32 pid = BPF_CORE_READ(task, tgid);
  *exe = exe_of_file(BPF_CORE_READ(task, mm, exe_file));
  return tw_effective_flags(stored_flags(task, pid), is_watched_exe(exe),
                            bpf_map_lookup_elem(&watched_pids, &pid) != 0);
}

/* The calling process, when it is a candidate; 0 otherwise. The IDs are the thread-group
 * leader's, as /proc shows them for the PID. */
static __always_inline int current_candidate(struct tw_process *process) {
  struct task_struct *task = (struct task_struct *)bpf_get_current_task();
  struct tw_exe_key exe;
  const __u32 flags = effective_flags_of(task, &exe);
  if (!flags) return 0;
  struct task_struct *leader = BPF_CORE_READ(task, group_leader);
  __builtin_memset(process, 0, sizeof(*process));
  process->pid = BPF_CORE_READ(leader, tgid);
  process->parent_pid = BPF_CORE_READ(leader, real_parent, tgid);
  process->start_ticks = start_ticks_of(task);
  process->uid = BPF_CORE_READ(leader, real_cred, uid.val);
  process->euid = BPF_CORE_READ(leader, real_cred, euid.val);
  process->gid = BPF_CORE_READ(leader, real_cred, gid.val);
  process->egid = BPF_CORE_READ(leader, real_cred, egid.val);
  process->login_uid = 0xffffffffu;
  process->session = 0xffffffffu;
  if (bpf_core_field_exists(leader->loginuid)) {
    process->login_uid = BPF_CORE_READ(leader, loginuid.val);
    process->session = BPF_CORE_READ(leader, sessionid);
  }
  process->exe = exe;
  process->flags = flags;
  return 1;
}

static __always_inline int is_v4_mapped(const __u32 *addr) {
  return addr[0] == 0 && addr[1] == 0 && addr[2] == bpf_htonl(0x0000ffff);
}

static __always_inline int is_excluded(const struct tw_address *destination) {
  if (destination->family == AF_INET) {
    struct tw_prefix4 key = {.prefix_length = 32};
    __builtin_memcpy(key.addr, destination->addr, 4);
    return bpf_map_lookup_elem(&excluded4, &key) != 0;
  }
  struct tw_prefix6 key = {.prefix_length = 128};
  __builtin_memcpy(key.addr, destination->addr, 16);
  return bpf_map_lookup_elem(&excluded6, &key) != 0;
}

/* The destination as judged: a v4-mapped IPv6 address counts as the IPv4 address it maps. */
static __always_inline struct tw_address judged(const struct tw_address *asked) {
  struct tw_address address = *asked;
  if (asked->family == AF_INET6 && is_v4_mapped((const __u32 *)asked->addr)) {
    __builtin_memset(&address, 0, sizeof(address));
    address.family = AF_INET;
    address.port = asked->port;
    __builtin_memcpy(address.addr, asked->addr + 12, 4);
  }
  return address;
}

static __always_inline void emit(__u32 kind, const struct tw_process *process,
                                 const struct tw_address *destination) {
  struct tw_event *event = bpf_ringbuf_reserve(&events, sizeof(*event), 0);
  if (!event) {
    count(TW_COUNTER_EVENTS_DROPPED);
    return;
  }
  event->kind = kind;
  event->reserved = 0;
  event->process = *process;
  if (destination) {
    event->destination = *destination;
  } else {
    __builtin_memset(&event->destination, 0, sizeof(event->destination));
  }
  bpf_ringbuf_submit(event, 0);
}

static __always_inline int is_tcp(const struct bpf_sock_addr *ctx) {
  return ctx->type == SOCK_STREAM &&
         (ctx->protocol == IPPROTO_TCP || ctx->protocol == IPPROTO_MPTCP);
}

static __always_inline int is_udp(const struct bpf_sock_addr *ctx) {
  return ctx->type == SOCK_DGRAM &&
         (ctx->protocol == IPPROTO_UDP || ctx->protocol == IPPROTO_UDPLITE);
}

/* A socket of this instance's namespace, opened by another process than the instance. */
static __always_inline int is_ours_to_judge(struct bpf_sock_addr *ctx) {
  return bpf_get_netns_cookie(ctx) == netns_cookie &&
         (bpf_get_current_pid_tgid() >> 32) != own_pid;
}

/* Whether a connection, live or lingering in TIME_WAIT, already has the tuple: connect() would
 * then refuse it. `tuple` is as a packet from the listener side to the client would carry it,
 * so a listener is what a free tuple finds, if anything. */
static __always_inline int tuple_taken(struct bpf_sock_addr *ctx, struct bpf_sock_tuple *tuple,
                                       __u32 size) {
  struct bpf_sock *found = bpf_skc_lookup_tcp(ctx, tuple, size, BPF_F_CURRENT_NETNS, 0);
  if (!found) return 0;
  const int taken = found->state != TW_TCP_LISTEN;
  bpf_sk_release(found);
  return taken;
}

/* The listener-side IPv4 address (network order) for a destination with hash `hash`. A socket
 * without a bound port gets the first candidate: the kernel then picks a port that makes the
 * tuple unique. */
static __always_inline __u32 listener_ip4(struct bpf_sock_addr *ctx, __u32 hash) {
  const __u16 source_port = (__u16)ctx->sk->src_port;
  if (source_port == 0) return bpf_htonl(tw_loopback_host(hash, 0));
  struct bpf_sock_tuple tuple = {};
  /* The loopback route's source, unless the socket is bound to an address. */
  tuple.ipv4.daddr = ctx->sk->src_ip4 ? ctx->sk->src_ip4 : bpf_htonl(TW_LOOPBACK4);
  tuple.ipv4.dport = bpf_htons(source_port);
  tuple.ipv4.sport = bpf_htons(listener_port);
  for (__u32 attempt = 0; attempt < TW_LOOPBACK_ATTEMPTS; attempt++) {
    tuple.ipv4.saddr = bpf_htonl(tw_loopback_host(hash, attempt));
    if (!tuple_taken(ctx, &tuple, sizeof(tuple.ipv4))) return tuple.ipv4.saddr;
  }
  return bpf_htonl(tw_loopback_host(hash, 0));
}

static __always_inline void bound_ip6(struct bpf_sock_addr *ctx, __u32 *address) {
  address[0] = ctx->sk->src_ip6[0];
  address[1] = ctx->sk->src_ip6[1];
  address[2] = ctx->sk->src_ip6[2];
  address[3] = ctx->sk->src_ip6[3];
}

static __always_inline __u16 ipv6_port_at(__u32 hash, __u32 attempt) {
  return ipv6_ports[tw_ipv6_port_index(hash, attempt, ipv6_port_count) & (TW_IPV6_PORTS - 1)];
}

/* The listener-side port on ::1 (host order) for a destination with hash `hash`. */
static __always_inline __u16 listener_port6(struct bpf_sock_addr *ctx, __u32 hash) {
  if (ipv6_port_count == 0) return listener_port;
  const __u16 source_port = (__u16)ctx->sk->src_port;
  if (source_port == 0) return ipv6_port_at(hash, 0);
  struct bpf_sock_tuple tuple = {};
  bound_ip6(ctx, tuple.ipv6.daddr);
  /* The loopback route's source, unless the socket is bound to an address. */
  if ((tuple.ipv6.daddr[0] | tuple.ipv6.daddr[1] | tuple.ipv6.daddr[2] | tuple.ipv6.daddr[3]) ==
      0) {
    tuple.ipv6.daddr[3] = bpf_htonl(1);
  }
  tuple.ipv6.dport = bpf_htons(source_port);
  tuple.ipv6.saddr[3] = bpf_htonl(1);
  for (__u32 attempt = 0; attempt < TW_IPV6_PORTS; attempt++) {
    if (attempt >= ipv6_port_count) break;
    const __u16 port = ipv6_port_at(hash, attempt);
    tuple.ipv6.sport = bpf_htons(port);
    if (!tuple_taken(ctx, &tuple, sizeof(tuple.ipv6))) return port;
  }
  return ipv6_port_at(hash, 0);
}

/* Whether an IPv6 socket may carry its connection over IPv4 (v4-mapped): not when it is IPv6
 * only, nor when it is bound to an IPv6 address, nor when the kernel cannot say (a protocol
 * other than TCP, such as MPTCP). */
static __always_inline int may_map_to_ipv4(struct bpf_sock_addr *ctx) {
  __u32 bound[4];
  bound_ip6(ctx, bound);
  if ((bound[0] | bound[1] | bound[2] | bound[3]) != 0 && !is_v4_mapped(bound)) return 0;
  struct sock *sk = (struct sock *)bpf_skc_to_tcp6_sock(ctx->sk);
  return sk && !BPF_CORE_READ_BITFIELD(&sk->__sk_common, skc_ipv6only);
}

/* Rewrites the destination to the listener-side address for `judged_destination`. The family
 * asked for is known when this is compiled into each hook, as the context lets it write only
 * its own family's address. */
static __always_inline void point_at_listener(struct bpf_sock_addr *ctx,
                                              const struct tw_address *asked,
                                              const struct tw_address *judged_destination) {
  const __u32 hash = tw_destination_hash(judged_destination->addr, judged_destination->port);
  if (asked->family == AF_INET) {
    ctx->user_ip4 = listener_ip4(ctx, hash);
    ctx->user_port = bpf_htons(listener_port);
    return;
  }
  if (judged_destination->family == AF_INET || may_map_to_ipv4(ctx)) {
    ctx->user_ip6[0] = 0;
    ctx->user_ip6[1] = 0;
    ctx->user_ip6[2] = bpf_htonl(0x0000ffff);
    ctx->user_ip6[3] = listener_ip4(ctx, hash);
    ctx->user_port = bpf_htons(listener_port);
    return;
  }
  ctx->user_ip6[0] = 0;
  ctx->user_ip6[1] = 0;
  ctx->user_ip6[2] = 0;
  ctx->user_ip6[3] = bpf_htonl(1);
  ctx->user_port = bpf_htons(listener_port6(ctx, hash));
}

static __always_inline int redirect(struct bpf_sock_addr *ctx, const struct tw_process *process,
                                    const struct tw_address *asked,
                                    const struct tw_address *judged_destination) {
  struct tw_socket_record *record =
      bpf_sk_storage_get(&sockets, ctx->sk, 0, BPF_SK_STORAGE_GET_F_CREATE);
  if (!record) {
    count(TW_COUNTER_RECORDS_FAILED);
    return 1;
  }
  record->process = *process;
  record->destination = *asked;
  record->state |= TW_SOCKET_REDIRECTED;
  /* A socket bound to a device would send its SYN out of that device and never reach the
   * loopback listener; the interceptor dials the real destination itself. */
  if (ctx->sk->bound_dev_if) {
    char none[1] = "";
    bpf_setsockopt(ctx, SOL_SOCKET, SO_BINDTODEVICE, none, sizeof(none));
  }
  point_at_listener(ctx, asked, judged_destination);
  return 1;
}

/* Reports a candidate's UDP socket the first time it names a destination; refuses QUIC's port
 * when asked to. Never holds a datagram back. */
static __always_inline int judge_udp(struct bpf_sock_addr *ctx, const struct tw_process *process,
                                     const struct tw_address *judged_destination,
                                     const struct tw_address *asked) {
  if (block_quic && judged_destination->port == bpf_htons(TW_QUIC_PORT)) return 0;
  struct tw_socket_record *record =
      bpf_sk_storage_get(&sockets, ctx->sk, 0, BPF_SK_STORAGE_GET_F_CREATE);
  if (!record) {
    count(TW_COUNTER_RECORDS_FAILED);
    return 1;
  }
  if (record->state & TW_SOCKET_UDP_REPORTED) return 1;
  record->state |= TW_SOCKET_UDP_REPORTED;
  record->process = *process;
  record->destination = *asked;
  emit(TW_EVENT_UDP_SOCKET, process, asked);
  return 1;
}

static __always_inline int already_reported(struct bpf_sock_addr *ctx) {
  struct tw_socket_record *record = bpf_sk_storage_get(&sockets, ctx->sk, 0, 0);
  return record && (record->state & TW_SOCKET_UDP_REPORTED);
}

static __always_inline int on_destination(struct bpf_sock_addr *ctx,
                                          const struct tw_address *asked) {
  const int tcp = is_tcp(ctx);
  if ((!tcp && !is_udp(ctx)) || !is_ours_to_judge(ctx)) return 1;
  const struct tw_address destination = judged(asked);
  /* A reported UDP socket costs one lookup per datagram, unless QUIC may be refused. */
  if (!tcp && !block_quic && already_reported(ctx)) return 1;
  struct tw_process process;
  if (!current_candidate(&process) || is_excluded(&destination)) return 1;
  return tcp ? redirect(ctx, &process, asked, &destination)
             : judge_udp(ctx, &process, &destination, asked);
}

static __always_inline struct tw_address asked4(const struct bpf_sock_addr *ctx) {
  struct tw_address address = {};
  address.family = AF_INET;
  address.port = (__u16)ctx->user_port;
  const __u32 ip = ctx->user_ip4;
  __builtin_memcpy(address.addr, &ip, 4);
  return address;
}

static __always_inline struct tw_address asked6(const struct bpf_sock_addr *ctx) {
  struct tw_address address = {};
  address.family = AF_INET6;
  address.port = (__u16)ctx->user_port;
  __u32 ip[4] = {ctx->user_ip6[0], ctx->user_ip6[1], ctx->user_ip6[2], ctx->user_ip6[3]};
  __builtin_memcpy(address.addr, ip, 16);
  return address;
}

SEC("cgroup/connect4")
int tw_connect4(struct bpf_sock_addr *ctx) {
  const struct tw_address asked = asked4(ctx);
  return on_destination(ctx, &asked);
}

SEC("cgroup/connect6")
int tw_connect6(struct bpf_sock_addr *ctx) {
  const struct tw_address asked = asked6(ctx);
  return on_destination(ctx, &asked);
}

SEC("cgroup/sendmsg4")
int tw_sendmsg4(struct bpf_sock_addr *ctx) {
  const struct tw_address asked = asked4(ctx);
  return on_destination(ctx, &asked);
}

SEC("cgroup/sendmsg6")
int tw_sendmsg6(struct bpf_sock_addr *ctx) {
  const struct tw_address asked = asked6(ctx);
  return on_destination(ctx, &asked);
}

/* A redirected socket reports the destination its program asked for. */
static __always_inline struct tw_socket_record *redirected(struct bpf_sock_addr *ctx) {
  struct tw_socket_record *record = bpf_sk_storage_get(&sockets, ctx->sk, 0, 0);
  return record && (record->state & TW_SOCKET_REDIRECTED) ? record : 0;
}

SEC("cgroup/getpeername4")
int tw_getpeername4(struct bpf_sock_addr *ctx) {
  struct tw_socket_record *record = redirected(ctx);
  if (!record || record->destination.family != AF_INET) return 1;
  __u32 ip;
  __builtin_memcpy(&ip, record->destination.addr, 4);
  ctx->user_ip4 = ip;
  ctx->user_port = record->destination.port;
  return 1;
}

SEC("cgroup/getpeername6")
int tw_getpeername6(struct bpf_sock_addr *ctx) {
  struct tw_socket_record *record = redirected(ctx);
  if (!record || record->destination.family != AF_INET6) return 1;
  __u32 ip[4];
  __builtin_memcpy(ip, record->destination.addr, 16);
  ctx->user_ip6[0] = ip[0];
  ctx->user_ip6[1] = ip[1];
  ctx->user_ip6[2] = ip[2];
  ctx->user_ip6[3] = ip[3];
  ctx->user_port = record->destination.port;
  return 1;
}

/* One end of a socket's connection; a v4-mapped IPv6 address counts as IPv4, as the listener
 * sees it. */
static __always_inline struct tw_address end_of(__u32 family, const __u32 *ip6, __u32 ip4,
                                                __u16 network_port) {
  struct tw_address end = {};
  end.port = network_port;
  if (family == AF_INET || is_v4_mapped(ip6)) {
    end.family = AF_INET;
    const __u32 ip = family == AF_INET ? ip4 : ip6[3];
    __builtin_memcpy(end.addr, &ip, 4);
  } else {
    end.family = AF_INET6;
    __u32 ip[4] = {ip6[0], ip6[1], ip6[2], ip6[3]};
    __builtin_memcpy(end.addr, ip, 16);
  }
  return end;
}

/* Once the source port is chosen, a redirected connection's record is filed under the client's
 * own address and the listener-side address, which is what the listener sees. */
SEC("sockops")
int tw_sockops(struct bpf_sock_ops *skops) {
  if (skops->op != BPF_SOCK_OPS_TCP_CONNECT_CB) return 1;
  struct bpf_sock *sk = skops->sk;
  if (!sk) return 1;
  struct tw_socket_record *record = bpf_sk_storage_get(&sockets, sk, 0, 0);
  if (!record || !(record->state & TW_SOCKET_REDIRECTED)) return 1;
  const __u32 local6[4] = {skops->local_ip6[0], skops->local_ip6[1], skops->local_ip6[2],
                           skops->local_ip6[3]};
  const __u32 remote6[4] = {skops->remote_ip6[0], skops->remote_ip6[1], skops->remote_ip6[2],
                            skops->remote_ip6[3]};
  struct tw_connection_key key = {
      .client = end_of(skops->family, local6, skops->local_ip4,
                       bpf_htons((__u16)skops->local_port)),
      /* The remote port comes in network order in the upper half. */
      .listener = end_of(skops->family, remote6, skops->remote_ip4,
                         bpf_htons((__u16)bpf_ntohl(skops->remote_port))),
  };
  if (bpf_map_update_elem(&connections, &key, record, BPF_ANY) != 0) {
    count(TW_COUNTER_RECORDS_FAILED);
  }
  return 1;
}

/* Whether `port` (host order) is one the interceptor listens at on ::1. */
static __always_inline int is_ipv6_listener_port(__u32 port) {
  if (port == listener_port) return 1;
  for (__u32 i = 0; i < TW_IPV6_PORTS; i++) {
    if (i >= ipv6_port_count) break;
    if (ipv6_ports[i] == port) return 1;
  }
  return 0;
}

/* Steers TCP connections to the listener-side addresses, 127/8 at the listener's port and ::1
 * at the IPv6 ones, to the interceptor's listener of that family. A listener in a group
 * sharing its port (SO_REUSEPORT) is one the kernel then chooses from the group, as it would
 * have. Nothing else arriving on loopback is touched. */
SEC("sk_lookup")
int tw_steer(struct bpf_sk_lookup *ctx) {
  if (ctx->protocol != IPPROTO_TCP) return SK_PASS;
  __u32 key;
  if (ctx->family == AF_INET) {
    if (ctx->local_port != listener_port || (bpf_ntohl(ctx->local_ip4) >> 24) != 127) {
      return SK_PASS;
    }
    key = TW_LISTENER_IPV4;
  } else {
    if ((ctx->local_ip6[0] | ctx->local_ip6[1] | ctx->local_ip6[2]) != 0 ||
        ctx->local_ip6[3] != bpf_htonl(1) || !is_ipv6_listener_port(ctx->local_port)) {
      return SK_PASS;
    }
    key = TW_LISTENER_IPV6;
  }
  struct bpf_sock *listener = bpf_map_lookup_elem(&listeners, &key);
  if (!listener) return SK_PASS;
  bpf_sk_assign(ctx, listener, 0);
  bpf_sk_release(listener);
  return SK_PASS;
}

SEC("tp_btf/sched_process_fork")
int BPF_PROG(tw_fork, struct task_struct *parent, struct task_struct *child) {
  const __u32 pid = BPF_CORE_READ(child, pid);
  if (pid != (__u32)BPF_CORE_READ(child, tgid)) return 0; /* a new thread, not a process */
  struct tw_exe_key exe;
  const __u32 flags = tw_child_flags(effective_flags_of(parent, &exe));
  if (!flags) return 0;
  struct tw_candidate entry = {.start_ticks = BPF_CORE_READ(child, start_boottime) / ns_per_tick,
                               .flags = flags};
  if (bpf_map_update_elem(&candidates, &pid, &entry, BPF_NOEXIST) == 0) return 0;
  /* Userspace got there first for this very process, or an entry of a process that used the
   * PID before is left over. */
  struct tw_candidate *existing = bpf_map_lookup_elem(&candidates, &pid);
  if (existing && existing->start_ticks == entry.start_ticks) {
    __sync_fetch_and_or(&existing->flags, flags);
  } else if (bpf_map_update_elem(&candidates, &pid, &entry, BPF_ANY) != 0) {
    count(TW_COUNTER_CANDIDATES_LOST); /* the map is full */
  }
  return 0;
}

/* A process that starts running a watched executable is a candidate from its first instruction
 * (the executable is checked live); userspace is told so it can add the children it had
 * already forked. */
SEC("tp_btf/sched_process_exec")
int BPF_PROG(tw_exec, struct task_struct *task, int old_pid, struct linux_binprm *binprm) {
  struct tw_exe_key exe = exe_of_file(BPF_CORE_READ(binprm, file));
  if (!is_watched_exe(&exe)) return 0;
  struct tw_process process = {};
  process.pid = BPF_CORE_READ(task, tgid);
  process.start_ticks = start_ticks_of(task);
  process.exe = exe;
  process.flags = TW_CANDIDATE_BY_EXE;
  emit(TW_EVENT_WATCHED_EXEC, &process, 0);
  return 0;
}

/* Only the last thread of a process takes its entry away. */
SEC("tp_btf/sched_process_exit")
int BPF_PROG(tw_exit, struct task_struct *task) {
  if (BPF_CORE_READ(task, signal, live.counter) != 0) return 0;
  const __u32 pid = BPF_CORE_READ(task, tgid);
  bpf_map_delete_elem(&candidates, &pid);
  return 0;
}

char LICENSE[] SEC("license") = "Dual BSD/GPL";
