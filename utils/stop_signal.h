// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <span>

// Threads that a signal ends. They block it except in one wait, where they hold no lock and have
// nothing half done.

namespace brevix {

sigset_t set_of(std::span<const int> signals);

// Handles `sig` by `handler`, with every signal blocked meanwhile. The disposition is the
// process's.
void handle_signal(int sig, void (*handler)(int));

// Waits until `fd` is readable (-1: for signals alone) with `signals` unblocked, so their handlers
// run in here. A signal that comes while `fd` is readable stays pending.
void wait_unblocked(std::span<const int> signals, int fd);

inline constexpr std::chrono::milliseconds kNoLimit = std::chrono::milliseconds::max();

// Waits for one of `signals`, which all threads block, and takes it without its handler. Returns
// its number; -1 when none came within `limit`, or another signal's handler has run.
int take_signal(std::span<const int> signals, std::chrono::milliseconds limit,
                siginfo_t* info = nullptr);

// Ends the process by `sig`, as without a handler.
void end_process_by(int sig);

// --- Stoppable threads ---------------------------------------------------------------------------
// A stop is a SIGTERM that this process sends to the thread. A SIGTERM of another process ends the
// process, whichever thread the kernel gives it to.

inline constexpr int kStopSignals[] = {SIGTERM};

// Blocks SIGCHLD in the calling thread and those that it starts, for wait_for_end. Call it before
// the first thread is started.
void receive_child_ends();

// Makes the calling thread stoppable: SIGTERM, which must be blocked, runs `handler` in
// wait_unblocked.
void make_stoppable(void (*handler)(int));

// Whether the calling thread is stoppable.
bool is_stoppable();

// Waits for the calling thread's stop.
void wait_for_stop();

// Waits until the child `pid` has ended, without collecting it. Once the calling stoppable thread
// is stopped, the wait lasts no longer than `patience`. Returns false when the child is still
// running then.
bool wait_for_end(pid_t pid, std::chrono::milliseconds patience);

// Thrown by a stopped thread that gives up waiting for a child, to end with its stack unwound:
// bionic's pthread_exit does not do that.
struct child_left_alone {};

}  // namespace brevix
