// SPDX-License-Identifier: Apache-2.0

// Helpers around system calls that several files of the Linux side share.
#pragma once

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <system_error>

// Throws std::system_error with the present errno.
[[noreturn]] inline void throw_errno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// Discards the queued events of a non-blocking inotify instance. For callers that look at the files
// themselves afterwards: they need neither the events nor an overflow record.
inline void drain_inotify(int inotify) {
    alignas(inotify_event) char events[4096];
    while (read(inotify, events, sizeof(events)) > 0) {
    }
}

// The timeout that poll needs to return at `deadline`: milliseconds, rounded up, 0 when it has
// passed, -1 (wait forever) when there is none.
inline int milliseconds_until(
    const std::optional<std::chrono::steady_clock::time_point>& deadline) {
    using std::chrono::milliseconds;
    if (!deadline) {
        return -1;
    }
    const auto left = *deadline - std::chrono::steady_clock::now();
    return static_cast<int>(std::max<int64_t>(std::chrono::ceil<milliseconds>(left).count(), 0));
}
