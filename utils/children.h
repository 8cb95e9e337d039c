#pragma once

#include <sys/types.h>

// What the rooms of utils share of starting programs and waiting for them.

// Starts the program argv[0]; `argv` ends in null. Returns its pid, or -1 with errno when there can
// be no new process. In a child whose program cannot be started the call returns 0, and the caller
// ends that child at once with _exit.
pid_t spawn_or_fork(const char* const argv[]);

// Waits for the child `pid`, which runs `command`. Returns its wait status, -1 when somebody else
// has collected it. A stoppable thread that is stopped gives the child five more seconds and then
// throws child_left_alone (logged); whoever reaps children collects it later.
int wait_for(pid_t pid, const char* command);
