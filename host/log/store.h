// SPDX-License-Identifier: Apache-2.0

// The log buffers of the device as files. The store of a buffer is two segments in one folder, NAME
// and the older NAME.1, with one entry behind the other in each; a full NAME becomes NAME.1, whose
// entries are the ones that go.
#pragma once

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <log/logprint.h>
#include <sys/stat.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/log/source.h"

inline constexpr char kLogFolder[] = "/dev/log";

// The buffers that anyone may write to. That of the kernel has a store, too, but klogd alone
// writes.
inline constexpr log_id_t kStoredBuffers[] = {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH,
                                              LOG_ID_EVENTS, LOG_ID_RADIO};

// The one of them with this name, if any.
std::optional<log_id_t> stored_buffer_named(std::string_view name);

// A segment never grows past this, so a buffer takes at most twice as many bytes.
inline constexpr int64_t kLogSegmentBytes = 2 << 20;

// An entry of this thread and this moment. It points to `tag` and `message`.
AndroidLogEntry log_entry_now(android_LogPriority priority, const char* tag, const char* message);

// Appends `entry` to the store of `buffer`. Tag and message end at their first NUL; of a message
// too long for an entry (about 4000 bytes with its tag) the rest is dropped. Returns 0, or the
// errno of what failed, with nothing of the entry left in the store; ENOENT or ENOTDIR: there is no
// folder for the stores. Any thread of any process may call it. It may wait for another writer;
// signal handlers of the thread run after it.
int append_log_entry(log_id_t buffer, const AndroidLogEntry& entry);

// Takes the first entry off the front of `bytes`, with anything before it that is no entry. The
// result points into the bytes. No value: what is left of `bytes` may be the front part of an
// entry.
std::optional<AndroidLogEntry> take_log_entry(std::string_view& bytes);

// Reads the entries of one buffer, from the oldest there is, and follows it for as long as it is
// asked. An entry is missed only when the store has dropped it before the reader came to it. No
// lock is ever waited for. The functions throw std::system_error when the store cannot be read.
class log_reader : public log_source {
  public:
    // `inotify` gets a watch on each segment, so that it becomes readable when entries are appended
    // to it; for the first segment and for the one after a full one the caller has it watch the
    // folder (IN_CREATE). It must stay open as long as the reader is used.
    log_reader(log_id_t buffer, int inotify);

    const AndroidLogEntry* peek() override;
    void pop() override { head_.reset(); }
    void stop_at_present_end() override;

  private:
    bool read_chunk();
    bool next_segment();
    bool is_my_segment(const std::string& path) const;
    void start_segment(android::base::unique_fd segment);

    std::string path_;
    int inotify_;
    android::base::unique_fd segment_;
    struct stat segment_status_ {};
    int64_t offset_ = 0;  // in the segment, of the first byte of rest_
    int64_t bytes_left_ = std::numeric_limits<int64_t>::max();
    std::vector<char> chunk_;
    std::string_view rest_;  // of the chunk, still to be parsed
    std::optional<AndroidLogEntry> head_;
};
