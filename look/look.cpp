// SPDX-License-Identifier: Apache-2.0

// Shows what phones have collected as a table, as one event or as a page for a browser.

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "look/files.h"
#include "look/page.h"
#include "look/table.h"

namespace {

using look::collected;
using look::entry;
using look::part;

constexpr size_t kPartBytes = 256 << 10;

constexpr const char* kUsage =
    "usage: events [OPTION...] [N] [DIR...], report [OPTION...] [--out FILE] [DIR...]\n"
    "./dev help lists the options\n";

[[noreturn]] void fail(const std::string& why) {
    throw std::runtime_error(why);
}

struct wish : look::options {
    std::string command, number;
    std::vector<look::fs::path> dirs;
};

// "report DIR FILE" and "events N DIR" in either order are older forms.
void read_word(wish& wanted, const std::string& word, bool is_last) {
    const bool is_number = !word.empty() && word.find_first_not_of("0123456789") == word.npos;
    if (wanted.command.empty()) {
        wanted.command = word;
    } else if (wanted.command == "events" && is_number && wanted.number.empty()) {
        wanted.number = word;
    } else if (wanted.command == "report" && is_last && !wanted.dirs.empty() &&
               !look::fs::is_directory(word)) {
        wanted.given["out"] = word;
    } else {
        wanted.dirs.emplace_back(word);
    }
}

wish read_arguments(int argc, char* argv[]) {
    std::vector<option> known;
    for (const char* name : {"last", "since", "until", "type", "package", "issue", "symbols", "out",
                             "at", "default"}) {
        known.push_back({name, required_argument, nullptr, 0});
    }
    for (const char* name : {"newest", "issues", "json", "help"}) {
        known.push_back({name, no_argument, nullptr, 0});
    }
    known.push_back({});
    wish wanted;
    int index = 0;
    for (int found = 0; (found = getopt_long(argc, argv, "", known.data(), &index)) != -1;) {
        if (found != 0) {
            fail("");
        }
        const std::string name = known[index].name;
        const bool adds = name == "type" || name == "package" || name == "issue";
        wanted.given[name] =
            (adds ? wanted.get(name) + " " : "") + (optarg == nullptr ? "" : optarg);
    }
    for (; optind < argc; ++optind) {
        read_word(wanted, argv[optind], optind + 1 == argc);
    }
    if (wanted.dirs.empty() && wanted.has("default")) {
        wanted.dirs.emplace_back(wanted.get("default"));
    }
    return wanted;
}

// In a terminal the lines of the event log that say what the platform did to a process stand out.
std::string emphasized(const std::string& text) {
    std::string result;
    for (std::string_view rest = text; !rest.empty();) {
        const std::string_view line = look::take_line(rest);
        const bool is_told = line.starts_with("E ") && (line.find(" am_anr") != line.npos ||
                                                        line.find(" am_crash") != line.npos ||
                                                        line.find(" am_proc_died") != line.npos);
        result += is_told ? "\033[1m" + std::string(line) + "\033[0m\n" : std::string(line) + "\n";
    }
    return result;
}

void print_parts(const std::vector<part>& parts) {
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    for (const auto& [title, text] : parts) {
        const std::string shown = look::printable(text);
        std::cout << "== " << look::printable(title, "") << '\n'
                  << (is_terminal ? emphasized(shown) : shown)
                  << (shown.ends_with('\n') ? "" : "\n");
    }
}

void print_event(collected& all, const entry& e, bool as_json) {
    const std::vector<part> parts = all.describe(e, kPartBytes);
    nlohmann::ordered_json row = look::row_of(all, e);
    if (as_json) {
        row["parts"] = look::parts_json(parts);
        std::cout << look::line_of(row) << '\n';
    } else {
        look::print_fields(row);
        print_parts(parts);
    }
}

void print_events(collected& all, const wish& wanted) {
    bool is_found = false;
    for (const entry& e : all.entries) {
        if (e.number != 0 && std::to_string(e.number) == wanted.number) {
            print_event(all, e, wanted.has("json"));
            is_found = true;
        }
    }
    if (!is_found) {
        fail("there is no event " + wanted.number);
    }
}

void print_log(collected& all, const std::string& at) {
    const look::moment time = look::read_time(at, all);
    for (size_t i = 0; i < all.phones.size(); ++i) {
        print_parts({{all.phones[i].name + ", " + look::format_moment(time) +
                          ", 10 seconds before and after (A android, K kernel, E event, R radio)",
                      all.log_at(i, time, {}, kPartBytes)}});
    }
}

void print_json(const collected& all, bool issues) {
    const auto print = [](const auto& row) { std::cout << look::line_of(row) << '\n'; };
    if (issues) {
        std::ranges::for_each(all.issues, print, [](const auto& one) { return look::row_of(one); });
    } else {
        std::ranges::for_each(all.entries, print,
                              [&](const entry& e) { return look::row_of(all, e); });
    }
}

void run(const wish& wanted) {
    const bool is_report = wanted.command == "report";
    const bool is_table = wanted.has("issues") || wanted.has("at") || wanted.has("json");
    if ((is_report ? is_table || !wanted.has("out") : wanted.command != "events") ||
        wanted.dirs.empty() || wanted.has("help")) {
        fail("");
    }
    look::symbols names;
    if (wanted.has("symbols")) {
        names.open(wanted.get("symbols"));
    }
    collected all(wanted.dirs, names);
    look::select(all, wanted);
    if (is_report) {
        look::write_page(all, wanted.get("out"));
        std::cout << wanted.get("out") << '\n';
        return;
    }
    if (wanted.has("newest")) {
        std::ranges::reverse(all.entries);
    }
    if (!wanted.number.empty()) {
        print_events(all, wanted);
    } else if (wanted.has("at")) {
        print_log(all, wanted.get("at"));
    } else if (wanted.has("json")) {
        print_json(all, wanted.has("issues"));
    } else if (wanted.has("issues")) {
        look::print_issues(all);
    } else {
        look::print_table(all);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        run(read_arguments(argc, argv));
    } catch (const std::exception& error) {
        std::cerr << (*error.what() == '\0' ? kUsage : "look: " + std::string(error.what()) + "\n");
        return EXIT_FAILURE;
    }
    return std::cout.flush() ? EXIT_SUCCESS : EXIT_FAILURE;
}
