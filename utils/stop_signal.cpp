// SPDX-License-Identifier: Apache-2.0
#include "utils/stop_signal.h"

#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace brevix {

namespace {

using std::chrono::steady_clock;

thread_local bool stoppable = false;
thread_local bool stopped = false;

constexpr int kStopOrChildEnd[] = {SIGTERM, SIGCHLD};

// Also when somebody else has collected it.
bool has_ended(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, pid, &info, WEXITED | WNOWAIT | WNOHANG) != 0 || info.si_pid == pid;
}

void accept_stop(const siginfo_t& sigterm) {
    if (sigterm.si_pid != getpid()) {
        end_process_by(SIGTERM);
    }
    stopped = true;
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

int take_signal(std::span<const int> signals, std::chrono::milliseconds limit, siginfo_t* info) {
    const sigset_t set = set_of(signals);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
    const timespec timeout{static_cast<time_t>(seconds.count()),
                           static_cast<long>(std::chrono::nanoseconds(limit - seconds).count())};
    return sigtimedwait(&set, info, limit == kNoLimit ? nullptr : &timeout);
}

void end_process_by(int sig) {
    signal(sig, SIG_DFL);
    raise(sig);
    const sigset_t raised = set_of({&sig, 1});
    pthread_sigmask(SIG_UNBLOCK, &raised, nullptr);
}

void receive_child_ends() {
    signal(SIGCHLD, SIG_DFL);  // where it is ignored, the kernel sends none
    constexpr int kChildEnd[] = {SIGCHLD};
    const sigset_t child_end = set_of(kChildEnd);
    pthread_sigmask(SIG_BLOCK, &child_end, nullptr);
}

void make_stoppable(void (*handler)(int)) {
    stoppable = true;
    handle_signal(SIGTERM, handler);
}

bool is_stoppable() {
    return stoppable;
}

void wait_for_stop() {
    siginfo_t info{};
    while (!stopped) {
        if (take_signal(kStopSignals, kNoLimit, &info) == SIGTERM) {
            accept_stop(info);
        }
    }
}

// Both signals are blocked, so neither comes unnoticed between the look at the child and the wait.
bool wait_for_end(pid_t pid, std::chrono::milliseconds patience) {
    steady_clock::time_point deadline = steady_clock::now() + patience;
    while (!has_ended(pid)) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
        if (stopped && left.count() <= 0) {
            return false;
        }
        siginfo_t info{};
        if (take_signal(kStopOrChildEnd, stopped ? left : kNoLimit, &info) == SIGTERM) {
            accept_stop(info);
            deadline = steady_clock::now() + patience;
        }
    }
    return true;
}

}  // namespace brevix
