// SPDX-License-Identifier: Apache-2.0

// Shows what phones have collected as a table, as one event or as a page for a browser.

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
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
    R"(usage: events [OPTION...] [N] [DIR...]
       report [OPTION...] [--out FILE] [DIR...]
  --last K          the last K rows
  --since TIME      rows from that time on
  --until TIME      rows up to that time: "2026-11-12", "2026-11-12 14:32" or,
                    before the last row, "2 hours"
  --type T, --package P, --issue ID
                    rows with all of these words
  --newest          newest first
  --symbols DIR     name native frames by the libraries below DIR
only for events:
  --issues          a row an issue, most frequent first
  --at TIME         the log around that time
  --json            an object a line; with N, with its parts
)";

struct wish {
    std::string command;
    look::selection rows;
    std::string number, at, symbols, out;
    std::vector<look::fs::path> dirs;
    std::string default_dir;
    bool issues = false, json = false;
};

std::vector<std::string> words_in(std::string_view text) {
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        words.emplace_back(word);
    }
    return words;
}

void add_words(std::vector<std::string>& words) {
    const std::vector<std::string> more = words_in(optarg);
    words.insert(words.end(), more.begin(), more.end());
}

[[noreturn]] void fail(const std::string& why) {
    throw std::runtime_error(why);
}

size_t read_count(const std::string& text) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != text.npos) {
        fail("'" + text + "' is no number");
    }
    return std::stoul(text);
}

void read_option(wish& wanted, char option) {
    switch (option) {
        case 'l':
            wanted.rows.last = read_count(optarg);
            break;
        case 's':
            wanted.rows.since = optarg;
            break;
        case 'u':
            wanted.rows.until = optarg;
            break;
        case 't':
            add_words(wanted.rows.types);
            break;
        case 'p':
            add_words(wanted.rows.packages);
            break;
        case 'i':
            add_words(wanted.rows.issues);
            break;
        case 'n':
            wanted.rows.newest_first = true;
            break;
        case 'y':
            wanted.symbols = optarg;
            break;
        case 'o':
            wanted.out = optarg;
            break;
        case 'd':
            wanted.default_dir = optarg;
            break;
        case 'I':
            wanted.issues = true;
            break;
        case 'a':
            wanted.at = optarg;
            break;
        case 'j':
            wanted.json = true;
            break;
        default:
            fail("");
    }
}

// "report DIR FILE" and "events N DIR" in either order are older forms.
void read_word(wish& wanted, const std::string& word, bool is_last) {
    const bool is_number = word.find_first_not_of("0123456789") == word.npos;
    if (wanted.command == "events" && is_number && wanted.number.empty()) {
        wanted.number = word;
    } else if (wanted.command == "report" && is_last && !wanted.dirs.empty() &&
               !look::fs::is_directory(word)) {
        wanted.out = word;
    } else {
        wanted.dirs.emplace_back(word);
    }
}

wish read_arguments(int argc, char* argv[]) {
    static const option kOptions[] = {
        {"last", required_argument, nullptr, 'l'},    {"since", required_argument, nullptr, 's'},
        {"until", required_argument, nullptr, 'u'},   {"type", required_argument, nullptr, 't'},
        {"package", required_argument, nullptr, 'p'}, {"issue", required_argument, nullptr, 'i'},
        {"newest", no_argument, nullptr, 'n'},        {"symbols", required_argument, nullptr, 'y'},
        {"out", required_argument, nullptr, 'o'},     {"default", required_argument, nullptr, 'd'},
        {"issues", no_argument, nullptr, 'I'},        {"at", required_argument, nullptr, 'a'},
        {"json", no_argument, nullptr, 'j'},          {}};
    wish wanted;
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        read_option(wanted, static_cast<char>(found));
    }
    if (optind < argc) {
        wanted.command = argv[optind++];
    }
    for (; optind < argc; ++optind) {
        read_word(wanted, argv[optind], optind + 1 == argc);
    }
    if (wanted.dirs.empty() && !wanted.default_dir.empty()) {
        wanted.dirs.emplace_back(wanted.default_dir);
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
    if (as_json) {
        std::cout << look::row_line(all, e, parts) << '\n';
        return;
    }
    for (const auto& [name, text] : look::fields_of(all, e)) {
        std::string title = name;
        std::ranges::transform(title, title.begin(), toupper);
        std::cout << title << ": " << text << '\n';
    }
    print_parts(parts);
}

void print_events(collected& all, const wish& wanted) {
    bool is_found = false;
    for (const entry& e : all.entries) {
        if (e.number != 0 && std::to_string(e.number) == wanted.number) {
            print_event(all, e, wanted.json);
            is_found = true;
        }
    }
    if (!is_found) {
        fail("there is no event " + wanted.number);
    }
}

void print_log(collected& all, const std::string& at) {
    const look::moment time =
        look::read_time(at, all.entries.empty() ? 0 : all.entries.back().time);
    for (size_t i = 0; i < all.phones.size(); ++i) {
        print_parts({{all.phones[i].name + ", " + look::format_moment(time) +
                          ", 10 seconds before and after (A android, K kernel, E event, R radio)",
                      all.log_at(i, time, {}, kPartBytes)}});
    }
}

void print_json(const collected& all, bool issues) {
    if (issues) {
        for (const look::issue& one : all.issues) {
            std::cout << look::issue_line(one) << '\n';
        }
        return;
    }
    for (const entry& e : all.entries) {
        std::cout << look::row_line(all, e) << '\n';
    }
}

void run(const wish& wanted) {
    if ((wanted.command != "events" && wanted.command != "report") || wanted.dirs.empty()) {
        fail("");
    }
    look::symbols names;
    if (!wanted.symbols.empty()) {
        names.open(wanted.symbols);
    }
    collected all(wanted.dirs, names);
    look::select(all, wanted.rows);
    if (wanted.command == "report") {
        look::write_page(all, wanted.out);
        std::cout << wanted.out << '\n';
    } else if (!wanted.number.empty()) {
        print_events(all, wanted);
    } else if (!wanted.at.empty()) {
        print_log(all, wanted.at);
    } else if (wanted.json) {
        print_json(all, wanted.issues);
    } else if (wanted.issues) {
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
