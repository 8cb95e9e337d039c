// The language of init's .rc files, as far as the files of this device use it.
#pragma once

#include <sys/capability.h>
#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace init {

enum class verb { chmod, class_start, mkdir, setprop, start, stop, symlink, trigger };

struct command {
    verb what;
    std::vector<std::string>
        arguments;     // checked: their number, and that each is what it should be
    std::string text;  // "FILE:LINE: " and the line's words, for messages
};

struct property_condition {
    std::string name;
    std::string value;
};

// Has an event, conditions, or both.
struct action {
    std::string event;  // empty: set off by its properties
    std::vector<property_condition> properties;
    std::vector<command> commands;
};

struct service {
    std::vector<std::string> arguments;  // the first is the program's path
    std::string class_name = "default";
    uid_t user = 0;
    gid_t group = 0;
    std::vector<gid_t> groups;  // supplementary
    // Without a value those of the user, all for root; with one exactly these.
    std::optional<std::vector<cap_value_t>> capabilities;
    std::optional<int> oom_score_adjust;
    bool disabled = false;  // not started with its class
    bool oneshot = false;   // not started again when it ends
};

struct script {
    std::vector<action> actions;
    std::map<std::string, service> services;
};

struct source {
    std::string file;  // for messages
    std::string text;
};

struct parsed {
    script result;                    // incomplete when there are errors
    std::vector<std::string> errors;  // "FILE:LINE: message"
};

// Reads the files as one script: a command may name a service of a later file. Whatever the
// language has and these functions do not know, quotes and expansions included, is an error.
// Throws nothing but std::bad_alloc; users and groups are looked up in the system's lists.
parsed parse(const std::vector<source>& sources);

// What a checked argument stands for; no value when it stands for nothing.
std::optional<mode_t> mode_of(const std::string& octal);
std::optional<uid_t> user_named(const std::string& name);
std::optional<gid_t> group_named(const std::string& name);

}  // namespace init
