// SPDX-License-Identifier: Apache-2.0

// Where the lines of LOG(...) go: to standard error as logcat shows them, and to the log store.

#include <android-base/errno_restorer.h>
#include <android-base/logging.h>
#include <log/logprint.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "host/log/store.h"

namespace {

AndroidLogFormat* threadtime;

// One write, so that lines of several processes do not run into each other.
void write_to_standard_error(const AndroidLogEntry& entry) {
    char buffer[1024];
    size_t length = 0;
    char* line = android_log_formatLogLine(threadtime, buffer, sizeof(buffer), &entry, &length);
    if (line == nullptr) {
        return;
    }
    TEMP_FAILURE_RETRY(write(STDERR_FILENO, line, length));
    if (line != buffer) {
        free(line);
    }
}

void log_line(android::base::LogId /*buffer*/, android::base::LogSeverity severity, const char* tag,
              const char* /*file*/, unsigned int /*line*/, const char* message) {
    const android::base::ErrnoRestorer keep_errno;
    // Severities and priorities go up alike; of the two fatal ones a line shows one.
    const int priority = std::min<int>(int{ANDROID_LOG_VERBOSE} + severity, ANDROID_LOG_FATAL);
    const AndroidLogEntry entry = log_entry_now(static_cast<android_LogPriority>(priority),
                                                tag == nullptr ? "" : tag, message);
    write_to_standard_error(entry);
    // A store that cannot be written is no one's to tell: a logger must not log, and the line is on
    // standard error already.
    append_log_entry(LOG_ID_MAIN, entry);
}

// Ahead of the initialisers of all other files, which may log.
[[gnu::constructor(101)]] void set_up_logging() {
    threadtime = android_log_format_new();
    android_log_setPrintFormat(threadtime, FORMAT_THREADTIME);
    android::base::SetMinimumLogSeverity(android::base::DEBUG);
    android::base::SetLogger(log_line);
}

}  // namespace
