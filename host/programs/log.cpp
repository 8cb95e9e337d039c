// SPDX-License-Identifier: Apache-2.0

// log [-b BUFFER] [-p PRIORITY] [-t TAG] MESSAGE...: stores a line in a log buffer.
#include <android-base/strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>

#include "host/log/store.h"

namespace {

// By its first letter.
std::optional<android_LogPriority> priority_named(const char* name) {
    constexpr char kLetters[] = "vdiwef";
    const char* const found = name[0] == '\0' ? nullptr : strchr(kLetters, name[0] | ' ');
    if (found == nullptr) {
        return std::nullopt;
    }
    return static_cast<android_LogPriority>(ANDROID_LOG_VERBOSE + (found - kLetters));
}

int fail(const char* what, const char* why = "") {
    fprintf(stderr, "log: %s%s\n", what, why);
    return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    std::optional<log_id_t> buffer = LOG_ID_MAIN;
    std::optional<android_LogPriority> priority = ANDROID_LOG_INFO;
    const char* tag = "log";
    for (int option = 0; (option = getopt(argc, argv, "+b:p:t:")) != -1;) {
        if (option == 'b') {
            buffer = stored_buffer_named(optarg);
        } else if (option == 'p') {
            priority = priority_named(optarg);
        } else if (option == 't') {
            tag = optarg;
        } else {
            return 1;  // getopt has said why
        }
        if (!buffer || !priority) {
            return fail("unknown buffer or priority ", optarg);
        }
    }
    if (optind == argc) {
        return fail("usage: log [-b BUFFER] [-p PRIORITY] [-t TAG] MESSAGE...");
    }
    const std::vector<std::string> words(argv + optind, argv + argc);
    const std::string message = android::base::Join(words, ' ');
    const AndroidLogEntry entry = log_entry_now(*priority, tag, message.c_str());
    if (const int error = append_log_entry(*buffer, entry); error != 0) {
        return fail("cannot write to the buffer in /dev/log: ", strerror(error));
    }
    return 0;
}
