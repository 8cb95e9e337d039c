// SPDX-License-Identifier: Apache-2.0
#include "host/log/store.h"

#include <fcntl.h>
#include <log/log_id.h>
#include <log/log_read.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "host/signals.h"

using android::base::unique_fd;

namespace {

std::string segment_path(log_id_t buffer) {
    return std::string(kLogFolder).append("/").append(android_log_id_to_name(buffer));
}

std::string older_path(const std::string& path) {
    return path + ".1";
}

bool is_same_file(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// --- Entries -------------------------------------------------------------------------------------

// A header, then the priority (one byte), the tag and the message, each with its NUL.
constexpr size_t kHeaderBytes = sizeof(logger_entry);
constexpr size_t kMinPayload = 3;
constexpr size_t kMaxPayload = LOGGER_ENTRY_MAX_PAYLOAD;

std::string encode(log_id_t buffer, const AndroidLogEntry& entry) {
    const size_t tag_size = strnlen(entry.tag, std::min(entry.tagLen, kMaxPayload - kMinPayload));
    const size_t message_size =
        strnlen(entry.message, std::min(entry.messageLen, kMaxPayload - kMinPayload - tag_size));
    logger_entry header{};
    header.len = static_cast<uint16_t>(kMinPayload + tag_size + message_size);
    header.hdr_size = kHeaderBytes;
    header.pid = entry.pid;
    header.tid = static_cast<uint32_t>(entry.tid);
    header.sec = static_cast<uint32_t>(entry.tv_sec);
    header.nsec = static_cast<uint32_t>(entry.tv_nsec);
    header.lid = buffer;
    header.uid = static_cast<uint32_t>(entry.uid);
    std::string bytes(reinterpret_cast<const char*>(&header), kHeaderBytes);
    bytes.push_back(static_cast<char>(entry.priority));
    bytes.append(entry.tag, tag_size).push_back('\0');
    bytes.append(entry.message, message_size).push_back('\0');
    return bytes;
}

bool is_sound(const logger_entry& header) {
    return header.hdr_size == kHeaderBytes && header.len >= kMinPayload &&
           header.len <= kMaxPayload && header.nsec < 1'000'000'000 && header.lid < LOG_ID_MAX;
}

// The NULs tell an entry from the front part of one that another entry follows: they would not be
// where the header says.
bool parse(const logger_entry& header, std::string_view payload, AndroidLogEntry& entry) {
    const size_t tag_end = payload.find('\0');
    if (payload[0] < ANDROID_LOG_VERBOSE || payload[0] > ANDROID_LOG_FATAL ||
        tag_end == std::string_view::npos ||
        payload.find('\0', tag_end + 1) != payload.size() - 1) {
        return false;
    }
    entry.tv_sec = header.sec;
    entry.tv_nsec = header.nsec;
    entry.pid = header.pid;
    entry.tid = static_cast<int32_t>(header.tid);
    entry.uid = static_cast<int32_t>(header.uid);
    entry.priority = static_cast<android_LogPriority>(payload[0]);
    entry.tag = payload.data() + 1;
    entry.tagLen = tag_end - 1;
    entry.message = payload.data() + tag_end + 1;
    entry.messageLen = payload.size() - tag_end - 2;
    return true;
}

// --- Writing -------------------------------------------------------------------------------------

// Anyone may log, whoever's program wrote the first line and with whatever umask: the segment gets
// its mode before it gets its name.
void create_segment(const std::string& path) {
    const unique_fd fd(open(kLogFolder, O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600));
    if (fd >= 0 && fchmod(fd, 0666) == 0) {
        const std::string from = "/proc/self/fd/" + std::to_string(fd.get());
        linkat(AT_FDCWD, from.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
    }
}

int open_for_appending(const std::string& path) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (fd >= 0 || errno != ENOENT) {
        return fd;
    }
    create_segment(path);  // or another writer has: then that is the one
    return open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
}

// A segment that is open for appending, locked against other writers. Given free by hand: a lock
// ends with the last copy of its descriptor, and a child forked meanwhile may keep one.
class locked_segment {
  public:
    explicit locked_segment(const std::string& path) : fd_(open_for_appending(path)) {
        if (fd_ >= 0 && (flock(fd_, LOCK_EX) != 0 || fstat(fd_, &stat_) != 0)) {
            fd_.reset();
        }
    }
    ~locked_segment() {
        if (fd_ >= 0) {
            flock(fd_, LOCK_UN);
        }
    }

    bool is_open() const { return fd_ >= 0; }
    int64_t size() const { return stat_.st_size; }

    bool is_at(const std::string& path) const {
        struct stat present {};
        return stat(path.c_str(), &present) == 0 && is_same_file(present, stat_);
    }

    // Returns 0 or an errno. A disk that takes only a part gets it taken back.
    int append(std::string_view bytes) const {
        const ssize_t written = write(fd_, bytes.data(), bytes.size());
        if (written == static_cast<ssize_t>(bytes.size())) {
            return 0;
        }
        if (written < 0 || ftruncate(fd_, size()) != 0) {
            return errno;
        }
        return ENOSPC;
    }

  private:
    unique_fd fd_;
    struct stat stat_ {};
};

// A writer that waited for the lock may find its segment renamed by the one before it, and starts
// again: once a segment has a successor, nothing more is written to it.
int append(const std::string& path, std::string_view bytes) {
    while (true) {
        const locked_segment segment(path);
        if (!segment.is_open()) {
            return errno;
        }
        if (!segment.is_at(path)) {
            continue;
        }
        if (segment.size() + static_cast<int64_t>(bytes.size()) <= kLogSegmentBytes) {
            return segment.append(bytes);
        }
        if (rename(path.c_str(), older_path(path).c_str()) != 0) {
            return errno;
        }
    }
}

// --- Reading -------------------------------------------------------------------------------------

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

unique_fd open_segment(const std::string& path) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (fd < 0 && errno != ENOENT) {
        fail(path);
    }
    return fd;
}

struct stat status_of(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 && errno != ENOENT) {
        fail(path);
    }
    return status;
}

struct stat status_of(int fd) {
    struct stat status {};
    if (fd >= 0 && fstat(fd, &status) != 0) {
        fail("fstat");
    }
    return status;
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
    const std::string path = segment_path(buffer);
    const std::string bytes = encode(buffer, entry);
    return with_signals_blocked([&] { return append(path, bytes); });
}

std::optional<AndroidLogEntry> take_log_entry(std::string_view& bytes) {
    for (; bytes.size() >= kHeaderBytes; bytes.remove_prefix(1)) {
        logger_entry header{};
        memcpy(&header, bytes.data(), kHeaderBytes);
        const size_t size = kHeaderBytes + header.len;
        if (!is_sound(header)) {
            continue;
        }
        if (bytes.size() < size) {
            return std::nullopt;
        }
        AndroidLogEntry entry{};
        if (parse(header, bytes.substr(kHeaderBytes, header.len), entry)) {
            bytes.remove_prefix(size);
            return entry;
        }
    }
    return std::nullopt;
}

log_reader::log_reader(log_id_t buffer, int inotify)
    : path_(segment_path(buffer)), inotify_(inotify), chunk_(64 << 10) {}

const AndroidLogEntry* log_reader::peek() {
    while (!head_) {
        if (bytes_left_ <= 0) {
            return nullptr;
        }
        const size_t before = rest_.size();
        head_ = take_log_entry(rest_);
        const auto taken = static_cast<int64_t>(before - rest_.size());
        offset_ += taken;
        bytes_left_ -= taken;
        if (!head_ && !read_chunk() && !next_segment()) {
            return nullptr;
        }
    }
    return &*head_;
}

// Reads on from the first byte that is not parsed, the front part of an entry at the end of the
// last chunk once more: its writer may have taken it back. Returns false when there is nothing new.
bool log_reader::read_chunk() {
    if (segment_ < 0) {
        return false;
    }
    const ssize_t size = pread(segment_, chunk_.data(), chunk_.size(), offset_);
    if (size < 0) {
        fail(path_);
    }
    const bool is_new = static_cast<size_t>(size) > rest_.size();
    rest_ = std::string_view(chunk_.data(), static_cast<size_t>(size));
    return is_new;
}

// Returns false while the segment has no successor, or none is needed yet. What follows a segment
// that has been dropped from the store is the oldest one there is.
bool log_reader::next_segment() {
    if (is_my_segment(path_)) {
        return false;
    }
    unique_fd next = open_segment(path_);
    // Looked at after NAME, which can only be renamed to it: so none between the two is left out.
    if (!is_my_segment(older_path(path_))) {
        unique_fd older = open_segment(older_path(path_));
        next = older >= 0 ? std::move(older) : std::move(next);
    }
    // The segment may have grown before it was full; now it does no more.
    if (read_chunk()) {
        return true;
    }
    if (next < 0) {
        return false;
    }
    start_segment(std::move(next));
    return true;
}

bool log_reader::is_my_segment(const std::string& path) const {
    return segment_ >= 0 && is_same_file(status_of(path), segment_status_);
}

void log_reader::start_segment(unique_fd segment) {
    const std::string name = "/proc/self/fd/" + std::to_string(segment.get());
    if (inotify_add_watch(inotify_, name.c_str(), IN_MODIFY) < 0) {
        fail("inotify_add_watch");
    }
    segment_ = std::move(segment);
    segment_status_ = status_of(segment_);
    offset_ = 0;
    rest_ = {};
}

void log_reader::stop_at_present_end() {
    // In this order: a segment that is renamed between the two looks is counted twice, never
    // missed.
    const struct stat current = status_of(path_);
    const struct stat older = status_of(older_path(path_));
    const struct stat mine = status_of(segment_);
    bytes_left_ = mine.st_size - offset_;
    for (const struct stat& other : {current, older}) {
        if (!is_same_file(other, mine)) {
            bytes_left_ += other.st_size;
        }
    }
}
