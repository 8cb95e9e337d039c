// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>

// Starting and reaping child processes, and copies. Any thread may call these functions.
//
// A child starts with an empty signal mask and without the daemon's handlers. A signal that was
// ignored when this process started stays ignored in it.

// Starts the program argv[0] with `argv`, whose last element is null. Returns its pid, or -1
// (logged) when there is no new process. In a child whose program cannot be started the call
// returns 0, and the caller ends that child at once with _exit. The child is not waited for. `tag`
// is for the log.
int ZQRecordLog(const std::string& tag, char* const argv[]);

// Runs a shell line of at most 1023 bytes to its end; a longer one aborts the process. Its standard
// output is a pipe that nobody reads: a line redirects what it wants to keep.
void execute_cmd(const char* command);

// Copies a regular file to a path that does not exist yet (failures are logged). Gives whatever is
// at `to` mode 0777, also after a failure.
void ZQCopyFile(const char* from, const char* to);

// "cp -r FROM TO " and "cp FROM TO " through the shell, unquoted, the line cut at 511 bytes.
// Failures are not reported.
void ZQCopyFolder(const char* from, const char* to);
void ZQCopyCmd(const char* from, const char* to);

namespace brevix {

// Starts the program argv[0]; `argv` ends in null. Returns its pid, or -1 with errno when there can
// be no new process. A child whose program cannot be started ends with 127.
pid_t start_program(const char* const argv[]);

// start_program by ZQRecordLog.
pid_t start_recording(const std::string& tag, const char* const argv[]);

// Runs a shell line as system() does and waits for it. Returns its wait status; -1 when it could
// not be started (logged) or somebody else has reaped it.
int run_shell(const char* command);

// Starts a shell line in a process group of its own, so that a signal to the group reaches the
// shell and all that the line runs. Returns the shell's pid, which is also the group's id; -1
// (logged) when it could not be started. The caller waits for it.
pid_t start_shell_group(const char* command);

// Ignores SIGINT and SIGQUIT during its life, as system() does: Ctrl-C ends the shell line of a
// one-shot tool, not the tool. Children get those back that were not ignored before. For a process
// with one thread.
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

// Waits for the child `pid`, which runs `command`. Returns its wait status; -1 when somebody else
// has reaped it. A stoppable thread that is stopped gives the child five more seconds and then
// throws child_left_alone (logged); reap_ended_children reaps it later.
int wait_for(pid_t pid, const char* command);

// --- Children to be signalled while another thread reaps -----------------------------------------
// The kernel may reuse the pid of a reaped child. These three exclude each other, so no reaped pid
// is signalled.

// start_recording whose child, if there is one, is kept for signal_kept_children.
pid_t start_kept_child(const std::string& tag, const char* const argv[]);

// Sends `sig` to the kept children in the order of their starts; none is kept afterwards.
void signal_kept_children(int sig);

// Reaps every child of the process that has ended, and keeps none of them any longer. A process
// with kept children must not call waitpid(-1) anywhere else.
void reap_ended_children();

}  // namespace brevix
