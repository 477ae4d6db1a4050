/* The layout of what the BPF program and its loader exchange: map keys and values, socket
 * records and ring-buffer events. Plain C, compiled for the BPF target too; every field is
 * sized and padded explicitly so both sides agree byte for byte. */
#ifndef TARNWICK_HOST_SELECTION_SELECTION_RECORDS_H
#define TARNWICK_HOST_SELECTION_SELECTION_RECORDS_H

#include <linux/types.h>

/* An executable file as the kernel names it: the device in the kernel's own encoding
 * (major << 20 | minor) and the inode number. */
struct tw_exe_key {
  __u64 device;
  __u64 inode;
};

/* A candidate process, keyed by its PID (thread-group ID). The start time, in clock ticks
 * after boot as /proc shows it, tells a reused PID from the process the entry was made for. */
struct tw_candidate {
  __u64 start_ticks;
  __u32 flags;
  __u32 reserved;
};

/* The process that called connect() or sent a datagram, read at that moment. */
struct tw_process {
  __u32 pid;
  __u32 parent_pid;
  __u64 start_ticks;
  __u32 uid;
  __u32 euid;
  __u32 gid;
  __u32 egid;
  __u32 login_uid;
  __u32 session;
  struct tw_exe_key exe;
  __u32 flags;
  __u32 reserved;
};

/* An IPv4 or IPv6 socket address: the port in network order; an IPv4 address fills the first
 * four bytes. Also the key of connection records, so unused bytes are always zero. */
struct tw_address {
  __u16 family;
  __u16 port;
  __u8 addr[16];
};

/* A redirected connection as the listener sees it: the client's address and the listener-side
 * address it arrived at. One client port may have several connections at once, each to its
 * own listener-side address. */
struct tw_connection_key {
  struct tw_address client;
  struct tw_address listener;
};

/* What a socket of a candidate carries in its local storage. */
#define TW_SOCKET_REDIRECTED 0x1u
#define TW_SOCKET_UDP_REPORTED 0x2u

struct tw_socket_record {
  struct tw_process process;
  /* The destination the program asked for, as it asked (a v4-mapped IPv6 address stays so). */
  struct tw_address destination;
  __u32 state;
  __u32 reserved;
};

/* Ring-buffer events. */
#define TW_EVENT_UDP_SOCKET 1u
#define TW_EVENT_WATCHED_EXEC 2u

struct tw_event {
  __u32 kind;
  __u32 reserved;
  struct tw_process process;
  struct tw_address destination; /* TW_EVENT_UDP_SOCKET only */
};

/* Keys of the excluded-destination tries. */
struct tw_prefix4 {
  __u32 prefix_length;
  __u8 addr[4];
};

struct tw_prefix6 {
  __u32 prefix_length;
  __u8 addr[16];
};

/* The listener sockets the kernel steers redirected connections to, keys of their map. */
#define TW_LISTENER_IPV4 0u
#define TW_LISTENER_IPV6 1u
#define TW_LISTENER_COUNT 2u

/* Counters the loader reads, indexes into the counters array. */
#define TW_COUNTER_EVENTS_DROPPED 0u
#define TW_COUNTER_RECORDS_FAILED 1u
#define TW_COUNTER_CANDIDATES_LOST 2u
#define TW_COUNTER_COUNT 3u

#endif
