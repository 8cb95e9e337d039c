// SPDX-License-Identifier: Apache-2.0

// The parser of .rc files: splits lines, checks each against its keyword row and collects sections.
#include "host/init/script.h"

#include <android-base/strings.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace init {

namespace {

[[noreturn]] void refuse(const std::string& what) {
    throw std::runtime_error(what);
}

constexpr size_t kAny = 100;

// task_profiles has no effect: task profiles are a service of the platform, not of the kernel.
// clang-format off
const std::vector<keyword_row> kOptions = {
    {"capabilities",     0, kAny, nullptr},
    {"class",            1, 1,    nullptr},
    {"disabled",         0, 0,    nullptr},
    {"group",            1, kAny, nullptr},
    {"oneshot",          0, 0,    nullptr},
    {"oom_score_adjust", 1, 1,    nullptr},
    {"task_profiles",    1, kAny, nullptr},
    {"user",             1, 1,    nullptr},
};
// clang-format on

const keyword_row& find_row(const std::vector<keyword_row>& table, const char* what,
                            const words& line) {
    const size_t count = line.size() - 1;
    for (const keyword_row& row : table) {
        if (line[0] != row.keyword) {
            continue;
        }
        if (count < row.min_arguments || count > row.max_arguments) {
            refuse(line[0] + " does not take " + std::to_string(count) + " arguments");
        }
        return row;
    }
    refuse(std::string("unknown ") + what + " '" + line[0] + "'");
}

words split(const std::string& line) {
    std::istringstream in(line);
    words result;
    for (std::string word; in >> word && word[0] != '#';) {
        if (word.find_first_of("\"\\$") != std::string::npos) {
            refuse("quotes, escapes and expansions are not known here: " + word);
        }
        result.push_back(word);
    }
    return result;
}

void add_condition(const std::string& word, action& to) {
    constexpr std::string_view kProperty = "property:";
    const size_t equals = word.find('=');
    if (!word.starts_with(kProperty)) {
        to.event = word;
    } else if (equals == std::string::npos || word.ends_with("=*")) {
        refuse("'" + word + "' is not property:NAME=VALUE");
    } else {
        to.properties[word.substr(kProperty.size(), equals - kProperty.size())] =
            word.substr(equals + 1);
    }
}

// "on CONDITION [&& CONDITION]..."
action parse_trigger(const words& line) {
    action result;
    for (size_t i = 1; i < line.size(); ++i) {
        if ((line[i] == "&&") != (i % 2 == 0)) {
            refuse("a trigger is CONDITION [&& CONDITION]...");
        }
        if (i % 2 == 1) {
            add_condition(line[i], result);
        }
    }
    return result;
}

service& add_service(const words& line, script& to) {
    if (line.size() < 3) {
        refuse("a service is NAME PATH [ARGUMENT]...");
    }
    const auto [place, is_new] = to.services.try_emplace(line[1]);
    if (!is_new) {
        refuse("there is a service '" + line[1] + "' already");
    }
    place->second.arguments.assign(line.begin() + 2, line.end());
    return place->second;
}

// The section that a line belongs to: at most one of the two is set.
struct section {
    action* of_action = nullptr;
    service* of_service = nullptr;
};

void read_line(const words& line, const std::string& place,
               const std::vector<keyword_row>& commands, section& current, script& to) {
    const words arguments(line.begin() + 1, line.end());
    if (line[0] == "on") {
        current = {.of_action = &to.actions.emplace_back(parse_trigger(line))};
    } else if (line[0] == "service") {
        current = {.of_service = &add_service(line, to)};
    } else if (current.of_service != nullptr) {
        current.of_service->options[find_row(kOptions, "service option", line).keyword] = arguments;
    } else if (current.of_action != nullptr) {
        current.of_action->commands.push_back({&find_row(commands, "command", line), arguments,
                                               place + android::base::Join(line, ' ')});
    } else {
        refuse("'" + line[0] + "' stands outside of a section");
    }
}

void read_file(const std::string& file, const std::vector<keyword_row>& commands, script& to) {
    std::ifstream in(file);
    if (!in) {
        refuse(file + ": " + strerror(errno));
    }
    section current;
    int number = 1;
    for (std::string text; std::getline(in, text); ++number) {
        const std::string place = file + ":" + std::to_string(number) + ": ";
        try {
            if (const words line = split(text); !line.empty()) {
                read_line(line, place, commands, current, to);
            }
        } catch (const std::runtime_error& error) {
            refuse(place + error.what());
        }
    }
}

}  // namespace

script read_scripts(const std::vector<std::string>& files,
                    const std::vector<keyword_row>& commands) {
    script result;
    for (const std::string& file : files) {
        read_file(file, commands, result);
    }
    return result;
}

}  // namespace init
