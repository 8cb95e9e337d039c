// log [-b BUFFER] [-p PRIORITY] [-t TAG] MESSAGE...: stores a line in a log buffer.
#include <log/logprint.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>

#include "host/log/store.h"

namespace {

struct priority_name {
    const char* word;  // its first letter alone is a name too
    android_LogPriority priority;
};
constexpr priority_name kPriorities[] = {
    {"verbose", ANDROID_LOG_VERBOSE}, {"debug", ANDROID_LOG_DEBUG}, {"info", ANDROID_LOG_INFO},
    {"warn", ANDROID_LOG_WARN},       {"error", ANDROID_LOG_ERROR}, {"fatal", ANDROID_LOG_FATAL},
};

std::optional<android_LogPriority> priority_named(const char* name) {
    for (const priority_name& row : kPriorities) {
        const bool is_letter = name[0] != '\0' && name[1] == '\0';
        if (strncasecmp(name, row.word, is_letter ? 1 : strlen(row.word) + 1) == 0) {
            return row.priority;
        }
    }
    return std::nullopt;
}

struct options {
    log_id_t buffer = LOG_ID_MAIN;
    android_LogPriority priority = ANDROID_LOG_INFO;
    std::string tag = "log";
    std::string message;
};

std::optional<options> fail(const char* what, const char* name = "") {
    fprintf(stderr, "log: %s%s\n", what, name);
    return std::nullopt;
}

std::optional<options> parse_options(int argc, char* argv[]) {
    options result;
    for (int option = 0; (option = getopt(argc, argv, "+b:p:t:")) != -1;) {
        if (option == 'b') {
            const auto buffer = stored_buffer_named(optarg);
            if (!buffer) {
                return fail("unknown buffer ", optarg);
            }
            result.buffer = *buffer;
        } else if (option == 'p') {
            const auto priority = priority_named(optarg);
            if (!priority) {
                return fail("unknown priority ", optarg);
            }
            result.priority = *priority;
        } else if (option == 't') {
            result.tag = optarg;
        } else {
            return std::nullopt;  // getopt has said why
        }
    }
    if (optind == argc) {
        return fail("usage: log [-b BUFFER] [-p PRIORITY] [-t TAG] MESSAGE...");
    }
    for (int i = optind; i < argc; ++i) {
        result.message.append(i == optind ? "" : " ").append(argv[i]);
    }
    return result;
}

}  // namespace

int main(int argc, char* argv[]) {
    const auto line = parse_options(argc, argv);
    if (!line) {
        return 1;
    }
    const AndroidLogEntry entry =
        log_entry_now(line->priority, line->tag.c_str(), line->message.c_str());
    if (const int error = append_log_entry(line->buffer, entry); error != 0) {
        fprintf(stderr, "log: cannot write to the buffer in %s: %s\n", kLogFolder, strerror(error));
        return 1;
    }
    return 0;
}
