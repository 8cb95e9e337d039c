// SPDX-License-Identifier: Apache-2.0

// The language of init's .rc files, as far as the files of this device use it.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace init {

using words = std::vector<std::string>;

class device;

struct command_row {
    const char* keyword;
    size_t min_arguments;
    size_t max_arguments;
    bool (*run)(device& target, const words& arguments);  // false: failed, errno says why
};

struct command {
    const command_row* row;
    words arguments;   // as many as the row takes
    std::string text;  // "FILE:LINE: " and the line's words, for messages
};

// Has an event, properties, or both.
struct action {
    std::string event;  // empty: set off by its properties
    std::map<std::string, std::string> properties;
    std::vector<command> commands;
};

struct service {
    words arguments;                       // the first is the program's path
    std::map<std::string, words> options;  // by keyword
};

struct script {
    std::vector<action> actions;
    std::map<std::string, service> services;
};

// Reads the files as one script: a command may name a service of a later file. Throws
// std::runtime_error with "FILE:LINE: what" at the first line with anything that is not known here,
// quotes and expansions included, and with "FILE: what" when a file cannot be read.
script read_scripts(const std::vector<std::string>& files,
                    const std::vector<command_row>& commands);

}  // namespace init
