// SPDX-License-Identifier: Apache-2.0

// What a logcat reads entries from.
#pragma once

#include <log/logprint.h>

class log_source {
  public:
    virtual ~log_source() = default;

    // The next entry, valid until pop; nullptr while there is none.
    virtual const AndroidLogEntry* peek() = 0;

    // Goes on to the entry after it.
    virtual void pop() = 0;

    // Makes the entries that are there now the last ones (a few newer ones may get in).
    virtual void stop_at_present_end() = 0;
};
