// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <pthread.h>
#include <signal.h>

// Calls `action` with every signal of the calling thread held back, and gives back its result: a
// handler that ends the thread cannot leave a lock, a file descriptor or a half-made file behind.
//
// No destructor brings the signals back: a handler that was held back runs inside that very call,
// and a thread that it ends is unwound through here, which a destructor would turn into an abort.
auto with_signals_blocked(const auto& action) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const auto result = action();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return result;
}
