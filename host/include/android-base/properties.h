// SPDX-License-Identifier: Apache-2.0

// Debian's header and the one declaration that it lacks.
#pragma once

#include_next <android-base/properties.h>

#include <chrono>
#include <string>

namespace android::base {

// Blocks the calling thread until the property `key` has the value `expected_value`; "" means
// unset. Returns true as soon as it has, and false when `relative_timeout` has passed; a timeout of
// more than 24 days never passes. A value that another one replaces at once may be missed; a value
// that stays is not.
//
// Any number of threads may wait. Each keeps an inotify instance of its own from its first wait to
// its end (a user has 128 in all). Signal handlers run as usual and the wait continues after them;
// a handler may end the thread by pthread_exit.
//
// Logs and aborts when the folder of the properties is missing or cannot be watched.
bool WaitForProperty(const std::string& key, const std::string& expected_value,
                     std::chrono::milliseconds relative_timeout = std::chrono::milliseconds::max());

}  // namespace android::base
