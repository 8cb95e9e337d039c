// SPDX-License-Identifier: Apache-2.0

// logcat: shows the log buffers, or writes them to a file that it rotates.
#include <android-base/parseint.h>
#include <android-base/strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "host/log/cat.h"
#include "host/log/store.h"

namespace {

[[noreturn]] void reject(const std::string& what) {
    throw std::invalid_argument(what);
}

std::vector<log_id_t> buffers_named(const std::string& name) {
    std::vector<log_id_t> all(std::begin(kStoredBuffers), std::end(kStoredBuffers));
    all.push_back(LOG_ID_KERNEL);
    if (name == "all") {
        return all;
    }
    if (name == "default") {
        return {LOG_ID_MAIN, LOG_ID_SYSTEM, LOG_ID_CRASH};
    }
    std::erase_if(all, [&](log_id_t each) { return name != android_log_id_to_name(each); });
    if (all.empty()) {
        reject("unknown buffer '" + name + "'");
    }
    return all;
}

void add_buffers(cat_settings& result, const std::string& list) {
    for (const std::string& name : android::base::Split(list, ",")) {
        for (const log_id_t buffer : buffers_named(name)) {
            if (std::find(result.buffers.begin(), result.buffers.end(), buffer) ==
                result.buffers.end()) {
                result.buffers.push_back(buffer);
            }
        }
    }
}

// liblog takes a name that it does not know for a time zone.
constexpr std::string_view kFormats[] = {
    "brief",      "process",   "tag",   "thread",      "raw",   "time",
    "threadtime", "long",      "color", "descriptive", "epoch", "monotonic",
    "nsec",       "printable", "uid",   "usec",        "year",  "zone",
};

void set_format(cat_settings& result, const char* name) {
    if (std::find(std::begin(kFormats), std::end(kFormats), name) == std::end(kFormats)) {
        reject("unknown format '" + std::string(name) + "'");
    }
    android_log_setPrintFormat(result.format.get(), android_log_formatFromString(name));
}

template <typename T>
void set_number(T& number, int option) {
    if (!android::base::ParseUint(optarg, &number) || number == 0) {
        reject(std::string("-") + static_cast<char>(option) +
               " needs a number of at least 1, not '" + optarg + "'");
    }
}

void apply(cat_settings& result, int option) {
    switch (option) {
        case 'b':
            return add_buffers(result, optarg);
        case 'd':
            result.dump = true;
            return;
        case 'f':
            result.file = optarg;
            return;
        case 'n':
            return set_number(result.rotated_files, option);
        case 'r':
            return set_number(result.rotate_kbytes, option);
        case 'v':
            return set_format(result, optarg);
        default:
            reject(std::string("unknown option, or without its argument: -") +
                   static_cast<char>(optopt));
    }
}

cat_settings parse_options(int argc, char* argv[]) {
    cat_settings result;
    set_format(result, "threadtime");
    for (int option = 0; (option = getopt(argc, argv, ":b:df:n:r:v:")) != -1;) {
        apply(result, option);
    }
    for (int i = optind; i < argc; ++i) {
        if (android_log_addFilterRule(result.format.get(), argv[i]) != 0) {
            reject("invalid filter '" + std::string(argv[i]) + "'");
        }
    }
    if (result.buffers.empty()) {
        add_buffers(result, "default");
    }
    if (result.rotate_kbytes != 0 && result.file.empty()) {
        reject("-r needs -f");
    }
    return result;
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        show_log(parse_options(argc, argv));
    } catch (const std::exception& error) {
        fprintf(stderr, "logcat: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
