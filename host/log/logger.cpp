// Where the lines of LOG(...) go: to standard error as logcat shows them, and to the log store.

#include <android-base/errno_restorer.h>
#include <android-base/logging.h>
#include <log/logprint.h>
#include <unistd.h>

#include <cstdlib>

#include "host/log/store.h"

namespace {

using android::base::LogId;
using android::base::LogSeverity;

AndroidLogFormat* threadtime;

log_id_t buffer_of(LogId id) {
    switch (id) {
        case android::base::SYSTEM:
            return LOG_ID_SYSTEM;
        case android::base::RADIO:
            return LOG_ID_RADIO;
        case android::base::CRASH:
            return LOG_ID_CRASH;
        default:
            return LOG_ID_MAIN;
    }
}

android_LogPriority priority_of(LogSeverity severity) {
    switch (severity) {
        case android::base::VERBOSE:
            return ANDROID_LOG_VERBOSE;
        case android::base::DEBUG:
            return ANDROID_LOG_DEBUG;
        case android::base::INFO:
            return ANDROID_LOG_INFO;
        case android::base::WARNING:
            return ANDROID_LOG_WARN;
        case android::base::ERROR:
            return ANDROID_LOG_ERROR;
        default:
            return ANDROID_LOG_FATAL;
    }
}

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

void log_line(LogId id, LogSeverity severity, const char* tag, const char* /*file*/,
              unsigned int /*line*/, const char* message) {
    const android::base::ErrnoRestorer keep_errno;
    const AndroidLogEntry entry =
        log_entry_now(priority_of(severity), tag == nullptr ? "" : tag, message);
    write_to_standard_error(entry);
    // A store that cannot be written is no one's to tell: a logger must not log, and the line is on
    // standard error already.
    append_log_entry(buffer_of(id), entry);
}

// Ahead of the initialisers of all other files, which may log.
[[gnu::constructor(101)]] void set_up_logging() {
    threadtime = android_log_format_new();
    android_log_setPrintFormat(threadtime, FORMAT_THREADTIME);
    android::base::SetMinimumLogSeverity(android::base::DEBUG);
    android::base::SetLogger(log_line);
}

}  // namespace
