// SPDX-License-Identifier: Apache-2.0

// The log buffers of the device: one ring file for each in one folder, shared by all processes
// under an advisory lock.
#pragma once

#include <android-base/unique_fd.h>
#include <android/log.h>
#include <log/logprint.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/log/source.h"

inline constexpr char kLogFolder[] = "/dev/log";

// The buffers that every program may write to. The kernel's buffer has a store too, which klogd
// alone fills.
inline constexpr log_id_t kStoredBuffers[] = {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH,
                                              LOG_ID_EVENTS, LOG_ID_RADIO};

// The element of kStoredBuffers with this name; no value when there is none.
std::optional<log_id_t> stored_buffer_named(std::string_view name);

// Capacity of a ring. A new entry overwrites the oldest ones when it would exceed this.
inline constexpr uint64_t kLogStoreBytes = 4 << 20;

// An entry of the calling thread with the present time. It points to `tag` and `message`.
AndroidLogEntry log_entry_now(android_LogPriority priority, const char* tag, const char* message);

// Appends `entry` to the store of `buffer`. Tag and message end at their first NUL; of the two
// together 4000 bytes are kept. Returns 0, or an errno, and then the entry is not in the store.
// ENOENT or ENOTDIR: there is no folder for the stores; EBADMSG: something else has written to the
// file. Any thread of any process may call it. It waits for other writers and readers; signal
// handlers of the calling thread run after it.
int append_log_entry(log_id_t buffer, const AndroidLogEntry& entry);

// Takes the first entry off the front of `bytes`; the result points into them. No value: `bytes`
// ends before the entry does. Throws std::system_error (EBADMSG) when it is no entry.
std::optional<AndroidLogEntry> take_log_entry(std::string_view& bytes);

// Reads one buffer from its oldest entry on. The reader misses only entries that are overwritten
// before it comes to them. It holds the lock while it copies up to 64 KiB, so writers wait briefly.
class log_reader : public log_source {
  public:
    // Adds a watch to `inotify`, which becomes readable when entries are appended; the caller owns
    // and drains it. Throws std::system_error when the store can neither be opened nor created.
    log_reader(log_id_t buffer, int inotify);

    void stop_at_present_end() override;

  private:
    std::optional<AndroidLogEntry> next() override;
    bool read_chunk();

    std::string path_;
    android::base::unique_fd store_;
    uint64_t position_ = 0;  // of the end of chunk_, as in ring_ends
    uint64_t stop_ = std::numeric_limits<uint64_t>::max();
    std::vector<char> chunk_;
    std::string_view rest_;  // the part of chunk_ that is not parsed yet
};
