// SPDX-License-Identifier: Apache-2.0

// The kernel's log as a source of log entries.
#pragma once

#include <android-base/unique_fd.h>
#include <log/logprint.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "host/log/source.h"

struct kernel_record {
    android_LogPriority priority = ANDROID_LOG_INFO;
    std::chrono::microseconds since_boot{};
    std::string tag;  // "" when the text begins with none
    std::string message;
};

// Parses one record as a read of /dev/kmsg gives it. No value: it is not in that form.
std::optional<kernel_record> parse_kernel_record(std::string_view text);

// Reads /dev/kmsg, from the oldest record the kernel still has. Records that the kernel overwrites
// before they are read are missed. peek throws std::system_error when reading fails.
class kernel_reader : public log_source {
  public:
    // `kmsg` is /dev/kmsg, open for reading with O_NONBLOCK; poll tells when there is more.
    explicit kernel_reader(android::base::unique_fd kmsg) : kmsg_(std::move(kmsg)) {}

    const AndroidLogEntry* peek() override;
    void pop() override { head_.reset(); }
    void stop_at_present_end() override;

    int fd() const { return kmsg_.get(); }

  private:
    android::base::unique_fd kmsg_;
    int64_t records_left_ = std::numeric_limits<int64_t>::max();
    kernel_record record_;  // what head_ points into
    std::optional<AndroidLogEntry> head_;
};
