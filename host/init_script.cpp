#include "host/init_script.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <string_view>

namespace init {

namespace {

using words = std::vector<std::string>;

// What is wrong, empty when nothing is.
using complaint = std::string;

template <typename number>
std::optional<number> to_number(const std::string& text, int base) {
    number value{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, value, base);
    return error == std::errc() && rest == end ? std::optional(value) : std::nullopt;
}

template <typename row, size_t size>
const row* row_named(const row (&table)[size], const std::string& keyword) {
    const row* const found = std::find_if(std::begin(table), std::end(table),
                                          [&](const row& r) { return keyword == r.keyword; });
    return found == std::end(table) ? nullptr : found;
}

complaint check_count(const std::string& keyword, size_t count, size_t min, size_t max) {
    if (count >= min && count <= max) {
        return "";
    }
    const std::string range =
        min == max ? std::to_string(min) : std::to_string(min) + " to " + std::to_string(max);
    return keyword + " takes " + range + " arguments, not " + std::to_string(count);
}

// --- Commands ------------------------------------------------------------------------------------

enum class kind { text, path, mode, user, group, property, encryption };

complaint check(kind what, const std::string& word) {
    switch (what) {
        case kind::text:
            return "";
        case kind::path:
            return word.starts_with('/') ? "" : "'" + word + "' is not an absolute path";
        case kind::mode:
            return mode_of(word) ? "" : "'" + word + "' is not an octal mode";
        case kind::user:
            return user_named(word) ? "" : "unknown user '" + word + "'";
        case kind::group:
            return group_named(word) ? "" : "unknown group '" + word + "'";
        case kind::encryption:  // Linux as such has none
            return word == "encryption=None" || word == "encryption=Attempt" ||
                           word == "encryption=DeleteIfNecessary" || word == "encryption=Require"
                       ? ""
                       : "'" + word + "' is not a class of encryption";
        case kind::property:
            return word.find_first_of("/=") == std::string::npos
                       ? ""
                       : "'" + word + "' is not a property name";
    }
    return "";
}

struct command_row {
    const char* keyword;
    verb what;
    size_t min_arguments;
    std::vector<kind> kinds;  // of as many arguments as there may be
};

// clang-format off
const command_row kCommands[] = {
    {"chmod",       verb::chmod,       2, {kind::mode, kind::path}},
    {"class_start", verb::class_start, 1, {kind::text}},
    {"mkdir",       verb::mkdir,       4, {kind::path, kind::mode, kind::user, kind::group, kind::encryption}},
    {"setprop",     verb::setprop,     2, {kind::property, kind::text}},
    {"start",       verb::start,       1, {kind::text}},
    {"stop",        verb::stop,        1, {kind::text}},
    {"symlink",     verb::symlink,     2, {kind::text, kind::path}},
    {"trigger",     verb::trigger,     1, {kind::text}},
};
// clang-format on

bool names_service(verb what) {
    return what == verb::start || what == verb::stop;
}

complaint add_command(const words& line, const std::string& text, action& to) {
    const command_row* const row = row_named(kCommands, line[0]);
    if (row == nullptr) {
        return "unknown command '" + line[0] + "'";
    }
    const words arguments(line.begin() + 1, line.end());
    complaint wrong = check_count(line[0], arguments.size(), row->min_arguments, row->kinds.size());
    for (size_t i = 0; wrong.empty() && i < arguments.size(); ++i) {
        wrong = check(row->kinds[i], arguments[i]);
    }
    to.commands.push_back({row->what, arguments, text});
    return wrong;
}

// --- Service options -----------------------------------------------------------------------------

complaint set_capabilities(const words& names, service& to) {
    to.capabilities.emplace();
    for (const std::string& name : names) {
        cap_value_t value = 0;
        if (cap_from_name(("cap_" + name).c_str(), &value) != 0) {
            return "unknown capability '" + name + "'";
        }
        to.capabilities->push_back(value);
    }
    return "";
}

complaint set_class(const words& names, service& to) {
    to.class_name = names[0];
    return "";
}

complaint set_disabled(const words& /*none*/, service& to) {
    to.disabled = true;
    return "";
}

complaint set_groups(const words& names, service& to) {
    to.groups.clear();
    for (const std::string& name : names) {
        if (const complaint wrong = check(kind::group, name); !wrong.empty()) {
            return wrong;
        }
        to.groups.push_back(*group_named(name));
    }
    to.group = to.groups[0];
    to.groups.erase(to.groups.begin());
    return "";
}

complaint set_oneshot(const words& /*none*/, service& to) {
    to.oneshot = true;
    return "";
}

complaint set_oom_score_adjust(const words& score, service& to) {
    to.oom_score_adjust = to_number<int>(score[0], 10);
    const bool is_valid = to.oom_score_adjust && std::abs(*to.oom_score_adjust) <= 1000;
    return is_valid ? "" : "'" + score[0] + "' is not a score from -1000 to 1000";
}

// Linux as such has no profiles.
complaint set_task_profiles(const words& /*names*/, service& /*to*/) {
    return "";
}

complaint set_user(const words& name, service& to) {
    to.user = user_named(name[0]).value_or(0);
    return check(kind::user, name[0]);
}

constexpr size_t kAny = 100;

struct option_row {
    const char* keyword;
    size_t min_arguments;
    size_t max_arguments;
    complaint (*set)(const words& arguments, service& to);
};

// clang-format off
constexpr option_row kOptions[] = {
    {"capabilities",     0, kAny, set_capabilities},
    {"class",            1, 1,    set_class},
    {"disabled",         0, 0,    set_disabled},
    {"group",            1, kAny, set_groups},
    {"oneshot",          0, 0,    set_oneshot},
    {"oom_score_adjust", 1, 1,    set_oom_score_adjust},
    {"task_profiles",    1, kAny, set_task_profiles},
    {"user",             1, 1,    set_user},
};
// clang-format on

complaint set_option(const words& line, service& to) {
    const option_row* const row = row_named(kOptions, line[0]);
    if (row == nullptr) {
        return "unknown service option '" + line[0] + "'";
    }
    const words arguments(line.begin() + 1, line.end());
    const complaint wrong =
        check_count(line[0], arguments.size(), row->min_arguments, row->max_arguments);
    return wrong.empty() ? row->set(arguments, to) : wrong;
}

// --- Sections ------------------------------------------------------------------------------------

constexpr std::string_view kProperty = "property:";

complaint add_condition(const std::string& word, action& to) {
    if (!word.starts_with(kProperty)) {
        if (!to.event.empty()) {
            return "a trigger has one event, not '" + to.event + "' and '" + word + "'";
        }
        to.event = word;
        return "";
    }
    const size_t equals = word.find('=');
    if (equals == std::string::npos || equals == kProperty.size()) {
        return "'" + word + "' is not property:NAME=VALUE";
    }
    std::string value = word.substr(equals + 1);
    if (value == "*") {
        return "a property is compared with one value, not with '*'";
    }
    to.properties.push_back({word.substr(kProperty.size(), equals - kProperty.size()), value});
    return "";
}

// "on CONDITION [&& CONDITION]..."
complaint read_trigger(const words& line, action& to) {
    if (line.size() % 2 != 0) {
        return "a trigger is CONDITION [&& CONDITION]...";
    }
    for (size_t i = 1; i < line.size(); ++i) {
        const bool is_and = i % 2 == 0;
        const complaint wrong = !is_and           ? add_condition(line[i], to)
                                : line[i] == "&&" ? ""
                                                  : "'&&' expected, not '" + line[i] + "'";
        if (!wrong.empty()) {
            return wrong;
        }
    }
    return "";
}

class reader {
  public:
    void read(const source& from);
    void check_references();

    parsed take() { return std::move(parsed_); }

  private:
    void read_line(const words& line);
    complaint open_service(const words& line);
    complaint read_in_section(const words& line);
    void report(const complaint& wrong);

    parsed parsed_;
    std::string place_;  // "FILE:LINE: "
    // The section that lines belong to, if any. One whose first line is wrong is read like the
    // others, so that only what is wrong is reported, and then dropped.
    action* action_ = nullptr;
    service* service_ = nullptr;
    action dropped_action_;
    service dropped_service_;
};

words split(std::string_view line) {
    words result;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
        if (line.empty() || line.front() == '#') {
            return result;
        }
        const std::string_view word = line.substr(0, line.find_first_of(" \t\r"));
        result.emplace_back(word);
        line.remove_prefix(word.size());
    }
}

void reader::report(const complaint& wrong) {
    if (!wrong.empty()) {
        parsed_.errors.push_back(place_ + wrong);
    }
}

complaint reader::open_service(const words& line) {
    service_ = &dropped_service_;
    if (line.size() < 3) {
        return "a service is NAME PATH [ARGUMENT]...";
    }
    if (const complaint wrong = check(kind::path, line[2]); !wrong.empty()) {
        return wrong;
    }
    const auto [place, is_new] = parsed_.result.services.try_emplace(line[1]);
    if (!is_new) {
        return "there is a service '" + line[1] + "' already";
    }
    service_ = &place->second;
    service_->arguments.assign(line.begin() + 2, line.end());
    return "";
}

complaint reader::read_in_section(const words& line) {
    if (service_ != nullptr) {
        return set_option(line, *service_);
    }
    if (action_ == nullptr) {
        return "'" + line[0] + "' stands outside of a section";
    }
    std::string text = place_;
    for (const std::string& word : line) {
        text.append(word).append(&word == &line.back() ? "" : " ");
    }
    return add_command(line, text, *action_);
}

void reader::read_line(const words& line) {
    const auto is_strange = [](const std::string& word) {
        return word.find_first_of("\"\\$") != std::string::npos || word.find('\0') != word.npos;
    };
    if (const auto word = std::find_if(line.begin(), line.end(), is_strange); word != line.end()) {
        report("quotes, escapes and expansions are not known here: " + *word);
    } else if (line[0] == "on") {
        service_ = nullptr;
        action fresh;
        const complaint wrong = read_trigger(line, fresh);
        report(wrong);
        action_ = wrong.empty() ? &parsed_.result.actions.emplace_back(fresh) : &dropped_action_;
    } else if (line[0] == "service") {
        report(open_service(line));
    } else {
        report(read_in_section(line));
    }
}

void reader::read(const source& from) {
    action_ = nullptr;
    service_ = nullptr;
    std::string_view rest = from.text;
    for (int number = 1; !rest.empty(); ++number) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        place_ = from.file + ":" + std::to_string(number) + ": ";
        if (const words found = split(line); !found.empty()) {
            read_line(found);
        }
    }
}

void reader::check_references() {
    for (const action& each : parsed_.result.actions) {
        for (const command& line : each.commands) {
            if (names_service(line.what) && !line.arguments.empty() &&
                !parsed_.result.services.contains(line.arguments[0])) {
                parsed_.errors.push_back(line.text + ": there is no service of that name");
            }
        }
    }
}

}  // namespace

parsed parse(const std::vector<source>& sources) {
    reader all;
    for (const source& each : sources) {
        all.read(each);
    }
    all.check_references();
    return all.take();
}

std::optional<mode_t> mode_of(const std::string& octal) {
    const auto mode = to_number<unsigned>(octal, 8);
    return mode && *mode <= 07777 ? std::optional<mode_t>(*mode) : std::nullopt;
}

std::optional<uid_t> user_named(const std::string& name) {
    const passwd* const found = getpwnam(name.c_str());
    return found == nullptr ? std::nullopt : std::optional(found->pw_uid);
}

std::optional<gid_t> group_named(const std::string& name) {
    const group* const found = getgrnam(name.c_str());
    return found == nullptr ? std::nullopt : std::optional(found->gr_gid);
}

}  // namespace init
