// SPDX-License-Identifier: Apache-2.0
#include "utils/stop_signal.h"

#include <poll.h>
#include <pthread.h>
#include <setjmp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace {

using std::chrono::steady_clock;

thread_local bool stoppable = false;
thread_local bool was_stopped = false;          // while it waited for a child
thread_local sigjmp_buf* child_wait = nullptr;  // where a stop leads while a child is waited for

// waitid has no signal mask to be given, as ppoll has: a signal that came just before the call
// would leave it blocked for good. The jump closes that gap; WNOWAIT leaves nothing that it could
// lose.
void wait_for_end_or_stop(pid_t pid) {
    const sigset_t stop_signal = set_of(kStopSignals);
    sigjmp_buf stop;
    if (sigsetjmp(stop, 1) == 0) {
        child_wait = &stop;
        pthread_sigmask(SIG_UNBLOCK, &stop_signal, nullptr);
        siginfo_t info;
        TEMP_FAILURE_RETRY(waitid(P_PID, pid, &info, WEXITED | WNOWAIT));
        pthread_sigmask(SIG_BLOCK, &stop_signal, nullptr);
    } else {
        was_stopped = true;
    }
    child_wait = nullptr;
}

// Also when somebody else has collected it.
bool has_ended(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, pid, &info, WEXITED | WNOWAIT | WNOHANG) != 0 || info.si_pid == pid;
}

}  // namespace

sigset_t set_of(std::span<const int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int sig : signals) {
        sigaddset(&set, sig);
    }
    return set;
}

void handle_signal(int sig, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigfillset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

void wait_unblocked(std::span<const int> signals, int fd) {
    sigset_t mask;
    pthread_sigmask(SIG_UNBLOCK, nullptr, &mask);
    for (const int sig : signals) {
        sigdelset(&mask, sig);
    }
    pollfd waiting{fd, POLLIN, 0};
    ppoll(&waiting, 1, nullptr, &mask);
}

void make_stoppable(void (*handler)(int)) {
    stoppable = true;
    handle_signal(SIGTERM, handler);
}

bool is_stoppable() {
    return stoppable;
}

void wait_or_stop(int fd) {
    wait_unblocked(kStopSignals, fd);
}

bool wait_for_end(pid_t pid, std::chrono::milliseconds patience) {
    if (!was_stopped) {
        wait_for_end_or_stop(pid);
    }
    // Nothing wakes this thread at the child's end as well as at the deadline: SIGCHLD is any
    // thread's, a pidfd newer than some kernels.
    const steady_clock::time_point deadline = steady_clock::now() + patience;
    while (was_stopped && !has_ended(pid)) {
        if (steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

void interrupt_child_wait() {
    if (child_wait != nullptr) {
        siglongjmp(*child_wait, 1);
    }
}

void end_process_by(int sig) {
    signal(sig, SIG_DFL);
    raise(sig);
    const sigset_t raised = set_of({&sig, 1});
    pthread_sigmask(SIG_UNBLOCK, &raised, nullptr);
}
