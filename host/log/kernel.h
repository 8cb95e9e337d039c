// SPDX-License-Identifier: Apache-2.0

// The kernel's log as a source of log entries.
#pragma once

#include <android-base/unique_fd.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "host/log/source.h"

struct kernel_record {
    android_LogPriority priority = ANDROID_LOG_INFO;
    std::chrono::microseconds since_boot{};
    std::string tag;  // "" when the text begins with none
    std::string message;
};

// Parses one record as a read of /dev/kmsg returns it. No value: it is not in that form.
std::optional<kernel_record> parse_kernel_record(const std::string& text);

// Reads /dev/kmsg from the oldest record that the kernel still has. Records that the kernel
// overwrites before they are read are missed.
class kernel_reader : public log_source {
  public:
    // `kmsg` is /dev/kmsg, open for reading. Without O_NONBLOCK peek waits for the next record.
    explicit kernel_reader(android::base::unique_fd kmsg) : kmsg_(std::move(kmsg)) {}

    // The kernel does not tell where its log ends, so the end is the first moment at which there is
    // no further record.
    void stop_at_present_end() override {}

  private:
    std::optional<AndroidLogEntry> next() override;

    android::base::unique_fd kmsg_;
    kernel_record record_;  // what the entry points into
};
