#ifndef TRANSPORT_SYNC_THREAD_H_
#define TRANSPORT_SYNC_THREAD_H_

#include <corosync/cpg.h>
#include <stddef.h>
#include <stdint.h>

// Body of sync_thread, which owns the CPG connection and all replication state. `context` is the
// SyncContext. Joins the group "em-sync" and serves it until the exit flag is set; returns null.
// Aborts the process (on_severe_error) if it loses the group connection or makes no progress for 45
// s. Needs a stack of 4 MiB: cpg_dispatch(3) keeps a buffer of 1 MiB on it.
void* sync_thread_fn(void* context);

// Delivery callback: passes a valid message to the state machine. Any other ends the exchange.
void on_cpg_message(cpg_handle_t handle, const struct cpg_name* group_name, uint32_t nodeid,
                    uint32_t pid, void* message, size_t message_size);

// Configuration-change callback: records the members, then reports departures before joins.
void on_cpg_config(cpg_handle_t handle, const struct cpg_name* group_name,
                   const struct cpg_address* members, size_t member_count,
                   const struct cpg_address* left, size_t left_count,
                   const struct cpg_address* joined, size_t joined_count);

// The OR of one bit per address: `self_bit` for this process on node `local_nodeid`, `peer_bit` for
// any other.
uint32_t compute_membership_flags(uint32_t local_nodeid, const struct cpg_address* addresses,
                                  size_t count, uint32_t self_bit, uint32_t peer_bit);

#endif  // TRANSPORT_SYNC_THREAD_H_
