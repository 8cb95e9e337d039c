// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <utility>
#include <vector>

#include "look/collected.h"

// Rows of the table: which, and how they are written.

namespace look {

// What is asked for, by name; "" for an option without argument.
struct options {
    std::map<std::string, std::string> given = {};

    bool has(const std::string& name) const { return given.contains(name); }
    std::string get(const std::string& name) const { return has(name) ? given.at(name) : ""; }
};

// "2026-11-12", "2026-11-12 14:32", "2026-11-12 14:32:05" or, counted back from the last entry,
// "2 hours" (seconds, minutes, days, weeks). `end` asks for the end of that day or minute. Throws
// std::runtime_error for another form.
moment read_time(const std::string& text, const collected& all, bool end = false);

// Leaves the entries that "last", "since", "until", "type", "package" and "issue" ask for, and
// their issues, counted anew. All words of a type, package or issue are to be found, in any case of
// letters. Throws std::runtime_error when one cannot be read.
void select(collected& all, const options& wanted);

// An entry and an issue as page.h describes them, without "t", "e" and "stack", and with times as
// text.
nlohmann::ordered_json row_of(const collected& all, const entry& e);
nlohmann::ordered_json row_of(const issue& one);

// An object of these, without what is empty, false or 0; its texts printable, of 512 bytes at most.
using fields = std::vector<std::pair<const char*, nlohmann::ordered_json>>;
nlohmann::ordered_json compact(const fields& all);

// On one line, and safe within an element of a page.
std::string line_of(const nlohmann::ordered_json& value);

// A line a field.
void print_fields(const nlohmann::ordered_json& object);

// Fits the columns to the terminal; writes them in full to anything else.
void print_table(const collected& all);
void print_issues(const collected& all);

}  // namespace look
