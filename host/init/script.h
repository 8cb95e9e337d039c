// SPDX-License-Identifier: Apache-2.0

// The parser of .rc files, limited to what the files of this device use.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace init {

using words = std::vector<std::string>;

class device;

struct keyword_row {
    const char* keyword;
    size_t min_arguments;
    size_t max_arguments;
    bool (*run)(device& target, const words& arguments);  // false with errno; null for an option
};

struct command {
    const keyword_row* row;
    words arguments;   // as many as the row takes
    std::string text;  // "FILE:LINE: " and the words of the line, for messages
};

struct action {
    std::string event;  // empty: the properties alone trigger it
    std::map<std::string, std::string> properties;
    std::vector<command> commands;
};

using time_point = std::chrono::steady_clock::time_point;

struct service {
    words arguments;  // argv; the first is the path
    std::map<std::string, words> options = {
        {"class", {"default"}}, {"group", {"root"}}, {"user", {"root"}}};
    pid_t pid = 0;  // 0: not running
    time_point started;
    std::optional<time_point> restart;  // when it is due
};

struct script {
    std::vector<action> actions;
    std::map<std::string, service> services;
};

// Reads the files as one script. Throws std::runtime_error with "FILE:LINE: what" at the first line
// that the device does not support, and with "FILE: what" when a file cannot be read.
script read_scripts(const std::vector<std::string>& files,
                    const std::vector<keyword_row>& commands);

}  // namespace init
