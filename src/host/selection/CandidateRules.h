/* Which processes are candidates, as flags per process. Shared by the BPF program and the C++
 * code that seeds the kernel's set and models it, so that userspace and the kernel apply one
 * rule. Plain C: it is compiled for the BPF target too. */
#ifndef TARNWICK_HOST_SELECTION_CANDIDATE_RULES_H
#define TARNWICK_HOST_SELECTION_CANDIDATE_RULES_H

#include <linux/types.h>

/* The process runs a watched executable. Never stored: the kernel checks the executable a
 * process runs against the watched set whenever it asks, so no update of the set can race with
 * an exec. */
#define TW_CANDIDATE_BY_EXE 0x1u
/* Forked from a process that was a candidate by its executable or by inheritance. */
#define TW_CANDIDATE_INHERITED 0x2u
/* The PID is watched; stored by userspace for one start time, after checking it. */
#define TW_CANDIDATE_BY_PID 0x4u

/* An exec keeps the PID, the start time and the ancestry, so it keeps the stored flags; only
 * the executable, which is checked live, changes. A watched PID stays watched across an exec:
 * whether the new program still passes the identity check is the provider's call. */

/* What a process counts as: its stored flags, and whether its executable is watched now. */
static inline __u32 tw_effective_flags(__u32 stored, int runs_watched_exe) {
  return (stored & (TW_CANDIDATE_INHERITED | TW_CANDIDATE_BY_PID)) |
         (runs_watched_exe ? TW_CANDIDATE_BY_EXE : 0u);
}

/* A child inherits from an ancestor that counts by its identity (its executable, or its own
 * inheritance), never from one that is watched only by its PID. */
static inline __u32 tw_child_flags(__u32 parent_effective) {
  return (parent_effective & (TW_CANDIDATE_BY_EXE | TW_CANDIDATE_INHERITED))
             ? TW_CANDIDATE_INHERITED
             : 0u;
}

#endif
