// SPDX-License-Identifier: Apache-2.0

// Keeps signal handlers of the calling thread out of a critical section.
#pragma once

#include <pthread.h>
#include <signal.h>

// Calls `action` with all signals of the calling thread blocked and returns its result: a handler
// that ends the thread by pthread_exit cannot leave a lock, a descriptor or a half-made file
// behind.
//
// The mask is not restored by a destructor: a pending handler runs inside the call that restores
// it, and pthread_exit there unwinds through this frame, where a destructor (noexcept) would abort.
auto with_signals_blocked(const auto& action) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const auto result = action();
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return result;
}
