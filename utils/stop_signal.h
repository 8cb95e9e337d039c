#pragma once

#include <signal.h>
#include <sys/types.h>

// A thread that SIGTERM stops: the signal is blocked except where the thread waits, so it ends
// there, with no lock held and nothing half done.

// Blocks SIGTERM and SIGCHLD in this thread, and in the threads that it creates meanwhile.
class blocked_signals {
  public:
    blocked_signals();
    ~blocked_signals();
    blocked_signals(const blocked_signals&) = delete;
    blocked_signals& operator=(const blocked_signals&) = delete;

  private:
    sigset_t previous_;
};

// Makes the calling thread stoppable: SIGTERM, which must be blocked, runs `handler` in
// wait_or_stop. Every signal is blocked meanwhile. The disposition is the whole process's.
void make_stoppable(void (*handler)(int));

// Whether the calling thread is stoppable.
bool is_stoppable();

// Waits until `fd` is readable (-1: for the signal alone). A signal that comes while `fd` is
// readable stays pending.
void wait_or_stop(int fd);

// Ends the process by `sig`, as without a handler.
void end_process_by(int sig);
