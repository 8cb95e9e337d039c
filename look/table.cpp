// SPDX-License-Identifier: Apache-2.0

#include "look/table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <stdexcept>

#include "look/files.h"

namespace look {

namespace {

constexpr size_t kCellBytes = 512;

// --- Selection ---------------------------------------------------------------------------------

// "2 hours"; 0 when the text has another form.
moment read_span(const std::string& text) {
    static const std::map<std::string, moment> kUnits = {{"second", kSecond},
                                                         {"minute", 60 * kSecond},
                                                         {"hour", 3600 * kSecond},
                                                         {"day", kDay},
                                                         {"week", 7 * kDay}};
    std::istringstream words(text);
    int count = 0;
    std::string name;
    std::string more;
    words >> count >> name >> more;
    const auto unit = kUnits.find(name.substr(0, name.find_last_not_of('s') + 1));
    return unit == kUnits.end() || !more.empty() ? 0 : std::max(0, count) * unit->second;
}

bool holds(const std::string& text, const std::string& words) {
    std::istringstream stream(words);
    for (std::string word; stream >> word;) {
        if (strcasestr(text.c_str(), word.c_str()) == nullptr) {
            return false;
        }
    }
    return true;
}

// --- The table ---------------------------------------------------------------------------------

struct column {
    const char* title;
    size_t max_width;  // what a wider cell has beyond shifts the cells behind it
    size_t min_width;  // what a narrow terminal leaves of it
};

using row = std::vector<std::string>;

size_t width_of(std::string_view text) {
    return std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; });
}

std::string cut(const std::string& text, size_t width) {
    if (width_of(text) <= width) {
        return text;
    }
    size_t bytes = 0;
    for (size_t letters = 0; letters < width; ++bytes) {
        letters += (text[bytes] & 0xC0) != 0x80 ? 1 : 0;
    }
    return width == 0 ? "" : text.substr(0, bytes - 1) + "…";
}

// Columns of the terminal; 0 for anything else, whose lines stay whole.
size_t terminal_width() {
    winsize size{};
    if (isatty(STDOUT_FILENO) == 0) {
        return 0;
    }
    const char* columns = getenv("COLUMNS");
    if (columns != nullptr && atoi(columns) > 0) {
        return atoi(columns);
    }
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::vector<size_t> widths_of(const std::vector<column>& columns, const std::vector<row>& rows) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); ++i) {
        size_t widest = width_of(columns[i].title);
        for (const row& cells : rows) {
            widest = std::max(widest, width_of(cells[i]));
        }
        widths.push_back(std::min(widest, columns[i].max_width));
    }
    return widths;
}

// Narrows the columns from the last to the first until they fit.
void fit(std::vector<size_t>& widths, const std::vector<column>& columns, size_t terminal) {
    size_t used = std::accumulate(widths.begin(), widths.end(), 2 * (widths.size() - 1));
    for (size_t i = widths.size(); i-- > 0 && used > terminal;) {
        const size_t least = std::min(widths[i], columns[i].min_width);
        const size_t less = std::min(widths[i] - least, used - terminal);
        widths[i] -= less;
        used -= less;
    }
}

void print_rows(const std::vector<column>& columns, const std::vector<row>& rows) {
    std::vector<size_t> widths = widths_of(columns, rows);
    const size_t terminal = terminal_width();
    if (terminal != 0) {
        fit(widths, columns, terminal);
    }
    row titles;
    for (const column& one : columns) {
        titles.emplace_back(one.title);
    }
    const auto print = [&](const row& cells) {
        std::string line;
        for (size_t i = 0; i < cells.size(); ++i) {
            const std::string cell = terminal == 0 ? cells[i] : cut(cells[i], widths[i]);
            const size_t width = width_of(cell);
            const std::string pad(widths[i] - std::min(widths[i], width), ' ');
            line += (i == 0 ? pad + cell : "  " + cell + (i + 1 < cells.size() ? pad : ""));
        }
        line.resize(line.find_last_not_of(' ') + 1);
        std::cout << (terminal == 0 ? line : cut(line, terminal)) << '\n';
    };
    print(titles);
    std::ranges::for_each(rows, print);
}

std::string cell(const std::string& text) {
    return printable(text.substr(0, kCellBytes), "");
}

std::string number_of(int number) {
    return number == 0 ? "" : std::to_string(number);
}

std::string damage_of(const entry& e) {
    return e.damage.substr(0, e.damage.size() - std::min<size_t>(2, e.damage.size()));
}

std::string folder_of(const entry& e) {
    const std::string twin = e.twin == 0 ? "" : " [same crash as " + std::to_string(e.twin) + "]";
    const std::string damage = e.damage.empty() ? "" : " [" + damage_of(e) + "]";
    return (e.is_gone ? "gone" : e.name) + twin + damage;
}

}  // namespace

moment read_time(const std::string& text, moment last, bool end) {
    struct form {
        const char* format;
        moment span;
    };
    constexpr form kForms[] = {
        {"%Y-%m-%d", kDay}, {"%Y-%m-%d %H:%M", 60 * kSecond}, {"%Y-%m-%d %H:%M:%S", kSecond}};
    for (const auto& [format, span] : kForms) {
        if (const moment time = parse_moment(text, format); time != 0) {
            return end ? time + span - 1 : time;
        }
    }
    if (const moment span = read_span(text); span != 0) {
        return last - span;
    }
    throw std::runtime_error("'" + text +
                             "' is no time; \"2026-11-12\", \"2026-11-12 14:32\", \"2 hours\" are");
}

void select(collected& all, const selection& wanted) {
    const moment last = all.entries.empty() ? 0 : all.entries.back().time;
    const moment since = wanted.since.empty() ? 0 : read_time(wanted.since, last);
    const moment until = wanted.until.empty() ? INT64_MAX : read_time(wanted.until, last, true);
    std::erase_if(all.entries, [&](const entry& e) {
        return std::max(e.time, e.end) < since || e.time > until || !holds(e.type, wanted.type) ||
               !holds(e.package, wanted.package) || !holds(e.issue, wanted.issue);
    });
    if (wanted.last > 0 && wanted.last < all.entries.size()) {
        all.entries.erase(all.entries.begin(), all.entries.end() - wanted.last);
    }
    std::set<std::string> new_ones;  // in all rows
    for (const issue& one : all.issues) {
        new_ones.insert(one.is_new ? one.id : "");
    }
    all.issues = group(all.entries);
    for (issue& one : all.issues) {
        one.is_new = new_ones.contains(one.id);
    }
}

void print_table(const collected& all) {
    std::vector<column> columns = {{"N", 8, 8},      {"TIME", 19, 19},    {"CATEGORY", 8, 7},
                                   {"TYPE", 16, 12}, {"PACKAGE", 32, 12}, {"LINE", 64, 20},
                                   {"ISSUE", 8, 8},  {"FOLDER", 64, 4}};
    const bool are_several = all.phones.size() > 1;
    if (are_several) {
        columns.insert(columns.begin() + 1, {{"PHONE", 16, 8}, {"BUILD", 24, 8}});
    }
    std::vector<row> rows;
    for (const entry& e : all.entries) {
        const std::string number = number_of(e.number);
        row cells = {number.empty() ? "-" : number,
                     format_moment(e.time),
                     e.category,
                     cell(e.type),
                     cell(e.package),
                     cell(e.line),
                     e.issue,
                     cell(folder_of(e))};
        if (are_several) {
            cells.insert(cells.begin() + 1, {cell(all.phones[e.phone].name), cell(e.build)});
        }
        rows.push_back(std::move(cells));
    }
    print_rows(columns, rows);
}

void print_issues(const collected& all) {
    const std::vector<column> columns = {
        {"ISSUE", 8, 8},  {"COUNT", 6, 5},        {"PHONES", 6, 6},      {"FIRST", 19, 11},
        {"LAST", 19, 11}, {"FIRST BUILD", 24, 8}, {"LAST BUILD", 24, 8}, {"NEW", 3, 3},
        {"TYPE", 16, 9},  {"PACKAGE", 32, 12},    {"LINE", 64, 20}};
    std::vector<row> rows;
    for (const issue& one : all.issues) {
        rows.push_back({one.id, std::to_string(one.count), std::to_string(one.phones),
                        format_moment(one.first), format_moment(one.last), cell(one.first_build),
                        cell(one.last_build), one.is_new ? "new" : "", cell(one.type),
                        cell(one.package), cell(one.line)});
    }
    print_rows(columns, rows);
}

std::vector<std::pair<const char*, std::string>> fields_of(const collected& all, const entry& e) {
    std::vector<std::pair<const char*, std::string>> fields = {
        {"n", number_of(e.number)}, {"phone", all.phones[e.phone].name},
        {"build", e.build},         {"time", e.time == 0 ? "" : format_moment(e.time)},
        {"category", e.category},   {"type", e.type},
        {"package", e.package},     {"line", e.line},
        {"folder", e.name},         {"gone", e.is_gone ? "true" : ""},
        {"damage", damage_of(e)},   {"issue", e.issue},
        {"twin", number_of(e.twin)}};
    std::erase_if(fields, [](const auto& field) { return field.second.empty(); });
    for (auto& [name, text] : fields) {
        text = cell(text);
    }
    return fields;
}

}  // namespace look
