// SPDX-License-Identifier: Apache-2.0

// Ring files with a header of two positions; a position counts all bytes appended before it.
#include "host/log/store.h"

#include <fcntl.h>
#include <log/log_id.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/signals.h"
#include "host/system.h"

using android::base::unique_fd;

namespace {

std::string store_path(log_id_t buffer) {
    return std::string(kLogFolder) + "/" + android_log_id_to_name(buffer);
}

// O_TMPFILE + linkat give the file mode 0666 before it has a name: no writer of another user finds
// one that it may not open, whatever the creator's umask.
void create_store(const std::string& path) {
    const unique_fd fd(open(kLogFolder, O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (fd >= 0 && fchmod(fd, 0666) == 0) {
        const std::string from = "/proc/self/fd/" + std::to_string(fd.get());
        linkat(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
    }
}

unique_fd open_store(const std::string& path) {
    unique_fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd < 0 && errno == ENOENT) {
        create_store(path);  // fails when another process is first: then that file is the store
        fd.reset(open(path.c_str(), O_RDWR | O_CLOEXEC));
    }
    return fd;
}

// Unlocks explicitly: a child that another thread forks meanwhile inherits the open file
// description, and would keep the lock until its exec.
bool with_lock(int fd, int kind, const auto& action) {
    if (TEMP_FAILURE_RETRY(flock(fd, kind)) != 0) {
        return false;
    }
    const bool is_done = action();
    flock(fd, LOCK_UN);
    return is_done;
}

// --- Entries -------------------------------------------------------------------------------------

// An entry is stored as the struct, whose pointers are void in a file, then the tag and the
// message, each with its NUL.
constexpr size_t kMaxTextBytes = 4000;

size_t stored_bytes(const AndroidLogEntry& entry) {
    return sizeof(entry) + entry.tagLen + 1 + entry.messageLen + 1;
}

bool is_sound(const AndroidLogEntry& entry) {
    return entry.tagLen <= kMaxTextBytes && entry.messageLen <= kMaxTextBytes - entry.tagLen;
}

std::string encode(AndroidLogEntry entry) {
    entry.tagLen = strnlen(entry.tag, std::min(entry.tagLen, kMaxTextBytes));
    entry.messageLen =
        strnlen(entry.message, std::min(entry.messageLen, kMaxTextBytes - entry.tagLen));
    std::string bytes(reinterpret_cast<const char*>(&entry), sizeof(entry));
    bytes.append(entry.tag, entry.tagLen).push_back('\0');
    bytes.append(entry.message, entry.messageLen).push_back('\0');
    return bytes;
}

[[noreturn]] void reject_store() {
    errno = EBADMSG;
    throw_errno(kLogFolder);
}

// --- The ring ------------------------------------------------------------------------------------

// These functions need the lock and set errno when they fail.

struct ring_ends {
    uint64_t begin;  // of the oldest entry
    uint64_t end;    // behind the newest one
};

// A file that was just created is an empty ring.
bool read_ends(int fd, ring_ends& ends) {
    ends = {};
    return pread(fd, &ends, sizeof(ends), 0) >= 0;
}

bool write_ends(int fd, const ring_ends& ends) {
    return pwrite(fd, &ends, sizeof(ends), 0) == sizeof(ends);
}

// `transfer` is pread or pwrite; it is called twice where the ring wraps.
bool transfer_at(uint64_t position, auto transfer, int fd, auto* bytes, size_t size) {
    while (size > 0) {
        const uint64_t offset = position % kLogStoreBytes;
        const ssize_t part = transfer(fd, bytes, std::min(size, kLogStoreBytes - offset),
                                      static_cast<off_t>(sizeof(ring_ends) + offset));
        if (part <= 0) {
            errno = part == 0 ? EBADMSG : errno;  // the file ends before the ring does
            return false;
        }
        bytes += part;
        size -= static_cast<size_t>(part);
        position += static_cast<uint64_t>(part);
    }
    return true;
}

bool make_room(int fd, ring_ends& ends, size_t size) {
    if (ends.end + size - ends.begin <= kLogStoreBytes) {
        return true;
    }
    while (ends.end + size - ends.begin > kLogStoreBytes) {
        AndroidLogEntry oldest{};
        if (!transfer_at(ends.begin, pread, fd, reinterpret_cast<char*>(&oldest), sizeof(oldest))) {
            return false;
        }
        if (!is_sound(oldest)) {
            errno = EBADMSG;
            return false;
        }
        ends.begin += stored_bytes(oldest);
    }
    return write_ends(fd, ends);
}

// The order of the writes keeps the ring intact when a full disk or a SIGKILL interrupts them: old
// entries leave the ring before they are overwritten, a new one joins it after it is complete.
bool append(int fd, std::string_view bytes) {
    ring_ends ends{};
    if (!read_ends(fd, ends) || !make_room(fd, ends, bytes.size()) ||
        !transfer_at(ends.end, pwrite, fd, bytes.data(), bytes.size())) {
        return false;
    }
    ends.end += bytes.size();
    return write_ends(fd, ends);
}

}  // namespace

std::optional<log_id_t> stored_buffer_named(std::string_view name) {
    for (const log_id_t buffer : kStoredBuffers) {
        if (name == android_log_id_to_name(buffer)) {
            return buffer;
        }
    }
    return std::nullopt;
}

AndroidLogEntry log_entry_now(android_LogPriority priority, const char* tag, const char* message) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    AndroidLogEntry entry{};
    entry.tv_sec = now.tv_sec;
    entry.tv_nsec = now.tv_nsec;
    entry.priority = priority;
    entry.uid = static_cast<int32_t>(getuid());
    entry.pid = getpid();
    entry.tid = gettid();
    entry.tag = tag;
    entry.tagLen = strlen(tag);
    entry.message = message;
    entry.messageLen = strlen(message);
    return entry;
}

int append_log_entry(log_id_t buffer, const AndroidLogEntry& entry) {
    const std::string path = store_path(buffer);
    const std::string bytes = encode(entry);
    return with_signals_blocked([&] {
        const unique_fd store = open_store(path);
        const bool is_done =
            store >= 0 && with_lock(store, LOCK_EX, [&] { return append(store, bytes); });
        return is_done ? 0 : errno;
    });
}

std::optional<AndroidLogEntry> take_log_entry(std::string_view& bytes) {
    AndroidLogEntry entry{};
    if (bytes.size() < sizeof(entry)) {
        return std::nullopt;
    }
    memcpy(&entry, bytes.data(), sizeof(entry));
    if (!is_sound(entry)) {
        reject_store();
    }
    if (stored_bytes(entry) > bytes.size()) {
        return std::nullopt;
    }
    entry.tag = bytes.data() + sizeof(entry);
    entry.message = entry.tag + entry.tagLen + 1;
    if (entry.message[-1] != '\0' || entry.message[entry.messageLen] != '\0') {
        reject_store();
    }
    bytes.remove_prefix(stored_bytes(entry));
    return entry;
}

log_reader::log_reader(log_id_t buffer, int inotify)
    : path_(store_path(buffer)), store_(open_store(path_)), chunk_(64 << 10) {
    if (store_ < 0 || inotify_add_watch(inotify, path_.c_str(), IN_MODIFY) < 0) {
        throw_errno(path_);
    }
}

std::optional<AndroidLogEntry> log_reader::next() {
    if (const auto entry = take_log_entry(rest_)) {
        return entry;
    }
    if (!with_lock(store_, LOCK_SH, [this] { return read_chunk(); })) {
        throw_errno(path_);
    }
    return take_log_entry(rest_);
}

// Reads an entry that was cut by the end of the chunk again, now as a whole.
bool log_reader::read_chunk() {
    ring_ends ends{};
    if (!read_ends(store_, ends)) {
        return false;
    }
    const uint64_t begin = std::max(position_ - rest_.size(), ends.begin);
    position_ = std::max(begin, std::min({ends.end, stop_, begin + chunk_.size()}));
    rest_ = {chunk_.data(), position_ - begin};
    return transfer_at(begin, pread, store_, chunk_.data(), rest_.size());
}

void log_reader::stop_at_present_end() {
    ring_ends ends{};
    if (!with_lock(store_, LOCK_SH, [&] { return read_ends(store_, ends); })) {
        throw_errno(path_);
    }
    stop_ = ends.end;
}
