// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <span>

// Threads that a signal ends. They block it except in their wait, so they end there, with no lock
// held and nothing half done.

sigset_t set_of(std::span<const int> signals);

// Handles `sig` by `handler`, with every signal blocked meanwhile. The disposition is the
// process's.
void handle_signal(int sig, void (*handler)(int));

// Waits until `fd` is readable (-1: for signals alone) with `signals` unblocked, so their handlers
// run in here. A signal that comes while `fd` is readable stays pending.
void wait_unblocked(std::span<const int> signals, int fd);

// Ends the process by `sig`, as without a handler.
void end_process_by(int sig);

// --- Stoppable threads: by SIGTERM only ----------------------------------------------------------

inline constexpr int kStopSignals[] = {SIGTERM};

// Makes the calling thread stoppable: SIGTERM, which must be blocked, runs `handler` in
// wait_or_stop.
void make_stoppable(void (*handler)(int));

// Whether the calling thread is stoppable.
bool is_stoppable();

// wait_unblocked for SIGTERM.
void wait_or_stop(int fd);

// Waits until the child `pid` has ended, without collecting it. Once SIGTERM has come for the
// calling stoppable thread, it waits no longer than `patience`, and returns false when the child is
// still running then.
bool wait_for_end(pid_t pid, std::chrono::milliseconds patience);

// For SIGTERM handlers: ends the blocking part of wait_for_end, and returns only when the calling
// thread is not in it.
void interrupt_child_wait();

// Thrown by a stopped thread that gives up waiting for a child, to end with its stack unwound:
// bionic's pthread_exit does not do that.
struct child_left_alone {};
