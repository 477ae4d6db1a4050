/* Where a redirected connection meets the listener. Every selected connection goes to the one
 * listener, but not to one address: a program that binds a fixed source port and connects to
 * one destination after another must get a distinct 4-tuple each time, as it would without the
 * interceptor, or connect() fails while the previous connection from that port lingers in
 * TIME_WAIT. So the listener-side address is derived from the original destination:
 *   - IPv4 (and IPv6 carried over IPv4, v4-mapped): 127.X.Y.Z at the listener's port, X.Y.Z
 *     from a hash of the destination; the kernel steers all of 127/8 at that port to the
 *     listener. Two destinations share an address with odds of 1 in 16,777,213.
 *   - IPv6 that must stay IPv6 (an IPv6-only socket, or one bound to an IPv6 address): ::1 is
 *     the only loopback address, so the hash picks one of a few ports on ::1 that the host
 *     reserves and steers to its IPv6 listener.
 * When the socket has a bound source port, later candidates are tried while the first one's
 * tuple is taken, so a collision costs nothing unless every candidate is taken.
 *
 * Shared by the BPF program and the tests; plain C, compiled for the BPF target too. */
#ifndef TARNWICK_HOST_SELECTION_LISTENER_ADDRESSES_H
#define TARNWICK_HOST_SELECTION_LISTENER_ADDRESSES_H

#include <linux/types.h>

/* 127.0.0.2 to 127.255.255.254, in host order: never 127.0.0.0 (the network), 127.0.0.1
 * (where anything on the machine may listen on the same port number, and which a program may
 * dial directly) nor the broadcast address, to which TCP cannot connect. */
#define TW_LOOPBACK_FIRST 0x7f000002u
#define TW_LOOPBACK_HOSTS 0x00fffffdu

/* How many listener-side IPv4 addresses are tried for one connection. */
#define TW_LOOPBACK_ATTEMPTS 4u

/* How many ports on ::1 the host reserves for IPv6 connections, and tries for one. */
#define TW_IPV6_PORTS 64u

static inline __u32 tw_mix(__u32 value) {
  value ^= value >> 16;
  value *= 0x7feb352du;
  value ^= value >> 15;
  value *= 0x846ca68bu;
  value ^= value >> 16;
  return value;
}

/* A hash of a destination: its 16 address bytes (an IPv4 address fills the first four, the
 * rest zero) and its port, as stored. */
static inline __u32 tw_destination_hash(const __u8* addr, __u16 port) {
  __u32 hash = tw_mix(port);
  for (int i = 0; i < 16; i += 4) {
    const __u32 word = (__u32)addr[i] | (__u32)addr[i + 1] << 8 | (__u32)addr[i + 2] << 16 |
                       (__u32)addr[i + 3] << 24;
    hash = tw_mix(hash ^ word);
  }
  return hash;
}

/* The listener-side IPv4 address, in host order, of a destination's `attempt`th candidate. */
static inline __u32 tw_loopback_host(__u32 hash, __u32 attempt) {
  return TW_LOOPBACK_FIRST + (hash % TW_LOOPBACK_HOSTS + attempt) % TW_LOOPBACK_HOSTS;
}

/* Which of `count` reserved IPv6 ports a destination's `attempt`th candidate is. */
static inline __u32 tw_ipv6_port_index(__u32 hash, __u32 attempt, __u32 count) {
  return count ? (hash + attempt) % count : 0;
}

#endif
