// SPDX-License-Identifier: Apache-2.0

// Records of /dev/kmsg, parsed and given wall-clock times.
#include "host/log/kernel.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "host/system.h"

namespace {

// Indexed by the kernel's level, 0 (emergency) to 7 (debug).
constexpr android_LogPriority kPriorities[] = {
    ANDROID_LOG_FATAL, ANDROID_LOG_ERROR, ANDROID_LOG_ERROR, ANDROID_LOG_ERROR,
    ANDROID_LOG_WARN,  ANDROID_LOG_INFO,  ANDROID_LOG_INFO,  ANDROID_LOG_DEBUG,
};

// The kernel writes bytes that are not printable, and the backslash, as \xNN.
std::string decode(std::string text) {
    for (size_t at = 0; (at = text.find("\\x", at)) != std::string::npos; ++at) {
        const std::string digits = text.substr(at + 2, 2);
        text.replace(at, 4, 1, static_cast<char>(strtoul(digits.c_str(), nullptr, 16)));
    }
    return text;
}

// Returns the size of the tag that `text` begins with: one short word before ": ". "usb 1-1: new
// device" has none.
size_t tag_size(std::string_view text) {
    constexpr size_t kMaxTag = 32;
    const size_t size = text.find(": ");
    const bool is_word = text.substr(0, size).find_first_of(" \t\n:=") == std::string_view::npos;
    return size <= kMaxTag && is_word ? size : 0;
}

AndroidLogEntry entry_of(const kernel_record& record) {
    using namespace std::chrono;
    const nanoseconds boot =
        system_clock::now().time_since_epoch() - steady_clock::now().time_since_epoch();
    const nanoseconds time = boot + record.since_boot;
    AndroidLogEntry entry{};
    entry.tv_sec = floor<seconds>(time).count();
    entry.tv_nsec = (time - floor<seconds>(time)).count();
    entry.priority = record.priority;
    entry.tag = record.tag.c_str();
    entry.tagLen = record.tag.size();
    entry.message = record.message.c_str();
    entry.messageLen = record.message.size();
    return entry;
}

}  // namespace

// "LEVEL,SEQUENCE,MICROSECONDS,FLAGS...;TEXT" and a line end; lines after it name devices.
std::optional<kernel_record> parse_kernel_record(const std::string& text) {
    unsigned level = 0;
    long long since_boot = -1;
    int prefix = 0;
    sscanf(text.c_str(), "%u,%*u,%lld,%*[^;\n];%n", &level, &since_boot, &prefix);
    if (prefix == 0 || since_boot < 0) {
        return std::nullopt;
    }
    const std::string line = decode(text.substr(prefix, text.find('\n', prefix) - prefix));
    const size_t tag = tag_size(line);
    kernel_record record;
    record.priority = kPriorities[level % std::size(kPriorities)];
    record.since_boot = std::chrono::microseconds(since_boot);
    record.tag = line.substr(0, tag);
    record.message = line.substr(tag == 0 ? 0 : tag + 2);
    return record;
}

std::optional<AndroidLogEntry> kernel_reader::next() {
    constexpr size_t kMaxRecord = 8192;
    char text[kMaxRecord];
    while (true) {
        const ssize_t size = TEMP_FAILURE_RETRY(read(kmsg_, text, sizeof(text)));
        if (size < 0 && errno == EPIPE) {  // the kernel has overwritten the next record
            continue;
        }
        if (size < 0 && errno != EAGAIN) {
            throw_errno("/dev/kmsg");
        }
        if (size <= 0) {
            return std::nullopt;
        }
        if (auto record = parse_kernel_record({text, static_cast<size_t>(size)})) {
            record_ = std::move(*record);
            return entry_of(record_);
        }
    }
}
