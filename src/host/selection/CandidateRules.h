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
/* The PID is on the watch list. Checked live too, and for whatever process holds the PID: the
 * provider trusts the first process it sees under a watched PID and tells a reused one by its
 * own binding, which the kernel cannot know, so the kernel must not be the stricter. */
#define TW_CANDIDATE_BY_PID 0x4u

/* An exec keeps the PID, the start time and the ancestry, so it keeps the stored flag; only the
 * executable, which is checked live, changes. */

/* What a process counts as: its stored flags, whether its executable is watched now and whether
 * its PID is. */
static inline __u32 tw_effective_flags(__u32 stored, int runs_watched_exe, int pid_watched) {
  return (stored & TW_CANDIDATE_INHERITED) | (runs_watched_exe ? TW_CANDIDATE_BY_EXE : 0u) |
         (pid_watched ? TW_CANDIDATE_BY_PID : 0u);
}

/* A child inherits from an ancestor that counts by its identity (its executable, or its own
 * inheritance), never from one that is watched only by its PID. */
static inline __u32 tw_child_flags(__u32 parent_effective) {
  return (parent_effective & (TW_CANDIDATE_BY_EXE | TW_CANDIDATE_INHERITED))
             ? TW_CANDIDATE_INHERITED
             : 0u;
}

#endif
