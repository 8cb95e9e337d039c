// SPDX-License-Identifier: Apache-2.0

// log [-b BUFFER] [-p PRIORITY] [-t TAG] MESSAGE...: stores a line in a log buffer.
#include <android-base/strings.h>
#include <err.h>
#include <unistd.h>

#include <cstring>

#include "host/log/store.h"

namespace {

log_id_t buffer_named(const char* name) {
    const auto buffer = stored_buffer_named(name);
    if (!buffer) {
        errx(1, "unknown buffer %s", name);
    }
    return *buffer;
}

// By its first letter.
android_LogPriority priority_named(const char* name) {
    constexpr char kLetters[] = "vdiwef";
    const char* const found = name[0] == '\0' ? nullptr : strchr(kLetters, name[0] | ' ');
    if (found == nullptr) {
        errx(1, "unknown priority %s", name);
    }
    return static_cast<android_LogPriority>(ANDROID_LOG_VERBOSE + (found - kLetters));
}

}  // namespace

int main(int argc, char* argv[]) {
    log_id_t buffer = LOG_ID_MAIN;
    android_LogPriority priority = ANDROID_LOG_INFO;
    const char* tag = "log";
    for (int option = 0; (option = getopt(argc, argv, "+b:p:t:")) != -1;) {
        if (option == 'b') {
            buffer = buffer_named(optarg);
        } else if (option == 'p') {
            priority = priority_named(optarg);
        } else if (option == 't') {
            tag = optarg;
        } else {
            return 1;  // getopt has said why
        }
    }
    if (optind == argc) {
        errx(1, "usage: log [-b BUFFER] [-p PRIORITY] [-t TAG] MESSAGE...");
    }
    const std::vector<std::string> words(argv + optind, argv + argc);
    const std::string message = android::base::Join(words, ' ');
    errno = append_log_entry(buffer, log_entry_now(priority, tag, message.c_str()));
    if (errno != 0) {
        err(1, "cannot write to the buffer in %s", kLogFolder);
    }
    return 0;
}
