// SPDX-License-Identifier: Apache-2.0

// The interface through which logcat and klogd read log entries.
#pragma once

#include <log/logprint.h>

#include <optional>

// One thread uses a source. peek throws std::system_error when reading fails.
class log_source {
  public:
    virtual ~log_source() = default;

    // The oldest entry that has not been popped, valid until pop; nullptr while there is none.
    const AndroidLogEntry* peek() {
        if (!head_) {
            head_ = next();
        }
        return head_ ? &*head_ : nullptr;
    }
    void pop() { head_.reset(); }

    // Hides the entries that are logged after this call, as far as the source can tell them apart.
    virtual void stop_at_present_end() = 0;

  private:
    // The entry after the last one, valid until the next call; no value while there is none.
    virtual std::optional<AndroidLogEntry> next() = 0;

    std::optional<AndroidLogEntry> head_;
};
