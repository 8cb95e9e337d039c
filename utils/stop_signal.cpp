#include "utils/stop_signal.h"

#include <poll.h>
#include <pthread.h>

namespace {

thread_local bool stoppable = false;

}  // namespace

blocked_signals::blocked_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &signals, &previous_);
}

blocked_signals::~blocked_signals() {
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

void make_stoppable(void (*handler)(int)) {
    stoppable = true;
    struct sigaction action {};
    action.sa_handler = handler;
    sigfillset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
}

bool is_stoppable() {
    return stoppable;
}

void wait_or_stop(int fd) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    sigdelset(&mask, SIGTERM);
    pollfd waiting{fd, POLLIN, 0};
    ppoll(&waiting, 1, nullptr, &mask);
}

void end_process_by(int sig) {
    signal(sig, SIG_DFL);
    raise(sig);
    sigset_t raised;
    sigemptyset(&raised);
    sigaddset(&raised, sig);
    pthread_sigmask(SIG_UNBLOCK, &raised, nullptr);
}
