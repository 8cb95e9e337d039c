#pragma once

#include <sys/types.h>

#include <string>

// Starting programs and waiting for them, for the rooms of the daemon; utils/util.h has the rest.

// Starts the program argv[0]; `argv` ends in null. Returns its pid, or -1 with errno when there can
// be no new process. In a child whose program cannot be started the call returns 0, and the caller
// ends that child at once with _exit.
pid_t spawn_or_fork(const char* const argv[]);

// Waits for the child `pid`, which runs `command`. Returns its wait status, -1 when somebody else
// has collected it. A stoppable thread that is stopped gives the child five more seconds and then
// throws child_left_alone (logged); whoever reaps children collects it later.
int wait_for(pid_t pid, const char* command);

// --- Children to be signalled while another thread collects --------------------------------------
// A pid may name a stranger once its child has been collected. These three exclude each other, so a
// child that has been collected is not signalled. Each from any thread.

// ZQRecordLog whose child, if there is one, is kept for signal_kept_children.
pid_t start_kept_child(const std::string& tag, char* const argv[]);

// Sends `sig` to the kept children in the order of their starts; none is kept afterwards.
void signal_kept_children(int sig);

// Collects all children of the process that have ended by now; none of them is kept any longer.
// Whoever starts kept children collects unknown ones by nothing else.
void collect_ended_children();
