// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>

// Starting and reaping children, for the daemon's own sources; utils/util.h has the rest.

// Starts the program argv[0]; `argv` ends in null. Returns its pid, or -1 with errno when there can
// be no new process. In a child whose program cannot be started the call returns 0, and the caller
// ends that child at once with _exit.
pid_t spawn_or_fork(const char* const argv[]);

// Waits for the child `pid`, which runs `command`. Returns its wait status, -1 when somebody else
// has collected it. A stoppable thread that is stopped gives the child five more seconds and then
// throws child_left_alone (logged); collect_ended_children reaps it later.
int wait_for(pid_t pid, const char* command);

// Ignores SIGINT and SIGQUIT during its life, as system() does, so that Ctrl-C ends the shell line
// of a one-shot tool and not the tool. Children get those back that were not ignored before. For a
// process with one thread.
class ignored_terminal_signals {
  public:
    ignored_terminal_signals();
    ~ignored_terminal_signals();
    ignored_terminal_signals(const ignored_terminal_signals&) = delete;
    ignored_terminal_signals& operator=(const ignored_terminal_signals&) = delete;

  private:
    struct sigaction interrupt_;
    struct sigaction quit_;
};

// --- Children to be signalled while another thread collects --------------------------------------
// A pid may name another process once its child has been collected. These three exclude each other,
// so no collected pid is signalled. Any thread.

// ZQRecordLog whose child, if there is one, is kept for signal_kept_children.
pid_t start_kept_child(const std::string& tag, char* const argv[]);

// Sends `sig` to the kept children in the order of their starts; none is kept afterwards.
void signal_kept_children(int sig);

// Reaps every child of the process that has ended, and keeps none of them any longer. A process
// with kept children must not call waitpid(-1) anywhere else.
void collect_ended_children();
