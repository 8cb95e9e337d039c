// SPDX-License-Identifier: Apache-2.0
#include "host/log/kernel.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <system_error>

using std::chrono::microseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

namespace {

// By the kernel's level, 0 (emergency) to 7 (debug).
constexpr android_LogPriority kPriorities[] = {
    ANDROID_LOG_FATAL, ANDROID_LOG_ERROR, ANDROID_LOG_ERROR, ANDROID_LOG_ERROR,
    ANDROID_LOG_WARN,  ANDROID_LOG_INFO,  ANDROID_LOG_INFO,  ANDROID_LOG_DEBUG,
};

// Takes the text up to `end`, and that one too, off the front.
std::string_view take_until(char end, std::string_view& text) {
    const size_t size = text.find(end);
    const std::string_view taken = text.substr(0, size);
    text.remove_prefix(size == std::string_view::npos ? text.size() : size + 1);
    return taken;
}

bool parse_number(std::string_view text, auto& number, int base = 10) {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    return error == std::errc() && stop == end;
}

// The kernel writes bytes that are not printable as \xNN. An escaped NUL stays as it is: a text
// ends at a NUL.
std::string decode(std::string_view text) {
    constexpr size_t kEscapeBytes = 4;
    std::string decoded;
    while (!text.empty()) {
        unsigned char byte = 0;
        const bool is_escape = text.size() >= kEscapeBytes && text.starts_with("\\x") &&
                               parse_number(text.substr(2, 2), byte, 16) && byte != 0;
        decoded.push_back(is_escape ? static_cast<char>(byte) : text[0]);
        text.remove_prefix(is_escape ? kEscapeBytes : 1);
    }
    return decoded;
}

// "usb 1-1: new device" begins with no tag: a tag is one short word.
std::string_view take_tag(std::string_view& text) {
    constexpr size_t kMaxTag = 32;
    const size_t size = text.find(": ");
    if (size > kMaxTag || text.substr(0, size).find_first_of(" \t\n:=") != std::string_view::npos) {
        return "";
    }
    const std::string_view tag = text.substr(0, size);
    text.remove_prefix(size + 2);
    return tag;
}

nanoseconds time_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
}

AndroidLogEntry entry_of(const kernel_record& record) {
    const nanoseconds boot = time_of(CLOCK_REALTIME) - time_of(CLOCK_MONOTONIC);
    const nanoseconds time = boot + record.since_boot;
    AndroidLogEntry entry{};
    entry.tv_sec = std::chrono::floor<seconds>(time).count();
    entry.tv_nsec = (time - std::chrono::floor<seconds>(time)).count();
    entry.priority = record.priority;
    entry.tag = record.tag.c_str();
    entry.tagLen = record.tag.size();
    entry.message = record.message.c_str();
    entry.messageLen = record.message.size();
    return entry;
}

}  // namespace

// "LEVEL,SEQUENCE,MICROSECONDS,FLAGS...;TEXT" and a line end; lines after it hold the
// names of devices.
std::optional<kernel_record> parse_kernel_record(std::string_view text) {
    std::string_view line = take_until('\n', text);
    if (line.find(';') == std::string_view::npos) {
        return std::nullopt;
    }
    std::string_view fields = take_until(';', line);
    kernel_record record;
    unsigned level = 0;
    int64_t since_boot = 0;
    const bool has_level = parse_number(take_until(',', fields), level);
    take_until(',', fields);
    if (!has_level || !parse_number(take_until(',', fields), since_boot) || since_boot < 0) {
        return std::nullopt;
    }
    record.priority = kPriorities[level % std::size(kPriorities)];
    record.since_boot = microseconds(since_boot);
    const std::string whole = decode(line);
    std::string_view message = whole;
    record.tag = take_tag(message);
    record.message = message;
    return record;
}

const AndroidLogEntry* kernel_reader::peek() {
    constexpr size_t kMaxRecord = 8192;
    char text[kMaxRecord];
    while (!head_ && records_left_ > 0) {
        const ssize_t size = TEMP_FAILURE_RETRY(read(kmsg_, text, sizeof(text)));
        if (size == 0 || (size < 0 && errno == EAGAIN)) {
            return nullptr;
        }
        if (size < 0 && errno != EPIPE) {  // EPIPE: some were overwritten
            throw std::system_error(errno, std::generic_category(), "/dev/kmsg");
        }
        if (size < 0) {
            continue;
        }
        --records_left_;
        if (auto record = parse_kernel_record({text, static_cast<size_t>(size)})) {
            record_ = std::move(*record);
            head_ = entry_of(record_);
        }
    }
    return head_ ? &*head_ : nullptr;
}

// The kernel does not tell how many records there are, but its buffer holds no more than these.
void kernel_reader::stop_at_present_end() {
    records_left_ = 1 << 20;
}
