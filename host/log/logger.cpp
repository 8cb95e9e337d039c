// SPDX-License-Identifier: Apache-2.0

// Sends the lines of LOG(...) to standard error, as logcat shows them, and to the log store.

#include <android-base/logging.h>
#include <log/logprint.h>
#include <unistd.h>

#include <algorithm>

#include "host/log/store.h"

namespace {

AndroidLogFormat* threadtime;

void log_line(android::base::LogId /*buffer*/, android::base::LogSeverity severity, const char* tag,
              const char* /*file*/, unsigned int /*line*/, const char* message) {
    // Severities and priorities are in the same order; the two fatal severities are one priority.
    const int priority = std::min<int>(int{ANDROID_LOG_VERBOSE} + severity, ANDROID_LOG_FATAL);
    const AndroidLogEntry entry = log_entry_now(static_cast<android_LogPriority>(priority),
                                                tag == nullptr ? "" : tag, message);
    // It makes one write of a line, so lines of several processes do not mix.
    android_log_printLogLine(threadtime, STDERR_FILENO, &entry);
    // A failure is ignored: a logger must not log, and the line is on standard error already.
    append_log_entry(LOG_ID_MAIN, entry);
}

// Runs before the initialisers of all other files, which may log.
[[gnu::constructor(101)]] void set_up_logging() {
    threadtime = android_log_format_new();
    android_log_setPrintFormat(threadtime, FORMAT_THREADTIME);
    android::base::SetMinimumLogSeverity(android::base::DEBUG);
    android::base::SetLogger(log_line);
}

}  // namespace
