#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>

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

// Waits until the child `pid` has ended, without collecting it. Once SIGTERM has come for the
// calling stoppable thread, it waits no longer than `patience`; returns false when the child runs
// on then.
bool wait_for_end(pid_t pid, std::chrono::milliseconds patience);

// For SIGTERM handlers: ends the blocking part of wait_for_end, and returns only when the calling
// thread is not in it.
void interrupt_child_wait();

// Thrown by a stopped thread that does not wait any longer for a child, to end with its stack
// unwound, which bionic's pthread_exit does not do.
struct child_left_alone {};

// Ends the process by `sig`, as without a handler.
void end_process_by(int sig);
