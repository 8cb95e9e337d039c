// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "look/collected.h"

// Rows of the table: which, and how they are written.

namespace look {

// What the options ask for. Words of a selection are all to be found, in any case of letters.
struct selection {
    size_t last = 0;  // the last rows; 0: all
    std::string since = {}, until = {};
    std::string type = {}, package = {}, issue = {};
};

// "2026-11-12", "2026-11-12 14:32", "2026-11-12 14:32:05" or, counted back from `last`, "2 hours"
// (seconds, minutes, days, weeks). `end` asks for the end of that day or minute. Throws
// std::runtime_error for another form.
moment read_time(const std::string& text, moment last, bool end = false);

// Leaves the entries that are asked for, and their issues, counted anew.
void select(collected& all, const selection& wanted);

// Fits the columns to the terminal; writes them in full to anything else.
void print_table(const collected& all);
void print_issues(const collected& all);

// The columns of an entry by their names in JSON, in order and printable, without the empty ones.
std::vector<std::pair<const char*, std::string>> fields_of(const collected& all, const entry& e);

}  // namespace look
