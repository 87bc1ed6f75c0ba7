// The agent across fork().
//
// Pre-forking servers start the agent in the parent and fork their workers.
// A child inherits the agent's memory but none of its threads, and a lock that
// one of those threads held at the fork stays locked in the child for good. So
// the child never touches the parent's agent:
//
//   parent                     child, at the fork         child, first zx_bt_begin
//   agent running  --fork-->   application object,  -->   agent_init again with the
//   (unaffected)               trace log and SDK state    parent's arguments: its own
//                              dropped; agent inert       trace log, pid, control link
//
// A child that exits at once therefore has nothing to stop. One that traces
// gets neutral results until its own collector link starts a run, as any new
// agent does. The parent's application object is left to the child's memory,
// never freed or locked: handles from before the fork belong to it and are
// refused in the child.
//
// Across the fork the parent holds APR's allocator lock, so that the child
// can make pools; nothing else of the parent waits.
#pragma once

#include <atomic>

#include "zxlb_status.h"

// Keeps agent_init's arguments for a child's restart and installs the fork
// handlers (once). Called by agent_init for a running agent.
void zx_agent_fork_remember(const char *pool, const char *process_name, const char *agentType);

// Set in a child whose parent ran an agent, until the child starts its own.
extern std::atomic<bool> zxAgentRestartPending;

// Starts the child's own agent. One caller does it; the others, and calls
// while it runs, get busy (and give neutral results). Ok once it has run.
zx::Status zx_agent_restart_after_fork();
