// SPDX-License-Identifier: Apache-2.0
#include "host/init/script.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace init {

namespace {

[[noreturn]] void refuse(const std::string& what) {
    throw std::runtime_error(what);
}

struct option_row {
    const char* keyword;
    size_t min_arguments;
    size_t max_arguments;
};

constexpr size_t kAny = 100;

// Linux as such has no task profiles: they are read and not used.
// clang-format off
const std::vector<option_row> kOptions = {
    {"capabilities",     0, kAny},
    {"class",            1, 1},
    {"disabled",         0, 0},
    {"group",            1, kAny},
    {"oneshot",          0, 0},
    {"oom_score_adjust", 1, 1},
    {"task_profiles",    1, kAny},
    {"user",             1, 1},
};
// clang-format on

template <typename row>
const row& find_row(const std::vector<row>& table, const char* what, const words& line) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [&](const row& each) { return line[0] == each.keyword; });
    if (found == table.end()) {
        refuse(std::string("unknown ") + what + " '" + line[0] + "'");
    }
    if (const size_t count = line.size() - 1;
        count < found->min_arguments || count > found->max_arguments) {
        refuse(line[0] + " does not take " + std::to_string(count) + " arguments");
    }
    return *found;
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

class reader {
  public:
    explicit reader(const std::vector<command_row>& commands) : commands_(commands) {}

    void read_file(const std::string& file);

    script take() { return std::move(script_); }

  private:
    void read_line(const words& line, const std::string& place);
    void open_action(const words& line);
    void open_service(const words& line);

    const std::vector<command_row>& commands_;
    script script_;
    action* action_ = nullptr;  // the section that lines belong to, if any
    service* service_ = nullptr;
};

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

// "on CONDITION [&& CONDITION]..."
void reader::open_action(const words& line) {
    service_ = nullptr;
    action_ = &script_.actions.emplace_back();
    for (size_t i = 1; i < line.size(); ++i) {
        const bool is_and = line[i] == "&&";
        if (is_and != (i % 2 == 0)) {
            refuse("a trigger is CONDITION [&& CONDITION]...");
        }
        if (!is_and) {
            add_condition(line[i], *action_);
        }
    }
}

void reader::open_service(const words& line) {
    if (line.size() < 3) {
        refuse("a service is NAME PATH [ARGUMENT]...");
    }
    const auto [place, is_new] = script_.services.try_emplace(line[1]);
    if (!is_new) {
        refuse("there is a service '" + line[1] + "' already");
    }
    service_ = &place->second;
    service_->arguments.assign(line.begin() + 2, line.end());
}

void reader::read_line(const words& line, const std::string& place) {
    const words arguments(line.begin() + 1, line.end());
    if (line[0] == "on") {
        open_action(line);
    } else if (line[0] == "service") {
        open_service(line);
    } else if (service_ != nullptr) {
        service_->options[find_row(kOptions, "service option", line).keyword] = arguments;
    } else if (action_ != nullptr) {
        std::string text = place;
        for (const std::string& word : line) {
            text.append(" ").append(word);
        }
        action_->commands.push_back({&find_row(commands_, "command", line), arguments, text});
    } else {
        refuse("'" + line[0] + "' stands outside of a section");
    }
}

void reader::read_file(const std::string& file) {
    action_ = nullptr;
    service_ = nullptr;
    std::ifstream in(file);
    if (!in) {
        refuse(file + ": " + strerror(errno));
    }
    int number = 1;
    for (std::string line; std::getline(in, line); ++number) {
        const std::string place = file + ":" + std::to_string(number) + ":";
        try {
            if (const words found = split(line); !found.empty()) {
                read_line(found, place);
            }
        } catch (const std::runtime_error& error) {
            refuse(place + " " + error.what());
        }
    }
}

void check_references(const script& all) {
    for (const action& each : all.actions) {
        for (const command& line : each.commands) {
            if (strcmp(line.row->keyword, "start") == 0 &&
                !all.services.contains(line.arguments[0])) {
                refuse(line.text + ": there is no service of that name");
            }
        }
    }
}

}  // namespace

script read_scripts(const std::vector<std::string>& files,
                    const std::vector<command_row>& commands) {
    reader all(commands);
    for (const std::string& file : files) {
        all.read_file(file);
    }
    const script result = all.take();
    check_references(result);
    return result;
}

}  // namespace init
