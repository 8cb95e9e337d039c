// SPDX-License-Identifier: Apache-2.0

#include "look/table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <numeric>
#include <set>
#include <sstream>
#include <stdexcept>

#include "look/files.h"

namespace look {

namespace {

using nlohmann::ordered_json;

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
    const char* name;  // in JSON
    size_t max_width;  // what a wider cell has beyond shifts the cells behind it
    size_t min_width;  // what a narrow terminal leaves of it
};

using row = std::vector<std::string>;

// "FIRST BUILD" of "first_build".
std::string title_of(std::string name) {
    std::ranges::transform(name, name.begin(), [](char c) { return c == '_' ? ' ' : toupper(c); });
    return name;
}

std::string text_of(const ordered_json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

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
    const char* columns = getenv("COLUMNS");
    if (isatty(STDOUT_FILENO) == 0) {
        return 0;
    }
    if (columns != nullptr && atoi(columns) > 0) {
        return atoi(columns);
    }
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

std::vector<size_t> widths_of(const std::vector<column>& columns, const std::vector<row>& rows) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); ++i) {
        size_t widest = 0;
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

// `object_of` gives the fields of a row.
void print_rows(const std::vector<column>& columns, const auto& all, auto object_of) {
    std::vector<row> rows(1 + all.size());
    std::ranges::transform(columns, std::back_inserter(rows[0]), title_of, &column::name);
    for (size_t i = 0; i < all.size(); ++i) {
        const ordered_json object = object_of(all[i]);
        for (const column& one : columns) {
            rows[i + 1].push_back(object.contains(one.name) ? text_of(object[one.name]) : "");
        }
    }
    std::vector<size_t> widths = widths_of(columns, rows);
    const size_t terminal = terminal_width();
    if (terminal != 0) {
        fit(widths, columns, terminal);
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
    std::ranges::for_each(rows, print);
}

std::string number_of(int number) {
    return number == 0 ? "" : std::to_string(number);
}

std::string time_of(moment time) {
    return time == 0 ? "" : format_moment(time);
}

// With marks in brackets.
std::string folder_of(const ordered_json& object) {
    std::string text = object.contains("gone") ? "gone" : object.value("folder", "");
    for (const auto& [name, what] : {std::pair("twin", "same crash as "), {"damage", ""}}) {
        text += object.contains(name) ? " [" + (what + object.value(name, "")) + "]" : "";
    }
    return text;
}

size_t read_count(const std::string& text) {
    if (text.size() > 9 || text.find_first_not_of("0123456789") != text.npos) {
        throw std::runtime_error("'" + text + "' is no number of rows");
    }
    return text.empty() ? 0 : std::stoul(text);
}

}  // namespace

moment read_time(const std::string& text, const collected& all, bool end) {
    for (const auto& [format, span] : {std::pair("%Y-%m-%d", kDay),
                                       {"%Y-%m-%d %H:%M", 60 * kSecond},
                                       {"%Y-%m-%d %H:%M:%S", kSecond}}) {
        if (const moment time = parse_moment(text, format); time != 0) {
            return end ? time + span - 1 : time;
        }
    }
    if (const moment span = read_span(text); span != 0) {
        return (all.entries.empty() ? 0 : all.entries.back().time) - span;
    }
    throw std::runtime_error("'" + text +
                             "' is no time; \"2026-11-12\", \"2026-11-12 14:32\", \"2 hours\" are");
}

void select(collected& all, const options& wanted) {
    const auto has = [&](const char* name) { return wanted.has(name); };
    const moment since = has("since") ? read_time(wanted.get("since"), all) : 0;
    const moment until = has("until") ? read_time(wanted.get("until"), all, true) : INT64_MAX;
    const size_t last = read_count(wanted.get("last"));
    std::erase_if(all.entries, [&](const entry& e) {
        return std::max(e.time, e.end) < since || e.time > until ||
               !holds(e.type, wanted.get("type")) || !holds(e.package, wanted.get("package")) ||
               !holds(e.issue, wanted.get("issue"));
    });
    if (last > 0 && last < all.entries.size()) {
        all.entries.erase(all.entries.begin(), all.entries.end() - last);
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

ordered_json compact(const fields& all) {
    ordered_json some = ordered_json::object();
    for (const auto& [name, value] : all) {
        if (value.is_string() && value != "") {
            some[name] = printable(text_of(value).substr(0, kCellBytes), "");
        } else if (!value.is_string() && value != 0 && value != false) {
            some[name] = value;
        }
    }
    return some;
}

ordered_json row_of(const collected& all, const entry& e) {
    return compact({{"n", number_of(e.number)},
                    {"phone", all.phones[e.phone].name},
                    {"build", e.build},
                    {"time", time_of(e.time)},
                    {"category", e.category},
                    {"type", e.type},
                    {"package", e.package},
                    {"line", e.line},
                    {"folder", e.name},
                    {"gone", e.is_gone},
                    {"damage", e.damage.substr(0, e.damage.rfind("; "))},
                    {"issue", e.issue},
                    {"twin", number_of(e.twin)}});
}

ordered_json row_of(const issue& one) {
    return compact({{"id", one.id},
                    {"count", one.count},
                    {"phones", one.phones},
                    {"first", time_of(one.first)},
                    {"last", time_of(one.last)},
                    {"first_build", one.first_build},
                    {"last_build", one.last_build},
                    {"type", one.type},
                    {"package", one.package},
                    {"line", one.line},
                    {"new", one.is_new}});
}

std::string line_of(const ordered_json& value) {
    std::string result;
    for (const char c : value.dump(-1, ' ', false, ordered_json::error_handler_t::replace)) {
        c == '<' ? result += "\\u003c" : result += c;
    }
    return result;
}

void print_fields(const ordered_json& object) {
    for (const auto& [name, value] : object.items()) {
        std::cout << title_of(name) << ": " << text_of(value) << '\n';
    }
}

void print_table(const collected& all) {
    std::vector<column> columns = {{"n", 8, 8},      {"time", 19, 19},    {"category", 8, 7},
                                   {"type", 16, 12}, {"package", 32, 12}, {"line", 64, 20},
                                   {"issue", 8, 8},  {"folder", 64, 4}};
    if (all.phones.size() > 1) {
        columns.insert(columns.begin() + 1, {{"phone", 16, 8}, {"build", 24, 8}});
    }
    print_rows(columns, all.entries, [&](const entry& e) {
        ordered_json object = row_of(all, e);
        object.update({{"n", object.value("n", "-")},
                       {"time", format_moment(e.time)},
                       {"folder", folder_of(object)}});
        return object;
    });
}

void print_issues(const collected& all) {
    const std::vector<column> columns = {
        {"issue", 8, 8},  {"count", 6, 5},        {"phones", 6, 6},      {"first", 19, 11},
        {"last", 19, 11}, {"first_build", 24, 8}, {"last_build", 24, 8}, {"new", 3, 3},
        {"type", 16, 9},  {"package", 32, 12},    {"line", 64, 20}};
    print_rows(columns, all.issues, [](const issue& one) {
        ordered_json object = row_of(one);
        object.update({{"issue", one.id},
                       {"first", format_moment(one.first)},
                       {"last", format_moment(one.last)},
                       {"new", one.is_new ? "new" : ""}});
        return object;
    });
}

}  // namespace look
